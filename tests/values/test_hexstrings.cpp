#include <quma/HexStrings.h>
#include <quma/SysUtils.h>

#include "ValuesTestSupport.h"

#include <gtest/gtest.h>

#include <random>

namespace quma {
namespace {

using test::ConvertErrorOf;

TEST(HexStrings, PlainFormIsLowerCasePairsAndTheLaidOutFormAddsSpacesAndSeparators) {
  EXPECT_EQ(BytesToHexString(TBytes{}), u"");
  EXPECT_EQ(BytesToHexString(TBytes{0x00, 0x0A, 0xFF, 0x7b}), u"000aff7b");
  EXPECT_EQ(BytesToHexStringUtf8(TBytes{0xDE, 0xAD}), "dead");
  const TBytes five{1, 2, 3, 4, 5};
  EXPECT_EQ(BytesToHexString(five, 1, 2, u"\r\n"), u"01 02\r\n03 04\r\n05");
  EXPECT_EQ(BytesToHexString(five, 0, 0, u"|"), u"0102030405");
  EXPECT_EQ(BytesToHexString(five, 2, 0, u"|"), u"01  02  03  04  05");
  EXPECT_EQ(BytesToHexString(five, 0, 3, u"|"), u"010203|0405");
  EXPECT_EQ(BytesToHexString(five, 1, 1, u"|"), u"01|02|03|04|05");
  EXPECT_EQ(BytesToHexString(five, 1, 5, u"|"), u"01 02 03 04 05");  // no separator after the last
  EXPECT_EQ(BytesToHexString(five, -3, -1, u"|"), u"0102030405");
  EXPECT_EQ(BytesToHexString(TBytes{}, 1, 2, u"|"), u"");
  EXPECT_EQ(BytesToHexStringUtf8(five, 1, 2, "\n"), "01 02\n03 04\n05");
}

TEST(HexStrings, ReadsDigitsAcrossWhiteSpace) {
  EXPECT_EQ(HexStringToBytes(u"0A 0b\r\n0C"), (TBytes{0x0A, 0x0B, 0x0C}));
  EXPECT_EQ(HexStringToBytes(u"0 A\t0\vb\f"), (TBytes{0x0A, 0x0B}));  // pairs form after cleaning
  EXPECT_EQ(HexStringToBytes(u""), TBytes{});
  EXPECT_EQ(HexStringToBytes(u"  \r\n\t "), TBytes{});
  EXPECT_EQ(HexStringToBytes("DEADbeef"), (TBytes{0xDE, 0xAD, 0xBE, 0xEF}));
  TBytes target{9, 9, 9};
  HexStringToBytes(u"", target);
  EXPECT_TRUE(target.empty());
}

TEST(HexStrings, RejectsOtherCharactersAndOddLengthsLeavingTheTargetAlone) {
  const UnicodeString msg = SHexStringInvalidCharacters;
  for (UnicodeStringView bad : {u"ABC", u"AB0", u"0G", u"0x10", u"12\u00A034", u"12\u01303", u"-1",
                                u"1234567890abcdef1234567890abcdeg", u"1234567890abcdef 1234567890abcdef1"}) {
    TBytes target{7};
    EXPECT_EQ(ConvertErrorOf([&] { HexStringToBytes(bad, target); }), msg) << Utf16ToUtf8(bad);
    EXPECT_EQ(target, TBytes{7});
  }
  EXPECT_EQ(ConvertErrorOf([] { HexStringToBytes("caf\xc3\xa9"); }), msg);
}

TEST(HexStrings, RandomRoundTripsThroughBothDirections) {
  std::mt19937 rng(99);
  for (int i = 0; i < 300; ++i) {
    TBytes data(rng() % 200);
    for (auto& b : data) b = static_cast<Byte>(rng());
    const UnicodeString plain = BytesToHexString(data);
    ASSERT_EQ(HexStringToBytes(plain), data);
    ASSERT_EQ(HexStringToBytes(UpperCase(plain)), data);
    ASSERT_EQ(HexStringToBytes(BytesToHexString(data, 1 + i % 3, 1 + i % 17, u"\r\n")), data);
    ASSERT_EQ(HexStringToBytes(Utf16ToUtf8(plain)), data);
    // A stray character anywhere in a long text is found.
    if (!plain.empty()) {
      UnicodeString broken = plain;
      broken[rng() % broken.size()] = u'z';
      ASSERT_EQ(ConvertErrorOf([&] { HexStringToBytes(broken); }), UnicodeString(SHexStringInvalidCharacters));
    }
  }
}

}  // namespace
}  // namespace quma
