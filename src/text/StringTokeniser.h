// Splitting one line of text into tokens at separator characters, with quoted stretches (in which
// separators are ordinary characters) and escape characters (which make the next character
// literal), and the inverse for one value, EscapeAndQuote.
//
//   TObjectPtr<TQUMAStringTokeniser> t = MakeObject<TQUMAStringTokeniser>(u"name=\"a b\" x");
//   t->TokenCount();                 // 2
//   UnicodeString v;
//   t->ValueForName(u"NAME", v);     // true, v == u"a b"
//
// Defaults: separators space, NUL, tab, CR and LF; the double quote opens and closes; no escape
// character; empty tokens ignored and enclosing quotes removed.
#pragma once

#include <quma/Export.h>

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <quma/Object.h>
#include <quma/System.h>

QUMA_PUBLIC_BEGIN
namespace quma {

namespace detail {
struct TTokeniserTables;
}

enum class TQUMAStringTokeniserOptionFlags : Byte {
  _stIgnoreEmptyTokens,      // bit value 1
  _stRemoveEnclosingQuotes,  // bit value 2
  _stAllowEmbeddedQuotes     // bit value 4
};
using enum TQUMAStringTokeniserOptionFlags;
using TQUMAStringTokeniserOptions = TSet<TQUMAStringTokeniserOptionFlags, 8>;

inline constexpr char16_t SNoSuchToken[] = u"TQUMAStringTokeniser._GetToken no such token";

class TQUMAStringTokeniser : public TObject {
  QUMA_CLASS(TQUMAStringTokeniser, TObject)
  QUMA_VIRTUAL_CONSTRUCTOR(bool)
 public:
  // With blSkipInit the character sets are empty and every option is clear, so the whole input
  // becomes one token; otherwise the defaults above.
  explicit TQUMAStringTokeniser(bool blSkipInit = false);
  // The defaults, then Tokenise(szInput) unless it is empty. The tokenising runs in
  // AfterConstruction, so a descendant's overrides already apply to it.
  explicit TQUMAStringTokeniser(UnicodeStringView szInput);
  explicit TQUMAStringTokeniser(const WideChar* szInput) : TQUMAStringTokeniser(UnicodeStringView(szInput)) {}
  explicit TQUMAStringTokeniser(std::string_view szInput);  // UTF-8
  explicit TQUMAStringTokeniser(const char* szInput) : TQUMAStringTokeniser(std::string_view(szInput)) {}
  ~TQUMAStringTokeniser() override;

  // The second virtual constructor: an instance of the run-time class Cls made with the defaults
  // (the bool constructor with false), then Tokenise(szInput) unless it is empty.
  static TQUMAStringTokeniser* Create(TClassOf<TQUMAStringTokeniser> Cls, UnicodeStringView szInput);

  void AfterConstruction() override;

  // Replaces the tokens with those of szInput and returns their number.
  Integer Tokenise(UnicodeStringView szInput);
  Integer Tokenise(std::string_view szInput);  // UTF-8

  // Token nIndex (zero-based); EArgumentOutOfRangeException (SNoSuchToken) when there is none.
  const UnicodeString& Token(Integer nIndex) const;
  Integer TokenCount() const noexcept { return _nTokenCount; }
  // The tokens of the last Tokenise, in order; valid until the next Tokenise.
  std::span<const UnicodeString> Tokens() const noexcept {
    return {_Tokens.data(), static_cast<std::size_t>(_nTokenCount)};
  }

  // Reads the tokens as name=value pairs: szValue gets the text after the first '=' of the first
  // token whose name (the text before it) equals szName without ASCII case, as a string list
  // compares names. False, with szValue empty, when there is no such token.
  bool ValueForName(UnicodeStringView szName, UnicodeString& szValue) const;
  bool ValueForName(std::string_view szName, std::string& szValue) const;  // UTF-8

  // szInput written so that Tokenise with the same settings gives it back as one token: quotes
  // and escapes preceded by the first escape character (when there is one), and the whole
  // enclosed in the first open and close quote when it holds a separator.
  UnicodeString EscapeAndQuote(UnicodeStringView szInput) const;
  std::string EscapeAndQuote(std::string_view szInput) const;  // UTF-8

  // ---- properties: the character sets, one character per element ----
  UnicodeString Separators() const { return _caSeparators; }
  void SetSeparators(UnicodeStringView Value);
  UnicodeString OpenQuotes() const { return _caOpenQuotes; }
  void SetOpenQuotes(UnicodeStringView Value);
  UnicodeString CloseQuotes() const { return _caCloseQuotes; }
  void SetCloseQuotes(UnicodeStringView Value);
  UnicodeString Escapes() const { return _caEscapes; }
  void SetEscapes(UnicodeStringView Value);

  // ---- properties: the options (a new setting applies to the next Tokenise) ----
  bool IgnoreEmptyTokens() const noexcept { return _TokeniserOptions.Contains(_stIgnoreEmptyTokens); }
  void SetIgnoreEmptyTokens(bool Value) noexcept { SetOption(_stIgnoreEmptyTokens, Value); }
  bool RemoveEnclosingQuotes() const noexcept { return _TokeniserOptions.Contains(_stRemoveEnclosingQuotes); }
  void SetRemoveEnclosingQuotes(bool Value) noexcept { SetOption(_stRemoveEnclosingQuotes, Value); }
  bool AllowEmbeddedQuotes() const { return _GetAllowEmbeddedQuotes(); }
  void SetAllowEmbeddedQuotes(bool Value) { _SetAllowEmbeddedQuotes(Value); }
  TQUMAStringTokeniserOptions TokeniserOptions() const noexcept { return _TokeniserOptions; }

  // ---- virtual operations, in slot order ----
  virtual bool _GetAllowEmbeddedQuotes() const;
  virtual void _SetAllowEmbeddedQuotes(bool Value);

 protected:
  void SetOption(TQUMAStringTokeniserOptionFlags Flag, bool Value) noexcept {
    if (Value)
      _TokeniserOptions.Include(Flag);
    else
      _TokeniserOptions.Exclude(Flag);
  }

 private:
  void SetCharacters(UnicodeString& Field, Byte Class, UnicodeStringView Value);

  // The tokens are the first _nTokenCount entries; the entries after them keep their storage
  // for the next Tokenise.
  std::vector<UnicodeString> _Tokens;
  Integer _nTokenCount = 0;
  TQUMAStringTokeniserOptions _TokeniserOptions;
  UnicodeString _caSeparators;
  UnicodeString _caOpenQuotes;
  UnicodeString _caCloseQuotes;
  UnicodeString _caEscapes;
  // The four sets above as one membership table, kept in step by the setters.
  std::unique_ptr<detail::TTokeniserTables> _pClasses;
  UnicodeString _szPendingInput;  // the string constructor's input, tokenised in AfterConstruction
};

using TQUMAStringTokeniserClass = TClassOf<TQUMAStringTokeniser>;

}  // namespace quma
QUMA_PUBLIC_END
