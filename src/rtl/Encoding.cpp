#include <quma/Encoding.h>

#include <array>
#include <cstring>

namespace quma {

namespace {
[[noreturn]] void NoMapping() { throw EEncodingError(SNoMappingForUnicode); }

constexpr bool IsHigh(char16_t c) noexcept { return c >= 0xD800 && c <= 0xDBFF; }
constexpr bool IsLow(char16_t c) noexcept { return c >= 0xDC00 && c <= 0xDFFF; }

// Decoded UTF-16 must pair its surrogates. A high surrogate at the very end is an incomplete
// character (the next bytes may bring its partner), so a reader that feeds bytes one at a time
// never splits a pair.
bool SurrogatesPaired(UnicodeStringView s) noexcept {
  for (std::size_t i = 0; i < s.size(); ++i) {
    if (IsLow(s[i])) return false;
    if (IsHigh(s[i]) && (++i == s.size() || !IsLow(s[i]))) return false;
  }
  return true;
}

template <class T>
const T* Shared() noexcept {
  static T* instance = New<T>();  // process lifetime: encodings are handed out as shared objects
  return instance;
}
}  // namespace

const TEncoding* TEncoding::ANSI() noexcept { return Shared<TANSIEncoding>(); }
const TEncoding* TEncoding::ASCII() noexcept { return Shared<TASCIIEncoding>(); }
const TEncoding* TEncoding::BigEndianUnicode() noexcept { return Shared<TBigEndianUnicodeEncoding>(); }
const TEncoding* TEncoding::Unicode() noexcept { return Shared<TUnicodeEncoding>(); }
const TEncoding* TEncoding::UTF7() noexcept { return Shared<TUTF7Encoding>(); }
const TEncoding* TEncoding::UTF8() noexcept { return Shared<TUTF8Encoding>(); }

bool TEncoding::IsStandardEncoding(const TEncoding* e) noexcept {
  return e && (e == ANSI() || e == ASCII() || e == BigEndianUnicode() || e == Unicode() || e == UTF7() || e == UTF8());
}

TBytes TEncoding::GetBytes(UnicodeStringView S) const {
  TBytes out;
  out.reserve(S.size());
  DoGetBytes(S, out);
  return out;
}

UnicodeString TEncoding::GetString(const TBytes& Bytes, Integer ByteIndex, Integer ByteCount) const {
  if (ByteIndex < 0 || ByteCount < 0 || static_cast<std::size_t>(ByteIndex) + static_cast<std::size_t>(ByteCount) > Bytes.size())
    throw EArgumentOutOfRangeException(SArgumentOutOfRange);
  return GetChars(Bytes.data() + ByteIndex, static_cast<std::size_t>(ByteCount));
}

UnicodeString TEncoding::GetChars(const Byte* Bytes, std::size_t Count) const {
  UnicodeString out;
  out.reserve(Count);
  if (!DoGetChars(Bytes, Count, out)) NoMapping();
  return out;
}

bool TEncoding::TryGetChars(const Byte* Bytes, std::size_t Count, UnicodeString& Out) const {
  Out.clear();
  return DoGetChars(Bytes, Count, Out);
}

Integer TEncoding::GetBufferEncoding(const TBytes& Buffer, const TEncoding*& AEncoding,
                                     const TEncoding* ADefaultEncoding) {
  auto startsWith = [&](const TBytes& mark) {
    return !mark.empty() && Buffer.size() >= mark.size() && std::memcmp(Buffer.data(), mark.data(), mark.size()) == 0;
  };
  if (!AEncoding) {
    for (const TEncoding* candidate : {UTF8(), Unicode(), BigEndianUnicode()}) {
      if (startsWith(candidate->GetPreamble())) {
        AEncoding = candidate;
        return static_cast<Integer>(candidate->GetPreamble().size());
      }
    }
    AEncoding = ADefaultEncoding;
    return 0;
  }
  const TBytes mark = AEncoding->GetPreamble();
  return startsWith(mark) ? static_cast<Integer>(mark.size()) : 0;
}

TBytes TEncoding::Convert(const TEncoding* Source, const TEncoding* Destination, const TBytes& Bytes) {
  return Destination->GetBytes(Source->GetString(Bytes));
}

// ---- UTF-8 ----

void TUTF8Encoding::DoGetBytes(UnicodeStringView S, TBytes& Out) const {
  const std::string s = Utf16ToUtf8(S);
  Out.insert(Out.end(), s.begin(), s.end());
}

bool TUTF8Encoding::DoGetChars(const Byte* Bytes, std::size_t Count, UnicodeString& Out) const {
  auto r = TryUtf8ToUtf16(std::string_view(reinterpret_cast<const char*>(Bytes), Count));
  if (!r) return false;
  Out += *r;
  return true;
}

// ---- UTF-16 ----

void TUnicodeEncoding::DoGetBytes(UnicodeStringView S, TBytes& Out) const {
  const bool be = BigEndian();
  for (char16_t c : S) {
    const Byte hi = static_cast<Byte>(c >> 8), lo = static_cast<Byte>(c & 0xFF);
    Out.push_back(be ? hi : lo);
    Out.push_back(be ? lo : hi);
  }
}

bool TUnicodeEncoding::DoGetChars(const Byte* Bytes, std::size_t Count, UnicodeString& Out) const {
  if (Count % 2) return false;  // half a code unit
  const bool be = BigEndian();
  const std::size_t first = Out.size();
  for (std::size_t i = 0; i < Count; i += 2)
    Out.push_back(be ? static_cast<char16_t>(Bytes[i] << 8 | Bytes[i + 1])
                     : static_cast<char16_t>(Bytes[i + 1] << 8 | Bytes[i]));
  return SurrogatesPaired(UnicodeStringView(Out).substr(first));
}

// ---- UTF-7 (RFC 2152) ----

namespace {
constexpr char kB64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::array<signed char, 128> MakeB64Index() {
  std::array<signed char, 128> t{};
  for (auto& v : t) v = -1;
  for (int i = 0; i < 64; ++i) t[static_cast<unsigned char>(kB64[i])] = static_cast<signed char>(i);
  return t;
}
constexpr auto kB64Index = MakeB64Index();

// Characters written as themselves: set D, space, tab, CR, LF and the optional direct set O
// except '\\' and '~'.
bool DirectUtf7(char16_t c) noexcept {
  if (c >= 128) return false;
  if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')) return true;
  return std::strchr("'(),-./:? \t\r\n!\"#$%&*;<=>@[]^_`{|}", static_cast<char>(c)) != nullptr && c != 0;
}
}  // namespace

void TUTF7Encoding::DoGetBytes(UnicodeStringView S, TBytes& Out) const {
  std::size_t i = 0;
  while (i < S.size()) {
    const char16_t c = S[i];
    if (c == u'+') {
      Out.push_back('+');
      Out.push_back('-');
      ++i;
      continue;
    }
    if (DirectUtf7(c)) {
      Out.push_back(static_cast<Byte>(c));
      ++i;
      continue;
    }
    // A run takes every character that is not written directly, '+' included: closing the run
    // for "+-" and opening a new one costs more, and would break the GetMaxByteCount bound.
    Out.push_back('+');
    std::uint32_t bits = 0;
    int nbits = 0;
    while (i < S.size() && !DirectUtf7(S[i])) {
      bits = (bits << 16) | S[i++];
      nbits += 16;
      while (nbits >= 6) {
        nbits -= 6;
        Out.push_back(static_cast<Byte>(kB64[(bits >> nbits) & 63]));
      }
    }
    if (nbits > 0) Out.push_back(static_cast<Byte>(kB64[(bits << (6 - nbits)) & 63]));
    // The terminator is needed when the next character could be read as Base64 (or is '-').
    if (i < S.size() && (S[i] < 128 && (kB64Index[S[i]] >= 0 || S[i] == u'-'))) Out.push_back('-');
    else if (i >= S.size()) Out.push_back('-');
  }
}

bool TUTF7Encoding::DoGetChars(const Byte* Bytes, std::size_t Count, UnicodeString& Out) const {
  const std::size_t first = Out.size();
  std::size_t i = 0;
  while (i < Count) {
    const Byte b = Bytes[i++];
    if (b >= 128) return false;
    if (b != '+') {
      Out.push_back(b);
      continue;
    }
    if (i < Count && Bytes[i] == '-') {
      Out.push_back(u'+');
      ++i;
      continue;
    }
    std::uint32_t bits = 0;
    int nbits = 0;
    while (i < Count && Bytes[i] < 128 && kB64Index[Bytes[i]] >= 0) {
      bits = (bits << 6) | static_cast<std::uint32_t>(kB64Index[Bytes[i++]]);
      nbits += 6;
      if (nbits >= 16) {
        nbits -= 16;
        Out.push_back(static_cast<char16_t>((bits >> nbits) & 0xFFFF));
      }
    }
    if (i < Count && Bytes[i] == '-') ++i;  // the terminator is absorbed
  }
  return SurrogatesPaired(UnicodeStringView(Out).substr(first));
}

// ---- single-byte ----

void TSingleByteEncoding::DoGetBytes(UnicodeStringView S, TBytes& Out) const {
  const char16_t* table = Table();
  for (char16_t c : S) {
    Byte b = '?';
    if (c < 128 && table[c] == c) {
      b = static_cast<Byte>(c);
    } else {
      for (int v = 128; v < 256; ++v)
        if (table[v] == c) {
          b = static_cast<Byte>(v);
          break;
        }
    }
    Out.push_back(b);
  }
}

bool TSingleByteEncoding::DoGetChars(const Byte* Bytes, std::size_t Count, UnicodeString& Out) const {
  const char16_t* table = Table();
  for (std::size_t i = 0; i < Count; ++i) Out.push_back(table[Bytes[i]]);
  return true;
}

namespace {
constexpr std::array<char16_t, 256> MakeAsciiTable() {
  std::array<char16_t, 256> t{};
  for (int i = 0; i < 256; ++i) t[i] = i < 128 ? static_cast<char16_t>(i) : u'?';
  return t;
}
constexpr std::array<char16_t, 256> MakeWindows1252Table() {
  std::array<char16_t, 256> t{};
  for (int i = 0; i < 256; ++i) t[i] = static_cast<char16_t>(i);
  constexpr char16_t high[32] = {0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
                                 0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0x008D, 0x017D, 0x008F,
                                 0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
                                 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};
  for (int i = 0; i < 32; ++i) t[0x80 + i] = high[i];
  return t;
}
constexpr auto kAscii = MakeAsciiTable();
constexpr auto kWindows1252 = MakeWindows1252Table();
}  // namespace

const char16_t* TASCIIEncoding::Table() const noexcept { return kAscii.data(); }
const char16_t* TANSIEncoding::Table() const noexcept { return kWindows1252.data(); }

}  // namespace quma
