#include <quma/StringParser.h>

#include <quma/Strings.h>

#include "internal/CharClasses.h"

namespace quma {

namespace {

// Membership bits in the parser's table.
constexpr Byte kSeparator = 1;
constexpr Byte kEscape = 2;
constexpr Byte kWhitespace = 4;
constexpr Byte kOpenQuote = 8;
constexpr Byte kCloseQuote = 16;
constexpr Byte kOpenBracket = 32;
constexpr Byte kCloseBracket = 64;

// Nodes whose children wait to be freed by the outermost contents node being freed on this
// thread, so that freeing a deeply nested tree does not recurse once per level.
thread_local std::vector<TQUMAParsedNode*>* tPendingFrees = nullptr;

}  // namespace

// ---- nodes ----

void TQUMAParsedNode::_Close() { _blClosed = true; }
bool TQUMAParsedNode::_GetClosed() const { return _blClosed; }
TQUMAParsedNode* TQUMAParsedNode::_GetParent() const { return _pParent; }

bool TQUMATextNode::TryAddChar(WideChar cChar, TQUMAStringParser* pParser) {
  if (!pParser) return false;
  if (pParser->_IsSeparator(cChar) || pParser->_IsWhitespace(cChar) || pParser->IsQuoteOrBracket(cChar)) {
    _Close();
    return false;
  }
  _szRawText.push_back(cChar);
  return true;
}

UnicodeString TQUMATextNode::_GetTextContent() const { return _szRawText; }
void TQUMATextNode::AddEscapedChar(WideChar c) { _szRawText.push_back(c); }

void TQUMASeparatorNode::AfterConstruction() {
  inherited::AfterConstruction();
  _Close();
}

WideChar TQUMASeparatorNode::_GetSeparator() const { return _szRawText.empty() ? WideChar(0) : _szRawText.front(); }

bool TQUMAQuotedNode::TryAddChar(WideChar cChar, TQUMAStringParser* pParser) {
  if (!pParser) return false;
  const Integer k = pParser->CloseQuoteIndex(cChar);
  if (k >= 0 && k == pParser->OpenQuoteIndex(_cOpenQuote)) {
    _cCloseQuote = cChar;
    _Close();
    return true;
  }
  _szRawText.push_back(cChar);
  return true;
}

void TQUMAContentsNode::AfterConstruction() {
  inherited::AfterConstruction();
  _pContents = MakeObject<TQUMAParsedNodeList>(true);
  _pContents->OnNotify = Bind<&TQUMAContentsNode::_ContentsNodesChanged>(this);
}

void TQUMAContentsNode::BeforeDestruction() {
  if (TObjectPtr<TQUMAParsedNodeList> list = std::move(_pContents)) {
    // The children leave the list as removed (the handler clears their parent) but are freed
    // by the outermost node being freed, one level after the other.
    std::vector<TQUMAParsedNode*> children(list->begin(), list->end());
    list->SetOwnsObjects(false);
    list->Clear();
    if (tPendingFrees) {
      tPendingFrees->insert(tPendingFrees->end(), children.begin(), children.end());
    } else {
      struct TPendingScope {
        explicit TPendingScope(std::vector<TQUMAParsedNode*>& v) { tPendingFrees = &v; }
        ~TPendingScope() { tPendingFrees = nullptr; }
      } scope(children);
      for (std::size_t i = 0; i < children.size(); ++i) Free(children[i]);
    }
  }
  inherited::BeforeDestruction();
}

bool TQUMAContentsNode::TryAddChar(WideChar, TQUMAStringParser*) { return false; }

TQUMAParsedNodeList* TQUMAContentsNode::_GetContentNodes() const { return _pContents.get(); }

void TQUMAContentsNode::_ContentsNodesChanged(TObject*, TQUMAParsedNode* const& Item, TCollectionNotification Action) {
  if (!Item) return;
  if (Action == cnAdded)
    Item->_pParent = this;
  else if (Action == cnExtracted || Action == cnRemoved)
    Item->_pParent = nullptr;
}

bool TQUMABracketedNode::TryAddChar(WideChar cChar, TQUMAStringParser* pParser) {
  if (!pParser) return false;
  const Integer k = pParser->CloseBracketIndex(cChar);
  if (k < 0 || k != pParser->OpenBracketIndex(_cOpenBracket)) return false;
  _cCloseBracket = cChar;
  _Close();
  return true;
}

bool TQUMAWhiteSpaceNode::TryAddChar(WideChar cChar, TQUMAStringParser* pParser) {
  if (!pParser) return false;
  if (!pParser->_IsWhitespace(cChar)) {
    _Close();
    return false;
  }
  _szWhitespace.push_back(cChar);
  return true;
}

UnicodeString TQUMAWhiteSpaceNode::_GetWhitespace() const { return _szWhitespace; }

// ---- parser ----

TQUMAStringParser::TQUMAStringParser() : _pClasses(std::make_unique<detail::TCharClasses>()) {}

TQUMAStringParser::~TQUMAStringParser() = default;

void TQUMAStringParser::AfterConstruction() {
  inherited::AfterConstruction();
  if (_acWhiteSpace.empty()) SetWhitespace(u" \t\n\r");
}

void TQUMAStringParser::PairsChanged() {
  detail::TCharClasses& c = *_pClasses;
  c.Assign(kOpenQuote, _acOpenQuotes);
  c.Assign(kCloseQuote, _acCloseQuotes);
  c.Assign(kOpenBracket, _acOpenBrackets);
  c.Assign(kCloseBracket, _acCloseBrackets);
}

bool TQUMAStringParser::HasClass(WideChar c, Byte Class) const noexcept { return (_pClasses->Of(c) & Class) != 0; }
bool TQUMAStringParser::IsOpenQuote(WideChar c) const noexcept { return HasClass(c, kOpenQuote); }
bool TQUMAStringParser::IsCloseQuote(WideChar c) const noexcept { return HasClass(c, kCloseQuote); }
bool TQUMAStringParser::IsOpenBracket(WideChar c) const noexcept { return HasClass(c, kOpenBracket); }
bool TQUMAStringParser::IsCloseBracket(WideChar c) const noexcept { return HasClass(c, kCloseBracket); }
bool TQUMAStringParser::IsQuoteOrBracket(WideChar c) const noexcept {
  return HasClass(c, kOpenQuote | kCloseQuote | kOpenBracket | kCloseBracket);
}

bool TQUMAStringParser::_IsDeclaredCharacter(WideChar c) const {
  return _IsSeparator(c) || _IsEscape(c) || _IsWhitespace(c) || IsOpenQuote(c) || IsOpenBracket(c) ||
         IsCloseQuote(c) || IsCloseBracket(c);
}
bool TQUMAStringParser::_IsEscape(WideChar c) const { return HasClass(c, kEscape); }
bool TQUMAStringParser::_IsSeparator(WideChar c) const { return HasClass(c, kSeparator); }
bool TQUMAStringParser::_IsWhitespace(WideChar c) const { return HasClass(c, kWhitespace); }

UnicodeString TQUMAStringParser::_GetEscapes() const { return _acEscapes; }
UnicodeString TQUMAStringParser::_GetSeparators() const { return _acSeparators; }
UnicodeString TQUMAStringParser::_GetWhitespace() const { return _acWhiteSpace; }
bool TQUMAStringParser::_GetIgnoreWhitespace() const { return _ParserOptions.Contains(spoIgnoreWS); }

void TQUMAStringParser::_SetEscapes(UnicodeStringView Value) {
  _acEscapes = Value;
  _pClasses->Assign(kEscape, _acEscapes);
}
void TQUMAStringParser::_SetSeparators(UnicodeStringView Value) {
  _acSeparators = Value;
  _pClasses->Assign(kSeparator, _acSeparators);
}
void TQUMAStringParser::_SetWhitespace(UnicodeStringView Value) {
  _acWhiteSpace = Value;
  _pClasses->Assign(kWhitespace, _acWhiteSpace);
}
void TQUMAStringParser::_SetIgnoreWhitespace(bool Value) {
  if (Value)
    _ParserOptions.Include(spoIgnoreWS);
  else
    _ParserOptions.Exclude(spoIgnoreWS);
}

void TQUMAStringParser::AddPair(UnicodeString& Opens, UnicodeString& Closes, WideChar cOpen, WideChar cClose) {
  if (_IsDeclaredCharacter(cOpen) || _IsDeclaredCharacter(cClose)) return;
  Opens.push_back(cOpen);
  Closes.push_back(cClose);
  PairsChanged();
}

void TQUMAStringParser::RemovePair(UnicodeString& Opens, UnicodeString& Closes, WideChar cOpen, WideChar cClose) {
  const Integer k = IndexIn(Opens, cOpen);
  if (k < 0 || k != IndexIn(Closes, cClose)) return;
  Opens.erase(static_cast<std::size_t>(k), 1);
  Closes.erase(static_cast<std::size_t>(k), 1);
  PairsChanged();
}

void TQUMAStringParser::AddBracketPair(WideChar cOpenBracket, WideChar cCloseBracket) {
  AddPair(_acOpenBrackets, _acCloseBrackets, cOpenBracket, cCloseBracket);
}
void TQUMAStringParser::AddQuotePair(WideChar cOpenQuote, WideChar cCloseQuote) {
  AddPair(_acOpenQuotes, _acCloseQuotes, cOpenQuote, cCloseQuote);
}
void TQUMAStringParser::RemoveBracketPair(WideChar cOpenBracket, WideChar cCloseBracket) {
  RemovePair(_acOpenBrackets, _acCloseBrackets, cOpenBracket, cCloseBracket);
}
void TQUMAStringParser::RemoveQuotePair(WideChar cOpenQuote, WideChar cCloseQuote) {
  RemovePair(_acOpenQuotes, _acCloseQuotes, cOpenQuote, cCloseQuote);
}

bool TQUMAStringParser::LookAhead(Integer nOffset, WideChar& cCharacter) {
  const Int64 index = Int64{_nParsePoint} + nOffset;
  if (index < 0 || index >= static_cast<Int64>(_szParsingText.size())) return false;
  cCharacter = _szParsingText[static_cast<std::size_t>(index)];
  return true;
}

UnicodeString TQUMAStringParser::SlurpCharacters(Integer nCount) {
  if (nCount < 0 || static_cast<Int64>(_szParsingText.size()) <= Int64{_nParsePoint} + nCount) return {};
  UnicodeString result = _szParsingText.substr(static_cast<std::size_t>(_nParsePoint), static_cast<std::size_t>(nCount));
  _nParsePoint += nCount;
  return result;
}

TQUMAParsedNode* TQUMAStringParser::_CreateBracketedNode(WideChar c) { return New<TQUMABracketedNode>(c); }
TQUMAParsedNode* TQUMAStringParser::_CreateQuotedNode(WideChar c) { return New<TQUMAQuotedNode>(c); }
TQUMAParsedNode* TQUMAStringParser::_CreateSeparatorNode(WideChar c) { return New<TQUMASeparatorNode>(c); }
TQUMAParsedNode* TQUMAStringParser::_CreateTextNode(WideChar c) { return New<TQUMATextNode>(c); }
TQUMAParsedNode* TQUMAStringParser::_CreateWhitespaceNode(WideChar c) { return New<TQUMAWhiteSpaceNode>(c); }

TQUMAParsedNode* TQUMAStringParser::_CreateNewNode(WideChar c) {
  if (_IsSeparator(c)) return _CreateSeparatorNode(c);
  if (IsOpenQuote(c)) return _CreateQuotedNode(c);
  if (IsOpenBracket(c)) return _CreateBracketedNode(c);
  if (_IsWhitespace(c)) return _CreateWhitespaceNode(c);
  if (IsCloseQuote(c) || IsCloseBracket(c)) return nullptr;  // stray: dropped
  return _CreateTextNode(c);
}

namespace {

TQUMAContentsNode* AsContents(TQUMAParsedNode* node) noexcept { return dynamic_cast<TQUMAContentsNode*>(node); }

// Adds node to the children of parent when that is a contents node, else to the output.
void AddNode(TQUMAParsedNode* parent, TQUMAParsedNode* node, TQUMAParsedNodeList& out) {
  TObjectPtr<TQUMAParsedNode> owned(node);  // freed if the list cannot take it
  if (TQUMAContentsNode* contents = AsContents(parent))
    contents->ContentNodes()->Add(owned.get());
  else
    out.Add(owned.get());
  owned.release();
}

// Removes node from list (which frees it when it owns its items); usually the last item.
void RemoveNode(TQUMAParsedNodeList& list, TQUMAParsedNode* node) {
  const Integer index = list.LastIndexOf(node);
  if (index >= 0) list.Delete(index);
}

}  // namespace

bool TQUMAStringParser::Parse(UnicodeStringView szInput, TQUMAParsedNodeList* pOut) {
  if (!pOut) return false;
  TQUMAParsedNodeList& out = *pOut;
  struct TParsingScope {  // the text belongs to this call only, also when a node raises
    UnicodeString& Text;
    ~TParsingScope() { Text.clear(); }
  } scope{_szParsingText};
  _szParsingText = szInput;
  _nParsePoint = 0;
  std::vector<TQUMAParsedNode*> stack;  // open nodes, innermost last
  const bool ignoreWhitespace = IgnoreWhitespace();
  auto top = [&stack]() { return stack.empty() ? nullptr : stack.back(); };

  while (static_cast<std::size_t>(_nParsePoint) < _szParsingText.size()) {
    TQUMAParsedNode* pNode = top();
    WideChar c = _szParsingText[static_cast<std::size_t>(_nParsePoint++)];
    if (_IsEscape(c)) {
      // The next character is plain text; a trailing escape stands for itself.
      if (static_cast<std::size_t>(_nParsePoint) < _szParsingText.size())
        c = _szParsingText[static_cast<std::size_t>(_nParsePoint++)];
      if (OnEscapeChar) c = OnEscapeChar(this, c);
      if (auto* text = dynamic_cast<TQUMATextNode*>(pNode)) {
        text->AddEscapedChar(c);
      } else {
        auto* node = New<TQUMATextNode>(c);
        AddNode(pNode, node, out);
        stack.push_back(node);
        pNode = node;
      }
    } else if (!pNode || !pNode->TryAddChar(c, this)) {
      TQUMAParsedNode* const pFirst = pNode;
      while (pNode && pNode->Closed()) {
        const bool blRemove = ignoreWhitespace && pNode->Is<TQUMAWhiteSpaceNode>();
        stack.pop_back();
        TQUMAParsedNode* const closed = pNode;
        pNode = top();
        if (!blRemove) continue;
        if (!pNode)
          RemoveNode(out, closed);
        else if (TQUMAContentsNode* contents = AsContents(pNode))
          RemoveNode(*contents->ContentNodes(), closed);
      }
      if (!(pNode && pNode != pFirst && pNode->TryAddChar(c, this))) {
        if (TQUMAParsedNode* pNew = _CreateNewNode(c)) {
          AddNode(pNode, pNew, out);
          if (!pNew->Closed()) {
            stack.push_back(pNew);
            pNode = pNew;
          }
        }
      }
    }
    // Closing pass: a node that closed on this character is finished.
    while (pNode && pNode->Closed()) {
      stack.pop_back();
      pNode = top();
    }
  }

  if (ignoreWhitespace && !stack.empty() && stack.back()->Is<TQUMAWhiteSpaceNode>()) {
    TQUMAParsedNode* const trailing = stack.back();
    stack.pop_back();
    if (TQUMAContentsNode* contents = AsContents(top()))
      RemoveNode(*contents->ContentNodes(), trailing);
    else
      RemoveNode(out, trailing);
  }
  return true;
}

bool TQUMAStringParser::Parse(std::string_view szInput, TQUMAParsedNodeList* pOut) {
  return Parse(UnicodeStringView(Utf8ToUtf16(szInput)), pOut);
}

}  // namespace quma
