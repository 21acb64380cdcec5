// What the stress and memory tests share.

#include "stress_support.hpp"

#include "runtime/python_ready.hpp"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>

#if defined(_WIN32)
#include <windows.h>
#include <psapi.h>
#else
#include <unistd.h>
#endif

namespace sarvode::test_support {

std::int64_t stress_count(std::int64_t full, std::int64_t reduced) {
  std::int64_t count = slow_build ? reduced : full;
  if (const char *scale = std::getenv("SARVODE_STRESS_SCALE"))
    count = count * std::atoll(scale) / 100;
  return count < 1 ? 1 : count;
}

namespace {
/// Arms or cancels the interpreter's own watchdog, which prints the stack of
/// every Python thread without needing the lock when it fires.
void python_stack_dump_after(std::chrono::seconds limit) {
  ensurePythonReady();
  py::gil lock;
  auto faulthandler = py::object::steal(PyImport_ImportModule("faulthandler"));
  auto result = faulthandler ? py::object::steal(limit.count() > 0
                                                     ? PyObject_CallMethod(faulthandler.get(), "dump_traceback_later",
                                                                           "L", static_cast<long long>(limit.count()))
                                                     : PyObject_CallMethod(faulthandler.get(),
                                                                           "cancel_dump_traceback_later", nullptr))
                             : py::object();
  if (!result)
    PyErr_Clear(); // the dump is a help for a failure, not a requirement
}
} // namespace

watchdog::watchdog(std::string what, std::chrono::seconds limit) : m_what(std::move(what)) {
  python_stack_dump_after(limit);
  m_thread = std::thread([this, limit] { watch(limit); });
}

watchdog::~watchdog() {
  {
    std::lock_guard guard(m_mutex);
    m_done = true;
  }
  m_done_changed.notify_all();
  m_thread.join();
  python_stack_dump_after(std::chrono::seconds(0));
}

void watchdog::watch(std::chrono::seconds limit) {
  std::unique_lock guard(m_mutex);
  // A little later than the Python dump, so that both stacks get printed.
  if (m_done_changed.wait_for(guard, limit + std::chrono::seconds(2), [this] { return m_done; }))
    return;
  std::cerr << "\nwatchdog: " << m_what << " still running after " << limit.count()
            << " s; stacks of every thread follow" << std::endl;
#if defined(__linux__)
  const std::string command = "command -v gdb >/dev/null && gdb -p " + std::to_string(getpid()) +
                              " -batch -nx -ex 'thread apply all bt' 1>&2";
  if (std::system(command.c_str()) != 0)
    std::cerr << "watchdog: no native stacks (gdb is missing or cannot attach)" << std::endl;
#endif
  std::_Exit(3);
}

std::int64_t resident_bytes() {
#if defined(_WIN32)
  PROCESS_MEMORY_COUNTERS counters{};
  if (!GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters))
    return 0;
  return static_cast<std::int64_t>(counters.WorkingSetSize);
#else
  std::ifstream statm("/proc/self/statm");
  std::int64_t size = 0, resident = 0;
  if (!(statm >> size >> resident))
    return 0;
  return resident * sysconf(_SC_PAGESIZE);
#endif
}

std::int64_t python_allocated_blocks() {
  ensurePythonReady();
  py::gil lock;
  auto sys = py::object::steal(PyImport_ImportModule("sys"));
  auto blocks = sys ? py::object::steal(PyObject_CallMethod(sys.get(), "getallocatedblocks", nullptr)) : py::object();
  if (!blocks) {
    PyErr_Clear();
    return -1;
  }
  return PyLong_AsLongLong(blocks.get());
}

} // namespace sarvode::test_support
