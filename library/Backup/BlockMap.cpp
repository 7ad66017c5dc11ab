// SPDX-License-Identifier: Apache-2.0
#include "BlockMap.h"

#include "Layout.h"

namespace vorlix {
namespace {

constexpr size_t kDigestDigits = 64;
constexpr size_t kPendingText = 65536;
constexpr const char* kStart =
    "<?xml version=\"1.0\" ?>\n"
    "<!-- Ranges of blocks of volume.img that are in use. `bmaptool copy` takes this file. -->\n"
    "<bmap version=\"2.0\">\n";
constexpr const char* kEnd = "    </BlockMap>\n</bmap>\n";

std::string element(const char* name, const std::string& content) {
  return std::string("    <") + name + "> " + content + " </" + name + ">\n";
}

}  // namespace

BlockMapWriter::BlockMapWriter(const std::string& path, uint64_t imageSize, uint64_t mappedBlocks) : file_(path) {
  const uint64_t blocks = imageSize / kMapBlock + (imageSize % kMapBlock != 0 ? 1 : 0);
  pending_ = kStart + element("ImageSize", std::to_string(imageSize)) +
             element("BlockSize", std::to_string(kMapBlock)) + element("BlocksCount", std::to_string(blocks)) +
             element("MappedBlocksCount", std::to_string(mappedBlocks)) + element("ChecksumType", "sha256");
  checksumOffset_ = pending_.size() + std::string("    <BmapFileChecksum> ").size();
  pending_ += element("BmapFileChecksum", std::string(kDigestDigits, '0')) + "    <BlockMap>\n";
}

void BlockMapWriter::add(uint64_t firstBlock, uint64_t lastBlock, const std::string& sha256) {
  pending_ += "        <Range chksum=\"" + sha256 + "\"> " + std::to_string(firstBlock);
  if (lastBlock != firstBlock) pending_ += "-" + std::to_string(lastBlock);
  pending_ += " </Range>\n";
  if (pending_.size() >= kPendingText) flush();
}

void BlockMapWriter::flush() {
  file_.add(pending_);
  pending_.clear();
}

void BlockMapWriter::finish() {
  pending_ += kEnd;
  flush();
  file_.replace(checksumOffset_, file_.finishHash());
  file_.sync();
}

}  // namespace vorlix
