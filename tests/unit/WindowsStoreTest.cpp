// SPDX-License-Identifier: Apache-2.0
//
// The store of an installed Windows, made from its template. What is expected follows public listings of stores that
// Windows' own set-up made (docs/boot-store.md).
#include <Vorlix/StartFiles.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

namespace vorlix::test {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

using Elements = std::map<uint32_t, StoreElement>;

constexpr const char* kManager = "{9dea862c-5cdd-4e70-acc1-f32b344d4795}";
constexpr const char* kTester = "{b2721d73-1db4-4c62-bf78-c548a880142d}";
constexpr const char* kLoaderTemplate = "{b012b84d-c47c-4ed5-b722-c0c42163e569}";
constexpr const char* kGlobal = "{7ea2e1ac-2e61-4728-aaa3-896d9d0a9f0e}";

StoreElement wide(uint32_t type, const std::string& text, uint32_t kind = 1) {
  StoreElement element = {type, kind, 0, {}};
  for (const char c : text + std::string(kind == 7 ? 2 : 1, '\0')) {
    element.data.push_back(static_cast<uint8_t>(c));
    element.data.push_back(0);
  }
  return element;
}

StoreElement bytes(uint32_t type, std::vector<uint8_t> data) {
  return {type, 3, 0, std::move(data)};
}

std::string textOf(const StoreElement& element) {
  std::string text;
  for (size_t i = 0; i + 1 < element.data.size() && element.data[i] != 0; i += 2) text += char(element.data[i]);
  return text;
}

// What a store has after edits: {object: (type, elements)}.
std::map<std::string, std::pair<uint32_t, Elements>> applied(const std::vector<StoreObject>& objects,
                                                             const std::vector<StoreEdit>& edits) {
  std::map<std::string, std::pair<uint32_t, Elements>> store;
  for (const StoreObject& object : objects) {
    store[object.identifier].first = object.type;
    for (const StoreElement& element : object.elements) store[object.identifier].second[element.type] = element;
  }
  for (const StoreEdit& edit : edits) {
    switch (edit.kind) {
      case StoreEdit::Kind::removeObject:
        store.erase(edit.object);
        break;
      case StoreEdit::Kind::setObject:
        store[edit.object].first = edit.type;
        break;
      case StoreEdit::Kind::setElement:
        store[edit.object].second[edit.type] = {edit.type, edit.valueType, 0, edit.data};
        break;
      case StoreEdit::Kind::removeElement:
        store[edit.object].second.erase(edit.type);
        break;
    }
  }
  return store;
}

const std::vector<StoreObject> kTemplate = {
    {kManager,
     kStoreBootManager,
     {wide(0x12000002, "\\EFI\\Microsoft\\Boot\\bootmgfw.efi"), wide(0x12000005, "de-DE"),
      bytes(0x25000004, {10, 0, 0, 0, 0, 0, 0, 0}), bytes(0x45000001, {1, 0, 0, 0, 0, 0, 0, 0})}},
    {kLoaderTemplate,
     kStoreLoader,
     {wide(0x12000005, "de-DE"), wide(0x22000002, "\\windows"), bytes(0x25000020, {1, 0, 0, 0, 0, 0, 0, 0}),
      bytes(0x16000060, {1}), wide(0x42000002, "\\system32\\boot\\winload.efi")}},
    {kGlobal, 0x20100000, {bytes(0x47000005, {1})}},
};

WindowsStart startOf(StartFirmware firmware) {
  WindowsStart start;
  start.firmware = firmware;
  start.partitions.system.partition.fill(0xEF);
  start.partitions.system.disk.fill(0xDD);
  start.partitions.windows.partition.fill(0x33);
  start.partitions.windows.disk.fill(0xDD);
  start.description = "Windows";
  return start;
}

TEST(WindowsStoreTest, TheObjectsOfAnEFIStart) {
  const WindowsStart start = startOf(StartFirmware::efi);
  auto store = applied(kTemplate, windowsStoreEdits(kTemplate, start));
  ASSERT_EQ(store.size(), 5U);  // the manager, its settings, the tester, a loader, a resume object
  ASSERT_TRUE(store.count(kManager) == 1 && store.count(kTester) == 1 && store.count(kGlobal) == 1);
  Elements& manager = store[kManager].second;
  const std::string loaderID = textOf(manager[0x23000003]);
  const std::string resumeID = textOf(manager[0x23000006]);
  EXPECT_THAT(loaderID, MatchesRegex("\\{[0-9a-f]{8}-[0-9a-f]{4}-8[0-9a-f]{3}-a[0-9a-f]{3}-[0-9a-f]{12}\\}"));
  EXPECT_NE(loaderID, resumeID);

  EXPECT_EQ(manager[0x11000001].data, partitionElement(start.partitions.system));
  EXPECT_EQ(textOf(manager[0x12000002]), "\\EFI\\Microsoft\\Boot\\bootmgfw.efi");
  EXPECT_EQ(textOf(manager[0x12000004]), "Windows Boot Manager");
  EXPECT_EQ(textOf(manager[0x12000005]), "de-DE");
  EXPECT_EQ(manager[0x14000006].data, wide(0, kGlobal, 7).data);
  EXPECT_EQ(manager[0x24000001].data, wide(0, loaderID, 7).data);
  EXPECT_EQ(manager[0x24000001].valueType, 7U);
  EXPECT_EQ(textOf(manager[0x24000010]), kTester);
  EXPECT_EQ(manager[0x25000004].data[0], 10);  // the template's
  EXPECT_EQ(manager.count(0x45000001), 0U);
  EXPECT_THAT(store[kGlobal].second, IsEmpty());

  ASSERT_EQ(store.count(loaderID), 1U);
  EXPECT_EQ(store[loaderID].first, kStoreLoader);
  Elements& loader = store[loaderID].second;
  EXPECT_EQ(loader[0x11000001].data, partitionElement(start.partitions.windows));
  EXPECT_EQ(loader[0x21000001].data, partitionElement(start.partitions.windows));
  EXPECT_EQ(textOf(loader[0x12000002]), "\\Windows\\system32\\boot\\winload.efi");
  EXPECT_EQ(textOf(loader[0x12000004]), "Windows");
  EXPECT_EQ(textOf(loader[0x12000005]), "de-DE");
  EXPECT_EQ(textOf(loader[0x14000006]), "{6efb52bf-1766-41db-a6b3-0ee5eff72bd7}");
  EXPECT_EQ(textOf(loader[0x22000002]), "\\Windows");
  EXPECT_EQ(textOf(loader[0x23000003]), resumeID);
  EXPECT_EQ(loader[0x25000020].data[0], 1);
  EXPECT_EQ(loader.count(0x16000060), 1U);
  EXPECT_EQ(loader.count(0x42000002), 0U);

  ASSERT_EQ(store.count(resumeID), 1U);
  EXPECT_EQ(store[resumeID].first, kStoreResume);
  Elements& resume = store[resumeID].second;
  EXPECT_EQ(resume[0x11000001].data, partitionElement(start.partitions.windows));
  EXPECT_EQ(textOf(resume[0x12000002]), "\\Windows\\system32\\winresume.efi");
  EXPECT_EQ(resume[0x21000001].data, partitionElement(start.partitions.windows));
  EXPECT_EQ(textOf(resume[0x22000002]), "\\hiberfil.sys");

  Elements& tester = store[kTester].second;
  EXPECT_EQ(store[kTester].first, kStoreMemoryTester);
  EXPECT_EQ(tester[0x11000001].data, partitionElement(start.partitions.system));
  EXPECT_EQ(textOf(tester[0x12000002]), "\\EFI\\Microsoft\\Boot\\memtest.efi");
  EXPECT_EQ(tester[0x1600000B].data, std::vector<uint8_t>{1});
}

TEST(WindowsStoreTest, ABIOSStartHasItsOwnPaths) {
  WindowsStart start = startOf(StartFirmware::bios);
  start.partitions.windows = start.partitions.system = mbrStorePartition(1 << 20, 0x12345678);
  start.windowsFolder = "WINDOWS";
  auto store = applied(kTemplate, windowsStoreEdits(kTemplate, start));
  Elements& manager = store[kManager].second;
  EXPECT_EQ(manager.count(0x12000002), 0U);
  Elements& loader = store[textOf(manager[0x23000003])].second;
  EXPECT_EQ(loader[0x11000001].data, partitionElement(mbrStorePartition(1 << 20, 0x12345678)));
  EXPECT_EQ(textOf(loader[0x12000002]), "\\WINDOWS\\system32\\winload.exe");
  EXPECT_EQ(loader[0x25000020].data, std::vector<uint8_t>(8));
  EXPECT_EQ(textOf(store[textOf(manager[0x23000006])].second[0x12000002]), "\\WINDOWS\\system32\\winresume.exe");
  EXPECT_EQ(textOf(store[kTester].second[0x12000002]), "\\Boot\\memtest.exe");
}

TEST(WindowsStoreTest, WithoutAMemoryTesterThereIsNoObjectOfOne) {
  WindowsStart start = startOf(StartFirmware::efi);
  start.hasMemoryTester = false;
  std::vector<StoreObject> objects = kTemplate;
  objects.push_back({kTester, kStoreMemoryTester, {wide(0x12000002, "\\boot\\memtest.exe")}});
  auto store = applied(objects, windowsStoreEdits(objects, start));
  EXPECT_EQ(store.count(kTester), 0U);
  EXPECT_EQ(store[kManager].second.count(0x24000010), 0U);
}

TEST(WindowsStoreTest, IdentifiersFollowFromThePartition) {
  const WindowsStart start = startOf(StartFirmware::efi);
  const std::string lines = storeEditLines(windowsStoreEdits(kTemplate, start));
  EXPECT_EQ(storeEditLines(windowsStoreEdits(kTemplate, start)), lines);
  WindowsStart other = start;
  other.partitions.windows.partition[15] ^= 1;
  const auto loaderIn = [](const WindowsStart& one) {
    return textOf(applied({}, windowsStoreEdits({}, one))[kManager].second[0x23000003]);
  };
  EXPECT_NE(loaderIn(start), loaderIn(other));
}

TEST(WindowsStoreTest, DescriptionsAreUTF16) {
  WindowsStart start = startOf(StartFirmware::efi);
  start.description = "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x96\xA5";  // U+E4, U+20AC, U+1F5A5
  EXPECT_THAT(storeEditLines(windowsStoreEdits({}, start)), HasSubstr(" 12000004 1 e400ac203dd8a5dd0000\n"));
}

}  // namespace
}  // namespace vorlix::test
