// ardESMTP: the SMTP dialogue, reply classification and MIME assembly.
#include "smtp/ard_esmtp.h"

#include <array>
#include <chrono>
#include <cstring>

#include "codec/base64.h"
#include "codec/md5.h"
#include "platform/clock.h"
#include "platform/date.h"
#include "platform/error.h"
#include "platform/event_loop.h"
#include "platform/file.h"
#include "platform/socket.h"
#include "platform/text.h"

namespace quillo {
namespace {

// The command table: verbs of the dialogue and fixed header texts.
constexpr const char* kHelo = "HELO ";
constexpr const char* kEhlo = "EHLO ";
constexpr const char* kQuit = "QUIT";
constexpr const char* kMailFrom = "MAIL FROM: ";
constexpr const char* kRcptTo = "RCPT TO: ";
constexpr const char* kData = "DATA";
constexpr const char* kAuth = "AUTH ";
constexpr const char* kLogin = "LOGIN";
constexpr const char* kFrom = "From: ";
constexpr const char* kTo = "To: ";
constexpr const char* kSubject = "Subject: ";
constexpr const char* kReplyTo = "Reply-To: ";
constexpr const char* kMimeVersion = "MIME-Version: ";
constexpr const char* kContentType = "Content-type: ";
constexpr const char* kContentTransferEncoding = "Content-Transfer-Encoding: ";
constexpr const char* kXMailer = "X-Mailer: ";
constexpr const char* kXMimeOLE = "X-MimeOLE: ";
constexpr const char* kImportance = "Importance: ";
constexpr const char* kSensitivity = "Sensitivity: ";
constexpr const char* kDispositionNotificationTo = "Disposition-Notification-To: ";
constexpr const char* kXPriority = "X-Priority: ";
constexpr const char* kDefaultContentType = "text/plain";
constexpr const char* kDefaultEncoding = "7bit";
constexpr const char* kDefaultMimeVersion = "1.0";
constexpr const char* kCrLf = "\r\n";

// The known reply codes, in search order, and their search texts.
constexpr std::array<int16_t, 26> kReplyCodes{200, 211, 220, 221, 235, 250, 251, 334, 354,
                                              421, 450, 451, 452, 500, 501, 502, 503, 504,
                                              513, 521, 535, 550, 551, 552, 553, 554};
constexpr std::array<const char*, 26> kReplySearchTexts{
    "200 ", "211 ", "220 ", "221 ", "235 ", "250 ", "251 ", "334 ", "354 ",
    "421 ", "450 ", "451 ", "452 ", "500 ", "501 ", "502 ", "503 ", "504 ",
    "513 ", "521 ", "535 ", "550 ", "551 ", "552 ", "553 ", "554 "};

constexpr size_t kTranscriptLineLimit = 512;

// Yields closer together than this share one look at the sockets.
constexpr std::chrono::microseconds kYieldInterval(500);

bool IsBlank(std::string_view s) { return Trim(s).empty(); }

}  // namespace

ardESMTP::ardESMTP() = default;

ardESMTP::~ardESMTP() = default;

// ---------------------------------------------------------------------------
// Collections and simple members.

std::shared_ptr<Collection<std::string>> ardESMTP::Recipients() {
  EnsureCollection(recipients_);
  return recipients_;
}

std::shared_ptr<Collection<std::shared_ptr<ardESMTPAttachment>>> ardESMTP::Attachments() {
  EnsureCollection(attachments_);
  return attachments_;
}

std::shared_ptr<Collection<std::string>> ardESMTP::RawMessages() {
  EnsureCollection(raw_messages_);
  return raw_messages_;
}

std::string ardESMTP::RawMessage(std::optional<int32_t> n) const {
  const long index = n.value_or(1);
  if (!raw_messages_ || index < 1 || index > raw_messages_->Count()) return std::string();
  return raw_messages_->Item(index);
}

std::shared_ptr<ardESMTPAttachment> ardESMTP::Attachment(std::optional<int32_t> n) {
  return Attachments()->Item(n.value_or(1));
}

void ardESMTP::WS(ObjectPtr socket) {
  ws_ = std::move(socket);
  socket_ = std::dynamic_pointer_cast<SocketControl>(ws_);
}

void ardESMTP::MailServer(std::string v) {
  mail_server_ = std::move(v);
  const size_t dot = mail_server_.find('.');
  if (dot != std::string::npos) domain_ = mail_server_.substr(dot + 1);
}

void ardESMTP::AddRecipient(std::string s) { Recipients()->Add(std::move(s)); }

void ardESMTP::ClearRecipients() {
  Recipients()->Clear();
  if (ws_ && WsState() == SocketControl::kConnected) {
    std::string pending;
    WsGetData(pending, 0);
    reply_buffer_ += pending;
  }
  ClearReplyBuffer();
}

void ardESMTP::AddCustomHeader(std::string s) {
  EnsureCollection(custom_headers_).Add(std::move(s));
}

void ardESMTP::ClearCustomHeaders() { EnsureCollection(custom_headers_).Clear(); }

void ardESMTP::ClearAttachments() { Attachments()->Clear(); }

void ardESMTP::ClearRawMessages() { RawMessages()->Clear(); }

void ardESMTP::AddAttachment(const std::string& file_name, std::optional<std::string> content_type,
                             std::optional<std::string> content_type_name) {
  auto part = std::make_shared<ardESMTPAttachment>();
  part->FileName(file_name);
  if (content_type) part->ContentType(*content_type);
  if (content_type_name) part->ContentTypeName(*content_type_name);
  part->CreateAttachment();
  Attachments()->Add(std::move(part));
}

void ardESMTP::AddAttachmentAsInline(const std::string& file_name,
                                     std::optional<std::string> content_id,
                                     std::optional<std::string> content_type,
                                     std::optional<std::string> content_type_name) {
  auto part = std::make_shared<ardESMTPAttachment>();
  part->FileName(file_name);
  part->ContentDisposition(part->DISPOSITION_TYPE_INLINE());
  if (content_id) part->ContentID(*content_id);
  if (content_type) part->ContentType(*content_type);
  if (content_type_name) part->ContentTypeName(*content_type_name);
  part->CreateAttachment();
  Attachments()->Add(std::move(part));
}

// ---------------------------------------------------------------------------
// MIME assembly.

void ardESMTP::AppendFromToSubjectReplyMime(const std::string& r) {
  std::string& m = message_buffer_;
  m.append(kFrom);
  if (!IsBlank(sender_friendly_)) m.append("\"").append(sender_friendly_).append("\" ");
  m.append("<").append(sender_).append(">");
  m.append(kCrLf).append(kTo).append(r);
  m.append(kCrLf).append(kSubject).append(msg_subject_);
  if (!IsBlank(msg_reply_to_)) m.append(kCrLf).append(kReplyTo).append(msg_reply_to_);
  if (IsBlank(msg_mime_version_)) msg_mime_version_ = kDefaultMimeVersion;
  m.append(kCrLf).append(kMimeVersion).append(msg_mime_version_);
}

void ardESMTP::AppendOptionalHeaders() {
  std::string& m = message_buffer_;
  if (!IsBlank(importance_)) m.append(kCrLf).append(kImportance).append(importance_);
  if (x_priority_ > 0) m.append(kCrLf).append(kXPriority).append(std::to_string(x_priority_));
  if (!IsBlank(sensitivity_)) m.append(kCrLf).append(kSensitivity).append(sensitivity_);
  if (!IsBlank(disposition_notification_to_)) {
    m.append(kCrLf).append(kDispositionNotificationTo).append(disposition_notification_to_);
  }
  m.append(kCrLf).append(kXMailer).append(x_mailer_);
  m.append(kCrLf).append(kXMimeOLE).append(x_mime_ole_);
}

void ardESMTP::BuildSinglePartMessage(const std::string& r) {
  message_buffer_.clear();
  body_ = msg_body_;
  message_buffer_.reserve(body_.size() + 512);
  AppendFromToSubjectReplyMime(r);
  std::string& m = message_buffer_;
  if (IsBlank(msg_content_type_)) msg_content_type_ = kDefaultContentType;
  m.append(kCrLf).append(kContentType).append(msg_content_type_);
  if (IsBlank(msg_content_encoding_)) msg_content_encoding_ = kDefaultEncoding;
  m.append(kCrLf).append(kContentTransferEncoding).append(msg_content_encoding_);
  AppendOptionalHeaders();
  if (custom_headers_) {
    for (const std::string& header : *custom_headers_) m.append(kCrLf).append(header);
  }
  m.append(kCrLf).append(kCrLf).append(body_);
  m.append("\r\n.\r\n");
}

void ardESMTP::BuildMultipartMessage(const std::string& r) {
  message_buffer_.clear();
  body_ = msg_body_;
  if (IsBlank(boundary_)) {
    const std::string digest = Md5Hex(Variant(Now()).ToString());
    boundary_ = "---" + digest + digest;
  }
  size_t size = body_.size() + 1024;
  if (attachments_) {
    for (const auto& part : *attachments_) size += part->Attachment().size() + boundary_.size() + 8;
  }
  message_buffer_.reserve(size);
  AppendFromToSubjectReplyMime(r);
  AppendOptionalHeaders();
  std::string& m = message_buffer_;
  m.append(kCrLf).append("Content-Type: multipart/mixed;");
  m.append(kCrLf).append("        boundary=\"").append(boundary_).append("\"");
  m.append(kCrLf).append("Content-Transfer-Encoding: 7bit");
  m.append(kCrLf).append(kCrLf).append("This is a MIME Encoded Message");
  m.append(kCrLf).append(kCrLf).append("--").append(boundary_);
  if (IsBlank(msg_content_type_)) msg_content_type_ = kDefaultContentType;
  m.append(kCrLf).append(kContentType).append(msg_content_type_);
  if (IsBlank(msg_content_encoding_)) msg_content_encoding_ = kDefaultEncoding;
  m.append(kCrLf).append(kContentTransferEncoding).append(msg_content_encoding_);
  if (custom_headers_) {
    for (const std::string& header : *custom_headers_) m.append(kCrLf).append(header);
  }
  m.append(kCrLf).append(kCrLf).append(body_).append(kCrLf);
  if (attachments_) {
    for (const auto& part : *attachments_) {
      m.append(kCrLf).append("--").append(boundary_).append(kCrLf).append(part->Attachment());
    }
  }
  m.append(kCrLf).append("--").append(boundary_).append("--").append(kCrLf);
  m.append("\r\n.\r\n");
}

void ardESMTP::BuildMessage(const std::string& r) {
  if (attachments_ && attachments_->Count() > 0) {
    BuildMultipartMessage(r);
  } else {
    BuildSinglePartMessage(r);
  }
}

void ardESMTP::CreateRawMessages() {
  auto recipients = Recipients();
  for (const std::string& r : *recipients) {
    BuildMessage(r);
    RawMessages()->Add(message_buffer_);
  }
}

void ardESMTP::WriteRawMessageFile(std::optional<int32_t> n_idx) {
  const std::string r = Recipients()->Item(n_idx.value_or(1));
  BuildMessage(r);
  DeleteFileIfExists(output_file_name_);
  WriteFileBytes(output_file_name_, message_buffer_);
}

// ---------------------------------------------------------------------------
// Socket control access: typed when it is ours, by name otherwise.

void ardESMTP::WsConnect() {
  if (socket_) return socket_->Connect(mail_server_, port_);
  CallByName(ws_, "Connect", CallKind::kMethod, {Variant(mail_server_), Variant(port_)});
}

int16_t ardESMTP::WsState() {
  if (socket_) return socket_->State();
  return CallByName(ws_, "State", CallKind::kGet).ToInteger();
}

void ardESMTP::WsSendData(const std::string& data) {
  if (socket_) return socket_->SendData(data);
  CallByName(ws_, "SendData", CallKind::kMethod, {Variant(data)});
}

void ardESMTP::WsGetData(std::string& data, int32_t max_len) {
  if (socket_) return socket_->GetData(data, 8, max_len);
  data = CallByName(ws_, "GetData", CallKind::kMethod,
                    {Variant(std::string()), Variant(int32_t{8}), Variant(max_len)})
             .ToString();
}

void ardESMTP::WsClose() {
  if (socket_) return socket_->Close();
  CallByName(ws_, "Close", CallKind::kMethod);
}

// ---------------------------------------------------------------------------
// Events.

void ardESMTP::Winsock_DataArrival(int32_t bytes_total) {
  std::string data;
  WsGetData(data, bytes_total);
  reply_buffer_ += data;
}

void ardESMTP::Winsock_Error(int16_t number, const std::string& description, int32_t scode,
                             const std::string& source, const std::string& /*help_file*/,
                             int32_t /*help_context*/, bool* /*cancel_display*/) {
  winsock_error_number_ = number;
  winsock_error_description_ = description;
  winsock_error_code_ = scode;
  winsock_error_source_ = source;
  transport_error_ = true;
  Note("-- socket error " + std::to_string(number) + ": ", description);
}

// ---------------------------------------------------------------------------
// The dialogue.

size_t ardESMTP::FindLineEnd() {
  // Data is only ever appended between searches, so the part already searched
  // (less one byte, which may be a "\r" whose "\n" arrived later) is skipped.
  const size_t from = reply_scanned_ > 0 ? reply_scanned_ - 1 : 0;
  const size_t p = reply_buffer_.find(kCrLf, from);
  reply_scanned_ = p == std::string::npos ? reply_buffer_.size() : p;
  return p;
}

void ardESMTP::ClearReplyBuffer() {
  reply_buffer_.clear();
  reply_scanned_ = 0;
}

void ardESMTP::Yield() {
  // The dialogue yields many times in a row (once per reply-code comparison,
  // once after each command). Yields within kYieldInterval of the last look
  // at the sockets share it; the waits themselves always look (DoEvents), so
  // this delays no reply.
  const auto now = std::chrono::steady_clock::now();
  if (now - last_yield_ < kYieldInterval) return;
  last_yield_ = now;
  PumpEvents(0);
}

void ardESMTP::YieldWaiting() {
  if (FindLineEnd() != std::string::npos) {
    PumpEvents(0);
  } else {
    DoEvents();
    last_yield_ = std::chrono::steady_clock::now();
  }
}

void ardESMTP::Note(std::string_view prefix, std::string_view text) {
  transcript_.append(prefix);
  if (text.size() > kTranscriptLineLimit) {
    transcript_.append(text.substr(0, kTranscriptLineLimit)).append("...");
  } else {
    transcript_.append(text);
  }
  transcript_.append(kCrLf);
}

std::string ardESMTP::GetReplyLine() {
  const Date deadline = Now() + Date(command_timeout_ / 86400.0);
  size_t p = std::string::npos;
  bool taken = false;
  bool timed_out = false;
  std::string line;
  while (!taken && !transport_error_ && !timed_out) {
    if (p != std::string::npos) {
      line.assign(reply_buffer_, 0, p + 2);
      reply_buffer_.erase(0, p + 2);
      reply_scanned_ = 0;
      taken = true;
    }
    // Once a line is taken there is nothing to wait for: the yield only
    // delivers what is ready.
    if (taken) {
      Yield();
    } else {
      YieldWaiting();
    }
    p = FindLineEnd();
    if (DateDiff("s", deadline, Now()) > 0) timed_out = true;
  }
  if (timed_out) {
    transport_error_ = true;
    Note("-- ", "reply timeout");
  }
  if (taken) Note("S: ", std::string_view(line).substr(0, line.size() - 2));
  return line;
}

int16_t ardESMTP::GetReplyCode() {
  int16_t code = 0;
  bool found = false;
  while (!found && !transport_error_) {
    const std::string line = GetReplyLine();
    if (line.size() < 4 || transport_error_) {
      Yield();
      continue;
    }
    const std::string_view head(line.data(), 4);
    if (head[3] == ' ') {
      for (size_t i = 0; i < kReplyCodes.size(); ++i) {
        Yield();
        if (EqualsIgnoreCase(head, kReplySearchTexts[i])) {
          code = kReplyCodes[i];
          found = true;
          break;
        }
      }
    }
    Yield();
  }
  return code;
}

int16_t ardESMTP::SendCommand(const std::string& command) {
  if (mask_commands_ > 0) {
    --mask_commands_;
    Note("C: ", "********");
  } else {
    Note("C: ", command);
  }
  WsSendData(command + kCrLf);
  Yield();
  return GetReplyCode();
}

int16_t ardESMTP::SendMessageBuffer() {
  Note("C: ", "[message of " + std::to_string(message_buffer_.size()) + " bytes]");
  WsSendData(message_buffer_);
  Yield();
  return GetReplyCode();
}

int16_t ardESMTP::DeliverMessage(const std::string& recipient) {
  transcript_.clear();
  mask_commands_ = 0;
  Note("-- connect ", mail_server_ + ":" + std::to_string(port_));
  ClearReplyBuffer();
  WsConnect();
  // Waits for the connection or a socket error event. A socket in its error
  // state can never connect, so when its error event has been pumped and still
  // not reached us (a host that does not forward it), the wait ends as well.
  while (WsState() != SocketControl::kConnected && !transport_error_) {
    YieldWaiting();
    if (WsState() == SocketControl::kError && !transport_error_) break;
  }
  auto fail = [&]() {
    Note("-- failed, rc ", std::to_string(rc_));
    WsClose();
    ClearReplyBuffer();
    return rc_;
  };
  if (WsState() != SocketControl::kConnected) {
    rc_ = 999;
    return fail();
  }
  rc_ = GetReplyCode();
  if (transport_error_ || rc_ != 220) return fail();
  rc_ = SendCommand(kEhlo + domain_);
  if (transport_error_) return fail();
  if (rc_ != 250) {
    rc_ = SendCommand(kHelo);
    if (transport_error_) return fail();
  } else if (use_authentication_) {
    rc_ = SendCommand(std::string(kAuth) + kLogin);
    if (transport_error_) return fail();
    mask_commands_ = 2;
    rc_ = SendCommand(Base64Encode(account_name_));
    if (transport_error_) return fail();
    rc_ = SendCommand(Base64Encode(account_password_));
    mask_commands_ = 0;
    if (transport_error_ || rc_ >= 500) return fail();
  }
  rc_ = SendCommand(kMailFrom + ("<" + sender_ + ">"));
  if (transport_error_) return fail();
  rc_ = SendCommand(kRcptTo + ("<" + recipient + ">"));
  if (transport_error_) return fail();
  rc_ = SendCommand(kData);
  if (transport_error_) return fail();
  const int32_t saved_timeout = command_timeout_;
  command_timeout_ = command_data_timeout_;
  rc_ = SendMessageBuffer();
  if (transport_error_) return fail();  // The data timeout stays in force.
  command_timeout_ = saved_timeout;
  rc_ = SendCommand(kQuit);
  WsClose();
  ClearReplyBuffer();
  Note("-- done, rc ", std::to_string(rc_));
  return 0;
}

int16_t ardESMTP::Send() {
  auto recipients = Recipients();
  for (long i = 1; i <= recipients->Count(); ++i) {
    const std::string r = recipients->Item(i);
    BuildMessage(r);
    DeliverMessage(r);
  }
  return 0;
}

bool ardESMTP::SendRawMessageText(const std::string& s) {
  const size_t blank = s.find("\r\n\r\n");
  if (blank == std::string::npos) return false;
  const std::string_view header(s.data(), blank);
  const size_t to = InStr(header, kTo, Compare::kText);
  if (to == 0) return false;
  const size_t start = to - 1 + std::strlen(kTo);
  const size_t end = header.find(kCrLf, start);
  if (end == std::string_view::npos) return false;
  const std::string recipient = Trim(header.substr(start, end - start));
  Yield();
  message_buffer_ = s;
  rc_ = DeliverMessage(recipient);
  return rc_ == 0;
}

// ---------------------------------------------------------------------------
// The dispatch interface.

const MemberTable& ardESMTP::Members() const {
  using E = ardESMTP;
  using S = std::string;
  static const MemberTable table =
      MemberTable::Builder<E>("ardESMTP")
          .Get("MessageBuffer", [](E& e) { return e.MessageBuffer(); })
          .Put("MessageBuffer", [](E& e, S v) { e.MessageBuffer(std::move(v)); })
          .Get("RawMessage", [](E& e, std::optional<int32_t> n) { return e.RawMessage(n); })
          .Get("Attachment", [](E& e, std::optional<int32_t> n) { return e.Attachment(n); })
          .Get("Attachments", [](E& e) { return e.Attachments(); })
          .Get("RawMessages", [](E& e) { return e.RawMessages(); })
          .Put("OutputFileName", [](E& e, S v) { e.OutputFileName(std::move(v)); })
          .Get("OutputFileName", [](E& e) { return e.OutputFileName(); })
          .Put("XPriority", [](E& e, int16_t v) { e.XPriority(v); })
          .Get("XPriority", [](E& e) { return e.XPriority(); })
          .Put("XMailer", [](E& e, S v) { e.XMailer(std::move(v)); })
          .Get("XMailer", [](E& e) { return e.XMailer(); })
          .Put("XMimeOLE", [](E& e, S v) { e.XMimeOLE(std::move(v)); })
          .Get("XMimeOLE", [](E& e) { return e.XMimeOLE(); })
          .Get("WinsockErrorNumber", [](E& e) { return e.WinsockErrorNumber(); })
          .Get("WinsockErrorDescription", [](E& e) { return e.WinsockErrorDescription(); })
          .Get("WinsockErrorCode", [](E& e) { return e.WinsockErrorCode(); })
          .Get("WinsockErrorSource", [](E& e) { return e.WinsockErrorSource(); })
          .Put("WS", [](E& e, ObjectPtr v) { e.WS(std::move(v)); })
          .Get("WS", [](E& e) { return e.WS(); })
          .Put("MailServer", [](E& e, S v) { e.MailServer(std::move(v)); })
          .Get("MailServer", [](E& e) { return e.MailServer(); })
          .Put("Port", [](E& e, int32_t v) { e.Port(v); })
          .Get("Port", [](E& e) { return e.Port(); })
          .Put("AccountName", [](E& e, S v) { e.AccountName(std::move(v)); })
          .Get("AccountName", [](E& e) { return e.AccountName(); })
          .Put("AccountPassword", [](E& e, S v) { e.AccountPassword(std::move(v)); })
          .Get("AccountPassword", [](E& e) { return e.AccountPassword(); })
          .Put("Sender", [](E& e, S v) { e.Sender(std::move(v)); })
          .Get("Sender", [](E& e) { return e.Sender(); })
          .Put("SenderFriendly", [](E& e, S v) { e.SenderFriendly(std::move(v)); })
          .Get("SenderFriendly", [](E& e) { return e.SenderFriendly(); })
          .Put("Boundary", [](E& e, S v) { e.Boundary(std::move(v)); })
          .Get("Boundary", [](E& e) { return e.Boundary(); })
          .Put("Domain", [](E& e, S v) { e.Domain(std::move(v)); })
          .Get("Domain", [](E& e) { return e.Domain(); })
          .Put("UseAuthentication", [](E& e, bool v) { e.UseAuthentication(v); })
          .Get("UseAuthentication", [](E& e) { return e.UseAuthentication(); })
          .Put("ConnectTimeout", [](E& e, int32_t v) { e.ConnectTimeout(v); })
          .Get("ConnectTimeout", [](E& e) { return e.ConnectTimeout(); })
          .Put("CommandTimeout", [](E& e, int32_t v) { e.CommandTimeout(v); })
          .Get("CommandTimeout", [](E& e) { return e.CommandTimeout(); })
          .Put("CommandDataTimeout", [](E& e, int32_t v) { e.CommandDataTimeout(v); })
          .Get("CommandDataTimeout", [](E& e) { return e.CommandDataTimeout(); })
          .Put("ExecutionTime", [](E& e, int32_t v) { e.ExecutionTime(v); })
          .Get("ExecutionTime", [](E& e) { return e.ExecutionTime(); })
          .Put("MsgRecipients", [](E& e, S v) { e.MsgRecipients(std::move(v)); })
          .Get("MsgRecipients", [](E& e) { return e.MsgRecipients(); })
          .Put("MsgSubject", [](E& e, S v) { e.MsgSubject(std::move(v)); })
          .Get("MsgSubject", [](E& e) { return e.MsgSubject(); })
          .Put("MsgReplyTo", [](E& e, S v) { e.MsgReplyTo(std::move(v)); })
          .Get("MsgReplyTo", [](E& e) { return e.MsgReplyTo(); })
          .Put("MsgBody", [](E& e, S v) { e.MsgBody(std::move(v)); })
          .Get("MsgBody", [](E& e) { return e.MsgBody(); })
          .Put("MsgMimeVersion", [](E& e, S v) { e.MsgMimeVersion(std::move(v)); })
          .Get("MsgMimeVersion", [](E& e) { return e.MsgMimeVersion(); })
          .Put("MsgContentType", [](E& e, S v) { e.MsgContentType(std::move(v)); })
          .Get("MsgContentType", [](E& e) { return e.MsgContentType(); })
          .Put("MsgContentEncoding", [](E& e, S v) { e.MsgContentEncoding(std::move(v)); })
          .Get("MsgContentEncoding", [](E& e) { return e.MsgContentEncoding(); })
          .Put("MsgBoundary", [](E& e, S v) { e.MsgBoundary(std::move(v)); })
          .Get("MsgBoundary", [](E& e) { return e.MsgBoundary(); })
          .Put("ErrorCode", [](E& e, int16_t v) { e.ErrorCode(v); })
          .Get("ErrorCode", [](E& e) { return e.ErrorCode(); })
          .Put("rc", [](E& e, int16_t v) { e.rc(v); })
          .Get("rc", [](E& e) { return e.rc(); })
          .Put("Importance", [](E& e, S v) { e.Importance(std::move(v)); })
          .Get("Importance", [](E& e) { return e.Importance(); })
          .Put("Sensitivity", [](E& e, S v) { e.Sensitivity(std::move(v)); })
          .Get("Sensitivity", [](E& e) { return e.Sensitivity(); })
          .Put("DispositionNotificationTo",
               [](E& e, S v) { e.DispositionNotificationTo(std::move(v)); })
          .Get("DispositionNotificationTo", [](E& e) { return e.DispositionNotificationTo(); })
          .Method("Winsock_DataArrival", [](E& e, int32_t n) { e.Winsock_DataArrival(n); })
          .Method("Winsock_Error",
                  [](E& e, int16_t number, S description, int32_t scode, S source,
                     std::optional<S> help_file, std::optional<int32_t> help_context,
                     std::optional<bool> cancel_display) {
                    bool cancel = cancel_display.value_or(false);
                    e.Winsock_Error(number, description, scode, source, help_file.value_or(S()),
                                    help_context.value_or(0), &cancel);
                  })
          .Method("AddRecipient", [](E& e, S s) { e.AddRecipient(std::move(s)); })
          .Method("ClearRecipients", [](E& e) { e.ClearRecipients(); })
          .Method("AddCustomHeader", [](E& e, S s) { e.AddCustomHeader(std::move(s)); })
          .Method("ClearCustomHeaders", [](E& e) { e.ClearCustomHeaders(); })
          .Method("Send", [](E& e) { return e.Send(); })
          .Method("WriteRawMessageFile",
                  [](E& e, std::optional<int32_t> n) { e.WriteRawMessageFile(n); })
          .Method("CreateRawMessages", [](E& e) { e.CreateRawMessages(); })
          .Method("SendRawMessageText", [](E& e, S s) { return e.SendRawMessageText(s); })
          .Method("AddAttachment",
                  [](E& e, S file, std::optional<S> type, std::optional<S> name) {
                    e.AddAttachment(file, std::move(type), std::move(name));
                  })
          .Method(
              "AddAttachmentAsInline",
              [](E& e, S file, std::optional<S> id, std::optional<S> type, std::optional<S> name) {
                e.AddAttachmentAsInline(file, std::move(id), std::move(type), std::move(name));
              })
          .Method("ClearAttachments", [](E& e) { e.ClearAttachments(); })
          .Method("ClearRawMessages", [](E& e) { e.ClearRawMessages(); })
          .Get("Transcript", [](E& e) { return e.Transcript(); })
          .Get("TransportFailed", [](E& e) { return e.TransportFailed(); })
          .Build();
  return table;
}

QUILLO_REGISTER_CLASS(ardESMTP, Creatable::kPublic);

}  // namespace quillo
