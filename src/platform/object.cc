#include "platform/object.h"

#include <algorithm>
#include <map>
#include <mutex>

#include "platform/text.h"

namespace quillo {

MemberTable::MemberTable(std::string class_name, std::vector<Member> members)
    : class_name_(std::move(class_name)), members_(std::move(members)) {
  for (size_t i = 0; i < members_.size(); ++i) index_.emplace(LCase(members_[i].name), i);
}

const Member* MemberTable::Find(std::string_view name, CallKind kind) const {
  auto [first, last] = index_.equal_range(LCase(name));
  const Member* fallback = nullptr;
  for (auto it = first; it != last; ++it) {
    const Member& m = members_[it->second];
    if (m.kind == kind) return &m;
    bool interchangeable = (kind == CallKind::kGet && m.kind == CallKind::kMethod) ||
                           (kind == CallKind::kMethod && m.kind == CallKind::kGet);
    if (interchangeable && fallback == nullptr) fallback = &m;
  }
  return fallback;
}

Variant Object::Invoke(std::string_view name, CallKind kind, std::vector<Variant> args) {
  const Member* member = Members().Find(name, kind);
  if (member == nullptr) {
    Raise(err::kMemberNotFound, "Object doesn't support this property or method: " +
                                    Members().class_name() + "." + std::string(name));
  }
  int given = static_cast<int>(args.size());
  if (given < member->min_args || given > member->max_args) {
    Raise(err::kWrongArgumentCount, "Wrong number of arguments or invalid property assignment: " +
                                        Members().class_name() + "." + member->name);
  }
  return member->call(*this, args);
}

bool Object::HasMember(std::string_view name, CallKind kind) const {
  return Members().Find(name, kind) != nullptr;
}

long Object::Advise(std::string event, EventSink sink) {
  long cookie = next_cookie_++;
  sinks_.push_back(Sink{cookie, LCase(event), std::move(sink)});
  return cookie;
}

void Object::Unadvise(long cookie) {
  std::erase_if(sinks_, [cookie](const Sink& s) { return s.cookie == cookie; });
}

void Object::FireEvent(std::string_view event, std::vector<Variant>& args) {
  if (sinks_.empty()) return;
  std::string key = LCase(event);
  // A sink may advise or unadvise while it runs: walk a snapshot.
  std::vector<EventSink> targets;
  for (const Sink& s : sinks_) {
    if (s.event == key) targets.push_back(s.sink);
  }
  for (auto& sink : targets) sink(args);
}

namespace {

struct Registration {
  std::string name;
  ObjectFactory factory;
  Creatable creatable;
};

struct Registry {
  std::mutex mutex;
  std::map<std::string, Registration> classes;  // Lower-case name -> class.
};

Registry& TheRegistry() {
  static Registry* registry = new Registry();  // Never destroyed: used during static teardown.
  return *registry;
}

ObjectPtr Create(std::string_view name, bool allow_private) {
  Registry& r = TheRegistry();
  ObjectFactory factory;
  {
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.classes.find(LCase(name));
    if (it != r.classes.end() && (allow_private || it->second.creatable == Creatable::kPublic)) {
      factory = it->second.factory;
    }
  }
  if (!factory) {
    Raise(err::kCantCreateObject, "ActiveX component can't create object: " + std::string(name));
  }
  return factory();
}

}  // namespace

void RegisterClass(std::string name, ObjectFactory factory, Creatable creatable) {
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> lock(r.mutex);
  std::string key = LCase(name);
  r.classes[key] = Registration{std::move(name), std::move(factory), creatable};
}

ObjectPtr CreateObject(std::string_view name) { return Create(name, false); }

std::vector<std::string> RegisteredClassNames(bool include_private) {
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> lock(r.mutex);
  std::vector<std::string> names;
  for (const auto& [key, reg] : r.classes) {
    if (include_private || reg.creatable == Creatable::kPublic) names.push_back(reg.name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

namespace testing {
ObjectPtr CreatePrivateObject(std::string_view name) { return Create(name, true); }
}  // namespace testing

Variant CallByName(const ObjectPtr& object, std::string_view name, CallKind kind,
                   std::vector<Variant> args) {
  if (!object) Raise(err::kObjectNotSet);
  return object->Invoke(name, kind, std::move(args));
}

}  // namespace quillo
