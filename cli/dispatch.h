// Late-bound access to quillo objects, the way a scripting host drives them.
//
// The command is written against the library's public classes by name only:
// Dispatch wraps an object and forwards Get/Put/Call to Object::Invoke.
#ifndef QUILLO_CLI_DISPATCH_H_
#define QUILLO_CLI_DISPATCH_H_

#include <quillo/quillo.h>

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quillo::cli {

class Dispatch {
 public:
  Dispatch() = default;
  explicit Dispatch(ObjectPtr object) : object_(std::move(object)) {}

  // Creates a public class by name.
  static Dispatch Create(std::string_view class_name) { return Dispatch(CreateObject(class_name)); }

  // Property get (with optional index arguments).
  Variant Get(std::string_view name, std::vector<Variant> args = {}) const {
    return CallByName(object_, name, CallKind::kGet, std::move(args));
  }
  // Property let/set.
  void Put(std::string_view name, Variant value) const {
    CallByName(object_, name, CallKind::kPut, {std::move(value)});
  }
  // Method call.
  Variant Call(std::string_view name, std::vector<Variant> args = {}) const {
    return CallByName(object_, name, CallKind::kMethod, std::move(args));
  }
  // The object a property or method returned.
  Dispatch GetObject(std::string_view name, std::vector<Variant> args = {}) const {
    return Dispatch(Get(name, std::move(args)).ToObject());
  }

  std::string Text(std::string_view name) const {
    Variant v = Get(name);
    return v.IsNull() ? std::string() : v.ToString();
  }

  const ObjectPtr& object() const { return object_; }
  explicit operator bool() const { return object_ != nullptr; }

 private:
  ObjectPtr object_;
};

}  // namespace quillo::cli

#endif  // QUILLO_CLI_DISPATCH_H_
