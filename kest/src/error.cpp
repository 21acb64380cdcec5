// Errors as values.

#include "builtin.hpp"

#include <kest/boolean.hpp>
#include <kest/builders.hpp>
#include <kest/error.hpp>
#include <kest/reflection.hpp>

#include <mutex>

namespace kest {
namespace internal {

/// The native state of every error, whatever its class.
class object_value_error : public native_instance<&Error::getClass> {
public:
  explicit object_value_error(Class_Generic cls) : native_instance(std::move(cls)) {}
  object_value_error() = default;
  // Guarded by lock():
  String message;
  std::exception_ptr cause;
  String stack;
  Any value;
  // Positions of an EvaluationError.
  std::optional<std::int64_t> line, column, span_start, span_length;
};

bool is_error_value(const Any &a) noexcept { return Error::isInstance(a); }

} // namespace internal

using namespace internal;

namespace {
Any allocate_error(const Class_Generic &cls) { return Any(new object_value_error(cls)); }

Class_Generic error_class(const char *name, class_getter base) {
  auto cls = make_builtin_class(name, class_flags::error, {base});
  return cls;
}
/// The error's native state, or null when the value is no native error (a handle
/// made over another class, or an instance of an error class with its own allocator).
object_value_error *err(const Any &a) { return native_if<object_value_error>(a); }

Any make_error(const Class_Generic &cls, const String &message) {
  auto *e = new object_value_error(cls);
  e->message = message;
  return Any(e);
}
} // namespace

namespace {
/// The error's state, readable by name from any language.
void add_error_members(const Class_Generic &cls) {
  const std::pair<const char16_t *, std::function<Any(const Error &)>> readers[] = {
      {u"$$message", [](const Error &e) -> Any { return e.message(); }},
      {u"$$stack", [](const Error &e) -> Any { return e.stack(); }},
      {u"$$value", [](const Error &e) -> Any { return e.value(); }},
      {u"$$hasCause", [](const Error &e) -> Any { return Boolean(static_cast<bool>(e.cause())); }},
  };
  for (const auto &[name, read] : readers) {
    property_builder_base p{String(name)};
    p.assign_getter(make_method([read = read](Error self) { return read(self); }));
    cls->add_property(p.name(), p.build());
  }
}
} // namespace

KEST_DEFINE_HANDLE(Error, instance_derives(a, Error::getClass()), [] {
  auto cls = make_builtin_class("Error", class_flags::error);
  cls.setAllocator(&allocate_error);
  add_error_members(cls);
  return cls;
}())
KEST_DEFINE_HANDLE(BadArgument, instance_derives(a, BadArgument::getClass()),
                   error_class("BadArgument", &Error::getClass))
KEST_DEFINE_HANDLE(EvaluationError, instance_derives(a, EvaluationError::getClass()),
                   error_class("EvaluationError", &Error::getClass))
KEST_DEFINE_HANDLE(StopIteration, instance_derives(a, StopIteration::getClass()),
                   error_class("StopIteration", &Error::getClass))

Error::Error(const String &message) : Any(unchecked, make_error(Error::getClass(), message)) {}

Error Error::create(const Class_Generic &errorClass, const String &message) {
  if (!errorClass.derivesFrom(Error::getClass()))
    return Error(message);
  auto instance = errorClass.allocateInstance();
  if (!Error::isInstance(instance))
    return Error(message);
  auto *native_error = err(instance);
  if (!native_error) // the class allocates something else: keep the message in a plain error
    return Error(message);
  std::lock_guard guard(native_error->lock());
  native_error->message = message;
  return Error::unsafeFrom(instance);
}

Error Error::unknown() { return Error(String(u"Unknown error.")); }

Error Error::fromCurrentException() {
  try {
    throw;
  } catch (const kest::exception &e) {
    return e.error();
  } catch (const std::exception &e) {
    Error error(String::fromUtf8(e.what()));
    error.setCause(std::current_exception());
    return error;
  } catch (...) {
    Error error = unknown();
    error.setCause(std::current_exception());
    return error;
  }
}

// A handle made over a value that is no native error reads as an empty error
// (no message, cause, stack or value) and ignores writes.
String Error::message() const {
  auto *e = err(*this);
  if (!e)
    return {};
  std::lock_guard guard(e->lock());
  return e->message;
}
std::exception_ptr Error::cause() const {
  auto *e = err(*this);
  if (!e)
    return {};
  std::lock_guard guard(e->lock());
  return e->cause;
}
void Error::setCause(std::exception_ptr cause) const {
  auto *e = err(*this);
  if (!e)
    return;
  std::lock_guard guard(e->lock());
  e->cause = std::move(cause);
}
String Error::stack() const {
  auto *e = err(*this);
  if (!e)
    return {};
  std::lock_guard guard(e->lock());
  return e->stack;
}
void Error::setStack(const String &stack) const {
  auto *e = err(*this);
  if (!e)
    return;
  std::lock_guard guard(e->lock());
  e->stack = stack;
}
Any Error::value() const {
  auto *e = err(*this);
  if (!e)
    return {};
  std::lock_guard guard(e->lock());
  return e->value;
}
void Error::setValue(const Any &value) const {
  auto *e = err(*this);
  if (!e)
    return;
  Any old;
  std::lock_guard guard(e->lock());
  old = std::exchange(e->value, value);
}

BadArgument::BadArgument(const String &message)
    : Error(unchecked, make_error(BadArgument::getClass(), message)) {}

namespace {
std::optional<std::int64_t> position(const Union<Integer, None> &p) {
  if (p.is<Integer>())
    return p.as<Integer>().value();
  return std::nullopt;
}
} // namespace

EvaluationError::EvaluationError(const String &message, const Union<Integer, None> &line,
                                 const Union<Integer, None> &column, const Union<Integer, None> &spanStart,
                                 const Union<Integer, None> &spanLength)
    : Error(unchecked, make_error(EvaluationError::getClass(), message)) {
  auto *e = native<object_value_error>(*this);
  e->line = position(line);
  e->column = position(column);
  e->span_start = position(spanStart);
  e->span_length = position(spanLength);
}
namespace {
/// A position of an evaluation error; none for a value that is no native error.
using position_slot = std::optional<std::int64_t> object_value_error::*;
std::optional<std::int64_t> position_of(const Any &error, position_slot which) {
  auto *e = err(error);
  return e ? e->*which : std::nullopt;
}
} // namespace
std::optional<std::int64_t> EvaluationError::line() const {
  return position_of(*this, &object_value_error::line);
}
std::optional<std::int64_t> EvaluationError::column() const {
  return position_of(*this, &object_value_error::column);
}
std::optional<std::int64_t> EvaluationError::spanStart() const {
  return position_of(*this, &object_value_error::span_start);
}
std::optional<std::int64_t> EvaluationError::spanLength() const {
  return position_of(*this, &object_value_error::span_length);
}

StopIteration::StopIteration() : StopIteration(String(u"Stop iteration.")) {}
StopIteration::StopIteration(const String &message)
    : Error(unchecked, make_error(StopIteration::getClass(), message)) {}

exception::exception(Error error) : std::runtime_error(error.message().toUtf8()), m_error(std::move(error)) {}

} // namespace kest
