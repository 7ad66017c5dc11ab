// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/platform/LongChange.h>

#include <Vorlix/foundation/Sha256.h>
#include <Vorlix/platform/FilesInPlace.h>
#include <Vorlix/platform/Platform.h>
#include <fcntl.h>
#include <unistd.h>
#include "Journal.h"
#include "JournalFolder.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <sstream>
#include <system_error>
#include <utility>

namespace vorlix {
namespace {

constexpr const char* kKindWords[] = {"data", "zeros", "unused"};

std::string lineOf(const ContentPiece& piece) {
  return std::to_string(piece.offset) + " " + std::to_string(piece.length) + " " +
         kKindWords[static_cast<size_t>(piece.kind)] + (piece.hash.empty() ? "" : " " + piece.hash) + "\n";
}

// A line that a kill left incomplete is none.
bool readLine(const std::string& line, uint64_t expectedOffset, ContentPiece& piece) {
  std::istringstream words(line);
  std::string kind;
  if (!(words >> piece.offset >> piece.length >> kind)) return false;
  const auto* const found = std::find(std::begin(kKindWords), std::end(kKindWords), kind);
  if (found == std::end(kKindWords) || piece.length == 0 || piece.offset != expectedOffset) return false;
  piece.kind = static_cast<ContentPiece::Kind>(found - std::begin(kKindWords));
  if (piece.kind != ContentPiece::Kind::data || !(words >> piece.hash)) return true;
  constexpr size_t kHashDigits = 64;
  return piece.hash.size() == kHashDigits;
}

// The folders of the changes that this process has open.
struct OpenChanges {
  std::mutex mutex;
  std::multiset<std::string> folders;
};

OpenChanges& openChanges() {
  static OpenChanges changes;
  return changes;
}

class JournalledLongChange final : public LongChange {
 public:
  JournalledLongChange(std::unique_ptr<Journal> journal, DiskChange structures)
      : journal_(std::move(journal)), structures_(std::move(structures)), opened_(journal_->folder()) {
    const JournalContent& content = *journal_->manifest().content;
    origin_ = {content.source, content.start, content.device, content.image, content.between};
    const std::string copy = content.backup + "/" + std::filesystem::path(opened_).filename().string();
    if (!content.backup.empty() && isCompleteJournal(copy)) copy_ = copy;
    OpenChanges& changes = openChanges();
    const std::lock_guard<std::mutex> guard(changes.mutex);
    changes.folders.insert(opened_);
  }
  ~JournalledLongChange() override {
    OpenChanges& changes = openChanges();
    const std::lock_guard<std::mutex> guard(changes.mutex);
    changes.folders.erase(changes.folders.find(opened_));
  }
  JournalledLongChange(const JournalledLongChange&) = delete;
  JournalledLongChange& operator=(const JournalledLongChange&) = delete;

  const std::string& folder() const override { return journal_->folder(); }
  const ContentOrigin& origin() const override { return origin_; }
  const DiskChange& structures() const override { return structures_; }
  const std::vector<ContentPiece>& pieces() const override { return pieces_; }

  // Opens the list of pieces, and reads what an interrupted process wrote to it.
  std::optional<ChangeFailure> openPieces() {
    const std::string path = folder() + kJournalPieces;
    std::ifstream file(path, std::ios::binary);
    uint64_t end = 0;
    size_t goodBytes = 0;
    for (std::string line; std::getline(file, line) && !file.eof();) {
      ContentPiece piece;
      if (!readLine(line, end, piece)) break;
      end = piece.offset + piece.length;
      goodBytes += line.size() + 1;
      pieces_.push_back(std::move(piece));
    }
    file.close();
    list_ = Descriptor(open(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    const bool isReady = list_ && ftruncate(list_.get(), static_cast<off_t>(goodBytes)) == 0 &&
                         lseek(list_.get(), 0, SEEK_END) >= 0 && syncJournalFolder(folder());
    return isReady ? std::nullopt : std::optional(journalFailure(path, errno));
  }

  std::optional<ChangeFailure> record(const std::vector<ContentPiece>& pieces) override {
    std::string text;
    for (const ContentPiece& piece : pieces) text += lineOf(piece);
    const bool isSynced = writeJournalBytes(list_.get(), reinterpret_cast<const uint8_t*>(text.data()), text.size()) &&
                          platform().filesInPlace->sync(list_.get()) == 0;
    if (!isSynced) return journalFailure(folder(), errno);
    pieces_.insert(pieces_.end(), pieces.begin(), pieces.end());
    return std::nullopt;
  }

  std::optional<ChangeFailure> restart() override {
    const bool isEmpty = ftruncate(list_.get(), 0) == 0 && lseek(list_.get(), 0, SEEK_SET) == 0 &&
                         platform().filesInPlace->sync(list_.get()) == 0;
    if (!isEmpty) return journalFailure(folder(), errno);
    pieces_.clear();
    return std::nullopt;
  }

  std::optional<ChangeFailure> finish(std::string& kept) override {
    const bool isKept = journal_->manifest().isKept;
    auto failure = journal_->finish();
    kept = isKept && !failure ? journal_->folder() : copy_;
    if (isKept) removeOldBackups();
    return failure;
  }

  ChangeBackup backupOfParts() const override {
    const std::string name = std::filesystem::path(folder()).filename().string();
    const std::string& copies = journal_->manifest().content->backup;
    if (!copies.empty()) return {ChangeBackup::Place::folder, copies, name};
    if (journal_->manifest().isKept) return {ChangeBackup::Place::stateFolder, "", name};
    return {};
  }

  void remove() override {
    journal_->remove();
    if (!copy_.empty()) removeJournal(copy_);
  }

  // The backup in a folder of the user's choice is there from the beginning.
  std::optional<ChangeFailure> copyTo(const std::string& folder) { return journal_->copyTo(folder, copy_); }

 private:
  std::unique_ptr<Journal> journal_;
  DiskChange structures_;
  std::string opened_;  // the folder under which it is known as open
  ContentOrigin origin_;
  std::vector<ContentPiece> pieces_;
  std::string copy_;
  Descriptor list_;
};

}  // namespace

LongChange::~LongChange() = default;

std::optional<ChangeFailure> beginLongChange(const DiskChange& structures, const ContentOrigin& origin,
                                             const ChangeBackup& backup, std::unique_ptr<LongChange>& change) {
  std::unique_ptr<JournalWriter> writer;
  if (auto failure = JournalWriter::begin(structures.title, backup, writer)) return failure;
  if (auto failure = writer->add(structures, true)) return failure;
  const bool isCopied = backup.place == ChangeBackup::Place::folder;
  std::error_code error;
  const std::string copies = isCopied ? std::filesystem::absolute(backup.folder, error).string() : "";
  writer->setContent({origin.source, origin.start, origin.device, origin.image, origin.between, copies});
  std::unique_ptr<Journal> journal;
  if (auto failure = writer->commit(journal)) return failure;
  auto begun = std::make_unique<JournalledLongChange>(std::move(journal), structures);
  auto failure = begun->openPieces();
  if (!failure && isCopied) failure = begun->copyTo(backup.folder);
  if (failure) {
    begun->remove();
    return failure;
  }
  change = std::move(begun);
  return std::nullopt;
}

std::unique_ptr<LongChange> openLongChange(const std::string& folder, std::optional<ChangeFailure>& failure) {
  std::unique_ptr<Journal> journal = Journal::open(folder, failure);
  if (!journal) return nullptr;
  if (!journal->manifest().content) {
    failure = ChangeFailure{folder, "is not the journal of a restore", kNothingWritten};
    return nullptr;
  }
  if (!journal->lock()) {
    failure = ChangeFailure{folder, "another process is working with it", kNothingWritten};
    return nullptr;
  }
  DiskChange structures = {journal->title(), {}};
  for (const JournalDevice& device : journal->devices()) structures.devices.push_back({device.name, nullptr, {}});
  for (const JournalRun& run : journal->runs()) {
    ByteChange& change = structures.devices[run.device].bytes.emplace_back();
    change.offset = run.offset;
    change.reason = run.reason;
    if ((failure = journal->read(run, Journal::Image::before, change.before))) return nullptr;
    if ((failure = journal->read(run, Journal::Image::after, change.after))) return nullptr;
  }
  auto change = std::make_unique<JournalledLongChange>(std::move(journal), std::move(structures));
  if ((failure = change->openPieces())) return nullptr;
  return change;
}

bool isOpenLongChange(const std::string& folder) {
  OpenChanges& changes = openChanges();
  const std::lock_guard<std::mutex> guard(changes.mutex);
  return changes.folders.contains(folder);
}

std::vector<std::string> interruptedLongChanges() {
  std::vector<std::string> found;
  for (const std::string& folder : journalsInStateFolder()) {
    std::optional<ChangeFailure> failure;
    const auto journal = Journal::open(folder, failure);
    if (journal && journal->manifest().content && !isOpenLongChange(folder)) found.push_back(folder);
  }
  return found;
}

}  // namespace vorlix
