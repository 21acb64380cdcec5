// A host that ends while Python still runs on its other threads: evaluations
// in a loop, in a host callback, asleep, sandboxed, and a Python thread of its
// own. The process must end cleanly with the status the host chose, whether
// the host returns from main, unloads the extension first, exits from
// another thread, or first asks kest.cpython.shutdown (which must refuse).
// And a host whose evaluations have all ended: shutdown finalizes Python as
// python3 ends, and Python cannot be entered after it; unless code ran in the
// sandbox, whose atexit functions must not run outside it.
//
// The process does not link Python; it loads the real extension file as a
// third-party host would.

#include <kest/init.hpp>
#include <kest/kest.hpp>
#include <kest/python.hpp>

#include <dlfcn.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

namespace {

void *load_extension(const char *path) {
  if (auto python = kest::python::load_interpreter(); python.isError()) {
    std::cerr << python.as<kest::Error>().message().toUtf8() << "\n";
    std::exit(2);
  }
  void *library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (!library) {
    std::cerr << "cannot load " << path << ": " << dlerror() << "\n";
    std::exit(2);
  }
  auto bind = reinterpret_cast<void (*)()>(dlsym(library, "sarvode_extension_bind_api"));
  auto init = reinterpret_cast<void (*)()>(dlsym(library, "sarvode_extension_init"));
  if (!bind || !init) {
    std::cerr << "the extension lacks its entry points\n";
    std::exit(2);
  }
  bind();
  init();
  return library;
}

kest::I_Language python() {
  auto found = kest::find_language(kest::internal::language_name_python());
  if (!found.is<kest::I_Language>()) {
    std::cerr << "no Python language\n";
    std::exit(2);
  }
  return found.as<kest::I_Language>();
}

std::atomic<int> g_running{0};

/// Starts a host thread that runs one endless evaluation; it is never joined.
void start_evaluation(const std::string &code, bool sandboxed = false) {
  std::thread([code, sandboxed] {
    auto started = kest::make_function([] {
      ++g_running;
      return kest::None();
    });
    auto tick = kest::make_function([](std::int64_t n) { return n + 1; });
    kest::HashMap locals(kest::String::getType(), kest::Type());
    (void)locals.setChecked(kest::String(u"started"), started);
    (void)locals.setChecked(kest::String(u"tick"), tick);
    const kest::EvaluationScope scope(kest::Any(), kest::None(), kest::I_Map::unsafeFrom(locals), kest::None());
    const auto text = kest::String::fromUtf8(code);
    auto result = sandboxed ? kest::PythonLanguage::unsafeFrom(python()).evaluateInSandbox(text, scope)
                            : python().evaluate(text, scope);
    // Reached only if the evaluation ended, which none of them should.
    std::cerr << "an endless evaluation ended: " << kest::display(kest::internal::result_unwrap_lazy(result)).toUtf8()
              << "\n";
  }).detach();
}

/// Calls kest.cpython.shutdown() and returns what it gave.
kest::Any shutdown_python() {
  auto module = kest::find_module(kest::String(u"kest.cpython"));
  auto found = module.is<kest::Module>() ? module.as<kest::Module>().callables().find(kest::String(u"shutdown"))
                                         : kest::Any();
  if (!kest::I_Callable_Generic::isInstance(found)) {
    std::cerr << "kest.cpython has no shutdown\n";
    std::exit(2);
  }
  return kest::internal::result_unwrap_lazy(kest::I_Callable_Generic::unsafeFrom(found).callWith({}));
}

/// With nothing running: what the code left to the end (an atexit handler, a
/// module-level object with __del__, an open file) is done by shutdown.
int shutdown_when_idle(const std::string &folder) {
  const std::string code = "import atexit, sys, types\n"
                           "atexit.register(lambda: open(folder + '/atexit', 'w').write('ran'))\n"
                           "class Last:\n"
                           "    def __del__(self):\n"
                           "        open(folder + '/del', 'w').write('ran')\n"
                           "keep = types.ModuleType('keep')\n"
                           "keep.last = Last()\n"
                           "keep.out = open(folder + '/unflushed', 'w')\n"
                           "keep.out.write('kept')\n"
                           "sys.modules['keep'] = keep\n";
  kest::HashMap locals(kest::String::getType(), kest::Type());
  (void)locals.setChecked(kest::String(u"folder"), kest::String::fromUtf8(folder));
  const kest::EvaluationScope scope(kest::Any(), kest::None(), kest::I_Map::unsafeFrom(locals), kest::None());
  auto ran = kest::internal::result_unwrap_lazy(python().evaluate(kest::String::fromUtf8(code), scope));
  if (kest::Error::isInstance(ran)) {
    std::cerr << "the evaluation failed: " << kest::display(ran).toUtf8() << "\n";
    return 2;
  }
  auto ended = shutdown_python();
  if (!kest::Integer::isInstance(ended) || kest::Integer::unsafeFrom(ended).value() != 0) {
    std::cerr << "shutdown gave " << kest::display(ended).toUtf8() << "\n";
    return 3;
  }
  auto after = kest::internal::result_unwrap_lazy(python().evaluateExpression(kest::String(u"1 + 1")));
  if (!kest::Error::isInstance(after)) {
    std::cerr << "Python ran after shutdown: " << kest::display(after).toUtf8() << "\n";
    return 4;
  }
  if (!kest::Error::isInstance(shutdown_python())) {
    std::cerr << "a second shutdown did not refuse\n";
    return 5;
  }
  std::cout << "shut down\n" << std::flush;
  return 7;
}
/// Code that ran in the sandbox left an atexit function that writes: shutdown
/// must refuse, since it would run the function outside the sandbox.
int refused_after_sandbox(const std::string &folder) {
  kest::HashMap locals(kest::String::getType(), kest::Type());
  (void)locals.setChecked(kest::String(u"folder"), kest::String::fromUtf8(folder));
  const kest::EvaluationScope scope(kest::Any(), kest::None(), kest::I_Map::unsafeFrom(locals), kest::None());
  auto ran = kest::internal::result_unwrap_lazy(kest::PythonLanguage::unsafeFrom(python()).evaluateInSandbox(
      kest::String(u"import atexit\natexit.register(lambda: open(folder + '/escaped', 'w').write('out'))"), scope));
  if (kest::Error::isInstance(ran)) {
    std::cerr << "the sandboxed evaluation failed: " << kest::display(ran).toUtf8() << "\n";
    return 2;
  }
  auto ended = shutdown_python();
  if (!kest::Error::isInstance(ended) ||
      kest::Error::unsafeFrom(ended).message().toUtf8().find("sandbox") == std::string::npos) {
    std::cerr << "shutdown did not refuse after sandboxed code: " << kest::display(ended).toUtf8() << "\n";
    return 3;
  }
  std::cout << "refused\n" << std::flush;
  return 7;
}
} // namespace

int main(int argc, char **argv) {
  if (argc < 3) {
    std::cerr << "usage: shutdown_host exit-from-main|unload-then-exit|exit-from-another-thread|"
                 "refused-while-running|shutdown-when-idle|refused-after-sandbox EXTENSION [FOLDER]\n";
    return 2;
  }
  const std::string scenario = argv[1];
  void *library = load_extension(argv[2]);
  kest::internal::run_init_handlers(); // starts the interpreter
  if (scenario == "shutdown-when-idle")
    return argc > 3 ? shutdown_when_idle(argv[3]) : 2;
  if (scenario == "refused-after-sandbox")
    return argc > 3 ? refused_after_sandbox(argv[3]) : 2;

  start_evaluation("started()\nwhile True:\n    pass");
  start_evaluation("started()\nn = 0\nwhile True:\n    n = tick(n)");
  start_evaluation("import time\nstarted()\ntime.sleep(600)");
  start_evaluation("started()\nwhile True:\n    sum(range(100))", true);
  start_evaluation("import threading, time\n"
                   "def spin():\n"
                   "    n = 0\n"
                   "    while True:\n"
                   "        n = tick(n)\n"
                   "threading.Thread(target=spin, daemon=True).start()\n"
                   "started()\n"
                   "while True:\n"
                   "    time.sleep(0.001)");
  const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (g_running.load() < 5) {
    if (std::chrono::steady_clock::now() > give_up) {
      std::cerr << "the evaluations did not start\n";
      return 2;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(100)); // well inside every evaluation

  if (scenario == "exit-from-main") {
    std::cout << "exiting from main\n" << std::flush;
    return 7;
  }
  if (scenario == "unload-then-exit") {
    dlclose(library);
    // Threads still run its code: the extension must have stayed loaded.
    if (!dlopen(argv[2], RTLD_NOW | RTLD_NOLOAD)) {
      std::cerr << "the extension was unloaded under running threads\n";
      return 3;
    }
    std::cout << "unloaded; exiting\n" << std::flush;
    return 7;
  }
  if (scenario == "refused-while-running") {
    // The host's threads are inside Python: finalizing would stop them where
    // they stand. Nothing may change, and the process ends as before.
    auto ended = shutdown_python();
    if (!kest::Error::isInstance(ended) ||
        kest::Error::unsafeFrom(ended).message().toUtf8().find("other threads still run Python code") ==
            std::string::npos) {
      std::cerr << "shutdown did not refuse for the running threads: " << kest::display(ended).toUtf8() << "\n";
      return 3;
    }
    auto still = kest::internal::result_unwrap_lazy(python().evaluateExpression(kest::String(u"6 * 7")));
    if (!kest::Integer::isInstance(still) || kest::Integer::unsafeFrom(still).value() != 42) {
      std::cerr << "Python does not run after a refused shutdown\n";
      return 4;
    }
    std::cout << "refused; exiting\n" << std::flush;
    return 7;
  }
  if (scenario == "exit-from-another-thread") {
    std::thread([] {
      std::cout << "exiting from another thread\n" << std::flush;
      std::exit(7);
    }).join();
    return 1; // not reached
  }
  std::cerr << "unknown scenario " << scenario << "\n";
  return 2;
}
