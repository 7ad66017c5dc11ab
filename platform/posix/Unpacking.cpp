// SPDX-License-Identifier: Apache-2.0
#include "Unpacking.h"

#include <array>
#include <cerrno>
#include <exception>

#include "UnpackerTable.h"

namespace vorlix {
namespace {

class TableUnpacked final : public UnpackedBytes {
 public:
  TableUnpacked(const UnpackerTable& table, std::shared_ptr<PackedBytes> packed)
      : table_(table), packed_(std::move(packed)) {}
  ~TableUnpacked() override {
    if (unpacker_ != nullptr) table_.close(unpacker_);
  }
  TableUnpacked(const TableUnpacked&) = delete;
  TableUnpacked& operator=(const TableUnpacked&) = delete;

  bool open(PackedFormat format, std::string& reason) {
    PackedCalls calls;
    calls.packed = packed_.get();
    calls.read = [](void* packed, void* buffer, size_t count) -> ssize_t {
      try {
        return static_cast<PackedBytes*>(packed)->read(buffer, count);
      } catch (const std::exception&) {
        errno = ENOMEM;
        return -1;
      }
    };
    calls.seek = [](void* packed, uint64_t offset) {
      try {
        return static_cast<PackedBytes*>(packed)->seek(offset);
      } catch (const std::exception&) {
        return false;
      }
    };
    const auto size = packed_->size();
    if (size && *size <= INT64_MAX) calls.size = static_cast<int64_t>(*size);
    std::array<char, 256> text = {};
    unpacker_ = table_.open(static_cast<int>(format), &calls, text.data(), text.size());
    if (unpacker_ == nullptr) reason = text.data();
    return unpacker_ != nullptr;
  }

  ssize_t read(void* buffer, size_t count) override { return table_.read(unpacker_, buffer, count); }
  std::string reason() const override { return table_.reason(unpacker_); }
  std::optional<uint64_t> size() const override {
    const int64_t size = table_.size(unpacker_);
    return size < 0 ? std::nullopt : std::optional(static_cast<uint64_t>(size));
  }

 private:
  const UnpackerTable& table_;
  std::shared_ptr<PackedBytes> packed_;
  void* unpacker_ = nullptr;
};

}  // namespace

std::unique_ptr<UnpackedBytes> PosixUnpacking::open(PackedFormat format, std::shared_ptr<PackedBytes> packed,
                                                    std::string& reason) {
  const UnpackerTable* const table = unpackerTable(reason);
  if (table == nullptr) return nullptr;
  auto unpacked = std::make_unique<TableUnpacked>(*table, std::move(packed));
  if (!unpacked->open(format, reason)) return nullptr;
  return unpacked;
}

}  // namespace vorlix
