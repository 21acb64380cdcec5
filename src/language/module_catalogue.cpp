// The module catalogue of the host module "python".

#include "language/module_catalogue.hpp"

#include "language/evaluation.hpp"
#include "proxies/cpython_module.hpp"

#include "runtime/python_shutdown.hpp"

#include <kest/deferred_modules.hpp>
#include <kest/kest.hpp>

#include <condition_variable>
#include <mutex>
#include <string_view>

namespace sarvode {

namespace {
struct standard_entry {
  const char16_t *host;
  const char *python;
  const char16_t *parent;
  const char16_t *short_name;
};

// In this order; "python.collections.abc" needs "python.collections".
constexpr standard_entry standard_entries[] = {
    {u"python.builtins", "builtins", u"python", u"builtins"},
    {u"python.collections", "collections", u"python", u"collections"},
    {u"python.collections.abc", "collections.abc", u"python.collections", u"abc"},
    {u"python.datetime", "datetime", u"python", u"datetime"},
    {u"python.decimal", "decimal", u"python", u"decimal"},
    {u"python.sys", "sys", u"python", u"sys"},
    {u"python.types", "types", u"python", u"types"},
    {u"python.typing", "typing", u"python", u"typing"},
};

bool skipped(std::u16string_view name) {
  return name.empty() || name.front() == u'_' || name == u"builtins" || name == u"this" || name == u"antigravity" ||
         name == u"sys";
}

std::once_flag g_imported_all;

void add_standard_modules() {
  for (const auto &entry : standard_entries) {
    auto parent = kest::find_module(kest::String(entry.parent));
    if (!parent.is<kest::Module>())
      continue; // "python.collections" was not made: nor is its "abc"
    auto made = exportPythonModule(entry.python, kest::String(entry.host), false);
    if (made.is<kest::Module>())
      addModuleToParent(parent.unsafeAs<kest::Module>(), made.unsafeAs<kest::Module>(), kest::String(entry.short_name));
  }
}

/// Who makes the standard entries. Not a plain once-guard: the maker imports
/// Python modules, and a thread that waited on a guard while holding the
/// interpreter lock would keep the maker from ever finishing. A waiter gives
/// the lock up while it waits.
struct standard_maker {
  std::mutex lock;
  std::condition_variable finished;
  bool done = false;
  bool running = false; // another thread makes them now
};

standard_maker &maker() {
  static auto *m = new standard_maker; // lookups may come at exit
  return *m;
}

bool make_standard_modules() {
  if (!Py_IsInitialized() || pythonShutDown())
    return false;
  auto &m = maker();
  // Always the interpreter lock first, then the maker's: nobody waits for the
  // interpreter lock while holding the maker's.
  py::gil hold;
  std::unique_lock guard(m.lock);
  if (m.done)
    return true;
  if (m.running) {
    // Another thread makes them: wait without the interpreter lock, which it needs.
    guard.unlock();
    py::released unlocked;
    std::unique_lock wait(m.lock);
    m.finished.wait(wait, [&] { return m.done; });
    return true;
  }
  m.running = true;
  guard.unlock();
  // Whatever happens in between, the waiters are let go at the end (done,
  // even when an entry could not be made: it is left out).
  struct finish {
    standard_maker &m;
    ~finish() {
      std::lock_guard relock(m.lock);
      m.running = false;
      m.done = true;
      m.finished.notify_all();
    }
  } finished{m};
  add_standard_modules();
  return true;
}
} // namespace

void deferStandardPythonModules() { kest::defer_modules(kest::String(u"python"), make_standard_modules); }

void importAllModules() {
  std::call_once(g_imported_all, [] {
    auto python = kest::find_module(kest::String(u"python"));
    if (!python.is<kest::Module>())
      return;
    auto listed = runStatements(kest::String(u"import pkgutil\nreturn list(pkgutil.iter_modules())"), kest::Any(),
                                kest::None(), kest::None(), kest::None());
    auto sequence = kest::I_Sequence::cast(listed);
    if (!sequence.is<kest::I_Sequence>())
      return;
    std::vector<kest::String> names;
    for (kest::internal::iterator_iterable it(sequence.unsafeAs<kest::I_Sequence>()), end; it != end; ++it) {
      auto name = kest::String::cast(
          kest::internal::result_unwrap_lazy(it->propertyValue(kest::meta_property_untyped("name"))));
      if (name.is<kest::String>() && !skipped(name.unsafeAs<kest::String>().view()))
        names.push_back(name.unsafeAs<kest::String>());
    }
    for (const auto &name : names) {
      auto made = exportPythonModule(name.toUtf8(), kest::String(u"python.") + name, false);
      if (made.is<kest::Module>())
        addModuleToParent(python.unsafeAs<kest::Module>(), made.unsafeAs<kest::Module>(), name);
    }
  });
}

} // namespace sarvode
