// Member lookup on any value: properties, methods, fields and per-object members,
// with the class's object hooks and fallback hooks.

#include "builtin.hpp"
#include "field.hpp"
#include "hooks.hpp"

#include <kest/boolean.hpp>
#include <kest/float.hpp>
#include <kest/hash_map.hpp>
#include <kest/module.hpp>
#include <kest/reflection.hpp>

#include <fmt/format.h>

namespace kest {

using namespace internal;

namespace {
object_value_class *class_ptr(const Any &v) {
  return v.get() ? v.get()->class_value() : None::getClass().value();
}

/// Calls the hook meta-method of `self` with extra arguments.
Any call_hook(const Any &self, object_hook hook, std::initializer_list<Any> args) {
  auto method = hook_method(class_ptr(self), hook);
  if (!method.is<I_Callable_Generic>())
    return helpers::error_method_not_found(hook_name(hook).string(), self);
  std::vector<Any> full{self};
  full.insert(full.end(), args.begin(), args.end());
  auto callable = method.unsafeAs<I_Callable_Generic>();
  if (callable.isIndependent())
    full.erase(full.begin());
  return result_unwrap_lazy(callable.callWith(full));
}

/// The error for a field that was added to the class after `self` was made.
Error missing_slot_error(const meta_field_untyped &name, const Any &self) {
  return Error(String::fromUtf8(fmt::format("The field '{}' was added to '{}' after this instance was made.",
                                            name.utf8(), qualname(raw_class_of(self)).utf8View())));
}

/// A class value offers the members its own class defines as static members.
const object_value_class *static_scope(const Any &v) {
  return v.kind() == ObjectType::Class ? static_cast<const object_value_class *>(v.get()) : nullptr;
}
} // namespace

Class_Generic class_of(const Any &value) { return raw_class_of(unwrap(value)); }

Class_Generic raw_class_of(const Any &value) {
  return Class_Generic(unchecked, Any(class_ptr(value)));
}

String qualname(const Class_Generic &cls) {
  if (!Class_Generic::isInstance(cls)) // empty, or a handle made over a value that is no class
    return {};
  Any context;
  {
    std::lock_guard guard(cls->lock);
    context = cls->context;
  }
  if (context.kind() == ObjectType::WeakReference)
    context = resolve_context(context);
  String module;
  if (String::isInstance(context))
    module = String::unsafeFrom(context);
  else if (Module::isInstance(context))
    module = Module::unsafeFrom(context).name();
  if (module.empty())
    return cls.name();
  return module + String(u".") + cls.name();
}

String qualname(const I_Callable_Generic &callable) {
  auto context = callable.declaringContext();
  auto name = callable.name();
  if (Module::isInstance(context))
    return Module::unsafeFrom(context).name() + String(u".") + name;
  if (Class_Generic::isInstance(context))
    return qualname(Class_Generic::unsafeFrom(context)) + String(u".") + name;
  return name;
}

Union<Type, None> find_type(const String &qualifiedName) { return find_type_by_name(qualifiedName); }

bool internal::members_follow_class(const Class_Generic &cls) {
  if (!Class_Generic::isInstance(cls))
    return false;
  return !overrides(cls.value(), object_hook::property) && !overrides(cls.value(), object_hook::method);
}

Union<Property, None> raw_property_of(const Any &value, const meta_property_untyped &name) {
  if (auto *inst = instance_of(value))
    if (auto p = inst->own_property(name.info()))
      return Property::unsafeFrom(p);
  if (auto *p = class_ptr(value)->lookup_property(name.info()))
    return Property::unsafeFrom(Any(const_cast<object_value *>(p)));
  if (auto *scope = static_scope(value))
    if (auto p = scope->find_property(name.info()))
      return Property::unsafeFrom(p);
  return None();
}

Union<Property, None> property_of(const Any &value, const meta_property_untyped &name) {
  if (overrides(class_ptr(value), object_hook::property)) {
    auto r = call_hook(value, object_hook::property, {name.string()});
    if (Property::isInstance(r))
      return Property::unsafeFrom(r);
    return None();
  }
  return raw_property_of(value, name);
}

Union<I_Callable_Generic, None> raw_method_of(const Any &value, const meta_method_untyped &name) {
  if (auto *inst = instance_of(value))
    if (auto m = inst->own_method(name.info()))
      return I_Callable_Generic::unsafeFrom(m);
  if (auto *m = class_ptr(value)->lookup_method(name.info()))
    return I_Callable_Generic::unsafeFrom(Any(const_cast<object_value *>(m)));
  if (auto *scope = static_scope(value))
    if (auto m = scope->find_method(name.info()))
      return I_Callable_Generic::unsafeFrom(m);
  return None();
}

Union<I_Callable_Generic, None> method_of(const Any &value, const meta_method_untyped &name) {
  auto *cls = class_ptr(value);
  if (overrides(cls, object_hook::method)) {
    auto r = call_hook(value, object_hook::method, {name.string()});
    if (I_Callable_Generic::isInstance(r))
      return I_Callable_Generic::unsafeFrom(r);
    return None();
  }
  auto found = raw_method_of(value, name);
  if (found.is<I_Callable_Generic>())
    return found;
  if (auto hook = cls->find_method_hook()) {
    auto r = hook(value, name);
    if (I_Callable_Generic::isInstance(r))
      return I_Callable_Generic::unsafeFrom(r);
  }
  return None();
}

Union<Field, None> find_field(const Any &value, const meta_field_untyped &name) {
  if (auto *f = class_ptr(value)->lookup_field(name.info()))
    return Field::unsafeFrom(Any(const_cast<object_value *>(f)));
  return None();
}

namespace {
/// The values of a map that a hook returned, of the handle type `T`.
template <class T> std::vector<T> hook_values(const Any &map) {
  std::vector<T> out;
  if (HashMap::isInstance(map))
    for (auto &[name, member] : HashMap::unsafeFrom(map).copyPairs())
      if (T::isInstance(member))
        out.push_back(T::unsafeFrom(member));
  return out;
}

Result<None> none_or_error(const Any &r) {
  if (Error::isInstance(r))
    return Error::unsafeFrom(r);
  return None();
}
} // namespace

std::vector<Property> own_properties_of(const Any &value) {
  if (overrides(class_ptr(value), object_hook::own_properties))
    return hook_values<Property>(call_hook(value, object_hook::own_properties, {}));
  std::vector<Property> out;
  if (auto *inst = instance_of(value))
    for (auto &[n, p] : inst->own_properties())
      out.push_back(Property::unsafeFrom(p));
  return out;
}

std::vector<I_Callable_Generic> own_methods_of(const Any &value) {
  if (overrides(class_ptr(value), object_hook::own_methods))
    return hook_values<I_Callable_Generic>(call_hook(value, object_hook::own_methods, {}));
  std::vector<I_Callable_Generic> out;
  if (auto *inst = instance_of(value))
    for (auto &[n, m] : inst->own_methods())
      out.push_back(I_Callable_Generic::unsafeFrom(m));
  return out;
}

Result<None> insert_property_value(const Any &object, const meta_property_untyped &name, const Any &value) {
  if (overrides(class_ptr(object), object_hook::insert_property))
    return none_or_error(call_hook(object, object_hook::insert_property,
                                   {name.string(), Property::fromValue(name.string(), value)}));
  return raw_insert_property(object, name, Property::fromValue(name.string(), value));
}

Result<None> raw_insert_property(const Any &object, const meta_property_untyped &name, const Property &property) {
  auto *inst = instance_of(object);
  if (!inst)
    return Error(String::fromUtf8(fmt::format("Unable to insert the property '{}' into a value of class '{}'.",
                                              name.utf8(), qualname(raw_class_of(object)).utf8View())));
  inst->insert_property(name.info(), property);
  return None();
}

Result<None> insert_method(const Any &object, const meta_method_untyped &name, const I_Callable_Generic &method) {
  if (overrides(class_ptr(object), object_hook::insert_method))
    return none_or_error(call_hook(object, object_hook::insert_method, {name.string(), method}));
  return raw_insert_method(object, name, method);
}

Result<None> raw_insert_method(const Any &object, const meta_method_untyped &name, const I_Callable_Generic &method) {
  auto *inst = instance_of(object);
  if (!inst)
    return Error(String::fromUtf8(fmt::format("Unable to insert the method '{}' into a value of class '{}'.",
                                              name.utf8(), qualname(raw_class_of(object)).utf8View())));
  inst->insert_method(name.info(), method);
  return None();
}

Error internal::helpers::error_method_not_found(const String &name, const Any &object) {
  return Error(String::fromUtf8(fmt::format("Method '{}' not found in '{}'.", name.utf8View(),
                                            qualname(raw_class_of(object)).utf8View())));
}

Error internal::helpers::error_property_not_found(const String &name, const Any &object) {
  return Error(String::fromUtf8(fmt::format("Property '{}' not found in '{}'.", name.utf8View(),
                                            qualname(raw_class_of(object)).utf8View())));
}

// --- Any's member access -------------------------------------------------------

Type Any::getType() const { return Type(raw_class_of(*this)); }

Result<Any> Any::propertyValue(const meta_property_untyped &name) const {
  auto *cls = class_ptr(*this);
  if (overrides(cls, object_hook::property_value))
    return Result<Any>(unchecked, call_hook(*this, object_hook::property_value, {name.string()}));
  auto property = raw_property_of(*this, name);
  if (property.is<Property>())
    return property.unsafeAs<Property>().get(*this);
  if (auto hook = cls->find_getter_hook())
    return Result<Any>(unchecked, hook(*this, name));
  return helpers::error_property_not_found(name.string(), *this);
}

Result<None> Any::setPropertyValue(const meta_property_untyped &name, const Any &value) const {
  auto *cls = class_ptr(*this);
  Any r;
  if (overrides(cls, object_hook::set_property_value)) {
    r = call_hook(*this, object_hook::set_property_value, {name.string(), value});
  } else {
    auto property = raw_property_of(*this, name);
    if (property.is<Property>())
      return property.unsafeAs<Property>().set(*this, value);
    auto hook = cls->find_setter_hook();
    if (!hook)
      return helpers::error_property_not_found(name.string(), *this);
    r = result_unwrap_lazy(hook(*this, name, value));
  }
  if (Error::isInstance(r))
    return Error::unsafeFrom(r);
  return None();
}

Any Any::boundMethod(const meta_method_untyped &name) const {
  auto method = method_of(*this, name);
  if (!method.is<I_Callable_Generic>())
    return None();
  return method.unsafeAs<I_Callable_Generic>().bindInstance(*this);
}

namespace {
Error field_not_found(const meta_field_untyped &name, const Any &self) {
  return Error(String::fromUtf8(fmt::format("Field '{}' not found in '{}'.", name.utf8(),
                                            qualname(raw_class_of(self)).utf8View())));
}
} // namespace

// Field access borrows the field object from the class (no reference counting,
// no lock on a repeated lookup) and takes only the instance's own lock.
Result<Any> Any::fieldValue(const meta_field_untyped &name) const {
  auto *inst = instance_of(*this);
  const auto *field = inst ? field_object(inst->class_value()->lookup_field(name.info())) : nullptr;
  if (field) [[likely]] {
    const auto index = field->index.load(std::memory_order_relaxed);
    if (index < inst->field_count()) [[likely]]
      return Result<Any>(unchecked, inst->field(index));
  }
  return internal::field_get(field, *this, name); // the error
}

Result<Any> internal::field_get(const object_value *member, const Any &self, const meta_field_untyped &name) {
  auto *inst = instance_of(self);
  const auto *field = inst ? field_object(member) : nullptr;
  if (!field)
    return field_not_found(name, self);
  const auto index = field->index.load(std::memory_order_relaxed);
  if (index >= inst->field_count())
    return missing_slot_error(name, self);
  return Result<Any>(unchecked, inst->field(index));
}

Result<None> Any::setFieldValue(const meta_field_untyped &name, const Any &value) const {
  return setFieldValue(name, Any(value));
}

Result<None> Any::setFieldValue(const meta_field_untyped &name, Any &&value) const {
  auto *inst = instance_of(*this);
  const auto *field = inst ? field_object(inst->class_value()->lookup_field(name.info())) : nullptr;
  if (!field)
    return field_not_found(name, *this);
  const auto index = field->index.load(std::memory_order_relaxed);
  if (index >= inst->field_count()) // the write would be lost
    return missing_slot_error(name, *this);
  Any stored = std::move(value);
  // An integer widens to a float field; nothing else is converted.
  if (stored.kind() == ObjectType::Integer && field->resolved_type().get() == Float::getClass().get()) {
    const auto i = integer_parts_of(stored);
    stored = Float(i.is_signed ? static_cast<double>(static_cast<std::int64_t>(i.bits)) : static_cast<double>(i.bits));
  }
  if (stored && !field->accepts(stored)) // not widened: `stored` is the value given
    return BadArgument(String::fromUtf8(fmt::format("The field '{}' takes '{}', not '{}'.", name.utf8(),
                                                    field->resolved_type().name().utf8View(),
                                                    qualname(raw_class_of(stored)).utf8View())));
  Any old = inst->exchange_field(index, std::move(stored)); // released here, outside the lock
  return None();
}

} // namespace kest
