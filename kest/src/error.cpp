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
object_value_error *err(const Any &a) { return native<object_value_error>(a); }

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
  auto e = Error::unsafeFrom(instance);
  std::lock_guard guard(err(e)->lock());
  err(e)->message = message;
  return e;
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

String Error::message() const {
  std::lock_guard guard(err(*this)->lock());
  return err(*this)->message;
}
std::exception_ptr Error::cause() const {
  std::lock_guard guard(err(*this)->lock());
  return err(*this)->cause;
}
void Error::setCause(std::exception_ptr cause) const {
  std::lock_guard guard(err(*this)->lock());
  err(*this)->cause = std::move(cause);
}
String Error::stack() const {
  std::lock_guard guard(err(*this)->lock());
  return err(*this)->stack;
}
void Error::setStack(const String &stack) const {
  std::lock_guard guard(err(*this)->lock());
  err(*this)->stack = stack;
}
Any Error::value() const {
  std::lock_guard guard(err(*this)->lock());
  return err(*this)->value;
}
void Error::setValue(const Any &value) const {
  Any old;
  std::lock_guard guard(err(*this)->lock());
  old = std::exchange(err(*this)->value, value);
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
  auto *e = err(*this);
  e->line = position(line);
  e->column = position(column);
  e->span_start = position(spanStart);
  e->span_length = position(spanLength);
}
std::optional<std::int64_t> EvaluationError::line() const { return err(*this)->line; }
std::optional<std::int64_t> EvaluationError::column() const { return err(*this)->column; }
std::optional<std::int64_t> EvaluationError::spanStart() const { return err(*this)->span_start; }
std::optional<std::int64_t> EvaluationError::spanLength() const { return err(*this)->span_length; }

StopIteration::StopIteration() : StopIteration(String(u"Stop iteration.")) {}
StopIteration::StopIteration(const String &message)
    : Error(unchecked, make_error(StopIteration::getClass(), message)) {}

exception::exception(Error error) : std::runtime_error(error.message().toUtf8()), m_error(std::move(error)) {}

} // namespace kest
