// A stream parser driven by regular-expression node definitions.
//
// TQUMAStreamParser reads a text stream one character at a time (its encoding detected from the
// byte-order mark, UTF-8 without one) and keeps a stack of open nodes. Each kind of node is a
// TQUMAStreamedNodeDefinition: a regex that opens it, optional regexes for the text it may hold
// (allowed: consumed piece by piece; valid: the whole node must match), a regex that closes it,
// flags, escape characters and callbacks. Results arrive through OnOpen and OnClose; a failed
// parse answers false and leaves its message in ErrorMessage.
//
//   auto* tag = New<TQUMAStreamedNodeDefinition>();
//   tag->SetOpenMatch(u"<b>");  tag->SetCloseMatch(u"</b>");  tag->SetAllowedContentMatch(u"^[^<]+");
//   tag->SetAllowsContainedText(true);  tag->SetCanBeRootNode(true);
//   tag->SetOnClose(Bind<&TMyTree::NodeClosed>(tree));   // the handler takes over the node
//   parser->AddNodeDefinition(tag);                        // the parser's list locks it
//   if (!parser->ParseStream(stream)) report(parser->ErrorMessage());
//
// Ownership: the parser's list memory-locks its definitions, so a definition nobody else locks
// goes with the parser or when it is removed. A completed node belongs to whoever handles
// OnClose (free it with Free); the parser frees only the nodes still open when a parse fails.
//
// Regexes are compiled once per definition, on first use, with PCRE2's JIT and with limits
// (MatchLimit 10,000,000, DepthLimit 250,000): a pattern that backtracks without end stops the
// parse with the "Unexpected Error ERegularExpressionError (...)" message.
//
// Cost: the close pattern is matched against the node's content plus the new text after every
// character; the search resumes where the previous one showed that no match can start earlier
// (PCRE2 partial matching), so a long node costs time linear in its length. A valid pattern
// must match the whole node and is therefore re-run over it for every character. Work whose
// outcome is already known is skipped (a text lacking a unit every match needs, an open pattern
// that no longer can match the growing buffer, a run of plain text for the open node): the
// results are always those of the character-by-character steps. docs/parsers.md has details.
#pragma once

#include <quma/Export.h>

#include <array>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include <quma/Encoding.h>
#include <quma/Method.h>
#include <quma/PerlRegEx.h>
#include <quma/ReferencedPersistent.h>
#include <quma/Streams.h>

QUMA_PUBLIC_BEGIN
namespace quma {

// Structural errors found in the stream.
QUMA_DECLARE_EXCEPTION(EQUMAStreamError, Exception);

class TQUMAStreamParser;
class TQUMAStreamedNodeDefinition;

class TQUMAStreamedNode : public TObject {
  QUMA_CLASS(TQUMAStreamedNode, TObject)
  QUMA_VIRTUAL_CONSTRUCTOR(TQUMAStreamParser*)
 public:
  enum class TNodeState { sn_Complete };
  using enum TNodeState;
  using TNodeStates = TSet<TNodeState>;

  explicit TQUMAStreamedNode(TQUMAStreamParser* pParser) noexcept : _pParser(pParser) {}

  const UnicodeString& Open() const noexcept { return _szOpen; }
  const UnicodeString& Close() const noexcept { return _szClose; }
  const UnicodeString& Content() const noexcept { return _szContent; }
  bool Complete() const { return _GetComplete(); }
  TQUMAStreamedNodeDefinition* Definition() const noexcept { return _pDefinition; }
  TQUMAStreamParser* Parser() const noexcept { return _pParser; }
  TNodeStates NodeState() const noexcept { return _NodeState; }
  // Open + Content + Close.
  UnicodeString Text() const { return _GetText(); }
  // Moves the three texts out of a node its holder owns (OnClose's handler, for one), without
  // copying them; the node keeps empty texts.
  void TakeTexts(UnicodeString& Open, UnicodeString& Content, UnicodeString& Close) noexcept {
    Open = std::exchange(_szOpen, UnicodeString());
    Content = std::exchange(_szContent, UnicodeString());
    Close = std::exchange(_szClose, UnicodeString());
    _CloseScan.Valid = false;
    _CloseScan.ContentSafe = _CloseScan.ContentSafeLength = 0;
  }

  // ---- virtual operations, in slot order ----
  virtual bool _GetComplete() const { return _NodeState.Contains(sn_Complete); }
  virtual UnicodeString _GetText() const { return _szOpen + _szContent + _szClose; }
  // Both forward to the definition (with this node as candidate); false without one.
  virtual bool IsAllowedNodeClass(TClass pNodeClass) const;
  virtual bool TryAccept(UnicodeString& szNextChar);

 protected:
  ~TQUMAStreamedNode() override = default;

 private:
  friend class TQUMAStreamedNodeDefinition;
  friend class TQUMAStreamParser;  // appends characters no step acts on

  // Where the search for the close pattern may resume: the subject it last ran on was Content's
  // first ContentLength units followed by Tail, and no match can start before Safe. Content
  // only grows at its end while this is kept; any other change of Content discards it.
  // Whatever follows it, no match can start before ContentSafe in a text that begins with
  // Content's first ContentSafeLength units: the fallback when the last subject's tail was not
  // taken into Content (a child node opened on it, say).
  struct TCloseScan {
    std::size_t ContentLength = 0;
    UnicodeString Tail;
    std::size_t Safe = 0;
    std::uint64_t Serial = 0;  // of the definition's close regex it was made with
    bool Valid = false;
    std::size_t ContentSafe = 0;
    std::size_t ContentSafeLength = 0;
    std::uint64_t ContentSerial = 0;
  };
  // Keeps the close search's progress when the new content extends the old one.
  void SetContent(UnicodeString Value) {
    if (Value.size() < _szContent.size() || Value.compare(0, _szContent.size(), _szContent) != 0) {
      _CloseScan.Valid = false;
      _CloseScan.ContentSafe = _CloseScan.ContentSafeLength = 0;
    }
    _szContent = std::move(Value);
  }

  TQUMAStreamParser* _pParser;
  TQUMAStreamedNodeDefinition* _pDefinition = nullptr;
  TNodeStates _NodeState;
  UnicodeString _szOpen;
  UnicodeString _szClose;
  UnicodeString _szContent;
  TCloseScan _CloseScan;
};
using TQUMAStreamedNodeClass = TClassOf<TQUMAStreamedNode>;

using TQUMAStreamedNodeEvent = TMethod<void(TObject* Sender, TQUMAStreamedNode* Node)>;
// Returns the character that stands for the escaped one.
using TQUMAStreamParserEscapeEvent = TMethod<WideChar(TObject* Sender, WideChar cEscapedChar)>;

class TQUMAStreamedNodeDefinition : public TQUMAReferencedPersistent {
  QUMA_CLASS(TQUMAStreamedNodeDefinition, TQUMAReferencedPersistent)
 public:
  enum class TNodeOption {
    snd_AllowsNodes,
    snd_AllowsText,
    snd_CaseInsensitiveOpen,
    snd_CaseInsensitiveClose,
    snd_CaseInsensitiveContent,
    snd_CaseInsensitiveValid,
    snd_CanBeRootNode,
    snd_AllowsMultiLineText
  };
  using enum TNodeOption;
  using TNodeOptions = TSet<TNodeOption>;

  using TQUMAReferencedPersistent::TQUMAReferencedPersistent;
  void Assign(TPersistent* Source) override;

  // ---- properties ----
  UnicodeString Name() const { return _GetName(); }
  void SetName(const UnicodeString& Value) { _SetName(Value); }
  const UnicodeString& OpenMatch() const noexcept { return _szOpen; }
  void SetOpenMatch(const UnicodeString& Value) { _SetOpenMatch(Value); }
  const UnicodeString& AllowedContentMatch() const noexcept { return _szAllowed; }
  void SetAllowedContentMatch(const UnicodeString& Value) { _SetAllowedMatch(Value); }
  const UnicodeString& ValidContentMatch() const noexcept { return _szValid; }
  void SetValidContentMatch(const UnicodeString& Value) { _SetValidMatch(Value); }
  const UnicodeString& CloseMatch() const noexcept { return _szClose; }
  void SetCloseMatch(const UnicodeString& Value) { _SetCloseMatch(Value); }
  bool AllowsContainedNodes() const { return _GetAllowsContainedNodes(); }
  void SetAllowsContainedNodes(bool Value) { _SetAllowsContainedNodes(Value); }
  bool AllowsContainedText() const { return _GetAllowsContainedText(); }
  void SetAllowsContainedText(bool Value) { _SetAllowsContainedText(Value); }
  bool AllowsMultiLineText() const { return _GetAllowsMultiLineText(); }
  void SetAllowsMultiLineText(bool Value) { _SetAllowsMultiLineText(Value); }
  bool CanBeRootNode() const { return _GetCanBeRootNode(); }
  void SetCanBeRootNode(bool Value) { _SetCanBeRootNode(Value); }
  bool CaseInsensitiveOpen() const { return _GetCaseInsensitiveOpen(); }
  void SetCaseInsensitiveOpen(bool Value) { _SetCaseInsensitiveOpen(Value); }
  bool CaseInsensitiveClose() const { return _GetCaseInsensitiveClose(); }
  void SetCaseInsensitiveClose(bool Value) { _SetCaseInsensitiveClose(Value); }
  bool CaseInsensitiveContent() const { return _GetCaseInsensitiveContent(); }
  void SetCaseInsensitiveContent(bool Value) { _SetCaseInsensitiveContent(Value); }
  bool CaseInsensitiveValid() const { return _GetCaseInsensitiveValid(); }
  void SetCaseInsensitiveValid(bool Value) { _SetCaseInsensitiveValid(Value); }
  TNodeOptions NodeOptions() const noexcept { return _NodeOptions; }
  // The escape characters. The setter sizes the set to the text's length but copies only as
  // many bytes as the text has characters, low byte first (the rest stay zero): one escape
  // below U+0100 arrives whole, of a longer set only the first half of the characters.
  UnicodeString Escapes() const { return _GetEscapes(); }
  void SetEscapes(const UnicodeString& Value) { _SetEscapes(Value); }
  TQUMAStreamedNodeEvent OnOpen() const noexcept { return _fnOpenCallback; }
  void SetOnOpen(TQUMAStreamedNodeEvent Value) noexcept { _fnOpenCallback = Value; }
  // The handler receives the completed node and owns it from then on.
  TQUMAStreamedNodeEvent OnClose() const noexcept { return _fnCloseCallback; }
  void SetOnClose(TQUMAStreamedNodeEvent Value) noexcept { _fnCloseCallback = Value; }
  TQUMAStreamParserEscapeEvent OnHandleEscape() const noexcept { return _fnEscapeHandler; }
  void SetOnHandleEscape(TQUMAStreamParserEscapeEvent Value) noexcept { _fnEscapeHandler = Value; }
  // The parser whose list holds the definition, or null.
  TQUMAStreamParser* Parser() const { return _GetParser(); }

  // ---- virtual operations, in slot order ----
  // Matches the close regex at the end of the node's content + szCandidate. Text before the
  // match becomes the content when the node allows text; otherwise EQUMAStreamError ("Unexpected
  // text found in %s node"). On a match szCandidate keeps the text after it and the node closes.
  virtual bool _CheckClose(UnicodeString& szCandidate, TQUMAStreamedNode* pCandidate);
  // Marks the node complete, calls OnClose, and pops it when it is its parser's current node.
  virtual void _DoClose(TQUMAStreamedNode* pNode);
  // The compiled regexes (null for an empty pattern), compiled on first use.
  virtual const TRegex* _GetAllowedRegEx();
  virtual bool _GetAllowsContainedNodes() const { return _NodeOptions.Contains(snd_AllowsNodes); }
  virtual bool _GetAllowsContainedText() const { return _NodeOptions.Contains(snd_AllowsText); }
  virtual bool _GetAllowsMultiLineText() const { return _NodeOptions.Contains(snd_AllowsMultiLineText); }
  virtual bool _GetCanBeRootNode() const { return _NodeOptions.Contains(snd_CanBeRootNode); }
  virtual bool _GetCaseInsensitiveClose() const { return _NodeOptions.Contains(snd_CaseInsensitiveClose); }
  virtual bool _GetCaseInsensitiveContent() const { return _NodeOptions.Contains(snd_CaseInsensitiveContent); }
  virtual bool _GetCaseInsensitiveOpen() const { return _NodeOptions.Contains(snd_CaseInsensitiveOpen); }
  virtual bool _GetCaseInsensitiveValid() const { return _NodeOptions.Contains(snd_CaseInsensitiveValid); }
  virtual const TRegex* _GetCloseRegEx();
  virtual UnicodeString _GetEscapes() const { return UnicodeString(_caEscapes.begin(), _caEscapes.end()); }
  virtual UnicodeString _GetName() const { return _szName; }
  virtual const TRegex* _GetOpenRegEx();
  virtual TQUMAStreamParser* _GetParser() const { return _pParser; }
  virtual const TRegex* _GetValidRegEx();
  virtual void _SetAllowedMatch(const UnicodeString& Value);
  virtual void _SetAllowsContainedNodes(bool Value) { SetOption(snd_AllowsNodes, Value); }
  virtual void _SetAllowsContainedText(bool Value) { SetOption(snd_AllowsText, Value); }
  virtual void _SetAllowsMultiLineText(bool Value);
  virtual void _SetCanBeRootNode(bool Value) { SetOption(snd_CanBeRootNode, Value); }
  virtual void _SetCaseInsensitiveClose(bool Value);
  virtual void _SetCaseInsensitiveContent(bool Value);
  virtual void _SetCaseInsensitiveOpen(bool Value);
  virtual void _SetCaseInsensitiveValid(bool Value);
  virtual void _SetCloseMatch(const UnicodeString& Value);
  virtual void _SetEscapes(const UnicodeString& Value);
  virtual void _SetName(const UnicodeString& Value) { _szName = Value; }
  virtual void _SetOpenMatch(const UnicodeString& Value);
  virtual void _SetValidMatch(const UnicodeString& Value);
  // Removes the class from the disallowed list and appends it to the allowed one (null ignored).
  virtual void AllowNodeClass(TClass pNodeClass);
  // A node of GetStreamedNodeClass for the parser.
  virtual TQUMAStreamedNode* CreateNode(TQUMAStreamParser* pForParser);
  // The reverse of AllowNodeClass.
  virtual void DisallowNodeClass(TClass pNodeClass);
  // At the end of the stream: closes the node when nothing is left and it has no close pattern,
  // or when the valid pattern matches its text + szResidual.
  virtual bool EndOfStream(UnicodeString& szResidual, TQUMAStreamedNode* pCandidate);
  // The class of the nodes this definition creates; a derived definition answers its own.
  virtual TQUMAStreamedNodeClass GetStreamedNodeClass() const;
  // Whether a node of this definition may contain nodes of definitions of class pNodeClass
  // (exact class comparison).
  virtual bool IsAllowedNodeClass(TClass pNodeClass) const;
  // Offers szCandidate to the open node pCandidate: escapes, close, then content.
  virtual bool TryAccept(UnicodeString& szCandidate, TQUMAStreamedNode* pCandidate);
  // Opens a node when the open regex matches at the start of szCandidate, which then keeps the
  // text after the match; null otherwise.
  virtual TQUMAStreamedNode* TryMatchOpen(UnicodeString& szCandidate, TQUMAStreamParser* pForParser);

 protected:
  // Compiles Pattern into Cache on first use; null for an empty pattern.
  const TRegex* Compiled(std::unique_ptr<TRegex>& Cache, const UnicodeString& Pattern, bool Anchor, bool AnchorEnd,
                         TPerlRegExOptions Options, bool Partial = false);
  void SetOption(TNodeOption Option, bool Value) noexcept;
  // Sets a case flag and drops the regex it governs when it changes.
  void SetCaseOption(TNodeOption Option, bool Value, std::unique_ptr<TRegex>& Regex);

  UnicodeString _szName;
  UnicodeString _szOpen;
  std::unique_ptr<TRegex> _pRegOpen;
  UnicodeString _szAllowed;
  std::unique_ptr<TRegex> _pRegAllowed;
  UnicodeString _szValid;
  std::unique_ptr<TRegex> _pRegValid;
  UnicodeString _szClose;
  std::unique_ptr<TRegex> _pRegClose;
  TNodeOptions _NodeOptions;
  std::vector<WideChar> _caEscapes;
  std::vector<TClass> _pAllowedNodes;
  std::vector<TClass> _pDisallowedNodes;
  TQUMAStreamParser* _pParser = nullptr;
  TQUMAStreamParserEscapeEvent _fnEscapeHandler;
  TQUMAStreamedNodeEvent _fnOpenCallback;
  TQUMAStreamedNodeEvent _fnCloseCallback;
  // Changes whenever the close regex is dropped, so that nodes do not resume a search made with
  // an older one.
  std::uint64_t _nCloseSerial = 0;
  // Reused by every match (no allocation per character); read only before any callback runs.
  TRegexMatch _Match;
  UnicodeString _CloseSubject;  // _CheckClose's subject when it is not built in the content

 private:
  friend class TQUMAStreamParser;
  // A text that an anchored regex found neither a match in nor the start of one: no text that
  // begins with it can match either, so the retries of a buffer that grows by one character at a
  // time are answered without a regex call until the buffer is consumed.
  struct TDeadPrefix {
    const TRegex* Regex = nullptr;
    std::uint64_t Generation = 0;  // of the definitions: a regex made again may reuse the address
    UnicodeString Prefix;
  };
  // Regex->Match(Subject, _Match), with Memo remembering and answering dead prefixes.
  bool MatchGrowing(const TRegex* Regex, TDeadPrefix& Memo, UnicodeStringView Subject);
  TDeadPrefix _OpenDead;
  TDeadPrefix _AllowedDead;
  // For TQUMAStreamParser::ParseStream: how many of Bytes (UTF-8) the per-character steps would
  // add to pNode's content one at a time with no other effect than counting them: ASCII that is
  // no carriage return and no escape, taken whole by the allowed regex while the close regex
  // cannot match (a unit that every close match contains is missing); a line feed counts as
  // LineEnd. Adds them; 0 when it cannot tell.
  std::size_t TakeTextRun(TQUMAStreamedNode* pNode, const Byte* Bytes, std::size_t Count, UnicodeStringView LineEnd);
  // What TakeTextRun needs of this definition, for one generation of the definitions and one
  // line end: the regexes (none when runs are not possible) and the bytes a run takes (256 so
  // that any byte indexes it; those beyond ASCII are never taken).
  struct TRunPlan {
    std::uint64_t Generation = 0;
    UnicodeString LineEnd;
    const TRegex* Allowed = nullptr;
    const TRegex* Close = nullptr;
    std::array<bool, 256> Take{};
  };
  const TRunPlan& RunPlan(UnicodeStringView LineEnd);
  TRunPlan _RunPlan;
  // Where the close search for pNode may resume on Subject (its content and a candidate).
  std::size_t CloseResumeOffset(TQUMAStreamedNode* pNode, UnicodeStringView Subject, std::size_t ContentLength);
  // Whether the close pattern uses \G, as found for the close regex of serial _nGSerial.
  std::uint64_t _nGSerial = 0;
  bool _bGKnown = false;
  bool _bCloseUsesG = false;
};
using TQUMAStreamedNodeDefinitionClass = TClassOf<TQUMAStreamedNodeDefinition>;

enum class TQUMAStreamParserOption { sp_AllowMultiLineBuffer };
using enum TQUMAStreamParserOption;
using TQUMAStreamParserOptions = TSet<TQUMAStreamParserOption>;

class TQUMAStreamParser : public TQUMAReferencedPersistent {
  QUMA_CLASS(TQUMAStreamParser, TQUMAReferencedPersistent)
 public:
  using TDefinitionList = TQUMAReferencedList<TQUMAStreamedNodeDefinition>;

  using TQUMAReferencedPersistent::TQUMAReferencedPersistent;
  void AfterConstruction() override;
  void BeforeDestruction() override;
  // From another parser: the same definitions (shared) in its order; open nodes are freed.
  void Assign(TPersistent* Source) override;

  // ---- properties ----
  // Stored only; the parse does not consult it.
  bool AllowMultiLineBuffer() const { return _GetAllowMultiLineBuffer(); }
  void SetAllowMultiLineBuffer(bool Value) { _SetAllowMultiLineBuffer(Value); }
  TQUMAStreamedNode* CurrentNode() const { return _GetCurrentNode(); }
  TStream* CurrentStream() const { return _GetCurrentStream(); }
  TQUMAStreamedNodeDefinition* Definition(Integer nIndex) const { return _GetDefinition(nIndex); }
  Integer DefinitionCount() const { return _GetDefinitionCount(); }
  TDefinitionList* Definitions() const { return _GetDefinitions(); }
  const TEncoding* Encoding() const { return _GetEncoding(); }
  UnicodeString ErrorMessage() const { return _GetErrorMessage(); }
  UnicodeString NormalisedLineEnd() const { return _GetNormalisedLineEnd(); }
  void SetNormalisedLineEnd(const UnicodeString& Value) { _SetNormalisedLineEnd(Value); }
  Integer LineCount() const noexcept { return _nLineCount; }
  Integer CharCount() const noexcept { return _nCharCount; }

  // ---- virtual operations, in slot order ----
  // The definition list's change handler: keeps each definition's Parser.
  virtual void _DefinitionsChanged(TObject* Sender, TQUMAStreamedNodeDefinition* const& Item,
                                   TCollectionNotification Action);
  // Frees the open nodes, innermost first.
  virtual void _FreeNodes();
  virtual bool _GetAllowMultiLineBuffer() const { return _ParserOptions.Contains(sp_AllowMultiLineBuffer); }
  virtual TQUMAStreamedNode* _GetCurrentNode() const { return _pCurrentNodes.empty() ? nullptr : _pCurrentNodes.back(); }
  virtual TStream* _GetCurrentStream() const { return _pInput; }
  // Null when out of range.
  virtual TQUMAStreamedNodeDefinition* _GetDefinition(Integer nIndex) const;
  virtual Integer _GetDefinitionCount() const { return _pNodeDefs ? _pNodeDefs->Count() : 0; }
  virtual TDefinitionList* _GetDefinitions() const { return _pNodeDefs; }
  virtual const TEncoding* _GetEncoding() const { return _pEncoding; }
  virtual UnicodeString _GetErrorMessage() const { return _szErrorMessage; }
  virtual UnicodeString _GetNormalisedLineEnd() const { return _szNormedLineEnd; }
  virtual void _SetAllowMultiLineBuffer(bool Value);
  virtual void _SetNormalisedLineEnd(const UnicodeString& Value) { _szNormedLineEnd = Value; }
  // Appends unless null or already present; the order of the list is the order of trial.
  virtual void AddNodeDefinition(TQUMAStreamedNodeDefinition* pNodeDef);
  // Stores the UTF-16 unit nOffset places ahead of the next unread one in cCharacter (0 when
  // there is no stream or nOffset is negative: false) and puts the stream back. While fewer
  // units remain it waits for the stream to grow: at the end of a stream that does not grow it
  // does not return.
  virtual bool LookAhead(Integer nOffset, WideChar& cCharacter);
  // Parses pInput from its current position; the encoding is always detected from the stream
  // (Encoding is accepted and not consulted). False with ErrorMessage set on failure.
  virtual bool ParseStream(TStream* pInput, const TEncoding* Encoding = nullptr);
  virtual void RemoveNodeDefinition(TQUMAStreamedNodeDefinition* pNodeDef);
  // Consumes whole characters until the result holds nCount units or the stream ends; each one
  // counts on the current line.
  virtual UnicodeString SlurpCharacters(Integer nCount);

  // Pushes an opened node (TryMatchOpen does so).
  void PushNode(TQUMAStreamedNode* pNode) { _pCurrentNodes.push_back(pNode); }
  // Pops the current node (the caller takes it over).
  void PopNode() noexcept {
    if (!_pCurrentNodes.empty()) _pCurrentNodes.pop_back();
  }

 protected:
  UnicodeString _szBuffer;
  UnicodeString _szNormedLineEnd;
  Integer _nLineCount = 0;
  Integer _nCharCount = 0;
  UnicodeString _szErrorMessage;
  TQUMAStreamParserOptions _ParserOptions;
  TDefinitionList* _pNodeDefs = nullptr;
  std::vector<TQUMAStreamedNode*> _pCurrentNodes;
  TStream* _pInput = nullptr;
  const TEncoding* _pEncoding = nullptr;

 private:
  friend class TQUMAStreamedNodeDefinition;  // reads the character after an escape
  // Reads the next character of the input; false at its end.
  bool Fetch(UnicodeString& Text, Integer& ByteCount);
  // The input while it is one of the library's memory streams holding UTF-8: an ASCII byte is
  // then read straight from its memory, with the same result as decoding it.
  TMemoryStream* _pUtf8Memory = nullptr;
  // Appends to a waiting buffer the characters that no step would act on; how many. Stopped:
  // whether it ended before a character that a step must take.
  std::size_t SkipQuietCharacters(bool& Stopped);
  std::vector<const TRegex*> _QuietTests;  // its scratch
  // What it tries in one context (the open node's definition, the first character of the text),
  // for one generation of the definitions.
  struct TQuietPlan {
    const TQUMAStreamedNodeDefinition* Own = nullptr;
    char16_t First = 0;
    std::uint64_t Generation = 0;
    bool Eligible = false;
    struct TTest {
      const TRegex* Regex;
      UnicodeStringView Prefix;  // of an anchored test
      std::int32_t Unit;         // required, or -1
      bool Folds, Monotone;
      bool Literal;  // an anchored literal: it matches once the buffer holds its prefix
    };
    std::vector<TTest> Tests;
  };
  std::array<TQuietPlan, 32> _QuietPlans;
  TRegexMatch _QuietMatch;
  void Feed();
  void OpenNode();
  void FinishStream();
};

}  // namespace quma
QUMA_PUBLIC_END
