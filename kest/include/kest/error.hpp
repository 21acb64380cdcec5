#pragma once
/// Errors as values: `Error` and its subclasses `BadArgument`, `EvaluationError`
/// and `StopIteration`.
///
/// Errors are returned inside `Result<T>`, never thrown across a library
/// boundary. Inside the library a C++ exception may carry one
/// (`kest::exception`); `Error::fromCurrentException()` turns what was caught
/// back into a value.

#include <kest/integer.hpp>
#include <kest/none.hpp>
#include <kest/string.hpp>

#include <exception>
#include <optional>
#include <stdexcept>

namespace kest {

class KEST_API Error : public Any {
  KEST_HANDLE_MEMBERS(Error, Any)
  explicit Error(const String &message);
  explicit Error(const char *message) : Error(String::fromUtf8(message)) {}
  /// An error of a class derived from `Error` (for example one declared at run time).
  static Error create(const Class_Generic &errorClass, const String &message);
  /// The error used when a failure carries no error of its own.
  static Error unknown();
  /// Turns the exception being handled into an error. Must be called inside a
  /// `catch` block; keeps the exception as the error's cause unless it
  /// already carried an `Error`.
  static Error fromCurrentException();

  [[nodiscard]] String message() const;
  /// The captured native exception, or null.
  [[nodiscard]] std::exception_ptr cause() const;
  void setCause(std::exception_ptr cause) const;
  [[nodiscard]] String stack() const;
  void setStack(const String &stack) const;
  /// An optional value attached to the error.
  [[nodiscard]] Any value() const;
  void setValue(const Any &value) const;
  /// The qualified name of the error's type in the language that raised it
  /// ("KeyError", "json.decoder.JSONDecodeError", "kest.demo.DemoError");
  /// empty for an error that no language raised. `display` shows it before
  /// the message.
  [[nodiscard]] String typeName() const;
  void setTypeName(const String &name) const;
  /// The line that names the error, as the last line of a Python traceback
  /// reads: "TYPE: MESSAGE" ("KeyError: 'x'"), the message alone when there
  /// is no type name, and for a message that already ends in such a line (a
  /// syntax error's rendering of the offending line) that last line.
  [[nodiscard]] String headline() const;

  /// Where in evaluated source text the error arose, when known: the line and
  /// column (both counted from 1) and a span on that line. Any error can carry
  /// a position (a host error raised inside evaluated code gets the line of
  /// the call); an `EvaluationError` is one made from the text's own failure.
  [[nodiscard]] std::optional<std::int64_t> line() const;
  [[nodiscard]] std::optional<std::int64_t> column() const;
  [[nodiscard]] std::optional<std::int64_t> spanStart() const;
  [[nodiscard]] std::optional<std::int64_t> spanLength() const;
  void setPosition(std::optional<std::int64_t> line, std::optional<std::int64_t> column,
                   std::optional<std::int64_t> spanStart = {}, std::optional<std::int64_t> spanLength = {}) const;

  /// A new error of the same class with the same message, cause, stack,
  /// value, type name, position and fields: what a caller changes on the copy
  /// leaves an error that others may hold alone.
  [[nodiscard]] Error copy() const;
};

/// An argument of a call did not fit the callee.
class KEST_API BadArgument : public Error {
  KEST_HANDLE_MEMBERS(BadArgument, Error)
  explicit BadArgument(const String &message);
  explicit BadArgument(const char *message) : BadArgument(String::fromUtf8(message)) {}
};

/// An error with a position in evaluated source text; each position is optional.
class KEST_API EvaluationError : public Error {
  KEST_HANDLE_MEMBERS(EvaluationError, Error)
  EvaluationError(const String &message, const Union<Integer, None> &line,
                  const Union<Integer, None> &column,
                  const Union<Integer, None> &spanStart = {},
                  const Union<Integer, None> &spanLength = {});
};

/// The end of an iteration.
class KEST_API StopIteration : public Error {
  KEST_HANDLE_MEMBERS(StopIteration, Error)
  StopIteration();
  explicit StopIteration(const String &message);
};

/// A C++ exception that carries a host error. `what()` is the error's
/// headline ("OverflowError: int too big to convert"; the message alone for an
/// error without a type name); `error()` is the error itself.
class KEST_API exception : public std::runtime_error {
public:
  explicit exception(Error error);
  [[nodiscard]] const Error &error() const noexcept { return m_error; }

private:
  Error m_error;
};

} // namespace kest
