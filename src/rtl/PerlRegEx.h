// Perl-compatible regular expressions over PCRE2's UTF-16 engine.
//
// TRegex is an immutable compiled pattern: compile it once (a function-local static serves) and
// share it between threads. TPerlRegEx is the host-style stateful matcher with 1-based offsets,
// groups, the text around a match and replace-all.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include <quma/Object.h>
#include <quma/SysUtils.h>
#include <quma/System.h>

namespace quma {

enum class TPerlRegExOption { preCaseLess, preMultiLine, preSingleLine, preExtended, preAnchored, preUnGreedy, preNoAutoCapture };
using enum TPerlRegExOption;
using TPerlRegExOptions = TSet<TPerlRegExOption>;

// Raised for a pattern that does not compile: "Error in regular expression at offset %d: %s".
QUMA_DECLARE_EXCEPTION(ERegularExpressionError, Exception);

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
  TRegex(TRegex&&) noexcept;
  TRegex& operator=(TRegex&&) noexcept;
  ~TRegex();

  // Searches subject from startOffset; fills m on success. The subject must outlive m's views.
  bool Match(UnicodeStringView subject, TRegexMatch& m, std::size_t startOffset = 0) const;
  bool IsMatch(UnicodeStringView subject) const;
  Integer GroupCount() const noexcept;
  const UnicodeString& Pattern() const noexcept;
  TPerlRegExOptions Options() const noexcept;

 private:
  struct TImpl;
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
