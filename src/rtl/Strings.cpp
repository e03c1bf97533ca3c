#include <quma/Strings.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>

#include <quma/FormatSettings.h>
#include <quma/SysUtils.h>

namespace quma {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

// Decodes one UTF-8 sequence at s[i]; advances i. Returns U+FFFD and ok=false when malformed.
char32_t DecodeUtf8(std::string_view s, std::size_t& i, bool& ok) noexcept {
  const auto b0 = static_cast<unsigned char>(s[i]);
  if (b0 < 0x80) {
    ++i;
    return b0;
  }
  int len;
  char32_t cp;
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    len = 2;
    cp = b0 & 0x1F;
  } else if (b0 >= 0xE0 && b0 <= 0xEF) {
    len = 3;
    cp = b0 & 0x0F;
  } else if (b0 >= 0xF0 && b0 <= 0xF4) {
    len = 4;
    cp = b0 & 0x07;
  } else {
    ++i;
    ok = false;
    return kReplacement;
  }
  if (i + static_cast<std::size_t>(len) > s.size()) {
    ++i;
    ok = false;
    return kReplacement;
  }
  for (int k = 1; k < len; ++k) {
    const auto b = static_cast<unsigned char>(s[i + static_cast<std::size_t>(k)]);
    if ((b & 0xC0) != 0x80) {
      ++i;
      ok = false;
      return kReplacement;
    }
    cp = (cp << 6) | (b & 0x3F);
  }
  // Overlong forms, surrogates and values beyond U+10FFFF are malformed.
  if ((len == 3 && cp < 0x800) || (len == 4 && (cp < 0x10000 || cp > 0x10FFFF)) || (cp >= 0xD800 && cp <= 0xDFFF)) {
    ++i;
    ok = false;
    return kReplacement;
  }
  i += static_cast<std::size_t>(len);
  return cp;
}

void AppendUtf16(UnicodeString& out, char32_t cp) {
  if (cp < 0x10000) {
    out.push_back(static_cast<char16_t>(cp));
  } else {
    cp -= 0x10000;
    out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
    out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
  }
}

UnicodeString Convert8To16(std::string_view s, bool& ok) {
  UnicodeString out;
  out.reserve(s.size());
  std::size_t i = 0;
  while (i < s.size()) {
    // ASCII runs are the common case.
    while (i < s.size() && static_cast<unsigned char>(s[i]) < 0x80) out.push_back(static_cast<char16_t>(s[i++]));
    if (i < s.size()) AppendUtf16(out, DecodeUtf8(s, i, ok));
  }
  return out;
}

}  // namespace

UnicodeString Utf8ToUtf16(std::string_view s) {
  bool ok = true;
  return Convert8To16(s, ok);
}

std::optional<UnicodeString> TryUtf8ToUtf16(std::string_view s) {
  bool ok = true;
  UnicodeString r = Convert8To16(s, ok);
  if (!ok) return std::nullopt;
  return r;
}

bool IsValidUtf8(std::string_view s) noexcept {
  std::size_t i = 0;
  bool ok = true;
  while (i < s.size() && ok) DecodeUtf8(s, i, ok);
  return ok;
}

std::string Utf16ToUtf8(UnicodeStringView s) {
  std::string out;
  out.reserve(s.size());
  for (std::size_t i = 0; i < s.size(); ++i) {
    char32_t cp = s[i];
    if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < s.size() && s[i + 1] >= 0xDC00 && s[i + 1] <= 0xDFFF) {
      cp = 0x10000 + ((cp - 0xD800) << 10) + (s[i + 1] - 0xDC00);
      ++i;
    } else if (cp >= 0xD800 && cp <= 0xDFFF) {
      cp = kReplacement;
    }
    if (cp < 0x80) {
      out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
      out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
      out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
      out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
  }
  return out;
}

UnicodeString UpperCase(UnicodeStringView s) {
  UnicodeString r(s);
  for (auto& c : r) c = UpCase(c);
  return r;
}

UnicodeString LowerCase(UnicodeStringView s) {
  UnicodeString r(s);
  for (auto& c : r) c = LowCase(c);
  return r;
}

int CompareStr(UnicodeStringView a, UnicodeStringView b) noexcept {
  const int c = a.compare(b);
  return c < 0 ? -1 : c > 0 ? 1 : 0;
}

int CompareText(UnicodeStringView a, UnicodeStringView b) noexcept {
  const std::size_t n = std::min(a.size(), b.size());
  for (std::size_t i = 0; i < n; ++i) {
    const WideChar x = UpCase(a[i]), y = UpCase(b[i]);
    if (x != y) return x < y ? -1 : 1;
  }
  return a.size() < b.size() ? -1 : a.size() > b.size() ? 1 : 0;
}

bool SameText(UnicodeStringView a, UnicodeStringView b) noexcept {
  return a.size() == b.size() && CompareText(a, b) == 0;
}

namespace {
bool IsBlank(WideChar c) noexcept { return c <= u' '; }
}  // namespace

UnicodeString Trim(UnicodeStringView s) { return TrimRight(TrimLeft(s)); }

UnicodeString TrimLeft(UnicodeStringView s) {
  std::size_t i = 0;
  while (i < s.size() && IsBlank(s[i])) ++i;
  return UnicodeString(s.substr(i));
}

UnicodeString TrimRight(UnicodeStringView s) {
  std::size_t n = s.size();
  while (n > 0 && IsBlank(s[n - 1])) --n;
  return UnicodeString(s.substr(0, n));
}

UnicodeString IntToStr(Int64 value) {
  char buf[24];
  auto r = std::to_chars(buf, buf + sizeof buf, value);
  return UnicodeString(buf, r.ptr);
}

UnicodeString UIntToStr(UInt64 value) {
  char buf[24];
  auto r = std::to_chars(buf, buf + sizeof buf, value);
  return UnicodeString(buf, r.ptr);
}

UnicodeString IntToHex(UInt64 value, int digits) {
  static constexpr char16_t kHex[] = u"0123456789ABCDEF";
  char16_t buf[16];
  int n = 0;
  do {
    buf[15 - n++] = kHex[value & 15];
    value >>= 4;
  } while (value);
  UnicodeString r;
  if (digits > n) r.assign(static_cast<std::size_t>(digits - n), u'0');
  r.append(buf + 16 - n, buf + 16);
  return r;
}

namespace {

// Reads an integer in [min, max] the way the host's Val does: leading blanks, a sign, "$" or "0x"
// for hexadecimal, at least one digit and nothing after the digits. Hexadecimal values may use
// the full unsigned range of the type (so "$FFFFFFFF" is -1 as a 32-bit value).
bool ParseInt(UnicodeStringView s, Int64 min, Int64 max, UInt64 hexMax, Int64& out) noexcept {
  std::size_t i = 0;
  while (i < s.size() && s[i] == u' ') ++i;
  bool neg = false;
  if (i < s.size() && (s[i] == u'-' || s[i] == u'+')) neg = s[i++] == u'-';
  bool hex = false;
  if (i < s.size() && s[i] == u'$') {
    hex = true;
    ++i;
  } else if (i + 1 < s.size() && s[i] == u'0' && (s[i + 1] == u'x' || s[i + 1] == u'X')) {
    hex = true;
    i += 2;
  }
  const std::size_t firstDigit = i;
  UInt64 v = 0;
  const UInt64 limit = hex ? hexMax : (neg ? static_cast<UInt64>(-(min + 1)) + 1 : static_cast<UInt64>(max));
  for (; i < s.size(); ++i) {
    const WideChar c = s[i];
    unsigned d;
    if (c >= u'0' && c <= u'9')
      d = c - u'0';
    else if (hex && c >= u'a' && c <= u'f')
      d = c - u'a' + 10;
    else if (hex && c >= u'A' && c <= u'F')
      d = c - u'A' + 10;
    else
      break;
    const unsigned base = hex ? 16 : 10;
    if (v > (limit - d) / base) return false;
    v = v * base + d;
  }
  // A sign or prefix without digits is not a number, and only leading blanks are skipped.
  if (i == firstDigit || i != s.size()) return false;
  if (hex) {
    // Reinterpret in the target width.
    Int64 r;
    if (hexMax == 0xFFFFFFFFull)
      r = static_cast<std::int32_t>(static_cast<std::uint32_t>(v));
    else
      r = static_cast<Int64>(v);
    out = neg ? -r : r;
    return true;
  }
  out = neg ? static_cast<Int64>(0 - v) : static_cast<Int64>(v);
  return true;
}

[[noreturn]] void RaiseInvalidInteger(UnicodeStringView s) { throw EConvertError(Format(SInvalidInteger, s)); }

}  // namespace

bool TryStrToInt(UnicodeStringView s, Integer& value) noexcept {
  Int64 v;
  if (!ParseInt(s, std::numeric_limits<Integer>::min(), std::numeric_limits<Integer>::max(), 0xFFFFFFFFull, v))
    return false;
  value = static_cast<Integer>(v);
  return true;
}

bool TryStrToInt64(UnicodeStringView s, Int64& value) noexcept {
  return ParseInt(s, std::numeric_limits<Int64>::min(), std::numeric_limits<Int64>::max(), ~0ull, value);
}

Integer StrToInt(UnicodeStringView s) {
  Integer v;
  if (!TryStrToInt(s, v)) RaiseInvalidInteger(s);
  return v;
}

Int64 StrToInt64(UnicodeStringView s) {
  Int64 v;
  if (!TryStrToInt64(s, v)) RaiseInvalidInteger(s);
  return v;
}

Integer StrToIntDef(UnicodeStringView s, Integer def) noexcept {
  Integer v;
  return TryStrToInt(s, v) ? v : def;
}

// ---- Format ----

namespace {

struct TDirective {
  bool left = false;
  int width = -1;
  int precision = -1;
  char16_t type = 0;
};

void Pad(UnicodeString& out, const UnicodeString& body, const TDirective& directive) {
  const auto len = static_cast<int>(body.size());
  if (directive.width > len && !directive.left) out.append(static_cast<std::size_t>(directive.width - len), u' ');
  out += body;
  if (directive.width > len && directive.left) out.append(static_cast<std::size_t>(directive.width - len), u' ');
}

// Fixed notation of a rounded value with exactly `places` decimals; digits beyond the 18 the
// value was rounded to read as zeros. Thousands separators between integer groups when asked.
void AppendFixed(UnicodeString& out, const TFloatRec& rec, int places, bool thousands) {
  const std::string_view digits(rec.Digits.data());
  const auto digit = [&](int k) { return k >= 0 && k < static_cast<int>(digits.size()) ? digits[k] : '0'; };
  if (rec.Exponent <= 0) out.push_back(u'0');
  for (int k = 0; k < rec.Exponent; ++k) {
    if (thousands && k > 0 && (rec.Exponent - k) % 3 == 0) out.push_back(u',');
    out.push_back(static_cast<char16_t>(digit(k)));
  }
  if (places > 0) out.push_back(u'.');
  for (int k = 0; k < places; ++k) out.push_back(static_cast<char16_t>(digit(rec.Exponent + k)));
}

void AppendExponent(UnicodeString& out, int exponent) {
  out.push_back(u'E');
  out.push_back(exponent < 0 ? u'-' : u'+');
  const UnicodeString e = UIntToStr(static_cast<UInt64>(exponent < 0 ? -exponent : exponent));
  if (e.size() < 2) out.push_back(u'0');
  out += e;
}

// The float directives. Rounding is the host's, half away from zero on the decimal digits (so
// "%.2f" of 0.125 is 0.13), not the C library's ties-to-even; the layouts are printf's.
UnicodeString FormatFloat(double v, const TDirective& directive) {
  UnicodeString out;
  const int prec = directive.precision;
  const char16_t type = UpCase(directive.type);
  if (std::isnan(v)) return u"NAN";
  if (std::isinf(v)) return v < 0 ? u"-INF" : u"INF";
  TFloatRec rec;
  if (type == u'F' || type == u'N') {
    const int places = prec < 0 ? 2 : std::min(prec, 18);
    FloatToDecimal(rec, v, 18, places);
    if (rec.Negative) out.push_back(u'-');
    AppendFixed(out, rec, places, type == u'N');
    return out;
  }
  const bool scientific = type == u'E';
  const int significant = prec < 0 ? 15 : std::clamp(prec, 1, 18);
  FloatToDecimal(rec, v, significant, 9999);
  if (rec.Negative) out.push_back(u'-');
  const std::string_view digits(rec.Digits.data());
  const int exponent = digits.empty() ? 0 : rec.Exponent - 1;
  if (!scientific && exponent >= -4 && exponent < significant) {
    // %g: fixed notation without trailing zeros.
    AppendFixed(out, rec, std::max(0, static_cast<int>(digits.size()) - rec.Exponent), false);
    return out;
  }
  out.push_back(digits.empty() ? u'0' : static_cast<char16_t>(digits[0]));
  // %e keeps every requested digit; %g drops trailing zeros.
  const int shown = scientific ? significant : static_cast<int>(digits.size());
  if (shown > 1) out.push_back(u'.');
  for (int k = 1; k < shown; ++k)
    out.push_back(k < static_cast<int>(digits.size()) ? static_cast<char16_t>(digits[k]) : u'0');
  AppendExponent(out, exponent);
  return out;
}

}  // namespace

UnicodeString FormatV(UnicodeStringView fmt, const TFormatArg* args, std::size_t count) {
  UnicodeString out;
  out.reserve(fmt.size() + 16 * count);
  std::size_t next = 0;
  auto invalid = [&]() -> EConvertError { return EConvertError(Format(SInvalidFormat, fmt)); };
  auto intArg = [&](std::size_t index) -> Int64 {
    if (index >= count) throw invalid();
    const auto& v = args[index].Get();
    if (auto p = std::get_if<Int64>(&v)) return *p;
    if (auto p = std::get_if<UInt64>(&v)) return static_cast<Int64>(*p);
    throw invalid();
  };
  for (std::size_t i = 0; i < fmt.size(); ++i) {
    const WideChar c = fmt[i];
    if (c != u'%') {
      out.push_back(c);
      continue;
    }
    if (++i >= fmt.size()) throw invalid();
    if (fmt[i] == u'%') {
      out.push_back(u'%');
      continue;
    }
    TDirective directive;
    // Optional index "n:" or "*:".
    // A number, or "*" taking it from the next argument (clamped: a negative width or precision
    // counts as absent, a huge one as 2^20).
    auto readNumber = [&](int& value) {
      if (i < fmt.size() && fmt[i] == u'*') {
        const Int64 v = intArg(next++);
        if (v >= 0) value = static_cast<int>(std::min<Int64>(v, 1 << 20));
        ++i;
        return true;
      }
      bool any = false;
      int v = 0;
      while (i < fmt.size() && fmt[i] >= u'0' && fmt[i] <= u'9') {
        v = std::min(v * 10 + (fmt[i] - u'0'), 1 << 20);
        ++i;
        any = true;
      }
      if (any) value = v;
      return any;
    };
    {
      // Only a number or "*" directly followed by ":" is an index; otherwise it is the width and
      // is read again below (so a "*" width consumes its argument once).
      std::size_t end = i;
      if (end < fmt.size() && fmt[end] == u'*') {
        ++end;
      } else {
        while (end < fmt.size() && fmt[end] >= u'0' && fmt[end] <= u'9') ++end;
      }
      if (end > i && end < fmt.size() && fmt[end] == u':') {
        int index = 0;
        readNumber(index);
        next = static_cast<std::size_t>(index);
        ++i;
      }
    }
    if (i < fmt.size() && fmt[i] == u'-') {
      directive.left = true;
      ++i;
    }
    readNumber(directive.width);
    if (i < fmt.size() && fmt[i] == u'.') {
      ++i;
      directive.precision = 0;
      readNumber(directive.precision);
    }
    if (i >= fmt.size()) throw invalid();
    directive.type = fmt[i];
    if (next >= count) throw invalid();
    const auto& arg = args[next++].Get();
    UnicodeString body;
    switch (UpCase(directive.type)) {
      case u'D':
      case u'U': {
        Int64 sv;
        bool negative = false;
        UInt64 mag;
        if (auto p = std::get_if<Int64>(&arg)) {
          sv = *p;
          if (directive.type == u'u' || directive.type == u'U') {
            mag = static_cast<UInt64>(static_cast<std::uint32_t>(sv));
            if (sv < INT32_MIN || sv > UINT32_MAX) mag = static_cast<UInt64>(sv);
          } else {
            negative = sv < 0;
            mag = negative ? 0 - static_cast<UInt64>(sv) : static_cast<UInt64>(sv);
          }
        } else if (auto q = std::get_if<UInt64>(&arg)) {
          mag = *q;
        } else {
          throw invalid();
        }
        UnicodeString digits = UIntToStr(mag);
        if (directive.precision > static_cast<int>(digits.size()))
          digits.insert(0, static_cast<std::size_t>(directive.precision) - digits.size(), u'0');
        if (negative) body.push_back(u'-');
        body += digits;
        break;
      }
      case u'X': {
        UInt64 v;
        if (auto p = std::get_if<Int64>(&arg)) {
          // Negative 32-bit values print as their 32-bit pattern, as the host does.
          v = (*p >= INT32_MIN && *p < 0) ? static_cast<std::uint32_t>(*p) : static_cast<UInt64>(*p);
        } else if (auto q = std::get_if<UInt64>(&arg)) {
          v = *q;
        } else if (auto r = std::get_if<const void*>(&arg)) {
          v = reinterpret_cast<NativeUInt>(*r);
        } else {
          throw invalid();
        }
        body = IntToHex(v, directive.precision < 0 ? 0 : directive.precision);
        if (directive.type == u'x') body = LowerCase(body);  // "%x" lower case, "%X" upper case
        break;
      }
      case u'S': {
        if (auto p = std::get_if<UnicodeStringView>(&arg))
          body.assign(*p);
        else if (auto q = std::get_if<std::string_view>(&arg))
          body = Utf8ToUtf16(*q);
        else if (auto r = std::get_if<WideChar>(&arg))
          body.assign(1, *r);
        else
          throw invalid();
        if (directive.precision >= 0 && static_cast<std::size_t>(directive.precision) < body.size())
          body.resize(static_cast<std::size_t>(directive.precision));
        break;
      }
      case u'C': {
        if (auto r = std::get_if<WideChar>(&arg))
          body.assign(1, *r);
        else
          throw invalid();
        break;
      }
      case u'F':
      case u'E':
      case u'G':
      case u'N': {
        double v;
        if (auto p = std::get_if<double>(&arg))
          v = *p;
        else
          throw invalid();
        body = FormatFloat(v, directive);
        break;
      }
      case u'P': {
        if (auto r = std::get_if<const void*>(&arg))
          body = IntToHex(reinterpret_cast<NativeUInt>(*r), 16);
        else
          throw invalid();
        break;
      }
      default:
        throw invalid();
    }
    Pad(out, body, directive);
  }
  return out;
}

}  // namespace quma
