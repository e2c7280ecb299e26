// Makes certificates and code signatures inside the process: good ones, and ones with a chosen
// fault. Nothing is kept on disk but what is asked for.
#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace quorvane::test {

using Bytes = std::vector<std::uint8_t>;

/// What a certificate is made with; as they stand, a leaf that the helper admits. Extensions are
/// given as in openssl's configuration, null for none.
struct CertificateOptions {
  std::vector<std::string> organizationalUnits{"X4TQ8RW2ZN"};
  std::chrono::seconds validFrom = -std::chrono::hours(1);  // counted from now
  std::chrono::seconds validUntil = std::chrono::hours(1);
  const char* basicConstraints = "critical,CA:FALSE";
  const char* keyUsage = "critical,digitalSignature";
  const char* extendedKeyUsage = "codeSigning";
  unsigned rsaBits = 0;  // 0: ECDSA on P-256
};

class SigningIdentity;

/// How a content is signed; flags are those of CMS_sign.
struct SigningOptions {
  const char* digest = "SHA256";
  unsigned flags = 0;
  const SigningIdentity* secondSigner = nullptr;
};

/// A certificate with its key, and the intermediates up to the root. Every root and every leaf has
/// the same name, so that only keys and signatures tell them apart.
class SigningIdentity {
 public:
  static SigningIdentity makeRoot();
  SigningIdentity issue(const CertificateOptions& options = {}) const;

  /// Makes this root an anchor of the system root given, beside those already there.
  void installAnchor(const std::filesystem::path& systemRoot) const;

  /// A CMS SignedData over the content.
  Bytes sign(std::string_view content, const SigningOptions& options = {}) const;
  /// Writes `<executable>.codesign`.
  void signExecutable(const std::filesystem::path& executable, std::string_view identifier) const;

 private:
  SigningIdentity(const CertificateOptions& options, const SigningIdentity* issuer);

  std::shared_ptr<EVP_PKEY> key;
  std::shared_ptr<X509> certificate;
  std::vector<std::shared_ptr<X509>> intermediates;
  bool isRoot;
};

/// The three lines that a signature of the executable signs.
std::string signatureContent(const std::filesystem::path& executable, std::string_view identifier);

Bytes readFile(const std::filesystem::path& path);
void writeFile(const std::filesystem::path& path, const Bytes& bytes);

}  // namespace quorvane::test
