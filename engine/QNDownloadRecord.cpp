#include "engine/QNDownloadRecord.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <utility>

#include "engine/QNDownloadHold.h"
#include "engine/QNEngineLog.h"
#include "engine/QNHash.h"
#include "engine/QNRecordLine.h"
#include "platform/BootIdentifier.h"
#include "platform/ContentHash.h"
#include "platform/host/QNLog.h"

using platform::FileManager;

namespace {

constexpr unsigned kMode = 0600;
constexpr int64_t kLongestRecord = int64_t{4} << 30;
constexpr size_t kLongestValidator = 512;
constexpr size_t kUsualLine = 128;
constexpr size_t kFewLines = 64;  // are not worth writing anew

}  // namespace

// The last line of each place, by the hash of the place.
class QNDownloadRecord::Table {
 public:
  struct Entry {
    std::string_view place;
    std::string_view validator;  // escaped
    std::string_view address;    // escaped
    int64_t length = -1;         // -1: gone
    std::optional<uint64_t> hash;
    uint64_t offset = 0;  // of its line
  };

  explicit Table(size_t expected) {
    entries_.reserve(expected);
    slots_.resize(sizeFor(expected), kEmpty);
  }

  // `place` is escaped, as in the line.
  void put(std::string_view place, const QNRecordLine& line, uint64_t offset) {
    Entry entry{place, line.validator, line.address, -1, line.hash, offset};
    if (line.kind == QNRecordLine::Kind::File) entry.length = static_cast<int64_t>(line.number);
    const bool isEscaped = place.find('\\') != std::string_view::npos;
    if (isEscaped) entry.place = unescaped_.emplace_back(QNUnescaped(place));
    uint32_t& slot = slotOf(entry.place);
    if (slot != kEmpty) {
      entry.place = entries_[slot].place;
      entries_[slot] = entry;
      return;
    }
    slot = static_cast<uint32_t>(entries_.size());
    entries_.push_back(entry);
    if (entries_.size() * 2 > slots_.size()) grow();
  }

  const Entry* find(std::string_view place) const {
    const uint32_t slot = const_cast<Table*>(this)->slotOf(place);
    return slot == kEmpty ? nullptr : &entries_[slot];
  }

  std::vector<Entry>& entries() { return entries_; }

 private:
  static constexpr uint32_t kEmpty = std::numeric_limits<uint32_t>::max();

  static size_t sizeFor(size_t count) {
    size_t size = 16;
    while (size < count * 2)
      size *= 2;
    return size;
  }

  uint32_t& slotOf(std::string_view place) {
    const size_t mask = slots_.size() - 1;
    size_t at = QNHash64(place) & mask;
    while (slots_[at] != kEmpty && entries_[slots_[at]].place != place)
      at = (at + 1) & mask;
    return slots_[at];
  }

  void grow() {
    slots_.assign(slots_.size() * 2, kEmpty);
    for (uint32_t i = 0; i < entries_.size(); ++i)
      slotOf(entries_[i].place) = i;
  }

  std::vector<Entry> entries_;
  std::vector<uint32_t> slots_;
  std::deque<std::string> unescaped_;
};

QNDownloadRecord::QNDownloadRecord(const std::string& directory, const std::string& bootIdentifier)
    : directory_(directory),
      path_(FileManager::pathByAppending(directory, QNDownloadRecordFileName)),
      boot_(bootIdentifier) {}

QNDownloadRecord::~QNDownloadRecord() = default;

std::shared_ptr<QNDownloadRecord> QNDownloadRecord::load(const std::string& directory,
                                                         const std::string& bootIdentifier) {
  std::shared_ptr<QNDownloadRecord> record(new QNDownloadRecord(directory, bootIdentifier));
  record->read();
  if (record->isThere_ && record->settle()) record->rewriteIfStale();
  return record;
}

std::shared_ptr<QNDownloadRecord> QNDownloadRecord::readAgain() const {
  std::shared_ptr<QNDownloadRecord> record(new QNDownloadRecord(directory_, boot_));
  record->read();
  return record;
}

std::string QNDownloadRecord::stateOnDisk() const {
  auto& files = FileManager::defaultManager();
  const auto identity = files.identityOf(path_);
  const auto size = files.sizeOfFile(path_);
  if (!identity || !size) return {};
  return std::to_string(identity->device) + ":" + std::to_string(identity->inode) + ":" +
         std::to_string(*size);
}

bool QNDownloadRecord::hasChanged() const {
  return readAs_.empty() || stateOnDisk() != readAs_;
}

void QNDownloadRecord::read() {
  readAs_ = stateOnDisk();
  platform::ErrorPtr error;
  text_ = FileManager::defaultManager().contentsAtPath(path_, kLongestRecord, &error);
  if (!text_) {
    if (error && error->code() != ENOENT && error->code() != ENOTDIR) readError_ = error;
    return;
  }
  if (static_cast<int64_t>(text_->size()) == kLongestRecord) {
    readError_ = platform::Error::errorWithErrno(EFBIG, "Cannot read", path_);
    return;
  }
  isThere_ = true;
  readLines({reinterpret_cast<const char*>(text_->data()), text_->size()});
}

void QNDownloadRecord::readLines(std::string_view text) {
  using Kind = QNRecordLine::Kind;
  table_ = std::make_unique<Table>(text.size() / kUsualLine);
  size_t at = 0;
  for (size_t end = 0; (end = text.find('\n', at)) != std::string_view::npos; at = end + 1) {
    const QNRecordLine line = QNReadRecordLine(text.substr(at, end - at));
    const bool isFile =
        line.kind == Kind::File && line.number <= uint64_t{std::numeric_limits<int64_t>::max()};
    if (isFile || line.kind == Kind::Gone) {
      table_->put(line.place, line, at);
      ++lines_;
    } else if (line.kind == Kind::Mark) {
      markedBoot_ = QNUnescaped(line.boot);
      markedEnd_ = std::min<uint64_t>(line.number, at);
    } else if (line.kind == Kind::Header && at == 0 && line.number > version) {
      isThere_ = false;
      isNewer_ = true;
      forgetFiles();
      return;
    }
  }
  endsInside_ = at < text.size();
}

bool QNDownloadRecord::isWhole(std::string_view place, int64_t length,
                               std::optional<uint64_t> hash) const {
  const std::string path = FileManager::pathByAppending(directory_, place);
  // Of another length it counts as absent anyway, and so does what was adopted and never hashed.
  if (!hash || FileManager::defaultManager().sizeOfFile(path) != length) return true;
  return platform::ContentHash::ofFile(path) == hash;
}

// What no mark covers is brought to the disk, so that a download that is found whole is whole also
// when the power goes after that.
bool QNDownloadRecord::settle() {
  const bool sameBoot = platform::isSameBoot(markedBoot_, boot_);
  bool any = false;
  std::vector<Table::Entry*> lost;
  for (Table::Entry& entry : table_->entries()) {
    if (entry.offset < markedEnd_ || entry.length < 0) continue;
    any = true;
    if (sameBoot || isWhole(entry.place, entry.length, entry.hash)) continue;
    entry.length = -1;
    lost.push_back(&entry);
  }
  if (!any) return true;
  const FlushPoint point = flushPoint();
  const auto error = point.file ? point.file->flushFileSystem() : point.error;
  // Where nothing can be written, as on a medium that is only read, nothing waits to be written.
  const bool isReadOnly = error && (error->code() == EROFS || error->code() == EACCES);
  for (Table::Entry& entry : table_->entries()) {
    if (!error || isReadOnly || entry.offset < markedEnd_ || entry.length < 0) continue;
    entry.length = -1;
    lost.push_back(&entry);
  }
  for (Table::Entry* const entry : lost) {
    QNEngineLog(QNLogLevelError, "Error: Stored file did not outlive the last launch: %@",
                std::string(entry->place));
    unwritten_ += QNRecordGone(entry->place);
  }
  if (!error) mark(point);
  return !error;
}

void QNDownloadRecord::rewriteIfStale() {
  const auto isLive = [](const Table::Entry& entry) { return entry.length >= 0; };
  const auto& entries = table_->entries();
  const auto live = static_cast<size_t>(std::count_if(entries.begin(), entries.end(), isLive));
  if (lines_ <= 2 * live + kFewLines) return;
  const auto attempt = QNDownloadHold::attempt(directory_);
  const auto readSize = static_cast<int64_t>(file_ ? file_->size() : text_->size());
  auto& files = FileManager::defaultManager();
  // Whoever had it until now may have written to it.
  if (!attempt.hold || files.sizeOfFile(path_) != readSize) return;
  std::string text = QNRecordHeader(version);
  for (const Table::Entry& entry : entries) {
    if (isLive(entry))
      text += QNRecordFile(entry.place, static_cast<uint64_t>(entry.length), entry.hash,
                           QNUnescaped(entry.validator), QNUnescaped(entry.address));
  }
  text += QNRecordMark(boot_, text.size());
  if (files.writeAtomically(path_, text.data(), text.size(), kMode)) return;
  file_.reset();
  unwritten_.clear();
  endsInside_ = false;
  markedBoot_ = boot_;
  readAs_ = stateOnDisk();
}

bool QNDownloadRecord::trusts(std::string_view place, int64_t size) const {
  if (!isThere_) return true;
  const Table::Entry* const entry = table_ ? table_->find(place) : nullptr;
  return entry && entry->length == size;
}

std::optional<std::string> QNDownloadRecord::addressAt(std::string_view place) const {
  const Table::Entry* const entry = table_ ? table_->find(place) : nullptr;
  if (!entry || entry->length < 0 || entry->address.empty()) return std::nullopt;
  return QNUnescaped(entry->address);
}

void QNDownloadRecord::forgetFiles() {
  table_.reset();
  text_.reset();
}

// --- Writing ------------------------------------------------------------------------------------

platform::ErrorPtr QNDownloadRecord::make(const std::vector<Adopted>& files) {
  if (isThere_ || isNewer_) return nullptr;
  std::string text = QNRecordHeader(version);
  text += QNRecordMark(boot_, text.size());
  for (const Adopted& file : files)
    text += QNRecordFile(file.place, static_cast<uint64_t>(file.length), std::nullopt, "",
                         file.address);
  if (auto error =
          FileManager::defaultManager().writeAtomically(path_, text.data(), text.size(), kMode))
    return error;
  isThere_ = true;
  markedBoot_ = boot_;
  return nullptr;
}

platform::ErrorPtr QNDownloadRecord::open() {
  if (file_) return nullptr;
  platform::ErrorPtr error;
  file_ = FileManager::defaultManager().openForAppending(path_, kMode, &error);
  return file_ ? nullptr : error;
}

platform::ErrorPtr QNDownloadRecord::write(std::string_view lines) {
  if (lines.empty()) return nullptr;
  auto error = std::exchange(endsInside_, false) ? file_->append("\n" + std::string(lines))
                                                 : file_->append(lines);
  if (error) endsInside_ = true;
  return error;
}

platform::ErrorPtr QNDownloadRecord::append(std::string_view lines) {
  if (isNewer_) return nullptr;
  if (auto error = open()) return error;
  if (!unwritten_.empty()) {
    if (auto error = write(unwritten_)) return error;
    unwritten_.clear();
  }
  // From here on the lines are of this boot.
  if (markedBoot_ != boot_) {
    if (auto error = write(QNRecordMark(boot_, static_cast<uint64_t>(file_->size())))) return error;
    markedBoot_ = boot_;
  }
  return write(lines);
}

platform::ErrorPtr QNDownloadRecord::add(std::string_view place, const QNStoredFile& file) {
  const std::string_view validator =
      file.validator.size() > kLongestValidator ? std::string_view() : file.validator;
  return append(
      QNRecordFile(place, static_cast<uint64_t>(file.length), file.hash, validator, file.address));
}

void QNDownloadRecord::remove(const std::vector<std::string>& places) {
  if (!isThere_ || places.empty()) return;
  for (const std::string& place : places)
    unwritten_ += QNRecordGone(place);
  if (const auto error = append({})) {
    QNEngineLog(QNLogLevelError, "Error: Failed to record what was removed: %@",
                error->localizedDescription());
  }
}

QNDownloadRecord::FlushPoint QNDownloadRecord::flushPoint() {
  FlushPoint point;
  point.error = open();
  point.file = file_;
  if (file_) point.end = static_cast<uint64_t>(file_->size());
  return point;
}

void QNDownloadRecord::mark(const FlushPoint& point) {
  if (isNewer_ || !point.file) return;
  if (!file_) file_ = point.file;  // read again since
  // Without it the next launch after a loss of power reads more than it would have to.
  auto error = unwritten_.empty() ? nullptr : write(unwritten_);
  if (!error) {
    unwritten_.clear();
    error = write(QNRecordMark(boot_, point.end));
  }
  if (!error) {
    markedBoot_ = boot_;
    return;
  }
  QNEngineLog(QNLogLevelError, "Error: Failed to mark what is on the disk: %@",
              error->localizedDescription());
}
