// Certificates and code signatures by the openssl command: good ones, and ones with a chosen fault.
// Their files lie in the TemporaryRoot of the moment and go with it.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>

namespace quorvane::test {

/// The standard output of a command that must succeed.
inline std::string shell(const std::string& command) {
  std::FILE* const pipe = popen(command.c_str(), "r");
  std::string output;
  for (int byte = 0; (byte = std::fgetc(pipe)) != EOF;) output += static_cast<char>(byte);
  if (pclose(pipe) != 0) throw std::runtime_error("failed: " + command);
  return output;
}

/// The three lines that a signature of the executable signs.
inline std::string signatureContent(const std::string& executable, const std::string& identifier) {
  return shell("printf 'identifier: %s\nsize: %s\nsha256: %s\n' " + identifier + " $(stat -c %s " +
               executable + ") $(openssl dgst -sha256 -r " + executable + " | cut -c -64)");
}

/// What a certificate is made with; as it stands, a leaf that the helper admits.
struct CertificateOptions {
  std::string units = "/OU=X4TQ8RW2ZN";
  std::string extensions = "keyUsage=digitalSignature\nextendedKeyUsage=codeSigning";
  std::string key = "ec -pkeyopt ec_paramgen_curve:P-256";
  int days = 1;
};

inline const CertificateOptions authority{
    .extensions = "basicConstraints=critical,CA:TRUE\nkeyUsage=keyCertSign"};

/// A folder of the certificate, its key and the certificates of its issuers up to the root. Its
/// name is also the certificate's.
class SigningIdentity {
 public:
  static SigningIdentity makeRoot() { return {authority, nullptr}; }
  [[nodiscard]] SigningIdentity issue(const CertificateOptions& options = {}) const {
    return {options, this};
  }

  /// Makes this root an anchor, beside those already there.
  void installAnchor(const std::string& systemRoot) const {
    const std::string anchors = systemRoot + "/etc/quorvane/anchors/";
    shell("mkdir -p " + anchors + " && cp " + folder + "/certificate " + anchors +
          folder.substr(folder.rfind('.') + 1) + ".pem");
  }
  /// A CMS SignedData over the content; the arguments are those of `openssl cms -sign`.
  [[nodiscard]] std::string sign(const std::string& content,
                                 const std::string& arguments = "-nodetach") const {
    return shell("printf %s '" + content + "' | openssl cms -sign -binary -outform DER -certfile " +
                 folder + "/issuers" + signer() + " " + arguments);
  }
  /// Writes `<executable>.codesign`.
  void signExecutable(const std::string& executable, const std::string& identifier) const {
    std::ofstream(executable + ".codesign") << sign(signatureContent(executable, identifier));
  }
  /// The arguments that make openssl sign with this identity.
  [[nodiscard]] std::string signer() const {
    return " -signer " + folder + "/certificate -inkey " + folder + "/key";
  }

 private:
  SigningIdentity(const CertificateOptions& options, const SigningIdentity* issuer)
      : folder(std::string(std::getenv("QUORVANE_ROOT")) + "/identity.XXXXXX") {
    if (mkdtemp(folder.data()) == nullptr) throw std::runtime_error("no folder " + folder);
    std::ofstream(folder + "/config") << "[req]\ndistinguished_name = req\n[extensions]\n"
                                         "subjectKeyIdentifier = hash\n"
                                         "authorityKeyIdentifier = keyid\n"
                                      << options.extensions << '\n';
    const std::string by = issuer ? "-CA $i/certificate -CAkey $i/key" : "-signkey key";
    shell("cd " + folder + " && i=" + (issuer ? issuer->folder : "") +
          " && openssl req -new -config config -nodes -keyout key -out csr -newkey " + options.key +
          " -subj " + options.units + "/CN=${PWD##*/} 2>log && openssl x509 -req -in csr " + by +
          " -days " + std::to_string(options.days) + " -out certificate -extfile config" +
          " -extensions extensions 2>>log && touch issuers" +
          (issuer ? " && cat $i/certificate $i/issuers >issuers" : ""));
  }

  std::string folder;
};

}  // namespace quorvane::test
