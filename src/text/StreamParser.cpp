#include <quma/StreamParser.h>

#include <cxxabi.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <quma/IOUtils.h>

namespace quma {

namespace {
// Enough for any sane pattern over a node of many megabytes; a catastrophic one stops at once.
constexpr TRegexLimits kLimits{10'000'000, 250'000};

// Moves on whenever a definition or a parser's list of them changes: what the parsers derived
// from them (SkipQuietCharacters' plans) is then stale.
std::atomic<std::uint64_t> gDefinitionsGeneration{1};
void TouchDefinitions() noexcept { gDefinitionsGeneration.fetch_add(1, std::memory_order_relaxed); }

bool Contains(const std::vector<TClass>& list, TClass cls) {
  return std::find(list.begin(), list.end(), cls) != list.end();
}

// memcmp: the character traits of char16_t compare one unit at a time.
bool StartsWith(UnicodeStringView Text, UnicodeStringView Prefix) noexcept {
  return Text.size() >= Prefix.size() && std::memcmp(Text.data(), Prefix.data(), Prefix.size() * sizeof(char16_t)) == 0;
}

// How many of the first Limit bytes hold none of the ASCII units in the bitmap Stop and none
// beyond ASCII: sixteen at a time where the processor can and the units are few.
std::size_t QuietLength(const Byte* Bytes, std::size_t Limit, const std::uint64_t (&Stop)[2]) noexcept {
  std::size_t n = 0;
#if defined(__SSE2__)
  __m128i needles[8];
  int count = 0;
  for (int word = 0; word < 2 && count >= 0; ++word)
    for (std::uint64_t bits = Stop[word]; bits != 0 && count >= 0; bits &= bits - 1) {
      if (count == 8) count = -1;
      else needles[count++] = _mm_set1_epi8(static_cast<char>(word * 64 + __builtin_ctzll(bits)));
    }
  if (count >= 0)
    for (; n + 16 <= Limit; n += 16) {
      const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Bytes + n));
      __m128i hits = _mm_setzero_si128();
      for (int i = 0; i < count; ++i) hits = _mm_or_si128(hits, _mm_cmpeq_epi8(block, needles[i]));
      // (a byte beyond ASCII has its high bit set)
      if (const int mask = _mm_movemask_epi8(hits) | _mm_movemask_epi8(block)) return n + static_cast<std::size_t>(__builtin_ctz(mask));
    }
#endif
  for (; n < Limit; ++n) {
    const Byte b = Bytes[n];
    if (b >= 0x80 || ((Stop[b >> 6] >> (b & 63)) & 1)) break;
  }
  return n;
}

// Appends ASCII bytes as units, through a small buffer: the iterator form of append builds a
// temporary string first, and resize fills what is then overwritten.
void AppendAscii(UnicodeString& Text, const Byte* Bytes, std::size_t Count) {
  char16_t units[64];
  while (Count > 0) {
    const std::size_t n = std::min(Count, std::size(units));
    std::size_t i = 0;
#if defined(__SSE2__)
    for (; i + 16 <= n; i += 16) {
      const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(Bytes + i));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(units + i), _mm_unpacklo_epi8(bytes, _mm_setzero_si128()));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(units + i + 8), _mm_unpackhi_epi8(bytes, _mm_setzero_si128()));
    }
#endif
    std::copy(Bytes + i, Bytes + n, units + i);
    Text.append(units, n);
    Bytes += n;
    Count -= n;
  }
}

UnicodeString After(const TRegexMatch& m) {
  return UnicodeString(m.Subject().substr(m.GroupOffset(0) + m.GroupLength(0)));
}

UnicodeString TypeName(const std::exception& e) {
  int status = 0;
  char* name = abi::__cxa_demangle(typeid(e).name(), nullptr, nullptr, &status);
  UnicodeString result = Utf8ToUtf16(status == 0 && name ? name : typeid(e).name());
  std::free(name);
  return result;
}
}  // namespace

// ---- TQUMAStreamedNode ----

bool TQUMAStreamedNode::IsAllowedNodeClass(TClass pNodeClass) const {
  return _pDefinition && _pDefinition->IsAllowedNodeClass(pNodeClass);
}

bool TQUMAStreamedNode::TryAccept(UnicodeString& szNextChar) {
  return _pDefinition && _pDefinition->TryAccept(szNextChar, this);
}

// ---- TQUMAStreamedNodeDefinition ----

void TQUMAStreamedNodeDefinition::Assign(TPersistent* Source) {
  auto* source = dynamic_cast<TQUMAStreamedNodeDefinition*>(Source);
  if (!source) {
    inherited::Assign(Source);
    return;
  }
  // The name, the valid pattern, the case flags, CanBeRootNode, AllowsMultiLineText and the
  // disallowed classes stay as they are.
  SetAllowedContentMatch(source->AllowedContentMatch());
  SetAllowsContainedNodes(source->AllowsContainedNodes());
  SetAllowsContainedText(source->AllowsContainedText());
  SetCloseMatch(source->CloseMatch());
  SetEscapes(source->Escapes());
  _fnEscapeHandler = source->_fnEscapeHandler;
  _fnOpenCallback = source->_fnOpenCallback;
  _fnCloseCallback = source->_fnCloseCallback;
  SetOpenMatch(source->OpenMatch());
  _pAllowedNodes = source->_pAllowedNodes;
  TouchDefinitions();
}

const TRegex* TQUMAStreamedNodeDefinition::Compiled(std::unique_ptr<TRegex>& Cache, const UnicodeString& Pattern,
                                                    bool Anchor, bool AnchorEnd, TPerlRegExOptions Options,
                                                    bool Partial) {
  if (!Cache && !Pattern.empty()) {
    UnicodeString pattern = Pattern;
    if (Anchor && pattern.front() != u'^') pattern.insert(pattern.begin(), u'^');
    if (AnchorEnd && pattern.back() != u'$') pattern.push_back(u'$');
    Cache = std::make_unique<TRegex>(pattern, Options, kLimits, Partial);
  }
  return Cache.get();
}

const TRegex* TQUMAStreamedNodeDefinition::_GetOpenRegEx() {
  if (_pRegOpen) return _pRegOpen.get();  // the common case, once per character
  TPerlRegExOptions options{preSingleLine};
  if (CaseInsensitiveOpen()) options.Include(preCaseLess);
  return Compiled(_pRegOpen, _szOpen, true, false, options, true);
}

const TRegex* TQUMAStreamedNodeDefinition::_GetCloseRegEx() {
  if (_pRegClose) return _pRegClose.get();  // the common case, once per character
  TPerlRegExOptions options{preSingleLine};
  if (CaseInsensitiveClose()) options.Include(preCaseLess);
  return Compiled(_pRegClose, _szClose, false, true, options, true);
}

const TRegex* TQUMAStreamedNodeDefinition::_GetAllowedRegEx() {
  if (_pRegAllowed) return _pRegAllowed.get();  // the common case, once per character
  TPerlRegExOptions options{preSingleLine};
  if (CaseInsensitiveContent()) options.Include(preCaseLess);
  return Compiled(_pRegAllowed, _szAllowed, false, false, options, true);
}

const TRegex* TQUMAStreamedNodeDefinition::_GetValidRegEx() {
  if (_pRegValid) return _pRegValid.get();  // the common case, once per character
  TPerlRegExOptions options;
  if (AllowsMultiLineText()) options.Include(preSingleLine);
  if (CaseInsensitiveValid()) options.Include(preCaseLess);
  return Compiled(_pRegValid, _szValid, true, true, options);
}

namespace {
void SetPattern(UnicodeString& Field, std::unique_ptr<TRegex>& Regex, const UnicodeString& Value) {
  if (Field == Value) return;
  TouchDefinitions();
  Field = Value;
  Regex.reset();
}
}  // namespace

void TQUMAStreamedNodeDefinition::_SetOpenMatch(const UnicodeString& Value) { SetPattern(_szOpen, _pRegOpen, Value); }
void TQUMAStreamedNodeDefinition::_SetAllowedMatch(const UnicodeString& Value) {
  SetPattern(_szAllowed, _pRegAllowed, Value);
}
void TQUMAStreamedNodeDefinition::_SetValidMatch(const UnicodeString& Value) { SetPattern(_szValid, _pRegValid, Value); }
void TQUMAStreamedNodeDefinition::_SetCloseMatch(const UnicodeString& Value) {
  if (Value != _szClose) ++_nCloseSerial;
  SetPattern(_szClose, _pRegClose, Value);
}

void TQUMAStreamedNodeDefinition::SetOption(TNodeOption Option, bool Value) noexcept {
  if (_NodeOptions.Contains(Option) == Value) return;
  TouchDefinitions();
  if (Value) _NodeOptions.Include(Option);
  else _NodeOptions.Exclude(Option);
}

void TQUMAStreamedNodeDefinition::SetCaseOption(TNodeOption Option, bool Value, std::unique_ptr<TRegex>& Regex) {
  if (_NodeOptions.Contains(Option) == Value) return;
  SetOption(Option, Value);
  Regex.reset();  // recompiled with the new case rule on next use
}

void TQUMAStreamedNodeDefinition::_SetCaseInsensitiveOpen(bool Value) {
  SetCaseOption(snd_CaseInsensitiveOpen, Value, _pRegOpen);
}
void TQUMAStreamedNodeDefinition::_SetCaseInsensitiveClose(bool Value) {
  if (Value != CaseInsensitiveClose()) ++_nCloseSerial;
  SetCaseOption(snd_CaseInsensitiveClose, Value, _pRegClose);
}
void TQUMAStreamedNodeDefinition::_SetCaseInsensitiveContent(bool Value) {
  SetCaseOption(snd_CaseInsensitiveContent, Value, _pRegAllowed);
}
void TQUMAStreamedNodeDefinition::_SetCaseInsensitiveValid(bool Value) {
  SetCaseOption(snd_CaseInsensitiveValid, Value, _pRegValid);
}
void TQUMAStreamedNodeDefinition::_SetAllowsMultiLineText(bool Value) {
  SetCaseOption(snd_AllowsMultiLineText, Value, _pRegValid);  // single-line mode of the valid regex
}

void TQUMAStreamedNodeDefinition::_SetEscapes(const UnicodeString& Value) {
  TouchDefinitions();
  // As many bytes as characters, from the text's UTF-16 (low byte first) into the zeroed array.
  _caEscapes.assign(Value.size(), 0);
  for (std::size_t b = 0; b < Value.size(); ++b) {
    const char16_t unit = Value[b / 2];
    _caEscapes[b / 2] |= b % 2 == 0 ? static_cast<char16_t>(unit & 0xFF) : static_cast<char16_t>(unit & 0xFF00);
  }
}

void TQUMAStreamedNodeDefinition::AllowNodeClass(TClass pNodeClass) {
  if (!pNodeClass) return;
  TouchDefinitions();
  std::erase(_pDisallowedNodes, pNodeClass);
  _pAllowedNodes.push_back(pNodeClass);
}

void TQUMAStreamedNodeDefinition::DisallowNodeClass(TClass pNodeClass) {
  if (!pNodeClass) return;
  TouchDefinitions();
  std::erase(_pAllowedNodes, pNodeClass);
  _pDisallowedNodes.push_back(pNodeClass);
}

bool TQUMAStreamedNodeDefinition::IsAllowedNodeClass(TClass pNodeClass) const {
  if (!AllowsContainedNodes()) return false;
  if (!_pDisallowedNodes.empty() && Contains(_pDisallowedNodes, pNodeClass)) return false;
  return _pAllowedNodes.empty() || Contains(_pAllowedNodes, pNodeClass);
}

TQUMAStreamedNodeClass TQUMAStreamedNodeDefinition::GetStreamedNodeClass() const {
  return TQUMAStreamedNodeClass::Of<TQUMAStreamedNode>();
}

TQUMAStreamedNode* TQUMAStreamedNodeDefinition::CreateNode(TQUMAStreamParser* pForParser) {
  const TQUMAStreamedNodeClass cls = GetStreamedNodeClass();
  // (The library's own node class, the common case, without the class reference's checks.)
  TQUMAStreamedNode* node = cls.Get() == TQUMAStreamedNode::StaticClass() ? New<TQUMAStreamedNode>(pForParser)
                                                                           : cls.Create(pForParser);
  if (!node)
    throw EInvalidOperation(Format(u"Cannot create a %s for the stream parser",
                                   cls ? cls.Get()->ClassName() : UnicodeString(u"node")));
  return node;
}

bool TQUMAStreamedNodeDefinition::MatchGrowing(const TRegex* Regex, TDeadPrefix& Memo, UnicodeStringView Subject) {
  // (An empty text inspects nothing: its verdict says nothing about longer ones.)
  const bool growing = Regex->Anchored() && !Subject.empty();
  if (growing && Memo.Regex == Regex && Memo.Generation == gDefinitionsGeneration.load(std::memory_order_relaxed) &&
      StartsWith(Subject, Memo.Prefix))
    return false;
  if (growing) {
    // A text that no match can begin with stays dead however it grows.
    const UnicodeStringView prefix = Regex->LiteralPrefix();
    const std::size_t n = std::min(prefix.size(), Subject.size());
    if (!Regex->MayStartWith(Subject[0]) || std::memcmp(Subject.data(), prefix.data(), n * sizeof(char16_t)) != 0)
      return false;
  }
  if (!Regex->MayMatchWithin(Subject)) return false;
  if (!growing) return Regex->Match(Subject, _Match);
  // Soft partial mode finds the same complete match as a plain search, and tells a text that
  // may still grow into a match from one that never will.
  const TRegexMatchResult result = Regex->MatchSoftPartial(Subject, _Match);
  if (result == mrNoMatch) {
    Memo.Regex = Regex;
    Memo.Generation = gDefinitionsGeneration.load(std::memory_order_relaxed);
    Memo.Prefix.assign(Subject);
  }
  return result == mrMatch;
}

TQUMAStreamedNode* TQUMAStreamedNodeDefinition::TryMatchOpen(UnicodeString& szCandidate, TQUMAStreamParser* pForParser) {
  const TRegex* open = _GetOpenRegEx();
  TRegexMatch& m = _Match;
  if (!open || !MatchGrowing(open, _OpenDead, szCandidate)) return nullptr;
  TQUMAStreamedNode* node = CreateNode(pForParser);
  node->_pDefinition = this;
  node->_szOpen.assign(m.Group(0));
  szCandidate.erase(0, m.GroupOffset(0) + m.GroupLength(0));  // (the match was made on it)
  if (_pParser) _pParser->PushNode(node);
  if (_fnOpenCallback) _fnOpenCallback(this, node);
  if (!_GetAllowedRegEx() && !_GetValidRegEx()) {
    if (!_GetCloseRegEx()) _DoClose(node);
    else _CheckClose(szCandidate, node);
  }
  return node;
}

std::size_t TQUMAStreamedNodeDefinition::CloseResumeOffset(TQUMAStreamedNode* pNode, UnicodeStringView Subject,
                                                           std::size_t ContentLength) {
  // (\G ties a match to the start offset, so a pattern that uses it is always searched whole.)
  if (!_bGKnown || _nGSerial != _nCloseSerial) {
    _bCloseUsesG = _szClose.find(u"\\G") != UnicodeString::npos;
    _nGSerial = _nCloseSerial;
    _bGKnown = true;
  }
  if (_bCloseUsesG) return 0;
  auto& scan = pNode->_CloseScan;
  if (scan.Valid && scan.Serial == _nCloseSerial && ContentLength >= scan.ContentLength &&
      StartsWith(Subject.substr(std::min(scan.ContentLength, Subject.size())), scan.Tail))
    return scan.Safe;
  // The content alone, searched on from where it was last: what a hard partial search of it
  // rules out stays ruled out whatever is appended.
  if (scan.ContentSerial != _nCloseSerial || scan.ContentSafeLength > ContentLength) {
    scan.ContentSafe = scan.ContentSafeLength = 0;
    scan.ContentSerial = _nCloseSerial;
  }
  if (ContentLength > scan.ContentSafeLength) {
    const TRegex* close = _GetCloseRegEx();
    const UnicodeStringView content = Subject.substr(0, ContentLength);
    try {
      const std::size_t from = close->PossibleStart(content, scan.ContentSafe);
      if (ContentLength - from < close->LiteralPrefix().size()) {  // (never with no prefix)
        scan.ContentSafe = from;
      } else {
        const TRegexMatchResult probe = close->MatchPartial(content, _Match, from);
        scan.ContentSafe = probe == mrNoMatch ? ContentLength : std::min(_Match.GroupOffset(0), ContentLength);
      }
      scan.ContentSafeLength = ContentLength;
    } catch (const std::exception&) {
      return 0;  // the search proper meets the error and reports it
    }
  }
  return scan.ContentSafe;
}

const TQUMAStreamedNodeDefinition::TRunPlan& TQUMAStreamedNodeDefinition::RunPlan(UnicodeStringView LineEnd) {
  TRunPlan& plan = _RunPlan;
  const std::uint64_t generation = gDefinitionsGeneration.load(std::memory_order_relaxed);
  if (plan.Generation == generation && plan.LineEnd == LineEnd) return plan;
  plan.Generation = generation;
  plan.LineEnd.assign(LineEnd);
  plan.Take.fill(0);
  plan.Allowed = plan.Close = nullptr;
  // Only where every step is this class's own: an override may do anything with a character.
  if (ClassType() != StaticClass() || !AllowsContainedText() || !_szValid.empty()) return plan;
  try {
    plan.Allowed = _GetAllowedRegEx();
    plan.Close = _GetCloseRegEx();
    if (!plan.Allowed || (plan.Close && !plan.Close->HasRequiredUnit())) {
      plan.Allowed = nullptr;
      return plan;
    }
    // A unit is taken when the allowed regex takes it whole, as its step would see it alone, and
    // it does not end a run: a carriage return (it looks ahead), an escape, a unit that a close
    // match needs, a line feed when the line end it becomes is one of those.
    const auto takesAlone = [&](UnicodeStringView candidate) {
      return plan.Allowed->Match(candidate, _Match) && _Match.GroupOffset(0) == 0 &&
             _Match.GroupLength(0) == candidate.size();
    };
    const auto escape = [&](char16_t u) { return std::find(_caEscapes.begin(), _caEscapes.end(), u) != _caEscapes.end(); };
    const auto closing = [&](char16_t u) { return plan.Close && plan.Close->MayBeRequiredUnit(u); };
    for (char16_t u = 0; u < 0x80; ++u)
      if (u != u'\n') plan.Take[u] = u != u'\r' && !escape(u) && !closing(u) && takesAlone(UnicodeStringView(&u, 1));
    plan.Take['\n'] = !LineEnd.empty() && !(LineEnd.size() == 1 && escape(LineEnd[0])) &&
                      std::none_of(LineEnd.begin(), LineEnd.end(), closing) && takesAlone(LineEnd);
  } catch (const std::exception&) {
    plan.Take.fill(0);  // the characters' own steps meet the error and report it
    plan.Allowed = nullptr;
  }
  return plan;
}

std::size_t TQUMAStreamedNodeDefinition::TakeTextRun(TQUMAStreamedNode* pNode, const Byte* Bytes, std::size_t Count,
                                                     UnicodeStringView LineEnd) {
  if (Count == 0 || !pNode || pNode->_pDefinition != this || pNode->ClassType() != TQUMAStreamedNode::StaticClass())
    return 0;
  const TRunPlan& plan = RunPlan(LineEnd);
  if (!plan.Take[Bytes[0]]) return 0;
  const TRegex* close = plan.Close;
  const auto unitsOf = [&](Byte b) -> std::size_t { return b == '\n' ? LineEnd.size() : 1; };

  UnicodeString& content = pNode->_szContent;
  const std::size_t original = content.size();
  std::size_t start = 0;
  // How many units the run may add: the close search the first character would make finds
  // nothing while the text from where it would resume lacks the required unit; past 64 units let
  // that search run and move on.
  std::size_t cap = ~std::size_t{0};
  if (close) {
    const char16_t first = Bytes[0];
    content += Bytes[0] == '\n' ? LineEnd : UnicodeStringView(&first, 1);
    start = CloseResumeOffset(pNode, content, original);
    const bool may = close->MayMatchWithin(UnicodeStringView(content).substr(start));
    content.resize(original);
    if (may) return 0;
    cap = start + 64 > original ? start + 64 - original : 0;
  }
  // Every byte is at least one unit (a line feed is taken only for a line end that has some), so
  // no more than cap bytes are looked at; with a longer line end the run is then cut to cap units.
  std::size_t taken = 1;
  const std::size_t limit = std::min(Count, std::max<std::size_t>(cap, 1));
  while (taken < limit && plan.Take[Bytes[taken]]) ++taken;
  if (close && LineEnd.size() > 1) {
    std::size_t units = 0;
    for (std::size_t i = 0; i < taken; ++i) units += unitsOf(Bytes[i]);
    for (; taken > 1 && units > cap; --taken) units -= unitsOf(Bytes[taken - 1]);
  }
  const std::size_t lastUnits = unitsOf(Bytes[taken - 1]);
  for (std::size_t from = 0; from < taken;) {
    const auto* lineFeed = static_cast<const Byte*>(std::memchr(Bytes + from, '\n', taken - from));
    const std::size_t to = lineFeed ? static_cast<std::size_t>(lineFeed - Bytes) : taken;
    AppendAscii(content, Bytes + from, to - from);
    if (lineFeed) content += LineEnd;
    from = to + 1;
  }
  if (close) {
    // As the last character's own close search would have left it.
    auto& scan = pNode->_CloseScan;
    scan.Valid = true;
    scan.Serial = _nCloseSerial;
    scan.ContentLength = content.size() - lastUnits;
    scan.Tail.assign(content, content.size() - lastUnits, lastUnits);
    scan.Safe = close->PossibleStart(content, start);  // (the run holds no part of a match before it)
  }
  return taken;
}

bool TQUMAStreamedNodeDefinition::_CheckClose(UnicodeString& szCandidate, TQUMAStreamedNode* pCandidate) {
  const TRegex* close = _GetCloseRegEx();
  if (!close || !pCandidate) return false;
  // The subject is the content followed by the candidate, built in the content's own storage
  // (no copy of a long node per character) and cut back before anything else happens; a short
  // content without room for the candidate is copied instead (no allocation per node).
  UnicodeString& content = pCandidate->_szContent;
  const std::size_t contentLength = content.size();
  const bool inPlace = contentLength + szCandidate.size() <= content.capacity() || contentLength > 64;
  UnicodeString& subject = inPlace ? content : _CloseSubject;
  if (!inPlace) subject.assign(content);
  subject += szCandidate;

  // Resume where the previous search showed that no match can start earlier, if this subject
  // extends the one searched then.
  auto& scan = pCandidate->_CloseScan;
  const std::size_t start = CloseResumeOffset(pCandidate, subject, contentLength);
  TRegexMatch& m = _Match;
  std::size_t safe = start;
  bool found = false;
  // A match begins with the pattern's literal prefix: none before its first place, and a place
  // where the subject ends in part of it is where a match may yet start. A text from there that
  // lacks a unit every match contains cannot hold a match yet.
  const std::size_t prefix = close->LiteralPrefix().size();
  const std::size_t from = prefix > 0 ? close->PossibleStart(subject, start) : start;
  if (subject.size() - from < prefix) {  // (never with no prefix: an empty match needs none)
    safe = from;
  } else if (close->MayMatchWithin(UnicodeStringView(subject).substr(from))) try {
    if (prefix > 0 && close->Match(subject, m, from)) {
      found = true;  // the first match: none starts before `from`
    } else {
      const TRegexMatchResult probe = close->MatchPartial(subject, m, from);
      safe = probe == mrNoMatch ? subject.size() : std::min(m.GroupOffset(0), subject.size());
      // A hard partial result says where a match may start, not whether one ends here: the plain
      // search from there gives the real answer.
      found = prefix == 0 && probe != mrNoMatch && close->Match(subject, m, safe);
    }
  } catch (...) {
    subject.resize(contentLength);
    throw;
  }
  if (!found) {
    subject.resize(contentLength);
    scan.Valid = true;
    scan.Serial = _nCloseSerial;
    scan.ContentLength = contentLength;
    scan.Tail.assign(szCandidate);
    scan.Safe = safe;
    return false;
  }
  // The subject is the content's own storage: the text before the match stays there as the new
  // content, the candidate keeps what follows the match.
  const std::size_t before = m.GroupOffset(0), end = before + m.GroupLength(0);
  pCandidate->_szClose.assign(m.Group(0));
  if (before > 0 && !AllowsContainedText()) {
    subject.resize(contentLength);
    const UnicodeString name = Name();
    throw EQUMAStreamError(name.empty() ? UnicodeString(u"Unexpected text found in unnamed node")
                                        : Format(u"Unexpected text found in %s node", name));
  }
  if (end >= contentLength) szCandidate.erase(0, end - contentLength);
  else szCandidate.assign(subject, end);
  // (The node is complete: its search state is done with.)
  if (inPlace) content.resize(before == 0 ? contentLength : before);
  else if (before > 0 && before < contentLength) content.resize(before);
  else if (before > contentLength) content.append(subject, contentLength, before - contentLength);
  _DoClose(pCandidate);
  return true;
}

void TQUMAStreamedNodeDefinition::_DoClose(TQUMAStreamedNode* pNode) {
  pNode->_NodeState.Include(TQUMAStreamedNode::sn_Complete);
  if (_fnCloseCallback) _fnCloseCallback(this, pNode);  // may free the node: only its address is used below
  if (_pParser && _pParser->CurrentNode() == pNode) _pParser->PopNode();
}

bool TQUMAStreamedNodeDefinition::TryAccept(UnicodeString& szCandidate, TQUMAStreamedNode* pCandidate) {
  if (!pCandidate) return false;
  bool accepted = false;
  if (szCandidate.size() == 1 && std::find(_caEscapes.begin(), _caEscapes.end(), szCandidate[0]) != _caEscapes.end()) {
    // An escaped character is content, never a close; it does not count on the line.
    TQUMAStreamParser* parser = pCandidate->Parser() ? pCandidate->Parser() : _pParser;
    UnicodeString text;
    Integer bytes = 0;
    if (!parser || !parser->Fetch(text, bytes)) szCandidate.clear();
    else if (_fnEscapeHandler) szCandidate.assign(1, _fnEscapeHandler(this, text[0]));
    else szCandidate = std::move(text);
  } else {
    accepted = _CheckClose(szCandidate, pCandidate);
  }
  if (accepted || szCandidate.empty()) return accepted;
  if (AllowsContainedText()) {
    const TRegex* valid = _GetValidRegEx();
    TRegexMatch& m = _Match;
    if (valid) {
      const UnicodeString subject = pCandidate->Text() + szCandidate;
      if (valid->Match(subject, m)) {
        accepted = true;
        const UnicodeStringView whole = m.Group(0);
        pCandidate->SetContent(UnicodeString(whole.substr(std::min(pCandidate->_szOpen.size(), whole.size()))));
        szCandidate = After(m);
        if (!szCandidate.empty()) _DoClose(pCandidate);
      }
    }
    if (!accepted) {
      const TRegex* allowed = _GetAllowedRegEx();
      if (allowed && MatchGrowing(allowed, _AllowedDead, szCandidate)) {
        accepted = true;
        if (!valid) {
          pCandidate->_szContent += m.Group(0);  // an append keeps the close search's progress
          szCandidate.erase(0, m.GroupOffset(0) + m.GroupLength(0));
        }
      }
    }
  }
  if (!accepted && !AllowsContainedNodes()) _DoClose(pCandidate);
  return accepted;
}

bool TQUMAStreamedNodeDefinition::EndOfStream(UnicodeString& szResidual, TQUMAStreamedNode* pCandidate) {
  if (szResidual.empty() && !_GetCloseRegEx()) {
    _DoClose(pCandidate);
    return true;
  }
  const TRegex* valid = _GetValidRegEx();
  if (!valid) return false;
  const UnicodeString subject = pCandidate->Text() + szResidual;
  if (!valid->Match(subject, _Match)) return false;
  szResidual = After(_Match);
  _DoClose(pCandidate);
  return true;
}

// ---- TQUMAStreamParser ----

void TQUMAStreamParser::AfterConstruction() {
  inherited::AfterConstruction();
  _pNodeDefs = New<TDefinitionList>();
  _pNodeDefs->SetOnNotify(Bind<&TQUMAStreamParser::_DefinitionsChanged>(this));
  _szNormedLineEnd = u"\r\n";
}

void TQUMAStreamParser::BeforeDestruction() {
  inherited::BeforeDestruction();
  _FreeNodes();
  FreeAndNil(_pNodeDefs);  // its removals clear each definition's Parser
}

void TQUMAStreamParser::Assign(TPersistent* Source) {
  auto* source = dynamic_cast<TQUMAStreamParser*>(Source);
  if (!source) {
    inherited::Assign(Source);
    return;
  }
  if (source != this) {
    const std::vector<TQUMAStreamedNodeDefinition*> definitions = source->_pNodeDefs->ToVector();
    _pNodeDefs->Clear();
    for (TQUMAStreamedNodeDefinition* definition : definitions) _pNodeDefs->Add(definition);
  }
  _FreeNodes();
}

void TQUMAStreamParser::_DefinitionsChanged(TObject*, TQUMAStreamedNodeDefinition* const& Item,
                                            TCollectionNotification Action) {
  if (!Item) return;
  TouchDefinitions();
  if (Action == cnAdded) Item->_pParser = this;
  else if ((Action == cnRemoved || Action == cnExtracted) && !QUMAIsFreeing(Item)) Item->_pParser = nullptr;
}

void TQUMAStreamParser::_FreeNodes() {
  while (!_pCurrentNodes.empty()) {
    TQUMAStreamedNode* node = _pCurrentNodes.back();
    _pCurrentNodes.pop_back();
    Free(node);
  }
}

void TQUMAStreamParser::_SetAllowMultiLineBuffer(bool Value) {
  if (Value) _ParserOptions.Include(sp_AllowMultiLineBuffer);
  else _ParserOptions.Exclude(sp_AllowMultiLineBuffer);
}

TQUMAStreamedNodeDefinition* TQUMAStreamParser::_GetDefinition(Integer nIndex) const {
  return nIndex >= 0 && nIndex < _GetDefinitionCount() ? (*_pNodeDefs)[nIndex] : nullptr;
}

void TQUMAStreamParser::AddNodeDefinition(TQUMAStreamedNodeDefinition* pNodeDef) {
  if (pNodeDef && !_pNodeDefs->ContainsItem(pNodeDef)) _pNodeDefs->Add(pNodeDef);
}

void TQUMAStreamParser::RemoveNodeDefinition(TQUMAStreamedNodeDefinition* pNodeDef) {
  if (pNodeDef) _pNodeDefs->RemoveItem(pNodeDef);
}

bool TQUMAStreamParser::Fetch(UnicodeString& Text, Integer& ByteCount) {
  if (_pUtf8Memory) {  // (set only while it is the input)
    const Int64 position = _pUtf8Memory->MemoryPosition();
    if (position >= 0 && position < _pUtf8Memory->MemorySize()) {
      const Byte b = _pUtf8Memory->Memory()[position];
      if (b < 0x80) {
        _pUtf8Memory->TMemoryStream::Seek(position + 1, soBeginning);
        Text.assign(1, static_cast<char16_t>(b));
        ByteCount = 1;
        return true;
      }
    }
  }
  WideChar c = 0;
  return _pInput && QUMAFetchEncodedCharacter(_pInput, _pEncoding, c, Text, ByteCount);
}

bool TQUMAStreamParser::LookAhead(Integer nOffset, WideChar& cCharacter) {
  cCharacter = 0;
  if (!_pInput || nOffset < 0) return false;
  const Int64 start = _pInput->Position();
  Integer seen = 0;
  UnicodeString text;
  Integer bytes = 0;
  bool found = false;
  for (;;) {
    const Int64 before = _pInput->Position();
    if (Fetch(text, bytes)) {
      if (seen + static_cast<Integer>(text.size()) > nOffset) {
        cCharacter = text[static_cast<std::size_t>(nOffset - seen)];
        found = true;
        break;
      }
      seen += static_cast<Integer>(text.size());
    } else {
      // As many bytes as a character can take that still do not decode will not decode after
      // any wait: there is no character to look at. A shorter tail is a character not there
      // yet: wait for the stream to grow (a stream that does not grow keeps us here).
      const Integer limit = (_pEncoding ? _pEncoding : TEncoding::UTF8())->GetMaxByteCount(1);
      const bool invalid = _pInput->Position() - before >= limit;
      _pInput->SetPosition(before);
      if (invalid) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  _pInput->SetPosition(start);
  return found;
}

UnicodeString TQUMAStreamParser::SlurpCharacters(Integer nCount) {
  UnicodeString result;
  if (!_pInput || nCount < 1) return result;
  UnicodeString text;
  Integer bytes = 0;
  while (static_cast<Integer>(result.size()) < nCount && _pInput->Position() < _pInput->Size() && Fetch(text, bytes)) {
    result += text;
    ++_nCharCount;
  }
  return result;
}

std::size_t TQUMAStreamParser::SkipQuietCharacters(bool& Stopped) {
  // The characters that follow may be appended to the buffer at once, without a step each, as
  // far as no step could act on them: the open node neither closes nor takes text, and no
  // definition opens. Only this library's own classes (an override may act on any character).
  const Int64 position = _pUtf8Memory->MemoryPosition();
  if (position < 0 || position >= _pUtf8Memory->MemorySize()) return 0;
  const Byte* bytes = _pUtf8Memory->Memory() + position;
  const auto available = static_cast<std::size_t>(_pUtf8Memory->MemorySize() - position);
  if (bytes[0] >= 0x80 || bytes[0] == '\r' || bytes[0] == '\n') return 0;
  const char16_t first = _szBuffer.empty() ? static_cast<char16_t>(bytes[0]) : _szBuffer[0];

  TQUMAStreamedNode* const node = CurrentNode();
  TQUMAStreamedNodeDefinition* const own = node ? node->Definition() : nullptr;
  const TRegex* close = nullptr;
  if (node) {
    if (!own || node->ClassType() != TQUMAStreamedNode::StaticClass() ||
        own->ClassType() != TQUMAStreamedNodeDefinition::StaticClass() || !own->AllowsContainedNodes() ||
        (own->AllowsContainedText() && !own->_szValid.empty()))
      return 0;
    // A character that arrives in an empty buffer may be an escape.
    if (_szBuffer.empty() && std::find(own->_caEscapes.begin(), own->_caEscapes.end(), first) != own->_caEscapes.end())
      return 0;
    close = own->_GetCloseRegEx();
    if (close && (!close->HasRequiredUnit() || close->MayBeRequiredUnit(bytes[0]))) return 0;
  }

  // The tests of the buffer in this context (the open node's allowed pattern, the candidates'
  // opens), less those whose matches cannot begin with the first character: the plan, kept
  // until a definition changes.
  const std::uint64_t generation = gDefinitionsGeneration.load(std::memory_order_relaxed);
  TQuietPlan& plan = _QuietPlans[(reinterpret_cast<std::uintptr_t>(own) / alignof(std::max_align_t) + first) %
                                 _QuietPlans.size()];
  if (plan.Generation != generation || plan.Own != own || plan.First != first) {
    plan.Generation = 0;
    plan.Own = own;
    plan.First = first;
    plan.Tests.clear();
    plan.Eligible = true;
    const auto add = [&](const TRegex* test) {
      if (!test || (test->Anchored() && (!test->MayStartWith(first) ||
                                          (!test->LiteralPrefix().empty() && test->LiteralPrefix()[0] != first))))
        return;
      bool folds = false;
      const std::int32_t unit = test->RequiredUnit(folds);
      plan.Tests.push_back({test, test->Anchored() ? test->LiteralPrefix() : UnicodeStringView(), unit, folds,
                            test->GrowthMonotone(), test->Anchored() && test->IsLiteral()});
    };
    if (own && own->AllowsContainedText()) add(own->_GetAllowedRegEx());
    const Integer count = DefinitionCount();
    for (Integer i = 0; i < count && plan.Eligible; ++i) {
      TQUMAStreamedNodeDefinition* definition = Definition(i);
      plan.Eligible = definition->ClassType() == TQUMAStreamedNodeDefinition::StaticClass();
      if (node ? node->IsAllowedNodeClass(definition->ClassType()) : definition->CanBeRootNode())
        add(definition->_GetOpenRegEx());
    }
    plan.Generation = generation;
  }
  if (!plan.Eligible) return 0;

  // Each test is ruled out for the stretch by the literal text its matches begin with, bounded by
  // a unit every match contains (the stretch ends before it), or searched: a test whose match,
  // once there, stays as the buffer grows is tried once, at the stretch's end.
  // (The plan holds no test whose prefix begins with another unit than the first.)
  const auto prefixFails = [&](UnicodeStringView prefix) {
    for (std::size_t i = 1; i < prefix.size() && i < _szBuffer.size() + available; ++i) {
      const bool buffered = i < _szBuffer.size();
      const char16_t c = buffered ? _szBuffer[i] : bytes[i - _szBuffer.size()];
      if (!buffered && c >= 0x80) return prefix[i] < 0x80;  // (a character beyond ASCII)
      if (c != prefix[i]) return true;
    }
    return false;
  };
  // Where the stretch ends: a line end (a step of its own), a unit beyond ASCII, a bound.
  std::uint64_t stop[2] = {(1ull << '\r') | (1ull << '\n'), 0};
  const auto stopAt = [&stop](std::int32_t unit, bool folds) {
    stop[unit >> 6] |= 1ull << (unit & 63);
    if (folds) stop[(unit ^ 0x20) >> 6] |= 1ull << ((unit ^ 0x20) & 63);
  };
  _QuietTests.clear();
  std::size_t literal = ~std::size_t{0};  // the shortest buffer that holds a whole literal test
  for (const auto& test : plan.Tests) {
    if (!test.Prefix.empty() && prefixFails(test.Prefix)) continue;
    if (test.Literal) {
      literal = std::min(literal, test.Prefix.size());
      continue;
    }
    if (test.Unit >= 0 && (_szBuffer.empty() || !test.Regex->MayMatchWithin(_szBuffer))) stopAt(test.Unit, test.Folds);
    else if (test.Monotone) _QuietTests.push_back(test.Regex);
    else return 0;
  }

  // The close is matched at the end of the text and may come and go: it bounds the stretch by
  // its required unit, from where its search would resume.
  if (close) {
    UnicodeString& content = node->_szContent;
    const std::size_t contentLength = content.size();
    content += _szBuffer;
    const std::size_t start = own->CloseResumeOffset(node, content, contentLength);
    const bool may = close->MayMatchWithin(UnicodeStringView(content).substr(start));
    content.resize(contentLength);
    if (may) return 0;
    bool folds = false;
    stopAt(close->RequiredUnit(folds), folds);
  }
  constexpr std::size_t kStretch = 256;
  std::size_t length = QuietLength(bytes, std::min(available, kStretch), stop);
  // A literal test matches once the buffer holds all of it: the stretch ends before that.
  const std::size_t base = _szBuffer.size();
  if (literal <= base) return 0;
  length = std::min(length, literal - base - 1);
  if (length == 0) return 0;

  // The tests run on the buffer with the stretch appended; it is cut back to what is taken.
  AppendAscii(_szBuffer, bytes, length);
  try {
    for (const TRegex* test : _QuietTests) {
      if (test->MatchSoftPartial(_szBuffer, _QuietMatch) != mrMatch) continue;
      // It acts within the stretch: the stretch ends before the first length at which it does.
      // Often that is the first length that could hold its literal prefix, or the next one: try
      // those, then halve.
      const auto fires = [&](std::size_t k) {
        return test->MatchSoftPartial(UnicodeStringView(_szBuffer).substr(0, k), _QuietMatch) == mrMatch;
      };
      std::size_t low = std::max(base + 1, test->Anchored() ? test->LiteralPrefix().size() : 0), high = base + length;
      for (int tries = 0; tries < 2 && low < high; ++tries) {
        if (fires(low)) high = low;
        else ++low;
      }
      while (low < high) {
        const std::size_t mid = low + (high - low) / 2;
        if (fires(mid)) high = mid;
        else low = mid + 1;
      }
      length = low - base - 1;
      _szBuffer.resize(base + length);
      if (length == 0) return 0;
    }
  } catch (const std::exception&) {
    _szBuffer.resize(base);
    return 0;  // the characters' own steps meet the error and report it
  }
  _pUtf8Memory->TMemoryStream::Seek(position + static_cast<Int64>(length), soBeginning);
  _nCharCount += static_cast<Integer>(length);
  Stopped = length < std::min(available, kStretch);
  return length;
}

void TQUMAStreamParser::Feed() {
  while (TQUMAStreamedNode* node = CurrentNode()) {
    if (_szBuffer.empty()) return;
    node->TryAccept(_szBuffer);
    if (CurrentNode() == node) return;  // still open: it has had its say
  }
}

void TQUMAStreamParser::OpenNode() {
  TQUMAStreamedNode* const current = CurrentNode();
  for (Integer i = 0; i < DefinitionCount(); ++i) {
    TQUMAStreamedNodeDefinition* definition = Definition(i);
    const bool candidate = current ? current->IsAllowedNodeClass(definition->ClassType()) : definition->CanBeRootNode();
    if (candidate && definition->TryMatchOpen(_szBuffer, this)) return;
  }
}

void TQUMAStreamParser::FinishStream() {
  while (TQUMAStreamedNode* node = CurrentNode()) {
    TQUMAStreamedNodeDefinition* definition = node->Definition();
    if (!definition || !definition->EndOfStream(_szBuffer, node)) return;
    if (CurrentNode() == node) return;  // closed by a definition of another parser: not ours to pop
  }
}

bool TQUMAStreamParser::ParseStream(TStream* pInput, const TEncoding*) {
  if (!pInput) return false;
  struct TInputScope {
    TStream*& Input;
    TMemoryStream*& Memory;
    ~TInputScope() {
      Input = nullptr;
      Memory = nullptr;
    }
  } inputScope{_pInput, _pUtf8Memory};
  _pInput = pInput;
  _pEncoding = nullptr;
  _nLineCount = 1;
  _nCharCount = 0;
  QUMAGetStreamEncoding(_pInput, _pEncoding, nullptr);
  if (!_pEncoding || _pEncoding == TEncoding::UTF8()) _pUtf8Memory = PlainMemoryStream(_pInput);
  _szBuffer.clear();

  auto fail = [this](UnicodeStringView Head) {
    const Integer character = _nCharCount - 1;
    UnicodeString next;
    try {
      next = SlurpCharacters(12);
    } catch (const std::exception&) {
      // The window is a courtesy; a stream that fails here still gets its message.
    }
    _szErrorMessage = Format(u"%s near line %d character %d (Next characters: %s)", Head, _nLineCount, character, next);
    _FreeNodes();
    return false;
  };
  try {
    bool lineEnded = false, stepNext = false, runBlocked = false;
    // (A derived parser may treat each character its own way.)
    const bool runs = ClassType() == StaticClass();
    UnicodeString szChar;
    Integer bytes = 0;
    const auto more = [this] {
      return _pUtf8Memory == _pInput ? _pUtf8Memory->MemoryPosition() < _pUtf8Memory->MemorySize()
                                     : _pInput->Position() < _pInput->Size();
    };
    while (more()) {
      if (lineEnded) {
        ++_nLineCount;
        _nCharCount = 0;
        lineEnded = false;
      }
      // (What the previous run or stretch stopped at would stop the next one at once.)
      const bool stepNow = stepNext;
      const bool runNow = !runBlocked;
      stepNext = runBlocked = false;
      if (runs && runNow && !stepNow && _szBuffer.empty() && _pUtf8Memory == _pInput) {
        // Plain text for the open node: as many characters as its steps would take one by one.
        TQUMAStreamedNode* node = CurrentNode();
        const Int64 position = _pUtf8Memory->MemoryPosition();
        const Int64 size = _pUtf8Memory->MemorySize();
        if (node && node->Definition() && position >= 0 && position < size) {
          const Byte* run = _pUtf8Memory->Memory() + position;
          const std::size_t taken =
              node->Definition()->TakeTextRun(node, run, static_cast<std::size_t>(size - position), _szNormedLineEnd);
          if (taken > 0) {
            runBlocked = taken < static_cast<std::size_t>(size - position) &&
                         !node->Definition()->_RunPlan.Take[run[taken]];
            _pUtf8Memory->TMemoryStream::Seek(position + static_cast<Int64>(taken), soBeginning);
            // Counted as the steps would: a line feed ends its line, the next character starts one.
            for (std::size_t from = 0; from < taken;) {
              if (lineEnded) {
                ++_nLineCount;
                _nCharCount = 0;
                lineEnded = false;
              }
              const auto* lineFeed = static_cast<const Byte*>(std::memchr(run + from, '\n', taken - from));
              const std::size_t to = lineFeed ? static_cast<std::size_t>(lineFeed - run) + 1 : taken;
              _nCharCount += static_cast<Integer>(to - from);
              lineEnded = lineFeed != nullptr;
              from = to;
            }
            continue;
          }
        }
      }
      if (runs && !stepNow && _pUtf8Memory == _pInput) {
        std::size_t skipped = 0;
        try {
          skipped = SkipQuietCharacters(stepNext);
        } catch (const std::exception&) {
          // (a pattern that does not compile, say: the character's own step meets it and reports it)
        }
        if (skipped > 0) continue;
      }
      if (!Fetch(szChar, bytes)) break;
      ++_nCharCount;
      if (szChar == u"\r") {
        WideChar next = 0;
        if (LookAhead(0, next) && next == u'\n') SlurpCharacters(1);
        szChar = _szNormedLineEnd;
        lineEnded = true;
      } else if (szChar == u"\n") {
        szChar = _szNormedLineEnd;
        lineEnded = true;
      }
      _szBuffer += szChar;
      Feed();
      if (_szBuffer.empty()) continue;
      OpenNode();
    }
    FinishStream();
    if (CurrentNode()) {
      _szErrorMessage = u"Unclosed nodes at end of stream";
      _FreeNodes();
      return false;
    }
    return true;
  } catch (const EQUMAStreamError& e) {
    return fail(Format(u"Stream Error %s", e.Message()));
  } catch (const Exception& e) {
    return fail(Format(u"Unexpected Error %s (%s)", e.ClassName(), e.Message()));
  } catch (const std::exception& e) {
    return fail(Format(u"Unexpected Error %s (%s)", TypeName(e), Utf8ToUtf16(e.what())));
  }
}

}  // namespace quma
