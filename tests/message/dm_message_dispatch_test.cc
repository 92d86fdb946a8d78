// Tests of dmMessage's sending account lookup against real databases, and of
// Send end to end: the library's own ardESMTP over TCP to a scripted SMTP
// peer in this process and to a real SMTP server (aiosmtpd) on loopback,
// with the received message taken apart by Python's MIME parser.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "message/dm_message.h"
#include "message/message_test_util.h"
#include "message/smtp_peer.h"
#include "platform/database.h"
#include "platform/event_loop.h"
#include "platform/file.h"
#include "platform/schema.h"
#include "platform/tcp_socket.h"
#include "records/dmclients.h"
#include "smtp/ard_esmtp.h"
#include "support/error_matchers.h"
#include "support/test_databases.h"

extern char** environ;

namespace quillo {
namespace {

using message_test::FilledClient;
using message_test::RecordingSmtp;
using message_test::ScriptedSmtpPeer;
using message_test::TempFolder;
using testing_support::Engine;
using testing_support::TestDatabase;

// Adds one dmsmtpaccounts row.
void AddAccount(Connection& c, const std::string& rec_id, const std::string& email,
                const std::string& server, int port, int use_auth, const std::string& name = "acct",
                const std::string& password = "secret", const std::string& friendly = "Sales") {
  c.Execute(
      "INSERT INTO dmsmtpaccounts (RecID, AccountName, AccountPassword, Domain, Email, "
      "EmailFriendly, MailServer, Port, UseAuthentication) VALUES ('" +
      rec_id + "', '" + name + "', '" + password + "', 'ignored.example', '" + email + "', '" +
      friendly + "', '" + server + "', " + std::to_string(port) + ", " + std::to_string(use_auth) +
      ")");
}

class dmMessageAccount : public ::testing::TestWithParam<Engine> {
 protected:
  void SetUp() override {
    db_ = TestDatabase::Make(GetParam());
    connection_ = db_->Open();
    schema::Create(*connection_);
    message_.Connection(connection_);
    message_.esmtp(smtp_);
    message_.Client(FilledClient());
  }

  // The calls that switched the account (before the content is set).
  std::vector<std::string> AccountTrace() const {
    std::vector<std::string> out;
    for (const std::string& line : smtp_->Trace()) {
      if (line.rfind("MsgContentType=", 0) == 0) break;
      out.push_back(line);
    }
    return out;
  }

  std::unique_ptr<TestDatabase> db_;
  std::shared_ptr<Connection> connection_;
  std::shared_ptr<RecordingSmtp> smtp_ = std::make_shared<RecordingSmtp>();
  dmMessage message_;
};

TEST_P(dmMessageAccount, LoadSendingAccountCopiesTheRowInOrder) {
  AddAccount(*connection_, "r1", "sales@example.com", "mail.example.com", 587, 1);
  EXPECT_TRUE(message_.LoadSendingAccount("sales@example.com"));
  EXPECT_EQ(smtp_->Trace(), (std::vector<std::string>{
                                "AccountName=acct", "AccountPassword=secret",
                                "MailServer=mail.example.com", "Port=587", "UseAuthentication=True",
                                "Sender=sales@example.com", "SenderFriendly=Sales"}));
  EXPECT_EQ(smtp_->Property("Port").Type(), VarType::kLong);
  EXPECT_EQ(smtp_->Property("UseAuthentication").Type(), VarType::kBoolean);
}

TEST_P(dmMessageAccount, NonZeroAuthenticationFlagMeansTrueAndZeroFalse) {
  AddAccount(*connection_, "r1", "a@example.com", "s", 25, -1);
  AddAccount(*connection_, "r2", "b@example.com", "s", 25, 0);
  message_.LoadSendingAccount("a@example.com");
  EXPECT_TRUE(smtp_->Property("UseAuthentication").ToBool());
  message_.LoadSendingAccount("b@example.com");
  EXPECT_FALSE(smtp_->Property("UseAuthentication").ToBool());
}

TEST_P(dmMessageAccount, AccountWithPortZeroSendsOnPort25) {
  AddAccount(*connection_, "r1", "sales@example.com", "mail.example.com", 0, 0);
  EXPECT_TRUE(message_.LoadSendingAccount("sales@example.com"));
  const std::vector<std::string> trace = smtp_->Trace();
  EXPECT_EQ(trace[3], "Port=0");
  EXPECT_EQ(trace.back(), "Port=25");
  EXPECT_EQ(smtp_->Property("Port").ToLong(), 25);
}

TEST_P(dmMessageAccount, UnknownAddressLeavesTheClientAsItWas) {
  AddAccount(*connection_, "r1", "sales@example.com", "mail.example.com", 587, 1);
  EXPECT_FALSE(message_.LoadSendingAccount("nobody@example.com"));
  EXPECT_TRUE(smtp_->Trace().empty());
}

TEST_P(dmMessageAccount, AddressIsInsertedWithoutQuoting) {
  // An apostrophe breaks the statement; the failure reaches the caller.
  EXPECT_THROW(message_.LoadSendingAccount("o'brien@example.com"), RuntimeError);
}

TEST_P(dmMessageAccount, SendSelectsTheAccountOfTheFirstMailAccountLineOnly) {
  AddAccount(*connection_, "r1", "first@example.com", "one.example.com", 2525, 0);
  AddAccount(*connection_, "r2", "second@example.com", "two.example.com", 2626, 0);
  message_.Message(
      "[HEADER]\r\nMAILACCOUNT: first@example.com\r\n"
      "mailaccount: second@example.com\r\n[/HEADER]\r\nbody");
  message_.Send();
  const std::vector<std::string> trace = AccountTrace();
  ASSERT_EQ(trace.size(), 7u);
  EXPECT_EQ(trace[2], "MailServer=one.example.com");
  const std::vector<std::string> all = smtp_->Trace();
  // Both lines still travel as custom headers.
  EXPECT_NE(std::find(all.begin(), all.end(), "AddCustomHeader(MAILACCOUNT: first@example.com)"),
            all.end());
  EXPECT_NE(std::find(all.begin(), all.end(), "AddCustomHeader(mailaccount: second@example.com)"),
            all.end());
}

TEST_P(dmMessageAccount, SendWithOverrideOffSelectsNoAccount) {
  AddAccount(*connection_, "r1", "first@example.com", "one.example.com", 2525, 0);
  message_.OverrideSendingAccount(false);
  message_.Message("[HEADER]\r\nMAILACCOUNT: first@example.com\r\n[/HEADER]\r\nbody");
  message_.Send();
  EXPECT_TRUE(AccountTrace().empty());
  EXPECT_EQ(smtp_->Trace()[3], "AddCustomHeader(MAILACCOUNT: first@example.com)");
}

TEST_P(dmMessageAccount, SendWithUnknownMailAccountStillSends) {
  message_.Message("[HEADER]\r\nMAILACCOUNT: nobody@example.com\r\n[/HEADER]\r\nbody");
  message_.Send();
  EXPECT_TRUE(AccountTrace().empty());
  EXPECT_EQ(smtp_->Trace().back(), "Send()");
}

INSTANTIATE_TEST_SUITE_P(Engines, dmMessageAccount, testing_support::TestEngines(),
                         testing_support::EngineName);

// --- End to end ----------------------------------------------------------------------

// An ardESMTP on a TCP socket control with the events forwarded, as a host
// sets it up.
std::shared_ptr<ardESMTP> MakeSmtpClient() {
  auto socket = std::make_shared<TcpSocketControl>();
  auto smtp = std::make_shared<ardESMTP>();
  smtp->WS(socket);
  ForwardEvents(socket, smtp);
  smtp->CommandTimeout(10);
  return smtp;
}

const char kTemplateHeader[] =
    "[HEADER]\r\n"
    "Replace: FIRST\r\n"
    "Replace: FULLNAME\r\n"
    "MAILACCOUNT: sales@example.com\r\n"
    "X-PRIORITY: 1\r\n"
    "X-Campaign: spring\r\n"
    "TDL-CATALOG-CATEGORY: News\r\n";

struct EndToEnd {
  TempFolder folder;
  std::unique_ptr<TestDatabase> db = TestDatabase::Make(Engine::kSqlite);
  std::shared_ptr<Connection> connection = db->Open();
  std::shared_ptr<ardESMTP> smtp = MakeSmtpClient();
  dmMessage message;

  explicit EndToEnd(int port) {
    schema::Create(*connection);
    AddAccount(*connection, "r1", "sales@example.com", "127.0.0.1", port, 0, "acct", "pw",
               "Sales Team");
    std::filesystem::create_directories(folder.File("docs"));
    WriteFileBytes(folder.File("docs/price list.pdf"), std::string("%PDF-1.4\0\x01\xff", 11));
    WriteFileBytes(folder.File("logo.gif"), "GIF89a-logo");
    const std::string text = std::string(kTemplateHeader) + "Attach: " + folder.path() +
                             "\\docs\\price list.pdf\r\nInline: " + folder.File("logo.gif") +
                             ", logo01\r\n[/HEADER]\r\nDear <!--FIRST-->,\r\n"
                             "this is for <!--FULLNAME-->.\r\n";
    WriteFileBytes(folder.File("letter.txt"), text);
    message.Connection(connection);
    message.esmtp(smtp);
    message.Client(FilledClient());
    message.Subject("News for <!--FIRST-->");
    message.MessageFileName(folder.File("letter.txt"));
  }
};

TEST(dmMessageEndToEnd, SendDeliversThePersonalisedMessageToAScriptedPeer) {
  ScriptedSmtpPeer peer;
  EndToEnd e(peer.port());
  ASSERT_FALSE(e.message.Error());
  EXPECT_EQ(e.message.Send(), 0);
  EXPECT_EQ(e.smtp->rc(), 221);
  const std::vector<std::string> commands = peer.Commands();
  ASSERT_GE(commands.size(), 5u);
  // The account's address is the sender, the client's the recipient.
  auto has_command = [&](const std::string& verb, const std::string& address) {
    for (const std::string& c : commands) {
      if (c.rfind(verb, 0) == 0 && c.find("<" + address + ">") != std::string::npos) return true;
    }
    return false;
  };
  EXPECT_TRUE(has_command("MAIL FROM:", "sales@example.com"));
  EXPECT_TRUE(has_command("RCPT TO:", "john@example.com"));
  const std::vector<std::string> messages = peer.Messages();
  ASSERT_EQ(messages.size(), 1u);
  const std::string& m = messages[0];
  EXPECT_NE(m.find("Subject: News for John\r\n"), std::string::npos) << m;
  EXPECT_NE(m.find("X-Priority: 1\r\n"), std::string::npos);
  EXPECT_NE(m.find("X-Campaign: spring\r\n"), std::string::npos);
  EXPECT_NE(m.find("MAILACCOUNT: sales@example.com\r\n"), std::string::npos);
  EXPECT_EQ(m.find("TDL-CATALOG"), std::string::npos);
  EXPECT_NE(m.find("Dear John,\r\nthis is for John Q Smith.\r\n"), std::string::npos);
  EXPECT_NE(m.find("price list.pdf"), std::string::npos);
  EXPECT_NE(m.find("Content-ID: logo01"), std::string::npos);
}

// Runs a program with arguments; returns its process id.
pid_t Spawn(const std::vector<std::string>& argv) {
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = 0;
  if (posix_spawn(&pid, args[0], nullptr, nullptr, args.data(), environ) != 0) return -1;
  return pid;
}

// The output of a shell command, or "" when it cannot run.
std::string Capture(const std::string& command) {
  std::string out;
  FILE* pipe = ::popen(command.c_str(), "r");
  if (!pipe) return out;
  char buffer[4096];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
  ::pclose(pipe);
  return out;
}

// Facts about the one message in `maildir`, from Python's email parser, one
// per line.
const char kParseMaildir[] = R"PY(
import mailbox, sys, email.policy
box = mailbox.Maildir(sys.argv[1], create=False)
msgs = [email.message_from_bytes(m.as_bytes(), policy=email.policy.compat32) for m in box]
print("count", len(msgs))
m = msgs[0]
for h in ("Subject", "To", "From", "X-Priority", "X-Campaign", "MAILACCOUNT", "TDL-CATALOG-CATEGORY"):
    print("header", h, "=", m.get(h))
print("multipart", m.is_multipart())
for part in m.walk():
    for h in ("X-Campaign", "MAILACCOUNT", "TDL-CATALOG-CATEGORY"):
        if part.get(h) is not None:
            print("custom", h, "=", part.get(h))
for part in m.walk():
    if part.is_multipart():
        continue
    payload = part.get_payload(decode=True) or b""
    print("part", part.get_content_type(), part.get_filename(), part.get("Content-ID"),
          payload.hex())
)PY";

TEST(dmMessageEndToEnd, SendDeliversToARealSmtpServerAndParsesAsMime) {
  if (!std::filesystem::exists("/usr/bin/python3") ||
      Capture("/usr/bin/python3 -c 'import aiosmtpd; print(1)' 2>/dev/null") != "1\n") {
    GTEST_FAIL() << "aiosmtpd for /usr/bin/python3 is missing (Debian package python3-aiosmtpd)";
  }
  TempFolder server_folder;
  const char* data = std::getenv("QUILLO_TEST_DATA");
  const std::string script =
      std::string(data ? data : "tests/data") + "/../support/maildir_smtpd.py";
  const std::string maildir = server_folder.File("Maildir");
  const std::string port_file = server_folder.File("port");
  const pid_t server = Spawn({"/usr/bin/python3", script, "--maildir", maildir, "--port-file",
                              port_file, "--seconds", "60"});
  ASSERT_GT(server, 0);
  std::string port_text;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (std::chrono::steady_clock::now() < deadline) {
    if (FileExists(port_file)) {
      port_text = ReadFileBytes(port_file);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  if (port_text.empty()) {
    ::kill(server, SIGTERM);
    ::waitpid(server, nullptr, 0);
    FAIL() << "the SMTP server did not start";
  }
  {
    EndToEnd e(std::stoi(port_text));
    ASSERT_FALSE(e.message.Error());
    EXPECT_EQ(e.message.Send(), 0);
    EXPECT_EQ(e.smtp->rc(), 221);
  }
  WriteFileBytes(server_folder.File("parse.py"), kParseMaildir);
  std::string facts;
  for (int i = 0; i < 100 && facts.find("count 1") == std::string::npos; ++i) {
    facts = Capture("/usr/bin/python3 " + server_folder.File("parse.py") + " " + maildir + " 2>&1");
    if (facts.find("count 1") == std::string::npos) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  }
  ::kill(server, SIGTERM);
  ::waitpid(server, nullptr, 0);

  EXPECT_NE(facts.find("count 1\n"), std::string::npos) << facts;
  EXPECT_NE(facts.find("header Subject = News for John\n"), std::string::npos) << facts;
  EXPECT_NE(facts.find("header X-Priority = 1\n"), std::string::npos) << facts;
  // Custom headers, the account address among them; the catalogue note is
  // not sent. (With attachments the client writes them in the text part.)
  EXPECT_NE(facts.find("custom X-Campaign = spring\n"), std::string::npos) << facts;
  EXPECT_NE(facts.find("custom MAILACCOUNT = sales@example.com\n"), std::string::npos) << facts;
  EXPECT_EQ(facts.find("TDL-CATALOG-CATEGORY = News"), std::string::npos) << facts;
  EXPECT_NE(facts.find("header From = \"Sales Team\" <sales@example.com>\n"), std::string::npos)
      << facts;
  EXPECT_NE(facts.find("john@example.com"), std::string::npos) << facts;
  EXPECT_NE(facts.find("multipart True\n"), std::string::npos) << facts;
  // The body, personalised: "Dear John,\nthis is for John Q Smith.\n".
  EXPECT_NE(facts.find("part text/plain None None 44656172204a6f686e2c0a746869732069732066"
                       "6f72204a6f686e205120536d6974682e0a"),
            std::string::npos)
      << facts;
  // The attachment's bytes, NULs included, and the inline image with its id.
  EXPECT_NE(facts.find("price list.pdf None 255044462d312e340001ff\n"), std::string::npos) << facts;
  EXPECT_NE(facts.find("logo.gif"), std::string::npos) << facts;
  EXPECT_NE(facts.find("474946383961"), std::string::npos) << facts;  // "GIF89a"
  EXPECT_NE(facts.find("logo01"), std::string::npos) << facts;
}

}  // namespace
}  // namespace quillo
