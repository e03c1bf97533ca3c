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

TQUMAStringTokeniser::TQUMAStringTokeniser(bool blSkipInit)
    : _pTokens(MakeObject<TStringList>()), _pClasses(std::make_unique<detail::TCharClasses>()) {
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
  TStringList& tokens = *_pTokens;
  tokens.Clear();
  if (szInput.empty()) return 0;

  const bool ignoreEmpty = IgnoreEmptyTokens();
  const bool removeQuotes = RemoveEnclosingQuotes();
  const bool allowEmbedded = AllowEmbeddedQuotes();
  const detail::TCharClasses& classes = *_pClasses;

  UnicodeString token;
  bool escaped = false;
  bool inQuotes = false;
  const std::size_t n = szInput.size();
  struct TUpdate {  // one change bracket for the whole line
    TStrings& List;
    explicit TUpdate(TStrings& l) : List(l) { List.BeginUpdate(); }
    ~TUpdate() { List.EndUpdate(); }
  } update(tokens);
  for (std::size_t i = 0; i < n; ++i) {
    const WideChar c = szInput[i];
    if (escaped) {
      escaped = false;
      token.push_back(c);
      continue;
    }
    const Byte cls = classes.Of(c);
    if (cls == 0) {
      // A run of characters that belong to no set is token text whatever the state.
      std::size_t end = i + 1;
      while (end < n && classes.Of(szInput[end]) == 0) ++end;
      token.append(szInput.substr(i, end - i));
      i = end - 1;
      continue;
    }
    if ((cls & kOpenQuote) && !inQuotes && (token.empty() || allowEmbedded)) {
      inQuotes = true;
      if (!removeQuotes) token.push_back(c);
    } else if (cls & kEscape) {
      escaped = true;
    } else if (inQuotes && (cls & kCloseQuote)) {
      inQuotes = false;
      if (!removeQuotes) token.push_back(c);
    } else if (!inQuotes && (cls & kSeparator)) {
      if (!ignoreEmpty || !token.empty()) tokens.Add(token);
      token.clear();
    } else {
      token.push_back(c);
    }
  }
  if (!ignoreEmpty || !token.empty()) tokens.Add(token);
  return tokens.Count();
}

Integer TQUMAStringTokeniser::Tokenise(std::string_view szInput) { return Tokenise(Utf8ToUtf16(szInput)); }

const UnicodeString& TQUMAStringTokeniser::Token(Integer nIndex) const {
  if (nIndex < 0 || nIndex >= _pTokens->Count()) throw EArgumentOutOfRangeException(SNoSuchToken);
  return (*_pTokens)[nIndex];
}

bool TQUMAStringTokeniser::ValueForName(UnicodeStringView szName, UnicodeString& szValue) const {
  szValue.clear();
  if (_pTokens->Count() == 0) return false;
  const Integer index = _pTokens->IndexOfName(szName);
  if (index < 0) return false;
  szValue = _pTokens->ValueFromIndex(index);
  return true;
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
    const Byte cls = _pClasses->Of(c);
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
