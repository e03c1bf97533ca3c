// TQUMA_Uuid: field views, conversions, hash and the text/byte forms.
//
// The readers are written once, as non-throwing routines over a (pointer, length) pair that
// report an error code; the throwing members turn the code into the documented EConvertError.
// Positions past the end of the text read as the zero terminator, so a reader called directly
// on a short text fails (or, for the byte-copying forms, reads zeros) instead of running off the
// end of the buffer.
#include <quma/Uuid.h>

#include <array>
#include <cstring>
#include <string>

#include <quma/NetEncoding.h>
#include <quma/Random.h>
#include <quma/Strings.h>
#include <quma/SysUtils.h>

namespace quma {

namespace {

enum class TReadError : Byte {
  None,
  Unrecognised,
  Standard,
  MS,
  Hex,
  JHash,
  Base64Size,
  Base64Character,
  HexCharacter,
};

[[noreturn]] void Raise(TReadError e) {
  switch (e) {
    case TReadError::Standard:
      throw EConvertError(SUuidInvalidStandard);
    case TReadError::MS:
      throw EConvertError(SUuidInvalidMS);
    case TReadError::Hex:
      throw EConvertError(SUuidInvalidHex);
    case TReadError::JHash:
      throw EConvertError(SUuidInvalidJHash);
    case TReadError::Base64Size:
      throw EConvertError(SUuidBase64Size);
    case TReadError::Base64Character:
      throw EConvertError(SUuidBase64Character);
    case TReadError::HexCharacter:
      throw EConvertError(SUuidInvalidHexCharacter);
    case TReadError::None:
    case TReadError::Unrecognised:
      break;
  }
  throw EConvertError(SUuidUnrecognisedFormat);
}

inline bool Check(TReadError e) {
  if (e != TReadError::None) Raise(e);
  return true;
}

// ---- hex digits ----

constexpr Byte kNotHex = 0xFF;
constexpr std::array<Byte, 256> MakeHexValues() {
  std::array<Byte, 256> t{};
  for (auto& v : t) v = kNotHex;
  for (int c = '0'; c <= '9'; ++c) t[c] = static_cast<Byte>(c - '0');
  for (int c = 'a'; c <= 'f'; ++c) t[c] = static_cast<Byte>(c - 'a' + 10);
  for (int c = 'A'; c <= 'F'; ++c) t[c] = static_cast<Byte>(c - 'A' + 10);
  return t;
}
constexpr std::array<Byte, 256> kHexValues = MakeHexValues();

// Two hex digits per byte as one 32-bit store of two UTF-16 units (little-endian).
template <bool Upper>
constexpr std::array<std::uint32_t, 256> MakeHexPairs() {
  const char* digits = Upper ? "0123456789ABCDEF" : "0123456789abcdef";
  std::array<std::uint32_t, 256> t{};
  for (int b = 0; b < 256; ++b)
    t[b] = static_cast<std::uint32_t>(static_cast<Byte>(digits[b >> 4])) |
           (static_cast<std::uint32_t>(static_cast<Byte>(digits[b & 15])) << 16);
  return t;
}
constexpr auto kLowerPairs = MakeHexPairs<false>();
constexpr auto kUpperPairs = MakeHexPairs<true>();

inline char16_t* PutPair(char16_t* out, Byte b, const std::array<std::uint32_t, 256>& pairs) noexcept {
  const std::uint32_t v = pairs[b];
  std::memcpy(out, &v, 4);
  return out + 2;
}

// The grouped form: 4-2-2-2-6 bytes with "-" between groups (36 units at out).
inline void PutGrouped(char16_t* out, const Byte* b, const std::array<std::uint32_t, 256>& pairs) noexcept {
  static constexpr Byte kPos[16] = {0, 2, 4, 6, 9, 11, 14, 16, 19, 21, 24, 26, 28, 30, 32, 34};
  for (int i = 0; i < 16; ++i) PutPair(out + kPos[i], b[i], pairs);
  out[8] = out[13] = out[18] = out[23] = u'-';
}

// ---- the text being read ----

template <class CharT>
struct TText {
  const CharT* P;
  std::size_t Len;  // up to the first zero unit
  // The unit at i; past the end, the terminator.
  Word At(std::size_t i) const noexcept {
    return i < Len ? static_cast<Word>(static_cast<std::make_unsigned_t<CharT>>(P[i])) : Word{0};
  }
  // A byte from two digits; only the low byte of each unit is looked at.
  bool ByteAt(std::size_t i, Byte& out) const noexcept {
    const Byte hi = kHexValues[At(i) & 0xFF];
    const Byte lo = kHexValues[At(i + 1) & 0xFF];
    out = static_cast<Byte>((hi << 4) | lo);
    return (hi | lo) != kNotHex && ((hi | lo) & 0xF0) == 0;
  }
};

// A view: its length up to the first zero unit.
template <class CharT>
TText<CharT> Measure(const CharT* p, std::size_t size) noexcept {
  if (!p || size == 0) return {p, 0};
  const CharT* z = std::char_traits<CharT>::find(p, size, CharT{});
  return {p, z ? static_cast<std::size_t>(z - p) : size};
}

// A zero-terminated text.
template <class CharT>
TText<CharT> MeasureZ(const CharT* p) noexcept {
  return {p, p ? std::char_traits<CharT>::length(p) : 0};
}

// Standard, MS and hex: pairs of digits from `pos`, a "-" skipped wherever it stands.
template <class CharT>
bool ReadGroups(const TText<CharT>& t, std::size_t pos, Byte (&out)[16]) noexcept {
  for (int n = 0; n < 16;) {
    if (t.At(pos) == u'-') {
      ++pos;
      continue;
    }
    if (!t.ByteAt(pos, out[n])) return false;
    ++n;
    pos += 2;
  }
  return true;
}

// The usual layout (digits everywhere but 8, 13, 18 and 23) without a branch per position; any
// other text goes through ReadGroups, which gives the same bytes for this layout.
template <class CharT>
bool ReadCanonical(const TText<CharT>& t, std::size_t base, Byte (&out)[16]) noexcept {
  static constexpr Byte kPos[16] = {0, 2, 4, 6, 9, 11, 14, 16, 19, 21, 24, 26, 28, 30, 32, 34};
  if (t.Len < base + 36) return false;
  const CharT* p = t.P + base;
  if (p[8] != CharT('-') || p[13] != CharT('-') || p[18] != CharT('-') || p[23] != CharT('-')) return false;
  Byte bad = 0;
  for (int i = 0; i < 16; ++i) {
    const Byte hi = kHexValues[static_cast<Byte>(p[kPos[i]])];
    const Byte lo = kHexValues[static_cast<Byte>(p[kPos[i] + 1])];
    bad |= hi | lo;
    out[i] = static_cast<Byte>((hi << 4) | lo);
  }
  return (bad & 0xF0) == 0;
}

template <class CharT>
TReadError ReadStandard(const TText<CharT>& t, Byte* value) noexcept {
  Byte b[16];
  if (!ReadCanonical(t, 0, b) && !ReadGroups(t, 0, b)) return TReadError::Standard;
  std::memcpy(value, b, 16);
  return TReadError::None;
}

template <class CharT>
TReadError ReadMS(const TText<CharT>& t, Byte* value) noexcept {
  Byte b[16];
  if (!ReadCanonical(t, 1, b) && !ReadGroups(t, 1, b)) return TReadError::MS;  // the closing brace is never looked at
  std::memcpy(value, b, 16);
  return TReadError::None;
}

template <class CharT>
TReadError ReadHex(const TText<CharT>& t, Byte* value) noexcept {
  Byte b[16];
  if (!ReadGroups(t, 0, b)) return TReadError::Hex;
  std::memcpy(value, b, 16);
  return TReadError::None;
}

Cardinal LookupHash(const Byte* k) noexcept;

template <class CharT>
TReadError ReadJHashPath(const TText<CharT>& t, Byte* value) noexcept {
  const Word sep = t.At(2);
  if (sep != t.At(5) || (sep != u'\\' && sep != u'/')) return TReadError::JHash;
  Byte hashHigh, hashLow, b[16];
  if (!t.ByteAt(0, hashHigh) || !t.ByteAt(3, hashLow)) return TReadError::JHash;
  for (int i = 0; i < 16; ++i)
    if (!t.ByteAt(6 + 2 * static_cast<std::size_t>(i), b[i])) return TReadError::JHash;
  // A hash that does not match the bytes reads as a malformed path, like any other fault.
  const Cardinal h = LookupHash(b);
  if (((h >> 8) & 0xFF) != hashHigh || (h & 0xFF) != hashLow) return TReadError::JHash;
  std::memcpy(value, b, 16);
  return TReadError::None;
}

// The library's own Base64 decoder over the low bytes of the units.
constexpr Byte kB64Blank = 0xFC, kB64Pad = 0xFD, kB64Bad = 0xFE, kB64End = 0xFF;
constexpr std::array<Byte, 256> MakeBase64Classes() {
  std::array<Byte, 256> t{};
  for (auto& v : t) v = kB64Bad;
  for (int c = 'A'; c <= 'Z'; ++c) t[c] = static_cast<Byte>(c - 'A');
  for (int c = 'a'; c <= 'z'; ++c) t[c] = static_cast<Byte>(c - 'a' + 26);
  for (int c = '0'; c <= '9'; ++c) t[c] = static_cast<Byte>(c - '0' + 52);
  t['+'] = 62;
  t['/'] = 63;
  for (int c : {' ', '\r', '\n', '\t'}) t[c] = kB64Blank;
  t['='] = kB64Pad;
  return t;
}
constexpr std::array<Byte, 256> kBase64Classes = MakeBase64Classes();

template <class CharT>
TReadError DecodeBase64(const TText<CharT>& t, Byte* out, std::size_t capacity, std::size_t& written) noexcept {
  std::size_t i = 0, n = 0;
  auto next = [&]() noexcept -> Byte {
    while (i < t.Len) {
      const Byte c = kBase64Classes[t.At(i++) & 0xFF];
      if (c != kB64Blank) return c;
    }
    return kB64End;  // the end of the text stops like padding
  };
  auto stops = [](Byte c) noexcept { return c >= kB64Pad; };
  while (n < capacity) {
    const Byte c1 = next(), c2 = next(), c3 = next(), c4 = next();
    if (c1 == kB64Bad || c2 == kB64Bad) return TReadError::Base64Character;
    if (stops(c1) || stops(c2)) break;
    out[n++] = static_cast<Byte>((c1 << 2) | (c2 >> 4));
    if (c3 == kB64Bad) return TReadError::Base64Character;
    if (stops(c3) || n >= capacity) break;
    out[n++] = static_cast<Byte>(((c2 & 15) << 4) | (c3 >> 2));
    if (c4 == kB64Bad) return TReadError::Base64Character;
    if (stops(c4) || n >= capacity) break;
    out[n++] = static_cast<Byte>(((c3 & 3) << 6) | c4);
  }
  written = n;
  return TReadError::None;
}

template <class CharT>
TReadError ReadBase64(const TText<CharT>& t, Byte* value) noexcept {
  Byte b[16];
  std::size_t n = 0;
  if (const TReadError e = DecodeBase64(t, b, 16, n); e != TReadError::None) return e;
  if (n != 16) return TReadError::Base64Size;
  std::memcpy(value, b, 16);
  return TReadError::None;
}

// Eight units, low byte first. (The terminator's two zero bytes are not stored.)
template <class CharT>
TReadError ReadBinary(const TText<CharT>& t, Byte* value) noexcept {
  for (std::size_t k = 0; k < 8; ++k) {
    const Word u = t.At(k);
    value[2 * k] = static_cast<Byte>(u & 0xFF);
    value[2 * k + 1] = static_cast<Byte>(u >> 8);
  }
  return TReadError::None;
}

// Sixteen units: a unit with a high byte is two digits (low byte first), otherwise the byte
// itself. Writes as it goes.
template <class CharT>
TReadError ReadWideChar(const TText<CharT>& t, Byte* value) noexcept {
  for (std::size_t k = 0; k < 16; ++k) {
    const Word u = t.At(k);
    if (u >> 8) {
      const Byte hi = kHexValues[u & 0xFF], lo = kHexValues[u >> 8];
      if (hi == kNotHex || lo == kNotHex) return TReadError::HexCharacter;
      value[k] = static_cast<Byte>((hi << 4) | lo);
    } else {
      value[k] = static_cast<Byte>(u);
    }
  }
  return TReadError::None;
}

// Recognition by length and punctuation. The binary and wide-character forms only when `all`.
template <class CharT>
TReadError ReadAny(const TText<CharT>& t, Byte* value, bool all) noexcept {
  const std::size_t len = t.Len;
  if (len == 36 && t.At(8) == u'-' && t.At(13) == u'-' && t.At(18) == u'-' && t.At(23) == u'-')
    return ReadStandard(t, value);
  if (len == 0) {
    std::memset(value, 0, 16);
    return TReadError::None;
  }
  if (len == 38 && t.At(2) == t.At(5) && (t.At(2) == u'\\' || t.At(2) == u'/')) return ReadJHashPath(t, value);
  if ((len == 37 || (len == 38 && t.At(37) == u'}')) && t.At(0) == u'{' && t.At(9) == u'-' && t.At(14) == u'-' &&
      t.At(19) == u'-' && t.At(24) == u'-')
    return ReadMS(t, value);  // 37 units: the missing closing brace is tolerated
  if (len == 32) return ReadHex(t, value);
  if (len == 24) return ReadBase64(t, value);
  if (all && len == 16) return ReadWideChar(t, value);
  if (all && len == 8) return ReadBinary(t, value);
  return TReadError::Unrecognised;
}

bool IsAscii(std::string_view s) noexcept {
  unsigned char any = 0;
  for (char c : s) any |= static_cast<unsigned char>(c);  // no early exit: the texts are short
  return any < 0x80;
}

// UTF-8 text: ASCII is read as it is (its units are the same); anything else goes through UTF-16.
template <class Fn>
TReadError WithUtf8(std::string_view s, Fn read) {
  if (IsAscii(s)) return read(Measure(s.data(), s.size()));
  const UnicodeString w = Utf8ToUtf16(s);
  return read(Measure(w.data(), w.size()));
}

TReadError ReadUtf8(std::string_view s, Byte* value, bool all) {
  // Every form has at most 38 units, and no UTF-8 character takes more than three bytes per
  // unit: longer text is refused without converting it.
  const TText<char> t = Measure(s.data(), s.size());
  if (t.Len > 38 * 3) return TReadError::Unrecognised;
  return WithUtf8(std::string_view(t.P, t.Len), [&](const auto& text) { return ReadAny(text, value, all); });
}

// ---- lookup2 ----

inline Cardinal Word32(const Byte* k) noexcept {
  return Cardinal{k[0]} | (Cardinal{k[1]} << 8) | (Cardinal{k[2]} << 16) | (Cardinal{k[3]} << 24);
}

inline void Mix(Cardinal& a, Cardinal& b, Cardinal& c) noexcept {
  a -= b; a -= c; a ^= c >> 13;
  b -= c; b -= a; b ^= a << 8;
  c -= a; c -= b; c ^= b >> 13;
  a -= b; a -= c; a ^= c >> 12;
  b -= c; b -= a; b ^= a << 16;
  c -= a; c -= b; c ^= b >> 5;
  a -= b; a -= c; a ^= c >> 3;
  b -= c; b -= a; b ^= a << 10;
  c -= a; c -= b; c ^= b >> 15;
}

Cardinal LookupHash(const Byte* k) noexcept {
  Cardinal a = 0x9E3779B9u, b = 0x9E3779B9u, c = 0;
  a += Word32(k);
  b += Word32(k + 4);
  c += Word32(k + 8);
  Mix(a, b, c);
  c += 16;
  a += Word32(k + 12);
  Mix(a, b, c);
  return c;
}

// ---- format names ----

enum class TFormKind { Default, MS, Base64, Hex, Binary, JHashPath };

template <class CharT>
TFormKind KindOf(std::basic_string_view<CharT> name) noexcept {
  if (name.empty() || name.size() > 9) return TFormKind::Default;
  char lowered[9];
  for (std::size_t i = 0; i < name.size(); ++i) {
    const auto u = static_cast<std::make_unsigned_t<CharT>>(name[i]);
    if (u >= 0x80) return TFormKind::Default;  // every name is ASCII
    lowered[i] = static_cast<char>(u >= 'A' && u <= 'Z' ? u + 32 : u);
  }
  const std::string_view n(lowered, name.size());
  if (n == "ms" || n == "microsoft") return TFormKind::MS;
  if (n == "base64" || n == "base.64" || n == "base:64" || n == "base::64") return TFormKind::Base64;
  if (n == "hex" || n == "dbhex" || n == "base16" || n == "base.16" || n == "base:16" || n == "base::16")
    return TFormKind::Hex;
  if (n == "mysql" || n == "binary") return TFormKind::Binary;
  if (n == "jhashpath") return TFormKind::JHashPath;
  return TFormKind::Default;
}

UnicodeString FormatKind(const TQUMA_Uuid& u, TFormKind kind) {
  const Byte* b = u._baUuid;
  switch (kind) {
    case TFormKind::MS: {
      UnicodeString r(38, u'\0');
      r[0] = u'{';
      PutGrouped(r.data() + 1, b, kUpperPairs);
      r[37] = u'}';
      return r;
    }
    case TFormKind::Base64:
      return TNetEncoding::Base64()->EncodeBytesToString(std::span<const Byte>(b, 16));
    case TFormKind::Hex: {
      UnicodeString r(32, u'\0');
      char16_t* out = r.data();
      for (int i = 0; i < 16; ++i) out = PutPair(out, b[i], kLowerPairs);
      return r;
    }
    case TFormKind::Binary:
      return u._GetAsString();
    case TFormKind::JHashPath: {
      const Cardinal h = u.JHash();
      UnicodeString r(38, u'\0');
      char16_t* out = PutPair(r.data(), static_cast<Byte>(h >> 8), kLowerPairs);
      *out++ = u'\\';
      out = PutPair(out, static_cast<Byte>(h), kLowerPairs);
      *out++ = u'\\';
      for (int i = 0; i < 16; ++i) out = PutPair(out, b[i], kLowerPairs);
      return r;
    }
    case TFormKind::Default:
      break;
  }
  // The first five bytes of the UTF-16 text "QUMA-" mark an internal reference.
  if (b[0] == 'Q' && b[1] == 0 && b[2] == 'U' && b[3] == 0 && b[4] == 'M') {
    static constexpr char16_t kPrefix[] = u"Internal Reference: ";
    UnicodeString r(kPrefix);
    for (int i = 0; i < 16; ++i) r.push_back(static_cast<char16_t>(b[i]));
    return r;
  }
  UnicodeString r(36, u'\0');
  PutGrouped(r.data(), b, kLowerPairs);
  return r;
}

}  // namespace

// ---- constructors ----

TQUMA_Uuid TQUMA_Uuid::Create(UnicodeStringView szSource) {
  TQUMA_Uuid u;
  u._ReadFormattedUuid(szSource);
  return u;
}

TQUMA_Uuid TQUMA_Uuid::Create(const char16_t* pszSource) {
  TQUMA_Uuid u;
  u._ReadFormattedUuid(pszSource);
  return u;
}

TQUMA_Uuid TQUMA_Uuid::Create(std::string_view szSource) {
  TQUMA_Uuid u;
  u._ReadFormattedUuid(szSource);
  return u;
}

TQUMA_Uuid TQUMA_Uuid::Create(const Byte* pBytes) noexcept {
  TQUMA_Uuid u;
  std::memcpy(u._baUuid, pBytes, 16);
  return u;
}

TQUMA_Uuid TQUMA_Uuid::CreateZeroed(bool blZeroed) noexcept {
  TQUMA_Uuid u;
  if (!blZeroed) Randomize();  // seeds the general generator only; the value is not filled
  return u;
}

std::optional<TQUMA_Uuid> TQUMA_Uuid::TryParse(UnicodeStringView szSource) noexcept {
  TQUMA_Uuid u;
  if (ReadAny(Measure(szSource.data(), szSource.size()), u._baUuid, true) != TReadError::None) return std::nullopt;
  return u;
}

std::optional<TQUMA_Uuid> TQUMA_Uuid::TryParseText(UnicodeStringView szSource) noexcept {
  TQUMA_Uuid u;
  if (ReadAny(Measure(szSource.data(), szSource.size()), u._baUuid, false) != TReadError::None) return std::nullopt;
  return u;
}

std::optional<TQUMA_Uuid> TQUMA_Uuid::TryParse(std::string_view szSource) noexcept {
  TQUMA_Uuid u;
  try {
    if (ReadUtf8(szSource, u._baUuid, true) != TReadError::None) return std::nullopt;
  } catch (...) {  // only the UTF-16 conversion of non-ASCII text can throw (out of memory)
    return std::nullopt;
  }
  return u;
}

std::optional<TQUMA_Uuid> TQUMA_Uuid::TryParseText(std::string_view szSource) noexcept {
  TQUMA_Uuid u;
  try {
    if (ReadUtf8(szSource, u._baUuid, false) != TReadError::None) return std::nullopt;
  } catch (...) {
    return std::nullopt;
  }
  return u;
}

// ---- methods ----

void TQUMA_Uuid::Zero() noexcept { std::memset(_baUuid, 0, 16); }

void TQUMA_Uuid::Randomise() noexcept {
  TGUID g;
  if (CreateGUID(g) != S_OK) return;
  _SetTimeLow(g.D1);
  _SetTimeMid(g.D2);
  _SetTimeHighAndVersion(g.D3);
  std::memcpy(_baUuid + 8, g.D4, 8);
}

Cardinal TQUMA_Uuid::JHash() const noexcept { return LookupHash(_baUuid); }

Integer TQUMA_Uuid::Compare(const TQUMA_Uuid& Left, const TQUMA_Uuid& Right) noexcept {
  const int r = std::memcmp(Left._baUuid, Right._baUuid, 16);  // unsigned bytes, first difference
  return r < 0 ? -1 : (r > 0 ? 1 : 0);
}

UnicodeString TQUMA_Uuid::Format(UnicodeStringView szFormat) const { return FormatKind(*this, KindOf(szFormat)); }

UnicodeString TQUMA_Uuid::Format(std::string_view szFormat) const { return FormatKind(*this, KindOf(szFormat)); }

std::string TQUMA_Uuid::FormatUtf8(std::string_view szFormat) const { return Utf16ToUtf8(Format(szFormat)); }

// ---- readers ----

bool TQUMA_Uuid::_ReadFormattedUuid(const char16_t* pszUuid) { return Check(ReadAny(MeasureZ(pszUuid), _baUuid, true)); }
bool TQUMA_Uuid::_ReadFormattedUuid(UnicodeStringView szUuid) {
  return Check(ReadAny(Measure(szUuid.data(), szUuid.size()), _baUuid, true));
}
bool TQUMA_Uuid::_ReadFormattedUuid(std::string_view szUuid) { return Check(ReadUtf8(szUuid, _baUuid, true)); }

bool TQUMA_Uuid::_ReadTextFormattedUuid(const char16_t* pszUuid) {
  return Check(ReadAny(MeasureZ(pszUuid), _baUuid, false));
}
bool TQUMA_Uuid::_ReadTextFormattedUuid(UnicodeStringView szUuid) {
  return Check(ReadAny(Measure(szUuid.data(), szUuid.size()), _baUuid, false));
}
bool TQUMA_Uuid::_ReadTextFormattedUuid(std::string_view szUuid) { return Check(ReadUtf8(szUuid, _baUuid, false)); }

#define QUMA_UUID_SINGLE_READER(Name, Reader)                                                \
  bool TQUMA_Uuid::Name(const char16_t* pszUuid) { return Check(Reader(MeasureZ(pszUuid), _baUuid)); } \
  bool TQUMA_Uuid::Name(UnicodeStringView szUuid) {                                          \
    return Check(Reader(Measure(szUuid.data(), szUuid.size()), _baUuid));                    \
  }                                                                                          \
  bool TQUMA_Uuid::Name(std::string_view szUuid) {                                           \
    return Check(WithUtf8(szUuid, [&](const auto& t) { return Reader(t, _baUuid); }));       \
  }
QUMA_UUID_SINGLE_READER(_ReadStandardFormattedUuid, ReadStandard)
QUMA_UUID_SINGLE_READER(_ReadMSFormattedUuid, ReadMS)
QUMA_UUID_SINGLE_READER(_ReadBase16FormattedUuid, ReadHex)
QUMA_UUID_SINGLE_READER(_ReadBase64FormattedUuid, ReadBase64)
QUMA_UUID_SINGLE_READER(_ReadJHashpathFormattedUuid, ReadJHashPath)
QUMA_UUID_SINGLE_READER(_ReadBinaryFormattedUuid, ReadBinary)
QUMA_UUID_SINGLE_READER(_ReadWideCharFormattedUuid, ReadWideChar)
#undef QUMA_UUID_SINGLE_READER

// ---- properties ----

TBytes TQUMA_Uuid::_GetAsBytes() const { return TBytes(_baUuid, _baUuid + 16); }

TGUID TQUMA_Uuid::_GetAsGuid() const noexcept {
  TGUID g;
  g.D1 = _GetTimeLow();
  g.D2 = _GetTimeMid();
  g.D3 = _GetTimeHighAndVersion();
  std::memcpy(g.D4, _baUuid + 8, 8);
  return g;
}

UnicodeString TQUMA_Uuid::_GetAsString() const {
  UnicodeString r(8, u'\0');
  for (int k = 0; k < 8; ++k) r[k] = static_cast<char16_t>(_baUuid[2 * k] | (_baUuid[2 * k + 1] << 8));
  return r;
}

Variant TQUMA_Uuid::_GetAsVariant() const { return VarArrayFromBytes(std::span<const Byte>(_baUuid, 16), 0); }

bool TQUMA_Uuid::_GetIsZero() const noexcept {
  static constexpr Byte kZero[16] = {};
  return std::memcmp(_baUuid, kZero, 16) == 0;
}

Byte TQUMA_Uuid::_GetNode(Integer nIndex) const {
  if (nIndex < 0 || nIndex > 5) throw EArgumentOutOfRangeException(quma::Format(SUuidNodeIndex, nIndex));
  return _baUuid[10 + nIndex];
}

void TQUMA_Uuid::_SetAsBytes(std::span<const Byte> NewValue) noexcept {
  std::memcpy(_baUuid, NewValue.data(), NewValue.size() < 16 ? NewValue.size() : 16);
}

void TQUMA_Uuid::_SetAsGuid(const TGUID& NewValue) noexcept {
  _SetTimeHighAndVersion(static_cast<Word>(NewValue.D1 & 0xFFFF));
  _SetTimeMid(NewValue.D2);
  _SetTimeHighAndVersion(NewValue.D3);
  std::memcpy(_baUuid + 8, NewValue.D4, 8);
}

void TQUMA_Uuid::_SetAsString(UnicodeStringView NewValue) noexcept {
  if (NewValue.size() < 8) return;
  for (int k = 0; k < 8; ++k) {
    _baUuid[2 * k] = static_cast<Byte>(NewValue[k] & 0xFF);
    _baUuid[2 * k + 1] = static_cast<Byte>(NewValue[k] >> 8);
  }
}

namespace {

// 8-bit variant text handed to the UTF-16 reader as it is: each pair of bytes is one unit (low
// byte first), an odd last byte pairs with the zero terminator.
UnicodeString AnsiBytesAsUnits(const std::string& s) {
  UnicodeString r((s.size() + 1) / 2, u'\0');
  for (std::size_t k = 0; k < r.size(); ++k) {
    const Byte lo = static_cast<Byte>(s[2 * k]);
    const Byte hi = 2 * k + 1 < s.size() ? static_cast<Byte>(s[2 * k + 1]) : 0;
    r[k] = static_cast<char16_t>(lo | (hi << 8));
  }
  return r;
}

}  // namespace

void TQUMA_Uuid::_SetAsVariant(const Variant& NewValue) {
  switch (NewValue.VarType()) {
    case varArray | varByte:
      _SetAsBytes(NewValue.ArrayBytes());
      break;
    case varEmpty:
    case varNull:
      Zero();
      break;
    case varOleStr:
      _ReadFormattedUuid(UnicodeStringView(NewValue.AsUnicode()));
      break;
    case varString:
      _ReadFormattedUuid(UnicodeStringView(AnsiBytesAsUnits(NewValue.AsAnsi())));
      break;
    default:
      break;
  }
}

bool TQUMA_Uuid::TrySetAsVariant(const Variant& NewValue) {
  switch (NewValue.VarType()) {
    case varArray | varByte:
    case varEmpty:
    case varNull:
    case varOleStr:
      _SetAsVariant(NewValue);
      return true;
    case varString:
      try {
        _ReadFormattedUuid(UnicodeStringView(AnsiBytesAsUnits(NewValue.AsAnsi())));
      } catch (...) {
        throw EConvertError(SUuidVariantText);
      }
      return true;
    default:
      return false;
  }
}

void TQUMA_Uuid::_SetTimeLow(Cardinal nNewValue) noexcept {
  _baUuid[0] = static_cast<Byte>(nNewValue >> 24);
  _baUuid[1] = static_cast<Byte>(nNewValue >> 16);
  _baUuid[2] = static_cast<Byte>(nNewValue >> 8);
  _baUuid[3] = static_cast<Byte>(nNewValue);
}

void TQUMA_Uuid::_SetTimeMid(Word nNewValue) noexcept {
  _baUuid[4] = static_cast<Byte>(nNewValue >> 8);
  _baUuid[5] = static_cast<Byte>(nNewValue);
}

void TQUMA_Uuid::_SetTimeHighAndVersion(Word nNewValue) noexcept {
  _baUuid[6] = static_cast<Byte>(nNewValue >> 8);
  _baUuid[7] = static_cast<Byte>(nNewValue);
}

void TQUMA_Uuid::_SetVariant(Byte nNewValue) noexcept {
  // The term is shifted right, not left, so it is always 0: the top bits are only cleared.
  _baUuid[8] = static_cast<Byte>((_baUuid[8] & 0x1F) + ((nNewValue & 7) >> 5));
}

void TQUMA_Uuid::_SetVersion(Byte nNewValue) noexcept {
  _baUuid[6] = static_cast<Byte>((_baUuid[6] & 0x0F) + ((nNewValue & 0x0F) << 4));
}

// ---- operators ----

bool operator==(const TQUMA_Uuid& Left, const TQUMA_Uuid& Right) noexcept {
  return std::memcmp(Left._baUuid, Right._baUuid, 16) == 0;
}

namespace {
template <class Rel>
inline bool AllBytes(const TQUMA_Uuid& l, const TQUMA_Uuid& r, Rel rel) noexcept {
  for (int i = 0; i < 16; ++i)
    if (!rel(l._baUuid[i], r._baUuid[i])) return false;
  return true;
}
}  // namespace

bool operator>(const TQUMA_Uuid& Left, const TQUMA_Uuid& Right) noexcept {
  return AllBytes(Left, Right, [](Byte a, Byte b) { return a > b; });
}
bool operator>=(const TQUMA_Uuid& Left, const TQUMA_Uuid& Right) noexcept {
  return AllBytes(Left, Right, [](Byte a, Byte b) { return a >= b; });
}
bool operator<(const TQUMA_Uuid& Left, const TQUMA_Uuid& Right) noexcept {
  return AllBytes(Left, Right, [](Byte a, Byte b) { return a < b; });
}
bool operator<=(const TQUMA_Uuid& Left, const TQUMA_Uuid& Right) noexcept {
  return AllBytes(Left, Right, [](Byte a, Byte b) { return a <= b; });
}

}  // namespace quma
