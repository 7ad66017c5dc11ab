// SPDX-License-Identifier: Apache-2.0
//
// I/O Kit's user side: names of kernel objects, which are counted, and the registry behind them.
#include <IOKit/IOBSD.h>
#include <IOKit/IOKitKeys.h>
#include <IOKit/IOKitLib.h>

#include <functional>
#include <map>

#include "Properties.h"
#include "System.h"
#include "platform/simulated/SimulatedState.h"

namespace vorlix::standin {
namespace {

constexpr const char* kHeld = "io_object_t";
constexpr kern_return_t kInvalidDestination = 0x10000003;  // MACH_SEND_INVALID_DEST
constexpr kern_return_t kBadArgument = static_cast<kern_return_t>(0xE00002C2);

struct KernelObject {
  std::shared_ptr<RegistryEntry> entry;
  std::shared_ptr<RegistryIterator> iterator;
  std::function<std::shared_ptr<RegistryIterator>()> begin;  // of an iterator over the registry itself
  uint64_t generation = 0;
};

std::map<io_object_t, KernelObject>& objects() {
  static auto* const all = new std::map<io_object_t, KernelObject>;
  return *all;
}

io_object_t handOut(KernelObject object) {
  static io_object_t last = 0x1003;
  last += 0x100;  // a name is not used again, so that a stale one is seen
  objects()[last] = std::move(object);
  ++live()[kHeld];
  return last;
}

KernelObject* objectOf(io_object_t name) {
  const auto found = objects().find(name);
  if (found != objects().end()) return &found->second;
  report("a kernel object was used that is not held");
  return nullptr;
}

RegistryEntry* entryOf(io_object_t name) {
  KernelObject* const object = objectOf(name);
  return object == nullptr ? nullptr : object->entry.get();
}

std::shared_ptr<IORegistry> registry() {
  return makeSimulatedRegistry(system().state);
}

// The conditions of a matching dictionary; every object that has a provider class is an IOService.
RegistryMatching conditionsOf(CFDictionaryRef matching) {
  RegistryMatching conditions;
  if (const void* name = CFDictionaryGetValue(matching, CFSTR(kIOProviderClassKey))) {
    const std::string text = textOf(static_cast<CFStringRef>(name));
    if (text != "IOService") conditions.className = text;
  }
  if (const void* name = CFDictionaryGetValue(matching, CFSTR(kIOBSDNameKey))) {
    conditions.bsdName = textOf(static_cast<CFStringRef>(name));
  }
  if (const void* properties = CFDictionaryGetValue(matching, CFSTR(kIOPropertyMatchKey))) {
    const auto add = [](const void* key, const void* value, void* to) {
      if (auto plain = plainValue(value)) {
        static_cast<Dictionary*>(to)->set(textOf(static_cast<CFStringRef>(key)), *std::move(plain));
      }
    };
    CFDictionaryApplyFunction(static_cast<CFDictionaryRef>(properties), add, &conditions.properties);
  }
  return conditions;
}

}  // namespace
}  // namespace vorlix::standin

using namespace vorlix;           // NOLINT: the system's names are global
using namespace vorlix::standin;  // NOLINT

extern "C" {

kern_return_t IOMainPort(mach_port_t, mach_port_t* mainPort) {
  return registry()->masterPort(*mainPort);
}

kern_return_t IOObjectRelease(io_object_t object) {
  if (objects().erase(object) == 0) {
    report("a kernel object was released that is not held");
    return kInvalidDestination;
  }
  --live()[kHeld];
  return KERN_SUCCESS;
}

// Returns nothing at the end, nor after a change of the registry has made the iterator invalid
// (IORegistryIterator::getNextObject).
io_object_t IOIteratorNext(io_iterator_t iterator) {
  KernelObject* const object = objectOf(iterator);
  if (object == nullptr) return IO_OBJECT_NULL;
  if (object->begin) {
    auto& left = standin::system().entriesUntilChange;
    if (left && *left == 0) {
      ++standin::system().registryGeneration;
      left.reset();
    }
    if (left) --*left;
    if (object->generation != standin::system().registryGeneration) return IO_OBJECT_NULL;
  }
  auto entry = object->iterator ? object->iterator->next() : nullptr;
  return entry ? handOut({std::move(entry), nullptr, nullptr, 0}) : IO_OBJECT_NULL;
}

void IOIteratorReset(io_iterator_t iterator) {
  KernelObject* const object = objectOf(iterator);
  if (object == nullptr || !object->begin) return;
  object->iterator = object->begin();
  object->generation = standin::system().registryGeneration;
}

boolean_t IOIteratorIsValid(io_iterator_t iterator) {
  KernelObject* const object = objectOf(iterator);
  if (object == nullptr) return 0;
  return !object->begin || object->generation == standin::system().registryGeneration ? 1 : 0;
}

CFMutableDictionaryRef IOServiceMatching(const char* name) {
  CFMutableDictionaryRef made =
      CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
  const CFStringRef text = createText(name);
  if (text == nullptr) return made;
  CFDictionarySetValue(made, CFSTR(kIOProviderClassKey), text);
  CFRelease(text);
  return made;
}

// Always consumes one reference to the dictionary. If nothing matches, it succeeds with no iterator (IOKitLib.c returns
// IO_OBJECT_NULL) or with one without entries.
kern_return_t IOServiceGetMatchingServices(mach_port_t mainPort, CFDictionaryRef matching, io_iterator_t* existing) {
  if (matching == nullptr) return kBadArgument;
  const RegistryMatching conditions = conditionsOf(matching);
  CFRelease(matching);
  std::shared_ptr<RegistryIterator> found;
  const kern_return_t code = registry()->matchingServices(mainPort, conditions, found);
  if (code != KERN_SUCCESS) return code;
  *existing = found ? handOut({nullptr, std::move(found), nullptr, 0}) : IO_OBJECT_NULL;
  return KERN_SUCCESS;
}

kern_return_t IORegistryCreateIterator(mach_port_t mainPort, const io_name_t plane, IOOptionBits options,
                                       io_iterator_t* iterator) {
  if ((options & kIORegistryIterateRecursively) == 0) report("only the top of the registry was asked for");
  std::shared_ptr<RegistryIterator> found;
  const kern_return_t code = registry()->createIterator(mainPort, plane, found);
  if (code != KERN_SUCCESS || !found) return code;
  const std::string name = plane;
  const auto begin = [name, state = standin::system().state] {
    std::shared_ptr<RegistryIterator> again;
    makeSimulatedRegistry(state)->createIterator(0, name, again);
    return again;
  };
  *iterator = handOut({nullptr, std::move(found), begin, standin::system().registryGeneration});
  return KERN_SUCCESS;
}

// The numbers start at 2^32, and an entry keeps its number. A simulated entry is identified by its path and BSD name.
kern_return_t IORegistryEntryGetRegistryEntryID(io_registry_entry_t entry, uint64_t* entryID) {
  RegistryEntry* const known = entryOf(entry);
  if (known == nullptr) return kBadArgument;
  static auto* const numbers = new std::map<std::string, uint64_t>;
  std::string path;
  if (known->path(kServicePlane, path) != kKernSuccess && known->path(kDeviceTreePlane, path) != kKernSuccess) {
    path = "unknown " + std::to_string(numbers->size());
  }
  const std::optional<Value> device = known->property(kIOBSDNameKey);
  const auto* const name = device ? std::get_if<std::string>(&*device) : nullptr;
  if (name != nullptr) path += " " + *name;
  *entryID = numbers->try_emplace(path, 0x100000000 + numbers->size()).first->second;
  return KERN_SUCCESS;
}

CFTypeRef IORegistryEntryCreateCFProperty(io_registry_entry_t entry, CFStringRef key, CFAllocatorRef, IOOptionBits) {
  RegistryEntry* const known = entryOf(entry);
  const auto value = known != nullptr ? known->property(textOf(key)) : std::nullopt;
  return value ? createObject(*value) : nullptr;
}

kern_return_t IORegistryEntryCreateCFProperties(io_registry_entry_t entry, CFMutableDictionaryRef* properties,
                                                CFAllocatorRef, IOOptionBits) {
  RegistryEntry* const known = entryOf(entry);
  if (known == nullptr) return kBadArgument;
  std::optional<Dictionary> values;
  const kern_return_t code = known->copyProperties(values);
  *properties = code == KERN_SUCCESS && values ? createDictionary(*values) : nullptr;
  return code;
}

kern_return_t IORegistryEntryGetParentEntry(io_registry_entry_t entry, const io_name_t plane,
                                            io_registry_entry_t* parent) {
  RegistryEntry* const known = entryOf(entry);
  if (known == nullptr) return kBadArgument;
  std::shared_ptr<RegistryEntry> above;
  const kern_return_t code = known->parent(plane, above);
  *parent = above ? handOut({std::move(above), nullptr, nullptr, 0}) : IO_OBJECT_NULL;
  return code;
}

CFStringRef IORegistryEntryCopyPath(io_registry_entry_t entry, const io_name_t plane) {
  RegistryEntry* const known = entryOf(entry);
  std::string path;
  if (known == nullptr || known->path(plane, path) != kKernSuccess) return nullptr;
  return createText(path);
}

}  // extern "C"
