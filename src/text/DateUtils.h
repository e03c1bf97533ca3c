// Internet date texts: HTTP, RFC 822, RFC 5322 and XML schema date-times, to and from TDateTime in
// GMT or in the process's local time zone.
//
// Writers: a value within 3e-9 of zero stands for "now". Readers accept exactly one layout each
// (ASCII letters, digits and underscore for the name fields, ASCII digits for the numbers; a single
// line feed may follow the text) and raise EConvertError with
//   Unable to convert "<text>" to TDateTime
// or, when a day name does not fit the date,
//   Convert "<text>" to TDateTime but found a different day of week
// Known behaviours kept for compatibility with existing data:
//   - RFC 822 and RFC 5322 readers apply a numeric zone in the direction of its sign ("+0100"
//     comes back one hour later) instead of removing it;
//   - RFC 822 years of 80 or more get 1900 added, others 2000, whatever the number of digits;
//   - RFC 822 and RFC 5322 texts that carry a day name ("Mon, ...") always raise the day-of-week
//     error; only texts without a day name are read;
//   - the XML reader returns 0 without error for a text in none of its three layouts.
#pragma once

#include <quma/Export.h>

#include <string>
#include <string_view>

#include <quma/DateTime.h>
#include <quma/SysUtils.h>
#include <quma/System.h>

QUMA_PUBLIC_BEGIN
namespace quma {

inline constexpr char16_t SUnableToConvertPrefix[] = u"Unable to convert \"";
inline constexpr char16_t SUnableToConvertSuffix[] = u"\" to TDateTime";
inline constexpr char16_t SDifferentDayPrefix[] = u"Convert \"";
inline constexpr char16_t SDifferentDaySuffix[] = u"\" to TDateTime but found a different day of week";
inline constexpr char16_t SUnableToFormatDateTime[] = u"Unable to create formatted string from TDateTime";

// "Sun, 06 Nov 1994 08:49:37 GMT"
UnicodeString GMTimeToHTTPDate(TDateTime Value);
// "Sun, 06 Nov 1994 08:49:37 +0000" (both mail forms write the same text)
UnicodeString GMTimeToRFC822Date(TDateTime Value);
UnicodeString GMTimeToRFC5322Date(TDateTime Value);
// "1994-11-06T08:49:37Z"
UnicodeString GMTimeToXMLDate(TDateTime Value);

UnicodeString LocalTimeToHTTPDate(TDateTime Value);
UnicodeString LocalTimeToRFC822Date(TDateTime Value);
UnicodeString LocalTimeToRFC5322Date(TDateTime Value);
UnicodeString LocalTimeToXMLDate(TDateTime Value);

// "Sun, 06 Nov 1994 08:49:37 GMT"; month and day names in any case.
TDateTime HTTPDateToGMTime(UnicodeStringView Text);
// "06 Nov 94 08:49 EST", "06 Nov 1994 08:49:37 +0100": 2 to 4 year digits, optional seconds,
// a numeric zone or a military/North American zone name.
TDateTime RFC822DateToGMTime(UnicodeStringView Text);
// "06 Nov 1994 08:49:37 +0100": 4 year digits, optional seconds, numeric zone.
TDateTime RFC5322DateToGMTime(UnicodeStringView Text);
// "1994-11-06T08:49:37Z", "1994-11-06" (midnight) or "08:49:37" (on day 0).
TDateTime XMLDateToGMTime(UnicodeStringView Text);

TDateTime HTTPDateToLocalTime(UnicodeStringView Text);
TDateTime RFC822DateToLocalTime(UnicodeStringView Text);
TDateTime RFC5322DateToLocalTime(UnicodeStringView Text);
TDateTime XMLDateToLocalTime(UnicodeStringView Text);

// UTF-8 forms of the same functions (identical results and errors).
std::string GMTimeToHTTPDateUtf8(TDateTime Value);
std::string GMTimeToRFC822DateUtf8(TDateTime Value);
std::string GMTimeToRFC5322DateUtf8(TDateTime Value);
std::string GMTimeToXMLDateUtf8(TDateTime Value);
std::string LocalTimeToHTTPDateUtf8(TDateTime Value);
std::string LocalTimeToRFC822DateUtf8(TDateTime Value);
std::string LocalTimeToRFC5322DateUtf8(TDateTime Value);
std::string LocalTimeToXMLDateUtf8(TDateTime Value);

TDateTime HTTPDateToGMTime(std::string_view Text);
TDateTime RFC822DateToGMTime(std::string_view Text);
TDateTime RFC5322DateToGMTime(std::string_view Text);
TDateTime XMLDateToGMTime(std::string_view Text);
TDateTime HTTPDateToLocalTime(std::string_view Text);
TDateTime RFC822DateToLocalTime(std::string_view Text);
TDateTime RFC5322DateToLocalTime(std::string_view Text);
TDateTime XMLDateToLocalTime(std::string_view Text);

}  // namespace quma
QUMA_PUBLIC_END
