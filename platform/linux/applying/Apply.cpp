// SPDX-License-Identifier: Apache-2.0
#include <dlfcn.h>
#include <wimlib.h>

#include <Vorlix/platform/SystemError.h>

#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "Module.h"

namespace vorlix {
namespace {

// What libwim says about its errors while one of these lives.
class WimComplaints {
 public:
  WimComplaints() : stream_(open_memstream(&text_, &size_)) {
    if (stream_ == nullptr) return;
    wimlib_set_error_file(stream_);
    wimlib_set_print_errors(true);
  }
  ~WimComplaints() {
    if (stream_ == nullptr) return;
    wimlib_set_print_errors(false);
    wimlib_set_error_file(stderr);
    std::fclose(stream_);
    std::free(text_);
  }
  WimComplaints(const WimComplaints&) = delete;
  WimComplaints& operator=(const WimComplaints&) = delete;

  // The first one, on one line.
  std::string first() {
    constexpr std::string_view kMark = "[ERROR] ";
    if (stream_ == nullptr || std::fflush(stream_) != 0) return {};
    std::string_view text(text_, size_);
    const size_t start = text.find(kMark);
    if (start == std::string_view::npos) return {};
    text.remove_prefix(start + kMark.size());
    text = text.substr(0, text.find("\n["));
    std::string line;
    for (const char c : text) {
      const bool isGap = c == '\n' || c == ' ' || c == '\t';
      if (!isGap) line += c;
      if (isGap && !line.empty() && line.back() != ' ') line += ' ';
    }
    while (!line.empty() && (line.back() == ' ' || line.back() == '.')) line.pop_back();
    return line;
  }

 private:
  char* text_ = nullptr;
  size_t size_ = 0;
  std::FILE* stream_ = nullptr;
};

// libntfs-3g, by which libwim writes the volume, goes on after some reads and writes that fail, such as those of copies
// of its structures, and only logs them. The volume would be restored as if nothing had happened. Keeps the first error
// of the medium that is logged while one of these lives; what else is logged is libwim's to judge. Handler and levels
// are those of the library's logging.h.
class DriverComplaints {
 public:
  DriverComplaints() {
    first_.clear();
    setHandler(keepFirst);
  }
  ~DriverComplaints() { setHandler(reinterpret_cast<Handler*>(dlsym(RTLD_NEXT, "ntfs_log_handler_null"))); }
  DriverComplaints(const DriverComplaints&) = delete;
  DriverComplaints& operator=(const DriverComplaints&) = delete;

  const std::string& first() const { return first_; }

 private:
  using Handler = int(const char* function, const char* file, int line, uint32_t level, void* data, const char* format,
                      va_list arguments);
  static constexpr uint32_t kErrors = 1 << 7 | 1 << 8 | 1 << 9;  // plain ones, those with errno, critical ones

  static bool isOfMedium(int error) {
    return error == EIO || error == ENOSPC || error == EDQUOT || error == EFBIG || error == ENXIO || error == EROFS;
  }

  // There is none where libwim is built without libntfs-3g.
  static void setHandler(Handler* handler) {
    const auto set = reinterpret_cast<void (*)(Handler*)>(dlsym(RTLD_NEXT, "ntfs_log_set_handler"));
    if (set != nullptr && handler != nullptr) set(handler);
  }

  static int keepFirst(const char*, const char*, int, uint32_t level, void*, const char* format, va_list arguments) {
    const int error = errno;
    char text[256] = "";
    if ((level & kErrors) == 0 || !isOfMedium(error) || !first_.empty()) return 0;
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    first_ = text;
    while (!first_.empty() && std::isspace(static_cast<unsigned char>(first_.back())) != 0) first_.pop_back();
    first_ += ": " + SystemError{error}.reason();
    errno = error;
    return length;
  }

  static thread_local std::string first_;
};

thread_local std::string DriverComplaints::first_;

struct WimCloser {
  void operator()(WIMStruct* wim) const { wimlib_free(wim); }
};

// How far the content is. Other steps tell of themselves before and after it.
struct ContentProgress {
  const WimProgress& told;
  uint64_t done = 0;
  uint64_t total = 0;
};

wimlib_progress_status goOn(wimlib_progress_msg message, wimlib_progress_info* info, void* context) {
  auto& content = *static_cast<ContentProgress*>(context);
  if (message == WIMLIB_PROGRESS_MSG_EXTRACT_STREAMS) {
    content.done = info->extract.completed_bytes;
    content.total = info->extract.total_bytes;
  }
  const WimProgress& told = content.told;
  return told.go(told.context, content.done, content.total) ? WIMLIB_PROGRESS_STATUS_CONTINUE
                                                            : WIMLIB_PROGRESS_STATUS_ABORT;
}

std::string reasonOf(int error, const std::string& complaint) {
  switch (error) {
    case WIMLIB_ERR_UNSUPPORTED:
      return "the installed libwim cannot write NTFS: it was built without libntfs-3g";
    case WIMLIB_ERR_RESOURCE_NOT_FOUND:
      return "content of its files is not in it: it is a delta WIM, which needs the one that it was made against";
    case WIMLIB_ERR_IS_SPLIT_WIM:
      return "is one part of a split WIM; `wimjoin` makes one file of them";
    case WIMLIB_ERR_WIM_IS_ENCRYPTED:
      return "is encrypted";
    case WIMLIB_ERR_NTFS_3G:  // errno is another by now
      if (complaint.find(SystemError{ENOSPC}.reason()) != std::string::npos) return SystemError{ENOSPC}.reason();
      break;
    default:
      break;
  }
  const char* const known = wimlib_get_error_string(static_cast<wimlib_error_code>(error));
  std::string reason = known == nullptr ? "error " + std::to_string(error) + " of libwim" : known;
  return complaint.empty() ? reason : reason + ": " + complaint;
}

WimEnd applyImage(const char* path, int index, const char* volume, const WimProgress* progress, char* reason,
                  size_t room) try {
  WimComplaints complaints;
  const DriverComplaints ofDriver;
  ContentProgress content = {*progress};
  WIMStruct* opened = nullptr;
  int error = wimlib_open_wim_with_progress(path, WIMLIB_OPEN_FLAG_CHECK_INTEGRITY | WIMLIB_OPEN_FLAG_ERROR_IF_SPLIT,
                                            &opened, goOn, &content);
  const std::unique_ptr<WIMStruct, WimCloser> wim(opened);
  if (error == 0) error = wimlib_extract_image(opened, index, volume, WIMLIB_EXTRACT_FLAG_NTFS);
  if (error == 0 && ofDriver.first().empty()) return WimEnd::done;
  if (error == 0) {
    std::snprintf(reason, room, "the volume cannot be written: %s", ofDriver.first().c_str());
    return WimEnd::failed;
  }
  if (error == WIMLIB_ERR_ABORTED_BY_PROGRESS) return WimEnd::stopped;
  std::snprintf(reason, room, "%s", reasonOf(error, complaints.first()).c_str());
  return WimEnd::failed;
} catch (const std::exception& failure) {
  std::snprintf(reason, room, "%s", failure.what());
  return WimEnd::failed;
}

}  // namespace

WimCall* wimCall(std::string&) {
  return applyImage;
}

}  // namespace vorlix
