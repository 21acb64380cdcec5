// sarvode: the host application.

#include "model_report.hpp"

#include <kest/init.hpp>

#include <CLI/CLI.hpp>

#include <iostream>

int main(int argc, char **argv) {
  CLI::App app{"sarvode - a host application with a dynamic object model and scripting languages"};
  app.set_version_flag("--version", std::string("sarvode ") + SARVODE_VERSION);
  bool show_model = false;
  app.add_flag("--show-model", show_model, "Print the modules, classes and functions of the object model");
  CLI11_PARSE(app, argc, argv);

  kest::internal::run_init_handlers();
  if (show_model) {
    sarvode::print_model(std::cout);
    return 0;
  }
  std::cout << app.help();
  return 0;
}
