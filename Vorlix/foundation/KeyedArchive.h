// SPDX-License-Identifier: Apache-2.0
/// @file
/// Records as bytes, with named entries, for passing them between processes.
///
/// The format is the keyed archive of the platform's object coding, a property list. Archives are written in the binary
/// form and read in the binary form or in XML, in which a reference is the dictionary { "CF$UID": place }:
///
///     "$archiver"  "NSKeyedArchiver"
///     "$version"   100000
///     "$top"       { "root": UID 1 }
///     "$objects"   [ "$null", root, ... ]
///
/// A reference is a UID, the place in "$objects"; an absent object is UID 0. A record is a dictionary with its entries
/// and "$class", the UID of { "$classname", "$classes" }, which names its class and the base classes up to "NSObject".
/// Each class is stored once, after its first object. Plain booleans are stored inline under their key. Everything else
/// is an object:
///
/// | kind | in "$objects" |
/// |---|---|
/// | text, bytes, number | plain string, data, boolean, integer or real |
/// | growable text | { "NS.string": string }, class NSMutableString |
/// | growable bytes | { "NS.data": data }, class NSMutableData |
/// | UUID | { "NS.uuidbytes": 16 bytes in the order of the text form }, class NSUUID |
/// | URL | { "NS.base": UID 0, "NS.relative": text "file:///..." }, class NSURL |
/// | styled text | { "NSString": text, "NSAttributes", "NSAttributeInfo" }, class NSAttributedString |
///
/// Styled text with one run has the dictionary of its attributes in "NSAttributes" and no "NSAttributeInfo". With
/// several runs, "NSAttributes" is an array of the different dictionaries, and "NSAttributeInfo" is growable bytes with
/// two numbers for each run: its length in UTF-16 code units and its place in that array. Each number is stored in
/// groups of seven bits, the lowest group first; the high bit is set in all bytes but the last. Empty text has neither.
/// A dictionary is { "NS.keys": [UID...], "NS.objects": [UID...] }, class NSDictionary; a list is
/// { "NS.objects": [UID...] }, class NSArray.
///
/// Keys that start with "$" get another "$" in front. NUL and bytes that are not UTF-8 are stored and read as U+FFFD.
/// The text "$null" is stored in a dictionary like growable text, with the class NSString.
#pragma once

#include <Vorlix/foundation/AttributedString.h>
#include <Vorlix/foundation/Export.h>
#include <Vorlix/foundation/Number.h>
#include <Vorlix/foundation/Value.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vorlix {

class KeyedArchiver;

/// A record that can be archived. To be read back, it also needs `static constexpr const char* kArchiveClass`, the name
/// of its class, and `static std::shared_ptr<Record> initWithCoder(KeyedUnarchiver&)`.
class VORLIX_EXPORT Coding {
 public:
  virtual ~Coding();

  /// Returns the record's class and its base classes. The last is "NSObject".
  virtual std::vector<std::string> archiveClasses() const = 0;

  /// Writes the record's entries.
  virtual void encodeWithCoder(KeyedArchiver& coder) const = 0;
};

/// Makes an archive. Use archivedDataWithRootObject(); records get the archiver in their encodeWithCoder().
///
/// A growable text, a growable buffer or a record that occurs several times is stored once. So are equal immutable
/// texts, bytes and numbers of the same kind, because nobody can distinguish them. Each function stores a value under a
/// key and replaces an earlier value with that key.
class VORLIX_EXPORT KeyedArchiver {
 public:
  KeyedArchiver(const KeyedArchiver&) = delete;
  KeyedArchiver& operator=(const KeyedArchiver&) = delete;

  /// Returns the archive of one record; null is an absent one. @throws std::length_error if it is larger, or has more
  /// values, than KeyedUnarchiver accepts.
  static Data archivedDataWithRootObject(const std::shared_ptr<const Coding>& root);

  /// @{
  /// Stores a value as an object and a reference to it under `key`. An absent value is stored as a reference to
  /// nothing.
  void encodeText(const std::optional<std::string>& text, const std::string& key);
  void encodeMutableText(const std::shared_ptr<const std::string>& text, const std::string& key);
  void encodeData(const std::optional<Data>& data, const std::string& key);
  void encodeMutableData(const std::shared_ptr<const Data>& data, const std::string& key);
  void encodeNumber(const std::optional<Number>& number, const std::string& key);
  void encodeUUID(const std::optional<UUID>& uuid, const std::string& key);
  void encodeURL(const std::optional<URL>& url, const std::string& key);
  void encodeAttributedText(const std::optional<AttributedString>& text, const std::string& key);
  void encodeObject(const std::shared_ptr<const Coding>& object, const std::string& key);
  /// @}

  /// Stores a plain boolean, inline under its key.
  void encodeBool(bool value, const std::string& key);

 private:
  class State;
  explicit KeyedArchiver(State& state) : state_(state) {}
  State& state_;
};

/// Reads an archive, which may be hostile.
///
/// Each entry is requested with its class. Growable text counts as text, growable bytes as bytes, and growable styled
/// text as styled text. An entry is absent if it is missing, refers to nothing, is malformed or has another class, if
/// it contains itself or is nested too deeply, and if it is an integer that does not fit a signed 64-bit number. When
/// the limits for the whole archive are reached, all further entries are absent. An archive cannot create objects of a
/// class that was not requested.
class VORLIX_EXPORT KeyedUnarchiver {
 public:
  static constexpr size_t kLargestArchive =
      size_t{16} << 20;  ///< bytes; also the limit for all values, counted once per reference
  static constexpr size_t kMostValues = size_t{1} << 17;  ///< values of the property list, and objects decoded
  static constexpr unsigned kDeepestNesting = 16;         ///< levels of records, dictionaries or URLs

  KeyedUnarchiver(const KeyedUnarchiver&) = delete;
  KeyedUnarchiver& operator=(const KeyedUnarchiver&) = delete;
  ~KeyedUnarchiver();

  /// Returns the record at the root of an archive. Null if the bytes are not an archive of a record of this class.
  template <typename Record>
  static std::shared_ptr<Record> unarchivedObject(const Data& archive) {
    KeyedUnarchiver coder(archive);
    return coder.decodeObject<Record>("root");
  }

  /// Returns whether there is an entry with that key, even if it refers to an absent object.
  bool containsValueForKey(const std::string& key) const;

  /// Returns text, growable or not.
  std::optional<std::string> decodeText(const std::string& key);
  /// Returns bytes, growable or not.
  std::optional<Data> decodeData(const std::string& key);
  /// Returns a number object, or a plain boolean, integer or floating-point number.
  std::optional<Number> decodeNumber(const std::string& key);
  /// Returns a UUID.
  std::optional<UUID> decodeUUID(const std::string& key);
  /// Returns a file URL. A relative URL is resolved.
  std::optional<URL> decodeURL(const std::string& key);
  /// Returns styled text. Attributes that are not text, bytes, boolean, number, UUID, file URL, dictionary or list are
  /// left out.
  std::optional<AttributedString> decodeAttributedText(const std::string& key);

  /// Returns a plain boolean, or whether a plain number is not 0. False for anything else.
  bool decodeBool(const std::string& key);

  /// Returns a new record. A record with two references is created twice.
  template <typename Record>
  std::shared_ptr<Record> decodeObject(const std::string& key) {
    if (!enterObject(key, Record::kArchiveClass)) return nullptr;
    const Leaver leaver{*this};
    return Record::initWithCoder(*this);
  }

 private:
  class State;

  // Leaves the record even if its initWithCoder() throws.
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
