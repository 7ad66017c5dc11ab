// SPDX-License-Identifier: Apache-2.0
#include "Volume.h"

#include <algorithm>
#include <array>

#include "Failure.h"

namespace vorlix::ntfs {
namespace {

constexpr uint64_t kNumberMask = 0xFFFFFFFFFFFF;  // of a file reference; the rest is a sequence number
constexpr uint64_t kFirstOrdinaryNumber = 16;     // those before are the volume's own tables, and its root
constexpr int kMostItems = 1 << 20;
constexpr size_t kPiece = size_t{1} << 20;
constexpr size_t kLongestName = 255 * 3 + 1;  // 255 units of UTF-16

constexpr uint32_t kReparsePoint = 0xC0;              // an attribute's type
constexpr uint32_t kCompressedBySystem = 0x80000017;  // its tag for files that the system compressed
constexpr uint32_t kEncrypted = 0x4000;               // a file's attribute

[[noreturn]] void damaged(const std::string& what) {
  throw Failure("damaged NTFS: " + what + " cannot be read");
}

}  // namespace

Volume::Volume(int device, uint64_t offset, uint64_t size) : bytes_(device, offset, size) {
  LibraryError error;
  if (libfsntfs_volume_initialize(&volume_, error.place()) != 1) throw Failure("not enough memory");
  uint32_t index = 0;
  size32_t entry = 0;
  size32_t cluster = 0;
  const bool isOpen =
      libfsntfs_volume_open_file_io_handle(volume_, bytes_.handle(), LIBFSNTFS_OPEN_READ, error.place()) == 1 &&
      libfsntfs_volume_get_index_entry_size(volume_, &entry, error.place()) == 1 &&
      libfsntfs_volume_get_cluster_block_size(volume_, &cluster, error.place()) == 1;
  index = entry;
  if (!isOpen) {
    libfsntfs_volume_free(&volume_, nullptr);
    damaged("its boot sector or master file table");
  }
  // The library takes the numbers of index blocks for those of clusters, and leaves out names where they are not.
  if (index != cluster) {
    libfsntfs_volume_free(&volume_, nullptr);
    throw Failure("its clusters have " + std::to_string(cluster) +
                  " bytes; without a mount only volumes with clusters of " + std::to_string(index) +
                  " bytes can be read");
  }
}

Volume::~Volume() {
  libfsntfs_volume_free(&volume_, nullptr);
}

int Volume::childCount(libfsntfs_file_entry_t* folder) {
  LibraryError error;
  int count = 0;
  if (libfsntfs_file_entry_get_number_of_sub_file_entries(folder, &count, error.place()) != 1 || count < 0) {
    damaged("a folder");
  }
  if (count > kMostItems) throw Failure("a folder has more than " + std::to_string(kMostItems) + " items");
  return count;
}

Volume::Entry Volume::childAt(libfsntfs_file_entry_t* folder, int index) {
  LibraryError error;
  libfsntfs_file_entry_t* found = nullptr;
  const int result = libfsntfs_file_entry_get_sub_file_entry_by_index(folder, index, &found, error.place());
  Entry entry(found);
  if (result != 1 || !entry) damaged("an item of a folder");
  return entry;
}

std::string Volume::nameOf(libfsntfs_file_entry_t* entry) {
  LibraryError error;
  std::array<uint8_t, kLongestName> name = {};
  size_t size = 0;  // with the zero at the end
  // A name that is no valid UTF-16 has no UTF-8, and nobody can ask for it.
  if (libfsntfs_file_entry_get_utf8_name_size(entry, &size, error.place()) != 1 || size == 0 || size > name.size() ||
      libfsntfs_file_entry_get_utf8_name(entry, name.data(), size, error.place()) != 1) {
    return "";
  }
  return {name.begin(), name.begin() + static_cast<std::ptrdiff_t>(size - 1)};
}

uint64_t Volume::numberOf(libfsntfs_file_entry_t* entry) {
  LibraryError error;
  uint64_t reference = 0;
  if (libfsntfs_file_entry_get_file_reference(entry, &reference, error.place()) != 1) damaged("a file's record");
  return reference & kNumberMask;
}

bool Volume::isFolder(libfsntfs_file_entry_t* entry) {
  LibraryError error;
  const int result = libfsntfs_file_entry_has_directory_entries_index(entry, error.place());
  if (result < 0) damaged("a file's record");
  return result == 1;
}

uint64_t Volume::sizeOf(libfsntfs_file_entry_t* entry) {
  LibraryError error;
  const int hasContent = libfsntfs_file_entry_has_default_data_stream(entry, error.place());
  if (hasContent < 0) damaged("a file's record");
  size64_t size = 0;
  if (hasContent == 1 && libfsntfs_file_entry_get_size(entry, &size, error.place()) != 1) damaged("a file's record");
  return size;
}

// By the folder's own search, whose result may be another spelling, or else among all items.
Volume::Entry Volume::child(libfsntfs_file_entry_t* folder, std::string_view name) {
  LibraryError error;
  libfsntfs_file_entry_t* found = nullptr;
  const auto* const text = reinterpret_cast<const uint8_t*>(name.data());
  const int result =
      libfsntfs_file_entry_get_sub_file_entry_by_utf8_name(folder, text, name.size(), &found, error.place());
  Entry entry(found);
  if (result == 1 && entry && nameOf(entry.get()) == name) return entry;
  const int count = childCount(folder);
  for (int i = 0; i < count; ++i) {
    entry = childAt(folder, i);
    if (nameOf(entry.get()) == name) return entry;
  }
  throw Failure("no such file or folder");
}

// Entries from the root to the item: the library's entries may use what belongs to their folder's.
std::vector<Volume::Entry> Volume::entriesOn(const std::string& path) const {
  LibraryError error;
  libfsntfs_file_entry_t* root = nullptr;
  const int result = libfsntfs_volume_get_root_directory(volume_, &root, error.place());
  std::vector<Entry> entries;
  entries.emplace_back(root);
  if (result != 1 || root == nullptr || !isFolder(root)) damaged("its root folder");
  for (std::string_view rest = path; !rest.empty();) {
    rest.remove_prefix(1);  // "/"
    const std::string_view name = rest.substr(0, rest.find('/'));
    rest.remove_prefix(name.size());
    requireNoLink(entries.back().get());
    if (!isFolder(entries.back().get())) throw Failure("no such folder");
    entries.push_back(child(entries.back().get(), name));
  }
  return entries;
}

// Bytes that only another driver could interpret must not pass for the file's.
void Volume::requireNoLink(libfsntfs_file_entry_t* entry) {
  LibraryError error;
  if (libfsntfs_file_entry_is_corrupted(entry, error.place()) != 0) damaged("a file's record");
  int count = 0;
  if (libfsntfs_file_entry_get_number_of_attributes(entry, &count, error.place()) != 1) damaged("a file's record");
  for (int i = 0; i < count; ++i) {
    libfsntfs_attribute_t* attribute = nullptr;
    uint32_t type = 0;
    uint32_t tag = 0;
    bool isRead = libfsntfs_file_entry_get_attribute_by_index(entry, i, &attribute, error.place()) == 1 &&
                  libfsntfs_attribute_get_type(attribute, &type, error.place()) == 1;
    if (isRead && type == kReparsePoint) {
      isRead = libfsntfs_reparse_point_attribute_get_tag(attribute, &tag, error.place()) == 1;
    }
    libfsntfs_attribute_free(&attribute, nullptr);
    if (!isRead) damaged("a file's record");
    if (tag != 0 && tag != kCompressedBySystem) throw Failure("a link, or kept elsewhere; only Windows follows it");
  }
}

void Volume::requireReadable(libfsntfs_file_entry_t* entry) {
  requireNoLink(entry);
  if (isFolder(entry)) throw Failure("a folder");
  LibraryError error;
  uint32_t attributes = 0;
  if (libfsntfs_file_entry_get_file_attribute_flags(entry, &attributes, error.place()) != 1) damaged("a file's record");
  if ((attributes & kEncrypted) != 0) throw Failure("encrypted");
}

void Volume::list(const std::string& folder, const std::function<void(const Item&)>& receive) const {
  const std::vector<Entry> entries = entriesOn(folder);
  libfsntfs_file_entry_t* const own = entries.back().get();
  requireNoLink(own);
  if (!isFolder(own)) throw Failure("not a folder");
  const int count = childCount(own);
  for (int i = 0; i < count; ++i) {
    const Entry entry = childAt(own, i);
    Item item;
    item.name = nameOf(entry.get());
    const bool isOwnTable = folder.empty() && numberOf(entry.get()) < kFirstOrdinaryNumber;
    const bool isOrdinary = !item.name.empty() && item.name != "." && item.name != ".." &&
                            item.name.find_first_of(std::string_view("/\0", 2)) == std::string::npos;
    if (isOwnTable || !isOrdinary) continue;
    item.isFolder = isFolder(entry.get());
    item.size = item.isFolder ? 0 : sizeOf(entry.get());
    receive(item);
  }
}

void Volume::read(const std::string& file, uint64_t count,
                  const std::function<void(const uint8_t* bytes, size_t count)>& receive) const {
  const std::vector<Entry> entries = entriesOn(file);
  libfsntfs_file_entry_t* const own = entries.back().get();
  requireReadable(own);
  const uint64_t end = std::min(count, sizeOf(own));
  std::vector<uint8_t> piece(kPiece);
  for (uint64_t offset = 0; offset < end;) {
    LibraryError error;
    const auto wanted = static_cast<size_t>(std::min<uint64_t>(piece.size(), end - offset));
    const ssize_t got = libfsntfs_file_entry_read_buffer_at_offset(own, piece.data(), wanted,
                                                                   static_cast<off64_t>(offset), error.place());
    if (got <= 0 || static_cast<size_t>(got) > wanted) damaged("the file");
    receive(piece.data(), static_cast<size_t>(got));
    offset += static_cast<uint64_t>(got);
  }
}

}  // namespace vorlix::ntfs
