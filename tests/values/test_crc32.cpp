#include <quma/CRC32.h>

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string_view>
#include <typeinfo>
#include <vector>

namespace quma {
namespace {

// CRC-32C one bit at a time, straight from the polynomial.
Cardinal BitwiseCRC32C(const Byte* p, std::size_t n, Cardinal c) {
  while (n--) {
    c ^= *p++;
    for (int k = 0; k < 8; ++k) c = (c & 1) ? (c >> 1) ^ 0x82F63B78u : c >> 1;
  }
  return ~c;
}

// Every kernel (a kernel the CPU lacks gives way to a simpler one) against a reference: every
// length through the byte loop, slicing and each folding step at every alignment from a random
// register, long runs for the three-stream path, 1 MiB at once, and incremental use split at
// random points.
template <class K, class F, class R>
void ExpectKernelsMatch(std::initializer_list<K> kernels, F crc, R reference, Cardinal start) {
  constexpr std::size_t MiB = 1 << 20;
  std::mt19937_64 rng(1234);
  std::vector<Byte> buf(MiB + 64);
  for (auto& b : buf) b = static_cast<Byte>(rng());
  const Cardinal whole = reference(buf.data() + 3, MiB, 0xFFFFFFFFu);
  for (const K k : kernels) {
    SCOPED_TRACE(static_cast<int>(k));
    const auto check = [&](std::size_t len, std::size_t off) {
      const Cardinal seed = static_cast<Cardinal>(rng());
      ASSERT_EQ(crc(k, buf.data() + off, static_cast<Cardinal>(len), seed), reference(buf.data() + off, len, seed))
          << "len " << len << " off " << off;
    };
    for (std::size_t len = 0; len <= 300; ++len)
      for (std::size_t off = 0; off < 64; ++off) check(len, off);
    for (int i = 0; i < 40; ++i) check(3000 + rng() % 20000, rng() % 64);
    ASSERT_EQ(crc(k, buf.data() + 3, MiB, 0xFFFFFFFFu), whole);
    for (const std::size_t maxStep : {700u, 20000u, 70000u}) {
      Cardinal c = start;
      for (std::size_t pos = 0; pos < MiB;) {
        const std::size_t step = std::min<std::size_t>(MiB - pos, rng() % maxStep);
        c = ~crc(k, buf.data() + 3 + pos, static_cast<Cardinal>(step), c);
        pos += step;
      }
      ASSERT_EQ(~c, whole);
    }
  }
}

TEST(CRC32, EveryKernelMatchesZlib) {
  EXPECT_TRUE(CRC32KernelSupported(CRC32ActiveKernel()));
  EXPECT_TRUE(CRC32KernelSupported(TCRC32Kernel::Table));  // on every CPU
  EXPECT_FALSE(CRC32KernelSupported(static_cast<TCRC32Kernel>(3)));  // no such kernel
  EXPECT_TRUE(std::equal(CRC32Table(), CRC32Table() + 256, get_crc_table()));  // the exported table is zlib's
  ExpectKernelsMatch({TCRC32Kernel::Table, TCRC32Kernel::CarrylessMultiply, TCRC32Kernel::VectorCarrylessMultiply},
                     [](auto k, const Byte* p, Cardinal n, Cardinal seed) { return CRC32WithKernel(k, p, n, seed); },
                     [](const Byte* p, std::size_t n, Cardinal seed) {
                       return static_cast<Cardinal>(crc32(~seed & 0xFFFFFFFFu, p, static_cast<uInt>(n)));
                     },
                     QUMACRC32Start);
}

// The kernels follow the bitwise definition, which the check value pins to the polynomial.
TEST(CRC32C, EveryKernelMatchesTheBitwiseDefinition) {
  EXPECT_TRUE(CRC32CKernelSupported(CRC32CActiveKernel()));
  EXPECT_FALSE(CRC32CKernelSupported(static_cast<TCRC32CKernel>(2)));  // no such kernel
  EXPECT_EQ(CRC32C(std::string_view("123456789")), 0xE3069283u);
  EXPECT_EQ(CRC32CTable()[1], 0xF26B8303u);
  ExpectKernelsMatch({TCRC32CKernel::Table, TCRC32CKernel::Crc32Instruction},
                     [](auto k, const Byte* p, Cardinal n, Cardinal seed) { return CRC32CWithKernel(k, p, n, seed); },
                     BitwiseCRC32C, QUMACRC32CStart);
}

// A pointer must not pass for a bool.
template <class T>
concept OneArgumentCRC = requires(T v) {
  CRC32(v);
};
static_assert(!OneArgumentCRC<const char*>);
static_assert(OneArgumentCRC<bool> && OneArgumentCRC<std::int64_t>);

template <class T>
Cardinal ViaCore(T v, Cardinal start) {
  unsigned char b[sizeof(T)];
  std::memcpy(b, &v, sizeof v);
  return CRC32(b, sizeof b, start);
}

// Each value's overload gives what the core gives for its bytes in memory order.
template <class... T>
void ExpectViaCore(Cardinal start, T... values) {
  const auto check = [start](auto v) { EXPECT_EQ(CRC32(v, start), ViaCore(v, start)) << typeid(v).name(); };
  (check(values), ...);
}

TEST(CRC32, ValueOverloadsFeedTheirBytesArraysTheirReferenceAndResultsChain) {
  const Cardinal s = 0xFFFFFFFFu;
  ExpectViaCore(0x1234u, true, false, 'A', u'\u20AC', std::int8_t{-2}, std::uint8_t{200}, std::int16_t{-300},
                std::uint16_t{60000}, Integer{1}, Cardinal{0xDEADBEEF}, Int64{-5}, UInt64{1} << 40, -5LL, 7ULL, 1.5f,
                -2.25);
  // Extended: ten bytes of the x87 layout; 1.0 is significand 0x8000000000000000, exponent 0x3FFF.
  const Byte ext1[10] = {0, 0, 0, 0, 0, 0, 0, 0x80, 0xFF, 0x3F};
  EXPECT_EQ(CRC32(1.0L, s), CRC32(ext1, 10, s));
  const TExtended80Rec r = TExtended80Rec::FromExtended(-1.0L);
  EXPECT_TRUE(r.Sign());
  EXPECT_EQ(r.Exponent(), 0x3FFF);
  EXPECT_EQ(r.ToExtended(), -1.0L);
  EXPECT_EQ(CRC32(r, s), CRC32(-1.0L, s));

  // A byte array feeds its reference, not its elements.
  const TBytes a{1, 2, 3}, b{1, 2, 3};
  EXPECT_NE(CRC32(a, 0xFFFFFFFFu), CRC32(b, 0xFFFFFFFFu));
  const Byte* ref = a.data();
  EXPECT_EQ(CRC32(a, 0xFFFFFFFFu), CRC32(&ref, sizeof ref, 0xFFFFFFFFu));  // 8 bytes on x86-64
  const void* none = nullptr;
  EXPECT_EQ(CRC32(TBytes{}, 0xFFFFFFFFu), CRC32(&none, sizeof none, 0xFFFFFFFFu));
  // The span overload is the one for contents.
  EXPECT_EQ(CRC32(std::span<const Byte>(a)), CRC32(std::span<const Byte>(b)));
  EXPECT_EQ(CRC32("123456789", 9), 0xCBF43926u);  // the default start
  EXPECT_EQ(CRC32(nullptr, 0, 0x12345678u), ~0x12345678u);
  // Continuing needs NOT of the previous result (so the result unchanged does not chain).
  EXPECT_EQ(CRC32("56789", 5, ~CRC32("1234", 4)), 0xCBF43926u);
}

}  // namespace
}  // namespace quma
