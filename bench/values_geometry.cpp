// Float text with the host's rounding (Format "%.2f", FloatToStr) and the rectangle text form,
// against the C library's printf family and std::to_chars, which round ties to even.
#include <benchmark/benchmark.h>

#include <charconv>
#include <cstdio>
#include <random>
#include <vector>

#include <quma/FormatSettings.h>
#include <quma/Strings.h>
#include <quma/Types.h>

namespace {

constexpr std::size_t kValues = 1024;

// Every fourth value lies exactly halfway at two decimals (k / 8 with k odd), the case where the
// host's rounding needs the exact expansion.
const std::vector<double>& Values() {
  static const std::vector<double> v = [] {
    std::mt19937_64 rng(7);
    std::uniform_real_distribution<double> d(-1e6, 1e6);
    std::vector<double> out(kValues);
    for (std::size_t i = 0; i < kValues; ++i) out[i] = i % 4 == 0 ? static_cast<double>(2 * i + 1) / 8 : d(rng);
    return out;
  }();
  return v;
}

void BM_Format2f_Quma(benchmark::State& state) {
  std::size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(quma::Format(u"%.2f", Values()[i++ % kValues]));
}
BENCHMARK(BM_Format2f_Quma);

void BM_Format2f_Snprintf(benchmark::State& state) {
  std::size_t i = 0;
  char buf[64];
  for (auto _ : state) {
    const int n = std::snprintf(buf, sizeof buf, "%.2f", Values()[i++ % kValues]);
    benchmark::DoNotOptimize(quma::UnicodeString(buf, buf + n));
  }
}
BENCHMARK(BM_Format2f_Snprintf);

void BM_FloatToStr_Quma(benchmark::State& state) {
  std::size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(quma::FloatToStr(Values()[i++ % kValues]));
}
BENCHMARK(BM_FloatToStr_Quma);

void BM_FloatToStr_ToChars(benchmark::State& state) {
  std::size_t i = 0;
  char buf[64];
  for (auto _ : state) {
    const auto r = std::to_chars(buf, buf + sizeof buf, Values()[i++ % kValues], std::chars_format::general, 15);
    benchmark::DoNotOptimize(quma::UnicodeString(buf, r.ptr));
  }
}
BENCHMARK(BM_FloatToStr_ToChars);

void BM_RectTextRoundTrip_Quma(benchmark::State& state) {
  std::size_t i = 0;
  for (auto _ : state) {
    const double* v = &Values()[i++ % (kValues - 4)];
    benchmark::DoNotOptimize(quma::Types::StringToRect(quma::RectToString(quma::TRectD(v[0], v[1], v[2], v[3]))));
  }
}
BENCHMARK(BM_RectTextRoundTrip_Quma);

void BM_RectTextRoundTrip_Stdio(benchmark::State& state) {
  std::size_t i = 0;
  char buf[128];
  for (auto _ : state) {
    const double* v = &Values()[i++ % (kValues - 4)];
    std::snprintf(buf, sizeof buf, "(%.15g,%.15g,%.15g,%.15g)", v[0], v[1], v[2], v[3]);
    double r[4];
    benchmark::DoNotOptimize(std::sscanf(buf, "(%lf,%lf,%lf,%lf)", &r[0], &r[1], &r[2], &r[3]));
  }
}
BENCHMARK(BM_RectTextRoundTrip_Stdio);

}  // namespace
BENCHMARK_MAIN();
