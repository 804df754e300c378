// Database, its cursors, its writer connection and its transaction scopes.
// Arguments become C++ values while the GIL is held; the call itself runs
// with the GIL released; its result becomes Python objects once the GIL is
// back.
#include <pybind11/stl.h>
#include <pybind11/stl/filesystem.h>

#include <cxxabi.h>

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <thread>

#include "binding.hpp"
#include "marsk_quorvi/storage/database.hpp"
#include "storage/database_impl.hpp"

namespace marsk_quorvi::python {

namespace {

using storage::Connection;
using storage::Cursor;
using storage::Database;

PyObject* compaction_type = nullptr;  // namedtuple classes, made at import and kept
PyObject* page_counts_type = nullptr;

std::string_view sql_text(PyObject* sql) {
  if (!PyUnicode_Check(sql)) {
    throw py::type_error(std::string("sql must be str, not ") + Py_TYPE(sql)->tp_name);
  }
  Py_ssize_t size = 0;
  const char* text = PyUnicode_AsUTF8AndSize(sql, &size);
  if (text == nullptr) throw py::error_already_set();
  // Valid while the call runs: the caller's argument holds the str.
  return {text, static_cast<std::size_t>(size)};
}

py::dict counts_dict(const storage::RowCounts& counts) {
  py::dict out;
  for (const auto& [name, count] : counts) out[py::str(name)] = count;
  return out;
}

// A cursor used by one thread at a time: the mutex is taken with the GIL
// released, like every other wait.
struct PyCursor {
  explicit PyCursor(Cursor cursor) : cursor(std::move(cursor)) {}
  ~PyCursor() {
    // Giving the statement back may wait for SQLite's connection mutex.
    NoGil nogil;
    std::lock_guard lock(mu);
    cursor.reset();
  }
  template <class F>
  auto run(F&& f) {
    NoGil nogil;
    std::lock_guard lock(mu);
    return f(*cursor);
  }
  std::mutex mu;
  std::optional<Cursor> cursor;
};

std::unique_ptr<PyCursor> wrap(Cursor cursor) { return std::make_unique<PyCursor>(std::move(cursor)); }

// The parameter sets of one executemany, each converted while the GIL is held.
struct ParamsList {
  explicit ParamsList(py::handle seq_of_parameters) {
    for (py::handle parameters : seq_of_parameters) sets.push_back(std::make_unique<ParamsIn>(parameters.ptr()));
    for (const auto& set : sets) refs.push_back(set->ref());
  }
  std::vector<std::unique_ptr<ParamsIn>> sets;  // not moved: the refs point into them
  std::vector<ParamsRef> refs;
};

struct PyDatabase {
  PyDatabase(const std::filesystem::path& path, bool read_only)
      : db(std::make_unique<Database>(path, read_only ? storage::OpenMode::ReadOnly : storage::OpenMode::ReadWrite)) {}
  ~PyDatabase() {
    // Closing waits for the queries still running on other threads.
    NoGil nogil;
    db.reset();
  }
  storage::detail::DatabaseImpl& impl() { return storage::detail::internals(*db); }
  std::unique_ptr<Database> db;
};

// A `with db.transaction() as cursor:` block: one scope of the layer's
// transaction, held from __enter__ to __exit__ by one thread.
struct PyTransaction {
  explicit PyTransaction(py::object handle) : database(std::move(handle)), db(&database.cast<PyDatabase&>()) {}
  ~PyTransaction() {
    // Dropped without __exit__ (a generator never resumed): the scope is
    // rolled back where its thread still owns the lock; elsewhere it cannot
    // be let go, and the handle stays locked, as a thread that never
    // returned would leave it.
    if (scope && owner == std::this_thread::get_id()) {
      NoGil nogil;
      try {
        end(false);
      } catch (...) {
      }
    }
  }
  py::object enter() {
    if (scope || done) throw py::value_error("a transaction() scope is entered once");
    std::optional<Cursor> user;
    {
      NoGil nogil;
      scope.emplace(db->impl()._begin_scope());
      // The body gets a cursor of its own, so that whatever it does with it
      // (close it, leave a query half read) the scope still ends cleanly.
      try {
        user.emplace(db->impl().connection()->cursor());
      } catch (...) {
        end(false);
        throw;
      }
    }
    owner = std::this_thread::get_id();
    cursor = py::cast(wrap(std::move(*user)));
    return cursor;
  }
  bool exit(py::handle exc_type) {
    if (!scope) throw py::value_error("transaction() scope not entered");
    if (owner != std::this_thread::get_id()) {
      throw py::value_error("a transaction() scope must end on the thread that entered it");
    }
    PyCursor& user = cursor.cast<PyCursor&>();
    NoGil nogil;
    {
      std::lock_guard lock(user.mu);
      user.cursor->close();
    }
    end(exc_type.is_none());
    return false;  // the body's exception, if any, goes on as it was
  }
  void end(bool ok) {
    Cursor control = std::move(*scope);
    scope.reset();
    done = true;
    db->impl()._end_scope(control, ok);
  }

  py::object database;  // kept alive while the scope may be open
  PyDatabase* db;
  py::object cursor;
  std::optional<Cursor> scope;  // the cursor that begins and ends the scope
  std::thread::id owner;
  bool done = false;
};

py::object compact(PyDatabase& self) {
  // The host's event loop must not block on a rewrite: the layer declines
  // on that thread, and the binding tells it which thread that is.
  const bool on_loop = !py::module_::import("asyncio").attr("_get_running_loop")().is_none();
  storage::Compaction result;
  {
    NoGil nogil;
    std::optional<storage::EventLoopThread> marker;
    if (on_loop) marker.emplace();
    result = self.db->compact();
  }
  py::object skipped = result.skipped ? py::object(py::str(*result.skipped)) : py::object(py::none());
  return py::reinterpret_borrow<py::object>(compaction_type)(result.converted, result.pages_released, skipped);
}

// ------------------------------------------------------------------ fetchone

// Database.fetchone, the path of every point query, is called without
// pybind11's dispatcher, which looks the argument types up at every call;
// arguments are parsed here and the handle read straight from the instance.
PyDatabase& database_of(PyObject* self) {
  auto holder = reinterpret_cast<py::detail::instance*>(self)->get_value_and_holder();
  if (!holder.holder_constructed()) throw py::type_error("Database.__init__() was not called");
  return *static_cast<PyDatabase*>(holder.value_ptr());
}

// sql and parameters, by position or by name.
void parse_query_args(PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames, PyObject*& sql,
                      PyObject*& parameters) {
  if (nargs > 2) throw py::type_error("fetchone() takes at most 2 arguments");
  if (nargs > 0) sql = args[0];
  if (nargs > 1) parameters = args[1];
  const Py_ssize_t named = kwnames ? PyTuple_GET_SIZE(kwnames) : 0;
  for (Py_ssize_t i = 0; i < named; ++i) {
    PyObject* name = PyTuple_GET_ITEM(kwnames, i);
    PyObject*& target = PyUnicode_CompareWithASCIIString(name, "sql") == 0          ? sql
                        : PyUnicode_CompareWithASCIIString(name, "parameters") == 0 ? parameters
                                                                                    : (throw py::type_error(
                                                                                          "fetchone() got an unexpected "
                                                                                          "keyword argument"));
    if (target != nullptr) throw py::type_error("fetchone() got multiple values for an argument");
    target = args[nargs + i];
  }
  if (sql == nullptr) throw py::type_error("fetchone() missing required argument 'sql'");
}

constexpr std::size_t kKeptRowBytes = 64 * 1024;

// The room that a row's texts and blobs hold.
std::size_t held_bytes(const Row& row) {
  std::size_t bytes = 0;
  for (const Value& v : row.values()) {
    if (v.type() == Value::Type::Text) bytes += v.as_text().capacity();
    if (v.type() == Value::Type::Blob) bytes += v.as_blob().capacity();
  }
  return bytes;
}

PyObject* fetchone(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
  try {
    PyObject* sql = nullptr;
    PyObject* parameters = nullptr;
    parse_query_args(args, nargs, kwnames, sql, parameters);
    PyDatabase& db = database_of(self);
    const std::string_view text = sql_text(sql);
    ParamsIn params(parameters);
    // Each thread reads into a row of its own, kept from call to call: its
    // values and their texts are allocated once, not per query. It is taken
    // out while in use, since making Python objects may run Python code (a
    // collection's finalisers) that queries again on this thread.
    thread_local Row kept;
    Row row = std::move(kept);
    bool found;
    {
      NoGil nogil;
      found = db.db->fetchone(text, params.ref(), row);
    }
    PyObject* out = found ? make_row(row) : Py_NewRef(Py_None);
    // A row that held a large text or blob is let go rather than kept for
    // the thread's lifetime.
    if (held_bytes(row) <= kKeptRowBytes) kept = std::move(row);
    if (out == nullptr) throw py::error_already_set();
    return out;
  } catch (py::error_already_set& e) {
    e.restore();
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    // What the dispatcher would do: the module's translator, then pybind11's.
    if (!py::detail::apply_exception_translators(py::detail::get_local_internals().registered_exception_translators) &&
        !py::detail::apply_exception_translators(py::detail::get_internals().registered_exception_translators)) {
      PyErr_SetString(PyExc_SystemError, "an exception escaped every translator");
    }
  }
  return nullptr;
}

PyMethodDef fetchone_method = {
    "fetchone", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&fetchone)), METH_FASTCALL | METH_KEYWORDS,
    "fetchone(sql, parameters=()) -> Row | None: the first row, on a read connection when possible."};

void bind_cursor(py::module_& m) {
  py::class_<PyCursor>(m, "Cursor", "Runs statements on one connection; fetches their rows.")
      .def(
          "execute",
          [](py::object self, py::handle sql, py::handle parameters) {
            const std::string_view text = sql_text(sql.ptr());
            ParamsIn params(parameters.ptr());
            self.cast<PyCursor&>().run([&](Cursor& c) { c.execute(text, params.ref()); });
            return self;
          },
          py::arg("sql"), py::arg("parameters") = py::tuple())
      .def(
          "executemany",
          [](py::object self, py::handle sql, py::handle seq_of_parameters) {
            const std::string_view text = sql_text(sql.ptr());
            ParamsList list(seq_of_parameters);
            self.cast<PyCursor&>().run([&](Cursor& c) { c.executemany(text, std::span<const ParamsRef>(list.refs)); });
            return self;
          },
          py::arg("sql"), py::arg("seq_of_parameters"))
      .def("fetchone",
           [](PyCursor& self) { return row_or_none(self.run([](Cursor& c) { return c.fetchone(); })); })
      .def("fetchall", [](PyCursor& self) { return row_list(self.run([](Cursor& c) { return c.fetchall(); })); })
      .def("__iter__", [](py::object self) { return self; })
      .def("__next__",
           [](PyCursor& self) {
             py::object row = row_or_none(self.run([](Cursor& c) { return c.fetchone(); }));
             if (row.is_none()) throw py::stop_iteration();
             return row;
           })
      .def_property_readonly("rowcount", [](PyCursor& self) { return self.run([](Cursor& c) { return c.rowcount(); }); })
      .def_property_readonly("lastrowid",
                             [](PyCursor& self) { return self.run([](Cursor& c) { return c.lastrowid(); }); })
      .def_property_readonly("description",
                             [](PyCursor& self) -> py::object {
                               // As sqlite3 gives it: a name and six Nones per column, or None.
                               const auto names = self.run([](Cursor& c) { return c.columns(); });
                               if (names.empty()) return py::none();
                               py::tuple out(names.size());
                               for (std::size_t i = 0; i < names.size(); ++i) {
                                 out[i] = py::make_tuple(names[i], py::none(), py::none(), py::none(), py::none(),
                                                         py::none(), py::none());
                               }
                               return out;
                             })
      .def("close", [](PyCursor& self) { self.run([](Cursor& c) { c.close(); }); })
      .def_property_readonly("closed", [](PyCursor& self) { return self.run([](Cursor& c) { return c.closed(); }); });
}

// `execute` of a connection or of the handle: the arguments read with the
// GIL, the statement run without it, its cursor wrapped.
template <class Execute>
std::unique_ptr<PyCursor> execute_released(py::handle sql, py::handle parameters, Execute&& execute) {
  const std::string_view text = sql_text(sql.ptr());
  ParamsIn params(parameters.ptr());
  NoGil nogil;
  return wrap(execute(text, params.ref()));
}

void bind_connection(py::module_& m) {
  // The writer connection itself, for what the handle does not offer; it
  // takes no lock of the handle, as in C++.
  py::class_<Connection, std::shared_ptr<Connection>>(m, "Connection", "The handle's writer connection.")
      .def(
          "execute",
          [](Connection& self, py::handle sql, py::handle parameters) {
            return execute_released(sql, parameters, [&](std::string_view text, ParamsRef params) {
              return self.execute(text, params);
            });
          },
          py::arg("sql"), py::arg("parameters") = py::tuple())
      .def("executescript", &Connection::executescript, py::arg("sql"), py::call_guard<py::gil_scoped_release>())
      .def_property_readonly("closed", &Connection::closed)
      .def_property_readonly("path", &Connection::path);
}

}  // namespace

void bind_database(py::module_& m) {
  const py::object namedtuple = py::module_::import("collections").attr("namedtuple");
  compaction_type = namedtuple("Compaction", py::make_tuple("converted", "pages_released", "skipped"),
                               py::arg("module") = "marsk_quorvi")
                        .release()
                        .ptr();
  page_counts_type = namedtuple("PageCounts", py::make_tuple("page_size", "page_count", "freelist_count"),
                                py::arg("module") = "marsk_quorvi")
                         .release()
                         .ptr();
  m.attr("Compaction") = py::handle(compaction_type);
  m.attr("PageCounts") = py::handle(page_counts_type);
  bind_cursor(m);
  bind_connection(m);

  py::class_<PyTransaction>(m, "Transaction", "One transaction scope: `with db.transaction() as cursor:`.")
      .def("__enter__", &PyTransaction::enter)
      .def("__exit__", [](PyTransaction& self, py::handle exc_type, py::handle, py::handle) { return self.exit(exc_type); });

  using Release = py::call_guard<py::gil_scoped_release>;
  py::class_<PyDatabase> database(m, "Database", "The handle of one repository's index file and every connection to it.");
  database
      .def(py::init<std::filesystem::path, bool>(), py::arg("path"), py::kw_only(), py::arg("read_only") = false)
      .def_property_readonly("db_path", [](PyDatabase& self) { return self.db->db_path; })
      .def("connect", [](PyDatabase& self) { self.db->connect(); }, Release())
      .def("close", [](PyDatabase& self) { self.db->close(); }, Release())
      .def_property_readonly("closed", [](PyDatabase& self) { return self.db->closed(); })
      .def("connection", [](PyDatabase& self) { return self.db->connection(); })
      .def("transaction", [](py::object self) { return std::make_unique<PyTransaction>(std::move(self)); })
      .def(
          "execute",
          [](PyDatabase& self, py::handle sql, py::handle parameters) {
            return execute_released(sql, parameters, [&](std::string_view text, ParamsRef params) {
              return self.db->execute(text, params);
            });
          },
          py::arg("sql"), py::arg("parameters") = py::tuple())
      .def(
          "executemany",
          [](PyDatabase& self, py::handle sql, py::handle seq_of_parameters) {
            const std::string_view text = sql_text(sql.ptr());
            ParamsList list(seq_of_parameters);
            NoGil nogil;
            return wrap(self.impl().executemany(text, std::span<const ParamsRef>(list.refs)));
          },
          py::arg("sql"), py::arg("seq_of_parameters"))
      .def(
          "fetchall",
          [](PyDatabase& self, py::handle sql, py::handle parameters) {
            const std::string_view text = sql_text(sql.ptr());
            ParamsIn params(parameters.ptr());
            std::vector<Row> rows;
            {
              NoGil nogil;
              rows = self.db->fetchall(text, params.ref());
            }
            return row_list(std::move(rows));
          },
          py::arg("sql"), py::arg("parameters") = py::tuple())
      .def("create_schema", [](PyDatabase& self) { self.db->create_schema(); }, Release())
      .def("migrate_schema", [](PyDatabase& self) { self.db->migrate_schema(); }, Release())
      .def("index_generation", [](PyDatabase& self) { return self.db->index_generation(); }, Release())
      .def(
          "refresh_extractor_stamp",
          [](PyDatabase& self, py::handle versions) {
            storage::ExtractorVersions stamp;
            for (auto [language, version] : py::dict(py::reinterpret_borrow<py::object>(versions))) {
              stamp[language.cast<std::string>()] = version.cast<std::int64_t>();
            }
            NoGil nogil;
            return self.db->refresh_extractor_stamp(stamp);
          },
          py::arg("versions"))
      .def("clear_all", [](PyDatabase& self) { self.db->clear_all(); }, Release())
      .def(
          "swap_index_from",
          [](PyDatabase& self, const std::filesystem::path& staging_path) {
            storage::RowCounts counts;
            {
              NoGil nogil;
              counts = self.db->swap_index_from(staging_path);
            }
            return counts_dict(counts);
          },
          py::arg("staging_path"))
      .def("get_stats",
           [](PyDatabase& self) {
             storage::RowCounts counts;
             {
               NoGil nogil;
               counts = self.db->get_stats();
             }
             return counts_dict(counts);
           })
      .def("check_integrity", [](PyDatabase& self) { return self.db->check_integrity(); }, Release())
      .def(
          "record_error",
          [](PyDatabase& self, const std::string& file_path, const std::string& error_type,
             std::optional<std::string> message, std::optional<std::int64_t> line) {
            self.db->record_error(file_path, error_type, std::move(message), line);
          },
          py::arg("file_path"), py::arg("error_type"), py::arg("message") = py::none(), py::arg("line") = py::none(),
          Release())
      .def(
          "clear_file_errors",
          [](PyDatabase& self, const std::string& file_path, std::optional<std::string> error_type) {
            self.db->clear_file_errors(file_path, std::move(error_type));
          },
          py::arg("file_path"), py::arg("error_type") = py::none(), Release())
      .def("get_error_count", [](PyDatabase& self) { return self.db->get_error_count(); }, Release())
      .def("compact", &compact)
      .def("page_counts", [](PyDatabase& self) {
        storage::PageCounts pages;
        {
          NoGil nogil;
          pages = self.db->page_counts();
        }
        return py::reinterpret_borrow<py::object>(page_counts_type)(pages.page_size, pages.page_count,
                                                                    pages.freelist_count);
      });
  PyObject* method = PyDescr_NewMethod(reinterpret_cast<PyTypeObject*>(database.ptr()), &fetchone_method);
  if (method == nullptr) throw py::error_already_set();
  database.attr("fetchone") = py::reinterpret_steal<py::object>(method);
}

}  // namespace marsk_quorvi::python
