// SPDX-License-Identifier: Apache-2.0
#include "TrustAnchors.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <system_error>

#include <Vorlix/platform/Descriptor.h>

namespace vorlix {
namespace {

namespace fs = std::filesystem;

constexpr off_t kLargestFile = off_t{1} << 20;
constexpr int kMostIntermediates = 8;
constexpr int kSecurityLevel = 2;  // 112 bits: RSA from 2048 bits on, SHA-224 and better

bool belongsToRoot(const struct stat& status, bool stickyWillDo) {
  if (status.st_uid != 0) return false;
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) == 0) return true;
  return stickyWillDo && (status.st_mode & S_ISVTX) != 0;
}

bool isTrustedFolder(const fs::path& folder) {
  struct stat status = {};
  if (stat(folder.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) return false;
  if (geteuid() != 0) return true;
  if (!belongsToRoot(status, false)) return false;
  // A user who can move a folder above could replace it.
  for (fs::path above = folder; above.has_relative_path();) {
    above = above.parent_path();
    if (stat(above.c_str(), &status) != 0 || !belongsToRoot(status, true)) return false;
  }
  return true;
}

OwnedBIO openFile(const fs::path& path) {
  Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  struct stat status = {};
  if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_size > kLargestFile) {
    return nullptr;
  }
  if (geteuid() == 0 && !belongsToRoot(status, false)) return nullptr;
  OwnedBIO source(BIO_new_fd(file.get(), BIO_CLOSE));
  if (source) file.release();
  return source;
}

size_t addCertificates(X509_STORE* store, BIO* source) {
  size_t added = 0;
  for (;;) {
    const OwnedCertificate certificate(PEM_read_bio_X509(source, nullptr, noPassword, nullptr));
    if (!certificate) break;
    if (X509_STORE_add_cert(store, certificate.get()) == 1) ++added;
  }
  if (added > 0 || BIO_seek(source, 0) != 0) return added;
  const OwnedCertificate certificate(d2i_X509_bio(source, nullptr));
  return certificate && X509_STORE_add_cert(store, certificate.get()) == 1 ? 1 : 0;
}

}  // namespace

std::optional<OwnedStore> trustAnchors(const fs::path& folder) {
  const OpenSSLErrors errors;
  std::error_code unreadable;
  const fs::path real = fs::canonical(folder, unreadable);
  if (unreadable || !isTrustedFolder(real)) return std::nullopt;

  OwnedStore store(X509_STORE_new());
  if (!store) return std::nullopt;
  size_t count = 0;
  fs::directory_iterator entry(real, unreadable);
  for (; !unreadable && entry != fs::directory_iterator(); entry.increment(unreadable)) {
    if (const OwnedBIO source = openFile(entry->path())) count += addCertificates(store.get(), source.get());
  }
  if (unreadable || count == 0) return std::nullopt;

  X509_VERIFY_PARAM* const rules = X509_STORE_get0_param(store.get());
  X509_VERIFY_PARAM_set_depth(rules, kMostIntermediates);
  X509_VERIFY_PARAM_set_auth_level(rules, kSecurityLevel);
  // The purpose of the leaf is checked separately, because the verifier only knows purposes such as mail and servers.
  if (X509_VERIFY_PARAM_set_purpose(rules, X509_PURPOSE_ANY) != 1) return std::nullopt;
  return store;
}

}  // namespace vorlix
