// Prints what the object model holds.

#include "model_report.hpp"

#include <kest/deferred_modules.hpp>
#include <kest/kest.hpp>

#include <algorithm>

namespace sarvode {

namespace {
std::vector<std::pair<std::string, kest::Any>> sorted(const kest::HashMap &map) {
  std::vector<std::pair<std::string, kest::Any>> out;
  for (auto &[key, value] : map.copyPairs())
    out.emplace_back(kest::display(key).toUtf8(), value);
  std::sort(out.begin(), out.end(), [](auto &a, auto &b) { return a.first < b.first; });
  return out;
}
} // namespace

void print_model(std::ostream &out) {
  kest::load_deferred_modules(); // a complete listing: the modules made on first use too
  const auto modules = kest::modules();
  out << modules.size() << (modules.size() == 1 ? " module" : " modules") << "\n";
  for (auto &module : modules) {
    out << "\nmodule " << module.name().utf8View();
    if (auto doc = module.doc(); !doc.empty())
      out << " - " << doc.utf8View();
    out << "\n";
    const auto classes = sorted(module.classes());
    if (!classes.empty()) {
      out << "  classes (" << classes.size() << "):\n";
      for (auto &[name, cls] : classes) {
        auto c = kest::Class_Generic::unsafeFrom(cls);
        out << "    " << kest::qualname(c).utf8View();
        auto bases = c.bases();
        if (!bases.empty()) {
          out << " : ";
          for (std::size_t i = 0; i < bases.size(); ++i)
            out << (i ? ", " : "") << kest::qualname(bases[i]).utf8View();
        }
        out << "\n";
      }
    }
    const auto callables = sorted(module.callables());
    if (!callables.empty()) {
      out << "  functions (" << callables.size() << "):\n";
      for (auto &[name, fn] : callables) {
        auto f = kest::I_Callable_Generic::unsafeFrom(fn);
        out << "    " << name << f.signature().toString().utf8View();
        if (auto doc = f.doc(); !doc.empty())
          out << "  # " << doc.utf8View();
        out << "\n";
      }
    }
  }
}

} // namespace sarvode
