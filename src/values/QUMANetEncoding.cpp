// Base32 works on whole groups (five bytes, eight characters) with table look-ups and falls back
// to a bit-by-bit walk for the last group, padding, hyphens and errors; both give the same results
// as the five-bit state machine of RFC 4648. Each alphabet is a set of tables, so the standard,
// extended-hex and Crockford alphabets share the codec; the standard one also has an SSE2
// classifier for its decoder.
#include <quma/QUMANetEncoding.h>

#include <array>
#include <cstring>

#include <quma/Strings.h>
#include <quma/SysUtils.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#define QUMA_BASE32_SSE2 1
#endif

namespace quma {

std::atomic<TQUMABase32Encoding*> TQUMANetEncoding::FBase32Encoding{nullptr};

namespace {

// Frees the shared encoder when the library unloads.
struct TBase32Finaliser {
  std::atomic<TQUMABase32Encoding*>* Slot;
  ~TBase32Finaliser() { Free(Slot->exchange(nullptr)); }
};

constexpr Byte kPad = 0xFE, kBad = 0xFF, kSkip = 0xFD;

// One alphabet: its digits, two of them per ten bits as one store (UTF-16 and 8-bit), and the
// value of every character for decoding (both cases; Crockford's extra readings and hyphens).
struct TAlphabet {
  std::array<std::uint32_t, 1024> Pairs16;
  std::array<std::uint16_t, 1024> Pairs8;
  std::array<Byte, 256> Values;
  char Digits[33];
};

constexpr TAlphabet MakeAlphabet(const char (&digits)[33], bool crockford) {
  TAlphabet a{};
  for (int i = 0; i < 33; ++i) a.Digits[i] = digits[i];
  for (int v = 0; v < 1024; ++v) {
    const auto hi = static_cast<Byte>(digits[v >> 5]), lo = static_cast<Byte>(digits[v & 31]);
    a.Pairs16[v] = static_cast<std::uint32_t>(hi | (std::uint32_t{lo} << 16));
    a.Pairs8[v] = static_cast<std::uint16_t>(hi | (lo << 8));
  }
  for (auto& v : a.Values) v = kBad;
  for (int i = 0; i < 32; ++i) {
    const auto c = static_cast<Byte>(digits[i]);
    a.Values[c] = static_cast<Byte>(i);
    if (c >= 'A' && c <= 'Z') a.Values[c + 32] = static_cast<Byte>(i);
  }
  a.Values['='] = kPad;
  if (crockford) {
    for (char c : {'I', 'i', 'L', 'l'}) a.Values[static_cast<Byte>(c)] = 1;
    for (char c : {'O', 'o'}) a.Values[static_cast<Byte>(c)] = 0;
    a.Values['-'] = kSkip;
  }
  return a;
}

constexpr TAlphabet kStandard = MakeAlphabet("ABCDEFGHIJKLMNOPQRSTUVWXYZ234567", false);
constexpr TAlphabet kExtendedHex = MakeAlphabet("0123456789ABCDEFGHIJKLMNOPQRSTUV", false);
constexpr TAlphabet kCrockford = MakeAlphabet("0123456789ABCDEFGHJKMNPQRSTVWXYZ", true);

const TAlphabet& AlphabetOf(TQUMABase32Alphabet a) noexcept {
  switch (a) {
    case TQUMABase32Alphabet::ExtendedHex:
      return kExtendedHex;
    case TQUMABase32Alphabet::Crockford:
      return kCrockford;
    case TQUMABase32Alphabet::Standard:
      break;
  }
  return kStandard;
}

template <class CharT>
inline Byte ByteOf(CharT c) noexcept {
  return static_cast<Byte>(static_cast<std::make_unsigned_t<CharT>>(c) & 0xFF);
}

// Returns the number of characters written: ceil(8n/5), padded to a multiple of eight with "="
// when pad is set.
template <class InT, class OutT>
std::size_t Encode(const TAlphabet& a, bool pad, const InT* in, std::size_t n, OutT* out) noexcept {
  using Pair = std::conditional_t<sizeof(OutT) == 2, std::uint32_t, std::uint16_t>;
  const Pair* pairs = [&a] {
    if constexpr (sizeof(OutT) == 2)
      return a.Pairs16.data();
    else
      return a.Pairs8.data();
  }();
  OutT* const start = out;
  for (; n >= 5; n -= 5, in += 5, out += 8) {
    const UInt64 v = (UInt64{ByteOf(in[0])} << 32) | (UInt64{ByteOf(in[1])} << 24) |
                     (UInt64{ByteOf(in[2])} << 16) | (UInt64{ByteOf(in[3])} << 8) | ByteOf(in[4]);
    const Pair p[4] = {pairs[(v >> 30) & 1023], pairs[(v >> 20) & 1023], pairs[(v >> 10) & 1023], pairs[v & 1023]};
    std::memcpy(out, p, sizeof p);
  }
  if (n > 0) {
    // The last group: ceil(8n/5) characters from the remaining bits (zero-filled), then padding.
    UInt64 v = 0;
    for (std::size_t i = 0; i < 5; ++i) v = (v << 8) | (i < n ? ByteOf(in[i]) : 0);
    const std::size_t chars = (n * 8 + 4) / 5;
    for (std::size_t i = 0; i < chars; ++i) *out++ = static_cast<OutT>(a.Digits[(v >> (35 - 5 * i)) & 31]);
    if (pad)
      for (std::size_t i = chars; i < 8; ++i) *out++ = static_cast<OutT>('=');
  }
  return static_cast<std::size_t>(out - start);
}

#if QUMA_BASE32_SSE2
// Sixteen characters (two groups; wider units saturate to invalid bytes) to their five-bit
// values. False when any of them is outside the alphabet (padding included).
inline bool Values16(__m128i c, __m128i& v) noexcept {
  const __m128i l = _mm_sub_epi8(_mm_or_si128(c, _mm_set1_epi8(0x20)), _mm_set1_epi8('a'));
  const __m128i isLetter = _mm_cmpeq_epi8(_mm_min_epu8(l, _mm_set1_epi8(25)), l);
  const __m128i d = _mm_sub_epi8(c, _mm_set1_epi8('2'));
  const __m128i isDigit = _mm_cmpeq_epi8(_mm_min_epu8(d, _mm_set1_epi8(5)), d);
  if (_mm_movemask_epi8(_mm_or_si128(isLetter, isDigit)) != 0xFFFF) return false;
  v = _mm_or_si128(_mm_and_si128(isLetter, l), _mm_and_si128(isDigit, _mm_add_epi8(d, _mm_set1_epi8(26))));
  return true;
}

// The 80 bits of two groups as ten bytes in order, in the low bytes of the result.
inline __m128i Pack16(__m128i v) noexcept {
  // Pairs of values to 10 bits, then pairs of those to 20 bits per 32-bit lane.
  const __m128i w = _mm_or_si128(_mm_slli_epi16(_mm_and_si128(v, _mm_set1_epi16(0x00FF)), 5), _mm_srli_epi16(v, 8));
  const __m128i q = _mm_madd_epi16(w, _mm_set1_epi32((1 << 16) | 1024));
  const auto lo = static_cast<UInt64>(_mm_cvtsi128_si64(q));
  const auto hi = static_cast<UInt64>(_mm_cvtsi128_si64(_mm_unpackhi_epi64(q, q)));
  const UInt64 g0 = ((lo & 0xFFFFF) << 20) | (lo >> 32);
  const UInt64 g1 = ((hi & 0xFFFFF) << 20) | (hi >> 32);
  const UInt64 b0 = __builtin_bswap64(g0 << 24);  // bytes of group 0 in order, low five bytes
  const UInt64 b1 = __builtin_bswap64(g1 << 24);
  return _mm_set_epi64x(static_cast<long long>(b1 >> 24), static_cast<long long>(b0 | (b1 << 40)));
}

template <class InT>
inline __m128i Load16(const InT* p) noexcept {
  if constexpr (sizeof(InT) == 2) {
    const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 8));
    return _mm_packus_epi16(a, b);
  } else {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
  }
}
#endif

template <class InT, class OutT>
std::size_t Decode(const TAlphabet& a, const InT* in, std::size_t n, OutT* out) {
  OutT* const start = out;
  std::size_t i = 0;
#if QUMA_BASE32_SSE2
  // Two groups at a time while the output has room for a full sixteen-byte store (the vector
  // classifier knows the standard alphabet only).
  while (&a == &kStandard && n - i >= 32) {
    __m128i v;
    if (!Values16(Load16(in + i), v)) break;
    const __m128i bytes = Pack16(v);
    if constexpr (sizeof(OutT) == 2) {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_unpacklo_epi8(bytes, _mm_setzero_si128()));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 8), _mm_unpackhi_epi8(bytes, _mm_setzero_si128()));
    } else {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out), bytes);
    }
    out += 10;
    i += 16;
  }
#endif
  auto valueOf = [&a](InT c) noexcept -> Byte {
    const auto u = static_cast<std::make_unsigned_t<InT>>(c);
    if constexpr (sizeof(InT) > 1) {
      if (u > 0xFF) return kBad;
    }
    return a.Values[static_cast<Byte>(u)];
  };
  // Whole groups of eight characters that hold no padding, hyphen or stranger.
  while (n - i >= 8) {
    Byte v[8];
    Byte any = 0;
    for (int k = 0; k < 8; ++k) any |= v[k] = valueOf(in[i + k]);
    if (any & 0xE0) break;
    const UInt64 bits = (UInt64{v[0]} << 35) | (UInt64{v[1]} << 30) | (UInt64{v[2]} << 25) | (UInt64{v[3]} << 20) |
                        (UInt64{v[4]} << 15) | (UInt64{v[5]} << 10) | (UInt64{v[6]} << 5) | v[7];
    out[0] = static_cast<OutT>(static_cast<Byte>(bits >> 32));
    out[1] = static_cast<OutT>(static_cast<Byte>(bits >> 24));
    out[2] = static_cast<OutT>(static_cast<Byte>(bits >> 16));
    out[3] = static_cast<OutT>(static_cast<Byte>(bits >> 8));
    out[4] = static_cast<OutT>(static_cast<Byte>(bits));
    out += 5;
    i += 8;
  }
  // The rest, five bits at a time; a byte is emitted whenever eight bits are gathered.
  std::uint32_t acc = 0;
  int bits = 0;
  for (; i < n; ++i) {
    const Byte v = valueOf(in[i]);
    if (v == kPad) break;
    if (v == kSkip) continue;
    if (v == kBad) {
      const char16_t c = static_cast<char16_t>(static_cast<std::make_unsigned_t<InT>>(in[i]));
      throw EConvertError(quma::Format(SBase32InvalidCharacter, UnicodeString(1, c), i));
    }
    acc = (acc << 5) | v;
    bits += 5;
    if (bits >= 8) {
      bits -= 8;
      *out++ = static_cast<OutT>(static_cast<Byte>(acc >> bits));
    }
  }
  return static_cast<std::size_t>(out - start);
}

template <class String, class InT>
String EncodeString(const TAlphabet& a, bool pad, const InT* in, std::size_t n) {
  String r((n + 4) / 5 * 8, typename String::value_type{});
  r.resize(Encode(a, pad, in, n, r.data()));
  return r;
}

template <class String, class InT>
String DecodeString(const TAlphabet& a, const InT* in, std::size_t n) {
  String r((n * 5 + 7) / 8, typename String::value_type{});
  r.resize(Decode(a, in, n, r.data()));
  return r;
}

}  // namespace

TQUMABase32Encoding* TQUMANetEncoding::GetBase32Encoding() {
  static TBase32Finaliser finaliser{&FBase32Encoding};
  return SharedInstance<TQUMABase32Encoding>(FBase32Encoding, [] { return New<TQUMABase32Encoding>(); });
}

TQUMABase32Encoding::TQUMABase32Encoding(TQUMABase32Alphabet Alphabet, bool Padding) noexcept
    : FAlphabet(Alphabet), FPadding(Padding) {}

UnicodeString TQUMABase32Encoding::DoEncode(UnicodeStringView Input) {
  return EncodeString<UnicodeString>(AlphabetOf(FAlphabet), FPadding, Input.data(), Input.size());
}

UnicodeString TQUMABase32Encoding::DoDecode(UnicodeStringView Input) {
  return DecodeString<UnicodeString>(AlphabetOf(FAlphabet), Input.data(), Input.size());
}

std::string TQUMABase32Encoding::DoEncodeUtf8(std::string_view Input) {
  return EncodeString<std::string>(AlphabetOf(FAlphabet), FPadding, Input.data(), Input.size());
}

std::string TQUMABase32Encoding::DoDecodeUtf8(std::string_view Input) {
  const TAlphabet& a = AlphabetOf(FAlphabet);
  for (std::size_t i = 0; i < Input.size(); ++i) {
    const auto c = static_cast<unsigned char>(Input[i]);
    if (c == '=') break;
    // A non-ASCII character is reported as the character it is, at its UTF-16 offset.
    if (c >= 0x80) {
      const UnicodeString text = Utf8ToUtf16(Input);
      const UnicodeString bytes = DecodeString<UnicodeString>(a, text.data(), text.size());
      return std::string(bytes.begin(), bytes.end());
    }
  }
  return DecodeString<std::string>(a, Input.data(), Input.size());
}

TURLEncoding::TUnsafeChars TQUMAURLEncoding::_GetUnsafeAuthChars() const { return inherited::_GetUnsafeAuthChars(); }
TURLEncoding::TUnsafeChars TQUMAURLEncoding::_GetUnsafeFormChars() const { return inherited::_GetUnsafeFormChars(); }
TURLEncoding::TUnsafeChars TQUMAURLEncoding::_GetUnsafePathChars() const { return inherited::_GetUnsafePathChars(); }
TURLEncoding::TUnsafeChars TQUMAURLEncoding::_GetUnsafeQueryChars() const {
  return inherited::_GetUnsafeQueryChars() + TUnsafeChars{'&', '='};
}

}  // namespace quma
