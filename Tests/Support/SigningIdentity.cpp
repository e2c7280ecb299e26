#include "Support/SigningIdentity.h"

#include <openssl/cms.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <array>
#include <cctype>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "Platform/Linux/XPC/OpenSSLPointer.h"

namespace quorvane::test {
namespace {

template <typename Result>
Result must(Result result) {
  if (!result) throw std::runtime_error("libcrypto failed");
  return result;
}

void addToName(X509_NAME* name, int attribute, std::string_view value) {
  const std::string text(value);
  const auto* bytes = static_cast<const unsigned char*>(static_cast<const void*>(text.data()));
  must(X509_NAME_add_entry_by_NID(name, attribute, MBSTRING_UTF8, bytes,
                                  static_cast<int>(text.size()), -1, 0));
}

void addExtension(X509* certificate, X509* issuer, int extension, const char* value) {
  if (value == nullptr) return;
  X509V3_CTX context{};
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  const OpenSSLPointer<X509_EXTENSION, X509_EXTENSION_free> made(
      must(X509V3_EXT_conf_nid(nullptr, &context, extension, value)));
  must(X509_add_ext(certificate, made.get(), -1));
}

}  // namespace

SigningIdentity::SigningIdentity(const CertificateOptions& options, const SigningIdentity* issuer)
    : key(must(options.rsaBits > 0 ? EVP_RSA_gen(options.rsaBits) : EVP_EC_gen("P-256")),
          EVP_PKEY_free),
      certificate(must(X509_new()), X509_free),
      isRoot(issuer == nullptr) {
  X509* const made = certificate.get();
  X509* const issuedBy = isRoot ? made : issuer->certificate.get();
  std::int32_t serial = 0;
  must(RAND_bytes(static_cast<unsigned char*>(static_cast<void*>(&serial)), 3));
  must(X509_set_version(made, X509_VERSION_3));
  must(ASN1_INTEGER_set(X509_get_serialNumber(made), serial));
  must(X509_gmtime_adj(X509_getm_notBefore(made), options.validFrom.count()));
  must(X509_gmtime_adj(X509_getm_notAfter(made), options.validUntil.count()));
  for (const std::string& unit : options.organizationalUnits) {
    addToName(X509_get_subject_name(made), NID_organizationalUnitName, unit);
  }
  addToName(X509_get_subject_name(made), NID_commonName, isRoot ? "Test root" : "Test leaf");
  must(X509_set_issuer_name(made, X509_get_subject_name(issuedBy)));
  must(X509_set_pubkey(made, key.get()));
  addExtension(made, issuedBy, NID_subject_key_identifier, "hash");
  if (!isRoot) addExtension(made, issuedBy, NID_authority_key_identifier, "keyid");
  addExtension(made, issuedBy, NID_basic_constraints, options.basicConstraints);
  addExtension(made, issuedBy, NID_key_usage, options.keyUsage);
  addExtension(made, issuedBy, NID_ext_key_usage, options.extendedKeyUsage);
  must(X509_sign(made, isRoot ? key.get() : issuer->key.get(), EVP_sha256()));
  if (issuer == nullptr || issuer->isRoot) return;
  intermediates = issuer->intermediates;
  intermediates.push_back(issuer->certificate);
}

SigningIdentity SigningIdentity::makeRoot() {
  CertificateOptions options;
  options.organizationalUnits.clear();
  options.basicConstraints = "critical,CA:TRUE";
  options.keyUsage = "critical,keyCertSign";
  options.extendedKeyUsage = nullptr;
  return {options, nullptr};
}

SigningIdentity SigningIdentity::issue(const CertificateOptions& options) const {
  return {options, this};
}

void SigningIdentity::installAnchor(const std::filesystem::path& systemRoot) const {
  const std::filesystem::path folder = systemRoot / "etc/quorvane/anchors";
  std::filesystem::create_directories(folder);
  const auto serial = ASN1_INTEGER_get(X509_get0_serialNumber(certificate.get()));
  const std::string name = std::to_string(serial) + ".pem";
  const OpenSSLPointer<BIO, BIO_free> file(must(BIO_new_file((folder / name).c_str(), "w")));
  must(PEM_write_bio_X509(file.get(), certificate.get()));
}

Bytes SigningIdentity::sign(std::string_view content, const SigningOptions& options) const {
  constexpr unsigned always = CMS_BINARY | CMS_PARTIAL | CMS_NOSMIMECAP;
  const unsigned flags = options.flags | always;
  const EVP_MD* digest = must(EVP_get_digestbyname(options.digest));
  const OpenSSLPointer<BIO, BIO_free> source(
      must(BIO_new_mem_buf(content.data(), static_cast<int>(content.size()))));
  const OpenSSLPointer<CMS_ContentInfo, CMS_ContentInfo_free> cms(
      must(CMS_sign(nullptr, nullptr, nullptr, nullptr, flags)));
  must(CMS_add1_signer(cms.get(), certificate.get(), key.get(), digest, flags));
  if (const SigningIdentity* second = options.secondSigner) {
    must(CMS_add1_signer(cms.get(), second->certificate.get(), second->key.get(), digest, flags));
  }
  for (const auto& intermediate : intermediates) must(CMS_add1_cert(cms.get(), intermediate.get()));
  const OpenSSLPointer<BIO, BIO_free> encoded(must(BIO_new(BIO_s_mem())));
  if ((flags & CMS_STREAM) == 0) must(CMS_final(cms.get(), source.get(), nullptr, flags));
  must(i2d_CMS_bio_stream(encoded.get(), cms.get(), source.get(), static_cast<int>(flags)));
  const std::uint8_t* bytes = nullptr;
  const auto size = must(BIO_get_mem_data(encoded.get(), &bytes));
  return {bytes, bytes + size};
}

void SigningIdentity::signExecutable(const std::filesystem::path& executable,
                                     std::string_view identifier) const {
  writeFile(executable.string() + ".codesign", sign(signatureContent(executable, identifier)));
}

std::string signatureContent(const std::filesystem::path& executable, std::string_view identifier) {
  const Bytes bytes = readFile(executable);
  std::array<std::uint8_t, 32> digest{};
  must(EVP_Digest(bytes.data(), bytes.size(), digest.data(), nullptr, EVP_sha256(), nullptr));
  std::array<char, 65> hex{};
  must(OPENSSL_buf2hexstr_ex(hex.data(), hex.size(), nullptr, digest.data(), digest.size(), '\0'));
  for (char& digit : hex) digit = static_cast<char>(std::tolower(digit));
  return std::string("identifier: ").append(identifier) +
         "\nsize: " + std::to_string(bytes.size()) + "\nsha256: " + hex.data() + "\n";
}

Bytes readFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  file.exceptions(std::ios::failbit | std::ios::badbit);
  return {std::istreambuf_iterator<char>(file), {}};
}

void writeFile(const std::filesystem::path& path, const Bytes& bytes) {
  std::ofstream file(path, std::ios::binary);
  file.exceptions(std::ios::failbit | std::ios::badbit);
  for (const std::uint8_t byte : bytes) file.put(static_cast<char>(byte));
  file.close();
}

}  // namespace quorvane::test
