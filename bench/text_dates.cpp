// HTTP date writing and reading against Poco's formatter and parser (and the C library's
// strftime for writing), and UTF-8 comparison throughput.
#include <benchmark/benchmark.h>

#include <Poco/DateTime.h>
#include <Poco/DateTimeFormat.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/DateTimeParser.h>
#include <Poco/Timestamp.h>

#include <ctime>
#include <random>
#include <string>
#include <vector>

#include <quma/DateTime.h>
#include <quma/DateUtils.h>
#include <quma/StringUtils.h>
#include <quma/Strings.h>

namespace {

constexpr std::size_t kInstants = 1024;

// Seconds since 1970 spread over 1970..2100.
const std::vector<std::time_t>& Seconds() {
  static const std::vector<std::time_t> v = [] {
    std::mt19937_64 rng(1);
    std::uniform_int_distribution<std::time_t> d(0, 4102444800);
    std::vector<std::time_t> out(kInstants);
    for (auto& t : out) t = d(rng);
    return out;
  }();
  return v;
}

const std::vector<quma::TDateTime>& DateTimes() {
  static const std::vector<quma::TDateTime> v = [] {
    std::vector<quma::TDateTime> out;
    for (std::time_t t : Seconds())
      out.push_back(quma::TimePointToDateTime(std::chrono::sys_seconds(std::chrono::seconds(t))));
    return out;
  }();
  return v;
}

const std::vector<std::string>& Texts8() {
  static const std::vector<std::string> v = [] {
    std::vector<std::string> out;
    for (quma::TDateTime d : DateTimes()) out.push_back(quma::GMTimeToHTTPDateUtf8(d));
    return out;
  }();
  return v;
}

const std::vector<quma::UnicodeString>& Texts16() {
  static const std::vector<quma::UnicodeString> v = [] {
    std::vector<quma::UnicodeString> out;
    for (const auto& s : Texts8()) out.push_back(quma::Utf8ToUtf16(s));
    return out;
  }();
  return v;
}

// --- writing ---------------------------------------------------------------------------------

void BM_Format_QUMA_GMTimeToHTTPDate(benchmark::State& state) {
  const auto& in = DateTimes();
  std::size_t i = 0;
  for (auto _ : state) {
    auto s = quma::GMTimeToHTTPDate(in[i++ & (kInstants - 1)]);
    benchmark::DoNotOptimize(s);
  }
}
BENCHMARK(BM_Format_QUMA_GMTimeToHTTPDate);

void BM_Format_QUMA_GMTimeToHTTPDateUtf8(benchmark::State& state) {
  const auto& in = DateTimes();
  std::size_t i = 0;
  for (auto _ : state) {
    auto s = quma::GMTimeToHTTPDateUtf8(in[i++ & (kInstants - 1)]);
    benchmark::DoNotOptimize(s);
  }
}
BENCHMARK(BM_Format_QUMA_GMTimeToHTTPDateUtf8);

void BM_Format_Poco_DateTimeFormatter(benchmark::State& state) {
  std::vector<Poco::Timestamp> in;
  for (std::time_t t : Seconds()) in.push_back(Poco::Timestamp::fromEpochTime(t));
  std::size_t i = 0;
  for (auto _ : state) {
    auto s = Poco::DateTimeFormatter::format(in[i++ & (kInstants - 1)], Poco::DateTimeFormat::HTTP_FORMAT);
    benchmark::DoNotOptimize(s);
  }
}
BENCHMARK(BM_Format_Poco_DateTimeFormatter);

void BM_Format_glibc_strftime(benchmark::State& state) {
  const auto& in = Seconds();
  std::size_t i = 0;
  for (auto _ : state) {
    std::tm tm;
    const std::time_t t = in[i++ & (kInstants - 1)];
    gmtime_r(&t, &tm);
    char buf[64];
    const std::size_t n = std::strftime(buf, sizeof buf, "%a, %d %b %Y %H:%M:%S GMT", &tm);
    std::string s(buf, n);
    benchmark::DoNotOptimize(s);
  }
}
BENCHMARK(BM_Format_glibc_strftime);

// --- reading ---------------------------------------------------------------------------------

void BM_Parse_QUMA_HTTPDateToGMTime(benchmark::State& state) {
  const auto& in = Texts16();
  std::size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(quma::HTTPDateToGMTime(in[i++ & (kInstants - 1)]));
}
BENCHMARK(BM_Parse_QUMA_HTTPDateToGMTime);

void BM_Parse_QUMA_HTTPDateToGMTimeUtf8(benchmark::State& state) {
  const auto& in = Texts8();
  std::size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(quma::HTTPDateToGMTime(std::string_view(in[i++ & (kInstants - 1)])));
}
BENCHMARK(BM_Parse_QUMA_HTTPDateToGMTimeUtf8);

void BM_Parse_Poco_DateTimeParser(benchmark::State& state) {
  const auto& in = Texts8();
  std::size_t i = 0;
  for (auto _ : state) {
    int tzd = 0;
    Poco::DateTime dt = Poco::DateTimeParser::parse(Poco::DateTimeFormat::HTTP_FORMAT, in[i++ & (kInstants - 1)], tzd);
    benchmark::DoNotOptimize(dt);
  }
}
BENCHMARK(BM_Parse_Poco_DateTimeParser);

// --- UTF-8 comparison ------------------------------------------------------------------------

std::string Text1KiB(bool multibyte) {
  // ASCII prose, or prose mixed with 2-, 3- and 4-byte characters.
  const std::string piece = multibyte ? "Gr\xC3\xBC\xC3\x9F"
                                        "e \xE2\x82\xAC 12 \xF0\x9F\x98\x80 caf\xC3\xA9, "
                                      : "The quick brown fox jumps. ";
  std::string s;
  while (s.size() + piece.size() <= 1024) s += piece;
  s.append(1024 - s.size(), 'x');
  return s;
}

void BM_UTF8CompareStr_Ascii1KiB(benchmark::State& state) {
  const std::string a = Text1KiB(false), b = a;
  for (auto _ : state) benchmark::DoNotOptimize(quma::UTF8CompareStr(a, b));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 2 * 1024);
}
BENCHMARK(BM_UTF8CompareStr_Ascii1KiB);

void BM_UTF8CompareStr_Multibyte1KiB(benchmark::State& state) {
  const std::string a = Text1KiB(true), b = a;
  for (auto _ : state) benchmark::DoNotOptimize(quma::UTF8CompareStr(a, b));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 2 * 1024);
}
BENCHMARK(BM_UTF8CompareStr_Multibyte1KiB);

void BM_UTF8CompareStr_Utf8VsUtf16_Ascii1KiB(benchmark::State& state) {
  const std::string a = Text1KiB(false);
  const quma::UnicodeString b = quma::Utf8ToUtf16(a);
  for (auto _ : state) benchmark::DoNotOptimize(quma::UTF8CompareStr(a, b));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * (1024 + 2048));
}
BENCHMARK(BM_UTF8CompareStr_Utf8VsUtf16_Ascii1KiB);

}  // namespace

BENCHMARK_MAIN();
