// SPDX-License-Identifier: Apache-2.0
//
// A file-system driver in user space that reports only its sizes and counts the requests that it gets.
#pragma once

#include <fcntl.h>
#include <linux/fuse.h>
#include <poll.h>
#include <sys/mount.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace vorlix::test {

class FuseDriver {
 public:
  struct Sizes {
    uint64_t blocks = 0;
    uint64_t available = 0;
    uint32_t blockSize = 0;
  };

  /// Mounts itself at `folder` under the name `source`, for `user`. Without `sizes`, requests for them fail. Answers
  /// such requests after `delay`.
  FuseDriver(const std::string& source, const std::string& folder, std::optional<Sizes> sizes,
             std::chrono::milliseconds delay = {}, uid_t user = 0)
      : sizes_(sizes), delay_(delay), connection_(open("/dev/fuse", O_RDWR | O_CLOEXEC)) {
    const std::string options =
        "fd=" + std::to_string(connection_) + ",rootmode=40000,user_id=" + std::to_string(user) + ",group_id=0";
    if (connection_ < 0 || mount(source.c_str(), folder.c_str(), "fuse", MS_NOSUID | MS_NODEV, options.c_str()) != 0) {
      throw std::runtime_error("cannot mount " + source + ": " + std::strerror(errno));
    }
    thread_ = std::thread([this] { serve(); });
  }
  ~FuseDriver() {
    ends_ = true;
    thread_.join();
    close(connection_);
  }
  FuseDriver(const FuseDriver&) = delete;
  FuseDriver& operator=(const FuseDriver&) = delete;

  /// Returns why no driver can run here, or an empty string if one can.
  static std::string unavailable() {
    const int device = open("/dev/fuse", O_RDWR | O_CLOEXEC);
    if (device < 0) return "/dev/fuse cannot be opened on this machine";
    close(device);
    return "";
  }

  /// Returns the number of requests by the kernel's codes, without the initial handshake of the mount.
  std::map<uint32_t, int> asked() const {
    const std::lock_guard<std::mutex> guard(mutex_);
    return asked_;
  }

 private:
  void serve() {
    std::vector<char> request(1 << 20);
    while (!ends_) {
      pollfd waiting = {connection_, POLLIN, 0};
      if (poll(&waiting, 1, 20) <= 0) continue;
      const ssize_t got = read(connection_, request.data(), request.size());
      if (got < static_cast<ssize_t>(sizeof(fuse_in_header))) return;  // ENODEV: unmounted
      fuse_in_header header = {};
      std::memcpy(&header, request.data(), sizeof header);
      answer(header);
    }
  }

  void answer(const fuse_in_header& header) {
    if (header.opcode == FUSE_INIT) {
      fuse_init_out out = {};
      out.major = FUSE_KERNEL_VERSION;
      out.minor = FUSE_KERNEL_MINOR_VERSION;
      out.max_write = 4096;
      reply(header, 0, &out, sizeof out);
      return;
    }
    {
      const std::lock_guard<std::mutex> guard(mutex_);
      ++asked_[header.opcode];
    }
    if (header.opcode == FUSE_FORGET || header.opcode == FUSE_BATCH_FORGET) return;  // these expect no reply
    if (header.opcode == FUSE_STATFS && sizes_) {
      std::this_thread::sleep_for(delay_);
      fuse_statfs_out out = {};
      out.st.blocks = sizes_->blocks;
      out.st.bfree = sizes_->blocks;
      out.st.bavail = sizes_->available;
      out.st.bsize = 65536;  // the transfer size, not the unit of the counts
      out.st.frsize = sizes_->blockSize;
      reply(header, 0, &out, sizeof out);
      return;
    }
    reply(header, -EIO, nullptr, 0);
  }

  void reply(const fuse_in_header& request, int error, const void* body, size_t size) const {
    fuse_out_header header = {};
    header.len = static_cast<uint32_t>(sizeof header + size);
    header.error = error;
    header.unique = request.unique;
    std::vector<char> bytes(header.len);
    std::memcpy(bytes.data(), &header, sizeof header);
    if (size != 0) std::memcpy(bytes.data() + sizeof header, body, size);
    static_cast<void>(!write(connection_, bytes.data(), bytes.size()));  // the requesting process may have ended
  }

  const std::optional<Sizes> sizes_;
  const std::chrono::milliseconds delay_;
  const int connection_;
  std::atomic<bool> ends_ = false;
  mutable std::mutex mutex_;
  std::map<uint32_t, int> asked_;
  std::thread thread_;
};

}  // namespace vorlix::test
