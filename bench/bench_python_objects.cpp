// Python objects used from host code through their live host wrappers, each
// beside its floor in the same run:
//
//   Call_*      one call of the Python function `def f(i): return i` with a host
//               Integer, the result read back as a host Integer, through
//               CPythonFunction::callWith; the floor is PyObject_Call with a
//               ready one-element tuple (its item replaced by PyLong_FromLongLong
//               each call) and PyLong_AsLongLong on the result.
//   Iterate1M_* a Python list of 1,000,000 ints walked from the host through the
//               sequence proxy (each element read as a host Integer), against
//               pybind11 walking and casting the same list from C++.
//   MapGet_*    `get` of a present key (text) of a 1,000-entry dict through the
//               mapping proxy, against PyDict_GetItem with a ready key plus the
//               value turned into a host Integer.
//
// The interpreter lock. A host thread that enters Python must hold it: the
// wrappers take it themselves on every entry (PyGILState_Ensure/Release), so
// host code calls them without holding it ("_Host"). The floors take it the
// same way, once per call ("_LockPerCall"), and are also shown with the lock
// taken once around the whole timed loop ("_LockHeld"), the best a caller that
// already holds it can do. "_Host_LockHeld" is the wrapper called while the
// caller holds the lock, so that its own Ensure only nests. pybind11 needs the
// lock held by its caller: it is taken once around each whole walk of the list.
//
// Every timed path checks its result, so a wrong answer shows as an error
// rather than a fast time.
//
// Run (about half a minute):
//   cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSARVODE_BUILD_BENCH=ON
//   cmake --build build-bench --target bench_python_objects
//   build-bench/bin/bench_python_objects --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
// and compare the medians of each "_Host" row with the rows of the same group.

#include "pybind_peer.hpp"

#include "convert/from_python.hpp"
#include "runtime/python_ready.hpp"

#include <kest/kest.hpp>

#include "fixed_iterations.hpp"

#include <benchmark/benchmark.h>

#include <thread>

#include <cstdint>
#include <string>

using namespace sarvode;
using kest::internal::result_unwrap_lazy;

namespace {
constexpr long long items = 1'000'000;
constexpr long long expected_sum = items * (items - 1) / 2;
constexpr int map_size = 1000;
constexpr const char *present_key = "key500";
constexpr std::int64_t present_value = 500;

struct fixture {
  py::object globals, function, list, dict, key;
  kest::Any host_function, host_list, host_dict;
  kest::String host_key{kest::String::fromUtf8(present_key)};
  bool made = false;

  fixture() {
    ensurePythonReady();
    py::gil lock;
    globals = py::object::steal(PyDict_New());
    auto done = py::object::steal(runWithBuiltin("exec", R"(
def f(i):
    return i
numbers = list(range(1000000))
table = {"key%d" % n: n for n in range(1000)}
)",
                                                 globals.get(), globals.get()));
    if (!done)
      PyErr_Print();
    function = py::object::borrow(PyDict_GetItemString(globals.get(), "f"));
    list = py::object::borrow(PyDict_GetItemString(globals.get(), "numbers"));
    dict = py::object::borrow(PyDict_GetItemString(globals.get(), "table"));
    key = py::object::steal(PyUnicode_FromString(present_key));
    host_function = fromPython(function.get());
    host_list = fromPython(list.get());
    host_dict = fromPython(dict.get());
    made = function && list && dict && PyList_Size(list.get()) == items && PyDict_Size(dict.get()) == map_size;
  }

  bool ready(benchmark::State &state) const {
    if (!made)
      state.SkipWithError("the Python objects were not made");
    return made;
  }
};

fixture &data() {
  static fixture f;
  return f;
}

void check(benchmark::State &state, bool ok) {
  if (!ok)
    state.SkipWithError("wrong result");
}

// --- 1. Host -> Python call --------------------------------------------------

/// The wrapper's call and the read-back of its result.
std::int64_t host_call(const kest::I_Callable_Generic &fn, std::int64_t i) {
  auto result = result_unwrap_lazy(fn.callWith({kest::Integer(i)}));
  return kest::Integer::isInstance(result) ? kest::Integer::unsafeFrom(result).value() : -1;
}

void host_calls(benchmark::State &state) {
  auto &d = data();
  const auto fn = kest::I_Callable_Generic::unsafeFrom(d.host_function);
  std::int64_t i = 0, wrong = 0;
  for (auto _ : state) {
    auto value = host_call(fn, i);
    wrong += value != i;
    benchmark::DoNotOptimize(value);
    i = (i + 1) & 0xffff;
  }
  check(state, wrong == 0);
}

void Call_Host(benchmark::State &state) {
  if (!data().ready(state))
    return;
  host_calls(state);
}

/// The same from a thread that Python did not start and that holds no
/// Python thread state between calls (a host worker thread).
void Call_Host_WorkerThread(benchmark::State &state) {
  if (!data().ready(state))
    return;
  std::thread worker([&] { host_calls(state); });
  worker.join();
}

void Call_Host_LockHeld(benchmark::State &state) {
  if (!data().ready(state))
    return;
  py::gil lock;
  host_calls(state);
}

/// The raw call: the tuple is made once and only its item is replaced (which
/// PyTuple_SetItem allows while the tuple has no other owner).
template <bool lock_per_call> void raw_calls(benchmark::State &state) {
  auto &d = data();
  if (!d.ready(state))
    return;
  PyObject *tuple = nullptr;
  {
    py::gil lock;
    tuple = PyTuple_New(1);
    PyTuple_SetItem(tuple, 0, PyLong_FromLongLong(0));
  }
  long long i = 0, wrong = 0;
  PyGILState_STATE outer{};
  if constexpr (!lock_per_call)
    outer = PyGILState_Ensure();
  for (auto _ : state) {
    PyGILState_STATE gstate{};
    if constexpr (lock_per_call)
      gstate = PyGILState_Ensure();
    PyTuple_SetItem(tuple, 0, PyLong_FromLongLong(i));
    PyObject *result = PyObject_Call(d.function.get(), tuple, nullptr);
    const long long value = result ? PyLong_AsLongLong(result) : -1;
    Py_DecRef(result);
    if (value == -1)
      PyErr_Clear();
    if constexpr (lock_per_call)
      PyGILState_Release(gstate);
    wrong += value != i;
    benchmark::DoNotOptimize(value);
    i = (i + 1) & 0xffff;
  }
  if constexpr (!lock_per_call)
    PyGILState_Release(outer);
  {
    py::gil lock;
    Py_DecRef(tuple);
  }
  check(state, wrong == 0);
}

void Call_Raw_LockPerCall(benchmark::State &state) { raw_calls<true>(state); }
void Call_Raw_LockHeld(benchmark::State &state) { raw_calls<false>(state); }

// --- 2. Walking a list of 1,000,000 ints ----------------------------------------

/// The host loop: an iterator over the proxy, each element read as a host Integer.
long long host_sum(const kest::Any &sequence) {
  long long sum = 0;
  kest::internal::iterator_iterable it(sequence), end;
  for (; it != end; ++it)
    sum += kest::Integer::isInstance(*it) ? kest::Integer::unsafeFrom(*it).value() : 0;
  return it.error().empty() ? sum : -1;
}

void Iterate1M_Host(benchmark::State &state) {
  auto &d = data();
  if (!d.ready(state))
    return;
  long long sum = 0;
  for (auto _ : state) {
    sum = host_sum(d.host_list);
    benchmark::DoNotOptimize(sum);
  }
  check(state, sum == expected_sum);
}

void Iterate1M_Host_LockHeld(benchmark::State &state) {
  auto &d = data();
  if (!d.ready(state))
    return;
  long long sum = 0;
  for (auto _ : state) {
    py::gil lock;
    sum = host_sum(d.host_list);
    benchmark::DoNotOptimize(sum);
  }
  check(state, sum == expected_sum);
}

void Iterate1M_Pybind11(benchmark::State &state) {
  auto &d = data();
  if (!d.ready(state))
    return;
  long long sum = 0;
  for (auto _ : state) {
    py::gil lock;
    sum = bench_peer::sum_list(d.list.get());
    benchmark::DoNotOptimize(sum);
  }
  check(state, sum == expected_sum);
}

// --- 3. Map get of a present key -------------------------------------------------

void host_gets(benchmark::State &state) {
  auto &d = data();
  const auto map = kest::I_Map::unsafeFrom(d.host_dict);
  std::int64_t wrong = 0;
  for (auto _ : state) {
    auto value = result_unwrap_lazy(map.get(d.host_key));
    wrong += !kest::Integer::isInstance(value) || kest::Integer::unsafeFrom(value).value() != present_value;
    benchmark::DoNotOptimize(value);
  }
  check(state, wrong == 0);
}

void MapGet_Host(benchmark::State &state) {
  if (!data().ready(state))
    return;
  host_gets(state);
}

void MapGet_Host_LockHeld(benchmark::State &state) {
  if (!data().ready(state))
    return;
  py::gil lock;
  host_gets(state);
}

template <bool lock_per_call> void raw_gets(benchmark::State &state) {
  auto &d = data();
  if (!d.ready(state))
    return;
  std::int64_t wrong = 0;
  PyGILState_STATE outer{};
  if constexpr (!lock_per_call)
    outer = PyGILState_Ensure();
  for (auto _ : state) {
    PyGILState_STATE gstate{};
    if constexpr (lock_per_call)
      gstate = PyGILState_Ensure();
    PyObject *item = PyDict_GetItem(d.dict.get(), d.key.get()); // borrowed
    kest::Any value = item ? kest::Any(kest::Integer(static_cast<std::int64_t>(PyLong_AsLongLong(item)))) : kest::Any();
    if constexpr (lock_per_call)
      PyGILState_Release(gstate);
    wrong += !kest::Integer::isInstance(value) || kest::Integer::unsafeFrom(value).value() != present_value;
    benchmark::DoNotOptimize(value);
  }
  if constexpr (!lock_per_call)
    PyGILState_Release(outer);
  check(state, wrong == 0);
}

void MapGet_Raw_LockPerCall(benchmark::State &state) { raw_gets<true>(state); }
void MapGet_Raw_LockHeld(benchmark::State &state) { raw_gets<false>(state); }
} // namespace

// The per-call rows run for 0.2 s each, so that five repetitions of the whole
// program stay well under a minute (unless the iterations are fixed).
namespace {
void per_call_time(benchmark::internal::Benchmark *b) {
  if (!std::getenv("SARVODE_BENCH_ITERATIONS"))
    b->MinTime(0.2);
}
} // namespace
BENCHMARK(Call_Host)->Apply(fixed_iterations)->Apply(per_call_time);
BENCHMARK(Call_Host_LockHeld)->Apply(fixed_iterations)->Apply(per_call_time);
BENCHMARK(Call_Host_WorkerThread)->Apply(fixed_iterations)->Apply(per_call_time);
BENCHMARK(Call_Raw_LockPerCall)->Apply(fixed_iterations)->Apply(per_call_time);
BENCHMARK(Call_Raw_LockHeld)->Apply(fixed_iterations)->Apply(per_call_time);
BENCHMARK(Iterate1M_Host)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(Iterate1M_Host_LockHeld)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(Iterate1M_Pybind11)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(MapGet_Host)->Apply(fixed_iterations)->Apply(per_call_time);
BENCHMARK(MapGet_Host_LockHeld)->Apply(fixed_iterations)->Apply(per_call_time);
BENCHMARK(MapGet_Raw_LockPerCall)->Apply(fixed_iterations)->Apply(per_call_time);
BENCHMARK(MapGet_Raw_LockHeld)->Apply(fixed_iterations)->Apply(per_call_time);
BENCHMARK_MAIN();
