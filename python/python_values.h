// The value mapping between Python and quillo's Variant, and the adapter that
// lets a Python object stand where the library calls an object by name.
//
// Values map both ways: Empty and Nothing <-> None, Null <-> quillo.Null,
// Integer/Long <-> int (an int becomes a Long when it fits 32 bits, else a
// Double), Single/Double <-> float, Currency <-> decimal.Decimal, Date <->
// datetime.datetime (millisecond resolution), String <-> str (UTF-8 with
// surrogateescape, so any bytes survive; bytes objects are accepted too),
// Boolean <-> bool, Object <-> quillo.Object. Any other Python object is
// wrapped in a PythonObject, whose Invoke calls the Python attribute; when
// it comes back to Python the original object is returned.
//
// Thread-safety: every function here REQUIRES the GIL, except where a comment
// says otherwise. C++ code may call PythonObject::Invoke without the GIL.
#ifndef QUILLO_PYTHON_PYTHON_VALUES_H_
#define QUILLO_PYTHON_PYTHON_VALUES_H_

#include <pybind11/pybind11.h>

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/error.h"
#include "platform/object.h"
#include "platform/variant.h"

namespace quillo::python {

namespace py = pybind11;

// The Python objects the mapping needs, looked up once at import.
struct PythonTypes {
  py::object runtime_error;     // quillo.RuntimeError
  py::object member_not_found;  // quillo.MemberNotFoundError (also an AttributeError)
  py::object null;              // quillo.Null
  py::object decimal;           // decimal.Decimal
  py::object round_half_even;   // decimal.ROUND_HALF_EVEN
  py::object datetime;          // datetime.datetime
  py::object date;              // datetime.date
  py::object timedelta;         // datetime.timedelta
  py::object zero_date;         // datetime.datetime(1899, 12, 30)
};

// Fills the table; called once from the module's init. The objects are kept
// for the life of the process (never released, so nothing touches Python
// after the interpreter has gone).
void InitPythonTypes(py::module_& m);
const PythonTypes& Types();

// A Variant as a Python value.
py::object ToPython(const Variant& value);

// A Python value as a Variant. Raises RuntimeError 6 for an int, Decimal or
// datetime out of range.
Variant FromPython(py::handle value);

// A C++ run-time error that started as a Python exception (raised by a Python
// object the library called by name, or by an event sink). Its number is the
// quillo.RuntimeError's number when the exception is one, else 440; when it
// reaches Python again the original exception is raised.
class PythonCallError : public RuntimeError {
 public:
  explicit PythonCallError(py::error_already_set error);  // REQUIRES: the GIL.

  // Raises the original exception in Python. REQUIRES: the GIL.
  void Restore() const;

 private:
  std::shared_ptr<py::error_already_set> error_;
};

// Raises the Python form of `error` (quillo.RuntimeError with .number and
// .description), or the original exception of a PythonCallError.
void SetPythonError(const RuntimeError& error);

// A Python object seen by the library as an Object: Invoke reads, writes or
// calls the attribute of that name (exact name first, else the first one
// that matches ignoring case). A get of a callable attribute calls it, as
// late binding lets a get reach a method. Error 438 when there is no such
// attribute.
class PythonObject : public Object {
 public:
  explicit PythonObject(py::object target);  // REQUIRES: the GIL.
  ~PythonObject() override;

  const MemberTable& Members() const override { return members_; }
  Variant Invoke(std::string_view name, CallKind kind, std::vector<Variant> args = {}) override;
  bool HasMember(std::string_view name, CallKind kind) const override;

  // The wrapped Python object.
  const py::object& target() const { return target_; }

 private:
  // The attribute that `name` designates, or "" when none.
  std::string Resolve(std::string_view name) const;

  py::object target_;    // The Python object; released under the GIL.
  MemberTable members_;  // Empty: members are found on the Python object.
};

// The lock every call into the library holds while the GIL is released.
// Library objects are not thread-safe; this serialises the calls of several
// Python threads, so that sharing an object (a Connection, say) between them
// is slow rather than a crash. Recursive: a Python callback the library
// calls (an IDGenerator, an event sink) may call back into the library.
std::recursive_mutex& LibraryLock();

// Invokes `name` on `object` with the GIL released while C++ runs, under
// LibraryLock(). Error 91 when `object` is null.
Variant InvokeReleasingGil(const ObjectPtr& object, std::string_view name, CallKind kind,
                           std::vector<Variant> args);

// A Python callable wrapped so that copies and the last release are safe
// without the GIL; used for event sinks.
class PythonCallable {
 public:
  explicit PythonCallable(py::object callable) : callable_(std::move(callable)) {}
  PythonCallable(const PythonCallable&) = delete;
  PythonCallable& operator=(const PythonCallable&) = delete;
  ~PythonCallable();

  // Calls it with `args` as positional arguments. Takes the GIL itself;
  // a Python exception becomes PythonCallError.
  Variant Call(const std::vector<Variant>& args) const;

 private:
  py::object callable_;
};

}  // namespace quillo::python

#endif  // QUILLO_PYTHON_PYTHON_VALUES_H_
