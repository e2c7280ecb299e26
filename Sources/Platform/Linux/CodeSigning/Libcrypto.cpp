#include "Platform/Linux/CodeSigning/Libcrypto.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "Platform/File.h"

namespace quorvane::codesigning {
namespace {

constexpr std::size_t maxPEMFileSize = std::size_t{64} * 1024;
constexpr std::size_t hashChunkSize = std::size_t{64} * 1024;

/// Without a callback, libcrypto would ask the terminal for the passphrase of an encrypted block.
int noPassphrase(char* /*buffer*/, int /*size*/, int /*rwflag*/, void* /*context*/) {
  return -1;
}

/// Returns the content of a file, empty if it cannot be read; null if memory is short.
Source contentsOf(const std::string& path) {
  const Bytes bytes =
      readWhole(openRegular(openFile(path, O_PATH)), maxPEMFileSize).value_or(Bytes());
  Source source(BIO_new(BIO_s_mem()));
  if (source) BIO_write(source.get(), bytes.data(), static_cast<int>(bytes.size()));
  return source;
}

}  // namespace

void initialiseLibcrypto() {
  // No cleanup at exit: the end of the process frees everything.
  [[maybe_unused]] static const int done =
      OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT | OPENSSL_INIT_NO_LOAD_CONFIG, nullptr);
}

std::vector<Certificate> readCertificates(const std::string& path) {
  std::vector<Certificate> certificates;
  const Source source = contentsOf(path);
  while (source) {
    Certificate certificate(PEM_read_bio_X509(source.get(), nullptr, noPassphrase, nullptr));
    if (!certificate) break;
    certificates.push_back(std::move(certificate));
  }
  ERR_clear_error();  // libcrypto counts the end of the file as an error
  return certificates;
}

Key readKey(const std::string& path) {
  const Source source = contentsOf(path);
  if (!source) return {};
  return Key(PEM_read_bio_PrivateKey(source.get(), nullptr, noPassphrase, nullptr));
}

Bytes encodingOf(const CMS_ContentInfo& cms) {
  const int length = i2d_CMS_ContentInfo(&cms, nullptr);
  Bytes encoding(static_cast<std::size_t>(std::max(length, 0)));
  std::uint8_t* next = encoding.data();
  const bool isEncoded = length > 0 && i2d_CMS_ContentInfo(&cms, &next) == length;
  return isEncoded ? encoding : Bytes();
}

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

}  // namespace quorvane::codesigning
