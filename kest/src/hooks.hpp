#pragma once
// The object hooks a class may override with meta-methods, and their names.

#include <kest/class.hpp>

#include <span>

namespace kest::internal {

enum class object_hook : std::uint32_t {
  property,
  property_value,
  set_property_value,
  method,
  display,
  compare,
  hash,
  own_property,
  own_properties,
  own_method,
  own_methods,
  insert_property,
  insert_method,
  remove_property,
  remove_method,
  count
};

/// The meta-method name of a hook ("__display__", ...).
const meta_method_untyped &hook_name(object_hook hook);

/// True when the class of `self` overrides `hook`.
inline bool overrides(const object_value_class *cls, object_hook hook) {
  return cls && (cls->override_mask() & (1u << static_cast<std::uint32_t>(hook))) != 0;
}

/// The meta-method of `cls` for `hook`, or None when the class has none that can be called.
Union<I_Callable_Generic, None> hook_method(const object_value_class *cls, object_hook hook);

/// The meta-method of `cls` for `hook` when the class overrides it, else None.
inline Union<I_Callable_Generic, None> overriding_hook(const object_value_class *cls, object_hook hook) {
  return overrides(cls, hook) ? hook_method(cls, hook) : Union<I_Callable_Generic, None>(None());
}

/// Makes (or finds) the generic instance of `definition` for `arguments`.
Class_Generic generic_instance_of(const Class_Generic &definition, std::span<const Type> arguments);

/// How a declaring context is kept (weakly, or as a module name) and read back.
Any store_context(const Any &context);
Any resolve_context(const Any &context);

/// Registers a class under its qualified name for `find_type`.
void register_class_name(const Class_Generic &cls);
/// The class registered under a qualified name.
Union<Type, None> find_type_by_name(const String &name);

} // namespace kest::internal
