#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <sstream>

#include <quma/StreamParser.h>

#include "../../examples/XmlGrammar.h"

using namespace quma;
using quma::examples::TXmlTreeBuilder;

namespace {

// Records every open and close as "open:<name>:<Open>" / "close:<name>:<Text>" and frees the
// completed nodes it is handed.
class TRecorder : public TObject {
  QUMA_CLASS(TRecorder, TObject)
 public:
  std::vector<std::string> Events;
  void Opened(TObject*, TQUMAStreamedNode* n) {
    Events.push_back("open:" + Utf16ToUtf8(n->Definition()->Name()) + ":" + Utf16ToUtf8(n->Open()));
  }
  void Closed(TObject*, TQUMAStreamedNode* n) {
    EXPECT_TRUE(n->Complete());
    Events.push_back("close:" + Utf16ToUtf8(n->Definition()->Name()) + ":" + Utf16ToUtf8(n->Text()));
    Free(n);
  }
  WideChar Escape(TObject*, WideChar c) { return c == u'n' ? u'\n' : c; }
};

// Looks ahead and slurps from inside a parse.
class TProbe : public TObject {
  QUMA_CLASS(TProbe, TObject)
 public:
  TQUMAStreamParser* P = nullptr;
  WideChar Ahead = 0;
  UnicodeString Slurped;
  void Opened(TObject*, TQUMAStreamedNode*) {
    P->LookAhead(1, Ahead);
    Slurped = P->SlurpCharacters(2);
  }
};

using TEvents = std::vector<std::string>;

struct TDef {
  const char16_t* Name;
  const char16_t* Open;
  const char16_t* Close = u"";
  const char16_t* Allowed = u"";
  const char16_t* Valid = u"";
  TQUMAStreamedNodeDefinition::TNodeOptions Options{};
};

class StreamParserTest : public ::testing::Test {
 protected:
  TObjectPtr<TQUMAStreamParser> Parser = MakeObject<TQUMAStreamParser>();
  TObjectPtr<TRecorder> Rec = MakeObject<TRecorder>();

  TQUMAStreamedNodeDefinition* Add(const TDef& d) {
    auto* def = New<TQUMAStreamedNodeDefinition>();
    def->SetName(d.Name);
    def->SetOpenMatch(d.Open);
    def->SetCloseMatch(d.Close);
    def->SetAllowedContentMatch(d.Allowed);
    def->SetValidContentMatch(d.Valid);
    using O = TQUMAStreamedNodeDefinition::TNodeOption;
    def->SetAllowsContainedNodes(d.Options.Contains(O::snd_AllowsNodes));
    def->SetAllowsContainedText(d.Options.Contains(O::snd_AllowsText));
    def->SetCanBeRootNode(d.Options.Contains(O::snd_CanBeRootNode));
    def->SetCaseInsensitiveOpen(d.Options.Contains(O::snd_CaseInsensitiveOpen));
    def->SetOnOpen(Bind<&TRecorder::Opened>(Rec.get()));
    def->SetOnClose(Bind<&TRecorder::Closed>(Rec.get()));
    Parser->AddNodeDefinition(def);
    return def;
  }
  bool Parse(std::string_view utf8) {
    auto s = MakeObject<TStringStream>(utf8);
    return Parser->ParseStream(s.get());
  }
  std::string Error() const { return Utf16ToUtf8(Parser->ErrorMessage()); }
  // The events of a parse that must succeed.
  TEvents Events(std::string_view utf8) {
    Rec->Events.clear();
    EXPECT_TRUE(Parse(utf8)) << Error();
    return Rec->Events;
  }
};

using enum TQUMAStreamedNodeDefinition::TNodeOption;
const TQUMAStreamedNodeDefinition::TNodeOptions kRoot{snd_CanBeRootNode};
const TQUMAStreamedNodeDefinition::TNodeOptions kTextRoot{snd_CanBeRootNode, snd_AllowsText};
const TQUMAStreamedNodeDefinition::TNodeOptions kNested{snd_CanBeRootNode, snd_AllowsText, snd_AllowsNodes};

TEST_F(StreamParserTest, SinglePatternNodesCloseAtOnceTopLevelTextWaitsValidPatternsMatchTheWholeNode) {
  Add({u"word", u"[a-z]+ ", u"", u"", u"", kRoot});
  Add({u"NUM", u"n[0-9]", u"", u"", u"", {snd_CanBeRootNode, snd_CaseInsensitiveOpen}});
  EXPECT_EQ(Events("ab N5cd  ?x"), (TEvents{"open:word:ab ", "close:word:ab ", "open:NUM:N5", "close:NUM:N5",
                                            "open:word:cd ", "close:word:cd "}));
  // Nothing may open at the top level: the text waits in the buffer and the parse succeeds.
  Parser->Definition(0)->SetCanBeRootNode(false);
  Parser->Definition(1)->SetCanBeRootNode(false);
  EXPECT_TRUE(Events("ab ").empty());

  // The valid text is the whole match less the open text; text after it closes the node.
  Add({u"num", u"#", u"", u"", u"#[0-9]*", kTextRoot});
  Add({u"word", u"[a-z]+;", u"", u"", u"", kRoot});
  EXPECT_EQ(Events("#12ab;#7"),
            (TEvents{"open:num:#", "close:num:#12", "open:word:ab;", "close:word:ab;", "open:num:#", "close:num:#7"}));
}

TEST_F(StreamParserTest, ContentCloseAndNesting) {
  Add({u"b", u"<b>", u"</b>", u"^[^<]+", u"", kNested});
  Add({u"i", u"<i>", u"</i>", u"^[^<]+", u"", {snd_AllowsText, snd_AllowsNodes}});
  Parser->Definition(0)->AllowNodeClass(TQUMAStreamedNodeDefinition::StaticClass());
  EXPECT_EQ(Events("<b>x<i>y</i>z</b>"),
            (TEvents{"open:b:<b>", "open:i:<i>", "close:i:<i>y</i>", "close:b:<b>xz</b>"}));
  // Near-misses of the close pattern (its search resumes as the subject grows) stay content.
  EXPECT_EQ(Events("<b>x</</bx</b>"), (TEvents{"open:b:<b>", "close:b:<b>x</</bx</b>"}));
  // A close tied by \G to the start of content + candidate is searched from there: its match leaves
  // the content as it was, and the close repeats it.
  Parser->Definition(0)->SetCloseMatch(u"\\G[a-z]*</b>");
  EXPECT_EQ(Events("<b>xy</b>"), (TEvents{"open:b:<b>", "close:b:<b>xyxy</b>"}));
  EXPECT_FALSE(Parse("<b>x1>y</b>"));  // nowhere else may it start, also after the search resumed
  EXPECT_EQ(Error().find("Unclosed nodes"), 0u) << Error();
  Parser->Definition(0)->SetCloseMatch(u"</b>");
  // A node that takes neither text nor nodes closes before foreign text, which goes to its parent.
  Add({u"hr", u"<hr>", u"</hr>", u"", u"", {}});
  EXPECT_EQ(Events("<b><hr>q</b>"), (TEvents{"open:b:<b>", "open:hr:<hr>", "close:hr:<hr>", "close:b:<b>q</b>"}));
}

TEST_F(StreamParserTest, FailuresNameLineCharacterAndNextCharacters) {
  Add({u"tag", u"<t>", u"</t>", u"", u"", {snd_CanBeRootNode, snd_AllowsNodes}});
  Add({u"", u"<u>", u"</u>", u"", u"", {snd_CanBeRootNode, snd_AllowsNodes}});
  Add({u"bad", u"<x>", u"(", u"", u"", kRoot});
  Add({u"open", u"<o>", u"</o>", u"^[^<]+", u"", kTextRoot});
  const struct {
    const char* Input;
    const char* Message;
  } cases[] = {
      {"<t>x</t>0123456789abcdef",
       "Stream Error Unexpected text found in tag node near line 1 character 7 (Next characters: 0123456789ab)"},
      {"<u>x</u>ab", "Stream Error Unexpected text found in unnamed node near line 1 character 7 (Next characters: ab)"},
      {"<x>", "Unexpected Error ERegularExpressionError (Error in regular expression at offset 2: missing closing "
              "parenthesis) near line 1 character 2 (Next characters: )"},
      {"<o>abc", "Unclosed nodes at end of stream"},
  };
  for (const auto& c : cases) {
    EXPECT_FALSE(Parse(c.Input)) << c.Input;
    EXPECT_EQ(Error(), c.Message);
    EXPECT_EQ(Parser->CurrentNode(), nullptr);  // open nodes were freed
  }
  // A pattern that backtracks without end stops at PCRE2's match limit instead of hanging.
  Add({u"h", u"<h>", u"", u"", u"<h>(?:a+)+", kTextRoot});
  EXPECT_FALSE(Parse("<h>" + std::string(40, 'a') + "!"));
  EXPECT_EQ(Error().rfind("Unexpected Error ERegularExpressionError (Error while matching regular expression: match "
                          "limit exceeded) near line 1 character ", 0), 0u) << Error();
  // The message stays until the next failure.
  const std::string last = Error();
  EXPECT_TRUE(Parse(""));
  EXPECT_EQ(Error(), last);
}

// A parser and a stream of classes of their own read every character one at a time: the
// reference for the runs of text and bytes that the library's own classes take at once.
class TOneByOneParser : public TQUMAStreamParser {
  QUMA_CLASS(TOneByOneParser, TQUMAStreamParser)
 public:
  using TQUMAStreamParser::TQUMAStreamParser;
};
class TOneByOneStream : public TBytesStream {
  QUMA_CLASS(TOneByOneStream, TBytesStream)
 public:
  using TBytesStream::TBytesStream;
};

class StreamParserStepsTest : public StreamParserTest {
 protected:
  // The result, message and events of a parse with the fixture's definitions.
  std::string Run(TQUMAStreamParser* parser, TStream* stream) {
    for (auto* def : Parser->Definitions()->ToVector()) parser->AddNodeDefinition(def);
    Rec->Events.clear();
    const bool ok = parser->ParseStream(stream);
    for (auto* def : parser->Definitions()->ToVector()) parser->RemoveNodeDefinition(def);
    return std::to_string(ok) + Utf16ToUtf8(parser->ErrorMessage()) + "|" + ::testing::PrintToString(Rec->Events);
  }
  void ExpectSameAsSteps(const std::string& input) {
    auto fast = MakeObject<TQUMAStreamParser>();
    auto slow = MakeObject<TOneByOneParser>();
    auto fastStream = MakeObject<TStringStream>(input);
    auto slowStream = MakeObject<TOneByOneStream>(TBytes(input.begin(), input.end()));
    EXPECT_EQ(Run(fast.get(), fastStream.get()), Run(slow.get(), slowStream.get())) << input;
  }
};

TEST_F(StreamParserStepsTest, TextRunsGiveWhatCharacterStepsGive) {
  Add({u"b", u"<b>", u"</b>", u"^[^<]+", u"", kNested})->SetEscapes(u"\\");
  Add({u"c", u"<!--", u"-->", u"^(?:-?[^-])+", u"", kNested});
  Add({u"end", u"<e>", u"end", u"^[^<]+", u"", kTextRoot})->SetCaseInsensitiveClose(true);
  Add({u"f", u"<f>", u"END", u"^[^<]+", u"", kNested});  // a close that spans a child node
  const std::string many(200, 'a');
  const std::string inputs[] = {
      "<b>" + many + " x</b>",  "<b>a\\<c\\\\d</b>", "<b>x\r\ny\rz\n" + many + "</b>", "<b>" + many + "</bx</b>",
      "<b>h\xC3\xA9llo w\xC3\xB6rld</b>", "<!-- a-b - c --><b>" + many + "<!--" + many + "--></b>",
      "<e>" + many + "abcEnD", "<b>" + many + "\n" + many + "</b>?" + many, "<b>" + many, "<f>" + many + "E<b>x</b>ND",
      "<f>E\nN" + many + "<b>x\n</b>\n\nEND",
  };
  for (const std::string& input : inputs) ExpectSameAsSteps(input);
  // A close whose letters may come in either case ends a run of text.
  auto parser = MakeObject<TQUMAStreamParser>();
  auto stream = MakeObject<TStringStream>(std::string_view("<e>abcdeEnD"));
  EXPECT_EQ(Run(parser.get(), stream.get()).front(), '1');
  EXPECT_EQ(Rec->Events, (TEvents{"open:end:<e>", "close:end:<e>abcdeEnD"}));
  // A close that begins in text before a child node and ends after it.
  stream = MakeObject<TStringStream>(std::string_view("<f>aaaaE<b>x</b>ND"));
  EXPECT_EQ(Run(parser.get(), stream.get()).front(), '1');
  EXPECT_EQ(Rec->Events.back(), "close:f:<f>aaaaEND");
}

// Random documents over an XML-like grammar and definitions that challenge the stretches of
// characters taken at once: a lookahead and a word boundary (no stretch may cross them), an
// unanchored allowed pattern, opens that match inside a would-be stretch, escapes.
TEST_F(StreamParserStepsTest, StretchesGiveWhatCharacterStepsGive) {
  const std::u16string name = u"[a-z][a-z0-9]*", attributes = u"(?:\\s+[a-z]+\\s*=\\s*\"[^\"<]*\")*\\s*";
  const std::u16string element = u"<" + name + attributes + u">", empty = u"<" + name + attributes + u"/>";
  Add({u"element", element.c_str(), u"</[a-z][a-z0-9]*>", u"^[^<]+", u"", kNested})->SetEscapes(u"\\");
  Add({u"empty", empty.c_str(), u"", u"", u"", kRoot});
  Add({u"comment", u"<!--", u"-->", u"^(?:-?[^-])+", u"", kNested})->AllowNodeClass(TQUMAStreamedNode::StaticClass());
  Add({u"pi", u"<\\?[a-z]+(?:\\s+[^?]*)?\\?>", u"", u"", u"", kRoot});
  Add({u"list", u"\\[", u"\\]\\]", u"[0-9]+", u"", kNested});
  Add({u"look", u"<x(?=y)", u"", u"", u"", kRoot});
  Add({u"word", u"ab\\b", u"", u"", u"", kRoot});
  Add({u"dash", u"a-b", u"", u"", u"", kRoot});
  Add({u"space", u"\\s+", u"", u"", u"", kRoot});
  Add({u"percent", u"%+>[a-z]", u"", u"", u"", kRoot});  // its required unit is not its last character
  // Text in this one is an error that names the line and character.
  Add({u"strict", u"<Q>", u"</Q>", u"", u"", {snd_CanBeRootNode, snd_AllowsNodes}});
  const char* pieces[] = {"<", ">", "/", "a", "b", "x", "y", "-", "!", "?", " ", "\n", "\r\n", "\"", "=", "[",
                          "]", "1", "\\", "\xC3\xA9", "<a>", "</a>", "<b x=\"1\">", "</b>", "<!--", "-->",
                          "<?p q?>", "<e/>", "ab", "a-b", "<xy", "<a", "<b", " x=\"1\"", "\n>", "/>", "</a",
                          "]]", "x1", "<Q>", "</Q>", "<a>x\ny\n", "%", "%%>"};
  for (const char* input : {"<a>x\ny\nz</a>\n<Q>w</Q>", "%%>a", "<a>%>b</a>"}) ExpectSameAsSteps(input);
  std::mt19937 random(20261123);
  for (int i = 0; i < 600; ++i) {
    std::string input;
    for (auto n = random() % 24 + 1; n > 0; --n) input += pieces[random() % std::size(pieces)];
    ExpectSameAsSteps(input);
  }
}

TEST_F(StreamParserTest, EveryLineEndFormBecomesTheNormalisedOne) {
  Parser->SetNormalisedLineEnd(u"|");
  Add({u"line", u"[a-z]\\|", u"", u"", u"", kRoot});
  Add({u"tag", u"<t>", u"</t>", u"", u"", {snd_CanBeRootNode, snd_AllowsNodes}});
  EXPECT_FALSE(Parse("a\r\nb\rc\nd|<t>x</t>"));
  EXPECT_EQ(Rec->Events, (TEvents{"open:line:a|", "close:line:a|", "open:line:b|", "close:line:b|", "open:line:c|",
                                  "close:line:c|", "open:line:d|", "close:line:d|", "open:tag:<t>"}));
  EXPECT_EQ(Error(), "Stream Error Unexpected text found in tag node near line 4 character 9 (Next characters: )");
  // A close may match before the line end's final line feed: the feed is left to what follows.
  Parser->SetNormalisedLineEnd(u"]\n");
  Add({u"br", u"\\[", u"\\]", u"^[a-z]+", u"", kNested});
  Add({u"nl", u"\n", u"", u"", u"", kRoot});
  EXPECT_EQ(Events("[ab\n"), (TEvents{"open:br:[", "close:br:[ab]", "open:nl:\n", "close:nl:\n"}));
}

TEST_F(StreamParserTest, EscapesAndTheirCopyRule) {
  // Every character is content; a quote that is not escaped closes first.
  auto* str = Add({u"str", u"\"", u"\"", u"^.", u"", kTextRoot});
  str->SetEscapes(u"\\");
  EXPECT_EQ(Events(R"("a\"b\n")").back(), R"(close:str:"a"bn")");
  str->SetOnHandleEscape(Bind<&TRecorder::Escape>(Rec.get()));
  EXPECT_EQ(Events(R"("\n")").back(), "close:str:\"\n\"");
  EXPECT_FALSE(Parse(R"("\)"));  // nothing after the escape
  // The setter copies as many bytes as the text has characters.
  const struct {
    UnicodeString In, Out;
  } copies[] = {{u"\\", u"\\"}, {u"ab", UnicodeString(u"a\0", 2)}, {u"abcd", UnicodeString(u"ab\0\0", 4)},
                {u"\u20AC", u"\u00AC"}, {u"", u""}};
  for (const auto& c : copies) {
    str->SetEscapes(c.In);
    EXPECT_EQ(str->Escapes(), c.Out);
  }
}

TEST_F(StreamParserTest, LookAheadAndSlurpWorkOnTheCurrentStream) {
  WideChar c = u'x';
  EXPECT_FALSE(Parser->LookAhead(0, c));
  EXPECT_EQ(c, 0);
  EXPECT_EQ(Parser->SlurpCharacters(3), u"");
  // Inside a parse (from a callback) both see the characters after the current one.
  auto probe = MakeObject<TProbe>();
  probe->P = Parser.get();
  auto* def = Add({u"a", u"a", u"", u"", u"", kRoot});
  def->SetOnOpen(Bind<&TProbe::Opened>(probe.get()));
  EXPECT_TRUE(Parse("a\xF0\x9F\x98\x80xyz"));
  EXPECT_EQ(probe->Ahead, 0xDE00);  // the low half of the pair
  EXPECT_EQ(probe->Slurped, u"\U0001F600");
  EXPECT_EQ(Parser->CurrentStream(), nullptr);
  // Bytes that can never decode are no character to wait for: a carriage return before them
  // ends its line and the parse finishes (found by fuzzing: it used to wait for ever).
  Parse("a\r\x9d\x9d\x9d\x9dxyz");
  EXPECT_EQ(Parser->CurrentStream(), nullptr);
}

TEST_F(StreamParserTest, DefinitionsListAssignAndAllowedClasses) {
  auto* a = Add({u"a", u"a"});
  auto* b = Add({u"b", u"b"});
  Parser->AddNodeDefinition(a);  // already present
  EXPECT_EQ(Parser->DefinitionCount(), 2);
  EXPECT_EQ(a->Parser(), Parser.get());
  EXPECT_EQ(Parser->Definition(2), nullptr);

  auto other = MakeObject<TQUMAStreamParser>();
  other->Assign(Parser.get());
  EXPECT_EQ(other->Definition(1), b);
  EXPECT_EQ(b->Parser(), other.get());
  other.reset();  // the definitions live on, locked by Parser
  EXPECT_EQ(b->Parser(), nullptr);
  EXPECT_EQ(Parser->Definition(1), b);

  // Assign between definitions copies some settings only.
  a->SetAllowsContainedNodes(true);
  a->SetCanBeRootNode(true);
  a->SetValidContentMatch(u"v");
  a->AllowNodeClass(TRecorder::StaticClass());
  a->DisallowNodeClass(TQUMAStreamedNode::StaticClass());
  b->Assign(a);
  EXPECT_EQ(b->Name(), u"b");
  EXPECT_EQ(b->OpenMatch(), u"a");
  EXPECT_TRUE(b->AllowsContainedNodes());
  EXPECT_FALSE(b->CanBeRootNode());
  EXPECT_EQ(b->ValidContentMatch(), u"");
  EXPECT_TRUE(b->IsAllowedNodeClass(TRecorder::StaticClass()));
  EXPECT_FALSE(b->IsAllowedNodeClass(TQUMAStreamedNodeDefinition::StaticClass()));  // not in the allowed list
  EXPECT_THROW(b->Assign(Parser.get()), EConvertError);

  // Allowed and disallowed classes, compared exactly.
  const TClass rec = TRecorder::StaticClass();
  a->DisallowNodeClass(rec);
  EXPECT_FALSE(a->IsAllowedNodeClass(rec));
  a->AllowNodeClass(rec);
  EXPECT_TRUE(a->IsAllowedNodeClass(rec));
  a->SetAllowsContainedNodes(false);
  EXPECT_FALSE(a->IsAllowedNodeClass(rec));

  Parser->RemoveNodeDefinition(a);  // nobody else locks it: it goes
  EXPECT_EQ(Parser->DefinitionCount(), 1);
}

// The same document in every registered encoding, with its byte-order mark where it has one:
// the same nodes. Without a mark the stream is read as UTF-8.
TEST_F(StreamParserTest, EveryEncodingWithAndWithoutByteOrderMark) {
  Add({u"b", u"<b>", u"</b>", u"^[^<]+", u"", kNested});
  const UnicodeString text = u"<b>\u00E9\U0001F600<b>z</b></b>";
  const TEvents expected = {"open:b:<b>", "open:b:<b>", "close:b:<b>z</b>", "close:b:<b>\xC3\xA9\xF0\x9F\x98\x80</b>"};
  for (const TEncoding* e : {TEncoding::UTF8(), TEncoding::Unicode(), TEncoding::BigEndianUnicode()}) {
    for (bool mark : {true, false}) {
      SCOPED_TRACE(Utf16ToUtf8(e->EncodingName()) + (mark ? " with mark" : " without mark"));
      Rec->Events.clear();
      auto s = MakeObject<TStringStream>(text, e, mark);
      const bool ok = Parser->ParseStream(s.get());
      if (mark || e == TEncoding::UTF8()) {
        EXPECT_TRUE(ok);
        EXPECT_EQ(Rec->Events, expected);
        EXPECT_EQ(Parser->Encoding(), e);
      } else {
        EXPECT_NE(Rec->Events, expected);  // UTF-16 read as UTF-8
      }
    }
  }
}

TEST(StreamParserGrammar, XmlLikeFileBecomesItsTree) {
  auto parser = MakeObject<TQUMAStreamParser>();
  auto tree = MakeObject<TXmlTreeBuilder>();
  tree->AddDefinitions(parser.get());
  auto file = MakeObject<TFileStream>(std::string_view(QUMA_TEST_DATA_DIR "/catalog.xml"), fmOpenRead);
  ASSERT_TRUE(parser->ParseStream(file.get())) << Utf16ToUtf8(parser->ErrorMessage());
  std::string printed;
  for (const auto& root : tree->Roots) TXmlTreeBuilder::Print(*root, printed);
  std::ifstream expected(QUMA_TEST_DATA_DIR "/catalog.tree");
  std::stringstream want;
  want << expected.rdbuf();
  EXPECT_EQ(printed, want.str());
}

}  // namespace
