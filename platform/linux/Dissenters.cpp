// SPDX-License-Identifier: Apache-2.0
#include "Dissenters.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <system_error>

namespace vorlix {
namespace {

constexpr struct {
  int error;
  int32_t status;
} kStatuses[] = {
    {EBUSY, kDissentBusy},
    {ETXTBSY, kDissentBusy},
    {EWOULDBLOCK, kDissentBusy},
    {EPERM, kDissentNotPrivileged},
    {EACCES, kDissentNotPrivileged},
    {ENOENT, kDissentNotFound},
    {ENXIO, kDissentNotFound},
    {ENOTBLK, kDissentNotFound},
    {EISDIR, kDissentNotFound},
    {ENOTDIR, kDissentNotFound},
    {ENOMEDIUM, kDissentNotReady},
    {EROFS, kDissentNotWritable},
    {ENODEV, kDissentUnsupported},
    {EOPNOTSUPP, kDissentUnsupported},
    {ENOSYS, kDissentUnsupported},
    {EUCLEAN, kDissentUnsupported},
    {EMEDIUMTYPE, kDissentUnsupported},
    {ENOMEM, kDissentNoResources},
    {ENOSPC, kDissentNoResources},
    {EDQUOT, kDissentNoResources},
    {EMFILE, kDissentNoResources},
    {ENFILE, kDissentNoResources},
    {EINVAL, kDissentBadArgument},
    {ENAMETOOLONG, kDissentBadArgument},
    {ELOOP, kDissentBadArgument},
};

}  // namespace

int32_t dissentStatus(int error) {
  const auto* const found =
      std::find_if(std::begin(kStatuses), std::end(kStatuses), [error](const auto& row) { return row.error == error; });
  return found == std::end(kStatuses) ? kDissentError : found->status;
}

Dissenter dissenterFor(int error, const std::string& what) {
  return {dissentStatus(error), what + ": " + std::generic_category().message(error)};
}

}  // namespace vorlix
