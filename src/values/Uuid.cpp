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

#if defined(__SSE2__)
#include <emmintrin.h>
#define QUMA_UUID_SSE2 1
#endif

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

// Two hex digits per byte as one store of two units (little-endian): 32 bits for UTF-16, 16 for
// UTF-8.
template <class CharT, bool Upper>
constexpr auto MakeHexPairs() {
  using TPair = std::conditional_t<sizeof(CharT) == 2, std::uint32_t, std::uint16_t>;
  const char* digits = Upper ? "0123456789ABCDEF" : "0123456789abcdef";
  std::array<TPair, 256> t{};
  for (int b = 0; b < 256; ++b)
    t[b] = static_cast<TPair>(static_cast<TPair>(static_cast<Byte>(digits[b >> 4])) |
                              (static_cast<TPair>(static_cast<Byte>(digits[b & 15])) << (8 * sizeof(CharT))));
  return t;
}
template <class CharT, bool Upper>
constexpr auto kHexPairs = MakeHexPairs<CharT, Upper>();

template <bool Upper, class CharT>
inline CharT* PutPair(CharT* out, Byte b) noexcept {
  const auto v = kHexPairs<CharT, Upper>[b];
  std::memcpy(out, &v, sizeof v);
  return out + 2;
}

#if QUMA_UUID_SSE2
// The 32 digits of the sixteen bytes, as bytes: digits 0..15 in lo, 16..31 in hi.
template <bool Upper>
inline void HexDigits(const Byte* b, __m128i& lo, __m128i& hi) noexcept {
  const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b));
  const __m128i nibble = _mm_set1_epi8(0x0F);
  const __m128i high = _mm_and_si128(_mm_srli_epi16(v, 4), nibble);
  const __m128i low = _mm_and_si128(v, nibble);
  const auto ascii = [](__m128i d) noexcept {
    const __m128i letters = _mm_and_si128(_mm_cmpgt_epi8(d, _mm_set1_epi8(9)), _mm_set1_epi8(Upper ? 7 : 39));
    return _mm_add_epi8(_mm_add_epi8(d, _mm_set1_epi8('0')), letters);
  };
  lo = ascii(_mm_unpacklo_epi8(high, low));
  hi = ascii(_mm_unpackhi_epi8(high, low));
}

inline void Store8(void* p, __m128i v) noexcept { _mm_storel_epi64(static_cast<__m128i*>(p), v); }
inline void Store16(void* p, __m128i v) noexcept { _mm_storeu_si128(static_cast<__m128i*>(p), v); }
inline void Store4(void* p, __m128i v) noexcept {
  const int x = _mm_cvtsi128_si32(v);
  std::memcpy(p, &x, 4);
}
inline __m128i High8(__m128i v) noexcept { return _mm_unpackhi_epi64(v, v); }

// Groups of 8, 4, 4, 4 and 12 digits at 0, 9, 14, 19 and 24 (the dashes are written apart).
inline void StoreGrouped(char16_t* out, __m128i lo, __m128i hi) noexcept {
  const __m128i zero = _mm_setzero_si128();
  const __m128i u1 = _mm_unpackhi_epi8(lo, zero), u2 = _mm_unpacklo_epi8(hi, zero);
  Store16(out, _mm_unpacklo_epi8(lo, zero));
  Store8(out + 9, u1);
  Store8(out + 14, High8(u1));
  Store8(out + 19, u2);
  Store8(out + 24, High8(u2));
  Store16(out + 28, _mm_unpackhi_epi8(hi, zero));
}
inline void StoreGrouped(char* out, __m128i lo, __m128i hi) noexcept {
  Store8(out, lo);
  Store4(out + 9, _mm_srli_si128(lo, 8));
  Store4(out + 14, _mm_srli_si128(lo, 12));
  Store4(out + 19, hi);
  Store8(out + 24, _mm_srli_si128(hi, 4));
  Store4(out + 32, _mm_srli_si128(hi, 12));
}
inline void StorePlain(char16_t* out, __m128i lo, __m128i hi) noexcept {
  const __m128i zero = _mm_setzero_si128();
  Store16(out, _mm_unpacklo_epi8(lo, zero));
  Store16(out + 8, _mm_unpackhi_epi8(lo, zero));
  Store16(out + 16, _mm_unpacklo_epi8(hi, zero));
  Store16(out + 24, _mm_unpackhi_epi8(hi, zero));
}
inline void StorePlain(char* out, __m128i lo, __m128i hi) noexcept {
  Store16(out, lo);
  Store16(out + 16, hi);
}
#endif

// The grouped form: 4-2-2-2-6 bytes with "-" between groups (36 units at out).
template <bool Upper, class CharT>
inline CharT* PutGrouped(CharT* out, const Byte* b) noexcept {
#if QUMA_UUID_SSE2
  __m128i lo, hi;
  HexDigits<Upper>(b, lo, hi);
  StoreGrouped(out, lo, hi);
#else
  static constexpr Byte kPos[16] = {0, 2, 4, 6, 9, 11, 14, 16, 19, 21, 24, 26, 28, 30, 32, 34};
  for (int i = 0; i < 16; ++i) PutPair<Upper>(out + kPos[i], b[i]);
#endif
  out[8] = out[13] = out[18] = out[23] = CharT('-');
  return out + 36;
}

// The 32 digits without separators.
template <class CharT>
inline CharT* PutHex(CharT* out, const Byte* b) noexcept {
#if QUMA_UUID_SSE2
  __m128i lo, hi;
  HexDigits<false>(b, lo, hi);
  StorePlain(out, lo, hi);
  return out + 32;
#else
  for (int i = 0; i < 16; ++i) out = PutPair<false>(out, b[i]);
  return out;
#endif
}

// RFC 4648 Base64 with padding: 16 bytes are 22 digits and "==".
template <class CharT>
inline CharT* PutBase64(CharT* out, const Byte* b) noexcept {
  static constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (int i = 0; i < 15; i += 3) {
    const Cardinal v = (Cardinal{b[i]} << 16) | (Cardinal{b[i + 1]} << 8) | b[i + 2];
    for (int k = 18; k >= 0; k -= 6) *out++ = CharT(kDigits[(v >> k) & 63]);
  }
  *out++ = CharT(kDigits[b[15] >> 2]);
  *out++ = CharT(kDigits[(b[15] & 3) << 4]);
  *out++ = CharT('=');
  *out++ = CharT('=');
  return out;
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

// The first five bytes of the UTF-16 text "QUMA-" mark an internal reference, whose default text
// is not ASCII.
bool IsInternalReference(const Byte* b) noexcept {
  return b[0] == 'Q' && b[1] == 0 && b[2] == 'U' && b[3] == 0 && b[4] == 'M';
}

// The forms whose text is ASCII, in either unit type. Returns the end, or nullptr for the binary
// form and an internal reference's default text.
template <class CharT>
CharT* PutAscii(const Byte* b, TFormKind kind, CharT* out) noexcept {
  switch (kind) {
    case TFormKind::MS:
      *out++ = CharT('{');
      out = PutGrouped<true>(out, b);
      *out++ = CharT('}');
      return out;
    case TFormKind::Base64:
      return PutBase64(out, b);
    case TFormKind::Hex:
      return PutHex(out, b);
    case TFormKind::JHashPath: {
      const Cardinal h = LookupHash(b);
      out = PutPair<false>(out, static_cast<Byte>(h >> 8));
      *out++ = CharT('\\');
      out = PutPair<false>(out, static_cast<Byte>(h));
      *out++ = CharT('\\');
      return PutHex(out, b);
    }
    case TFormKind::Binary:
      return nullptr;
    case TFormKind::Default:
      break;
  }
  return IsInternalReference(b) ? nullptr : PutGrouped<false>(out, b);
}

// Every form in UTF-16 (at most TQUMA_Uuid::MaxTextLength units). Returns the end.
char16_t* PutText(const TQUMA_Uuid& u, TFormKind kind, char16_t* out) noexcept {
  const Byte* b = u._baUuid;
  if (char16_t* end = PutAscii(b, kind, out)) return end;
  if (kind == TFormKind::Binary) {  // eight units, low byte first
    for (int k = 0; k < 8; ++k) *out++ = static_cast<char16_t>(b[2 * k] | (b[2 * k + 1] << 8));
    return out;
  }
  static constexpr char16_t kPrefix[] = u"Internal Reference: ";
  out = std::copy(kPrefix, kPrefix + 20, out);
  for (int i = 0; i < 16; ++i) *out++ = static_cast<char16_t>(b[i]);
  return out;
}

// UTF-16 to UTF-8 as Utf16ToUtf8 converts (a lone surrogate becomes U+FFFD), into out.
char* PutUtf8(const char16_t* p, const char16_t* end, char* out) noexcept {
  while (p < end) {
    char32_t cp = *p++;
    if (cp >= 0xD800 && cp <= 0xDBFF && p < end && *p >= 0xDC00 && *p <= 0xDFFF)
      cp = 0x10000 + ((cp - 0xD800) << 10) + (*p++ - 0xDC00);
    else if (cp >= 0xD800 && cp <= 0xDFFF)
      cp = 0xFFFD;
    if (cp < 0x80) {
      *out++ = static_cast<char>(cp);
    } else if (cp < 0x800) {
      *out++ = static_cast<char>(0xC0 | (cp >> 6));
      *out++ = static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
      *out++ = static_cast<char>(0xE0 | (cp >> 12));
      *out++ = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      *out++ = static_cast<char>(0x80 | (cp & 0x3F));
    } else {
      *out++ = static_cast<char>(0xF0 | (cp >> 18));
      *out++ = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
      *out++ = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      *out++ = static_cast<char>(0x80 | (cp & 0x3F));
    }
  }
  return out;
}

// Every form in UTF-8 (at most TQUMA_Uuid::MaxUtf8TextLength bytes). Returns the end.
char* PutText(const TQUMA_Uuid& u, TFormKind kind, char* out) noexcept {
  if (char* end = PutAscii(u._baUuid, kind, out)) return end;
  char16_t wide[TQUMA_Uuid::MaxTextLength];
  return PutUtf8(wide, PutText(u, kind, wide), out);
}

// Into a caller's buffer: the length, or 0 when it does not fit (nothing written then).
template <class CharT>
std::size_t FormatInto(const TQUMA_Uuid& u, TFormKind kind, std::span<CharT> buffer) noexcept {
  constexpr std::size_t kMax = sizeof(CharT) == 2 ? TQUMA_Uuid::MaxTextLength : TQUMA_Uuid::MaxUtf8TextLength;
  if (buffer.size() >= kMax) return static_cast<std::size_t>(PutText(u, kind, buffer.data()) - buffer.data());
  CharT local[kMax];
  const std::size_t n = static_cast<std::size_t>(PutText(u, kind, local) - local);
  if (n > buffer.size()) return 0;
  std::copy(local, local + n, buffer.data());
  return n;
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

namespace {
// The string forms: the usual standard text straight into the string, the rest through a stack
// buffer.
UnicodeString FormatString(const TQUMA_Uuid& u, TFormKind kind) {
  if (kind == TFormKind::Default && !IsInternalReference(u._baUuid)) {
    UnicodeString r(36, u'-');
    PutGrouped<false>(r.data(), u._baUuid);
    return r;
  }
  char16_t text[TQUMA_Uuid::MaxTextLength];
  return UnicodeString(text, PutText(u, kind, text));
}
}  // namespace

UnicodeString TQUMA_Uuid::Format(UnicodeStringView szFormat) const { return FormatString(*this, KindOf(szFormat)); }

UnicodeString TQUMA_Uuid::Format(std::string_view szFormat) const { return FormatString(*this, KindOf(szFormat)); }

std::string TQUMA_Uuid::FormatUtf8(std::string_view szFormat) const {
  char text[MaxUtf8TextLength];
  return std::string(text, PutText(*this, KindOf(szFormat), text));
}

std::size_t TQUMA_Uuid::FormatTo(std::span<char16_t> Buffer, UnicodeStringView szFormat) const noexcept {
  return FormatInto(*this, KindOf(szFormat), Buffer);
}

std::size_t TQUMA_Uuid::FormatTo(std::span<char16_t> Buffer, std::string_view szFormat) const noexcept {
  return FormatInto(*this, KindOf(szFormat), Buffer);
}

std::size_t TQUMA_Uuid::FormatTo(std::span<char> Buffer, std::string_view szFormat) const noexcept {
  return FormatInto(*this, KindOf(szFormat), Buffer);
}

namespace {
TFormKind KindOfSpec(std::string_view code) {
  if (code.empty() || code == "D") return TFormKind::Default;
  if (code == "B") return TFormKind::MS;
  if (code == "N") return TFormKind::Hex;
  throw EConvertError(SUuidUnrecognisedFormat);
}
}  // namespace

std::string TQUMA_Uuid::FormatSpec(std::string_view Spec) const {
  char text[MaxUtf8TextLength];
  return std::string(text, PutText(*this, KindOfSpec(Spec), text));
}

std::size_t TQUMA_Uuid::FormatSpecTo(std::span<char> Buffer, std::string_view Spec) const {
  return FormatInto(*this, KindOfSpec(Spec), Buffer);
}

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
