#include <gtest/gtest.h>

#include <random>
#include <tuple>

#include <quma/PerlRegEx.h>

using namespace quma;

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
  // Where the analysis says yes, the promise holds on every prefix of a text.
  const TRegex tag(u"^<[a-z]+(?:\\s+\\w+=\"[^\"]*\")*>");
  const UnicodeString text = u"<ab x=\"1\" y=\"\">tail>";
  TRegexMatch m;
  bool seen = false;
  for (std::size_t k = 0; k <= text.size(); ++k) {
    const bool now = tag.Match(UnicodeStringView(text).substr(0, k), m);
    EXPECT_TRUE(now || !seen) << k;
    seen = seen || now;
  }
  EXPECT_TRUE(seen);
}

TEST(RegexAnalysis, FirstAndRequiredUnits) {
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
}

// No match, complete or partial, starts before PossibleStart: checked against PCRE2 itself on
// every start offset of random subjects; a known prefix also skips what cannot begin one.
TEST(RegexAnalysis, PossibleStartNeverPassesAMatch) {
  const TRegex close(u"</[a-z]+>$", {preSingleLine}), plain(u"^ab\\.c"), empty(u"a*$"), reset(u"x\\Ky"),
      caseless(u"ab", {preCaseLess});
  EXPECT_EQ(close.LiteralPrefix(), u"</");
  EXPECT_EQ(plain.LiteralPrefix(), u"ab.c");
  for (const TRegex* r : {&empty, &reset, &caseless}) EXPECT_TRUE(r->LiteralPrefix().empty()) << Utf16ToUtf8(r->Pattern());
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
    for (const TRegex* r : {&close, &plain, &empty, &reset, &caseless})
      for (std::size_t from = 0; from <= s.size(); ++from) {
        const std::size_t at = r->PossibleStart(s, from);
        ASSERT_TRUE(at >= from && at <= s.size());
        if (r->MatchPartial(s, m, from) != mrNoMatch) {
          EXPECT_GE(m.GroupOffset(0), at) << Utf16ToUtf8(s) << from;
        }
        if (r->Match(s, m, from)) {
          EXPECT_GE(m.GroupOffset(0), at) << Utf16ToUtf8(s) << from;
        }
      }
  }
}
