// Properties (accessor or stored value) and fields.

#include "builtin.hpp"
#include "field.hpp"

#include <kest/property.hpp>
#include <kest/reflection.hpp>

#include <fmt/format.h>

#include <limits>
#include <mutex>

namespace kest {
namespace internal {

class object_value_property final : public native_instance<&Property::getClass> {
public:
  String name;
  I_Callable_Generic getter;
  I_Callable_Generic setter;
  Any value;
  bool has_value = false;
  // Guarded by lock():
  String doc;
  bool hidden = false;
};

} // namespace internal

using namespace internal;

KEST_DEFINE_HANDLE(Property, instance_derives(a, &Property::getClass), make_builtin_class("Property", class_flags::final))
KEST_DEFINE_HANDLE(Field, instance_derives(a, &Field::getClass), make_builtin_class("Field", class_flags::final))

namespace {
/// The property object, or null for a handle made over another class: it then
/// reads as a nameless property without getter, setter or value.
const object_value_property *prop_object(const object_value *p) {
  return p && p->known_kind() == ObjectType::Instance && p->class_value() == Property::getClass().value()
             ? static_cast<const object_value_property *>(p)
             : nullptr;
}
object_value_property *prop(const Any &a) { return const_cast<object_value_property *>(prop_object(a.get())); }
/// The field object, or null for a handle made over another class: it then reads
/// as a nameless, untyped field without a slot.
object_value_field *field_of(const Any &a) { return field_object(a); }
} // namespace

Property::Property(const String &name, const I_Callable_Generic &getter)
    : Any(unchecked, Any(new object_value_property)) {
  auto *p = native<object_value_property>(*this);
  p->name = name;
  p->getter = getter;
}

Property::Property(const String &name, const I_Callable_Generic &getter, const I_Callable_Generic &setter)
    : Property(name, getter) {
  native<object_value_property>(*this)->setter = setter;
}

Property Property::fromValue(const String &name, const Any &value, const String &doc) {
  Property p(name, make_constant_callable(value));
  auto *state = native<object_value_property>(p);
  state->value = value;
  state->has_value = true;
  state->doc = doc;
  return p;
}

String Property::name() const {
  auto *p = prop(*this);
  return p ? p->name : String();
}
String Property::doc() const {
  auto *p = prop(*this);
  if (!p)
    return {};
  std::lock_guard guard(p->lock());
  return p->doc;
}
void Property::setDoc(const String &doc) const {
  auto *p = prop(*this);
  if (!p)
    return;
  std::lock_guard guard(p->lock());
  p->doc = doc;
}
I_Callable_Generic Property::getter() const {
  auto *p = prop(*this);
  return p ? p->getter : I_Callable_Generic();
}
Union<I_Callable_Generic, None> Property::setter() const {
  auto *p = prop(*this);
  if (p && p->setter)
    return p->setter;
  return None();
}
bool Property::isValueProperty() const {
  auto *p = prop(*this);
  return p && p->has_value;
}
Any Property::storedValue() const {
  auto *p = prop(*this);
  return p ? p->value : Any();
}
bool Property::hidden() const {
  auto *p = prop(*this);
  if (!p)
    return false;
  std::lock_guard guard(p->lock());
  return p->hidden;
}
void Property::setHidden(bool hidden) const {
  auto *p = prop(*this);
  if (!p)
    return;
  std::lock_guard guard(p->lock());
  p->hidden = hidden;
}

Result<Any> Property::get(const Any &self) const {
  if (!prop(*this))
    return wrong_class("Property", *this);
  return internal::property_get(m_ptr, self);
}

Result<Any> internal::property_get(const object_value *property, const Any &self) {
  auto *p = prop_object(property);
  if (!p)
    return wrong_class("Property", Any(const_cast<object_value *>(property)));
  if (p->has_value)
    return Result<Any>(unchecked, p->value);
  if (!p->getter)
    return Error(String::fromUtf8(fmt::format("The property '{}' has no getter.", p->name.utf8View())));
  if (p->getter.isIndependent())
    return p->getter.callWith({});
  return p->getter.callWith(std::span<const Any>(&self, 1));
}

Result<None> Property::set(const Any &self, const Any &value) const {
  auto *p = prop(*this);
  if (!p)
    return wrong_class("Property", *this);
  if (!p->setter)
    return Error(String::fromUtf8(fmt::format("The property '{}' is read-only for '{}'.", p->name.utf8View(),
                                              display(self).utf8View())));
  auto result = p->setter.isIndependent() ? p->setter.callWith({value}) : p->setter.callWith({self, value});
  auto unwrapped = result_unwrap_lazy(result);
  if (Error::isInstance(unwrapped))
    return Error::unsafeFrom(unwrapped);
  return None();
}

Field::Field(const String &name, std::uint32_t f, type_getter getter)
    : Any(unchecked, Any(new object_value_field(name, f, Type(), getter))) {}
Field::Field(const String &name, std::uint32_t f, const Type &t)
    : Any(unchecked, Any(new object_value_field(name, f, t, nullptr))) {}
String Field::name() const {
  auto *f = field_of(*this);
  return f ? f->name : String();
}
std::uint32_t Field::flags() const {
  auto *f = field_of(*this);
  return f ? f->flags : 0;
}
Type Field::type() const {
  auto *f = field_of(*this);
  return f ? f->resolved_type() : Type();
}
std::size_t Field::index() const {
  auto *f = field_of(*this);
  return f ? f->index.load() : std::numeric_limits<std::size_t>::max();
}
void Field::setIndex(std::size_t index) const {
  if (auto *f = field_of(*this))
    f->index.store(index);
}

} // namespace kest
