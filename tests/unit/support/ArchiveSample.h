// SPDX-License-Identifier: Apache-2.0
//
// A record for tests of archives, and functions that build archives around it.
#pragma once

#include <Vorlix/foundation/KeyedArchive.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "PropertyListText.h"

namespace archive_test {

using vorlix::Data;
using vorlix::KeyedArchiver;
using vorlix::KeyedUnarchiver;

// A record whose entries are defined by each test.
struct Sample : vorlix::Coding {
  static constexpr const char* kArchiveClass = "Sample";

  explicit Sample(std::function<void(KeyedArchiver&)> write) : encode(std::move(write)) {}
  std::vector<std::string> archiveClasses() const override { return {"Sample", "NSObject"}; }
  void encodeWithCoder(KeyedArchiver& coder) const override { encode(coder); }

  static inline std::function<void(KeyedUnarchiver&)> read;
  static std::shared_ptr<Sample> initWithCoder(KeyedUnarchiver& coder) {
    if (read) read(coder);
    return std::make_shared<Sample>(nullptr);
  }

  std::function<void(KeyedArchiver&)> encode;
};

inline Data written(std::function<void(KeyedArchiver&)> write) {
  return KeyedArchiver::archivedDataWithRootObject(std::make_shared<Sample>(std::move(write)));
}

// Decodes the record and passes its entries to `read`. Returns whether there was a record.
inline bool readBack(const Data& archive, std::function<void(KeyedUnarchiver&)> read) {
  Sample::read = std::move(read);
  const bool found = KeyedUnarchiver::unarchivedObject<Sample>(archive) != nullptr;
  Sample::read = nullptr;
  return found;
}

inline std::string record(const std::string& entries, size_t classPlace) {
  return "<dict>" + entries + entry("$class", uid(classPlace)) + "</dict>";
}

inline std::string object(const std::string& xml) {
  return "<dict>" + xml + "</dict>";
}

inline const std::string kSampleClass = classNamed("Sample");

// Builds an archive with the entry "key", which refers to object 3. Object 2 is the record's class.
inline Data archiveWithEntry(const std::string& objects) {
  return archiveOf(record(entry("key", uid(3)), 2) + kSampleClass + objects);
}

template <typename Result>
Result decoded(const Data& archive, Result (KeyedUnarchiver::*decode)(const std::string&), const char* key = "key") {
  Result result{};
  EXPECT_TRUE(readBack(archive, [&](KeyedUnarchiver& coder) { result = (coder.*decode)(key); }));
  return result;
}

}  // namespace archive_test
