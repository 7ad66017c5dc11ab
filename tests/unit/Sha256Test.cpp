// SPDX-License-Identifier: Apache-2.0
//
// Expected values: the examples published with FIPS 180-4 and, for each length up to three blocks, sha256sum(1).
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include <Vorlix/foundation/Sha256.h>

namespace vorlix {
namespace {

std::string hashOf(const std::string& text) {
  return sha256({reinterpret_cast<const uint8_t*>(text.data()), text.size()});
}

TEST(Sha256, PublishedExamples) {
  EXPECT_EQ(hashOf(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(hashOf("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(hashOf("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
            "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
  EXPECT_EQ(hashOf(std::string(1000000, 'a')), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST(Sha256, EveryLengthUpToThreeBlocksMatchesTheSystemsTool) {
  if (std::system("command -v sha256sum >/dev/null") != 0) GTEST_SKIP() << "sha256sum is not installed";
  const std::string path = testing::TempDir() + "sha256-test.bin";
  std::string bytes;
  for (int length = 0; length <= 3 * 64; ++length) {
    std::ofstream(path, std::ios::binary) << bytes;
    FILE* const tool = popen(("sha256sum <'" + path + "'").c_str(), "r");
    ASSERT_NE(tool, nullptr);
    char line[65] = {};
    ASSERT_NE(std::fgets(line, sizeof line, tool), nullptr);
    pclose(tool);
    EXPECT_EQ(hashOf(bytes), line) << length << " bytes";
    bytes += static_cast<char>(length * 37 + 11);
  }
  std::remove(path.c_str());
}

}  // namespace
}  // namespace vorlix
