// sarvode: the host application.

#include "extensions.hpp"
#include "model_report.hpp"

#include <kest/init.hpp>

#include <CLI/CLI.hpp>

#include <iostream>

namespace {
constexpr int exit_extension_failed = 3;
}

int main(int argc, char **argv) {
  CLI::App app{"sarvode - a host application with a dynamic object model and scripting languages"};
  bool show_version = false;
  bool show_model = false;
  std::string extensions_dir = sarvode::default_extensions_directory();
  app.add_flag("--version", show_version, "Print the version and exit");
  app.add_flag("--show-model", show_model, "Print the modules, classes and functions of the object model");
  app.add_option("--extensions", extensions_dir, "Folder to load extensions from")->capture_default_str();
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &e) {
    const int code = app.exit(e);
    return code == 0 ? 0 : 2;
  }

  auto loaded = sarvode::load_extensions(extensions_dir);
  if (!loaded.error.empty()) {
    std::cerr << "sarvode: " << loaded.error << "\n";
    return exit_extension_failed;
  }
  kest::internal::run_init_handlers();

  if (show_version) {
    std::cout << "sarvode " << SARVODE_VERSION << "\n";
    return 0;
  }
  if (show_model) {
    sarvode::print_model(std::cout);
    return 0;
  }
  std::cout << app.help();
  return 0;
}
