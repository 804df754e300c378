// What the parts of the Python module share: value and row conversion, the
// exception classes, and the rule for blocking calls.
//
// The one rule that keeps the module free of deadlocks: no thread waits for a
// lock of the library while it holds the GIL. Every call that may block
// (a statement, connect, close, a transaction's scope, compaction) runs with
// the GIL released, so the log sink, which takes the GIL from whichever
// thread logs, can always get it.
#pragma once

#include <pybind11/pybind11.h>

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "marsk_quorvi/storage/sqlite.hpp"

namespace marsk_quorvi::python {

namespace py = pybind11;
using storage::ParamsRef;
using storage::Row;
using storage::Value;

// The GIL released for one blocking call; cheaper than pybind11's guard,
// which also keeps its own thread-state books. Taking the GIL back ends a
// thread once the interpreter is finalizing, by a forced unwind that must be
// let through.
class NoGil {
 public:
  NoGil() noexcept : state_(PyEval_SaveThread()) {}
  ~NoGil() noexcept(false) { PyEval_RestoreThread(state_); }
  NoGil(const NoGil&) = delete;
  NoGil& operator=(const NoGil&) = delete;

 private:
  PyThreadState* state_;
};

// A Python value as a SQL value (int, float, str, bytes-like or None);
// TypeError for anything else, naming the parameter.
Value to_value(PyObject* object, std::size_t position);
// New reference; null with a Python error set when a text is not UTF-8.
PyObject* to_python(const Value& value);

// The parameters of one call converted while the GIL is held: a sequence
// binds `?` in order, a mapping binds `:name`. A few values live inline, so
// a point query allocates nothing for them.
class ParamsIn {
 public:
  explicit ParamsIn(PyObject* parameters);
  ParamsIn(const ParamsIn&) = delete;
  ParamsIn& operator=(const ParamsIn&) = delete;
  [[nodiscard]] ParamsRef ref() const noexcept {
    return ParamsRef(data(), size_, named_ ? names_.data() : nullptr);
  }

 private:
  const Value* data() const noexcept { return size_ <= inline_.size() ? inline_.data() : heap_.data(); }
  Value& slot(std::size_t i);
  void resize(std::size_t size);
  void load_sequence(PyObject* fast);  // a tuple or list
  void load_mapping(PyObject* dict);

  std::array<Value, 4> inline_;
  std::vector<Value> heap_;
  std::size_t size_ = 0;
  bool named_ = false;
  std::vector<std::string> name_text_;  // the mapping's keys, copied: it may change while the GIL is away
  std::vector<std::string_view> names_;  // never without storage when named_, so data() is not null
};

// The Row type (a sqlite3.Row alike: index, case-insensitive name, len,
// iteration, keys(), equality). New reference, or null with an error set.
PyObject* make_row(const Row& row);
py::object row_or_none(const std::optional<Row>& row);
py::list row_list(const std::vector<Row>& rows);
void bind_row(py::module_& m);

// The module's exception classes and the translation of every library
// exception to its Python class, with the library's message.
void bind_errors(py::module_& m);

// Forwards the library's log records to Python's logging.
void install_log_sink(py::module_& m);

void bind_database(py::module_& m);

}  // namespace marsk_quorvi::python
