// SPDX-License-Identifier: Apache-2.0
#include "DetachedSignature.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include <Vorlix/platform/Descriptor.h>

namespace vorlix {
namespace {

constexpr off_t kLargestSignature = off_t{1} << 20;
constexpr int kSmallestDigest = 32;  // bytes

// Returns the only signer of a signature, or null.
CMS_SignerInfo* onlySigner(CMS_ContentInfo* cms) {
  STACK_OF(CMS_SignerInfo)* const signers = CMS_get0_SignerInfos(cms);
  return signers != nullptr && sk_CMS_SignerInfo_num(signers) == 1 ? sk_CMS_SignerInfo_value(signers, 0) : nullptr;
}

bool hasStrongDigest(CMS_SignerInfo* signer) {
  X509_ALGOR* digest = nullptr;
  CMS_SignerInfo_get0_algs(signer, nullptr, nullptr, &digest, nullptr);
  if (digest == nullptr) return false;
  const EVP_MD* const method = EVP_get_digestbyobj(digest->algorithm);
  return method != nullptr && EVP_MD_get_size(method) >= kSmallestDigest;
}

bool signsCode(X509* certificate) {
  const uint32_t flags = X509_get_extension_flags(certificate);
  if ((flags & EXFLAG_INVALID) != 0 || (flags & EXFLAG_CA) != 0) return false;
  if ((flags & EXFLAG_XKUSAGE) == 0 || (X509_get_extended_key_usage(certificate) & XKU_CODE_SIGN) == 0) return false;
  return (flags & EXFLAG_KUSAGE) == 0 || (X509_get_key_usage(certificate) & KU_DIGITAL_SIGNATURE) != 0;
}

std::optional<std::string> onlyUnit(X509* certificate) {
  const X509_NAME* const subject = X509_get_subject_name(certificate);
  const int place = X509_NAME_get_index_by_NID(subject, NID_organizationalUnitName, -1);
  if (place < 0 || X509_NAME_get_index_by_NID(subject, NID_organizationalUnitName, place) >= 0) return std::nullopt;
  unsigned char* text = nullptr;
  const int length = ASN1_STRING_to_UTF8(&text, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, place)));
  if (length < 0) return std::nullopt;
  std::string unit(reinterpret_cast<const char*>(text), static_cast<size_t>(length));
  OPENSSL_free(text);
  return unit;
}

}  // namespace

std::optional<DetachedSignature> DetachedSignature::fromFile(const std::string& path) {
  const OpenSSLErrors errors;
  Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  struct stat status = {};
  if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_size > kLargestSignature) {
    return std::nullopt;
  }
  const OwnedBIO source(BIO_new_fd(file.get(), BIO_CLOSE));
  if (!source) return std::nullopt;
  file.release();
  OwnedCMS cms(PEM_read_bio_CMS(source.get(), nullptr, noPassword, nullptr));
  if (!cms && BIO_seek(source.get(), 0) == 0) cms.reset(d2i_CMS_bio(source.get(), nullptr));
  if (!cms || OBJ_obj2nid(CMS_get0_type(cms.get())) != NID_pkcs7_signed) return std::nullopt;
  return DetachedSignature(std::move(cms));
}

std::optional<std::string> DetachedSignature::signersUnit(int file, const OwnedStore& anchors) const {
  const OpenSSLErrors errors;
  CMS_SignerInfo* const signer = onlySigner(cms_.get());
  if (signer == nullptr || CMS_signed_get_attr_count(signer) <= 0 || !hasStrongDigest(signer)) return std::nullopt;
  if (CMS_is_detached(cms_.get()) != 1) return std::nullopt;
  if (OBJ_obj2nid(CMS_get0_eContentType(cms_.get())) != NID_pkcs7_data) return std::nullopt;

  const OwnedBIO content(BIO_new_fd(file, BIO_NOCLOSE));
  if (!content || lseek(file, 0, SEEK_SET) != 0) return std::nullopt;
  // Certificates in the signature may be part of the chain, but only the anchors are trusted.
  if (CMS_verify(cms_.get(), nullptr, anchors.get(), content.get(), nullptr, CMS_BINARY) != 1) return std::nullopt;

  X509* certificate = nullptr;
  CMS_SignerInfo_get0_algs(signer, nullptr, &certificate, nullptr, nullptr);
  if (certificate == nullptr || !signsCode(certificate)) return std::nullopt;
  return onlyUnit(certificate);
}

}  // namespace vorlix
