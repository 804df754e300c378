// SQL values to and from Python the way the standard sqlite3 module maps
// them, and the Row type, made with the C API so that a fetched row costs two
// allocations (the row and its value tuple) and no pybind11 bookkeeping.
#include <algorithm>
#include <cctype>
#include <cstring>
#include <string>

#include "binding.hpp"

namespace marsk_quorvi::python {

namespace {

[[noreturn]] void raise(PyObject* type, const std::string& message) {
  PyErr_SetString(type, message.c_str());
  throw py::error_already_set();
}

}  // namespace

Value to_value(PyObject* object, std::size_t position) {
  if (object == Py_None) return Value();
  if (PyLong_Check(object)) {  // bool too, as 0 and 1
    int overflow = 0;
    const long long v = PyLong_AsLongLongAndOverflow(object, &overflow);
    if (overflow != 0) raise(PyExc_OverflowError, "Python int too large to convert to SQLite INTEGER");
    if (v == -1 && PyErr_Occurred()) throw py::error_already_set();
    return Value(static_cast<std::int64_t>(v));
  }
  if (PyFloat_Check(object)) return Value(PyFloat_AS_DOUBLE(object));
  if (PyUnicode_Check(object)) {
    Py_ssize_t size = 0;
    const char* text = PyUnicode_AsUTF8AndSize(object, &size);
    if (text == nullptr) throw py::error_already_set();
    return Value(std::string(text, static_cast<std::size_t>(size)));
  }
  if (PyObject_CheckBuffer(object)) {
    Py_buffer view;
    if (PyObject_GetBuffer(object, &view, PyBUF_SIMPLE) != 0) throw py::error_already_set();
    const auto* p = static_cast<const std::uint8_t*>(view.buf);
    storage::Bytes bytes(p, p + view.len);
    PyBuffer_Release(&view);
    return Value(std::move(bytes));
  }
  raise(PyExc_TypeError, "Error binding parameter " + std::to_string(position) + ": type '" +
                             Py_TYPE(object)->tp_name + "' is not supported");
}

PyObject* to_python(const Value& value) {
  switch (value.type()) {
    case Value::Type::Integer:
      return PyLong_FromLongLong(value.as_int());
    case Value::Type::Real:
      return PyFloat_FromDouble(value.as_double());
    case Value::Type::Text: {
      const std::string& text = value.as_text();
      return PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), nullptr);
    }
    case Value::Type::Blob: {
      const storage::Bytes& bytes = value.as_blob();
      return PyBytes_FromStringAndSize(reinterpret_cast<const char*>(bytes.data()),
                                       static_cast<Py_ssize_t>(bytes.size()));
    }
    case Value::Type::Null:
      break;
  }
  Py_INCREF(Py_None);
  return Py_None;
}

// ------------------------------------------------------------------ parameters

Value& ParamsIn::slot(std::size_t i) { return size_ <= inline_.size() ? inline_[i] : heap_[i]; }

ParamsIn::ParamsIn(PyObject* parameters) {
  if (parameters == nullptr || parameters == Py_None) return;
  if (PyTuple_CheckExact(parameters) || PyList_CheckExact(parameters)) {
    load_sequence(parameters);
    return;
  }
  if (PyDict_Check(parameters)) {
    load_mapping(parameters);
    return;
  }
  // A str is a sequence too, but one passed here is always a mistake.
  if (!PyUnicode_Check(parameters) && !PyBytes_Check(parameters)) {
    const py::object mapping_abc = py::module_::import("collections.abc").attr("Mapping");
    const auto object = py::reinterpret_borrow<py::object>(parameters);
    if (py::isinstance(object, mapping_abc)) {
      load_mapping(py::dict(object).ptr());
      return;
    }
    if (PySequence_Check(parameters)) {
      const auto fast = py::reinterpret_steal<py::object>(PySequence_Fast(parameters, "parameters"));
      if (!fast) throw py::error_already_set();
      load_sequence(fast.ptr());
      return;
    }
  }
  raise(PyExc_TypeError, std::string("parameters are of unsupported type: ") + Py_TYPE(parameters)->tp_name);
}

void ParamsIn::resize(std::size_t size) {
  size_ = size;
  if (size_ > inline_.size()) heap_.resize(size_);
}

void ParamsIn::load_sequence(PyObject* fast) {
  resize(static_cast<std::size_t>(PySequence_Fast_GET_SIZE(fast)));
  PyObject** items = PySequence_Fast_ITEMS(fast);
  for (std::size_t i = 0; i < size_; ++i) slot(i) = to_value(items[i], i + 1);
}

void ParamsIn::load_mapping(PyObject* dict) {
  named_ = true;
  resize(static_cast<std::size_t>(PyDict_GET_SIZE(dict)));
  name_text_.reserve(size_);
  names_.reserve(std::max<std::size_t>(size_, 1));
  Py_ssize_t pos = 0;
  PyObject* key = nullptr;
  PyObject* value = nullptr;
  for (std::size_t i = 0; PyDict_Next(dict, &pos, &key, &value); ++i) {
    if (!PyUnicode_Check(key)) raise(PyExc_TypeError, "parameter names must be str");
    Py_ssize_t size = 0;
    const char* text = PyUnicode_AsUTF8AndSize(key, &size);
    if (text == nullptr) throw py::error_already_set();
    name_text_.emplace_back(text, static_cast<std::size_t>(size));
    slot(i) = to_value(value, i + 1);
  }
  // The views are taken once every name is in place: the reserve above keeps
  // the strings where they are.
  for (const auto& name : name_text_) names_.emplace_back(name);
}

// ------------------------------------------------------------------ Row

namespace {

struct RowObject {
  PyObject_HEAD
  PyObject* keys;    // tuple of str, shared by the rows of one statement
  PyObject* values;  // tuple
};

PyTypeObject* row_type = nullptr;

// The column names of the last few statements, as tuples: a statement's rows
// all share one, made once. Touched only with the GIL held.
struct KeysEntry {
  std::vector<std::string> names;
  PyObject* tuple = nullptr;
};
constexpr std::size_t kKeysCached = 16;
KeysEntry keys_cache[kKeysCached];
std::size_t keys_next = 0;

PyObject* keys_for(const std::vector<std::string>& names) {
  for (auto& entry : keys_cache) {
    if (entry.tuple != nullptr && entry.names == names) {
      Py_INCREF(entry.tuple);
      return entry.tuple;
    }
  }
  PyObject* tuple = PyTuple_New(static_cast<Py_ssize_t>(names.size()));
  if (tuple == nullptr) return nullptr;
  for (std::size_t i = 0; i < names.size(); ++i) {
    PyObject* name = PyUnicode_DecodeUTF8(names[i].data(), static_cast<Py_ssize_t>(names[i].size()), "replace");
    if (name == nullptr) {
      Py_DECREF(tuple);
      return nullptr;
    }
    PyTuple_SET_ITEM(tuple, static_cast<Py_ssize_t>(i), name);
  }
  KeysEntry& entry = keys_cache[keys_next++ % kKeysCached];
  Py_XDECREF(entry.tuple);
  entry.names = names;
  entry.tuple = tuple;
  Py_INCREF(tuple);
  return tuple;
}

RowObject* as_row(PyObject* self) { return reinterpret_cast<RowObject*>(self); }

void row_dealloc(PyObject* self) {
  PyTypeObject* type = Py_TYPE(self);
  Py_XDECREF(as_row(self)->keys);
  Py_XDECREF(as_row(self)->values);
  PyObject_Free(self);
  Py_DECREF(type);
}

Py_ssize_t row_length(PyObject* self) { return PyTuple_GET_SIZE(as_row(self)->values); }

// Names compare without regard to ASCII case, as sqlite3.Row's do.
bool same_name(PyObject* key, const char* wanted, Py_ssize_t wanted_size) {
  Py_ssize_t size = 0;
  const char* name = PyUnicode_AsUTF8AndSize(key, &size);
  if (name == nullptr || size != wanted_size) return false;
  for (Py_ssize_t i = 0; i < size; ++i) {
    const auto a = static_cast<unsigned char>(name[i]);
    const auto b = static_cast<unsigned char>(wanted[i]);
    if (a != b && !(a < 0x80 && b < 0x80 && std::tolower(a) == std::tolower(b))) return false;
  }
  return true;
}

PyObject* row_subscript(PyObject* self, PyObject* key) {
  RowObject* row = as_row(self);
  if (PyLong_Check(key)) {
    Py_ssize_t i = PyLong_AsSsize_t(key);
    if (i == -1 && PyErr_Occurred()) return nullptr;
    const Py_ssize_t n = PyTuple_GET_SIZE(row->values);
    if (i < 0) i += n;
    if (i < 0 || i >= n) {
      PyErr_SetString(PyExc_IndexError, "Index out of range");
      return nullptr;
    }
    PyObject* value = PyTuple_GET_ITEM(row->values, i);
    Py_INCREF(value);
    return value;
  }
  if (PyUnicode_Check(key)) {
    Py_ssize_t size = 0;
    const char* wanted = PyUnicode_AsUTF8AndSize(key, &size);
    if (wanted == nullptr) return nullptr;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(row->keys); ++i) {
      if (same_name(PyTuple_GET_ITEM(row->keys, i), wanted, size)) {
        PyObject* value = PyTuple_GET_ITEM(row->values, i);
        Py_INCREF(value);
        return value;
      }
    }
    PyErr_SetString(PyExc_IndexError, "No item with that key");
    return nullptr;
  }
  if (PySlice_Check(key)) return PyObject_GetItem(row->values, key);
  PyErr_SetString(PyExc_IndexError, "Index must be int or string");
  return nullptr;
}

PyObject* row_iter(PyObject* self) { return PyObject_GetIter(as_row(self)->values); }

PyObject* row_keys(PyObject* self, PyObject*) { return PySequence_List(as_row(self)->keys); }

PyObject* row_richcompare(PyObject* self, PyObject* other, int op) {
  if ((op != Py_EQ && op != Py_NE) || !PyObject_TypeCheck(other, row_type)) Py_RETURN_NOTIMPLEMENTED;
  const int same_keys = PyObject_RichCompareBool(as_row(self)->keys, as_row(other)->keys, Py_EQ);
  if (same_keys < 0) return nullptr;
  const int same = same_keys ? PyObject_RichCompareBool(as_row(self)->values, as_row(other)->values, Py_EQ) : 0;
  if (same < 0) return nullptr;
  return PyBool_FromLong((op == Py_EQ) == (same == 1));
}

Py_hash_t row_hash(PyObject* self) {
  const Py_hash_t keys = PyObject_Hash(as_row(self)->keys);
  if (keys == -1) return -1;
  const Py_hash_t values = PyObject_Hash(as_row(self)->values);
  if (values == -1) return -1;
  const Py_hash_t h = keys ^ values;
  return h == -1 ? -2 : h;
}

// Row(id=1, path='a.cpp')
PyObject* row_repr(PyObject* self) {
  RowObject* row = as_row(self);
  py::list parts;
  try {
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(row->values); ++i) {
      PyObject* part = PyUnicode_FromFormat("%U=%R", PyTuple_GET_ITEM(row->keys, i), PyTuple_GET_ITEM(row->values, i));
      if (part == nullptr) return nullptr;
      parts.append(py::reinterpret_steal<py::object>(part));
    }
    return PyUnicode_FromFormat("Row(%U)", py::str(", ").attr("join")(parts).ptr());
  } catch (py::error_already_set& e) {
    e.restore();
    return nullptr;
  }
}

PyMethodDef row_methods[] = {
    {"keys", row_keys, METH_NOARGS, "The column names, in order."},
    {nullptr, nullptr, 0, nullptr},
};

PyType_Slot row_slots[] = {
    {Py_tp_doc, const_cast<char*>("One result row: row[0], row['name'] (any ASCII case), len, iteration, keys().")},
    {Py_tp_dealloc, reinterpret_cast<void*>(row_dealloc)},
    {Py_tp_repr, reinterpret_cast<void*>(row_repr)},
    {Py_tp_hash, reinterpret_cast<void*>(row_hash)},
    {Py_tp_iter, reinterpret_cast<void*>(row_iter)},
    {Py_tp_richcompare, reinterpret_cast<void*>(row_richcompare)},
    {Py_tp_methods, row_methods},
    {Py_mp_subscript, reinterpret_cast<void*>(row_subscript)},
    {Py_mp_length, reinterpret_cast<void*>(row_length)},
    {Py_sq_length, reinterpret_cast<void*>(row_length)},
    {0, nullptr},
};

#ifdef Py_TPFLAGS_DISALLOW_INSTANTIATION
constexpr unsigned long kRowFlags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_DISALLOW_INSTANTIATION;
#else
constexpr unsigned long kRowFlags = Py_TPFLAGS_DEFAULT;
#endif

PyType_Spec row_spec = {"marsk_quorvi.Row", sizeof(RowObject), 0, kRowFlags, row_slots};

}  // namespace

PyObject* make_row(const Row& row) {
  const auto& values = row.values();
  PyObject* tuple = PyTuple_New(static_cast<Py_ssize_t>(values.size()));
  if (tuple == nullptr) return nullptr;
  for (std::size_t i = 0; i < values.size(); ++i) {
    PyObject* value = to_python(values[i]);
    if (value == nullptr) {
      Py_DECREF(tuple);
      return nullptr;
    }
    PyTuple_SET_ITEM(tuple, static_cast<Py_ssize_t>(i), value);
  }
  PyObject* keys = keys_for(row.keys());
  if (keys == nullptr) {
    Py_DECREF(tuple);
    return nullptr;
  }
  RowObject* out = PyObject_New(RowObject, row_type);
  if (out == nullptr) {
    Py_DECREF(tuple);
    Py_DECREF(keys);
    return nullptr;
  }
  out->keys = keys;
  out->values = tuple;
  return reinterpret_cast<PyObject*>(out);
}

py::object row_or_none(const std::optional<Row>& row) {
  if (!row) return py::none();
  PyObject* out = make_row(*row);
  if (out == nullptr) throw py::error_already_set();
  return py::reinterpret_steal<py::object>(out);
}

py::list row_list(const std::vector<Row>& rows) {
  py::list out(rows.size());
  for (std::size_t i = 0; i < rows.size(); ++i) {
    PyObject* row = make_row(rows[i]);
    if (row == nullptr) throw py::error_already_set();
    PyList_SET_ITEM(out.ptr(), static_cast<Py_ssize_t>(i), row);
  }
  return out;
}

void bind_row(py::module_& m) {
  row_type = reinterpret_cast<PyTypeObject*>(PyType_FromSpec(&row_spec));
  if (row_type == nullptr) throw py::error_already_set();
  // Made by this module, not by the interpreter's import of it: the dotted
  // type name gives the module, the attribute the lookup.
  m.add_object("Row", reinterpret_cast<PyObject*>(row_type));
}

}  // namespace marsk_quorvi::python
