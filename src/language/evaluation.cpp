// Running user text: statements inside a generated function, and expressions.

#include "language/evaluation.hpp"

#include "convert/from_python.hpp"
#include "convert/python_names.hpp"
#include "convert/to_python.hpp"
#include "language/code_cache.hpp"
#include "language/evaluation_callbacks.hpp"
#include "language/interrupts.hpp"
#include "language/output_capture.hpp"
#include "language/module_dictionary.hpp"
#include "language/python_error.hpp"
#include "language/syntax_position.hpp"
#include "runtime/python_ready.hpp"
#include "runtime/run_code.hpp"
#include "runtime/stack_guard.hpp"

#include <kest/kest.hpp>

#include <string>
#include <string_view>

namespace sarvode {

namespace {
/// Copies every entry of a host map into `dict` under its string key,
/// converted; entries without a Python form are skipped.
void copy_entry(PyObject *dict, const kest::Any &key, const kest::Any &value) {
  if (!kest::String::isInstance(key))
    return;
  auto converted = py::object::steal(toPythonLocked(value)); // the caller holds the interpreter lock
  auto name = py::object::steal(converted ? pythonName(kest::internal::string_utf8_of(key)) : nullptr);
  if (!name || PyDict_SetItem(dict, name.get(), converted.get()) < 0)
    PyErr_Clear();
}

void copy_map(PyObject *dict, const kest::Any &map) {
  if (kest::HashMap::isInstance(map)) {
    // The host's own maps hand over their pairs at once (most are empty).
    const auto host_map = kest::HashMap::unsafeFrom(map);
    if (host_map.length() == 0)
      return;
    for (auto &[key, value] : host_map.copyPairs())
      copy_entry(dict, key, value);
    return;
  }
  if (!kest::I_Map::isInstance(map))
    return;
  auto m = kest::I_Map::unsafeFrom(map);
  auto keys = kest::internal::result_unwrap_lazy(m.keys());
  if (!kest::I_Iterable::isInstance(keys))
    return;
  for (const auto &key : kest::I_Iterable::unsafeFrom(keys))
    if (kest::String::isInstance(key))
      copy_entry(dict, key, kest::internal::result_unwrap_lazy(m.get(key)));
}

/// The globals every evaluation starts from: the host modules, then the
/// scope's globals (or the host's global table).
py::object fresh_globals(const kest::Union<kest::I_Map, kest::None> &globals) {
  auto g = newEvaluationGlobals();
  if (!g)
    return g;
  if (!kest::is_none(globals) && globals.is<kest::I_Map>())
    copy_map(g.get(), globals);
  else
    copy_map(g.get(), kest::globals());
  return g;
}

/// Sets `name` (an interned string) in `dict` to `value`, converted.
bool set_item(PyObject *dict, PyObject *name, const kest::Any &value) {
  auto converted = py::object::steal(toPythonLocked(value));
  if (!converted || !name) {
    PyErr_Clear();
    return false;
  }
  return PyDict_SetItem(dict, name, converted.get()) == 0;
}

/// The text reaches Python as a C string, which would end at a null character
/// and silently run only the part before it; such code is refused instead.
bool has_null_character(const kest::String &code) { return code.contains(u'\0'); }

kest::Error null_character_error() {
  return kest::Error(kest::String(u"source code string cannot contain null bytes"));
}

std::vector<kest::String> out_local_names(const kest::Union<kest::I_MutableMap, kest::None> &outLocals) {
  std::vector<kest::String> names;
  if (kest::is_none(outLocals) || !outLocals.is<kest::I_MutableMap>())
    return names;
  auto keys = kest::internal::result_unwrap_lazy(kest::I_Map::unsafeFrom(outLocals).keys());
  if (kest::I_Iterable::isInstance(keys))
    for (const auto &key : kest::I_Iterable::unsafeFrom(keys))
      if (kest::String::isInstance(key))
        names.push_back(kest::String::unsafeFrom(key));
  return names;
}
/// The two dictionaries of one run: globals filled from the host modules, the
/// scope's globals, out-locals and locals (in that order, later ones winning),
/// and empty locals. Either is null when it could not be made.
struct run_dictionaries {
  py::object globals, locals;
};

run_dictionaries prepare(const kest::Union<kest::I_Map, kest::None> &globals,
                         const kest::Union<kest::I_Map, kest::None> &locals,
                         const kest::Union<kest::I_MutableMap, kest::None> &outLocals) {
  run_dictionaries d{fresh_globals(globals), py::object::steal(PyDict_New())};
  if (!d.globals || !d.locals)
    return d;
  if (!kest::is_none(outLocals) && outLocals.is<kest::I_MutableMap>())
    copy_map(d.globals.get(), outLocals); // their current values are the out-locals' initial values
  if (!kest::is_none(locals) && locals.is<kest::I_Map>())
    copy_map(d.globals.get(), locals);
  return d;
}
/// One run of a compiled text: what it gave, and the code it ran (null when
/// the text did not compile, with the compile error set).
struct run_outcome {
  py::object value, code;
};

/// Runs the text that `make` makes of `user` and `names` (`user` itself when
/// `make` is null) as the builtin "exec" or "eval" (as `mode` says) would,
/// from its compiled form in the cache. A null value as `runWithBuiltin`.
run_outcome run_cached(const kest::String &user, code_mode mode, std::span<const kest::String> names, text_maker make,
                       PyObject *globals, PyObject *locals) {
  if (!stackHasRoom()) // a host callback that evaluates again, deep inside a recursion
    return {};
  auto code = py::object::steal(compiledCode(user, mode, names, make));
  if (!code)
    return {};
  // The globals come from `fresh_globals`, which names the builtins.
  auto value = py::object::steal(runCode(code.get(), globals, locals, GlobalBuiltins::present));
  return {std::move(value), std::move(code)};
}
} // namespace

std::string statementsText(std::string_view user, std::span<const kest::String> outLocalNames) {
  // The user's text becomes the body of kest_outer; the out-locals are made
  // global inside it and read back at module level after the call.
  std::string text = "def " + std::string(statements_function_name) + "():\n";
  for (const auto &name : outLocalNames)
    text.append("\tglobal ").append(name.utf8View()).append("\n");
  // Every line, the empty ones too, behind a tab. A line ends where Python
  // ends it: at "\n", "\r\n" or a lone "\r" (otherwise the text after a lone
  // "\r" would land outside the function).
  for (std::size_t start = 0;;) {
    const auto end = user.find_first_of("\r\n", start);
    text.append("\t").append(user.substr(start, end - start)).append("\n");
    if (end == std::string_view::npos)
      break;
    start = end + (user.compare(end, 2, "\r\n") == 0 ? 2 : 1);
  }
  text.append("kest_store_result( kest_outer() )\n");
  for (const auto &name : outLocalNames)
    text.append("kest_store_local('").append(name.utf8View()).append("',").append(name.utf8View()).append(")\n");
  return text;
}

kest::Any runStatements(const kest::String &code, const kest::Any &self, const kest::Union<kest::I_Map, kest::None> &locals,
                        const kest::Union<kest::I_Map, kest::None> &globals,
                        const kest::Union<kest::I_MutableMap, kest::None> &outLocals) {
  if (has_null_character(code))
    return null_character_error();
  ensurePythonReady();
  py::gil lock;
  running_evaluation running; // from here on, an interrupt aimed at this thread is raised in it
  auto [g, l] = prepare(globals, locals, outLocals);
  if (!g || !l)
    return errorFromPython(0, 0);

  const auto names = out_local_names(outLocals);

  kest::Any result;
  EvaluationCallbacks callbacks(result, outLocals);
  static PyObject *const self_name = pythonName("self"); // kept for the process
  if (!callbacks.install(l.get()) || !set_item(g.get(), self_name, self))
    return errorFromPython(0, 0);

  auto outcome = run_cached(code, code_mode::statements, names, &statementsText, g.get(), l.get());
  flushRedirectedOutput(); // what the code printed reaches the host before its result
  if (outcome.value)
    return result;
  const auto user = code.utf8View();
  if (!outcome.code)
    placeSyntaxError(user, names);
  // The user's line k is line k + 1 + N of the generated text (after the
  // "def" line and one "global" line per out-local).
  return errorFromEvaluation({g.get(), outcome.code.get(), -(1 + static_cast<std::int64_t>(names.size())),
                              pythonLineCount(user), !outcome.code});
}

kest::Any runExpression(const kest::String &code, const kest::Union<kest::I_Map, kest::None> &locals,
                        const kest::Union<kest::I_Map, kest::None> &globals) {
  if (has_null_character(code))
    return null_character_error();
  ensurePythonReady();
  py::gil lock;
  running_evaluation running;
  auto [g, l] = prepare(globals, locals, kest::None()); // out-locals play no part in expressions
  if (!g || !l)
    return errorFromPython(0, 0);
  auto outcome = run_cached(code, code_mode::expression, {}, nullptr, g.get(), l.get());
  flushRedirectedOutput();
  if (!outcome.value)
    return errorFromEvaluation({g.get(), nullptr, 0, pythonLineCount(code.utf8View()), !outcome.code});
  return fromPython(outcome.value.get());
}

} // namespace sarvode
