// Hexadecimal text for byte arrays: lower-case pairs, optionally spaced and broken into lines,
// and the reverse, which ignores white space and rejects anything that is not a hex digit.
#pragma once

#include <quma/Export.h>

#include <span>
#include <string>
#include <string_view>

#include <quma/System.h>

QUMA_PUBLIC_BEGIN
namespace quma {

// The three texts HexStringToBytes raises EConvertError with. Validation runs over the whole
// text before any pair is converted, so only the first can be seen in practice: the other two
// guard the pairing step and are kept so that callers can match every text the routine owns.
inline constexpr char16_t SHexStringInvalidCharacters[] = u"HexStringToBytes: String contains invalid characters";
inline constexpr char16_t SHexStringNoMatch[] = u"HexStringToBytes: could not match hex characters";
inline constexpr char16_t SHexStringInvalidHex[] = u"HexStringToBytes: invalid hex characters found";

// Two lower-case digits per byte, nothing between them.
UnicodeString BytesToHexString(std::span<const Byte> baBytes);
inline UnicodeString BytesToHexString(const TBytes& baBytes) {
  return BytesToHexString(std::span<const Byte>(baBytes));
}

// With layout: nSpaces blanks between two bytes of one line (none when <= 0), nBytesPerLine bytes
// per line (0, or a negative number, keeps everything on one line) and szLineSeparator between
// lines. Nothing is written before the first byte or after the last.
UnicodeString BytesToHexString(std::span<const Byte> baBytes, Integer nSpaces, Integer nBytesPerLine,
                               UnicodeStringView szLineSeparator);
inline UnicodeString BytesToHexString(const TBytes& baBytes, Integer nSpaces, Integer nBytesPerLine,
                                      UnicodeStringView szLineSeparator) {
  return BytesToHexString(std::span<const Byte>(baBytes), nSpaces, nBytesPerLine, szLineSeparator);
}

// UTF-8 forms of the same texts.
std::string BytesToHexStringUtf8(std::span<const Byte> baBytes);
std::string BytesToHexStringUtf8(std::span<const Byte> baBytes, Integer nSpaces, Integer nBytesPerLine,
                                 std::string_view szLineSeparator);

// Removes white space (blank, tab, line feed, vertical tab, form feed, carriage return), then
// turns each pair of hex digits (either case) into one byte. Any other character, or an odd
// number of digits, raises EConvertError "HexStringToBytes: String contains invalid characters";
// baBytes is left as it was in that case.
void HexStringToBytes(UnicodeStringView text, TBytes& baBytes);
void HexStringToBytes(std::string_view text, TBytes& baBytes);
inline TBytes HexStringToBytes(UnicodeStringView text) {
  TBytes r;
  HexStringToBytes(text, r);
  return r;
}
inline TBytes HexStringToBytes(std::string_view text) {
  TBytes r;
  HexStringToBytes(text, r);
  return r;
}

}  // namespace quma
QUMA_PUBLIC_END
