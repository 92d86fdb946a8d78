// dmmsgqueue: the message queue file that hands campaign messages to a sender.
//
// A queue object writes dmCampaignMsg records to a plain text file and reads
// them back one by one. One record is one line: the nine fields, each between
// double quotes, separated by commas, ended by CR LF, in this order: Email,
// MessageFileName, Account, CampaignItemRecID, CampaignName, CampaignRecID,
// HistoryRecID, CampaignType, SendDate. Fields are written as they are, with
// no escaping, so a field holding a double quote does not read back intact.
// The file holds one writing pass: OpenQueueWrite deletes what was there.
//
// Where the file lives is decided at each open: MessageQueueFileName when it
// is not blank; else "~mqueue.txt" in RootFolder when one was assigned; else
// "~mqueue.txt" in the application's folder.
//
//   dmmsgqueue queue;
//   queue.RootFolder("/var/spool/quillo");
//   queue.OpenQueueWrite();                 // /var/spool/quillo/~mqueue.txt
//   queue.WriteMessage(msg);
//   queue.CloseQueue();
//   queue.OpenQueueRead();
//   while (auto m = queue.ReadMessage()) Send(*m);
//   queue.CloseQueue();
//
// The file stays open, buffered, between an open and CloseQueue. Reading is
// forgiving of damaged files: a record that cannot be read (a blank line, a
// missing or unterminated quote, fewer than nine fields, a record longer than
// kMaxRecordBytes) ends the reading pass, and ReadMessage returns none from
// then on. Opens report failure as false; a write with no file open for
// writing raises error 52 (54 when the file is open for reading) and a failed
// write raises 75. Thread-safety: none; one queue object belongs to one thread.
#ifndef QUILLO_CAMPAIGN_DMMSGQUEUE_H_
#define QUILLO_CAMPAIGN_DMMSGQUEUE_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "campaign/dm_campaign_msg.h"
#include "platform/object.h"

namespace quillo {

// The queue file's name inside its folder.
inline constexpr std::string_view kMessageQueueFile = "~mqueue.txt";

// The message queue file.
class dmmsgqueue : public Object {
 public:
  // Records longer than this are treated as unreadable, which bounds the
  // memory a damaged file can take.
  static constexpr size_t kMaxRecordBytes = 64u << 20;

  dmmsgqueue() = default;
  // Closes the file if one is open (a failure to flush is not reported here).
  ~dmmsgqueue() override;

  const MemberTable& Members() const override;

  // The folder holding the queue file; a trailing "/" is added unless the
  // text already ends with a separator ("/" or "\").
  void RootFolder(std::string folder);
  // The full path of the queue file: "" by default; after OpenQueueWrite, the
  // path that was opened, which later opens then use.
  const std::string& MessageQueueFileName() const { return message_queue_file_name_; }
  void MessageQueueFileName(std::string path) { message_queue_file_name_ = std::move(path); }

  // Appends one record for `cmsg` to the file open for writing. Raises 91
  // when `cmsg` is null, 52 when no file is open, 54 when it is open for
  // reading, 75 when the write fails.
  void WriteMessage(const std::shared_ptr<dmCampaignMsg>& cmsg);
  void WriteMessage(const dmCampaignMsg& cmsg);

  // The next message of the file open for reading, or null at the end of the
  // file, when no file is open for reading, or from the first record that
  // cannot be read on. Never throws for the file's content.
  std::shared_ptr<dmCampaignMsg> ReadMessage();

  // The number of records in the queue file: opens it for reading, reads it
  // through and closes it (so any file this object held open is closed). A
  // file that cannot be opened counts 0.
  std::int32_t Count();

  // Opens the queue file for reading; false when it cannot be opened. Any
  // file this object held open is closed first.
  bool OpenQueueRead();

  // Resolves the path, stores it in MessageQueueFileName, deletes any file
  // there and creates it empty for writing, locked against other writers.
  // False when it cannot be opened. Any file held open is closed first.
  bool OpenQueueWrite();

  // Writes out what is buffered and closes the file; nothing when none is
  // open. Raises 75 when the buffered records cannot be written.
  void CloseQueue();

  // The path the next open would use (MessageQueueFileName, RootFolder or the
  // application folder). Not part of the dispatch interface.
  std::string QueueFilePath() const;

 private:
  enum class Mode { kClosed, kWrite, kRead };

  // Writes the whole write buffer to the file; raises 75 on failure.
  void Flush();
  // Closes the descriptor and forgets the buffers without flushing.
  void Release();
  // Finds the next line in the read buffer, reading more as needed. Sets
  // *line to it (without its line end) and returns true; false at the end of
  // the file, on a read error or when the line exceeds kMaxRecordBytes.
  bool NextLine(std::string_view* line);

  std::string root_folder_;              // As assigned, with its trailing "/".
  std::string message_queue_file_name_;  // The configured or last opened path.
  int fd_ = -1;                          // The open file, or -1.
  Mode mode_ = Mode::kClosed;            // What the open file is for.
  std::string write_buffer_;             // Records not yet written out.
  std::vector<char> read_buffer_;        // Bytes read and not yet consumed.
  size_t read_begin_ = 0;                // First unconsumed byte in read_buffer_.
  size_t read_end_ = 0;                  // One past the last valid byte.
  bool read_eof_ = false;                // The file has no more bytes.
  bool read_failed_ = false;             // An unreadable record ended the pass.
  // The seven fields that repeat from record to record (campaign, item, run,
  // date, ...) are shared between the messages read: each common text with
  // one of the last few distinct values of its field, and the block of seven
  // with one of the last few blocks (the one used last is tried first).
  // Email and Account, unique per record in a run, are shared only with the
  // record just before.
  static constexpr unsigned kRecent = 4;
  struct Prototype {
    std::unique_ptr<dmCampaignMsg> msg;  // Holds the block the messages share.
    std::string_view text[9];            // Its texts by queue field (common ones only).
  };
  const SharedText& RecentText(int field, std::string_view text);
  const dmCampaignMsg& CommonPrototype(const std::string_view (&fields)[9]);
  SharedText UniqueText(int slot, std::string_view text);
  SharedText recent_[9][kRecent];
  unsigned next_recent_[9] = {};
  Prototype prototypes_[kRecent];
  unsigned last_prototype_ = 0;  // The one the last record used.
  unsigned next_prototype_ = 0;  // The slot to fill next.
  SharedText last_unique_[2];    // The last Email and Account read.
};

}  // namespace quillo

#endif  // QUILLO_CAMPAIGN_DMMSGQUEUE_H_
