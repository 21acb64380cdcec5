// Evaluation per call against two floors of the raw C API: the builtin
// exec/eval of the same text into a fresh dictionary, and of the text's
// already compiled code object (the floor for an evaluation whose compiled
// form is cached).

#include "language/cpython_language.hpp"
#include "language/output_capture.hpp"
#include "runtime/python_ready.hpp"

#include <kest/kest.hpp>

#include "fixed_iterations.hpp"

#include <benchmark/benchmark.h>

#include <string>
#include <string_view>

using namespace sarvode;

namespace {
kest::I_Language language() {
  ensurePythonReady();
  return kest::I_Language::unsafeFrom(cpythonLanguage());
}

/// exec or eval of `code` with a fresh globals dictionary, as the floor.
void raw(benchmark::State &state, const char *builtin, const char *code) {
  ensurePythonReady();
  py::gil lock;
  PyObject *function = PyDict_GetItemString(PyEval_GetBuiltins(), builtin);
  for (auto _ : state) {
    auto globals = py::object::steal(PyDict_New());
    auto result = py::object::steal(PyObject_CallFunction(function, "sOO", code, globals.get(), globals.get()));
    benchmark::DoNotOptimize(result.get());
  }
}

/// exec or eval of `code` compiled once, each time with a fresh globals dictionary.
void cached_floor(benchmark::State &state, const char *builtin, const char *code,
                  void (*fill)(PyObject *globals) = nullptr) {
  ensurePythonReady();
  py::gil lock;
  PyObject *builtins = PyEval_GetBuiltins();
  PyObject *function = PyDict_GetItemString(builtins, builtin);
  const bool statements = std::string_view(builtin) == "exec";
  auto compiled = py::object::steal(PyObject_CallFunction(PyDict_GetItemString(builtins, "compile"), "sss", code,
                                                          "<string>", statements ? "exec" : "eval"));
  for (auto _ : state) {
    auto globals = py::object::steal(PyDict_New());
    if (fill)
      fill(globals.get());
    auto result = py::object::steal(PyObject_CallFunctionObjArgs(function, compiled.get(), globals.get(), globals.get(), nullptr));
    benchmark::DoNotOptimize(result.get());
  }
}

/// What every entry from host code pays before any Python runs: taking the
/// interpreter lock and giving it back (the floors above hold it throughout).
void TakeInterpreterLock(benchmark::State &state) {
  ensurePythonReady();
  for (auto _ : state) {
    py::gil lock;
    benchmark::DoNotOptimize(&lock);
  }
}

void Statements_Raw(benchmark::State &state) { raw(state, "exec", "def f():\n\treturn 1\nr = f()\n"); }
void Statements_Evaluate(benchmark::State &state) {
  auto python = language();
  const kest::String code(u"return 1");
  for (auto _ : state)
    benchmark::DoNotOptimize(python.evaluate(code));
}

void Statements_CachedFloor(benchmark::State &state) { cached_floor(state, "exec", "def f():\n\treturn 1\nr = f()\n"); }

void Expression_Raw(benchmark::State &state) { raw(state, "eval", "1 + 1"); }
void Expression_Evaluate(benchmark::State &state) {
  auto python = language();
  const kest::String code(u"1 + 1");
  for (auto _ : state)
    benchmark::DoNotOptimize(python.evaluateExpression(code));
}

void Expression_CachedFloor(benchmark::State &state) { cached_floor(state, "eval", "1 + 1"); }

void fill_ten_values(PyObject *globals) {
  for (int i = 0; i < 10; ++i) {
    auto value = py::object::steal(PyLong_FromLong(i));
    PyDict_SetItemString(globals, ("v" + std::to_string(i)).c_str(), value.get());
  }
}
void ScopedStatements_CachedFloor(benchmark::State &state) {
  cached_floor(state, "exec", "def f():\n\tglobal o1, o2\n\to1 = v0 + v1\n\to2 = v8 * v9\n\treturn o1 + o2\nr = f()\n",
               fill_ten_values);
}

void ScopedStatements_Raw(benchmark::State &state) {
  ensurePythonReady();
  py::gil lock;
  PyObject *exec = PyDict_GetItemString(PyEval_GetBuiltins(), "exec");
  const char *code = "def f():\n\tglobal o1, o2\n\to1 = v0 + v1\n\to2 = v8 * v9\n\treturn o1 + o2\nr = f()\n";
  for (auto _ : state) {
    auto globals = py::object::steal(PyDict_New());
    for (int i = 0; i < 10; ++i) {
      auto value = py::object::steal(PyLong_FromLong(i));
      PyDict_SetItemString(globals.get(), ("v" + std::to_string(i)).c_str(), value.get());
    }
    auto result = py::object::steal(PyObject_CallFunction(exec, "sOO", code, globals.get(), globals.get()));
    benchmark::DoNotOptimize(PyDict_GetItemString(globals.get(), "o1"));
    benchmark::DoNotOptimize(PyDict_GetItemString(globals.get(), "o2"));
  }
}
void ScopedStatements_Evaluate(benchmark::State &state) {
  auto python = language();
  kest::HashMap locals(kest::String::getType(), kest::Type());
  for (int i = 0; i < 10; ++i)
    (void)locals.setChecked(kest::String::fromUtf8("v" + std::to_string(i)), kest::Integer(i));
  kest::HashMap outs(kest::String::getType(), kest::Type());
  (void)outs.setChecked(kest::String(u"o1"), kest::Integer(0));
  (void)outs.setChecked(kest::String(u"o2"), kest::Integer(0));
  kest::EvaluationScope scope(kest::Any(), kest::None(), kest::I_Map::unsafeFrom(locals),
                              kest::I_MutableMap::unsafeFrom(outs));
  const kest::String code(u"o1 = v0 + v1\no2 = v8 * v9\nreturn o1 + o2");
  for (auto _ : state)
    benchmark::DoNotOptimize(python.evaluate(code, scope));
}

/// 100,000 short lines printed by Python code, with `file` as the target.
void print_lines(benchmark::State &state, const char *setup) {
  ensurePythonReady();
  py::gil lock;
  auto globals = py::object::steal(PyDict_New());
  auto prepared = py::object::steal(runWithBuiltin("exec", setup, globals.get(), globals.get()));
  if (!prepared) {
    PyErr_Print();
    state.SkipWithError("setup failed");
    return;
  }
  for (auto _ : state) {
    auto done = py::object::steal(
        runWithBuiltin("exec", "for i in range(100000):\n    print('line', i, file=target())\n", globals.get(), globals.get()));
    if (!done) {
      PyErr_Print();
      state.SkipWithError("printing failed");
      return;
    }
  }
}
void Print100k_DevNull(benchmark::State &state) {
  print_lines(state, "null = open('/dev/null', 'w')\ndef target():\n    return null\n");
}
void Print100k_Captured(benchmark::State &state) {
  std::int64_t characters = 0;
  auto sink = kest::make_function([&characters](kest::String, kest::String text) { characters += text.length(); });
  if (redirectOutput(sink).isError()) {
    state.SkipWithError("no capture");
    return;
  }
  print_lines(state, "import sys\ndef target():\n    return sys.stdout\n");
  (void)redirectOutput(kest::None());
  benchmark::DoNotOptimize(characters);
}
} // namespace

BENCHMARK(TakeInterpreterLock)->Apply(fixed_iterations)->Unit(benchmark::kMicrosecond);
BENCHMARK(Statements_Raw)->Apply(fixed_iterations)->Unit(benchmark::kMicrosecond);
BENCHMARK(Statements_Evaluate)->Apply(fixed_iterations)->Unit(benchmark::kMicrosecond);
BENCHMARK(Statements_CachedFloor)->Apply(fixed_iterations)->Unit(benchmark::kMicrosecond);
BENCHMARK(Expression_Raw)->Apply(fixed_iterations)->Unit(benchmark::kMicrosecond);
BENCHMARK(Expression_Evaluate)->Apply(fixed_iterations)->Unit(benchmark::kMicrosecond);
BENCHMARK(Expression_CachedFloor)->Apply(fixed_iterations)->Unit(benchmark::kMicrosecond);
BENCHMARK(ScopedStatements_Raw)->Apply(fixed_iterations)->Unit(benchmark::kMicrosecond);
BENCHMARK(ScopedStatements_Evaluate)->Apply(fixed_iterations)->Unit(benchmark::kMicrosecond);
BENCHMARK(ScopedStatements_CachedFloor)->Apply(fixed_iterations)->Unit(benchmark::kMicrosecond);
BENCHMARK(Print100k_DevNull)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(Print100k_Captured)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
