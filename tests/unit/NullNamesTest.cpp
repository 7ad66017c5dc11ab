// SPDX-License-Identifier: Apache-2.0
//
// The flat functions with null for every name and string, and with a platform that throws. The tests check results and
// log messages, and that nothing is written or left open.
#include <Vorlix/QDSDiskRegistry.h>
#include <Vorlix/platform/DiskArbitration.h>
#include <Vorlix/platform/RunLoop.h>
#include <gmock/gmock.h>

#include <filesystem>
#include <functional>
#include <new>
#include <ostream>
#include <system_error>

#include "tests/unit/support/DiskFixture.h"
#include "tests/unit/support/StandardStreams.h"

namespace vorlix::test {
namespace {

using testing::IsEmpty;

PartitionTable anyTable() {
  PartitionTable table = {};
  table.signature = 0xAA55;
  table.parts[0].type = 0xEE;
  return table;
}

struct Function {
  const char* name;
  std::function<int64_t()> withNull;
  int64_t answer;
  const char* log;
  std::function<int64_t()> withNames;  ///< empty for a function that uses no port and allocates nothing
  int64_t answerToException = -1;
};

void PrintTo(const Function& function, std::ostream* stream) {
  *stream << function.name;
}

int64_t isNull(const char* text) {
  return text == nullptr ? 1 : 0;
}

char* buffer() {
  static char bytes[1024];
  return bytes;
}

constexpr const char* kNoBlockSize = "Error getting number. Unknown volume size line:215Found blockSize: 0";

std::vector<Function> functions() {
  static const std::string kGuardLog = "Checking for guard MBR on disk Found guard MBR.";
  static const std::string kSizeLog = std::string("Getting block size for device ") + kNoBlockSize;
  static const std::string kGUIDLog = "Error opening \n" + kSizeLog;
  static auto bytes = std::vector<uint8_t>(64);
  static int64_t offset = 0;
  return {
      {"logLine", [] { return logLine(nullptr); }, 0, "", {}},
      {"getblocksize", [] { return getblocksize(nullptr); }, 0, kSizeLog.c_str(), [] { return getblocksize("disk0"); },
       0},
      {"has_guard_mbr", [] { return has_guard_mbr(nullptr); }, 1, kGuardLog.c_str(),
       [] { return has_guard_mbr("disk0"); }, 1},
      {"update_mbr_and_partition", [] { return update_mbr_and_partition(nullptr, nullptr, 3, 7, nullptr, 0, 63); }, -1,
       "Updating MBR and PartitionNTFS Partition: Opening device \nError opening device file.",
       [] { return update_mbr_and_partition("disk0", "/dev/null", 3, 7, "disk0s3", 0, 63); }},
      {"write_new_gpt",
       [] {
         const PartitionTable table = anyTable();
         write_new_gpt(1, nullptr, nullptr, &table);
         return 0;
       },
       0,
       "Writing new GPT on device .Opening device with exclusive lock.Failed to open device.Opening device with shared "
       "lock.Error trying to open device %{errono}d. Aborting.",
       [] {
         const PartitionTable table = anyTable();
         write_new_gpt(1, "disk0", "/dev/null", &table);
         return 0;
       },
       0},
      {"update_start_sector", [] { return update_start_sector(1, 0, 63, 0, nullptr); }, -1,
       "error writing \nerror while opening file to write line:632",
       [] { return update_start_sector(1, 0, 63, 0, "disk0s3"); }},
      {"partitionForDeviceIdentifier", [] { return partitionForDeviceIdentifier(nullptr); }, 0,
       "Getting partition number for identifier from IOKitGetting partition number for identifier from IOKit",
       [] { return partitionForDeviceIdentifier("disk0s3"); }, 0},
      {"partitionForDeviceIdentifierOnGivenPlane",
       [] { return partitionForDeviceIdentifierOnGivenPlane(nullptr, nullptr); }, 0,
       "Getting partition number for identifier from IOKit",
       [] { return partitionForDeviceIdentifierOnGivenPlane("disk0s3", kServicePlane); }, 0},
      {"media_type", [] { return media_type(nullptr, nullptr); }, -1, "",
       [] { return media_type("disk0s3", buffer()); }},
      {"lookup_disk_info", [] { return lookup_disk_info(nullptr, nullptr, nullptr, nullptr); }, 0, "",
       [] { return lookup_disk_info("disk0s3", bytes.data(), bytes.data(), &offset); }},
      {"convert_uuid_string_to_bytes", [] { return convert_uuid_string_to_bytes(nullptr, nullptr); }, 0, "", {}},
      {"disk_from_slice", [] { return disk_from_slice(nullptr, nullptr, 1); }, 0, "",
       [] { return disk_from_slice(buffer(), "disk0s3", 1); }},
      {"disk_guid", [] { return disk_guid(nullptr, nullptr); }, -1, kGUIDLog.c_str(),
       [] { return disk_guid("disk0", bytes.data()); }},
      {"remove_all_chars",
       [] {
         remove_all_chars(nullptr, '-');
         return 0;
       },
       0,
       "",
       {}},
      {"mounted_path", [] { return isNull(mounted_path(nullptr)); }, 1, "",
       [] { return isNull(mounted_path("disk0s1")); }, 1},
      {"mount_disk", [] { return mount_disk(nullptr, 1); }, 0, "", [] { return mount_disk("disk0s1", 1); }, 0},
      {"mount_efi", [] { return isNull(mount_efi(nullptr)); }, 1, "Issue opening efi partition on \n",
       [] { return isNull(mount_efi("disk0")); }, 1},
      {"unmount_disk", [] { return unmount_disk(nullptr); }, -1, "Unmounting disk \n",
       [] { return unmount_disk("disk0s1"); }},
      {"unmount_efi", [] { return unmount_efi(nullptr); }, -1, "Issue opening efi partition on \n",
       [] { return unmount_efi("disk0"); }, 0},
      {"update_bcd", [] { return update_bcd(nullptr, nullptr, nullptr, 0); }, -1,
       "Mounting EFI partition on \nIssue opening efi partition on \nproblem mounting efi point s\n",
       [] { return update_bcd("/dev/null", "disk0", "disk0s3", 0); }},
      {"file_exist", [] { return file_exist(nullptr); }, 0, "", {}},
      {"write_vbr_to_file", [] { return write_vbr_to_file(nullptr, nullptr); }, -1,
       "writing vbr from volume  to \ncould not open \n", [] { return write_vbr_to_file("disk0s3", "/no such file"); }},
      {"write_mbr_to_file", [] { return write_mbr_to_file(nullptr, nullptr); }, -1, "",
       [] { return write_mbr_to_file("disk0", "/no such file"); }},
      {"restore_vbr_to_device", [] { return restore_vbr_to_device(nullptr, nullptr); }, -1,
       "Unmounting disk \n does not exist\n", [] { return restore_vbr_to_device("/dev/zero", "disk0s3"); }},
      {"change_ownership", [] { return change_ownership(nullptr, 0, 0); }, -1, "", {}},
      {"MyFindEjectableMedia", [] { return MyFindEjectableMedia(nullptr); }, 0, "",
       [] { return MyFindEjectableMedia(nullptr); }, kKernFailure},
      {"MyGetDeviceFilePath", [] { return MyGetDeviceFilePath(nullptr, nullptr, 0); }, kKernFailure, "", {}},
  };
}

// These ports throw exceptions of several types.
class ThrowingDevices : public DeviceFile {
 public:
  std::unique_ptr<DeviceHandle> open(const std::string& path, DeviceAccess, DeviceLock) override {
    throw std::filesystem::filesystem_error("status", path, std::make_error_code(std::errc::io_error));
  }
};

class ThrowingArbitration : public DiskArbitration {
 public:
  std::shared_ptr<DiskArbitrationSession> createSession() override { throw std::bad_alloc(); }
};

class ThrowingRegistry : public IORegistry {
 public:
  KernReturn masterPort(MasterPort&) override { throw std::bad_alloc(); }
  KernReturn createIterator(MasterPort, const std::string&, std::shared_ptr<RegistryIterator>&) override {
    throw std::bad_alloc();
  }
  KernReturn matchingServices(MasterPort, const RegistryMatching&, std::shared_ptr<RegistryIterator>&) override {
    throw std::bad_alloc();
  }
};

class ThrowingLoops : public RunLoops {
 public:
  std::shared_ptr<RunLoop> current() override { throw std::bad_alloc(); }
};

class FlatFunctionTest : public DiskTest, public testing::WithParamInterface<Function> {
 protected:
  FlatFunctionTest() {
    machine.addDisk("disk0", 1 << 20, 512);
    machine.addSlice("disk0", 1, 40, 100);
    machine.addSlice("disk0", 3, 200, 100);
    addVolume("disk0s1", folder / "");
  }
};

TEST_P(FlatFunctionTest, NullMatchesNoDevice) {
  const int descriptors = openDescriptors();
  {
    OutputCapture output(STDOUT_FILENO);
    EXPECT_EQ(GetParam().withNull(), GetParam().answer);
  }
  EXPECT_EQ(log(), GetParam().log);
  EXPECT_THAT(machine.writes(), IsEmpty());
  EXPECT_THAT(mountsAndUnmounts(), IsEmpty());
  EXPECT_EQ(machine.openCount(), 0U);
  EXPECT_EQ(openDescriptors(), descriptors);
}

TEST_P(FlatFunctionTest, NullMatchesNoDeviceOfTheRealMachine) {
  const ScopedPlatform native(nativePortsWithLog());
  OutputCapture output(STDOUT_FILENO);
  EXPECT_EQ(GetParam().withNull(), GetParam().answer);
  EXPECT_THAT(log(), testing::StartsWith(GetParam().log));  // a real registry refuses a plane without a name
}

TEST_P(FlatFunctionTest, ExceptionOfThePlatformIsLoggedAndDoesNotPropagate) {
  if (!GetParam().withNames) return;  // uses no platform
  Platform throwing = machine.platform();
  throwing.deviceFile = std::make_shared<ThrowingDevices>();
  throwing.diskArbitration = std::make_shared<ThrowingArbitration>();
  throwing.ioRegistry = std::make_shared<ThrowingRegistry>();
  throwing.runLoops = std::make_shared<ThrowingLoops>();
  const ScopedPlatform scope(throwing);
  int64_t answer = 0;
  EXPECT_NO_THROW(answer = GetParam().withNames());
  EXPECT_EQ(answer, GetParam().answerToException);
  EXPECT_THAT(log(), testing::AnyOf(testing::HasSubstr(": std::bad_alloc\n"),
                                    testing::HasSubstr(": filesystem error: status: Input/output error")));
  EXPECT_EQ(machine.openCount(), 0U);
}

INSTANTIATE_TEST_SUITE_P(All, FlatFunctionTest, testing::ValuesIn(functions()),
                         [](const auto& function) { return std::string(function.param.name); });

}  // namespace
}  // namespace vorlix::test
