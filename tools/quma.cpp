// quma: the library's readers and writers on the command line, in the manner of coreutils.
//
// Exit status: 0 success, 1 bad input (a value or file the library rejects), 2 bad usage.
// Errors are one line on stderr: "quma: <what>: <why>". Input comes from the named files or, for
// "-" and when none is named, from standard input; output goes to standard output.
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "ToolSupport.h"

using namespace quma;
using namespace quma::tool;

int main(int argc, char** argv) {
  CLI::App app{"Command-line access to the QUMALib.Utils value types, encoders and parsers.", "quma"};
  app.set_version_flag("--version", std::string("quma (QUMALib.Utils) ") + QUMA_VERSION_STRING);
  app.require_subcommand(1);
  app.fallthrough();

  TCommands commands;
  RegisterValueCommands(app, commands);
  RegisterTextCommands(app, commands);

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    // One line, naming what was wrong; --help tells the rest.
    std::fprintf(stderr, "quma: %s (see quma --help)\n", e.what());
    return 2;
  }
  for (auto& [sub, run] : commands)
    if (sub->parsed()) return RunGuarded(run);
  return 2;
}
