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

/// Given to the readers of PEM, which otherwise ask a person for the password of what claims to be encrypted.
inline int noPassword(char*, int, int, void*) {
  return -1;
}

/// Leaves the calling thread's queue of OpenSSL errors as it was; failures here are answers, not the host's business.
class OpenSSLErrors {
 public:
  OpenSSLErrors() { ERR_set_mark(); }
  ~OpenSSLErrors() { ERR_pop_to_mark(); }
  OpenSSLErrors(const OpenSSLErrors&) = delete;
  OpenSSLErrors& operator=(const OpenSSLErrors&) = delete;
};

}  // namespace vorlix
