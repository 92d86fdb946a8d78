#include "delivery/mailer.h"

#include <gtest/gtest.h>

#include <string>

#include "records/dmclients.h"
#include "support/scripted_smtp_peer.h"
#include "support/temp_folder.h"

namespace quillo::delivery {
namespace {

using quillo::testing::ScriptedSmtpPeer;

Account AccountFor(const ScriptedSmtpPeer& peer, const std::string& address) {
  Account account;
  account.session.host = "127.0.0.1";
  account.session.port = peer.port();
  account.session.tls = smtp::TlsMode::kNone;
  account.from = {"News", address};
  return account;
}

std::shared_ptr<dmclients> Client(const std::string& email, const std::string& first) {
  auto client = std::make_shared<dmclients>();
  client->Email(email);
  client->First(first);
  return client;
}

std::string WriteTemplate(const quillo::testing::TempFolder& folder, const std::string& name,
                          const std::string& text) {
  return folder.Write(name, text);
}

TEST(Mailer, DeliversSeveralMessagesOverOneConnection) {
  ScriptedSmtpPeer peer;
  quillo::testing::TempFolder folder;
  std::string path =
      WriteTemplate(folder, "t.txt", "[HEADER]\nReplace: FIRST\n[/HEADER]\nHi <!--FIRST-->\n");
  Mailer mailer(AccountFor(peer, "news@example.test"));
  Delivery first = mailer.Send(path, *Client("ada@example.test", "Ada"), "One");
  Delivery second = mailer.Send(path, *Client("alan@example.test", "Alan"), "Two");
  mailer.Close();
  EXPECT_EQ(first.outcome.kind, smtp::OutcomeKind::kAccepted) << first.outcome.reason;
  EXPECT_EQ(second.outcome.kind, smtp::OutcomeKind::kAccepted) << second.outcome.reason;
  EXPECT_NE(first.message_id, second.message_id);
  peer.WaitForSessions(1);
  EXPECT_EQ(peer.connections(), 1);
  auto sessions = peer.Sessions();
  ASSERT_EQ(sessions.size(), 1u);
  EXPECT_NE(sessions[0].data.find("Hi Alan"), std::string::npos);
}

TEST(Mailer, ReadsATemplateOnceForAllItsMessages) {
  ScriptedSmtpPeer peer;
  quillo::testing::TempFolder folder;
  std::string path =
      WriteTemplate(folder, "t.txt", "[HEADER]\nReplace: FIRST\n[/HEADER]\nHi <!--FIRST-->\n");
  Mailer mailer(AccountFor(peer, "news@example.test"));
  Delivery first = mailer.Send(path, *Client("ada@example.test", "Ada"), "One");
  // Changed after the first message: the run goes on with what it read.
  WriteTemplate(folder, "t.txt", "[HEADER]\nReplace: FIRST\n[/HEADER]\nBye <!--FIRST-->\n");
  Delivery second = mailer.Send(path, *Client("alan@example.test", "Alan"), "Two");
  mailer.Close();
  EXPECT_EQ(first.outcome.kind, smtp::OutcomeKind::kAccepted) << first.outcome.reason;
  EXPECT_EQ(second.outcome.kind, smtp::OutcomeKind::kAccepted) << second.outcome.reason;
  peer.WaitForSessions(1);
  auto sessions = peer.Sessions();
  ASSERT_EQ(sessions.size(), 1u);
  EXPECT_NE(sessions[0].data.find("Hi Alan"), std::string::npos) << sessions[0].data;
  EXPECT_EQ(sessions[0].data.find("Bye"), std::string::npos) << sessions[0].data;
}

TEST(TemplateFiles, ATemplateThatCannotBeReadIsTriedAgain) {
  quillo::testing::TempFolder folder;
  const std::string path = folder.path() + "/later.txt";
  mail::TemplateFiles files;
  EXPECT_THROW(files.Text(path), mail::TemplateError);
  WriteTemplate(folder, "later.txt", "Hello\n");
  EXPECT_EQ(files.Text(path), "Hello\n");
}

TEST(TemplateFiles, AnHtmlTemplatesTextTwinIsReadOnceAndANoTwinIsRemembered) {
  quillo::testing::TempFolder folder;
  const std::string html = WriteTemplate(folder, "w.html", "<p>Hi</p>\n");
  const std::string lone = WriteTemplate(folder, "lone.html", "<p>Hi</p>\n");
  WriteTemplate(folder, "w.txt", "Hi\n");
  mail::TemplateFiles files;
  ASSERT_NE(files.Twin(html), nullptr);
  EXPECT_EQ(*files.Twin(html), "Hi\n");
  WriteTemplate(folder, "w.txt", "Changed\n");
  EXPECT_EQ(*files.Twin(html), "Hi\n");
  EXPECT_EQ(files.Twin(lone), nullptr);
  WriteTemplate(folder, "lone.txt", "Late\n");
  EXPECT_EQ(files.Twin(lone), nullptr);
}

TEST(Mailer, AMailAccountLineSendsThroughThatAccount) {
  ScriptedSmtpPeer default_peer;
  ScriptedSmtpPeer other_peer;
  quillo::testing::TempFolder folder;
  std::string path = WriteTemplate(
      folder, "t.txt", "[HEADER]\r\nMAILACCOUNT: sales@example.test\r\n[/HEADER]\r\nHi\r\n");
  Account other = AccountFor(other_peer, "sales@example.test");
  Mailer mailer(AccountFor(default_peer, "news@example.test"),
                [&](const std::string& email) -> std::optional<Account> {
                  if (email == "sales@example.test") return other;
                  return std::nullopt;
                });
  Delivery d = mailer.Send(path, *Client("ada@example.test", "Ada"), "Hi");
  mailer.Close();
  EXPECT_EQ(d.outcome.kind, smtp::OutcomeKind::kAccepted) << d.outcome.reason;
  other_peer.WaitForSessions(1);
  EXPECT_EQ(default_peer.connections(), 0);
  ASSERT_EQ(other_peer.Sessions().size(), 1u);
  const std::string data = other_peer.Sessions()[0].data;
  EXPECT_NE(data.find("From: News <sales@example.test>"), std::string::npos) << data;
  EXPECT_EQ(data.find("MAILACCOUNT"), std::string::npos) << data;
}

TEST(Mailer, AnUnknownMailAccountKeepsTheDefaultAccount) {
  ScriptedSmtpPeer peer;
  quillo::testing::TempFolder folder;
  std::string path = WriteTemplate(
      folder, "t.txt", "[HEADER]\r\nMAILACCOUNT: nobody@example.test\r\n[/HEADER]\r\nHi\r\n");
  Mailer mailer(AccountFor(peer, "news@example.test"),
                [](const std::string&) -> std::optional<Account> { return std::nullopt; });
  Delivery d = mailer.Send(path, *Client("ada@example.test", "Ada"), "Hi");
  mailer.Close();
  EXPECT_EQ(d.outcome.kind, smtp::OutcomeKind::kAccepted) << d.outcome.reason;
  EXPECT_EQ(peer.connections(), 1);
}

TEST(Mailer, AMissingTemplateIsRefusedBeforeConnecting) {
  ScriptedSmtpPeer peer;
  Mailer mailer(AccountFor(peer, "news@example.test"));
  Delivery d = mailer.Send("/nonexistent/quillo/t.txt", *Client("ada@example.test", "Ada"), "Hi");
  EXPECT_EQ(d.outcome.kind, smtp::OutcomeKind::kRefused);
  EXPECT_EQ(d.outcome.code, 0);
  EXPECT_EQ(d.outcome.reason.rfind("not sent: ", 0), 0u) << d.outcome.reason;
  EXPECT_FALSE(d.transport_failed);
  EXPECT_EQ(peer.connections(), 0);
}

TEST(Mailer, ALineBreakInTheSubjectIsRefusedBeforeConnecting) {
  ScriptedSmtpPeer peer;
  quillo::testing::TempFolder folder;
  std::string path = WriteTemplate(folder, "t.txt", "Hi\r\n");
  Mailer mailer(AccountFor(peer, "news@example.test"));
  Delivery d = mailer.Send(path, *Client("ada@example.test", "Ada"), "Hi\r\nBcc: eve@example.test");
  EXPECT_EQ(d.outcome.kind, smtp::OutcomeKind::kRefused);
  EXPECT_FALSE(d.outcome.reason.empty());
  mailer.Close();
  for (const auto& session : peer.Sessions()) {
    EXPECT_EQ(session.data.find("eve@example.test"), std::string::npos);
  }
}

TEST(Mailer, AnUnreachableServerIsATransportFailure) {
  Account account;
  account.session.host = "127.0.0.1";
  account.session.port = 1;
  account.session.tls = smtp::TlsMode::kNone;
  account.from = {"", "news@example.test"};
  quillo::testing::TempFolder folder;
  std::string path = WriteTemplate(folder, "t.txt", "Hi\r\n");
  Mailer mailer(account);
  Delivery d = mailer.Send(path, *Client("ada@example.test", "Ada"), "Hi");
  EXPECT_TRUE(d.transport_failed);
  EXPECT_EQ(d.outcome.kind, smtp::OutcomeKind::kFailed);
  EXPECT_FALSE(d.outcome.reason.empty());
}

TEST(Mailer, ComposeBuildsTheMessageWithoutConnecting) {
  quillo::testing::TempFolder folder;
  std::string path =
      WriteTemplate(folder, "t.txt", "[HEADER]\nReplace: FIRST\n[/HEADER]\nHi <!--FIRST-->\n");
  mail::ComposedMessage m = Mailer::Compose(path, *Client("ada@example.test", "Ada"),
                                            "Hello <!--FIRST-->", {"News", "news@example.test"});
  EXPECT_NE(m.data.find("Subject: Hello Ada\r\n"), std::string::npos) << m.data;
  EXPECT_NE(m.data.find("Hi Ada\r\n"), std::string::npos) << m.data;
}

}  // namespace
}  // namespace quillo::delivery
