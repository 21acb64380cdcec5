// Errors as values.

#include "builtin.hpp"

#include <kest/boolean.hpp>
#include <kest/builders.hpp>
#include <kest/error.hpp>
#include <kest/reflection.hpp>

#include <algorithm>
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
  String type_name;
  // Where in evaluated text the error arose.
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
Any optional_integer(std::optional<std::int64_t> v) { return v ? Any(Integer(*v)) : Any(None()); }

/// The error's state, readable by name from any language.
void add_error_members(const Class_Generic &cls) {
  const std::pair<const char16_t *, std::function<Any(const Error &)>> readers[] = {
      {u"$$message", [](const Error &e) -> Any { return e.message(); }},
      {u"$$stack", [](const Error &e) -> Any { return e.stack(); }},
      {u"$$value", [](const Error &e) -> Any { return e.value(); }},
      {u"$$hasCause", [](const Error &e) -> Any { return Boolean(static_cast<bool>(e.cause())); }},
      {u"$$typeName", [](const Error &e) -> Any { return e.typeName(); }},
      {u"$$line", [](const Error &e) -> Any { return optional_integer(e.line()); }},
      {u"$$column", [](const Error &e) -> Any { return optional_integer(e.column()); }},
  };
  for (const auto &[name, read] : readers) {
    property_builder_base p{String(name)};
    p.assign_getter(make_method([read = read](Error self) { return read(self); }));
    cls->add_property(p.name(), p.build());
  }
}
} // namespace

KEST_DEFINE_HANDLE(Error, instance_derives(a, &Error::getClass), [] {
  auto cls = make_builtin_class("Error", class_flags::error);
  cls.setAllocator(&allocate_error);
  add_error_members(cls);
  return cls;
}())
KEST_DEFINE_HANDLE(BadArgument, instance_derives(a, &BadArgument::getClass),
                   error_class("BadArgument", &Error::getClass))
KEST_DEFINE_HANDLE(EvaluationError, instance_derives(a, &EvaluationError::getClass),
                   error_class("EvaluationError", &Error::getClass))
KEST_DEFINE_HANDLE(StopIteration, instance_derives(a, &StopIteration::getClass),
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
    return p.unsafeAs<Integer>().value();
  return std::nullopt;
}
} // namespace

EvaluationError::EvaluationError(const String &message, const Union<Integer, None> &line,
                                 const Union<Integer, None> &column, const Union<Integer, None> &spanStart,
                                 const Union<Integer, None> &spanLength)
    : Error(unchecked, make_error(EvaluationError::getClass(), message)) {
  setPosition(position(line), position(column), position(spanStart), position(spanLength));
}

namespace {
/// A part of the error's state, read under its lock; empty for a value that is no native error.
template <class T> T read_state(const Any &error, T object_value_error::*which) {
  auto *e = err(error);
  if (!e)
    return {};
  std::lock_guard guard(e->lock());
  return e->*which;
}
} // namespace
String Error::typeName() const { return read_state(*this, &object_value_error::type_name); }
void Error::setTypeName(const String &name) const {
  if (auto *e = err(*this)) {
    std::lock_guard guard(e->lock());
    e->type_name = name;
  }
}
namespace {
/// The last line of `text` that is not empty, without its line break.
std::string_view last_line(std::string_view text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
    text.remove_suffix(1);
  const auto start = text.find_last_of('\n');
  return start == std::string_view::npos ? text : text.substr(start + 1);
}
} // namespace

String Error::headline() const {
  const auto type = typeName();
  const auto text = message();
  if (type.length() == 0)
    return text;
  const std::string prefix = type.toUtf8() + ":";
  const std::string utf8 = text.toUtf8();
  if (const auto last = last_line(utf8); last.starts_with(prefix) && last.size() < utf8.size())
    return String::fromUtf8(last);
  if (utf8.empty())
    return type;
  return String::fromUtf8(prefix + " " + utf8);
}

std::optional<std::int64_t> Error::line() const { return read_state(*this, &object_value_error::line); }
std::optional<std::int64_t> Error::column() const { return read_state(*this, &object_value_error::column); }
std::optional<std::int64_t> Error::spanStart() const { return read_state(*this, &object_value_error::span_start); }
std::optional<std::int64_t> Error::spanLength() const {
  return read_state(*this, &object_value_error::span_length);
}
void Error::setPosition(std::optional<std::int64_t> line, std::optional<std::int64_t> column,
                        std::optional<std::int64_t> spanStart, std::optional<std::int64_t> spanLength) const {
  auto *e = err(*this);
  if (!e)
    return;
  std::lock_guard guard(e->lock());
  e->line = line;
  e->column = column;
  e->span_start = spanStart;
  e->span_length = spanLength;
}

Error Error::copy() const {
  auto *from = err(*this);
  if (!from)
    return Error(message());
  Error made = Error::create(raw_class_of(*this), message());
  auto *to = err(made);
  if (!to || to == from)
    return made;
  // The fields first: a field's value is released outside the source's lock.
  const std::size_t fields = std::min(from->field_count(), to->field_count());
  for (std::size_t i = 0; i < fields; ++i)
    (void)to->exchange_field(i, from->field(i));
  std::scoped_lock guard(from->lock(), to->lock());
  to->cause = from->cause;
  to->stack = from->stack;
  to->value = from->value;
  to->type_name = from->type_name;
  to->line = from->line;
  to->column = from->column;
  to->span_start = from->span_start;
  to->span_length = from->span_length;
  return made;
}

StopIteration::StopIteration() : StopIteration(String(u"Stop iteration.")) {}
StopIteration::StopIteration(const String &message)
    : Error(unchecked, make_error(StopIteration::getClass(), message)) {}

exception::exception(Error error) : std::runtime_error(error.headline().toUtf8()), m_error(std::move(error)) {}

} // namespace kest
