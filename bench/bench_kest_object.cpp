// Python loops over host objects, beside the same loops over the same C++
// classes bound with pybind11 (and nanobind, when its source is at hand) and
// over builtin objects, in one run; and the same host methods called from C++,
// which is what a call costs without the bridge.

#include "pybind_peer.hpp"
#if defined(SARVODE_BENCH_NANOBIND)
#include "nanobind_peer.hpp"
#endif

#include "demo/demo_support.hpp"

#include "convert/to_python.hpp"
#include "runtime/python_ready.hpp"

#include <kest/kest.hpp>

#include "fixed_iterations.hpp"

#include <benchmark/benchmark.h>

#include <array>
#include <string>
#include <cstdint>
#include <cstdlib>

using namespace sarvode;

using namespace kest::literals;

namespace {
constexpr long calls = 100'000;
constexpr long items = 1'000'000;

std::int64_t trivial_total = 0; // what the trivial method adds to

kest::Class_Generic counter_class() {
  using B = kest::internal::class_builder_base;
  static const kest::Class_Generic cls = [] {
    // Updates a field, reached by a name written in the source.
    kest::internal::method_builder_base add{kest::String(u"add")};
    add.assign_func(kest::make_method([](const kest::Any &self, std::int64_t n) {
      auto v = kest::Integer::unsafeFrom(kest::internal::result_unwrap_lazy(self.fieldValue("$_v"_field)));
      (void)self.setFieldValue("$_v"_field, kest::Integer(v.value() + n));
    }));
    add.signature(kest::String(u"n"));
    // Trivial work: adds to a C++ counter.
    kest::internal::method_builder_base bump{kest::String(u"bump")};
    bump.assign_func(kest::make_method([](const kest::Any &, std::int64_t n) { trivial_total += n; }));
    bump.signature(kest::String(u"n"));
    kest::internal::property_builder_base value{kest::String(u"value")};
    value.assign_getter(kest::make_method([](const kest::Any &self) {
      return kest::internal::result_unwrap_lazy(self.fieldValue("$_v"_field));
    }));
    auto made = kest::internal::defclass_impl({B::name_entry(kest::String(u"Counter")), B::module_entry(kest::String(u"bench")),
                                               B::field_entry(kest::String(u"$_v"), 0, &kest::Integer::getType),
                                               B::method_entry(add), B::method_entry(bump), B::property_entry(value)});
    return made.unsafeAs<kest::Class_Generic>();
  }();
  return cls;
}

/// A kest.demo.Shape, made as scripts make it: Shape("square", 2.0).
kest::Any host_shape() {
  auto made = kest::internal::result_unwrap_lazy(kest::I_Callable_Generic::unsafeFrom(sarvode::demo::shape_class())
                                                    .callWith({kest::String(u"square"), kest::Float(2.0), kest::String(u"shape")}));
  if (kest::Error::isInstance(made))
    std::abort();
  return made;
}

/// Globals holding the objects and the loop functions.
struct loops {
  py::object globals;
  kest::Any host_counter;
  bool nanobind = false;
  loops() {
    ensurePythonReady();
    py::gil lock;
    globals = py::object::steal(PyDict_New());
    host_counter = kest::internal::result_unwrap_lazy(counter_class().allocateInstance());
    (void)host_counter.setFieldValue("$_v"_field, kest::Integer(0));
    kest::List host_numbers(kest::Integer::getType());
    for (long i = 0; i < items; ++i)
      (void)host_numbers.append(kest::Integer(i));
    set("host_counter", toPython(host_counter));
    set("host_numbers", toPython(host_numbers));
    // A host map of 1,000 entries and a host list of 1,000 ints, beside Python's own.
    kest::HashMap host_map(kest::String::getType(), kest::Integer::getType());
    kest::List host_thousand(kest::Integer::getType());
    for (long i = 0; i < 1000; ++i) {
      (void)host_map.setChecked(kest::String::fromUtf8("k" + std::to_string(i)), kest::Integer(i));
      (void)host_thousand.append(kest::Integer(i));
    }
    set("host_map", toPython(host_map));
    set("host_thousand", toPython(host_thousand));
    set("peer_counter", bench_peer::make_counter());
    set("peer_numbers", bench_peer::make_numbers(items));
    set("host_shape", toPython(host_shape()));
    set("peer_shape", bench_peer::make_shape("square", 2.0));
#if defined(SARVODE_BENCH_NANOBIND)
    if (PyObject *counter = bench_nanobind::make_counter()) {
      set("nano_counter", counter);
      set("nano_shape", bench_nanobind::make_shape("square", 2.0));
      nanobind = true;
    } else {
      PyErr_Print();
    }
#endif
    auto code = py::object::steal(runWithBuiltin("exec", R"(
builtin_numbers = list(range(1000000))
def empty_loop(n):
    for i in range(n):
        pass
def call_method(obj, n):
    for i in range(n):
        obj.add(1)
def call_trivial(obj, n):
    for i in range(n):
        obj.bump(1)
def call_area(obj, n):
    for i in range(n):
        obj.area()
def read_size(obj, n):
    for i in range(n):
        obj.size
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
def subscript(m, n):
    for i in range(n):
        m["k500"]
def length(seq, n):
    for i in range(n):
        len(seq)
def slice_all(seq, n):
    for i in range(n):
        seq[:]
builtin_map = {f"k{i}": i for i in range(1000)}
builtin_thousand = list(range(1000))
)",
                                                 globals.get(), globals.get()));
    if (!code)
      PyErr_Print();
  }
  void set(const char *name, PyObject *value) {
    PyDict_SetItemString(globals.get(), name, value);
    Py_DecRef(value);
  }
  void run(benchmark::State &state, const char *call, bool needs_nanobind = false) {
    if (needs_nanobind && !nanobind) {
      state.SkipWithError("nanobind peer not built");
      return;
    }
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

/// The same host method called from C++ through callWith, `calls` times per
/// iteration, the argument list made once.
void host_calls_from_cpp(benchmark::State &state, const char *name) {
  auto &d = data();
  auto method = kest::internal::result_unwrap_lazy(
      kest::Any(d.host_counter).boundMethod(kest::meta_method_untyped(name)));
  if (!kest::I_Callable_Generic::isInstance(method)) {
    state.SkipWithError("no such method");
    return;
  }
  const auto callable = kest::I_Callable_Generic::unsafeFrom(method);
  const std::array<kest::Any, 1> arguments{kest::Integer(1)};
  for (auto _ : state)
    for (long i = 0; i < calls; ++i)
      benchmark::DoNotOptimize(callable.callWith(arguments));
}
} // namespace

void EmptyLoop(benchmark::State &s) { data().run(s, "empty_loop(100000)"); }
void MethodCall_Host(benchmark::State &s) { data().run(s, "call_method(host_counter, 100000)"); }
void MethodCall_HostTrivial(benchmark::State &s) { data().run(s, "call_trivial(host_counter, 100000)"); }
void MethodCall_Pybind11(benchmark::State &s) { data().run(s, "call_method(peer_counter, 100000)"); }
void MethodCall_Nanobind(benchmark::State &s) { data().run(s, "call_method(nano_counter, 100000)", true); }
void MethodCall_Builtin(benchmark::State &s) { data().run(s, "call_builtin(100000)"); }
void HostCallFromCpp_Field(benchmark::State &s) { host_calls_from_cpp(s, "add"); }
void HostCallFromCpp_Trivial(benchmark::State &s) { host_calls_from_cpp(s, "bump"); }
void PropertyRead_Host(benchmark::State &s) { data().run(s, "read_property(host_counter, 100000)"); }
void PropertyRead_Pybind11(benchmark::State &s) { data().run(s, "read_property(peer_counter, 100000)"); }
void PropertyRead_Nanobind(benchmark::State &s) { data().run(s, "read_property(nano_counter, 100000)", true); }
void PropertyRead_Builtin(benchmark::State &s) { data().run(s, "read_builtin_attribute(100000)"); }
void ShapeArea_Host(benchmark::State &s) { data().run(s, "call_area(host_shape, 100000)"); }
void ShapeArea_Pybind11(benchmark::State &s) { data().run(s, "call_area(peer_shape, 100000)"); }
void ShapeArea_Nanobind(benchmark::State &s) { data().run(s, "call_area(nano_shape, 100000)", true); }
void ShapeSize_Host(benchmark::State &s) { data().run(s, "read_size(host_shape, 100000)"); }
void ShapeSize_Pybind11(benchmark::State &s) { data().run(s, "read_size(peer_shape, 100000)"); }
void ShapeSize_Nanobind(benchmark::State &s) { data().run(s, "read_size(nano_shape, 100000)", true); }
void Iterate1M_Host(benchmark::State &s) { data().run(s, "iterate(host_numbers)"); }
void Iterate1M_Pybind11(benchmark::State &s) { data().run(s, "iterate(peer_numbers)"); }
void Iterate1M_Builtin(benchmark::State &s) { data().run(s, "iterate(builtin_numbers)"); }
void MapSubscript_Host(benchmark::State &s) { data().run(s, "subscript(host_map, 100000)"); }
void MapSubscript_Builtin(benchmark::State &s) { data().run(s, "subscript(builtin_map, 100000)"); }
void Len_Host(benchmark::State &s) { data().run(s, "length(host_thousand, 100000)"); }
void Len_Builtin(benchmark::State &s) { data().run(s, "length(builtin_thousand, 100000)"); }
void Slice1000_Host(benchmark::State &s) { data().run(s, "slice_all(host_thousand, 100)"); }
void Slice1000_Builtin(benchmark::State &s) { data().run(s, "slice_all(builtin_thousand, 100)"); }

BENCHMARK(EmptyLoop)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(MethodCall_Host)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(MethodCall_HostTrivial)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(MethodCall_Pybind11)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(MethodCall_Nanobind)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(MethodCall_Builtin)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(HostCallFromCpp_Field)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(HostCallFromCpp_Trivial)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(PropertyRead_Host)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(PropertyRead_Pybind11)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(PropertyRead_Nanobind)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(PropertyRead_Builtin)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(ShapeArea_Host)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(ShapeArea_Pybind11)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(ShapeArea_Nanobind)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(ShapeSize_Host)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(ShapeSize_Pybind11)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(ShapeSize_Nanobind)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(Iterate1M_Host)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(Iterate1M_Pybind11)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(Iterate1M_Builtin)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(MapSubscript_Host)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(MapSubscript_Builtin)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(Len_Host)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(Len_Builtin)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(Slice1000_Host)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK(Slice1000_Builtin)->Apply(fixed_iterations)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
