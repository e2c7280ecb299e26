// What signing and verifying share of libcrypto: owners for its objects, the content of PEM files,
// the digest of a file. Callable from any thread.
#pragma once

#include <openssl/cms.h>
#include <openssl/x509.h>

#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "Platform/Linux/CodeSigning/RegularFile.h"

namespace quorvane::codesigning {

/// Owns an object of libcrypto and frees it with `release`, which the integral_constant calls.
template <class Object, auto release>
using OpenSSLPointer = std::unique_ptr<Object, std::integral_constant<decltype(release), release>>;

using SignedData = OpenSSLPointer<CMS_ContentInfo, CMS_ContentInfo_free>;
using Source = OpenSSLPointer<BIO, BIO_free>;
using Certificate = OpenSSLPointer<X509, X509_free>;
using Key = OpenSSLPointer<EVP_PKEY, EVP_PKEY_free>;

/// Keeps configuration files and the environment from changing what libcrypto accepts. Must come
/// before any other use of libcrypto in the process.
void initialiseLibcrypto();

/// Returns the certificates in a PEM file of at most 64 KiB, up to the first that cannot be read.
/// Skips blocks of other kinds.
std::vector<Certificate> readCertificates(const std::string& path);

/// Returns the private key in such a file; null also if it needs a passphrase.
Key readKey(const std::string& path);

/// Returns the encoding in DER; empty if memory is short.
Bytes encodingOf(const CMS_ContentInfo& cms);

/// Returns the SHA-256 of the first `size` bytes in hexadecimal; empty if any cannot be read.
std::string sha256Of(int file, std::uint64_t size);

}  // namespace quorvane::codesigning
