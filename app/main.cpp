// sarvode: the host application. It loads its extensions, runs their start-up
// handlers, and runs Python through the host's language interface: a script
// file, a module (-m), the standard input (-) or code (-c) as python3 runs
// them, the host's own evaluation of statements (--exec) or of an expression
// (-e), or an interactive console.

#include "command_line.hpp"
#include "cpython_functions.hpp"
#include "demo/demo_module.hpp"
#include "extensions.hpp"
#include "model_report.hpp"
#include "process_signals.hpp"
#include "python_options.hpp"
#include "python_runner.hpp"
#include "run_timeout.hpp"
#include "script_runner.hpp"
#include "stub_writer.hpp"
#include "text_locale.hpp"
#include "user_folder.hpp"

#include <kest/init.hpp>
#include <kest/python.hpp>

#include <CLI/CLI.hpp>

#include <cerrno>
#include <iostream>
#include <unistd.h>

namespace {
// Exit statuses of sarvode itself: 2 a usage error, 3 an extension that could
// not be loaded. The others are those of the Python code, as python3 gives them.
constexpr int exit_usage = 2;
constexpr int exit_extension_failed = 3;

int usage_error(const std::string &message) {
  std::cerr << "sarvode: " << message << "\n";
  return exit_usage;
}

/// --exec and -e: the host's own evaluation; its result printed as print() would.
int evaluate_and_show(const kest::I_Language &language, const std::string &code, bool expression,
                      const sarvode::run_options &options, const sarvode::run_timeout &timeout) {
  if (!expression)
    if (const int status = sarvode::check_syntax(language, options, code); status != 0)
      return status;
  const auto value = sarvode::evaluate(language, code, expression, options);
  if (kest::Error::isInstance(value)) {
    if (timeout.fired()) {
      std::cerr << "<string>: error: KeyboardInterrupt\n";
      return sarvode::status_interrupted;
    }
    if (auto status = sarvode::requested_exit(std::cerr, kest::Error::unsafeFrom(value)))
      return *status;
    sarvode::print_error_and_stack(std::cerr, "<string>", kest::Error::unsafeFrom(value));
    return 1;
  }
  return sarvode::show_value(language, options, value);
}
} // namespace

int main(int argc, char **argv) {
  // Before anything can write: a closed pipe must fail a write, not end us.
  sarvode::ignore_write_signals();

  const std::vector<std::string> host_argv(argv, argv + argc);
  std::vector<std::string> arguments = host_argv;
  auto target = sarvode::split_script_target(arguments);
  std::vector<const char *> own_arguments;
  for (const auto &argument : arguments)
    own_arguments.push_back(argument.c_str());

  CLI::App app{"sarvode - a host application with a dynamic object model and a Python language.\n"
               "Runs FILE, a module (-m), the standard input (-) or CODE (-c) as python3 does; or, through\n"
               "the host's evaluation, statements whose 'return' gives the result (--exec) or EXPR (-e);\n"
               "with no arguments on a terminal it opens a console.",
               "sarvode"};
  bool show_version = false, show_model = false, all_modules = false, interactive = false;
  std::string code, command, expression, module_name, stubs_dir;
  sarvode::run_options options;
  std::string extensions_dir = sarvode::default_extensions_directory();
  app.add_flag("--version", show_version, "Print the version and exit");
  app.add_flag("--show-model", show_model, "Print the modules, classes and functions of the object model");
  app.add_flag("--all-modules", all_modules,
               "With --show-model: first add every installed top-level Python module under \"python\"")
      ->needs("--show-model");
  auto *stubs = app.add_option("--stubs", stubs_dir,
                 "Write Python type stubs (.pyi) of the host modules (kest, kest.*) under DIR and exit")
      ->option_text("DIR");
  app.add_option("--extensions", extensions_dir, "Folder to load extensions from")->capture_default_str();
  std::string python_path;
  app.add_option("--python", python_path,
                 "Run with this Python: a python3 program, a virtual environment's bin/python, or a "
                 "libpython3.X.so (default: $SARVODE_PYTHON, else $VIRTUAL_ENV's, else the build's)")
      ->option_text("PATH");
  auto *command_option =
      app.add_option("-c", command, "Run CODE as __main__, as python3 -c; the arguments after it are its own");
  auto *c = app.add_option("--exec", code,
                           "Run CODE through the host's statement evaluation (a function body; 'return' gives the "
                           "printed result)");
  auto *e = app.add_option("-e", expression, "Evaluate EXPR as a Python expression and print it");
  app.add_option("-m", module_name, "Run library module MODULE as a script; the arguments after it are its own");
  app.add_flag("-i", interactive, "Open the interactive console (after FILE, -m, -c or -, as python3 -i)");
  // python3's own options, through the environment the interpreter reads at its start.
  sarvode::python_options python_flags;
  app.add_flag("-u", python_flags.unbuffered, "Unbuffered standard output and error, as python3 -u");
  app.add_flag("-B", python_flags.no_bytecode, "Write no .pyc files on import, as python3 -B");
  app.add_flag("-O", python_flags.optimize, "Remove assert statements (-OO: docstrings too), as python3 -O");
  app.add_option("-W", python_flags.warnings, "Warning control, as python3 -W ARG")->allow_extra_args(false);
  app.add_option("-X", python_flags.x_options, "Implementation option, as python3 -X ARG")->allow_extra_args(false);
  app.add_flag("-s", python_flags.no_user_site, "Leave the user's site-packages off sys.path, as python3 -s");
  app.add_flag("-E", python_flags.ignore_environment, "Not supported (python3 -E)");
  app.add_flag("-I", python_flags.isolated, "Not supported (python3 -I)");
  app.add_flag("-S", python_flags.no_site, "Not supported (python3 -S)");
  app.add_flag("--sandbox", options.sandbox, "Run in the read-only sandbox");
  app.add_flag("--show-class", options.show_class, "Print the result's qualified class name before it");
  app.add_flag("--host-log", options.host_log,
               "Send the Python logging of FILE, -m, -c, - and the console to the host log, as for --exec and -e");
  double timeout_seconds = 0;
  app.add_option("--timeout", timeout_seconds,
                 "Interrupt the run after SECONDS (KeyboardInterrupt at the running line) and exit with status 124")
      ->check(CLI::PositiveNumber);
  app.footer("FILE [ARG...]   run FILE as __main__ (a folder or zip archive with __main__.py too)\n"
             "- [ARG...]      run the script read from standard input");
  app.prefix_command(); // FILE and everything after it belong to the script
  try {
    app.parse(static_cast<int>(own_arguments.size()), own_arguments.data());
  } catch (const CLI::ParseError &error) {
    const int status = app.exit(error);
    return status == 0 ? 0 : exit_usage;
  }
  if (command_option->count() > 0 && !target) // a -c that split_script_target did not reach
    target = sarvode::script_target{sarvode::script_target::kind::command, command, {}};
  auto script = app.remaining();
  if (!script.empty() && script.front() == "--")
    script.erase(script.begin()); // python3's end of options: FILE follows

  const bool runs_script = !script.empty() || target.has_value();
  const int modes = (c->count() > 0) + (e->count() > 0) + (!script.empty()) + target.has_value();
  if (modes > 1 || (interactive && (c->count() > 0 || e->count() > 0)))
    return usage_error(
        "use only one of FILE, -m, -c, -, --exec and -e, and -i only with the first four (see --help)");
  if (auto refused = sarvode::refused_option(python_flags))
    return usage_error(*refused);
  options.inspect = interactive && runs_script;
  if (!script.empty() && access(script.front().c_str(), R_OK) != 0)
    return usage_error(sarvode::cannot_open_message(script.front(), errno));

  const auto environment_changes = sarvode::apply_python_options(python_flags);
  if (auto invalid = sarvode::invalid_python_environment()) {
    std::cerr << "sarvode: " << *invalid << "\n";
    return 1; // python3's status when it cannot start
  }
  sarvode::coerce_c_locale(); // before Python starts, as python3 does
  if (c->count() == 0 && e->count() == 0 && !show_model && !options.host_log)
    sarvode::leave_python_logging_alone(); // a script's logging is python3's, and logging is not imported for it
  const auto print_version_head = [] {
    std::cout << "sarvode " << SARVODE_VERSION << "\n"
              << "serves Python " << kest::python::oldest_python() << " and later (stable ABI)\n";
  };
  // The Python library first: the extension links none and uses this one.
  if (auto python = kest::python::load_interpreter(python_path, "--python"); python.isError()) {
    const auto why = python.as<kest::Error>().message().toUtf8();
    if (show_version) { // what it can say, and why no Python runs
      print_version_head();
      std::cout << "running no Python: " << why << "\n";
      return 1;
    }
    std::cerr << "sarvode: " << why << "\n";
    return 1; // python3's status when it cannot start
  }
  auto loaded = sarvode::load_extensions(extensions_dir);
  if (!loaded.error.empty()) {
    std::cerr << "sarvode: " << loaded.error << "\n";
    return exit_extension_failed;
  }
  sarvode::demo::register_demo_module();
  kest::internal::run_init_handlers();

  if (show_version) {
    const auto python = kest::python::loaded_interpreter();
    print_version_head();
    std::cout << "running Python " << python.version << " (" << python.library << ")\n";
    return 0;
  }
  if (stubs->count() > 0) {
    auto written = sarvode::write_stubs(stubs_dir);
    if (written.error) {
      std::cerr << "sarvode: --stubs: " << *written.error << "\n";
      return 1;
    }
    for (auto &file : written.files)
      std::cout << file.string() << "\n";
    return 0;
  }
  if (show_model) {
    if (all_modules) {
      auto language = sarvode::python_language();
      if (!language) {
        std::cerr << "sarvode: the Python language extension registered no Python language\n";
        return exit_extension_failed;
      }
      // The language's own catalogue: a host module for every installed top-level Python module.
      auto import_all = kest::method_of(*language, kest::meta_method_untyped("importAllModules"));
      if (import_all.is<kest::I_Callable_Generic>())
        (void)import_all.as<kest::I_Callable_Generic>().callWith({*language});
    }
    sarvode::print_model(std::cout);
    return 0;
  }
  auto language = sarvode::python_language();
  if (!language) {
    std::cerr << "sarvode: the Python language extension registered no Python language\n";
    return exit_extension_failed;
  }

  std::vector<std::string> request;
  if (target && target->what == sarvode::script_target::kind::module)
    request = {"module", target->name};
  else if (target && target->what == sarvode::script_target::kind::command)
    request = {"command", target->name};
  else if (target)
    request = {"stdin", "-"};
  else if (!script.empty())
    request = {"file", script.front()};
  else if (c->count() == 0 && e->count() == 0 && !interactive && !isatty(STDIN_FILENO))
    request = {"stdin", ""}; // a script piped in, as python3 runs it
  else if (c->count() == 0 && e->count() == 0)
    request = {"console", sarvode::console_history_file()};
  if (target)
    request.insert(request.end(), target->args.begin(), target->args.end());
  else if (!script.empty())
    request.insert(request.end(), script.begin() + 1, script.end());

  int status = 0;
  sarvode::keep_standard_sleep(); // Ctrl-C and --timeout reach a sleep by SIGINT, as under python3
  sarvode::prepare_python(*language, options, environment_changes, python_flags.x_options);
  sarvode::run_timeout timeout(timeout_seconds);
  if (c->count() > 0)
    status = evaluate_and_show(*language, code, false, options, timeout);
  else if (e->count() > 0)
    status = evaluate_and_show(*language, expression, true, options, timeout);
  else
    status = sarvode::run_request(*language, options, request, host_argv);
  timeout.stop();
  status = sarvode::finish_run(*language, options, status);
  std::cout.flush();
  if (status == sarvode::status_interrupted && timeout.fired()) {
    std::cerr << "sarvode: the run took longer than " << timeout_seconds << " s and was interrupted\n";
    return sarvode::exit_timed_out;
  }
  if (status == sarvode::status_interrupted)
    return sarvode::end_by_interrupt();
  return status;
}
