// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/foundation/KeyedArchive.h>

#include <bit>
#include <cstdlib>
#include <map>
#include <new>
#include <stdexcept>
#include <utility>

#include "Format.h"
#include "PropertyList.h"

namespace vorlix {
namespace {

using archive::kClassKey;

constexpr uint64_t kAbsent = 0;

plist_t textNode(const std::string& text) {
  return plist_new_string(archive::wholeText(text).c_str());
}

plist_t dataNode(const uint8_t* bytes, size_t count) {
  return plist_new_data(reinterpret_cast<const char*>(bytes), count);
}

plist_t integerNode(int64_t value) {
#if VORLIX_PLIST_SIGNED
  return plist_new_int(value);
#else
  // Eight bytes in two's complement, the form of every integer in the format.
  return plist_new_uint(static_cast<uint64_t>(value));
#endif
}

void appendGroups(Data& data, size_t number) {
  for (; number >= 0x80; number >>= 7) data.push_back(static_cast<uint8_t>(number | 0x80));
  data.push_back(static_cast<uint8_t>(number));
}

// Returns a value as bytes. Equal values give equal bytes, except that nested dictionaries and lists are compared by
// identity.
struct ContentOfValue {
  std::string operator()(bool value) const { return value ? "b1" : "b0"; }
  std::string operator()(int64_t value) const { return "i" + std::to_string(value); }
  std::string operator()(double value) const { return "r" + std::to_string(std::bit_cast<uint64_t>(value)); }
  std::string operator()(const std::string& value) const { return "t" + value; }
  std::string operator()(const Data& value) const { return "d" + std::string(value.begin(), value.end()); }
  std::string operator()(const UUID& value) const { return "u" + value.text(); }
  std::string operator()(const URL& value) const { return "l" + archive::urlText(value); }
  std::string operator()(const std::shared_ptr<const Dictionary>& value) const {
    return "p" + std::to_string(reinterpret_cast<uintptr_t>(value.get()));
  }
  std::string operator()(const std::shared_ptr<const Array>& value) const {
    return "a" + std::to_string(reinterpret_cast<uintptr_t>(value.get()));
  }
};

std::string contentOf(const Dictionary& dictionary) {
  std::string content;
  for (const auto& [key, value] : dictionary.values()) {
    const std::string bytes = std::visit(ContentOfValue(), value);
    content.append(std::to_string(key.size())).append(":").append(key);
    content.append(std::to_string(bytes.size())).append(":").append(bytes);
  }
  return content;
}

// Whether KeyedUnarchiver accepts the archive: a larger one would be useless. Each value takes at least one byte, so
// the values of a small archive need not be counted.
bool isReadable(const Data& file) {
  if (file.size() > kArchiveLimits.bytes) return false;
  if (file.size() <= kArchiveLimits.values) return true;
  return isBoundedPropertyList(file, kArchiveLimits);
}

}  // namespace

Coding::~Coding() = default;

// The objects collected so far, and the dictionary of the record that is being encoded.
class KeyedArchiver::State {
 public:
  State() { objects_.emplace_back(plist_new_string(archive::kNull)); }

  void setInline(const std::string& key, plist_t value) {
    plist_dict_set_item(underway_, archive::escapedKey(key).c_str(), value);
  }
  void setReference(const std::string& key, uint64_t object) { setInline(key, plist_new_uid(object)); }

  uint64_t text(const std::string& text) {
    return unique(texts_, text, [&]() -> uint64_t {
      // Readers may treat a bare string "$null" as an absent object.
      if (text == archive::kNull) {
        return made({"NSString", "NSObject"},
                    [&](plist_t object) { plist_dict_set_item(object, "NS.string", textNode(text)); });
      }
      return bare(textNode(text));
    });
  }
  uint64_t data(const Data& data) {
    return unique(data_, data, [&] { return bare(dataNode(data.data(), data.size())); });
  }
  uint64_t number(const Number& number) {
    return unique(numbers_, number, [&] {
      if (number.isBool()) return bare(plist_new_bool(number.boolValue()));
      return bare(number.isDouble() ? plist_new_real(number.doubleValue()) : integerNode(number.longLongValue()));
    });
  }

  uint64_t mutableText(const std::shared_ptr<const std::string>& text) {
    return shared(text, {"NSMutableString", "NSString", "NSObject"},
                  [&](plist_t object) { plist_dict_set_item(object, "NS.string", textNode(*text)); });
  }
  uint64_t mutableData(const std::shared_ptr<const Data>& data) {
    return shared(data, {"NSMutableData", "NSData", "NSObject"}, [&](plist_t object) {
      plist_dict_set_item(object, "NS.data", dataNode(data->data(), data->size()));
    });
  }

  uint64_t uuid(const UUID& uuid) {
    return made({"NSUUID", "NSObject"}, [&](plist_t object) {
      plist_dict_set_item(object, "NS.uuidbytes", dataNode(uuid.bytes().data(), uuid.bytes().size()));
    });
  }
  uint64_t url(const URL& url) {
    return made({"NSURL", "NSObject"}, [&](plist_t object) {
      plist_dict_set_item(object, "NS.base", plist_new_uid(kAbsent));
      setMember(object, "NS.relative", text(archive::urlText(url)));
    });
  }
  uint64_t attributedText(const AttributedString& styled) {
    return made({"NSAttributedString", "NSObject"}, [&](plist_t object) {
      setMember(object, "NSString", text(styled.string()));
      if (styled.runs().size() == 1) {
        setMember(object, "NSAttributes", dictionary(styled.runs().front().attributes));
      } else if (!styled.runs().empty()) {
        setRuns(object, styled.runs());
      }
    });
  }

  uint64_t record(const std::shared_ptr<const Coding>& record, KeyedArchiver& coder) {
    return shared(record, record->archiveClasses(), [&](plist_t object) {
      const plist_t outer = std::exchange(underway_, object);
      record->encodeWithCoder(coder);
      underway_ = outer;
    });
  }

  // Returns the whole archive, with this object as its root.
  Data file(uint64_t root) {
    const PropertyListOwner top(plist_new_dict());
    plist_dict_set_item(top.get(), "$version", plist_new_uint(archive::kVersion));
    plist_dict_set_item(top.get(), "$archiver", plist_new_string(archive::kArchiverName));
    const plist_t roots = plist_new_dict();
    plist_dict_set_item(roots, archive::kRootKey, plist_new_uid(root));
    plist_dict_set_item(top.get(), "$top", roots);
    const plist_t list = plist_new_array();
    for (PropertyListOwner& object : objects_) plist_array_append_item(list, object.release());
    plist_dict_set_item(top.get(), "$objects", list);

    char* bytes = nullptr;
    uint32_t size = 0;
    plist_to_bin(top.get(), &bytes, &size);
    if (bytes == nullptr) throw std::bad_alloc();
    // libplist's own function for this has another name in each version.
    const std::unique_ptr<char, void (*)(void*)> owner(bytes, std::free);
    return Data(bytes, bytes + size);
  }

 private:
  // Returns the place of an equal value that is already stored, or stores this one.
  template <typename Value, typename Make>
  uint64_t unique(std::map<Value, uint64_t>& known, const Value& value, Make make) {
    const auto [found, added] = known.try_emplace(value);
    if (added) found->second = make();
    return found->second;
  }

  uint64_t bare(plist_t value) {
    objects_.emplace_back(value);
    return objects_.size() - 1;
  }

  // Adds an object with members and a class. The object comes before its members.
  template <typename Fill>
  uint64_t made(const std::vector<std::string>& classes, Fill fill) {
    const size_t place = objects_.size();
    objects_.emplace_back(plist_new_dict());
    const plist_t object = objects_[place].get();
    fill(object);
    setMember(object, kClassKey, classDescription(classes));
    return place;
  }

  // Adds an object once per instance. The map owns the instance, so no other one can get its address.
  template <typename Instance, typename Fill>
  uint64_t shared(const std::shared_ptr<Instance>& instance, const std::vector<std::string>& classes, Fill fill) {
    const auto [found, added] = places_.try_emplace(instance, objects_.size());
    return added ? made(classes, fill) : found->second;
  }

  uint64_t classDescription(const std::vector<std::string>& classes) {
    return unique(classes_, classes, [&] {
      const plist_t description = plist_new_dict();
      plist_dict_set_item(description, "$classname", plist_new_string(classes.front().c_str()));
      const plist_t names = plist_new_array();
      for (const std::string& name : classes) plist_array_append_item(names, plist_new_string(name.c_str()));
      plist_dict_set_item(description, "$classes", names);
      return bare(description);
    });
  }

  static void setMember(plist_t object, const char* key, uint64_t member) {
    plist_dict_set_item(object, key, plist_new_uid(member));
  }

  void setRuns(plist_t object, const std::vector<AttributedString::Run>& runs) {
    std::vector<std::shared_ptr<const Dictionary>> different;
    std::map<std::shared_ptr<const Dictionary>, size_t> known;
    std::map<std::string, size_t> equal;
    const auto pairs = std::make_shared<Data>();
    for (const AttributedString::Run& run : runs) {
      const auto [place, met] = known.try_emplace(run.attributes);
      if (met) {
        const auto [found, added] = equal.try_emplace(contentOf(*run.attributes), different.size());
        if (added) different.push_back(run.attributes);
        place->second = found->second;
      }
      appendGroups(*pairs, run.length);
      appendGroups(*pairs, place->second);
    }
    setMember(object, "NSAttributes", made({"NSMutableArray", "NSArray", "NSObject"}, [&](plist_t array) {
                const plist_t list = plist_new_array();
                plist_dict_set_item(array, "NS.objects", list);
                for (const auto& attributes : different) {
                  plist_array_append_item(list, plist_new_uid(dictionary(attributes)));
                }
              }));
    setMember(object, "NSAttributeInfo", mutableData(pairs));
  }

  // Dictionaries from an archive can have many references, so each is stored once.
  uint64_t dictionary(const std::shared_ptr<const Dictionary>& values) {
    return shared(values, {"NSDictionary", "NSObject"}, [&](plist_t object) {
      const plist_t keys = plist_new_array();
      const plist_t objects = plist_new_array();
      plist_dict_set_item(object, "NS.keys", keys);
      plist_dict_set_item(object, "NS.objects", objects);
      for (const auto& [key, value] : values->values()) plist_array_append_item(keys, plist_new_uid(text(key)));
      for (const auto& [key, value] : values->values()) plist_array_append_item(objects, plist_new_uid(any(value)));
    });
  }
  uint64_t list(const std::shared_ptr<const Array>& values) {
    return shared(values, {"NSArray", "NSObject"}, [&](plist_t object) {
      const plist_t objects = plist_new_array();
      plist_dict_set_item(object, "NS.objects", objects);
      for (const Value& value : values->values) plist_array_append_item(objects, plist_new_uid(any(value)));
    });
  }

  uint64_t any(const Value& value) {
    return std::visit([&](const auto& kind) { return one(kind); }, value);
  }
  uint64_t one(bool value) { return number(Number::numberWithBool(value)); }
  uint64_t one(int64_t value) { return number(Number::numberWithLongLong(value)); }
  uint64_t one(double value) { return number(Number::numberWithDouble(value)); }
  uint64_t one(const std::string& value) { return text(value); }
  uint64_t one(const Data& value) { return data(value); }
  uint64_t one(const UUID& value) { return uuid(value); }
  uint64_t one(const URL& value) { return url(value); }
  uint64_t one(const std::shared_ptr<const Dictionary>& value) { return value ? dictionary(value) : kAbsent; }
  uint64_t one(const std::shared_ptr<const Array>& value) { return value ? list(value) : kAbsent; }

  std::vector<PropertyListOwner> objects_;
  plist_t underway_ = nullptr;
  std::map<std::string, uint64_t> texts_;
  std::map<Data, uint64_t> data_;
  std::map<Number, uint64_t> numbers_;
  std::map<std::vector<std::string>, uint64_t> classes_;
  std::map<std::shared_ptr<const void>, uint64_t> places_;
};

Data KeyedArchiver::archivedDataWithRootObject(const std::shared_ptr<const Coding>& root) {
  State state;
  KeyedArchiver coder(state);
  Data file = state.file(root ? state.record(root, coder) : kAbsent);
  if (!isReadable(file)) throw std::length_error("the archive is too large");
  return file;
}

void KeyedArchiver::encodeText(const std::optional<std::string>& text, const std::string& key) {
  state_.setReference(key, text ? state_.text(*text) : kAbsent);
}

void KeyedArchiver::encodeMutableText(const std::shared_ptr<const std::string>& text, const std::string& key) {
  state_.setReference(key, text ? state_.mutableText(text) : kAbsent);
}

void KeyedArchiver::encodeData(const std::optional<Data>& data, const std::string& key) {
  state_.setReference(key, data ? state_.data(*data) : kAbsent);
}

void KeyedArchiver::encodeMutableData(const std::shared_ptr<const Data>& data, const std::string& key) {
  state_.setReference(key, data ? state_.mutableData(data) : kAbsent);
}

void KeyedArchiver::encodeNumber(const std::optional<Number>& number, const std::string& key) {
  state_.setReference(key, number ? state_.number(*number) : kAbsent);
}

void KeyedArchiver::encodeUUID(const std::optional<UUID>& uuid, const std::string& key) {
  state_.setReference(key, uuid ? state_.uuid(*uuid) : kAbsent);
}

void KeyedArchiver::encodeURL(const std::optional<URL>& url, const std::string& key) {
  state_.setReference(key, url ? state_.url(*url) : kAbsent);
}

void KeyedArchiver::encodeAttributedText(const std::optional<AttributedString>& text, const std::string& key) {
  state_.setReference(key, text ? state_.attributedText(*text) : kAbsent);
}

void KeyedArchiver::encodeObject(const std::shared_ptr<const Coding>& object, const std::string& key) {
  state_.setReference(key, object ? state_.record(object, *this) : kAbsent);
}

void KeyedArchiver::encodeBool(bool value, const std::string& key) {
  state_.setInline(key, plist_new_bool(value));
}

}  // namespace vorlix
