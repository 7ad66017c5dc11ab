// SPDX-License-Identifier: Apache-2.0
#include "Properties.h"

#include <array>

namespace vorlix::standin {
namespace {

CFTypeRef createArray(const Array& array) {
  CFMutableArrayRef made = CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks);
  for (const Value& value : array.values) {
    if (const CFTypeRef object = createObject(value)) {
      CFArrayAppendValue(made, object);
      CFRelease(object);
    }
  }
  return made;
}

struct Maker {
  CFTypeRef operator()(bool value) const { return CFRetain(value ? kCFBooleanTrue : kCFBooleanFalse); }
  CFTypeRef operator()(int64_t value) const { return CFNumberCreate(nullptr, kCFNumberSInt64Type, &value); }
  CFTypeRef operator()(double value) const { return CFNumberCreate(nullptr, kCFNumberDoubleType, &value); }
  CFTypeRef operator()(const std::string& value) const { return createText(value); }
  CFTypeRef operator()(const Data& value) const {
    return CFDataCreate(nullptr, value.data(), static_cast<CFIndex>(value.size()));
  }
  CFTypeRef operator()(const UUID& value) const {
    const CFStringRef text = createText(value.text());
    const CFTypeRef made = CFUUIDCreateFromString(nullptr, text);
    CFRelease(text);
    return made;
  }
  CFTypeRef operator()(const URL& value) const {
    const CFStringRef path = createText(value.path());
    const CFTypeRef made = CFURLCreateWithFileSystemPath(nullptr, path, kCFURLPOSIXPathStyle, value.hasDirectoryPath());
    CFRelease(path);
    return made;
  }
  CFTypeRef operator()(const std::shared_ptr<const Dictionary>& value) const {
    return value ? createDictionary(*value) : nullptr;
  }
  CFTypeRef operator()(const std::shared_ptr<const Array>& value) const {
    return value ? createArray(*value) : nullptr;
  }
};

}  // namespace

CFTypeRef createObject(const Value& value) {
  return std::visit(Maker(), value);
}

CFMutableDictionaryRef createDictionary(const Dictionary& values) {
  CFMutableDictionaryRef made =
      CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
  for (const auto& [key, value] : values.values()) {
    const CFStringRef name = createText(key);
    if (const CFTypeRef object = createObject(value)) {
      CFDictionarySetValue(made, name, object);
      CFRelease(object);
    }
    CFRelease(name);
  }
  return made;
}

CFStringRef createText(const std::string& text) {
  return CFStringCreateWithCString(nullptr, text.c_str(), kCFStringEncodingUTF8);
}

std::string textOf(CFStringRef text) {
  std::array<char, 4096> bytes = {};
  if (!CFStringGetCString(text, bytes.data(), bytes.size(), kCFStringEncodingUTF8)) return "";
  return bytes.data();
}

std::optional<Value> plainValue(CFTypeRef object) {
  const CFTypeID type = CFGetTypeID(object);
  if (type == CFStringGetTypeID()) return textOf(static_cast<CFStringRef>(object));
  if (type == CFBooleanGetTypeID()) return CFBooleanGetValue(static_cast<CFBooleanRef>(object)) != 0;
  int64_t number = 0;
  if (type == CFNumberGetTypeID() && CFNumberGetValue(static_cast<CFNumberRef>(object), kCFNumberSInt64Type, &number)) {
    return number;
  }
  return std::nullopt;
}

}  // namespace vorlix::standin
