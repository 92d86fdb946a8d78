// dmMessage: one e-mail template, its personalisation and its hand-over to
// the SMTP client.
//
// A template is a text file (or a text set through Message) that may open
// with a header block between the markers "[HEADER]" and "[/HEADER]"; the rest
// is the body. Each header line is "Name: Value" and lands in one of four
// lists: "Replace" lines name the personalisation variables, "Attach" and
// "Inline" lines name files to attach, and every other line is a message
// parameter applied to the SMTP client at send time (SUBJECT, X-PRIORITY,
// MAILACCOUNT, or any other name as a custom header).
//
//   [HEADER]
//   Replace: FIRST
//   Attach: docs\price list.pdf
//   Inline: img\logo.gif, logo01
//   SUBJECT: Hello
//   [/HEADER]
//   Dear <!--FIRST-->, ...
//
// Typical use by a host:
//   auto message = std::make_shared<quillo::dmMessage>();
//   message->Connection(connection);
//   message->esmtp(smtp);           // an ardESMTP with its server and account
//   message->Client(client);        // the recipient's dmclients record
//   message->Subject("News for <!--FIRST-->");
//   message->MessageFileName("templates\\news.htm");
//   if (!message->Error()) message->Send();
//
// Template bytes pass through unchanged: a byte is a character, no code page
// is applied and no byte-order mark is looked for, so the text sent is the
// text that was read. Markers, names and tags are matched ignoring ASCII case.
//
// Some behaviours look odd and are intended, because hosts rely on them:
// reading Message always gives ""; setting MailAccount stores nothing; the
// client record is created empty when it is needed before being set; the
// personalised subject is only used by Send.
//
// Thread-safety: none; a message belongs to one thread.
#ifndef QUILLO_MESSAGE_DM_MESSAGE_H_
#define QUILLO_MESSAGE_DM_MESSAGE_H_

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "message/dm_message_parm.h"
#include "message/personalisation.h"
#include "platform/collection.h"
#include "platform/object.h"

namespace quillo {

class Connection;
class dmclients;

// One header-line list of a template.
using MessageParmList = Collection<std::shared_ptr<dmMessageParm>>;

// An e-mail template with its header lists, personalisation and dispatch.
class dmMessage : public Object {
 public:
  dmMessage();
  ~dmMessage() override;

  const MemberTable& Members() const override;

  // --- Properties -------------------------------------------------------

  // The subject line, personalised by Send.
  const std::string& Subject() const { return subject_; }
  void Subject(std::string value) { subject_ = std::move(value); }

  // The address to send to; blank means the client's e-mail address, which
  // Send then stores here. Set only.
  void Recipient(std::string value) { recipient_ = std::move(value); }

  // The template file's path ("\" accepted as a separator).
  const std::string& MessageFileName() const { return message_file_name_; }
  // Stores the path, empties the lists and loads the file: on success splits
  // and parses it and sets ContentType from the extension; on failure sets
  // Error and leaves header, body and ContentType as they were. Never raises.
  void MessageFileName(std::string value);

  // The body: the template text after the header block.
  const std::string& MessageBody() const { return message_body_; }
  // Stores the body; does not parse.
  void MessageBody(std::string value) { message_body_ = std::move(value); }

  // The header block text (its lines, each ending in CR LF).
  const std::string& MessageHeader() const { return message_header_; }
  // Stores the header block; does not parse (see ParseHeader).
  void MessageHeader(std::string value) { message_header_ = std::move(value); }

  // Always "": the template text is reachable only as header and body.
  std::string Message() const { return std::string(); }
  // Stores the whole template text, empties the lists, splits and parses it.
  // ContentType and Error are left alone.
  void Message(std::string value);

  // The "Attach" lines, in file order (created empty on first use).
  std::shared_ptr<MessageParmList> Attachments();
  // The "Inline" lines, in file order.
  std::shared_ptr<MessageParmList> InlineAttachments();
  // The "Replace" lines, in file order.
  std::shared_ptr<MessageParmList> ReplacementVariables();
  // Every other header line, in file order.
  std::shared_ptr<MessageParmList> MessageParameters();

  // The n-th entry (from 1) of a list; error 9 when out of range.
  std::shared_ptr<dmMessageParm> Attachment(long n);
  std::shared_ptr<dmMessageParm> InlineAttachment(long n);
  std::shared_ptr<dmMessageParm> ReplacementVariable(long n);
  std::shared_ptr<dmMessageParm> MessageParameter(long n);

  // The recipient's client record, read for personalisation and as the
  // default recipient. Set only.
  void Client(std::shared_ptr<dmclients> client);

  // The SMTP client Send hands the message to: an ardESMTP, or any object
  // with its members, which Send reaches by name. Set only.
  void esmtp(ObjectPtr client);

  // True when the last load through MessageFileName failed.
  bool Error() const { return error_; }

  // The body's MIME type ["text/plain"].
  const std::string& ContentType() const { return content_type_; }
  void ContentType(std::string value) { content_type_ = std::move(value); }

  // Whether a MAILACCOUNT parameter chooses the sending account [true].
  bool OverrideSendingAccount() const { return override_sending_account_; }
  void OverrideSendingAccount(bool value) { override_sending_account_ = value; }

  // The database the sending accounts are looked up in. Set only.
  void Connection(std::shared_ptr<quillo::Connection> connection);

  // Accepted and released at once: the sending account comes from esmtp as
  // configured, or from a MAILACCOUNT parameter. Set only.
  void MailAccount(const ObjectPtr& account);

  // --- Template loading -------------------------------------------------

  // Reads the file named by MessageFileName whole into the template text and
  // returns true; false (nothing raised) when it is missing or unreadable.
  // Does not split or parse.
  bool LoadMessageFile();

  // Splits the template text into MessageHeader and MessageBody at the first
  // "[/HEADER]" (ignoring case; see the .cc for the exact rules).
  void SplitMessage();

  // Parses MessageHeader line by line into the four lists, appending: a
  // second call adds every line again.
  void ParseHeader();

  // The parameter of one header line, or null when it has no colon. Only
  // Name and Value are set.
  std::shared_ptr<dmMessageParm> ParseHeaderLine(std::string_view line);

  // Empties the four lists.
  void ClearMessageLists();

  // The characters after the last "." of `file_name` (the whole name when it
  // has no dot).
  static std::string GetFileExtension(std::string_view file_name);

  // --- Personalisation ---------------------------------------------------

  // MessageBody with the listed tags replaced (unchanged when no "Replace"
  // line is listed). Also personalises Subject and throws the result away:
  // only Send sends a personalised subject.
  std::string GetReplacedMessageBody();

  // `text` with the tags of the ReplacementVariables entries replaced, in
  // list order, a fresh value per occurrence. Internal to the class.
  std::string ReplaceVariables(std::string_view text);

  // "<!--NAME-->" for a known variable name (ignoring case), else "".
  static std::string GetReplacementTag(std::string_view name);

  // The value of variable `name` for the client (created empty when none is
  // set) and the clock now; "" for an unknown name or a failure.
  std::string GetReplacementValue(std::string_view name);

  // --- Dispatch -------------------------------------------------------------

  // Personalises the message, applies it to esmtp and returns esmtp's Send
  // result. Failures (no esmtp, a database error, an inline attachment
  // without a comma) reach the caller as RuntimeError.
  std::int32_t Send();

  // Switches esmtp to the dmsmtpaccounts row whose Email is `email` and
  // returns true; false, with esmtp unchanged, when there is no such row.
  bool LoadSendingAccount(const std::string& email);

 private:
  // The client record, created empty on first use.
  dmclients& ClientRecord();
  // Appends the value of one occurrence of `variable` to `out`.
  void AppendValue(quillo::ReplacementVariable variable, std::string& out);

  std::string subject_;                                     // Subject.
  std::string recipient_;                                   // Recipient.
  std::string message_file_name_;                           // MessageFileName.
  std::string message_;                                     // The whole template text.
  std::string message_body_;                                // MessageBody.
  std::string message_header_;                              // MessageHeader.
  std::string content_type_ = "text/plain";                 // ContentType.
  bool error_ = false;                                      // Error.
  bool override_sending_account_ = true;                    // OverrideSendingAccount.
  std::shared_ptr<MessageParmList> attachments_;            // "Attach" lines.
  std::shared_ptr<MessageParmList> inline_attachments_;     // "Inline" lines.
  std::shared_ptr<MessageParmList> replacement_variables_;  // "Replace" lines.
  std::shared_ptr<MessageParmList> message_parameters_;     // Other lines.
  std::shared_ptr<dmclients> client_;                       // Lent by the host, or made empty.
  ObjectPtr esmtp_;                                         // Lent by the host.
  std::shared_ptr<quillo::Connection> connection_;          // Lent by the host.
  std::unique_ptr<TagReplacer> replacer_;                   // Reused between messages.
};

}  // namespace quillo

#endif  // QUILLO_MESSAGE_DM_MESSAGE_H_
