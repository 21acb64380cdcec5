// Another host using the installed object model through find_package(kest).

#include <kest/kest.hpp>

#include <iostream>

int main() {
  kest::List list{kest::Integer(1), kest::String(u"two")};
  auto module = kest::find_module(kest::String(u"kest"));
  std::cout << kest::display(list).toUtf8() << " " << (module.is<kest::Module>() ? "kest" : "none") << "\n";
  return 0;
}
