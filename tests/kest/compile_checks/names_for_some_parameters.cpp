// expect-error: give a name to every parameter or to none
#include <kest/kest.hpp>
using namespace kest::literals;
void declare() {
  kest::module_ m("kest.compilecheck");
  m.def("f", [](double a, double b) { return a + b; }, "a"_a);
}
