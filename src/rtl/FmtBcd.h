// The host packed decimal number. Layout (34 bytes): Precision, the number of decimal digits
// (1..64); SignSpecialPlaces, whose top bit is the sign and whose low six bits are the number of
// those digits that lie after the decimal point; Fraction, 32 bytes holding up to 64 digits, two
// per byte, high nibble first, most significant digit first. Digits beyond Precision are ignored
// by every reader and written as zero.
#pragma once

#include <quma/Export.h>

#include <array>
#include <compare>

#include <quma/FormatSettings.h>
#include <quma/SysUtils.h>
#include <quma/System.h>

QUMA_PUBLIC_BEGIN
namespace quma {

struct TBcd {
  Byte Precision = 0;
  Byte SignSpecialPlaces = 0;
  std::array<Byte, 32> Fraction{};

  static constexpr int MaxDigits = 64;
  static constexpr Byte SignBit = 0x80;
  static constexpr Byte PlacesMask = 0x3F;

  constexpr bool IsNegative() const noexcept { return (SignSpecialPlaces & SignBit) != 0; }
  constexpr Byte Places() const noexcept { return SignSpecialPlaces & PlacesMask; }
  // Digit i (0 = most significant); 0 outside the 64 nibbles.
  constexpr Byte Digit(int i) const noexcept {
    if (i < 0 || i >= MaxDigits) return 0;
    const Byte b = Fraction[static_cast<std::size_t>(i / 2)];
    return (i & 1) ? Byte(b & 0x0F) : Byte(b >> 4);
  }
  constexpr void SetDigit(int i, Byte d) noexcept {
    if (i < 0 || i >= MaxDigits) return;
    Byte& b = Fraction[static_cast<std::size_t>(i / 2)];
    b = (i & 1) ? Byte((b & 0xF0) | (d & 0x0F)) : Byte((b & 0x0F) | ((d & 0x0F) << 4));
  }
};

inline constexpr TBcd NullBcd{};

inline constexpr char16_t SInvalidBcdValue[] = u"'%s' is not a valid BCD value";
inline constexpr char16_t SBcdOverflow[] = u"BCD overflow";

// Rewrites In with Prec digits of which Places are decimals. Extra decimals are rounded half away
// from zero. False (Out untouched) when the integer part needs more than Prec - Places digits or
// the request is outside 1..64 digits / 0..63 places; false (Out written) when the rounding lost
// non-zero digits.
bool NormalizeBcd(const TBcd& In, TBcd& Out, int Prec, int Places) noexcept;

// Text to decimal: optional blanks, a sign, digits in which the settings' thousands separator may
// appear between integer digits, an optional decimal separator with digits, an optional exponent
// ("e" or "E", an optional sign, digits; a bare "e" counts as e0), optional blanks. False when the
// text is anything else or needs more than 64 significant digits. Without settings the process
// default settings are used.
bool TryStrToBcd(UnicodeStringView S, TBcd& Bcd) noexcept;
bool TryStrToBcd(UnicodeStringView S, TBcd& Bcd, const TFormatSettings& Settings) noexcept;
TBcd StrToBcd(UnicodeStringView S);  // EConvertError SInvalidBcdValue
TBcd StrToBcd(UnicodeStringView S, const TFormatSettings& Settings);

// Plain decimal text: "-" for negative non-zero values, no exponent, no leading zeros in the
// integer part (one "0" when it is empty), no trailing zeros after the decimal separator.
UnicodeString BcdToStr(const TBcd& Bcd);
UnicodeString BcdToStr(const TBcd& Bcd, const TFormatSettings& Settings);

TBcd IntegerToBcd(Int64 Value) noexcept;
// Exact sums when the result fits 64 digits; otherwise the last decimals are rounded away.
// EConvertError SBcdOverflow when even the integer part does not fit.
void BcdAdd(const TBcd& A, const TBcd& B, TBcd& Result);
void BcdSubtract(const TBcd& A, const TBcd& B, TBcd& Result);
// Numeric comparison: -1, 0, 1. A negative zero equals zero.
int BcdCompare(const TBcd& A, const TBcd& B) noexcept;

inline bool operator==(const TBcd& A, const TBcd& B) noexcept { return BcdCompare(A, B) == 0; }
inline std::strong_ordering operator<=>(const TBcd& A, const TBcd& B) noexcept { return BcdCompare(A, B) <=> 0; }
inline TBcd operator+(const TBcd& A, const TBcd& B) {
  TBcd r;
  BcdAdd(A, B, r);
  return r;
}
inline TBcd operator-(const TBcd& A, const TBcd& B) {
  TBcd r;
  BcdSubtract(A, B, r);
  return r;
}

}  // namespace quma
QUMA_PUBLIC_END
