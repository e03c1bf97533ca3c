// Locale-dependent text conventions of the runtime base layer: month and day names, separators
// and date/time patterns, built from fixed tables so that results never depend on the locales
// installed on the machine. Also the host-style float <-> text conversions that honour them.
#pragma once

#include <quma/Export.h>

#include <array>
#include <string>
#include <string_view>

#include <quma/SysUtils.h>
#include <quma/System.h>

QUMA_PUBLIC_BEGIN
namespace quma {

// The English names every fixed table shares. Index 0 is January / Sunday.
inline constexpr std::array<UnicodeStringView, 12> EnglishShortMonthNames = {
    u"Jan", u"Feb", u"Mar", u"Apr", u"May", u"Jun", u"Jul", u"Aug", u"Sep", u"Oct", u"Nov", u"Dec"};
inline constexpr std::array<UnicodeStringView, 12> EnglishLongMonthNames = {
    u"January", u"February", u"March",     u"April",   u"May",      u"June",
    u"July",    u"August",   u"September", u"October", u"November", u"December"};
inline constexpr std::array<UnicodeStringView, 7> EnglishShortDayNames = {u"Sun", u"Mon", u"Tue", u"Wed",
                                                                          u"Thu", u"Fri", u"Sat"};
inline constexpr std::array<UnicodeStringView, 7> EnglishLongDayNames = {
    u"Sunday", u"Monday", u"Tuesday", u"Wednesday", u"Thursday", u"Friday", u"Saturday"};

// The host's format-settings record. Arrays are 0-based here (ShortMonthNames[0] is January,
// ShortDayNames[0] is Sunday). Date patterns use the FormatDateTime letters (see DateTime.h).
struct TFormatSettings {
  UnicodeString CurrencyString;
  Byte CurrencyFormat = 0;
  Byte NegCurrFormat = 0;
  Byte CurrencyDecimals = 2;
  WideChar ThousandSeparator = u',';
  WideChar DecimalSeparator = u'.';
  WideChar DateSeparator = u'/';
  WideChar TimeSeparator = u':';
  WideChar ListSeparator = u',';
  UnicodeString ShortDateFormat;
  UnicodeString LongDateFormat;
  UnicodeString TimeAMString;
  UnicodeString TimePMString;
  UnicodeString ShortTimeFormat;
  UnicodeString LongTimeFormat;
  std::array<UnicodeString, 12> ShortMonthNames;
  std::array<UnicodeString, 12> LongMonthNames;
  std::array<UnicodeString, 7> ShortDayNames;
  std::array<UnicodeString, 7> LongDayNames;
  Word TwoDigitYearCenturyWindow = 50;

  // Settings for a locale name. "en-GB"/"en_GB" and "en-US"/"en_US" (any case) come from fixed
  // tables; every other name gives the invariant settings (English names, "." and ",", ISO-like
  // date patterns), as the host does for a locale it does not know.
  static TFormatSettings Create(UnicodeStringView LocaleName);
  static TFormatSettings Invariant();
};

// The process-wide default settings ("en-US" tables until replaced). The reference stays valid
// until the next SetDefaultFormatSettings; readers on other threads see either the old or the new
// record, never a torn one (every record ever installed lives until the process ends).
const TFormatSettings& DefaultFormatSettings() noexcept;
void SetDefaultFormatSettings(const TFormatSettings& Settings);

// A double as decimal digits, the host's FloatToDecimal: the value is 0.Digits x 10^Exponent.
// Digits are ASCII, zero-terminated, without trailing zeros; a value that rounds to zero has no
// digits, exponent 0 and no sign. NaN has the exponent -32768 and infinities 32767. The exact
// binary value is rounded once, half away from zero, to at most Precision (1..18) significant
// digits and at most Decimals digits after the decimal point (Decimals may be negative).
struct TFloatRec {
  SmallInt Exponent = 0;
  bool Negative = false;
  std::array<char, 21> Digits{};
};
void FloatToDecimal(TFloatRec& Result, double Value, int Precision, int Decimals) noexcept;

// Host float text. FloatToStr writes the general format with 15 significant digits: fixed
// notation when the decimal exponent lies in -4..14, scientific ("1.5E-7", "1E20") otherwise;
// the value is rounded half away from zero (FloatToDecimal); "NAN", "INF", "-INF" for the
// special values. No thousands separators are written.
UnicodeString FloatToStr(double Value);
UnicodeString FloatToStr(double Value, const TFormatSettings& Settings);
// Reads optional blanks, a sign, digits with at most one decimal separator, and an optional
// exponent (E or e, optional sign, any number of digits), then optional blanks. EConvertError
// "'<text>' is not a valid floating point value" when the text is anything else, and when the
// value overflows the double range (however long the exponent); a value below the smallest
// denormal reads as a zero of its sign.
double StrToFloat(UnicodeStringView S);
double StrToFloat(UnicodeStringView S, const TFormatSettings& Settings);
bool TryStrToFloat(UnicodeStringView S, double& Value) noexcept;
bool TryStrToFloat(UnicodeStringView S, double& Value, const TFormatSettings& Settings) noexcept;

inline constexpr char16_t SInvalidFloat[] = u"'%s' is not a valid floating point value";

}  // namespace quma
QUMA_PUBLIC_END
