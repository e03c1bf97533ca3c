#include <quma/CRC32.h>

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstring>
#include <random>
#include <typeinfo>
#include <vector>

namespace quma {
namespace {

TEST(CRC32, MatchesZlibOnRandomBuffersAndOffsets) {
  std::mt19937_64 rng(1234);
  std::vector<Byte> buf(70000);
  for (auto& b : buf) b = static_cast<Byte>(rng());
  std::uniform_int_distribution<std::size_t> lenDist(0, 5000);
  for (int i = 0; i < 600; ++i) {
    // Lengths cover the byte loop, slicing and folding paths; offsets cover misalignment.
    const std::size_t len = i < 200 ? static_cast<std::size_t>(i) : lenDist(rng) + (i % 7 == 0 ? 60000 : 0);
    const std::size_t off = rng() % 64;
    const Byte* p = buf.data() + off;
    const uLong ref = crc32(0L, p, static_cast<uInt>(len));
    ASSERT_EQ(CRC32(p, static_cast<Cardinal>(len), 0xFFFFFFFFu), ref) << "len " << len << " off " << off;
    // A non-standard starting register goes through the same core.
    const Cardinal seed = static_cast<Cardinal>(rng());
    ASSERT_EQ(CRC32(p, static_cast<Cardinal>(len), seed), crc32(~seed & 0xFFFFFFFFu, p, static_cast<uInt>(len)));
  }
}

TEST(CRC32, CheckValueEmptyAndChaining) {
  EXPECT_EQ(CRC32("123456789", 9, 0xFFFFFFFFu), 0xCBF43926u);
  EXPECT_EQ(CRC32("123456789", 9), 0xCBF43926u);  // the default start
  EXPECT_EQ(CRC32(nullptr, 0, 0xFFFFFFFFu), 0u);
  EXPECT_EQ(CRC32(nullptr, 0, 0x12345678u), ~0x12345678u);
  // Continuing needs NOT of the previous result; passing it unchanged does not chain.
  const char* text = "The quick brown fox jumps over the lazy dog, then does it again and again.";
  const Cardinal n = static_cast<Cardinal>(std::strlen(text));
  const Cardinal whole = CRC32(text, n, 0xFFFFFFFFu);
  for (Cardinal split : {0u, 1u, 9u, 40u, n}) {
    const Cardinal first = CRC32(text, split, 0xFFFFFFFFu);
    EXPECT_EQ(CRC32(text + split, n - split, ~first), whole);
    if (split && split < n) {
      EXPECT_NE(CRC32(text + split, n - split, first), whole);
    }
  }
}

TEST(CRC32, TableIsTheStandardOne) {
  const Cardinal* t = CRC32Table();
  const z_crc_t* zt = get_crc_table();
  for (int i = 0; i < 256; ++i) ASSERT_EQ(t[i], zt[i]);
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

TEST(CRC32, ValueOverloadsFeedTheirBytesInMemoryOrder) {
  const Cardinal s = 0xFFFFFFFFu;
  const Byte one[] = {1, 0, 0, 0};
  EXPECT_EQ(CRC32(Integer{1}, s), CRC32(one, 4, s));
  EXPECT_EQ(CRC32(true, s), CRC32(one, 1, s));
  EXPECT_EQ(CRC32(false, 0x1234u), ViaCore<Byte>(0, 0x1234u));
  ExpectViaCore(s, 'A', u'\u20AC', std::int8_t{-2}, std::uint8_t{200}, std::int16_t{-300}, std::uint16_t{60000},
                Cardinal{0xDEADBEEF}, Int64{-5}, UInt64{1} << 40, -5LL, 7ULL, 1.5f, -2.25);
  // Extended: ten bytes of the x87 layout; 1.0 is significand 0x8000000000000000, exponent 0x3FFF.
  const Byte ext1[10] = {0, 0, 0, 0, 0, 0, 0, 0x80, 0xFF, 0x3F};
  EXPECT_EQ(CRC32(1.0L, s), CRC32(ext1, 10, s));
  const TExtended80Rec r = TExtended80Rec::FromExtended(-1.0L);
  EXPECT_TRUE(r.Sign());
  EXPECT_EQ(r.Exponent(), 0x3FFF);
  EXPECT_EQ(r.ToExtended(), -1.0L);
  EXPECT_EQ(CRC32(r, s), CRC32(-1.0L, s));
}

TEST(CRC32, ByteArrayFeedsItsReferenceNotItsElements) {
  const TBytes a{1, 2, 3}, b{1, 2, 3};
  EXPECT_NE(CRC32(a, 0xFFFFFFFFu), CRC32(b, 0xFFFFFFFFu));
  const Byte* ref = a.data();
  EXPECT_EQ(CRC32(a, 0xFFFFFFFFu), CRC32(&ref, sizeof ref, 0xFFFFFFFFu));  // 8 bytes on x86-64
  const void* none = nullptr;
  EXPECT_EQ(CRC32(TBytes{}, 0xFFFFFFFFu), CRC32(&none, sizeof none, 0xFFFFFFFFu));
  // The span overload is the one for contents.
  EXPECT_EQ(CRC32(std::span<const Byte>(a)), CRC32(std::span<const Byte>(b)));
}

}  // namespace
}  // namespace quma
