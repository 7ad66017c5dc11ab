// SPDX-License-Identifier: Apache-2.0
#include "BlockMap.h"

#include <algorithm>
#include <charconv>

#include "Layout.h"

namespace vorlix {
namespace {

constexpr size_t kDigestDigits = 64;
constexpr size_t kPendingText = 65536;
constexpr size_t kLongestLine = 4096;
constexpr const char* kStart =
    "<?xml version=\"1.0\" ?>\n"
    "<!-- Ranges of blocks of volume.img that are in use. `bmaptool copy` takes this file. -->\n"
    "<bmap version=\"2.0\">\n";
constexpr const char* kEnd = "    </BlockMap>\n</bmap>\n";

std::string element(const char* name, const std::string& content) {
  return std::string("    <") + name + "> " + content + " </" + name + ">\n";
}

// What stands between two texts; absent where the line has another form.
std::optional<std::string> between(const std::string& line, const std::string& start, const std::string& end) {
  if (line.size() < start.size() + end.size() || !line.starts_with(start) || !line.ends_with(end)) return std::nullopt;
  return line.substr(start.size(), line.size() - start.size() - end.size());
}

std::optional<uint64_t> numberIn(const std::string& text) {
  uint64_t value = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || stop != end) return std::nullopt;
  return value;
}

bool isDigest(const std::string& text) {
  return text.size() == kDigestDigits && text.find_first_not_of("0123456789abcdef") == std::string::npos;
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

BlockMapReader::BlockMapReader(const std::string& path) : path_(path), file_(path) {
  for (size_t begun = 0; begun < 3; ++begun) {
    if (!line()) fail("is no block map");
  }
  imageSize_ = number("ImageSize");
  const uint64_t blockSize = number("BlockSize");
  const uint64_t blocks = number("BlocksCount");
  mappedBlocks_ = number("MappedBlocksCount");
  if (blockSize != kMapBlock || blocks != imageSize_ / kMapBlock + (imageSize_ % kMapBlock != 0 ? 1 : 0)) {
    fail("is no block map of this form");
  }
  if (line() != "    <ChecksumType> sha256 </ChecksumType>") fail("is no block map of this form");
  const std::string start = "    <BmapFileChecksum> ";
  const auto checksum = between(line().value_or(""), start, " </BmapFileChecksum>");
  if (!checksum || !isDigest(*checksum)) fail("is no block map of this form");
  checksum_ = *checksum;
  checksumOffset_ = lineOffset_ + start.size();
  if (line() != "    <BlockMap>") fail("is no block map of this form");
}

void BlockMapReader::fail(const std::string& reason) const {
  throw BackupError(path_, reason);
}

std::optional<std::string> BlockMapReader::line() {
  size_t end = buffer_.find('\n', at_);
  if (end == std::string::npos) {
    buffer_.erase(0, at_);
    at_ = 0;
    std::vector<uint8_t> more(static_cast<size_t>(std::min<uint64_t>(kPendingText, file_.size() - offset_)));
    file_.read(offset_, more);
    offset_ += more.size();
    buffer_.append(more.begin(), more.end());
    end = buffer_.find('\n');
    if (end == std::string::npos) return std::nullopt;
  }
  if (end - at_ > kLongestLine) fail("is no block map of this form");
  lineOffset_ = offset_ - (buffer_.size() - at_);
  std::string text = buffer_.substr(at_, end - at_);
  at_ = end + 1;
  return text;
}

uint64_t BlockMapReader::number(const char* element) {
  const std::string name = element;
  const auto text = between(line().value_or(""), "    <" + name + "> ", " </" + name + ">");
  const auto value = text ? numberIn(*text) : std::nullopt;
  if (!value) fail("is no block map of this form");
  return *value;
}

std::optional<MappedRange> BlockMapReader::next() {
  const std::optional<std::string> text = line();
  if (text == "    </BlockMap>") {
    if (line() != "</bmap>" || at_ != buffer_.size() || offset_ != file_.size()) fail("has a wrong end");
    return std::nullopt;
  }
  const auto inner = between(text.value_or(""), "        <Range chksum=\"", " </Range>");
  if (!inner || inner->size() < kDigestDigits + 3 || inner->compare(kDigestDigits, 3, "\"> ") != 0) {
    fail("has a damaged range");
  }
  MappedRange range;
  range.sha256 = inner->substr(0, kDigestDigits);
  const std::string blocks = inner->substr(kDigestDigits + 3);
  const size_t dash = blocks.find('-');
  const auto first = numberIn(blocks.substr(0, dash));
  const auto last = dash == std::string::npos ? first : numberIn(blocks.substr(dash + 1));
  const uint64_t count = imageSize_ / kMapBlock + (imageSize_ % kMapBlock != 0 ? 1 : 0);
  if (!isDigest(range.sha256) || !first || !last || *first < nextBlock_ || *last < *first || *last >= count) {
    fail("has a damaged range");
  }
  range.firstBlock = *first;
  range.lastBlock = *last;
  nextBlock_ = *last + 1;
  return range;
}

bool BlockMapReader::hasRightChecksum() {
  const std::unique_ptr<BlockHash> hash = newBackupHash();
  std::vector<uint8_t> piece;
  for (uint64_t offset = 0; offset < file_.size(); offset += piece.size()) {
    piece.resize(static_cast<size_t>(std::min<uint64_t>(size_t{1} << 20, file_.size() - offset)));
    file_.read(offset, piece);
    for (uint64_t i = checksumOffset_; i < checksumOffset_ + kDigestDigits; ++i) {
      if (i >= offset && i < offset + piece.size()) piece[static_cast<size_t>(i - offset)] = '0';
    }
    hash->add(piece);
  }
  return hash->finish() == checksum_;
}

}  // namespace vorlix
