// TQUMA_Uuid as a value: fields, GUID conversions, hash, ordering and the variant forms.
#include <quma/SysUtils.h>
#include <quma/Uuid.h>

#include "ValuesTestSupport.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <random>
#include <set>
#include <unordered_set>

namespace quma {
namespace {

TQUMA_Uuid FromBytes(std::initializer_list<int> bytes) {
  TQUMA_Uuid u;
  int i = 0;
  for (int b : bytes) u._baUuid[i++] = static_cast<Byte>(b);
  return u;
}

using test::ConvertErrorOf;
using test::RandomUuid;

// Bob Jenkins' lookup2 "hash()" as published (any length, any initial value): the reference
// for JHash, which is the 16-byte, initial-value-0 case.
std::uint32_t ReferenceLookup2(const Byte* k, std::uint32_t length, std::uint32_t initval) {
  std::uint32_t a = 0x9e3779b9, b = 0x9e3779b9, c = initval, len = length;
  const auto mix = [&] {
    a = (a - b - c) ^ (c >> 13);
    b = (b - c - a) ^ (a << 8);
    c = (c - a - b) ^ (b >> 13);
    a = (a - b - c) ^ (c >> 12);
    b = (b - c - a) ^ (a << 16);
    c = (c - a - b) ^ (b >> 5);
    a = (a - b - c) ^ (c >> 3);
    b = (b - c - a) ^ (a << 10);
    c = (c - a - b) ^ (b >> 15);
  };
  const auto word = [](const Byte* p) { return p[0] | p[1] << 8 | p[2] << 16 | std::uint32_t(p[3]) << 24; };
  for (; len >= 12; len -= 12, k += 12) {
    a += word(k);
    b += word(k + 4);
    c += word(k + 8);
    mix();
  }
  // The last 0..11 bytes; the lowest byte of c holds the length instead of a key byte.
  Byte tail[12] = {};
  std::memcpy(tail, k, len);
  a += word(tail);
  b += word(tail + 4);
  c += length + (word(tail + 8) << 8);
  mix();
  return c;
}

TEST(UuidValue, FieldViewsAreBigEndianAndSettersKeepTheOtherBits) {
  TQUMA_Uuid u = FromBytes({0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0x4D, 0xEF, 0xA1, 0x02, 1, 2, 3, 4, 5, 6});
  EXPECT_EQ(u._GetTimeLow(), 0x12345678u);
  EXPECT_EQ(u._GetTimeMid(), 0x9ABC);
  EXPECT_EQ(u._GetTimeHighAndVersion(), 0x4DEF);
  EXPECT_EQ(u._GetVersion(), 4);
  EXPECT_EQ(u._GetClockSequenceHighAndVariant(), 0xA1);
  EXPECT_EQ(u._GetVariant(), 5);  // 101 in the top bits
  EXPECT_EQ(u._GetClockSequenceLow(), 0x02);
  for (int i = 0; i < 6; ++i) EXPECT_EQ(u._GetNode(i), i + 1);

  TQUMA_Uuid w;
  w._SetTimeLow(0x12345678);
  w._SetTimeMid(0xABCD);
  w._SetTimeHighAndVersion(0x1122);
  w._SetClockSequenceHighAndVariant(0x33);
  w._SetClockSequenceLow(0x44);
  w._SetNode(5, 0x99);
  w._SetNode(6, 0x77);   // ignored
  w._SetNode(-1, 0x77);  // ignored
  EXPECT_EQ(w, FromBytes({0x12, 0x34, 0x56, 0x78, 0xAB, 0xCD, 0x11, 0x22, 0x33, 0x44, 0, 0, 0, 0, 0, 0x99}));
  EXPECT_EQ(w._GetAsGuid().D1, 0x12345678u);
  for (Integer bad : {6, -1, 100})
    EXPECT_EQ(test::ErrorOf<EArgumentOutOfRangeException>([&] { (void)w._GetNode(bad); }),
              Format(u"%d is invalid (should be between 0 and 5)", bad));

  u._baUuid[6] = 0xAB;
  u._SetVersion(4);
  EXPECT_EQ(u._baUuid[6], 0x4B);
  u._SetVersion(0x37);  // only the low nibble
  EXPECT_EQ(u._baUuid[6], 0x7B);
  u._baUuid[8] = 0xFF;
  u._SetVariant(2);  // clears the top three bits and sets none
  EXPECT_EQ(u._baUuid[8], 0x1F);
  EXPECT_EQ(u._GetVariant(), 0);
}

TEST(UuidValue, ZeroValueConstructorsAndRandomise) {
  const TQUMA_Uuid z = TQUMA_Uuid::Create(true);
  EXPECT_TRUE(z.IsZero());
  EXPECT_EQ(z._GetVersion(), 0);
  EXPECT_EQ(z._GetVariant(), 0);
  const Byte zeros[16] = {};
  EXPECT_EQ(z.JHash(), ReferenceLookup2(zeros, 16, 0));
  // false seeds the general generator and does not fill the value.
  EXPECT_TRUE(TQUMA_Uuid::Create(false).IsZero());
  const Byte bytes[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  const TQUMA_Uuid b = TQUMA_Uuid::Create(bytes);
  EXPECT_EQ(b.AsBytes(), TBytes(bytes, bytes + 16));
  EXPECT_EQ(TQUMA_Uuid::Create(b), b);
  EXPECT_FALSE(b.IsZero());
  TQUMA_Uuid c = b;
  c.Zero();
  EXPECT_TRUE(c.IsZero());
  // Randomise gives distinct version 4 values.
  std::set<TQUMA_Uuid> seen;
  for (int i = 0; i < 200; ++i) {
    TQUMA_Uuid u;
    u.Randomise();
    EXPECT_EQ(u._GetVersion(), 4);
    EXPECT_EQ(u._baUuid[8] & 0xC0, 0x80);  // RFC 4122 variant
    EXPECT_TRUE(seen.insert(u).second);
  }
}

TEST(UuidValue, JHashIsLookup2OfTheStoredBytes) {
  std::mt19937 rng(7);
  for (int i = 0; i < 500; ++i) {
    const TQUMA_Uuid u = RandomUuid(rng);
    ASSERT_EQ(u.JHash(), ReferenceLookup2(u._baUuid, 16, 0));
    ASSERT_EQ(std::hash<TQUMA_Uuid>{}(u), u.JHash());
  }
}

TEST(UuidValue, GuidConversionsSwapFieldsButNeverWriteTimeLow) {
  const TGUID g = TGUID::Parse("{12345678-9ABC-DEF0-1122-334455667788}");
  TQUMA_Uuid target = FromBytes({0xAA, 0xBB, 0xCC, 0xDD});
  target = g;  // assignment keeps bytes 0..3
  EXPECT_EQ(target, FromBytes({0xAA, 0xBB, 0xCC, 0xDD, 0x9A, 0xBC, 0xDE, 0xF0, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                               0x88}));
  const TQUMA_Uuid fresh(g);  // a new value starts at zero
  EXPECT_EQ(fresh._GetTimeLow(), 0u);
  EXPECT_EQ(static_cast<TGUID>(fresh).D1, 0u);
  // From the value side every field survives.
  std::mt19937 rng(3);
  const TQUMA_Uuid r = RandomUuid(rng);
  TQUMA_Uuid again = r;
  again = static_cast<TGUID>(r);
  EXPECT_EQ(again, r);
}

TEST(UuidValue, CompareOrdersByteWiseWhileOperatorsTestEveryByte) {
  const TQUMA_Uuid a = FromBytes({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16});
  TQUMA_Uuid b = a;
  b._baUuid[15] = 17;
  EXPECT_EQ(TQUMA_Uuid::Compare(a, b), -1);
  EXPECT_EQ(TQUMA_Uuid::Compare(b, a), 1);
  EXPECT_EQ(TQUMA_Uuid::Compare(a, a), 0);
  TQUMA_Uuid high = a;
  high._baUuid[0] = 0xFF;  // above in byte 0, so Compare says greater
  EXPECT_EQ(TQUMA_Uuid::Compare(high, b), 1);
  // Element-wise: neither a < b nor b < a unless every byte is below.
  EXPECT_FALSE(a < b);
  EXPECT_FALSE(b > a);
  EXPECT_TRUE(a <= b);
  EXPECT_FALSE(high >= b);  // byte 15 is smaller
  TQUMA_Uuid all = a;
  for (Byte& x : all._baUuid) ++x;
  EXPECT_TRUE(a < all);
  EXPECT_TRUE(all > a);
  EXPECT_NE(a, b);
  // Standard containers key on Compare and JHash.
  std::map<TQUMA_Uuid, int> m{{b, 2}, {a, 1}, {high, 3}};
  EXPECT_EQ(m.begin()->second, 1);
  EXPECT_EQ(m.rbegin()->second, 3);
  std::unordered_set<TQUMA_Uuid> hs{a, b, a};
  EXPECT_EQ(hs.size(), 2u);
}

TEST(UuidValue, RawStringForm) {
  const TQUMA_Uuid u = FromBytes({0x41, 0x00, 0x42, 0x01, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14});
  const UnicodeString s = u.AsString();
  ASSERT_EQ(s.size(), 8u);
  EXPECT_EQ(s[0], u'A');
  EXPECT_EQ(s[1], char16_t(0x0142));
  TQUMA_Uuid v;
  v._SetAsString(s);
  EXPECT_EQ(v, u);
  TQUMA_Uuid w = u;
  w._SetAsString(UnicodeString(7, u'x'));  // too short: unchanged
  EXPECT_EQ(w, u);
}

TEST(UuidValue, ByteAndVariantFormsAndEightBitVariantText) {
  std::mt19937 rng(5);
  const TQUMA_Uuid u = RandomUuid(rng);
  TQUMA_Uuid v;
  v._SetAsBytes(u.AsBytes());
  EXPECT_EQ(v, u);

  Variant var = u.AsVariant();
  EXPECT_EQ(VarType(var), varArray | varByte);
  EXPECT_EQ(VarArrayLowBound(var, 1), 0);
  EXPECT_EQ(VarArrayHighBound(var, 1), 15);
  TQUMA_Uuid w;
  EXPECT_TRUE(w.TrySetAsVariant(var));
  EXPECT_EQ(w, u);

  EXPECT_TRUE(w.TrySetAsVariant(Variant()));
  EXPECT_TRUE(w.IsZero());
  w = u;
  EXPECT_TRUE(w.TrySetAsVariant(Variant::Null()));
  EXPECT_TRUE(w.IsZero());

  EXPECT_TRUE(w.TrySetAsVariant(Variant::OleStr(u.Format())));
  EXPECT_EQ(w, u);
  // Other types, the runtime's own UTF-16 string included, are not taken.
  w.Zero();
  EXPECT_FALSE(w.TrySetAsVariant(Variant(u.Format())));
  EXPECT_FALSE(w.TrySetAsVariant(Variant(Integer{5})));
  w._SetAsVariant(Variant(u.Format()));
  EXPECT_TRUE(w.IsZero());
  // OLE-string reader errors pass as they are.
  EXPECT_EQ(ConvertErrorOf([&] { w.TrySetAsVariant(Variant::OleStr(u"not a uuid")); }), u"Unrecognised Format");
  // 8-bit text is handed to the wide reader as it is: 32 hex digits as 8-bit text are 16 UTF-16 units of two digits
  // each: the wide-character form.
  EXPECT_TRUE(w.TrySetAsVariant(Variant::AnsiString("0123456789abcdef0123456789abcdef")));
  EXPECT_EQ(w, TQUMA_Uuid::Create(u"0123456789abcdef0123456789abcdef"));
  // The standard form as 8-bit text is 18 units: no form has that length.
  const std::string standard = "01234567-89ab-cdef-0123-456789abcdef";
  EXPECT_EQ(ConvertErrorOf([&] { w.TrySetAsVariant(Variant::AnsiString(standard)); }),
            u"Unable to interpret Variant text as Uuid");
  // The plain setter passes the reader's error.
  EXPECT_EQ(ConvertErrorOf([&] { w._SetAsVariant(Variant::AnsiString(standard)); }), u"Unrecognised Format");
}

}  // namespace
}  // namespace quma
