// A character-class parser that turns a string into a tree of typed nodes: runs of text, runs of
// whitespace, single separator characters, quoted stretches, and bracketed groups whose inside
// becomes their child nodes. The classes are declared on the parser as sets of characters;
// escape characters make the next character plain text (optionally translated by OnEscapeChar).
//
//   TObjectPtr<TQUMAStringParser> p = MakeObject<TQUMAStringParser>();
//   p->SetSeparators(u",");
//   p->AddBracketPair(u'(', u')');
//   TObjectList<TQUMAParsedNode> nodes;
//   p->Parse(u"f(x, y)", &nodes);   // text "f", then a bracketed node with x , " " y inside
//
// Nodes are created through virtual factory operations, so a derived parser can substitute its
// own node classes; nodes can peek (LookAhead) and consume (SlurpCharacters) input while they are
// fed. Parsing never fails: stray closing characters are dropped and unclosed groups stay open.
#pragma once

#include <quma/Export.h>

#include <string_view>
#include <vector>

#include <quma/Generics.h>
#include <quma/Method.h>
#include <quma/Object.h>
#include <quma/System.h>

QUMA_PUBLIC_BEGIN
namespace quma {

namespace detail {
class TCharClasses;
}

class TQUMAStringParser;
class TQUMAContentsNode;

// ---- nodes ----

class TQUMAParsedNode : public TObject {
  QUMA_CLASS(TQUMAParsedNode, TObject)
  QUMA_VIRTUAL_CONSTRUCTOR(WideChar)
 public:
  TQUMAParsedNode() = default;

  // Set once the node takes no more characters.
  bool Closed() const { return _GetClosed(); }
  // The contents node holding this one; none for a top-level node.
  TQUMAParsedNode* Parent() const { return _GetParent(); }

  // ---- virtual operations, in slot order ----
  virtual void _Close();
  virtual bool _GetClosed() const;
  virtual TQUMAParsedNode* _GetParent() const;
  // Offers the next character; true when the node took it. Every node refuses (without closing)
  // when pParser is none.
  virtual bool TryAddChar(WideChar cChar, TQUMAStringParser* pParser) = 0;

 private:
  friend class TQUMAContentsNode;
  bool _blClosed = false;
  TQUMAParsedNode* _pParent = nullptr;
};

using TQUMAParsedNodeClass = TClassOf<TQUMAParsedNode>;
using TQUMAParsedNodeList = TObjectList<TQUMAParsedNode>;

// A run of text: it ends at any separator, whitespace, quote or bracket character.
class TQUMATextNode : public TQUMAParsedNode {
  QUMA_CLASS(TQUMATextNode, TQUMAParsedNode)
 public:
  TQUMATextNode() = default;
  explicit TQUMATextNode(WideChar AStartChar) : _szRawText(1, AStartChar) {}

  UnicodeString TextContent() const { return _GetTextContent(); }

  bool TryAddChar(WideChar cChar, TQUMAStringParser* pParser) override;
  virtual UnicodeString _GetTextContent() const;
  // Appends c whatever its class (an escaped character).
  virtual void AddEscapedChar(WideChar c);

 protected:
  UnicodeString _szRawText;
};

// One separator character, complete when created.
class TQUMASeparatorNode : public TQUMATextNode {
  QUMA_CLASS(TQUMASeparatorNode, TQUMATextNode)
 public:
  using TQUMATextNode::TQUMATextNode;
  void AfterConstruction() override;

  WideChar Separator() const { return _GetSeparator(); }
  // The first character of the text (NUL when it is empty).
  virtual WideChar _GetSeparator() const;
};

// A quoted stretch: takes every character up to the close quote paired (by position) with its
// open quote. The quote characters are not part of the text.
class TQUMAQuotedNode : public TQUMATextNode {
  QUMA_CLASS(TQUMAQuotedNode, TQUMATextNode)
 public:
  TQUMAQuotedNode() = default;
  explicit TQUMAQuotedNode(WideChar AStartChar) : _cOpenQuote(AStartChar) {}

  WideChar OpenQuote() const noexcept { return _cOpenQuote; }
  // NUL until the node is closed.
  WideChar CloseQuote() const noexcept { return _cCloseQuote; }

  bool TryAddChar(WideChar cChar, TQUMAStringParser* pParser) override;

 private:
  WideChar _cOpenQuote = 0;
  WideChar _cCloseQuote = 0;
};

// A node with children, kept in an owning list that sets and clears their Parent.
class TQUMAContentsNode : public TQUMAParsedNode {
  QUMA_CLASS(TQUMAContentsNode, TQUMAParsedNode)
 public:
  TQUMAContentsNode() = default;
  explicit TQUMAContentsNode(WideChar /*AStartChar*/) {}
  void AfterConstruction() override;
  // Frees the children while overrides of the change handler still dispatch.
  void BeforeDestruction() override;

  TQUMAParsedNodeList* ContentNodes() const { return _GetContentNodes(); }

  // Takes no character.
  bool TryAddChar(WideChar cChar, TQUMAStringParser* pParser) override;
  virtual TQUMAParsedNodeList* _GetContentNodes() const;
  // The child list's notification handler: maintains the children's Parent.
  virtual void _ContentsNodesChanged(TObject* Sender, TQUMAParsedNode* const& Item, TCollectionNotification Action);

 private:
  TObjectPtr<TQUMAParsedNodeList> _pContents;
};

// A group opened by an open bracket; everything up to the paired close bracket becomes children.
class TQUMABracketedNode : public TQUMAContentsNode {
  QUMA_CLASS(TQUMABracketedNode, TQUMAContentsNode)
 public:
  TQUMABracketedNode() = default;
  explicit TQUMABracketedNode(WideChar AStartChar) : _cOpenBracket(AStartChar) {}

  WideChar OpenBracket() const noexcept { return _cOpenBracket; }
  // NUL until the node is closed.
  WideChar CloseBracket() const noexcept { return _cCloseBracket; }

  // Takes only its own close bracket (which closes it); anything else becomes a child.
  bool TryAddChar(WideChar cChar, TQUMAStringParser* pParser) override;

 private:
  WideChar _cOpenBracket = 0;
  WideChar _cCloseBracket = 0;
};

// A contents node delimited by strings, for derived parsers (this parser never creates one).
class TQUMABlockNode : public TQUMAContentsNode {
  QUMA_CLASS(TQUMABlockNode, TQUMAContentsNode)
 public:
  using TQUMAContentsNode::TQUMAContentsNode;

 protected:
  UnicodeString _szStartBlock;
  UnicodeString _szEndBlock;
};

// A run of whitespace characters.
class TQUMAWhiteSpaceNode : public TQUMAParsedNode {
  QUMA_CLASS(TQUMAWhiteSpaceNode, TQUMAParsedNode)
 public:
  TQUMAWhiteSpaceNode() = default;
  explicit TQUMAWhiteSpaceNode(WideChar AStartChar) : _szWhitespace(1, AStartChar) {}

  UnicodeString Whitespace() const { return _GetWhitespace(); }

  bool TryAddChar(WideChar cChar, TQUMAStringParser* pParser) override;
  virtual UnicodeString _GetWhitespace() const;

 private:
  UnicodeString _szWhitespace;
};

// ---- parser ----

enum class TQUMAStringParserOption : Byte { spoIgnoreWS };
using enum TQUMAStringParserOption;
using TQUMAStringParserOptions = TSet<TQUMAStringParserOption, 8>;

// Translates an escaped character: returns the character to use instead.
using TQUMAStringParserEscapeEvent = TMethod<WideChar(TObject* Sender, WideChar cEscapedChar)>;

class TQUMAStringParser : public TObject {
  QUMA_CLASS(TQUMAStringParser, TObject)
 public:
  TQUMAStringParser();
  ~TQUMAStringParser() override;
  // Whitespace defaults to space, tab, LF and CR unless a constructor has set it.
  void AfterConstruction() override;

  // ---- properties ----
  UnicodeString Separators() const { return _GetSeparators(); }
  void SetSeparators(UnicodeStringView Value) { _SetSeparators(Value); }
  UnicodeString Whitespace() const { return _GetWhitespace(); }
  void SetWhitespace(UnicodeStringView Value) { _SetWhitespace(Value); }
  UnicodeString Escapes() const { return _GetEscapes(); }
  void SetEscapes(UnicodeStringView Value) { _SetEscapes(Value); }
  // On: whitespace nodes are dropped once a non-whitespace character (or the end) ends them.
  bool IgnoreWhitespace() const { return _GetIgnoreWhitespace(); }
  void SetIgnoreWhitespace(bool Value) { _SetIgnoreWhitespace(Value); }
  TQUMAStringParserEscapeEvent OnEscapeChar;

  // The quote and bracket pairs (element k of each string is pair k).
  UnicodeString OpenQuotes() const { return _acOpenQuotes; }
  UnicodeString CloseQuotes() const { return _acCloseQuotes; }
  UnicodeString OpenBrackets() const { return _acOpenBrackets; }
  UnicodeString CloseBrackets() const { return _acCloseBrackets; }
  // Position of c in the pair arrays, or -1 (how quotes and brackets are paired).
  Integer OpenQuoteIndex(WideChar c) const noexcept { return IndexIn(_acOpenQuotes, c); }
  Integer CloseQuoteIndex(WideChar c) const noexcept { return IndexIn(_acCloseQuotes, c); }
  Integer OpenBracketIndex(WideChar c) const noexcept { return IndexIn(_acOpenBrackets, c); }
  Integer CloseBracketIndex(WideChar c) const noexcept { return IndexIn(_acCloseBrackets, c); }
  bool IsOpenQuote(WideChar c) const noexcept;
  bool IsCloseQuote(WideChar c) const noexcept;
  bool IsOpenBracket(WideChar c) const noexcept;
  bool IsCloseBracket(WideChar c) const noexcept;
  // Any of the four tests above.
  bool IsQuoteOrBracket(WideChar c) const noexcept;

  // The text of the running Parse (empty outside it) and the index of its next unread character.
  const UnicodeString& ParsingText() const noexcept { return _szParsingText; }
  Integer ParsePoint() const noexcept { return _nParsePoint; }

  bool Parse(std::string_view szInput, TQUMAParsedNodeList* pOut);  // UTF-8

  // ---- virtual operations, in slot order ----
  virtual TQUMAParsedNode* _CreateBracketedNode(WideChar c);
  // The node a character starts: separator, quoted, bracketed, whitespace or text node, or none
  // for a stray close quote or bracket.
  virtual TQUMAParsedNode* _CreateNewNode(WideChar c);
  virtual TQUMAParsedNode* _CreateQuotedNode(WideChar c);
  virtual TQUMAParsedNode* _CreateSeparatorNode(WideChar c);
  virtual TQUMAParsedNode* _CreateTextNode(WideChar c);
  virtual TQUMAParsedNode* _CreateWhitespaceNode(WideChar c);
  virtual UnicodeString _GetEscapes() const;
  virtual bool _GetIgnoreWhitespace() const;
  virtual UnicodeString _GetSeparators() const;
  virtual UnicodeString _GetWhitespace() const;
  // In the separators, escapes, whitespace, quotes or brackets.
  virtual bool _IsDeclaredCharacter(WideChar c) const;
  virtual bool _IsEscape(WideChar c) const;
  virtual bool _IsSeparator(WideChar c) const;
  virtual bool _IsWhitespace(WideChar c) const;
  virtual void _SetEscapes(UnicodeStringView Value);
  virtual void _SetIgnoreWhitespace(bool Value);
  virtual void _SetSeparators(UnicodeStringView Value);
  virtual void _SetWhitespace(UnicodeStringView Value);
  // Appends the pair unless either character is already declared (then silently nothing).
  virtual void AddBracketPair(WideChar cOpenBracket, WideChar cCloseBracket);
  virtual void AddQuotePair(WideChar cOpenQuote, WideChar cCloseQuote);
  // The character nOffset after the current one (LookAhead(0) is the next unread character);
  // false, leaving cCharacter alone, beyond the text.
  virtual bool LookAhead(Integer nOffset, WideChar& cCharacter);
  // Appends the top-level nodes of szInput to pOut (not cleared first; the caller owns it and its
  // nodes). False, doing nothing, when pOut is none.
  virtual bool Parse(UnicodeStringView szInput, TQUMAParsedNodeList* pOut);
  // Removes pair k when the open character is element k of the open array and the close
  // character element k of the close array; otherwise nothing.
  virtual void RemoveBracketPair(WideChar cOpenBracket, WideChar cCloseBracket);
  virtual void RemoveQuotePair(WideChar cOpenQuote, WideChar cCloseQuote);
  // Consumes and returns the next nCount characters, but only when more than nCount remain: a
  // call that would reach exactly the end of the text returns "" and consumes nothing.
  virtual UnicodeString SlurpCharacters(Integer nCount);

 private:
  static Integer IndexIn(const UnicodeString& chars, WideChar c) noexcept {
    const auto p = chars.find(c);
    return p == UnicodeString::npos ? -1 : static_cast<Integer>(p);
  }
  void PairsChanged();  // brings the class table up to date with the pair arrays
  void AddPair(UnicodeString& Opens, UnicodeString& Closes, WideChar cOpen, WideChar cClose);
  void RemovePair(UnicodeString& Opens, UnicodeString& Closes, WideChar cOpen, WideChar cClose);
  bool HasClass(WideChar c, Byte Class) const noexcept;

  Integer _nParsePoint = 0;
  UnicodeString _szParsingText;
  TQUMAStringParserOptions _ParserOptions;
  UnicodeString _acSeparators;
  UnicodeString _acOpenQuotes;
  UnicodeString _acCloseQuotes;
  UnicodeString _acOpenBrackets;
  UnicodeString _acCloseBrackets;
  UnicodeString _acWhiteSpace;
  UnicodeString _acEscapes;
  std::unique_ptr<detail::TCharClasses> _pClasses;  // the seven arrays as one membership table
};

}  // namespace quma
QUMA_PUBLIC_END
