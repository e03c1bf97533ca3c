// Helpers on packed decimal numbers (TBcd): a zero test, a normalisation to one integer digit
// with a decimal exponent, a long division, and a tolerant conversion from text.
#pragma once

#include <quma/Export.h>

#include <string_view>

#include <quma/FmtBcd.h>
#include <quma/FormatSettings.h>
#include <quma/SysUtils.h>
#include <quma/System.h>

QUMA_PUBLIC_BEGIN
namespace quma {

inline constexpr char16_t SBcdDivideByZero[] = u"Divide by Zero";

// True when every digit within the precision is 0; sign and places are ignored.
bool QUMA_BcdIsZero(const TBcd& Bcd) noexcept;

// Mantissa: the significant digits of Source as one integer digit and decimals, with Source's
// sign; Exponent: the power of ten of the first significant digit (123.45 -> 1.2345, 2;
// 0.0012 -> 1.2, -3). For a zero Source, Exponent is 0 and Mantissa is left as it was.
void QUMA_BcdCompact(const TBcd& Source, TBcd& Mantissa, Integer& Exponent);

// Long division by repeated subtraction. The quotient has at most 64 digits and at most
// (integer digits + 60) of them, so 1/3 gives 0 and sixty 3s. EDivByZero "Divide by Zero" for a
// zero Divisor. A quotient below 1E-63 cannot be represented and comes back as zero.
void QUMA_BcdDivide(const TBcd& Dividend, const TBcd& Divisor, TBcd& Quotient);

// Finds the first number in Text (sign, digits with Settings' thousands separators, an optional
// decimal part after Settings' decimal separator, an optional "e"/"E" exponent without sign) and
// converts it with TryStrToBcd under the process default settings. EConvertError
// Unable to convert "<Text>" to TBcd
// when there is no number or it does not convert. The two-argument form uses the "en-GB" settings.
void QUMA_BcdFromString(UnicodeStringView Text, TBcd& Result);
void QUMA_BcdFromString(UnicodeStringView Text, TBcd& Result, const TFormatSettings& Settings);
// UTF-8 conveniences.
void QUMA_BcdFromString(std::string_view Text, TBcd& Result);
void QUMA_BcdFromString(std::string_view Text, TBcd& Result, const TFormatSettings& Settings);

}  // namespace quma
QUMA_PUBLIC_END
