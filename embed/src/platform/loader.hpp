#pragma once
// What loading Python needs from the operating system: libraries, symbols and
// a short run of another program. One file per system beside this one.

#include <filesystem>
#include <string>
#include <vector>

namespace kest::python::platform {

/// Opens a library for the extension: its symbols stay its own.
void *open_local(const std::filesystem::path &path, std::string &error);
/// Opens the Python library so that the extension, loaded after it, and
/// Python's own extension modules find its symbols.
void *open_global(const std::filesystem::path &path, std::string &error);
void *find_symbol(void *library, const char *name);
/// Gives back a library opened here.
void close(void *library);
/// A symbol of a library the process has already loaded, or null.
void *find_loaded_symbol(const char *name);
/// The file of the library that holds `address`; empty when unknown.
std::filesystem::path library_of(const void *address);

/// The file names the shared Python library of version `major.minor` may have.
std::vector<std::string> python_library_names(int major, int minor);
/// The names of an installation's Python program ("python3", "python").
std::vector<std::string> python_program_names();
/// The Python program of the virtual environment in `folder`.
std::filesystem::path venv_program(const std::filesystem::path &folder);
/// True when `path` names a shared library rather than a program.
bool looks_like_library(const std::filesystem::path &path);

struct program_run {
  bool started = false; ///< false: the program could not be run at all
  int status = -1;      ///< the exit status; -1 when it did not exit normally
  std::string output;   ///< its standard output (at most 64 KiB)
};
/// Runs `program` with `arguments`, standard input empty, standard error
/// discarded; a program still running after 30 seconds is ended.
program_run run_program(const std::filesystem::path &program, const std::vector<std::string> &arguments);

} // namespace kest::python::platform
