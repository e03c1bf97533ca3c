// Hex text codecs. Both directions work sixteen bytes at a time with SSE2 (part of every x86-64)
// and fall back to table-driven loops for tails, white space and errors.
#include <quma/HexStrings.h>

#include <array>
#include <cstring>

#include <quma/SysUtils.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#define QUMA_HEX_SSE2 1
#endif

namespace quma {

namespace {

constexpr char kDigits[] = "0123456789abcdef";

// Classes of the characters below 256: 0..15 digit value, kBlank white space, kBad anything else.
constexpr Byte kBlank = 0x10;
constexpr Byte kBad = 0xFF;
constexpr std::array<Byte, 256> MakeClasses() {
  std::array<Byte, 256> t{};
  for (auto& v : t) v = kBad;
  for (int c = '0'; c <= '9'; ++c) t[c] = static_cast<Byte>(c - '0');
  for (int c = 'a'; c <= 'f'; ++c) t[c] = static_cast<Byte>(c - 'a' + 10);
  for (int c = 'A'; c <= 'F'; ++c) t[c] = static_cast<Byte>(c - 'A' + 10);
  for (int c : {9, 10, 11, 12, 13, 32}) t[c] = kBlank;
  return t;
}
constexpr std::array<Byte, 256> kClasses = MakeClasses();

template <class CharT>
inline void PutByte(CharT* out, Byte b) noexcept {
  out[0] = static_cast<CharT>(kDigits[b >> 4]);
  out[1] = static_cast<CharT>(kDigits[b & 15]);
}

// Writes 2*n digits for n bytes.
template <class CharT>
void WriteHex(CharT* out, const Byte* p, std::size_t n) noexcept {
#if QUMA_HEX_SSE2
  const __m128i mask = _mm_set1_epi8(0x0F);
  const __m128i nine = _mm_set1_epi8(9);
  const __m128i zeroChar = _mm_set1_epi8('0');
  const __m128i letterGap = _mm_set1_epi8('a' - '0' - 10);
  const __m128i zero = _mm_setzero_si128();
  auto toAscii = [&](__m128i x) {
    const __m128i gt = _mm_cmpgt_epi8(x, nine);
    return _mm_add_epi8(_mm_add_epi8(x, zeroChar), _mm_and_si128(gt, letterGap));
  };
  while (n >= 16) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    const __m128i hi = _mm_and_si128(_mm_srli_epi16(v, 4), mask);
    const __m128i lo = _mm_and_si128(v, mask);
    const __m128i a = toAscii(_mm_unpacklo_epi8(hi, lo));
    const __m128i b = toAscii(_mm_unpackhi_epi8(hi, lo));
    if constexpr (sizeof(CharT) == 2) {
      auto* o = reinterpret_cast<__m128i*>(out);
      _mm_storeu_si128(o + 0, _mm_unpacklo_epi8(a, zero));
      _mm_storeu_si128(o + 1, _mm_unpackhi_epi8(a, zero));
      _mm_storeu_si128(o + 2, _mm_unpacklo_epi8(b, zero));
      _mm_storeu_si128(o + 3, _mm_unpackhi_epi8(b, zero));
    } else {
      auto* o = reinterpret_cast<__m128i*>(out);
      _mm_storeu_si128(o + 0, a);
      _mm_storeu_si128(o + 1, b);
    }
    p += 16;
    n -= 16;
    out += 32;
  }
#endif
  for (; n; --n, out += 2) PutByte(out, *p++);
}

template <class String>
String BytesToHex(std::span<const Byte> bytes) {
  String r(bytes.size() * 2, typename String::value_type{});
  WriteHex(r.data(), bytes.data(), bytes.size());
  return r;
}

template <class String, class View>
String BytesToHexLaid(std::span<const Byte> bytes, Integer nSpaces, Integer nBytesPerLine, View sep) {
  const std::size_t n = bytes.size();
  if (n == 0) return String();
  using CharT = typename String::value_type;
  const std::size_t spaces = nSpaces > 0 ? static_cast<std::size_t>(nSpaces) : 0;
  // A negative line length is never reached by the counter: one line, like 0.
  const std::size_t perLine = nBytesPerLine > 0 ? static_cast<std::size_t>(nBytesPerLine) : n;
  if (spaces == 0 && perLine >= n) return BytesToHex<String>(bytes);
  const std::size_t lines = (n + perLine - 1) / perLine;
  const std::size_t total = n * 2 + (n - lines) * spaces + (lines - 1) * sep.size();
  String r(total, CharT{});
  CharT* out = r.data();
  const Byte* p = bytes.data();
  for (std::size_t line = 0; line < lines; ++line) {
    if (line) {
      std::copy(sep.begin(), sep.end(), out);
      out += sep.size();
    }
    const std::size_t count = line + 1 < lines ? perLine : n - line * perLine;
    if (spaces == 0) {
      WriteHex(out, p, count);
      out += count * 2;
      p += count;
      continue;
    }
    for (std::size_t i = 0; i < count; ++i) {
      if (i) {
        std::fill_n(out, spaces, CharT(' '));
        out += spaces;
      }
      PutByte(out, *p++);
      out += 2;
    }
  }
  return r;
}

[[noreturn]] void RaiseInvalid() { throw EConvertError(SHexStringInvalidCharacters); }

template <class CharT>
inline Byte ClassOf(CharT c) noexcept {
  using U = std::make_unsigned_t<CharT>;
  const U u = static_cast<U>(c);
  if constexpr (sizeof(CharT) > 1) {
    if (u > 0xFF) return kBad;
  }
  return kClasses[static_cast<Byte>(u)];
}

#if QUMA_HEX_SSE2
// Sixteen characters (as bytes; wider units saturate to 0xFF, which is invalid) to eight bytes.
// Returns false when any of them is not a hex digit.
inline bool DecodeBlock(__m128i chars, Byte* out) noexcept {
  const __m128i d = _mm_sub_epi8(chars, _mm_set1_epi8('0'));
  const __m128i isDigit = _mm_cmpeq_epi8(_mm_min_epu8(d, _mm_set1_epi8(9)), d);
  const __m128i l = _mm_sub_epi8(_mm_or_si128(chars, _mm_set1_epi8(0x20)), _mm_set1_epi8('a'));
  const __m128i isLetter = _mm_cmpeq_epi8(_mm_min_epu8(l, _mm_set1_epi8(5)), l);
  if (_mm_movemask_epi8(_mm_or_si128(isDigit, isLetter)) != 0xFFFF) return false;
  const __m128i val = _mm_or_si128(_mm_and_si128(isDigit, d),
                                   _mm_and_si128(isLetter, _mm_add_epi8(l, _mm_set1_epi8(10))));
  const __m128i hi = _mm_slli_epi16(_mm_and_si128(val, _mm_set1_epi16(0x00FF)), 4);
  const __m128i lo = _mm_srli_epi16(val, 8);
  _mm_storel_epi64(reinterpret_cast<__m128i*>(out), _mm_packus_epi16(_mm_or_si128(hi, lo), hi));
  return true;
}

template <class CharT>
inline bool Load16(const CharT* p, __m128i& chars) noexcept {
  if constexpr (sizeof(CharT) == 2) {
    const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 8));
    chars = _mm_packus_epi16(a, b);
  } else {
    chars = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
  }
  return true;
}
#endif

template <class CharT>
void HexToBytes(std::basic_string_view<CharT> text, TBytes& baBytes) {
  TBytes out(text.size() / 2);
  Byte* o = out.data();
  const CharT* p = text.data();
  const CharT* const end = p + text.size();
  int pending = -1;  // the first digit of a pair split by white space
  while (p < end) {
#if QUMA_HEX_SSE2
    if (pending < 0) {
      __m128i chars;
      while (end - p >= 16 && Load16(p, chars) && DecodeBlock(chars, o)) {
        p += 16;
        o += 8;
      }
      if (p == end) break;
    }
#endif
    const Byte cls = ClassOf(*p++);
    if (cls == kBlank) continue;
    if (cls == kBad) RaiseInvalid();
    if (pending < 0) {
      pending = cls;
    } else {
      *o++ = static_cast<Byte>((pending << 4) | cls);
      pending = -1;
    }
  }
  if (pending >= 0) RaiseInvalid();  // odd number of digits
  out.resize(static_cast<std::size_t>(o - out.data()));
  baBytes = std::move(out);
}

}  // namespace

UnicodeString BytesToHexString(std::span<const Byte> baBytes) { return BytesToHex<UnicodeString>(baBytes); }

UnicodeString BytesToHexString(std::span<const Byte> baBytes, Integer nSpaces, Integer nBytesPerLine,
                               UnicodeStringView szLineSeparator) {
  return BytesToHexLaid<UnicodeString>(baBytes, nSpaces, nBytesPerLine, szLineSeparator);
}

std::string BytesToHexStringUtf8(std::span<const Byte> baBytes) { return BytesToHex<std::string>(baBytes); }

std::string BytesToHexStringUtf8(std::span<const Byte> baBytes, Integer nSpaces, Integer nBytesPerLine,
                                 std::string_view szLineSeparator) {
  return BytesToHexLaid<std::string>(baBytes, nSpaces, nBytesPerLine, szLineSeparator);
}

void HexStringToBytes(UnicodeStringView text, TBytes& baBytes) { HexToBytes(text, baBytes); }

// UTF-8 bytes of non-ASCII characters are all >= 0x80 and rejected, exactly as their UTF-16
// units would be, so the text is scanned as it is.
void HexStringToBytes(std::string_view text, TBytes& baBytes) { HexToBytes(text, baBytes); }

}  // namespace quma
