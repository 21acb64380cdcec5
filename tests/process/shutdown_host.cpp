// A host that ends while Python still runs on its other threads: evaluations
// in a loop, in a host callback, asleep, sandboxed, and a Python thread of its
// own. The process must end cleanly with the status the host chose, whether
// the host returns from main, unloads the extension first, or exits from
// another thread.
//
// The process does not link Python; it loads the real extension file as a
// third-party host would.

#include <kest/init.hpp>
#include <kest/kest.hpp>

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

} // namespace

int main(int argc, char **argv) {
  if (argc < 3) {
    std::cerr << "usage: shutdown_host exit-from-main|unload-then-exit|exit-from-another-thread EXTENSION\n";
    return 2;
  }
  const std::string scenario = argv[1];
  void *library = load_extension(argv[2]);
  kest::internal::run_init_handlers(); // starts the interpreter

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
