// Certificates and code signatures by the openssl command: good ones, and ones with a chosen fault.
// Their files lie in the TemporaryRoot of the moment and go with it.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace quorvane::test {

/// What a certificate is made with; as it stands, a leaf that the helper admits.
struct CertificateOptions {
  std::vector<std::string> organizationalUnits{"X4TQ8RW2ZN"};
  std::string extensions = "keyUsage=digitalSignature\nextendedKeyUsage=codeSigning";
  std::string key = "ec -pkeyopt ec_paramgen_curve:P-256";
  int days = 1;
};

inline const CertificateOptions authority{
    .extensions = "basicConstraints=critical,CA:TRUE\nkeyUsage=keyCertSign"};

class SigningIdentity {
 public:
  static SigningIdentity makeRoot() { return {authority, nullptr}; }
  SigningIdentity issue(const CertificateOptions& options = {}) const { return {options, this}; }

  /// Makes this root an anchor, beside those already there.
  void installAnchor(const std::filesystem::path& systemRoot) const;
  /// A CMS SignedData over the content; the arguments are those of `openssl cms -sign`.
  std::string sign(const std::string& content, const std::string& arguments = "-nodetach") const;
  /// Writes `<executable>.codesign`.
  void signExecutable(const std::string& executable, const std::string& identifier) const;
  /// The arguments that make openssl sign with this identity.
  std::string signer() const;

 private:
  SigningIdentity(const CertificateOptions& options, const SigningIdentity* issuer);

  std::string folder;
};

/// The three lines that a signature of the executable signs.
std::string signatureContent(const std::string& executable, const std::string& identifier);

/// The standard output of a command that must succeed.
std::string shell(const std::string& command);

}  // namespace quorvane::test
