// expect-ok: the same declarations, written as they should be, compile
#include <kest/kest.hpp>
#include <string>
using namespace kest::literals;
kest::Class_Generic declare() {
  kest::module_ m("kest.compilecheck", "doc");
  m.def("f", [](double a, double b) { return a + b; }, "a"_a, "b"_a = 1.0, "doc");
  return kest::class_(m, "C", "doc")
      .base(kest::I_Immutable::getClass())
      .field<double>("x", kest::field_flags::read_only)
      .field<kest::Any>("any")
      .init([](const kest::Any &self, double x) { return kest::set_field(self, "x"_field, x); }, "x"_a = 0.0)
      .def("m", [](const kest::Any &self, std::string s) { return s + std::to_string(kest::field<double>(self, "x"_field)); }, "s"_a)
      .def_static("s", [](std::int64_t n) { return n * 2; }, "n"_a, "doc")
      .property("p", [](const kest::Any &self) { return kest::field<double>(self, "x"_field); }, "doc")
      .property("q", [](const kest::Any &) { return 1; }, [](const kest::Any &, std::int64_t) {}, "doc")
      .def("$__display__", [](const kest::Any &) { return std::string("C"); })
      .declare();
}
kest::Any call(const kest::I_Callable_Generic &f) { return f(1, 2.5, "x", u"y", true, std::string("s"), kest::None()); }
double read(const kest::Any &v) { return kest::to<double>(v) + kest::to<int>(v) + (kest::to<bool>(v) ? 1 : 0); }
