// SPDX-License-Identifier: Apache-2.0
//
// Which Windows version a volume holds, according to the host's registry tool and the setup log.
#include <Vorlix/platform/simulated/SimulatedHostBundle.h>

#include <map>

#include "tests/unit/support/DeviceManagerFixture.h"

namespace vorlix::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kTool = "/Host/Resources/tools/bin/registry_lookup";
constexpr const char* kGrep = "/usr/bin/grep";
constexpr const char* kKey = "Microsoft/Windows NT/CurrentVersion";

class DeviceManagerWindowsVersionTest : public DeviceManagerTest {
 protected:
  DeviceManagerWindowsVersionTest() {
    installWindows("volume");
    machine.addResource("registry_lookup", "", kTool, "tools/bin");
    machine.addProgram(kTool, [this](const Lines& arguments) {
      asked.push_back(arguments);
      const auto found = arguments.size() == 3 ? values.find(arguments[2]) : values.end();
      return printing(found == values.end() ? "" : found->second);
    });
  }

  Dictionary version() { return manager->versionOfWindowsFromVolume(volume); }

  /// Returns the product of a volume whose registry has that product name.
  std::string product(const std::string& name) {
    values["ProductName"] = name;
    return version().text("product").value_or("(none)");
  }

  /// Adds a setup log to the volume, in which grep finds `output`.
  std::string setupLog(const std::string& output) {
    machine.addProgram(kGrep, [this, output](const Lines& arguments) {
      grepped.push_back(arguments);
      return printing(output);
    });
    return placeFile("volume/Windows/Panther/setupact.log");
  }

  const std::string root = mounts / "volume";
  const std::shared_ptr<QDVolume> volume = makeVolume("/dev/disk0s3", root);
  std::map<std::string, std::string> values;
  std::vector<Lines> asked;
  std::vector<Lines> grepped;
};

// ------------------------------------------------------------------------------------------------------------ registry

TEST_F(DeviceManagerWindowsVersionTest, FourValuesAreLookedUpInTheVolumesHive) {
  values = {{"ProductName", "Windows 10 Pro"},
            {"EditionID", "Professional"},
            {"BuildLabEx", "17763.1.amd64fre.rs5_release.180914-1434"},
            {"CurrentBuildNumber", "17763"}};
  const Dictionary answer = version();
  const std::string hive = root + "/Windows/System32/config/SOFTWARE";
  EXPECT_THAT(asked, ElementsAre(Lines{hive, kKey, "ProductName"}, Lines{hive, kKey, "EditionID"},
                                 Lines{hive, kKey, "BuildLabEx"}, Lines{hive, kKey, "CurrentBuildNumber"}));
  EXPECT_EQ(answer.text("product"), "Windows 10");
  EXPECT_EQ(answer.text("edition"), "Professional");
  EXPECT_EQ(answer.text("buildLabEx"), "17763.1.amd64fre.rs5_release.180914-1434");
  EXPECT_EQ(answer.text("currentBuildNumber"), "17763");
  EXPECT_FALSE(answer.contains("bootenv"));
  EXPECT_EQ(answer.values().size(), 4U);
  EXPECT_THAT(lines(), ElementsAre("Product: Windows 10 Pro, Edition: Professional", "Found Windows 10"));
}

TEST_F(DeviceManagerWindowsVersionTest, NothingElseRuns) {
  static_cast<void>(version());
  EXPECT_EQ(machine.journal().size(), 4U);
  EXPECT_EQ(journalOf({"launch "}).size(), 4U);
}

TEST_F(DeviceManagerWindowsVersionTest, TheHivesPathUsesTheVolumesSpelling) {
  machine.removeItem(root);
  makeFolder("volume/WINDOWS/SYSTEM32");
  static_cast<void>(version());
  ASSERT_EQ(asked.size(), 4U);
  for (const Lines& arguments : asked) EXPECT_EQ(arguments[0], root + "/WINDOWS/SYSTEM32/config/SOFTWARE");
}

TEST_F(DeviceManagerWindowsVersionTest, ValuesKeepTheirBlanks) {
  values = {{"ProductName", " Windows Vista \t"}, {"EditionID", " Business "}, {"CurrentBuildNumber", "6002 "}};
  const Dictionary answer = version();
  EXPECT_EQ(answer.text("product"), " Windows Vista \t");
  EXPECT_EQ(answer.text("edition"), " Business ");
  EXPECT_EQ(answer.text("currentBuildNumber"), "6002 ");
  EXPECT_THAT(lines(), ElementsAre("Product:  Windows Vista \t, Edition:  Business "));
}

TEST_F(DeviceManagerWindowsVersionTest, LinesAreJoined) {
  values = {{"ProductName", "Windows\n 10\r\n Pro\n"}, {"EditionID", "Pro\n"}};
  const Dictionary answer = version();
  EXPECT_EQ(answer.text("product"), "Windows 10");
  EXPECT_EQ(answer.text("edition"), "Pro");
  EXPECT_EQ(line(0), "Product: Windows 10\r Pro, Edition: Pro");
}

TEST_F(DeviceManagerWindowsVersionTest, AToolWithoutOutputLeavesAllEmpty) {
  const Dictionary answer = version();
  for (const char* key : {"product", "edition", "buildLabEx", "currentBuildNumber"}) {
    EXPECT_EQ(answer.text(key), "") << key;
  }
  EXPECT_EQ(answer.values().size(), 4U);
  EXPECT_THAT(lines(), ElementsAre("Product: , Edition: "));
}

TEST_F(DeviceManagerWindowsVersionTest, OutputThatIsNotUTF8IsEmpty) {
  values = {{"ProductName", "Windows 10 \xFF"}, {"EditionID", "\xC3"}, {"BuildLabEx", "good"}};
  const Dictionary answer = version();
  EXPECT_EQ(answer.text("product"), "");
  EXPECT_EQ(answer.text("edition"), "");
  EXPECT_EQ(answer.text("buildLabEx"), "good");
  EXPECT_THAT(lines(), ElementsAre("Product: , Edition: "));
}

TEST_F(DeviceManagerWindowsVersionTest, AHostWithoutTheToolLeavesAllEmpty) {
  Platform ports = machine.platform();
  ports.hostBundle = std::make_shared<SimulatedHostBundle>();  // ships no resource
  const ScopedPlatform scope(ports);
  const Dictionary answer = version();
  for (const char* key : {"product", "edition", "buildLabEx", "currentBuildNumber"}) {
    EXPECT_EQ(answer.text(key), "") << key;
  }
  EXPECT_THAT(asked, IsEmpty());
  EXPECT_THAT(lines(), ElementsAre("Could not determine product name", "Product: , Edition: "));
}

TEST_F(DeviceManagerWindowsVersionTest, AToolElsewhereAmongTheResourcesIsIgnored) {
  const auto bundle = std::make_shared<SimulatedHostBundle>();
  bundle->addResource("registry_lookup", "", kTool);
  bundle->addResource("registry_lookup", "sh", kTool, "tools/bin");
  values["ProductName"] = "Windows 10";
  Platform ports = machine.platform();
  ports.hostBundle = bundle;
  const ScopedPlatform scope(ports);
  EXPECT_EQ(version().text("product"), "");
}

TEST_F(DeviceManagerWindowsVersionTest, AToolThatCannotBeLaunchedLeavesAllEmpty) {
  machine.addResource("registry_lookup", "", "/Host/nowhere", "tools/bin");
  EXPECT_EQ(version().text("product"), "");
  EXPECT_THAT(lines(), ElementsAre("Could not determine product name", "Product: , Edition: "));
}

TEST_F(DeviceManagerWindowsVersionTest, WithoutSystem32FourValuesAreEmptyAndNothingIsLogged) {
  machine.removeItem(root);
  placeFile("volume/sources/BOOT.WIM");
  const Dictionary answer = version();
  for (const char* key : {"product", "currentBuildNumber", "buildLabEx", "bootenv"}) {
    EXPECT_EQ(answer.text(key), "") << key;
  }
  EXPECT_EQ(answer.values().size(), 4U);
  EXPECT_THAT(lines(), IsEmpty());
  EXPECT_EQ(machine.journal(), Lines());
}

TEST_F(DeviceManagerWindowsVersionTest, AVolumeWithoutAPathHasNoSystem32) {
  const Dictionary answer = manager->versionOfWindowsFromVolume(makeVolume("/dev/disk0s3"));
  EXPECT_EQ(answer.text("product"), "");
  EXPECT_FALSE(answer.contains("edition"));
  EXPECT_THAT(lines(), IsEmpty());
}

// ----------------------------------------------------------------------------------------------------------- setup log

TEST_F(DeviceManagerWindowsVersionTest, TheBootEnvironmentFollowsThePhraseInTheSetupLog) {
  const std::string found =
      "2019-05-01 10:00:00, Info  IBS  Callback_BootEnvironmentDetect: Detected boot environment: ";
  const std::string path = setupLog(found + "EFI\r\n");
  EXPECT_EQ(version().text("bootenv"), "EFI");
  EXPECT_EQ(path, root + "/Windows/Panther/setupact.log");
  EXPECT_THAT(grepped, ElementsAre(Lines{"boot environment", path}));
  // The output's line feed has been removed already, but not its carriage return.
  EXPECT_THAT(lines(), ElementsAre(found + "EFI\r", "Product: , Edition: "));
}

TEST_F(DeviceManagerWindowsVersionTest, OnlyARegularFileIsASetupLog) {
  const std::string path = setupLog("Detected boot environment: EFI");
  machine.addPipe(path);
  EXPECT_FALSE(version().contains("bootenv"));
  machine.addFolder(path);
  EXPECT_FALSE(version().contains("bootenv"));
  EXPECT_THAT(grepped, IsEmpty());
}

TEST_F(DeviceManagerWindowsVersionTest, TheSetupLogIsReadAfterTheRegistry) {
  setupLog("");
  static_cast<void>(version());
  const Lines launches = journalOf({"launch "});
  ASSERT_EQ(launches.size(), 5U);
  EXPECT_EQ(launches[4].rfind(std::string("launch ") + kGrep, 0), 0U);
}

TEST_F(DeviceManagerWindowsVersionTest, EverythingAfterTheFirstPhraseIsTheBootEnvironment) {
  setupLog("a Detected boot environment: BIOS\r\nb Detected boot environment: EFI\r\nc boot environment\r\n");
  EXPECT_EQ(version().text("bootenv"), "BIOSb Detected boot environment: EFIc boot environment");
}

TEST_F(DeviceManagerWindowsVersionTest, LinesWithoutTheExactPhraseGiveNoBootEnvironment) {
  setupLog("Checking boot environment\r\ndetected boot environment: EFI\r\nDetected boot environment:EFI\r\n");
  const Dictionary answer = version();
  EXPECT_EQ(answer.text("bootenv"), "");
  EXPECT_EQ(answer.values().size(), 5U);
}

TEST_F(DeviceManagerWindowsVersionTest, ACarriageReturnInThePhraseIsIgnored) {
  setupLog("Detected boot\r environment: EFI");
  EXPECT_EQ(version().text("bootenv"), "EFI");
}

TEST_F(DeviceManagerWindowsVersionTest, ASetupLogWithoutAMatchHasAnEmptyBootEnvironment) {
  setupLog("");
  EXPECT_EQ(version().text("bootenv"), "");
  EXPECT_THAT(lines(), ElementsAre("", "Product: , Edition: "));
}

TEST_F(DeviceManagerWindowsVersionTest, ASetupLogWithAPhraseAtItsEndHasAnEmptyBootEnvironment) {
  setupLog("Detected boot environment: ");
  EXPECT_EQ(version().text("bootenv"), "");
}

TEST_F(DeviceManagerWindowsVersionTest, TheSetupLogIsNotSearchedInOtherSpellings) {
  setupLog("Detected boot environment: EFI\r\n");
  machine.removeItem(root);
  makeFolder("volume/WINDOWS/System32");
  placeFile("volume/WINDOWS/Panther/setupact.log");
  EXPECT_FALSE(version().contains("bootenv"));
  EXPECT_THAT(grepped, IsEmpty());
}

TEST_F(DeviceManagerWindowsVersionTest, OnNTFSHiveAndSetupLogAreFoundInTheVolumesSpelling) {
  setupLog("Detected boot environment: EFI\r\n");
  machine.removeItem(root);
  const std::string hive = placeFile("volume/WINDOWS/system32/CONFIG/software");
  const std::string log = placeFile("volume/WINDOWS/PANTHER/SetupAct.log");
  volume->setFileSystemType("ntfs");
  EXPECT_EQ(version().text("bootenv"), "EFI");
  ASSERT_EQ(asked.size(), 4U);
  EXPECT_EQ(asked[0][0], hive);
  EXPECT_THAT(grepped, ElementsAre(Lines{"boot environment", log}));
}

// ------------------------------------------------------------------------------------------------------------- product

TEST_F(DeviceManagerWindowsVersionTest, ProductsAreMappedByName) {
  const struct {
    const char* name;
    const char* product;
    const char* message;  ///< null if there is none
  } cases[] = {
      {"Windows 10 Pro", "Windows 10", "Found Windows 10"},
      {"WINDOWS 10", "Windows 10", "Found Windows 10"},
      {"Microsoft Windows 10 Enterprise LTSC", "Windows 10", "Found Windows 10"},
      {"Windows 8 Pro", "Windows 8+", "Found Windows 8+"},
      {"Windows 8.1 Pro", "Windows 8+", "Found Windows 8+"},
      {"windows 8.1", "Windows 8+", "Found Windows 8+"},
      {"WinBlue Preview", "Windows 8+", "Found Windows 8+"},
      {"some winblue build", "Windows 8+", "Found Windows 8+"},
      {"Windows 7 Professional", "Windows 7", "Found Windows 7"},
      {"WinDows 7", "Windows 7", "Found Windows 7"},
      {"Windows 8 beside Windows 10", "Windows 10", "Found Windows 10"},
      {"Windows 7 WinBlue", "Windows 8+", "Found Windows 8+"},
      {"Windows 7 as well as Windows 8", "Windows 8+", "Found Windows 8+"},
      {"Windows 11 Pro", "Windows 11 Pro", nullptr},
      {"Windows Server 2012 R2", "Windows Server 2012 R2", nullptr},
      {"Windows Vista (TM) Business", "Windows Vista (TM) Business", nullptr},
      {"Microsoft Windows XP", "Microsoft Windows XP", nullptr},
      {"Windows  10", "Windows  10", nullptr},
      {"", "", nullptr},
  };
  values["EditionID"] = "E";
  for (const auto& one : cases) {
    delegate->lines.clear();
    EXPECT_EQ(product(one.name), one.product) << one.name;
    Lines expected = {std::string("Product: ") + one.name + ", Edition: E"};
    if (one.message != nullptr) expected.emplace_back(one.message);
    EXPECT_EQ(lines(), expected);
  }
}

TEST_F(DeviceManagerWindowsVersionTest, PlaceholdersInAProductNameAreNotExpanded) {
  EXPECT_EQ(product("100%s %@ %n"), "100%s %@ %n");
  EXPECT_THAT(lines(), ElementsAre("Product: 100%s %@ %n, Edition: "));
}

// -------------------------------------------------------------------------------------------------- Windows 8 or later

TEST_F(DeviceManagerWindowsVersionTest, WindowsEightAndTenAreEightOrLater) {
  const struct {
    const char* name;
    bool later;
  } cases[] = {
      {"Windows 10 Pro", true}, {"Windows 8.1 Pro", true},      {"WinBlue", true},          {"Windows 7 Home", false},
      {"Windows Vista", false}, {"Windows Server 2016", false}, {"Windows 11 Home", false}, {"", false}};
  for (const auto& one : cases) {
    values["ProductName"] = one.name;
    delegate->lines.clear();
    EXPECT_EQ(manager->hasWindows8OrLaterFromVolume(volume), one.later) << one.name;
    EXPECT_EQ(line(0), "Detecting Version of Windows");
    EXPECT_EQ(line(1), std::string("Product: ") + one.name + ", Edition: ");
  }
}

TEST_F(DeviceManagerWindowsVersionTest, ANullVolumeReturnsFalseAndLogsNothing) {
  EXPECT_FALSE(manager->hasWindows8OrLaterFromVolume(nullptr));
  EXPECT_THAT(lines(), IsEmpty());
  EXPECT_EQ(machine.journal(), Lines());
}

TEST_F(DeviceManagerWindowsVersionTest, AVolumeWithoutSystem32ReturnsFalse) {
  machine.removeItem(root);
  EXPECT_FALSE(manager->hasWindows8OrLaterFromVolume(volume));
  EXPECT_THAT(lines(), ElementsAre("Detecting Version of Windows"));
}

TEST_F(DeviceManagerWindowsVersionTest, TheRecordIsNotChanged) {
  values["ProductName"] = "Windows 10";
  EXPECT_TRUE(manager->hasWindows8OrLaterFromVolume(volume));
  EXPECT_FALSE(volume->hasWindows8orGreater());
  EXPECT_EQ(volume->installedOS(), std::nullopt);
}

}  // namespace
}  // namespace vorlix::test
