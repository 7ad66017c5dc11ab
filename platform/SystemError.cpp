// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/platform/SystemError.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <system_error>

namespace vorlix {
namespace {

constexpr struct {
  int number;
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
    {EROFS, kDissentNotWritable},
    {ENODEV, kDissentUnsupported},
    {EOPNOTSUPP, kDissentUnsupported},
    {ENOSYS, kDissentUnsupported},
    {ENOMEM, kDissentNoResources},
    {ENOSPC, kDissentNoResources},
    {EDQUOT, kDissentNoResources},
    {EMFILE, kDissentNoResources},
    {ENFILE, kDissentNoResources},
    {EINVAL, kDissentBadArgument},
    {ENAMETOOLONG, kDissentBadArgument},
    {ELOOP, kDissentBadArgument},
// Numbers that not every system has.
#ifdef ENOMEDIUM
    {ENOMEDIUM, kDissentNotReady},
#endif
#ifdef EMEDIUMTYPE
    {EMEDIUMTYPE, kDissentUnsupported},
#endif
#ifdef EUCLEAN
    {EUCLEAN, kDissentUnsupported},
#endif
};

}  // namespace

std::string SystemError::reason() const {
  return std::generic_category().message(number);
}

std::string SystemError::text() const {
  return subject + ": " + reason();
}

int32_t SystemError::status() const {
  const auto* const found = std::find_if(std::begin(kStatuses), std::end(kStatuses),
                                         [this](const auto& row) { return row.number == number; });
  return found == std::end(kStatuses) ? kDissentError : found->status;
}

Dissenter SystemError::dissenter() const {
  return {status(), text()};
}

}  // namespace vorlix
