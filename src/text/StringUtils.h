// String utilities: code-point comparison of UTF-8 text, phonetic similarity, splitting on a
// repeated separator, token extraction, ASCII case-insensitive search, joining, the text form of
// single-precision rectangles, and two fixed number-format settings for locale-independent text.
#pragma once

#include <quma/Export.h>

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include <quma/FormatSettings.h>
#include <quma/RectF.h>
#include <quma/StringList.h>
#include <quma/SysUtils.h>
#include <quma/System.h>

QUMA_PUBLIC_BEGIN
namespace quma {

// Raised by the UTF-8 reader of UTF8CompareStr, with "expected byte not found" (the text ends
// inside a sequence) or "expected continuation byte not found".
QUMA_DECLARE_EXCEPTION(EQUMAUTF8EncodingError, Exception);
inline constexpr char16_t SUTF8ExpectedByte[] = u"expected byte not found";
inline constexpr char16_t SUTF8ExpectedContinuation[] = u"expected continuation byte not found";

// Fixed "en-US" and "en-GB" settings ("." decimal separator, "," thousands separator), built at
// load time ("en_GB" first) and never changed.
extern const TFormatSettings& USFormatSettings;
extern const TFormatSettings& GBFormatSettings;

// Compares code point by code point (a UTF-16 argument contributes single code units, without
// pairing surrogates): -1 when A sorts first, 1 when B does. When one runs out, the argument
// with the smaller stored length (bytes for UTF-8, code units for UTF-16) is less, so a mixed
// comparison of equal text can still be non-zero. Lead bytes that start no sequence (stray
// continuation bytes, 0xF8..0xFF) read as code point 0; overlong forms and surrogates are taken
// as decoded.
Integer UTF8CompareStr(std::string_view A, std::string_view B);
Integer UTF8CompareStr(std::string_view A, UnicodeStringView B);
Integer UTF8CompareStr(UnicodeStringView A, std::string_view B);
// char8_t text (u8"..." literals, std::u8string) reads the same bytes.
inline Integer UTF8CompareStr(std::u8string_view A, std::u8string_view B) {
  return UTF8CompareStr(std::string_view(reinterpret_cast<const char*>(A.data()), A.size()),
                        std::string_view(reinterpret_cast<const char*>(B.data()), B.size()));
}
inline Integer UTF8CompareStr(std::u8string_view A, UnicodeStringView B) {
  return UTF8CompareStr(std::string_view(reinterpret_cast<const char*>(A.data()), A.size()), B);
}
inline Integer UTF8CompareStr(UnicodeStringView A, std::u8string_view B) {
  return UTF8CompareStr(A, std::string_view(reinterpret_cast<const char*>(B.data()), B.size()));
}

// Share of equal positions of the two Soundex codes (each as long as its text, padding zeros
// removed), relative to the longer code: 1.0 for the same code. Two texts whose codes are both
// empty give NaN (0/0).
double SoundexConfidenceCompare(UnicodeStringView A, UnicodeStringView B);

// Splits Text on every occurrence of Separator into List (cleared first) and returns true; a
// Text ending in Separator yields a final empty entry. When Separator does not occur (or is
// empty), returns false and leaves List untouched. Without CaseSensitive the search ignores ASCII
// case (TextPos).
bool FindRepeatedEmbeddedString(UnicodeStringView Text, UnicodeStringView Separator, TStrings& List,
                                bool CaseSensitive);
bool FindRepeatedEmbeddedString(UnicodeStringView Text, UnicodeStringView Separator, std::vector<UnicodeString>& List,
                                bool CaseSensitive);

// 1-based position of SubStr in Text at or after Offset, ignoring ASCII case; 0 when not found,
// SubStr is empty, Offset is below 1, or fewer than SubStr's length characters remain.
Integer TextPos(UnicodeStringView SubStr, UnicodeStringView Text, Integer Offset = 1) noexcept;

// The text before the first / after the last character that is one of Delimiters; the whole text
// when none occurs.
UnicodeString FirstToken(UnicodeStringView Text, const std::vector<WideChar>& Delimiters);
UnicodeString FirstToken(UnicodeStringView Text, UnicodeStringView Delimiters);
UnicodeString LastToken(UnicodeStringView Text, const std::vector<WideChar>& Delimiters);
UnicodeString LastToken(UnicodeStringView Text, UnicodeStringView Delimiters);

// Returns the text before the first character found in Delimiters1 or Delimiters2 and leaves in
// Text what follows that character (the delimiter is dropped; Text becomes empty when none occurs).
UnicodeString GetToken(UnicodeString& Text, UnicodeStringView Delimiters1, UnicodeStringView Delimiters2 = {});

// Appends Addition to Text, with Separator between them when Text is not empty; an empty
// Addition changes nothing.
void ConcatenateWithSeparator(UnicodeString& Text, UnicodeStringView Separator, UnicodeStringView Addition);

// "(left,top,right,bottom)" with GBFormatSettings numbers, e.g. "(0,0,10.5,20)".
UnicodeString RectToString(const TRectF& R);
// The reverse; any missing or malformed number gives the empty rectangle.
TRectF StringToRect(UnicodeStringView S) noexcept;

}  // namespace quma
QUMA_PUBLIC_END
