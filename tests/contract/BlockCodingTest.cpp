// SPDX-License-Identifier: Apache-2.0
//
// The contract of <Vorlix/platform/BlockCoding.h> on this system.
#include <Vorlix/platform/BlockCoding.h>
#include <Vorlix/platform/Platform.h>
#include <gtest/gtest.h>

#include <vector>

namespace vorlix::contract {
namespace {

class BlockCodingContract : public testing::Test {
 protected:
  void SetUp() override {
    std::string reason;
    coder_ = nativePlatform().blockCoding->newCoder(reason);
    ASSERT_NE(coder_, nullptr) << reason;
    hash_ = nativePlatform().blockCoding->newHash(reason);
    ASSERT_NE(hash_, nullptr) << reason;
  }

  static std::vector<uint8_t> numbers(size_t count) {
    std::vector<uint8_t> bytes(count);
    for (size_t i = 0; i < count; ++i) bytes[i] = static_cast<uint8_t>(i * i / 7);
    return bytes;
  }

  std::vector<uint8_t> packed(const std::vector<uint8_t>& block) {
    std::vector<uint8_t> frame(coder_->largestFrame(block.size()));
    frame.resize(coder_->pack(block, frame).value());
    return frame;
  }

  std::unique_ptr<BlockCoder> coder_;
  std::unique_ptr<BlockHash> hash_;
};

TEST_F(BlockCodingContract, BlocksComeBack) {
  for (const size_t size : {size_t{1}, size_t{511}, size_t{4} << 20}) {
    const std::vector<uint8_t> block = numbers(size);
    std::vector<uint8_t> back(size);
    EXPECT_TRUE(coder_->unpack(packed(block), back));
    EXPECT_EQ(back, block);
  }
}

// RFC 8878, section 3.1.1: the magic number; bit 2 of the descriptor says that a checksum follows, and bit 5 or bits 6
// and 7 that the size is there.
TEST_F(BlockCodingContract, FramesHaveTheirSizeAndAChecksum) {
  const std::vector<uint8_t> frame = packed(numbers(100000));
  EXPECT_EQ(std::vector<uint8_t>(frame.begin(), frame.begin() + 4), (std::vector<uint8_t>{0x28, 0xB5, 0x2F, 0xFD}));
  EXPECT_NE(frame[4] & 0x04, 0);
  EXPECT_NE(frame[4] & 0xE0, 0);
}

TEST_F(BlockCodingContract, AFrameThatDoesNotFitIsNoFrame) {
  std::vector<uint8_t> room(8);
  EXPECT_FALSE(coder_->pack(numbers(1000), room));
}

TEST_F(BlockCodingContract, WhatIsNotExactlyOneWholeFrameOfTheBlockIsRefused) {
  const std::vector<uint8_t> block = numbers(5000);
  const std::vector<uint8_t> frame = packed(block);
  std::vector<uint8_t> back(block.size());
  EXPECT_FALSE(coder_->unpack(std::span(frame).first(frame.size() - 1), back));
  EXPECT_FALSE(coder_->unpack(std::span(frame).first(0), back));
  std::vector<uint8_t> changed = frame;
  changed[frame.size() / 2] ^= 0x10;
  EXPECT_FALSE(coder_->unpack(changed, back));
  std::vector<uint8_t> twice = frame;
  twice.insert(twice.end(), frame.begin(), frame.end());
  std::vector<uint8_t> larger(2 * block.size());
  EXPECT_FALSE(coder_->unpack(twice, larger));
  EXPECT_FALSE(coder_->unpack(frame, larger));
  EXPECT_TRUE(coder_->unpack(frame, back));
}

// FIPS 180-2, appendix B: the digests of "abc" and of a million letters a.
TEST_F(BlockCodingContract, HashesArePublishedOnes) {
  const std::vector<uint8_t> abc = {'a', 'b', 'c'};
  hash_->add(std::span(abc).first(1));
  hash_->add(std::span(abc).subspan(1));
  EXPECT_EQ(hash_->finish(), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  hash_->add(std::vector<uint8_t>(1000000, 'a'));
  EXPECT_EQ(hash_->finish(), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
  EXPECT_EQ(hash_->finish(), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");  // of nothing
}

}  // namespace
}  // namespace vorlix::contract
