// Value codecs against their peers, in one run: CRC-32 (zlib), UUID text (libuuid, Boost.Uuid),
// Base32 (Poco) and hex text. Every pair checks first that both sides give the same result.
#include <quma/CRC32.h>
#include <quma/HexStrings.h>
#include <quma/QUMANetEncoding.h>
#include <quma/Uuid.h>

#include <Poco/Base32Decoder.h>
#include <Poco/Base32Encoder.h>
#include <benchmark/benchmark.h>
#include <boost/uuid/string_generator.hpp>
#include <boost/uuid/uuid.hpp>
#include <uuid/uuid.h>
#include <zlib.h>

#include <cstring>
#include <random>
#include <sstream>
#include <vector>

namespace {

using namespace quma;

std::vector<Byte> RandomBytes(std::size_t n, unsigned seed = 42) {
  std::mt19937_64 rng(seed);
  std::vector<Byte> v(n);
  for (auto& b : v) b = static_cast<Byte>(rng());
  return v;
}

// ---- CRC-32 ----

void BM_CRC32_Quma(benchmark::State& state) {
  const auto data = RandomBytes(static_cast<std::size_t>(state.range(0)));
  const auto n = static_cast<Cardinal>(data.size());
  if (CRC32(data.data(), n, 0xFFFFFFFFu) != crc32(0L, data.data(), n)) state.SkipWithError("differs from zlib");
  for (auto _ : state) benchmark::DoNotOptimize(CRC32(data.data(), n, 0xFFFFFFFFu));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

void BM_CRC32_Zlib(benchmark::State& state) {
  const auto data = RandomBytes(static_cast<std::size_t>(state.range(0)));
  const auto n = static_cast<uInt>(data.size());
  for (auto _ : state) benchmark::DoNotOptimize(crc32(0L, data.data(), n));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

BENCHMARK(BM_CRC32_Quma)->Arg(64)->Arg(1 << 20);
BENCHMARK(BM_CRC32_Zlib)->Arg(64)->Arg(1 << 20);

// CRC-32C has no peer among the yardsticks; its target is an absolute rate (10 GB/s at 1 MiB).
void BM_CRC32C_Quma(benchmark::State& state) {
  const auto data = RandomBytes(static_cast<std::size_t>(state.range(0)));
  const auto n = static_cast<Cardinal>(data.size());
  if (CRC32C(data.data(), n) != CRC32CWithKernel(TCRC32CKernel::Table, data.data(), n))
    state.SkipWithError("kernels differ");
  for (auto _ : state) benchmark::DoNotOptimize(CRC32C(data.data(), n));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_CRC32C_Quma)->Arg(64)->Arg(1 << 20);

// ---- UUID text ----

TQUMA_Uuid SampleUuid() {
  TQUMA_Uuid u;
  u.Randomise();
  return u;
}

void BM_UuidFormatStandard_Quma(benchmark::State& state) {
  const TQUMA_Uuid u = SampleUuid();
  char ref[37];
  uuid_unparse_lower(u._baUuid, ref);
  if (u.FormatUtf8() != ref) state.SkipWithError("differs from libuuid");
  for (auto _ : state) {
    UnicodeString s = u.Format(u"");
    benchmark::DoNotOptimize(s.data());
  }
}

void BM_UuidFormatStandard_Libuuid(benchmark::State& state) {
  const TQUMA_Uuid u = SampleUuid();
  char out[37];
  for (auto _ : state) {
    uuid_unparse_lower(u._baUuid, out);
    benchmark::DoNotOptimize(out);
    benchmark::ClobberMemory();
  }
}

// The same text into a caller's buffer, no allocation (libuuid's form is the same kind).
void BM_UuidFormatStandardInto_Quma(benchmark::State& state) {
  const TQUMA_Uuid u = SampleUuid();
  char16_t out[TQUMA_Uuid::MaxTextLength];
  if (UnicodeString(out, u.FormatTo(out)) != u.Format()) state.SkipWithError("differs from Format");
  for (auto _ : state) {
    benchmark::DoNotOptimize(u.FormatTo(out));
    benchmark::DoNotOptimize(out);
    benchmark::ClobberMemory();
  }
}

BENCHMARK(BM_UuidFormatStandard_Quma);
BENCHMARK(BM_UuidFormatStandardInto_Quma);
BENCHMARK(BM_UuidFormatStandard_Libuuid);

// Time-ordered identifiers: version 7 here, libuuid's time-based version 1 (the installed Boost
// has no version-7 generator).
void BM_UuidGenerateV7_Quma(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(TQUMA_Uuid::CreateV7());
}

void BM_UuidGenerateTime_Libuuid(benchmark::State& state) {
  uuid_t out;
  for (auto _ : state) {
    uuid_generate_time(out);
    benchmark::DoNotOptimize(out);
    benchmark::ClobberMemory();
  }
}

BENCHMARK(BM_UuidGenerateV7_Quma);
BENCHMARK(BM_UuidGenerateTime_Libuuid);

void BM_UuidReadStandard_Quma(benchmark::State& state) {
  const TQUMA_Uuid u = SampleUuid();
  const UnicodeString text = u.Format();
  for (auto _ : state) {
    TQUMA_Uuid r = TQUMA_Uuid::Create(UnicodeStringView(text));
    benchmark::DoNotOptimize(r);
  }
}

void BM_UuidReadStandardUtf8_Quma(benchmark::State& state) {
  const TQUMA_Uuid u = SampleUuid();
  const std::string text = u.FormatUtf8();
  for (auto _ : state) {
    TQUMA_Uuid r = TQUMA_Uuid::Create(std::string_view(text));
    benchmark::DoNotOptimize(r);
  }
}

void BM_UuidReadStandard_Boost(benchmark::State& state) {
  const TQUMA_Uuid u = SampleUuid();
  const std::string text = u.FormatUtf8();
  boost::uuids::string_generator gen;
  if (std::memcmp(gen(text).data, u._baUuid, 16) != 0) state.SkipWithError("differs from Boost");
  for (auto _ : state) {
    boost::uuids::uuid r = gen(text);
    benchmark::DoNotOptimize(r);
  }
}

BENCHMARK(BM_UuidReadStandard_Quma);
BENCHMARK(BM_UuidReadStandardUtf8_Quma);
BENCHMARK(BM_UuidReadStandard_Boost);

// ---- Base32, 1 MiB of binary data ----

constexpr std::size_t kMiB = 1 << 20;

std::string PocoEncode(const std::string& raw) {
  std::ostringstream out;
  Poco::Base32Encoder enc(out);
  enc.write(raw.data(), static_cast<std::streamsize>(raw.size()));
  enc.close();
  return out.str();
}

std::string PocoDecode(const std::string& text) {
  std::istringstream in(text);
  Poco::Base32Decoder dec(in);
  std::string r;
  r.reserve(text.size() * 5 / 8);
  char buf[4096];
  while (dec.read(buf, sizeof buf) || dec.gcount() > 0) r.append(buf, static_cast<std::size_t>(dec.gcount()));
  return r;
}

void BM_Base32Encode_Quma(benchmark::State& state) {
  const auto bytes = RandomBytes(kMiB);
  const UnicodeString input(bytes.begin(), bytes.end());  // one byte per code unit
  TQUMABase32Encoding* b32 = TQUMANetEncoding::Base32Encoding();
  const UnicodeString mine = b32->Encode(input);
  if (std::string(mine.begin(), mine.end()) != PocoEncode(std::string(bytes.begin(), bytes.end())))
    state.SkipWithError("differs from Poco");
  for (auto _ : state) {
    UnicodeString s = b32->Encode(input);
    benchmark::DoNotOptimize(s.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kMiB));
}

void BM_Base32Encode_Poco(benchmark::State& state) {
  const auto bytes = RandomBytes(kMiB);
  const std::string raw(bytes.begin(), bytes.end());
  for (auto _ : state) {
    std::string s = PocoEncode(raw);
    benchmark::DoNotOptimize(s.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kMiB));
}

void BM_Base32Decode_Quma(benchmark::State& state) {
  const auto bytes = RandomBytes(kMiB);
  TQUMABase32Encoding* b32 = TQUMANetEncoding::Base32Encoding();
  const UnicodeString text = b32->Encode(UnicodeString(bytes.begin(), bytes.end()));
  const UnicodeString back = b32->Decode(text);
  if (std::string(back.begin(), back.end()) != PocoDecode(std::string(text.begin(), text.end())))
    state.SkipWithError("differs from Poco");
  for (auto _ : state) {
    UnicodeString s = b32->Decode(text);
    benchmark::DoNotOptimize(s.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kMiB));
}

void BM_Base32Decode_Poco(benchmark::State& state) {
  const auto bytes = RandomBytes(kMiB);
  const std::string text = PocoEncode(std::string(bytes.begin(), bytes.end()));
  for (auto _ : state) {
    std::string s = PocoDecode(text);
    benchmark::DoNotOptimize(s.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kMiB));
}

BENCHMARK(BM_Base32Encode_Quma)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Base32Encode_Poco)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Base32Decode_Quma)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Base32Decode_Poco)->Unit(benchmark::kMicrosecond);

// ---- hex text, 1 MiB of binary data ----

void BM_BytesToHexString_Quma(benchmark::State& state) {
  const auto bytes = RandomBytes(kMiB);
  for (auto _ : state) {
    UnicodeString s = BytesToHexString(bytes);
    benchmark::DoNotOptimize(s.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kMiB));
}

void BM_HexStringToBytes_Quma(benchmark::State& state) {
  const TBytes bytes = RandomBytes(kMiB);
  const UnicodeString text = BytesToHexString(bytes);
  if (HexStringToBytes(text) != bytes) state.SkipWithError("round trip failed");
  TBytes out;
  for (auto _ : state) {
    HexStringToBytes(text, out);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kMiB));
}

BENCHMARK(BM_BytesToHexString_Quma)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_HexStringToBytes_Quma)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
