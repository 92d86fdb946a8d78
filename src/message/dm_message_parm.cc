// dmMessageParm: splitting one header line into its name and value.
#include "message/dm_message_parm.h"

#include <exception>

#include "platform/text.h"

namespace quillo {

bool dmMessageParm::Parse() {
  try {
    const size_t colon = full_string_.find(':');
    if (colon == std::string::npos) {
      name_.clear();
      value_.clear();
      return false;
    }
    std::string_view line(full_string_);
    name_ = Trim(line.substr(0, colon));
    value_ = Trim(line.substr(colon + 1));
    return true;
  } catch (const std::exception&) {
    // Parse reports every failure through its result and never raises.
    return false;
  }
}

const MemberTable& dmMessageParm::Members() const {
  using P = dmMessageParm;
  static const MemberTable table =
      MemberTable::Builder<P>("dmMessageParm")
          .Get("Name", [](P& p) { return p.Name(); })
          .Put("Name", [](P& p, std::string v) { p.Name(std::move(v)); })
          .Get("Value", [](P& p) { return p.Value(); })
          .Put("Value", [](P& p, std::string v) { p.Value(std::move(v)); })
          .Get("FullString", [](P& p) { return p.FullString(); })
          .Put("FullString", [](P& p, std::string v) { p.FullString(std::move(v)); })
          .Method("Parse", [](P& p) { return p.Parse(); })
          .Build();
  return table;
}

QUILLO_REGISTER_CLASS(dmMessageParm, Creatable::kPublic);

}  // namespace quillo
