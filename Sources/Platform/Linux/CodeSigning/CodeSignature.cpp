#include "Platform/Linux/CodeSigning/CodeSignature.h"

#include <fcntl.h>
#include <openssl/cms.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <array>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "Platform/File.h"
#include "Platform/Linux/CodeSigning/CodeSignatureContent.h"
#include "Platform/Linux/CodeSigning/SmallFile.h"
#include "Platform/SystemPath.h"
#include "Platform/UTF8.h"

namespace quorvane::xpc {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::string_view anchorsPath = "/etc/quorvane/anchors";
/// Read on every admission, so that memory and time stay small whatever was installed.
constexpr std::size_t maxAnchorFiles = 16;
constexpr std::size_t maxAnchorFileSize = std::size_t{64} * 1024;
/// Certificates between the leaf and the anchor; in practice there is none or one.
constexpr int maxIntermediates = 4;
/// 112 bits: RSA from 2048 bits on, and no SHA-1 or MD5 in any certificate
/// (SSL_CTX_set_security_level(3) lists the levels).
constexpr int authenticationLevel = 2;
constexpr std::size_t hashChunkSize = std::size_t{64} * 1024;

template <auto release>
struct Release {
  template <typename Object>
  void operator()(Object* object) const {
    release(object);
  }
};

/// Owns an object of libcrypto that `release` frees: OpenSSLPointer<X509, X509_free>.
template <typename Object, auto release>
using OpenSSLPointer = std::unique_ptr<Object, Release<release>>;

void releaseCertificates(STACK_OF(X509) * certificates) {
  sk_X509_pop_free(certificates, X509_free);
}

/// No handler at exit, because threads may still verify while the process ends; and no
/// configuration, because neither a file nor the environment is to change what is accepted. Holds
/// only if nothing in the process has used libcrypto before.
void initialiseLibcrypto() {
  [[maybe_unused]] static const int done =
      OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT | OPENSSL_INIT_NO_LOAD_CONFIG, nullptr);
}

std::string_view textOf(const ASN1_STRING& string) {
  const void* const bytes = ASN1_STRING_get0_data(&string);
  return {static_cast<const char*>(bytes), static_cast<std::size_t>(ASN1_STRING_length(&string))};
}

/// DER has one encoding of a value, so what encodes to other bytes was not DER or has something
/// behind it.
bool isEncodingOf(const CMS_ContentInfo& cms, const Bytes& encoding) {
  const int length = i2d_CMS_ContentInfo(&cms, nullptr);
  if (length < 0 || static_cast<std::size_t>(length) != encoding.size()) return false;
  Bytes encoded(encoding.size());
  std::uint8_t* next = encoded.data();
  return i2d_CMS_ContentInfo(&cms, &next) == length && encoded == encoding;
}

void addCertificates(const Bytes& pem, X509_STORE& store) {
  const OpenSSLPointer<BIO, BIO_free> source(
      BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  // Without a callback, libcrypto would ask the terminal for the passphrase of an encrypted block.
  const auto noPassphrase = [](char*, int, int, void*) { return -1; };
  while (source) {
    const OpenSSLPointer<X509, X509_free> certificate(
        PEM_read_bio_X509(source.get(), nullptr, noPassphrase, nullptr));
    if (!certificate || X509_STORE_add_cert(&store, certificate.get()) != 1) return;
  }
}

/// The subject's only organisational unit, of one of the two types that RFC 5280, 4.1.2.4 asks for.
std::optional<std::string> organizationalUnitOf(const X509& certificate) {
  const X509_NAME* subject = X509_get_subject_name(&certificate);
  const int index = X509_NAME_get_index_by_NID(subject, NID_organizationalUnitName, -1);
  if (index < 0) return std::nullopt;
  if (X509_NAME_get_index_by_NID(subject, NID_organizationalUnitName, index) >= 0) {
    return std::nullopt;
  }
  const ASN1_STRING* value = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index));
  const int type = ASN1_STRING_type(value);
  if (type != V_ASN1_UTF8STRING && type != V_ASN1_PRINTABLESTRING) return std::nullopt;
  std::string unit(textOf(*value));
  if (unit.find('\0') != std::string::npos || !isValidUTF8(unit)) return std::nullopt;
  return unit;
}

/// SHA-256 of the first `size` bytes as hexadecimal digits; empty when they cannot all be read.
std::string sha256Of(int file, std::uint64_t size) {
  const OpenSSLPointer<EVP_MD_CTX, EVP_MD_CTX_free> digest(EVP_MD_CTX_new());
  if (!digest || EVP_DigestInit_ex(digest.get(), EVP_sha256(), nullptr) != 1) return {};
  Bytes chunk(hashChunkSize);
  for (std::uint64_t offset = 0; offset < size; offset += chunk.size()) {
    if (size - offset < chunk.size()) chunk.resize(static_cast<std::size_t>(size - offset));
    if (readAt(file, chunk, static_cast<off_t>(offset)) != chunk.size()) return {};
    if (EVP_DigestUpdate(digest.get(), chunk.data(), chunk.size()) != 1) return {};
  }
  std::array<std::uint8_t, 32> value{};
  if (EVP_DigestFinal_ex(digest.get(), value.data(), nullptr) != 1) return {};
  constexpr std::string_view hexDigits = "0123456789abcdef";
  std::string hex;
  for (const std::uint8_t byte : value) {
    hex += hexDigits[byte >> 4];
    hex += hexDigits[byte & 0xF];
  }
  return hex;
}

/// One verification: each step relies on those before it, and the first that fails names the
/// reason. Cheap steps come first; the executable is hashed for nobody but a signer that an anchor
/// vouches for.
class Verification {
 public:
  explicit Verification(int opened) : executable(opened) {}

  CodeSignatureResult run(const Bytes& signature) {
    const bool verified = decode(signature) && findSigner() && leafMaySignCode() &&
                          chainEndsAtAnchor() && signatureIsGood() && parseContent() &&
                          contentIsOfExecutable();
    if (!verified) return CodeSignatureRefusal{reason};
    return CodeIdentity{content.identifier, organizationalUnitOf(*leaf)};
  }

 private:
  bool refuse(std::string why) {
    reason = std::move(why);
    return false;
  }

  bool decode(const Bytes& signature) {
    const std::uint8_t* next = signature.data();
    cms.reset(d2i_CMS_ContentInfo(nullptr, &next, static_cast<long>(signature.size())));
    if (!cms || OBJ_obj2nid(CMS_get0_type(cms.get())) != NID_pkcs7_signed ||
        OBJ_obj2nid(CMS_get0_eContentType(cms.get())) != NID_pkcs7_data ||
        !isEncodingOf(*cms, signature)) {
      return refuse("the signature is not a CMS SignedData in DER");
    }
    const ASN1_OCTET_STRING* const* enclosed = CMS_get0_content(cms.get());
    if (enclosed == nullptr || *enclosed == nullptr) {
      return refuse("the signature does not enclose its content");
    }
    return true;
  }

  /// Also holds the signature to SHA-256, whatever libcrypto would still accept.
  bool findSigner() {
    STACK_OF(CMS_SignerInfo)* const signers = CMS_get0_SignerInfos(cms.get());
    if (sk_CMS_SignerInfo_num(signers) != 1) {
      return refuse("the signature has not exactly one signer");
    }
    if (CMS_set1_signers_certs(cms.get(), nullptr, 0) != 1) {
      return refuse("the signature does not enclose its signer's certificate");
    }
    X509_ALGOR* digest = nullptr;
    CMS_SignerInfo_get0_algs(sk_CMS_SignerInfo_value(signers, 0), nullptr, &leaf, &digest, nullptr);
    const ASN1_OBJECT* algorithm = nullptr;
    X509_ALGOR_get0(&algorithm, nullptr, nullptr, digest);
    if (OBJ_obj2nid(algorithm) != NID_sha256) return refuse("the signature is not over SHA-256");
    return true;
  }

  /// libcrypto has no purpose for code signing before 3.2. For an extension that is absent, the
  /// getters yield all bits.
  bool leafMaySignCode() {
    const std::uint32_t present = X509_get_extension_flags(leaf);
    if ((present & EXFLAG_XKUSAGE) == 0 ||
        (X509_get_extended_key_usage(leaf) & XKU_CODE_SIGN) == 0) {
      return refuse("the certificate is not for code signing");
    }
    if ((present & EXFLAG_KUSAGE) == 0 || (X509_get_key_usage(leaf) & KU_DIGITAL_SIGNATURE) == 0) {
      return refuse("the certificate is not for digital signatures");
    }
    return true;
  }

  /// Only the enclosed certificates and the anchors build the chain, and it must end at a
  /// self-signed anchor; revocation lists are not looked at.
  bool chainEndsAtAnchor() {
    const OpenSSLPointer<X509_STORE, X509_STORE_free> anchors(X509_STORE_new());
    const OpenSSLPointer<STACK_OF(X509), releaseCertificates> enclosed(CMS_get1_certs(cms.get()));
    const OpenSSLPointer<X509_STORE_CTX, X509_STORE_CTX_free> chain(X509_STORE_CTX_new());
    if (!anchors || !chain ||
        X509_STORE_CTX_init(chain.get(), anchors.get(), leaf, enclosed.get()) != 1) {
      return refuse("out of memory");
    }
    if (!loadAnchors(*anchors)) return false;
    X509_VERIFY_PARAM* const rules = X509_STORE_CTX_get0_param(chain.get());
    X509_VERIFY_PARAM_set_purpose(rules, X509_PURPOSE_ANY);  // leafMaySignCode() has judged it
    X509_VERIFY_PARAM_set_auth_level(rules, authenticationLevel);
    X509_VERIFY_PARAM_set_depth(rules, maxIntermediates);
    X509_VERIFY_PARAM_set_flags(rules, X509_V_FLAG_X509_STRICT);
    if (X509_verify_cert(chain.get()) == 1) return true;
    const int error = X509_STORE_CTX_get_error(chain.get());
    return refuse(std::string("the certificate chain: ") + X509_verify_cert_error_string(error));
  }

  /// Every certificate in the anchor files, up to the first block of a file that is none.
  bool loadAnchors(X509_STORE& store) {
    using std::filesystem::directory_iterator;
    std::size_t fileCount = 0;
    std::error_code error;
    for (directory_iterator entry(systemPath(anchorsPath), error); entry != directory_iterator();
         entry.increment(error)) {
      if (entry->path().extension() != ".pem") continue;
      if (++fileCount > maxAnchorFiles) return refuse("too many anchors are installed");
      addCertificates(readSmallFile(entry->path(), maxAnchorFileSize).bytes, store);
    }
    return true;
  }

  bool signatureIsGood() {
    if (CMS_verify(cms.get(), nullptr, nullptr, nullptr, nullptr, CMS_NO_SIGNER_CERT_VERIFY) == 1) {
      return true;
    }
    return refuse("the signature does not match its content");
  }

  bool parseContent() {
    auto parsed = CodeSignatureContent::parse(textOf(**CMS_get0_content(cms.get())));
    if (!parsed) return refuse("the content is not identifier, size and sha256");
    content = std::move(*parsed);
    return true;
  }

  bool contentIsOfExecutable() {
    struct stat status {};
    if (fstat(executable, &status) != 0 ||
        static_cast<std::uint64_t>(status.st_size) != content.size) {
      return refuse("the executable is not of the signed size");
    }
    if (sha256Of(executable, content.size) != content.sha256) {
      return refuse("the executable is not the signed one");
    }
    return true;
  }

  const int executable;
  OpenSSLPointer<CMS_ContentInfo, CMS_ContentInfo_free> cms;
  X509* leaf = nullptr;  // owned by cms
  CodeSignatureContent content;
  std::string reason;
};

}  // namespace

CodeSignatureResult verifyCodeSignature(int executable) {
  // A path that no longer leads to the executable does no harm: what is found there must still be a
  // signature of the opened file.
  std::error_code error;
  const std::filesystem::path path =
      std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(executable), error);
  if (error || !path.is_absolute()) return CodeSignatureRefusal{"the executable has no path"};
  const SmallFile file = readSmallFile(path.string() + ".codesign", maxSignatureSize, O_NOFOLLOW);
  if (file.problem != nullptr) {
    return CodeSignatureRefusal{std::string("the signature ") + file.problem};
  }
  initialiseLibcrypto();
  CodeSignatureResult result = Verification(executable).run(file.bytes);
  ERR_clear_error();
  return result;
}

}  // namespace quorvane::xpc
