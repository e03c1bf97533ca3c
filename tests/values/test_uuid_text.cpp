// The text and byte forms of TQUMA_Uuid, checked against libuuid and against their own readers.
#include <quma/Strings.h>
#include <quma/SysUtils.h>
#include <quma/Uuid.h>

#include <gtest/gtest.h>
#include <uuid/uuid.h>

#include "ValuesTestSupport.h"

#include <algorithm>
#include <cstring>
#include <vector>
#include <random>

namespace quma {
namespace {

using test::ConvertErrorOf;
using test::RandomUuid;

UnicodeString ReadError(UnicodeStringView text) {
  return ConvertErrorOf([&] { (void)TQUMA_Uuid::Create(text); });
}

TEST(UuidText, StandardAndMSFormsMatchLibuuidAndEveryFormReadsBack) {
  std::mt19937 rng(11);
  for (int i = 0; i < 500; ++i) {
    TQUMA_Uuid u = RandomUuid(rng);
    if (u._baUuid[0] == 'Q' && u._baUuid[1] == 0) u._baUuid[1] = 1;  // not an internal reference
    char ref[37];
    uuid_unparse_lower(u._baUuid, ref);
    ASSERT_EQ(u.Format(u""), Utf8ToUtf16(ref));
    ASSERT_EQ(u.FormatUtf8(), ref);
    char upper[37];
    uuid_unparse_upper(u._baUuid, upper);
    ASSERT_EQ(u.Format(u"ms"), u"{" + Utf8ToUtf16(upper) + u"}");
    ASSERT_EQ(u.Format("Microsoft"), u.Format(u"MS"));
    // We read what libuuid writes.
    uuid_t gen;
    uuid_generate_random(gen);
    char text[37];
    uuid_unparse_upper(gen, text);
    const TQUMA_Uuid read = TQUMA_Uuid::Create(std::string_view(text));
    ASSERT_EQ(std::memcmp(read._baUuid, gen, 16), 0);
    for (const char16_t* name : {u"", u"ms", u"MICROSOFT", u"base64", u"base.64", u"base:64", u"base::64", u"hex",
                                 u"dbhex", u"base16", u"base.16", u"base:16", u"Base::16", u"jhashpath"}) {
      const UnicodeString text = u.Format(name);
      ASSERT_EQ(TQUMA_Uuid::Create(text), u) << Utf16ToUtf8(name) << " " << Utf16ToUtf8(text);
      ASSERT_EQ(TQUMA_Uuid::TryParseText(text), u);
      ASSERT_EQ(TQUMA_Uuid::Create(Utf16ToUtf8(text)), u);
    }
    // The raw form reads back unless one of its units is zero (the length stops there).
    const UnicodeString raw = u.Format(u"binary");
    ASSERT_EQ(raw, u.Format(u"mysql"));
    ASSERT_EQ(raw.size(), 8u);
    if (raw.find(u'\0') == UnicodeString::npos) {
      ASSERT_EQ(TQUMA_Uuid::Create(raw), u);
      ASSERT_EQ(TQUMA_Uuid::TryParseText(raw), std::nullopt);  // not a printable form
    }
  }
}

TEST(UuidText, ShapesOfTheForms) {
  const TQUMA_Uuid u = TQUMA_Uuid::Create(u"00112233-4455-6677-8899-aabbccddeeff");
  EXPECT_EQ(u.Format(u"hex"), u"00112233445566778899aabbccddeeff");
  EXPECT_EQ(u.Format(u"base64"), u"ABEiM0RVZneImaq7zN3u/w==");
  const Cardinal h = u.JHash();
  const UnicodeString path = u.Format(u"jhashpath");
  ASSERT_EQ(path.size(), 38u);
  EXPECT_EQ(path.substr(0, 6), LowerCase(Format(u"%.2x\\%.2x\\", (h >> 8) & 0xFF, h & 0xFF)));
  EXPECT_EQ(path.substr(6), u"00112233445566778899aabbccddeeff");
  EXPECT_EQ(u.Format(u"unknown"), u"00112233-4455-6677-8899-aabbccddeeff");
  // Bytes beginning with the UTF-16 text "QUM" format as an internal reference, NULs kept.
  TQUMA_Uuid ref;
  ref._SetAsString(u"QUMA-Ref");
  EXPECT_EQ(ref.Format(), u"Internal Reference: " + UnicodeString(u"Q\0U\0M\0A\0-\0R\0e\0f\0", 16));
  EXPECT_EQ(ref.Format(u"hex").substr(0, 10), u"510055004d");  // named forms are unaffected
}

// The buffer forms write what the string forms return, in both unit types, and write nothing
// into a buffer that is too small.
TEST(UuidText, FormatToWritesTheStringFormsWithoutAllocating) {
  std::mt19937 rng(5);
  TQUMA_Uuid ref;
  ref._SetAsString(u"QUMA-R\u00e9\xd800");  // internal reference, non-ASCII and a lone surrogate
  std::vector<TQUMA_Uuid> values{ref, TQUMA_Uuid()};
  for (int i = 0; i < 50; ++i) values.push_back(RandomUuid(rng));
  for (const TQUMA_Uuid& u : values)
    for (const char* name : {"", "ms", "base64", "hex", "binary", "jhashpath"}) {
      char16_t wide[TQUMA_Uuid::MaxTextLength];
      const UnicodeString expected = u.Format(std::string_view(name));
      ASSERT_EQ(UnicodeString(wide, u.FormatTo(wide, std::string_view(name))), expected) << name;
      ASSERT_EQ(UnicodeString(wide, u.FormatTo(wide, Utf8ToUtf16(name))), expected) << name;
      char narrow[TQUMA_Uuid::MaxUtf8TextLength];
      const std::string utf8 = u.FormatUtf8(name);
      ASSERT_EQ(utf8, Utf16ToUtf8(expected));
      ASSERT_EQ(std::string(narrow, u.FormatTo(narrow, name)), utf8) << name;
      // Exactly long enough, and one short.
      std::vector<char> fit(utf8.size()), shortBy1(utf8.size() - 1, '#');
      ASSERT_EQ(u.FormatTo(std::span<char>(fit), name), utf8.size());
      ASSERT_EQ(u.FormatTo(std::span<char>(shortBy1), name), 0u);
      ASSERT_EQ(std::count(shortBy1.begin(), shortBy1.end(), '#'), static_cast<std::ptrdiff_t>(shortBy1.size()));
      std::vector<char16_t> fit16(expected.size()), short16(expected.size() - 1, u'#');
      ASSERT_EQ(u.FormatTo(std::span<char16_t>(fit16), name), expected.size());
      ASSERT_EQ(UnicodeString(fit16.begin(), fit16.end()), expected);
      ASSERT_EQ(u.FormatTo(std::span<char16_t>(short16), name), 0u);
    }
}

TEST(UuidText, RecognitionByLengthAndPunctuation) {
  const TQUMA_Uuid u = TQUMA_Uuid::Create(u"00112233-4455-6677-8899-aabbccddeeff");
  // The MS form with its closing brace missing (37 units) is still the MS form.
  EXPECT_EQ(TQUMA_Uuid::Create(u"{00112233-4455-6677-8899-AABBCCDDEEFF"), u);
  // The path form with "/" separators.
  UnicodeString path = u.Format(u"jhashpath");
  path[2] = path[5] = u'/';
  EXPECT_EQ(TQUMA_Uuid::Create(path), u);
  // The empty text is the zero value; the length stops at the first zero unit.
  TQUMA_Uuid z = u;
  EXPECT_TRUE(z._ReadFormattedUuid(u""));
  EXPECT_TRUE(z.IsZero());
  EXPECT_TRUE(TQUMA_Uuid::Create(static_cast<const char16_t*>(nullptr)).IsZero());
  EXPECT_EQ(TQUMA_Uuid::Create(UnicodeString(u"00112233445566778899aabbccddeeff\0junk", 37)),
            TQUMA_Uuid::Create(u"00112233445566778899aabbccddeeff"));
  // Sixteen units: a unit with a high byte holds two digits, low byte first; others are bytes.
  UnicodeString wide;
  for (int i = 0; i < 16; ++i) wide.push_back(i < 8 ? char16_t(u'a' | (u'5' << 8)) : char16_t(0x20 + i));
  const TQUMA_Uuid w = TQUMA_Uuid::Create(wide);
  EXPECT_EQ(w._baUuid[0], 0xA5);
  EXPECT_EQ(w._baUuid[15], 0x2F);
  // Digits: only the low byte of a unit is looked at.
  EXPECT_EQ(TQUMA_Uuid::Create(u"\u0130\u0131112233445566778899aabbccddeeff"),
            TQUMA_Uuid::Create(u"01112233445566778899aabbccddeeff"));
  // The text reader refuses the 16- and 8-unit forms.
  TQUMA_Uuid t;
  EXPECT_EQ(ConvertErrorOf([&] { t._ReadTextFormattedUuid(wide.c_str()); }), u"Unrecognised Format");
  EXPECT_EQ(ConvertErrorOf([&] { t._ReadTextFormattedUuid(u"ABCDEFGH"); }), u"Unrecognised Format");
  EXPECT_EQ(TQUMA_Uuid::TryParseText(wide), std::nullopt);
  EXPECT_EQ(TQUMA_Uuid::TryParse(wide), w);
}

TEST(UuidText, EveryErrorText) {
  EXPECT_EQ(ReadError(u"00112233-4455-6677-8899-aabbccddeef"), u"Unrecognised Format");  // 35 units
  EXPECT_EQ(ReadError(u"{00112233-4455-6677-8899-AABBCCDDEEFF]"), u"Unrecognised Format");
  // A bad digit in a recognised form gives the form's message, not the digit's.
  EXPECT_EQ(ReadError(u"00112233-4455-6677-8899-aabbccddeefg"), u"Invalid format for Standard Uuid");
  EXPECT_EQ(ReadError(u"00112233-4455-6677-889--aabbccddeeff"), u"Invalid format for Standard Uuid");
  EXPECT_EQ(ReadError(u"{00112233-4455-6677-8899-AABBCCDDEEFX}"), u"Invalid format for MS Styler Uuid");
  EXPECT_EQ(ReadError(u"00112233445566778899aabbccddeefz"), u"Invalid format for Hex Uuid");
  // A hash digit changed: the mismatch reads as a bad path.
  const TQUMA_Uuid u = TQUMA_Uuid::Create(u"00112233-4455-6677-8899-aabbccddeeff");
  UnicodeString path = u.Format(u"jhashpath");
  path[0] = path[0] == u'0' ? u'1' : u'0';
  EXPECT_EQ(ReadError(path), u"Invalid format for JHash Uuid");
  UnicodeString badDigit = u.Format(u"jhashpath");
  badDigit[20] = u'q';
  EXPECT_EQ(ReadError(badDigit), u"Invalid format for JHash Uuid");
  TQUMA_Uuid direct;
  EXPECT_EQ(ConvertErrorOf([&] { direct._ReadJHashpathFormattedUuid(u"ab|cd\\00112233445566778899aabbccddeeff"); }),
            u"Invalid format for JHash Uuid");
  EXPECT_EQ(ReadError(u"ABEiM0RVZneImaq7zN3u!w=="), u"Invalid character found in Base64 encoded data");
  EXPECT_EQ(ReadError(u"ABEiM0RVZneImaq7zN3u===="), u"Base64 encoded Uuid did not give 16 bytes of data");
  EXPECT_EQ(ReadError(u"ABEiM0RVZneImaq7    zN3u"), u"Base64 encoded Uuid did not give 16 bytes of data");
  UnicodeString wide(16, u'a');
  wide[3] = char16_t(u'a' | (u'x' << 8));
  EXPECT_EQ(ReadError(wide), u"Invalid hex character encountered");
  // Failing standard, MS, hex and path reads leave the value as it was.
  TQUMA_Uuid keep = u;
  EXPECT_THROW(keep._ReadFormattedUuid(u"00112233-4455-6677-8899-aabbccddeefg"), EConvertError);
  EXPECT_THROW(keep._ReadFormattedUuid(path), EConvertError);
  EXPECT_EQ(keep, u);
  EXPECT_EQ(TQUMA_Uuid::TryParse(u"00112233-4455-6677-8899-aabbccddeefg"), std::nullopt);
  EXPECT_EQ(TQUMA_Uuid::TryParse(std::string(1 << 20, '\xe9')), std::nullopt);
  EXPECT_EQ(TQUMA_Uuid::TryParse(std::string("00112233-4455-6677-8899-aabbccddeeff\0", 37) + std::string(500, 'x')), u);
  EXPECT_EQ(TQUMA_Uuid::TryParse("00112233-4455-6677-8899-aabbccddeeff"), u);
}

TEST(UuidText, SingleFormReadersOnShortTextFailInsteadOfOverrunning) {
  TQUMA_Uuid u;
  EXPECT_EQ(ConvertErrorOf([&] { u._ReadStandardFormattedUuid(u"0011"); }), u"Invalid format for Standard Uuid");
  EXPECT_EQ(ConvertErrorOf([&] { u._ReadMSFormattedUuid(u"{0011"); }), u"Invalid format for MS Styler Uuid");
  EXPECT_EQ(ConvertErrorOf([&] { u._ReadBase16FormattedUuid(u""); }), u"Invalid format for Hex Uuid");
  EXPECT_EQ(ConvertErrorOf([&] { u._ReadBase64FormattedUuid(u"AAAA"); }),
            u"Base64 encoded Uuid did not give 16 bytes of data");
  EXPECT_TRUE(u._ReadBase64FormattedUuid(u"ABEiM0RVZneImaq7zN3u/w==trailing"));
  EXPECT_EQ(u, TQUMA_Uuid::Create(u"00112233-4455-6677-8899-aabbccddeeff"));
  EXPECT_TRUE(u._ReadBinaryFormattedUuid(u"AB"));  // the rest reads as zeros
  EXPECT_EQ(u.Format(u"hex"), u"41004200000000000000000000000000");
  EXPECT_TRUE(u._ReadWideCharFormattedUuid(u"\u3531"));  // "15" then zeros
  EXPECT_EQ(u.Format(u"hex"), u"15000000000000000000000000000000");
  EXPECT_TRUE(u._ReadStandardFormattedUuid(u"--00112233445566778899aabbccddeeff"));  // dashes anywhere
  EXPECT_EQ(u.Format(u"hex"), u"00112233445566778899aabbccddeeff");
  // The view and UTF-8 spellings read the same way.
  TQUMA_Uuid v;
  EXPECT_TRUE(v._ReadBase16FormattedUuid(std::string_view("ffeeddccbbaa99887766554433221100")));
  EXPECT_TRUE(u._ReadBase16FormattedUuid(UnicodeStringView(u"ffeeddccbbaa99887766554433221100")));
  EXPECT_EQ(u, v);
  EXPECT_EQ(ConvertErrorOf([&] { v._ReadMSFormattedUuid(std::string_view("{\xc3\xa9")); }),
            u"Invalid format for MS Styler Uuid");
}

}  // namespace
}  // namespace quma
