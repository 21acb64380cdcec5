// Operating-system calls on posix systems.

#include "platform/platform.hpp"

#include "runtime/python.hpp"

#include <dlfcn.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>

namespace sarvode::platform {

namespace {
/// The path of the loaded object that contains `address`.
std::string object_path(const void *address) {
  Dl_info info{};
  if (dladdr(address, &info) == 0 || !info.dli_fname)
    return {};
  return info.dli_fname;
}

/// A function of the extension itself, to ask the loader where we are.
void anchor() {}

/// The path of the interpreter library that is already loaded.
std::string interpreter_path() { return object_path(reinterpret_cast<const void *>(&Py_IsInitialized)); }
} // namespace

std::string extension_directory() {
  std::string path = object_path(reinterpret_cast<const void *>(&anchor));
  const auto slash = path.find_last_of('/');
  if (slash == std::string::npos)
    return {};
  // Drop the file name and any separators right before it, but keep the root.
  auto end = slash;
  while (end > 0 && path[end - 1] == '/')
    --end;
  return path.substr(0, end == 0 ? 1 : end);
}

std::optional<std::string> environment(const char *name) {
  if (const char *value = std::getenv(name))
    return std::string(value);
  return std::nullopt;
}

void unset_environment(const char *name) { (void)unsetenv(name); }

std::string user_data_fallback() {
  if (auto xdg = environment("XDG_DATA_HOME"); xdg && !xdg->empty())
    return *xdg;
  if (auto home = environment("HOME"); home && !home->empty())
    return *home + "/.local/share";
  return {};
}

void *find_interpreter_symbol(const char *name) {
  const auto path = interpreter_path();
  if (path.empty())
    return nullptr;
  // RTLD_NOLOAD: only look at the library that is already there.
  void *library = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
  if (!library)
    return nullptr;
  void *entry = dlsym(library, name);
  dlclose(library); // the NOLOAD open only added a count
  return entry;
}

add_audit_hook_fn find_add_audit_hook() {
  return reinterpret_cast<add_audit_hook_fn>(find_interpreter_symbol("PySys_AddAuditHook"));
}

void make_interpreter_symbols_global() {
  const auto path = interpreter_path();
  if (path.empty())
    return;
  // Kept open on purpose: the promotion to the global scope lasts while the handle lives.
  (void)dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD | RTLD_GLOBAL);
}

writable_memory::writable_memory() {
  // Each line of the map: "start-end perms offset dev inode path", addresses in hex.
  std::ifstream maps("/proc/self/maps");
  std::string line;
  while (std::getline(maps, line)) {
    char *end = nullptr;
    const auto start = std::strtoull(line.c_str(), &end, 16);
    if (*end != '-')
      continue;
    const auto stop = std::strtoull(end + 1, &end, 16);
    if (*end == ' ' && end[1] != '\0' && end[2] == 'w')
      m_ranges.emplace_back(start, stop);
  }
}

bool writable_memory::contains(const void *address) const {
  const auto target = reinterpret_cast<std::uintptr_t>(address);
  return std::any_of(m_ranges.begin(), m_ranges.end(),
                     [target](const auto &range) { return target >= range.first && target < range.second; });
}

void keep_loaded() {
  const auto path = object_path(reinterpret_cast<const void *>(&anchor));
  if (!path.empty())
    (void)dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE); // the count it adds is never given back
}

const char *stack_limit() {
  // Asked once per thread: the stack does not move.
  thread_local const char *limit = [] {
    const char *low = nullptr;
#if defined(__linux__) || defined(__FreeBSD__)
    pthread_attr_t attributes;
#if defined(__linux__)
    if (pthread_getattr_np(pthread_self(), &attributes) != 0)
      return low;
#else
    pthread_attr_init(&attributes);
    if (pthread_attr_get_np(pthread_self(), &attributes) != 0)
      return low;
#endif
    void *address = nullptr;
    std::size_t size = 0;
    if (pthread_attr_getstack(&attributes, &address, &size) == 0)
      low = static_cast<const char *>(address);
    pthread_attr_destroy(&attributes);
#elif defined(__APPLE__)
    low = static_cast<const char *>(pthread_get_stackaddr_np(pthread_self())) - pthread_get_stacksize_np(pthread_self());
#endif
    return low;
  }();
  return limit;
}

bool text_locale_is_c() {
  (void)std::setlocale(LC_CTYPE, ""); // an unknown locale leaves the C one
  const char *name = std::setlocale(LC_CTYPE, nullptr);
  return name && (std::string_view(name) == "C" || std::string_view(name) == "POSIX");
}

bool sigint_is_default() {
  struct sigaction current {};
  return sigaction(SIGINT, nullptr, &current) == 0 && current.sa_handler == SIG_DFL &&
         (current.sa_flags & SA_SIGINFO) == 0;
}

void after_fork_in_child(void (*handler)()) { (void)pthread_atfork(nullptr, nullptr, handler); }

} // namespace sarvode::platform
