// Loading Python on POSIX systems: dlopen, and the Python library named
// libpython3.X.so (.dylib on macOS).

#include "platform/loader.hpp"

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

extern char **environ;

namespace kest::python::platform {

namespace fs = std::filesystem;

namespace {
void *open_with(const fs::path &path, int mode, std::string &error) {
  void *library = dlopen(path.c_str(), mode);
  if (!library) {
    const char *why = dlerror();
    error = why ? why : "unknown error";
  }
  return library;
}
} // namespace

void *open_local(const fs::path &path, std::string &error) { return open_with(path, RTLD_NOW | RTLD_LOCAL, error); }

void *open_global(const fs::path &path, std::string &error) { return open_with(path, RTLD_NOW | RTLD_GLOBAL, error); }

void *find_symbol(void *library, const char *name) { return dlsym(library, name); }

void *find_loaded_symbol(const char *name) { return dlsym(RTLD_DEFAULT, name); }

fs::path library_of(const void *address) {
  Dl_info info{};
  if (!dladdr(address, &info) || !info.dli_fname)
    return {};
  return fs::absolute(fs::path(info.dli_fname));
}

std::vector<std::string> python_library_names(int major, int minor) {
  const auto version = std::to_string(major) + "." + std::to_string(minor);
#if defined(__APPLE__)
  return {"libpython" + version + ".dylib"};
#else
  return {"libpython" + version + ".so.1.0", "libpython" + version + ".so"};
#endif
}

bool looks_like_library(const fs::path &path) {
  const auto name = path.filename().string();
  return name.starts_with("lib") && (name.find(".so") != std::string::npos || name.ends_with(".dylib"));
}

program_run run_program(const fs::path &program, const std::vector<std::string> &arguments) {
  program_run run;
  std::vector<std::string> words{program.string()};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char *> argv;
  for (auto &word : words)
    argv.push_back(word.data());
  argv.push_back(nullptr);

  int pipe_ends[2];
  if (pipe2(pipe_ends, O_CLOEXEC) != 0)
    return run;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, pipe_ends[1], STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t child = 0;
  const int spawned = posix_spawn(&child, program.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(pipe_ends[1]);
  if (spawned != 0) {
    close(pipe_ends[0]);
    return run;
  }
  run.started = true;
  constexpr std::size_t limit = 64 * 1024;
  char buffer[4096];
  for (;;) {
    const auto n = read(pipe_ends[0], buffer, sizeof buffer);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      break;
    run.output.append(buffer, static_cast<std::size_t>(n));
    if (run.output.size() >= limit) {
      kill(child, SIGKILL); // not the short answer a Python gives
      break;
    }
  }
  close(pipe_ends[0]);
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

} // namespace kest::python::platform
