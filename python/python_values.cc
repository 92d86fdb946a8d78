#include "python_values.h"

#include <Python.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <mutex>
#include <utility>

#include "platform/date.h"
#include "platform/text.h"

namespace quillo::python {

namespace {

constexpr long kAutomationError = 440;  // A failure inside a called Python object.
constexpr double kMillisecondsPerDay = 86400000.0;

PythonTypes* types = nullptr;  // Set at import; never freed (see InitPythonTypes).

// Runs `body`, turning a Python exception into PythonCallError.
template <class F>
auto CatchPython(F body) {
  try {
    return body();
  } catch (py::error_already_set& error) {
    throw PythonCallError(std::move(error));
  }
}

std::string BytesOf(py::handle bytes) {
  char* data = nullptr;
  Py_ssize_t size = 0;
  if (PyBytes_AsStringAndSize(bytes.ptr(), &data, &size) != 0) throw py::error_already_set();
  return std::string(data, static_cast<size_t>(size));
}

py::object DateToPython(Date value) {
  double ms = std::nearbyint(ToLinearDays(value) * kMillisecondsPerDay);
  if (!std::isfinite(ms)) Raise(err::kOverflow);
  py::object delta =
      types->timedelta(py::arg("milliseconds") = py::int_(static_cast<long long>(ms)));
  try {
    return types->zero_date + delta;
  } catch (py::error_already_set&) {
    Raise(err::kOverflow);
  }
}

Date DateFromPython(py::handle value, bool has_time) {
  long long days = value.attr("toordinal")().cast<long long>() -
                   types->zero_date.attr("toordinal")().cast<long long>();
  long long ms = 0;
  if (has_time) {
    long long seconds =
        (value.attr("hour").cast<long long>() * 60 + value.attr("minute").cast<long long>()) * 60 +
        value.attr("second").cast<long long>();
    ms = seconds * 1000 + (value.attr("microsecond").cast<long long>() + 500) / 1000;
  }
  double linear = static_cast<double>(days) + static_cast<double>(ms) / kMillisecondsPerDay;
  Date date = FromLinearDays(linear);
  if (!IsValidDateValue(date.value)) Raise(err::kOverflow);
  return date;
}

py::object CurrencyToPython(Currency value) {
  return types->decimal(py::int_(static_cast<long long>(value.scaled))).attr("scaleb")(-4);
}

Currency CurrencyFromPython(py::handle value) {
  py::object scaled;
  try {
    scaled = value.attr("scaleb")(4).attr("to_integral_value")(py::arg("rounding") =
                                                                   types->round_half_even);
    scaled = py::int_(scaled);
  } catch (py::error_already_set&) {
    Raise(err::kOverflow);  // NaN or infinity.
  }
  int overflow = 0;
  long long n = PyLong_AsLongLongAndOverflow(scaled.ptr(), &overflow);
  if (overflow != 0) Raise(err::kOverflow);
  return Currency{static_cast<std::int64_t>(n)};
}

Variant IntFromPython(py::handle value) {
  int overflow = 0;
  long long n = PyLong_AsLongLongAndOverflow(value.ptr(), &overflow);
  if (overflow == 0) return Variant(n);  // Long when it fits 32 bits, else Double.
  double d = PyLong_AsDouble(value.ptr());
  if (d == -1.0 && PyErr_Occurred()) {
    PyErr_Clear();
    Raise(err::kOverflow);
  }
  return Variant(d);
}

}  // namespace

void InitPythonTypes(py::module_& m) {
  // Deliberately leaked: the objects must outlive every wrapper, and freeing
  // them after the interpreter has finalised would crash at exit.
  types = new PythonTypes();
  types->runtime_error = m.attr("RuntimeError");
  types->member_not_found = m.attr("MemberNotFoundError");
  types->null = m.attr("Null");
  py::module_ decimal = py::module_::import("decimal");
  types->decimal = decimal.attr("Decimal");
  types->round_half_even = decimal.attr("ROUND_HALF_EVEN");
  py::module_ datetime = py::module_::import("datetime");
  types->datetime = datetime.attr("datetime");
  types->date = datetime.attr("date");
  types->timedelta = datetime.attr("timedelta");
  types->zero_date = types->datetime(1899, 12, 30);
}

const PythonTypes& Types() { return *types; }

py::object ToPython(const Variant& value) {
  switch (value.Type()) {
    case VarType::kEmpty:
      return py::none();
    case VarType::kNull:
      return types->null;
    case VarType::kInteger:
    case VarType::kLong:
      return py::int_(value.ToLong());
    case VarType::kSingle:
      return py::float_(static_cast<double>(value.ToSingle()));
    case VarType::kDouble:
      return py::float_(value.ToDouble());
    case VarType::kCurrency:
      return CurrencyToPython(value.ToCurrency());
    case VarType::kDate:
      return DateToPython(value.ToDate());
    case VarType::kString: {
      const std::string& s = value.StringRef();
      PyObject* text =
          PyUnicode_DecodeUTF8(s.data(), static_cast<Py_ssize_t>(s.size()), "surrogateescape");
      if (text == nullptr) throw py::error_already_set();
      return py::reinterpret_steal<py::object>(text);
    }
    case VarType::kBoolean:
      return py::bool_(value.ToBool());
    case VarType::kObject: {
      const ObjectPtr& object = value.ObjectRef();
      if (!object) return py::none();
      if (auto* python_object = dynamic_cast<PythonObject*>(object.get())) {
        return python_object->target();
      }
      return py::cast(object);
    }
  }
  return py::none();
}

Variant FromPython(py::handle value) {
  if (value.is_none()) return Variant();
  if (value.is(types->null)) return Variant(kNull);
  if (PyBool_Check(value.ptr())) return Variant(value.ptr() == Py_True);
  if (PyLong_Check(value.ptr())) return IntFromPython(value);
  if (PyFloat_Check(value.ptr())) return Variant(PyFloat_AsDouble(value.ptr()));
  if (PyUnicode_Check(value.ptr())) {
    PyObject* bytes = PyUnicode_AsEncodedString(value.ptr(), "utf-8", "surrogateescape");
    if (bytes == nullptr) throw py::error_already_set();
    return Variant(BytesOf(py::reinterpret_steal<py::object>(bytes)));
  }
  if (PyBytes_Check(value.ptr())) return Variant(BytesOf(value));
  if (PyByteArray_Check(value.ptr())) {
    return Variant(std::string(PyByteArray_AsString(value.ptr()),
                               static_cast<size_t>(PyByteArray_Size(value.ptr()))));
  }
  if (py::isinstance<Object>(value)) return Variant(value.cast<ObjectPtr>());
  if (py::isinstance(value, types->decimal)) return Variant(CurrencyFromPython(value));
  if (py::isinstance(value, types->datetime)) return Variant(DateFromPython(value, true));
  if (py::isinstance(value, types->date)) return Variant(DateFromPython(value, false));
  return Variant(
      ObjectPtr(std::make_shared<PythonObject>(py::reinterpret_borrow<py::object>(value))));
}

// --- Errors -------------------------------------------------------------------

namespace {

long NumberOf(const py::error_already_set& error) {
  if (error.matches(types->runtime_error)) {
    try {
      return error.value().attr("number").cast<long>();
    } catch (const py::error_already_set&) {
    } catch (const py::cast_error&) {
    }
  }
  return kAutomationError;
}

std::string DescriptionOf(const py::error_already_set& error) {
  if (error.matches(types->runtime_error)) {
    try {
      return error.value().attr("description").cast<std::string>();
    } catch (const py::error_already_set&) {
    } catch (const py::cast_error&) {
    }
  }
  return error.what();
}

}  // namespace

PythonCallError::PythonCallError(py::error_already_set error)
    : RuntimeError(NumberOf(error), DescriptionOf(error)),
      error_(std::make_shared<py::error_already_set>(std::move(error))) {}

void PythonCallError::Restore() const { error_->restore(); }

void SetPythonError(const RuntimeError& error) {
  if (auto* python_error = dynamic_cast<const PythonCallError*>(&error)) {
    python_error->Restore();
    return;
  }
  py::object type =
      error.number == err::kMemberNotFound ? types->member_not_found : types->runtime_error;
  py::object instance = type(error.number, error.description);
  PyErr_SetObject(type.ptr(), instance.ptr());
}

// --- PythonObject ---------------------------------------------------------------

PythonObject::PythonObject(py::object target)
    : target_(std::move(target)),
      members_(py::str(py::type::handle_of(target_).attr("__name__")).cast<std::string>(), {}) {}

PythonObject::~PythonObject() {
  if (!Py_IsInitialized()) {
    target_.release();  // The interpreter is gone; nothing left to release.
    return;
  }
  py::gil_scoped_acquire gil;
  target_ = py::object();
}

std::string PythonObject::Resolve(std::string_view name) const {
  std::string exact(name);
  if (py::hasattr(target_, exact.c_str())) return exact;
  for (py::handle attribute : py::reinterpret_steal<py::list>(PyObject_Dir(target_.ptr()))) {
    std::string candidate = py::str(attribute).cast<std::string>();
    if (EqualsIgnoreCase(candidate, name)) return candidate;
  }
  return {};
}

bool PythonObject::HasMember(std::string_view name, CallKind kind) const {
  if (kind == CallKind::kPut) return true;
  py::gil_scoped_acquire gil;
  return CatchPython([&] { return !Resolve(name).empty(); });
}

Variant PythonObject::Invoke(std::string_view name, CallKind kind, std::vector<Variant> args) {
  py::gil_scoped_acquire gil;
  return CatchPython([&]() -> Variant {
    std::string attribute = Resolve(name);
    if (kind == CallKind::kPut) {
      if (args.empty()) Raise(err::kWrongArgumentCount);
      py::object value = ToPython(args.back());
      if (args.size() == 1) {
        py::setattr(target_, (attribute.empty() ? std::string(name) : attribute).c_str(), value);
        return Variant();
      }
      if (attribute.empty()) Raise(err::kMemberNotFound);
      py::object container = target_.attr(attribute.c_str());
      py::tuple index(args.size() - 1);
      for (size_t i = 0; i + 1 < args.size(); ++i) index[i] = ToPython(args[i]);
      container[args.size() == 2 ? py::object(index[0]) : py::object(index)] = value;
      return Variant();
    }
    if (attribute.empty()) {
      Raise(err::kMemberNotFound,
            DefaultErrorDescription(err::kMemberNotFound) + ": " + std::string(name));
    }
    py::object member = target_.attr(attribute.c_str());
    if (!PyCallable_Check(member.ptr())) {
      if (!args.empty()) Raise(err::kWrongArgumentCount);
      return FromPython(member);
    }
    py::tuple positional(args.size());
    for (size_t i = 0; i < args.size(); ++i) positional[i] = ToPython(args[i]);
    return FromPython(member(*positional));
  });
}

std::recursive_mutex& LibraryLock() {
  static std::recursive_mutex lock;
  return lock;
}

Variant InvokeReleasingGil(const ObjectPtr& object, std::string_view name, CallKind kind,
                           std::vector<Variant> args) {
  if (!object) Raise(err::kObjectNotSet);
  py::gil_scoped_release release;
  std::lock_guard<std::recursive_mutex> serialised(LibraryLock());
  return object->Invoke(name, kind, std::move(args));
}

// --- PythonCallable ------------------------------------------------------------

PythonCallable::~PythonCallable() {
  if (!Py_IsInitialized()) {
    callable_.release();
    return;
  }
  py::gil_scoped_acquire gil;
  callable_ = py::object();
}

Variant PythonCallable::Call(const std::vector<Variant>& args) const {
  py::gil_scoped_acquire gil;
  return CatchPython([&] {
    py::tuple positional(args.size());
    for (size_t i = 0; i < args.size(); ++i) positional[i] = ToPython(args[i]);
    return FromPython(callable_(*positional));
  });
}

}  // namespace quillo::python
