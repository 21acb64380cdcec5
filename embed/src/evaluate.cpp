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

Result<Any> exec(std::string_view code, const scope &names) {
  auto python = language();
  if (!python.is<PythonLanguage>())
    return not_started();
  return python.unsafeAs<PythonLanguage>().evaluate(text_of(code), names.evaluation_scope());
}

Result<Any> eval(std::string_view expression, const scope &names) {
  auto python = language();
  if (!python.is<PythonLanguage>())
    return not_started();
  return python.unsafeAs<PythonLanguage>().evaluateExpression(text_of(expression), names.evaluation_scope());
}

Result<Any> exec_sandboxed(std::string_view code, const scope &names) {
  auto python = language();
  if (!python.is<PythonLanguage>())
    return not_started();
  return python.unsafeAs<PythonLanguage>().evaluateInSandbox(text_of(code), names.evaluation_scope());
}

Result<Any> eval_sandboxed(std::string_view expression, const scope &names) {
  auto python = language();
  if (!python.is<PythonLanguage>())
    return not_started();
  return python.unsafeAs<PythonLanguage>().evaluateExpressionInSandbox(text_of(expression), names.evaluation_scope());
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
