// SPDX-License-Identifier: Apache-2.0
#include "BlockCoding.h"

#include <Vorlix/foundation/HexDigits.h>

#include <array>

#include "BlockCodingTable.h"

namespace vorlix {
namespace {

constexpr size_t kDigestSize = 32;

class TableCoder final : public BlockCoder {
 public:
  TableCoder(const BlockCodingTable& table, void* coder) : table_(table), coder_(coder) {}
  ~TableCoder() override { table_.freeCoder(coder_); }

  size_t largestFrame(size_t count) const override { return table_.largestFrame(count); }

  std::optional<size_t> pack(std::span<const uint8_t> block, std::span<uint8_t> frame) override {
    const int64_t size = table_.pack(coder_, block.data(), block.size(), frame.data(), frame.size());
    if (size < 0) return std::nullopt;
    return static_cast<size_t>(size);
  }

  bool unpack(std::span<const uint8_t> frame, std::span<uint8_t> block) override {
    const int64_t size = table_.unpack(coder_, frame.data(), frame.size(), block.data(), block.size());
    return size >= 0 && static_cast<size_t>(size) == block.size();
  }

 private:
  const BlockCodingTable& table_;
  void* coder_;
};

class TableHash final : public BlockHash {
 public:
  TableHash(const BlockCodingTable& table, void* hash) : table_(table), hash_(hash) {}
  ~TableHash() override { table_.freeHash(hash_); }

  void add(std::span<const uint8_t> bytes) override { table_.addToHash(hash_, bytes.data(), bytes.size()); }

  std::string finish() override {
    std::array<uint8_t, kDigestSize> digest = {};
    table_.finishHash(hash_, digest.data());
    return hexText(digest);
  }

 private:
  const BlockCodingTable& table_;
  void* hash_;
};

}  // namespace

std::unique_ptr<BlockCoder> PosixBlockCoding::newCoder(std::string& reason) {
  const BlockCodingTable* const table = blockCodingTable(reason);
  if (table == nullptr) return nullptr;
  void* const coder = table->newCoder();
  if (coder == nullptr) reason = "not enough memory to pack blocks";
  return coder == nullptr ? nullptr : std::make_unique<TableCoder>(*table, coder);
}

std::unique_ptr<BlockHash> PosixBlockCoding::newHash(std::string& reason) {
  const BlockCodingTable* const table = blockCodingTable(reason);
  if (table == nullptr) return nullptr;
  void* const hash = table->newHash();
  if (hash == nullptr) reason = "SHA-256 is not available";
  return hash == nullptr ? nullptr : std::make_unique<TableHash>(*table, hash);
}

}  // namespace vorlix
