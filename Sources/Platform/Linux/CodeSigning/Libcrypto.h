// What signing and verifying share of libcrypto: owners for its objects, what lies in PEM files,
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

/// Owns an object of libcrypto, which `release` frees: an integral_constant calls what it holds.
template <class Object, auto release>
using OpenSSLPointer = std::unique_ptr<Object, std::integral_constant<decltype(release), release>>;

using SignedData = OpenSSLPointer<CMS_ContentInfo, CMS_ContentInfo_free>;
using Source = OpenSSLPointer<BIO, BIO_free>;
using Certificate = OpenSSLPointer<X509, X509_free>;
using Key = OpenSSLPointer<EVP_PKEY, EVP_PKEY_free>;

/// Must come before any other use of libcrypto in the process: it keeps configuration files and
/// the environment from changing what is accepted.
void initialiseLibcrypto();

/// The certificates in a PEM file of at most 64 KiB, up to the first that cannot be read; blocks of
/// other kinds are passed over.
std::vector<Certificate> readCertificates(const std::string& path);

/// The private key in such a file; null also when it takes a passphrase.
Key readKey(const std::string& path);

/// In DER; empty when memory is short.
Bytes encodingOf(const CMS_ContentInfo& cms);

/// SHA-256 of the first `size` bytes as hexadecimal digits; empty when they cannot all be read.
std::string sha256Of(int file, std::uint64_t size);

}  // namespace quorvane::codesigning
