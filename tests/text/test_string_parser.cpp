// The string parser: node trees for text, whitespace, separators, quotes, nested brackets and
// escapes; declared-character checks; what nodes and factories see through LookAhead and
// SlurpCharacters.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <tuple>

#include <quma/StringParser.h>
#include <quma/Strings.h>

using namespace quma;

namespace {

// One line per tree: T[text] S[sep] W[ws] Q"text" B(children); a leading ? marks an open node.
std::string Dump(const TQUMAParsedNodeList& nodes, const TQUMAParsedNode* parent = nullptr) {
  std::string out;
  for (const TQUMAParsedNode* n : nodes) {
    EXPECT_EQ(n->Parent(), parent);
    if (!out.empty()) out += ' ';
    if (!n->Closed()) out += '?';
    if (auto* s = dynamic_cast<const TQUMASeparatorNode*>(n)) {
      out += "S[" + Utf16ToUtf8(UnicodeString(1, s->Separator())) + "]";
    } else if (auto* q = dynamic_cast<const TQUMAQuotedNode*>(n)) {
      out += "Q" + Utf16ToUtf8(UnicodeString(1, q->OpenQuote())) + Utf16ToUtf8(q->TextContent());
      if (q->CloseQuote()) out += Utf16ToUtf8(UnicodeString(1, q->CloseQuote()));
    } else if (auto* t = dynamic_cast<const TQUMATextNode*>(n)) {
      out += "T[" + Utf16ToUtf8(t->TextContent()) + "]";
    } else if (auto* w = dynamic_cast<const TQUMAWhiteSpaceNode*>(n)) {
      out += "W[" + Utf16ToUtf8(w->Whitespace()) + "]";
    } else if (auto* b = dynamic_cast<const TQUMABracketedNode*>(n)) {
      out += "B" + Utf16ToUtf8(UnicodeString(1, b->OpenBracket())) + Dump(*b->ContentNodes(), b);
      if (b->CloseBracket()) out += Utf16ToUtf8(UnicodeString(1, b->CloseBracket()));
    }
  }
  return out;
}

using TSetup = std::function<void(TQUMAStringParser&)>;

const TSetup kDefaults = [](TQUMAStringParser&) {};
const TSetup kCall = [](TQUMAStringParser& p) {  // f(x, y)
  p.SetSeparators(u",");
  p.AddBracketPair(u'(', u')');
  p.AddBracketPair(u'[', u']');
  p.AddQuotePair(u'"', u'"');
  p.SetEscapes(u"\\");
};

std::string ParseToDump(const TSetup& setup, UnicodeStringView input, bool ignoreWhitespace = false) {
  auto parser = MakeObject<TQUMAStringParser>();
  setup(*parser);
  parser->SetIgnoreWhitespace(ignoreWhitespace);
  TQUMAParsedNodeList nodes;
  EXPECT_TRUE(parser->Parse(input, &nodes));
  EXPECT_EQ(parser->ParsingText(), u"");
  return Dump(nodes);
}

}  // namespace

TEST(StringParser, BuildsNodeTrees) {
  // name, input, set-up, whitespace ignored, tree
  const std::tuple<const char*, const char16_t*, TSetup, bool, const char*> cases[] = {
      {"text and whitespace", u"a b", kDefaults, false, "T[a] W[ ] ?T[b]"},
      {"whitespace ignored", u" a \t b ", kDefaults, true, "T[a] T[b]"},
      {"call", u"f(x, y)", kCall, false, "T[f] B(T[x] S[,] W[ ] T[y])"},
      {"call, whitespace ignored", u"f( x ,y )", kCall, true, "T[f] B(T[x] S[,] T[y])"},
      {"separators in a row", u",,", kCall, false, "S[,] S[,]"},
      {"nested brackets", u"[(a)(b[c])]d", kCall, false, "B[B(T[a]) B(T[b] B[T[c]])] ?T[d]"},
      {"stray close bracket dropped", u"a)b", kCall, false, "T[a] ?T[b]"},
      {"only the matching bracket closes", u"(a]b)", kCall, false, "B(T[a] T[b])"},
      {"unclosed groups stay open", u"(a [b", kCall, false, "?B(T[a] W[ ] ?B[?T[b]"},
      {"quotes never nest", u"\"a(b\\\"c\"", kCall, false, "Q\"a(b\"c\""},
      {"escaped separator", u"a\\,b", kCall, false, "?T[a,b]"},
      {"escape opens a text node", u"\\(x", kCall, false, "?T[(x]"},
      {"trailing escape stands for itself", u"ab\\", kCall, false, "?T[ab\\]"},
      {"escape after whitespace lands on top", u"( \\x)", kCall, false, "?B(W[ ] T[x]"},
      {"unclosed quote", u"x\"a b", kCall, false, "T[x] ?Q\"a b"},
      {"quote pairs by position", u"[a)b]c",
       [](TQUMAStringParser& p) {
         p.AddQuotePair(u'(', u')');
         p.AddQuotePair(u'[', u']');
       },
       false, "Q[a)b] ?T[c]"},
      {"setters may overlap: separator first", u"a b",
       [](TQUMAStringParser& p) { p.SetSeparators(u" "); }, false, "T[a] S[ ] ?T[b]"},
      {"non-ASCII brackets", u"\u00abx\u00bb",
       [](TQUMAStringParser& p) { p.AddBracketPair(u'\u00ab', u'\u00bb'); }, false, "B\u00abT[x]\u00bb"},
  };
  for (const auto& [name, input, setup, ignoreWhitespace, expected] : cases) {
    SCOPED_TRACE(name);
    EXPECT_EQ(ParseToDump(setup, input, ignoreWhitespace), expected);
  }
}

TEST(StringParser, DeclaredCharactersPairsAndNodesThroughClassReferences) {
  auto p = MakeObject<TQUMAStringParser>();
  EXPECT_EQ(p->Whitespace(), u" \t\n\r");
  EXPECT_EQ(p->Separators(), u"");
  EXPECT_FALSE(p->IgnoreWhitespace());
  p->AddQuotePair(u' ', u'x');  // space is whitespace: refused
  p->AddQuotePair(u'"', u'"');  // one character opening and closing is fine
  p->AddBracketPair(u'<', u'"');
  p->AddBracketPair(u'(', u')');
  p->AddBracketPair(u'[', u']');
  EXPECT_EQ(p->OpenQuotes(), u"\"");
  EXPECT_EQ(p->OpenBrackets(), u"([");
  p->RemoveBracketPair(u'(', u']');  // not one pair
  p->RemoveQuotePair(u'x', u'"');
  EXPECT_EQ(p->CloseBrackets(), u")]");
  p->RemoveBracketPair(u'(', u')');
  EXPECT_EQ(p->OpenBrackets(), u"[");
  EXPECT_EQ(p->CloseBrackets(), u"]");
  EXPECT_FALSE(p->Parse(u"a", nullptr));

  TQUMAParsedNodeList nodes;  // Parse appends
  p->Parse(u"(a", &nodes);
  p->Parse(std::string_view("[b]"), &nodes);
  EXPECT_EQ(Dump(nodes), "?T[(a] B[T[b]]");

  // Nodes through class references, and their parents.
  const TQUMAParsedNodeClass text = TQUMASeparatorNode::StaticClass();
  TObjectPtr<TQUMAParsedNode> sep(text.Create(u';'));
  ASSERT_TRUE(sep);
  EXPECT_TRUE(sep->Closed());  // complete when created
  EXPECT_EQ(static_cast<TQUMASeparatorNode*>(sep.get())->Separator(), u';');
  EXPECT_EQ(TQUMAParsedNodeClass(TQUMAParsedNode::StaticClass()).Create(u'x'), nullptr);  // abstract
  EXPECT_FALSE(sep->TryAddChar(u'x', nullptr));

  TObjectPtr<TQUMAParsedNode> group(TQUMAParsedNodeClass(TQUMABlockNode::StaticClass()).Create(u'{'));
  auto* contents = static_cast<TQUMAContentsNode*>(group.get());
  auto* child = New<TQUMATextNode>(u'c');
  contents->ContentNodes()->Add(child);
  EXPECT_EQ(child->Parent(), group.get());
  EXPECT_FALSE(group->TryAddChar(u'x', MakeObject<TQUMAStringParser>().get()));
  EXPECT_FALSE(group->TryAddChar(u'}', nullptr));  // no parser: no bracket pairs to close with
  EXPECT_EQ(contents->ContentNodes()->ExtractAt(0), child);
  EXPECT_EQ(child->Parent(), nullptr);
  Free(child);
}

namespace {

// A parser whose text nodes started by '@' look ahead and consume two characters, and whose
// escapes translate 'n' into a line feed.
class TProbeParser : public TQUMAStringParser {
  QUMA_CLASS(TProbeParser, TQUMAStringParser)
 public:
  std::string Seen;

  TQUMAParsedNode* _CreateTextNode(WideChar c) override {
    if (c == u'@') {
      WideChar next = u'-';
      const bool ahead = LookAhead(0, next);
      WideChar far = u'-', back = u'-';
      const bool beyond = LookAhead(100, far) || LookAhead(-100, far);
      LookAhead(-1, back);  // the '@' itself, the first character of the text
      const std::string slurped = Utf16ToUtf8(SlurpCharacters(2));
      Seen = std::string(ahead ? "ahead " : "none ") + char(next) + (beyond ? " beyond " : " ") + char(far) + " " +
             char(back) + " " + slurped + "|" + std::to_string(ParsePoint());
    }
    return inherited::_CreateTextNode(c);
  }
  WideChar Translate(TObject* Sender, WideChar c) {
    EXPECT_EQ(Sender, this);
    return c == u'n' ? u'\n' : c;
  }
};

}  // namespace

TEST(StringParser, FactoriesLookAheadSlurpAndTranslateEscapes) {
  auto p = MakeObject<TProbeParser>();
  TQUMAParsedNodeList nodes;
  p->Parse(u"@abcd", &nodes);
  EXPECT_EQ(p->Seen, "ahead a - @ ab|3");
  EXPECT_EQ(Dump(nodes), "?T[@cd]");

  nodes.Clear();
  p->Parse(u"@ab", &nodes);  // two characters would reach the end exactly: refused
  EXPECT_EQ(p->Seen, "ahead a - @ |1");
  EXPECT_EQ(Dump(nodes), "?T[@ab]");

  nodes.Clear();
  p->Parse(u"@", &nodes);
  EXPECT_EQ(p->Seen, "none - - @ |1");

  nodes.Clear();
  p->SetEscapes(u"\\");
  p->OnEscapeChar = Bind<&TProbeParser::Translate>(p.get());
  p->Parse(u"a\\nb \\t", &nodes);
  EXPECT_EQ(Dump(nodes), "T[a\nb] ?W[ ] ?T[t]");
}

TEST(StringParser, DeeplyNestedTreesAreFreedWithoutDeepRecursion) {
  auto p = MakeObject<TQUMAStringParser>();
  p->AddBracketPair(u'(', u')');
  const UnicodeString input(200000, u'(');
  auto nodes = MakeObject<TQUMAParsedNodeList>();
  p->Parse(input, nodes.get());
  int depth = 0;
  for (const TQUMAParsedNodeList* level = nodes.get(); level->Count() == 1; ++depth)
    level = static_cast<const TQUMABracketedNode*>(level->First())->ContentNodes();
  EXPECT_EQ(depth, 200000);
  nodes.reset();  // would overflow the stack if freeing recursed per level
}
