// Loading Python on Windows. The extension links python3.dll, the stable-ABI
// forwarder, which resolves each function in the python3X.dll loaded before
// it; so the host loads the chosen python3X.dll first, from its folder.

#include "platform/loader.hpp"

#include <windows.h>

#include <cstdio>

namespace kest::python::platform {

namespace fs = std::filesystem;

void *open_local(const fs::path &path, std::string &error) {
  HMODULE module = LoadLibraryExW(path.wstring().c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
  if (!module)
    error = "error " + std::to_string(GetLastError());
  return reinterpret_cast<void *>(module);
}

// A DLL's exports are visible to every later import by name: loading the
// python3X.dll first (and python3.dll from the same folder) is enough.
void *open_global(const fs::path &path, std::string &error) {
  void *library = open_local(path, error);
  if (library)
    (void)LoadLibraryExW((path.parent_path() / L"python3.dll").wstring().c_str(), nullptr,
                         LOAD_WITH_ALTERED_SEARCH_PATH);
  return library;
}

void *find_symbol(void *library, const char *name) {
  return reinterpret_cast<void *>(GetProcAddress(static_cast<HMODULE>(library), name));
}

void close(void *library) { (void)FreeLibrary(static_cast<HMODULE>(library)); }

void *find_loaded_symbol(const char *name) {
  HMODULE forwarder = GetModuleHandleW(L"python3.dll");
  return forwarder ? find_symbol(forwarder, name) : nullptr;
}

fs::path library_of(const void *address) {
  HMODULE module = nullptr;
  if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                          static_cast<LPCWSTR>(address), &module))
    return {};
  wchar_t buffer[MAX_PATH];
  const auto n = GetModuleFileNameW(module, buffer, MAX_PATH);
  return fs::path(std::wstring(buffer, n));
}

std::vector<std::string> python_library_names(int major, int minor) {
  return {"python" + std::to_string(major) + std::to_string(minor) + ".dll"};
}

std::vector<std::string> python_program_names() { return {"python.exe", "python3.exe"}; }

fs::path venv_program(const fs::path &folder) { return folder / "Scripts" / "python.exe"; }

bool looks_like_library(const fs::path &path) { return path.extension() == ".dll"; }

program_run run_program(const fs::path &program, const std::vector<std::string> &arguments) {
  program_run run;
  std::wstring command = L"\"" + program.wstring() + L"\"";
  for (const auto &argument : arguments) {
    std::wstring quoted;
    for (char c : argument)
      quoted += c == '"' ? std::wstring(L"\\\"") : std::wstring(1, static_cast<wchar_t>(c));
    command += L" \"" + quoted + L"\"";
  }
  command += L" 2>NUL <NUL";
  FILE *pipe = _wpopen(command.c_str(), L"r");
  if (!pipe)
    return run;
  run.started = true;
  char buffer[4096];
  while (auto n = fread(buffer, 1, sizeof buffer, pipe))
    run.output.append(buffer, n);
  run.status = _pclose(pipe);
  return run;
}

} // namespace kest::python::platform
