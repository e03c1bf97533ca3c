// String utilities through their public functions.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <tuple>

#include <quma/Soundex.h>
#include <quma/StringList.h>
#include <quma/StringUtils.h>
#include <quma/Strings.h>

#include "rtl/TestSupport.h"

using namespace quma;

namespace {

template <class F>
std::string Utf8ErrorOf(F&& f) { return test::ErrorOf<EQUMAUTF8EncodingError>(std::forward<F>(f)); }

int Sign(int v) { return v < 0 ? -1 : v > 0 ? 1 : 0; }

}  // namespace

TEST(UTF8CompareStr, OrdersByCodePointThenByStoredLengthInEveryFormAndReportsMalformedInput) {
  // U+00E9 (2 bytes) sorts after "z"; U+20AC (3 bytes) after U+00E9; U+1F600 (4 bytes) after both.
  // Equal code points written with different byte counts: the longer (an overlong "A") is greater.
  const std::tuple<std::string_view, std::string_view, int> cases[] = {
      {"ab", "abc", -1}, {"abc", "abc", 0}, {"", "", 0}, {"b", "abc", 1}, {"z", "\xC3\xA9", -1},
      {"\xE2\x82\xAC", "\xC3\xA9", 1}, {"\xF0\x9F\x98\x80", "\xE2\x82\xAC", 1}, {"\xC1\x81", "A", 1}};
  for (const auto& [a, b, r] : cases) EXPECT_EQ(UTF8CompareStr(a, b), r) << a << " vs " << b;
  // Long ASCII runs with the difference far inside, on both sides of the 8-byte steps.
  const std::string a(1000, 'x');
  for (std::size_t pos : {0u, 7u, 8u, 9u, 500u, 999u}) {
    std::string b = a;
    b[pos] = 'y';
    EXPECT_EQ(UTF8CompareStr(a, b), -1) << pos;
    EXPECT_EQ(UTF8CompareStr(b, a), 1) << pos;
  }
  // Mixed forms compare code units and stored lengths.
  EXPECT_EQ(UTF8CompareStr(u8"\u00E9", u8"z"), 1);
  // The same text, but 2 UTF-8 bytes against 1 UTF-16 unit; no surrogate pairing (U+1F600 against 0xD83D).
  EXPECT_EQ(UTF8CompareStr(u8"\u00E9", u"\u00E9"), 1);
  EXPECT_EQ(UTF8CompareStr(u"\u00E9", "\xC3\xA9"), -1);
  EXPECT_EQ(UTF8CompareStr("\xF0\x9F\x98\x80", u"\U0001F600"), 1);
  // Long texts with the difference on either side of the eight-unit steps, after a multi-byte character.
  const std::string prefix = std::string(20, 'x') + "\xC3\xA9" + std::string(40, 'x');
  for (std::size_t pos : {0u, 7u, 8u, 30u, 61u}) {
    UnicodeString b = Utf8ToUtf16(prefix);
    b[pos < 20 ? pos : pos - 1] = u'y';
    EXPECT_EQ(UTF8CompareStr(prefix, b), -1) << pos;
    EXPECT_EQ(UTF8CompareStr(b, prefix), 1) << pos;
  }
  // Agrees with the UTF-8 form, and with the byte order, on random ASCII text.
  std::mt19937 rng(5);
  std::uniform_int_distribution<int> len(0, 20), ch('a', 'd');
  const auto random = [&] {
    std::string s;
    for (int k = len(rng); k > 0; --k) s.push_back(static_cast<char>(ch(rng)));
    return s;
  };
  for (int i = 0; i < 500; ++i) {
    const std::string x = random(), y = random();
    const int expected = Sign(x.compare(y));
    ASSERT_EQ(UTF8CompareStr(x, y), expected);
    ASSERT_EQ(UTF8CompareStr(x, Utf8ToUtf16(y)), expected);
    ASSERT_EQ(UTF8CompareStr(Utf8ToUtf16(x), y), expected);
  }

  // Malformed input.
  // Octal escapes end after three digits, so "\303A" is a lead byte followed by "A".
  const std::string cut = "expected byte not found", noContinuation = "expected continuation byte not found";
  const std::tuple<std::string_view, std::string_view, const std::string&> bad[] = {
      {"a\xC3", "ab", cut}, {"ab", "a\xE2\x82", cut}, {"\303A", "x", noContinuation},
      {"\xC3", "\303A", cut} /* A first */, {"\303A", "\xC3", noContinuation}};
  for (const auto& [a, b, error] : bad) EXPECT_EQ(Utf8ErrorOf([&] { UTF8CompareStr(a, b); }), error) << a << " " << b;
  EXPECT_EQ(Utf8ErrorOf([] { UTF8CompareStr("\360\237\230A", u"x"); }), noContinuation);
  EXPECT_EQ(Utf8ErrorOf([] { UTF8CompareStr(u"x", "\342AB"); }), noContinuation);
  // Lead bytes that start nothing read as code point 0, without error; bad input after a difference is never read.
  EXPECT_EQ(UTF8CompareStr("\x80", std::string_view("\0", 1)), 0);
  EXPECT_EQ(UTF8CompareStr("\xFF", "\x01"), -1);
  EXPECT_EQ(UTF8CompareStr("\x80", u"\u0001"), -1);
  EXPECT_EQ(UTF8CompareStr("a\xC3", "b"), -1);
}

TEST(Soundex, CodesAndConfidence) {
  // H does not separate S and C (Ashcraft); P and F share a digit (Pfister).
  const std::tuple<const char16_t*, Integer, const char16_t*> codes[] = {
      {u"Robert", 4, u"R163"}, {u"Rupert", 4, u"R163"}, {u"Ashcraft", 4, u"A261"}, {u"Tymczak", 4, u"T522"},
      {u"Pfister", 4, u"P236"}, {u"lee", 6, u"L00000"}, {u"Washington", 10, u"W252350000"}, {u"", 4, u""}};
  for (const auto& [name, length, code] : codes) EXPECT_EQ(Soundex(name, length), code) << Utf16ToUtf8(name);
  EXPECT_EQ(Soundex(u"Robert"), u"R163");  // four by default
  // R163 against R16: 0.5; S53 and J52 share the 5.
  const std::tuple<const char16_t*, const char16_t*, double> confidences[] = {
      {u"Robert", u"Robert", 1.0}, {u"Robert", u"Rupert", 1.0}, {u"Robert", u"Rob", 0.5}, {u"Robert", u"Robbe", 0.5},
      {u"Smith", u"Jones", 1.0 / 3}, {u"Lloyd", u"Quirk", 0.0}, {u"Smith", u"", 0.0}};
  for (const auto& [a, b, c] : confidences) EXPECT_DOUBLE_EQ(SoundexConfidenceCompare(a, b), c) << Utf16ToUtf8(b);
  EXPECT_TRUE(std::isnan(SoundexConfidenceCompare(u"", u"")));
  EXPECT_TRUE(std::isnan(SoundexConfidenceCompare(u"0", u"00")));  // codes "0" and "00" strip to nothing
}

TEST(Tokens, FindRepeatedEmbeddedStringTextPosFirstLastAndGet) {
  TObjectPtr<TStringList> list = MakeObject<TStringList>();
  list->Add(u"old");
  EXPECT_FALSE(FindRepeatedEmbeddedString(u"abc", u",", *list, true));
  EXPECT_FALSE(FindRepeatedEmbeddedString(u"abc", u"", *list, true));
  EXPECT_EQ(list->Count(), 1);
  EXPECT_TRUE(FindRepeatedEmbeddedString(u"a,b,", u",", *list, true));
  EXPECT_EQ(list->CommaText(), u"a,b,");  // three items, the last empty

  std::vector<UnicodeString> parts{u"keep"};
  EXPECT_FALSE(FindRepeatedEmbeddedString(u"oneANDtwo", u"and", parts, true));
  EXPECT_EQ(parts, std::vector<UnicodeString>{u"keep"});
  EXPECT_TRUE(FindRepeatedEmbeddedString(u"oneANDtwoAndthree", u"and", parts, false));
  EXPECT_EQ(parts, (std::vector<UnicodeString>{u"one", u"two", u"three"}));
  EXPECT_TRUE(FindRepeatedEmbeddedString(u",,x", u",", parts, true));
  EXPECT_EQ(parts, (std::vector<UnicodeString>{u"", u"", u"x"}));
  EXPECT_TRUE(FindRepeatedEmbeddedString(u"aaaa", u"aa", parts, true));
  EXPECT_EQ(parts, (std::vector<UnicodeString>{u"", u"", u""}));

  // TextPos: ASCII case-insensitive, from an offset.
  EXPECT_EQ(TextPos(u"abc", u"ABC"), 1);
  const std::tuple<const char16_t*, const char16_t*, Integer, Integer> cases[] = {  // only ASCII letters fold
      {u"B", u"abc", 1, 2}, {u"B", u"abc", 3, 0},    {u"bc", u"ABC", 2, 2},   {u"", u"abc", 1, 0},
      {u"a", u"abc", 0, 0}, {u"a", u"abc", 100, 0}, {u"abcd", u"abc", 1, 0}, {u"\u00E9", u"x\u00C9\u00E9", 1, 3},
      {u"aab", u"aaab", 1, 2}};
  for (const auto& [sub, text, offset, at] : cases) EXPECT_EQ(TextPos(sub, text, offset), at) << Utf16ToUtf8(sub);

  // First, last and get tokens.
  EXPECT_EQ(FirstToken(u"a,b;c", u",;"), u"a");
  EXPECT_EQ(FirstToken(u"a,b;c", std::vector<WideChar>{u';'}), u"a,b");
  EXPECT_EQ(FirstToken(u",b", u","), u"");
  EXPECT_EQ(FirstToken(u"abc", {u',', u';'}), u"abc");
  EXPECT_EQ(LastToken(u"a,b;c", u",;"), u"c");
  EXPECT_EQ(LastToken(u"a,b;c", {u','}), u"b;c");
  EXPECT_EQ(LastToken(u"a,", u","), u"");
  EXPECT_EQ(LastToken(u"abc", u""), u"abc");

  UnicodeString text = u"xy";
  EXPECT_EQ(GetToken(text, u";", u""), u"xy");
  EXPECT_EQ(text, u"");
  text = u"a b,c";
  EXPECT_EQ(GetToken(text, u",", u" "), u"a");
  EXPECT_EQ(GetToken(text, u",", u" "), u"b");
  EXPECT_EQ(GetToken(text, u",", u" "), u"c");
  EXPECT_EQ(text, u"");
  for (const char16_t* piece : {u"", u"a", u"", u"b"}) ConcatenateWithSeparator(text, u", ", piece);
  EXPECT_EQ(text, u"a, b");
}

TEST(RectText, WritesAndReadsWithFixedSettingsWhateverTheDefault) {
  EXPECT_EQ(RectToString({0, 0, 10.5f, 20}), u"(0,0,10.5,20)");
  EXPECT_EQ(RectToString({-1.25f, 1e20f, 0.1f, 123456}), u"(-1.25,1.00000002004088E20,0.100000001490116,123456)");
  // Fifteen digits bring every float back exactly.
  for (const TRectF r : {TRectF{0, 0, 10.5f, 20}, TRectF{-1.25f, 3, 1000000, -0.5f}, TRectF{0.1f, 0.2f, 0.3f, 1e-6f}})
    EXPECT_EQ(StringToRect(RectToString(r)), r) << Utf16ToUtf8(RectToString(r));
  EXPECT_EQ(StringToRect(u"( 1 ,2,3,4)"), (TRectF{1, 2, 3, 4}));
  EXPECT_EQ(StringToRect(u"(1,2,3,4"), (TRectF{1, 2, 3, 4}));
  EXPECT_EQ(StringToRect(u"(1,2,3,4,5)"), (TRectF{1, 2, 3, 4}));  // what follows the fourth number is not read
  for (const char16_t* bad : {u"", u"hello", u"(1,2,3)", u"(1,2,x,4)", u"(1;2;3;4)", u"1,2,3,4", u"()"})
    EXPECT_EQ(StringToRect(bad), TRectF{}) << Utf16ToUtf8(bad);
  // The fixed settings keep a point whatever the process default says.
  TFormatSettings comma = DefaultFormatSettings();
  const TFormatSettings saved = comma;
  comma.DecimalSeparator = u',';
  SetDefaultFormatSettings(comma);
  EXPECT_EQ(RectToString({0.5f, 0, 0, 0}), u"(0.5,0,0,0)");
  EXPECT_EQ(StringToRect(u"(0.5,0,0,0)"), (TRectF{0.5f, 0, 0, 0}));
  SetDefaultFormatSettings(saved);
  EXPECT_EQ(GBFormatSettings.ThousandSeparator, u',');
  EXPECT_EQ(GBFormatSettings.CurrencyString, u"\u00A3");
  EXPECT_EQ(USFormatSettings.CurrencyString, u"$");
  EXPECT_EQ(FloatToStr(1234.5, USFormatSettings), u"1234.5");
}
