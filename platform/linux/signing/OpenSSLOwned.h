// SPDX-License-Identifier: Apache-2.0
//
// Ownership of OpenSSL's objects.
#pragma once

#include <openssl/pem.h>

// After the header above: it declares its PEM functions only then.
#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <memory>

namespace vorlix {

template <auto function>
struct OpenSSLReleaser {
  template <typename Type>
  void operator()(Type* object) const {
    function(object);
  }
};

using OwnedBIO = std::unique_ptr<BIO, OpenSSLReleaser<BIO_free_all>>;
using OwnedCMS = std::unique_ptr<CMS_ContentInfo, OpenSSLReleaser<CMS_ContentInfo_free>>;
using OwnedCertificate = std::unique_ptr<X509, OpenSSLReleaser<X509_free>>;
using OwnedStore = std::unique_ptr<X509_STORE, OpenSSLReleaser<X509_STORE_free>>;

/// For readers of PEM, which would otherwise ask the user for the password of an encrypted file.
inline int noPassword(char*, int, int, void*) {
  return -1;
}

/// Restores the calling thread's queue of OpenSSL errors: failures here are results and do not concern the host.
class OpenSSLErrors {
 public:
  OpenSSLErrors() { ERR_set_mark(); }
  ~OpenSSLErrors() { ERR_pop_to_mark(); }
  OpenSSLErrors(const OpenSSLErrors&) = delete;
  OpenSSLErrors& operator=(const OpenSSLErrors&) = delete;
};

}  // namespace vorlix
