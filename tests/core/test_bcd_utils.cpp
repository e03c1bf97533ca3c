// Decimal helpers: zero test, compaction, long division and reading numbers out of text.
#include <gtest/gtest.h>

#include <random>
#include <thread>
#include <tuple>

#include <quma/BcdUtils.h>
#include <quma/FmtBcd.h>
#include <quma/Strings.h>

#include "rtl/TestSupport.h"

using namespace quma;
using quma::test::ErrorOf;

namespace {

TBcd B(const char* s) { return StrToBcd(Utf8ToUtf16(s)); }
std::string S(const TBcd& b) { return Utf16ToUtf8(BcdToStr(b)); }

template <class T, class... Settings>
std::string FromString(T text, const Settings&... fs) {
  TBcd r;
  QUMA_BcdFromString(text, r, fs...);
  return S(r);
}

// Exact a/b (b > 0) written with `places` decimals, truncated.
std::string TruncatedQuotient(long long a, long long b, int places) {
  const long long x = a < 0 ? -a : a;
  std::string out = (a < 0 ? "-" : "") + std::to_string(x / b) + (places > 0 ? "." : "");
  for (long long r = x % b, i = 0; i < places; ++i) {
    r *= 10;
    out += static_cast<char>('0' + r / b);
    r %= b;
  }
  while (out.find('.') != std::string::npos && (out.back() == '0' || out.back() == '.')) out.pop_back();
  return out == "-0" ? "0" : out;
}

}  // namespace

TEST(BcdIsZeroAndCompact, OnlyDigitsWithinThePrecisionCountAndOneIntegerDigitRemains) {
  EXPECT_TRUE(QUMA_BcdIsZero(NullBcd));
  EXPECT_TRUE(QUMA_BcdIsZero(B("-0.000")));
  TBcd negativeZero = B("0");
  negativeZero.SignSpecialPlaces = TBcd::SignBit | 3;
  EXPECT_TRUE(QUMA_BcdIsZero(negativeZero));
  EXPECT_FALSE(QUMA_BcdIsZero(B("0.001")));
  EXPECT_FALSE(QUMA_BcdIsZero(B("-5")));
  // Precision 3: digits 0, 0, 0 and a stray 7 in the fourth nibble, which is not looked at.
  TBcd odd;
  odd.Precision = 3;
  odd.Fraction[1] = 0x07;
  EXPECT_TRUE(QUMA_BcdIsZero(odd));
  odd.Fraction[1] = 0x10;
  EXPECT_FALSE(QUMA_BcdIsZero(odd));

  // Compaction: one integer digit and an exponent.
  const struct {
    const char *In, *Mantissa;
    int Exponent;
  } cases[] = {{"123.45", "1.2345", 2}, {"0.0012", "1.2", -3}, {"-123.45", "-1.2345", 2}, {"1000", "1", 3},
               {"7", "7", 0},           {"0.5", "5", -1},      {"100.001", "1.00001", 2}};
  for (const auto& c : cases) {
    TBcd m;
    Integer e = 99;
    QUMA_BcdCompact(B(c.In), m, e);
    EXPECT_EQ(std::tuple(S(m), e), std::tuple(c.Mantissa, c.Exponent)) << c.In;
    EXPECT_EQ(m.Places(), m.Precision - 1) << c.In;  // with the text: one leading digit, not zero
  }
  TBcd untouched = B("42");
  Integer e = 99;
  QUMA_BcdCompact(B("0.00"), untouched, e);
  EXPECT_EQ(e, 0);
  EXPECT_EQ(S(untouched), "42");
}

TEST(BcdDivide, ShortcutsLongDivisionErrorsAndAgreementWithIntegers) {
  TBcd q;
  const TBcd zero = B("0.00");
  QUMA_BcdDivide(zero, B("5"), q);  // the dividend as it is
  EXPECT_EQ(std::tuple(q.Precision, q.SignSpecialPlaces), std::tuple(zero.Precision, zero.SignSpecialPlaces));
  EXPECT_EQ(ErrorOf<EDivByZero>([&] { QUMA_BcdDivide(B("1"), B("-0.0"), q); }), "Divide by Zero");
  const auto quotient = [&](const char* a, const char* b) {
    QUMA_BcdDivide(B(a), B(b), q);
    return S(q);
  };
  EXPECT_EQ(quotient("1", "3"), "0." + std::string(60, '3'));
  EXPECT_EQ(q.Precision, 61);
  EXPECT_EQ(quotient("1", "30"), "0.0" + std::string(58, '3'));  // 60 digits: the limit is one lower than for 1/3
  EXPECT_EQ(quotient("2", "3"), "0." + std::string(60, '6'));    // truncated, not rounded
  const struct {
    const char *A, *B, *Q;
  } cases[] = {{"7", "7", "1"},        {"7.25", "7.250", "1"},  {"7", "-1", "-7"},     {"-7.5", "1.0", "-7.5"},
               {"100", "4", "25"},     {"300", "3", "100"},     {"100", "5", "20"},    {"7", "2", "3.5"},
               {"-7", "2", "-3.5"},    {"7", "-0.5", "-14"},    {"1.5", "0.25", "6"},  {"12345.678", "0.001", "12345678"},
               {"0.001", "8", "0.000125"}, {"6", "1000", "0.006"}};
  for (const auto& c : cases) EXPECT_EQ(quotient(c.A, c.B), c.Q) << c.A << " / " << c.B;
  std::mt19937_64 rng(11);
  std::uniform_int_distribution<long long> num(-99999999, 99999999), den(1, 99999);
  for (int i = 0; i < 300; ++i) {
    const long long a = num(rng), b = den(rng);
    if (a == 0 || b == 1 || a == b) continue;
    QUMA_BcdDivide(IntegerToBcd(a), IntegerToBcd(b), q);
    ASSERT_EQ(S(q), TruncatedQuotient(a, b, q.Places())) << a << " / " << b;
    ASSERT_LE(q.Precision, 64);
  }
}

TEST(BcdFromString, FindsTheFirstNumberWithThePatternOfTheSettings) {
  // The exponent letter in either case; a bare one counts as e0.
  const std::pair<const char16_t*, const char*> found[] = {{u"Total: 1,234.50 EUR", "1234.5"},
      {u"abc -12.5e2 def", "-1250"}, {u"x 3E2", "300"}, {u"+42", "42"}, {u"5e", "5"}, {u"1.2.3", "1.2"}};
  for (const auto& [text, number] : found) EXPECT_EQ(FromString(text), number) << Utf16ToUtf8(text);
  EXPECT_EQ(FromString("v7.25"), "7.25");
  // "a, b": the pattern takes the lone thousands separator, which does not convert.
  for (const char16_t* bad : {u"", u"no digits here", u"-", u"a, b"})
    EXPECT_EQ(ErrorOf<EConvertError>([&] { FromString(bad); }),
              "Unable to convert \"" + Utf16ToUtf8(bad) + "\" to TBcd");

  // The settings shape the pattern but not the conversion.
  TFormatSettings german = TFormatSettings::Create(u"en-GB");
  german.ThousandSeparator = u'.';
  german.DecimalSeparator = u',';
  // The pattern takes "1.234" with its thousands separator and "," as the decimal part, but the
  // conversion reads the joined text with the process default settings, where "," is the
  // thousands separator and "." the decimal point.
  EXPECT_EQ(ErrorOf<EConvertError>([&] { FromString(u"1.234,5", german); }), "Unable to convert \"1.234,5\" to TBcd");
  EXPECT_EQ(FromString(u"Preis 12,", german), "12");
  EXPECT_EQ(FromString("value 77", german), "77");
  // The pattern a thread used last is not taken for a pair that differs in the thousands separator.
  TFormatSettings apostrophe = TFormatSettings::Create(u"en-GB");
  apostrophe.ThousandSeparator = u'\'';
  EXPECT_EQ(FromString(u"1'234.5"), "1");
  EXPECT_EQ(ErrorOf<EConvertError>([&] { FromString(u"1'234.5", apostrophe); }),
            "Unable to convert \"1'234.5\" to TBcd");
  // ...nor for one that differs in the decimal separator only.
  TFormatSettings semicolon = TFormatSettings::Create(u"en-GB");
  semicolon.DecimalSeparator = u';';
  EXPECT_EQ(FromString(u"7;5"), "7");
  EXPECT_EQ(ErrorOf<EConvertError>([&] { FromString(u"7;5", semicolon); }), "Unable to convert \"7;5\" to TBcd");
  // A different pair on many threads at once: one compiled pattern per pair, shared safely.
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      TFormatSettings fs = TFormatSettings::Create(u"en-GB");
      fs.ThousandSeparator = t % 2 ? u' ' : u'\'';
      for (int i = 0; i < 200; ++i) ASSERT_EQ(FromString(u"n=1234.5", fs), "1234.5");
    });
  for (auto& th : threads) th.join();
}
