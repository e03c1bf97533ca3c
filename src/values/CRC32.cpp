// CRC-32 core. Three paths with identical results:
//  - carry-less multiply folding (PCLMULQDQ) for blocks of 64 bytes and more, chosen at run time
//    because the library is built for generic x86-64;
//  - slicing by eight for the rest: eight derived tables, still one table look-up per byte;
//  - the byte-at-a-time loop over the standard table for short tails.
#include <quma/CRC32.h>

#include <array>
#include <cmath>
#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define QUMA_CRC32_X86 1
#endif

namespace quma {

namespace {

constexpr Cardinal kPolynomial = 0xEDB88320u;

using TSlicingTables = std::array<std::array<Cardinal, 256>, 8>;

constexpr TSlicingTables MakeTables() {
  TSlicingTables t{};
  for (Cardinal i = 0; i < 256; ++i) {
    Cardinal c = i;
    for (int k = 0; k < 8; ++k) c = (c & 1) ? (c >> 1) ^ kPolynomial : c >> 1;
    t[0][i] = c;
  }
  for (int s = 1; s < 8; ++s)
    for (Cardinal i = 0; i < 256; ++i) t[s][i] = (t[s - 1][i] >> 8) ^ t[0][t[s - 1][i] & 0xFF];
  return t;
}

alignas(64) constexpr TSlicingTables kTables = MakeTables();
static_assert(kTables[0][1] == 0x77073096u && kTables[0][255] == 0x2D02EF8Du);

inline Cardinal UpdateBytes(Cardinal c, const Byte* p, std::size_t n) noexcept {
  while (n--) c = kTables[0][(*p++ ^ c) & 0xFF] ^ (c >> 8);
  return c;
}

Cardinal UpdateSlicing(Cardinal c, const Byte* p, std::size_t n) noexcept {
  while (n >= 8) {
    std::uint32_t lo, hi;
    std::memcpy(&lo, p, 4);
    std::memcpy(&hi, p + 4, 4);
    lo ^= c;
    c = kTables[7][lo & 0xFF] ^ kTables[6][(lo >> 8) & 0xFF] ^ kTables[5][(lo >> 16) & 0xFF] ^
        kTables[4][lo >> 24] ^ kTables[3][hi & 0xFF] ^ kTables[2][(hi >> 8) & 0xFF] ^
        kTables[1][(hi >> 16) & 0xFF] ^ kTables[0][hi >> 24];
    p += 8;
    n -= 8;
  }
  return UpdateBytes(c, p, n);
}

#if QUMA_CRC32_X86
// Folding constants of the reflected polynomial: x^(4*128+32), x^(4*128-32) mod P (four-way
// fold), x^(128+32), x^(128-32) (single fold), x^64 (128 to 64 bits), then the Barrett pair
// (P and floor(x^64 / P)), all bit-reflected as the instruction's operand order wants them.
__attribute__((target("pclmul,sse4.1"))) inline __m128i Fold16(__m128i acc, __m128i next, __m128i k) noexcept {
  const __m128i lo = _mm_clmulepi64_si128(acc, k, 0x00);
  const __m128i hi = _mm_clmulepi64_si128(acc, k, 0x11);
  return _mm_xor_si128(_mm_xor_si128(hi, next), lo);
}

__attribute__((target("pclmul,sse4.1"))) Cardinal UpdateClmul(Cardinal crc, const Byte* buf,
                                                                  std::size_t len) noexcept {
  alignas(16) static constexpr std::uint64_t k1k2[] = {0x0154442bd4, 0x01c6e41596};
  alignas(16) static constexpr std::uint64_t k3k4[] = {0x01751997d0, 0x00ccaa009e};
  alignas(16) static constexpr std::uint64_t k5k0[] = {0x0163cd6124, 0x0000000000};
  alignas(16) static constexpr std::uint64_t poly[] = {0x01db710641, 0x01f7011641};

  // len >= 64 and a multiple of 16.
  __m128i x1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(buf + 0x00));
  __m128i x2 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(buf + 0x10));
  __m128i x3 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(buf + 0x20));
  __m128i x4 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(buf + 0x30));
  x1 = _mm_xor_si128(x1, _mm_cvtsi32_si128(static_cast<int>(crc)));
  __m128i x0 = _mm_load_si128(reinterpret_cast<const __m128i*>(k1k2));
  buf += 64;
  len -= 64;

  while (len >= 64) {
    __m128i x5 = _mm_clmulepi64_si128(x1, x0, 0x00);
    __m128i x6 = _mm_clmulepi64_si128(x2, x0, 0x00);
    __m128i x7 = _mm_clmulepi64_si128(x3, x0, 0x00);
    __m128i x8 = _mm_clmulepi64_si128(x4, x0, 0x00);
    x1 = _mm_clmulepi64_si128(x1, x0, 0x11);
    x2 = _mm_clmulepi64_si128(x2, x0, 0x11);
    x3 = _mm_clmulepi64_si128(x3, x0, 0x11);
    x4 = _mm_clmulepi64_si128(x4, x0, 0x11);
    const __m128i y5 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(buf + 0x00));
    const __m128i y6 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(buf + 0x10));
    const __m128i y7 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(buf + 0x20));
    const __m128i y8 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(buf + 0x30));
    x1 = _mm_xor_si128(_mm_xor_si128(x1, x5), y5);
    x2 = _mm_xor_si128(_mm_xor_si128(x2, x6), y6);
    x3 = _mm_xor_si128(_mm_xor_si128(x3, x7), y7);
    x4 = _mm_xor_si128(_mm_xor_si128(x4, x8), y8);
    buf += 64;
    len -= 64;
  }

  // Four lanes into one.
  x0 = _mm_load_si128(reinterpret_cast<const __m128i*>(k3k4));
  x1 = Fold16(x1, x2, x0);
  x1 = Fold16(x1, x3, x0);
  x1 = Fold16(x1, x4, x0);
  while (len >= 16) {
    x1 = Fold16(x1, _mm_loadu_si128(reinterpret_cast<const __m128i*>(buf)), x0);
    buf += 16;
    len -= 16;
  }

  // 128 bits to 64.
  x2 = _mm_clmulepi64_si128(x1, x0, 0x10);
  x3 = _mm_setr_epi32(~0, 0, ~0, 0);
  x1 = _mm_srli_si128(x1, 8);
  x1 = _mm_xor_si128(x1, x2);
  x0 = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(k5k0));
  x2 = _mm_srli_si128(x1, 4);
  x1 = _mm_and_si128(x1, x3);
  x1 = _mm_clmulepi64_si128(x1, x0, 0x00);
  x1 = _mm_xor_si128(x1, x2);

  // Barrett reduction to 32 bits.
  x0 = _mm_load_si128(reinterpret_cast<const __m128i*>(poly));
  x2 = _mm_and_si128(x1, x3);
  x2 = _mm_clmulepi64_si128(x2, x0, 0x10);
  x2 = _mm_and_si128(x2, x3);
  x2 = _mm_clmulepi64_si128(x2, x0, 0x00);
  x1 = _mm_xor_si128(x1, x2);
  return static_cast<Cardinal>(_mm_extract_epi32(x1, 1));
}

bool DetectClmul() noexcept {
  __builtin_cpu_init();
  return __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1");
}

const bool kHaveClmul = DetectClmul();
#endif

template <class T>
inline Cardinal FeedValue(const T& value, Cardinal nCRC) noexcept {
  const T local = value;  // a stack copy, fed in memory order
  return CRC32(&local, sizeof local, nCRC);
}

}  // namespace

const Cardinal* CRC32Table() noexcept { return kTables[0].data(); }

Cardinal CRC32(const void* pData, Cardinal nLength, Cardinal nCRC) noexcept {
  const Byte* p = static_cast<const Byte*>(pData);
  std::size_t n = nLength;
  Cardinal c = nCRC;
#if QUMA_CRC32_X86
  if (n >= 64 && kHaveClmul) {
    const std::size_t blocks = n & ~std::size_t{15};
    c = UpdateClmul(c, p, blocks);
    p += blocks;
    n -= blocks;
    return ~UpdateBytes(c, p, n);
  }
#endif
  if (n >= 16) return ~UpdateSlicing(c, p, n);
  return ~UpdateBytes(c, p, n);
}

Cardinal CRC32(const TBytes& baData, Cardinal nCRC) noexcept {
  const Byte* reference = baData.empty() ? nullptr : baData.data();
  return FeedValue(reference, nCRC);
}

Cardinal CRC32Bool(bool value, Cardinal nCRC) noexcept { return FeedValue(static_cast<Byte>(value ? 1 : 0), nCRC); }
Cardinal CRC32(char value, Cardinal nCRC) noexcept { return FeedValue(value, nCRC); }
Cardinal CRC32(char16_t value, Cardinal nCRC) noexcept { return FeedValue(value, nCRC); }
Cardinal CRC32(std::int8_t value, Cardinal nCRC) noexcept { return FeedValue(value, nCRC); }
Cardinal CRC32(std::uint8_t value, Cardinal nCRC) noexcept { return FeedValue(value, nCRC); }
Cardinal CRC32(std::int16_t value, Cardinal nCRC) noexcept { return FeedValue(value, nCRC); }
Cardinal CRC32(std::uint16_t value, Cardinal nCRC) noexcept { return FeedValue(value, nCRC); }
Cardinal CRC32(std::int32_t value, Cardinal nCRC) noexcept { return FeedValue(value, nCRC); }
Cardinal CRC32(std::uint32_t value, Cardinal nCRC) noexcept { return FeedValue(value, nCRC); }
Cardinal CRC32(long value, Cardinal nCRC) noexcept { return FeedValue(static_cast<Int64>(value), nCRC); }
Cardinal CRC32(unsigned long value, Cardinal nCRC) noexcept { return FeedValue(static_cast<UInt64>(value), nCRC); }
Cardinal CRC32(long long value, Cardinal nCRC) noexcept { return FeedValue(static_cast<Int64>(value), nCRC); }
Cardinal CRC32(unsigned long long value, Cardinal nCRC) noexcept {
  return FeedValue(static_cast<UInt64>(value), nCRC);
}
Cardinal CRC32(float value, Cardinal nCRC) noexcept { return FeedValue(value, nCRC); }
Cardinal CRC32(double value, Cardinal nCRC) noexcept { return FeedValue(value, nCRC); }
Cardinal CRC32(long double value, Cardinal nCRC) noexcept {
  return CRC32(TExtended80Rec::FromExtended(value), nCRC);
}
Cardinal CRC32(const TExtended80Rec& value, Cardinal nCRC) noexcept { return FeedValue(value, nCRC); }

TExtended80Rec TExtended80Rec::FromExtended(long double value) noexcept {
  TExtended80Rec r;
#if defined(__x86_64__) || defined(__i386__)
  static_assert(sizeof(long double) >= 10);
  std::memcpy(static_cast<void*>(&r), &value, 10);  // x87 layout: the first ten bytes, the rest is padding
#else
  // Without an x87 type, build the layout from the double value.
  const double d = static_cast<double>(value);
  UInt64 bits;
  std::memcpy(&bits, &d, 8);
  const bool sign = bits >> 63;
  const int exp = static_cast<int>((bits >> 52) & 0x7FF);
  const UInt64 frac = bits & ((UInt64{1} << 52) - 1);
  if (exp == 0 && frac == 0) {
    r.SignExponent = sign ? 0x8000 : 0;
  } else if (exp == 0x7FF) {
    r.Mantissa = (UInt64{1} << 63) | (frac << 11);
    r.SignExponent = static_cast<Word>((sign ? 0x8000 : 0) | 0x7FFF);
  } else {
    int e = exp;
    UInt64 m = frac;
    if (e == 0) {  // subnormal: normalise
      e = 1;
      while (!(m & (UInt64{1} << 52))) {
        m <<= 1;
        --e;
      }
      m &= (UInt64{1} << 52) - 1;
    }
    r.Mantissa = (UInt64{1} << 63) | (m << 11);
    r.SignExponent = static_cast<Word>((sign ? 0x8000 : 0) | (e - 1023 + 16383));
  }
#endif
  return r;
}

long double TExtended80Rec::ToExtended() const noexcept {
#if defined(__x86_64__) || defined(__i386__)
  long double v = 0;
  std::memcpy(&v, this, 10);
  return v;
#else
  const int e = Exponent();
  if (e == 0 && Mantissa == 0) return Sign() ? -0.0L : 0.0L;
  long double m = static_cast<long double>(Mantissa) / 9223372036854775808.0L;  // 2^63
  long double v = std::ldexp(m, e - 16383);
  return Sign() ? -v : v;
#endif
}

}  // namespace quma
