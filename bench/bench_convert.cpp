// Value conversion against the raw C API: 1,000,000 ints and 1,000,000 short
// strings each way, per iteration.

#include "convert/from_python.hpp"
#include "convert/to_python.hpp"
#include "runtime/python_ready.hpp"

#include <kest/kest.hpp>

#include "fixed_iterations.hpp"

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

using namespace sarvode;

namespace {
constexpr int count = 1'000'000;

struct fixture {
  std::vector<kest::Any> host_ints, host_strings;
  std::vector<std::string> raw_strings;
  std::vector<py::object> py_ints, py_strings;

  fixture() {
    ensurePythonReady();
    py::gil lock;
    for (int i = 0; i < count; ++i) {
      host_ints.emplace_back(kest::Integer(i));
      raw_strings.push_back("name" + std::to_string(i % 1000));
      host_strings.emplace_back(kest::String::fromUtf8(raw_strings.back()));
      py_ints.push_back(py::object::steal(PyLong_FromLongLong(i)));
      py_strings.push_back(
          py::object::steal(PyUnicode_FromStringAndSize(raw_strings.back().data(), static_cast<Py_ssize_t>(raw_strings.back().size()))));
    }
  }
};

fixture &data() {
  static fixture f;
  return f;
}

void IntsToPython_Raw(benchmark::State &state) {
  auto &d = data();
  py::gil lock;
  for (auto _ : state)
    for (int i = 0; i < count; ++i)
      Py_DecRef(PyLong_FromLongLong(kest::Integer::unsafeFrom(d.host_ints[static_cast<std::size_t>(i)]).value()));
}
// The raw loop holds the interpreter lock throughout, so the conversion it
// compares with is the one for callers that hold it; the entry that takes the
// lock itself is measured apart.
void IntsToPython_Convert(benchmark::State &state) {
  auto &d = data();
  py::gil lock;
  for (auto _ : state)
    for (auto &v : d.host_ints)
      Py_DecRef(toPythonLocked(v));
}
void IntsToPython_ConvertTakingLock(benchmark::State &state) {
  auto &d = data();
  py::gil lock;
  for (auto _ : state)
    for (auto &v : d.host_ints)
      Py_DecRef(toPython(v));
}
void StringsToPython_Raw(benchmark::State &state) {
  auto &d = data();
  py::gil lock;
  for (auto _ : state)
    for (auto &s : d.raw_strings)
      Py_DecRef(PyUnicode_FromStringAndSize(s.data(), static_cast<Py_ssize_t>(s.size())));
}
void StringsToPython_Convert(benchmark::State &state) {
  auto &d = data();
  py::gil lock;
  for (auto _ : state)
    for (auto &v : d.host_strings)
      Py_DecRef(toPythonLocked(v));
}
void StringsToPython_ConvertTakingLock(benchmark::State &state) {
  auto &d = data();
  py::gil lock;
  for (auto _ : state)
    for (auto &v : d.host_strings)
      Py_DecRef(toPython(v));
}
void IntsFromPython_Raw(benchmark::State &state) {
  auto &d = data();
  py::gil lock;
  for (auto _ : state)
    for (auto &o : d.py_ints)
      benchmark::DoNotOptimize(PyLong_AsLongLong(o.get()));
}
void IntsFromPython_RawIntoHostValue(benchmark::State &state) {
  auto &d = data();
  py::gil lock;
  for (auto _ : state)
    for (auto &o : d.py_ints)
      benchmark::DoNotOptimize(kest::Integer(static_cast<std::int64_t>(PyLong_AsLongLong(o.get()))));
}
void IntsFromPython_Convert(benchmark::State &state) {
  auto &d = data();
  py::gil lock;
  for (auto _ : state)
    for (auto &o : d.py_ints)
      benchmark::DoNotOptimize(fromPython(o.get()));
}
void StringsFromPython_Raw(benchmark::State &state) {
  auto &d = data();
  py::gil lock;
  for (auto _ : state)
    for (auto &o : d.py_strings) {
      Py_ssize_t size = 0;
      benchmark::DoNotOptimize(PyUnicode_AsUTF8AndSize(o.get(), &size));
    }
}
void StringsFromPython_RawIntoHostValue(benchmark::State &state) {
  auto &d = data();
  py::gil lock;
  for (auto _ : state)
    for (auto &o : d.py_strings) {
      Py_ssize_t size = 0;
      const char *utf8 = PyUnicode_AsUTF8AndSize(o.get(), &size);
      benchmark::DoNotOptimize(kest::String::fromUtf8(std::string_view(utf8, static_cast<std::size_t>(size))));
    }
}
void StringsFromPython_Convert(benchmark::State &state) {
  auto &d = data();
  py::gil lock;
  for (auto _ : state)
    for (auto &o : d.py_strings)
      benchmark::DoNotOptimize(fromPython(o.get()));
}
} // namespace

BENCHMARK(IntsToPython_Raw)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(IntsToPython_Convert)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(IntsToPython_ConvertTakingLock)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(StringsToPython_Raw)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(StringsToPython_Convert)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(StringsToPython_ConvertTakingLock)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(IntsFromPython_Raw)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(IntsFromPython_RawIntoHostValue)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(IntsFromPython_Convert)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(StringsFromPython_Raw)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(StringsFromPython_RawIntoHostValue)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(StringsFromPython_Convert)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
