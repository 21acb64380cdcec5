// The module "kest": the host's own classes, its logger, and reflection
// functions that any script can call.

#include "builtin.hpp"

#include <fmt/format.h>

#include <kest/kest.hpp>

namespace kest::internal {

namespace {
void function(const Module &module, const char *name, I_Callable_Generic fn, const char *params, const char *doc) {
  const auto text = String::fromUtf8(name);
  module.addCallable(text, declared_function(text, std::move(fn), String::fromUtf8(params), String::fromUtf8(doc)));
}

Result<Any> unwrapped(const Result<Any> &r) { return Result<Any>(unchecked, result_unwrap_lazy(r)); }

// The reflection functions take any value from a script: each checks the class
// it needs and answers with the cast error naming both classes otherwise.

/// `length(v)`: text, bytes, sequences, maps and sets.
Result<Any> length_of_value(const Any &v) {
  Result<Integer> n;
  if (I_Map::isInstance(v))
    n = I_Map::unsafeFrom(v).length();
  else if (I_Set::isInstance(v))
    n = I_Set::unsafeFrom(v).length();
  else if (I_Sequence::isInstance(v) || String::isInstance(v) || ByteArray::isInstance(v))
    n = I_Sequence(unchecked, v).length(); // text and bytes are measured natively
  else
    return wrong_class("I_Sequence | I_Map | I_Set", v);
  if (n.isError())
    return Error::unsafeFrom(n);
  return n.unsafeAs<Integer>();
}

Result<Any> at_of_value(const Any &seq, std::int64_t index) {
  if (!I_Sequence::isInstance(seq))
    return wrong_class("I_Sequence", seq);
  return unwrapped(I_Sequence::unsafeFrom(seq).at(index));
}

Result<Any> get_of_value(const Any &map, const Any &key) {
  if (!I_Map::isInstance(map))
    return wrong_class("I_Map", map);
  return unwrapped(I_Map::unsafeFrom(map).get(key));
}

Result<None> put_into_value(const Any &map, const Any &key, const Any &value) {
  if (!I_MutableMap::isInstance(map))
    return wrong_class("I_MutableMap", map);
  return I_MutableMap::unsafeFrom(map).setChecked(key, value);
}


/// `call(f, *args)`: calls any callable with the remaining arguments.
I_Callable_Generic call_function() {
  return make_callable(
      [](std::span<const Any> args) -> Any {
        if (args.empty())
          return BadArgument(String(u"call() needs a callable as its first argument."));
        if (!I_Callable_Generic::isInstance(args[0]))
          return wrong_class("I_Callable", args[0]);
        return result_unwrap_lazy(I_Callable_Generic::unsafeFrom(args[0]).callWith(args.subspan(1)));
      },
      Signature({Parameter(String(u"f"), &I_Callable_Generic::getType)}, Type(), 1, true), true);
}
/// What a value's member of that name is, looked up the host's way (property,
/// field, method), whatever another language's names mean on the value.
Result<Any> member_of_value(const Any &value, const String &name) {
  const meta_property_untyped property_name(name);
  if (auto property = property_of(value, property_name); property.is<Property>())
    return property.unsafeAs<Property>().get(value);
  const meta_field_untyped field_name(property_name.info(), false);
  if (auto field = find_field(value, field_name); field.is<Field>())
    return value.fieldValue(field_name);
  if (auto method = method_of(value, meta_method_untyped(property_name.info(), false));
      method.is<I_Callable_Generic>())
    return Any(method.unsafeAs<I_Callable_Generic>().bindInstance(value));
  return BadArgument(String::fromUtf8(fmt::format("{} has no member '{}'.", qualname(class_of(value)).toUtf8(),
                                                  name.toUtf8())));
}
} // namespace

void populate_kest_module(const Module &kest) {
  kest.setDoc(String(u"The host's object model: its classes, logger and reflection functions."));
  for (auto cls : {Boolean::getClass(), Integer::getClass(), Float::getClass(), String::getClass(),
                   ByteArray::getClass(), Decimal::getClass(), Date::getClass(), Time::getClass(),
                   DateTime::getClass(), Tuple::getClass(), List::getClass(), HashMap::getClass(),
                   HashSet::getClass(), Error::getClass(), BadArgument::getClass(), EvaluationError::getClass(),
                   StopIteration::getClass(), Property::getClass(), Field::getClass(), Signature::getClass(),
                   Parameter::getClass(), Module::getClass(), LogRecord::getClass(), Logger::getClass(),
                   EvaluationScope::getClass(), I_Language::getClass(), PythonLanguage::getClass(),
                   I_Iterable::getClass(), I_Iterator::getClass(), I_Sequence::getClass(),
                   I_MutableSequence::getClass(), I_Map::getClass(), I_MutableMap::getClass(), I_Set::getClass(),
                   I_MutableSet::getClass(), I_Callable_Generic::getClass(), I_Immutable::getClass(),
                   I_Cloneable::getClass(), I_RuntimeOnly::getClass(), I_HasName::getClass(),
                   I_HasDoc::getClass(), I_HasCode::getClass(), Class_Generic::getClass()})
    kest.addClass(cls.name(), cls);

  function(kest, "get_logger", make_function([] { return get_logger(); }), "", "The host logger.");
  function(kest, "display", make_function([](Any v) { return display(v); }), "value",
           "The display text of a value.");
  function(kest, "class_name", make_function([](Any v) { return qualname(class_of(v)); }), "value",
           "The qualified class name of a value.");
  function(kest, "call", call_function(), "f", "Calls f with the remaining arguments.");
  function(kest, "length", make_function([](Any v) { return length_of_value(v); }),
           "value", "The number of elements of a sequence, map or set.");
  function(kest, "items", make_function([](Any v) -> Result<Any> {
             if (!I_Iterable::isInstance(v))
               return wrong_class("I_Iterable", v);
             auto r = I_Iterable::unsafeFrom(v).collectImpl();
             if (r.isError())
               return Error::unsafeFrom(r);
             return r.unsafeAs<List>();
           }),
           "value", "The elements of an iterable, in a new list.");
  function(kest, "at", make_function([](Any seq, std::int64_t i) { return at_of_value(seq, i); }),
           "sequence, index", "The element of a sequence at an index.");
  function(kest, "get", make_function([](Any map, Any key) { return get_of_value(map, key); }),
           "map, key", "The value of a map under a key.");
  function(kest, "put",
           make_function([](Any map, Any key, Any value) { return put_into_value(map, key, value); }),
           "map, key, value", "Stores a value in a map under a key.");
  function(kest, "member", make_function([](Any v, String name) { return member_of_value(v, name); }), "value, name",
           "The member of a value by its host name: a property's or field's value, or a bound method.");
  function(kest, "signature", make_function([](I_Callable_Generic f) { return f.signature().toString(); }), "f",
           "The text of a callable's signature.");
  function(kest, "compare", make_function([](Any a, Any b) -> std::int64_t { return compare_objects(a, b).value(); }),
           "a, b", "-1, 0 or 1 for less, equal and greater; 2 when the values have no order.");
}

} // namespace kest::internal
