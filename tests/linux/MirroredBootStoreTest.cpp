// SPDX-License-Identifier: Apache-2.0
//
// update_bcd() on a FAT volume that is mirrored. The mirror's folder is case-sensitive, but the volume is not.
#include <Vorlix/LogCapture.h>
#include <Vorlix/QDSDiskFunctions.h>

#include <filesystem>
#include <iterator>
#include <string>

#include "MirroredVolumeFixture.h"

namespace vorlix::contract {
namespace {

TEST_F(MirroredVolume, AStoreIsReplacedInAnySpelling) {
  const std::string source = volumeFile("new store");
  asUser([&] {
    const LogCapture log(LogCapture::File::leftAlone);
    for (const std::string store : {"EFI/MICROSOFT/BOOT/BCD", "EFI/Microsoft/Boot/bcd"}) {
      const std::string file = mountIt({"rw"}) + "/" + store;
      std::filesystem::create_directories(std::filesystem::path(file).parent_path());
      writeText(file, "the previous store");
      ASSERT_TRUE(granted(unmountIt()));

      EXPECT_EQ(update_bcd(source.c_str(), image_.c_str(), volume_.c_str(), 0), 0) << log.text();
      EXPECT_EQ(fileOn(image_, store).substr(0, 9), "new store");  // as read by mtools
      const std::string folder = std::filesystem::path(mountIt() + "/" + store).parent_path();
      EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 1);
      std::filesystem::remove_all(mounted() + "/EFI");
      ASSERT_TRUE(granted(unmountIt()));
    }
  });
}

}  // namespace
}  // namespace vorlix::contract
