// Threads and output for a C++ host: the calling thread's identity,
// interrupting an evaluation, and capturing one thread's output.

#include <kest/python.hpp>

#include <atomic>
#include <cstdio>

namespace kest::python {

namespace {
/// A function of the module "kest.cpython", or None before start.
Any cpython_function(const char16_t *name) {
  auto module = find_module(String(u"kest.cpython"));
  if (!module.is<Module>())
    return None();
  return module.unsafeAs<Module>().callables().find(String(name));
}

Result<Any> call_cpython(const char16_t *name, std::vector<Any> args) {
  auto fn = cpython_function(name);
  if (!I_Callable_Generic::isInstance(fn))
    return Error(String(u"Python is not started: call kest::python::start() first."));
  return I_Callable_Generic::unsafeFrom(fn).callWith(args);
}

/// Where this thread's output goes while it captures; null otherwise.
thread_local std::string *t_capture = nullptr;

/// Sends each thread's output to its capture, and other threads' output to
/// the process's streams, as it went before. No lock is held while Python
/// runs (a caller may hold the interpreter lock): two first calls at once
/// both install the same routing, which is harmless.
Result<None> route_output() {
  static std::atomic<bool> routed{false};
  if (routed.load(std::memory_order_acquire))
    return None();
  auto sink = make_function([](String stream, String text) {
    if (t_capture) {
      *t_capture += text.utf8View();
      return;
    }
    const auto bytes = text.utf8View();
    std::FILE *to = stream.view() == u"stderr" ? stderr : stdout;
    std::fwrite(bytes.data(), 1, bytes.size(), to);
    std::fflush(to);
  });
  auto done = call_cpython(u"redirect_output", {sink});
  if (done.isError())
    return done.as<Error>();
  routed.store(true, std::memory_order_release);
  return None();
}
} // namespace

Any current_thread() { return call_cpython(u"current_thread", {}).as<Any>(); }

bool interrupt(const Any &thread) {
  auto taken = call_cpython(u"interrupt", {thread}).as<Any>();
  return Boolean::isInstance(taken) && Boolean::unsafeFrom(taken).value();
}

std::string capture_output(const std::function<void()> &fn) {
  std::string captured;
  if (route_output().isError()) { // not started: nothing Python prints can be captured
    fn();
    return captured;
  }
  std::string *outer = t_capture;
  t_capture = &captured;
  struct restore {
    std::string *outer;
    ~restore() { t_capture = outer; }
  } restoring{outer};
  fn();
  return captured;
}

} // namespace kest::python
