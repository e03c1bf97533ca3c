// UTF-16 string helpers of the runtime base layer: UTF-8 conversion, the ASCII-only case
// mapping of the host runtime, integer text conversion and a printf-like Format.
#pragma once

#include <quma/Export.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include <quma/System.h>

QUMA_PUBLIC_BEGIN
namespace quma {

// UTF-8 <-> UTF-16. Malformed input (bad UTF-8 sequences, lone surrogates) becomes U+FFFD, so a
// conversion never fails; callers that must reject bad input validate first.
UnicodeString Utf8ToUtf16(std::string_view s);
std::string Utf16ToUtf8(UnicodeStringView s);
// Strict forms: nullopt when the input is not well formed.
std::optional<UnicodeString> TryUtf8ToUtf16(std::string_view s);
bool IsValidUtf8(std::string_view s) noexcept;

// Short spelling for UTF-8 literals and views at API edges.
inline UnicodeString U16(std::string_view s) { return Utf8ToUtf16(s); }

// ASCII-only case mapping: 'a'..'z' <-> 'A'..'Z', every other code unit unchanged.
constexpr WideChar UpCase(WideChar c) noexcept { return c >= u'a' && c <= u'z' ? WideChar(c - 32) : c; }
constexpr WideChar LowCase(WideChar c) noexcept { return c >= u'A' && c <= u'Z' ? WideChar(c + 32) : c; }
UnicodeString UpperCase(UnicodeStringView s);
UnicodeString LowerCase(UnicodeStringView s);
// Ordinal comparisons (<0, 0, >0); the Text forms ignore ASCII case.
int CompareStr(UnicodeStringView a, UnicodeStringView b) noexcept;
int CompareText(UnicodeStringView a, UnicodeStringView b) noexcept;
bool SameText(UnicodeStringView a, UnicodeStringView b) noexcept;

UnicodeString Trim(UnicodeStringView s);
UnicodeString TrimLeft(UnicodeStringView s);
UnicodeString TrimRight(UnicodeStringView s);

// Integer text. The readers accept leading blanks (not trailing ones), a sign, and hexadecimal
// written with a leading "$" or "0x", followed by at least one digit; they raise EConvertError
// ("'%s' is not a valid integer value") for anything else ("- ", "5 ") and on overflow.
UnicodeString IntToStr(Int64 value);
UnicodeString UIntToStr(UInt64 value);
UnicodeString IntToHex(UInt64 value, int digits);  // upper case, at least `digits` digits
Integer StrToInt(UnicodeStringView s);
Int64 StrToInt64(UnicodeStringView s);
bool TryStrToInt(UnicodeStringView s, Integer& value) noexcept;
bool TryStrToInt64(UnicodeStringView s, Int64& value) noexcept;
Integer StrToIntDef(UnicodeStringView s, Integer def) noexcept;

// One Format argument. Integers, floating point, UTF-16 and UTF-8 text, and single characters.
class TFormatArg {
 public:
  using Value = std::variant<Int64, UInt64, double, UnicodeStringView, std::string_view, WideChar, const void*>;
  template <class T>
    requires(std::is_integral_v<T> && std::is_signed_v<T> && !std::is_same_v<T, char>)
  TFormatArg(T v) noexcept : FValue(static_cast<Int64>(v)) {}
  template <class T>
    requires(std::is_integral_v<T> && std::is_unsigned_v<T> && !std::is_same_v<T, bool> &&
             !std::is_same_v<T, char16_t>)
  TFormatArg(T v) noexcept : FValue(static_cast<UInt64>(v)) {}
  TFormatArg(double v) noexcept : FValue(v) {}
  TFormatArg(float v) noexcept : FValue(static_cast<double>(v)) {}
  TFormatArg(const UnicodeString& v) noexcept : FValue(UnicodeStringView(v)) {}
  TFormatArg(UnicodeStringView v) noexcept : FValue(v) {}
  TFormatArg(const char16_t* v) noexcept : FValue(UnicodeStringView(v)) {}
  TFormatArg(const std::string& v) noexcept : FValue(std::string_view(v)) {}
  TFormatArg(std::string_view v) noexcept : FValue(v) {}
  TFormatArg(const char* v) noexcept : FValue(std::string_view(v)) {}
  TFormatArg(WideChar v) noexcept : FValue(v) {}
  TFormatArg(const void* v) noexcept : FValue(v) {}
  const Value& Get() const noexcept { return FValue; }

 private:
  Value FValue;
};

// The host Format: "%" [index ":"] ["-"] [width] ["." precision] type, with types d u x X s f e
// g n c p and "%%". Index, width and precision may be "*", taken from the next argument (an
// integer; a negative width or precision counts as absent); "%2.2x" writes two lower-case
// hexadecimal digits, "%X" upper-case ones. Floats round half away from zero on the decimal
// digits ("%.2f" of 0.125 is "0.13"), at most 18 significant digits; a value that rounds to zero
// has no sign; NaN and infinities read "NAN", "INF", "-INF". A mismatch raises EConvertError
// ("Format '%s' invalid or incompatible with argument"). The decimal separator is ".".
UnicodeString FormatV(UnicodeStringView fmt, const TFormatArg* args, std::size_t count);
template <class... A>
UnicodeString Format(UnicodeStringView fmt, const A&... args) {
  const TFormatArg list[] = {TFormatArg(args)..., TFormatArg(Int64{0})};
  return FormatV(fmt, list, sizeof...(A));
}

}  // namespace quma
QUMA_PUBLIC_END
