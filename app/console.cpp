// The interactive Python console.
//
// Everything runs through the host's language interface. Names that an input
// assigns are kept in an out-locals map, which the next input starts from.

#include "console.hpp"

#include <istream>
#include <ostream>

namespace sarvode {

namespace {
/// A small Python helper, evaluated through the language: what kind of input
/// `src` is ("expression", "complete", "incomplete" or "invalid") and the names
/// it assigns at its top level, as one comma-separated text.
constexpr const char *classify_source = R"(
import ast
try:
    ast.parse(src, mode='eval')
    kind = 'expression'
except SyntaxError:
    try:
        tree = ast.parse(src, mode='exec')
        kind = 'incomplete' if src.rstrip().endswith(':') else 'complete'
    except SyntaxError:
        kind = 'incomplete' if src.rstrip().endswith(':') or src.count('\n') else 'invalid'
names = []
try:
    for node in ast.walk(ast.parse(src, mode='exec')):
        if isinstance(node, ast.Name) and isinstance(node.ctx, ast.Store):
            names.append(node.id)
        elif isinstance(node, (ast.FunctionDef, ast.AsyncFunctionDef, ast.ClassDef)):
            names.append(node.name)
        elif isinstance(node, (ast.Import, ast.ImportFrom)):
            names.extend((a.asname or a.name).split('.')[0] for a in node.names if a.name != '*')
except SyntaxError:
    pass
return kind + '|' + ','.join(sorted(set(names)))
)";

struct classification {
  std::string kind;
  std::vector<std::string> names;
};

classification classify(const kest::I_Language &language, const std::string &src) {
  kest::HashMap locals(kest::String::getType(), kest::Type());
  (void)locals.setChecked(kest::String(u"src"), kest::String::fromUtf8(src));
  kest::EvaluationScope scope(kest::Any(), kest::None(), kest::I_Map::unsafeFrom(locals), kest::None());
  auto result = kest::internal::result_unwrap_lazy(language.evaluate(kest::String::fromUtf8(classify_source), scope));
  classification c{"invalid", {}};
  if (!kest::String::isInstance(result))
    return c;
  const auto text = kest::String::unsafeFrom(result).toUtf8();
  const auto bar = text.find('|');
  c.kind = text.substr(0, bar);
  for (std::size_t begin = bar + 1; begin < text.size();) {
    auto end = text.find(',', begin);
    if (end == std::string::npos)
      end = text.size();
    if (end > begin)
      c.names.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return c;
}

std::string trimmed(const std::string &s) {
  const auto b = s.find_first_not_of(" \t\r");
  if (b == std::string::npos)
    return {};
  return s.substr(b, s.find_last_not_of(" \t\r") - b + 1);
}
} // namespace

int run_console(const kest::I_Language &language, const run_options &options, std::istream &in,
                std::ostream &out, std::ostream &err, bool prompts) {
  kest::HashMap names(kest::String::getType(), kest::Type());
  std::string pending;
  auto prompt = [&](bool more) {
    if (prompts)
      out << (more ? "... " : ">>> ") << std::flush;
  };
  auto run_statements = [&](const std::string &src, const classification &c) {
    for (const auto &name : c.names)
      if (!names.contains(kest::String::fromUtf8(name)))
        (void)names.setChecked(kest::String::fromUtf8(name), kest::Any());
    kest::EvaluationScope scope(kest::Any(), kest::None(), kest::None(), kest::I_MutableMap::unsafeFrom(names));
    run_and_report(language, "<console>", src, false, scope, options, out, err);
  };

  prompt(false);
  for (std::string line; std::getline(in, line);) {
    if (pending.empty()) {
      const auto t = trimmed(line);
      if (t.empty()) {
        prompt(false);
        continue;
      }
      if (t == "exit()" || t == "quit()")
        return 0;
      auto c = classify(language, line);
      if (c.kind == "expression") {
        kest::EvaluationScope scope(kest::Any(), kest::None(), kest::I_Map::unsafeFrom(names), kest::None());
        run_and_report(language, "<console>", line, true, scope, options, out, err);
        prompt(false);
        continue;
      }
      if (c.kind == "complete" || c.kind == "invalid") {
        run_statements(line, c);
        prompt(false);
        continue;
      }
      pending = line + "\n";
      prompt(true);
      continue;
    }
    if (!trimmed(line).empty()) {
      pending += line + "\n";
      prompt(true);
      continue;
    }
    run_statements(pending, classify(language, pending));
    pending.clear();
    prompt(false);
  }
  if (!pending.empty())
    run_statements(pending, classify(language, pending));
  if (prompts)
    out << "\n";
  return 0;
}

} // namespace sarvode
