// Compiling through Py_CompileStringExFlags, found in the loaded interpreter
// library (it is not in the stable ABI of 3.11), with the flags the builtin
// compile gives the same source.

#include "runtime/compile_source.hpp"

#include "platform/platform.hpp"
#include "runtime/python_ready.hpp"

#include <atomic>
#include <cstring>
#include <string_view>

namespace sarvode {

namespace {

/// PyCompilerFlags: stable in layout since 3.8.
struct compiler_flags {
  int flags;
  int feature_version;
};
using compile_string_fn = PyObject *(*)(const char *source, const char *filename, int start, compiler_flags *flags,
                                        int optimize);
constexpr int source_is_utf8 = 0x0100; // PyCF_SOURCE_IS_UTF8: the builtin sets it for every source
constexpr int ignore_cookie = 0x0800;  // PyCF_IGNORE_COOKIE: a str is decoded already

std::atomic<bool> g_through_builtin{false};

compile_string_fn available_compile_string() {
  static const auto found =
      reinterpret_cast<compile_string_fn>(platform::find_interpreter_symbol("Py_CompileStringExFlags"));
  return found;
}

/// The bytes of a str (as UTF-8) or of bytes, without a null character (which
/// would end the C string early); empty, with no error pending, otherwise.
std::string_view text_of(PyObject *object) {
  const char *data = nullptr;
  Py_ssize_t size = 0;
  if (PyUnicode_Check(object)) {
    data = PyUnicode_AsUTF8AndSize(object, &size);
  } else if (PyBytes_Check(object)) {
    char *bytes = nullptr;
    if (PyBytes_AsStringAndSize(object, &bytes, &size) == 0)
      data = bytes;
  }
  if (!data) {
    PyErr_Clear(); // the builtin reports it
    return {};
  }
  const std::string_view text(data, static_cast<std::size_t>(size));
  return text.find('\0') == std::string_view::npos ? text : std::string_view();
}

PyObject *through_builtin(PyObject *source, PyObject *filename, int start) {
  PyObject *compile = builtinFunction("compile"); // borrowed
  if (!compile)
    return nullptr;
  auto args = py::object::steal(Py_BuildValue("(OOsiO)", source, filename, start == Py_eval_input ? "eval" : "exec",
                                              0, Py_True)); // flags 0, dont_inherit
  return args ? PyObject_Call(compile, args.get(), nullptr) : nullptr;
}

} // namespace

PyObject *compileSource(PyObject *source, PyObject *filename, int start) {
  const compile_string_fn compile_string = g_through_builtin.load(std::memory_order_relaxed)
                                               ? nullptr
                                               : available_compile_string();
  if (!compile_string)
    return through_builtin(source, filename, start);
  const std::string_view text = text_of(source);
  // The file name goes in as the file system's bytes, which the compiler
  // decodes back to the same str.
  auto name = py::object::steal(PyUnicode_EncodeFSDefault(filename));
  const char *name_bytes = name ? PyBytes_AsString(name.get()) : nullptr;
  if (text.data() == nullptr || !name_bytes || std::strlen(name_bytes) != static_cast<std::size_t>(PyBytes_Size(name.get()))) {
    PyErr_Clear();
    return through_builtin(source, filename, start);
  }
  compiler_flags flags{source_is_utf8 | (PyUnicode_Check(source) ? ignore_cookie : 0),
                       static_cast<int>((Py_Version >> 16) & 0xFF)};
  return compile_string(text.data(), name_bytes, start, &flags, -1);
}

bool compileThroughBuiltin(bool through_builtin) {
  g_through_builtin.store(through_builtin, std::memory_order_relaxed);
  return through_builtin || available_compile_string() != nullptr;
}

} // namespace sarvode
