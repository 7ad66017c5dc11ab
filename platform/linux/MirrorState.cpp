// SPDX-License-Identifier: Apache-2.0
#include "MirrorState.h"

#include <charconv>
#include <system_error>

namespace vorlix {
namespace {

constexpr const char* kFormat = "vorlix mirror 4";

// A state is a sequence of texts. A zero byte ends each, because file names can contain every other byte.
class FieldWriter {
 public:
  void add(std::string_view text) { bytes_.append(text).push_back('\0'); }
  template <typename Number>
  void addNumber(Number number) {
    add(std::to_string(number));
  }
  void addTree(const MirrorTree& tree) {
    addNumber(tree.size());
    for (const auto& [path, entry] : tree) {
      add(path);
      addNumber(int{entry.isFolder});
      addNumber(entry.size);
      addNumber(entry.modified);
      addNumber(entry.changed);
      addNumber(entry.inode);
    }
  }
  const std::string& bytes() const { return bytes_; }

 private:
  std::string bytes_;
};

class FieldReader {
 public:
  explicit FieldReader(std::string_view bytes) : rest_(bytes) {}

  std::string text() {
    const size_t end = rest_.find('\0');
    if (end == std::string_view::npos) {
      good_ = false;
      return "";
    }
    std::string field(rest_.substr(0, end));
    rest_.remove_prefix(end + 1);
    return field;
  }

  template <typename Number>
  Number number() {
    const std::string field = text();
    Number value = 0;
    const char* const end = field.data() + field.size();
    const auto [stop, error] = std::from_chars(field.data(), end, value);
    if (error != std::errc() || stop != end) good_ = false;
    return value;
  }

  MirrorTree tree() {
    MirrorTree tree;
    for (auto count = number<size_t>(); count > 0 && good_; --count) {
      const std::string path = text();
      MirrorEntry& entry = tree[path];
      entry.isFolder = number<int>() != 0;
      entry.size = number<uint64_t>();
      entry.modified = number<int64_t>();
      entry.changed = number<int64_t>();
      entry.inode = number<uint64_t>();
    }
    return tree;
  }

  bool good() const { return good_; }

 private:
  std::string_view rest_;
  bool good_ = true;
};

}  // namespace

std::string encodeMirrorState(const MirrorState& state) {
  FieldWriter writer;
  writer.add(kFormat);
  writer.add(state.device);
  writer.add(state.folder);
  writer.addNumber(state.made.inode);
  writer.addNumber(state.made.birth);
  writer.addNumber(int{state.readOnly});
  writer.addNumber(int{state.leaving});
  writer.addNumber(state.identity);
  writer.addNumber(state.digest);
  writer.addTree(state.baseline);
  writer.addNumber(int{state.written.has_value()});
  if (state.written) {
    writer.addNumber(state.written->digest);
    writer.addTree(state.written->tree);
  }
  return writer.bytes();
}

std::optional<MirrorState> decodeMirrorState(std::string_view bytes) {
  FieldReader reader(bytes);
  MirrorState state;
  if (reader.text() != kFormat) return std::nullopt;
  state.device = reader.text();
  state.folder = reader.text();
  state.made.inode = reader.number<uint64_t>();
  state.made.birth = reader.number<int64_t>();
  state.readOnly = reader.number<int>() != 0;
  state.leaving = reader.number<int>() != 0;
  state.identity = reader.number<uint64_t>();
  state.digest = reader.number<uint64_t>();
  state.baseline = reader.tree();
  if (reader.number<int>() != 0) {
    MirrorState::Written written;
    written.digest = reader.number<uint64_t>();
    written.tree = reader.tree();
    state.written = std::move(written);
  }
  if (!reader.good()) return std::nullopt;
  return state;
}

}  // namespace vorlix
