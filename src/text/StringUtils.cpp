#include <quma/StringUtils.h>

#include <cstring>

#include <quma/Soundex.h>
#include <quma/Strings.h>

namespace quma {

namespace {

// Built in this order at load time and never changed.
const TFormatSettings gGBFormatSettings = TFormatSettings::Create(u"en_GB");
const TFormatSettings gUSFormatSettings = TFormatSettings::Create(u"en_US");

// ---------------------------------------------------------------------------------------------
// UTF-8 reading

class Utf8Reader {
 public:
  explicit Utf8Reader(std::string_view s) noexcept
      : FData(reinterpret_cast<const unsigned char*>(s.data())), FSize(s.size()) {}
  bool AtEnd() const noexcept { return FPos >= FSize; }
  std::size_t Remaining() const noexcept { return FSize - FPos; }
  const unsigned char* Here() const noexcept { return FData + FPos; }
  void Skip(std::size_t n) noexcept { FPos += n; }

  char32_t Next() {
    const unsigned b = Byte();
    if (b < 0x80) return b;
    if ((b & 0xE0) == 0xC0) return ((b & 0x1F) << 6) | Continuation();
    if ((b & 0xF0) == 0xE0) {
      const char32_t c1 = Continuation();
      return ((b & 0x0F) << 12) | (c1 << 6) | Continuation();
    }
    if ((b & 0xF8) == 0xF0) {
      const char32_t c1 = Continuation();
      const char32_t c2 = Continuation();
      return ((b & 0x07) << 18) | (c1 << 12) | (c2 << 6) | Continuation();
    }
    return 0;  // a byte that starts no sequence
  }

 private:
  unsigned Byte() {
    if (FPos >= FSize) throw EQUMAUTF8EncodingError(SUTF8ExpectedByte);
    return FData[FPos++];
  }
  char32_t Continuation() {
    const unsigned c = Byte();
    if ((c & 0xC0) != 0x80) throw EQUMAUTF8EncodingError(SUTF8ExpectedContinuation);
    return c & 0x3F;
  }

  const unsigned char* FData;
  std::size_t FSize;
  std::size_t FPos = 0;
};

constexpr std::uint64_t kHighBits = 0x8080808080808080ull;

inline std::uint64_t Load8(const unsigned char* p) noexcept {
  std::uint64_t v;
  std::memcpy(&v, p, 8);
  return v;
}

Integer CompareLengths(std::size_t a, std::size_t b) noexcept { return a < b ? -1 : a > b ? 1 : 0; }

Integer CompareUnits(char32_t a, char32_t b) noexcept { return b > a ? -1 : b < a ? 1 : 0; }

// UTF-8 against UTF-16 code units; Sign flips the result for the reversed argument order.
Integer CompareMixed(std::string_view a8, UnicodeStringView b16, int sign) {
  Utf8Reader a(a8);
  std::size_t j = 0;
  while (!a.AtEnd() && j < b16.size()) {
    // Eight ASCII bytes equal to eight code units need no decoding.
    while (a.Remaining() >= 8 && b16.size() - j >= 8) {
      const unsigned char* p = a.Here();
      if ((Load8(p) & kHighBits) != 0) break;
      unsigned diff = 0;
      for (std::size_t k = 0; k < 8; ++k) diff |= static_cast<unsigned>(p[k] ^ b16[j + k]);
      if (diff != 0) break;
      a.Skip(8);
      j += 8;
    }
    if (a.AtEnd() || j >= b16.size()) break;
    const unsigned char c = *a.Here();
    if (c < 0x80 && c == b16[j]) {
      a.Skip(1);
      ++j;
      continue;
    }
    const Integer r = CompareUnits(a.Next(), b16[j++]);
    if (r != 0) return r * sign;
  }
  return CompareLengths(a8.size(), b16.size()) * sign;
}

bool Contains(UnicodeStringView set, WideChar c) noexcept { return set.find(c) != UnicodeStringView::npos; }

template <class Set>
UnicodeString FirstTokenOf(UnicodeStringView text, const Set& delimiters) {
  for (std::size_t i = 0; i < text.size(); ++i)
    for (WideChar d : delimiters)
      if (text[i] == d) return UnicodeString(text.substr(0, i));
  return UnicodeString(text);
}

template <class Set>
UnicodeString LastTokenOf(UnicodeStringView text, const Set& delimiters) {
  for (std::size_t i = text.size(); i-- > 0;)
    for (WideChar d : delimiters)
      if (text[i] == d) return UnicodeString(text.substr(i + 1));
  return UnicodeString(text);
}

// 1-based case-sensitive search from Offset, 0 when absent (the host Pos).
Integer Pos(UnicodeStringView sub, UnicodeStringView text, Integer offset) noexcept {
  if (sub.empty() || offset < 1) return 0;
  const std::size_t p = text.find(sub, static_cast<std::size_t>(offset - 1));  // (npos from past the end)
  return p == UnicodeStringView::npos ? 0 : static_cast<Integer>(p + 1);
}

template <class Add>
bool SplitRepeated(UnicodeStringView text, UnicodeStringView separator, bool caseSensitive, Add&& add) {
  auto find = [&](Integer from) { return caseSensitive ? Pos(separator, text, from) : TextPos(separator, text, from); };
  Integer p = find(1);
  if (p == 0) return false;
  add(true, text.substr(0, static_cast<std::size_t>(p - 1)));
  const auto sepLen = static_cast<Integer>(separator.size());
  Integer start = p + sepLen;
  while ((p = find(start)) != 0) {
    add(false, text.substr(static_cast<std::size_t>(start - 1), static_cast<std::size_t>(p - start)));
    start = p + sepLen;
  }
  if (static_cast<std::size_t>(start) > text.size())
    add(false, UnicodeStringView());
  else
    add(false, text.substr(static_cast<std::size_t>(start - 1)));
  return true;
}

}  // namespace

const TFormatSettings& GBFormatSettings = gGBFormatSettings;
const TFormatSettings& USFormatSettings = gUSFormatSettings;

Integer UTF8CompareStr(std::string_view A, std::string_view B) {
  Utf8Reader a(A), b(B);
  while (!a.AtEnd() && !b.AtEnd()) {
    const unsigned x = *a.Here(), y = *b.Here();
    if ((x | y) < 0x80) {
      // ASCII on both sides needs no decoding; equal runs go eight bytes at a time.
      if (x != y) return y > x ? -1 : 1;
      a.Skip(1);
      b.Skip(1);
      while (a.Remaining() >= 8 && b.Remaining() >= 8) {
        const std::uint64_t wa = Load8(a.Here()), wb = Load8(b.Here());
        if (wa != wb || (wa & kHighBits) != 0) break;
        a.Skip(8);
        b.Skip(8);
      }
      continue;
    }
    // A is read before B, so when both are malformed A's error is the one reported.
    const char32_t ca = a.Next();
    const char32_t cb = b.Next();
    const Integer r = CompareUnits(ca, cb);
    if (r != 0) return r;
  }
  return CompareLengths(A.size(), B.size());
}

Integer UTF8CompareStr(std::string_view A, UnicodeStringView B) { return CompareMixed(A, B, 1); }

Integer UTF8CompareStr(UnicodeStringView A, std::string_view B) { return CompareMixed(B, A, -1); }

double SoundexConfidenceCompare(UnicodeStringView A, UnicodeStringView B) {
  auto code = [](UnicodeStringView s) {
    UnicodeString c = Soundex(s, static_cast<Integer>(s.size()));
    std::erase(c, u'0');
    return c;
  };
  const UnicodeString ca = code(A), cb = code(B);
  const std::size_t shorter = std::min(ca.size(), cb.size());
  std::size_t same = 0;
  for (std::size_t i = 0; i < shorter; ++i)
    if (ca[i] == cb[i]) ++same;
  return static_cast<double>(same) / static_cast<double>(std::max(ca.size(), cb.size()));
}

bool FindRepeatedEmbeddedString(UnicodeStringView Text, UnicodeStringView Separator, TStrings& List,
                                bool CaseSensitive) {
  return SplitRepeated(Text, Separator, CaseSensitive, [&](bool first, UnicodeStringView part) {
    if (first) List.Clear();
    List.Add(UnicodeString(part));
  });
}

bool FindRepeatedEmbeddedString(UnicodeStringView Text, UnicodeStringView Separator, std::vector<UnicodeString>& List,
                                bool CaseSensitive) {
  return SplitRepeated(Text, Separator, CaseSensitive, [&](bool first, UnicodeStringView part) {
    if (first) List.clear();
    List.emplace_back(part);
  });
}

Integer TextPos(UnicodeStringView SubStr, UnicodeStringView Text, Integer Offset) noexcept {
  if (SubStr.empty() || Offset < 1) return 0;
  const auto start = static_cast<std::size_t>(Offset - 1);
  if (start > Text.size() || Text.size() - start < SubStr.size()) return 0;
  const WideChar first = UpCase(SubStr[0]);
  for (std::size_t p = start; p + SubStr.size() <= Text.size(); ++p) {
    if (UpCase(Text[p]) != first) continue;
    std::size_t k = 1;
    while (k < SubStr.size() && UpCase(Text[p + k]) == UpCase(SubStr[k])) ++k;
    if (k == SubStr.size()) return static_cast<Integer>(p + 1);
  }
  return 0;
}

UnicodeString FirstToken(UnicodeStringView Text, const std::vector<WideChar>& Delimiters) {
  return FirstTokenOf(Text, Delimiters);
}
UnicodeString FirstToken(UnicodeStringView Text, UnicodeStringView Delimiters) {
  return FirstTokenOf(Text, Delimiters);
}
UnicodeString LastToken(UnicodeStringView Text, const std::vector<WideChar>& Delimiters) {
  return LastTokenOf(Text, Delimiters);
}
UnicodeString LastToken(UnicodeStringView Text, UnicodeStringView Delimiters) { return LastTokenOf(Text, Delimiters); }

UnicodeString GetToken(UnicodeString& Text, UnicodeStringView Delimiters1, UnicodeStringView Delimiters2) {
  std::size_t i = 0;
  while (i < Text.size() && !Contains(Delimiters1, Text[i]) && !Contains(Delimiters2, Text[i])) ++i;
  UnicodeString token = Text.substr(0, i);
  Text.erase(0, i < Text.size() ? i + 1 : i);
  return token;
}

void ConcatenateWithSeparator(UnicodeString& Text, UnicodeStringView Separator, UnicodeStringView Addition) {
  if (Addition.empty()) return;
  if (Text.empty()) {
    Text.assign(Addition);
    return;
  }
  Text.reserve(Text.size() + Separator.size() + Addition.size());
  Text.append(Separator);
  Text.append(Addition);
}

UnicodeString RectToString(const TRectF& R) {
  UnicodeString s(u"(");
  s += FloatToStr(R.Left, GBFormatSettings);
  s += u',';
  s += FloatToStr(R.Top, GBFormatSettings);
  s += u',';
  s += FloatToStr(R.Right, GBFormatSettings);
  s += u',';
  s += FloatToStr(R.Bottom, GBFormatSettings);
  s += u')';
  return s;
}

TRectF StringToRect(UnicodeStringView S) noexcept {
  try {
    UnicodeString rest(S);
    constexpr UnicodeStringView kDelimiters = u",()";
    GetToken(rest, kDelimiters);  // the text before "("
    TRectF r;
    r.Left = static_cast<float>(StrToFloat(GetToken(rest, kDelimiters), GBFormatSettings));
    r.Top = static_cast<float>(StrToFloat(GetToken(rest, kDelimiters), GBFormatSettings));
    r.Right = static_cast<float>(StrToFloat(GetToken(rest, kDelimiters), GBFormatSettings));
    r.Bottom = static_cast<float>(StrToFloat(GetToken(rest, kDelimiters), GBFormatSettings));
    return r;
  } catch (...) {
    return TRectF{};
  }
}

}  // namespace quma
