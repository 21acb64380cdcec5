// Evaluating code through the host's language interface.

#include "python_runner.hpp"

#include "process_signals.hpp"

#include <ostream>

namespace sarvode {

std::optional<kest::I_Language> python_language() {
  auto language = kest::find_language(kest::internal::language_name_python());
  if (!language.is<kest::I_Language>())
    return std::nullopt;
  return language.as<kest::I_Language>();
}

void print_error(std::ostream &err, const std::string &source, const kest::Error &error) {
  err << source;
  if (auto line = error.line()) {
    err << ":" << *line;
    if (auto column = error.column())
      err << ":" << *column;
  }
  auto headline = error.headline().toUtf8();
  while (!headline.empty() && headline.back() == '\n')
    headline.pop_back();
  err << ": error: " << headline << "\n";
}

void print_error_and_stack(std::ostream &err, const std::string &source, const kest::Error &error) {
  print_error(err, source, error);
  auto stack = error.stack().toUtf8();
  if (stack.empty())
    return;
  if (stack.back() != '\n')
    stack.push_back('\n');
  err << stack;
}

std::optional<int> requested_exit(std::ostream &err, const kest::Error &error) {
  const auto cls = kest::qualname(kest::raw_class_of(error)).toUtf8();
  if (cls == "kest.cpython.KeyboardInterrupt") {
    err << "KeyboardInterrupt\n";
    return end_by_interrupt();
  }
  if (cls != "kest.cpython.SystemExit")
    return std::nullopt;
  // As python3 ends on SystemExit: None is success, an integer is the status,
  // anything else is printed and the status is 1.
  const auto code = kest::internal::unwrap(error.value());
  if (kest::is_none(code))
    return 0;
  if (kest::Integer::isInstance(code))
    return static_cast<int>(kest::Integer::unsafeFrom(code).value() & 0xFF);
  err << kest::display(code).toUtf8() << "\n";
  return 1;
}

kest::Any evaluate(const kest::I_Language &language, const std::string &code, bool expression,
                   const run_options &options) {
  const auto text = kest::String::fromUtf8(code);
  kest::Result<kest::Any> result;
  if (options.sandbox) {
    auto python = kest::PythonLanguage::cast(language);
    if (!python.is<kest::PythonLanguage>())
      return kest::Error(kest::String(u"the Python language has no sandbox"));
    result = expression ? python.as<kest::PythonLanguage>().evaluateExpressionInSandbox(text)
                        : python.as<kest::PythonLanguage>().evaluateInSandbox(text);
  } else {
    result = expression ? language.evaluateExpression(text) : language.evaluate(text);
  }
  return kest::internal::result_unwrap_lazy(result);
}

} // namespace sarvode
