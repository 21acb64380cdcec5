#pragma once
// Small helpers shared by the demo classes.

#include <kest/kest.hpp>

#include <string>

namespace sarvode::demo {

using namespace kest::literals; // "size"_field, "x"_a

inline constexpr const char *module_name = "kest.demo";

/// A new, empty instance of a demo class (its constructor fills it).
inline kest::Any new_instance(const kest::Class_Generic &cls) { return cls.allocateInstance().as<kest::Any>(); }

/// Reads a field of an instance (fields hold what the classes keep).
inline kest::Any field(const kest::Any &self, const kest::meta_field_untyped &name) {
  return self.fieldValue(name).as<kest::Any>();
}

/// Reads a field that must hold a `T`; anything else throws, and the call that
/// read it fails with an error naming both classes.
template <class T> T field_as(const kest::Any &self, const kest::meta_field_untyped &name) {
  return self.fieldValue(name).as<T>();
}

inline void set_field(const kest::Any &self, const kest::meta_field_untyped &name, const kest::Any &value) {
  (void)self.setFieldValue(name, value);
}

/// True when the value is an instance of the class (or of a class derived from it).
inline bool is_a(const kest::Any &value, const kest::Class_Generic &cls) {
  return kest::raw_class_of(value).derivesFrom(cls);
}

/// A number (Integer or Float) as a double; anything else is a BadArgument
/// error, never a silent zero.
inline double number(const kest::Any &value) {
  if (kest::Integer::isInstance(value) || kest::Float::isInstance(value))
    return kest::to<double>(value);
  throw kest::exception(kest::BadArgument(kest::String::fromUtf8(
      "Unable to convert an argument: a number is expected, not " +
      kest::qualname(kest::raw_class_of(value)).toUtf8() + ".")));
}

/// The module's classes, declared on first use.
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
