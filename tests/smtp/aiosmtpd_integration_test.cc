// Integration of the SMTP client with a real server: aiosmtpd started on
// loopback for each test (plain TCP and implicit TLS, with AUTH LOGIN), the
// received messages parsed by Python's email package and compared with the
// bytes, headers and parts that were sent. The TLS certificates come from a
// throw-away CA made with the openssl command when the suite starts.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/event_loop.h"
#include "platform/tcp_socket.h"
#include "platform/tls_socket.h"
#include "smtp/ard_esmtp.h"
#include "support/temp_folder.h"

extern char** environ;

namespace quillo {
namespace {

using testing::TempFolder;

const std::string kSupport =
    std::filesystem::path(__FILE__).parent_path().parent_path().string() + "/support";
const char* kPython = "/usr/bin/python3";

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

// Runs `command` with the shell and returns its standard output.
std::string Capture(const std::string& command) {
  std::string out;
  FILE* pipe = ::popen(command.c_str(), "r");
  if (!pipe) return out;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
  ::pclose(pipe);
  return out;
}

std::string Sha256Hex(const std::string& bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr);
  static const char* hex = "0123456789abcdef";
  std::string out;
  for (unsigned int i = 0; i < length; ++i) {
    out += hex[digest[i] >> 4];
    out += hex[digest[i] & 15];
  }
  return out;
}

bool WaitForFile(const std::string& path, std::chrono::seconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < deadline) {
    if (std::filesystem::exists(path)) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

// aiosmtpd in a child process, stopped when the object goes.
class AiosmtpdServer {
 public:
  struct Options {
    std::string cert, key, user, password;
  };
  explicit AiosmtpdServer(const Options& options) {
    std::vector<std::string> args = {kPython,    kSupport + "/aiosmtpd_server.py",
                                     "--folder", mail_.path(),
                                     "--ready",  mail_.File("ready")};
    if (!options.cert.empty()) {
      args.insert(args.end(), {"--cert", options.cert, "--key", options.key});
    }
    if (!options.user.empty()) {
      args.insert(args.end(), {"--user", options.user, "--password", options.password});
    }
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    if (::posix_spawn(&pid_, kPython, nullptr, nullptr, argv.data(), environ) != 0) pid_ = -1;
    if (pid_ > 0 && WaitForFile(mail_.File("ready"), std::chrono::seconds(30))) {
      port_ = std::stoi(ReadAll(mail_.File("ready")));
    }
  }
  ~AiosmtpdServer() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    for (int i = 0; i < 500; ++i) {
      if (::waitpid(pid_, nullptr, WNOHANG) == pid_) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  int port() const { return port_; }
  // The path of message n (1-based) once it has arrived, or "".
  std::string Message(int n) const {
    const std::string path = mail_.File(std::to_string(n) + ".eml");
    return WaitForFile(path, std::chrono::seconds(10)) ? path : std::string();
  }
  std::string Envelope(int n) const { return ReadAll(mail_.File(std::to_string(n) + ".env")); }
  bool HasMessage(int n) const {
    return std::filesystem::exists(mail_.File(std::to_string(n) + ".eml"));
  }

 private:
  TempFolder mail_;
  pid_t pid_ = -1;
  int port_ = 0;
};

// A CA and two server certificates: one for 127.0.0.1, one for another name.
class Certificates {
 public:
  Certificates() {
    const std::string d = folder_.path();
    const std::string ec = " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes ";
    const std::string script =
        "cd '" + d + "' && openssl req -x509" + ec +
        "-keyout ca.key -out ca.pem -days 2 -subj '/CN=quillo test CA'"
        " -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign,cRLSign"
        " && openssl req" +
        ec +
        "-keyout good.key -out good.csr -subj '/CN=127.0.0.1'"
        " && printf 'subjectAltName=IP:127.0.0.1\\nbasicConstraints=CA:FALSE\\n' > good.ext"
        " && openssl x509 -req -in good.csr -CA ca.pem -CAkey ca.key -CAcreateserial"
        " -out good.pem -days 2 -extfile good.ext"
        " && openssl req" +
        ec +
        "-keyout other.key -out other.csr -subj '/CN=other.test'"
        " && printf 'subjectAltName=DNS:other.test\\nbasicConstraints=CA:FALSE\\n' > other.ext"
        " && openssl x509 -req -in other.csr -CA ca.pem -CAkey ca.key -CAcreateserial"
        " -out other.pem -days 2 -extfile other.ext";
    ok_ = std::system(("(" + script + ") >/dev/null 2>&1").c_str()) == 0;
  }
  bool ok() const { return ok_; }
  std::string File(const std::string& name) const { return folder_.File(name); }

 private:
  TempFolder folder_;
  bool ok_ = false;
};

// One parsed-message description line per entry.
std::vector<std::string> Describe(const std::string& path) {
  std::vector<std::string> lines;
  std::stringstream s(
      Capture(std::string(kPython) + " '" + kSupport + "/mime_check.py' '" + path + "'"));
  for (std::string line; std::getline(s, line);) lines.push_back(line);
  return lines;
}

bool Contains(const std::vector<std::string>& lines, const std::string& line) {
  for (const auto& l : lines) {
    if (l == line) return true;
  }
  return false;
}

std::string Join(const std::vector<std::string>& lines) {
  std::string out;
  for (const auto& l : lines) out += l + "\n";
  return out;
}

std::string RandomBytes(size_t n) {
  std::mt19937 rng(1234);
  std::string s(n, '\0');
  for (auto& c : s) c = static_cast<char>(rng() & 0xFF);
  return s;
}

struct Client {
  explicit Client(std::shared_ptr<TcpSocketControl> s, int port) : socket(std::move(s)) {
    smtp = std::make_shared<ardESMTP>();
    smtp->WS(socket);
    ForwardEvents(socket, smtp);
    smtp->MailServer("127.0.0.1");
    smtp->Domain("client.test");
    smtp->Port(port);
    smtp->CommandTimeout(5);
    smtp->CommandDataTimeout(5);
    smtp->Sender("sender@client.test");
    smtp->SenderFriendly("Quillo Sender");
  }
  std::shared_ptr<TcpSocketControl> socket;
  std::shared_ptr<ardESMTP> smtp;
};

class AiosmtpdTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { certificates_ = new Certificates(); }
  static void TearDownTestSuite() {
    delete certificates_;
    certificates_ = nullptr;
  }
  static Certificates* certificates_;
};
Certificates* AiosmtpdTest::certificates_ = nullptr;

TEST_F(AiosmtpdTest, PlainTcpWithAuthLoginDeliversTheSinglePartMessageAsSent) {
  AiosmtpdServer server({"", "", "mailer", "pa55word"});
  ASSERT_NE(server.port(), 0) << "aiosmtpd did not start";
  Client c(std::make_shared<TcpSocketControl>(), server.port());
  c.smtp->UseAuthentication(true);
  c.smtp->AccountName("mailer");
  c.smtp->AccountPassword("pa55word");
  c.smtp->MsgSubject("Plain hello");
  c.smtp->MsgReplyTo("replies@client.test");
  c.smtp->XPriority(3);
  c.smtp->AddCustomHeader("X-Campaign: 7");
  c.smtp->MsgBody("First line\r\nSecond line\r\n");
  c.smtp->AddRecipient("one@server.test");
  c.smtp->Send();
  EXPECT_EQ(c.smtp->rc(), 221) << c.smtp->Transcript();
  const std::string path = server.Message(1);
  ASSERT_FALSE(path.empty()) << c.smtp->Transcript();
  const std::string sent = c.smtp->MessageBuffer();
  EXPECT_EQ(ReadAll(path), sent.substr(0, sent.size() - 3));  // Less the ".\r\n" end marker.
  EXPECT_EQ(server.Envelope(1), "sender@client.test\none@server.test\n");
  const auto d = Describe(path);
  EXPECT_TRUE(Contains(d, "multipart 0")) << Join(d);
  EXPECT_TRUE(Contains(d, "defects 0")) << Join(d);
  EXPECT_TRUE(Contains(d, "header From: \"Quillo Sender\" <sender@client.test>")) << Join(d);
  EXPECT_TRUE(Contains(d, "header To: one@server.test")) << Join(d);
  EXPECT_TRUE(Contains(d, "header Subject: Plain hello")) << Join(d);
  EXPECT_TRUE(Contains(d, "header Reply-To: replies@client.test")) << Join(d);
  EXPECT_TRUE(Contains(d, "header X-Priority: 3")) << Join(d);
  EXPECT_TRUE(Contains(d, "header X-Campaign: 7")) << Join(d);
  // The end-of-data marker starts with its own line end, so a body that ends
  // in one arrives with an empty line after it.
  const std::string body = "First line\r\nSecond line\r\n\r\n";
  EXPECT_TRUE(Contains(d, "part 0 type=text/plain disposition=- filename=- cid=- size=" +
                              std::to_string(body.size()) + " sha256=" + Sha256Hex(body)))
      << Join(d);
}

TEST_F(AiosmtpdTest, WrongPasswordIsRefusedWith535AndNothingIsDelivered) {
  AiosmtpdServer server({"", "", "mailer", "pa55word"});
  ASSERT_NE(server.port(), 0);
  Client c(std::make_shared<TcpSocketControl>(), server.port());
  c.smtp->UseAuthentication(true);
  c.smtp->AccountName("mailer");
  c.smtp->AccountPassword("guess");
  c.smtp->AddRecipient("one@server.test");
  c.smtp->Send();
  EXPECT_EQ(c.smtp->rc(), 535) << c.smtp->Transcript();
  EXPECT_EQ(c.smtp->Transcript().find("MAIL FROM"), std::string::npos);
  EXPECT_FALSE(server.HasMessage(1));
}

TEST_F(AiosmtpdTest, MultipartWithAttachmentsAndInlinePartParsesIntoTheSentParts) {
  AiosmtpdServer server({"", "", "", ""});
  ASSERT_NE(server.port(), 0);
  TempFolder files;
  const std::string pdf = RandomBytes(100 * 1024 + 17);
  const std::string gif = RandomBytes(3001);
  const std::string empty;
  Client c(std::make_shared<TcpSocketControl>(), server.port());
  c.smtp->MsgSubject("With parts");
  c.smtp->MsgContentType("text/html");
  c.smtp->MsgBody("<p>See <img src=\"cid:logo@q\"></p>");
  c.smtp->AddAttachment(files.Write("report.pdf", pdf));
  c.smtp->AddAttachmentAsInline(files.Write("logo.gif", gif), std::string("<logo@q>"));
  c.smtp->AddAttachment(files.Write("empty.txt", empty), std::nullopt, std::string("Nothing.txt"));
  c.smtp->AddRecipient("a@server.test");
  c.smtp->AddRecipient("b@server.test");
  c.smtp->Send();
  EXPECT_EQ(c.smtp->rc(), 221) << c.smtp->Transcript();
  for (int n = 1; n <= 2; ++n) {
    const std::string path = server.Message(n);
    ASSERT_FALSE(path.empty()) << c.smtp->Transcript();
    const auto d = Describe(path);
    EXPECT_TRUE(Contains(d, "multipart 1")) << Join(d);
    EXPECT_TRUE(Contains(d, "defects 0")) << Join(d);
    EXPECT_TRUE(Contains(d, std::string("header To: ") + (n == 1 ? "a" : "b") + "@server.test"));
    EXPECT_TRUE(Contains(d, "header Content-Type: multipart/mixed;")) << Join(d);
    EXPECT_TRUE(Contains(d, "        boundary=\"" + c.smtp->Boundary() + "\"")) << Join(d);
    const std::string body = "<p>See <img src=\"cid:logo@q\"></p>\r\n";
    EXPECT_TRUE(Contains(d, "part 0 type=text/html disposition=- filename=- cid=- size=" +
                                std::to_string(body.size()) + " sha256=" + Sha256Hex(body)))
        << Join(d);
    EXPECT_TRUE(Contains(d,
                         "part 1 type=application/x-pdf disposition=attachment "
                         "filename=report.pdf cid=- size=" +
                             std::to_string(pdf.size()) + " sha256=" + Sha256Hex(pdf)))
        << Join(d);
    EXPECT_TRUE(Contains(d,
                         "part 2 type=image/gif disposition=inline filename=logo.gif cid=<logo@q> "
                         "size=" +
                             std::to_string(gif.size()) + " sha256=" + Sha256Hex(gif)))
        << Join(d);
    EXPECT_TRUE(Contains(d,
                         "part 3 type=text/plain disposition=attachment "
                         "filename=Nothing.txt cid=- size=0 sha256=" +
                             Sha256Hex("")))
        << Join(d);
  }
}

TEST_F(AiosmtpdTest, ImplicitTlsWithTheTrustedCaDelivers) {
  ASSERT_TRUE(certificates_->ok()) << "openssl could not make the certificates";
  AiosmtpdServer server(
      {certificates_->File("good.pem"), certificates_->File("good.key"), "mailer", "pa55word"});
  ASSERT_NE(server.port(), 0);
  auto socket = std::make_shared<TlsSocketControl>();
  socket->CAFile(certificates_->File("ca.pem"));
  Client c(socket, server.port());
  c.smtp->UseAuthentication(true);
  c.smtp->AccountName("mailer");
  c.smtp->AccountPassword("pa55word");
  c.smtp->MsgSubject("Over TLS");
  c.smtp->MsgBody("secret body");
  c.smtp->AddRecipient("tls@server.test");
  c.smtp->Send();
  EXPECT_EQ(c.smtp->rc(), 221) << c.smtp->Transcript();
  const std::string path = server.Message(1);
  ASSERT_FALSE(path.empty()) << c.smtp->Transcript();
  const std::string sent = c.smtp->MessageBuffer();
  EXPECT_EQ(ReadAll(path), sent.substr(0, sent.size() - 3));
  EXPECT_FALSE(c.smtp->TransportFailed());
}

TEST_F(AiosmtpdTest, ImplicitTlsRefusesACertificateFromAnUntrustedCa) {
  ASSERT_TRUE(certificates_->ok());
  AiosmtpdServer server({certificates_->File("good.pem"), certificates_->File("good.key"), "", ""});
  ASSERT_NE(server.port(), 0);
  Client c(std::make_shared<TlsSocketControl>(), server.port());  // System roots only.
  c.smtp->AddRecipient("tls@server.test");
  c.smtp->Send();
  EXPECT_EQ(c.smtp->rc(), 999);
  EXPECT_EQ(c.smtp->WinsockErrorNumber(), SocketControl::kErrSecurity);
  EXPECT_NE(c.smtp->WinsockErrorDescription().find("verif"), std::string::npos)
      << c.smtp->WinsockErrorDescription();
  EXPECT_FALSE(server.HasMessage(1));
}

TEST_F(AiosmtpdTest, ImplicitTlsRefusesACertificateForAnotherHost) {
  ASSERT_TRUE(certificates_->ok());
  AiosmtpdServer server(
      {certificates_->File("other.pem"), certificates_->File("other.key"), "", ""});
  ASSERT_NE(server.port(), 0);
  auto socket = std::make_shared<TlsSocketControl>();
  socket->CAFile(certificates_->File("ca.pem"));
  Client c(socket, server.port());
  c.smtp->AddRecipient("tls@server.test");
  c.smtp->Send();
  EXPECT_EQ(c.smtp->rc(), 999);
  EXPECT_EQ(c.smtp->WinsockErrorNumber(), SocketControl::kErrSecurity);
  EXPECT_NE(c.smtp->WinsockErrorDescription().find("mismatch"), std::string::npos)
      << c.smtp->WinsockErrorDescription();
  EXPECT_FALSE(server.HasMessage(1));
}

TEST_F(AiosmtpdTest, VerificationCanBeTurnedOff) {
  ASSERT_TRUE(certificates_->ok());
  AiosmtpdServer server(
      {certificates_->File("other.pem"), certificates_->File("other.key"), "", ""});
  ASSERT_NE(server.port(), 0);
  auto socket = std::make_shared<TlsSocketControl>();
  socket->VerifyPeer(false);
  Client c(socket, server.port());
  c.smtp->AddRecipient("tls@server.test");
  c.smtp->Send();
  EXPECT_EQ(c.smtp->rc(), 221) << c.smtp->Transcript();
  EXPECT_FALSE(server.Message(1).empty());
}

}  // namespace
}  // namespace quillo
