// dmMessage: template loading and parsing, personalisation and dispatch.
#include "message/dm_message.h"

#include <exception>
#include <utility>
#include <vector>

#include "platform/clock.h"
#include "platform/database.h"
#include "platform/error.h"
#include "platform/file.h"
#include "platform/text.h"
#include "platform/variant.h"
#include "records/dmclients.h"
#include "records/dmsmtpaccounts.h"
#include "records/sql_statement.h"

namespace quillo {

namespace {

constexpr std::string_view kHeaderOpen = "[HEADER]";
constexpr std::string_view kHeaderClose = "[/HEADER]";
constexpr std::string_view kCrLf = "\r\n";

// Sets property `name` of `object` by name.
void PutProperty(const ObjectPtr& object, std::string_view name, Variant value) {
  CallByName(object, name, CallKind::kPut, {std::move(value)});
}

// The client fields personalisation reads, as views into the record.
ClientFields FieldsOf(const dmclients& c) {
  return ClientFields{c.First(), c.Last(),    c.Middle(), c.Address(), c.PO(),   c.city(),
                      c.state(), c.Country(), c.zip(),    c.Company(), c.Email()};
}

}  // namespace

dmMessage::dmMessage() = default;
dmMessage::~dmMessage() = default;

// ---------------------------------------------------------------------------
// Lists and lent objects.

std::shared_ptr<MessageParmList> dmMessage::Attachments() {
  EnsureCollection(attachments_);
  return attachments_;
}

std::shared_ptr<MessageParmList> dmMessage::InlineAttachments() {
  EnsureCollection(inline_attachments_);
  return inline_attachments_;
}

std::shared_ptr<MessageParmList> dmMessage::ReplacementVariables() {
  EnsureCollection(replacement_variables_);
  return replacement_variables_;
}

std::shared_ptr<MessageParmList> dmMessage::MessageParameters() {
  EnsureCollection(message_parameters_);
  return message_parameters_;
}

std::shared_ptr<dmMessageParm> dmMessage::Attachment(long n) { return Attachments()->Item(n); }

std::shared_ptr<dmMessageParm> dmMessage::InlineAttachment(long n) {
  return InlineAttachments()->Item(n);
}

std::shared_ptr<dmMessageParm> dmMessage::ReplacementVariable(long n) {
  return ReplacementVariables()->Item(n);
}

std::shared_ptr<dmMessageParm> dmMessage::MessageParameter(long n) {
  return MessageParameters()->Item(n);
}

void dmMessage::Client(std::shared_ptr<dmclients> client) { client_ = std::move(client); }

void dmMessage::esmtp(ObjectPtr client) { esmtp_ = std::move(client); }

void dmMessage::Connection(std::shared_ptr<quillo::Connection> connection) {
  connection_ = std::move(connection);
}

void dmMessage::MailAccount(const ObjectPtr& /*account*/) {
  // Taken and released at once: the sending account is the one esmtp was
  // given, or the one a MAILACCOUNT parameter selects. Hosts set it anyway.
}

dmclients& dmMessage::ClientRecord() {
  // Personalising without a client gives empty values rather than a failure.
  if (!client_) client_ = std::make_shared<dmclients>();
  return *client_;
}

// ---------------------------------------------------------------------------
// Template loading.

void dmMessage::MessageFileName(std::string value) {
  error_ = false;
  message_file_name_ = std::move(value);
  ClearMessageLists();
  if (!LoadMessageFile()) {
    error_ = true;
    return;
  }
  SplitMessage();
  ParseHeader();
  const std::string extension = UCase(GetFileExtension(message_file_name_));
  content_type_ = (extension == "HTML" || extension == "HTM") ? "text/html" : "text/plain";
}

void dmMessage::Message(std::string value) {
  message_ = std::move(value);
  ClearMessageLists();
  SplitMessage();
  ParseHeader();
}

bool dmMessage::LoadMessageFile() {
  try {
    message_ = ReadFileBytes(message_file_name_);
    return true;
  } catch (const std::exception&) {
    // A missing or unreadable template is reported through the result.
    return false;
  }
}

void dmMessage::SplitMessage() {
  const size_t close = InStr(message_, kHeaderClose, Compare::kText);
  if (close == 0) {
    message_header_.clear();
    message_body_ = message_;
    return;
  }
  std::string_view before = std::string_view(message_).substr(0, close - 1);
  const size_t open = InStr(before, kHeaderOpen, Compare::kText);
  if (open != 0) before = before.substr(open - 1 + kHeaderOpen.size());
  message_header_.assign(before);
  message_header_.append(kCrLf);
  std::string_view body = std::string_view(message_).substr(close - 1 + kHeaderClose.size());
  // Drops the rest of the marker's line: everything up to the first CR LF of
  // the body, wherever that is.
  const size_t line_end = body.find(kCrLf);
  if (line_end != std::string_view::npos) body = body.substr(line_end + kCrLf.size());
  message_body_.assign(body);
}

void dmMessage::ParseHeader() {
  if (Trim(message_header_).empty()) return;
  std::string_view header(message_header_);
  size_t from = 0;
  while (true) {
    const size_t end = header.find(kCrLf, from);
    const std::string_view line =
        header.substr(from, end == std::string_view::npos ? std::string_view::npos : end - from);
    if (std::shared_ptr<dmMessageParm> parm = ParseHeaderLine(line)) {
      const std::string& name = parm->Name();
      if (EqualsIgnoreCase(name, "Replace")) {
        ReplacementVariables()->Add(std::move(parm));
      } else if (EqualsIgnoreCase(name, "Attach")) {
        Attachments()->Add(std::move(parm));
      } else if (EqualsIgnoreCase(name, "Inline")) {
        InlineAttachments()->Add(std::move(parm));
      } else {
        MessageParameters()->Add(std::move(parm));
      }
    }
    if (end == std::string_view::npos) break;
    from = end + kCrLf.size();
  }
}

std::shared_ptr<dmMessageParm> dmMessage::ParseHeaderLine(std::string_view line) {
  const size_t colon = line.find(':');
  if (colon == std::string_view::npos) return nullptr;
  auto parm = std::make_shared<dmMessageParm>();
  parm->Name(Trim(line.substr(0, colon)));
  parm->Value(Trim(line.substr(colon + 1)));
  return parm;
}

void dmMessage::ClearMessageLists() {
  Attachments()->Clear();
  InlineAttachments()->Clear();
  ReplacementVariables()->Clear();
  MessageParameters()->Clear();
}

std::string dmMessage::GetFileExtension(std::string_view file_name) {
  const size_t dot = file_name.rfind('.');
  if (dot == std::string_view::npos) return std::string(file_name);
  return std::string(file_name.substr(dot + 1));
}

// ---------------------------------------------------------------------------
// Personalisation.

std::string dmMessage::GetReplacedMessageBody() {
  if (ReplacementVariables()->Empty()) return message_body_;
  std::string body = ReplaceVariables(message_body_);
  // The subject is personalised and dropped, as it always has been: only Send
  // sends a personalised subject.
  ReplaceVariables(subject_);
  return body;
}

std::string dmMessage::ReplaceVariables(std::string_view text) {
  std::vector<quillo::ReplacementVariable> variables;
  variables.reserve(static_cast<size_t>(ReplacementVariables()->Count()));
  for (const std::shared_ptr<dmMessageParm>& entry : *replacement_variables_) {
    // An unknown name has no tag and is skipped.
    if (auto variable = FindReplacementVariable(entry->Value())) variables.push_back(*variable);
  }
  if (!replacer_) replacer_ = std::make_unique<TagReplacer>();
  return replacer_->Replace(text, variables,
                            [this](quillo::ReplacementVariable variable, std::string& out) {
                              AppendValue(variable, out);
                            });
}

std::string dmMessage::GetReplacementTag(std::string_view name) {
  auto variable = FindReplacementVariable(name);
  return variable ? std::string(ReplacementTag(*variable)) : std::string();
}

std::string dmMessage::GetReplacementValue(std::string_view name) {
  std::string out;
  if (auto variable = FindReplacementVariable(name)) AppendValue(*variable, out);
  return out;
}

void dmMessage::AppendValue(quillo::ReplacementVariable variable, std::string& out) {
  const size_t mark = out.size();
  try {
    if (IsDateVariable(variable)) {
      AppendDateValue(variable, Now(), out);
    } else {
      AppendClientValue(variable, FieldsOf(ClientRecord()), out);
    }
  } catch (const std::exception&) {
    // A value that cannot be computed is empty for this occurrence, and
    // replacement goes on.
    out.resize(mark);
  }
}

// ---------------------------------------------------------------------------
// Dispatch.

std::int32_t dmMessage::Send() {
  // 1. Personalise.
  std::string body;
  std::string subject;
  if (ReplacementVariables()->Empty()) {
    body = message_body_;
    subject = subject_;
  } else {
    body = ReplaceVariables(message_body_);
    subject = ReplaceVariables(subject_);
  }

  // 2. The sending account named by the first MAILACCOUNT parameter.
  if (override_sending_account_) {
    for (const std::shared_ptr<dmMessageParm>& parm : *MessageParameters()) {
      if (EqualsIgnoreCase(parm->Name(), "MAILACCOUNT")) {
        LoadSendingAccount(parm->Value());
        break;
      }
    }
  }

  // 3. The content.
  PutProperty(esmtp_, "MsgContentType", content_type_);
  PutProperty(esmtp_, "MsgSubject", subject);
  PutProperty(esmtp_, "MsgBody", std::move(body));

  // 4. The message parameters, in order; a later one overrides an earlier one.
  static constexpr std::pair<std::string_view, std::string_view> kTextSettings[] = {
      {"SUBJECT", "MsgSubject"},
      {"CONTENT-TYPE", "MsgContentType"},
      {"FRIENDLY", "SenderFriendly"},
      {"SENDER", "Sender"},
      {"REPLY-TO", "MsgReplyTo"},
      {"CONTENT-ENCODING", "MsgContentEncoding"},
      {"MIME-VERSION", "MsgMimeVersion"},
      {"X-MAILER", "XMailer"},
      {"X-MIMEOLE", "XMimeOLE"},
      {"IMPORTANCE", "Importance"},
      {"SENSITIVITY", "Sensitivity"},
      {"DISPOSITION-NOTIFICATION-TO", "DispositionNotificationTo"},
  };
  const long count = MessageParameters()->Count();
  for (long i = 1; i <= count; ++i) {
    const std::shared_ptr<dmMessageParm> parm = message_parameters_->Item(i);
    const std::string& name = parm->Name();
    const std::string& value = parm->Value();
    bool applied = false;
    for (const auto& [parameter, property] : kTextSettings) {
      if (EqualsIgnoreCase(name, parameter)) {
        PutProperty(esmtp_, property, value);
        applied = true;
        break;
      }
    }
    if (applied) continue;
    if (EqualsIgnoreCase(name, "DATATIMEOUT")) {
      PutProperty(esmtp_, "CommandDataTimeout", RoundToLong(Val(value)));
    } else if (EqualsIgnoreCase(name, "TIMEOUT")) {
      PutProperty(esmtp_, "CommandTimeout", RoundToLong(Val(value)));
    } else if (EqualsIgnoreCase(name, "X-PRIORITY")) {
      PutProperty(esmtp_, "XPriority", RoundToInteger(Val(value)));
    } else if (EqualsIgnoreCase(name, "TDL-CATALOG-CATEGORY") ||
               EqualsIgnoreCase(name, "TDL-CATALOG-DESCRIPTION")) {
      // Catalogue notes for the template editor; not part of the mail.
    } else {
      // Any other name, MAILACCOUNT included, travels as a custom header.
      CallByName(esmtp_, "AddCustomHeader", CallKind::kMethod, {name + ": " + value});
    }
  }

  // 5. Attachments.
  CallByName(esmtp_, "ClearAttachments", CallKind::kMethod);
  for (const std::shared_ptr<dmMessageParm>& parm : *Attachments()) {
    CallByName(esmtp_, "AddAttachment", CallKind::kMethod, {parm->Value()});
  }

  // 6. Inline attachments: "file, content id". More than two pieces are
  // skipped; a value without a comma has no content id and fails with error 9.
  for (const std::shared_ptr<dmMessageParm>& parm : *InlineAttachments()) {
    const std::vector<std::string> pieces = Split(parm->Value(), ",");
    if (pieces.size() > 2) continue;
    if (pieces.size() < 2) Raise(err::kSubscriptOutOfRange);
    CallByName(esmtp_, "AddAttachmentAsInline", CallKind::kMethod,
               {Trim(pieces[0]), Trim(pieces[1])});
  }

  // 7. The recipient; a blank one becomes the client's address and stays.
  CallByName(esmtp_, "ClearRecipients", CallKind::kMethod);
  if (Trim(recipient_).empty()) recipient_ = ClientRecord().Email();
  CallByName(esmtp_, "AddRecipient", CallKind::kMethod, {recipient_});

  // 8. Send.
  return CallByName(esmtp_, "Send", CallKind::kMethod).ToLong();
}

bool dmMessage::LoadSendingAccount(const std::string& email) {
  SQLStatement statement;
  if (connection_) statement.Connection(connection_);
  // The address goes in as it stands, apostrophes included.
  statement.Sql("SELECT * FROM dmsmtpaccounts WHERE Email = '" + email + "';");
  auto rs = std::make_shared<Recordset>();
  statement.GetRecordsetFO(rs);
  if (rs->Eof()) return false;
  dmsmtpaccounts account;
  account.LoadDataFromDS(rs);
  rs->Close();

  PutProperty(esmtp_, "AccountName", account.AccountName());
  PutProperty(esmtp_, "AccountPassword", account.AccountPassword());
  PutProperty(esmtp_, "MailServer", account.MailServer());
  PutProperty(esmtp_, "Port", Variant(CStrNumber(account.Port())).ToLong());
  PutProperty(esmtp_, "UseAuthentication", account.UseAuthentication() != 0);
  PutProperty(esmtp_, "Sender", account.Email());
  PutProperty(esmtp_, "SenderFriendly", account.EmailFriendly());
  if (CallByName(esmtp_, "Port", CallKind::kGet).ToLong() == 0) {
    PutProperty(esmtp_, "Port", std::int32_t{25});
  }
  return true;
}

// ---------------------------------------------------------------------------
// The dispatch interface.

const MemberTable& dmMessage::Members() const {
  using M = dmMessage;
  using ParmPtr = std::shared_ptr<dmMessageParm>;
  static const MemberTable table =
      MemberTable::Builder<M>("dmMessage")
          .Get("Subject", [](M& m) { return m.Subject(); })
          .Put("Subject", [](M& m, std::string v) { m.Subject(std::move(v)); })
          .Put("Recipient", [](M& m, std::string v) { m.Recipient(std::move(v)); })
          .Get("MessageFileName", [](M& m) { return m.MessageFileName(); })
          .Put("MessageFileName", [](M& m, std::string v) { m.MessageFileName(std::move(v)); })
          .Get("MessageBody", [](M& m) { return m.MessageBody(); })
          .Put("MessageBody", [](M& m, std::string v) { m.MessageBody(std::move(v)); })
          .Get("MessageHeader", [](M& m) { return m.MessageHeader(); })
          .Put("MessageHeader", [](M& m, std::string v) { m.MessageHeader(std::move(v)); })
          .Get("Message", [](M& m) { return m.Message(); })
          .Put("Message", [](M& m, std::string v) { m.Message(std::move(v)); })
          .Get("Attachments", [](M& m) { return m.Attachments(); })
          .Get("InlineAttachments", [](M& m) { return m.InlineAttachments(); })
          .Get("ReplacementVariables", [](M& m) { return m.ReplacementVariables(); })
          .Get("MessageParameters", [](M& m) { return m.MessageParameters(); })
          .Get("Attachment", [](M& m, std::int32_t n) -> ParmPtr { return m.Attachment(n); })
          .Get("InlineAttachment",
               [](M& m, std::int32_t n) -> ParmPtr { return m.InlineAttachment(n); })
          .Get("ReplacementVariable",
               [](M& m, std::int32_t n) -> ParmPtr { return m.ReplacementVariable(n); })
          .Get("MessageParameter",
               [](M& m, std::int32_t n) -> ParmPtr { return m.MessageParameter(n); })
          .Put("Client", [](M& m, std::shared_ptr<dmclients> c) { m.Client(std::move(c)); })
          .Put("esmtp", [](M& m, ObjectPtr c) { m.esmtp(std::move(c)); })
          .Get("Error", [](M& m) { return m.Error(); })
          .Get("ContentType", [](M& m) { return m.ContentType(); })
          .Put("ContentType", [](M& m, std::string v) { m.ContentType(std::move(v)); })
          .Get("OverrideSendingAccount", [](M& m) { return m.OverrideSendingAccount(); })
          .Put("OverrideSendingAccount", [](M& m, bool v) { m.OverrideSendingAccount(v); })
          .Put("Connection",
               [](M& m, std::shared_ptr<quillo::Connection> c) { m.Connection(std::move(c)); })
          .Put("MailAccount", [](M& m, ObjectPtr a) { m.MailAccount(a); })
          .Method("LoadMessageFile", [](M& m) { return m.LoadMessageFile(); })
          .Method("SplitMessage", [](M& m) { m.SplitMessage(); })
          .Method("ParseHeader", [](M& m) { m.ParseHeader(); })
          .Method("ParseHeaderLine",
                  [](M& m, std::string line) -> ParmPtr { return m.ParseHeaderLine(line); })
          .Method("ClearMessageLists", [](M& m) { m.ClearMessageLists(); })
          .Method("GetFileExtension",
                  [](M&, std::string name) { return M::GetFileExtension(name); })
          .Method("GetReplacedMessageBody", [](M& m) { return m.GetReplacedMessageBody(); })
          .Method("Send", [](M& m) { return m.Send(); })
          .Method("LoadSendingAccount",
                  [](M& m, std::string email) { return m.LoadSendingAccount(email); })
          .Build();
  return table;
}

QUILLO_REGISTER_CLASS(dmMessage, Creatable::kPublic);

}  // namespace quillo
