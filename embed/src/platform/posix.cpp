// Loading Python on POSIX systems: dlopen, and the Python library named
// libpython3.X.so (.dylib on macOS).

#include "platform/loader.hpp"

#include <dlfcn.h>
#include <poll.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

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
/// Reads the child's output until it ends, at most 64 KiB and 30 seconds,
/// then reaps it: its exit status, or -1.
int read_and_wait(pid_t child, int pipe_ends[2], std::string &output) {
  ::close(pipe_ends[1]);
  constexpr std::size_t limit = 64 * 1024;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  char buffer[4096];
  bool ended = false;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd readable{pipe_ends[0], POLLIN, 0};
    const int ready = left.count() > 0 ? poll(&readable, 1, static_cast<int>(left.count())) : 0;
    if (ready < 0 && errno == EINTR)
      continue;
    if (ready <= 0)
      break; // the deadline passed
    const auto n = read(pipe_ends[0], buffer, sizeof buffer);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0) {
      ended = true;
      break;
    }
    output.append(buffer, static_cast<std::size_t>(n));
    if (output.size() >= limit)
      break; // not the short answer a Python gives
  }
  ::close(pipe_ends[0]);
  if (!ended)
    (void)kill(child, SIGKILL);
  int status = 0;
  pid_t reaped;
  while ((reaped = waitpid(child, &status, 0)) < 0 && errno == EINTR) {
  }
  if (reaped != child || !ended)
    return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
} // namespace

void *open_local(const fs::path &path, std::string &error) { return open_with(path, RTLD_NOW | RTLD_LOCAL, error); }

void *open_global(const fs::path &path, std::string &error) { return open_with(path, RTLD_NOW | RTLD_GLOBAL, error); }

void *find_symbol(void *library, const char *name) { return dlsym(library, name); }

void close(void *library) { (void)dlclose(library); }

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

std::vector<std::string> python_program_names() { return {"python3", "python"}; }

fs::path venv_program(const fs::path &folder) { return folder / "bin" / "python"; }

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
  int spawned = posix_spawn_file_actions_init(&actions);
  if (spawned == 0) {
    const bool prepared =
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0) == 0 &&
        posix_spawn_file_actions_adddup2(&actions, pipe_ends[1], STDOUT_FILENO) == 0 &&
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0) == 0;
    pid_t child = 0;
    spawned = prepared ? posix_spawn(&child, program.c_str(), &actions, nullptr, argv.data(), environ) : -1;
    posix_spawn_file_actions_destroy(&actions);
    if (spawned == 0) {
      run.started = true;
      run.status = read_and_wait(child, pipe_ends, run.output);
    }
  }
  if (!run.started) {
    ::close(pipe_ends[0]);
    ::close(pipe_ends[1]);
  }
  return run;
}

} // namespace kest::python::platform
