// SPDX-License-Identifier: Apache-2.0
#include "BlockMap.h"
#include "Content.h"

namespace vorlix {

std::optional<BlockMap> readBlockMap(const std::string& path, ImageFailure& failure) {
  failure.subject = path;
  const auto file = SourceFile::open(path, failure.reason);
  if (file == nullptr) return std::nullopt;
  Content content(file);
  BlockMapReader reader;
  std::vector<uint8_t> buffer(size_t{64} << 10);
  for (;;) {
    const auto count = content.read(buffer);
    if (!count) {
      failure.reason = content.reason();
      return std::nullopt;
    }
    const bool isRight = *count == 0 ? reader.finish() : reader.add(std::span(buffer).first(*count));
    if (!isRight) {
      failure.reason = reader.reason();
      return std::nullopt;
    }
    if (*count == 0) return reader.takeMap();
  }
}

}  // namespace vorlix
