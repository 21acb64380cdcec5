// A host process for one start-up scenario: it lays out an installation in a
// temporary folder, loads the real extension file from there with local
// symbol scope, as a third-party host would, and checks what Python sees.
//
// The process does not link Python; it reaches the interpreter that the
// extension loaded through the loader.

#include <kest/init.hpp>
#include <kest/python.hpp>

#include <fmt/format.h>

#include <dlfcn.h>
#include <link.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

int failures = 0;

void check(bool condition, const std::string &what) {
  if (!condition) {
    std::cerr << "FAILED: " << what << "\n";
    ++failures;
  }
}

// --- a minimal zip writer: one stored file ------------------------------------

std::uint32_t crc32(const std::string &data) {
  std::uint32_t crc = 0xFFFFFFFFu;
  for (unsigned char c : data) {
    crc ^= c;
    for (int k = 0; k < 8; ++k)
      crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  return ~crc;
}

void put16(std::string &out, std::uint16_t v) {
  out += static_cast<char>(v & 0xFF);
  out += static_cast<char>(v >> 8);
}
void put32(std::string &out, std::uint32_t v) {
  put16(out, static_cast<std::uint16_t>(v & 0xFFFF));
  put16(out, static_cast<std::uint16_t>(v >> 16));
}

/// Writes a zip archive holding one uncompressed file.
void write_zip(const fs::path &path, const std::string &name, const std::string &content) {
  const auto crc = crc32(content);
  const auto size = static_cast<std::uint32_t>(content.size());
  std::string local;
  put32(local, 0x04034b50);
  put16(local, 20), put16(local, 0), put16(local, 0), put16(local, 0), put16(local, 0x21);
  put32(local, crc), put32(local, size), put32(local, size);
  put16(local, static_cast<std::uint16_t>(name.size())), put16(local, 0);
  local += name + content;
  std::string central;
  put32(central, 0x02014b50);
  put16(central, 20), put16(central, 20), put16(central, 0), put16(central, 0), put16(central, 0),
      put16(central, 0x21);
  put32(central, crc), put32(central, size), put32(central, size);
  put16(central, static_cast<std::uint16_t>(name.size()));
  put16(central, 0), put16(central, 0), put16(central, 0), put16(central, 0);
  put32(central, 0), put32(central, 0);
  central += name;
  std::string end;
  put32(end, 0x06054b50);
  put16(end, 0), put16(end, 0), put16(end, 1), put16(end, 1);
  put32(end, static_cast<std::uint32_t>(central.size())), put32(end, static_cast<std::uint32_t>(local.size()));
  put16(end, 0);
  std::ofstream(path, std::ios::binary) << local << central << end;
}

// --- the interpreter, reached through the loader -------------------------------

struct python {
  using object = void *;
  std::function<int()> gil_ensure;
  std::function<void(int)> gil_release;
  std::function<object(const char *)> import_module;
  std::function<object(object, const char *)> get_attr;
  std::function<long(object)> list_size;
  std::function<object(object, long)> list_item;
  std::function<const char *(object, long *)> utf8;
  std::function<void(object)> decref;
  std::function<void()> clear_error;
  std::function<int()> is_initialized;

  template <class F> static std::function<F> symbol(void *library, const char *name) {
    void *address = dlsym(library, name);
    if (!address) {
      std::cerr << "missing interpreter symbol " << name << "\n";
      std::exit(2);
    }
    return reinterpret_cast<F *>(address);
  }

  static std::string library_path() {
    std::string found;
    dl_iterate_phdr(
        [](dl_phdr_info *info, std::size_t, void *data) {
          std::string name = info->dlpi_name ? info->dlpi_name : "";
          if (name.find("libpython3") != std::string::npos)
            *static_cast<std::string *>(data) = name;
          return 0;
        },
        &found);
    return found;
  }

  static python load() {
    const auto path = library_path();
    if (path.empty()) {
      std::cerr << "the extension did not load an interpreter\n";
      std::exit(2);
    }
    void *lib = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
    python p;
    p.gil_ensure = symbol<int()>(lib, "PyGILState_Ensure");
    p.gil_release = symbol<void(int)>(lib, "PyGILState_Release");
    p.import_module = symbol<object(const char *)>(lib, "PyImport_ImportModule");
    p.get_attr = symbol<object(object, const char *)>(lib, "PyObject_GetAttrString");
    p.list_size = symbol<long(object)>(lib, "PyList_Size");
    p.list_item = symbol<object(object, long)>(lib, "PyList_GetItem");
    p.utf8 = symbol<const char *(object, long *)>(lib, "PyUnicode_AsUTF8AndSize");
    p.decref = symbol<void(object)>(lib, "Py_DecRef");
    p.clear_error = symbol<void()>(lib, "PyErr_Clear");
    p.is_initialized = symbol<int()>(lib, "Py_IsInitialized");
    return p;
  }

  std::vector<std::string> sys_path() const {
    std::vector<std::string> out;
    const int state = gil_ensure();
    object sys = import_module("sys");
    object path = sys ? get_attr(sys, "path") : nullptr;
    for (long i = 0, n = path ? list_size(path) : 0; i < n; ++i) {
      long size = 0;
      const char *text = utf8(list_item(path, i), &size);
      out.emplace_back(text ? std::string(text, static_cast<std::size_t>(size)) : std::string());
    }
    if (path)
      decref(path);
    if (sys)
      decref(sys);
    clear_error();
    gil_release(state);
    return out;
  }

  bool imports(const char *module) const {
    const int state = gil_ensure();
    object m = import_module(module);
    if (m)
      decref(m);
    else
      clear_error();
    gil_release(state);
    return m != nullptr;
  }
};

// --- the scenario ------------------------------------------------------------------

struct layout {
  fs::path root, extension, site_packages, stdlib;
};

layout make_layout(const fs::path &base, const fs::path &built_extension, bool with_site_packages) {
  fs::create_directories(base);
  std::string pattern = (base / "scenario-XXXXXX").string();
  layout l;
  l.root = mkdtemp(pattern.data());
  const auto ext_dir = l.root / "lib" / "sarvode" / "extensions";
  fs::create_directories(ext_dir);
  l.extension = ext_dir / built_extension.filename();
  fs::copy_file(built_extension, l.extension);
  l.site_packages = ext_dir / "site-packages";
  l.stdlib = ext_dir / "python3" / "lib";
  if (with_site_packages) {
    fs::create_directories(l.site_packages);
    write_zip(l.site_packages / "a.zip", "sarvode_zip_a.py", "VALUE = 'from a.zip'\n");
    write_zip(l.site_packages / "b.ZIP", "sarvode_zip_b.py", "VALUE = 'from b.ZIP'\n");
    fs::create_directories(l.site_packages / "c.zip");
  }
  fs::create_directories(l.stdlib);
  write_zip(l.stdlib / "x.zip", "sarvode_zip_x.py", "VALUE = 'from x.zip'\n");
  return l;
}

void set_env(const char *name, const std::string *value) {
  if (value)
    setenv(name, value->c_str(), 1);
  else
    unsetenv(name);
}

void load_extension(const fs::path &path, int times = 1) {
  if (auto python = kest::python::load_interpreter(); python.isError()) {
    std::cerr << python.as<kest::Error>().message().toUtf8() << "\n";
    std::exit(2);
  }
  void *library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!library) {
    std::cerr << "cannot load " << path << ": " << dlerror() << "\n";
    std::exit(2);
  }
  auto bind = reinterpret_cast<void (*)()>(dlsym(library, "sarvode_extension_bind_api"));
  auto init = reinterpret_cast<void (*)()>(dlsym(library, "sarvode_extension_init"));
  check(bind && init, "the extension exports both entry points");
  bind();
  for (int i = 0; i < times; ++i)
    init();
}

std::string version_folder(const python &) {
  // The folder name follows the interpreter that is loaded.
  auto path = python::library_path();
  auto pos = path.find("libpython3.");
  std::string minor;
  for (auto i = pos + 11; i < path.size() && std::isdigit(static_cast<unsigned char>(path[i])); ++i)
    minor += path[i];
  return "Python3" + minor;
}

/// The entries the extension added: everything after the interpreter's own ones.
std::vector<std::string> added_entries(const std::vector<std::string> &path, const fs::path &root,
                                       const std::vector<std::string> &user_roots) {
  std::vector<std::string> out;
  for (auto &entry : path) {
    bool ours = entry.rfind(root.string(), 0) == 0;
    for (auto &u : user_roots)
      ours = ours || (!u.empty() && entry.rfind(u, 0) == 0);
    if (ours)
      out.push_back(entry);
  }
  return out;
}

std::string join(const std::vector<std::string> &v) {
  std::string s;
  for (auto &x : v)
    s += "\n  " + x;
  return s;
}

} // namespace

int main(int argc, char **argv) {
  if (argc < 4) {
    std::cerr << "usage: extension_host SCENARIO EXTENSION TMPDIR\n";
    return 2;
  }
  const std::string scenario = argv[1];
  const fs::path built = argv[2];
  const fs::path base = argv[3];
  const bool site_packages = scenario != "no-site-packages";
  auto l = make_layout(base, built, site_packages);
  const auto local = (l.root / "local").string();
  const auto profile = (l.root / "profile").string();
  const auto xdg = (l.root / "xdg").string();
  const std::string empty;

  // The environment of each scenario; every per-user variable is set or cleared.
  std::string expected_user_root;
  if (scenario == "localappdata-empty-userprofile-set") {
    set_env("LOCALAPPDATA", &empty);
    set_env("USERPROFILE", &profile);
    set_env("XDG_DATA_HOME", &xdg);
    expected_user_root = profile + "/AppData/Local/Sarvode";
  } else if (scenario == "no-user-folder-variables") {
    set_env("LOCALAPPDATA", nullptr);
    set_env("USERPROFILE", nullptr);
    set_env("XDG_DATA_HOME", &xdg);
    expected_user_root = xdg + "/Sarvode";
  } else if (scenario == "no-user-folder-at-all") {
    set_env("LOCALAPPDATA", nullptr);
    set_env("USERPROFILE", nullptr);
    set_env("XDG_DATA_HOME", nullptr);
    set_env("HOME", nullptr);
  } else {
    set_env("LOCALAPPDATA", &local);
    set_env("USERPROFILE", &profile);
    expected_user_root = local + "/Sarvode";
  }

  load_extension(l.extension, scenario == "init-twice" ? 2 : 1);
  kest::internal::run_init_handlers(); // level 3 starts the interpreter
  auto py = python::load();
  check(py.is_initialized() != 0, "the start-up handlers started the interpreter");
  const auto folder = version_folder(py);
  const auto user_folder = expected_user_root.empty() ? std::string() : expected_user_root + "/" + folder;
  const auto entries = added_entries(py.sys_path(), l.root, {local, profile, xdg});
  const auto sp = l.site_packages.string();

  std::vector<std::string> expected;
  if (site_packages)
    expected.push_back(sp + "/a.zip");
  expected.push_back(sp);
  expected.push_back((l.stdlib / "x.zip").string());
  if (!user_folder.empty())
    expected.push_back(user_folder);

  if (scenario == "local-loading-imports-native-modules") {
    for (const char *module : {"_decimal", "decimal", "math", "datetime", "_ctypes", "ctypes"})
      check(py.imports(module), fmt::format("import {} works in a host that loaded the extension locally", module));
  } else {
    check(entries == expected,
          fmt::format("sys.path entries in order; expected:{}\nfound:{}", join(expected), join(entries)));
    if (!user_folder.empty())
      check(fs::is_directory(user_folder), "the per-user folder was created: " + user_folder);
    if (site_packages) {
      check(py.imports("sarvode_zip_a"), "a module in site-packages/a.zip imports");
      check(!py.imports("sarvode_zip_b"), "b.ZIP is not on sys.path");
    }
    check(py.imports("sarvode_zip_x"), "a module in python3/lib/x.zip imports");
  }

  std::error_code ignored;
  fs::remove_all(l.root, ignored);
  if (failures == 0)
    std::cout << "scenario " << scenario << ": passed\n";
  return failures == 0 ? 0 : 1;
}
