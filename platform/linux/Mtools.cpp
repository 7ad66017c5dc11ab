// SPDX-License-Identifier: Apache-2.0
#include "Mtools.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <sstream>

#include "../posix/Descriptor.h"
#include "Command.h"

namespace vorlix {
namespace {

// Messages as in the C locale, but file names as they are. The check that is left out is of a disk's geometry, which
// the volumes of partitions fail. A HOME that is not there: settings of the user would change names and answers, and
// without one mtools looks for it itself.
const std::vector<std::string>& mtoolsEnvironment() {
  static const std::vector<std::string> environment = {"LC_ALL=C.UTF-8", "MTOOLS_SKIP_CHECK=1", "HOME=/nonexistent"};
  return environment;
}

// mtools takes the names of what it looks for as patterns. "*" and "?" are in no name on a FAT volume.
std::string pattern(const std::string& path) {
  std::string quoted = "::";
  for (const char character : path) quoted += character == '[' ? std::string("[[]") : std::string(1, character);
  return quoted;
}

// For a new name at the end of `path`: only the folders before it are looked for.
std::string patternOfParent(const std::string& path) {
  const size_t slash = path.rfind('/');
  return pattern(path.substr(0, slash)) + path.substr(slash);
}

int32_t statusFor(const std::string& errors) {
  return errors.find("Disk full") == std::string::npos ? kDissentError : kDissentNoResources;
}

// Why a change is not on the volume, by what the program had to say, else by what was found.
Dissenter notDone(const std::string& what, const CommandResult& result, const std::string& found) {
  return {statusFor(result.errors), what + ": " + (result.errors.empty() ? found : result.errors)};
}

Dissenter dissenterOf(const CommandResult& result, const std::string& program) {
  if (result.launchError == ENOENT) return {kDissentUnsupported, program + " (of mtools) is not installed"};
  if (result.launchError != 0) return dissenterFor(result.launchError, program);
  const std::string reason = result.errors.empty() ? "it did not end normally" : result.errors;
  return {statusFor(reason), program + ": " + reason};
}

// Compares a file with bytes that come piece by piece.
class Comparison {
 public:
  explicit Comparison(const std::string& file) : file_(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW)) {
    if (!file_) error_ = errno;
  }

  void take(const char* bytes, size_t count) {
    if (!equal_ || error_ != 0) return;
    std::string own(count, '\0');
    equal_ = readFully(own) == count && std::memcmp(own.data(), bytes, count) == 0;
  }

  bool finish() {
    std::string rest(1, '\0');
    return equal_ && error_ == 0 && readFully(rest) == 0;
  }

  int error() const { return error_; }

 private:
  size_t readFully(std::string& to) {
    size_t done = 0;
    while (done < to.size()) {
      const ssize_t got = read(file_.get(), to.data() + done, to.size() - done);
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) error_ = errno;
      if (got <= 0) break;
      done += static_cast<size_t>(got);
    }
    return done;
  }

  Descriptor file_;
  bool equal_ = true;
  int error_ = 0;
};

// The letters that "mattrib -X" starts a line with: "D" for a folder, else attributes.
Mtools::Entry entryOf(const std::string& letters, const std::string& path) {
  Mtools::Entry entry{path, letters.find('D') != std::string::npos, ""};
  for (const char letter : letters) {
    if (std::strchr("RHS", letter) != nullptr) entry.attributes += letter;
  }
  return entry;
}

}  // namespace

struct Mtools::Result {
  CommandResult command;
  std::string program;
  std::string output;
  Refusal refusal() const {
    if (command.succeeded()) return std::nullopt;
    return dissenterOf(command, program);
  }
};

std::string Mtools::image() const {
  return "/proc/self/fd/" + std::to_string(kSharedDescriptor) + "@@" + std::to_string(offset_);
}

Mtools::Result Mtools::run(std::vector<std::string> arguments) const {
  Result result;
  result.program = arguments.front();
  arguments.insert(arguments.begin() + 1, {"-i", image()});
  result.command = runCommand({std::move(arguments), mtoolsEnvironment(), descriptor_,
                               [&](const char* bytes, size_t count) { result.output.append(bytes, count); }});
  return result;
}

Refusal Mtools::list(std::vector<Entry>& entries) const {
  const Result result = run({"mattrib", "-X", "-/", "::/"});
  entries.clear();
  std::istringstream lines(result.output);
  for (std::string line; std::getline(lines, line);) {
    const size_t start = line.find("::/");
    if (start == std::string::npos) return Dissenter{kDissentError, "mattrib: unexpected answer \"" + line + "\""};
    const std::string path = line.substr(start + 2);
    if (path != "/") entries.push_back(entryOf(line.substr(0, start), path));
  }
  // A volume that holds folders alone is listed, and its root then counts as a file that was not found.
  const bool noFiles = std::all_of(entries.begin(), entries.end(), [](const Entry& entry) { return entry.isFolder; });
  const bool rootNotFound = result.command.errors.find("File \"::/\" not found") != std::string::npos;
  const bool listedAll = result.command.status == 1 && noFiles && rootNotFound && !result.output.empty();
  return listedAll ? std::nullopt : result.refusal();
}

Refusal Mtools::find(const std::string& path, Entry& entry) const {
  const Result result = run({"mattrib", "-X", pattern(path)});
  if (result.command.status == 1 && result.command.errors.find("not found") != std::string::npos) {
    return Dissenter{kDissentNotFound, path + " is not on the volume"};
  }
  if (Refusal refusal = result.refusal()) return refusal;
  entry = entryOf(result.output.substr(0, result.output.find("::/")), path);  // folders come without their path
  return std::nullopt;
}

Refusal Mtools::copyAllTo(const std::string& folder) const {
  return run({"mcopy", "-s", "-n", "-p", "-m", "-Q", "::/", folder}).refusal();
}

Refusal Mtools::compare(const std::string& path, const std::string& file, bool& isEqual) const {
  Comparison comparison(file);
  if (comparison.error() != 0) return dissenterFor(comparison.error(), file);
  const CommandResult result = runCommand({{"mcopy", "-i", image(), pattern(path), "-"},
                                           mtoolsEnvironment(),
                                           descriptor_,
                                           [&](const char* bytes, size_t count) { comparison.take(bytes, count); }});
  if (!result.succeeded()) return dissenterOf(result, "mcopy");
  isEqual = comparison.finish();
  if (comparison.error() != 0) return dissenterFor(comparison.error(), file);
  return std::nullopt;
}

Refusal Mtools::write(const std::string& file, const std::string& path) const {
  const Result result = run({"mcopy", "-o", "-m", file, patternOfParent(path)});
  if (result.command.launchError != 0) return result.refusal();
  bool isEqual = false;
  const Refusal unread = compare(path, file, isEqual);
  if (!unread && isEqual) return std::nullopt;
  return notDone(path + " could not be written", result.command, unread ? unread->text : "it reads back differently");
}

Refusal Mtools::makeFolder(const std::string& path) const {
  const Result result = run({"mmd", patternOfParent(path)});
  if (result.command.launchError != 0) return result.refusal();
  Entry entry;
  const Refusal missing = find(path, entry);
  if (!missing && entry.isFolder) return std::nullopt;
  return notDone(path + " could not be made", result.command, missing ? missing->text : "it is a file");
}

Refusal Mtools::remove(const std::string& path, bool isFolder) const {
  const Result result = run({isFolder ? "mdeltree" : "mdel", pattern(path)});
  if (Refusal refusal = result.refusal()) return refusal;
  Entry entry;
  const Refusal found = find(path, entry);
  if (found && found->status == kDissentNotFound) return std::nullopt;
  return notDone(path + " could not be removed", result.command, found ? found->text : "it is still there");
}

Refusal Mtools::addAttributes(const std::string& path, const std::string& letters) const {
  if (letters.empty()) return std::nullopt;
  std::vector<std::string> arguments = {"mattrib"};
  for (const char letter : letters) arguments.push_back({'+', static_cast<char>(std::tolower(letter))});
  arguments.push_back(pattern(path));
  if (Refusal refusal = run(arguments).refusal()) return refusal;
  Entry entry;
  if (Refusal refusal = find(path, entry)) return refusal;
  if (entry.attributes == letters) return std::nullopt;
  return Dissenter{kDissentError, path + " did not take the attributes " + letters};
}

}  // namespace vorlix
