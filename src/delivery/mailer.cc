#include "delivery/mailer.h"

#include <ctime>
#include <utility>

#include "mail/template_draft.h"
#include "records/dmclients.h"

namespace quillo::delivery {

namespace {

// An outcome for a message that was never handed to a server.
smtp::Outcome NotSent(std::string reason) {
  smtp::Outcome outcome;
  outcome.kind = smtp::OutcomeKind::kRefused;
  outcome.code = 0;
  outcome.reason = "not sent: " + std::move(reason);
  return outcome;
}

}  // namespace

Mailer::Mailer(Account default_account, AccountLookup lookup)
    : default_account_(std::move(default_account)), lookup_(std::move(lookup)) {}

Mailer::~Mailer() { Close(); }

void Mailer::Close() {
  for (auto& [name, channel] : channels_) {
    if (channel.session) channel.session->Close();
    channel.open = false;
  }
}

Mailer::Channel& Mailer::ChannelFor(const std::string& mail_account) {
  std::string key;
  Account account = default_account_;
  if (!mail_account.empty() && lookup_) {
    if (auto found = lookup_(mail_account)) {
      key = mail_account;
      account = std::move(*found);
    }
  }
  auto it = channels_.find(key);
  if (it == channels_.end()) {
    Channel channel;
    channel.account = std::move(account);
    channel.session = std::make_unique<smtp::Session>(channel.account.session);
    it = channels_.emplace(key, std::move(channel)).first;
  }
  return it->second;
}

namespace {

void ReplaceAll(std::string& text, std::string_view tag, std::string_view value) {
  for (size_t at = text.find(tag); at != std::string::npos;
       at = text.find(tag, at + value.size())) {
    text.replace(at, tag.size(), value);
  }
}

// Adds the list fields to `draft` and fills its unsubscribe tags.
void ApplyList(mail::Draft& draft, const ListHeaders& list) {
  if (!list.list_id.empty()) draft.headers.emplace_back("List-Id", list.list_id);
  if (list.unsubscribe_url.empty()) return;
  std::string value = "<" + list.unsubscribe_url + ">";
  if (!list.unsubscribe_mailto.empty()) {
    value += ", <mailto:" + list.unsubscribe_mailto + "?subject=unsubscribe>";
  }
  draft.headers.emplace_back("List-Unsubscribe", value);
  draft.headers.emplace_back("List-Unsubscribe-Post", "List-Unsubscribe=One-Click");
  const bool html = draft.content_type == "text/html";
  ReplaceAll(draft.body, "<!--UNSUBSCRIBE_URL-->", list.unsubscribe_url);
  ReplaceAll(draft.body, "<!--UNSUBSCRIBE-->",
             html ? "<a href=\"" + list.unsubscribe_url + "\">Unsubscribe</a>"
                  : "Unsubscribe: " + list.unsubscribe_url);
}

}  // namespace

Delivery Mailer::Send(const std::string& template_path, const dmclients& client,
                      const std::string& subject, const ListHeaders& list) {
  Letter letter = Prepare(template_path, client, subject, list);
  return Deliver(letter);
}

Letter Mailer::Prepare(const std::string& template_path, const dmclients& client,
                       const std::string& subject, const ListHeaders& list) {
  Letter letter;
  Delivery& delivery = letter.delivery;
  delivery.recipient = client.Email();
  mail::TemplateDraft parsed;
  try {
    parsed =
        mail::DraftFromTemplate(template_path, client, subject, default_account_.from, &templates_);
  } catch (const std::exception& e) {
    delivery.outcome = NotSent(e.what());
    return letter;
  }
  Channel& channel = ChannelFor(parsed.mail_account);
  if (!parsed.mail_account.empty() &&
      channel.account.from.address != default_account_.from.address) {
    // The template chose another account: compose again with its mailbox, so
    // that its FRIENDLY and SENDER lines still apply on top of it.
    try {
      parsed = mail::DraftFromTemplate(template_path, client, subject, channel.account.from,
                                       &templates_);
    } catch (const std::exception& e) {
      delivery.outcome = NotSent(e.what());
      return letter;
    }
  }
  ApplyList(parsed.draft, list);
  if (!channel.open) {
    smtp::Outcome opened = channel.session->Open();
    if (opened.kind != smtp::OutcomeKind::kAccepted) {
      delivery.outcome = std::move(opened);
      delivery.transport_failed = true;
      return letter;
    }
    channel.open = true;
  }
  const smtp::Capabilities& caps = channel.session->capabilities();
  mail::WireFeatures features;
  features.eight_bit_mime = caps.eight_bit_mime;
  features.smtputf8 = caps.smtputf8;
  mail::ComposedMessage composed;
  try {
    composed = mail::Compose(parsed.draft, features);
  } catch (const std::exception& e) {
    delivery.outcome = NotSent(e.what());
    return letter;
  }
  if (channel.account.dkim) {
    try {
      composed.data.insert(
          0, mail::DkimSignature(*channel.account.dkim, composed.data, std::time(nullptr)));
    } catch (const std::exception& e) {
      delivery.outcome = NotSent(e.what());
      return letter;
    }
  }
  delivery.message_id = composed.message_id;
  letter.envelope.from = list.return_path.empty() ? parsed.draft.from.address : list.return_path;
  letter.envelope.to.push_back(parsed.draft.to.address);
  letter.envelope.body_8bitmime = composed.needs_8bitmime;
  letter.envelope.smtputf8 = composed.needs_smtputf8;
  letter.data = std::move(composed.data);
  letter.session = channel.session.get();
  letter.ready = true;
  return letter;
}

Delivery Mailer::Deliver(Letter& letter, const Letter* next) {
  if (!letter.ready) return letter.delivery;
  Delivery& delivery = letter.delivery;
  if (next && next->ready && next->session == letter.session) {
    delivery.outcome =
        letter.session->Send(letter.envelope, letter.data, &next->envelope, next->data);
  } else {
    delivery.outcome = letter.session->Send(letter.envelope, letter.data);
  }
  // Content the server will not take is refused; a failure here is the
  // connection's (lost, timed out, a malformed reply), worth another try.
  delivery.transport_failed = delivery.outcome.kind == smtp::OutcomeKind::kFailed;
  return delivery;
}

mail::ComposedMessage Mailer::Compose(const std::string& template_path, const dmclients& client,
                                      const std::string& subject, const mail::Mailbox& from,
                                      const mail::WireFeatures& features) {
  mail::TemplateDraft parsed = mail::DraftFromTemplate(template_path, client, subject, from);
  return mail::Compose(parsed.draft, features);
}

}  // namespace quillo::delivery
