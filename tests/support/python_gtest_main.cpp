// A test program that runs on the Python chosen when it starts, as sarvode
// does (SARVODE_PYTHON, VIRTUAL_ENV, else the build's): the tests are a
// library whose Python symbols resolve to the Python loaded here first.

#include <kest/python.hpp>

#include <dlfcn.h>

#include <cstdio>

int main(int argc, char **argv) {
  auto python = kest::python::load_interpreter();
  if (python.isError()) {
    std::fprintf(stderr, "%s\n", python.as<kest::Error>().message().toUtf8().c_str());
    return 1;
  }
  void *cases = dlopen(SARVODE_TEST_CASES, RTLD_NOW | RTLD_LOCAL);
  if (!cases) {
    std::fprintf(stderr, "cannot load the tests: %s\n", dlerror());
    return 1;
  }
  using run_fn = int (*)(int, char **);
  auto run = reinterpret_cast<run_fn>(dlsym(cases, "sarvode_run_tests"));
  if (!run) {
    std::fprintf(stderr, "%s has no sarvode_run_tests\n", SARVODE_TEST_CASES);
    return 1;
  }
  return run(argc, argv);
}
