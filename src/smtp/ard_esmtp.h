// ardESMTP: the library's SMTP client.
//
// For each recipient, Send builds one complete message addressed to that
// recipient alone (single-part, or multipart/mixed when attachments are
// present) and runs one SMTP dialogue over its own connection: greeting, EHLO
// (or a bare "HELO "), optional AUTH LOGIN, MAIL FROM, RCPT TO, DATA, the
// message, QUIT. The socket control is lent by the host through WS, and its
// DataArrival and Error events must reach Winsock_DataArrival and
// Winsock_Error (quillo::ForwardEvents does that). Waits yield to the event
// pump on every pass, so the events arrive while the client waits.
//
// Outcomes show only in properties: rc (last classified reply code, 999 when
// the connection never came up, 0 after a reply timeout), the WinsockError*
// properties, and the result of SendRawMessageText. A socket error or a reply
// timeout marks the object as failed for good: every later dialogue stops at
// once, and a caller that wants to retry creates a new object. Transcript
// shows the last dialogue, with the AUTH credentials masked.
//
//   auto socket = std::make_shared<quillo::TcpSocketControl>();
//   auto smtp = std::make_shared<quillo::ardESMTP>();
//   smtp->WS(socket);
//   quillo::ForwardEvents(socket, smtp);
//   smtp->MailServer("127.0.0.1"); smtp->Port(2525); smtp->Sender("me@example.com");
//   smtp->MsgSubject("Hello"); smtp->MsgBody("Hi!");
//   smtp->AddRecipient("you@example.com");
//   smtp->Send();   // smtp->rc() == 221 after a clean QUIT
//
// Thread-safety: none; an object and its socket belong to one thread, and its
// operations are not re-entrant.
#ifndef QUILLO_SMTP_ARD_ESMTP_H_
#define QUILLO_SMTP_ARD_ESMTP_H_

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/collection.h"
#include "platform/object.h"
#include "smtp/ard_esmtp_attachment.h"

namespace quillo {

class SocketControl;

// SMTP client with AUTH LOGIN, MIME assembly and attachments.
class ardESMTP : public Object {
 public:
  ardESMTP();
  ~ardESMTP() override;

  // --- Message text ---
  // The complete text of the current recipient's message, ready for DATA.
  const std::string& MessageBuffer() const { return message_buffer_; }
  void MessageBuffer(std::string value) { message_buffer_ = std::move(value); }
  // Raw message n (1-based, default 1); empty when n is outside the list.
  std::string RawMessage(std::optional<int32_t> n = std::nullopt) const;
  // Attachment n (1-based, default 1); raises 9 when outside the collection.
  std::shared_ptr<ardESMTPAttachment> Attachment(std::optional<int32_t> n = std::nullopt);
  // The attachment collection.
  std::shared_ptr<Collection<std::shared_ptr<ardESMTPAttachment>>> Attachments();
  // The raw-message collection.
  std::shared_ptr<Collection<std::string>> RawMessages();
  // Path written by WriteRawMessageFile.
  void OutputFileName(std::string v) { output_file_name_ = std::move(v); }
  const std::string& OutputFileName() const { return output_file_name_; }
  // "X-Priority: " value, written when greater than 0.
  void XPriority(int16_t v) { x_priority_ = v; }
  int16_t XPriority() const { return x_priority_; }
  // "X-Mailer: " value, always written.
  void XMailer(std::string v) { x_mailer_ = std::move(v); }
  const std::string& XMailer() const { return x_mailer_; }
  // "X-MimeOLE: " value, always written.
  void XMimeOLE(std::string v) { x_mime_ole_ = std::move(v); }
  const std::string& XMimeOLE() const { return x_mime_ole_; }

  // --- Last socket error event ---
  int16_t WinsockErrorNumber() const { return winsock_error_number_; }
  const std::string& WinsockErrorDescription() const { return winsock_error_description_; }
  int32_t WinsockErrorCode() const { return winsock_error_code_; }
  const std::string& WinsockErrorSource() const { return winsock_error_source_; }

  // --- Connection ---
  // The socket control (a SocketControl, or any object with its members).
  void WS(ObjectPtr socket);
  const ObjectPtr& WS() const { return ws_; }
  // Host to connect to; also sets Domain to the text after its first ".".
  void MailServer(std::string v);
  const std::string& MailServer() const { return mail_server_; }
  // TCP port (25).
  void Port(int32_t v) { port_ = v; }
  int32_t Port() const { return port_; }
  // User name for AUTH LOGIN.
  void AccountName(std::string v) { account_name_ = std::move(v); }
  const std::string& AccountName() const { return account_name_; }
  // Password for AUTH LOGIN.
  void AccountPassword(std::string v) { account_password_ = std::move(v); }
  const std::string& AccountPassword() const { return account_password_; }
  // Envelope sender and the address in "From: ".
  void Sender(std::string v) { sender_ = std::move(v); }
  const std::string& Sender() const { return sender_; }
  // Display name in "From: " when not blank.
  void SenderFriendly(std::string v) { sender_friendly_ = std::move(v); }
  const std::string& SenderFriendly() const { return sender_friendly_; }
  // Multipart boundary; generated when blank and then kept.
  void Boundary(std::string v) { boundary_ = std::move(v); }
  const std::string& Boundary() const { return boundary_; }
  // Text sent after "EHLO ".
  void Domain(std::string v) { domain_ = std::move(v); }
  const std::string& Domain() const { return domain_; }
  // Whether to run AUTH LOGIN after a 250 reply to EHLO.
  void UseAuthentication(bool v) { use_authentication_ = v; }
  bool UseAuthentication() const { return use_authentication_; }
  // Stored and returned only.
  void ConnectTimeout(int32_t v) { connect_timeout_ = v; }
  int32_t ConnectTimeout() const { return connect_timeout_; }
  // Seconds one reply line may take.
  void CommandTimeout(int32_t v) { command_timeout_ = v; }
  int32_t CommandTimeout() const { return command_timeout_; }
  // Seconds one reply line may take after the message data.
  void CommandDataTimeout(int32_t v) { command_data_timeout_ = v; }
  int32_t CommandDataTimeout() const { return command_data_timeout_; }
  // Stored and returned only.
  void ExecutionTime(int32_t v) { execution_time_ = v; }
  int32_t ExecutionTime() const { return execution_time_; }

  // --- Content ---
  void MsgRecipients(std::string v) { msg_recipients_ = std::move(v); }
  const std::string& MsgRecipients() const { return msg_recipients_; }
  void MsgSubject(std::string v) { msg_subject_ = std::move(v); }
  const std::string& MsgSubject() const { return msg_subject_; }
  void MsgReplyTo(std::string v) { msg_reply_to_ = std::move(v); }
  const std::string& MsgReplyTo() const { return msg_reply_to_; }
  void MsgBody(std::string v) { msg_body_ = std::move(v); }
  const std::string& MsgBody() const { return msg_body_; }
  void MsgMimeVersion(std::string v) { msg_mime_version_ = std::move(v); }
  const std::string& MsgMimeVersion() const { return msg_mime_version_; }
  void MsgContentType(std::string v) { msg_content_type_ = std::move(v); }
  const std::string& MsgContentType() const { return msg_content_type_; }
  void MsgContentEncoding(std::string v) { msg_content_encoding_ = std::move(v); }
  const std::string& MsgContentEncoding() const { return msg_content_encoding_; }
  void MsgBoundary(std::string v) { msg_boundary_ = std::move(v); }
  const std::string& MsgBoundary() const { return msg_boundary_; }
  // Stored and returned only.
  void ErrorCode(int16_t v) { error_code_ = v; }
  int16_t ErrorCode() const { return error_code_; }
  // The last classified reply code (see the class comment).
  void rc(int16_t v) { rc_ = v; }
  int16_t rc() const { return rc_; }
  void Importance(std::string v) { importance_ = std::move(v); }
  const std::string& Importance() const { return importance_; }
  void Sensitivity(std::string v) { sensitivity_ = std::move(v); }
  const std::string& Sensitivity() const { return sensitivity_; }
  void DispositionNotificationTo(std::string v) { disposition_notification_to_ = std::move(v); }
  const std::string& DispositionNotificationTo() const { return disposition_notification_to_; }

  // --- Operations ---
  // Appends the socket's DataArrival bytes to the reply buffer.
  void Winsock_DataArrival(int32_t bytes_total);
  // Records a socket error event and marks the transport as failed.
  void Winsock_Error(int16_t number, const std::string& description, int32_t scode,
                     const std::string& source, const std::string& help_file = {},
                     int32_t help_context = 0, bool* cancel_display = nullptr);
  // Appends one recipient address.
  void AddRecipient(std::string s);
  // Empties the recipients and drops any unread reply data.
  void ClearRecipients();
  // Appends one complete header line (without its line end).
  void AddCustomHeader(std::string s);
  void ClearCustomHeaders();
  // Sends the message to every recipient, one dialogue each; always 0.
  int16_t Send();
  // Builds recipient nIDX's message (default 1) and writes it to OutputFileName.
  void WriteRawMessageFile(std::optional<int32_t> n_idx = std::nullopt);
  // Appends every recipient's message to the raw messages.
  void CreateRawMessages();
  // Sends a complete message text to the recipient of its "To: " line; true
  // when the dialogue returned 0.
  bool SendRawMessageText(const std::string& s);
  // Adds an attachment part read from `file_name` (raises 53/75).
  void AddAttachment(const std::string& file_name,
                     std::optional<std::string> content_type = std::nullopt,
                     std::optional<std::string> content_type_name = std::nullopt);
  // Adds an inline part read from `file_name` (raises 53/75).
  void AddAttachmentAsInline(const std::string& file_name,
                             std::optional<std::string> content_id = std::nullopt,
                             std::optional<std::string> content_type = std::nullopt,
                             std::optional<std::string> content_type_name = std::nullopt);
  void ClearAttachments();
  void ClearRawMessages();

  // --- Diagnostics ---
  // The last dialogue: "C: " and "S: " lines and notes ("--"), credentials
  // masked, each line cut at 512 characters.
  const std::string& Transcript() const { return transcript_; }
  // True once a socket error or a reply timeout has been seen.
  bool TransportFailed() const { return transport_error_; }
  // The recipient list.
  std::shared_ptr<Collection<std::string>> Recipients();

  // Builds recipient `r`'s single-part message into MessageBuffer.
  void BuildSinglePartMessage(const std::string& r);
  // Builds recipient `r`'s multipart message into MessageBuffer.
  void BuildMultipartMessage(const std::string& r);

  const MemberTable& Members() const override;

 private:
  void BuildMessage(const std::string& r);
  void AppendFromToSubjectReplyMime(const std::string& r);
  void AppendOptionalHeaders();
  int16_t DeliverMessage(const std::string& recipient);
  int16_t SendCommand(const std::string& command);
  int16_t SendMessageBuffer();
  std::string GetReplyLine();
  int16_t GetReplyCode();
  // Position (0-based) of the first "\r\n" in the reply buffer, or npos.
  size_t FindLineEnd();
  // Empties the reply buffer.
  void ClearReplyBuffer();
  // Delivers pending events without waiting.
  void Yield();
  // Delivers events, waiting briefly when none is ready and no reply line is
  // already buffered.
  void YieldWaiting();
  void Note(std::string_view prefix, std::string_view text);

  void WsConnect();
  int16_t WsState();
  void WsSendData(const std::string& data);
  void WsGetData(std::string& data, int32_t max_len);
  void WsClose();

  // Connection.
  ObjectPtr ws_;
  std::shared_ptr<SocketControl> socket_;  // ws_ when it is a SocketControl.
  std::string mail_server_ = "localhost";
  int32_t port_ = 25;
  std::string domain_ = "localdomain";
  bool use_authentication_ = false;
  std::string account_name_;
  std::string account_password_;
  std::string sender_;
  int32_t connect_timeout_ = 60;
  int32_t command_timeout_ = 60;
  int32_t command_data_timeout_ = 900;
  int32_t execution_time_ = 300;
  int16_t rc_ = 0;
  int16_t error_code_ = 0;
  int16_t winsock_error_number_ = 0;
  std::string winsock_error_description_;
  int32_t winsock_error_code_ = 0;
  std::string winsock_error_source_;
  std::string message_buffer_;
  std::string reply_buffer_;
  size_t reply_scanned_ = 0;  // The reply buffer holds no "\r\n" before this position.
  bool transport_error_ = false;
  std::string transcript_;
  int mask_commands_ = 0;
  std::chrono::steady_clock::time_point
      last_yield_;  // When the sockets were last polled.  // Credentials still to be masked in the
                    // transcript.

  // Content.
  std::string sender_friendly_;
  std::string msg_subject_;
  std::string msg_reply_to_;
  std::string msg_body_;
  std::string msg_mime_version_ = "1.0";
  std::string msg_content_type_ = "text/plain";
  std::string msg_content_encoding_ = "7bit";
  std::string importance_;
  std::string sensitivity_;
  std::string disposition_notification_to_;
  int16_t x_priority_ = 0;
  std::string x_mailer_ = "ardESMTP v2.0";
  std::string x_mime_ole_ = "ardESMTP v2.0";
  std::string boundary_;
  std::string msg_recipients_;
  std::string msg_boundary_;
  std::string output_file_name_;
  std::string body_;

  std::shared_ptr<Collection<std::string>> recipients_;
  std::shared_ptr<Collection<std::string>> custom_headers_;
  std::shared_ptr<Collection<std::string>> raw_messages_;
  std::shared_ptr<Collection<std::shared_ptr<ardESMTPAttachment>>> attachments_;
};

}  // namespace quillo

#endif  // QUILLO_SMTP_ARD_ESMTP_H_
