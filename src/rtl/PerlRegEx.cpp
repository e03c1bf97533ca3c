#define PCRE2_CODE_UNIT_WIDTH 16
#include <pcre2.h>

#include <algorithm>
#include <array>
#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <quma/PerlRegEx.h>

namespace quma {

namespace {

uint32_t CompileFlags(TPerlRegExOptions o) {
  uint32_t f = PCRE2_UTF | PCRE2_NO_UTF_CHECK;
  if (o.Contains(preCaseLess)) f |= PCRE2_CASELESS;
  if (o.Contains(preMultiLine)) f |= PCRE2_MULTILINE;
  if (o.Contains(preSingleLine)) f |= PCRE2_DOTALL;
  if (o.Contains(preExtended)) f |= PCRE2_EXTENDED;
  if (o.Contains(preAnchored)) f |= PCRE2_ANCHORED;
  if (o.Contains(preUnGreedy)) f |= PCRE2_UNGREEDY;
  if (o.Contains(preNoAutoCapture)) f |= PCRE2_NO_AUTO_CAPTURE;
  return f;
}

// One reusable match block per thread, grown to the largest pattern seen.
struct TMatchData {
  pcre2_match_data* Data = nullptr;
  uint32_t Pairs = 0;
  ~TMatchData() { pcre2_match_data_free(Data); }
  pcre2_match_data* Get(uint32_t pairs) {
    if (pairs > Pairs) {
      pcre2_match_data_free(Data);
      Data = pcre2_match_data_create(pairs, nullptr);
      Pairs = pairs;
    }
    return Data;
  }
};
// Initial-exec: read on every match, so no __tls_get_addr call (a few bytes of static TLS).
[[gnu::tls_model("initial-exec")]] thread_local TMatchData tlsMatchData;

// The JIT's stack, one per thread; the machine stack's 32 KB would end deep matches early.
struct TJitStack {
  pcre2_jit_stack* Stack = nullptr;
  ~TJitStack() { pcre2_jit_stack_free(Stack); }
};
[[gnu::tls_model("initial-exec")]] thread_local TJitStack tlsJitStack;
pcre2_jit_stack* JitStack(void*) {
  if (!tlsJitStack.Stack) tlsJitStack.Stack = pcre2_jit_stack_create(64 * 1024, 8 * 1024 * 1024, nullptr);
  return tlsJitStack.Stack;  // null falls back to the machine stack
}

// The first unit equal to c, eight at a time where the processor can (the scans run on every
// character the stream parser reads).
const char16_t* FindUnit(const char16_t* p, std::size_t n, char16_t c) noexcept {
#if defined(__SSE2__)
  const __m128i needle = _mm_set1_epi16(static_cast<short>(c));
  for (; n >= 8; p += 8, n -= 8) {
    const auto block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    if (const int mask = _mm_movemask_epi8(_mm_cmpeq_epi16(block, needle))) return p + (__builtin_ctz(mask) >> 1);
  }
#endif
  for (; n > 0; ++p, --n)
    if (*p == c) return p;
  return nullptr;
}

bool IsAsciiLetter(char16_t c) noexcept { return (c | 0x20) >= u'a' && (c | 0x20) <= u'z'; }

// Whether a match found within a subject is found within every longer subject that begins with
// it: true when nothing in the pattern looks past the end of its match (no lookahead, word
// boundary or end assertion) or commits to a choice made on the text it had (atomic groups,
// possessive quantifiers, verbs, subroutine calls, conditions). Read conservatively: anything
// doubtful, quoting and extended mode included, answers false.
bool IsGrowthMonotone(UnicodeStringView p, TPerlRegExOptions options) {
  if (options.Contains(preExtended)) return false;
  bool quantifier = false;  // the previous token was a quantifier (a '+' after it is possessive)
  for (std::size_t i = 0; i < p.size(); ++i) {
    const char16_t c = p[i];
    const char16_t next = i + 1 < p.size() ? p[i + 1] : u'\0';
    const bool wasQuantifier = quantifier;
    quantifier = false;
    switch (c) {
      case u'\\':
        if (std::u16string_view(u"bBzZGXRKQgCE").find(next) != std::u16string_view::npos) return false;
        ++i;
        break;
      case u'$':
        return false;
      case u'[': {
        std::size_t j = i + 1;
        if (j < p.size() && p[j] == u'^') ++j;
        if (j < p.size() && p[j] == u']') ++j;  // a leading ] is literal
        for (; j < p.size() && p[j] != u']'; ++j) {
          if (p[j] == u'\\') ++j;
          else if (p[j] == u'[' && j + 1 < p.size() && p[j + 1] == u':') {
            const std::size_t end = p.find(u":]", j + 2);
            if (end == UnicodeStringView::npos) return false;
            j = end + 1;
          }
        }
        if (j >= p.size()) return false;
        i = j;
        break;
      }
      case u'(':
        if (next == u'*') return false;
        if (next == u'?') {
          const char16_t kind = i + 2 < p.size() ? p[i + 2] : u'\0';
          const char16_t then = i + 3 < p.size() ? p[i + 3] : u'\0';
          if (kind == u'#') {
            const std::size_t end = p.find(u')', i);
            if (end == UnicodeStringView::npos) return false;
            i = end;
            break;
          }
          // Groups, named groups and backreferences, lookbehind, option settings; extended mode
          // ('x') hides comments in the pattern.
          const bool plain = kind == u':' || kind == u'|' || kind == u'\'' ||
                             (kind == u'P' && (then == u'<' || then == u'=')) ||
                             (kind == u'<' && (then == u'=' || then == u'!' || IsAsciiLetter(then) || then == u'_'));
          if (!plain) {
            std::size_t j = i + 2;
            while (j < p.size() && UnicodeStringView(u"imnsJU^-").find(p[j]) != UnicodeStringView::npos) ++j;
            if (j == i + 2 || j >= p.size() || (p[j] != u':' && p[j] != u')')) return false;
          }
          ++i;
        }
        break;
      case u'*':
      case u'?':
      case u'}':
        quantifier = !(c == u'?' && wasQuantifier);  // a lazy marker ends the quantifier
        break;
      case u'+':
        if (wasQuantifier) return false;
        quantifier = true;
        break;
      default:
        break;
    }
  }
  return true;
}

// The literal text every match begins with: plain characters and escaped punctuation after a
// leading ^ (if any), up to the first other syntax (a character that a quantifier follows is left
// out). Empty when doubtful: alternation, extended mode, a caseless letter, \K (which moves the
// start of the match).
UnicodeString ReadLiteralPrefix(UnicodeStringView p, TPerlRegExOptions options, bool& Whole) {
  UnicodeString prefix;
  Whole = false;
  if (options.Contains(preExtended) || p.find(u'|') != UnicodeStringView::npos || p.find(u"\\K") != UnicodeStringView::npos)
    return prefix;
  const bool caseless = options.Contains(preCaseLess);
  constexpr UnicodeStringView meta = u"\\^$.|?*+()[]{}";
  for (std::size_t i = !p.empty() && p[0] == u'^' ? 1 : 0; i < p.size();) {
    char16_t c = p[i];
    std::size_t next = i + 1;
    if (c == u'\\') {
      if (next >= p.size() || p[next] >= 0x80 || IsAsciiLetter(p[next]) || (p[next] >= u'0' && p[next] <= u'9')) break;
      c = p[next];
      next = i + 2;
    } else if (meta.find(c) != UnicodeStringView::npos || c >= 0x80) {
      break;
    }
    if (next < p.size() && UnicodeStringView(u"?*+{").find(p[next]) != UnicodeStringView::npos) break;
    if (caseless && IsAsciiLetter(c)) break;
    prefix.push_back(c);
    i = next;
    Whole = i == p.size();
  }
  return prefix;
}

}  // namespace

struct TRegex::TImpl {
  pcre2_code* Code = nullptr;
  UnicodeString Pattern;
  TPerlRegExOptions Options;
  uint32_t CaptureCount = 0;
  pcre2_match_context* Context = nullptr;
  bool JitComplete = false, JitPartial = false;  // which modes the JIT compiled
  bool Anchored = false;
  // A code unit every match contains (-1: none known) and whether its other case or a unit
  // beyond ASCII (which may fold to it) counts as well.
  int32_t Required = -1;
  bool RequiredFolds = false;
  bool GrowthMonotone = false;
  // What a match may begin with: one unit (-1: not known), or a bitmap of the units below 256.
  int32_t First = -1;
  bool FirstFolds = false;
  bool HasFirstMap = false;
  std::array<uint8_t, 32> FirstMap{};
  UnicodeString Prefix;  // literal text every match begins with
  bool Literal = false;  // and the pattern is that text alone (after a leading ^)
  ~TImpl() {
    pcre2_match_context_free(Context);
    pcre2_code_free(Code);
  }
};

TRegex::TRegex(std::string_view pattern, TPerlRegExOptions options) : TRegex(Utf8ToUtf16(pattern), options) {}

TRegex::TRegex(UnicodeStringView pattern, TPerlRegExOptions options) : TRegex(pattern, options, TRegexLimits{}) {}

TRegex::TRegex(UnicodeStringView pattern, TPerlRegExOptions options, const TRegexLimits& limits, bool partial)
    : FImpl(std::make_unique<TImpl>()) {
  FImpl->Pattern.assign(pattern);
  FImpl->Options = options;
  int err = 0;
  PCRE2_SIZE errOffset = 0;
  // The subject is checked for valid UTF-16 by the caller's strings; lone surrogates are
  // tolerated rather than rejected, so PCRE2 must not validate (PCRE2_MATCH_INVALID_UTF).
  const uint32_t flags = (CompileFlags(options) & ~PCRE2_NO_UTF_CHECK) | PCRE2_MATCH_INVALID_UTF;
  FImpl->Code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern.data()), pattern.size(), flags, &err, &errOffset, nullptr);
  if (!FImpl->Code) {
    PCRE2_UCHAR buf[256];
    pcre2_get_error_message(err, buf, 256);
    throw ERegularExpressionError(Format(u"Error in regular expression at offset %d: %s", static_cast<Int64>(errOffset),
                                         UnicodeStringView(reinterpret_cast<const char16_t*>(buf))));
  }
  // Best effort; the interpreter serves otherwise.
  if (pcre2_jit_compile(FImpl->Code, PCRE2_JIT_COMPLETE | (partial ? PCRE2_JIT_PARTIAL_HARD | PCRE2_JIT_PARTIAL_SOFT : 0)) == 0) {
    FImpl->JitComplete = true;
    FImpl->JitPartial = partial;
  }
  pcre2_pattern_info(FImpl->Code, PCRE2_INFO_CAPTURECOUNT, &FImpl->CaptureCount);
  uint32_t all = 0;
  pcre2_pattern_info(FImpl->Code, PCRE2_INFO_ALLOPTIONS, &all);
  FImpl->Anchored = (all & PCRE2_ANCHORED) != 0;
  uint32_t type = 0, unit = 0;
  if (pcre2_pattern_info(FImpl->Code, PCRE2_INFO_LASTCODETYPE, &type) == 0 && type == 1 &&
      pcre2_pattern_info(FImpl->Code, PCRE2_INFO_LASTCODEUNIT, &unit) == 0 && unit < 0x80) {
    // PCRE2 does not say whether the unit is matched caselessly: a letter is taken as if it were.
    FImpl->Required = static_cast<int32_t>(unit);
    FImpl->RequiredFolds = (unit | 0x20) >= 'a' && (unit | 0x20) <= 'z';
  }
  FImpl->GrowthMonotone = IsGrowthMonotone(pattern, options);
  const uint8_t* map = nullptr;
  if (pcre2_pattern_info(FImpl->Code, PCRE2_INFO_FIRSTCODETYPE, &type) == 0 && type == 1 &&
      pcre2_pattern_info(FImpl->Code, PCRE2_INFO_FIRSTCODEUNIT, &unit) == 0 && unit < 0x80) {
    FImpl->First = static_cast<int32_t>(unit);
    FImpl->FirstFolds = (unit | 0x20) >= 'a' && (unit | 0x20) <= 'z';  // as for the required unit
  } else if (pcre2_pattern_info(FImpl->Code, PCRE2_INFO_FIRSTBITMAP, &map) == 0 && map) {
    FImpl->HasFirstMap = true;
    std::copy(map, map + 32, FImpl->FirstMap.begin());
  }
  FImpl->Context = pcre2_match_context_create(nullptr);
  if (!FImpl->Context) throw ERegularExpressionError(u"Error while matching regular expression: no memory");
  pcre2_jit_stack_assign(FImpl->Context, JitStack, nullptr);
  if (limits.MatchLimit) pcre2_set_match_limit(FImpl->Context, limits.MatchLimit);
  if (limits.DepthLimit) pcre2_set_depth_limit(FImpl->Context, limits.DepthLimit);
  FImpl->Prefix = ReadLiteralPrefix(pattern, options, FImpl->Literal);
  if (FImpl->Anchored) {
    if (partial && FImpl->First < 0) {
      // PCRE2 finds no first units for an anchored pattern: ask it, once per ASCII unit, whether
      // a text that begins with the unit can still match (units beyond ASCII stay possible).
      FImpl->FirstMap.fill(0xFF);
      TRegexMatch m;
      for (char16_t c = 0; c < 0x80; ++c) {
        try {
          if (MatchSoftPartial(UnicodeStringView(&c, 1), m) == mrNoMatch) FImpl->FirstMap[c >> 3] &= ~(1u << (c & 7));
        } catch (const std::exception&) {
          // possible, then
        }
      }
      FImpl->HasFirstMap = true;
    }
  }
}

TRegex::TRegex(TRegex&&) noexcept = default;
TRegex& TRegex::operator=(TRegex&&) noexcept = default;
TRegex::~TRegex() = default;

Integer TRegex::GroupCount() const noexcept { return static_cast<Integer>(FImpl->CaptureCount); }
const UnicodeString& TRegex::Pattern() const noexcept { return FImpl->Pattern; }
TPerlRegExOptions TRegex::Options() const noexcept { return FImpl->Options; }
bool TRegex::Anchored() const noexcept { return FImpl->Anchored; }

bool TRegex::GrowthMonotone() const noexcept { return FImpl->GrowthMonotone; }

UnicodeStringView TRegex::LiteralPrefix() const noexcept { return FImpl->Prefix; }

bool TRegex::IsLiteral() const noexcept { return FImpl->Literal; }

std::size_t TRegex::PossibleStart(UnicodeStringView subject, std::size_t from) const noexcept {
  const UnicodeStringView prefix = FImpl->Prefix;
  const std::size_t n = subject.size();
  if (prefix.empty() || from >= n) return std::min(from, n);
  const char16_t* s = subject.data();
  for (std::size_t at = from; at < n; ++at) {
    if (n - at >= 8) {
      const char16_t* hit = FindUnit(s + at, n - at, prefix[0]);
      if (!hit) return n;
      at = static_cast<std::size_t>(hit - s);
    } else if (s[at] != prefix[0]) {
      continue;  // (short texts: a plain loop costs less than the calls)
    }
    const std::size_t m = std::min(prefix.size(), n - at);
    std::size_t k = 1;
    while (k < m && s[at + k] == prefix[k]) ++k;
    if (k == m) return at;
  }
  return n;
}

bool TRegex::MayStartWith(char16_t c) const noexcept {
  if (FImpl->First >= 0) return c == FImpl->First || (FImpl->FirstFolds && (c == (FImpl->First ^ 0x20) || c >= 0x80));
  if (!FImpl->HasFirstMap || c >= 256) return true;
  return (FImpl->FirstMap[c >> 3] >> (c & 7)) & 1;
}

int32_t TRegex::RequiredUnit(bool& Folds) const noexcept {
  Folds = FImpl->RequiredFolds;
  return FImpl->Required;
}

bool TRegex::HasRequiredUnit() const noexcept { return FImpl->Required >= 0; }

bool TRegex::MayBeRequiredUnit(char16_t c) const noexcept {
  if (FImpl->Required < 0 || c == FImpl->Required) return true;
  return FImpl->RequiredFolds && (c == (FImpl->Required ^ 0x20) || c >= 0x80);
}

bool TRegex::MayMatchWithin(UnicodeStringView text) const noexcept {
  constexpr std::size_t kLongest = 64;  // beyond this the match itself is the cheaper test
  if (FImpl->Required < 0 || text.size() > kLongest) return true;
  const auto unit = static_cast<char16_t>(FImpl->Required);
  if (!FImpl->RequiredFolds) {
    if (text.size() >= 8) return FindUnit(text.data(), text.size(), unit) != nullptr;
    for (const char16_t c : text)
      if (c == unit) return true;
    return false;
  }
  const auto lower = static_cast<char16_t>(unit | 0x20);  // (c | 0x20) == lower: either case
  return std::any_of(text.begin(), text.end(), [=](char16_t c) { return (c | 0x20) == lower || c >= 0x80; });
}

bool TRegex::Match(UnicodeStringView subject, TRegexMatch& m, std::size_t startOffset) const {
  return Run(subject, m, startOffset, 0) == mrMatch;
}

TRegexMatchResult TRegex::MatchPartial(UnicodeStringView subject, TRegexMatch& m, std::size_t startOffset) const {
  return Run(subject, m, startOffset, PCRE2_PARTIAL_HARD);
}

TRegexMatchResult TRegex::MatchSoftPartial(UnicodeStringView subject, TRegexMatch& m, std::size_t startOffset) const {
  return Run(subject, m, startOffset, PCRE2_PARTIAL_SOFT);
}

TRegexMatchResult TRegex::Run(UnicodeStringView subject, TRegexMatch& m, std::size_t startOffset, uint32_t flags) const {
  const uint32_t pairs = FImpl->CaptureCount + 1;
  pcre2_match_data* md = tlsMatchData.Get(pairs);
  if (startOffset > subject.size()) return mrNoMatch;
  // The JIT's direct entry skips the checks pcre2_match repeats on every call (the subject's
  // validity is not checked either way).
  const bool jit = flags == 0 ? FImpl->JitComplete : FImpl->JitPartial;
  const auto text = reinterpret_cast<PCRE2_SPTR>(subject.data());
  const int rc = jit ? pcre2_jit_match(FImpl->Code, text, subject.size(), startOffset, flags, md, FImpl->Context)
                     : pcre2_match(FImpl->Code, text, subject.size(), startOffset, flags, md, FImpl->Context);
  if (rc == PCRE2_ERROR_NOMATCH) return mrNoMatch;
  if (rc < 0 && rc != PCRE2_ERROR_PARTIAL) {
    PCRE2_UCHAR buf[256];
    pcre2_get_error_message(rc, buf, 256);
    throw ERegularExpressionError(
        Format(u"Error while matching regular expression: %s", UnicodeStringView(reinterpret_cast<const char16_t*>(buf))));
  }
  const PCRE2_SIZE* ov = pcre2_get_ovector_pointer(md);
  const uint32_t valid = rc == PCRE2_ERROR_PARTIAL ? 1 : static_cast<uint32_t>(rc);  // a partial match has no groups
  m.FSubject = subject;
  m.FOffsets.resize(2 * pairs);
  for (uint32_t i = 0; i < pairs; ++i) {
    const bool set = i < valid && ov[2 * i] != PCRE2_UNSET;
    m.FOffsets[2 * i] = set ? ov[2 * i] : TRegexMatch::npos;
    m.FOffsets[2 * i + 1] = set ? ov[2 * i + 1] : TRegexMatch::npos;
  }
  return rc == PCRE2_ERROR_PARTIAL ? mrPartial : mrMatch;
}

bool TRegex::IsMatch(UnicodeStringView subject) const {
  TRegexMatch m;
  return Match(subject, m);
}

// ---- TPerlRegEx ----

TPerlRegEx::TPerlRegEx() = default;
TPerlRegEx::~TPerlRegEx() = default;

void TPerlRegEx::SetRegEx(UnicodeString value) {
  if (value == FRegEx) return;
  FRegEx = std::move(value);
  FRegex.reset();
  FFound = false;
}

void TPerlRegEx::SetOptions(TPerlRegExOptions value) {
  if (value == FOptions) return;
  FOptions = value;
  FRegex.reset();
  FFound = false;
}

void TPerlRegEx::SetSubject(UnicodeString value) {
  FSubject = std::move(value);
  FFound = false;
  FMatch = TRegexMatch();
}

void TPerlRegEx::Compile() { FRegex = std::make_unique<TRegex>(FRegEx, FOptions); }

void TPerlRegEx::EnsureCompiled() {
  if (!FRegex) Compile();
}

bool TPerlRegEx::MatchFrom(std::size_t offset) {
  EnsureCompiled();
  FFound = FRegex->Match(FSubject, FMatch, offset);
  return FFound;
}

bool TPerlRegEx::Match() { return MatchFrom(0); }

bool TPerlRegEx::MatchAgain() {
  if (!FFound) return false;
  std::size_t next = FMatch.GroupOffset(0) + FMatch.GroupLength(0);
  if (FMatch.GroupLength(0) == 0) {
    // An empty match: step past it so the search makes progress.
    if (next >= FSubject.size()) {
      FFound = false;
      return false;
    }
    ++next;
  }
  return MatchFrom(next);
}

Integer TPerlRegEx::GroupCount() const { return FRegex ? FRegex->GroupCount() : 0; }

UnicodeString TPerlRegEx::Groups(Integer index) const {
  if (!FFound) return {};
  return UnicodeString(FMatch.Group(index));
}

Integer TPerlRegEx::GroupOffsets(Integer index) const {
  if (!FFound || !FMatch.GroupMatched(index)) return 0;
  return static_cast<Integer>(FMatch.GroupOffset(index)) + 1;
}

Integer TPerlRegEx::GroupLengths(Integer index) const {
  return FFound ? static_cast<Integer>(FMatch.GroupLength(index)) : 0;
}

UnicodeString TPerlRegEx::SubjectLeft() const {
  if (!FFound) return {};
  return FSubject.substr(0, FMatch.GroupOffset(0));
}

UnicodeString TPerlRegEx::SubjectRight() const {
  if (!FFound) return {};
  return FSubject.substr(FMatch.GroupOffset(0) + FMatch.GroupLength(0));
}

UnicodeString TPerlRegEx::ComputeReplacement() const {
  UnicodeString out;
  const UnicodeString& r = FReplacement;
  for (std::size_t i = 0; i < r.size(); ++i) {
    const WideChar c = r[i];
    if ((c == u'\\' || c == u'$') && i + 1 < r.size()) {
      const WideChar d = r[i + 1];
      if (d >= u'0' && d <= u'9') {
        out += FMatch.Group(d - u'0');
        ++i;
        continue;
      }
      if (c == u'\\' && d == u'\\') {
        out.push_back(u'\\');
        ++i;
        continue;
      }
    }
    out.push_back(c);
  }
  return out;
}

Integer TPerlRegEx::ReplaceAll() {
  EnsureCompiled();
  UnicodeString result;
  Integer count = 0;
  std::size_t copied = 0, from = 0;
  TRegexMatch m;
  while (from <= FSubject.size() && FRegex->Match(FSubject, m, from)) {
    FMatch = m;
    FFound = true;
    const std::size_t start = m.GroupOffset(0), len = m.GroupLength(0);
    result.append(FSubject, copied, start - copied);
    result += ComputeReplacement();
    copied = start + len;
    ++count;
    from = len == 0 ? start + 1 : start + len;
    if (len == 0 && start < FSubject.size()) {
      result.push_back(FSubject[start]);
      copied = start + 1;
    }
  }
  if (count == 0) return 0;
  if (copied < FSubject.size()) result.append(FSubject, copied, UnicodeString::npos);
  FSubject = std::move(result);
  FFound = false;
  FMatch = TRegexMatch();
  return count;
}

UnicodeString TPerlRegEx::EscapeRegExChars(UnicodeStringView s) {
  static constexpr UnicodeStringView kSpecial = u"\\^$.|?*+()[]{}";
  UnicodeString out;
  out.reserve(s.size());
  for (WideChar c : s) {
    if (c == 0) {
      out += u"\\x00";
      continue;
    }
    if (kSpecial.find(c) != UnicodeStringView::npos) out.push_back(u'\\');
    out.push_back(c);
  }
  return out;
}

}  // namespace quma
