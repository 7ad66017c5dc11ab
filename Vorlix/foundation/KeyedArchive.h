// SPDX-License-Identifier: Apache-2.0
/// @file
/// Records as bytes under named keys, as hosts hand them from one process to another.
///
/// The container is the keyed archive of the platform's object coding, a property list. It is written as a binary one
/// and read as a binary one or one in XML, where a reference is the dictionary { "CF$UID": place }:
///
///     "$archiver"  "NSKeyedArchiver"
///     "$version"   100000
///     "$top"       { "root": UID 1 }
///     "$objects"   [ "$null", root, ... ]
///
/// A reference is a UID, the place in "$objects"; absent is UID 0. A record is a dictionary of its entries with
/// "$class", the UID of { "$classname", "$classes" } that names its class and all above it up to "NSObject"; each class
/// stands there once, after the first object of it. Plain truth values stand inline under their key; everything else is
/// an object of its own:
///
/// | kind | in "$objects" |
/// |---|---|
/// | text, bytes, number | bare string, data, boolean, integer or real |
/// | growable text | { "NS.string": string }, class NSMutableString |
/// | growable bytes | { "NS.data": data }, class NSMutableData |
/// | UUID | { "NS.uuidbytes": 16 bytes in the order of the text form }, class NSUUID |
/// | URL | { "NS.base": UID 0, "NS.relative": text "file:///..." }, class NSURL |
/// | styled text | { "NSString": text, "NSAttributes", "NSAttributeInfo" }, class NSAttributedString |
///
/// Styled text of one run has the attributes' dictionary in "NSAttributes" and no "NSAttributeInfo"; of several runs,
/// an array of the different dictionaries and growable bytes with a pair for each run, its length in UTF-16 code units
/// and its place in that array, each as groups of seven bits, lowest first, the high bit set on all but the last; empty
/// text has neither. A dictionary is { "NS.keys": [UID...], "NS.objects": [UID...] }, class NSDictionary; a list
/// { "NS.objects": [UID...] }, class NSArray.
///
/// Keys that start with "$" gain another "$" in front. NUL in a text, and bytes in it that are not UTF-8, are stored
/// and read as U+FFFD. Text that reads "$null" stands in a dictionary like growable text, of the class NSString.
#pragma once

#include <Vorlix/foundation/AttributedString.h>
#include <Vorlix/foundation/Export.h>
#include <Vorlix/foundation/Number.h>
#include <Vorlix/foundation/Value.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vorlix {

class KeyedArchiver;

/// A record that can be put into an archive. To be got out again it has, besides, a constant
/// `static constexpr const char* kArchiveClass` with its class's name and an operation
/// `static std::shared_ptr<Record> initWithCoder(KeyedUnarchiver&)`.
class VORLIX_EXPORT Coding {
 public:
  virtual ~Coding() = default;

  /// The record's class and those above it, ending in "NSObject".
  virtual std::vector<std::string> archiveClasses() const = 0;

  /// Writes the record's entries.
  virtual void encodeWithCoder(KeyedArchiver& coder) const = 0;
};

/// Makes an archive. Use archivedDataWithRootObject(); records get the archiver in their encodeWithCoder().
///
/// What is shared is stored once: a growable text, a growable buffer or a record that is met again, and, since nobody
/// can tell them apart, immutable texts, bytes and numbers of the same kind that are equal. Each entry takes a value
/// and its key; a later entry of the same key takes the earlier one's place.
class VORLIX_EXPORT KeyedArchiver {
 public:
  KeyedArchiver(const KeyedArchiver&) = delete;
  KeyedArchiver& operator=(const KeyedArchiver&) = delete;

  /// The archive of one record, or of absent. @throws std::length_error if it is larger, or has more
  /// values, than KeyedUnarchiver takes.
  static Data archivedDataWithRootObject(const std::shared_ptr<const Coding>& root);

  void encodeText(const std::optional<std::string>& text, const std::string& key);
  void encodeMutableText(const std::shared_ptr<const std::string>& text, const std::string& key);
  void encodeData(const std::optional<Data>& data, const std::string& key);
  void encodeMutableData(const std::shared_ptr<const Data>& data, const std::string& key);
  void encodeNumber(const std::optional<Number>& number, const std::string& key);
  void encodeUUID(const std::optional<UUID>& uuid, const std::string& key);
  void encodeURL(const std::optional<URL>& url, const std::string& key);
  void encodeAttributedText(const std::optional<AttributedString>& text, const std::string& key);
  void encodeObject(const std::shared_ptr<const Coding>& object, const std::string& key);

  /// A plain truth value, inline under its key.
  void encodeBool(bool value, const std::string& key);

 private:
  class State;
  explicit KeyedArchiver(State& state) : state_(state) {}
  State& state_;
};

/// Reads an archive that need not be trusted.
///
/// Each entry is asked for with the class that it must be of; growable text counts as text, growable bytes as bytes,
/// and growable styled text as styled text. What is missing, refers to nothing, is of another class or malformed, leads
/// back into itself, lies too deep or is a whole number beyond 64 bits with a sign is absent, and so is what comes
/// after the limits on the archive's whole are used up. Nothing in an archive makes an object of a class that was not
/// asked for.
class VORLIX_EXPORT KeyedUnarchiver {
 public:
  static constexpr size_t kLargestArchive = size_t{16} << 20;  ///< bytes; also what its values may take unfolded
  static constexpr size_t kMostValues = size_t{1} << 17;       ///< values of the property list, and objects decoded
  static constexpr unsigned kDeepestNesting = 16;              ///< records, dictionaries or URLs in one another

  KeyedUnarchiver(const KeyedUnarchiver&) = delete;
  KeyedUnarchiver& operator=(const KeyedUnarchiver&) = delete;
  ~KeyedUnarchiver();

  /// The record at an archive's root, or null if these bytes are no archive of a record of this class.
  template <typename Record>
  static std::shared_ptr<Record> unarchivedObject(const Data& archive) {
    KeyedUnarchiver coder(archive);
    return coder.decodeObject<Record>("root");
  }

  /// Whether there is an entry under the key, be it absent's reference.
  bool containsValueForKey(const std::string& key) const;

  std::optional<std::string> decodeText(const std::string& key);
  std::optional<Data> decodeData(const std::string& key);
  /// A number object, or the value of a plain truth value, whole number or floating-point number under the key.
  std::optional<Number> decodeNumber(const std::string& key);
  std::optional<UUID> decodeUUID(const std::string& key);
  /// A file URL. One that is relative to another is resolved.
  std::optional<URL> decodeURL(const std::string& key);
  /// Attributes that are no text, bytes, truth value, number, UUID, file URL, dictionary or list are left out.
  std::optional<AttributedString> decodeAttributedText(const std::string& key);

  /// A plain truth value, or whether a plain number is other than 0; false for anything else.
  bool decodeBool(const std::string& key);

  /// A record of its own. One that is referred to twice is made twice.
  template <typename Record>
  std::shared_ptr<Record> decodeObject(const std::string& key) {
    if (!enterObject(key, Record::kArchiveClass)) return nullptr;
    const Leaver leaver{*this};
    return Record::initWithCoder(*this);
  }

 private:
  class State;

  // Leaves the record also when its initWithCoder() throws.
  struct Leaver {
    KeyedUnarchiver& coder;
    ~Leaver() { coder.leaveObject(); }
  };

  explicit KeyedUnarchiver(const Data& archive);
  bool enterObject(const std::string& key, const char* className);
  void leaveObject();

  std::unique_ptr<State> state_;
};

}  // namespace vorlix
