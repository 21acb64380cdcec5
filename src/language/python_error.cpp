// Python exceptions as host errors.

#include "language/python_error.hpp"

#include "convert/from_python.hpp"
#include "convert/python_classes.hpp"
#include "convert/to_python.hpp"
#include "convert/type_mapping.hpp"
#include "language/exception_types.hpp"
#include "language/exit_errors.hpp"
#include "language/python_helper.hpp"

#include <kest/kest.hpp>

#include <atomic>
#include <optional>

namespace sarvode {

pendingException takePendingException() {
  PyObject *type = nullptr, *value = nullptr, *traceback = nullptr;
  PyErr_Fetch(&type, &value, &traceback);
  PyErr_NormalizeException(&type, &value, &traceback);
  if (traceback && value)
    PyException_SetTraceback(value, traceback);
  return {py::object::steal(type), py::object::steal(value), py::object::steal(traceback)};
}

namespace {

/// A whole-number attribute; missing, None or not convertible counts as absent.
std::optional<std::int64_t> position(PyObject *object, const char *name) {
  auto value = py::object::steal(PyObject_GetAttrString(object, name));
  if (!value || value.get() == Py_None) {
    PyErr_Clear();
    return std::nullopt;
  }
  const long long v = PyLong_AsLongLong(value.get());
  if (v == -1 && PyErr_Occurred()) {
    PyErr_Clear();
    return std::nullopt;
  }
  return v;
}

std::string utf8_of(PyObject *text) { return std::string(py::utf8(text)); }

std::string str_of(PyObject *object) {
  auto text = py::object::steal(PyObject_Str(object));
  if (!text) {
    PyErr_Clear();
    return {};
  }
  return utf8_of(text.get());
}

/// Python's own rendering of an exception and its traceback, joined.
std::string formatted(PyObject *exception) {
  PyObject *format = python_classes::format_exception();
  if (!format)
    return {};
  auto lines = py::object::steal(PyObject_CallFunctionObjArgs(format, exception, nullptr));
  if (!lines) {
    PyErr_Clear();
    return {};
  }
  std::string out;
  auto iterator = py::object::steal(PyObject_GetIter(lines.get()));
  while (iterator) {
    auto line = py::object::steal(PyIter_Next(iterator.get()));
    if (!line)
      break;
    out += utf8_of(line.get());
  }
  PyErr_Clear();
  return out;
}

/// True when the exception carries a host error (its instance attribute "kest").
bool carries_host_error(PyObject *exception) {
  auto carried = py::object::steal(PyObject_GetAttrString(exception, "kest"));
  if (!carried)
    PyErr_Clear();
  return carried && carried.get() != Py_None;
}

/// The host's own message of the RuntimeError raised for a plain host error;
/// nothing for any other exception.
std::optional<std::string> plain_host_message(PyObject *exception) {
  auto marker = py::object::steal(PyObject_GetAttrString(exception, plain_host_error_marker));
  if (!marker || !PyUnicode_Check(marker.get())) {
    PyErr_Clear();
    return std::nullopt;
  }
  return std::string(py::utf8(marker.get()));
}

kest::Class_Generic error_class_for(PyObject *exception) {
  PyObject *type = reinterpret_cast<PyObject *>(Py_TYPE(exception));
  if (type == PyExc_StopIteration)
    return kest::StopIteration::getClass();
  if (auto cls = exitErrorClassFor(exception))
    return cls;
  if (auto cls = errorClassForExceptionType(type))
    return cls;
  auto mapped = typeFromPython(type);
  if (kest::Class_Generic::isInstance(mapped)) {
    auto cls = kest::Class_Generic::unsafeFrom(mapped);
    if (kest::I_Callable_Generic::isInstance(cls) &&
        kest::I_Callable_Generic::unsafeFrom(cls).resultType().conformsTo(kest::Error::getType()))
      return cls;
  }
  return kest::Error::getClass();
}

/// The stack text of an evaluation's exception: Python's own rendering of
/// its traceback and of those of its causes and contexts, with the frames of
/// the user's text at the user's lines and without the generated code around
/// it. The tracebacks are rebuilt for the rendering and put back after it.
constexpr const char *user_stack_source = R"(
def user_stack(exc, wrapper, run_globals, offset, count):
    import traceback, types

    def rebuilt(tb):
        kept = []
        while tb is not None:
            frame = tb.tb_frame
            code = frame.f_code
            if code is wrapper:
                pass
            elif frame.f_globals is run_globals and code.co_filename == "<string>":
                line = tb.tb_lineno + offset if tb.tb_lineno is not None else 0
                if 1 <= line <= count:
                    kept.append((frame, -1, line))  # -1: the rendering takes the line given
            else:
                kept.append((frame, tb.tb_lasti, tb.tb_lineno if tb.tb_lineno is not None else -1))
            tb = tb.tb_next
        out = None
        for frame, lasti, line in reversed(kept):
            out = types.TracebackType(out, frame, lasti, line)
        return out

    chain, seen, todo = [], set(), [exc]
    while todo:
        e = todo.pop()
        if e is None or id(e) in seen:
            continue
        seen.add(id(e))
        chain.append((e, e.__traceback__))
        todo += [e.__cause__, e.__context__]
        if isinstance(e, BaseExceptionGroup):
            todo += e.exceptions
    try:
        for e, tb in chain:
            e.__traceback__ = rebuilt(tb)
        return "".join(traceback.format_exception(exc))
    finally:
        for e, tb in chain:
            e.__traceback__ = tb
)";

std::string user_stack(PyObject *exception, const evaluated_text &text) {
  static std::atomic<PyObject *> kept{nullptr};
  PyObject *helper = pythonHelper(kept, user_stack_source, "user_stack");
  auto offset = py::object::steal(PyLong_FromLongLong(text.line_offset));
  auto count = py::object::steal(PyLong_FromLongLong(text.line_count));
  auto stack = py::object::steal(helper && offset && count
                                     ? PyObject_CallFunctionObjArgs(helper, exception,
                                                                    text.wrapper ? text.wrapper : Py_None,
                                                                    text.globals, offset.get(), count.get(), nullptr)
                                     : nullptr);
  PyErr_Clear(); // without the helper the error only loses its stack text
  return stack ? utf8_of(stack.get()) : std::string();
}

std::string notes_of(PyObject *exception) {
  std::string out;
  auto notes = py::object::steal(PyObject_GetAttrString(exception, "__notes__"));
  if (!notes || !PyList_Check(notes.get())) {
    PyErr_Clear();
    return out;
  }
  for (Py_ssize_t i = 0, n = PyList_Size(notes.get()); i < n; ++i)
    if (PyObject *note = PyList_GetItem(notes.get(), i); note && PyUnicode_Check(note))
    {
      out.push_back('\n');
      out += utf8_of(note);
    }
  return out;
}
} // namespace

std::string exceptionTypeName(PyObject *type) {
  auto qualname = py::object::steal(PyObject_GetAttrString(type, "__qualname__"));
  auto module = py::object::steal(PyObject_GetAttrString(type, "__module__"));
  PyErr_Clear();
  std::string name(py::utf8(qualname.get()));
  if (name.empty())
    name = "<unknown>";
  if (!module || !PyUnicode_Check(module.get()))
    return "<unknown>." + name;
  const std::string_view in = py::utf8(module.get());
  if (in == "builtins" || in == "__main__")
    return name;
  return std::string(in) + "." + name;
}

namespace {
/// An exception as a host error; its stack text is the user's (see
/// `user_stack`) when it comes from an evaluation of `text`.
kest::Any error_from_exception(PyObject *exception, const evaluated_text *text) {
  // A host error that travelled through Python comes back as it was.
  auto carried = py::object::steal(PyObject_GetAttrString(exception, "kest"));
  if (carried && carried.get() != Py_None)
    return fromPython(carried.get());
  PyErr_Clear();

  auto cls = error_class_for(exception);
  std::string message;
  const bool syntax = PyObject_IsInstance(exception, PyExc_SyntaxError) > 0;
  PyErr_Clear();
  const std::string stack = text ? user_stack(exception, *text) : formatted(exception);
  if (syntax)
    message = stack; // keeps Python's rendering of the offending line and its caret
  if (message.empty()) {
    auto plain = plain_host_message(exception); // a plain host error keeps the host's own message
    message = plain ? *plain : str_of(exception);
  }
  message += notes_of(exception);
  auto error = kest::Error::create(cls, kest::String::fromUtf8(message));
  error.setStack(kest::String::fromUtf8(stack));
  error.setTypeName(kest::String::fromUtf8(exceptionTypeName(reinterpret_cast<PyObject *>(Py_TYPE(exception)))));
  if (cls.isSame(systemExitErrorClass())) {
    // The exit code, for a host that ends as Python would.
    auto code = py::object::steal(PyObject_GetAttrString(exception, "code"));
    PyErr_Clear();
    error.setValue(code ? fromPython(code.get()) : kest::Any());
  }
  return error;
}

/// The host form of a fetched exception value. Every exception instance is an
/// error here, those that derive from BaseException only (SystemExit,
/// KeyboardInterrupt, ...) included.
kest::Any error_value_of(PyObject *value, const evaluated_text *text = nullptr) {
  if (value && PyExceptionInstance_Check(value))
    return error_from_exception(value, text);
  return fromPython(value);
}
} // namespace

kest::Any errorFromException(PyObject *exception) { return error_from_exception(exception, nullptr); }

kest::Union<kest::Error, kest::None> currentPythonError() {
  if (!PyErr_Occurred())
    return kest::None();
  auto f = takePendingException();
  auto value = error_value_of(f.value.get());
  PyErr_Clear();
  if (kest::Error::isInstance(value))
    return kest::Error::unsafeFrom(value);
  return kest::None();
}

namespace {
kest::Union<kest::Integer, kest::None> as_position(const std::optional<std::int64_t> &v) {
  if (v)
    return kest::Integer(*v);
  return kest::None();
}

bool is_text_frame(PyObject *traceback, const evaluated_text &text) {
  auto frame = py::object::steal(PyObject_GetAttrString(traceback, "tb_frame"));
  auto globals = py::object::steal(frame ? PyObject_GetAttrString(frame.get(), "f_globals") : nullptr);
  auto code = py::object::steal(frame ? PyObject_GetAttrString(frame.get(), "f_code") : nullptr);
  auto file = py::object::steal(code ? PyObject_GetAttrString(code.get(), "co_filename") : nullptr);
  PyErr_Clear();
  return globals.get() == text.globals && code.get() != text.wrapper && py::utf8(file.get()) == "<string>";
}

/// The line of the innermost frame of the traceback, shifted by the offset;
/// with a text, of the innermost frame of that text whose line lies in it.
std::optional<std::int64_t> traceback_line(PyObject *traceback, std::int64_t lineOffset,
                                           const evaluated_text *text) {
  std::optional<std::int64_t> line;
  py::object entry = py::object::borrow(traceback);
  while (entry && entry.get() != Py_None) {
    if (auto n = position(entry.get(), "tb_lineno")) {
      if (!text)
        line = *n + lineOffset;
      else if (const auto own = *n + text->line_offset;
               own >= 1 && own <= text->line_count && is_text_frame(entry.get(), *text))
        line = own;
    }
    auto next = py::object::steal(PyObject_GetAttrString(entry.get(), "tb_next"));
    if (!next)
      PyErr_Clear();
    entry = std::move(next);
  }
  return line;
}

kest::Error convert_pending(std::int64_t lineOffset, std::int64_t columnOffset, const evaluated_text *text) {
  if (!PyErr_Occurred())
    return kest::Error::unknown();
  auto f = takePendingException();
  auto value = f.value ? error_value_of(f.value.get(), text) : kest::Any();
  PyErr_Clear();
  kest::Error error = kest::Error::isInstance(value) ? kest::Error::unsafeFrom(value) : kest::Error::unknown();
  // The end of an iteration stays a StopIteration, and a request to end the
  // program keeps its class and exit code: neither has a position.
  if (!f.value || kest::StopIteration::isInstance(error) || exitErrorClassFor(f.value.get()))
    return error;

  if (!text && carries_host_error(f.value.get()))
    return error; // outside an evaluation a host error comes back as itself
  if (const bool carried = carries_host_error(f.value.get()); carried || plain_host_message(f.value.get())) {
    // A host error that crossed into Python and back keeps its class and
    // message, and gains the line of the call and the name Python knew it by.
    auto copy = carried ? error.copy() : kest::Error(error.message());
    copy.setTypeName(kest::String::fromUtf8(exceptionTypeName(reinterpret_cast<PyObject *>(Py_TYPE(f.value.get())))));
    if (auto line = traceback_line(f.traceback.get(), lineOffset, text))
      copy.setPosition(line, std::nullopt);
    if (copy.stack().empty())
      copy.setStack(carried ? kest::String::fromUtf8(user_stack(f.value.get(), *text)) : error.stack());
    return copy;
  }

  // Only a syntax error's position attributes say where the text is wrong;
  // other exceptions' "lineno" (a JSON decoder's, a user class's) mean something else.
  std::optional<std::int64_t> line, column, span_length;
  if ((!text || text->did_not_compile) && PyObject_IsInstance(f.value.get(), PyExc_SyntaxError) > 0) {
    line = position(f.value.get(), "lineno");
    column = position(f.value.get(), "offset");
    const auto end_line = position(f.value.get(), "end_lineno");
    const auto end_column = position(f.value.get(), "end_offset");
    if (line && column && end_line && end_column && *line == *end_line && *end_column > *column)
      span_length = *end_column - *column;
    if (line && !text)
      *line += lineOffset;
    if (column && !text)
      *column += columnOffset;
  }
  PyErr_Clear();
  if (!line)
    line = traceback_line(f.traceback.get(), lineOffset, text);
  if (!line && !column)
    return error;

  kest::EvaluationError positioned(error.message(), as_position(line), as_position(column),
                                   as_position(span_length ? column : std::nullopt), as_position(span_length));
  positioned.setStack(error.stack());
  positioned.setTypeName(error.typeName());
  return positioned;
}
} // namespace

kest::Error errorFromPython(std::int64_t lineOffset, std::int64_t columnOffset) {
  return convert_pending(lineOffset, columnOffset, nullptr);
}

kest::Error errorFromEvaluation(const evaluated_text &text) { return convert_pending(0, 0, &text); }

} // namespace sarvode
