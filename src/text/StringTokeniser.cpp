#include <quma/StringTokeniser.h>

#include <quma/SysUtils.h>

#include "internal/CharClasses.h"

namespace quma {

namespace {

// Membership bits in the tokeniser's table.
constexpr Byte kSeparator = 1;
constexpr Byte kOpenQuote = 2;
constexpr Byte kCloseQuote = 4;
constexpr Byte kEscape = 8;

// Space, NUL, tab, CR, LF: a NUL inside the input ends a token as a space does.
constexpr WideChar kDefaultSeparators[] = {u' ', u'\0', u'\t', u'\r', u'\n'};

}  // namespace

namespace detail {
// The character sets as one membership table, and the characters that can end a run of token
// text in each state of the tokeniser.
struct TTokeniserTables {
  TCharClasses Classes;
  TCharSkipper AtTokenStart;  // outside quotes, nothing kept yet: separators, escapes, open quotes
  TCharSkipper InToken;       // outside quotes, later: separators and escapes
  TCharSkipper InQuotes;      // escapes and close quotes

  void Assign(Byte Class, UnicodeStringView Chars) {
    Classes.Assign(Class, Chars);
    AtTokenStart.Build(Classes, kSeparator | kEscape | kOpenQuote);
    InToken.Build(Classes, kSeparator | kEscape);
    InQuotes.Build(Classes, kEscape | kCloseQuote);
  }
};
}  // namespace detail

TQUMAStringTokeniser::TQUMAStringTokeniser(bool blSkipInit)
    : _pClasses(std::make_unique<detail::TTokeniserTables>()) {
  if (blSkipInit) return;
  SetSeparators(UnicodeStringView(kDefaultSeparators, std::size(kDefaultSeparators)));
  SetOpenQuotes(u"\"");
  SetCloseQuotes(u"\"");
  _TokeniserOptions = {_stIgnoreEmptyTokens, _stRemoveEnclosingQuotes};
}

TQUMAStringTokeniser::TQUMAStringTokeniser(UnicodeStringView szInput) : TQUMAStringTokeniser(false) {
  _szPendingInput = szInput;
}

TQUMAStringTokeniser::TQUMAStringTokeniser(std::string_view szInput) : TQUMAStringTokeniser(false) {
  _szPendingInput = Utf8ToUtf16(szInput);
}

TQUMAStringTokeniser::~TQUMAStringTokeniser() = default;

void TQUMAStringTokeniser::AfterConstruction() {
  inherited::AfterConstruction();
  if (!_szPendingInput.empty()) {
    const UnicodeString input = std::move(_szPendingInput);
    _szPendingInput.clear();
    Tokenise(input);
  }
}

TQUMAStringTokeniser* TQUMAStringTokeniser::Create(TClassOf<TQUMAStringTokeniser> Cls, UnicodeStringView szInput) {
  TObjectPtr<TQUMAStringTokeniser> result(Cls.Create(false));
  if (result && !szInput.empty()) result->Tokenise(szInput);
  return result.release();
}

void TQUMAStringTokeniser::SetCharacters(UnicodeString& Field, Byte Class, UnicodeStringView Value) {
  _pClasses->Assign(Class, Value);
  Field.assign(Value);
}

void TQUMAStringTokeniser::SetSeparators(UnicodeStringView Value) { SetCharacters(_caSeparators, kSeparator, Value); }
void TQUMAStringTokeniser::SetOpenQuotes(UnicodeStringView Value) { SetCharacters(_caOpenQuotes, kOpenQuote, Value); }
void TQUMAStringTokeniser::SetCloseQuotes(UnicodeStringView Value) {
  SetCharacters(_caCloseQuotes, kCloseQuote, Value);
}
void TQUMAStringTokeniser::SetEscapes(UnicodeStringView Value) { SetCharacters(_caEscapes, kEscape, Value); }

bool TQUMAStringTokeniser::_GetAllowEmbeddedQuotes() const {
  return _TokeniserOptions.Contains(_stAllowEmbeddedQuotes);
}

void TQUMAStringTokeniser::_SetAllowEmbeddedQuotes(bool Value) { SetOption(_stAllowEmbeddedQuotes, Value); }

Integer TQUMAStringTokeniser::Tokenise(UnicodeStringView szInput) {
  _nTokenCount = 0;
  if (szInput.empty()) return 0;
  const bool ignoreEmpty = IgnoreEmptyTokens();
  const bool removeQuotes = RemoveEnclosingQuotes();
  const bool allowEmbedded = AllowEmbeddedQuotes();
  const detail::TTokeniserTables& tables = *_pClasses;
  const detail::TCharClasses& classes = tables.Classes;
  const detail::TCharSkipper& inToken = allowEmbedded ? tables.AtTokenStart : tables.InToken;

  // Each token is built in its own entry, reusing the storage an earlier line left there.
  Integer count = 0;
  auto entry = [this](Integer index) -> UnicodeString* {
    if (static_cast<std::size_t>(index) == _Tokens.size()) [[unlikely]]
      _Tokens.emplace_back();
    UnicodeString* e = &_Tokens[static_cast<std::size_t>(index)];
    e->clear();
    return e;
  };
  UnicodeString* token = entry(0);

  bool inQuotes = false;
  const WideChar* const text = szInput.data();
  const std::size_t n = szInput.size();
  for (std::size_t i = 0; i < n;) {
    // Token text up to the next character that can mean something in this state; text is
    // mostly such runs between single special characters.
    const detail::TCharSkipper& skipper = inQuotes ? tables.InQuotes : token->empty() ? tables.AtTokenStart : inToken;
    if (const std::size_t run = skipper.Skip(text + i, n - i)) {
      token->append(text + i, run);
      i += run;
      if (i == n) break;
    }
    const WideChar c = text[i++];
    const Byte cls = classes.Of(c);
    if (cls == kSeparator && !inQuotes) {  // the common case, decided by the last test below
      if (!ignoreEmpty || !token->empty()) token = entry(++count);
    } else if ((cls & kOpenQuote) && !inQuotes && (token->empty() || allowEmbedded)) {
      inQuotes = true;
      if (!removeQuotes) token->push_back(c);
    } else if (cls & kEscape) {
      if (i < n) token->push_back(text[i++]);  // taken literally; a final escape leaves nothing
    } else if (inQuotes && (cls & kCloseQuote)) {
      inQuotes = false;
      if (!removeQuotes) token->push_back(c);
    } else if (!inQuotes && (cls & kSeparator)) {
      if (!ignoreEmpty || !token->empty()) token = entry(++count);  // else the entry is reused
    } else {
      token->push_back(c);
    }
  }
  if (!ignoreEmpty || !token->empty()) ++count;
  _nTokenCount = count;
  return count;
}

Integer TQUMAStringTokeniser::Tokenise(std::string_view szInput) { return Tokenise(Utf8ToUtf16(szInput)); }

const UnicodeString& TQUMAStringTokeniser::Token(Integer nIndex) const {
  if (nIndex < 0 || nIndex >= _nTokenCount) throw EArgumentOutOfRangeException(SNoSuchToken);
  return _Tokens[static_cast<std::size_t>(nIndex)];
}

bool TQUMAStringTokeniser::ValueForName(UnicodeStringView szName, UnicodeString& szValue) const {
  szValue.clear();
  for (const UnicodeString& token : Tokens()) {
    const auto equals = token.find(u'=');  // a token without one has no name
    if (equals != UnicodeString::npos && SameText(UnicodeStringView(token).substr(0, equals), szName)) {
      szValue = token.substr(equals + 1);
      return true;
    }
  }
  return false;
}

bool TQUMAStringTokeniser::ValueForName(std::string_view szName, std::string& szValue) const {
  UnicodeString value;
  const bool found = ValueForName(Utf8ToUtf16(szName), value);
  szValue = Utf16ToUtf8(value);
  return found;
}

UnicodeString TQUMAStringTokeniser::EscapeAndQuote(UnicodeStringView szInput) const {
  UnicodeString escapedText;
  if (szInput.empty()) return escapedText;
  escapedText.reserve(szInput.size() + 2);
  bool hasSeparator = false;
  for (const WideChar c : szInput) {
    const Byte cls = _pClasses->Classes.Of(c);
    if (cls & kSeparator)
      hasSeparator = true;  // never escaped: it only makes the value quoted
    else if ((cls & (kOpenQuote | kCloseQuote | kEscape)) && !_caEscapes.empty())
      escapedText.push_back(_caEscapes.front());
    escapedText.push_back(c);
  }
  if (!hasSeparator || _caOpenQuotes.empty() || _caCloseQuotes.empty()) return escapedText;
  UnicodeString result;
  result.reserve(escapedText.size() + 2);
  result.push_back(_caOpenQuotes.front());
  result += escapedText;
  result.push_back(_caCloseQuotes.front());
  return result;
}

std::string TQUMAStringTokeniser::EscapeAndQuote(std::string_view szInput) const {
  return Utf16ToUtf8(EscapeAndQuote(UnicodeStringView(Utf8ToUtf16(szInput))));
}

}  // namespace quma
