// Python loops over host objects, beside the same loops over a pybind11-bound
// C++ object and over builtin objects, in one run.

#include "pybind_peer.hpp"

#include "convert/to_python.hpp"
#include "runtime/python_ready.hpp"

#include <kest/kest.hpp>

#include <benchmark/benchmark.h>

using namespace sarvode;

namespace {
constexpr long calls = 100'000;
constexpr long items = 1'000'000;

kest::Class_Generic counter_class() {
  using B = kest::internal::class_builder_base;
  static const kest::Class_Generic cls = [] {
    kest::internal::method_builder_base add{kest::String(u"add")};
    add.assign_func(kest::make_method([](kest::Any self, std::int64_t n) {
      auto v = kest::Integer::unsafeFrom(kest::internal::result_unwrap_lazy(self.fieldValue(kest::meta_field_untyped("$_v"))));
      (void)self.setFieldValue(kest::meta_field_untyped("$_v"), kest::Integer(v.value() + n));
    }));
    add.signature(kest::String(u"n"));
    kest::internal::property_builder_base value{kest::String(u"value")};
    value.assign_getter(kest::make_method([](kest::Any self) {
      return kest::internal::result_unwrap_lazy(self.fieldValue(kest::meta_field_untyped("$_v")));
    }));
    auto made = kest::internal::defclass_impl({B::name_entry(kest::String(u"Counter")), B::module_entry(kest::String(u"bench")),
                                               B::field_entry(kest::String(u"$_v"), 0, &kest::Integer::getType),
                                               B::method_entry(add), B::property_entry(value)});
    return made.as<kest::Class_Generic>();
  }();
  return cls;
}

/// Globals holding the objects and the loop functions.
struct loops {
  py::object globals;
  loops() {
    ensurePythonReady();
    py::gil lock;
    globals = py::object::steal(PyDict_New());
    auto host_counter = kest::internal::result_unwrap_lazy(counter_class().allocateInstance());
    (void)host_counter.setFieldValue(kest::meta_field_untyped("$_v"), kest::Integer(0));
    kest::List host_numbers(kest::Integer::getType());
    for (long i = 0; i < items; ++i)
      (void)host_numbers.append(kest::Integer(i));
    set("host_counter", toPython(host_counter));
    set("host_numbers", toPython(host_numbers));
    set("peer_counter", bench_peer::make_counter());
    set("peer_numbers", bench_peer::make_numbers(items));
    auto code = py::object::steal(runWithBuiltin("exec", R"(
builtin_numbers = list(range(1000000))
def call_method(obj, n):
    for i in range(n):
        obj.add(1)
def call_builtin(n):
    f = abs
    for i in range(n):
        f(1)
def read_property(obj, n):
    for i in range(n):
        obj.value
def read_builtin_attribute(n):
    x = 1
    for i in range(n):
        x.real
def iterate(seq):
    total = 0
    for x in seq:
        total += x
    return total
)",
                                                 globals.get(), globals.get()));
    if (!code)
      PyErr_Print();
  }
  void set(const char *name, PyObject *value) {
    PyDict_SetItemString(globals.get(), name, value);
    Py_DecRef(value);
  }
  void run(benchmark::State &state, const char *call) {
    py::gil lock;
    for (auto _ : state) {
      auto r = py::object::steal(runWithBuiltin("eval", call, globals.get(), globals.get()));
      if (!r) {
        PyErr_Print();
        state.SkipWithError("Python raised");
        break;
      }
    }
  }
};

loops &data() {
  static loops l;
  return l;
}
} // namespace

void MethodCall_Host(benchmark::State &s) { data().run(s, "call_method(host_counter, 100000)"); }
void MethodCall_Pybind11(benchmark::State &s) { data().run(s, "call_method(peer_counter, 100000)"); }
void MethodCall_Builtin(benchmark::State &s) { data().run(s, "call_builtin(100000)"); }
void PropertyRead_Host(benchmark::State &s) { data().run(s, "read_property(host_counter, 100000)"); }
void PropertyRead_Pybind11(benchmark::State &s) { data().run(s, "read_property(peer_counter, 100000)"); }
void PropertyRead_Builtin(benchmark::State &s) { data().run(s, "read_builtin_attribute(100000)"); }
void Iterate1M_Host(benchmark::State &s) { data().run(s, "iterate(host_numbers)"); }
void Iterate1M_Pybind11(benchmark::State &s) { data().run(s, "iterate(peer_numbers)"); }
void Iterate1M_Builtin(benchmark::State &s) { data().run(s, "iterate(builtin_numbers)"); }

BENCHMARK(MethodCall_Host)->Unit(benchmark::kMillisecond);
BENCHMARK(MethodCall_Pybind11)->Unit(benchmark::kMillisecond);
BENCHMARK(MethodCall_Builtin)->Unit(benchmark::kMillisecond);
BENCHMARK(PropertyRead_Host)->Unit(benchmark::kMillisecond);
BENCHMARK(PropertyRead_Pybind11)->Unit(benchmark::kMillisecond);
BENCHMARK(PropertyRead_Builtin)->Unit(benchmark::kMillisecond);
BENCHMARK(Iterate1M_Host)->Unit(benchmark::kMillisecond);
BENCHMARK(Iterate1M_Pybind11)->Unit(benchmark::kMillisecond);
BENCHMARK(Iterate1M_Builtin)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
