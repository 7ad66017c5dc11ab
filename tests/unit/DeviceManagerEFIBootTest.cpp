// SPDX-License-Identifier: Apache-2.0
//
// Whether the machine can start Windows by EFI, according to the host's list of models that cannot.
#include "tests/unit/support/DeviceManagerFixture.h"

namespace vorlix::test {
namespace {

using testing::IsEmpty;

/// The lists in tests/data/plists name iMac11,1, MacBookPro5,5 and MacPro5,1.
class DeviceManagerEFIBootTest : public DeviceManagerTest {
 protected:
  void setModel(const std::string& model) {
    const std::string bytes = model + '\0';
    addService("Expert", dictionaryOf({{"model", Value(Data(bytes.begin(), bytes.end()))}}), {},
               "IOPlatformExpertDevice");
  }

  void shipList(const std::string& path) { machine.addResource("BeforeEFI", "plist", path); }
  void shipSample(const std::string& name) { shipList(placeSample(name)); }
  std::string placeSample(const std::string& name) {
    return placeFile(name, contentOf(std::string(VORLIX_TEST_DATA) + "/plists/" + name));
  }
};

class DeviceManagerEFIBootListTest : public DeviceManagerEFIBootTest,
                                     public testing::WithParamInterface<const char*> {};

TEST_P(DeviceManagerEFIBootListTest, AModelInTheListCannotBoot) {
  shipSample(GetParam());
  setModel("MacBookPro5,5");
  EXPECT_FALSE(manager->isEFIWindowsBootable());
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_P(DeviceManagerEFIBootListTest, AModelOutsideTheListCanBoot) {
  shipSample(GetParam());
  setModel("MacBookPro14,3");
  EXPECT_TRUE(manager->isEFIWindowsBootable());
}

TEST_P(DeviceManagerEFIBootListTest, CaseMatters) {
  shipSample(GetParam());
  setModel("macbookpro5,5");
  EXPECT_TRUE(manager->isEFIWindowsBootable());
}

TEST_P(DeviceManagerEFIBootListTest, APartOfANameDoesNotMatch) {
  shipSample(GetParam());
  setModel("MacBookPro5");
  EXPECT_TRUE(manager->isEFIWindowsBootable());
}

INSTANTIATE_TEST_SUITE_P(Lists, DeviceManagerEFIBootListTest,
                         testing::Values("models-xml.plist", "models-binary.plist", "mixed-xml.plist",
                                         "mixed-binary.plist"),
                         [](const auto& tested) {
                           std::string name = tested.param;
                           name = name.substr(0, name.find('.'));
                           return name.replace(name.find('-'), 1, "_");
                         });

TEST_F(DeviceManagerEFIBootTest, BlanksInTheMachinesModelAreIgnored) {
  shipSample("models-xml.plist");
  setModel("Mac Pro5,1 ");
  EXPECT_FALSE(manager->isEFIWindowsBootable());
}

TEST_F(DeviceManagerEFIBootTest, WithoutAListItCanBoot) {
  setModel("MacBookPro5,5");
  EXPECT_TRUE(manager->isEFIWindowsBootable());
  shipList(mounts / "nowhere.plist");
  EXPECT_TRUE(manager->isEFIWindowsBootable());
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(DeviceManagerEFIBootTest, AListElsewhereAmongTheResourcesIsIgnored) {
  setModel("MacBookPro5,5");
  const std::string path = placeSample("models-xml.plist");
  machine.addResource("BeforeEFI", "xml", path);
  machine.addResource("BeforeEFI", "", path);
  machine.addResource("BeforeEFI", "plist", path, "tools/bin");
  EXPECT_TRUE(manager->isEFIWindowsBootable());
}

TEST_F(DeviceManagerEFIBootTest, AnythingButAnArrayListsNoModel) {
  setModel("MacBookPro5,5");
  for (const char* name :
       {"dictionary-xml.plist", "dictionary-binary.plist", "text-xml.plist", "text-binary.plist", "empty-xml.plist"}) {
    shipSample(name);
    EXPECT_TRUE(manager->isEFIWindowsBootable()) << name;
  }
}

TEST_F(DeviceManagerEFIBootTest, ADamagedListListsNoModel) {
  setModel("MacBookPro5,5");
  for (const char* sample : {"models-xml.plist", "models-binary.plist"}) {
    const std::string whole = contentOf(std::string(VORLIX_TEST_DATA) + "/plists/" + sample);
    ASSERT_GT(whole.size(), 40U);
    for (const size_t size : {size_t{0}, size_t{1}, size_t{8}, size_t{40}, whole.size() / 2, whole.size() - 20}) {
      shipList(placeFile("cut.plist", whole.substr(0, size)));
      EXPECT_TRUE(manager->isEFIWindowsBootable()) << sample << " " << size;
    }
  }
  shipList(placeFile("noise.plist", std::string(5000, '\xFF')));
  EXPECT_TRUE(manager->isEFIWindowsBootable());
  shipList(mounts / "");  // a folder
  EXPECT_TRUE(manager->isEFIWindowsBootable());
}

TEST_F(DeviceManagerEFIBootTest, AListLargerThanAMebibyteListsNoModel) {
  setModel("MacBookPro5,5");
  const std::string list = contentOf(std::string(VORLIX_TEST_DATA) + "/plists/models-xml.plist");
  shipList(placeFile("large.plist", list + std::string((1 << 20) - list.size(), '\n')));
  EXPECT_FALSE(manager->isEFIWindowsBootable());
  shipList(placeFile("larger.plist", list + std::string((1 << 20) + 1 - list.size(), '\n')));
  EXPECT_TRUE(manager->isEFIWindowsBootable());
}

TEST_F(DeviceManagerEFIBootTest, AnUnknownModelIsInNoList) {
  shipSample("models-xml.plist");
  EXPECT_TRUE(manager->isEFIWindowsBootable());
}

}  // namespace
}  // namespace vorlix::test
