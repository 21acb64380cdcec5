#pragma once
// Internal helpers for the library's own classes and typed handles.

#include <kest/class.hpp>
#include <kest/computed.hpp>
#include <kest/instance.hpp>
#include <kest/none.hpp>

#include <cassert>
#include <initializer_list>

namespace kest::internal {

using class_getter = const Class_Generic &(*)();

/// Makes a class of the module "kest" with the given bases. The module is
/// recorded by name and resolved when asked, so builtin classes can be made
/// before the module table exists.
Class_Generic make_builtin_class(const char *name, std::uint64_t flags,
                                 std::initializer_list<class_getter> bases = {});

/// True when `a` is an instance whose class derives from the class `cls`
/// gives; a plain value (an Integer, a String) is answered without asking it.
inline bool instance_derives(const Any &a, const Class_Generic &(*cls)()) noexcept {
  return a.kind() == ObjectType::Instance && a.get()->class_value() &&
         a.get()->class_value()->derives_from(cls().value());
}

/// True when the class of `a` derives from `cls` (any kind of value).
inline bool value_derives(const Any &a, const Class_Generic &cls) noexcept {
  auto *c = a.get() ? a.get()->class_value() : nullptr;
  return c && c->derives_from(cls.value());
}

/// Base of the library's native instance types: their class comes from a
/// getter instead of a stored class, so that making one never declares a class.
template <class_getter Getter> class native_instance : public object_value_instance {
public:
  native_instance() noexcept = default;
  explicit native_instance(Class_Generic cls) : object_value_instance(std::move(cls)) {}
  [[nodiscard]] object_value_class *class_value() const noexcept override {
    auto *own = object_value_instance::class_value();
    return own ? own : Getter().value();
  }
};

/// The object behind a handle, cast to its native type without a check: the
/// caller has checked the class. Debug builds assert that it really is a `T`.
template <class T> T *native(const Any &a) noexcept {
  assert(dynamic_cast<T *>(a.get()) == a.get() && "native: the value is not of this native type");
  return static_cast<T *>(a.get());
}

/// The object behind a handle when its kind is `kind`, else null. Handle members
/// use it, so that a handle made over a value of another class (`unsafeFrom`)
/// gives a neutral answer or an error instead of reading the wrong object.
template <class T> T *native_if(const Any &a, ObjectType kind) noexcept {
  return a.kind() == kind ? native<T>(a) : nullptr;
}

/// The object behind a handle when it is a `T` (for native instances, which
/// share the kind Instance with declared classes), else null.
template <class T> T *native_if(const Any &a) noexcept { return dynamic_cast<T *>(a.get()); }

/// The native interface operations of an instance's own class, or null.
inline const native_protocol *native_protocol_of(const Any &a) noexcept {
  if (a.kind() != ObjectType::Instance)
    return nullptr;
  auto *cls = a.get()->class_value();
  return cls ? cls->native.load(std::memory_order_acquire) : nullptr;
}

/// The error for a value that is not of the class an operation needs.
inline Error wrong_class(const char *expected, const Any &value) {
  return result_error_cast_source(String::fromUtf8(expected), value);
}

/// The hash of a String's text, computed once per string (no handle made:
/// map keys are hashed on every lookup).
std::uint64_t text_hash_of(const Any &a) noexcept;
/// Whether two Strings hold the same text.
bool same_text(const Any &a, const Any &b) noexcept;

} // namespace kest::internal

/// Defines the static members that `KEST_HANDLE_MEMBERS` declares.
/// `check` is an expression over `a`; `make_class` makes the class once.
#define KEST_DEFINE_HANDLE(Name, check, make_class)                                              \
  bool Name::isInstance(const ::kest::Any &a) noexcept { return (check); }                       \
  KEST_DEFINE_HANDLE_WITH_INLINE_CHECK(Name, make_class)

/// The same for a handle whose header defines `isInstance` inline.
#define KEST_DEFINE_HANDLE_WITH_INLINE_CHECK(Name, make_class)                                   \
  ::kest::Union<Name, ::kest::None> Name::cast(const ::kest::Any &a) {                           \
    if (isInstance(a))                                                                           \
      return unsafeFrom(a);                                                                      \
    return ::kest::None();                                                                       \
  }                                                                                              \
  ::kest::Result<Name> Name::checkedCast(const ::kest::Any &a) {                                 \
    if (isInstance(a))                                                                           \
      return unsafeFrom(a);                                                                      \
    return ::kest::internal::result_error_cast_source(::kest::String::fromUtf8(#Name), a);             \
  }                                                                                              \
  const ::kest::Class_Generic &Name::getClass() {                                               \
    static const ::kest::Class_Generic declared = (make_class);                                       \
    return declared;                                                                             \
  }                                                                                              \
  ::kest::Type Name::getType() { return ::kest::Type(getClass()); }
