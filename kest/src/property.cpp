// Properties (accessor or stored value) and fields.

#include "builtin.hpp"

#include <kest/property.hpp>
#include <kest/reflection.hpp>

#include <fmt/format.h>

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

class object_value_field final : public native_instance<&Field::getClass> {
public:
  object_value_field(String n, std::uint32_t f, Type t, type_getter g)
      : name(std::move(n)), flags(f), type(std::move(t)), getter(g) {}
  const String name;
  const std::uint32_t flags;
  mutable Type type;
  const type_getter getter;
  mutable std::once_flag resolved;
  std::atomic<std::size_t> index{0};
};

} // namespace internal

using namespace internal;

KEST_DEFINE_HANDLE(Property, instance_derives(a, Property::getClass()), make_builtin_class("Property", class_flags::final))
KEST_DEFINE_HANDLE(Field, instance_derives(a, Field::getClass()), make_builtin_class("Field", class_flags::final))

namespace {
object_value_property *prop(const Any &a) { return native<object_value_property>(a); }
} // namespace

Property::Property(const String &name, const I_Callable_Generic &getter)
    : Any(unchecked, Any(new object_value_property)) {
  prop(*this)->name = name;
  prop(*this)->getter = getter;
}

Property::Property(const String &name, const I_Callable_Generic &getter, const I_Callable_Generic &setter)
    : Property(name, getter) {
  prop(*this)->setter = setter;
}

Property Property::fromValue(const String &name, const Any &value, const String &doc) {
  Property p(name, make_constant_callable(value));
  prop(p)->value = value;
  prop(p)->has_value = true;
  prop(p)->doc = doc;
  return p;
}

String Property::name() const { return prop(*this)->name; }
String Property::doc() const {
  std::lock_guard guard(prop(*this)->lock());
  return prop(*this)->doc;
}
void Property::setDoc(const String &doc) const {
  std::lock_guard guard(prop(*this)->lock());
  prop(*this)->doc = doc;
}
I_Callable_Generic Property::getter() const { return prop(*this)->getter; }
Union<I_Callable_Generic, None> Property::setter() const {
  if (prop(*this)->setter)
    return prop(*this)->setter;
  return None();
}
bool Property::isValueProperty() const { return prop(*this)->has_value; }
Any Property::storedValue() const { return prop(*this)->value; }
bool Property::hidden() const {
  std::lock_guard guard(prop(*this)->lock());
  return prop(*this)->hidden;
}
void Property::setHidden(bool hidden) const {
  std::lock_guard guard(prop(*this)->lock());
  prop(*this)->hidden = hidden;
}

Result<Any> Property::get(const Any &self) const {
  auto *p = prop(*this);
  if (p->has_value)
    return Result<Any>(unchecked, p->value);
  if (!p->getter)
    return Error(String::fromUtf8(fmt::format("The property '{}' has no getter.", p->name.utf8View())));
  if (p->getter.isIndependent())
    return p->getter.callWith({});
  return p->getter.callWith({self});
}

Result<None> Property::set(const Any &self, const Any &value) const {
  auto *p = prop(*this);
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
String Field::name() const { return native<object_value_field>(*this)->name; }
std::uint32_t Field::flags() const { return native<object_value_field>(*this)->flags; }
Type Field::type() const {
  auto *f = native<object_value_field>(*this);
  if (f->getter)
    std::call_once(f->resolved, [f] { f->type = f->getter(); });
  return f->type;
}
std::size_t Field::index() const { return native<object_value_field>(*this)->index.load(); }
void Field::setIndex(std::size_t index) const { native<object_value_field>(*this)->index.store(index); }

} // namespace kest
