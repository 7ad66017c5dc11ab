// SPDX-License-Identifier: Apache-2.0
#include "MirrorState.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string_view>
#include <tuple>
#include <utility>

#include "MountFolders.h"

namespace vorlix {
namespace {

namespace fs = std::filesystem;

constexpr const char* kFormat = "vorlix mirror 2";
constexpr const char* kStatesFolder = "/.mirrors";
constexpr const char* kUnfinished = ".new";  // ends the name of a state that is being written

// A state is a row of texts, each ended by a zero byte, since file names hold any other one.
class FieldWriter {
 public:
  void add(std::string_view text) { bytes_.append(text).push_back('\0'); }
  template <typename Number>
  void addNumber(Number number) {
    add(std::to_string(number));
  }
  const std::string& bytes() const { return bytes_; }

 private:
  std::string bytes_;
};

class FieldReader {
 public:
  explicit FieldReader(std::string_view bytes) : rest_(bytes) {}

  std::string text() {
    const size_t end = rest_.find('\0');
    if (end == std::string_view::npos) {
      good_ = false;
      return "";
    }
    std::string field(rest_.substr(0, end));
    rest_.remove_prefix(end + 1);
    return field;
  }

  template <typename Number>
  Number number() {
    const std::string field = text();
    Number value = 0;
    const char* const end = field.data() + field.size();
    const auto [stop, error] = std::from_chars(field.data(), end, value);
    if (error != std::errc() || stop != end) good_ = false;
    return value;
  }

  bool good() const { return good_; }

 private:
  std::string_view rest_;
  bool good_ = true;
};

std::string encode(const MirrorState& state) {
  FieldWriter writer;
  writer.add(kFormat);
  writer.add(state.device);
  writer.add(state.folder);
  writer.addNumber(int{state.readOnly});
  writer.addNumber(state.identity);
  writer.add(state.digest ? std::to_string(*state.digest) : "");
  writer.addNumber(int{state.compareAll});
  writer.addNumber(state.baseline.size());
  for (const auto& [path, entry] : state.baseline) {
    writer.add(path);
    writer.addNumber(int{entry.isFolder});
    writer.addNumber(entry.size);
    writer.addNumber(entry.modified);
    writer.addNumber(entry.changed);
    writer.addNumber(entry.inode);
  }
  return writer.bytes();
}

std::optional<MirrorState> decode(std::string_view bytes) {
  FieldReader reader(bytes);
  MirrorState state;
  if (reader.text() != kFormat) return std::nullopt;
  state.device = reader.text();
  state.folder = reader.text();
  state.readOnly = reader.number<int>() != 0;
  state.identity = reader.number<uint64_t>();
  const std::string digest = reader.text();
  if (!digest.empty()) {
    FieldReader number(std::string_view(digest.c_str(), digest.size() + 1));
    state.digest = number.number<uint64_t>();
    if (!number.good()) return std::nullopt;
  }
  state.compareAll = reader.number<int>() != 0;
  for (auto count = reader.number<size_t>(); count > 0 && reader.good(); --count) {
    const std::string path = reader.text();
    MirrorEntry& entry = state.baseline[path];
    entry.isFolder = reader.number<int>() != 0;
    entry.size = reader.number<uint64_t>();
    entry.modified = reader.number<int64_t>();
    entry.changed = reader.number<int64_t>();
    entry.inode = reader.number<uint64_t>();
  }
  if (!reader.good()) return std::nullopt;
  return state;
}

std::optional<MirrorState> readState(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  const std::string bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  std::optional<MirrorState> state = decode(bytes);
  if (!state) return std::nullopt;
  std::error_code error;
  if (fs::is_directory(state->folder, error)) return state;
  state->folder += kAside;  // where a process that was ended while it unmounted left it
  if (!fs::is_directory(state->folder, error)) return std::nullopt;
  return state;
}

int64_t nanoseconds(const struct statx_timestamp& time) {
  return int64_t{time.tv_sec} * 1000000000 + int64_t{time.tv_nsec};
}

bool writeWhole(int descriptor, const std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t put = write(descriptor, bytes.data() + done, bytes.size() - done);
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) return false;
    done += static_cast<size_t>(put);
  }
  return fsync(descriptor) == 0;
}

// When a mirror's folder was made. Where its file system does not tell, the time at which the state was last written is
// near that: it is written again only when a write-back fails.
int64_t birthOf(const std::string& folder, const fs::path& state) {
  struct statx status = {};
  if (statx(AT_FDCWD, folder.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BTIME, &status) == 0 &&
      (status.stx_mask & STATX_BTIME) != 0) {
    return nanoseconds(status.stx_btime);
  }
  if (statx(AT_FDCWD, state.c_str(), AT_SYMLINK_NOFOLLOW, STATX_MTIME, &status) != 0) return 0;
  return nanoseconds(status.stx_mtime);
}

std::optional<std::string> statesFolder() {
  const std::optional<std::string> folder = existingRuntimeFolder();
  if (!folder) return std::nullopt;
  return *folder + kStatesFolder;
}

}  // namespace

std::optional<std::string> mirrorKey(const DeviceLocation& location, Extent window) {
  struct statx status = {};
  const std::string& path = location.node;
  if (statx(AT_FDCWD, path.c_str(), 0, STATX_BASIC_STATS | STATX_BTIME, &status) != 0) return std::nullopt;
  const std::string offset = std::to_string(window.offset);
  if (S_ISBLK(status.stx_mode)) {
    return "device-" + std::to_string(status.stx_rdev_major) + "-" + std::to_string(status.stx_rdev_minor) + "-" +
           offset;
  }
  // The time of birth tells a file from a later one that was given the same number.
  std::string birth = "0";
  if ((status.stx_mask & STATX_BTIME) != 0) {
    birth = std::to_string(status.stx_btime.tv_sec) + "." + std::to_string(status.stx_btime.tv_nsec);
  }
  return "image-" + std::to_string(status.stx_dev_major) + "-" + std::to_string(status.stx_dev_minor) + "-" +
         std::to_string(status.stx_ino) + "-" + birth + "-" + offset;
}

Refusal MirrorStates::lock(std::optional<MirrorStates>& states) {
  std::string folder;
  if (Refusal refusal = makeRuntimeFolder(folder)) return refusal;
  folder += kStatesFolder;
  if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) return dissenterFor(errno, folder);
  Descriptor lock(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!lock) return dissenterFor(errno, folder);
  while (flock(lock.get(), LOCK_EX) != 0) {
    if (errno != EINTR) return dissenterFor(errno, folder);
  }
  states = MirrorStates(std::move(folder), std::move(lock));
  return std::nullopt;
}

std::optional<MirrorState> MirrorStates::load(const std::string& key) const {
  return readState(folder_ + "/" + key);
}

Refusal MirrorStates::save(const std::string& key, const MirrorState& state) const {
  const std::string path = folder_ + "/" + key;
  const std::string beside = path + kUnfinished;
  const Descriptor file(open(beside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (file && writeWhole(file.get(), encode(state)) && rename(beside.c_str(), path.c_str()) == 0) return std::nullopt;
  const int reason = errno;
  unlink(beside.c_str());
  return dissenterFor(reason, path);
}

void MirrorStates::remove(const std::string& key) const {
  unlink((folder_ + "/" + key).c_str());
}

std::optional<MirrorState> findMirror(const std::string& key) {
  const std::optional<std::string> folder = statesFolder();
  if (!folder) return std::nullopt;
  return readState(*folder + "/" + key);
}

std::vector<KnownMirror> allMirrors() {
  std::vector<KnownMirror> mirrors;
  const std::optional<std::string> states = statesFolder();
  if (!states) return mirrors;
  std::vector<std::pair<int64_t, KnownMirror>> found;
  std::error_code error;
  for (const fs::directory_entry& entry : fs::directory_iterator(*states, error)) {
    if (entry.path().extension() == kUnfinished) continue;
    std::optional<MirrorState> state = readState(entry.path());
    if (!state) continue;
    const int64_t birth = birthOf(state->folder, entry.path());
    found.push_back({birth, {entry.path().filename(), *std::move(state)}});
  }
  std::sort(found.begin(), found.end(), [](const auto& left, const auto& right) {
    return std::tie(left.first, left.second.key) < std::tie(right.first, right.second.key);
  });
  for (auto& [birth, mirror] : found) mirrors.push_back(std::move(mirror));
  return mirrors;
}

std::optional<MirrorState> findMirrorAt(const std::string& folder) {
  const std::optional<std::string> states = statesFolder();
  if (!states) return std::nullopt;
  std::error_code error;
  const fs::path wanted = fs::canonical(folder, error);
  if (error) return std::nullopt;
  for (const fs::directory_entry& entry : fs::directory_iterator(*states, error)) {
    std::optional<MirrorState> state = readState(entry.path());
    if (state && state->folder == wanted) return state;
  }
  return std::nullopt;
}

}  // namespace vorlix
