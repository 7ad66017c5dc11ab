// SPDX-License-Identifier: Apache-2.0
#include "FileCopy.h"

#include <copyfile.h>

#include <cerrno>
#include <memory>
#include <type_traits>

#include "platform/posix/CopyRules.h"

namespace vorlix {
namespace {

struct StateDeleter {
  void operator()(copyfile_state_t state) const { copyfile_state_free(state); }
};
using State = std::unique_ptr<std::remove_pointer_t<copyfile_state_t>, StateDeleter>;

// Keeps the first failure, because copyfile() itself only reports that the copy was cancelled.
int noteFailure(int, int stage, copyfile_state_t, const char* source, const char*, void* context) {
  if (stage != COPYFILE_ERR) return COPYFILE_CONTINUE;
  auto& first = *static_cast<SystemError*>(context);
  first.number = errno;
  if (source != nullptr) first.subject = source;
  return COPYFILE_QUIT;
}

}  // namespace

std::optional<std::string> MacFileCopy::copyItem(const std::string& source, const std::string& destination) {
  const std::string from = withoutTrailingSlashes(source);
  const std::string to = withoutTrailingSlashes(destination);
  if (const auto refused = copyRefusal(from, to)) return copyReason(*refused);
  const State state(copyfile_state_alloc());
  if (!state) return copyReason({ENOMEM, from});
  SystemError first;
  copyfile_callback_t const callback = noteFailure;
  copyfile_state_set(state.get(), COPYFILE_STATE_STATUS_CB, reinterpret_cast<const void*>(callback));
  copyfile_state_set(state.get(), COPYFILE_STATE_STATUS_CTX, &first);
  constexpr copyfile_flags_t kHow = COPYFILE_ALL | COPYFILE_RECURSIVE | COPYFILE_NOFOLLOW | COPYFILE_EXCL;
  if (copyfile(from.c_str(), to.c_str(), state.get(), kHow) == 0) return std::nullopt;
  if (first.number == 0) first = {errno, from};
  if (first.subject.empty()) first.subject = from;
  return copyReason(first);
}

}  // namespace vorlix
