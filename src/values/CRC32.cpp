// CRC-32 core. Kernels with identical results, the best one the CPU has chosen once at load
// (the library is built for generic x86-64):
//  - carry-less multiply folding over 512-bit registers (VPCLMULQDQ, AVX-512) from 256 bytes;
//  - carry-less multiply folding over 128-bit registers (PCLMULQDQ) from 64 bytes;
//  - slicing by eight for the rest: eight derived tables, still one table look-up per byte;
//  - the byte-at-a-time loop over the standard table for short tails.
// CRC-32C shares the table code (templates over the polynomial) and has its own SSE 4.2 kernel.
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

constexpr Cardinal kPolynomial = 0xEDB88320u;   // CRC-32, reflected
constexpr Cardinal kPolynomialC = 0x82F63B78u;  // CRC-32C (Castagnoli), reflected

using TSlicingTables = std::array<std::array<Cardinal, 256>, 8>;

template <Cardinal Poly>
constexpr TSlicingTables MakeTables() {
  TSlicingTables t{};
  for (Cardinal i = 0; i < 256; ++i) {
    Cardinal c = i;
    for (int k = 0; k < 8; ++k) c = (c & 1) ? (c >> 1) ^ Poly : c >> 1;
    t[0][i] = c;
  }
  for (int s = 1; s < 8; ++s)
    for (Cardinal i = 0; i < 256; ++i) t[s][i] = (t[s - 1][i] >> 8) ^ t[0][t[s - 1][i] & 0xFF];
  return t;
}

alignas(64) constexpr TSlicingTables kTables = MakeTables<kPolynomial>();
alignas(64) constexpr TSlicingTables kTablesC = MakeTables<kPolynomialC>();
static_assert(kTables[0][1] == 0x77073096u && kTables[0][255] == 0x2D02EF8Du);
static_assert(kTablesC[0][1] == 0xF26B8303u);

template <const TSlicingTables& T>
inline Cardinal UpdateBytes(Cardinal c, const Byte* p, std::size_t n) noexcept {
  while (n--) c = T[0][(*p++ ^ c) & 0xFF] ^ (c >> 8);
  return c;
}

template <const TSlicingTables& T>
Cardinal UpdateSlicing(Cardinal c, const Byte* p, std::size_t n) noexcept {
  while (n >= 8) {
    std::uint32_t lo, hi;
    std::memcpy(&lo, p, 4);
    std::memcpy(&hi, p + 4, 4);
    lo ^= c;
    c = T[7][lo & 0xFF] ^ T[6][(lo >> 8) & 0xFF] ^ T[5][(lo >> 16) & 0xFF] ^ T[4][lo >> 24] ^ T[3][hi & 0xFF] ^
        T[2][(hi >> 8) & 0xFF] ^ T[1][(hi >> 16) & 0xFF] ^ T[0][hi >> 24];
    p += 8;
    n -= 8;
  }
  return UpdateBytes<T>(c, p, n);
}

template <const TSlicingTables& T>
Cardinal UpdateTable(Cardinal c, const Byte* p, std::size_t n) noexcept {
  return n >= 16 ? UpdateSlicing<T>(c, p, n) : UpdateBytes<T>(c, p, n);
}

#if QUMA_CRC32_X86
#define QUMA_TARGET_CLMUL __attribute__((target("pclmul,sse4.1")))
#define QUMA_TARGET_VCLMUL __attribute__((target("avx512f,avx512vl,avx512bw,vpclmulqdq,pclmul,sse4.1")))

// Folding constants of the reflected polynomial, bit-reflected and shifted left by one as the
// instruction's operand order wants them: folding a block forward over D bits multiplies its low
// half by x^(D+32) and its high half by x^(D-32) modulo P (low constant first in each pair).
// Then x^64 (128 to 64 bits) and the Barrett pair (P and floor(x^64 / P)).
alignas(16) constexpr std::uint64_t kFold128[] = {0x01751997d0, 0x00ccaa009e};
alignas(16) constexpr std::uint64_t kFold256[] = {0x00f1da05aa, 0x015a546366};
alignas(16) constexpr std::uint64_t kFold384[] = {0x003db1ecdc, 0x0174359406};
alignas(16) constexpr std::uint64_t kFold512[] = {0x0154442bd4, 0x01c6e41596};
alignas(16) constexpr std::uint64_t kFold2048[] = {0x011542778a, 0x01322d1430};
alignas(16) constexpr std::uint64_t kFold64[] = {0x0163cd6124, 0x0000000000};
alignas(16) constexpr std::uint64_t kBarrett[] = {0x01db710641, 0x01f7011641};

QUMA_TARGET_CLMUL inline __m128i Load16(const Byte* p) noexcept {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

QUMA_TARGET_CLMUL inline __m128i Fold16(__m128i acc, __m128i next, __m128i k) noexcept {
  const __m128i lo = _mm_clmulepi64_si128(acc, k, 0x00);
  const __m128i hi = _mm_clmulepi64_si128(acc, k, 0x11);
  return _mm_xor_si128(_mm_xor_si128(hi, next), lo);
}

// The end every folding kernel shares: the remaining 16-byte blocks folded into x1, then 128
// bits reduced to the 32-bit register.
QUMA_TARGET_CLMUL Cardinal FinishClmul(__m128i x1, const Byte* buf, std::size_t len) noexcept {
  __m128i x0 = _mm_load_si128(reinterpret_cast<const __m128i*>(kFold128));
  for (; len >= 16; buf += 16, len -= 16) x1 = Fold16(x1, Load16(buf), x0);

  // 128 bits to 64.
  __m128i x2 = _mm_clmulepi64_si128(x1, x0, 0x10);
  const __m128i x3 = _mm_setr_epi32(~0, 0, ~0, 0);
  x1 = _mm_srli_si128(x1, 8);
  x1 = _mm_xor_si128(x1, x2);
  x0 = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(kFold64));
  x2 = _mm_srli_si128(x1, 4);
  x1 = _mm_and_si128(x1, x3);
  x1 = _mm_clmulepi64_si128(x1, x0, 0x00);
  x1 = _mm_xor_si128(x1, x2);

  // Barrett reduction to 32 bits.
  x0 = _mm_load_si128(reinterpret_cast<const __m128i*>(kBarrett));
  x2 = _mm_and_si128(x1, x3);
  x2 = _mm_clmulepi64_si128(x2, x0, 0x10);
  x2 = _mm_and_si128(x2, x3);
  x2 = _mm_clmulepi64_si128(x2, x0, 0x00);
  x1 = _mm_xor_si128(x1, x2);
  return static_cast<Cardinal>(_mm_extract_epi32(x1, 1));
}

// Four 128-bit lanes folded 64 bytes at a time. len >= 64 and a multiple of 16.
QUMA_TARGET_CLMUL Cardinal UpdateClmul(Cardinal crc, const Byte* buf, std::size_t len) noexcept {
  __m128i x1 = _mm_xor_si128(Load16(buf), _mm_cvtsi32_si128(static_cast<int>(crc)));
  __m128i x2 = Load16(buf + 0x10), x3 = Load16(buf + 0x20), x4 = Load16(buf + 0x30);
  __m128i x0 = _mm_load_si128(reinterpret_cast<const __m128i*>(kFold512));
  for (buf += 64, len -= 64; len >= 64; buf += 64, len -= 64) {
    x1 = Fold16(x1, Load16(buf + 0x00), x0);
    x2 = Fold16(x2, Load16(buf + 0x10), x0);
    x3 = Fold16(x3, Load16(buf + 0x20), x0);
    x4 = Fold16(x4, Load16(buf + 0x30), x0);
  }
  // Four lanes into one.
  x0 = _mm_load_si128(reinterpret_cast<const __m128i*>(kFold128));
  x1 = Fold16(x1, x2, x0);
  x1 = Fold16(x1, x3, x0);
  x1 = Fold16(x1, x4, x0);
  return FinishClmul(x1, buf, len);
}

// GCC 12's AVX-512 headers fill the unused part of broadcasts and extracts with a placeholder
// initialised from itself, which -Wuninitialized reports at every use.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

QUMA_TARGET_VCLMUL inline __m512i Load64(const Byte* p) noexcept { return _mm512_loadu_si512(p); }

QUMA_TARGET_VCLMUL inline __m512i Fold64(__m512i acc, __m512i next, __m512i k) noexcept {
  // 0x96: a ^ b ^ c in one instruction.
  return _mm512_ternarylogic_epi64(_mm512_clmulepi64_epi128(acc, k, 0x00), _mm512_clmulepi64_epi128(acc, k, 0x11),
                                   next, 0x96);
}

QUMA_TARGET_VCLMUL inline __m512i Broadcast(const std::uint64_t (&k)[2]) noexcept {
  return _mm512_broadcast_i32x4(_mm_load_si128(reinterpret_cast<const __m128i*>(k)));
}

// Four 512-bit registers (sixteen 128-bit lanes) folded 256 bytes at a time, then one register
// 64 bytes at a time. len >= 256 and a multiple of 16.
QUMA_TARGET_VCLMUL Cardinal UpdateVclmul(Cardinal crc, const Byte* buf, std::size_t len) noexcept {
  __m512i z0 = _mm512_xor_si512(Load64(buf), _mm512_zextsi128_si512(_mm_cvtsi32_si128(static_cast<int>(crc))));
  __m512i z1 = Load64(buf + 64), z2 = Load64(buf + 128), z3 = Load64(buf + 192);
  const __m512i k4 = Broadcast(kFold2048);
  for (buf += 256, len -= 256; len >= 256; buf += 256, len -= 256) {
    z0 = Fold64(z0, Load64(buf), k4);
    z1 = Fold64(z1, Load64(buf + 64), k4);
    z2 = Fold64(z2, Load64(buf + 128), k4);
    z3 = Fold64(z3, Load64(buf + 192), k4);
  }
  const __m512i k1 = Broadcast(kFold512);
  z0 = Fold64(z0, z1, k1);
  z0 = Fold64(z0, z2, k1);
  z0 = Fold64(z0, z3, k1);
  for (; len >= 64; buf += 64, len -= 64) z0 = Fold64(z0, Load64(buf), k1);

  // The four lanes of z0 into the last one: lane i moves forward over 384 - 128 i bits.
  const __m512i kLanes = _mm512_set_epi64(0, 0, static_cast<long long>(kFold128[1]), static_cast<long long>(kFold128[0]),
                                          static_cast<long long>(kFold256[1]), static_cast<long long>(kFold256[0]),
                                          static_cast<long long>(kFold384[1]), static_cast<long long>(kFold384[0]));
  const __m512i t = _mm512_xor_si512(_mm512_clmulepi64_epi128(z0, kLanes, 0x00), _mm512_clmulepi64_epi128(z0, kLanes, 0x11));
  const __m256i half = _mm256_xor_si256(_mm512_castsi512_si256(t), _mm512_extracti64x4_epi64(t, 1));
  __m128i x = _mm_xor_si128(_mm256_castsi256_si128(half), _mm256_extracti128_si256(half, 1));
  x = _mm_xor_si128(x, _mm512_extracti32x4_epi32(z0, 3));
  return FinishClmul(x, buf, len);
}

#pragma GCC diagnostic pop

struct TCpuFeatures {
  bool Clmul, Vclmul;
};

TCpuFeatures DetectFeatures() noexcept {
  __builtin_cpu_init();
  const bool clmul = __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1");
  const bool vclmul = clmul && __builtin_cpu_supports("vpclmulqdq") && __builtin_cpu_supports("avx512f") &&
                      __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512bw");
  return {clmul, vclmul};
}

const TCpuFeatures kFeatures = DetectFeatures();
#endif

bool Supported(TCRC32Kernel k) noexcept {
  switch (k) {
    case TCRC32Kernel::Table:
      return true;
#if QUMA_CRC32_X86
    case TCRC32Kernel::CarrylessMultiply:
      return kFeatures.Clmul;
    case TCRC32Kernel::VectorCarrylessMultiply:
      return kFeatures.Vclmul;
#endif
    default:
      return false;
  }
}

TCRC32Kernel BestKernel() noexcept {
  if (Supported(TCRC32Kernel::VectorCarrylessMultiply)) return TCRC32Kernel::VectorCarrylessMultiply;
  if (Supported(TCRC32Kernel::CarrylessMultiply)) return TCRC32Kernel::CarrylessMultiply;
  return TCRC32Kernel::Table;
}

const TCRC32Kernel kKernel = BestKernel();

// The register after n bytes with kernel k (not inverted); k must be supported.
Cardinal Update(TCRC32Kernel k, Cardinal c, const Byte* p, std::size_t n) noexcept {
#if QUMA_CRC32_X86
  // Each folding kernel takes the whole 16-byte blocks once there are enough for its first step.
  std::size_t blocks = 0;
  if (k == TCRC32Kernel::VectorCarrylessMultiply && n >= 256) {
    blocks = n & ~std::size_t{15};
    c = UpdateVclmul(c, p, blocks);
  } else if (k != TCRC32Kernel::Table && n >= 64) {
    blocks = n & ~std::size_t{15};
    c = UpdateClmul(c, p, blocks);
  }
  if (blocks) return UpdateBytes<kTables>(c, p + blocks, n - blocks);
#else
  (void)k;
#endif
  return UpdateTable<kTables>(c, p, n);
}

// ---- CRC-32C ----

// a * b modulo the reflected polynomial (bit 31 is x^0).
constexpr Cardinal MultiplyModP(Cardinal a, Cardinal b, Cardinal poly) {
  Cardinal product = 0;
  for (Cardinal m = 0x80000000u; a; m >>= 1) {
    if (a & m) {
      product ^= b;
      a &= ~m;
    }
    b = (b & 1) ? (b >> 1) ^ poly : b >> 1;
  }
  return product;
}

// Advancing a register over n zero bytes multiplies it by x^(8n): four tables, one per byte of
// the register.
using TShiftTables = std::array<std::array<Cardinal, 256>, 4>;
template <Cardinal Poly>
constexpr TShiftTables MakeShiftTables(std::size_t n) {
  Cardinal xn = 0x80000000u;  // x^0
  for (std::size_t i = 0; i < 8 * n; ++i) xn = (xn & 1) ? (xn >> 1) ^ Poly : xn >> 1;
  TShiftTables t{};
  for (int k = 0; k < 4; ++k)
    for (Cardinal b = 0; b < 256; ++b) t[k][b] = MultiplyModP(b << (8 * k), xn, Poly);
  return t;
}

#if QUMA_CRC32_X86
// Three streams of kStripe bytes run side by side (the instruction has a latency of three cycles
// and a throughput of one), then the first two are moved over the bytes after them and merged.
constexpr std::size_t kStripe = 1024;
alignas(64) constexpr TShiftTables kStripeShift = MakeShiftTables<kPolynomialC>(kStripe);

inline Cardinal ShiftOverStripe(Cardinal c) noexcept {
  return kStripeShift[0][c & 0xFF] ^ kStripeShift[1][(c >> 8) & 0xFF] ^ kStripeShift[2][(c >> 16) & 0xFF] ^
         kStripeShift[3][c >> 24];
}

__attribute__((target("sse4.2"))) Cardinal UpdateCrc32Instruction(Cardinal c, const Byte* p, std::size_t n) noexcept {
  const auto load = [](const Byte* q) noexcept {
    UInt64 v;
    std::memcpy(&v, q, 8);
    return v;
  };
  for (; n >= 3 * kStripe; p += 3 * kStripe, n -= 3 * kStripe) {
    UInt64 a = c, b = 0, d = 0;
    for (std::size_t i = 0; i < kStripe; i += 8) {
      a = _mm_crc32_u64(a, load(p + i));
      b = _mm_crc32_u64(b, load(p + kStripe + i));
      d = _mm_crc32_u64(d, load(p + 2 * kStripe + i));
    }
    c = ShiftOverStripe(ShiftOverStripe(static_cast<Cardinal>(a)) ^ static_cast<Cardinal>(b)) ^ static_cast<Cardinal>(d);
  }
  UInt64 w = c;
  for (; n >= 8; p += 8, n -= 8) w = _mm_crc32_u64(w, load(p));
  c = static_cast<Cardinal>(w);
  for (; n; ++p, --n) c = _mm_crc32_u8(c, *p);
  return c;
}

bool DetectSse42() noexcept {
  __builtin_cpu_init();
  return __builtin_cpu_supports("sse4.2");
}
const bool kHaveSse42 = DetectSse42();
#endif

bool SupportedC(TCRC32CKernel k) noexcept {
#if QUMA_CRC32_X86
  if (k == TCRC32CKernel::Crc32Instruction) return kHaveSse42;
#endif
  return k == TCRC32CKernel::Table;
}

const TCRC32CKernel kKernelC =
    SupportedC(TCRC32CKernel::Crc32Instruction) ? TCRC32CKernel::Crc32Instruction : TCRC32CKernel::Table;

Cardinal UpdateC(TCRC32CKernel k, Cardinal c, const Byte* p, std::size_t n) noexcept {
#if QUMA_CRC32_X86
  if (k == TCRC32CKernel::Crc32Instruction) return UpdateCrc32Instruction(c, p, n);
#else
  (void)k;
#endif
  return UpdateTable<kTablesC>(c, p, n);
}

template <class T>
inline Cardinal FeedValue(const T& value, Cardinal nCRC) noexcept {
  const T local = value;  // a stack copy, fed in memory order
  return CRC32(&local, sizeof local, nCRC);
}

}  // namespace

const Cardinal* CRC32Table() noexcept { return kTables[0].data(); }

Cardinal CRC32(const void* pData, Cardinal nLength, Cardinal nCRC) noexcept {
  return ~Update(kKernel, nCRC, static_cast<const Byte*>(pData), nLength);
}

bool CRC32KernelSupported(TCRC32Kernel Kernel) noexcept { return Supported(Kernel); }

TCRC32Kernel CRC32ActiveKernel() noexcept { return kKernel; }

Cardinal CRC32WithKernel(TCRC32Kernel Kernel, const void* pData, Cardinal nLength, Cardinal nCRC) noexcept {
  while (!Supported(Kernel)) Kernel = static_cast<TCRC32Kernel>(static_cast<Byte>(Kernel) - 1);
  return ~Update(Kernel, nCRC, static_cast<const Byte*>(pData), nLength);
}

Cardinal CRC32C(const void* pData, Cardinal nLength, Cardinal nCRC) noexcept {
  return ~UpdateC(kKernelC, nCRC, static_cast<const Byte*>(pData), nLength);
}

bool CRC32CKernelSupported(TCRC32CKernel Kernel) noexcept { return SupportedC(Kernel); }

TCRC32CKernel CRC32CActiveKernel() noexcept { return kKernelC; }

Cardinal CRC32CWithKernel(TCRC32CKernel Kernel, const void* pData, Cardinal nLength, Cardinal nCRC) noexcept {
  if (!SupportedC(Kernel)) Kernel = TCRC32CKernel::Table;
  return ~UpdateC(Kernel, nCRC, static_cast<const Byte*>(pData), nLength);
}

const Cardinal* CRC32CTable() noexcept { return kTablesC[0].data(); }

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
