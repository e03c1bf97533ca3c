// Phonetic coding of the runtime base layer.
#pragma once

#include <quma/Export.h>

#include <quma/System.h>

QUMA_PUBLIC_BEGIN
namespace quma {

// The host Soundex: the first character upper-cased (ASCII letters only), then the digit of every
// following letter (BFPV 1, CGJKQSXZ 2, DT 3, L 4, MN 5, R 6) that differs from the previous
// letter's digit; vowels and Y (and any other character) separate equal digits, H and W do not.
// The code stops at Length characters and is padded with "0" up to Length. An empty text, or a
// Length below 1, gives the empty string. Any Length is accepted (not only 1..8).
UnicodeString Soundex(UnicodeStringView Text, Integer Length = 4);

}  // namespace quma
QUMA_PUBLIC_END
