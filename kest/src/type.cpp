// Types: classes, the top type and unions of types.

#include "builtin.hpp"
#include "hooks.hpp"

#include <kest/reflection.hpp>

namespace kest {

using namespace internal;

KEST_DEFINE_HANDLE(Type, a.kind() == ObjectType::Class, Class_Generic::getClass())

Type::Type() : Any(unchecked, Untyped::getClass()) {}
Type::Type(const Class_Generic &cls) : Any(unchecked, cls ? Any(cls) : Any(Untyped::getClass())) {}

namespace {
/// The class of a type, or null for a handle made over a value that is no class:
/// such a type matches nothing, conforms to nothing and has no name.
const object_value_class *cls_of(const Type &t) noexcept {
  return native_if<const object_value_class>(t, ObjectType::Class);
}
} // namespace

bool Type::isUntyped() const {
  auto *c = cls_of(*this);
  return c && (c->flags.load() & class_flags::top_type);
}

Class_Generic Type::toClass() const {
  auto *c = cls_of(*this);
  if (!c)
    return {};
  if (c->flags.load() & class_flags::union_type)
    return Untyped::getClass();
  return Class_Generic::unsafeFrom(*this);
}

bool Type::matches(const Any &value) const {
  auto *c = cls_of(*this);
  if (!c)
    return false;
  const auto f = c->flags.load();
  if (f & class_flags::top_type)
    return true;
  if (f & class_flags::union_type) {
    for (auto &alt : c->bases)
      if (Type(alt).matches(value))
        return true;
    return false;
  }
  if (value.empty())
    return c == None::getClass().value();
  auto *vc = value.get()->class_value();
  return vc && vc->derives_from(c);
}

bool Type::conformsTo(const Type &other) const {
  auto *c = cls_of(*this);
  auto *o = cls_of(other);
  if (!c || !o)
    return false;
  if (o->flags.load() & class_flags::top_type)
    return true;
  if (c->flags.load() & class_flags::union_type) {
    for (auto &alt : c->bases)
      if (!Type(alt).conformsTo(other))
        return false;
    return true;
  }
  if (o->flags.load() & class_flags::union_type) {
    for (auto &alt : o->bases)
      if (conformsTo(Type(alt)))
        return true;
    return false;
  }
  if (c->flags.load() & class_flags::top_type)
    return false;
  return c->derives_from(o);
}

String Type::name() const { return cls_of(*this) ? qualname(Class_Generic::unsafeFrom(*this)) : String(); }

Type internal::type_union_of_unsafe(const std::vector<Type> &alternatives) {
  string_builder name;
  std::vector<Class_Generic> classes;
  for (std::size_t i = 0; i < alternatives.size(); ++i) {
    if (i)
      name.append(u" | ");
    name.append(alternatives[i].name());
    if (Class_Generic::isInstance(alternatives[i])) // a non-class alternative matches nothing
      classes.push_back(Class_Generic::unsafeFrom(alternatives[i]));
  }
  auto cls = Class_Generic::create(name.take(), class_flags::union_type);
  // Alternatives are kept as bases for matching; ancestors stay the class itself,
  // so a union never claims to derive from its members.
  cls->bases = std::move(classes);
  return Type(cls);
}

Type unwrapped_type(const Type &type) {
  auto cls = type.toClass();
  if (cls.derivesFrom(Computed_Generic::getClass()) && !cls.genericArguments().empty())
    return cls.genericArguments().front();
  return type;
}

} // namespace kest
