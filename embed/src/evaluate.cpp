// Evaluating Python text with a scope written inline.

#include <kest/python.hpp>

namespace kest::python {

namespace {
String text_of(std::string_view utf8) { return String::fromUtf8(utf8); }

Union<PythonLanguage, None> language() {
  auto found = find_language(internal::language_name_python());
  if (PythonLanguage::isInstance(found))
    return found.unsafeAs<PythonLanguage>();
  return None();
}

Error not_started() {
  return Error(String(u"Python is not started: call kest::python::start() first."));
}
} // namespace

scope::scope(std::initializer_list<entry> locals) {
  for (const auto &e : locals)
    set_local(e.name, e.value);
}

scope &scope::set_local(std::string_view name, const Any &value) {
  (void)m_locals.setChecked(text_of(name), value);
  return *this;
}

scope &scope::set_out(std::string_view name, const Any &initial) {
  (void)m_out.setChecked(text_of(name), initial);
  return *this;
}

Any scope::operator[](std::string_view name) const {
  auto value = m_out.find(text_of(name));
  return value.empty() ? Any(None()) : value;
}

scope &scope::self(const Any &value) {
  m_self = value;
  return *this;
}

EvaluationScope scope::evaluation_scope() const {
  return EvaluationScope(m_self, None(), I_Map::unsafeFrom(m_locals), I_MutableMap::unsafeFrom(m_out));
}

namespace {
/// One of the language's four evaluations, or the error before start.
template <class Evaluate> Result<Any> evaluate_with(std::string_view text, const scope &names, Evaluate evaluate) {
  auto python = language();
  if (!python.is<PythonLanguage>())
    return not_started();
  return evaluate(python.unsafeAs<PythonLanguage>(), text_of(text), names.evaluation_scope());
}
} // namespace

Result<Any> exec(std::string_view code, const scope &names) {
  return evaluate_with(code, names, [](const PythonLanguage &l, const String &t, const EvaluationScope &s) {
    return l.evaluate(t, s);
  });
}

Result<Any> eval(std::string_view expression, const scope &names) {
  return evaluate_with(expression, names, [](const PythonLanguage &l, const String &t, const EvaluationScope &s) {
    return l.evaluateExpression(t, s);
  });
}

Result<Any> exec_sandboxed(std::string_view code, const scope &names) {
  return evaluate_with(code, names, [](const PythonLanguage &l, const String &t, const EvaluationScope &s) {
    return l.evaluateInSandbox(t, s);
  });
}

Result<Any> eval_sandboxed(std::string_view expression, const scope &names) {
  return evaluate_with(expression, names, [](const PythonLanguage &l, const String &t, const EvaluationScope &s) {
    return l.evaluateExpressionInSandbox(t, s);
  });
}

Result<Any> import_module(std::string_view name) {
  return eval("__import__('importlib').import_module(name)", scope{{"name", name}});
}

Result<Any> attr(const Any &object, std::string_view name) {
  return object.propertyValue(meta_property_untyped(text_of(name)));
}

Result<Any> call_with(const Any &callable, std::vector<Any> args) {
  if (!I_Callable_Generic::isInstance(callable))
    return Error(String::fromUtf8("Unable to call a value of class '" +
                                  std::string(qualname(raw_class_of(callable)).utf8View()) + "'."));
  return I_Callable_Generic::unsafeFrom(callable).callWith(args);
}

} // namespace kest::python
