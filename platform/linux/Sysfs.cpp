// SPDX-License-Identifier: Apache-2.0
#include "Sysfs.h"

#include <fcntl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <string_view>
#include <system_error>

#include <Vorlix/platform/Descriptor.h>

namespace vorlix {
namespace {

namespace fs = std::filesystem;

template <typename Number>
bool takeNumber(std::string_view& text, Number& number) {
  const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  text.remove_prefix(static_cast<size_t>(stop - text.data()));
  return error == std::errc();
}

// The kernel's links lead directly to the folder, so its path needs no resolution step by step.
std::optional<fs::path> kernelFolder(const fs::path& link) {
  constexpr std::string_view kUp = "../../devices/";
  std::array<char, 1024> text;
  const ssize_t length = readlink(link.c_str(), text.data(), text.size());
  if (length <= 0 || static_cast<size_t>(length) == text.size()) return std::nullopt;
  const std::string_view target(text.data(), static_cast<size_t>(length));
  if (!target.starts_with(kUp) || target.find("..", kUp.size()) != std::string_view::npos) return std::nullopt;
  return fs::path("/sys/devices") / target.substr(kUp.size());
}

}  // namespace

std::string deviceNumberText(dev_t device) {
  return std::to_string(major(device)) + ":" + std::to_string(minor(device));
}

fs::path sysfsLink(dev_t device, const std::string& root) {
  return root + "/sys/dev/block/" + deviceNumberText(device);
}

std::optional<fs::path> sysfsFolder(dev_t device, const std::string& root) {
  const fs::path link = sysfsLink(device, root);
  if (root.empty()) {
    if (std::optional<fs::path> folder = kernelFolder(link)) return folder;
  }
  std::error_code error;
  fs::path folder = fs::canonical(link, error);
  if (error) return std::nullopt;
  return folder;
}

std::optional<fs::path> sysfsFolderOfDisk(dev_t device, const std::string& root) {
  std::optional<fs::path> folder = sysfsFolder(device, root);
  std::error_code error;
  if (folder && fs::exists(*folder / "partition", error)) return folder->parent_path();
  return folder;
}

std::string withSlashes(std::string kernelName) {
  std::replace(kernelName.begin(), kernelName.end(), '!', '/');
  return kernelName;
}

std::string withoutSlashes(std::string bsdName) {
  std::replace(bsdName.begin(), bsdName.end(), '/', '!');
  return bsdName;
}

std::optional<std::string> readText(const fs::path& path) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) return std::nullopt;
  std::string text;
  std::array<char, 4096> piece;
  for (;;) {
    const ssize_t count = read(file.get(), piece.data(), piece.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return std::nullopt;
    if (count == 0) return text;
    text.append(piece.data(), static_cast<size_t>(count));
  }
}

std::optional<std::string> readTrimmed(const fs::path& path) {
  std::optional<std::string> text = readText(path);
  if (text) text->erase(text->find_last_not_of(std::string_view(" \t\r\n\0", 5)) + 1);
  return text && text->empty() ? std::nullopt : text;
}

std::optional<uint64_t> readWholeNumber(const fs::path& path) {
  const std::optional<std::string> text = readTrimmed(path);
  std::string_view rest = text ? *text : std::string_view();
  uint64_t number = 0;
  if (!takeNumber(rest, number) || !rest.empty()) return std::nullopt;
  return number;
}

std::optional<bool> readFlag(const fs::path& path) {
  const std::optional<uint64_t> number = readWholeNumber(path);
  if (!number || *number > 1) return std::nullopt;
  return *number == 1;
}

std::optional<dev_t> readDeviceNumber(const fs::path& path) {
  const std::optional<std::string> text = readTrimmed(path);
  std::string_view rest = text ? *text : std::string_view();
  unsigned majorNumber = 0;
  unsigned minorNumber = 0;
  if (!takeNumber(rest, majorNumber) || !rest.starts_with(':')) return std::nullopt;
  rest.remove_prefix(1);
  if (!takeNumber(rest, minorNumber) || !rest.empty()) return std::nullopt;
  return makedev(majorNumber, minorNumber);
}

std::map<std::string, std::string> readUdevRecord(const std::string& deviceNumber, const std::string& root) {
  std::map<std::string, std::string> properties;
  const std::optional<std::string> text = readText(root + "/run/udev/data/b" + deviceNumber);
  std::string_view rest = text ? *text : std::string_view();
  while (!rest.empty()) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(rest.size(), line.size() + 1));
    const size_t equals = line.find('=');
    if (!line.starts_with("E:") || equals == std::string_view::npos) continue;
    properties[std::string(line.substr(2, equals - 2))] = line.substr(equals + 1);
  }
  return properties;
}

}  // namespace vorlix
