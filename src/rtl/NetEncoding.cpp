#include <quma/NetEncoding.h>

#include <array>

#include <quma/Strings.h>
#include <quma/SysUtils.h>

namespace quma {

namespace {

// Frees the shared instances when the library unloads.
template <class T>
struct TSharedSlot {
  std::atomic<T*> Instance{nullptr};
  ~TSharedSlot() { Free(Instance.exchange(nullptr)); }
};

TSharedSlot<TBase64Encoding> GBase64;
TSharedSlot<TBase64Encoding> GBase64String;
TSharedSlot<TURLEncoding> GURL;

UnicodeString BytesToUnits(std::span<const Byte> bytes) { return UnicodeString(bytes.begin(), bytes.end()); }

TBytes UnitsToBytes(UnicodeStringView units) {
  TBytes r(units.size());
  for (std::size_t i = 0; i < units.size(); ++i) {
    if (units[i] > 0xFF) throw EEncodingError(u"Encoded text holds a character outside 0..255");
    r[i] = static_cast<Byte>(units[i]);
  }
  return r;
}

std::span<const Byte> AsBytes(std::string_view s) noexcept {
  return {reinterpret_cast<const Byte*>(s.data()), s.size()};
}

std::span<const Byte> AsBytes(const std::string& s) noexcept { return AsBytes(std::string_view(s)); }

// ---- Base64 ----

constexpr char kBase64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr Byte kB64Skip = 0xFE, kB64Bad = 0xFF, kB64Pad = 0xFD;
constexpr std::array<Byte, 256> MakeBase64Values() {
  std::array<Byte, 256> t{};
  for (auto& v : t) v = kB64Bad;
  for (int i = 0; i < 64; ++i) t[static_cast<Byte>(kBase64Alphabet[i])] = static_cast<Byte>(i);
  for (int c : {' ', '\t', '\r', '\n'}) t[c] = kB64Skip;
  t['='] = kB64Pad;
  return t;
}
constexpr std::array<Byte, 256> kBase64Values = MakeBase64Values();

template <class CharT>
void Base64EncodeTo(std::span<const Byte> in, Integer charsPerLine, UnicodeStringView sep, CharT* out) {
  const Byte* p = in.data();
  std::size_t n = in.size();
  Integer column = 0;
  auto put = [&](char c) {
    if (charsPerLine > 0 && column == charsPerLine) {
      for (char16_t s : sep) *out++ = static_cast<CharT>(s);
      column = 0;
    }
    *out++ = static_cast<CharT>(c);
    ++column;
  };
  for (; n >= 3; n -= 3, p += 3) {
    const std::uint32_t v = (std::uint32_t{p[0]} << 16) | (std::uint32_t{p[1]} << 8) | p[2];
    put(kBase64Alphabet[v >> 18]);
    put(kBase64Alphabet[(v >> 12) & 63]);
    put(kBase64Alphabet[(v >> 6) & 63]);
    put(kBase64Alphabet[v & 63]);
  }
  if (n) {
    const std::uint32_t v = (std::uint32_t{p[0]} << 16) | (n > 1 ? std::uint32_t{p[1]} << 8 : 0);
    put(kBase64Alphabet[v >> 18]);
    put(kBase64Alphabet[(v >> 12) & 63]);
    put(n > 1 ? kBase64Alphabet[(v >> 6) & 63] : '=');
    put('=');
  }
}

template <class CharT>
TBytes Base64Decode(std::basic_string_view<CharT> in) {
  TBytes r;
  r.reserve(in.size() / 4 * 3 + 3);
  std::uint32_t acc = 0;
  int bits = 0;
  for (std::size_t i = 0; i < in.size(); ++i) {
    using U = std::make_unsigned_t<CharT>;
    const U c = static_cast<U>(in[i]);
    const Byte v = c > 0xFF ? kB64Bad : kBase64Values[c];
    if (v == kB64Skip) continue;
    if (v == kB64Pad) break;
    if (v == kB64Bad)
      throw EConvertError(
          Format(u"Invalid Base64 input character: %s at offset %d", UnicodeString(1, char16_t(c)), i));
    acc = (acc << 6) | v;
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      r.push_back(static_cast<Byte>(acc >> bits));
    }
  }
  return r;
}

// ---- URL ----

constexpr char kUpperDigits[] = "0123456789ABCDEF";

template <class CharT>
void PercentEncodeTo(std::span<const Byte> in, const TAnsiCharSet& unsafe, bool spacesAsPlus,
                     std::basic_string<CharT>& out) {
  out.reserve(in.size() + in.size() / 2);
  for (Byte b : in) {
    if (b == ' ' && spacesAsPlus) {
      out.push_back(CharT('+'));
    } else if (b < 0x21 || b > 0x7E || unsafe.Contains(b)) {
      out.push_back(CharT('%'));
      out.push_back(CharT(kUpperDigits[b >> 4]));
      out.push_back(CharT(kUpperDigits[b & 15]));
    } else {
      out.push_back(CharT(b));
    }
  }
}

int HexValue(char32_t c) noexcept {
  if (c >= '0' && c <= '9') return static_cast<int>(c - '0');
  if (c >= 'a' && c <= 'f') return static_cast<int>(c - 'a' + 10);
  if (c >= 'A' && c <= 'F') return static_cast<int>(c - 'A' + 10);
  return -1;
}

template <class CharT>
TBytes PercentDecode(std::basic_string_view<CharT> in) {
  TBytes r;
  r.reserve(in.size());
  for (std::size_t i = 0; i < in.size(); ++i) {
    const char32_t c = static_cast<std::make_unsigned_t<CharT>>(in[i]);
    if (c == '%') {
      const int hi = i + 1 < in.size() ? HexValue(static_cast<std::make_unsigned_t<CharT>>(in[i + 1])) : -1;
      const int lo = i + 2 < in.size() ? HexValue(static_cast<std::make_unsigned_t<CharT>>(in[i + 2])) : -1;
      if (hi < 0 || lo < 0) {
        UnicodeString seq;
        for (std::size_t k = i; k < in.size() && k < i + 3; ++k)
          seq.push_back(static_cast<char16_t>(static_cast<std::make_unsigned_t<CharT>>(in[k])));
        throw EConvertError(Format(u"Invalid URL encoded character (%s) at position %d", seq, i));
      }
      r.push_back(static_cast<Byte>(hi * 16 + lo));
      i += 2;
    } else if (c == '+') {
      r.push_back(' ');
    } else if constexpr (sizeof(CharT) == 1) {
      r.push_back(static_cast<Byte>(c));
    } else {
      // Unescaped text: keep it as UTF-8 (a surrogate pair is one character).
      std::size_t len = 1;
      if (c >= 0xD800 && c < 0xDC00 && i + 1 < in.size() && in[i + 1] >= 0xDC00 && in[i + 1] < 0xE000) len = 2;
      const std::string u8 = Utf16ToUtf8(UnicodeStringView(reinterpret_cast<const char16_t*>(in.data() + i), len));
      r.insert(r.end(), u8.begin(), u8.end());
      i += len - 1;
    }
  }
  return r;
}

UnicodeString BytesUtf8ToUnicode(const TBytes& bytes) {
  return Utf8ToUtf16(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

}  // namespace

// ---- TNetEncoding ----

std::string TNetEncoding::DoEncodeUtf8(std::string_view Input) { return Utf16ToUtf8(DoEncode(Utf8ToUtf16(Input))); }
std::string TNetEncoding::DoDecodeUtf8(std::string_view Input) { return Utf16ToUtf8(DoDecode(Utf8ToUtf16(Input))); }

TBytes TNetEncoding::DoEncodeBytes(std::span<const Byte> Input) { return UnitsToBytes(DoEncode(BytesToUnits(Input))); }
TBytes TNetEncoding::DoDecodeBytes(std::span<const Byte> Input) { return UnitsToBytes(DoDecode(BytesToUnits(Input))); }
UnicodeString TNetEncoding::DoEncodeBytesToString(std::span<const Byte> Input) { return DoEncode(BytesToUnits(Input)); }
TBytes TNetEncoding::DoDecodeStringToBytes(UnicodeStringView Input) { return UnitsToBytes(DoDecode(Input)); }

TBase64Encoding* TNetEncoding::Base64() {
  return SharedInstance<TBase64Encoding>(GBase64.Instance, [] { return New<TBase64Encoding>(); });
}

TBase64Encoding* TNetEncoding::Base64String() {
  return SharedInstance<TBase64Encoding>(GBase64String.Instance, [] { return New<TBase64Encoding>(0); });
}

TURLEncoding* TNetEncoding::URL() {
  return SharedInstance<TURLEncoding>(GURL.Instance, [] { return New<TURLEncoding>(); });
}

// ---- TBase64Encoding ----

TBase64Encoding::TBase64Encoding(Integer CharsPerLine, UnicodeString LineSeparator)
    : FCharsPerLine(CharsPerLine), FLineSeparator(std::move(LineSeparator)) {}

std::size_t TBase64Encoding::EncodedLength(std::size_t n) const noexcept {
  const std::size_t chars = (n + 2) / 3 * 4;
  if (FCharsPerLine <= 0 || chars == 0) return chars;
  const std::size_t breaks = (chars - 1) / static_cast<std::size_t>(FCharsPerLine);
  return chars + breaks * FLineSeparator.size();
}

UnicodeString TBase64Encoding::DoEncodeBytesToString(std::span<const Byte> Input) {
  UnicodeString r(EncodedLength(Input.size()), u'\0');
  Base64EncodeTo(Input, FCharsPerLine, FLineSeparator, r.data());
  return r;
}

TBytes TBase64Encoding::DoEncodeBytes(std::span<const Byte> Input) {
  TBytes r(EncodedLength(Input.size()));
  Base64EncodeTo(Input, FCharsPerLine, FLineSeparator, r.data());
  return r;
}

TBytes TBase64Encoding::DoDecodeStringToBytes(UnicodeStringView Input) { return Base64Decode(Input); }

TBytes TBase64Encoding::DoDecodeBytes(std::span<const Byte> Input) {
  return Base64Decode(std::string_view(reinterpret_cast<const char*>(Input.data()), Input.size()));
}

UnicodeString TBase64Encoding::DoEncode(UnicodeStringView Input) {
  return DoEncodeBytesToString(AsBytes(Utf16ToUtf8(Input)));
}

UnicodeString TBase64Encoding::DoDecode(UnicodeStringView Input) { return BytesUtf8ToUnicode(Base64Decode(Input)); }

// ---- TURLEncoding ----

TURLEncoding::TUnsafeChars TURLEncoding::_GetUnsafeAuthChars() const { return UnsafeAuthChars; }
TURLEncoding::TUnsafeChars TURLEncoding::_GetUnsafeFormChars() const { return UnsafeFormChars; }
TURLEncoding::TUnsafeChars TURLEncoding::_GetUnsafePathChars() const { return UnsafePathChars; }
TURLEncoding::TUnsafeChars TURLEncoding::_GetUnsafeQueryChars() const { return UnsafeQueryChars; }

UnicodeString TURLEncoding::EncodeWith(UnicodeStringView Input, const TUnsafeChars& Unsafe, bool SpacesAsPlus) {
  UnicodeString r;
  PercentEncodeTo(AsBytes(Utf16ToUtf8(Input)), Unsafe, SpacesAsPlus, r);
  return r;
}

UnicodeString TURLEncoding::EncodeAuth(UnicodeStringView Input) const {
  return EncodeWith(Input, _GetUnsafeAuthChars(), false);
}
UnicodeString TURLEncoding::EncodeForm(UnicodeStringView Input) const {
  return EncodeWith(Input, _GetUnsafeFormChars(), true);
}
UnicodeString TURLEncoding::EncodePath(UnicodeStringView Input) const {
  return EncodeWith(Input, _GetUnsafePathChars(), false);
}
UnicodeString TURLEncoding::EncodeQuery(UnicodeStringView Input) const {
  return EncodeWith(Input, _GetUnsafeQueryChars(), false);
}

UnicodeString TURLEncoding::URLDecode(UnicodeStringView Input) { return BytesUtf8ToUnicode(PercentDecode(Input)); }

TBytes TURLEncoding::DoEncodeBytes(std::span<const Byte> Input) {
  std::string r;
  PercentEncodeTo(Input, _GetUnsafeQueryChars(), false, r);
  return TBytes(r.begin(), r.end());
}

TBytes TURLEncoding::DoDecodeBytes(std::span<const Byte> Input) {
  return PercentDecode(std::string_view(reinterpret_cast<const char*>(Input.data()), Input.size()));
}

UnicodeString TURLEncoding::DoEncodeBytesToString(std::span<const Byte> Input) {
  UnicodeString r;
  PercentEncodeTo(Input, _GetUnsafeQueryChars(), false, r);
  return r;
}

TBytes TURLEncoding::DoDecodeStringToBytes(UnicodeStringView Input) { return PercentDecode(Input); }

}  // namespace quma
