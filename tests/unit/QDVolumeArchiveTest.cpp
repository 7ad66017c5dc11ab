// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <bitset>

#include "tests/support/FilledVolume.h"
#include "tests/unit/support/PropertyListText.h"

namespace {

using vorlix::AttributedString;
using vorlix::Data;
using vorlix::KeyedArchiver;
using vorlix::KeyedUnarchiver;
using vorlix::UUID;

std::shared_ptr<QDVolume> volumeIn(const Data& archive) {
  return KeyedUnarchiver::unarchivedObject<QDVolume>(archive);
}

std::shared_ptr<QDVolume> roundTrip(const std::shared_ptr<QDVolume>& volume) {
  return volumeIn(KeyedArchiver::archivedDataWithRootObject(volume));
}

// Returns the elements of "$objects" after "$null".
std::string objectsOf(const std::shared_ptr<QDVolume>& volume) {
  const std::string xml = xmlOf(KeyedArchiver::archivedDataWithRootObject(volume));
  const std::string start = "<array><string>$null</string>";
  const size_t from = xml.find(start) + start.size();
  return xml.substr(from, xml.rfind("</array>") - from);
}

// Builds an archive of a record with these entries. The objects that they refer to start at 3.
Data archiveWith(const std::string& entries, const std::string& objects = "") {
  return archiveOf("<dict>" + entries + entry("$class", uid(2)) + "</dict>" + classNamed("QDVolume") + objects);
}

TEST(QDVolumeArchiveTest, ANewRecordHasAllEntriesInOrder) {
  EXPECT_EQ(objectsOf(QDVolume::init()),
            "<dict>" + entry("mbr", uid(2)) + entry("partitionID", uid(0)) + entry("filePath", uid(0)) +
                entry("device", uid(0)) + entry("drivePath", uid(0)) + entry("info", uid(0)) +
                entry("diskName", uid(0)) + entry("usageDescription", uid(0)) + entry("isVM", "<false/>") +
                entry("vmUsername", uid(0)) + entry("vmPassword", uid(0)) + entry("humanSize", uid(0)) +
                entry("fileSystemType", uid(0)) + entry("freeSpace", uid(0)) + entry("totalSize", uid(0)) +
                entry("isBootable", uid(4)) + entry("isRemovable", uid(4)) + entry("volumeUUID", uid(0)) +
                entry("mediaUUID", uid(0)) + entry("mediaContentUUID", uid(0)) + entry("$class", uid(5)) + "</dict>" +
                "<dict>" + entry("NS.data", "<data></data>") + entry("$class", uid(3)) + "</dict>" +
                classNamed("NSMutableData", "<string>NSData</string>") + "<false/>" + classNamed("QDVolume"));
}

TEST(QDVolumeArchiveTest, AFilledRecordHasNoOtherEntries) {
  const std::string objects = objectsOf(volume_test::filled());
  for (const char* key :
       {"filesystemSize", "showLine", "hasWindows", "hasWindows8orGreater", "isWritable", "volumeType", "mediaSize",
        "foundWindowsVersion", "mediaSizeRaw", "mediaBlockSize", "installedOS", "networkShare", "bootResourcePath",
        "bootMgrPath", "wrapperArray", "MVMapName"}) {
    EXPECT_EQ(objects.find("<key>" + std::string(key) + "</key>"), std::string::npos) << key;
    EXPECT_EQ(objects.find("<string>" + std::string(key) + "</string>"), std::string::npos) << key;
  }
}

TEST(QDVolumeArchiveTest, ThePasswordIsWrittenAsUTF8InBase64) {
  const auto volume = QDVolume::init();
  volume->setVmPassword(
      "p\xC3\xA4ss w\xC3\xB6rd, long enough for a second line of a mail's base64, were there line breaks");
  // printf ... | base64 -w0
  EXPECT_NE(
      objectsOf(volume).find("<string>cMOkc3Mgd8O2cmQsIGxvbmcgZW5vdWdoIGZvciBhIHNlY29uZCBsaW5lIG9mIGEgbWFpbCdzIGJhc2U2N"
                             "Cwgd2VyZSB0aGVyZSBsaW5lIGJyZWFrcw==</string>"),
      std::string::npos)
      << objectsOf(volume);
}

TEST(QDVolumeArchiveTest, BufferPartitionIDAndInfoAreArchivedAsMutable) {
  const std::string objects = objectsOf(volume_test::filled());
  EXPECT_NE(objects.find(entry("NS.data", "<data>Vao=</data>")), std::string::npos);
  EXPECT_NE(objects.find(entry("NS.string", "<string>partitionID</string>")), std::string::npos);
  EXPECT_NE(objects.find(entry("NS.string", "<string>info</string>")), std::string::npos);
}

TEST(QDVolumeArchiveTest, ACopysBufferAndPartitionIDAreArchivedAsImmutable) {
  const std::string objects = objectsOf(volume_test::filled()->copyWithZone());
  EXPECT_NE(objects.find("<data>Vao=</data><string>partitionID</string>"), std::string::npos) << objects;
  EXPECT_EQ(objects.find("NS.data</key><data>Vao="), std::string::npos);
  EXPECT_NE(objects.find(entry("NS.string", "<string>info</string>")), std::string::npos);
}

TEST(QDVolumeArchiveTest, ArchivedFieldsSurviveAndNoOthers) {
  const auto volume = volume_test::filled();
  const auto back = roundTrip(volume);
  ASSERT_NE(back, nullptr);
  for (const auto& field : volume_test::texts()) {
    const std::string name = field.name;
    const bool lost = name == "vmPassword" || name == "fileSystemType" || name == "volumeType" || name == "mediaSize" ||
                      name == "installedOS" || name == "networkShare" || name == "bootResourcePath" ||
                      name == "bootMgrPath";
    EXPECT_EQ((*back.*field.get)(), lost ? std::nullopt : (*volume.*field.get)()) << name;
  }
  for (const auto& field : volume_test::flags()) {
    const std::string name = field.name;
    EXPECT_EQ((*back.*field.get)(), name == "isBootable" || name == "isRemovable" || name == "isVM") << name;
  }
  for (const auto& field : volume_test::numbers()) EXPECT_FALSE((*back.*field.get)()) << field.name;
  for (const auto& field : volume_test::uuids()) EXPECT_EQ((*back.*field.get)(), (*volume.*field.get)()) << field.name;
  EXPECT_TRUE(back->usageDescription() == volume->usageDescription());
  EXPECT_EQ(*back->mbr(), *volume->mbr());
  EXPECT_EQ(*back->partitionID(), *volume->partitionID());
  EXPECT_EQ(*back->info(), *volume->info());
  EXPECT_EQ(back->filesystemSize(), 0);
  EXPECT_EQ(back->wrapperArray(), nullptr);
}

TEST(QDVolumeArchiveTest, EachFlagSurvivesAlone) {
  for (const char* name : {"isBootable", "isRemovable", "isVM"}) {
    const auto volume = QDVolume::init();
    for (const auto& field : volume_test::flags()) (*volume.*field.set)(std::string(field.name) == name);
    const auto back = roundTrip(volume);
    for (const auto& field : volume_test::flags())
      EXPECT_EQ((*back.*field.get)(), std::string(field.name) == name) << name;
  }
}

// Each field alone, each pair, and all but those: a field whose absence moves another shows in one of them.
TEST(QDVolumeArchiveTest, FieldsThatAreAbsentSurvive) {
  const auto full = volume_test::filled();
  std::vector<volume_test::Field<volume_test::Text>> texts;
  for (const auto& field : volume_test::texts()) {
    const std::string name = field.name;
    for (const char* kept :
         {"filePath", "drivePath", "device", "diskName", "vmUsername", "humanSize", "freeSpace", "totalSize"}) {
      if (name == kept) texts.push_back(field);
    }
  }
  ASSERT_EQ(texts.size(), 8U);
  constexpr unsigned kFields = 8 + 3 + 4;
  for (unsigned present = 0; present < 1U << kFields; ++present) {
    const auto count = std::bitset<kFields>(present).count();
    if (count > 2 && count < kFields - 2) continue;
    const auto has = [&](unsigned field) { return (present >> field & 1U) != 0; };
    const auto volume = QDVolume::init();
    for (unsigned i = 0; i < 8; ++i) {
      if (has(i)) (*volume.*texts[i].set)((*full.*texts[i].get)());
    }
    for (unsigned i = 0; i < 3; ++i) {
      const auto& field = volume_test::uuids()[i];
      if (has(8 + i)) (*volume.*field.set)((*full.*field.get)());
    }
    volume->setMbr(has(11) ? full->mbr() : nullptr);
    volume->setPartitionID(has(12) ? full->partitionID() : nullptr);
    volume->setInfo(has(13) ? full->info() : nullptr);
    if (has(14)) volume->setUsageDescription(full->usageDescription());
    const auto back = roundTrip(volume);
    ASSERT_NE(back, nullptr);
    for (const auto& field : texts)
      ASSERT_EQ((*back.*field.get)(), (*volume.*field.get)()) << field.name << ' ' << present;
    for (const auto& field : volume_test::uuids()) ASSERT_EQ((*back.*field.get)(), (*volume.*field.get)()) << present;
    ASSERT_EQ(back->mbr() != nullptr, has(11));
    ASSERT_EQ(back->partitionID() != nullptr, has(12));
    ASSERT_EQ(back->info() != nullptr, has(13));
    ASSERT_TRUE(back->usageDescription() == volume->usageDescription()) << present;
  }
}

TEST(QDVolumeArchiveTest, DecodedBuffersAndTextsAreMutable) {
  const auto back = roundTrip(volume_test::filled()->copyWithZone());
  back->appendMBRData({1});
  back->appendpartitionIDData("+");
  back->appendInfo("+");
  EXPECT_EQ(*back->mbr(), (std::vector<uint8_t>{0x55, 0xAA, 1}));
  EXPECT_EQ(*back->partitionID(), "partitionID+");
  EXPECT_EQ(*back->info(), "info+");
}

TEST(QDVolumeArchiveTest, AnArchiveWithoutEntriesGivesARecordWithoutABuffer) {
  const auto back = volumeIn(archiveWith(""));
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(back->description(), "     File System Size:0\n");
  EXPECT_FALSE(back->isVM() || back->isBootable() || back->isRemovable());
}

TEST(QDVolumeArchiveTest, IsVMIsReadAsANumberObjectOrAPlainValue) {
  EXPECT_TRUE(volumeIn(archiveWith(entry("isVM", "<true/>")))->isVM());
  EXPECT_TRUE(volumeIn(archiveWith(entry("isVM", uid(3)), "<true/>"))->isVM());
  EXPECT_TRUE(volumeIn(archiveWith(entry("isVM", uid(3)), "<integer>7</integer>"))->isVM());
  EXPECT_FALSE(volumeIn(archiveWith(entry("isVM", "<false/>")))->isVM());
  EXPECT_FALSE(volumeIn(archiveWith(entry("isVM", uid(3)), "<string>YES</string>"))->isVM());
  EXPECT_FALSE(volumeIn(archiveWith(entry("isVM", uid(0))))->isVM());
}

TEST(QDVolumeArchiveTest, NumbersOtherThanZeroAreTrueFlags) {
  const auto back = volumeIn(archiveWith(entry("isBootable", uid(3)) + entry("isRemovable", uid(4)),
                                         "<integer>2</integer><integer>0</integer>"));
  EXPECT_TRUE(back->isBootable());
  EXPECT_FALSE(back->isRemovable());
}

TEST(QDVolumeArchiveTest, AVolumeTypeIsReadThoughItIsNeverWritten) {
  EXPECT_EQ(volumeIn(archiveWith(entry("volumeType", uid(3)), "<string>disk</string>"))->volumeType(), "disk");
}

TEST(QDVolumeArchiveTest, TheFileSystemTypesOwnEntryIsNotRead) {
  EXPECT_FALSE(volumeIn(archiveWith(entry("fileSystemType", uid(3)), "<string>ntfs</string>"))->fileSystemType());
}

TEST(QDVolumeArchiveTest, TextUnderTheMapNameGivesNoFileSystemType) {
  const auto back =
      volumeIn(archiveWith(entry("MVMapName", uid(3)) + entry("diskName", uid(3)), "<string>ntfs</string>"));
  ASSERT_NE(back, nullptr);
  EXPECT_FALSE(back->fileSystemType());
  EXPECT_EQ(back->diskName(), "ntfs");
}

TEST(QDVolumeArchiveTest, ThePasswordsEntryIsNotRead) {
  EXPECT_FALSE(volumeIn(archiveWith(entry("vmPassword", uid(3)), "<string>c2VjcmV0</string>"))->vmPassword());
}

// A subclass whose password is set before decoding. That password is the key under which the entry is looked up.
struct Remembering : QDVolume {
  static std::shared_ptr<Remembering> initWithCoder(KeyedUnarchiver& coder) {
    auto volume = std::make_shared<Remembering>();
    volume->setVmPassword("vmPassword");
    volume->readEntries(coder);
    return volume;
  }
};

TEST(QDVolumeArchiveTest, ThePasswordIsLookedUpUnderTheRecordsOwnPassword) {
  const auto password = [](const std::string& entries, const std::string& objects) {
    return KeyedUnarchiver::unarchivedObject<Remembering>(archiveWith(entries, objects))->vmPassword();
  };
  EXPECT_EQ(password(entry("vmPassword", uid(3)), "<string>c2VjcmV0</string>"), "secret");
  EXPECT_EQ(password("", ""), "vmPassword");
  EXPECT_EQ(password(entry("vmPassword", uid(3)), "<string>not base64</string>"), std::nullopt);
  EXPECT_EQ(password(entry("vmPassword", uid(3)), "<string>/w==</string>"), std::nullopt);  // FF is invalid UTF-8
}

TEST(QDVolumeArchiveTest, EntriesOfAnotherClassAreAbsent) {
  std::string entries;
  for (const char* key : {"mbr", "partitionID", "filePath", "device", "drivePath", "info", "diskName",
                          "usageDescription", "isVM", "vmUsername", "humanSize", "freeSpace", "totalSize", "isBootable",
                          "isRemovable", "volumeType", "volumeUUID", "mediaUUID", "mediaContentUUID"}) {
    entries += entry(key, uid(1));
  }
  const auto back = volumeIn(archiveWith(entries));
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(back->description(), "     File System Size:0\n");
  EXPECT_FALSE(back->isVM() || back->isBootable() || back->isRemovable());
  EXPECT_FALSE(back->vmUsername() || back->volumeType() || back->volumeUUID() || back->mediaUUID());
  EXPECT_FALSE(back->mediaContentUUID());
}

TEST(QDVolumeArchiveTest, ARecordOfAnotherClassIsNotDecoded) {
  EXPECT_EQ(volumeIn(archiveOf("<dict>" + entry("$class", uid(2)) + "</dict>" + classNamed("QDDiskInfo"))), nullptr);
}

}  // namespace
