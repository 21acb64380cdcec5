// A host that embeds Python through the extension by hand, as docs/embedding.md
// describes it: load the extension, run the start-up, evaluate with a scope
// and out-locals, read an error's position, use the compiled-code cache,
// cancel a runaway evaluation from another thread and capture printed output.
//
// Usage: embedding_host PATH/TO/sarvode_python.so
// Exits 0 when every step gave what it should; prints each step.

#include <kest/deferred_modules.hpp>
#include <kest/kest.hpp>
#include <kest/python.hpp>

#include <dlfcn.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <memory>
#include <string>
#include <thread>

namespace {

int failures = 0;

void check(bool ok, const std::string &what) {
  std::cout << (ok ? "ok    " : "FAILED") << "  " << what << "\n";
  failures += ok ? 0 : 1;
}

/// 1. Loading: open the library, then its two entry points, in this order.
bool load_extension(const char *path) {
  if (auto python = kest::python::load_interpreter(); python.isError()) {
    std::cerr << python.as<kest::Error>().message().toUtf8() << "\n";
    std::exit(2);
  }
  void *library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (!library) {
    std::cerr << "cannot load " << path << ": " << dlerror() << "\n";
    return false;
  }
  using entry = void (*)();
  auto bind = reinterpret_cast<entry>(dlsym(library, "sarvode_extension_bind_api"));
  auto init = reinterpret_cast<entry>(dlsym(library, "sarvode_extension_init"));
  if (!bind || !init)
    return false;
  bind();
  init();
  return true;
}

/// A host function of the module "kest.cpython".
kest::I_Callable_Generic cpython_function(const char16_t *name) {
  auto module = kest::find_module(kest::String(u"kest.cpython")).as<kest::Module>();
  return kest::I_Callable_Generic::unsafeFrom(module.callables().find(kest::String(name)));
}

kest::Any unwrap(const kest::Result<kest::Any> &result) { return kest::internal::result_unwrap_lazy(result); }

} // namespace

int main(int argc, char **argv) {
  if (argc != 2) {
    std::cerr << "usage: embedding_host PATH/TO/sarvode_python.so\n";
    return 2;
  }
  struct sigaction sigint_before {};
  (void)sigaction(SIGINT, nullptr, &sigint_before);
  if (!load_extension(argv[1]))
    return 1;
  // 2. Start-up: the host runs every extension's handlers once; this starts Python.
  kest::internal::run_init_handlers();
  struct sigaction sigint_after {};
  (void)sigaction(SIGINT, nullptr, &sigint_after);
  check(sigint_after.sa_handler == sigint_before.sa_handler, "the host's SIGINT disposition is its own after start-up");
  // The host modules under "python" are made on first lookup, not at start-up.
  auto listed = [](const char16_t *name) {
    auto all = kest::modules();
    return std::any_of(all.begin(), all.end(), [&](const kest::Module &m) { return m.name() == kest::String(name); });
  };
  const bool made_at_start = listed(u"python.datetime");
  const bool made_on_lookup = kest::find_module(kest::String(u"python.datetime")).is<kest::Module>();
  kest::load_deferred_modules(); // a complete listing of the module table
  check(!made_at_start && made_on_lookup && listed(u"python.typing"),
        "python.datetime is made on first lookup; load_deferred_modules makes the rest");
  auto python = kest::find_language(kest::internal::language_name_python()).as<kest::I_Language>();

  // 3. Statements with a scope: locals in, out-locals back, `return` gives the result.
  kest::HashMap locals(kest::String::getType(), kest::Type());
  (void)locals.setChecked(kest::String(u"price"), kest::Float(12.5));
  (void)locals.setChecked(kest::String(u"count"), kest::Integer(3));
  kest::HashMap out(kest::String::getType(), kest::Type());
  (void)out.setChecked(kest::String(u"total"), kest::Float(0.0));
  kest::EvaluationScope scope(kest::Any(), kest::None(), kest::I_Map::unsafeFrom(locals),
                              kest::I_MutableMap::unsafeFrom(out));
  auto result = unwrap(python.evaluate(kest::String(u"total = price * count\nreturn f'{count} items'"), scope));
  check(kest::display(result).toUtf8() == "3 items", "result: " + kest::display(result).toUtf8());
  auto total = unwrap(kest::I_Map::unsafeFrom(out).get(kest::String(u"total")));
  check(kest::display(total).toUtf8() == "37.5", "out-local total: " + kest::display(total).toUtf8() + " (" +
                                                    kest::qualname(kest::raw_class_of(total)).toUtf8() + ")");

  // 4. An expression.
  auto sum = unwrap(python.evaluateExpression(kest::String(u"sum(range(10))")));
  check(kest::Integer::isInstance(sum) && kest::Integer::unsafeFrom(sum).value() == 45, "expression: 45");

  // 5. Errors come back as values, with the line and column in the user's own text.
  auto error = unwrap(python.evaluate(kest::String(u"x = 1\ny = x +")));
  bool positioned = kest::EvaluationError::isInstance(error);
  if (positioned) {
    auto e = kest::EvaluationError::unsafeFrom(error);
    auto message = e.message().toUtf8(); // Python's own report; its last line names the error
    while (!message.empty() && message.back() == '\n')
      message.pop_back();
    std::cout << "        syntax error at line " << e.line().value_or(-1) << ", column " << e.column().value_or(-1)
              << ": " << message.substr(message.rfind('\n') + 1) << "\n";
    positioned = e.line() == 2;
  }
  check(positioned, "syntax error on line 2");
  error = unwrap(python.evaluate(kest::String(u"def f():\n    return 1 / 0\nreturn f()")));
  check(kest::EvaluationError::isInstance(error) && kest::EvaluationError::unsafeFrom(error).line() == 2,
        "runtime error on line 2: " + kest::Error::unsafeFrom(error).message().toUtf8());

  // 6. The compiled-code cache: the same text 1,000 times compiles once.
  (void)unwrap(cpython_function(u"clear_code_cache").callWith({}));
  for (int i = 0; i < 1000; ++i)
    (void)unwrap(python.evaluateExpression(kest::String(u"6 * 7")));
  auto info = kest::I_Map::unsafeFrom(unwrap(cpython_function(u"code_cache_info").callWith({})));
  auto misses = unwrap(info.get(kest::String(u"misses")));
  check(kest::display(misses).toUtf8() == "1", "1,000 evaluations, compiled " + kest::display(misses).toUtf8() + " time(s)");

  // 7. Cancelling: a user interface thread interrupts a runaway evaluation.
  const auto evaluating = unwrap(cpython_function(u"current_thread").callWith({}));
  std::thread watchdog([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    while (true) { // true once the evaluation runs and takes the request
      auto taken = unwrap(cpython_function(u"interrupt").callWith({evaluating}));
      if (kest::Boolean::isInstance(taken) && kest::Boolean::unsafeFrom(taken).value())
        return;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  });
  const auto started = std::chrono::steady_clock::now();
  auto stopped = unwrap(python.evaluate(kest::String(u"import time\nwhile True:\n    time.sleep(1)")));
  watchdog.join();
  const auto ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started).count();
  check(kest::qualname(kest::raw_class_of(stopped)).toUtf8() == "kest.cpython.KeyboardInterrupt",
        "runaway evaluation interrupted after " + std::to_string(ms) + " ms");
  check(kest::display(unwrap(python.evaluateExpression(kest::String(u"'still usable'")))).toUtf8() == "still usable",
        "the interpreter is usable afterwards");

  // 8. Capturing output: what the code prints goes to a host callable, here a string.
  auto captured = std::make_shared<std::string>();
  auto sink = kest::make_function([captured](kest::String stream, kest::String text) {
    *captured += stream.toUtf8() + ": " + text.toUtf8();
  });
  (void)unwrap(cpython_function(u"redirect_output").callWith({sink}));
  (void)unwrap(python.evaluate(kest::String(u"import sys\nprint('hello')\nprint('careful', file=sys.stderr)")));
  (void)unwrap(cpython_function(u"redirect_output").callWith({kest::None()}));
  check(*captured == "stdout: hello\nstderr: careful\n", "captured output:\n" + *captured);

  std::cout << (failures == 0 ? "all steps passed\n" : "some steps failed\n");
  return failures == 0 ? 0 : 1;
}
