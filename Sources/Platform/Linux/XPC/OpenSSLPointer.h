// Ownership of libcrypto's objects. Each is used on one thread.
#pragma once

#include <openssl/x509.h>

#include <memory>

namespace quorvane {

template <auto release>
struct OpenSSLRelease {
  template <typename Object>
  void operator()(Object* object) const {
    release(object);
  }
};

/// Owns an object that `release` frees: OpenSSLPointer<X509, X509_free>.
template <typename Object, auto release>
using OpenSSLPointer = std::unique_ptr<Object, OpenSSLRelease<release>>;

inline void releaseCertificates(STACK_OF(X509) * certificates) {
  sk_X509_pop_free(certificates, X509_free);
}

}  // namespace quorvane
