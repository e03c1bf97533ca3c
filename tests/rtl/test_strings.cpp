#include <gtest/gtest.h>

#include <quma/PerlRegEx.h>
#include <quma/Strings.h>
#include <quma/SysUtils.h>

using namespace quma;

TEST(Utf, RoundTripsAndRepairs) {
  const std::string text = "A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";  // A é € 😀
  const UnicodeString u = Utf8ToUtf16(text);
  EXPECT_EQ(u, u"A\u00E9\u20AC\U0001F600");
  EXPECT_EQ(Utf16ToUtf8(u), text);
  EXPECT_TRUE(IsValidUtf8(text));
  EXPECT_FALSE(IsValidUtf8("\xC0\xAF"));  // overlong
  EXPECT_FALSE(TryUtf8ToUtf16("ab\xFF").has_value());
  EXPECT_EQ(Utf8ToUtf16("ab\xFF"), u"ab\uFFFD");
  EXPECT_EQ(Utf16ToUtf8(UnicodeString(1, u'\xD800')), "\xEF\xBF\xBD");  // lone surrogate
}

TEST(Strings, CaseMappingIsAsciiOnly) {
  EXPECT_EQ(UpperCase(u"abc\u00E9z"), u"ABC\u00E9Z");
  EXPECT_EQ(LowerCase(u"ABC\u00C9"), u"abc\u00C9");
  EXPECT_TRUE(SameText(u"Hello", u"hELLO"));
  EXPECT_LT(CompareText(u"abc", u"ABD"), 0);
  EXPECT_EQ(Trim(u"  x y \t"), u"x y");
}

TEST(Strings, IntegerConversion) {
  EXPECT_EQ(StrToInt(u"$FF"), 255);
  EXPECT_EQ(StrToInt(u"0x10"), 16);
  EXPECT_EQ(StrToInt(u" -42 "), -42);
  EXPECT_EQ(StrToInt(u"$FFFFFFFF"), -1);
  EXPECT_EQ(StrToInt(u"-2147483648"), std::numeric_limits<Integer>::min());
  EXPECT_EQ(StrToInt64(u"9223372036854775807"), std::numeric_limits<Int64>::max());
  Integer v = 0;
  EXPECT_FALSE(TryStrToInt(u"2147483648", v));
  EXPECT_FALSE(TryStrToInt(u"", v));
  EXPECT_FALSE(TryStrToInt(u"$", v));
  try {
    StrToInt(u"12a");
    FAIL();
  } catch (const EConvertError& e) {
    EXPECT_EQ(e.Message(), u"'12a' is not a valid integer value");
  }
  EXPECT_EQ(IntToStr(-5), u"-5");
  EXPECT_EQ(IntToHex(0xAB, 4), u"00AB");
}

TEST(Strings, FormatSubset) {
  EXPECT_EQ(Format(u"%d items", 3), u"3 items");
  EXPECT_EQ(Format(u"%s=%s", u"a", std::string("b")), u"a=b");
  EXPECT_EQ(Format(u"%x|%.2x|%2.2x|%X", 255, 10, 7, 0xAB), u"ff|0a|07|AB");
  EXPECT_EQ(Format(u"%4.2f", 3.14159), u"3.14");
  EXPECT_EQ(Format(u"%8.2f|%-4d|", 2.5, 7), u"    2.50|7   |");
  EXPECT_EQ(Format(u"%1:s %0:s", u"world", u"hello"), u"hello world");
  EXPECT_EQ(Format(u"100%%"), u"100%");
  EXPECT_EQ(Format(u"%x", -1), u"ffffffff");
  try {
    Format(u"%d", u"text");
    FAIL();
  } catch (const EConvertError& e) {
    EXPECT_EQ(e.Message(), u"Format '%d' invalid or incompatible with argument");
  }
  EXPECT_THROW(Format(u"%s %s", u"one"), EConvertError);
}

TEST(Exceptions, MessagesInBothEncodings) {
  EListError e = EListError::OutOfBounds(7);
  EXPECT_EQ(e.Message(), u"List index out of bounds (7)");
  EXPECT_EQ(e.Index(), 7);
  EXPECT_STREQ(e.what(), "List index out of bounds (7)");
  EXPECT_EQ(EConvertError("x").ClassName(), u"EConvertError");
  EConvertError u(u"\u00E9");
  EXPECT_STREQ(u.what(), "\xC3\xA9");
}

TEST(RegularExpressions, MatchGroupsAndSurroundings) {
  TPerlRegEx re;
  re.SetRegEx(u"(\\d+)-(\\d+)");
  re.SetSubject(u"from 10-20 to 30-40");
  ASSERT_TRUE(re.Match());
  EXPECT_EQ(re.MatchedText(), u"10-20");
  EXPECT_EQ(re.MatchedOffset(), 6);
  EXPECT_EQ(re.GroupCount(), 2);
  EXPECT_EQ(re.Groups(2), u"20");
  EXPECT_EQ(re.SubjectLeft(), u"from ");
  EXPECT_EQ(re.SubjectRight(), u" to 30-40");
  ASSERT_TRUE(re.MatchAgain());
  EXPECT_EQ(re.Groups(1), u"30");
  EXPECT_FALSE(re.MatchAgain());
}

TEST(RegularExpressions, OptionsReplaceAndErrors) {
  TRegex caseless(u"^abc$", {preCaseLess});
  EXPECT_TRUE(caseless.IsMatch(u"ABC"));
  TRegex dotAll(u"a.b", {preSingleLine});
  EXPECT_TRUE(dotAll.IsMatch(u"a\nb"));
  EXPECT_FALSE(TRegex(u"a.b").IsMatch(u"a\nb"));
  EXPECT_TRUE(TRegex(u"(?<=x)y").IsMatch(u"xy"));  // look-behind

  TPerlRegEx re;
  re.SetRegEx(u"(\\w+)@(\\w+)");
  re.SetSubject(u"a@b, c@d");
  re.SetReplacement(u"\\2 at $1");
  EXPECT_EQ(re.ReplaceAll(), 2);
  EXPECT_EQ(re.Subject(), u"b at a, d at c");

  EXPECT_THROW(TRegex(u"(unclosed"), ERegularExpressionError);
  EXPECT_EQ(TPerlRegEx::EscapeRegExChars(u"a.b*c"), u"a\\.b\\*c");
  EXPECT_TRUE(TRegex(TPerlRegEx::EscapeRegExChars(u"1+1=(2)")).IsMatch(u"x 1+1=(2) y"));
}
