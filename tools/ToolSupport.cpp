#include "ToolSupport.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include <quma/SysUtils.h>

namespace quma::tool {

namespace {

constexpr std::size_t kBlock = 1 << 16;
// Inputs below this size finish too quickly for a progress bar to help.
constexpr std::size_t kProgressThreshold = 16u << 20;

long long NowMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace

int RunGuarded(const std::function<void()>& run) {
  try {
    run();
    std::fflush(stdout);
    return 0;
  } catch (const Exception& e) {
    std::fprintf(stderr, "quma: %s\n", e.what());
  } catch (const TToolError& e) {
    std::fprintf(stderr, "quma: %s\n", e.what());
  } catch (const std::exception& e) {
    std::fprintf(stderr, "quma: %s\n", e.what());
  }
  return 1;
}

TInput::TInput(std::string name, bool progress) : FName(std::move(name)), FBuffer(kBlock) {
  if (FName != "-") {
    FFd = ::open(FName.c_str(), O_RDONLY | O_CLOEXEC);
    if (FFd < 0) throw TToolError(FName + ": " + std::strerror(errno));
    struct stat st {};
    if (::fstat(FFd, &st) == 0 && S_ISDIR(st.st_mode)) {
      ::close(FFd);
      throw TToolError(FName + ": Is a directory");
    }
    if (::fstat(FFd, &st) == 0 && S_ISREG(st.st_mode)) FSize = static_cast<std::size_t>(st.st_size);
  }
  const bool interactive = IsStdin() && ::isatty(0);
  FProgress = std::make_unique<TProgress>(FName == "-" ? "stdin" : FName, FSize, progress && !interactive);
}

TInput::~TInput() {
  if (FFd > 0) ::close(FFd);
}

std::span<const Byte> TInput::Next() {
  for (;;) {
    const ssize_t n = ::read(FFd, FBuffer.data(), FBuffer.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      throw TToolError(FName + ": " + std::strerror(errno));
    }
    FConsumed += static_cast<std::size_t>(n);
    FProgress->Update(FConsumed);
    return {FBuffer.data(), static_cast<std::size_t>(n)};
  }
}

std::string TInput::ReadAll() {
  std::string all;
  for (auto block = Next(); !block.empty(); block = Next()) all.append(reinterpret_cast<const char*>(block.data()), block.size());
  return all;
}

TProgress::TProgress(std::string label, std::size_t total, bool wanted)
    : FLabel(std::move(label)), FTotal(total), FEnabled(wanted && ::isatty(2) && (total == 0 || total >= kProgressThreshold)),
      FStart(NowMs()) {}

TProgress::~TProgress() {
  if (FLastDraw != 0) std::fputs("\r\033[K", stderr);
}

void TProgress::Update(std::size_t done) {
  if (!FEnabled) return;
  const long long now = NowMs();
  if (now - FStart < 300 || now - FLastDraw < 100) return;
  FLastDraw = now;
  if (FTotal > 0) {
    const int width = 30;
    const double part = std::min(1.0, static_cast<double>(done) / static_cast<double>(FTotal));
    const int filled = static_cast<int>(part * width);
    std::fprintf(stderr, "\r[%.*s%.*s] %3d%% %s", filled, "##############################", width - filled,
                 "..............................", static_cast<int>(part * 100), FLabel.c_str());
  } else {
    std::fprintf(stderr, "\r%zu MiB %s", done >> 20, FLabel.c_str());
  }
  std::fflush(stderr);
}

void Out(std::string_view text) {
  if (!text.empty() && std::fwrite(text.data(), 1, text.size(), stdout) != text.size())
    throw TToolError(std::string("write error: ") + std::strerror(errno));
}

}  // namespace quma::tool
