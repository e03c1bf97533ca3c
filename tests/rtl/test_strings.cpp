#include <gtest/gtest.h>

#include <limits>
#include <random>
#include <tuple>

#include <quma/PerlRegEx.h>
#include <quma/Strings.h>
#include <quma/SysUtils.h>

#include "rtl/TestSupport.h"

using namespace quma;
using quma::test::ErrorOf;

TEST(Strings, UtfRoundTripsRepairsExceptionMessagesAsciiCaseMappingAndIntegers) {
  const std::string text = "A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\xF0\x90\x80\x80";  // A é € 😀 U+10000
  const UnicodeString u = Utf8ToUtf16(text);
  EXPECT_EQ(u, u"A\u00E9\u20AC\U0001F600\U00010000");
  EXPECT_EQ(Utf16ToUtf8(u), text);
  EXPECT_TRUE(IsValidUtf8(text));
  EXPECT_FALSE(IsValidUtf8("\xC0\xAF"));  // overlong
  EXPECT_FALSE(TryUtf8ToUtf16("ab\xFF").has_value());
  EXPECT_EQ(Utf8ToUtf16("ab\xFF"), u"ab\uFFFD");
  EXPECT_EQ(Utf8ToUtf16("a\x80" "b"), u"a\uFFFDb");  // a lone continuation byte is no ASCII
  EXPECT_EQ(Utf16ToUtf8(UnicodeString(1, u'\xD800')), "\xEF\xBF\xBD");  // lone surrogate
  // An error's message is kept as UTF-16 and given as UTF-8 by what(), where the tests check it.
  EXPECT_EQ(EConvertError(u"\u00E9").Message() + Utf8ToUtf16(EConvertError(u"\u00E9").what()), u"\u00E9\u00E9");
  EXPECT_EQ(EConvertError("x").ClassName(), u"EConvertError");
  EXPECT_EQ(EListError::OutOfBounds(7).Index(), 7);

  // ASCII-only case mapping and integer conversion.
  EXPECT_EQ(UpperCase(u"abc\u00E9z"), u"ABC\u00E9Z");
  EXPECT_EQ(LowerCase(u"ABC\u00C9"), u"abc\u00C9");
  EXPECT_TRUE(SameText(u"Hello", u"hELLO"));
  EXPECT_LT(CompareText(u"abc", u"ABD"), 0);
  EXPECT_EQ(Trim(u"  x y \t"), u"x y");
  const struct {
    const char16_t* text;
    Int64 value;
  } good[] = {{u"$FF", 255},           {u"0x10", 16}, {u"  -42", -42}, {u"$FFFFFFFF", -1},
              {u"-2147483648", INT32_MIN}, {u"+7", 7}};
  for (const auto& c : good) EXPECT_EQ(StrToInt(c.text), c.value) << Utf16ToUtf8(c.text);
  EXPECT_EQ(StrToInt64(u"9223372036854775807"), std::numeric_limits<Int64>::max());
  // Only leading blanks are skipped; a sign or prefix needs digits after it.
  for (const char16_t* bad : {u"2147483648", u"", u"$", u"- ", u"-", u"5 ", u"0x", u"12a"}) {
    Integer v = 99;
    EXPECT_FALSE(TryStrToInt(bad, v)) << Utf16ToUtf8(bad);
    EXPECT_EQ(v, 99);
    EXPECT_EQ(StrToIntDef(bad, -7), -7);
  }
  EXPECT_EQ(ErrorOf<EConvertError>([] { StrToInt(u"- "); }), "'- ' is not a valid integer value");
  EXPECT_EQ(IntToStr(-5), u"-5");
  EXPECT_EQ(IntToHex(0xAB, 4), u"00AB");
}

// Floats round half away from zero on their exact decimal digits, as the host does; values just
// off the halfway point (0.145 is 0.14499999...) round to the nearer side.
TEST(Strings, FormatDirectivesAndFloatsRoundingHalfAwayFromZero) {
  const struct {
    const char16_t* format;
    double value;
    const char16_t* text;
  } cases[] = {
      {u"%4.2f", 0.125, u"0.13"},   {u"%.0f", 2.5, u"3"},        {u"%.0f", -2.5, u"-3"},
      {u"%.0f", 0.5, u"1"},         {u"%.2f", 0.145, u"0.14"},    {u"%.2f", 1.005, u"1.00"},
      {u"%.1f", 0.25, u"0.3"},      {u"%.1f", -0.25, u"-0.3"},    {u"%.2f", 9.995, u"9.99"},
      {u"%.1f", 9.95, u"9.9"},      {u"%.1f", 99.75, u"99.8"},    {u"%.0f", 999.5, u"1000"},
      {u"%.2f", -0.001, u"0.00"},   {u"%.3f", 1e-10, u"0.000"},   {u"%f", 1234.5, u"1234.50"},
      {u"%4.2f", 3.14159, u"3.14"}, {u"%.0f", 1e20, u"100000000000000000000"},
      {u"%n", 1234567.125, u"1,234,567.13"},                      {u"%.0n", -999.5, u"-1,000"},
      {u"%.3e", 1.125, u"1.13E+00"}, {u"%.3e", -2.5e-7, u"-2.50E-07"}, {u"%.1e", 95.0, u"1E+02"}, {u"%.0e", 2.5, u"3E+00"},
      {u"%e", 1.0 / 3, u"3.33333333333333E-01"},                  {u"%.2g", 0.125, u"0.13"},
      {u"%.3g", 1e20, u"1E+20"},    {u"%g", 0.0001, u"0.0001"},   {u"%g", 1e-5, u"1E-05"},
      {u"%.2g", 2.5e-5, u"2.5E-05"}, {u"%f", std::numeric_limits<double>::infinity(), u"INF"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(Utf16ToUtf8(Format(c.format, c.value)), Utf16ToUtf8(c.text)) << Utf16ToUtf8(c.format) << " " << c.value;

  // Directives.
  EXPECT_EQ(Format(u"%d items", 3), u"3 items");
  EXPECT_EQ(Format(u"%s=%s", u"a", std::string("b")), u"a=b");
  EXPECT_EQ(Format(u"%x|%.2x|%2.2x|%X", 255, 10, 7, 0xAB), u"ff|0a|07|AB");
  EXPECT_EQ(Format(u"%8.2f|%-4d|", 2.5, 7), u"    2.50|7   |");
  EXPECT_EQ(Format(u"%1:s %0:s", u"world", u"hello"), u"hello world");
  EXPECT_EQ(Format(u"100%%"), u"100%");
  EXPECT_EQ(Format(u"%x", -1), u"ffffffff");
  EXPECT_EQ(Format(u"%u|%U", -1, -2), u"4294967295|4294967294");
  // "*" takes width, precision or index from the arguments.
  EXPECT_EQ(Format(u"%*d", 5, 42), u"   42");
  EXPECT_EQ(Format(u"%*.*s|", 7, 6, u""), u"       |");
  EXPECT_EQ(Format(u"%-*.*f|", 8, 1, 2.25), u"2.3     |");
  EXPECT_EQ(Format(u"%*:s", 1, u"a", u"b"), u"a");
  EXPECT_EQ(Format(u"%*d|", -3, 9), u"9|");
  EXPECT_EQ(ErrorOf<EConvertError>([] { Format(u"%d", u"text"); }),
            "Format '%d' invalid or incompatible with argument");
  EXPECT_THROW(Format(u"%s %s", u"one"), EConvertError);
  EXPECT_THROW(Format(u"%*d", 5), EConvertError);
}

TEST(RegularExpressions, MatchGroupsSurroundingsOptionsReplaceAndErrors) {
  TPerlRegEx re;
  re.SetRegEx(u"(\\d+)-(\\d+)");
  re.SetSubject(u"from 10-20 to 30-40");
  ASSERT_TRUE(re.Match());
  EXPECT_EQ(re.SubjectLeft() + u"[" + re.MatchedText() + u"]" + re.SubjectRight(), u"from [10-20] to 30-40");
  EXPECT_EQ(re.MatchedOffset(), 6);
  EXPECT_EQ(re.GroupCount(), 2);
  EXPECT_EQ(re.Groups(2), u"20");
  EXPECT_EQ(re.GroupLengths(2), 2);
  EXPECT_EQ(std::pair(re.GroupOffsets(3), re.GroupLengths(3)), std::pair(0, 0));  // beyond the last group
  ASSERT_TRUE(re.MatchAgain());
  EXPECT_EQ(re.Groups(1), u"30");
  EXPECT_FALSE(re.MatchAgain());

  EXPECT_TRUE(TRegex(u"^abc$", {preCaseLess}).IsMatch(u"ABC"));
  EXPECT_TRUE(TRegex(u"a.b", {preSingleLine}).IsMatch(u"a\nb"));
  EXPECT_FALSE(TRegex(u"a.b").IsMatch(u"a\nb"));
  EXPECT_TRUE(TRegex(u"(?<=x)y").IsMatch(u"xy"));  // look-behind

  re.SetRegEx(u"(\\w+)@(\\w+)");
  re.SetSubject(u"a@b, c@d tail");
  re.SetReplacement(u"\\2 at $1 ($0)");
  EXPECT_EQ(re.ReplaceAll(), 2);
  EXPECT_EQ(re.Subject(), u"b at a (a@b), d at c (c@d) tail");  // the text between and after the matches stays

  EXPECT_THROW(TRegex(u"(unclosed"), ERegularExpressionError);
  EXPECT_EQ(TPerlRegEx::EscapeRegExChars(u"a.b*c"), u"a\\.b\\*c");
  EXPECT_TRUE(TRegex(TPerlRegEx::EscapeRegExChars(u"1+1=(2)")).IsMatch(u"x 1+1=(2) y"));
}

// What the analysis promises, checked on the patterns: a pattern called monotone never loses a
// match found within a prefix of a text as the prefix grows; anything that looks past its match
// or commits to a choice made on the shorter text is refused.
TEST(RegexAnalysis, GrowthMonotoneRefusesWhatLooksAheadOrCommits) {
  const struct {
    const char16_t* Pattern;
    bool Monotone;
  } cases[] = {
      {u"^<[a-z]+(?:\\s+\\w+=\"[^\"]*\")*>", true}, {u"(?<=x)y|[$\\b]", true}, {u"(?i:a)(?-i)b(?<n>c)\\k<n>", true},
      {u"a+?b??c{2,3}?", true},  {u"(?#$)a", true},        {u"(?P<n>a)(?P=n)", true},
      {u"a$", false},            {u"a\\b", false},         {u"a\\z", false},
      {u"a(?=b)", false},        {u"a(?!b)", false},       {u"(?>a+)", false},
      {u"a++", false},           {u"a*+b", false},         {u"a{2}+", false},
      {u"(*COMMIT)a", false},    {u"(a)(?(1)a|b)", false},    {u"(a)(?1)", false},
      {u"a(?R)?b", false},        {u"\\Q$\\E", false},      {u"(?x)a#[\n$", false},
      {u"a\\R", false},          {u"a\\X", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(Utf16ToUtf8(c.Pattern));
    EXPECT_EQ(TRegex(c.Pattern).GrowthMonotone(), c.Monotone);
  }
  EXPECT_FALSE(TRegex(u"a", {preExtended}).GrowthMonotone());
}

TEST(RegexAnalysis, FirstRequiredUnitsAndPossibleStarts) {
  const TRegex open(u"^<!-+-"), caseless(u"^x-+y", {preCaseLess}), space(u"^\\s+"), any(u"a|.");
  const std::tuple<const TRegex*, char16_t, bool> starts[] = {
      {&open, u'<', true},   {&open, u'!', false},  {&caseless, u'X', true}, {&caseless, u'z', false},
      {&space, u'\t', true}, {&space, u'<', false}, {&any, u'?', true}};
  for (const auto& [re, unit, may] : starts) EXPECT_EQ(re->MayStartWith(unit), may) << char(unit);
  bool folds = true;
  EXPECT_EQ(open.RequiredUnit(folds), u'-');
  EXPECT_FALSE(folds);
  EXPECT_EQ(caseless.RequiredUnit(folds), u'y');
  EXPECT_TRUE(folds);
  EXPECT_EQ(space.RequiredUnit(folds), -1);
  EXPECT_EQ(TRegex(u"\\d+\u0080").RequiredUnit(folds), -1);  // only ASCII units are taken

  // No match, complete or partial, starts before PossibleStart: checked against PCRE2 itself on
  // every start offset of random subjects; a known prefix also skips what cannot begin one.
  const TRegex close(u"</[a-z]+>$", {preSingleLine}), plain(u"^ab\\.c"), empty(u"a*$"), reset(u"x\\Ky"),
      foldedAb(u"ab", {preCaseLess});
  EXPECT_EQ(close.LiteralPrefix(), u"</");
  EXPECT_EQ(plain.LiteralPrefix(), u"ab.c");
  for (const TRegex* r : {&empty, &reset, &foldedAb}) EXPECT_TRUE(r->LiteralPrefix().empty()) << Utf16ToUtf8(r->Pattern());
  EXPECT_EQ(close.PossibleStart(u"abc</x", 0), 3u);
  EXPECT_EQ(close.PossibleStart(u"a<b<", 0), 3u);
  EXPECT_EQ(close.PossibleStart(u"a<b<c", 1), 5u);
  EXPECT_EQ(empty.PossibleStart(u"bbb", 1), 1u);
  std::mt19937 random(7);
  const char16_t alphabet[] = u"</>ab.cxyzK";
  TRegexMatch m;
  for (int i = 0; i < 400; ++i) {
    UnicodeString s;
    for (auto n = random() % 40; n > 0; --n) s += alphabet[random() % (std::size(alphabet) - 1)];
    for (const TRegex* r : {&close, &plain, &empty, &reset, &foldedAb})
      for (std::size_t from = 0; from <= s.size(); ++from) {
        const std::size_t at = r->PossibleStart(s, from);
        ASSERT_TRUE(at >= from && at <= s.size());
        EXPECT_TRUE(r->MatchPartial(s, m, from) == mrNoMatch || m.GroupOffset(0) >= at) << Utf16ToUtf8(s) << from;
        EXPECT_TRUE(!r->Match(s, m, from) || m.GroupOffset(0) >= at) << Utf16ToUtf8(s) << from;
      }
  }
}
