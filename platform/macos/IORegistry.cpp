// SPDX-License-Identifier: Apache-2.0
#include "IORegistry.h"

#include <IOKit/IOBSD.h>
#include <IOKit/IOKitKeys.h>
#include <IOKit/IOKitLib.h>

#include <set>
#include <utility>

#include "CFValue.h"

namespace vorlix {
namespace {

static_assert(sizeof(MasterPort) == sizeof(mach_port_t));
static_assert(kKernSuccess == KERN_SUCCESS && kKernFailure == KERN_FAILURE);

/// Owns a reference to an object of the kernel.
class IOObject {
 public:
  IOObject() = default;
  explicit IOObject(io_object_t object) : object_(object) {}
  IOObject(IOObject&& other) noexcept : object_(std::exchange(other.object_, IO_OBJECT_NULL)) {}
  ~IOObject() {
    if (object_ != IO_OBJECT_NULL) IOObjectRelease(object_);
  }

  io_object_t get() const { return object_; }
  explicit operator bool() const { return object_ != IO_OBJECT_NULL; }

 private:
  io_object_t object_ = IO_OBJECT_NULL;
};

class MacEntry final : public RegistryEntry {
 public:
  explicit MacEntry(IOObject entry) : entry_(std::move(entry)) {}

  std::optional<Value> property(const std::string& key) override {
    const CFOwned<CFStringRef> name = stringToCF(key);
    if (!name) return std::nullopt;
    const CFOwned<CFTypeRef> value(IORegistryEntryCreateCFProperty(entry_.get(), name.get(), kCFAllocatorDefault, 0));
    return valueFromCF(value.get());
  }

  KernReturn copyProperties(std::optional<Dictionary>& properties) override {
    CFMutableDictionaryRef native = nullptr;
    const kern_return_t code = IORegistryEntryCreateCFProperties(entry_.get(), &native, kCFAllocatorDefault, 0);
    const CFOwned<CFMutableDictionaryRef> owned(native);
    if (code != KERN_SUCCESS) return code;
    properties = owned ? std::optional<Dictionary>(dictionaryFromCF(owned.get())) : std::nullopt;
    return kKernSuccess;
  }

  KernReturn parent(const std::string& plane, std::shared_ptr<RegistryEntry>& parent) override {
    parent.reset();
    io_registry_entry_t native = IO_OBJECT_NULL;
    const kern_return_t code = IORegistryEntryGetParentEntry(entry_.get(), plane.c_str(), &native);
    IOObject owned(native);
    if (code != KERN_SUCCESS) return code;
    if (!owned) return kKernFailure;
    parent = std::make_shared<MacEntry>(std::move(owned));
    return kKernSuccess;
  }

  KernReturn path(const std::string& plane, std::string& path) override {
    const CFOwned<CFStringRef> native(IORegistryEntryCopyPath(entry_.get(), plane.c_str()));
    std::optional<std::string> text = textFromCF(native.get());
    if (!text) return kKernFailure;
    path = *std::move(text);
    return kKernSuccess;
  }

 private:
  IOObject entry_;
};

class MacIterator final : public RegistryIterator {
 public:
  explicit MacIterator(IOObject iterator) : iterator_(std::move(iterator)) {}

  std::shared_ptr<RegistryEntry> next() override {
    while (true) {
      while (IOObject entry{IOIteratorNext(iterator_.get())}) {
        if (isNew(entry)) return std::make_shared<MacEntry>(std::move(entry));
      }
      // A change of the registry ends the walk. It then starts again and skips the entries that it has returned.
      if (IOIteratorIsValid(iterator_.get()) || restartsLeft_ == 0) return nullptr;
      --restartsLeft_;
      IOIteratorReset(iterator_.get());
    }
  }

 private:
  bool isNew(const IOObject& entry) {
    uint64_t number = 0;
    if (IORegistryEntryGetRegistryEntryID(entry.get(), &number) != KERN_SUCCESS) return true;
    return met_.insert(number).second;
  }

  IOObject iterator_;
  std::set<uint64_t> met_;
  unsigned restartsLeft_ = 100;
};

KernReturn handOut(kern_return_t code, IOObject native, std::shared_ptr<RegistryIterator>& iterator) {
  if (code != KERN_SUCCESS) return code;
  iterator = native ? std::make_shared<MacIterator>(std::move(native)) : nullptr;
  return kKernSuccess;
}

// Returns null if a condition has no Core Foundation form; nothing can match it.
CFOwned<CFMutableDictionaryRef> conditionsOf(const RegistryMatching& matching) {
  const std::string className = matching.className.value_or("IOService");
  CFOwned<CFMutableDictionaryRef> conditions(IOServiceMatching(className.c_str()));
  if (!conditions) return nullptr;
  if (matching.bsdName) {
    const CFOwned<CFStringRef> name = stringToCF(*matching.bsdName);
    if (!name) return nullptr;
    CFDictionarySetValue(conditions.get(), CFSTR(kIOBSDNameKey), name.get());
  }
  if (!matching.properties.values().empty()) {
    const CFOwned<CFMutableDictionaryRef> properties = dictionaryToCF(matching.properties);
    const auto count = static_cast<CFIndex>(matching.properties.values().size());
    if (!properties || CFDictionaryGetCount(properties.get()) != count) return nullptr;
    CFDictionarySetValue(conditions.get(), CFSTR(kIOPropertyMatchKey), properties.get());
  }
  return conditions;
}

}  // namespace

KernReturn MacIORegistry::masterPort(MasterPort& port) {
  mach_port_t native = MACH_PORT_NULL;
  const kern_return_t code = IOMainPort(MACH_PORT_NULL, &native);
  if (code != KERN_SUCCESS) return code;
  port = native;
  return kKernSuccess;
}

KernReturn MacIORegistry::createIterator(MasterPort port, const std::string& plane,
                                         std::shared_ptr<RegistryIterator>& iterator) {
  io_iterator_t native = IO_OBJECT_NULL;
  const kern_return_t code = IORegistryCreateIterator(port, plane.c_str(), kIORegistryIterateRecursively, &native);
  return handOut(code, IOObject(native), iterator);
}

KernReturn MacIORegistry::matchingServices(MasterPort port, const RegistryMatching& matching,
                                           std::shared_ptr<RegistryIterator>& iterator) {
  CFOwned<CFMutableDictionaryRef> conditions = conditionsOf(matching);
  if (!conditions) return handOut(KERN_SUCCESS, IOObject(), iterator);
  io_iterator_t native = IO_OBJECT_NULL;
  // The call takes over the reference to the conditions.
  const kern_return_t code = IOServiceGetMatchingServices(port, conditions.release(), &native);
  return handOut(code, IOObject(native), iterator);
}

}  // namespace vorlix
