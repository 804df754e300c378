// The module `marsk_quorvi`: the storage layer for Python. Its exception
// classes sit under the standard sqlite3 module's, so code written against
// sqlite3 catches the layer's failures too, and its log records go to
// Python's logging under the layer's logger name.
#include <pybind11/pybind11.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>

#include <spdlog/details/null_mutex.h>
#include <spdlog/sinks/base_sink.h>

#include "binding.hpp"
#include "marsk_quorvi/errors.hpp"
#include "marsk_quorvi/storage/database.hpp"
#include "marsk_quorvi/storage/logging.hpp"

namespace marsk_quorvi::python {

namespace {

// Made at import and never released: they outlive every object that may
// raise them, including those the interpreter destroys last.
PyObject* error_class = nullptr;
PyObject* operational_error_class = nullptr;
PyObject* not_an_index_class = nullptr;
PyObject* schema_migration_class = nullptr;
PyObject* reader_unavailable_class = nullptr;

PyObject* new_class(py::module_& m, const char* name, const char* doc, py::tuple bases) {
  const std::string qualified = std::string("marsk_quorvi.") + name;
  PyObject* cls = PyErr_NewExceptionWithDoc(qualified.c_str(), doc, bases.ptr(), nullptr);
  if (cls == nullptr) throw py::error_already_set();
  Py_INCREF(cls);  // one for the module, one kept here
  m.add_object(name, cls);
  return cls;
}

// Raises `cls(message)`, with sqlite3's `sqlite_errorcode` for an SQLite
// failure.
void set_error(PyObject* cls, const char* message, const storage::Error* sqlite_error = nullptr) {
  py::object error = py::reinterpret_borrow<py::object>(cls)(py::str(message));
  if (sqlite_error != nullptr) error.attr("sqlite_errorcode") = sqlite_error->code();
  PyErr_SetObject(cls, error.ptr());
}

// OSError(errno, text, filename), the shape of what Python's own file
// functions raise: the class follows the errno (FileNotFoundError for
// ENOENT, PermissionError for EACCES), and str() reads "[Errno N] text:
// 'path'". The library's message names the path last (and, from a failed
// system call, starts with the errno) as that text does, so both are taken
// off it and the rest is the text.
void set_os_error(const OSError& e) {
  std::string_view text = e.what();
  if (text.starts_with("[Errno ")) text.remove_prefix(std::min(text.size(), text.find("] ") + 2));
  const std::string path = e.path().string();
  for (const std::string& tail : {": '" + path + "'", ": " + path}) {
    if (!path.empty() && text.ends_with(tail)) {
      text.remove_suffix(tail.size());
      break;
    }
  }
  const py::object filename = path.empty() ? py::object(py::none()) : py::str(path);
  const bool not_found = dynamic_cast<const FileNotFoundError*>(&e) != nullptr;
  const int number = not_found && e.error_number() == 0 ? ENOENT : e.error_number();
  if (number == 0) {
    // No system call failed ("not a regular file: '/x'"): the message as the
    // library wrote it, path included. A `filename` would make str() read
    // "[Errno None] None: '/x'", so this one has none, as Python's own
    // OSError(message) has none.
    const py::object error = py::reinterpret_borrow<py::object>(PyExc_OSError)(py::str(e.what()));
    PyErr_SetObject(PyExc_OSError, error.ptr());
    return;
  }
  const py::object error =
      py::reinterpret_borrow<py::object>(PyExc_OSError)(number, py::str(text.data(), text.size()), filename);
  PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(error.ptr())), error.ptr());
}

void translate(std::exception_ptr failure) {
  try {
    if (failure) std::rethrow_exception(failure);
  } catch (const storage::OperationalError& e) {
    set_error(operational_error_class, e.what(), &e);
  } catch (const storage::Error& e) {
    set_error(error_class, e.what(), &e);
  } catch (const storage::NotAnIndexError& e) {
    set_error(not_an_index_class, e.what());
  } catch (const storage::migrations::SchemaMigrationError& e) {
    set_error(schema_migration_class, e.what());
  } catch (const storage::ReaderUnavailable& e) {
    set_error(reader_unavailable_class, e.what());
  } catch (const OSError& e) {
    set_os_error(e);
  } catch (const RuntimeError& e) {
    PyErr_SetString(PyExc_RuntimeError, e.what());
  }
}

// ------------------------------------------------------------------ logging

// False from interpreter exit on: the atexit hook turns it off before the
// interpreter starts tearing modules down.
std::atomic<bool> forwarding{false};
PyObject* python_logger = nullptr;  // logging.getLogger(LOGGER_NAME), kept for good

bool interpreter_finalizing() {
#if PY_VERSION_HEX >= 0x030D0000
  return Py_IsFinalizing();
#else
  return _Py_IsFinalizing();
#endif
}

int python_level(spdlog::level::level_enum level) {
  switch (level) {
    case spdlog::level::trace:
    case spdlog::level::debug:
      return 10;  // DEBUG
    case spdlog::level::info:
      return 20;
    case spdlog::level::warn:
      return 30;
    case spdlog::level::err:
      return 40;
    case spdlog::level::critical:
      return 50;
    default:
      return 0;
  }
}

// No mutex of its own: the GIL orders the records, and a sink lock would be
// one more lock that a thread holding the GIL could wait for.
class PythonSink final : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
 protected:
  void sink_it_(const spdlog::details::log_msg& msg) override {
    const int level = python_level(msg.level);
    if (level == 0 || !forwarding.load() || !Py_IsInitialized() || interpreter_finalizing()) return;
    // Reentrant: a record logged by a thread that already holds the GIL
    // (a handle destroyed by the garbage collector) goes through as well.
    const PyGILState_STATE gil = PyGILState_Ensure();
    PyObject *type, *value, *traceback;
    PyErr_Fetch(&type, &value, &traceback);  // a record must not clear an exception in flight
    PyObject* text = PyUnicode_DecodeUTF8(msg.payload.data(), static_cast<Py_ssize_t>(msg.payload.size()),
                                          "backslashreplace");
    PyObject* result = text ? PyObject_CallMethod(python_logger, "log", "iO", level, text) : nullptr;
    if (result == nullptr) PyErr_WriteUnraisable(python_logger);
    Py_XDECREF(result);
    Py_XDECREF(text);
    PyErr_Restore(type, value, traceback);
    PyGILState_Release(gil);
  }
  void flush_() override {}
};

}  // namespace

void bind_errors(py::module_& m) {
  const py::module_ sqlite3 = py::module_::import("sqlite3");
  error_class = new_class(m, "Error", "An SQLite failure of the storage layer (a sqlite3.Error).",
                          py::make_tuple(sqlite3.attr("Error")));
  const py::object error = py::reinterpret_borrow<py::object>(error_class);
  operational_error_class = new_class(
      m, "OperationalError",
      "A failure of the database's operation: bad SQL, a busy or locked file, I/O, a full disk.",
      py::make_tuple(sqlite3.attr("OperationalError"), error));
  not_an_index_class =
      new_class(m, "NotAnIndexError", "A file opened read-only that holds no index.", py::make_tuple(error));
  schema_migration_class = new_class(m, "SchemaMigrationError",
                                     "A failed migration step; the file keeps the version before it.",
                                     py::make_tuple(error));
  reader_unavailable_class = new_class(m, "ReaderUnavailable", "The read pool cannot hand out a connection.",
                                       py::make_tuple(error));
  py::register_exception_translator(&translate);
}

void install_log_sink(py::module_& m) {
  python_logger = py::module_::import("logging").attr("getLogger")(storage::LOGGER_NAME).release().ptr();
  const auto logger = storage::database_logger();
  // Python's logging decides what is shown, so every record is handed over.
  logger->sinks().clear();
  logger->sinks().push_back(std::make_shared<PythonSink>());
  logger->set_level(spdlog::level::debug);
  forwarding.store(true);
  py::module_::import("atexit").attr("register")(py::cpp_function([] { forwarding.store(false); }));
  m.attr("LOGGER_NAME") = storage::LOGGER_NAME;
}

}  // namespace marsk_quorvi::python

PYBIND11_MODULE(marsk_quorvi, m) {
  namespace mp = marsk_quorvi::python;
  namespace st = marsk_quorvi::storage;
  m.doc() = "The storage layer of one repository's index file.";
  m.attr("EXTRACTOR_VERSIONS_KEY") = st::EXTRACTOR_VERSIONS_KEY;
  m.attr("LAST_INDEX_KEY") = st::LAST_INDEX_KEY;
  m.attr("FQN_COLLISION_ERROR") = st::FQN_COLLISION_ERROR;
  m.attr("PARTIAL_PARSE_ERROR") = st::PARTIAL_PARSE_ERROR;
  m.attr("COMPACT_DISK_MARGIN_BYTES") = st::COMPACT_DISK_MARGIN_BYTES;
  m.attr("COMPACT_MIN_FREE_PAGES") = st::COMPACT_MIN_FREE_PAGES;
  m.attr("COMPACT_MIN_FREE_RATIO") = st::COMPACT_MIN_FREE_RATIO;
  m.attr("COMPACT_STEP_PAGES") = st::COMPACT_STEP_PAGES;
  m.attr("COMPACT_CONVERT_MAX_BYTES") = st::COMPACT_CONVERT_MAX_BYTES;
  m.def("reader_count", &st::reader_count, "Size of the read pool from QUORVI_DB_READERS (0 to 32, default 6).");
  mp::bind_errors(m);
  mp::bind_row(m);
  mp::bind_database(m);
  mp::install_log_sink(m);
}
