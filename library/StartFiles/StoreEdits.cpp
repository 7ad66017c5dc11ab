// SPDX-License-Identifier: Apache-2.0
//
// The store of an installed Windows, made from the template on its volume.
#include <Vorlix/StartFiles.h>
#include <Vorlix/foundation/CaseFolding.h>
#include <Vorlix/foundation/LittleEndian.h>
#include <Vorlix/foundation/Sha256.h>
#include <Vorlix/foundation/Utf16.h>

#include <algorithm>
#include <string_view>

namespace vorlix {
namespace {

using StoreBytes = std::vector<uint8_t>;

// Well-known objects.
constexpr const char* kManagerObject = "{9dea862c-5cdd-4e70-acc1-f32b344d4795}";
constexpr const char* kTesterObject = "{b2721d73-1db4-4c62-bf78-c548a880142d}";
constexpr const char* kGlobalSettings = "{7ea2e1ac-2e61-4728-aaa3-896d9d0a9f0e}";
constexpr const char* kLoaderSettings = "{6efb52bf-1766-41db-a6b3-0ee5eff72bd7}";
constexpr const char* kResumeSettings = "{1afa9c49-16ab-4a5c-4a90-212802da9460}";

// Templates of objects for the two kinds of firmware.
constexpr const char* kLoaderTemplateEFI = "{b012b84d-c47c-4ed5-b722-c0c42163e569}";
constexpr const char* kLoaderTemplateBIOS = "{a1943bbc-ea85-487c-97c7-c9ede908a38a}";
constexpr const char* kResumeTemplateEFI = "{0c334284-9a41-4de1-99b3-a7e87e8ff07e}";
constexpr const char* kResumeTemplateBIOS = "{98b02a23-0674-4ce7-bdad-e0a15a8ff97b}";

// Objects for set-up's own use: the templates, set-up's loaders, and the loader of older systems.
constexpr std::string_view kSetUpObjects[] = {
    kLoaderTemplateEFI,
    kLoaderTemplateBIOS,
    kResumeTemplateEFI,
    kResumeTemplateBIOS,
    "{7254a080-1510-4e85-ac0f-e7fb3d444736}",
    "{cbd971bf-b7b8-4885-951a-fa03044f5d71}",
    "{466f5a88-0af2-4f76-9038-095b170dc21c}",
};

// Types of elements.
constexpr uint32_t kDevice = 0x11000001;
constexpr uint32_t kPath = 0x12000002;
constexpr uint32_t kDescription = 0x12000004;
constexpr uint32_t kLocale = 0x12000005;
constexpr uint32_t kInherit = 0x14000006;
constexpr uint32_t kBadMemoryAccess = 0x1600000B;
constexpr uint32_t kManagerDefault = 0x23000003;
constexpr uint32_t kManagerResume = 0x23000006;
constexpr uint32_t kManagerOrder = 0x24000001;
constexpr uint32_t kManagerTools = 0x24000010;
constexpr uint32_t kManagerTimeout = 0x25000004;
constexpr uint32_t kSystemDevice = 0x21000001;
constexpr uint32_t kSystemRoot = 0x22000002;
constexpr uint32_t kLoaderResume = 0x23000003;
constexpr uint32_t kLoaderNX = 0x25000020;
constexpr uint32_t kResumeDevice = 0x21000001;
constexpr uint32_t kResumeFile = 0x22000002;
constexpr uint32_t kTemplatePath = 0x42000002;  // of the program, below the Windows folder
constexpr uint32_t kTemplateClass = 4;

constexpr uint32_t kString = 1;
constexpr uint32_t kBinary = 3;
constexpr uint32_t kStringList = 7;

struct ElementValue {
  uint32_t valueType;
  StoreBytes data;
};

// Texts end with a NUL, lists of texts with two.
ElementValue text(std::string_view value) {
  return {kString, utf16Bytes(std::string(value) + '\0')};
}

ElementValue list(std::string_view value) {
  return {kStringList, utf16Bytes(std::string(value) + '\0' + '\0')};
}

ElementValue number(uint64_t value) {
  ElementValue result = {kBinary, StoreBytes(8)};
  putLittleEndian(result.data.data(), result.data.size(), value);
  return result;
}

ElementValue device(const StorePartition& partition) {
  return {kBinary, partitionElement(partition)};
}

// ASCII characters of a text element; others are not in paths of programs.
std::string plainText(const StoreBytes& bytes) {
  std::string result;
  for (size_t i = 0; i + 1 < bytes.size() && (bytes[i] != 0 || bytes[i + 1] != 0); i += 2) {
    if (bytes[i + 1] != 0 || bytes[i] < 0x20 || bytes[i] >= 0x7F) return {};
    result += static_cast<char>(bytes[i]);
  }
  return result;
}

// A GUID that follows from the partition: version 8 of RFC 9562, from a hash.
std::string derivedIdentifier(const char* role, const StorePartition& partition) {
  const std::string_view name = role;
  StoreBytes bytes(name.begin(), name.end());
  bytes.insert(bytes.end(), partition.partition.begin(), partition.partition.end());
  bytes.insert(bytes.end(), partition.disk.begin(), partition.disk.end());
  const std::string hash = sha256(bytes);
  return "{" + hash.substr(0, 8) + "-" + hash.substr(8, 4) + "-8" + hash.substr(13, 3) + "-a" + hash.substr(17, 3) +
         "-" + hash.substr(20, 12) + "}";
}

// Collects the edits. Elements that the template has win over defaults, and lose against what must be.
class StoreEdits {
 public:
  explicit StoreEdits(const std::vector<StoreObject>& objects) : objects_(objects) {}

  // Begins an object with the elements that a template object has; its own ones if it is that object.
  void begin(const std::string& identifier, uint32_t type, const std::string& templateIdentifier) {
    object_ = identifier;
    template_ = find(templateIdentifier);
    add({StoreEdit::Kind::setObject, object_, type, 0, {}});
    if (template_ == nullptr || identifier == templateIdentifier) return;
    for (const StoreElement& element : template_->elements) {
      if (element.type >> 28U != kTemplateClass) set(element.type, {element.valueType, element.data});
    }
  }

  void set(uint32_t element, ElementValue value) {
    // Of two edits of one element, the later one counts.
    std::erase_if(edits_, [&](const StoreEdit& edit) {
      return edit.kind == StoreEdit::Kind::setElement && edit.object == object_ && edit.type == element;
    });
    add({StoreEdit::Kind::setElement, object_, element, value.valueType, std::move(value.data)});
  }

  void setDefault(uint32_t element, ElementValue value) {
    if (templateElement(element) == nullptr) set(element, std::move(value));
  }

  void unset(uint32_t element) { add({StoreEdit::Kind::removeElement, object_, element, 0, {}}); }

  // Path of the program: the template has the part below the Windows folder.
  std::string programPath(const std::string& root, const std::string& usual) const {
    const StoreElement* const element = templateElement(kTemplatePath);
    const std::string part = element == nullptr ? "" : plainText(element->data);
    return root + (part.empty() ? usual : part);
  }

  void removeSetUpParts() {
    for (const StoreObject& object : objects_) {
      const std::string identifier = lowerCase(object.identifier);
      if (std::find(std::begin(kSetUpObjects), std::end(kSetUpObjects), identifier) != std::end(kSetUpObjects)) {
        add({StoreEdit::Kind::removeObject, identifier, 0, 0, {}});
        continue;
      }
      for (const StoreElement& element : object.elements) {
        if (element.type >> 28U != kTemplateClass) continue;
        add({StoreEdit::Kind::removeElement, identifier, element.type, 0, {}});
      }
    }
  }

  void remove(const std::string& identifier) {
    std::erase_if(edits_, [&](const StoreEdit& edit) { return edit.object == identifier; });
    add({StoreEdit::Kind::removeObject, identifier, 0, 0, {}});
  }

  std::vector<StoreEdit> take() { return std::move(edits_); }

 private:
  void add(StoreEdit edit) { edits_.push_back(std::move(edit)); }

  const StoreObject* find(const std::string& identifier) const {
    const auto found = std::find_if(objects_.begin(), objects_.end(), [&](const StoreObject& object) {
      return lowerCase(object.identifier) == identifier;
    });
    return found == objects_.end() ? nullptr : &*found;
  }

  const StoreElement* templateElement(uint32_t type) const {
    if (template_ == nullptr) return nullptr;
    const auto found = std::find_if(template_->elements.begin(), template_->elements.end(),
                                    [&](const StoreElement& element) { return element.type == type; });
    return found == template_->elements.end() ? nullptr : &*found;
  }

  const std::vector<StoreObject>& objects_;
  std::string object_;
  const StoreObject* template_ = nullptr;
  std::vector<StoreEdit> edits_;
};

}  // namespace

std::vector<StoreEdit> windowsStoreEdits(const std::vector<StoreObject>& templateObjects, const WindowsStart& start) {
  const bool isEFI = start.firmware == StartFirmware::efi;
  const StorePartition& windows = start.partitions.windows;
  const StorePartition& system = start.partitions.system;
  const std::string loader = derivedIdentifier("loader", windows);
  const std::string resume = derivedIdentifier("resume", windows);
  const std::string root = "\\" + start.windowsFolder;
  constexpr const char* kUsualLocale = "en-US";
  constexpr uint64_t kTimeout = 30;  // seconds
  constexpr uint64_t kOptIn = 0;     // execution of data is refused to programs that ask for that

  StoreEdits edits(templateObjects);
  edits.removeSetUpParts();

  edits.begin(kManagerObject, kStoreBootManager, kManagerObject);
  edits.set(kDevice, device(system));
  if (isEFI) {
    edits.set(kPath, text("\\EFI\\Microsoft\\Boot\\bootmgfw.efi"));
  } else {
    edits.unset(kPath);  // a BIOS start finds it by its name
  }
  edits.setDefault(kDescription, text("Windows Boot Manager"));
  edits.setDefault(kLocale, text(kUsualLocale));
  edits.setDefault(kInherit, list(kGlobalSettings));
  edits.set(kManagerDefault, text(loader));
  edits.set(kManagerResume, text(resume));
  edits.set(kManagerOrder, list(loader));
  if (start.hasMemoryTester) edits.set(kManagerTools, list(kTesterObject));
  edits.setDefault(kManagerTimeout, number(kTimeout));

  edits.begin(loader, kStoreLoader, isEFI ? kLoaderTemplateEFI : kLoaderTemplateBIOS);
  edits.set(kDevice, device(windows));
  edits.set(kPath, text(edits.programPath(root, isEFI ? "\\system32\\winload.efi" : "\\system32\\winload.exe")));
  edits.set(kDescription, text(start.description));
  edits.setDefault(kLocale, text(kUsualLocale));
  edits.setDefault(kInherit, list(kLoaderSettings));
  edits.set(kSystemDevice, device(windows));
  edits.set(kSystemRoot, text(root));
  edits.set(kLoaderResume, text(resume));
  edits.setDefault(kLoaderNX, number(kOptIn));

  edits.begin(resume, kStoreResume, isEFI ? kResumeTemplateEFI : kResumeTemplateBIOS);
  edits.set(kDevice, device(windows));
  edits.set(kPath, text(edits.programPath(root, isEFI ? "\\system32\\winresume.efi" : "\\system32\\winresume.exe")));
  edits.setDefault(kDescription, text("Windows Resume Application"));
  edits.setDefault(kLocale, text(kUsualLocale));
  edits.setDefault(kInherit, list(kResumeSettings));
  edits.set(kResumeDevice, device(windows));
  edits.setDefault(kResumeFile, text("\\hiberfil.sys"));

  if (!start.hasMemoryTester) {
    edits.remove(kTesterObject);
    return edits.take();
  }
  edits.begin(kTesterObject, kStoreMemoryTester, kTesterObject);
  edits.set(kDevice, device(system));
  edits.set(kPath, text(isEFI ? "\\EFI\\Microsoft\\Boot\\memtest.efi" : "\\Boot\\memtest.exe"));
  edits.setDefault(kDescription, text("Windows Memory Diagnostic"));
  edits.setDefault(kLocale, text(kUsualLocale));
  edits.setDefault(kInherit, list(kGlobalSettings));
  edits.setDefault(kBadMemoryAccess, {kBinary, {1}});
  return edits.take();
}

}  // namespace vorlix
