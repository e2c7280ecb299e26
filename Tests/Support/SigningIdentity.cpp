#include "Support/SigningIdentity.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace quorvane::test {

// Beside the certificate and its key, the folder keeps those of its issuers up to the root. The
// name of the folder is also the certificate's.
SigningIdentity::SigningIdentity(const CertificateOptions& options, const SigningIdentity* issuer)
    : folder(std::string(std::getenv("QUORVANE_ROOT")) + "/identity.XXXXXX") {
  if (mkdtemp(folder.data()) == nullptr) throw std::runtime_error("no folder " + folder);
  std::ofstream(folder + "/config") << "[req]\ndistinguished_name = req\n[extensions]\n"
                                       "subjectKeyIdentifier = hash\n"
                                       "authorityKeyIdentifier = keyid\n"
                                    << options.extensions << '\n';
  std::string subject;
  for (const std::string& unit : options.organizationalUnits) subject += "/OU=" + unit;
  const std::string by = issuer ? "-CA $i/certificate -CAkey $i/key" : "-signkey key";
  shell("cd " + folder + " && i=" + (issuer ? issuer->folder : "") +
        " && openssl req -new -config config -nodes -keyout key -out csr -newkey " + options.key +
        " -subj " + subject + "/CN=${PWD##*/} 2>log && openssl x509 -req -in csr " + by +
        " -days " + std::to_string(options.days) +
        " -out certificate -extfile config -extensions extensions" + " 2>>log && touch issuers");
  if (issuer) shell("cd " + issuer->folder + " && cat certificate issuers >" + folder + "/issuers");
}

void SigningIdentity::installAnchor(const std::filesystem::path& systemRoot) const {
  const std::filesystem::path anchors = systemRoot / "etc/quorvane/anchors";
  std::filesystem::create_directories(anchors);
  std::filesystem::copy(folder + "/certificate",
                        anchors / (folder.substr(folder.size() - 6) + ".pem"));
}

std::string SigningIdentity::signer() const {
  return " -signer " + folder + "/certificate -inkey " + folder + "/key";
}

std::string SigningIdentity::sign(const std::string& content, const std::string& arguments) const {
  return shell("printf %s '" + content + "' | openssl cms -sign -binary -outform DER -certfile " +
               folder + "/issuers" + signer() + " " + arguments);
}

void SigningIdentity::signExecutable(const std::string& executable,
                                     const std::string& identifier) const {
  std::ofstream(executable + ".codesign") << sign(signatureContent(executable, identifier));
}

std::string signatureContent(const std::string& executable, const std::string& identifier) {
  return shell("printf 'identifier: %s\nsize: %s\nsha256: %s\n' " + identifier + " $(stat -c %s " +
               executable + ") $(openssl dgst -sha256 -r " + executable + " | cut -c -64)");
}

std::string shell(const std::string& command) {
  std::FILE* const pipe = popen(command.c_str(), "r");
  std::string output;
  for (int byte = 0; (byte = std::fgetc(pipe)) != EOF;) output += static_cast<char>(byte);
  if (pclose(pipe) != 0) throw std::runtime_error("failed: " + command);
  return output;
}

}  // namespace quorvane::test
