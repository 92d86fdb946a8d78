// The Python module `quillo`: a thin projection of the by-name object model.
//
//   import quillo
//   t = quillo.CreateObject("QuilloTestClass")
//   t.Text = "hello"                 # quillo.Put(t, "Text", "hello")
//   t.Text                           # quillo.Get(t, "Text") -> 'hello'
//   t.Describe("a", 5)               # quillo.Call(t, "Describe", "a", 5)
//   quillo.Advise(t, "Ping", lambda message, n: print(message, n))
//
// Every class is reached the same way: by name, with the value mapping of
// python_values.h. Failures raise quillo.RuntimeError (.number,
// .description); a member that does not exist raises
// quillo.MemberNotFoundError, which is also an AttributeError so that
// hasattr() and getattr(obj, name, default) behave. The GIL is released while
// library code runs.
#include <pybind11/eval.h>
#include <pybind11/pybind11.h>

#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/collection.h"
#include "platform/database.h"
#include "platform/error.h"
#include "platform/event_loop.h"
#include "platform/object.h"
#include "platform/regional.h"
#include "platform/schema.h"
#include "platform/socket.h"
#include "platform/text.h"
#include "platform/variant.h"
#include "python_values.h"
#include "records/general_utilities.h"

namespace quillo::python {
namespace {

// Python-side definitions that are simplest written in Python.
constexpr const char* kPythonDefinitions = R"PY(
class RuntimeError(Exception):
    """A quillo run-time error: .number is the classic error number, .description the text."""

    def __init__(self, number, description=""):
        super().__init__(number, description)
        self.number = number
        self.description = description

    def __str__(self):
        return "%s (error %d)" % (self.description, self.number)


class MemberNotFoundError(RuntimeError, AttributeError):
    """Error 438: the object has no member of that name."""


class NullType:
    """The type of quillo.Null, the database and automation Null."""

    __slots__ = ()
    _instance = None

    def __new__(cls):
        if cls._instance is None:
            cls._instance = super().__new__(cls)
        return cls._instance

    def __repr__(self):
        return "quillo.Null"

    def __bool__(self):
        return False

    def __reduce__(self):
        return "Null"


Null = NullType()
)PY";

std::vector<Variant> ArgsFromPython(const py::args& args, size_t first = 0) {
  std::vector<Variant> out;
  out.reserve(args.size() - std::min(first, args.size()));
  for (size_t i = first; i < args.size(); ++i) out.push_back(FromPython(args[i]));
  return out;
}

// The object a Python value designates: a quillo wrapper, None (Nothing) or
// any Python object (through PythonObject).
ObjectPtr TargetOf(py::handle value) { return FromPython(value).ToObject(); }

py::object Invoke(py::handle target, const std::string& name, CallKind kind,
                  std::vector<Variant> args) {
  ObjectPtr object = TargetOf(target);
  return ToPython(InvokeReleasingGil(object, name, kind, std::move(args)));
}

// --- Free functions --------------------------------------------------------------
//
// DefineFunction binds a C++ function to a Python name with the module's
// value mapping: each argument goes through FromPython and the Variant
// conversions of the parameter's type (std::optional parameters may be left
// out; an object parameter may be a reference, a shared_ptr or ObjectPtr),
// the result comes back through ToPython, and the GIL is released while the
// function runs. Binding one more function of the library is one line:
//
//   DefineFunction(m, "DoEvents", &quillo::DoEvents);

template <class P>
struct Param {
  using Stored = std::decay_t<P>;
  static Stored From(const std::vector<Variant>& args, size_t i) {
    return internal::ConvertArg<Stored>(args, i);
  }
  static P Pass(Stored& stored) { return static_cast<P>(stored); }
};
template <>
struct Param<std::string_view> {
  using Stored = std::string;
  static Stored From(const std::vector<Variant>& args, size_t i) {
    return internal::ConvertArg<std::string>(args, i);
  }
  static std::string_view Pass(Stored& stored) { return stored; }
};
template <class T>
requires std::is_base_of_v<Object, std::remove_cvref_t<T>>
struct Param<T&> {
  using Stored = std::shared_ptr<std::remove_cvref_t<T>>;
  static Stored From(const std::vector<Variant>& args, size_t i) {
    Stored object = internal::ConvertArg<Stored>(args, i);
    if (!object) Raise(err::kObjectNotSet);
    return object;
  }
  static T& Pass(Stored& stored) { return *stored; }
};

template <class... A>
constexpr int RequiredCount() {
  return internal::RequiredArgs<std::tuple<std::decay_t<A>...>>();
}

template <class R, class... A, size_t... I>
py::object CallBound(R (*f)(A...), const std::vector<Variant>& args, std::index_sequence<I...>) {
  std::tuple<typename Param<A>::Stored...> stored{Param<A>::From(args, I)...};
  if constexpr (std::is_void_v<R>) {
    {
      py::gil_scoped_release release;
      std::lock_guard<std::recursive_mutex> serialised(LibraryLock());
      f(Param<A>::Pass(std::get<I>(stored))...);
    }
    return py::none();
  } else {
    Variant result;
    {
      py::gil_scoped_release release;
      std::lock_guard<std::recursive_mutex> serialised(LibraryLock());
      result = internal::ToVariant(f(Param<A>::Pass(std::get<I>(stored))...));
    }
    return ToPython(result);
  }
}

template <class R, class... A>
void DefineFunction(py::module_& m, const char* name, R (*f)(A...), const char* doc = "") {
  m.def(
      name,
      [f, name](const py::args& args) {
        std::vector<Variant> values = ArgsFromPython(args);
        int given = static_cast<int>(values.size());
        if (given < RequiredCount<A...>() || given > static_cast<int>(sizeof...(A))) {
          Raise(err::kWrongArgumentCount,
                DefaultErrorDescription(err::kWrongArgumentCount) + ": " + name);
        }
        return CallBound(f, values, std::index_sequence_for<A...>{});
      },
      doc);
}

// --- The object wrapper ----------------------------------------------------------

// A callable standing for one member of one object: calling it invokes the
// method (or, when there is none, the property get) with the arguments.
struct BoundMember {
  ObjectPtr object;
  std::string name;
};

bool IsPythonSpecialName(const std::string& name) { return !name.empty() && name[0] == '_'; }

[[noreturn]] void NoSuchMember(const ObjectPtr& object, const std::string& name) {
  Raise(err::kMemberNotFound,
        DefaultErrorDescription(err::kMemberNotFound) + ": " + object->TypeName() + "." + name);
}

// obj.Name: the value of a property get that takes no parameters, else a
// callable for the member.
py::object GetAttribute(const ObjectPtr& object, const std::string& name) {
  if (IsPythonSpecialName(name)) throw py::attribute_error(name);
  const Member* get = object->Members().Find(name, CallKind::kGet);
  if (get != nullptr && get->kind == CallKind::kGet && get->max_args == 0) {
    return ToPython(InvokeReleasingGil(object, name, CallKind::kGet, {}));
  }
  if (get == nullptr && !object->HasMember(name, CallKind::kMethod) &&
      !object->HasMember(name, CallKind::kPut)) {
    NoSuchMember(object, name);
  }
  return py::cast(BoundMember{object, name});
}

void SetAttribute(const ObjectPtr& object, const std::string& name, py::handle value) {
  if (IsPythonSpecialName(name)) throw py::attribute_error(name);
  InvokeReleasingGil(object, name, CallKind::kPut, {FromPython(value)});
}

long Count(const ObjectPtr& object) {
  return InvokeReleasingGil(object, "Count", CallKind::kGet, {}).ToLong();
}

py::list Items(const ObjectPtr& object) {
  py::list items;
  long count = Count(object);
  for (long i = 1; i <= count; ++i) {
    items.append(ToPython(
        InvokeReleasingGil(object, "Item", CallKind::kMethod, {Variant(static_cast<long>(i))})));
  }
  return items;
}

std::string Repr(const ObjectPtr& object) {
  std::ostringstream out;
  out << "<quillo." << object->TypeName() << " object at " << object.get() << ">";
  return out.str();
}

py::list MemberNames(const ObjectPtr& object) {
  py::list names;
  std::vector<std::string> seen;
  for (const Member& m : object->Members().members()) {
    bool known = false;
    for (const std::string& s : seen) known = known || EqualsIgnoreCase(s, m.name);
    if (!known) {
      seen.push_back(m.name);
      names.append(py::str(m.name));
    }
  }
  return names;
}

// --- Regional settings --------------------------------------------------------------

std::string* RegionalField(const std::string& name) {
  RegionalSettings& r = Regional();
  struct Entry {
    const char* name;
    std::string RegionalSettings::*field;
  };
  static constexpr Entry kEntries[] = {
      {"Short Date", &RegionalSettings::short_date},
      {"Long Date", &RegionalSettings::long_date},
      {"Medium Date", &RegionalSettings::medium_date},
      {"Short Time", &RegionalSettings::short_time},
      {"Medium Time", &RegionalSettings::medium_time},
      {"Long Time", &RegionalSettings::long_time},
      {"Date Separator", &RegionalSettings::date_separator},
      {"Time Separator", &RegionalSettings::time_separator},
  };
  for (const Entry& e : kEntries) {
    if (EqualsIgnoreCase(e.name, name)) return &(r.*(e.field));
  }
  throw py::key_error(name);
}

void DefineRegional(py::module_& m) {
  py::class_<RegionalSettings>(m, "RegionalSettings",
                               "The patterns of the named date and time formats, in Format's "
                               "letters, and the separators. quillo.Regional is the one "
                               "process-wide instance; index it by the format's name "
                               "(quillo.Regional['Short Date']) or use the attributes.")
      .def_readwrite("short_date", &RegionalSettings::short_date)
      .def_readwrite("long_date", &RegionalSettings::long_date)
      .def_readwrite("medium_date", &RegionalSettings::medium_date)
      .def_readwrite("short_time", &RegionalSettings::short_time)
      .def_readwrite("medium_time", &RegionalSettings::medium_time)
      .def_readwrite("long_time", &RegionalSettings::long_time)
      .def_readwrite("date_separator", &RegionalSettings::date_separator)
      .def_readwrite("time_separator", &RegionalSettings::time_separator)
      .def("__getitem__",
           [](RegionalSettings&, const std::string& name) { return *RegionalField(name); })
      .def("__setitem__", [](RegionalSettings&, const std::string& name,
                             std::string value) { *RegionalField(name) = std::move(value); })
      .def(
          "reset", [](RegionalSettings& r) { r = RegionalSettings(); },
          "Restores the en-US defaults.");
  m.attr("Regional") = py::cast(&Regional(), py::return_value_policy::reference);
}

}  // namespace
}  // namespace quillo::python

namespace quillo::python {
void AddMailBindings(py::module_& m);  // mail_module.cc
#ifdef QUILLO_PYTHON_TICK
void AddTickBindings(py::module_& m);  // tick_module.cc
#endif
}  // namespace quillo::python

PYBIND11_MODULE(quillo, m) {
  using namespace quillo;
  using namespace quillo::python;

  m.doc() = "quillo: timed, sequential e-mail campaigns, driven by name.";
  py::exec(kPythonDefinitions, m.attr("__dict__"));
  AddMailBindings(m);
#ifdef QUILLO_PYTHON_TICK
  AddTickBindings(m);
#endif

  py::class_<Object, ObjectPtr>(m, "Object",
                                "A quillo object; its members are reached by name as "
                                "attributes, or through quillo.Get, Put and Call.")
      .def("__getattr__", &GetAttribute)
      .def("__setattr__", &SetAttribute)
      .def("__bool__", [](const ObjectPtr&) { return true; })
      .def("__len__", &Count)
      .def("__iter__", [](const ObjectPtr& o) { return py::iter(Items(o)); })
      .def("__repr__", &Repr)
      .def("__dir__", &MemberNames)
      .def("__eq__",
           [](const ObjectPtr& a, py::handle b) {
             return py::isinstance<Object>(b) && b.cast<ObjectPtr>() == a;
           })
      .def("__hash__", [](const ObjectPtr& o) { return std::hash<Object*>()(o.get()); });

  py::class_<BoundMember>(m, "BoundMember", "One member of a quillo object, ready to call.")
      .def("__call__",
           [](const BoundMember& b, const py::args& args) {
             return ToPython(
                 InvokeReleasingGil(b.object, b.name, CallKind::kMethod, ArgsFromPython(args)));
           })
      .def("__repr__", [](const BoundMember& b) {
        return "<quillo member " + b.object->TypeName() + "." + b.name + ">";
      });

  InitPythonTypes(m);
  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) std::rethrow_exception(p);
    } catch (const RuntimeError& error) {
      SetPythonError(error);
    }
  });

  m.def(
      "Get",
      [](py::handle obj, const std::string& name, const py::args& args) {
        return Invoke(obj, name, CallKind::kGet, ArgsFromPython(args));
      },
      py::arg("obj"), py::arg("name"), "Property get by name: quillo.Get(obj, name, *args).");
  m.def(
      "Put",
      [](py::handle obj, const std::string& name, py::handle value, const py::args& args) {
        std::vector<Variant> values = ArgsFromPython(args);
        values.push_back(FromPython(value));
        Invoke(obj, name, CallKind::kPut, std::move(values));
      },
      py::arg("obj"), py::arg("name"), py::arg("value"),
      "Property let/set by name: quillo.Put(obj, name, value, *index_args).");
  m.def(
      "Call",
      [](py::handle obj, const std::string& name, const py::args& args) {
        return Invoke(obj, name, CallKind::kMethod, ArgsFromPython(args));
      },
      py::arg("obj"), py::arg("name"), "Method call by name: quillo.Call(obj, name, *args).");
  m.def(
      "Advise",
      [](py::handle obj, const std::string& event, py::object sink) {
        ObjectPtr object = TargetOf(obj);
        if (!object) Raise(err::kObjectNotSet);
        auto callable = std::make_shared<PythonCallable>(std::move(sink));
        return object->Advise(event,
                              [callable](std::vector<Variant>& args) { callable->Call(args); });
      },
      py::arg("obj"), py::arg("event"), py::arg("sink"),
      "Calls sink(*event_args) whenever obj raises the event; returns a cookie for Unadvise.");
  m.def(
      "Unadvise",
      [](py::handle obj, long cookie) {
        ObjectPtr object = TargetOf(obj);
        if (!object) Raise(err::kObjectNotSet);
        object->Unadvise(cookie);
      },
      py::arg("obj"), py::arg("cookie"), "Stops the sink registered under `cookie`.");

  DefineFunction(
      m, "CreateObject", +[](std::string_view name) { return CreateObject(name); },
      "Creates a public class by name (error 429 when there is none).");

  py::module_ testing = m.def_submodule("testing", "Entry points for tests.");
  DefineFunction(
      testing, "CreatePrivateObject",
      +[](std::string_view name) { return quillo::testing::CreatePrivateObject(name); },
      "Creates any registered class, private ones included.");
  py::module_::import("sys").attr("modules")["quillo.testing"] = testing;

  DefineRegional(m);

  // Free functions of the other layers, one line each.
  DefineFunction(
      m, "DoEvents", +[] { return static_cast<std::int32_t>(DoEvents()); },
      "Dispatches ready socket events, or waits a few milliseconds for one.");
  DefineFunction(
      m, "ForwardEvents",
      +[](std::shared_ptr<SocketControl> socket, ObjectPtr client) {
        ForwardEvents(socket, client);
      },
      "Wires a socket control's DataArrival and Error events to an ardESMTP's forwarders.");
  DefineFunction(
      m, "OpenConnection",
      +[](std::string_view text) {
        auto connection = std::make_shared<Connection>();
        connection->Open(text);
        return connection;
      },
      "Opens a Connection (sqlite:PATH, sqlite::memory: or a PostgreSQL URI).");
  DefineFunction(
      m, "CreateSchema",
      +[](std::shared_ptr<Connection> c) {
        if (!c) Raise(err::kObjectNotSet);
        schema::Create(*c);
      },
      "Creates every table and index that does not exist yet.");
  DefineFunction(
      testing, "NullToText", +[](Variant x) { return NullToText(x); },
      "The empty text joined with x.");
  DefineFunction(
      testing, "DateToODBCLiteral", +[](Variant x) { return DateToODBCLiteral(x); },
      "{d 'yyyy-mm-dd'} built from the mm/dd/yyyy text of x.");
}
