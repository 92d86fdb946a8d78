#include "campaign/dmmsgqueue.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/error.h"
#include "platform/file.h"
#include "platform/text.h"

namespace quillo {

namespace {

// Write buffer size: records are written out in chunks of about this much.
constexpr size_t kWriteChunk = 256 * 1024;
// Read buffer size: the file is read in chunks of this much.
constexpr size_t kReadChunk = 1024 * 1024;

// Writes all of `bytes` to `fd`, retrying interrupted and partial writes.
bool WriteAll(int fd, const char* bytes, size_t size) {
  while (size > 0) {
    ssize_t n = ::write(fd, bytes, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// Appends `"text"` to `out`.
void AppendQuoted(std::string& out, std::string_view text) {
  out.push_back('"');
  out.append(text);
  out.push_back('"');
}

// Reads the nine quoted fields of `line` into `fields`. A field is the text
// between its opening quote and the next quote; spaces before the opening
// quote are skipped, and anything between the closing quote and the next
// comma is dropped (so a field that held a quote comes back cut short). What
// follows the ninth field is ignored. False when a field does not start with
// a quote, a quote is not closed, or the line ends before the ninth field.
bool ParseRecord(std::string_view line, std::string_view (&fields)[9]) {
  size_t pos = 0;
  for (int i = 0; i < 9; ++i) {
    while (pos < line.size() && line[pos] == ' ') ++pos;
    if (pos >= line.size() || line[pos] != '"') return false;
    size_t close = line.find('"', pos + 1);
    if (close == std::string_view::npos) return false;
    fields[i] = line.substr(pos + 1, close - pos - 1);
    pos = close + 1;
    if (i < 8) {
      if (pos < line.size() && line[pos] == ',') {  // The usual case: no junk after the quote.
        ++pos;
        continue;
      }
      size_t comma = line.find(',', pos);
      if (comma == std::string_view::npos) return false;
      pos = comma + 1;
    }
  }
  return true;
}

}  // namespace

dmmsgqueue::~dmmsgqueue() {
  if (mode_ == Mode::kWrite && !write_buffer_.empty()) {
    WriteAll(fd_, write_buffer_.data(), write_buffer_.size());
  }
  Release();
}

void dmmsgqueue::RootFolder(std::string folder) {
  if (folder.empty() || (folder.back() != '/' && folder.back() != '\\')) folder.push_back('/');
  root_folder_ = std::move(folder);
}

std::string dmmsgqueue::QueueFilePath() const {
  std::string path;
  if (!Trim(message_queue_file_name_).empty()) {
    path = message_queue_file_name_;
  } else if (Trim(root_folder_).empty()) {
    path = ApplicationFolder() + "/" + std::string(kMessageQueueFile);
  } else {
    path = root_folder_ + std::string(kMessageQueueFile);
  }
  return NativePath(path);
}

bool dmmsgqueue::OpenQueueWrite() {
  Release();
  std::string path = QueueFilePath();
  message_queue_file_name_ = path;
  DeleteFileIfExists(path);
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd < 0) return false;
  // Other writers are kept out while the pass lasts; readers are not.
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
    ::close(fd);
    return false;
  }
  fd_ = fd;
  mode_ = Mode::kWrite;
  write_buffer_.reserve(kWriteChunk + 4096);
  return true;
}

bool dmmsgqueue::OpenQueueRead() {
  Release();
  std::string path = QueueFilePath();
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  fd_ = fd;
  mode_ = Mode::kRead;
  read_buffer_.resize(kReadChunk);
  return true;
}

void dmmsgqueue::WriteMessage(const std::shared_ptr<dmCampaignMsg>& cmsg) {
  if (!cmsg) Raise(err::kObjectNotSet);
  WriteMessage(*cmsg);
}

void dmmsgqueue::WriteMessage(const dmCampaignMsg& cmsg) {
  if (mode_ == Mode::kClosed) Raise(err::kBadFileNameOrNumber);
  if (mode_ == Mode::kRead) Raise(54, "Bad file mode");
  std::string& out = write_buffer_;
  AppendQuoted(out, cmsg.Email());
  out.push_back(',');
  AppendQuoted(out, cmsg.MessageFileName());
  out.push_back(',');
  AppendQuoted(out, cmsg.Account());
  out.push_back(',');
  AppendQuoted(out, cmsg.CampaignItemRecID());
  out.push_back(',');
  AppendQuoted(out, cmsg.CampaignName());
  out.push_back(',');
  AppendQuoted(out, cmsg.CampaignRecID());
  out.push_back(',');
  AppendQuoted(out, cmsg.HistoryRecID());
  out.push_back(',');
  AppendQuoted(out, cmsg.CampaignType());
  out.push_back(',');
  AppendQuoted(out, cmsg.SendDate());
  out.append("\r\n");
  if (out.size() >= kWriteChunk) Flush();
}

void dmmsgqueue::Flush() {
  if (write_buffer_.empty()) return;
  bool ok = WriteAll(fd_, write_buffer_.data(), write_buffer_.size());
  write_buffer_.clear();
  if (!ok)
    Raise(err::kPathFileAccessError,
          std::string("Cannot write the queue file: ") + std::strerror(errno));
}

bool dmmsgqueue::NextLine(std::string_view* line) {
  size_t scanned = read_begin_;  // Bytes before this hold no line feed.
  for (;;) {
    const char* start = read_buffer_.data() + scanned;
    const void* nl = std::memchr(start, '\n', read_end_ - scanned);
    if (nl != nullptr) {
      size_t end = static_cast<size_t>(static_cast<const char*>(nl) - read_buffer_.data());
      if (end - read_begin_ > kMaxRecordBytes) return false;
      size_t len = end - read_begin_;
      if (len > 0 && read_buffer_[end - 1] == '\r') --len;
      *line = std::string_view(read_buffer_.data() + read_begin_, len);
      read_begin_ = end + 1;
      return true;
    }
    scanned = read_end_;
    if (read_end_ - read_begin_ > kMaxRecordBytes) return false;
    if (read_eof_) {
      // The last record may end at the end of the file without a line end.
      if (read_end_ == read_begin_) return false;
      size_t len = read_end_ - read_begin_;
      if (read_buffer_[read_end_ - 1] == '\r') --len;
      *line = std::string_view(read_buffer_.data() + read_begin_, len);
      read_begin_ = read_end_;
      return true;
    }
    // Move the unconsumed bytes to the front and make room for another chunk.
    if (read_begin_ > 0) {
      std::memmove(read_buffer_.data(), read_buffer_.data() + read_begin_, read_end_ - read_begin_);
      read_end_ -= read_begin_;
      scanned -= read_begin_;
      read_begin_ = 0;
    }
    if (read_buffer_.size() - read_end_ < kReadChunk) read_buffer_.resize(read_end_ + kReadChunk);
    ssize_t n;
    do {
      n = ::read(fd_, read_buffer_.data() + read_end_, read_buffer_.size() - read_end_);
    } while (n < 0 && errno == EINTR);
    if (n < 0) return false;
    if (n == 0) read_eof_ = true;
    read_end_ += static_cast<size_t>(n);
  }
}

std::shared_ptr<dmCampaignMsg> dmmsgqueue::ReadMessage() {
  if (mode_ != Mode::kRead || read_failed_) return nullptr;
  std::string_view line;
  std::string_view f[9];
  if (!NextLine(&line) || !ParseRecord(line, f)) {
    read_failed_ = true;
    return nullptr;
  }
  auto msg = std::make_shared<dmCampaignMsg>();
  msg->Email(UniqueText(0, f[0]));
  msg->Account(UniqueText(1, f[2]));
  msg->ShareCommonTexts(CommonPrototype(f));
  return msg;
}

namespace {
// Queue positions of the seven common fields, in the message's common order.
constexpr int kCommonAt[dmCampaignMsg::kCommonFields] = {7, 6, 5, 3, 1, 8, 4};
}  // namespace

const dmCampaignMsg& dmmsgqueue::CommonPrototype(const std::string_view (&fields)[9]) {
  auto matches = [&fields](const Prototype& p) {
    if (!p.msg) return false;
    for (int at : kCommonAt) {
      if (p.text[at] != fields[at]) return false;
    }
    return true;
  };
  if (matches(prototypes_[last_prototype_])) return *prototypes_[last_prototype_].msg;
  for (unsigned i = 0; i < kRecent; ++i) {
    if (i != last_prototype_ && matches(prototypes_[i])) {
      last_prototype_ = i;
      return *prototypes_[i].msg;
    }
  }
  last_prototype_ = next_prototype_++ % kRecent;
  Prototype& p = prototypes_[last_prototype_];
  p.msg = std::make_unique<dmCampaignMsg>();
  for (int k = 0; k < dmCampaignMsg::kCommonFields; ++k) {
    const int at = kCommonAt[k];
    const SharedText& text = RecentText(at, fields[at]);
    p.msg->SetCommon(static_cast<dmCampaignMsg::CommonField>(k), text);
    p.text[at] = text.str();
  }
  return *p.msg;
}

SharedText dmmsgqueue::UniqueText(int slot, std::string_view text) {
  SharedText& last = last_unique_[slot];
  if (!last.Equals(text)) last = SharedText::Copy(text);
  return last;
}

const SharedText& dmmsgqueue::RecentText(int field, std::string_view text) {
  for (const SharedText& recent : recent_[field]) {
    if (recent.Equals(text)) return recent;
  }
  SharedText& slot = recent_[field][next_recent_[field]++ % kRecent];
  slot = SharedText::Copy(text);
  return slot;
}

std::int32_t dmmsgqueue::Count() {
  std::int32_t count = 0;
  if (!OpenQueueRead()) return 0;
  while (ReadMessage()) ++count;
  CloseQueue();
  return count;
}

void dmmsgqueue::CloseQueue() {
  if (mode_ == Mode::kWrite) {
    try {
      Flush();
    } catch (...) {
      Release();
      throw;
    }
  }
  Release();
}

void dmmsgqueue::Release() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  mode_ = Mode::kClosed;
  write_buffer_.clear();
  std::vector<char>().swap(read_buffer_);
  read_begin_ = read_end_ = 0;
  read_eof_ = false;
  read_failed_ = false;
  for (auto& field : recent_) {
    for (SharedText& text : field) text = SharedText();
  }
  for (auto& prototype : prototypes_) prototype = Prototype();
  last_prototype_ = next_prototype_ = 0;
  for (SharedText& text : last_unique_) text = SharedText();
}

const MemberTable& dmmsgqueue::Members() const {
  static const MemberTable table =
      MemberTable::Builder<dmmsgqueue>("dmmsgqueue")
          .Put("RootFolder", [](dmmsgqueue& q, std::string v) { q.RootFolder(std::move(v)); })
          .Put("MessageQueueFileName",
               [](dmmsgqueue& q, std::string v) { q.MessageQueueFileName(std::move(v)); })
          .Get("MessageQueueFileName", [](dmmsgqueue& q) { return q.MessageQueueFileName(); })
          .Method("WriteMessage",
                  [](dmmsgqueue& q, std::shared_ptr<dmCampaignMsg> m) { q.WriteMessage(m); })
          .Method("ReadMessage", [](dmmsgqueue& q) { return q.ReadMessage(); })
          .Method("Count", [](dmmsgqueue& q) { return q.Count(); })
          .Method("OpenQueueRead", [](dmmsgqueue& q) { return q.OpenQueueRead(); })
          .Method("OpenQueueWrite", [](dmmsgqueue& q) { return q.OpenQueueWrite(); })
          .Method("CloseQueue", [](dmmsgqueue& q) { q.CloseQueue(); })
          .Build();
  return table;
}

QUILLO_REGISTER_CLASS(dmmsgqueue, Creatable::kPublic);

}  // namespace quillo
