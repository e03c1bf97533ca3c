// Shared plumbing of the quma tool: the sub-command table, error reporting, streaming input and
// the progress bar.
#pragma once

#include <cstddef>
#include <cstdio>
#include <functional>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include <quma/System.h>
#include <quma/Version.h>

namespace quma::tool {

// A sub-command and what runs when it was the one given.
using TCommands = std::vector<std::pair<CLI::App*, std::function<void()>>>;

void RegisterValueCommands(CLI::App& app, TCommands& commands);
void RegisterTextCommands(CLI::App& app, TCommands& commands);

// Bad input that the tool itself finds (a file that cannot be opened, a malformed argument); the
// text is the whole error line after "quma: ".
class TToolError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Runs one sub-command and turns every error into one line on stderr and exit status 1.
int RunGuarded(const std::function<void()>& run);

// A progress bar on stderr, drawn only when stderr is a terminal, for work of at least 16 MiB
// (or of unknown size) still running after 300 ms; at most ten frames a second. The line is
// cleared when the bar goes.
class TProgress {
 public:
  TProgress(std::string label, std::size_t total, bool wanted);
  ~TProgress();
  TProgress(const TProgress&) = delete;
  TProgress& operator=(const TProgress&) = delete;
  void Update(std::size_t done);

 private:
  std::string FLabel;
  std::size_t FTotal;
  bool FEnabled;
  long long FStart, FLastDraw = 0;
};

// An input named on the command line: a file, or standard input for "-". Reads in blocks, never
// the whole file at once, and draws a progress bar on a terminal for large inputs.
class TInput {
 public:
  explicit TInput(std::string name, bool progress = false);
  ~TInput();
  TInput(const TInput&) = delete;
  TInput& operator=(const TInput&) = delete;

  const std::string& Name() const noexcept { return FName; }
  bool IsStdin() const noexcept { return FFd == 0; }
  // The next block (empty at the end of the input). The span stays valid until the next call.
  std::span<const Byte> Next();
  // Everything that is left, as text.
  std::string ReadAll();
  std::size_t Consumed() const noexcept { return FConsumed; }

 private:
  std::string FName;
  int FFd = 0;
  std::vector<Byte> FBuffer;
  std::size_t FConsumed = 0;
  std::size_t FSize = 0;  // 0 when unknown
  std::unique_ptr<TProgress> FProgress;
};

// Writes all of text to standard output; raises TToolError when the output fails.
void Out(std::string_view text);

}  // namespace quma::tool
