// SPDX-License-Identifier: Apache-2.0
//
// Archives as XML text that a reader can check. A reference is {"CF$UID": place}.
#pragma once

#include <Vorlix/foundation/Value.h>
#include <plist/plist.h>

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

/// Returns a reference to the object at `place` in "$objects".
inline std::string uid(size_t place) {
  return "<dict><key>CF$UID</key><integer>" + std::to_string(place) + "</integer></dict>";
}

/// Returns a class description.
inline std::string classNamed(const std::string& name, const std::string& above = "") {
  return "<dict><key>$classname</key><string>" + name + "</string><key>$classes</key><array><string>" + name +
         "</string>" + above + "<string>NSObject</string></array></dict>";
}

/// Returns an entry of a dictionary.
inline std::string entry(const std::string& key, const std::string& value) {
  return "<key>" + key + "</key>" + value;
}

/// Returns the reference that a dictionary in XML represents, or null. The parser does not convert such dictionaries.
inline plist_t referenceOf(plist_t node) {
  const plist_t place = plist_get_node_type(node) == PLIST_DICT ? plist_dict_get_item(node, "CF$UID") : nullptr;
  if (place == nullptr) return nullptr;
  uint64_t number = 0;
  plist_get_uint_val(place, &number);
  return plist_new_uid(number);
}

/// Replaces these dictionaries by references, in a node and below it.
inline void makeReferences(plist_t node) {
  if (plist_get_node_type(node) == PLIST_ARRAY) {
    for (uint32_t i = 0; i < plist_array_get_size(node); ++i) {
      const plist_t item = plist_array_get_item(node, i);
      if (const plist_t reference = referenceOf(item)) {
        plist_array_set_item(node, reference, i);
      } else {
        makeReferences(item);
      }
    }
  } else if (plist_get_node_type(node) == PLIST_DICT) {
    std::vector<std::string> keys;
    plist_dict_iter iterator = nullptr;
    plist_dict_new_iter(node, &iterator);
    for (;;) {
      char* key = nullptr;
      plist_dict_next_item(node, iterator, &key, nullptr);
      if (key == nullptr) break;
      keys.emplace_back(key);
      std::free(key);
    }
    std::free(iterator);
    for (const std::string& key : keys) {
      const plist_t item = plist_dict_get_item(node, key.c_str());
      if (const plist_t reference = referenceOf(item)) {
        plist_dict_set_item(node, key.c_str(), reference);
      } else {
        makeReferences(item);
      }
    }
  }
}

/// Converts XML to a binary property list.
inline vorlix::Data binaryOf(const std::string& xml) {
  const std::string whole = "<plist version=\"1.0\">" + xml + "</plist>";
  plist_t root = nullptr;
  plist_from_xml(whole.data(), static_cast<uint32_t>(whole.size()), &root);
  if (root == nullptr) throw std::invalid_argument("not a property list: " + xml);
  makeReferences(root);
  char* bytes = nullptr;
  uint32_t size = 0;
  plist_to_bin(root, &bytes, &size);
  plist_free(root);
  vorlix::Data data(bytes, bytes + size);
  std::free(bytes);
  return data;
}

/// Returns an archive whose root is object 1. `objects` are those after "$null".
inline vorlix::Data archiveOf(const std::string& objects, const std::string& root = uid(1)) {
  return binaryOf("<dict>" + entry("$archiver", "<string>NSKeyedArchiver</string>") +
                  entry("$version", "<integer>100000</integer>") +
                  entry("$top", "<dict>" + entry("root", root) + "</dict>") +
                  entry("$objects", "<array><string>$null</string>" + objects + "</array>") + "</dict>");
}

/// Returns the XML of a binary property list's value, without white space between elements.
inline std::string xmlOf(const vorlix::Data& binary) {
  plist_t root = nullptr;
  plist_from_bin(reinterpret_cast<const char*>(binary.data()), static_cast<uint32_t>(binary.size()), &root);
  if (root == nullptr) throw std::invalid_argument("not a binary property list");
  char* text = nullptr;
  uint32_t size = 0;
  plist_to_xml(root, &text, &size);
  plist_free(root);
  std::string xml(text, size);
  std::free(text);
  const size_t start = xml.find("<plist version=\"1.0\">") + 21;
  xml = xml.substr(start, xml.find("</plist>") - start);
  std::string compact;
  for (size_t i = 0; i < xml.size(); ++i) {
    const bool between = xml[i] == '\n' || xml[i] == '\t';
    if (!between) compact += xml[i];
  }
  return compact;
}
