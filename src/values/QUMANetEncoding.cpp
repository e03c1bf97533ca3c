// Base32 works on whole groups (five bytes, eight characters) with table look-ups and falls back
// to a bit-by-bit walk for the last group, padding and errors; both give the same results as the
// five-bit state machine of RFC 4648.
#include <quma/QUMANetEncoding.h>

#include <array>
#include <cstring>

#include <quma/Strings.h>
#include <quma/SysUtils.h>

namespace quma {

std::atomic<TQUMABase32Encoding*> TQUMANetEncoding::FBase32Encoding{nullptr};

namespace {

// Frees the shared encoder when the library unloads.
struct TBase32Finaliser {
  std::atomic<TQUMABase32Encoding*>* Slot;
  ~TBase32Finaliser() { Free(Slot->exchange(nullptr)); }
};

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZ234567";

// Ten bits to two characters, as one store.
template <class Pair>
constexpr std::array<Pair, 1024> MakePairs() {
  std::array<Pair, 1024> t{};
  constexpr int shift = sizeof(Pair) * 4;
  for (int v = 0; v < 1024; ++v)
    t[v] = static_cast<Pair>(static_cast<Pair>(static_cast<Byte>(kAlphabet[v >> 5])) |
                             (static_cast<Pair>(static_cast<Byte>(kAlphabet[v & 31])) << shift));
  return t;
}
constexpr auto kPairs16 = MakePairs<std::uint32_t>();  // two UTF-16 units
constexpr auto kPairs8 = MakePairs<std::uint16_t>();   // two 8-bit characters

constexpr Byte kPad = 0xFE, kBad = 0xFF;
constexpr std::array<Byte, 256> MakeValues() {
  std::array<Byte, 256> t{};
  for (auto& v : t) v = kBad;
  for (int c = 'A'; c <= 'Z'; ++c) t[c] = static_cast<Byte>(c - 'A');
  for (int c = 'a'; c <= 'z'; ++c) t[c] = static_cast<Byte>(c - 'a');
  for (int c = '2'; c <= '7'; ++c) t[c] = static_cast<Byte>(c - '2' + 26);
  t['='] = kPad;
  return t;
}
constexpr std::array<Byte, 256> kValues = MakeValues();

template <class CharT>
inline Byte ByteOf(CharT c) noexcept {
  return static_cast<Byte>(static_cast<std::make_unsigned_t<CharT>>(c) & 0xFF);
}

template <class InT, class OutT>
void Encode(const InT* in, std::size_t n, OutT* out) noexcept {
  using Pair = std::conditional_t<sizeof(OutT) == 2, std::uint32_t, std::uint16_t>;
  const auto& pairs = [] {
    if constexpr (sizeof(OutT) == 2)
      return kPairs16;
    else
      return kPairs8;
  }();
  for (; n >= 5; n -= 5, in += 5, out += 8) {
    const UInt64 v = (UInt64{ByteOf(in[0])} << 32) | (UInt64{ByteOf(in[1])} << 24) |
                     (UInt64{ByteOf(in[2])} << 16) | (UInt64{ByteOf(in[3])} << 8) | ByteOf(in[4]);
    const Pair p[4] = {pairs[(v >> 30) & 1023], pairs[(v >> 20) & 1023], pairs[(v >> 10) & 1023], pairs[v & 1023]};
    std::memcpy(out, p, sizeof p);
  }
  if (n == 0) return;
  // The last group: ceil(8n/5) characters from the remaining bits (zero-filled), then padding.
  UInt64 v = 0;
  for (std::size_t i = 0; i < 5; ++i) v = (v << 8) | (i < n ? ByteOf(in[i]) : 0);
  const std::size_t chars = (n * 8 + 4) / 5;
  for (std::size_t i = 0; i < 8; ++i)
    out[i] = static_cast<OutT>(i < chars ? kAlphabet[(v >> (35 - 5 * i)) & 31] : '=');
}

template <class InT, class OutT>
std::size_t Decode(const InT* in, std::size_t n, OutT* out) {
  OutT* const start = out;
  std::size_t i = 0;
  auto valueOf = [](InT c) noexcept -> Byte {
    const auto u = static_cast<std::make_unsigned_t<InT>>(c);
    if constexpr (sizeof(InT) > 1) {
      if (u > 0xFF) return kBad;
    }
    return kValues[static_cast<Byte>(u)];
  };
  // Whole groups of eight characters that hold no padding and no stranger.
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
String EncodeString(const InT* in, std::size_t n) {
  String r((n + 4) / 5 * 8, typename String::value_type{});
  Encode(in, n, r.data());
  return r;
}

template <class String, class InT>
String DecodeString(const InT* in, std::size_t n) {
  String r((n * 5 + 7) / 8, typename String::value_type{});
  r.resize(Decode(in, n, r.data()));
  return r;
}

}  // namespace

TQUMABase32Encoding* TQUMANetEncoding::GetBase32Encoding() {
  static TBase32Finaliser finaliser{&FBase32Encoding};
  return SharedInstance<TQUMABase32Encoding>(FBase32Encoding, [] { return New<TQUMABase32Encoding>(); });
}

UnicodeString TQUMABase32Encoding::DoEncode(UnicodeStringView Input) {
  return EncodeString<UnicodeString>(Input.data(), Input.size());
}

UnicodeString TQUMABase32Encoding::DoDecode(UnicodeStringView Input) {
  return DecodeString<UnicodeString>(Input.data(), Input.size());
}

std::string TQUMABase32Encoding::DoEncodeUtf8(std::string_view Input) {
  return EncodeString<std::string>(Input.data(), Input.size());
}

std::string TQUMABase32Encoding::DoDecodeUtf8(std::string_view Input) {
  for (std::size_t i = 0; i < Input.size(); ++i) {
    const auto c = static_cast<unsigned char>(Input[i]);
    if (c == '=') break;
    // A non-ASCII character is reported as the character it is, at its UTF-16 offset.
    if (c >= 0x80) {
      const UnicodeString text = Utf8ToUtf16(Input);
      const UnicodeString bytes = DecodeString<UnicodeString>(text.data(), text.size());
      return std::string(bytes.begin(), bytes.end());
    }
  }
  return DecodeString<std::string>(Input.data(), Input.size());
}

TURLEncoding::TUnsafeChars TQUMAURLEncoding::_GetUnsafeAuthChars() const { return inherited::_GetUnsafeAuthChars(); }
TURLEncoding::TUnsafeChars TQUMAURLEncoding::_GetUnsafeFormChars() const { return inherited::_GetUnsafeFormChars(); }
TURLEncoding::TUnsafeChars TQUMAURLEncoding::_GetUnsafePathChars() const { return inherited::_GetUnsafePathChars(); }
TURLEncoding::TUnsafeChars TQUMAURLEncoding::_GetUnsafeQueryChars() const {
  return inherited::_GetUnsafeQueryChars() + TUnsafeChars{'&', '='};
}

}  // namespace quma
