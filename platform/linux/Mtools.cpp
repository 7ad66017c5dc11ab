// SPDX-License-Identifier: Apache-2.0
#include "Mtools.h"

#include <cerrno>

#include "Command.h"

namespace vorlix {
namespace {

// Messages are those of the C locale, and file names are UTF-8. mtools must not check the geometry of a disk, because
// volumes in partitions fail that check. HOME does not exist, because the user's settings would change names and
// messages; without HOME, mtools would look for them elsewhere.
const std::vector<std::string>& mtoolsEnvironment() {
  static const std::vector<std::string> environment = {"LC_ALL=C.UTF-8", "MTOOLS_SKIP_CHECK=1", "HOME=/nonexistent"};
  return environment;
}

// mtools uses names of existing items as patterns. Names on FAT volumes cannot contain "*" and "?".
std::string pattern(const std::string& path) {
  std::string quoted = "::";
  for (const char character : path) quoted += character == '[' ? std::string("[[]") : std::string(1, character);
  return quoted;
}

// For a new name at the end of `path`: only the folders before it are patterns.
std::string patternOfParent(const std::string& path) {
  const size_t slash = path.rfind('/');
  return pattern(path.substr(0, slash)) + path.substr(slash);
}

}  // namespace

Refusal Mtools::run(const std::string& what, const std::vector<std::string>& arguments) const {
  const std::string& program = arguments.front();
  Command command;
  command.arguments = arguments;
  command.arguments.insert(command.arguments.begin() + 1, {"-i", "/proc/self/fd/" + std::to_string(kSharedDescriptor)});
  command.environment = mtoolsEnvironment();
  command.shared = descriptor_;
  const CommandResult result = runCommand(command);
  if (result.launchError == ENOENT) return Dissenter{kDissentUnsupported, program + " (of mtools) is not installed"};
  if (result.launchError != 0) return dissenterFor(result.launchError, program);
  if (result.succeeded() && result.errors.empty()) return std::nullopt;
  const bool isFull = result.errors.find("Disk full") != std::string::npos ||
                      result.errors.find("No directory slots") != std::string::npos;
  const std::string reason = result.errors.empty() ? program + " did not end normally" : result.errors;
  return Dissenter{isFull ? kDissentNoResources : kDissentError, what + ": " + reason};
}

Refusal Mtools::write(const std::string& file, const std::string& path) const {
  return run(path + " could not be written", {"mcopy", "-o", "-m", file, patternOfParent(path)});
}

Refusal Mtools::makeFolder(const std::string& path) const {
  return run(path + " could not be made", {"mmd", patternOfParent(path)});
}

Refusal Mtools::rename(const std::string& path, const std::string& name) const {
  const std::string target = patternOfParent(path.substr(0, path.rfind('/') + 1) + name);
  return run(path + " could not be renamed", {"mren", pattern(path), target});
}

Refusal Mtools::remove(const std::string& path, bool isFolder) const {
  return run(path + " could not be removed", {isFolder ? "mdeltree" : "mdel", pattern(path)});
}

Refusal Mtools::setAttributes(const std::string& path, const std::vector<std::string>& changes) const {
  std::vector<std::string> arguments = {"mattrib"};
  arguments.insert(arguments.end(), changes.begin(), changes.end());
  arguments.push_back(pattern(path));
  return run("the attributes of " + path + " could not be set", arguments);
}

}  // namespace vorlix
