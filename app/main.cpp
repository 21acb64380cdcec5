// sarvode: the host application. It loads its extensions, runs their start-up
// handlers, and runs Python through the host's language interface: a script
// file, code (-c), an expression (-e), or an interactive console.

#include "console.hpp"
#include "demo/demo_module.hpp"
#include "extensions.hpp"
#include "model_report.hpp"
#include "python_runner.hpp"

#include <kest/init.hpp>

#include <CLI/CLI.hpp>

#include <fstream>
#include <iostream>
#include <sstream>
#include <unistd.h>

namespace {
// Exit statuses: 0 success, 1 an evaluation error (from run_and_report), 2 a
// usage error, 3 an extension that could not be loaded.
constexpr int exit_usage = 2;
constexpr int exit_extension_failed = 3;

int usage_error(const std::string &message) {
  std::cerr << "sarvode: " << message << "\n";
  return exit_usage;
}

/// sys.argv for a script: the file, then its arguments.
void set_argv(const kest::I_Language &language, const std::vector<std::string> &argv) {
  std::vector<kest::Any> items;
  for (const auto &arg : argv)
    items.emplace_back(kest::String::fromUtf8(arg));
  kest::HashMap locals(kest::String::getType(), kest::Type());
  (void)locals.setChecked(kest::String(u"argv"), kest::Tuple(std::move(items)));
  kest::EvaluationScope scope(kest::Any(), kest::None(), kest::I_Map::unsafeFrom(locals), kest::None());
  (void)language.evaluate(kest::String(u"import sys\nsys.argv = list(argv)"), scope);
}
} // namespace

int main(int argc, char **argv) {
  CLI::App app{"sarvode - a host application with a dynamic object model and a Python language.\n"
               "Runs FILE as Python statements (a top-level 'return' gives the result), or CODE, or EXPR;\n"
               "with no arguments on a terminal it opens a console.",
               "sarvode"};
  bool show_version = false, show_model = false, interactive = false;
  std::string code, expression;
  sarvode::run_options options;
  std::string extensions_dir = sarvode::default_extensions_directory();
  app.add_flag("--version", show_version, "Print the version and exit");
  app.add_flag("--show-model", show_model, "Print the modules, classes and functions of the object model");
  app.add_option("--extensions", extensions_dir, "Folder to load extensions from")->capture_default_str();
  auto *c = app.add_option("-c", code, "Run CODE as Python statements");
  auto *e = app.add_option("-e", expression, "Evaluate EXPR as a Python expression");
  app.add_flag("-i", interactive, "Open the interactive console");
  app.add_flag("--sandbox", options.sandbox, "Run in the read-only sandbox");
  app.add_flag("--show-class", options.show_class, "Print the result's qualified class name before it");
  app.prefix_command(); // FILE and everything after it belong to the script
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    const int status = app.exit(error);
    return status == 0 ? 0 : exit_usage;
  }
  const auto script = app.remaining();
  const int modes = (c->count() > 0) + (e->count() > 0) + (!script.empty()) + interactive;
  if (modes > 1)
    return usage_error("use only one of FILE, -c, -e and -i (see --help)");

  auto loaded = sarvode::load_extensions(extensions_dir);
  if (!loaded.error.empty()) {
    std::cerr << "sarvode: " << loaded.error << "\n";
    return exit_extension_failed;
  }
  sarvode::demo::register_demo_module();
  kest::internal::run_init_handlers();

  if (show_version) {
    std::cout << "sarvode " << SARVODE_VERSION << "\n";
    return 0;
  }
  if (show_model) {
    sarvode::print_model(std::cout);
    return 0;
  }
  auto language = sarvode::python_language();
  if (!language) {
    std::cerr << "sarvode: the Python extension registered no Python language\n";
    return exit_extension_failed;
  }
  if (c->count() > 0)
    return sarvode::run_and_report(*language, "<string>", code, false, {}, options, std::cout, std::cerr);
  if (e->count() > 0)
    return sarvode::run_and_report(*language, "<string>", expression, true, {}, options, std::cout, std::cerr);
  if (!script.empty()) {
    std::ifstream file(script.front(), std::ios::binary);
    if (!file)
      return usage_error("cannot read " + script.front());
    std::ostringstream text;
    text << file.rdbuf();
    set_argv(*language, script);
    return sarvode::run_and_report(*language, script.front(), text.str(), false, {}, options, std::cout, std::cerr);
  }
  if (interactive || isatty(STDIN_FILENO))
    return sarvode::run_console(*language, options, std::cin, std::cout, std::cerr, isatty(STDIN_FILENO) != 0);
  // Statements piped in on standard input.
  std::ostringstream text;
  text << std::cin.rdbuf();
  return sarvode::run_and_report(*language, "<stdin>", text.str(), false, {}, options, std::cout, std::cerr);
}
