#pragma once
// Small helpers for declaring the demo classes.

#include <kest/kest.hpp>

#include <string>
#include <vector>

namespace sarvode::demo {

using builder = kest::internal::class_builder_base;
using namespace kest::literals; // field names written in the source: "size"_field

inline const kest::String module_name(u"kest.demo");

/// A method entry from a typed function, with parameter names and defaults.
inline kest::Any method(const char *name, kest::I_Callable_Generic fn, const char *params, const char *doc,
                        std::vector<kest::Any> defaults = {}) {
  const auto text = kest::String::fromUtf8(name);
  return builder::method_entry(kest::meta_method_untyped(text),
                               kest::internal::declared_function(text, std::move(fn), kest::String::fromUtf8(params),
                                                                 kest::String::fromUtf8(doc), std::move(defaults)));
}

/// A property entry with a getter and an optional setter.
inline kest::Any property(const char *name, kest::I_Callable_Generic getter, const char *doc,
                          kest::I_Callable_Generic setter = {}) {
  return kest::internal::declared_property(kest::String::fromUtf8(name), std::move(getter), kest::String::fromUtf8(doc),
                                           std::move(setter));
}

/// Reads a field of an instance (fields hold what the classes keep).
inline kest::Any field(const kest::Any &self, const kest::meta_field_untyped &name) {
  return kest::internal::result_unwrap_lazy(self.fieldValue(name));
}

/// Reads a field that must hold a `T`. Anything else (a field never set, an
/// error) is reported as a host error rather than read as the wrong type: the
/// exception becomes the call's error where the method was called.
template <class T> T field_as(const kest::Any &self, const kest::meta_field_untyped &name) {
  auto value = field(self, name);
  if (!T::isInstance(value))
    throw kest::exception(kest::Error::unsafeFrom(kest::internal::result_unwrap_lazy(T::checkedCast(value))));
  return T(kest::internal::unchecked, std::move(value));
}

inline void set_field(const kest::Any &self, const kest::meta_field_untyped &name, const kest::Any &value) {
  (void)self.setFieldValue(name, value);
}

/// True when the value is an instance of the class (or of a class derived from it).
inline bool is_a(const kest::Any &value, const kest::Class_Generic &cls) {
  return value.kind() == kest::internal::ObjectType::Instance && kest::raw_class_of(value).derivesFrom(cls);
}

/// True for the host numbers (Integer and Float).
inline bool is_number(const kest::Any &value) {
  return kest::Integer::isInstance(value) || kest::Float::isInstance(value);
}

/// A number (Integer or Float) as a double; anything else is a BadArgument
/// error, never a silent zero.
inline double number(const kest::Any &value) {
  if (value.kind() == kest::internal::ObjectType::Integer)
    return static_cast<double>(static_cast<std::int64_t>(kest::internal::integer_parts_of(value).bits));
  if (value.kind() == kest::internal::ObjectType::Float)
    return kest::internal::float_value_of(value);
  throw kest::exception(kest::BadArgument(kest::String::fromUtf8(
      "Unable to convert an argument: a number is expected, not " +
      kest::qualname(kest::raw_class_of(value)).toUtf8() + ".")));
}

kest::Class_Generic vector_class();
kest::Class_Generic shape_class();
kest::Class_Generic drawing_class();
kest::Class_Generic palette_class();
kest::Class_Generic countdown_class();
kest::Class_Generic scaler_class();
kest::Class_Generic demo_error_class();

/// A new Vector.
kest::Any make_vector(double x, double y);
kest::Type vector_class_type();

} // namespace sarvode::demo
