// The string tokeniser through its public surface: splitting rules, errors, name=value look-up,
// and EscapeAndQuote followed by Tokenise giving the value back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <tuple>
#include <vector>

#include <quma/StringTokeniser.h>
#include <quma/SysUtils.h>

using namespace quma;

namespace {

using TSetup = std::function<void(TQUMAStringTokeniser&)>;

std::vector<UnicodeString> TokensOf(const TQUMAStringTokeniser& t) {
  std::vector<UnicodeString> out;
  for (Integer i = 0; i < t.TokenCount(); ++i) out.push_back(t.Token(i));
  return out;
}

const TSetup kDefaults = [](TQUMAStringTokeniser&) {};
const TSetup kKeepEmpty = [](TQUMAStringTokeniser& t) { t.SetIgnoreEmptyTokens(false); };
const TSetup kKeepQuotes = [](TQUMAStringTokeniser& t) { t.SetRemoveEnclosingQuotes(false); };
const TSetup kBackslash = [](TQUMAStringTokeniser& t) { t.SetEscapes(u"\\"); };
const TSetup kQuoteEscape = [](TQUMAStringTokeniser& t) {
  t.SetOpenQuotes(u"'");
  t.SetCloseQuotes(u"'");
  t.SetEscapes(u"'");
};
const TSetup kAngles = [](TQUMAStringTokeniser& t) {
  t.SetOpenQuotes(u"<[");
  t.SetCloseQuotes(u">]");
};
const TSetup kComma = [](TQUMAStringTokeniser& t) {
  t.SetSeparators(u",");
  t.SetIgnoreEmptyTokens(false);
};

}  // namespace

TEST(StringTokeniser, SplitsByTheDocumentedRules) {
  const std::tuple<const char*, UnicodeString, TSetup, std::vector<UnicodeString>> cases[] = {
      {"blanks around and between", u" a  b ", kDefaults, {u"a", u"b"}},
      {"NUL separates", UnicodeString(u"a\0b", 3), kDefaults, {u"a", u"b"}},
      {"tab CR LF separate", u"a\tb\rc\nd", kDefaults, {u"a", u"b", u"c", u"d"}},
      {"quoted stretch", u"\"x y\" z", kDefaults, {u"x y", u"z"}},
      {"quotes kept", u"\"x y\" z", kKeepQuotes, {u"\"x y\"", u"z"}},
      {"mid-token quote is text", u"a\"b c\"", kDefaults, {u"a\"b", u"c\""}},
      {"embedded quotes", u"ab\"c d\"e",
       [](TQUMAStringTokeniser& t) { t.SetAllowEmbeddedQuotes(true); }, {u"abc de"}},
      {"unclosed quote takes the rest", u"a \"b c", kDefaults, {u"a", u"b c"}},
      {"empty input", u"", kKeepEmpty, {}},
      {"one separator", u" ", kDefaults, {}},
      {"one separator, empties kept", u" ", kKeepEmpty, {u"", u""}},
      {"doubled separator", u"a,,b", kComma, {u"a", u"", u"b"}},
      {"trailing separator", u"a,", kComma, {u"a", u""}},
      {"empty quoted token kept", u"\"\" x", kKeepEmpty, {u"", u"x"}},
      {"escaped separator", u"a\\ b c", kBackslash, {u"a b", u"c"}},
      {"escape inside quotes", u"\"a\\\"b\"", kBackslash, {u"a\"b"}},
      {"trailing escape vanishes", u"ab\\", kBackslash, {u"ab"}},
      {"open quote beats escape", u"'a b x'' y", kQuoteEscape, {u"a b x' y"}},
      {"mid-token the quote escapes", u"x'' y", kQuoteEscape, {u"x'", u"y"}},
      {"quotes pair by membership", u"<a b] c", kAngles, {u"a b", u"c"}},
      {"close quote outside is text", u"a> b", kAngles, {u"a>", u"b"}},
      {"non-ASCII separator", u"a\u00a7b\u00a7\u00a7c",
       [](TQUMAStringTokeniser& t) { t.SetSeparators(u"\u00a7"); }, {u"a", u"b", u"c"}},
  };
  for (const auto& [name, input, setup, expected] : cases) {
    SCOPED_TRACE(name);
    auto t = MakeObject<TQUMAStringTokeniser>();
    setup(*t);
    EXPECT_EQ(t->Tokenise(input), static_cast<Integer>(expected.size()));
    EXPECT_EQ(TokensOf(*t), expected);
  }
}

TEST(StringTokeniser, ConstructorsSettingsTokenIndexRangeAndValueForName) {
  // The separators, quotes and options of the split table are the defaults; true gives none.
  auto plain = MakeObject<TQUMAStringTokeniser>(true);
  plain->Tokenise(u" \"a\" b ");
  EXPECT_EQ(TokensOf(*plain), std::vector<UnicodeString>{u" \"a\" b "});

  auto defaults = MakeObject<TQUMAStringTokeniser>(u"x \"y z\"");
  EXPECT_EQ(defaults->Escapes(), u"");  // a backslash is plain text
  EXPECT_EQ(TokensOf(*defaults), (std::vector<UnicodeString>{u"x", u"y z"}));
  defaults->SetIgnoreEmptyTokens(false);  // settings never re-tokenise
  EXPECT_EQ(defaults->TokenCount(), 2);
  for (Integer index : {-1, 2})
    EXPECT_THAT([&] { (void)defaults->Token(index); },
                testing::ThrowsMessage<EArgumentOutOfRangeException>("TQUMAStringTokeniser._GetToken no such token"));
  EXPECT_EQ(MakeObject<TQUMAStringTokeniser>("a b")->TokenCount(), 2);  // UTF-8

  // ValueForName finds the first pair, without case.
  auto t = MakeObject<TQUMAStringTokeniser>(u"plain key=1 key=2 other=a=b");
  UnicodeString v = u"stale";
  EXPECT_TRUE(t->ValueForName(u"KEY", v));
  EXPECT_EQ(v, u"1");
  EXPECT_TRUE(t->ValueForName(u"other", v));
  EXPECT_EQ(v, u"a=b");
  EXPECT_FALSE(t->ValueForName(u"plain", v));
  EXPECT_EQ(v, u"");
  std::string v8;
  EXPECT_TRUE(t->ValueForName(std::string_view("Key"), v8));
  EXPECT_EQ(v8, "1");
}

// A descendant whose embedded-quote switch is always on: both virtual constructors create it,
// and the string form tokenises with its override.
class TEmbeddingTokeniser : public TQUMAStringTokeniser {
  QUMA_CLASS(TEmbeddingTokeniser, TQUMAStringTokeniser)
 public:
  using TQUMAStringTokeniser::TQUMAStringTokeniser;
  bool _GetAllowEmbeddedQuotes() const override { return true; }
};

TEST(StringTokeniser, VirtualConstructorsBuildTheRunTimeClass) {
  const TQUMAStringTokeniserClass cls = TEmbeddingTokeniser::StaticClass();
  TObjectPtr<TQUMAStringTokeniser> a(TQUMAStringTokeniser::Create(cls, u"a\"b c\""));
  ASSERT_TRUE(a);
  EXPECT_TRUE(a->Is<TEmbeddingTokeniser>());
  EXPECT_EQ(TokensOf(*a), std::vector<UnicodeString>{u"ab c"});
  TObjectPtr<TQUMAStringTokeniser> b(cls.Create(true));
  EXPECT_EQ(b->OpenQuotes(), u"");
  EXPECT_EQ(TokensOf(*MakeObject<TEmbeddingTokeniser>(u"a\"b c\"")), std::vector<UnicodeString>{u"ab c"});
  EXPECT_EQ(TQUMAStringTokeniser::Create(TQUMAStringTokeniserClass(), u"a b"), nullptr);  // no class, no tokeniser
}

TEST(StringTokeniser, EscapeAndQuoteThenTokeniseGivesTheValueBack) {
  auto t = MakeObject<TQUMAStringTokeniser>();
  EXPECT_EQ(t->EscapeAndQuote(u""), u"");
  EXPECT_EQ(t->EscapeAndQuote(u"a b"), u"\"a b\"");
  EXPECT_EQ(t->EscapeAndQuote(u"a\"b"), u"a\"b");
  t->SetEscapes(u"\\/");
  EXPECT_EQ(t->EscapeAndQuote(u"a\"b"), u"a\\\"b");
  EXPECT_EQ(t->EscapeAndQuote(u"a/b\\c d"), u"\"a\\/b\\\\c d\"");
  EXPECT_EQ(t->EscapeAndQuote(std::string_view("x y")), "\"x y\"");
  t->SetCloseQuotes(u"");  // a separator without both quotes: escaped text alone
  EXPECT_EQ(t->EscapeAndQuote(u"a b"), u"a b");

  // Followed by Tokenise it gives the value back.
  std::mt19937 rng(13);
  // Plain letters, every separator, quotes, escapes and a character above ASCII.
  const UnicodeString alphabet(u"ab \t\r\n\0\"\\'xy\u00e9", 14);
  for (const bool keepEmpty : {false, true}) {
    auto q = MakeObject<TQUMAStringTokeniser>();
    q->SetEscapes(u"\\'");
    q->SetIgnoreEmptyTokens(!keepEmpty);
    for (int round = 0; round < 2000; ++round) {
      UnicodeString value;
      const auto length = 1 + rng() % 12;
      for (unsigned i = 0; i < length; ++i) value += alphabet[rng() % alphabet.size()];
      const UnicodeString line = q->EscapeAndQuote(value);
      ASSERT_EQ(q->Tokenise(line), 1) << Utf16ToUtf8(line);
      ASSERT_EQ(q->Token(0), value) << Utf16ToUtf8(line);
      // Two values side by side stay two tokens.
      ASSERT_EQ(q->Tokenise(line + u' ' + line), 2);
      ASSERT_EQ(q->Token(1), value);
    }
  }
}
