// SPDX-License-Identifier: Apache-2.0
//
// Runs the companion program boot_store on copies of a store in a private folder.
#include <Vorlix/BootStore.h>
#include <Vorlix/foundation/CaseFolding.h>
#include <Vorlix/platform/ChildProcess.h>
#include <Vorlix/platform/CompanionProgram.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/SystemError.h>
#include <unistd.h>  // mkdtemp() on macOS

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace vorlix {
namespace {

constexpr const char* kListingEnd = "end\n";
constexpr const char* kNoCopy = "a temporary copy cannot be written";

// A folder that other users cannot look into, removed with its content.
class PrivateFolder {
 public:
  PrivateFolder() {
    std::error_code error;
    std::string path = std::filesystem::temp_directory_path(error) / "vorlix-store.XXXXXX";
    if (!error && mkdtemp(path.data()) != nullptr) path_ = path;
  }
  ~PrivateFolder() {
    std::error_code error;
    if (!path_.empty()) std::filesystem::remove_all(path_, error);
  }
  PrivateFolder(const PrivateFolder&) = delete;
  PrivateFolder& operator=(const PrivateFolder&) = delete;

  std::string fileOf(const char* name) const { return path_ + "/" + name; }

  bool write(const char* name, std::span<const uint8_t> bytes) const {
    if (path_.empty()) return false;
    std::ofstream file(fileOf(name), std::ios::binary);
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return file.flush().good();
  }

 private:
  std::string path_;
};

std::string everythingOf(ChildOutput& output) {
  std::string text;
  for (Data chunk = output.read(); !chunk.empty(); chunk = output.read()) text.append(chunk.begin(), chunk.end());
  return text;
}

// The reason in a message like "boot_store: /tmp/store: damaged hive".
std::string reasonIn(std::string message, const std::string& file) {
  const size_t found = message.find(file + ": ");
  if (found != std::string::npos) message.erase(0, found + file.size() + 2);
  while (!message.empty() && message.back() == '\n') message.pop_back();
  return message.empty() ? std::string(kBootStoreProgram) + " ended without a result" : message;
}

// Runs the program with the store as its first file. What it prints ends with kListingEnd after success.
std::optional<std::string> run(const PrivateFolder& folder, const std::vector<std::string>& arguments,
                               std::string& output) {
  const auto program = companionProgram(kBootStoreProgram);
  if (!program) return std::string(kBootStoreProgram) + " is not installed";
  try {
    const auto child = platform().childProcess->create(ChildOutputs::separate, ChildInput::pipe);
    child->launch(*program, arguments);
    output = everythingOf(*child->standardOutput());
    if (output.ends_with(kListingEnd)) return std::nullopt;
    return reasonIn(everythingOf(*child->standardError()), folder.fileOf("store"));
  } catch (const std::system_error& error) {
    return std::string(kBootStoreProgram) + " cannot be started: " + SystemError{error.code().value()}.reason();
  }
}

const StoreObject* find(const std::vector<StoreObject>& objects, const std::string& identifier) {
  const std::string wanted = lowerCase(identifier);
  const auto found = std::find_if(objects.begin(), objects.end(),
                                  [&](const StoreObject& object) { return lowerCase(object.identifier) == wanted; });
  return found == objects.end() ? nullptr : &*found;
}

const StoreElement* find(const StoreObject& object, uint32_t type) {
  const auto found = std::find_if(object.elements.begin(), object.elements.end(),
                                  [&](const StoreElement& element) { return element.type == type; });
  return found == object.elements.end() ? nullptr : &*found;
}

// Whether a store has what an edit was to bring about, if no later one took it back.
bool isDone(const std::vector<StoreObject>& objects, const StoreEdit& edit) {
  const StoreObject* const object = find(objects, edit.object);
  if (edit.kind == StoreEdit::Kind::removeObject) return object == nullptr;
  if (object == nullptr) return edit.kind == StoreEdit::Kind::removeElement;
  if (edit.kind == StoreEdit::Kind::setObject) return object->type == edit.type;
  const StoreElement* const element = find(*object, edit.type);
  if (edit.kind == StoreEdit::Kind::removeElement) return element == nullptr;
  return element != nullptr && element->valueType == edit.valueType && element->data == edit.data;
}

}  // namespace

std::optional<std::string> readStoreObjects(std::span<const uint8_t> store, std::vector<StoreObject>& objects) {
  const PrivateFolder folder;
  if (!folder.write("store", store)) return kNoCopy;
  std::string output;
  if (const auto reason = run(folder, {"list", folder.fileOf("store")}, output)) return reason;
  auto listed = parseStoreListing(output);
  if (!listed) return std::string(kBootStoreProgram) + " printed something else than a list";
  objects = std::move(*listed);
  return std::nullopt;
}

std::optional<std::string> editStore(std::span<const uint8_t> store, const std::vector<StoreEdit>& edits,
                                     std::vector<uint8_t>& result) {
  const PrivateFolder folder;
  const std::string lines = storeEditLines(edits);
  const auto* const text = reinterpret_cast<const uint8_t*>(lines.data());
  if (!folder.write("store", store) || !folder.write("edits", {text, lines.size()})) return kNoCopy;
  std::string output;
  const std::vector<std::string> arguments = {"edit", folder.fileOf("store"), folder.fileOf("edits"),
                                              folder.fileOf("result")};
  if (const auto reason = run(folder, arguments, output)) return reason;
  std::ifstream file(folder.fileOf("result"), std::ios::binary);
  result.assign(std::istreambuf_iterator<char>(file), {});
  std::vector<StoreObject> objects;
  if (const auto reason = readStoreObjects(result, objects)) return "the changed store: " + *reason;
  for (const StoreEdit& edit : edits) {
    if (!isDone(objects, edit)) return "the store cannot be changed: " + edit.object + " stays as it was";
  }
  return std::nullopt;
}

}  // namespace vorlix
