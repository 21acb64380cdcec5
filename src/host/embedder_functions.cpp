// Host functions of "kest.cpython" for hosts that evaluate Python often: the
// compiled-code cache ("clear_code_cache", "set_code_cache_size",
// "code_cache_info"), cancelling ("current_thread", "interrupt") and output
// capture ("redirect_output"), the end of Python ("shutdown") and the choice
// of time.sleep ("keep_standard_sleep") and a program's main code run with
// no Python frame beneath it ("run_main").
// Registered at start-up level 5 with the module's other functions.

#include "language/code_cache.hpp"
#include "language/interrupts.hpp"
#include "language/main_code.hpp"
#include "language/output_capture.hpp"
#include "runtime/python_ready.hpp"
#include "runtime/python_shutdown.hpp"
#include "runtime/python_version.hpp"

#include <kest/builders.hpp>
#include <kest/error.hpp>
#include <kest/function.hpp>
#include <kest/hash_map.hpp>
#include <kest/init.hpp>
#include <kest/module.hpp>

namespace sarvode {

namespace {

/// Runs `work` with the interpreter lock, which guards the cache.
template <class F> void with_interpreter(F work) {
  if (pythonShutDown())
    return;
  ensurePythonReady();
  py::gil lock;
  work();
}

kest::Any code_cache_info() {
  code_cache_statistics s;
  with_interpreter([&] { s = codeCacheStatistics(); });
  kest::HashMap info;
  for (auto [name, value] : {std::pair{u"hits", s.hits}, {u"misses", s.misses}, {u"entries", s.entries},
                             {u"capacity", s.capacity}})
    (void)info.setChecked(kest::String(name), kest::Integer(value));
  return info;
}

kest::Any set_code_cache_size(std::int64_t size) {
  if (size < 0)
    return kest::Error(kest::String(u"The code cache size cannot be negative."));
  with_interpreter([&] { setCodeCacheCapacity(static_cast<std::size_t>(size)); });
  return {};
}

struct embedder_functions {
  kest::internal::method_builder_base clear{kest::String(u"clear_code_cache")};
  kest::internal::method_builder_base resize{kest::String(u"set_code_cache_size")};
  kest::internal::method_builder_base info{kest::String(u"code_cache_info")};
  kest::internal::method_builder_base current_thread{kest::String(u"current_thread")};
  kest::internal::method_builder_base interrupt{kest::String(u"interrupt")};
  kest::internal::method_builder_base redirect{kest::String(u"redirect_output")};
  kest::internal::method_builder_base shutdown{kest::String(u"shutdown")};
  kest::internal::method_builder_base standard_sleep{kest::String(u"keep_standard_sleep")};
  kest::internal::method_builder_base run_main{kest::String(u"run_main")};

  embedder_functions() {
    clear.assign_func(kest::make_function([] { with_interpreter(clearCodeCache); }));
    clear.signature(kest::String(u""));
    clear.assign_doc(kest::String(u"Forgets every compiled evaluation text."));
    resize.assign_func(kest::make_function(set_code_cache_size));
    resize.signature(kest::String(u"size"));
    resize.assign_doc(kest::String(u"Sets how many compiled evaluation texts are kept (default 256)."));
    info.assign_func(kest::make_function(code_cache_info));
    info.signature(kest::String(u""));
    info.assign_doc(kest::String(u"The compiled-code cache's hits, misses, entries and capacity."));
    current_thread.assign_func(kest::make_function([] { return currentThreadIdent(); }));
    current_thread.signature(kest::String(u""));
    current_thread.assign_doc(kest::String(u"The calling thread, as interrupt() takes it."));
    interrupt.assign_func(
        kest::make_function([](std::int64_t thread) { return interruptEvaluation(thread); }));
    interrupt.signature(kest::String(u"thread"));
    interrupt.assign_doc(kest::String(
        u"Makes the evaluation running on the thread raise KeyboardInterrupt; False when none runs there."));
    redirect.assign_func(kest::make_function([](kest::Any sink) { return redirectOutput(sink); }));
    redirect.signature(kest::String(u"callable"));
    redirect.assign_doc(kest::String(u"Sends what Python writes to sys.stdout and sys.stderr to callable(stream, text); "
                                     u"None puts the streams back."));
    standard_sleep.assign_func(kest::make_function([](bool keep) { keepStandardSleep(keep); }));
    standard_sleep.signature(kest::String(u"keep"));
    standard_sleep.assign_doc(kest::String(
        u"True keeps Python's own time.sleep on the thread that started Python, for hosts that interrupt it "
        u"with SIGINT; interrupt() then ends a sleep there only when the sleep returns."));
    run_main.assign_func(
        kest::make_function([](kest::String holder, bool sandboxed) { return runStagedMain(holder, sandboxed); }));
    run_main.signature(kest::String(u"holder, sandboxed"));
    run_main.assign_doc(kest::String(
        u"Runs holder.main_target (a code object, in __main__'s namespace, a callable, (callable, arguments), or (source, "
        u"filename), compiled first) as python3 runs a "
        u"script, with no Python frame beneath it; the exception it raised goes to holder.main_error. "
        u"`holder` names a module in sys.modules; `sandboxed` runs the code in the sandbox."));
    shutdown.assign_func(kest::make_function([] { return shutdownPython(); }));
    shutdown.signature(kest::String(u""));
    shutdown.assign_doc(kest::String(u"Ends Python as python3 ends: threads joined, atexit handlers run, modules "
                                     u"cleared, files flushed. 0, or 120 when the standard output could not be "
                                     u"flushed; an error, and nothing done, while Python still runs elsewhere."));
  }
};

const bool g_registered = [] {
  static embedder_functions functions;
  kest::internal::add_init_handler(5, [] {
    if (!pythonRefusal().empty())
      return;
    for (auto *builder : {&functions.clear, &functions.resize, &functions.info, &functions.current_thread,
                          &functions.interrupt, &functions.redirect, &functions.shutdown,
                          &functions.standard_sleep, &functions.run_main})
      (void)kest::internal::register_function(kest::String(u"kest.cpython"), builder->name().string(),
                                              builder->callable());
  });
  return true;
}();

} // namespace
} // namespace sarvode
