// Callables: parameters, signatures, native and bound callables, and calling.

#include "builtin.hpp"
#include "hooks.hpp"

#include <kest/builders.hpp>
#include <kest/callable.hpp>
#include <kest/hash_map.hpp>
#include <kest/list.hpp>
#include <kest/once.hpp>
#include <kest/reflection.hpp>

#include <fmt/format.h>

#include <array>
#include <mutex>

namespace kest {
namespace internal {

class object_value_parameter final : public native_instance<&Parameter::getClass> {
public:
  object_value_parameter(String n, Type t, type_getter g) : name(std::move(n)), type(std::move(t)), getter(g) {}
  const String name;
  mutable Type type;
  const type_getter getter;
  mutable fast_once resolved;
};

class object_value_signature final : public native_instance<&Signature::getClass> {
public:
  std::vector<Parameter> parameters;
  mutable Type result;
  type_getter result_getter = nullptr;
  mutable fast_once resolved;
  std::size_t required = 0;
  bool variadic = false;
};

/// A callable with its instance parameter fixed. An instance that the target
/// does not apply to is found when binding, and every call then reports it.
class object_value_bound_method final : public object_value_callable {
public:
  object_value_bound_method(I_Callable_Generic t, Any s, Signature sig, Any mismatch)
      : object_value_callable(std::move(sig), true), target(std::move(t)), self(std::move(s)),
        receiver_mismatch(std::move(mismatch)) {}
  Any invoke(std::span<const Any> args) const override {
    if (receiver_mismatch)
      return receiver_mismatch;
    // Most calls have few arguments: keep them on the stack.
    constexpr std::size_t inline_count = 8;
    std::array<Any, inline_count> small;
    std::vector<Any> large;
    std::span<Any> full;
    if (args.size() < inline_count) {
      full = std::span<Any>(small.data(), args.size() + 1);
    } else {
      large.resize(args.size() + 1);
      full = large;
    }
    full[0] = self;
    std::copy(args.begin(), args.end(), full.begin() + 1);
    if (target.kind() == ObjectType::Callable)
      return static_cast<const object_value_callable *>(target.get())->invoke(full);
    return target.callWith(std::span<const Any>(full.data(), full.size()));
  }
  // The bound method reads its name, documentation and context from its target.
  [[nodiscard]] String name() const override { return target.name(); }
  [[nodiscard]] String doc() const override { return target.doc(); }
  [[nodiscard]] Any context() const override { return target.declaringContext(); }

  const I_Callable_Generic target;
  const Any self;
  const Any receiver_mismatch; // the error, when `self` is not an instance the target applies to
};

} // namespace internal

using namespace internal;

KEST_DEFINE_HANDLE(Parameter, instance_derives(a, &Parameter::getClass),
                   make_builtin_class("Parameter", class_flags::final, {&I_Immutable::getClass}))
KEST_DEFINE_HANDLE(Signature, instance_derives(a, &Signature::getClass),
                   make_builtin_class("Signature", class_flags::final, {&I_Immutable::getClass}))
namespace {
const meta_method_untyped &init_name() {
  static const meta_method_untyped n("$__init__");
  return n;
}
/// The constructor of a class; empty when it has none (any more).
I_Callable_Generic constructor_of(const object_value_class *cls) {
  Any init = cls->find_method(init_name().info());
  return I_Callable_Generic::isInstance(init) ? I_Callable_Generic::unsafeFrom(init) : I_Callable_Generic();
}
Error no_constructor(const Class_Generic &cls) {
  return Error(String::fromUtf8(fmt::format("The class '{}' has no constructor.", qualname(cls).utf8View())));
}
/// A class is callable when it declares a constructor ("$__init__").
bool constructible_class(const Any &a) {
  return a.kind() == ObjectType::Class &&
         static_cast<const object_value_class *>(a.get())->find_method(init_name().info());
}
} // namespace

KEST_DEFINE_HANDLE(I_Callable_Generic,
                   a.kind() == ObjectType::Callable || constructible_class(a) ||
                       (a.kind() == ObjectType::Instance &&
                        a.get()->class_value()->derives_from(I_Callable_Generic::getClass().value())),
                   make_builtin_class("I_Callable", class_flags::interface | class_flags::callable))

namespace {
const Class_Generic &function_class() {
  static const Class_Generic cls =
      make_builtin_class("Function", class_flags::callable, {&I_Callable_Generic::getClass});
  return cls;
}
const object_value_callable *native_callable(const Any &a) {
  return a.kind() == ObjectType::Callable ? static_cast<const object_value_callable *>(a.get()) : nullptr;
}
const meta_method_untyped &call_name() {
  static const meta_method_untyped n("$call");
  return n;
}
const meta_field_untyped &independent_name() {
  static const meta_field_untyped n("$_independent");
  return n;
}
} // namespace

Parameter::Parameter(const String &name, const Type &t)
    : Any(unchecked, Any(new object_value_parameter(name, t, nullptr))) {}
Parameter::Parameter(const String &name, type_getter getter)
    : Any(unchecked, Any(new object_value_parameter(name, Type(), getter))) {}
// A handle made over a value of another class reads as an empty parameter or
// signature: no name, untyped, no parameters.
namespace {
object_value_parameter *parameter_of(const Any &a) noexcept { return native_if<object_value_parameter>(a); }
object_value_signature *signature_of(const Any &a) noexcept { return native_if<object_value_signature>(a); }
} // namespace

String Parameter::name() const {
  auto *p = parameter_of(*this);
  return p ? p->name : String();
}
Type Parameter::type() const {
  auto *p = parameter_of(*this);
  if (!p)
    return Type();
  if (p->getter)
    p->resolved.call([p] { p->type = p->getter(); });
  return p->type;
}

Signature::Signature(std::vector<Parameter> parameters, const Type &resultType,
                     std::size_t required, bool variadic)
    : Any(unchecked, Any(new object_value_signature)) {
  auto *s = native<object_value_signature>(*this);
  s->required = std::min(required, parameters.size());
  s->parameters = std::move(parameters);
  s->result = resultType;
  s->variadic = variadic;
}
std::vector<Parameter> Signature::parameters() const {
  auto *s = signature_of(*this);
  return s ? s->parameters : std::vector<Parameter>();
}
std::int64_t Signature::parameterCount() const {
  auto *s = signature_of(*this);
  return s ? static_cast<std::int64_t>(s->parameters.size()) : 0;
}
std::int64_t Signature::requiredParameterCount() const {
  auto *s = signature_of(*this);
  return s ? static_cast<std::int64_t>(s->required) : 0;
}
bool Signature::hasVariadicParameters() const {
  auto *s = signature_of(*this);
  return s && s->variadic;
}
Type Signature::resultType() const {
  auto *s = signature_of(*this);
  if (!s)
    return Type();
  if (s->result_getter)
    s->resolved.call([s] { s->result = s->result_getter(); });
  return s->result;
}

Signature::Signature(std::vector<Parameter> parameters, type_getter result, std::size_t required,
                     bool variadic)
    : Signature(std::move(parameters), Type(), required, variadic) {
  native<object_value_signature>(*this)->result_getter = result;
}

Parameter internal::parameter_renamed(const Parameter &parameter, const String &name) {
  auto *p = parameter_of(parameter);
  if (!p)
    return Parameter(name, Type());
  if (p->getter)
    return Parameter(name, p->getter);
  return Parameter(name, p->type);
}

Signature internal::signature_with(const Signature &base, std::vector<Parameter> parameters, std::size_t required,
                                   type_getter result) {
  auto *b = signature_of(base);
  if (!b)
    return Signature(std::move(parameters), Type(), required);
  if (result)
    return Signature(std::move(parameters), result, required, b->variadic);
  if (b->result_getter)
    return Signature(std::move(parameters), b->result_getter, required, b->variadic);
  return Signature(std::move(parameters), b->result, required, b->variadic);
}

String Signature::toString() const {
  auto *s = signature_of(*this);
  if (!s)
    return String(u"(...) -> Untyped");
  string_builder b;
  b.append(u'(');
  for (std::size_t i = 0; i < s->parameters.size(); ++i) {
    if (i)
      b.append(u", ");
    b.append(s->parameters[i].name()).append(u": ").append(s->parameters[i].type().toClass().name());
  }
  if (s->variadic)
    b.append(s->parameters.empty() ? u"..." : u", ...");
  b.append(u") -> ").append(resultType().toClass().name());
  return b.take();
}

// --- native callables -------------------------------------------------------

namespace {
std::int64_t exact_count_of(const Signature &signature) {
  return !signature || signature.hasVariadicParameters() ? -1 : signature.parameterCount();
}
} // namespace

object_value_callable::object_value_callable(Signature signature, bool independent)
    : m_signature(std::move(signature)), m_independent(independent), m_exact_count(exact_count_of(m_signature)) {}

object_value_class *object_value_callable::class_value() const noexcept { return function_class().value(); }

Signature object_value_callable::signature() const {
  std::lock_guard guard(m_lock);
  return m_signature;
}
void object_value_callable::set_signature(Signature signature) {
  Signature old_bound;
  std::lock_guard guard(m_lock);
  m_signature.swap(signature);
  m_bound_signature.swap(old_bound); // made again from the new signature when needed
  m_exact_count.store(exact_count_of(m_signature), std::memory_order_release);
}

Signature object_value_callable::bound_signature() const {
  {
    std::lock_guard guard(m_lock);
    if (m_bound_signature)
      return m_bound_signature;
  }
  auto sig = signature();
  auto params = sig.parameters();
  if (!params.empty())
    params.erase(params.begin());
  const auto required = static_cast<std::size_t>(std::max<std::int64_t>(0, sig.requiredParameterCount() - 1));
  auto bound = signature_with(sig, std::move(params), required);
  std::lock_guard guard(m_lock);
  if (!m_bound_signature)
    m_bound_signature = bound;
  return m_bound_signature;
}
String object_value_callable::name() const {
  std::lock_guard guard(m_lock);
  return m_name;
}
void object_value_callable::set_name(String name) {
  std::lock_guard guard(m_lock);
  m_name.swap(name);
}
String object_value_callable::doc() const {
  std::lock_guard guard(m_lock);
  return m_doc;
}
void object_value_callable::set_doc(String doc) {
  std::lock_guard guard(m_lock);
  m_doc.swap(doc);
}
Any object_value_callable::context() const {
  Any stored;
  {
    std::lock_guard guard(m_lock);
    stored = m_context;
  }
  return resolve_context(stored);
}
void object_value_callable::set_independent(bool v) noexcept {
  m_independent.store(v);
  bump_class_members_epoch(); // which values the method applies to may have changed
}
void object_value_callable::set_context(Any context) {
  Any stored = store_context(context);
  {
    std::lock_guard guard(m_lock);
    m_context.swap(stored);
    m_declaring_class.store(context.kind() == ObjectType::Class ? static_cast<const object_value_class *>(context.get())
                                                                : nullptr,
                            std::memory_order_release);
  }
  bump_class_members_epoch(); // which values the method applies to may have changed
}
std::vector<Any> object_value_callable::defaults() const {
  std::lock_guard guard(m_lock);
  return m_defaults;
}
void object_value_callable::set_defaults(std::vector<Any> defaults) {
  std::lock_guard guard(m_lock);
  m_defaults.swap(defaults);
}

object_value_native_callable::object_value_native_callable(function fn, Signature signature, bool independent)
    : object_value_callable(std::move(signature), independent), m_fn(std::move(fn)) {}

object_value_native_callable::object_value_native_callable(function_with_callable fn, Signature signature,
                                                           bool independent)
    : object_value_callable(std::move(signature), independent), m_fn_with_callable(std::move(fn)) {}

Any object_value_native_callable::invoke(std::span<const Any> args) const {
  return m_fn_with_callable ? m_fn_with_callable(*this, args) : m_fn(args);
}

object_value_callable_constant::object_value_callable_constant(Any value)
    : object_value_callable(Signature({}, Type(), 0), true), m_value(std::move(value)) {}

Any object_value_callable_constant::invoke(std::span<const Any>) const { return m_value; }

I_Callable_Generic internal::make_callable(object_value_native_callable::function fn, Signature signature,
                                           bool independent) {
  return I_Callable_Generic(unchecked, Any(new object_value_native_callable(std::move(fn), std::move(signature),
                                                                           independent)));
}

I_Callable_Generic internal::make_callable(object_value_native_callable::function_with_callable fn,
                                           Signature signature, bool independent) {
  return I_Callable_Generic(unchecked, Any(new object_value_native_callable(std::move(fn), std::move(signature),
                                                                           independent)));
}

I_Callable_Generic internal::make_constant_callable(const Any &value) {
  return I_Callable_Generic(unchecked, Any(new object_value_callable_constant(value)));
}

Error internal::bad_argument_error(const object_value_callable &callable, std::size_t index, const String &expected,
                                  const Any &value) {
  const auto parameters = callable.signature().parameters();
  std::string name;
  if (index < parameters.size()) {
    name = parameters[index].name().toUtf8();
    if (name == fmt::format("arg{}", index)) // a generated name says no more than the number
      name.clear();
  }
  const auto integer_name = Integer::getType().name();
  std::string actual = qualname(raw_class_of(value)).toUtf8();
  if (Integer::isInstance(value) && expected.startsWith(integer_name)) // out of range: say which integer
    actual = fmt::format("{} {}", actual, display(value).utf8View());
  return BadArgument(String::fromUtf8(fmt::format("Argument {}{} must be {}, not {}.", index + 1,
                                                  name.empty() ? std::string() : fmt::format(" ({})", name),
                                                  expected.utf8View(), actual)));
}

String internal::integer_range_text(std::intmax_t min, std::uintmax_t max) {
  return String::fromUtf8(fmt::format("{} from {} to {}", Integer::getType().name().utf8View(), min, max));
}

// --- calling ------------------------------------------------------------------

namespace {
const object_value_class *class_ptr_of(const Any &v) {
  return v.get() ? v.get()->class_value() : None::getClass().value();
}

String callable_label(const I_Callable_Generic &c) {
  auto name = qualname(c);
  return name.empty() ? String(u"<function>") : name;
}

/// Fills parameters that were not given from the defaults (which belong to the
/// last parameters), or explains which required one is missing.
Result<None> complete_arguments(const object_value_callable *c, const I_Callable_Generic &self,
                                std::vector<Any> &args, std::vector<bool> &given) {
  auto sig = c->signature();
  const auto count = static_cast<std::size_t>(sig.parameterCount());
  if (!sig.hasVariadicParameters() && args.size() > count)
    return BadArgument(String::fromUtf8(fmt::format("Too many arguments for {}: it takes {}, {} given.",
                                                    callable_label(self).utf8View(), count, args.size())));
  if (args.size() < count) {
    args.resize(count);
    given.resize(count, false);
  }
  const auto defaults = c->defaults();
  const auto first_default = count - std::min(defaults.size(), count);
  const auto required = static_cast<std::size_t>(sig.requiredParameterCount());
  for (std::size_t i = 0; i < count; ++i) {
    if (given[i])
      continue;
    if (i >= first_default)
      args[i] = defaults[i + defaults.size() - count]; // defaults belong to the last parameters
    else if (i < required)
      return BadArgument(String::fromUtf8(fmt::format("Missing argument '{}' for {}.",
                                                      sig.parameters()[i].name().utf8View(),
                                                      callable_label(self).utf8View())));
  }
  return None();
}

/// The error for a method given a first argument that is not an instance of the
/// class that declares it; empty when the argument fits, or when the callable
/// takes any value (an independent one, or one declared outside a class).
Any receiver_mismatch(const object_value_callable *c, const Any &self) {
  if (method_applies_to(*c, class_ptr_of(self)))
    return {};
  const Any context = c->context();
  if (context.kind() != ObjectType::Class)
    return {}; // the context changed meanwhile: declared outside a class now
  const auto declaring = Class_Generic::unsafeFrom(context);
  return BadArgument(String::fromUtf8(fmt::format("The method '{}' of '{}' applies to '{}' values, not to '{}'.",
                                                  c->name().utf8View(), qualname(declaring).utf8View(),
                                                  qualname(declaring).utf8View(),
                                                  qualname(raw_class_of(self)).utf8View())));
}

Result<Any> invoke_guarded(const object_value_callable *c, std::span<const Any> args) {
  if (!args.empty())
    if (auto mismatch = receiver_mismatch(c, args[0]))
      return Error::unsafeFrom(mismatch);
  auto result = call_exact_applicable(*c, args);
  if (result.empty()) // a function without a result gives None to every host caller
    return Result<Any>(unchecked, Any(None()));
  return result;
}
} // namespace

bool internal::method_applies_to(const object_value_callable &callable, const object_value_class *cls) noexcept {
  if (callable.independent())
    return true;
  // The common case without the lock or the weak context: the class derives
  // from the declaring class's address. Its ancestors are alive (it holds
  // them), so a match is the declaring class itself, as the full check finds.
  if (const auto *declaring = callable.declaring_class_address(); declaring && cls && cls->derives_from(declaring))
    return true;
  const Any context = callable.context();
  if (context.kind() != ObjectType::Class)
    return true; // declared outside a class: it takes any value
  return cls && cls->derives_from(static_cast<const object_value_class *>(context.get()));
}

Result<Any> internal::call_exact(const object_value_callable &callable, std::span<const Any> args) {
  return invoke_guarded(&callable, args);
}

Result<Any> internal::call_exact_applicable(const object_value_callable &callable, std::span<const Any> args) {
  try {
    return Result<Any>(unchecked, callable.invoke(args));
  } catch (...) {
    return Error::fromCurrentException();
  }
}

Result<Any> I_Callable_Generic::callWith(std::span<const Any> args) const {
  if (auto *c = native_callable(*this)) {
    if (static_cast<std::int64_t>(args.size()) == c->exact_argument_count())
      return invoke_guarded(c, args); // the common case: nothing to fill in
    auto sig = c->signature();
    if (static_cast<std::int64_t>(args.size()) == sig.parameterCount())
      return invoke_guarded(c, args);
    std::vector<Any> full(args.begin(), args.end());
    std::vector<bool> given(full.size(), true);
    auto filled = complete_arguments(c, *this, full, given);
    if (filled.isError())
      return Error::unsafeFrom(filled);
    return invoke_guarded(c, full);
  }
  if (constructible_class(*this)) {
    // Calling a class constructs: an independent "$__init__" is a factory; any
    // other initialises a freshly allocated instance.
    auto cls = Class_Generic::unsafeFrom(*this);
    auto init = constructor_of(cls.value());
    if (!init)
      return no_constructor(cls);
    if (init.isIndependent())
      return init.callWith(args);
    auto instance = cls.allocateInstance();
    if (instance.isError())
      return instance;
    std::vector<Any> full{Any(instance)};
    full.insert(full.end(), args.begin(), args.end());
    auto r = result_unwrap_lazy(init.callWith(full));
    if (Error::isInstance(r))
      return Error::unsafeFrom(r);
    return instance;
  }
  if (auto *native = native_protocol_of(*this); native && native->call)
    return Result<Any>(unchecked, native->call(*this, args));
  if (m_ptr && m_ptr->kind() == ObjectType::Instance) {
    auto method = raw_method_of(*this, call_name());
    if (method.is<I_Callable_Generic>()) {
      List list(Type(), std::vector<Any>(args.begin(), args.end()));
      return method.unsafeAs<I_Callable_Generic>().callWith({Any(*this), Any(list)});
    }
  }
  return Error(String::fromUtf8(fmt::format("Non-callable object: {}", display(*this).utf8View())));
}

Result<Any> I_Callable_Generic::callWithSequence(const Any &args) const {
  auto iterable = I_Iterable::checkedCast(args);
  if (iterable.isError())
    return Error::unsafeFrom(iterable);
  auto items = iterable.unsafeAs<I_Iterable>().collectImpl();
  if (items.isError())
    return Error::unsafeFrom(items);
  auto list = items.unsafeAs<List>().copyItems();
  return callWith(list);
}

Result<Any> I_Callable_Generic::callWithNamed(std::span<const Any> positional, const HashMap &named) const {
  if (!named || named.length() == 0)
    return callWith(positional);
  if (constructible_class(*this)) {
    auto cls = Class_Generic::unsafeFrom(*this);
    auto init = constructor_of(cls.value());
    if (!init)
      return no_constructor(cls);
    if (init.isIndependent())
      return init.callWithNamed(positional, named);
    auto instance = cls.allocateInstance();
    if (instance.isError())
      return instance;
    auto r = result_unwrap_lazy(init.bindInstance(instance).callWithNamed(positional, named));
    if (Error::isInstance(r))
      return Error::unsafeFrom(r);
    return instance;
  }
  auto *c = native_callable(*this);
  if (!c)
    return BadArgument(String::fromUtf8(
        fmt::format("{} does not accept named arguments.", callable_label(*this).utf8View())));
  auto sig = c->signature();
  auto params = sig.parameters();
  std::vector<Any> args(positional.begin(), positional.end());
  if (args.size() < params.size())
    args.resize(params.size());
  std::vector<bool> given(args.size(), false);
  for (std::size_t i = 0; i < positional.size(); ++i)
    given[i] = true;
  for (auto &[key, value] : named.copyPairs()) {
    auto name = String::cast(key);
    std::size_t index = params.size();
    if (name.is<String>())
      for (std::size_t i = 0; i < params.size(); ++i)
        if (params[i].name().view() == name.unsafeAs<String>().view())
          index = i;
    if (index == params.size())
      return BadArgument(String::fromUtf8(fmt::format("Unknown argument '{}' for {}.", display(key).utf8View(),
                                                      callable_label(*this).utf8View())));
    if (given[index])
      return BadArgument(String::fromUtf8(fmt::format("Argument '{}' given twice for {}.",
                                                      display(key).utf8View(), callable_label(*this).utf8View())));
    args[index] = value;
    given[index] = true;
  }
  auto filled = complete_arguments(c, *this, args, given);
  if (filled.isError())
    return Error::unsafeFrom(filled);
  return invoke_guarded(c, args);
}

I_Callable_Generic I_Callable_Generic::bindInstance(const Any &self) const {
  if (isIndependent())
    return *this;
  Signature bound_sig;
  if (auto *c = native_callable(*this)) {
    bound_sig = c->bound_signature();
  } else {
    auto sig = signature();
    auto params = sig.parameters();
    if (!params.empty())
      params.erase(params.begin());
    const auto required = static_cast<std::size_t>(std::max<std::int64_t>(0, sig.requiredParameterCount() - 1));
    bound_sig = Signature(std::move(params), sig.resultType(), required, sig.hasVariadicParameters());
  }
  Any mismatch;
  if (auto *c = native_callable(*this))
    mismatch = receiver_mismatch(c, self);
  auto *bound = new object_value_bound_method(*this, self, bound_sig, std::move(mismatch));
  I_Callable_Generic result(unchecked, Any(bound));
  auto defaults = this->defaults();
  if (defaults.size() > static_cast<std::size_t>(bound_sig.parameterCount()))
    defaults.erase(defaults.begin());
  if (!defaults.empty())
    bound->set_defaults(std::move(defaults));
  return result;
}

Signature I_Callable_Generic::signature() const {
  if (auto *c = native_callable(*this))
    return c->signature();
  if (auto init = constructible_class(*this) ? constructor_of(static_cast<const object_value_class *>(get()))
                                              : I_Callable_Generic()) {
    auto sig = (init.isIndependent() ? init : init.bindInstance(Any())).signature();
    return Signature(sig.parameters(), Type(Class_Generic::unsafeFrom(*this)),
                     static_cast<std::size_t>(sig.requiredParameterCount()), sig.hasVariadicParameters());
  }
  auto value = propertyValue(meta_property_untyped("$$signature"));
  auto unwrapped = result_unwrap_lazy(value);
  if (Signature::isInstance(unwrapped))
    return Signature::unsafeFrom(unwrapped);
  return Signature({}, Type(), 0, true);
}

std::int64_t I_Callable_Generic::parameterCount() const { return signature().parameterCount(); }
std::int64_t I_Callable_Generic::requiredParameterCount() const { return signature().requiredParameterCount(); }
bool I_Callable_Generic::hasVariadicParameters() const { return signature().hasVariadicParameters(); }
Type I_Callable_Generic::resultType() const { return signature().resultType(); }

String I_Callable_Generic::name() const {
  if (auto *c = native_callable(*this))
    return c->name();
  if (constructible_class(*this))
    return Class_Generic::unsafeFrom(*this).name();
  auto v = result_unwrap_lazy(propertyValue(meta_property_untyped("$$name")));
  return String::isInstance(v) ? String::unsafeFrom(v) : String();
}

String I_Callable_Generic::doc() const {
  if (auto *c = native_callable(*this))
    return c->doc();
  auto v = result_unwrap_lazy(propertyValue(meta_property_untyped("$$doc")));
  return String::isInstance(v) ? String::unsafeFrom(v) : String();
}

Any I_Callable_Generic::declaringContext() const {
  if (auto *c = native_callable(*this)) {
    auto context = c->context();
    return context ? context : Any(None());
  }
  if (constructible_class(*this))
    return Class_Generic::unsafeFrom(*this).declaringContext();
  return None();
}

void I_Callable_Generic::setDeclaringContext(const Any &context) const {
  if (auto *c = native_callable(*this))
    const_cast<object_value_callable *>(c)->set_context(context);
}

bool I_Callable_Generic::isIndependent() const {
  if (auto *c = native_callable(*this))
    return c->independent();
  auto v = fieldValue(independent_name());
  return Boolean::isInstance(v) && Boolean::unsafeFrom(v).value();
}

void I_Callable_Generic::setIndependent(bool independent) const {
  if (auto *c = native_callable(*this))
    const_cast<object_value_callable *>(c)->set_independent(independent);
  else
    setFieldValue(independent_name(), Boolean(independent));
}

std::vector<Any> I_Callable_Generic::defaults() const {
  if (auto *c = native_callable(*this))
    return c->defaults();
  return {};
}

} // namespace kest
