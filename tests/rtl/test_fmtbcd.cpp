// The packed decimal type: text, normalisation, arithmetic and comparison.
#include <gtest/gtest.h>

#include <random>
#include <tuple>
#include <vector>

#include <quma/FmtBcd.h>
#include <quma/Strings.h>

#include "rtl/TestSupport.h"

using namespace quma;
using quma::test::ErrorOf;

namespace {
std::string S(const TBcd& b) { return Utf16ToUtf8(BcdToStr(b)); }
TBcd B(const char16_t* s) { return StrToBcd(s); }
}  // namespace

TEST(BcdText, ReadsAndWritesPlainDecimals) {
  const TBcd b = B(u"-123.450");
  EXPECT_EQ(std::tuple(b.Precision, b.Places(), b.IsNegative()), std::tuple(6, 3, true));
  EXPECT_EQ(std::vector<Byte>(b.Fraction.begin(), b.Fraction.begin() + 3), (std::vector<Byte>{0x12, 0x34, 0x50}));
  EXPECT_EQ(S(b), "-123.45");
  const std::pair<const char16_t*, const char*> texts[] = {{u" 1,234,567.5 ", "1234567.5"}, {u"000.0100", "0.01"},
      {u"1.5e3", "1500"}, {u"15E-4", "0.0015"}, {u"7e", "7"}, {u".5", "0.5"}, {u"-0", "0"}};
  for (const auto& [text, written] : texts) EXPECT_EQ(S(B(text)), written) << Utf16ToUtf8(text);
  const TBcd nines = B(std::u16string(64, u'9').c_str());
  EXPECT_EQ(S(nines), std::string(64, '9'));
  EXPECT_EQ(std::pair(nines.Digit(-1), nines.Digit(64)), std::pair(Byte{0}, Byte{0}));  // outside the 64 nibbles
  TBcd tiny;  // one digit, three places: the places beyond the digits are leading zeros
  tiny.Precision = 1;
  tiny.SignSpecialPlaces = 3;
  tiny.SetDigit(0, 5);
  EXPECT_EQ(S(tiny), "0.005");
  TFormatSettings comma;
  comma.DecimalSeparator = u',';
  comma.ThousandSeparator = u'.';
  EXPECT_EQ(BcdToStr(StrToBcd(u"1.000,25", comma), comma), u"1000,25");
  TBcd keep = B(u"1");
  for (const char16_t* bad : {u"", u"-", u"abc", u"1.2.3", u"1e5x", u"--1", u"1e-", u",5"})
    EXPECT_FALSE(TryStrToBcd(bad, keep)) << Utf16ToUtf8(bad);
  EXPECT_FALSE(TryStrToBcd(std::u16string(65, u'9'), keep));
  EXPECT_EQ(S(keep), "1");
  EXPECT_EQ(ErrorOf<EConvertError>([] { StrToBcd(u"x1"); }), "'x1' is not a valid BCD value");
}

TEST(BcdArithmetic, AddSubtractCompareAndNormalize) {
  // a, b, a + b, a - b, BcdCompare(a, b)
  const std::tuple<const char16_t*, const char16_t*, const char*, const char*, int> cases[] = {
      {u"1.25", u"2.5", "3.75", "-1.25", -1}, {u"-1.25", u"1.25", "0", "-2.5", -1},
      {u"99.99", u"0.01", "100", "99.98", 1}, {u"1.50", u"1.5", "3", "0", 0}, {u"-0", u"0", "0", "0", 0},
      {u"-2", u"-1.5", "-3.5", "-0.5", -1}, {u"0.001", u"0", "0.001", "0.001", 1},
      {u"10", u"9.99", "19.99", "0.01", 1}};
  for (const auto& [a, b, sum, difference, order] : cases) {
    SCOPED_TRACE(Utf16ToUtf8(a) + " " + Utf16ToUtf8(b));
    EXPECT_EQ(S(B(a) + B(b)), sum);
    EXPECT_EQ(S(B(a) - B(b)), difference);
    EXPECT_EQ(BcdCompare(B(a), B(b)), order);
    EXPECT_EQ(std::tuple(B(a) < B(b), B(a) == B(b), B(a) > B(b)), std::tuple(order < 0, order == 0, order > 0));
  }
  std::mt19937_64 rng(9);
  std::uniform_int_distribution<long long> v(-1000000000000LL, 1000000000000LL);
  for (int i = 0; i < 1000; ++i) {
    const long long x = v(rng), y = v(rng);
    ASSERT_EQ(S(IntegerToBcd(x) + IntegerToBcd(y)), std::to_string(x + y));
    ASSERT_EQ(S(IntegerToBcd(x) - IntegerToBcd(y)), std::to_string(x - y));
    ASSERT_EQ(BcdCompare(IntegerToBcd(x), IntegerToBcd(y)), x < y ? -1 : x > y ? 1 : 0);
  }
  EXPECT_EQ(S(IntegerToBcd(INT64_MIN)), "-9223372036854775808");
  EXPECT_THROW(B(std::u16string(64, u'9').c_str()) + B(u"1"), EConvertError);
  // A sum one digit too long loses its last decimal, rounded half away from zero.
  EXPECT_EQ(S(B((u"9999999999." + std::u16string(54, u'5')).c_str()) + B(u"1")),
            "10000000000." + std::string(52, '5') + "6");

  // Normalising to a precision and places.
  TBcd out;
  ASSERT_TRUE(NormalizeBcd(B(u"12.5"), out, 10, 4));
  EXPECT_EQ(std::tuple(out.Precision, out.Places()), std::tuple(10, 4));
  EXPECT_EQ(S(out), "12.5");
  TBcd untouched = B(u"1");
  EXPECT_FALSE(NormalizeBcd(B(u"123"), untouched, 2, 0));
  EXPECT_EQ(S(untouched), "1");
  EXPECT_FALSE(NormalizeBcd(B(u"1"), untouched, 65, 0));
  ASSERT_TRUE(NormalizeBcd(B(u"-0.5"), out, 1, 1));
  EXPECT_EQ(S(out), "-0.5");
  ASSERT_TRUE(NormalizeBcd(B(u"0.5"), out, 64, 63));  // the most places there are
  EXPECT_EQ(out.Places(), 63);
  // A digit rounded away gives false: one rounding from the first dropped digit, half away from
  // zero; carries run through every digit.
  const struct {
    const char16_t* in;
    int prec, places;
    const char* out;
  } rounded[] = {{u"0.4595", 1, 0, "0"}, {u"9.5", 2, 0, "10"},       {u"9.95", 3, 1, "10"},   {u"-9.95", 3, 1, "-10"},
                 {u"0.45", 2, 1, "0.5"}, {u"1.2349", 4, 3, "1.235"}, {u"99.96", 4, 1, "100"}, {u"12.56", 3, 1, "12.6"}};
  for (const auto& c : rounded) {
    ASSERT_FALSE(NormalizeBcd(B(c.in), out, c.prec, c.places)) << Utf16ToUtf8(c.in);
    EXPECT_EQ(S(out), c.out) << Utf16ToUtf8(c.in);
    EXPECT_EQ(out.Places(), c.places);
  }
  EXPECT_FALSE(NormalizeBcd(B(u"99.96"), out, 3, 1));  // the carry needs a fourth digit
}
