// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/foundation/KeyedArchive.h>
#include <Vorlix/foundation/Utf8.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <set>
#include <string_view>
#include <utility>

#include "Format.h"
#include "PropertyList.h"

namespace vorlix {
namespace {

using archive::kClassKey;

using ClassNames = std::set<std::string, std::less<>>;

bool isOfType(plist_t node, plist_type type) {
  return node != nullptr && plist_get_node_type(node) == type;
}

std::optional<std::string_view> viewOfText(plist_t node) {
  if (!isOfType(node, PLIST_STRING)) return std::nullopt;
  uint64_t size = 0;
  const char* const text = plist_get_string_ptr(node, &size);
  return std::string_view(text == nullptr ? "" : text, static_cast<size_t>(size));
}

bool isText(plist_t node, std::string_view text) {
  return viewOfText(node) == text;
}

std::optional<Data> dataOfNode(plist_t node) {
  if (!isOfType(node, PLIST_DATA)) return std::nullopt;
  uint64_t size = 0;
  const char* const bytes = plist_get_data_ptr(node, &size);
  return size == 0 ? Data() : Data(bytes, bytes + size);
}

std::optional<Number> numberOfNode(plist_t node) {
  if (isOfType(node, PLIST_BOOLEAN)) {
    uint8_t value = 0;
    plist_get_bool_val(node, &value);
    return Number::numberWithBool(value != 0);
  }
  if (isOfType(node, PLIST_UINT)) {
    uint64_t value = 0;
    plist_get_uint_val(node, &value);
    return Number::numberWithLongLong(static_cast<int64_t>(value));
  }
  if (isOfType(node, PLIST_REAL)) {
    double value = 0;
    plist_get_real_val(node, &value);
    return Number::numberWithDouble(value);
  }
  return std::nullopt;
}

// Returns the nodes of an array in order. Looking up each node by its index would walk the array every time.
std::vector<plist_t> nodesOfArray(plist_t array) {
  std::vector<plist_t> nodes;
  if (!isOfType(array, PLIST_ARRAY)) return nodes;
  nodes.reserve(plist_array_get_size(array));
  plist_array_iter iterator = nullptr;
  plist_array_new_iter(array, &iterator);
  for (;;) {
    plist_t node = nullptr;
    plist_array_next_item(array, iterator, &node);
    if (node == nullptr) break;
    nodes.push_back(node);
  }
  std::free(iterator);
  return nodes;
}

std::optional<size_t> takeGroups(const Data& data, size_t& at) {
  size_t number = 0;
  for (unsigned shift = 0; shift < 35 && at < data.size(); shift += 7) {
    const uint8_t group = data[at++];
    number |= size_t{group & 0x7Fu} << shift;
    if (group < 0x80) return number;
  }
  return std::nullopt;
}

}  // namespace

// The parsed archive, the records that are being read, and how many values and bytes may still be read.
class KeyedUnarchiver::State {
 public:
  explicit State(const Data& file) : inXML_(!isBinaryPropertyList(file)) {
    if (file.size() > kLargestArchive) return;
    root_ = parsePropertyList(file, kArchiveLimits);
    if (!isOfType(root_.get(), PLIST_DICT)) return;
    uint64_t version = 0;
    const plist_t versionNode = plist_dict_get_item(root_.get(), "$version");
    if (isOfType(versionNode, PLIST_UINT)) plist_get_uint_val(versionNode, &version);
    const plist_t top = plist_dict_get_item(root_.get(), "$top");
    if (version != archive::kVersion || !isOfType(top, PLIST_DICT) ||
        !isText(plist_dict_get_item(root_.get(), "$archiver"), archive::kArchiverName)) {
      return;
    }
    objects_ = nodesOfArray(plist_dict_get_item(root_.get(), "$objects"));
    if (objects_.empty() || !isText(objects_.front(), archive::kNull)) return;
    underway_.push_back({0, top});
  }

  // Returns the node under a user's key in the record that is being read.
  plist_t entry(const std::string& key) const {
    if (underway_.empty()) return nullptr;
    return plist_dict_get_item(underway_.back().dictionary, archive::escapedKey(key).c_str());
  }

  bool isReference(plist_t node) const { return isOfType(node, PLIST_UID) || placeInXML(node) != nullptr; }

  bool enter(plist_t node, std::string_view className) {
    const auto place = placeOf(node);
    const plist_t object = place ? objectOfClass(node, className) : nullptr;
    if (object == nullptr || underway_.size() > kDeepestNesting) return false;
    const bool within =
        std::any_of(underway_.begin(), underway_.end(), [&](const Underway& outer) { return outer.place == *place; });
    if (within) return false;
    underway_.push_back({*place, object});
    return true;
  }
  void leave() { underway_.pop_back(); }

  std::optional<std::string> text(plist_t node) {
    plist_t bare = object(node);
    if (isOfType(bare, PLIST_DICT)) {
      bare = objectOfClass(node, "NSString") ? plist_dict_get_item(bare, "NS.string") : nullptr;
    }
    const auto view = viewOfText(bare);
    if (!view || !spend(view->size())) return std::nullopt;
    return archive::wholeText(*view);
  }

  std::optional<Data> data(plist_t node) {
    plist_t bare = object(node);
    if (isOfType(bare, PLIST_DICT)) {
      bare = objectOfClass(node, "NSData") ? plist_dict_get_item(bare, "NS.data") : nullptr;
    }
    if (!isOfType(bare, PLIST_DATA)) return std::nullopt;
    uint64_t size = 0;
    plist_get_data_ptr(bare, &size);
    return spend(static_cast<size_t>(size)) ? dataOfNode(bare) : std::nullopt;
  }

  std::optional<Number> number(plist_t node) {
    const auto number = numberOfNode(isReference(node) ? object(node) : node);
    return number && spend(0) ? number : std::nullopt;
  }

  std::optional<UUID> uuid(plist_t node) {
    const plist_t object = objectOfClass(node, "NSUUID");
    const auto bytes = object ? dataOfNode(plist_dict_get_item(object, "NS.uuidbytes")) : std::nullopt;
    UUID::Bytes order = {};
    if (!bytes || bytes->size() != order.size() || !spend(order.size())) return std::nullopt;
    std::copy(bytes->begin(), bytes->end(), order.begin());
    return UUID(order);
  }

  std::optional<URL> url(plist_t node, unsigned depth = 0) {
    const plist_t object = objectOfClass(node, "NSURL");
    if (object == nullptr || depth >= kDeepestNesting) return std::nullopt;
    const auto relative = text(plist_dict_get_item(object, "NS.relative"));
    if (!relative) return std::nullopt;
    const plist_t baseNode = plist_dict_get_item(object, "NS.base");
    const auto base = baseNode ? url(baseNode, depth + 1) : std::nullopt;
    return archive::urlOfText(*relative, base ? &*base : nullptr);
  }

  std::optional<AttributedString> attributedText(plist_t node) {
    const plist_t object = objectOfClass(node, "NSAttributedString");
    if (object == nullptr) return std::nullopt;
    const auto plain = text(plist_dict_get_item(object, "NSString"));
    if (!plain) return std::nullopt;
    const plist_t attributes = plist_dict_get_item(object, "NSAttributes");
    const plist_t info = plist_dict_get_item(object, "NSAttributeInfo");
    std::vector<AttributedString::Run> runs;
    if (info != nullptr) {
      const auto pairs = data(info);
      const plist_t array = objectOfClass(attributes, "NSArray");
      if (!pairs || array == nullptr || !takeRuns(*pairs, array, runs)) return std::nullopt;
    } else if (const size_t length = utf16Length(*plain); length > 0) {
      std::shared_ptr<const Dictionary> shared;
      if (attributes != nullptr) {
        shared = dictionary(attributes, 0);
        if (shared == nullptr) return std::nullopt;
      }
      runs.push_back({0, length, std::move(shared)});
    }
    return AttributedString::withRuns(*plain, std::move(runs));
  }

 private:
  struct Underway {
    size_t place = 0;
    plist_t dictionary = nullptr;
  };

  // XML has no element for a reference, so there it is a dictionary with the key "CF$UID".
  plist_t placeInXML(plist_t node) const {
    if (!inXML_ || !isOfType(node, PLIST_DICT) || plist_dict_get_size(node) != 1) return nullptr;
    const plist_t place = plist_dict_get_item(node, "CF$UID");
    return isOfType(place, PLIST_UINT) ? place : nullptr;
  }

  std::optional<size_t> placeOf(plist_t node) const {
    uint64_t place = 0;
    if (const plist_t inXML = placeInXML(node)) {
      plist_get_uint_val(inXML, &place);
    } else if (isOfType(node, PLIST_UID)) {
      plist_get_uid_val(node, &place);
    }
    if (place == 0 || place >= objects_.size()) return std::nullopt;
    return static_cast<size_t>(place);
  }

  // Returns the object that a reference names; null for a reference to an absent object.
  plist_t object(plist_t node) const {
    const auto place = placeOf(node);
    return place ? objects_[*place] : nullptr;
  }

  // Returns the object that a reference names, if it is of this class or of a derived class.
  plist_t objectOfClass(plist_t node, std::string_view allowed) {
    const plist_t found = object(node);
    if (!isOfType(found, PLIST_DICT) || !spend(0)) return nullptr;
    const auto place = placeOf(plist_dict_get_item(found, kClassKey));
    if (!place) return nullptr;
    const auto known = classes_.find(*place);
    const auto& names =
        known != classes_.end() ? known->second : classes_.emplace(*place, namesOf(*place)).first->second;
    return names.contains(allowed) ? found : nullptr;
  }

  // Returns the names in a class description: the class and its base classes.
  ClassNames namesOf(size_t place) const {
    ClassNames names;
    const plist_t description = objects_[place];
    if (!isOfType(description, PLIST_DICT)) return names;
    const auto own = viewOfText(plist_dict_get_item(description, "$classname"));
    if (!own) return names;
    names.emplace(*own);
    for (const plist_t node : nodesOfArray(plist_dict_get_item(description, "$classes"))) {
      if (const auto name = viewOfText(node)) names.emplace(*name);
    }
    return names;
  }

  // Counts what is read. Values may refer to one another, so it can be more than the archive stores.
  bool spend(size_t bytes) {
    if (valuesLeft_ == 0 || bytes > bytesLeft_) return false;
    --valuesLeft_;
    bytesLeft_ -= bytes;
    return true;
  }

  bool takeRuns(const Data& pairs, plist_t array, std::vector<AttributedString::Run>& runs) {
    std::vector<std::shared_ptr<const Dictionary>> different;
    for (const plist_t node : nodesOfArray(plist_dict_get_item(array, "NS.objects"))) {
      different.push_back(dictionary(node, 0));
    }
    for (size_t at = 0; at < pairs.size();) {
      const auto length = takeGroups(pairs, at);
      const auto index = length ? takeGroups(pairs, at) : std::nullopt;
      if (!index || *index >= different.size() || different[*index] == nullptr || !spend(0)) return false;
      runs.push_back({0, *length, different[*index]});
    }
    return true;
  }

  // Returns null if the node is not a reference to a dictionary. References to one dictionary share the result.
  std::shared_ptr<const Dictionary> dictionary(plist_t node, unsigned depth) {
    return container(dictionaries_, node, depth, [&] { return pairsOf(objectOfClass(node, "NSDictionary"), depth); });
  }
  // Does the same for lists.
  std::shared_ptr<const Array> list(plist_t node, unsigned depth) {
    return container(lists_, node, depth, [&] { return elementsOf(objectOfClass(node, "NSArray"), depth); });
  }

  // Returns the container at a place and reads it with `read` the first time. Null if the container is inside itself or
  // nested too deeply.
  template <typename Container, typename Read>
  std::shared_ptr<const Container> container(std::map<size_t, std::shared_ptr<const Container>>& known, plist_t node,
                                             unsigned depth, Read read) {
    const auto place = placeOf(node);
    if (!place || depth >= kDeepestNesting || open_.contains(*place)) return nullptr;
    if (const auto found = known.find(*place); found != known.end()) return found->second;
    open_.insert(*place);
    const std::shared_ptr<const Container> result = read();
    open_.erase(*place);
    known.emplace(*place, result);
    return result;
  }

  std::shared_ptr<const Array> elementsOf(plist_t object, unsigned depth) {
    if (object == nullptr) return nullptr;
    auto result = std::make_shared<Array>();
    for (const plist_t node : nodesOfArray(plist_dict_get_item(object, "NS.objects"))) {
      if (auto read = value(node, depth)) result->values.push_back(std::move(*read));
    }
    return result;
  }

  std::shared_ptr<const Dictionary> pairsOf(plist_t object, unsigned depth) {
    if (object == nullptr) return nullptr;
    const auto keys = nodesOfArray(plist_dict_get_item(object, "NS.keys"));
    const auto values = nodesOfArray(plist_dict_get_item(object, "NS.objects"));
    if (keys.size() != values.size()) return nullptr;
    auto result = std::make_shared<Dictionary>();
    for (size_t i = 0; i < keys.size(); ++i) {
      const auto key = text(keys[i]);
      auto read = key ? value(values[i], depth) : std::nullopt;
      if (read) result->set(*key, std::move(*read));
    }
    return result;
  }

  std::optional<Value> value(plist_t node, unsigned depth) {
    if (auto plain = text(node)) return std::move(*plain);
    if (auto bytes = data(node)) return std::move(*bytes);
    if (const auto counted = number(node); counted && isReference(node)) {
      if (counted->isBool()) return counted->boolValue();
      if (counted->isDouble()) return counted->doubleValue();
      return counted->longLongValue();
    }
    if (const auto identifier = uuid(node)) return *identifier;
    if (const auto location = url(node)) return *location;
    if (auto below = dictionary(node, depth + 1)) return below;
    if (auto below = list(node, depth + 1)) return below;
    return std::nullopt;
  }

  bool inXML_;
  PropertyListOwner root_;
  std::vector<plist_t> objects_;
  std::vector<Underway> underway_;
  std::map<size_t, ClassNames> classes_;
  std::map<size_t, std::shared_ptr<const Dictionary>> dictionaries_;
  std::map<size_t, std::shared_ptr<const Array>> lists_;
  std::set<size_t> open_;
  size_t valuesLeft_ = kMostValues;
  size_t bytesLeft_ = kLargestArchive;
};

KeyedUnarchiver::KeyedUnarchiver(const Data& archive) : state_(std::make_unique<State>(archive)) {}

KeyedUnarchiver::~KeyedUnarchiver() = default;

bool KeyedUnarchiver::enterObject(const std::string& key, const char* className) {
  return state_->enter(state_->entry(key), className);
}

void KeyedUnarchiver::leaveObject() {
  state_->leave();
}

bool KeyedUnarchiver::containsValueForKey(const std::string& key) const {
  return state_->entry(key) != nullptr;
}

std::optional<std::string> KeyedUnarchiver::decodeText(const std::string& key) {
  return state_->text(state_->entry(key));
}

std::optional<Data> KeyedUnarchiver::decodeData(const std::string& key) {
  return state_->data(state_->entry(key));
}

std::optional<Number> KeyedUnarchiver::decodeNumber(const std::string& key) {
  return state_->number(state_->entry(key));
}

std::optional<UUID> KeyedUnarchiver::decodeUUID(const std::string& key) {
  return state_->uuid(state_->entry(key));
}

std::optional<URL> KeyedUnarchiver::decodeURL(const std::string& key) {
  return state_->url(state_->entry(key));
}

std::optional<AttributedString> KeyedUnarchiver::decodeAttributedText(const std::string& key) {
  return state_->attributedText(state_->entry(key));
}

bool KeyedUnarchiver::decodeBool(const std::string& key) {
  const plist_t node = state_->entry(key);
  const auto number = state_->isReference(node) ? std::nullopt : state_->number(node);
  return number && number->boolValue();
}

}  // namespace vorlix
