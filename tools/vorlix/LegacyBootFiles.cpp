// SPDX-License-Identifier: Apache-2.0
#include "LegacyBootFiles.h"

#include <Vorlix/foundation/Sha256.h>
#include <Vorlix/platform/Descriptor.h>
#include <Vorlix/platform/FileCopy.h>
#include <Vorlix/platform/FilesInPlace.h>
#include <Vorlix/platform/Platform.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>
#include <system_error>

#include "Arbitration.h"
#include "Complaint.h"
#include "Failure.h"
#include "Files.h"
#include "NewFile.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTemporary = "vorlix-legacy-boot.new";
constexpr const char* kBoot = "boot";
constexpr const char* kNothingCopied = "nothing was copied";
constexpr size_t kLargestFile = size_t{256} * 1024 * 1024;

// One item of the layout and what the volume has of it.
struct Row {
  std::string source;
  std::optional<struct stat> status;  // of the source
  std::string destination;
  bool isThere = false;
};

void requireNoLink(const std::string& path, const struct stat& status) {
  const bool isPlain = S_ISREG(status.st_mode) || S_ISDIR(status.st_mode);
  if (!isPlain) throw Failure(path, kindText(status.st_mode) + ", neither a file nor a folder", kNothingCopied);
}

// Looks up a source by the names on its path. Any folder on the path may be missing.
void findSource(const VolumeFolder& folder, const std::vector<std::string>& names, size_t depth, Row& row) {
  const std::optional<std::string> spelled = folder.find(names[depth]);
  row.source = folder.pathOf(spelled.value_or(names[depth]));
  if (!spelled) {
    for (size_t below = depth + 1; below < names.size(); ++below) row.source += "/" + names[below];
    return;
  }
  const std::optional<struct stat> status = folder.statusOf(*spelled);
  if (!status) return;
  requireNoLink(row.source, *status);
  if (depth + 1 == names.size()) {
    row.status = status;
  } else if (S_ISDIR(status->st_mode)) {
    findSource(folder.folder(names[depth]), names, depth + 1, row);
  }
}

void findDestination(const VolumeFolder& folder, const std::string& name, Row& row) {
  const std::optional<std::string> spelled = folder.find(name);
  row.destination = folder.pathOf(spelled.value_or(name));
  row.isThere = spelled.has_value();
  if (const auto status = spelled ? folder.statusOf(*spelled) : std::nullopt) requireNoLink(row.destination, *status);
}

// Returns the rows in the order of copying. If the folder "boot" does not exist yet, it will be a copy of PCAT. A
// destination in it then counts as existing if PCAT contains it.
std::vector<Row> lookUp(const VolumeFolder& root, const std::string& store) {
  std::vector<Row> rows(4);
  findSource(root, {"Windows", "Boot", "PCAT"}, 0, rows[0]);
  findSource(root, {"Windows", "Boot", "Fonts"}, 0, rows[1]);
  rows[2].source = store;
  struct stat status = {};
  if (stat(store.c_str(), &status) == 0) {
    rows[2].status = status;
  } else if (errno != ENOENT) {
    throw Failure::ofErrno(store, errno, kNothingCopied);
  }
  findSource(root, {"Windows", "Boot", "PCAT", "bootmgr"}, 0, rows[3]);

  findDestination(root, kBoot, rows[0]);
  findDestination(root, "bootmgr", rows[3]);
  const bool hasFolder = rows[0].isThere;
  if (!hasFolder && !(rows[0].status && S_ISDIR(rows[0].status->st_mode))) return rows;
  const VolumeFolder below = hasFolder ? root.folder(kBoot) : root.folder("Windows").folder("Boot").folder("PCAT");
  const std::pair<int, const char*> inBoot[] = {{1, "Fonts"}, {2, "BCD"}};
  for (const auto& [row, name] : inBoot) {
    findDestination(below, name, rows[static_cast<size_t>(row)]);
    if (!hasFolder) rows[static_cast<size_t>(row)].destination = rows[0].destination + "/" + name;
  }
  return rows;
}

// The temporary folder of a set-up. The destructor removes it with its content, also after a failure.
class TemporaryFolder {
 public:
  explicit TemporaryFolder(const VolumeFolder& root) : path_(root.pathOf(kTemporary)) {
    if (mkdir(path_.c_str(), 0700) != 0) throw Failure::ofErrno(path_, errno, kNothingCopied);
    folder_ = Descriptor(open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder_ || flock(folder_.get(), LOCK_EX | LOCK_NB) != 0) throw Failure::ofErrno(path_, errno);
  }
  ~TemporaryFolder() {
    std::error_code error;
    fs::remove_all(path_, error);
    if (error) complain(path_ + ": cannot be removed: " + error.message() + "; the next run tries again");
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::string& path() const { return path_; }

 private:
  std::string path_;
  Descriptor folder_;
};

void syncItem(const fs::path& path, bool isFolder) {
  const Descriptor item(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!item || (isFolder ? syncFolder(item.get()) : platform().filesInPlace->sync(item.get())) != 0) {
    throw Failure::ofErrno(path.string(), errno, kNothingCopied);
  }
}

// Syncs a file, or a folder with all that is in it. Skips links: syncing their folder syncs them.
void syncTree(const fs::path& path) {
  std::error_code error;
  const fs::file_status status = fs::symlink_status(path, error);
  if (fs::is_regular_file(status)) syncItem(path, false);
  if (!fs::is_directory(status)) return;
  for (fs::directory_iterator entry(path, error); entry != fs::directory_iterator(); entry.increment(error)) {
    syncTree(entry->path());
  }
  if (error) throw Failure(path.string(), error.message(), kNothingCopied);
  syncItem(path, true);
}

bool isBelow(const std::string& path, const std::string& folder) {
  return path.starts_with(folder + "/");
}

// Adds a file, or a folder with all that is in it. Links are left out: a source that is one was refused.
void addChanges(const fs::path& copy, const std::string& volume, const std::string& path,
                std::vector<FileChange>& changes) {
  std::error_code error;
  const fs::file_status status = fs::symlink_status(copy, error);
  FileChange change;
  change.volume = volume;
  change.path = path;
  change.isFolder = fs::is_directory(status);
  if (fs::is_regular_file(status)) change.after = sha256(readFile(copy.string(), kLargestFile));
  if (change.isFolder || fs::is_regular_file(status)) changes.push_back(change);
  if (!change.isFolder) return;
  for (fs::directory_iterator entry(copy, error); entry != fs::directory_iterator(); entry.increment(error)) {
    addChanges(entry->path(), volume, path + "/" + entry->path().filename().string(), changes);
  }
  if (error) throw Failure(copy.string(), error.message(), kNothingCopied);
}

// What appears on the volume when copies take their places.
std::vector<FileChange> changesOf(const VolumeFolder& root, const std::vector<LegacyBootItem>& moves) {
  const std::string device = deviceMountedAt(root.path());
  const size_t above = device.empty() || root.path() == "/" ? 0 : root.path().size();
  std::vector<FileChange> changes;
  for (const LegacyBootItem& move : moves) {
    addChanges(move.source, device, move.destination.substr(above), changes);
  }
  return changes;
}

}  // namespace

LegacyBootPlan planLegacyBoot(const VolumeFolder& root, const std::string& store) {
  LegacyBootPlan plan;
  plan.root = root.path();
  // Keeps its value across rows: a missing source is optional after a folder and required after a file.
  bool isFolder = false;
  for (const Row& row : lookUp(root, store)) {
    if (row.status) isFolder = S_ISDIR(row.status->st_mode);
    if (!row.status && isFolder) {
      plan.skipped.push_back(row.source);
      continue;
    }
    if (row.isThere) continue;
    if (!row.status) throw Failure::ofErrno(row.source, ENOENT, kNothingCopied);
    if (row.destination.empty()) {
      throw Failure(plan.items.front().source,
                    "is a file, but must be a folder, which is copied to " + std::string(kBoot), kNothingCopied);
    }
    plan.items.push_back({row.source, row.destination});
  }
  return plan;
}

std::string copyLegacyBootFiles(const VolumeFolder& root, const LegacyBootPlan& plan, const BackupChoice& choice) {
  const TemporaryFolder temporary(root);
  const std::string boot = root.pathOf(kBoot);
  const bool isBootNew = !plan.items.empty() && plan.items.front().destination == boot;
  std::vector<LegacyBootItem> moves;  // from the temporary folder into place
  for (const LegacyBootItem& item : plan.items) {
    const bool isPart = isBootNew && isBelow(item.destination, boot);
    const std::string copy =
        temporary.path() + (isPart ? "/boot" : "") + "/" + fs::path(item.destination).filename().string();
    if (const auto reason = platform().fileCopy->copyItem(item.source, copy)) {
      throw Failure(item.destination, "cannot be copied: " + *reason, kNothingCopied);
    }
    if (!isPart) moves.push_back({copy, item.destination});
  }
  syncTree(temporary.path());
  std::stable_partition(moves.begin(), moves.end(),
                        [&](const LegacyBootItem& move) { return move.destination != boot; });
  FileBackup backup("files for a legacy start on " + root.path(), changesOf(root, moves), changeBackup(choice));
  std::string state = kNothingCopied;
  for (const LegacyBootItem& move : moves) {
    if (takeFreeName(move.source, move.destination) != 0) throw Failure::ofErrno(move.destination, errno, state);
    state = "some of the files are in place; run the command again to copy the rest";
    backup.keep();
    const Descriptor parent(
        open(fs::path(move.destination).parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!parent || syncFolder(parent.get()) != 0) throw Failure::ofErrno(move.destination, errno, state);
  }
  if (platform().filesInPlace->syncFileSystem(root.descriptor()) != 0) {
    throw Failure::ofErrno(root.path(), errno, "all files are in place, but may be lost on a power failure");
  }
  return backup.keep();
}

void removeLegacyBootLeftovers(const VolumeFolder& root) {
  const std::optional<struct stat> status = root.statusOf(kTemporary);
  if (!status) return;
  const std::string path = root.pathOf(kTemporary);
  if (S_ISDIR(status->st_mode)) {
    const Descriptor folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder) throw Failure::ofErrno(path, errno, kNothingCopied);
    if (flock(folder.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
      throw Failure(root.path(), "another process is setting it up", kNothingCopied);
    }
  }
  std::error_code error;
  fs::remove_all(path, error);  // if it is a link, removes the link only
  if (error) throw Failure(path, error.message(), kNothingCopied);
}

}  // namespace vorlix::tool
