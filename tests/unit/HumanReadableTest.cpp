// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/NSNumber+HumanReadable.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <clocale>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <locale>

namespace {

using vorlix::Number;

std::string ofWhole(int64_t value) {
  return stringWithHumanReadableInt(Number::numberWithLongLong(value));
}

std::string ofReal(double value) {
  return stringWithHumanReadableInt(Number::numberWithDouble(value));
}

// Sets the user's locale for the life of the object.
class UserLocale {
 public:
  explicit UserLocale(const std::string& name, const std::string& folder = "") {
    setenv("LC_ALL", name.c_str(), 1);
    if (!folder.empty()) setenv("LOCPATH", folder.c_str(), 1);
  }
  ~UserLocale() {
    setenv("LC_ALL", "C", 1);
    unsetenv("LOCPATH");
  }
  UserLocale(const UserLocale&) = delete;
  UserLocale& operator=(const UserLocale&) = delete;
};

class HumanReadableTest : public testing::Test {
 protected:
  UserLocale plain{"C"};
};

TEST_F(HumanReadableTest, ZeroIsTheEmptyString) {
  EXPECT_EQ(ofWhole(0), "");
  EXPECT_EQ(ofReal(0.0), "");
  EXPECT_EQ(ofReal(-0.0), "");
  EXPECT_EQ(stringWithHumanReadableInt(Number::numberWithBool(false)), "");
}

TEST_F(HumanReadableTest, NumbersBelowAThousandAreBytes) {
  EXPECT_EQ(ofWhole(1), "1.00 Bytes");
  EXPECT_EQ(ofWhole(999), "999.00 Bytes");
  EXPECT_EQ(ofReal(0.5), "0.50 Bytes");
  EXPECT_EQ(ofReal(999.999), "1000.00 Bytes");
}

TEST_F(HumanReadableTest, UnitsArePowersOfAThousand) {
  EXPECT_EQ(ofWhole(1000), "1.00 KB");
  EXPECT_EQ(ofWhole(1024), "1.02 KB");
  EXPECT_EQ(ofWhole(999999), "1000.00 KB");
  EXPECT_EQ(ofWhole(1000000), "1.00 MB");
  EXPECT_EQ(ofWhole(999999999), "1000.00 MB");
  EXPECT_EQ(ofWhole(1000000000), "1.00 GB");
  EXPECT_EQ(ofWhole(1500000000), "1.50 GB");
  EXPECT_EQ(ofWhole(1000000000000), "1.00 TB");
  EXPECT_EQ(ofWhole(2500000000000000), "2500.00 TB");
}

TEST_F(HumanReadableTest, ANegativeNumberIsInBytes) {
  EXPECT_EQ(ofWhole(-1), "-1.00 Bytes");
  EXPECT_EQ(ofWhole(-5000000000), "-5000000000.00 Bytes");
}

TEST_F(HumanReadableTest, TheLargestWholeNumberIsTerabytes) {
  EXPECT_EQ(ofWhole(std::numeric_limits<int64_t>::max()), "9223372.04 TB");
}

TEST_F(HumanReadableTest, ANumberTooLargeForEveryUnitIsInBytes) {
  // 9.2e18 TB fit a signed 64-bit number. For 9.3e30 bytes, no unit's quotient does.
  EXPECT_EQ(ofReal(9.2e30), "9200000000000000000.00 TB");
  const std::string beyond = ofReal(9.3e30);
  EXPECT_EQ(beyond.substr(0, 16), "9300000000000000");
  EXPECT_EQ(beyond.substr(beyond.size() - 9), ".00 Bytes");
  EXPECT_EQ(beyond.size(), 31 + 9U);
}

TEST_F(HumanReadableTest, TheLargestFloatingPointNumberIsWrittenOutInFull) {
  const std::string text = ofReal(std::numeric_limits<double>::max());
  EXPECT_EQ(text.substr(0, 17), "17976931348623157");
  EXPECT_EQ(text.size(), 309 + 9U);
}

TEST_F(HumanReadableTest, InfinityAndNaNAreBytes) {
  EXPECT_EQ(ofReal(std::numeric_limits<double>::infinity()), "inf Bytes");
  EXPECT_EQ(ofReal(std::nan("")), "nan Bytes");
}

TEST_F(HumanReadableTest, AnUnknownLocaleUsesAPoint) {
  const UserLocale unknown("xx_XX.nowhere");
  EXPECT_EQ(ofWhole(1500000000), "1.50 GB");
}

struct Grouping : std::numpunct<char> {
  char do_thousands_sep() const override { return '\''; }
  std::string do_grouping() const override { return "\3"; }
};

TEST_F(HumanReadableTest, DigitsAreNotGrouped) {
  const std::locale before = std::locale::global(std::locale(std::locale::classic(), new Grouping));
  EXPECT_EQ(ofWhole(2500000000000000), "2500.00 TB");
  std::locale::global(before);
}

// Compiles locales that the system may lack into a private folder, with the system's own tool.
class LocalisedTest : public testing::Test {
 protected:
  // Makes locales with the decimal separator of another language, the rest as in "C". A whole one takes seconds.
  static void SetUpTestSuite() {
    folder = testing::TempDir() + "locales." + std::to_string(getpid());
    std::filesystem::create_directories(folder);
    for (const char* name : {"de_DE", "ps_AF"}) {
      const std::string made = folder + "/" + name + ".UTF-8";
      std::ofstream source(made + ".source");
      for (const char* category : {"LC_CTYPE", "LC_COLLATE", "LC_MONETARY", "LC_TIME", "LC_MESSAGES", "LC_NUMERIC"}) {
        const char* const copied = std::strcmp(category, "LC_NUMERIC") == 0 ? name : "POSIX";
        source << category << "\ncopy \"" << copied << "\"\nEND " << category << "\n";
      }
      source.close();
      const std::string command = "localedef -c -i '" + made + ".source' -f UTF-8 '" + made + "' >/dev/null 2>&1";
      (void)!std::system(command.c_str());  // exits with 1 even for warnings, so check for the file instead
      if (!std::filesystem::exists(made + "/LC_NUMERIC")) missing += std::string(" ") + name;
    }
  }
  static void TearDownTestSuite() { std::filesystem::remove_all(folder); }

  void SetUp() override {
    if (!missing.empty()) GTEST_SKIP() << "localedef or its sources are not installed for" << missing;
  }

  static inline std::string folder;
  static inline std::string missing;
};

TEST_F(LocalisedTest, TheUsersDecimalSeparatorIsUsed) {
  const UserLocale german("de_DE.UTF-8", folder);
  EXPECT_EQ(ofWhole(1500000000), "1,50 GB");
  EXPECT_EQ(ofWhole(-1), "-1,00 Bytes");
}

TEST_F(LocalisedTest, ASeparatorBeyondASCIIIsUTF8) {
  const UserLocale pashto("ps_AF.UTF-8", folder);
  EXPECT_EQ(ofWhole(1500000000),
            "1\xD9\xAB"
            "50 GB");  // U+066B
}

TEST_F(LocalisedTest, TheHostsLocaleIsNeitherUsedNorChanged) {
  const UserLocale german("de_DE.UTF-8", folder);
  ASSERT_NE(std::setlocale(LC_ALL, "de_DE.UTF-8"), nullptr);
  {
    const UserLocale plain("C");
    EXPECT_EQ(ofWhole(1500000000), "1.50 GB");
  }
  EXPECT_STREQ(std::setlocale(LC_ALL, nullptr), "de_DE.UTF-8");
  std::setlocale(LC_ALL, "C");
  const UserLocale again("de_DE.UTF-8", folder);
  EXPECT_EQ(ofWhole(1500000000), "1,50 GB");
  EXPECT_STREQ(std::setlocale(LC_ALL, nullptr), "C");
}

}  // namespace
