// Scripting languages: the interface, the host's Python language, evaluation
// scopes and the language registry.

#include "builtin.hpp"
#include "hooks.hpp"

#include <kest/boolean.hpp>
#include <kest/builders.hpp>
#include <kest/bytearray.hpp>
#include <kest/date_time.hpp>
#include <kest/decimal.hpp>
#include <kest/float.hpp>
#include <kest/hash_set.hpp>
#include <kest/language.hpp>
#include <kest/list.hpp>
#include <kest/reflection.hpp>
#include <kest/tuple.hpp>

#include <fmt/format.h>

#include <array>
#include <atomic>
#include <cmath>
#include <mutex>

namespace kest {
namespace internal {

std::string float_text(double v);
std::string quoted_text(std::u16string_view text);

class object_value_scope final : public native_instance<&EvaluationScope::getClass> {
public:
  Any self;
  Union<I_Map, None> globals, locals;
  Union<I_MutableMap, None> out_locals;
};

String language_name_python() { return String(u"python"); }
String language_name_js() { return String(u"js"); }
String language_name_cpp() { return String(u"cpp"); }

namespace {
struct language_registry {
  spinlock lock;
  std::vector<std::pair<String, Any>> languages;
};
language_registry &registry() {
  static auto *r = new language_registry;
  return *r;
}

/// What one language method name meant on one class in one members epoch,
/// remembered per thread: the method, found on the class, that applies to its
/// instances and takes the instance and the arguments exactly. Any change to
/// any class's members or hooks starts a new epoch.
struct remembered_method {
  const object_value_class *cls = nullptr;
  std::uint64_t epoch = 0;
  const object_value_callable *method = nullptr; // kept alive by the class while the epoch lasts
};

/// The class of `self` when what a method name means on it depends on the
/// class alone: an instance that was never given members of its own.
const object_value_class *class_deciding_methods(const Any &self) noexcept {
  auto *inst = instance_of(self);
  return inst && !inst->has_inserted_members() ? inst->class_value() : nullptr;
}

/// Calls the language method `name` (interned once by the caller) of `self`
/// with the arguments `args...`, each copied once, into the call's own array.
/// A call on the class that the thread's last call of the method found it on,
/// in the same members epoch, calls it again without looking it up.
template <class... Args>
Result<Any> call_language(const Any &self, const meta_method_untyped &name, remembered_method &remembered,
                          const Args &...args) {
  const auto *cls = class_deciding_methods(self);
  const auto epoch = class_members_epoch();
  if (cls && remembered.cls == cls && remembered.epoch == epoch) {
    const std::array<Any, 1 + sizeof...(Args)> full{self, Any(args)...};
    auto result = call_exact_applicable(*remembered.method, full);
    return Result<Any>(unchecked, result.empty() ? Any(None()) : result_unwrap_lazy(std::move(result)));
  }
  if (!I_Language::isInstance(self)) // never call a same-named method of an unrelated value
    return wrong_class("I_Language", self);
  auto method = method_of(self, name);
  if (!method.is<I_Callable_Generic>())
    return helpers::error_method_not_found(String::fromUtf8(name.utf8()), self);
  const I_Callable_Generic callable(unchecked, std::move(method));
  if (callable.isIndependent()) {
    const std::array<Any, sizeof...(Args)> independent{Any(args)...};
    return Result<Any>(unchecked, result_unwrap_lazy(callable.callWith(independent)));
  }
  // Remembered only when the class alone decided: no method hook, the method
  // found on the class, and called as it is (no arguments to fill in).
  if (const auto *native = callable.kind() == ObjectType::Callable
                               ? static_cast<const object_value_callable *>(callable.get())
                               : nullptr;
      cls && native && !overrides(cls, object_hook::method) && cls->lookup_method(name.info()) == native &&
      native->exact_argument_count() == static_cast<std::int64_t>(1 + sizeof...(Args)) &&
      method_applies_to(*native, cls))
    remembered = {cls, epoch, native};
  const std::array<Any, 1 + sizeof...(Args)> full{self, Any(args)...};
  return Result<Any>(unchecked, result_unwrap_lazy(callable.callWith(full)));
}

void add_value_property(const Class_Generic &cls, const char16_t *name, const Any &value) {
  property_builder_base p{String(name)};
  p.assign_getter_value(value);
  cls->add_property(p.name(), p.build());
}

Class_Generic language_interface() {
  return make_builtin_class("I_Language", class_flags::interface);
}

Class_Generic python_language_class() {
  auto cls = make_builtin_class("PythonLanguage", 0, {&I_Language::getClass, &I_HasName::getClass});
  cls.setDoc(String(u"The Python language of the host; an implementation evaluates the code."));
  add_value_property(cls, u"$$name", String(u"Python"));
  add_value_property(cls, u"$$canEvaluate", Boolean(false));
  method_builder_base to_code{String(u"$toCode")};
  to_code.assign_func(make_method([](Any, Any value) { return PythonLanguage::toCode(value); }));
  to_code.signature(String(u"value"));
  to_code.assign_doc(String(u"Python source text for a value."));
  cls->add_method(to_code.name(), to_code.callable());
  return cls;
}
} // namespace
} // namespace internal

using namespace internal;

KEST_DEFINE_HANDLE(I_Language, value_derives(a, I_Language::getClass()), language_interface())
KEST_DEFINE_HANDLE(PythonLanguage, value_derives(a, PythonLanguage::getClass()), python_language_class())
KEST_DEFINE_HANDLE(EvaluationScope, instance_derives(a, &EvaluationScope::getClass),
                   make_builtin_class("EvaluationScope", class_flags::final))

Result<Any> I_Language::evaluate(const String &code, const Any &scope) const {
  static const meta_method_untyped name("evaluate"); // interned once
  static thread_local remembered_method remembered;
  return call_language(*this, name, remembered, code, scope);
}
Result<Any> I_Language::evaluateExpression(const String &code, const Any &scope) const {
  static const meta_method_untyped name("evaluateExpression"); // interned once
  static thread_local remembered_method remembered;
  return call_language(*this, name, remembered, code, scope);
}
Result<Any> I_Language::toCode(const Any &value) const {
  static const meta_method_untyped name("toCode"); // interned once
  static thread_local remembered_method remembered;
  return call_language(*this, name, remembered, value);
}
Result<Any> I_Language::resolve(const String &path) const {
  static const meta_method_untyped name("resolve"); // interned once
  static thread_local remembered_method remembered;
  return call_language(*this, name, remembered, path);
}
bool I_Language::canEvaluate() const {
  return Boolean::from(result_unwrap_lazy(propertyValue(meta_property_untyped("$$canEvaluate")))).value();
}

Result<Any> PythonLanguage::evaluateInSandbox(const String &code, const Any &scope) const {
  static const meta_method_untyped name("evaluateInSandbox"); // interned once
  static thread_local remembered_method remembered;
  return call_language(*this, name, remembered, code, scope);
}
Result<Any> PythonLanguage::evaluateExpressionInSandbox(const String &code, const Any &scope) const {
  static const meta_method_untyped name("evaluateExpressionInSandbox"); // interned once
  static thread_local remembered_method remembered;
  return call_language(*this, name, remembered, code, scope);
}

namespace {
Result<String> python_literal(const Any &value, int depth);

Result<String> join_literals(const std::vector<Any> &items, int depth, const char *open, const char *close,
                                  bool single_comma) {
  std::string out = open;
  for (std::size_t i = 0; i < items.size(); ++i) {
    auto item = python_literal(items[i], depth + 1);
    if (item.isError())
      return item;
    out += (i ? ", " : "") + String::unsafeFrom(item).toUtf8();
  }
  if (single_comma && items.size() == 1)
    out += ",";
  return String::fromUtf8(out + close);
}

Result<String> python_literal_text(const Any &value, int depth);

Result<String> python_literal(const Any &value, int depth) {
  if (depth > 64)
    return Error(String(u"The value is nested too deeply to write as Python code."));
  return python_literal_text(value, depth);
}

Result<String> python_literal_text(const Any &value, int depth) {
  auto text = [](const std::string &s) { return Result<String>(String::fromUtf8(s)); };
  switch (value.kind()) {
  case ObjectType::None:
    return text("None");
  case ObjectType::Boolean:
    return text(Boolean::unsafeFrom(value).value() ? "True" : "False");
  case ObjectType::Integer: {
    auto i = Integer::unsafeFrom(value);
    return text(i.isSigned() ? std::to_string(i.value()) : std::to_string(i.unsignedValue()));
  }
  case ObjectType::Float: {
    const double d = Float::unsafeFrom(value).value();
    if (std::isnan(d))
      return text("float('nan')");
    if (std::isinf(d))
      return text(d < 0 ? "float('-inf')" : "float('inf')");
    return text(float_text(d));
  }
  case ObjectType::String:
    return text(quoted_text(String::unsafeFrom(value).view()));
  case ObjectType::ByteArray:
    return text(display(value).toUtf8());
  case ObjectType::Tuple: {
    auto items = Tuple::unsafeFrom(value).items();
    return join_literals({items.begin(), items.end()}, depth, "(", ")", true);
  }
  case ObjectType::List:
    return join_literals(List::unsafeFrom(value).copyItems(), depth, "[", "]", false);
  case ObjectType::HashSet: {
    auto items = HashSet::unsafeFrom(value).copyItems();
    if (items.empty())
      return text("set()");
    return join_literals(items, depth, "{", "}", false);
  }
  case ObjectType::HashMap: {
    std::string out = "{";
    bool first = true;
    for (auto &[k, v] : HashMap::unsafeFrom(value).copyPairs()) {
      auto key = python_literal(k, depth + 1);
      if (key.isError())
        return key;
      auto val = python_literal(v, depth + 1);
      if (val.isError())
        return val;
      out += (first ? "" : ", ") + String::unsafeFrom(key).toUtf8() + ": " + String::unsafeFrom(val).toUtf8();
      first = false;
    }
    return text(out + "}");
  }
  default:
    break;
  }
  if (Decimal::isInstance(value))
    return text(fmt::format("Decimal('{}')", Decimal::unsafeFrom(value).toUtf8()));
  if (Date::isInstance(value)) {
    auto d = Date::unsafeFrom(value);
    if (!d.isValid()) // Python's dates run from year 1 to 9999; anything else fails there
      return Error(String::fromUtf8(fmt::format("Unable to write the value of class '{}' {} as Python code.",
                                                qualname(raw_class_of(value)).utf8View(), display(value).utf8View())));
    return text(fmt::format("datetime.date({}, {}, {})", d.year(), d.month(), d.day()));
  }
  if (Time::isInstance(value) && !Time::unsafeFrom(value).offsetSeconds()) {
    auto t = Time::unsafeFrom(value);
    return text(fmt::format("datetime.time({}, {}, {}, {})", t.hour(), t.minute(), t.second(), t.nanoSeconds() / 1000));
  }
  return Error(String::fromUtf8(fmt::format("Unable to write a value of class '{}' as Python code.",
                                            qualname(raw_class_of(value)).utf8View())));
}
} // namespace

Result<String> PythonLanguage::toCode(const Any &value) { return python_literal(unwrap(value), 0); }

EvaluationScope::EvaluationScope(const Any &self, const Union<I_Map, None> &globals,
                                 const Union<I_Map, None> &locals, const Union<I_MutableMap, None> &outLocals)
    : Any(unchecked, Any(new object_value_scope)) {
  auto *s = native<object_value_scope>(*this);
  s->self = self;
  s->globals = globals;
  s->locals = locals;
  s->out_locals = outLocals;
}
// A handle made over a value of another class reads as a scope without self or maps.
Any EvaluationScope::self() const {
  auto *s = native_if<object_value_scope>(*this);
  return s ? s->self : Any();
}
Union<I_Map, None> EvaluationScope::globals() const {
  auto *s = native_if<object_value_scope>(*this);
  return s ? s->globals : Union<I_Map, None>(None());
}
Union<I_Map, None> EvaluationScope::locals() const {
  auto *s = native_if<object_value_scope>(*this);
  return s ? s->locals : Union<I_Map, None>(None());
}
Union<I_MutableMap, None> EvaluationScope::outLocals() const {
  auto *s = native_if<object_value_scope>(*this);
  return s ? s->out_locals : Union<I_MutableMap, None>(None());
}

namespace {
std::atomic<const internal::python_lock_hooks *> g_python_lock{nullptr};
}

void internal::set_python_lock(const python_lock_hooks *hooks) noexcept {
  g_python_lock.store(hooks, std::memory_order_release);
}

const internal::python_lock_hooks *internal::python_lock() noexcept {
  return g_python_lock.load(std::memory_order_acquire);
}

bool internal::register_language(const String &name, const Any &language) {
  auto &r = registry();
  std::lock_guard guard(r.lock);
  for (auto &[n, l] : r.languages)
    if (n.view() == name.view())
      return false;
  r.languages.emplace_back(name, language);
  return true;
}

Union<I_Language, None> find_language(const String &name) {
  auto &r = registry();
  std::lock_guard guard(r.lock);
  for (auto &[n, l] : r.languages)
    if (n.view() == name.view() && I_Language::isInstance(l))
      return I_Language::unsafeFrom(l);
  return None();
}

} // namespace kest
