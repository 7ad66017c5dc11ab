// SPDX-License-Identifier: Apache-2.0
#include "UnmountedNtfs.h"

#include <Vorlix/foundation/LittleEndian.h>

#include <cerrno>
#include <string_view>
#include <utility>

#include "NtfsReader.h"

namespace vorlix {
namespace {

constexpr size_t kLargestFile = size_t{512} << 20;
constexpr size_t kLargestFolder = size_t{64} << 20;  // bytes of its answer
constexpr size_t kItemHeader = 1 + 8 + 2;

bool isPlainName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

// The items of an answer; false for one that is none.
bool decodeItems(const std::vector<uint8_t>& bytes, std::vector<UnmountedVolume::Item>& items) {
  for (size_t at = 0; at < bytes.size();) {
    if (bytes.size() - at < kItemHeader) return false;
    UnmountedVolume::Item item;
    item.isFolder = bytes[at] != 0;
    item.size = littleEndian(bytes.data() + at + 1, 8);
    const auto length = static_cast<size_t>(littleEndian(bytes.data() + at + 9, 2));
    at += kItemHeader;
    if (bytes.size() - at < length) return false;
    item.name.assign(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                     bytes.begin() + static_cast<std::ptrdiff_t>(at + length));
    at += length;
    if (!isPlainName(item.name)) return false;
    items.push_back(std::move(item));
  }
  return true;
}

class NtfsToRead final : public UnmountedVolume {
 public:
  NtfsToRead(OpenedDevice device, std::unique_ptr<NtfsReader> reader)
      : device_(std::move(device)), reader_(std::move(reader)) {}

  std::vector<Item> itemsIn(const std::string& folder) const override {
    std::vector<Item> items;
    if (list(folder, items)) items.clear();
    return items;
  }

  Refusal list(const std::string& folder, std::vector<Item>& items) const override {
    items.clear();
    std::vector<uint8_t> answer;
    if (Refusal refusal = ask(NtfsReader::What::items, folder, 0, kLargestFolder, answer)) return refusal;
    if (decodeItems(answer, items)) return std::nullopt;
    items.clear();
    return Dissenter{kDissentError, "the NTFS reader answers wrongly"};
  }

  Refusal read(const std::string& file, std::vector<uint8_t>& bytes) const override {
    return ask(NtfsReader::What::content, file, UINT64_MAX, kLargestFile, bytes);
  }

  Refusal readStart(const std::string& file, size_t count, std::vector<uint8_t>& bytes) const override {
    return ask(NtfsReader::What::content, file, count, count, bytes);
  }

  uint64_t roomFor(const std::string&) const override { return 0; }

  Refusal write(const std::string& file, const std::vector<uint8_t>&, const ChangeBackup&, std::string& kept,
                std::string& state) override {
    kept.clear();
    state.clear();
    return dissenterFor(EROFS, file);
  }

 private:
  Refusal ask(NtfsReader::What what, const std::string& path, uint64_t count, size_t limit,
              std::vector<uint8_t>& answer) const {
    Refusal refusal = reader_->ask(what, path, count, limit, answer);
    if (refusal) refusal->text = (path.empty() ? "its root" : path) + ": " + refusal->text;
    return refusal;
  }

  OpenedDevice device_;
  std::unique_ptr<NtfsReader> reader_;
};

}  // namespace

std::unique_ptr<UnmountedVolume> ntfsToRead(OpenedDevice device, Refusal& refusal) {
  std::unique_ptr<NtfsReader> reader = NtfsReader::start(device, refusal);
  if (!reader) return nullptr;
  return std::make_unique<NtfsToRead>(std::move(device), std::move(reader));
}

}  // namespace vorlix
