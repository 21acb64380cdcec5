// expect-error: a method, property getter and constructor take the instance first
#include <kest/kest.hpp>
void declare() {
  kest::module_ m("kest.compilecheck");
  (void)kest::class_(m, "C").def("f", [] { return 1; }).declare();
}
