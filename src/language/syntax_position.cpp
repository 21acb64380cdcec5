// Syntax errors of statements, placed in the user's own text.

#include "language/syntax_position.hpp"

#include "language/evaluation.hpp"
#include "language/python_error.hpp"

#include <algorithm>
#include <optional>

namespace sarvode {

namespace {
/// Errors that the text alone gives only because it is not inside a function,
/// as the generated text runs it: for these the generated text's own error holds.
constexpr std::string_view outside_function_messages[] = {
    "'return' outside function",   "'yield' outside function", "'yield from' outside function",
    "'await' outside function",    "nonlocal declaration not allowed at module level",
};

/// The SyntaxError (a new reference) with which the builtin compile refuses
/// `text` as statements, or null when it compiles or fails otherwise. Leaves
/// nothing pending.
py::object syntax_error_of(std::string_view text) {
  PyObject *builtins = PyEval_GetBuiltins();                                          // borrowed
  PyObject *compile = builtins ? PyDict_GetItemString(builtins, "compile") : nullptr; // borrowed
  auto source = py::object::steal(
      compile ? PyUnicode_FromStringAndSize(text.data(), static_cast<Py_ssize_t>(text.size())) : nullptr);
  auto code = py::object::steal(source ? PyObject_CallFunction(compile, "Oss", source.get(), "<string>", "exec")
                                       : nullptr);
  if (code || !PyErr_ExceptionMatches(PyExc_SyntaxError)) {
    PyErr_Clear();
    return {};
  }
  return takePendingException().value;
}

std::optional<std::int64_t> integer_attribute(PyObject *object, const char *name) {
  auto value = py::object::steal(PyObject_GetAttrString(object, name));
  std::optional<std::int64_t> out;
  if (value && PyLong_Check(value.get()))
    out = PyLong_AsLongLong(value.get());
  PyErr_Clear();
  return out;
}

void set_attribute(PyObject *object, const char *name, PyObject *value) {
  if (PyObject_SetAttrString(object, name, value) < 0)
    PyErr_Clear(); // the error still goes up, with that part of its position as it was
}

void set_integer(PyObject *object, const char *name, std::optional<std::int64_t> value) {
  auto v = py::object::steal(value ? PyLong_FromLongLong(*value) : nullptr);
  PyErr_Clear();
  set_attribute(object, name, v ? v.get() : Py_None);
}

bool outside_function_only(PyObject *error) {
  auto message = py::object::steal(PyObject_GetAttrString(error, "msg"));
  const std::string_view text = py::utf8(message.get());
  PyErr_Clear();
  return std::ranges::find(outside_function_messages, text) != std::end(outside_function_messages);
}

/// Moves the generated text's error into the user's lines.
void move_into_text(PyObject *error, std::string_view user, std::span<const kest::String> outLocalNames) {
  const auto wrapper_lines = 1 + static_cast<std::int64_t>(outLocalNames.size());
  const auto count = pythonLineCount(user);
  const auto generated_line = integer_attribute(error, "lineno");
  std::int64_t line = generated_line.value_or(wrapper_lines + 1) - wrapper_lines;
  if (line >= 1 && line <= count) {
    // A line of the user's, behind the tab that the generated text adds.
    auto shift_column = [&](const char *name) {
      if (auto column = integer_attribute(error, name))
        set_integer(error, name, std::max<std::int64_t>(*column - 1, 0));
    };
    shift_column("offset");
    shift_column("end_offset");
    auto text = py::object::steal(PyObject_GetAttrString(error, "text"));
    if (text && PyUnicode_Check(text.get()) && py::utf8(text.get()).starts_with('\t')) {
      auto rest = py::object::steal(PyUnicode_Substring(text.get(), 1, PyUnicode_GetLength(text.get())));
      if (rest)
        set_attribute(error, "text", rest.get());
    }
    PyErr_Clear();
    if (auto end_line = integer_attribute(error, "end_lineno"))
      set_integer(error, "end_lineno", std::clamp(*end_line - wrapper_lines, line, count));
  } else {
    if (line < 1) {
      // The generated "global" line of an out-local that the text declares
      // again: the same text without out-locals fails at the user's declaration.
      if (auto bare = syntax_error_of(statementsText(user, {})))
        if (auto bare_line = integer_attribute(bare.get(), "lineno"))
          line = *bare_line - 1;
    }
    line = std::clamp<std::int64_t>(line, 1, count);
    // The column and the shown line were the generated text's: none is better than a wrong one.
    for (const char *name : {"offset", "end_offset", "text"})
      set_attribute(error, name, Py_None);
    set_integer(error, "end_lineno", line);
  }
  set_integer(error, "lineno", line);
}
} // namespace

std::int64_t pythonLineCount(std::string_view text) {
  std::int64_t lines = 1;
  for (std::size_t i = 0; i < text.size(); ++i)
    lines += text[i] == '\n' || (text[i] == '\r' && (i + 1 == text.size() || text[i + 1] != '\n'));
  return lines;
}

void placeSyntaxError(std::string_view user, std::span<const kest::String> outLocalNames) {
  if (!PyErr_ExceptionMatches(PyExc_SyntaxError))
    return;
  auto pending = takePendingException(); // nothing may be pending while the text compiles again
  if (auto alone = syntax_error_of(user); alone && !outside_function_only(alone.get())) {
    PyErr_SetObject(reinterpret_cast<PyObject *>(Py_TYPE(alone.get())), alone.get());
    return;
  }
  if (pending.value)
    move_into_text(pending.value.get(), user, outLocalNames);
  PyErr_Restore(pending.type.release(), pending.value.release(), pending.traceback.release());
}

} // namespace sarvode
