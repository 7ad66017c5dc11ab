// SPDX-License-Identifier: Apache-2.0
#include "CFValue.h"

#include <limits.h>

#include <array>
#include <memory>
#include <utility>

namespace vorlix {
namespace {

CFIndex sizeOf(const std::string& text) {
  return static_cast<CFIndex>(text.size());
}

std::optional<Value> numberFromCF(CFNumberRef number) {
  if (CFNumberIsFloatType(number)) {
    double fraction = 0;
    if (!CFNumberGetValue(number, kCFNumberDoubleType, &fraction)) return std::nullopt;
    return fraction;
  }
  int64_t whole = 0;
  if (!CFNumberGetValue(number, kCFNumberSInt64Type, &whole)) return std::nullopt;
  return whole;
}

std::optional<Value> locationFromCF(CFURLRef location) {
  std::array<uint8_t, PATH_MAX> path;
  if (!CFURLGetFileSystemRepresentation(location, true, path.data(), PATH_MAX)) return std::nullopt;
  return URL::fileURLWithPath(reinterpret_cast<const char*>(path.data()), CFURLHasDirectoryPath(location) != 0);
}

std::shared_ptr<const Array> arrayFromCF(CFArrayRef array) {
  const auto converted = std::make_shared<Array>();
  for (CFIndex i = 0; i < CFArrayGetCount(array); ++i) {
    if (std::optional<Value> value = valueFromCF(CFArrayGetValueAtIndex(array, i))) {
      converted->values.push_back(*std::move(value));
    }
  }
  return converted;
}

CFOwned<CFMutableArrayRef> arrayToCF(const Array& array) {
  CFOwned<CFMutableArrayRef> converted(CFArrayCreateMutable(kCFAllocatorDefault, 0, &kCFTypeArrayCallBacks));
  if (!converted) return converted;
  for (const Value& value : array.values) {
    if (const CFOwned<CFTypeRef> object = valueToCF(value)) CFArrayAppendValue(converted.get(), object.get());
  }
  return converted;
}

UUID identifierFromCF(CFUUIDRef identifier) {
  const CFUUIDBytes bytes = CFUUIDGetUUIDBytes(identifier);
  return UUID(UUID::Bytes{bytes.byte0, bytes.byte1, bytes.byte2, bytes.byte3, bytes.byte4, bytes.byte5, bytes.byte6,
                          bytes.byte7, bytes.byte8, bytes.byte9, bytes.byte10, bytes.byte11, bytes.byte12, bytes.byte13,
                          bytes.byte14, bytes.byte15});
}

CFUUIDBytes identifierBytes(const UUID& identifier) {
  const UUID::Bytes& bytes = identifier.bytes();
  return {bytes[0], bytes[1], bytes[2],  bytes[3],  bytes[4],  bytes[5],  bytes[6],  bytes[7],
          bytes[8], bytes[9], bytes[10], bytes[11], bytes[12], bytes[13], bytes[14], bytes[15]};
}

void addTo(const void* key, const void* value, void* context) {
  if (CFGetTypeID(key) != CFStringGetTypeID()) return;
  const std::optional<std::string> name = textFromCF(static_cast<CFStringRef>(key));
  std::optional<Value> converted = valueFromCF(value);
  if (name && converted) static_cast<Dictionary*>(context)->set(*name, *std::move(converted));
}

// One overload for each type of a value.
struct Converter {
  CFOwned<CFTypeRef> operator()(bool value) const {
    return CFOwned<CFTypeRef>(CFRetain(value ? kCFBooleanTrue : kCFBooleanFalse));
  }
  CFOwned<CFTypeRef> operator()(int64_t value) const {
    return CFOwned<CFTypeRef>(CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt64Type, &value));
  }
  CFOwned<CFTypeRef> operator()(double value) const {
    return CFOwned<CFTypeRef>(CFNumberCreate(kCFAllocatorDefault, kCFNumberDoubleType, &value));
  }
  CFOwned<CFTypeRef> operator()(const std::string& value) const {
    return CFOwned<CFTypeRef>(stringToCF(value).release());
  }
  CFOwned<CFTypeRef> operator()(const Data& value) const {
    return CFOwned<CFTypeRef>(CFDataCreate(kCFAllocatorDefault, value.data(), static_cast<CFIndex>(value.size())));
  }
  CFOwned<CFTypeRef> operator()(const UUID& value) const {
    return CFOwned<CFTypeRef>(CFUUIDCreateFromUUIDBytes(kCFAllocatorDefault, identifierBytes(value)));
  }
  CFOwned<CFTypeRef> operator()(const URL& value) const {
    const auto* const path = reinterpret_cast<const uint8_t*>(value.path().data());
    return CFOwned<CFTypeRef>(CFURLCreateFromFileSystemRepresentation(kCFAllocatorDefault, path, sizeOf(value.path()),
                                                                      value.hasDirectoryPath()));
  }
  CFOwned<CFTypeRef> operator()(const std::shared_ptr<const Dictionary>& value) const {
    return value ? CFOwned<CFTypeRef>(dictionaryToCF(*value).release()) : nullptr;
  }
  CFOwned<CFTypeRef> operator()(const std::shared_ptr<const Array>& value) const {
    return value ? CFOwned<CFTypeRef>(arrayToCF(*value).release()) : nullptr;
  }
};

}  // namespace

std::optional<std::string> textFromCF(CFStringRef text) {
  if (text == nullptr) return std::nullopt;
  const CFRange all = CFRangeMake(0, CFStringGetLength(text));
  CFIndex size = 0;
  if (CFStringGetBytes(text, all, kCFStringEncodingUTF8, 0, false, nullptr, 0, &size) != all.length) {
    return std::nullopt;
  }
  std::string bytes(static_cast<size_t>(size), '\0');
  CFStringGetBytes(text, all, kCFStringEncodingUTF8, 0, false, reinterpret_cast<uint8_t*>(bytes.data()), size, nullptr);
  return bytes;
}

std::optional<Value> valueFromCF(CFTypeRef value) {
  if (value == nullptr) return std::nullopt;
  const CFTypeID type = CFGetTypeID(value);
  if (type == CFBooleanGetTypeID()) return CFBooleanGetValue(static_cast<CFBooleanRef>(value)) != 0;
  if (type == CFNumberGetTypeID()) return numberFromCF(static_cast<CFNumberRef>(value));
  if (type == CFStringGetTypeID()) return textFromCF(static_cast<CFStringRef>(value));
  if (type == CFDataGetTypeID()) {
    const auto data = static_cast<CFDataRef>(value);
    const uint8_t* const bytes = CFDataGetBytePtr(data);
    return Data(bytes, bytes + CFDataGetLength(data));
  }
  if (type == CFUUIDGetTypeID()) return identifierFromCF(static_cast<CFUUIDRef>(value));
  if (type == CFURLGetTypeID()) return locationFromCF(static_cast<CFURLRef>(value));
  if (type == CFDictionaryGetTypeID()) {
    return std::make_shared<const Dictionary>(dictionaryFromCF(static_cast<CFDictionaryRef>(value)));
  }
  if (type == CFArrayGetTypeID()) return arrayFromCF(static_cast<CFArrayRef>(value));
  return std::nullopt;
}

Dictionary dictionaryFromCF(CFDictionaryRef dictionary) {
  Dictionary converted;
  if (dictionary != nullptr) CFDictionaryApplyFunction(dictionary, addTo, &converted);
  return converted;
}

CFOwned<CFStringRef> stringToCF(const std::string& text) {
  const auto* const bytes = reinterpret_cast<const uint8_t*>(text.data());
  return CFOwned<CFStringRef>(
      CFStringCreateWithBytes(kCFAllocatorDefault, bytes, sizeOf(text), kCFStringEncodingUTF8, false));
}

CFOwned<CFTypeRef> valueToCF(const Value& value) {
  return std::visit(Converter(), value);
}

CFOwned<CFMutableDictionaryRef> dictionaryToCF(const Dictionary& dictionary) {
  CFOwned<CFMutableDictionaryRef> converted(CFDictionaryCreateMutable(
      kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks));
  if (!converted) return converted;
  for (const auto& [key, value] : dictionary.values()) {
    const CFOwned<CFStringRef> name = stringToCF(key);
    const CFOwned<CFTypeRef> object = valueToCF(value);
    if (name && object) CFDictionarySetValue(converted.get(), name.get(), object.get());
  }
  return converted;
}

}  // namespace vorlix
