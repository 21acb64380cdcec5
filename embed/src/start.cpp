// Starting Python for a C++ host: load the extension beside the object
// model's library and run the start-up handlers, once.

#include <kest/python.hpp>

#include <atomic>
#include <filesystem>
#include <mutex>
#include <string>

#if defined(_WIN32)
#include <windows.h>
#else
#include <dlfcn.h>
#endif

namespace kest::python {

namespace {
namespace fs = std::filesystem;

#if defined(_WIN32)
constexpr const char *extension_file = "sarvode_python.dll";
/// The folder of the library that holds `address`.
fs::path folder_of(const void *address) {
  HMODULE module = nullptr;
  if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                          static_cast<LPCWSTR>(address), &module))
    return {};
  wchar_t buffer[MAX_PATH];
  const auto n = GetModuleFileNameW(module, buffer, MAX_PATH);
  return fs::path(std::wstring(buffer, n)).parent_path();
}
void *open_library(const fs::path &path, std::string &error) {
  HMODULE m = LoadLibraryW(path.wstring().c_str());
  if (!m)
    error = "error " + std::to_string(GetLastError());
  return reinterpret_cast<void *>(m);
}
void *find_symbol(void *library, const char *name) {
  return reinterpret_cast<void *>(GetProcAddress(static_cast<HMODULE>(library), name));
}
#else
constexpr const char *extension_file = "sarvode_python.so";
fs::path folder_of(const void *address) {
  Dl_info info{};
  if (!dladdr(address, &info) || !info.dli_fname)
    return {};
  return fs::absolute(fs::path(info.dli_fname)).parent_path();
}
void *open_library(const fs::path &path, std::string &error) {
  void *library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL); // as any host loads an extension
  if (!library)
    error = dlerror();
  return library;
}
void *find_symbol(void *library, const char *name) { return dlsym(library, name); }
#endif

bool python_is_registered() {
  return I_Language::isInstance(find_language(internal::language_name_python()));
}

/// The installed extension: lib/sarvode/extensions beside the object model's library.
fs::path default_extension() {
  const auto lib = folder_of(reinterpret_cast<const void *>(&find_language));
  return lib.empty() ? fs::path() : lib / "sarvode" / "extensions" / extension_file;
}

Result<None> load(const fs::path &path) {
  std::string why;
  void *library = open_library(path, why);
  if (!library)
    return Error(String::fromUtf8("Unable to load the Python extension " + path.string() + ": " + why));
  using entry = void (*)();
  auto bind = reinterpret_cast<entry>(find_symbol(library, "sarvode_extension_bind_api"));
  auto init = reinterpret_cast<entry>(find_symbol(library, "sarvode_extension_init"));
  if (!bind || !init)
    return Error(String::fromUtf8(path.string() + " is not the Python extension."));
  bind();
  init();
  return None();
}
} // namespace

Result<None> start(const std::string &extension) {
  // Once started, only handlers registered since run, without the lock below:
  // the caller may hold the interpreter lock, which a first start takes.
  static std::atomic<bool> started{false};
  if (started.load(std::memory_order_acquire)) {
    internal::run_init_handlers();
    return None();
  }
  static std::mutex lock; // the first start: one thread loads, the others wait for it
  std::lock_guard guard(lock);
  if (!python_is_registered()) {
    const fs::path path = extension.empty() ? default_extension() : fs::path(extension);
    auto loaded = load(path);
    if (loaded.isError())
      return loaded;
  }
  internal::run_init_handlers(); // runs only the handlers that have not run
  if (!python_is_registered())
    return Error(String(u"The Python extension was loaded, but no Python language was registered."));
  started.store(true, std::memory_order_release);
  return None();
}

} // namespace kest::python
