#include "smtp/session.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <idn2.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "codec/base64.h"
#include "platform/socket.h"

namespace quillo::smtp {

namespace {

using Clock = std::chrono::steady_clock;

Outcome Make(OutcomeKind kind, std::string reason, const Reply* reply = nullptr) {
  Outcome o;
  o.kind = kind;
  o.reason = std::move(reason);
  if (reply != nullptr) {
    o.code = reply->code;
    o.enhanced = reply->enhanced;
    o.reply = reply->Text();
    o.reason += ": " + o.reply;
  }
  return o;
}

// The outcome a reply decides: deferred for 4xx, refused for 5xx (and for
// anything else unexpected, which a server would not send by mistake).
Outcome FromReply(const std::string& what, const Reply& reply) {
  OutcomeKind kind = reply.Class() == 4 ? OutcomeKind::kDeferred : OutcomeKind::kRefused;
  if (reply.malformed) kind = OutcomeKind::kFailed;
  return Make(kind, what, &reply);
}

std::string OpenSslError() {
  unsigned long e = ERR_get_error();
  if (e == 0) return "TLS failure";
  char text[256];
  ERR_error_string_n(e, text, sizeof text);
  ERR_clear_error();
  return text;
}

bool IsIpAddress(const std::string& host) {
  unsigned char buffer[sizeof(in6_addr)];
  return inet_pton(AF_INET, host.c_str(), buffer) == 1 ||
         inet_pton(AF_INET6, host.c_str(), buffer) == 1;
}

// Why `address` cannot go into a MAIL or RCPT command, or "" when it can.
std::string AddressProblem(std::string_view address) {
  for (unsigned char c : address) {
    if (c < 0x20 || c == 0x7f) return "it holds a control character (a line break?)";
    if (c == ' ' || c == '<' || c == '>') return "it holds a blank or an angle bracket";
  }
  if (address.size() > 254) return "it is longer than 254 characters";
  return {};
}

bool IsAscii(std::string_view text) {
  for (unsigned char c : text) {
    if (c >= 0x80) return false;
  }
  return true;
}

}  // namespace

const char* OutcomeName(OutcomeKind kind) {
  switch (kind) {
    case OutcomeKind::kAccepted:
      return "accepted";
    case OutcomeKind::kDeferred:
      return "deferred";
    case OutcomeKind::kRefused:
      return "refused";
    case OutcomeKind::kFailed:
      break;
  }
  return "failed";
}

void OverrideTimeouts(Timeouts& timeouts, std::chrono::seconds each) {
  timeouts.connect = timeouts.greeting = timeouts.mail = timeouts.rcpt = each;
  timeouts.data_initiation = timeouts.data_block = timeouts.data_termination = each;
}

// --- Transport: a TCP connection, TLS on top once started -------------------

class Session::Transport {
 public:
  ~Transport() {
    if (ssl_ != nullptr) SSL_free(ssl_);
    if (ctx_ != nullptr) SSL_CTX_free(ctx_);
    if (fd_ >= 0) ::close(fd_);
  }

  // Connects to host:port within `timeout`; "" on success, else why not.
  std::string Connect(const std::string& host, int port, std::chrono::seconds timeout) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_family = AF_UNSPEC;
    addrinfo* found = nullptr;
    int rc = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (rc != 0) return "cannot resolve " + host + ": " + gai_strerror(rc);
    std::string why = "no address";
    for (addrinfo* a = found; a != nullptr; a = a->ai_next) {
      int fd = ::socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
      if (fd < 0) continue;
      fcntl(fd, F_SETFL, O_NONBLOCK);
      if (::connect(fd, a->ai_addr, a->ai_addrlen) != 0 && errno != EINPROGRESS) {
        why = std::strerror(errno);
        ::close(fd);
        continue;
      }
      pollfd p{fd, POLLOUT, 0};
      int ready = ::poll(&p, 1, static_cast<int>(timeout.count() * 1000));
      int error = 0;
      socklen_t len = sizeof error;
      if (ready <= 0) {
        why = ready == 0 ? "connection timed out" : std::strerror(errno);
        ::close(fd);
        continue;
      }
      getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &len);
      if (error != 0) {
        why = std::strerror(error);
        ::close(fd);
        continue;
      }
      if (ConnectedToItself(fd)) {  // Nothing listens there: as if refused.
        why = std::strerror(ECONNREFUSED);
        ::close(fd);
        continue;
      }
      int one = 1;
      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
      fd_ = fd;
      break;
    }
    freeaddrinfo(found);
    return fd_ >= 0 ? std::string() : why;
  }

  // Starts TLS on the connection; "" on success, else why not.
  std::string StartTls(const SessionOptions& options, std::chrono::seconds timeout) {
    ctx_ = SSL_CTX_new(TLS_client_method());
    if (ctx_ == nullptr) return OpenSslError();
    SSL_CTX_set_min_proto_version(ctx_, TLS1_2_VERSION);
    if (options.verify_certificate) {
      SSL_CTX_set_verify(ctx_, SSL_VERIFY_PEER, nullptr);
      SSL_CTX_set_default_verify_paths(ctx_);
      if (!options.ca_file.empty() &&
          SSL_CTX_load_verify_locations(ctx_, options.ca_file.c_str(), nullptr) != 1) {
        return "cannot read CA file '" + options.ca_file + "': " + OpenSslError();
      }
    }
    ssl_ = SSL_new(ctx_);
    if (ssl_ == nullptr) return OpenSslError();
    SSL_set_fd(ssl_, fd_);
    if (options.verify_certificate) {
      X509_VERIFY_PARAM* param = SSL_get0_param(ssl_);
      if (IsIpAddress(options.host)) {
        X509_VERIFY_PARAM_set1_ip_asc(param, options.host.c_str());
      } else {
        X509_VERIFY_PARAM_set1_host(param, options.host.c_str(), 0);
      }
    }
    if (!IsIpAddress(options.host)) SSL_set_tlsext_host_name(ssl_, options.host.c_str());
    Clock::time_point deadline = Clock::now() + timeout;
    while (true) {
      int rc = SSL_connect(ssl_);
      if (rc == 1) break;
      int err = SSL_get_error(ssl_, rc);
      short events = err == SSL_ERROR_WANT_READ    ? POLLIN
                     : err == SSL_ERROR_WANT_WRITE ? POLLOUT
                                                   : 0;
      if (events == 0) {
        long verify = SSL_get_verify_result(ssl_);
        if (verify != X509_V_OK) {
          return std::string("certificate not trusted: ") + X509_verify_cert_error_string(verify);
        }
        return "TLS handshake failed: " + OpenSslError();
      }
      if (!Wait(events, deadline)) return "TLS handshake timed out";
    }
    return {};
  }

  bool tls() const { return ssl_ != nullptr; }

  // Writes all of `bytes` before `deadline`; "" on success, else why not.
  std::string WriteAll(std::string_view bytes, Clock::time_point deadline) {
    while (!bytes.empty()) {
      long n;
      if (ssl_ != nullptr) {
        int rc = SSL_write(ssl_, bytes.data(),
                           static_cast<int>(std::min<size_t>(bytes.size(), 1 << 30)));
        if (rc <= 0) {
          int err = SSL_get_error(ssl_, rc);
          if (err == SSL_ERROR_WANT_WRITE || err == SSL_ERROR_WANT_READ) {
            if (!Wait(err == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, deadline)) return "timed out";
            continue;
          }
          return "connection lost: " + OpenSslError();
        }
        n = rc;
      } else {
        n = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (n < 0) {
          if (errno == EINTR) continue;
          if (errno == EAGAIN || errno == EWOULDBLOCK) {
            if (!Wait(POLLOUT, deadline)) return "timed out";
            continue;
          }
          return std::string("connection lost: ") + std::strerror(errno);
        }
      }
      bytes.remove_prefix(static_cast<size_t>(n));
    }
    return {};
  }

  // Reads what is there (waiting until `deadline` for the first byte) into
  // `out`; "" on success, "closed" when the server closed, else why not.
  std::string ReadSome(std::string& out, Clock::time_point deadline) {
    char buffer[16384];
    while (true) {
      long n;
      if (ssl_ != nullptr) {
        int rc = SSL_read(ssl_, buffer, sizeof buffer);
        if (rc <= 0) {
          int err = SSL_get_error(ssl_, rc);
          if (err == SSL_ERROR_WANT_READ || err == SSL_ERROR_WANT_WRITE) {
            if (!Wait(err == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, deadline)) return "timed out";
            continue;
          }
          if (err == SSL_ERROR_ZERO_RETURN || (err == SSL_ERROR_SYSCALL && ERR_peek_error() == 0)) {
            return "closed";
          }
          return "connection lost: " + OpenSslError();
        }
        n = rc;
      } else {
        n = ::recv(fd_, buffer, sizeof buffer, 0);
        if (n == 0) return "closed";
        if (n < 0) {
          if (errno == EINTR) continue;
          if (errno == EAGAIN || errno == EWOULDBLOCK) {
            if (!Wait(POLLIN, deadline)) return "timed out";
            continue;
          }
          return std::string("connection lost: ") + std::strerror(errno);
        }
      }
      out.append(buffer, static_cast<size_t>(n));
      return {};
    }
  }

  // The local address as an address literal, "[127.0.0.1]" or "[IPv6:...]".
  std::string LocalLiteral() const {
    sockaddr_storage addr{};
    socklen_t len = sizeof addr;
    if (getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) return "[127.0.0.1]";
    char text[INET6_ADDRSTRLEN] = {};
    if (addr.ss_family == AF_INET6) {
      auto* a6 = reinterpret_cast<sockaddr_in6*>(&addr);
      if (IN6_IS_ADDR_V4MAPPED(&a6->sin6_addr)) {
        inet_ntop(AF_INET, &a6->sin6_addr.s6_addr[12], text, sizeof text);
        return std::string("[") + text + "]";
      }
      inet_ntop(AF_INET6, &a6->sin6_addr, text, sizeof text);
      return std::string("[IPv6:") + text + "]";
    }
    inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(&addr)->sin_addr, text, sizeof text);
    return std::string("[") + text + "]";
  }

  void ShutdownTls() {
    if (ssl_ != nullptr) SSL_shutdown(ssl_);
  }

 private:
  bool Wait(short events, Clock::time_point deadline) {
    while (true) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
      if (left.count() <= 0) return false;
      pollfd p{fd_, events, 0};
      int rc = ::poll(&p, 1, static_cast<int>(std::min<long long>(left.count(), 1 << 30)));
      if (rc > 0) return true;  // Ready, or hung up: the read or write tells which.
      if (rc < 0 && errno != EINTR) return false;
    }
  }

  int fd_ = -1;
  SSL_CTX* ctx_ = nullptr;
  SSL* ssl_ = nullptr;
};

// --- Session -----------------------------------------------------------------

Session::Session(SessionOptions options) : options_(std::move(options)) {}

Session::~Session() { Close(); }

bool Session::IsOpen() const { return transport_ != nullptr; }

void Session::Drop() {
  transport_.reset();
  parser_.Reset();
  capabilities_ = Capabilities();
  messages_on_connection_ = 0;
  transaction_open_ = false;
  announced_.reset();
}

void Session::Close() {
  if (!transport_) return;
  if (announced_) {
    // The next message's DATA may have been taken: a QUIT now would be read
    // as its data, so the connection is closed without one, which leaves
    // that transaction unended and so undelivered.
    Drop();
    return;
  }
  Reply reply;
  Outcome ignored;
  Command("QUIT", std::min(options_.timeouts.greeting, std::chrono::seconds(5)), &reply, &ignored);
  transport_->ShutdownTls();
  Drop();
}

std::string Session::HeloName() const {
  if (!options_.helo_name.empty()) return options_.helo_name;
  char host[256] = {};
  if (gethostname(host, sizeof host - 1) == 0 && std::strchr(host, '.') != nullptr) return host;
  if (host[0] != '\0') {
    addrinfo hints{};
    hints.ai_flags = AI_CANONNAME;
    addrinfo* found = nullptr;
    if (getaddrinfo(host, nullptr, &hints, &found) == 0) {
      std::string canonical =
          found != nullptr && found->ai_canonname != nullptr ? found->ai_canonname : "";
      freeaddrinfo(found);
      if (canonical.find('.') != std::string::npos) return canonical;
    }
  }
  return transport_ ? transport_->LocalLiteral() : "[127.0.0.1]";
}

bool Session::Write(std::string_view bytes, std::chrono::seconds timeout, Outcome* failure) {
  std::string why = transport_->WriteAll(bytes, Clock::now() + timeout);
  if (why.empty()) return true;
  *failure = Make(OutcomeKind::kFailed, "sending to the server failed: " + why);
  Drop();
  return false;
}

bool Session::ReadReply(std::chrono::seconds timeout, Reply* reply, Outcome* failure) {
  Clock::time_point deadline = Clock::now() + timeout;
  while (true) {
    if (auto next = parser_.Next()) {
      *reply = std::move(*next);
      if (options_.trace) options_.trace("S: " + reply->Text());
      if (reply->malformed) {
        *failure = Make(OutcomeKind::kFailed, "the server sent a malformed reply", reply);
        Drop();
        return false;
      }
      return true;
    }
    std::string chunk;
    std::string why = transport_->ReadSome(chunk, deadline);
    if (!why.empty()) {
      *failure = Make(OutcomeKind::kFailed, why == "closed" ? "the server closed the connection"
                                                            : "no reply from the server: " + why);
      Drop();
      return false;
    }
    parser_.Feed(chunk);
  }
}

void Session::Sent(std::string_view line) {
  // A session reused for a million messages keeps only the recent lines.
  if (transcript_.size() >= 2 * kTranscriptLines) {
    transcript_.erase(transcript_.begin(), transcript_.end() - kTranscriptLines);
  }
  transcript_.emplace_back(line);
  if (options_.trace) options_.trace("C: " + std::string(line));
}

bool Session::Command(std::string_view line, std::chrono::seconds timeout, Reply* reply,
                      Outcome* failure, bool secret) {
  Sent(secret ? std::string_view("AUTH ****") : line);
  std::string bytes(line);
  bytes += "\r\n";
  return Write(bytes, timeout, failure) && ReadReply(timeout, reply, failure);
}

Outcome Session::Open() {
  if (transport_) return Make(OutcomeKind::kAccepted, "session open");
  Outcome o = OpenOnce();
  if (o.kind != OutcomeKind::kAccepted) Drop();
  return o;
}

Outcome Session::OpenOnce() {
  transport_ = std::make_unique<Transport>();
  parser_.Reset();
  std::string why = transport_->Connect(options_.host, options_.port, options_.timeouts.connect);
  if (!why.empty()) {
    return Make(OutcomeKind::kFailed, "cannot connect to " + options_.host + ":" +
                                          std::to_string(options_.port) + ": " + why);
  }
  if (options_.tls == TlsMode::kImplicit) {
    why = transport_->StartTls(options_, options_.timeouts.greeting);
    if (!why.empty()) return Make(OutcomeKind::kFailed, why);
  }
  Outcome o = Greet();
  if (o.kind != OutcomeKind::kAccepted) return o;
  o = Hello(false);
  if (o.kind != OutcomeKind::kAccepted) return o;
  if (!transport_->tls() && options_.tls != TlsMode::kNone) {
    if (capabilities_.starttls) {
      o = StartTls();
      if (o.kind != OutcomeKind::kAccepted) return o;
    } else if (options_.tls == TlsMode::kRequired) {
      return Make(OutcomeKind::kFailed, "the server does not offer STARTTLS, and TLS is required");
    }
  }
  capabilities_.tls_active = transport_->tls();
  if (!options_.user.empty()) {
    o = Authenticate();
    if (o.kind != OutcomeKind::kAccepted) return o;
  }
  messages_on_connection_ = 0;
  return Make(OutcomeKind::kAccepted, "session open");
}

Outcome Session::Greet() {
  Reply reply;
  Outcome failure;
  if (!ReadReply(options_.timeouts.greeting, &reply, &failure)) return failure;
  if (reply.code != 220) return FromReply("the server refused the session", reply);
  return Make(OutcomeKind::kAccepted, "greeted");
}

Outcome Session::Hello(bool after_tls) {
  Reply reply;
  Outcome failure;
  std::string name = HeloName();
  capabilities_ = Capabilities();
  if (!Command("EHLO " + name, options_.timeouts.greeting, &reply, &failure)) return failure;
  if (reply.code == 250) {
    capabilities_.esmtp = true;
    for (size_t i = 1; i < reply.lines.size(); ++i) {
      std::string line = reply.lines[i];
      for (char& c : line) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
      std::string keyword = line.substr(0, line.find(' '));
      if (keyword == "STARTTLS") capabilities_.starttls = true;
      if (keyword == "PIPELINING") capabilities_.pipelining = true;
      if (keyword == "8BITMIME") capabilities_.eight_bit_mime = true;
      if (keyword == "SMTPUTF8") capabilities_.smtputf8 = true;
      if (keyword == "ENHANCEDSTATUSCODES") capabilities_.enhanced_status_codes = true;
      if (keyword == "SIZE") {
        capabilities_.size = true;
        if (line.size() > 5) capabilities_.max_size = std::strtoull(line.c_str() + 5, nullptr, 10);
      }
      if (keyword == "AUTH" || line.rfind("AUTH=", 0) == 0) {
        size_t pos = line.find_first_of(" =");
        while (pos != std::string::npos) {
          size_t start = pos + 1;
          pos = line.find(' ', start);
          std::string mechanism = line.substr(start, pos == std::string::npos ? pos : pos - start);
          if (!mechanism.empty()) capabilities_.auth.push_back(mechanism);
        }
      }
    }
    return Make(OutcomeKind::kAccepted, "EHLO accepted");
  }
  if (reply.Class() == 5 && !after_tls) {
    if (!Command("HELO " + name, options_.timeouts.greeting, &reply, &failure)) return failure;
    if (reply.code == 250) return Make(OutcomeKind::kAccepted, "HELO accepted");
    return FromReply("HELO refused", reply);
  }
  return FromReply("EHLO refused", reply);
}

Outcome Session::StartTls() {
  Reply reply;
  Outcome failure;
  if (!Command("STARTTLS", options_.timeouts.greeting, &reply, &failure)) return failure;
  if (reply.code != 220) {
    if (options_.tls == TlsMode::kRequired) return FromReply("STARTTLS refused", reply);
    return Make(OutcomeKind::kAccepted, "STARTTLS refused; going on without TLS");
  }
  parser_.Reset();  // Nothing sent before the handshake may be trusted after it.
  std::string why = transport_->StartTls(options_, options_.timeouts.greeting);
  if (!why.empty()) return Make(OutcomeKind::kFailed, why);
  return Hello(true);
}

Outcome Session::Authenticate() {
  if (!transport_->tls() && !options_.allow_plaintext_auth) {
    return Make(OutcomeKind::kFailed,
                "refusing to send the password without TLS (the server offers no STARTTLS); "
                "allow it with --allow-plaintext-auth");
  }
  auto offered = [&](const char* name) {
    for (const auto& m : capabilities_.auth) {
      if (m == name) return true;
    }
    return false;
  };
  Reply reply;
  Outcome failure;
  if (offered("PLAIN")) {
    std::string credentials;
    credentials += '\0';
    credentials += options_.user;
    credentials += '\0';
    credentials += options_.password;
    if (!Command("AUTH PLAIN " + Base64Encode(credentials), options_.timeouts.greeting, &reply,
                 &failure, true)) {
      return failure;
    }
  } else if (offered("LOGIN")) {
    if (!Command("AUTH LOGIN", options_.timeouts.greeting, &reply, &failure)) return failure;
    if (reply.code == 334) {
      if (!Command(Base64Encode(options_.user), options_.timeouts.greeting, &reply, &failure,
                   true)) {
        return failure;
      }
    }
    if (reply.code == 334) {
      if (!Command(Base64Encode(options_.password), options_.timeouts.greeting, &reply, &failure,
                   true)) {
        return failure;
      }
    }
  } else {
    return Make(OutcomeKind::kFailed, "the server offers neither AUTH PLAIN nor AUTH LOGIN");
  }
  if (reply.code != 235) {
    Outcome o = FromReply("authentication failed", reply);
    o.kind = reply.Class() == 4 ? OutcomeKind::kDeferred : OutcomeKind::kFailed;
    return o;
  }
  return Make(OutcomeKind::kAccepted, "authenticated");
}

namespace {

// Why `envelope` cannot be sent at all, whatever the server; empty when it can.
std::optional<Outcome> EnvelopeProblem(const Envelope& envelope) {
  // Nothing from the data may become a command.
  std::vector<std::string> paths;
  paths.push_back(envelope.from);
  paths.insert(paths.end(), envelope.to.begin(), envelope.to.end());
  for (const std::string& path : paths) {
    std::string problem = AddressProblem(path);
    if (!problem.empty()) {
      return Make(OutcomeKind::kRefused,
                  "not sent: the address '" + path + "' is unusable: " + problem);
    }
  }
  if (envelope.to.empty()) return Make(OutcomeKind::kRefused, "not sent: no recipient");
  return std::nullopt;
}

bool SameEnvelope(const Envelope& a, const Envelope& b) {
  return a.from == b.from && a.to == b.to && a.body_8bitmime == b.body_8bitmime &&
         a.smtputf8 == b.smtputf8;
}

}  // namespace

Outcome Session::Send(const Envelope& envelope, std::string_view message) {
  return Send(envelope, message, nullptr, {});
}

Outcome Session::Send(const Envelope& envelope, std::string_view message, const Envelope* next,
                      std::string_view next_message) {
  if (auto problem = EnvelopeProblem(envelope)) {
    if (announced_) Drop();  // Its group went for this message: nothing else may use it.
    return *problem;
  }
  if (next && EnvelopeProblem(*next)) next = nullptr;
  bool retry = false;
  Outcome o = SendOnce(envelope, message, next, next_message, &retry);
  if (retry) o = SendOnce(envelope, message, next, next_message, &retry);
  return o;
}

std::optional<Outcome> Session::Build(const Envelope& envelope, std::string_view message,
                                      std::vector<std::string>* commands, std::string* data) {
  // The addresses as the server can take them.
  bool utf8 = capabilities_.smtputf8 && (envelope.smtputf8 || !IsAscii(envelope.from));
  auto wire_address = [&](const std::string& address, std::string* out) -> std::string {
    if (IsAscii(address) || capabilities_.smtputf8) {
      *out = address;
      return {};
    }
    size_t at = address.rfind('@');
    std::string local = at == std::string::npos ? address : address.substr(0, at);
    if (!IsAscii(local))
      return "its local part is not ASCII and the server does not offer SMTPUTF8";
    char* ascii = nullptr;
    std::string domain = address.substr(at + 1);
    if (idn2_to_ascii_8z(domain.c_str(), &ascii, IDN2_NONTRANSITIONAL) != IDN2_OK) {
      return "its domain cannot be written in ASCII (IDNA)";
    }
    *out = local + "@" + ascii;
    idn2_free(ascii);
    return {};
  };
  std::string from;
  if (std::string why = wire_address(envelope.from, &from); !why.empty()) {
    return Make(OutcomeKind::kRefused, "not sent: the sender '" + envelope.from + "': " + why);
  }
  std::vector<std::string> to(envelope.to.size());
  for (size_t i = 0; i < envelope.to.size(); ++i) {
    if (std::string why = wire_address(envelope.to[i], &to[i]); !why.empty()) {
      return Make(OutcomeKind::kRefused,
                  "not sent: the recipient '" + envelope.to[i] + "': " + why);
    }
  }
  if (envelope.smtputf8 && !capabilities_.smtputf8) {
    return Make(OutcomeKind::kRefused,
                "not sent: the message needs SMTPUTF8, which the server does not offer");
  }
  if (envelope.body_8bitmime && !capabilities_.eight_bit_mime) {
    return Make(OutcomeKind::kRefused,
                "not sent: the message holds 8-bit text and the server does not offer 8BITMIME");
  }

  // The data, dot-stuffed, ending with CRLF "." CRLF.
  data->clear();
  data->reserve(message.size() + message.size() / 64 + 8);
  bool line_start = true;
  for (char c : message) {
    if (line_start && c == '.') *data += '.';
    *data += c;
    line_start = c == '\n';
  }
  if (!line_start) *data += "\r\n";
  *data += ".\r\n";
  if (capabilities_.max_size > 0 && data->size() > capabilities_.max_size) {
    return Make(OutcomeKind::kRefused,
                "not sent: the message is larger than the server's SIZE limit");
  }

  std::string mail = "MAIL FROM:<" + from + ">";
  if (capabilities_.size) mail += " SIZE=" + std::to_string(message.size());
  if (envelope.body_8bitmime) mail += " BODY=8BITMIME";
  if (utf8 || envelope.smtputf8) mail += " SMTPUTF8";
  commands->clear();
  commands->push_back(mail);
  for (const std::string& r : to) commands->push_back("RCPT TO:<" + r + ">");
  if (capabilities_.pipelining) commands->push_back("DATA");
  return std::nullopt;
}

Outcome Session::SendOnce(const Envelope& envelope, std::string_view message, const Envelope* next,
                          std::string_view next_message, bool* retry) {
  bool may_retry = !*retry;
  *retry = false;
  // This message's MAIL, RCPT and DATA went with the end of the last one.
  const bool announced = announced_ && transport_ && SameEnvelope(announced_->envelope, envelope) &&
                         announced_->size == message.size();
  if (announced_ && !announced) Drop();  // A group for another message: its DATA may be open.
  announced_.reset();
  if (!announced && transport_ && options_.max_messages_per_connection > 0 &&
      messages_on_connection_ >= options_.max_messages_per_connection) {
    Close();
  }
  bool fresh = !transport_;
  if (fresh) {
    Outcome o = Open();
    if (o.kind != OutcomeKind::kAccepted) return o;
  }
  Reply reply;
  Outcome failure;
  std::vector<std::string> commands;
  if (auto refused = Build(envelope, message, &commands, &data_)) {
    if (announced) Drop();  // The server holds a group this message will not use.
    return *refused;
  }

  // RSET (only when the last transaction on this connection did not end),
  // MAIL, the RCPTs and DATA: in one write when the server pipelines
  // (RFC 2920 lets DATA end a group), else one by one, stopping at a
  // refused MAIL and sending no DATA when every recipient was refused.
  const bool rset = transaction_open_ && !announced;
  if (rset) commands.insert(commands.begin(), "RSET");
  const size_t first_mail = rset ? 1 : 0;
  const size_t to_count = envelope.to.size();
  const bool pipelined = capabilities_.pipelining;
  auto timeout_of = [&](size_t i) {
    return i < first_mail                          ? options_.timeouts.greeting
           : i == first_mail                       ? options_.timeouts.mail
           : pipelined && i + 1 == commands.size() ? options_.timeouts.data_initiation
                                                   : options_.timeouts.rcpt;
  };
  std::vector<Reply> replies;
  // A connection found broken before the message began is opened afresh once.
  auto broken_early = [&](size_t answered) {
    *retry = may_retry && !fresh && answered <= first_mail;
    return failure;
  };
  transaction_open_ = true;
  if (pipelined) {
    if (!announced) {
      std::string batch;
      for (const auto& c : commands) {
        Sent(c);
        batch += c;
        batch += "\r\n";
      }
      if (!Write(batch, options_.timeouts.mail, &failure)) return broken_early(0);
    }
    for (size_t i = 0; i < commands.size(); ++i) {
      Reply r;
      if (!ReadReply(timeout_of(i), &r, &failure)) return broken_early(i);
      replies.push_back(std::move(r));
    }
  } else {
    for (size_t i = 0; i < commands.size(); ++i) {
      Reply r;
      if (!Command(commands[i], timeout_of(i), &r, &failure)) return broken_early(i);
      bool stop = i <= first_mail && r.Class() != 2;
      replies.push_back(std::move(r));
      if (stop) break;
    }
  }
  ++messages_on_connection_;
  if (rset && replies[0].Class() != 2) {
    bool closing = replies[0].code == 421;
    Drop();
    *retry = may_retry;
    return FromReply(closing ? "the server is closing the connection" : "RSET refused", replies[0]);
  }
  // A pipelined DATA that the server took although the message cannot go
  // (MAIL or every RCPT refused) is ended with a lone dot: nothing of the
  // message is sent.
  auto end_pipelined_data = [&]() {
    if (!pipelined || replies.back().code != 354) return;
    Reply ignored;
    Outcome lost;
    if (Write(".\r\n", options_.timeouts.data_block, &lost) &&
        ReadReply(options_.timeouts.data_termination, &ignored, &lost)) {
      transaction_open_ = false;
    }
  };
  const Reply& mail_reply = replies[first_mail];
  if (mail_reply.code == 421) {
    Drop();
    *retry = may_retry;
    return FromReply("the server is closing the connection", mail_reply);
  }
  if (mail_reply.Class() != 2) {
    end_pipelined_data();
    return FromReply("MAIL FROM refused", mail_reply);
  }
  const Reply* refused_rcpt = nullptr;
  size_t accepted = 0;
  const size_t rcpt_end = first_mail + 1 + to_count;
  for (size_t i = first_mail + 1; i < std::min(rcpt_end, replies.size()); ++i) {
    if (replies[i].Class() == 2) {
      ++accepted;
    } else if (refused_rcpt == nullptr) {
      refused_rcpt = &replies[i];
    }
  }
  if (accepted == 0) {
    // No message when every recipient was refused.
    Outcome o = FromReply("RCPT TO refused", *refused_rcpt);
    if (o.code == 421) {
      Drop();
    } else {
      end_pipelined_data();
    }
    return o;
  }
  if (pipelined) {
    reply = replies.back();
  } else if (!Command("DATA", options_.timeouts.data_initiation, &reply, &failure)) {
    return failure;
  }
  if (reply.code != 354) {
    Outcome o = FromReply("DATA refused", reply);
    if (o.code == 421) Drop();
    return o;
  }
  // The next message's MAIL, RCPT and DATA may follow the end of the data
  // in the same write (RFC 2920 lets the data begin a group): one round
  // trip a message on a busy connection. Only when the next message may use
  // this connection and can go to this server.
  std::optional<Announced> announce;
  if (next && pipelined &&
      (options_.max_messages_per_connection == 0 ||
       messages_on_connection_ < options_.max_messages_per_connection)) {
    std::vector<std::string> next_commands;
    if (!Build(*next, next_message, &next_commands, &next_data_)) {
      for (const std::string& c : next_commands) {
        Sent(c);
        data_ += c;
        data_ += "\r\n";
      }
      announce = Announced{*next, next_message.size()};
    }
  }
  if (!Write(data_, options_.timeouts.data_block, &failure)) return failure;
  announced_ = std::move(announce);
  Reply final_reply;
  if (!ReadReply(options_.timeouts.data_termination, &final_reply, &failure)) return failure;
  // The end of the data ends the transaction, whatever the reply; an
  // announced next message began one.
  transaction_open_ = announced_.has_value();
  if (final_reply.Class() != 2) {
    Outcome o = FromReply("message refused", final_reply);
    if (final_reply.code == 421) Drop();
    return o;
  }
  Outcome o = Make(OutcomeKind::kAccepted, "accepted", &final_reply);
  if (refused_rcpt != nullptr) o.reason += " (some recipients were refused)";
  return o;
}

}  // namespace quillo::smtp
