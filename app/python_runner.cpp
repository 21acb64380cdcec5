// Running Python through the host's language interface.

#include "python_runner.hpp"

#include <ostream>

namespace sarvode {

std::optional<kest::I_Language> python_language() {
  auto language = kest::find_language(kest::internal::language_name_python());
  if (!language.is<kest::I_Language>())
    return std::nullopt;
  return language.as<kest::I_Language>();
}

void print_result(std::ostream &out, const kest::Any &result, const run_options &options) {
  if (kest::is_none(result))
    return;
  if (options.show_class)
    out << kest::qualname(kest::class_of(result)).utf8View() << ": ";
  out << kest::display(result).utf8View() << "\n";
}

void print_error(std::ostream &err, const std::string &source, const kest::Error &error) {
  err << source;
  if (kest::EvaluationError::isInstance(error)) {
    auto positioned = kest::EvaluationError::unsafeFrom(error);
    if (auto line = positioned.line())
      err << ":" << *line;
    if (auto column = positioned.column())
      err << ":" << *column;
  }
  auto message = error.message().toUtf8();
  while (!message.empty() && message.back() == '\n')
    message.pop_back();
  err << ": error: " << message << "\n";
}

int run_and_report(const kest::I_Language &language, const std::string &source, const std::string &code,
                   bool expression, const kest::Any &scope, const run_options &options, std::ostream &out,
                   std::ostream &err) {
  const auto text = kest::String::fromUtf8(code);
  kest::Result<kest::Any> result;
  if (options.sandbox) {
    auto python = kest::PythonLanguage::cast(language);
    if (!python.is<kest::PythonLanguage>()) {
      err << source << ": error: the Python language has no sandbox\n";
      return 1;
    }
    result = expression ? python.as<kest::PythonLanguage>().evaluateExpressionInSandbox(text, scope)
                        : python.as<kest::PythonLanguage>().evaluateInSandbox(text, scope);
  } else {
    result = expression ? language.evaluateExpression(text, scope) : language.evaluate(text, scope);
  }
  const auto value = kest::internal::result_unwrap_lazy(result);
  if (kest::Error::isInstance(value)) {
    print_error(err, source, kest::Error::unsafeFrom(value));
    return 1;
  }
  print_result(out, value, options);
  return 0;
}

} // namespace sarvode
