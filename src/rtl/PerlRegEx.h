// Perl-compatible regular expressions over PCRE2's UTF-16 engine.
//
// TRegex is an immutable compiled pattern: compile it once (a function-local static serves) and
// share it between threads. TPerlRegEx is the host-style stateful matcher with 1-based offsets,
// groups, the text around a match and replace-all.
#pragma once

#include <quma/Export.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include <quma/Object.h>
#include <quma/SysUtils.h>
#include <quma/System.h>

QUMA_PUBLIC_BEGIN
namespace quma {

enum class TPerlRegExOption { preCaseLess, preMultiLine, preSingleLine, preExtended, preAnchored, preUnGreedy, preNoAutoCapture };
using enum TPerlRegExOption;
using TPerlRegExOptions = TSet<TPerlRegExOption>;

// Raised for a pattern that does not compile: "Error in regular expression at offset %d: %s",
// and for a match that PCRE2 gives up (a limit reached): "Error while matching regular
// expression: %s".
QUMA_DECLARE_EXCEPTION(ERegularExpressionError, Exception);

// Bounds on the work of one match, so that a hostile pattern or subject ends with an error
// instead of running for ever. Zero keeps PCRE2's default. MatchLimit counts backtracking steps
// (interpreter and JIT), DepthLimit the nesting of backtracking frames (interpreter only; the
// JIT runs on a per-thread stack of at most 8 MB).
struct TRegexLimits {
  std::uint32_t MatchLimit = 0;
  std::uint32_t DepthLimit = 0;
};

// The outcome of a match that may need more text: the subject ended while a match was still
// possible (mrPartial; group 0 then starts at the first code unit the partial match inspected).
enum class TRegexMatchResult { mrNoMatch, mrMatch, mrPartial };
using enum TRegexMatchResult;

// The groups of one match; group 0 is the whole match. Offsets are 0-based code-unit offsets
// into the subject; a group that did not take part has offset npos and length 0.
class TRegexMatch {
 public:
  static constexpr std::size_t npos = static_cast<std::size_t>(-1);
  int Count() const noexcept { return static_cast<int>(FOffsets.size() / 2); }
  std::size_t GroupOffset(int i) const noexcept { return Valid(i) ? FOffsets[2 * i] : npos; }
  std::size_t GroupLength(int i) const noexcept { return Valid(i) && FOffsets[2 * i] != npos ? FOffsets[2 * i + 1] - FOffsets[2 * i] : 0; }
  bool GroupMatched(int i) const noexcept { return GroupOffset(i) != npos; }
  UnicodeStringView Group(int i) const noexcept {
    return GroupMatched(i) ? FSubject.substr(FOffsets[2 * i], GroupLength(i)) : UnicodeStringView();
  }
  UnicodeStringView Subject() const noexcept { return FSubject; }

 private:
  friend class TRegex;
  bool Valid(int i) const noexcept { return i >= 0 && i < Count(); }
  UnicodeStringView FSubject;
  std::vector<std::size_t> FOffsets;
};

class TRegex {
 public:
  explicit TRegex(UnicodeStringView pattern, TPerlRegExOptions options = {});
  explicit TRegex(std::string_view pattern, TPerlRegExOptions options = {});
  // With limits; Partial also prepares MatchPartial and MatchSoftPartial for the JIT.
  TRegex(UnicodeStringView pattern, TPerlRegExOptions options, const TRegexLimits& limits, bool partial = false);
  TRegex(TRegex&&) noexcept;
  TRegex& operator=(TRegex&&) noexcept;
  ~TRegex();

  // Searches subject from startOffset; fills m on success. The subject must outlive m's views.
  bool Match(UnicodeStringView subject, TRegexMatch& m, std::size_t startOffset = 0) const;
  bool IsMatch(UnicodeStringView subject) const;
  // A match in PCRE2's hard partial mode: a partial match is reported as soon as one is found,
  // in preference to a later complete one. When it answers mrNoMatch from startOffset, no match
  // can start at or after startOffset however the subject is extended; when it answers
  // mrPartial, none can start before the partial match. A caller that sees its subject grow can
  // therefore resume the search there instead of scanning the whole subject again.
  TRegexMatchResult MatchPartial(UnicodeStringView subject, TRegexMatch& m, std::size_t startOffset = 0) const;
  // A match in PCRE2's soft partial mode: the same complete match as Match when there is one;
  // otherwise mrPartial when an extension of the subject could match, mrNoMatch when none can.
  TRegexMatchResult MatchSoftPartial(UnicodeStringView subject, TRegexMatch& m, std::size_t startOffset = 0) const;
  // Whether every match must start at the start offset (a leading ^ in each alternative, say).
  bool Anchored() const noexcept;
  // False when no match can lie within text: it lacks a code unit that every match contains
  // (the last literal one PCRE2 found). True whenever that cannot be told cheaply.
  bool MayMatchWithin(UnicodeStringView text) const noexcept;
  // Whether a match within a subject is certain to be found within every longer subject that
  // begins with it (nothing in the pattern looks past its match or commits to a choice made on
  // the shorter text). Then "is there a match within the first k units" only turns from false to
  // true as k grows, and a caller may search for the first such k instead of trying every one.
  bool GrowthMonotone() const noexcept;
  // Whether such a unit is known, and whether c may be it (true when none is known).
  bool HasRequiredUnit() const noexcept;
  bool MayBeRequiredUnit(char16_t c) const noexcept;
  // The unit itself (below 128; -1 when none is known), and whether its other case and any unit
  // beyond ASCII count as well.
  std::int32_t RequiredUnit(bool& Folds) const noexcept;
  // False when no match can begin with c (PCRE2's first-unit analysis); true when unsure.
  bool MayStartWith(char16_t c) const noexcept;
  // Literal text that every match begins with (empty when unsure).
  UnicodeStringView LiteralPrefix() const noexcept;
  // Whether the pattern is that text and nothing else (after a leading ^): every match is it.
  bool IsLiteral() const noexcept;
  // The first offset from `from` on where a match, complete or partial, may begin: where the
  // literal prefix stands, or where the subject ends in a part of it; the subject's size when no
  // such place is left, `from` itself when no prefix is known. No match of any mode that
  // searches from `from` begins before it.
  std::size_t PossibleStart(UnicodeStringView subject, std::size_t from) const noexcept;
  Integer GroupCount() const noexcept;
  const UnicodeString& Pattern() const noexcept;
  TPerlRegExOptions Options() const noexcept;

 private:
  struct TImpl;
  TRegexMatchResult Run(UnicodeStringView subject, TRegexMatch& m, std::size_t startOffset, std::uint32_t flags) const;
  std::unique_ptr<TImpl> FImpl;
};

class TPerlRegEx : public TObject {
  QUMA_CLASS(TPerlRegEx, TObject)
 public:
  TPerlRegEx();
  ~TPerlRegEx() override;

  const UnicodeString& RegEx() const noexcept { return FRegEx; }
  void SetRegEx(UnicodeString value);
  TPerlRegExOptions Options() const noexcept { return FOptions; }
  void SetOptions(TPerlRegExOptions value);
  const UnicodeString& Subject() const noexcept { return FSubject; }
  void SetSubject(UnicodeString value);
  const UnicodeString& Replacement() const noexcept { return FReplacement; }
  // "\0".."\9" and "$0".."$9" refer to groups; "\\" is a backslash.
  void SetReplacement(UnicodeString value) { FReplacement = std::move(value); }

  // Compiles now; Match compiles on demand otherwise.
  void Compile();
  bool Compiled() const noexcept { return FRegex != nullptr; }
  // First match in Subject.
  bool Match();
  // Next match after the previous one.
  bool MatchAgain();
  bool FoundMatch() const noexcept { return FFound; }

  Integer GroupCount() const;
  UnicodeString Groups(Integer index) const;
  Integer GroupOffsets(Integer index) const;  // 1-based; 0 when the group did not match
  Integer GroupLengths(Integer index) const;
  UnicodeString MatchedText() const { return Groups(0); }
  Integer MatchedOffset() const { return GroupOffsets(0); }
  Integer MatchedLength() const { return GroupLengths(0); }
  UnicodeString SubjectLeft() const;   // text before the match
  UnicodeString SubjectRight() const;  // text after the match

  // The replacement text with group references expanded for the current match.
  UnicodeString ComputeReplacement() const;
  // Replaces every match in Subject with Replacement; returns the number of replacements.
  Integer ReplaceAll();

  static UnicodeString EscapeRegExChars(UnicodeStringView s);

 private:
  void EnsureCompiled();
  bool MatchFrom(std::size_t offset);

  UnicodeString FRegEx;
  TPerlRegExOptions FOptions;
  UnicodeString FSubject;
  UnicodeString FReplacement;
  std::unique_ptr<TRegex> FRegex;
  TRegexMatch FMatch;
  bool FFound = false;
};

}  // namespace quma
QUMA_PUBLIC_END
