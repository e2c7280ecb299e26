// Signing identities, made by the openssl command: valid ones, and ones with a chosen fault. Their
// files are in the current TemporaryRoot and are removed with it.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>
#include <utility>

namespace quorvane::test {

/// Runs a shell command. Returns its wait status and its standard output.
inline std::pair<int, std::string> run(const std::string& command) {
  std::FILE* const pipe = popen(command.c_str(), "r");
  std::string output;
  for (int byte = 0; (byte = std::fgetc(pipe)) != EOF;) output += static_cast<char>(byte);
  return {pclose(pipe), output};
}

/// Runs a shell command that must succeed. Returns its standard output.
inline std::string shell(const std::string& command) {
  const auto [status, output] = run(command);
  if (status != 0) throw std::runtime_error("failed: " + command);
  return output;
}

inline const std::string p256 = "ec -pkeyopt ec_paramgen_curve:P-256";

/// The properties of a certificate. The defaults make a leaf that the helper admits.
struct CertificateOptions {
  std::string units = "/OU=X4TQ8RW2ZN";
  std::string extensions = "keyUsage=digitalSignature\nextendedKeyUsage=codeSigning";
  std::string key = p256;
  int days = 1;
};

inline const CertificateOptions authority{
    .extensions = "basicConstraints=critical,CA:TRUE\nkeyUsage=keyCertSign"};

/// A folder with a key and, in leaf.pem, the certificates up to the root. The folder's name is the
/// certificate's common name.
class SigningIdentity {
 public:
  static SigningIdentity makeRoot() { return {authority, nullptr}; }
  [[nodiscard]] SigningIdentity issue(const CertificateOptions& options = {}) const {
    return {options, this};
  }

  /// Adds this root to the system root's anchors.
  void installAnchor(const std::string& systemRoot) const {
    const std::string anchors = systemRoot + "/etc/quorvane/anchors/";
    shell("mkdir -p " + anchors + " && cp " + folder + "/leaf.pem " + anchors +
          folder.substr(folder.rfind('.') + 1) + ".pem");
  }
  /// Writes `<executable>.codesign` with quorvane-codesign.
  void signExecutable(const std::string& executable, const std::string& identifier) const {
    shell(PROGRAMS_FOLDER "/quorvane-codesign sign --identity " + folder + " --identifier " +
          identifier + " " + executable);
  }
  /// The arguments of `openssl cms` that select this identity.
  [[nodiscard]] std::string signer() const {
    return " -signer " + folder + "/leaf.pem -inkey " + folder + "/leaf.key";
  }

 private:
  SigningIdentity(const CertificateOptions& options, const SigningIdentity* issuer)
      : folder(std::string(std::getenv("QUORVANE_ROOT")) + "/identity.XXXXXX") {
    if (mkdtemp(folder.data()) == nullptr) throw std::runtime_error("no folder " + folder);
    std::ofstream(folder + "/config") << "[req]\ndistinguished_name = req\n[extensions]\n"
                                         "subjectKeyIdentifier = hash\n"
                                         "authorityKeyIdentifier = keyid\n"
                                      << options.extensions << '\n';
    const std::string by = issuer ? "-CA $i/leaf.pem -CAkey $i/leaf.key" : "-signkey leaf.key";
    shell("cd " + folder + " && i=" + (issuer ? issuer->folder : "") +
          " && openssl req -new -config config -nodes -keyout leaf.key -out csr -newkey " +
          options.key + " -subj " + options.units +
          "/CN=${PWD##*/} 2>log && openssl x509 -req -in csr " + by + " -days " +
          std::to_string(options.days) + " -out leaf.pem -extfile config" +
          " -extensions extensions 2>>log" + (issuer ? " && cat $i/leaf.pem >>leaf.pem" : ""));
  }

  std::string folder;
};

}  // namespace quorvane::test
