// Helpers for the message suites: a temporary folder, a clock that stands
// still, client records, and a recording stand-in for the SMTP client that
// notes every property set and method called on it by name, in order.
#ifndef QUILLO_TESTS_MESSAGE_MESSAGE_TEST_UTIL_H_
#define QUILLO_TESTS_MESSAGE_MESSAGE_TEST_UTIL_H_

#include <stdlib.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/date.h"
#include "platform/object.h"
#include "platform/text.h"
#include "platform/variant.h"
#include "records/dmclients.h"

namespace quillo::message_test {

// A fresh folder under the system's temporary folder, removed at the end.
class TempFolder {
 public:
  TempFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "quillo-msg-XXXXXX").string();
    path_ = ::mkdtemp(pattern.data());
  }
  ~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;
  // The path of `name` inside the folder.
  std::string File(const std::string& name) const { return path_ + "/" + name; }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Installs a clock for the life of the object and restores the previous one.
class ClockGuard {
 public:
  explicit ClockGuard(ClockFunction clock) : previous_(SetClock(std::move(clock))) {}
  ~ClockGuard() { SetClock(previous_); }
  ClockGuard(const ClockGuard&) = delete;
  ClockGuard& operator=(const ClockGuard&) = delete;

 private:
  ClockFunction previous_;
};

// The folder of the committed test files.
inline std::string TestData(const std::string& name) {
  const char* root = std::getenv("QUILLO_TEST_DATA");
  return std::string(root ? root : "tests/data") + "/message/" + name;
}

// A client with every field personalisation reads filled in.
inline std::shared_ptr<dmclients> FilledClient() {
  auto c = std::make_shared<dmclients>();
  c->First("John");
  c->Middle("Q");
  c->Last("Smith");
  c->Address("1 Main St");
  c->PO("PO Box 7");
  c->city("Springfield");
  c->state("IL");
  c->Country("USA");
  c->zip("62701");
  c->Company("Acme");
  c->Email("john@example.com");
  return c;
}

// One call the stand-in received.
struct SmtpCall {
  std::string name;           // Member name as published.
  CallKind kind;              // Put or method (gets are not recorded).
  std::vector<Variant> args;  // The arguments, as passed.
};

// Records what dmMessage does to its SMTP client. Properties read back what
// was last put; Send returns `send_result`.
class RecordingSmtp : public Object {
 public:
  const MemberTable& Members() const override {
    static const MemberTable table = Build();
    return table;
  }

  // The recorded calls, in order.
  std::vector<SmtpCall> calls;
  // The result of Send.
  std::int16_t send_result = 0;
  // The last value put to each property (lower-case name).
  std::map<std::string, Variant> properties;

  // The calls rendered one per line, "Name=value" for puts and
  // "Name(arg, arg)" for methods, for whole-sequence comparisons.
  std::vector<std::string> Trace() const {
    std::vector<std::string> out;
    for (const SmtpCall& c : calls) {
      std::string line = c.name;
      if (c.kind == CallKind::kPut) {
// GCC 12 at -O3 reports -Wrestrict inside libstdc++ for "x" + std::string&&
// where no overlap is possible (GCC bug 105329).
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wrestrict"
        line += "=" + c.args.back().ToString();
#pragma GCC diagnostic pop
      } else {
        line += "(";
        for (size_t i = 0; i < c.args.size(); ++i) {
          line += (i ? ", " : "") + c.args[i].ToString();
        }
        line += ")";
      }
      out.push_back(line);
    }
    return out;
  }

  // The value put last to `name`, or Empty.
  Variant Property(const std::string& name) const {
    auto it = properties.find(LCase(name));
    return it == properties.end() ? Variant() : it->second;
  }

 private:
  static MemberTable Build() {
    MemberTable::Builder<RecordingSmtp> b("RecordingSmtp");
    const char* properties[] = {"MsgContentType",     "MsgSubject",     "MsgBody",
                                "SenderFriendly",     "Sender",         "MsgReplyTo",
                                "MsgContentEncoding", "MsgMimeVersion", "CommandDataTimeout",
                                "CommandTimeout",     "XMailer",        "XMimeOLE",
                                "Importance",         "Sensitivity",    "DispositionNotificationTo",
                                "XPriority",          "AccountName",    "AccountPassword",
                                "MailServer",         "Port",           "UseAuthentication"};
    for (const char* p : properties) {
      const std::string name = p;
      b.Raw(Member{name, CallKind::kGet, 0, 0, [name](Object& self, std::span<const Variant>) {
                     return static_cast<RecordingSmtp&>(self).Property(name);
                   }});
      b.Raw(Member{name, CallKind::kPut, 1, 1, [name](Object& self, std::span<const Variant> args) {
                     auto& smtp = static_cast<RecordingSmtp&>(self);
                     smtp.properties[LCase(name)] = args[0];
                     smtp.calls.push_back({name, CallKind::kPut, {args.begin(), args.end()}});
                     return Variant();
                   }});
    }
    const std::pair<const char*, int> methods[] = {{"AddCustomHeader", 1},
                                                   {"ClearAttachments", 0},
                                                   {"AddAttachment", 3},
                                                   {"AddAttachmentAsInline", 4},
                                                   {"ClearRecipients", 0},
                                                   {"AddRecipient", 1},
                                                   {"Send", 0}};
    for (const auto& [m, arity] : methods) {
      const std::string name = m;
      const int min = (name == "AddAttachment" || name == "AddAttachmentAsInline") ? 1 : arity;
      b.Raw(Member{name, CallKind::kMethod, min, arity,
                   [name](Object& self, std::span<const Variant> args) {
                     auto& smtp = static_cast<RecordingSmtp&>(self);
                     smtp.calls.push_back({name, CallKind::kMethod, {args.begin(), args.end()}});
                     if (name == "Send") return Variant(smtp.send_result);
                     return Variant();
                   }});
    }
    return b.Build();
  }
};

}  // namespace quillo::message_test

#endif  // QUILLO_TESTS_MESSAGE_MESSAGE_TEST_UTIL_H_
