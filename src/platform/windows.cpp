// Operating-system calls on Windows.

#include "platform/platform.hpp"

#include "runtime/python.hpp"

#include <windows.h>

#include <csignal>
#include <cstdlib>
#include <string>

namespace sarvode::platform {

namespace {
void anchor() {}

std::wstring widen(const std::string &text) {
  if (text.empty())
    return {};
  const int n = MultiByteToWideChar(CP_ACP, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
  std::wstring out(static_cast<std::size_t>(n), L'\0');
  MultiByteToWideChar(CP_ACP, 0, text.data(), static_cast<int>(text.size()), out.data(), n);
  return out;
}

std::string narrow(const std::wstring &text) {
  if (text.empty())
    return {};
  const int n = WideCharToMultiByte(CP_ACP, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
  std::string out(static_cast<std::size_t>(n), '\0');
  WideCharToMultiByte(CP_ACP, 0, text.data(), static_cast<int>(text.size()), out.data(), n, nullptr, nullptr);
  return out;
}

HMODULE interpreter_module() {
  if (HMODULE m = GetModuleHandleW(L"python3.dll"))
    return m;
  const unsigned long minor = (Py_Version >> 16) & 0xFF;
  const std::wstring versioned = L"python3" + std::to_wstring(minor) + L".dll";
  return GetModuleHandleW(versioned.c_str());
}
} // namespace

std::string extension_directory() {
  HMODULE self = nullptr;
  // 6: look up by an address inside the module, leave its reference count unchanged.
  if (!GetModuleHandleExA(6, reinterpret_cast<LPCSTR>(&anchor), &self))
    return {};
  char buffer[260];
  if (GetModuleFileNameA(self, buffer, sizeof buffer) == 0)
    return {};
  std::wstring path = widen(buffer);
  auto slash = path.find_last_of(L"\\/");
  if (slash == std::wstring::npos)
    return {};
  // Keep the drive or root-name prefix ("C:" and "\\server\share").
  const std::size_t root = path.size() > 1 && path[1] == L':' ? 2 : 0;
  while (slash > root && (path[slash - 1] == L'\\' || path[slash - 1] == L'/'))
    --slash;
  return narrow(path.substr(0, slash));
}

std::optional<std::string> environment(const char *name) {
  if (const char *value = std::getenv(name))
    return std::string(value);
  return std::nullopt;
}

void unset_environment(const char *name) { (void)_putenv_s(name, ""); }

std::string user_data_fallback() { return {}; }

void *find_interpreter_symbol(const char *name) {
  if (HMODULE m = GetModuleHandleW(L"python3.dll"))
    if (FARPROC entry = GetProcAddress(m, name))
      return reinterpret_cast<void *>(entry);
  const unsigned long minor = (Py_Version >> 16) & 0xFF;
  const std::wstring versioned = L"python3" + std::to_wstring(minor) + L".dll";
  if (HMODULE m = GetModuleHandleW(versioned.c_str()))
    return reinterpret_cast<void *>(GetProcAddress(m, name));
  return nullptr;
}

add_audit_hook_fn find_add_audit_hook() {
  return reinterpret_cast<add_audit_hook_fn>(find_interpreter_symbol("PySys_AddAuditHook"));
}

void make_interpreter_symbols_global() {
  // Windows resolves imports per module; nothing to do.
  (void)interpreter_module();
}

writable_memory::writable_memory() = default; // each question asks the system: it answers at once

bool writable_memory::contains(const void *address) const {
  MEMORY_BASIC_INFORMATION info{};
  if (VirtualQuery(address, &info, sizeof info) == 0 || info.State != MEM_COMMIT)
    return false;
  constexpr DWORD writable = PAGE_READWRITE | PAGE_WRITECOPY | PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY;
  return (info.Protect & writable) != 0;
}

void keep_loaded() {
  HMODULE module = nullptr;
  GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                     reinterpret_cast<LPCWSTR>(&anchor), &module);
}

const char *stack_limit() {
  thread_local const char *limit = [] {
    ULONG_PTR low = 0, high = 0;
    GetCurrentThreadStackLimits(&low, &high);
    return reinterpret_cast<const char *>(low);
  }();
  return limit;
}

bool text_locale_is_c() { return false; }

bool sigint_is_default() {
  // The C runtime can only tell the disposition by replacing it: put it back at once.
  auto previous = std::signal(SIGINT, SIG_DFL);
  std::signal(SIGINT, previous);
  return previous == SIG_DFL;
}

void after_fork_in_child(void (*)()) {} // Windows starts processes, never forks them

} // namespace sarvode::platform
