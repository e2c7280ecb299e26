#include "Platform/Linux/CodeSigning/Verification.h"

#include <fcntl.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <map>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

#include "Platform/Linux/CodeSigning/Libcrypto.h"
#include "Platform/Linux/CodeSigning/RegularFile.h"
#include "Platform/Linux/CodeSigning/SignatureContent.h"
#include "Platform/SystemPath.h"
#include "Platform/UTF8.h"

namespace quorvane::codesigning {
namespace {

/// Limits the memory and time of an admission, which reads all anchor files.
constexpr std::size_t maxAnchorFiles = 16;
/// Certificates between the leaf and the anchor; in practice none or one.
constexpr int maxIntermediates = 4;
/// 112 bits: RSA of at least 2048 bits, and no SHA-1 or MD5 in any certificate
/// (SSL_CTX_set_security_level(3) lists the levels).
constexpr int authenticationLevel = 2;
/// Authentication level 2 alone would accept P-224.
constexpr int minEllipticCurveBits = 256;

void releaseCertificates(STACK_OF(X509) * certificates) {
  sk_X509_pop_free(certificates, X509_free);
}

std::string_view textOf(const ASN1_STRING& string) {
  const void* const bytes = ASN1_STRING_get0_data(&string);
  return {static_cast<const char*>(bytes), static_cast<std::size_t>(ASN1_STRING_length(&string))};
}

/// Returns the subject's only organisational unit, if it has one of the two types that RFC 5280,
/// 4.1.2.4 asks for.
std::optional<std::string> organizationalUnitOf(const X509& certificate) {
  const X509_NAME* subject = X509_get_subject_name(&certificate);
  const int index = X509_NAME_get_index_by_NID(subject, NID_organizationalUnitName, -1);
  const int next = X509_NAME_get_index_by_NID(subject, NID_organizationalUnitName, index);
  if (index < 0 || next >= 0) return std::nullopt;
  const ASN1_STRING* value = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index));
  const int type = ASN1_STRING_type(value);
  if (type != V_ASN1_UTF8STRING && type != V_ASN1_PRINTABLESTRING) return std::nullopt;
  std::string unit(textOf(*value));
  const auto isControl = [](unsigned char byte) { return byte < 0x20 || byte == 0x7F; };
  if (std::ranges::any_of(unit, isControl) || !isValidUTF8(unit)) return std::nullopt;
  return unit;
}

bool isKeyTooShort(X509* certificate) {
  const EVP_PKEY* key = X509_get0_pubkey(certificate);
  return EVP_PKEY_get_base_id(key) == EVP_PKEY_EC && EVP_PKEY_get_bits(key) < minEllipticCurveBits;
}

/// Returns the time as "2027-11-23 08:00:00 UTC"; empty on failure.
std::string textOf(const ASN1_TIME* time) {
  std::tm utc{};
  char text[sizeof "2027-11-23 08:00:00 UTC"] = {};
  if (time == nullptr || ASN1_TIME_to_tm(time, &utc) != 1) return "";
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &utc);
  return text;
}

/// libcrypto before 3.2 has no purpose for code signing.
bool mayIssueForCodeSigning(X509* certificate) {
  return (X509_get_extension_flags(certificate) & EXFLAG_XKUSAGE) == 0 ||
         (X509_get_extended_key_usage(certificate) & (XKU_CODE_SIGN | XKU_ANYEKU)) != 0;
}

/// One verification. Each step relies on the steps before it, and the first that fails gives the
/// reason. Cheap steps come first: the executable is hashed once its signer's chain is verified.
class Verification {
 public:
  Verification(int opened, const std::vector<std::string>& anchors)
      : executable(opened), anchorFolders(anchors) {}

  Verdict run(const Bytes& signature) {
    const bool verified = decode(signature) && findSigner() && leafMaySignCode() &&
                          chainEndsAtAnchor() && signatureIsGood() && parseContent() &&
                          contentIsOfExecutable();
    if (!verified) return Refusal{reason};
    return Identity{content.identifier, organizationalUnitOf(*leaf), validUntil};
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
        encodingOf(*cms) != signature) {
      return refuse("the signature is not a CMS SignedData in DER");
    }
    const ASN1_OCTET_STRING* const* enclosed = CMS_get0_content(cms.get());
    return (enclosed != nullptr && *enclosed != nullptr) ||
           refuse("the signature does not enclose its content");
  }

  /// Also requires SHA-256, because libcrypto accepts other digests.
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
    return OBJ_obj2nid(algorithm) == NID_sha256 || refuse("the signature is not over SHA-256");
  }

  /// The getters return all bits for an absent extension.
  bool leafMaySignCode() {
    const std::uint32_t present = X509_get_extension_flags(leaf);
    const bool isForCode = (X509_get_extended_key_usage(leaf) & XKU_CODE_SIGN) != 0;
    const bool isForSignatures = (X509_get_key_usage(leaf) & KU_DIGITAL_SIGNATURE) != 0;
    return (((present & EXFLAG_XKUSAGE) != 0 && isForCode) ||
            refuse("the certificate is not for code signing")) &&
           (((present & EXFLAG_KUSAGE) != 0 && isForSignatures) ||
            refuse("the certificate is not for digital signatures"));
  }

  /// The chain consists of enclosed certificates and anchors only, and must end at a self-signed
  /// anchor. Revocation lists are not checked.
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
    X509_VERIFY_PARAM_set_purpose(rules, X509_PURPOSE_ANY);  // checked by leafMaySignCode()
    X509_VERIFY_PARAM_set_auth_level(rules, authenticationLevel);
    X509_VERIFY_PARAM_set_depth(rules, maxIntermediates);
    X509_VERIFY_PARAM_set_flags(rules, X509_V_FLAG_X509_STRICT);
    if (X509_verify_cert(chain.get()) != 1) {
      const int error = X509_STORE_CTX_get_error(chain.get());
      return refuse(std::string("the certificate chain: ") + X509_verify_cert_error_string(error));
    }
    return isChainForCodeSigning(*X509_STORE_CTX_get0_chain(chain.get()));
  }

  /// Checks what libcrypto does not. The chain begins with the leaf and ends with the anchor.
  bool isChainForCodeSigning(const STACK_OF(X509) & chain) {
    const int last = sk_X509_num(&chain) - 1;
    const ASN1_TIME* end = X509_get0_notAfter(leaf);
    for (int i = 0; i <= last; ++i) {
      X509* const certificate = sk_X509_value(&chain, i);
      if (isKeyTooShort(certificate)) {
        return refuse("the certificate chain: a key of an elliptic curve below P-256");
      }
      if (0 < i && i < last && !mayIssueForCodeSigning(certificate)) {
        return refuse("the certificate chain: an intermediate is not for code signing");
      }
      const ASN1_TIME* const other = X509_get0_notAfter(certificate);
      if (ASN1_TIME_compare(other, end) < 0) end = other;
    }
    validUntil = textOf(end);
    return true;
  }

  /// Adds the certificates in the anchor files, of each file up to the first that cannot be read.
  bool loadAnchors(X509_STORE& store) {
    using std::filesystem::directory_iterator;
    std::map<std::string, std::string> pathsByName;
    std::error_code error;
    for (const std::string& folder : anchorFolders) {
      for (directory_iterator entry(folder, error); entry != directory_iterator();
           entry.increment(error)) {
        if (entry->path().extension() != ".pem") continue;
        pathsByName.insert_or_assign(entry->path().filename(), entry->path());
        if (pathsByName.size() > maxAnchorFiles) return refuse("too many anchors are installed");
      }
    }
    for (const auto& [name, path] : pathsByName) {
      for (const Certificate& anchor : readCertificates(path)) {
        X509_STORE_add_cert(&store, anchor.get());
      }
    }
    return true;
  }

  bool signatureIsGood() {
    return CMS_verify(cms.get(), nullptr, nullptr, nullptr, nullptr, CMS_NO_SIGNER_CERT_VERIFY) ==
               1 ||
           refuse("the signature does not match its content");
  }

  bool parseContent() {
    auto parsed = SignatureContent::parse(textOf(**CMS_get0_content(cms.get())));
    if (!parsed) return refuse("the content is not identifier, size and sha256");
    content = std::move(*parsed);
    return true;
  }

  bool contentIsOfExecutable() {
    return (sizeOf(executable) == content.size ||
            refuse("the executable is not of the signed size")) &&
           (sha256Of(executable, content.size) == content.sha256 ||
            refuse("the executable is not the signed one"));
  }

  const int executable;
  const std::vector<std::string>& anchorFolders;
  SignedData cms;
  X509* leaf = nullptr;  // owned by cms
  SignatureContent content;
  std::string validUntil;
  std::string reason;
};

}  // namespace

std::vector<std::string> installedAnchors() {
  return {systemPath(QUORVANE_PACKAGED_ANCHORS), systemPath("/etc/quorvane/anchors")};
}

Verdict verifySignature(int executable, const std::vector<std::string>& anchorFolders) {
  // A stale path does no harm: the file there must still be a signature of the opened executable.
  const std::string path = pathOf(executable);
  if (path.empty()) return Refusal{"has no path"};
  const RegularFile file = openRegular(openWithoutLinks(path + ".codesign"));
  if (file.problem != nullptr) return Refusal{std::string("the signature ") + file.problem};
  const std::optional<Bytes> signature = readWhole(file, maxSignatureSize);
  if (!signature) return Refusal{"the signature is too large"};
  initialiseLibcrypto();
  return Verification(executable, anchorFolders).run(*signature);
}

}  // namespace quorvane::codesigning
