// A complete small host: one campaign of each kind on a fresh SQLite
// database, run for a date, with the produced messages printed.
//
//   cpp_host [DATABASE_FILE]
//
// It uses the library the way any host does: classes created by name,
// properties and methods by name, the database connection lent to them.
#include <quillo/quillo.h>

#include <cstdio>
#include <string>

using quillo::CallKind;
using quillo::ObjectPtr;
using quillo::Variant;

namespace {

Variant Get(const ObjectPtr& o, const char* name) { return o->Invoke(name, CallKind::kGet); }
void Put(const ObjectPtr& o, const char* name, Variant v) {
  o->Invoke(name, CallKind::kPut, {std::move(v)});
}
Variant Call(const ObjectPtr& o, const char* name, std::vector<Variant> args = {}) {
  return o->Invoke(name, CallKind::kMethod, std::move(args));
}

// A new record of `table`, bound to the connection and an identifier generator.
ObjectPtr NewRecord(const char* table, const ObjectPtr& connection, const ObjectPtr& ids) {
  ObjectPtr r = quillo::CreateObject(table);
  Put(r, "Connection", connection);
  Put(r, "IDGenerator", ids);
  return r;
}

void Save(const ObjectPtr& r) {
  if (!Call(r, "SaveData").ToBool()) {
    throw std::runtime_error("save failed: " + Get(r, "ErrorMessage").ToString());
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::string file = argc > 1 ? argv[1] : "cpp_host.db";
  std::remove(file.c_str());
  try {
    ObjectPtr connection = quillo::CreateObject("Connection");
    Call(connection, "Open", {"sqlite:" + file});
    quillo::schema::Create(*std::dynamic_pointer_cast<quillo::Connection>(connection));
    ObjectPtr ids = quillo::CreateObject("idgen");

    quillo::Date start = quillo::DateSerial(2026, 11, 1);
    const char* clients[][2] = {{"ada@example.test", "Ada"}, {"alan@example.test", "Alan"}};
    std::vector<std::string> accounts;
    for (auto& c : clients) {
      ObjectPtr client = NewRecord("dmclients", connection, ids);
      Put(client, "Email", c[0]);
      Put(client, "First", c[1]);
      Save(client);
      accounts.push_back(Get(client, "Account").ToString());
    }

    for (int kind : {1, 2, 0}) {
      ObjectPtr campaign = NewRecord("dmmrktcmp", connection, ids);
      Put(campaign, "CampaignName", "Kind " + std::to_string(kind));
      Put(campaign, "CampaignType", kind);
      Save(campaign);
      std::string campaign_id = Get(campaign, "RecID").ToString();
      for (int interval : {0, 7}) {
        ObjectPtr item = NewRecord("dmmrktcmpitems", connection, ids);
        Put(item, "CampaignRecID", campaign_id);
        Put(item, "Interval", interval);
        Put(item, "MessageFileName", "day" + std::to_string(interval) + ".txt");
        Save(item);
      }
      for (const auto& account : accounts) {
        ObjectPtr enrolment = NewRecord("dmclientsmrktcmp", connection, ids);
        Put(enrolment, "Account", account);
        Put(enrolment, "CampaignRecID", campaign_id);
        Put(enrolment, "EffectiveDate", start);
        Save(enrolment);
      }

      ObjectPtr processor = quillo::CreateObject("dmCampaignProcessor");
      Put(processor, "Connection", connection);
      Put(processor, "IDGenerator", ids);
      Put(processor, "CampaignRecID", campaign_id);
      Put(processor, "CurrentDate", quillo::DateSerial(2026, 11, 10));
      processor->Advise("StatusChange", [](std::vector<Variant>& args) {
        std::printf("  [%d/%d] %s\n", args[1].ToLong(), args[2].ToLong(),
                    args[0].ToString().c_str());
      });
      Call(processor, "LoadData");
      Call(processor, "Process");
      ObjectPtr messages = Get(processor, "Messages").ToObject();
      long n = Get(messages, "Count").ToLong();
      std::printf("kind %d: %ld messages\n", kind, n);
      for (long i = 1; i <= n; ++i) {
        ObjectPtr m = Call(messages, "Item", {static_cast<std::int32_t>(i)}).ToObject();
        std::printf("  %s <- %s on %s\n", Get(m, "Email").ToString().c_str(),
                    Get(m, "MessageFileName").ToString().c_str(),
                    Get(m, "SendDate").ToString().c_str());
      }
    }
  } catch (const quillo::RuntimeError& e) {
    std::fprintf(stderr, "error %ld: %s\n", e.number, e.description.c_str());
    return 1;
  }
  return 0;
}
