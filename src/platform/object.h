// Objects by name: the small automation model every public class follows.
//
// A class derives from quillo::Object and publishes a MemberTable: its members
// in interface order, each a property get, a property put (let/set) or a
// method, with its arity. Object::Invoke finds a member by case-insensitive
// name and converts Variant arguments to the member's C++ parameter types
// (error 438 for an unknown member, 450 for a wrong number of arguments, 13
// for a value of the wrong type, 6 for a number out of range).
//
// Classes register themselves by name (QUILLO_REGISTER_CLASS) as creatable or
// private; CreateObject makes a creatable one. Events are delivered to sinks
// registered with Advise. Typed C++ access stays first-class: the member table
// only forwards to the class's ordinary methods.
//
// Example:
//   const MemberTable& Greeter::Members() const {
//     static const MemberTable table = MemberTable::Builder<Greeter>("Greeter")
//         .Get("Name", [](Greeter& g) { return g.Name(); })
//         .Put("Name", [](Greeter& g, std::string v) { g.Name(std::move(v)); })
//         .Method("Hello", [](Greeter& g, std::optional<std::string> who) { ... })
//         .Build();
//     return table;
//   }
//
// Thread-safety: objects are not thread-safe; the registry may be read from
// any thread once static initialisation is done.
#ifndef QUILLO_PLATFORM_OBJECT_H_
#define QUILLO_PLATFORM_OBJECT_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/date.h"
#include "platform/error.h"
#include "platform/variant.h"

namespace quillo {

// How a member is reached: property get, property put (let or set), method.
enum class CallKind { kGet, kPut, kMethod };

class Object;

// One member of a class's dispatch interface.
struct Member {
  std::string name;  // The member's name, as published.
  CallKind kind;     // Get, put or method.
  int min_args;      // Arguments that must be given.
  int max_args;      // Arguments that may be given.
  std::function<Variant(Object&, std::span<const Variant>)> call;  // The forwarder.
};

// The members of one class in interface order, with a case-insensitive index.
class MemberTable {
 public:
  template <class T>
  class Builder;

  MemberTable(std::string class_name, std::vector<Member> members);

  const std::string& class_name() const { return class_name_; }
  const std::vector<Member>& members() const { return members_; }

  // The member of that name and kind, or null. A get falls back to a method
  // of the same name and a method to a get, as late binding allows.
  const Member* Find(std::string_view name, CallKind kind) const;

 private:
  std::string class_name_;
  std::vector<Member> members_;
  std::unordered_multimap<std::string, size_t> index_;  // Lower-case name -> position.
};

// A handler of one event: receives the event's arguments, which it may change.
using EventSink = std::function<void(std::vector<Variant>& args)>;

// The base of every class reachable by name.
class Object : public std::enable_shared_from_this<Object> {
 public:
  Object() = default;
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;
  virtual ~Object() = default;

  // The class's member table.
  virtual const MemberTable& Members() const = 0;

  // The class name as registered ("dmCampaignProcessor").
  const std::string& TypeName() const { return Members().class_name(); }

  // Calls member `name` by name. Raises 438 when there is none, 450 on a wrong
  // number of arguments, 13/6 when an argument does not convert.
  virtual Variant Invoke(std::string_view name, CallKind kind, std::vector<Variant> args = {});

  // True when the object has a member of that name reachable with `kind`.
  virtual bool HasMember(std::string_view name, CallKind kind) const;

  // Registers `sink` for event `event` (case-insensitive); returns a cookie
  // for Unadvise.
  long Advise(std::string event, EventSink sink);
  void Unadvise(long cookie);

 protected:
  // Delivers `event` to every sink registered for it, in registration order.
  void FireEvent(std::string_view event, std::vector<Variant>& args);
  bool HasSinks() const { return !sinks_.empty(); }

 private:
  struct Sink {
    long cookie;
    std::string event;  // Lower case.
    EventSink sink;
  };
  std::vector<Sink> sinks_;
  long next_cookie_ = 1;
};

// ---------------------------------------------------------------------------
// Argument and result conversion for typed members.

namespace internal {

template <class T>
struct IsOptional : std::false_type {};
template <class T>
struct IsOptional<std::optional<T>> : std::true_type {};

template <class T>
struct IsSharedPtr : std::false_type {};
template <class T>
struct IsSharedPtr<std::shared_ptr<T>> : std::true_type {};

template <class T>
struct FromVariant;

template <>
struct FromVariant<Variant> {
  static Variant Convert(const Variant& v) { return v; }
};
template <>
struct FromVariant<bool> {
  static bool Convert(const Variant& v) { return v.ToBool(); }
};
template <>
struct FromVariant<std::int16_t> {
  static std::int16_t Convert(const Variant& v) { return v.ToInteger(); }
};
template <>
struct FromVariant<std::int32_t> {
  static std::int32_t Convert(const Variant& v) { return v.ToLong(); }
};
template <>
struct FromVariant<float> {
  static float Convert(const Variant& v) { return v.ToSingle(); }
};
template <>
struct FromVariant<double> {
  static double Convert(const Variant& v) { return v.ToDouble(); }
};
template <>
struct FromVariant<Currency> {
  static Currency Convert(const Variant& v) { return v.ToCurrency(); }
};
template <>
struct FromVariant<Date> {
  static Date Convert(const Variant& v) { return v.ToDate(); }
};
template <>
struct FromVariant<std::string> {
  static std::string Convert(const Variant& v) { return v.ToString(); }
};
template <class T>
struct FromVariant<std::shared_ptr<T>> {
  static std::shared_ptr<T> Convert(const Variant& v) {
    if (v.IsEmpty()) return nullptr;
    if (!v.IsObject()) Raise(err::kTypeMismatch);
    if constexpr (std::is_same_v<T, Object>) {
      return v.ObjectRef();
    } else {
      if (!v.ObjectRef()) return nullptr;
      auto typed = std::dynamic_pointer_cast<T>(v.ObjectRef());
      if (!typed) Raise(err::kTypeMismatch);
      return typed;
    }
  }
};

template <class T>
Variant ToVariant(T&& value) {
  using U = std::decay_t<T>;
  if constexpr (std::is_same_v<U, Variant>) {
    return std::forward<T>(value);
  } else if constexpr (IsSharedPtr<U>::value) {
    return Variant(ObjectPtr(std::forward<T>(value)));
  } else if constexpr (std::is_same_v<U, long>) {
    return Variant(static_cast<long>(value));
  } else {
    return Variant(std::forward<T>(value));
  }
}

template <class F>
struct FnTraits : FnTraits<decltype(&F::operator())> {};
template <class C, class R, class Self, class... A>
struct FnTraits<R (C::*)(Self, A...) const> {
  using Result = R;
  using Args = std::tuple<std::decay_t<A>...>;
};
template <class C, class R, class Self, class... A>
struct FnTraits<R (C::*)(Self, A...)> {
  using Result = R;
  using Args = std::tuple<std::decay_t<A>...>;
};

template <class Tuple, size_t... I>
constexpr int RequiredArgsImpl(std::index_sequence<I...>) {
  constexpr bool optional[] = {IsOptional<std::tuple_element_t<I, Tuple>>::value..., false};
  int required = 0;
  for (int i = 0; i < static_cast<int>(sizeof...(I)); ++i) {
    if (!optional[i]) required = i + 1;
  }
  return required;
}

// The number of leading parameters that are not std::optional.
template <class Tuple>
constexpr int RequiredArgs() {
  return RequiredArgsImpl<Tuple>(std::make_index_sequence<std::tuple_size_v<Tuple>>{});
}

template <class P>
P ConvertArg(std::span<const Variant> args, size_t i) {
  if constexpr (IsOptional<P>::value) {
    if (i >= args.size() || args[i].IsEmpty()) return std::nullopt;
    return FromVariant<typename P::value_type>::Convert(args[i]);
  } else {
    return FromVariant<P>::Convert(args[i]);
  }
}

template <class T, class F, class Args, size_t... I>
Variant CallTyped(const F& f, T& self, std::span<const Variant> args, std::index_sequence<I...>) {
  using R = typename FnTraits<F>::Result;
  if constexpr (std::is_void_v<R>) {
    f(self, ConvertArg<std::tuple_element_t<I, Args>>(args, I)...);
    return Variant();
  } else {
    return ToVariant(f(self, ConvertArg<std::tuple_element_t<I, Args>>(args, I)...));
  }
}

}  // namespace internal

// Builds the member table of class T from typed lambdas taking (T&, args...).
template <class T>
class MemberTable::Builder {
 public:
  explicit Builder(std::string class_name) : class_name_(std::move(class_name)) {}

  // A property get: f(T&, args...) -> value.
  template <class F>
  Builder& Get(std::string name, F f) {
    return Add(std::move(name), CallKind::kGet, std::move(f));
  }
  // A property let/set: f(T&, [index args...,] value).
  template <class F>
  Builder& Put(std::string name, F f) {
    return Add(std::move(name), CallKind::kPut, std::move(f));
  }
  // A method: f(T&, args...) -> value or void. std::optional parameters may be
  // left out.
  template <class F>
  Builder& Method(std::string name, F f) {
    return Add(std::move(name), CallKind::kMethod, std::move(f));
  }
  // A member built by hand (for tables made from data, such as column lists).
  Builder& Raw(Member member) {
    members_.push_back(std::move(member));
    return *this;
  }
  // Appends every member of another table (a shared base interface).
  Builder& Include(const MemberTable& other) {
    for (const Member& m : other.members()) members_.push_back(m);
    return *this;
  }

  MemberTable Build() { return MemberTable(std::move(class_name_), std::move(members_)); }

 private:
  template <class F>
  Builder& Add(std::string name, CallKind kind, F f) {
    using Args = typename internal::FnTraits<F>::Args;
    constexpr int n = static_cast<int>(std::tuple_size_v<Args>);
    Member m{std::move(name), kind, internal::RequiredArgs<Args>(), n,
             [f = std::move(f)](Object& self, std::span<const Variant> args) -> Variant {
               return internal::CallTyped<T, F, Args>(f, static_cast<T&>(self), args,
                                                      std::make_index_sequence<n>{});
             }};
    members_.push_back(std::move(m));
    return *this;
  }

  std::string class_name_;
  std::vector<Member> members_;
};

// ---------------------------------------------------------------------------
// The class registry.

using ObjectFactory = std::function<ObjectPtr()>;

// Whether a host may create a class by name.
enum class Creatable { kPublic, kPrivate };

// Registers `factory` under `name`; a second registration of a name replaces
// the first.
void RegisterClass(std::string name, ObjectFactory factory, Creatable creatable);

// Creates a public class by name (case-insensitive); error 429 when there is
// no such creatable class.
ObjectPtr CreateObject(std::string_view name);

// The names of every registered class, public and private, sorted.
std::vector<std::string> RegisteredClassNames(bool include_private = false);

namespace testing {
// Creates any registered class, private ones included; error 429 when unknown.
ObjectPtr CreatePrivateObject(std::string_view name);
}  // namespace testing

// Registers a class at load time; used through QUILLO_REGISTER_CLASS.
struct ClassRegistrar {
  ClassRegistrar(std::string name, ObjectFactory factory, Creatable creatable) {
    RegisterClass(std::move(name), std::move(factory), creatable);
  }
};

#define QUILLO_CONCAT_INNER(a, b) a##b
#define QUILLO_CONCAT(a, b) QUILLO_CONCAT_INNER(a, b)
// Registers class `Type` under its own name as Creatable::kPublic or kPrivate.
#define QUILLO_REGISTER_CLASS(Type, creatable)                                      \
  static const ::quillo::ClassRegistrar QUILLO_CONCAT(quillo_registrar_, __LINE__)( \
      #Type, [] { return ::quillo::ObjectPtr(std::make_shared<Type>()); }, creatable)

// Invokes by name on a possibly null object: error 91 when `object` is null.
Variant CallByName(const ObjectPtr& object, std::string_view name, CallKind kind,
                   std::vector<Variant> args = {});

}  // namespace quillo

#endif  // QUILLO_PLATFORM_OBJECT_H_
