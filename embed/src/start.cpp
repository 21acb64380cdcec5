// Starting Python for a C++ host: load the extension beside the object
// model's library and run the start-up handlers, once.

#include <kest/python.hpp>

#include "platform/loader.hpp"

#include <atomic>
#include <filesystem>
#include <mutex>
#include <string>


namespace kest::python {

namespace {
namespace fs = std::filesystem;

#if defined(_WIN32)
constexpr const char *extension_file = "sarvode_python.dll";
#else
constexpr const char *extension_file = "sarvode_python.so";
#endif

bool python_is_registered() {
  return I_Language::isInstance(find_language(internal::language_name_python()));
}

/// The installed extension: lib/sarvode/extensions beside the object model's library.
fs::path default_extension() {
  const auto lib = platform::library_of(reinterpret_cast<const void *>(&find_language)).parent_path();
  return lib.empty() ? fs::path() : lib / "sarvode" / "extensions" / extension_file;
}

Result<None> load(const fs::path &path) {
  std::string why;
  void *library = platform::open_local(path, why); // as any host loads an extension
  if (!library)
    return Error(String::fromUtf8("Unable to load the Python extension " + path.string() + ": " + why));
  using entry = void (*)();
  auto bind = reinterpret_cast<entry>(platform::find_symbol(library, "sarvode_extension_bind_api"));
  auto init = reinterpret_cast<entry>(platform::find_symbol(library, "sarvode_extension_init"));
  if (!bind || !init)
    return Error(String::fromUtf8(path.string() + " is not the Python extension."));
  bind();
  init();
  return None();
}
} // namespace

Result<None> start(const std::string &extension) { return start(options{{}, extension}); }

Result<None> start(const options &options) {
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
    auto python = load_interpreter(options.python);
    if (python.isError())
      return python;
    const fs::path path = options.extension.empty() ? default_extension() : fs::path(options.extension);
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
