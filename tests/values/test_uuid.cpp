// TQUMA_Uuid: fields, GUID conversions, hash, ordering and the variant forms; the text and byte
// forms checked against libuuid and against their own readers; versions 4, 5 and 7, the SHA-1
// under version 5, and the std::format-style format codes.
#include <quma/SHA1.h>
#include <quma/Strings.h>
#include <quma/SysUtils.h>
#include <quma/Uuid.h>

#include <Poco/SHA1Engine.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include "ValuesTestSupport.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <thread>
#include <vector>

namespace quma {
namespace {

using test::ErrorText;
using test::RandomUuid;

TQUMA_Uuid FromBytes(std::initializer_list<int> bytes) {
  TQUMA_Uuid u;
  int i = 0;
  for (int b : bytes) u._baUuid[i++] = static_cast<Byte>(b);
  return u;
}

TEST(UuidValue, FieldViewsSettersConstructorsAndRandomise) {
  TQUMA_Uuid u = FromBytes({0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0x4D, 0xEF, 0xA1, 0x02, 1, 2, 3, 4, 5, 6});
  EXPECT_EQ(u._GetTimeLow(), 0x12345678u);
  EXPECT_EQ(u._GetTimeMid(), 0x9ABC);
  EXPECT_EQ(u._GetTimeHighAndVersion(), 0x4DEF);
  EXPECT_EQ(u._GetVersion(), 4);
  EXPECT_EQ(u._GetClockSequenceHighAndVariant(), 0xA1);
  EXPECT_EQ(u._GetVariant(), 5);  // 101 in the top bits
  EXPECT_EQ(u._GetClockSequenceLow(), 0x02);
  for (int i = 0; i < 6; ++i) EXPECT_EQ(u._GetNode(i), i + 1);

  TQUMA_Uuid w;
  w._SetTimeLow(0x12345678);
  w._SetTimeMid(0xABCD);
  w._SetTimeHighAndVersion(0x1122);
  w._SetClockSequenceHighAndVariant(0x33);
  w._SetClockSequenceLow(0x44);
  w._SetNode(0, 0x88);
  w._SetNode(5, 0x99);
  w._SetNode(6, 0x77);   // ignored
  w._SetNode(-1, 0x77);  // ignored
  EXPECT_EQ(w, FromBytes({0x12, 0x34, 0x56, 0x78, 0xAB, 0xCD, 0x11, 0x22, 0x33, 0x44, 0x88, 0, 0, 0, 0, 0x99}));
  EXPECT_EQ(w._GetAsGuid().D1, 0x12345678u);
  for (Integer bad : {6, -1, 100})
    EXPECT_EQ(ErrorText<EArgumentOutOfRangeException>([&] { (void)w._GetNode(bad); }),
              Format(u"%d is invalid (should be between 0 and 5)", bad));

  u._baUuid[6] = 0xAB;
  u._SetVersion(4);
  EXPECT_EQ(u._baUuid[6], 0x4B);
  u._SetVersion(0x37);  // only the low nibble
  EXPECT_EQ(u._baUuid[6], 0x7B);
  u._baUuid[8] = 0xFF;
  u._SetVariant(2);  // clears the top three bits and sets none
  EXPECT_EQ(u._baUuid[8], 0x1F);

  // The raw string form: eight units of two bytes, low byte first; a shorter text sets nothing.
  TQUMA_Uuid raw;
  raw._SetAsString(u.AsString());
  EXPECT_EQ(raw, u);
  EXPECT_EQ(FromBytes({0x41, 0x00, 0x42, 0x01}).AsString().substr(0, 3), UnicodeString(u"A\u0142\0", 3));
  raw._SetAsString(UnicodeString(7, u'x'));
  EXPECT_EQ(raw, u);

  // The zero value, the constructors and Randomise.
  const TQUMA_Uuid z = TQUMA_Uuid::Create(true);
  EXPECT_TRUE(z.IsZero());
  // false seeds the general generator and does not fill the value.
  EXPECT_TRUE(TQUMA_Uuid::Create(false).IsZero());
  const Byte bytes[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  const TQUMA_Uuid b = TQUMA_Uuid::Create(bytes);
  EXPECT_EQ(b.AsBytes(), TBytes(bytes, bytes + 16));
  EXPECT_EQ(TQUMA_Uuid::Create(b), b);
  EXPECT_FALSE(b.IsZero());
  TQUMA_Uuid c = b;
  c.Zero();
  EXPECT_TRUE(c.IsZero());
  // Randomise gives distinct version 4 values, every byte drawn.
  std::set<TQUMA_Uuid> seen;
  TQUMA_Uuid drawn;
  for (int i = 0; i < 200; ++i) {
    TQUMA_Uuid u;
    u.Randomise();
    EXPECT_EQ(u._GetVersion(), 4);
    EXPECT_EQ(u._baUuid[8] & 0xC0, 0x80);  // RFC 4122 variant
    EXPECT_TRUE(seen.insert(u).second);
    for (int k = 0; k < 16; ++k) drawn._baUuid[k] |= u._baUuid[k];
  }
  EXPECT_EQ(std::count(drawn._baUuid, drawn._baUuid + 16, Byte{0}), 0);
}

TEST(UuidValue, GuidConversionsOrderingByteAndVariantForms) {
  const TGUID g = TGUID::Parse("{12345678-9ABC-DEF0-1122-334455667788}");
  TQUMA_Uuid target = FromBytes({0xAA, 0xBB, 0xCC, 0xDD});
  target = g;  // assignment keeps bytes 0..3
  EXPECT_EQ(target, FromBytes({0xAA, 0xBB, 0xCC, 0xDD, 0x9A, 0xBC, 0xDE, 0xF0, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                               0x88}));
  const TQUMA_Uuid fresh(g);  // a new value starts at zero
  EXPECT_EQ(fresh._GetTimeLow(), 0u);
  EXPECT_EQ(static_cast<TGUID>(fresh).D1, 0u);
  // From the value side every field survives.
  std::mt19937 rng(3);
  const TQUMA_Uuid r = RandomUuid(rng);
  TQUMA_Uuid again = r;
  again = static_cast<TGUID>(r);
  EXPECT_EQ(again, r);

  // Compare orders byte-wise while the operators test every byte.
  const TQUMA_Uuid a = FromBytes({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16});
  TQUMA_Uuid b = a;
  b._baUuid[15] = 17;
  EXPECT_EQ(TQUMA_Uuid::Compare(a, b), -1);
  EXPECT_EQ(TQUMA_Uuid::Compare(a, a), 0);
  TQUMA_Uuid high = a;
  high._baUuid[0] = 0xFF;  // above in byte 0, so Compare says greater
  EXPECT_EQ(TQUMA_Uuid::Compare(high, b), 1);
  // Element-wise: neither a < b nor b < a unless every byte is below.
  EXPECT_FALSE(a < b);
  EXPECT_FALSE(b > a);
  EXPECT_TRUE(a <= b);
  EXPECT_FALSE(high >= b);  // byte 15 is smaller
  TQUMA_Uuid all = a;
  for (Byte& x : all._baUuid) ++x;
  EXPECT_TRUE(a < all);
  EXPECT_TRUE(all > a);
  EXPECT_NE(a, b);
  // Ordered containers key on Compare (hashed ones on JHash: see the text forms).
  std::map<TQUMA_Uuid, int> m{{b, 2}, {a, 1}, {high, 3}};
  EXPECT_EQ(m.begin()->second, 1);
  EXPECT_EQ(m.rbegin()->second, 3);

  // The byte and variant forms, and 8-bit variant text.
  const TQUMA_Uuid u = RandomUuid(rng);
  TQUMA_Uuid v;
  v._SetAsBytes(u.AsBytes());
  EXPECT_EQ(v, u);

  Variant var = u.AsVariant();
  EXPECT_EQ(VarType(var), varArray | varByte);
  EXPECT_EQ(VarArrayLowBound(var, 1), 0);
  EXPECT_EQ(VarArrayHighBound(var, 1), 15);
  TQUMA_Uuid w;
  EXPECT_TRUE(w.TrySetAsVariant(var));
  EXPECT_EQ(w, u);

  for (const Variant& empty : {Variant(), Variant::Null()}) {
    w = u;
    EXPECT_TRUE(w.TrySetAsVariant(empty));
    EXPECT_TRUE(w.IsZero());
  }

  EXPECT_TRUE(w.TrySetAsVariant(Variant::OleStr(u.Format())));
  EXPECT_EQ(w, u);
  // Other types, the runtime's own UTF-16 string included, are not taken.
  w.Zero();
  EXPECT_FALSE(w.TrySetAsVariant(Variant(u.Format())));
  EXPECT_FALSE(w.TrySetAsVariant(Variant(Integer{5})));
  w._SetAsVariant(Variant(u.Format()));
  EXPECT_TRUE(w.IsZero());
  // OLE-string reader errors pass as they are.
  EXPECT_EQ(ErrorText([&] { w.TrySetAsVariant(Variant::OleStr(u"not a uuid")); }), u"Unrecognised Format");
  // 8-bit text is handed to the wide reader as it is: 32 hex digits as 8-bit text are 16 UTF-16 units of two digits
  // each: the wide-character form.
  EXPECT_TRUE(w.TrySetAsVariant(Variant::AnsiString("0123456789abcdef0123456789abcdef")));
  EXPECT_EQ(w, TQUMA_Uuid::Create(u"0123456789abcdef0123456789abcdef"));
  // The standard form as 8-bit text is 18 units: no form has that length.
  const std::string standard = "01234567-89ab-cdef-0123-456789abcdef";
  EXPECT_EQ(ErrorText([&] { w.TrySetAsVariant(Variant::AnsiString(standard)); }),
            u"Unable to interpret Variant text as Uuid");
  // The plain setter passes the reader's error.
  EXPECT_EQ(ErrorText([&] { w._SetAsVariant(Variant::AnsiString(standard)); }), u"Unrecognised Format");
}

// ---- text and byte forms ----

const TQUMA_Uuid Sample = TQUMA_Uuid::Create(u"00112233-4455-6677-8899-aabbccddeeff");

UnicodeString ReadError(UnicodeStringView text) {
  return ErrorText([&] { (void)TQUMA_Uuid::Create(text); });
}

// Over random values, the zero value and an internal reference: the standard and MS forms match libuuid; every named form reads back; the buffer forms
// write what the string forms return, in both unit types, and nothing into a buffer too small.
TEST(UuidText, EveryFormMatchesLibuuidAndItsBufferFormAndReadsBack) {
  std::mt19937 rng(11);
  TQUMA_Uuid internal;
  internal._SetAsString(u"QUM-\U00010000\u00e9\xd800");  // internal reference: a pair, non-ASCII, a lone surrogate
  std::vector<TQUMA_Uuid> values{internal, TQUMA_Uuid()};
  for (int i = 0; i < 500; ++i) values.push_back(RandomUuid(rng));
  for (const TQUMA_Uuid& u : values) {
    ASSERT_EQ(std::hash<TQUMA_Uuid>{}(u), u.JHash());
    const bool isReference = u._baUuid[0] == 'Q' && u._baUuid[1] == 0;
    char lower[37], upper[37];
    uuid_unparse_lower(u._baUuid, lower);
    uuid_unparse_upper(u._baUuid, upper);
    ASSERT_TRUE(isReference || u.FormatUtf8() == lower);
    ASSERT_EQ(u.Format(u"ms"), u"{" + Utf8ToUtf16(upper) + u"}");
    ASSERT_TRUE(isReference || TQUMA_Uuid::Create(std::string_view(upper)) == u);  // libuuid's text reads back
    // Each name with the one whose form it gives.
    for (const auto& [name, same] : {std::pair{"", ""}, {"ms", "ms"}, {"MICROSOFT", "ms"}, {"base64", "base64"},
                                    {"base.64", "base64"}, {"base:64", "base64"}, {"base::64", "base64"}, {"hex", "hex"},
                                    {"dbhex", "hex"}, {"base16", "hex"}, {"base.16", "hex"}, {"base:16", "hex"},
                                    {"Base::16", "hex"}, {"jhashpath", "jhashpath"}, {"binary", "binary"},
                                    {"mysql", "binary"}}) {
      SCOPED_TRACE(name);
      char16_t wide[TQUMA_Uuid::MaxTextLength];
      const UnicodeString expected = u.Format(std::string_view(name));
      ASSERT_EQ(expected, u.Format(Utf8ToUtf16(same)));
      ASSERT_EQ(UnicodeString(wide, u.FormatTo(wide, Utf8ToUtf16(name))), expected);
      const std::string utf8 = u.FormatUtf8(name);
      ASSERT_EQ(utf8, Utf16ToUtf8(expected));
      // Exactly long enough, and one short.
      std::vector<char> fit(utf8.size()), shortBy1(utf8.size() - 1, '#');
      ASSERT_EQ(std::string(fit.data(), u.FormatTo(std::span<char>(fit), name)), utf8);
      ASSERT_EQ(u.FormatTo(std::span<char>(shortBy1), name), 0u);
      ASSERT_EQ(std::count(shortBy1.begin(), shortBy1.end(), '#'), static_cast<std::ptrdiff_t>(shortBy1.size()));
      std::vector<char16_t> fit16(expected.size()), short16(expected.size() - 1, u'#');
      ASSERT_EQ(UnicodeString(fit16.data(), u.FormatTo(std::span<char16_t>(fit16), name)), expected);
      ASSERT_EQ(u.FormatTo(std::span<char16_t>(short16), name), 0u);
      if (isReference) continue;
      if (expected.size() != 8) {
        ASSERT_EQ(TQUMA_Uuid::Create(expected), u) << utf8;
        ASSERT_EQ(TQUMA_Uuid::TryParseText(expected), u);
        ASSERT_EQ(TQUMA_Uuid::Create(utf8), u);
      } else if (expected.find(u'\0') == UnicodeString::npos) {
        // The raw form reads back unless one of its units is zero (the length stops there).
        ASSERT_EQ(TQUMA_Uuid::Create(expected), u);
        ASSERT_EQ(TQUMA_Uuid::TryParseText(expected), std::nullopt);  // not a printable form
      }
    }
  }
}

TEST(UuidText, ShapesOfTheFormsAndTheirRecognition) {
  // JHash is Bob Jenkins' lookup2 hash() of the stored bytes with initial value 0, as published.
  EXPECT_EQ(Sample.JHash(), 0x149421D6u);
  EXPECT_EQ(Sample.Format(u"hex"), u"00112233445566778899aabbccddeeff");
  EXPECT_EQ(Sample.Format(u"base64"), u"ABEiM0RVZneImaq7zN3u/w==");
  const Cardinal h = Sample.JHash();
  UnicodeString path = Sample.Format(u"jhashpath");
  EXPECT_EQ(path.substr(0, 6), LowerCase(Format(u"%.2x\\%.2x\\", (h >> 8) & 0xFF, h & 0xFF)));
  EXPECT_EQ(path.substr(6), u"00112233445566778899aabbccddeeff");
  EXPECT_EQ(Sample.Format(u"unknown"), u"00112233-4455-6677-8899-aabbccddeeff");
  // Bytes beginning with the UTF-16 text "QUM" format as an internal reference, NULs kept.
  TQUMA_Uuid ref;
  ref._SetAsString(u"QUMA-Ref");
  EXPECT_EQ(ref.Format(), u"Internal Reference: " + UnicodeString(u"Q\0U\0M\0A\0-\0R\0e\0f\0", 16));
  EXPECT_EQ(ref.Format(u"hex").substr(0, 10), u"510055004d");  // named forms are unaffected
  const UnicodeString nearly = u"00112200-4d55-6677-8899-aabbccddeeff";  // the last two bytes only
  EXPECT_EQ(TQUMA_Uuid::Create(nearly).Format(), nearly);

  // Recognition by length and punctuation.
  // The MS form with its closing brace missing (37 units) is still the MS form.
  EXPECT_EQ(TQUMA_Uuid::Create(u"{00112233-4455-6677-8899-AABBCCDDEEFF"), Sample);
  // The path form with "/" separators.
  path[2] = path[5] = u'/';
  EXPECT_EQ(TQUMA_Uuid::Create(path), Sample);
  // The empty text is the zero value; the length stops at the first zero unit.
  TQUMA_Uuid z = Sample;
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
  EXPECT_EQ(ErrorText([&] { t._ReadTextFormattedUuid(wide.c_str()); }), u"Unrecognised Format");
  EXPECT_EQ(ErrorText([&] { t._ReadTextFormattedUuid(u"ABCDEFGH"); }), u"Unrecognised Format");
  EXPECT_EQ(TQUMA_Uuid::TryParseText(wide), std::nullopt);
  EXPECT_EQ(TQUMA_Uuid::TryParse(wide), w);
}

TEST(UuidText, EveryErrorTextAndShortTextsInSingleFormReaders) {
  EXPECT_EQ(ReadError(u"00112233-4455-6677-8899-aabbccddeef"), u"Unrecognised Format");  // 35 units
  EXPECT_EQ(ReadError(u"{00112233-4455-6677-8899-AABBCCDDEEFF]"), u"Unrecognised Format");
  // A bad digit in a recognised form gives the form's message, not the digit's.
  EXPECT_EQ(ReadError(u"00112233-4455-6677-8899-aabbccddeefg"), u"Invalid format for Standard Uuid");
  EXPECT_EQ(ReadError(u"00112233-4455-6677-889--aabbccddeeff"), u"Invalid format for Standard Uuid");
  EXPECT_EQ(ReadError(u"{00112233-4455-6677-8899-AABBCCDDEEFX}"), u"Invalid format for MS Styler Uuid");
  EXPECT_EQ(ReadError(u"00112233445566778899aabbccddeefz"), u"Invalid format for Hex Uuid");
  // A hash digit changed: the mismatch reads as a bad path.
  UnicodeString path = Sample.Format(u"jhashpath");
  path[0] = path[0] == u'0' ? u'1' : u'0';
  EXPECT_EQ(ReadError(path), u"Invalid format for JHash Uuid");
  UnicodeString badDigit = Sample.Format(u"jhashpath");
  badDigit[20] = u'q';
  EXPECT_EQ(ReadError(badDigit), u"Invalid format for JHash Uuid");
  TQUMA_Uuid direct;
  EXPECT_EQ(ErrorText([&] { direct._ReadJHashpathFormattedUuid(u"ab|cd\\00112233445566778899aabbccddeeff"); }),
            u"Invalid format for JHash Uuid");
  EXPECT_EQ(ReadError(u"ABEiM0RVZneImaq7zN3u!w=="), u"Invalid character found in Base64 encoded data");
  EXPECT_EQ(ReadError(u"ABEiM0RVZneImaq7zN3u===="), u"Base64 encoded Uuid did not give 16 bytes of data");
  EXPECT_EQ(ReadError(u"ABEiM0RVZneImaq7    zN3u"), u"Base64 encoded Uuid did not give 16 bytes of data");
  UnicodeString wide(16, u'a');
  wide[3] = char16_t(u'a' | (u'x' << 8));
  EXPECT_EQ(ReadError(wide), u"Invalid hex character encountered");
  // Failing standard, MS, hex and path reads leave the value as it was.
  TQUMA_Uuid keep = Sample;
  EXPECT_THROW(keep._ReadFormattedUuid(u"00112233-4455-6677-8899-aabbccddeefg"), EConvertError);
  EXPECT_THROW(keep._ReadFormattedUuid(path), EConvertError);
  EXPECT_EQ(keep, Sample);
  EXPECT_EQ(TQUMA_Uuid::TryParse(u"00112233-4455-6677-8899-aabbccddeefg"), std::nullopt);
  EXPECT_EQ(TQUMA_Uuid::TryParse(std::string(1 << 20, '\xe9')), std::nullopt);
  EXPECT_EQ(TQUMA_Uuid::TryParse(std::string("00112233-4455-6677-8899-aabbccddeeff\0", 37) + std::string(500, 'x')),
            Sample);
  // The single-form readers on short text fail instead of overrunning.
  TQUMA_Uuid u;
  EXPECT_EQ(ErrorText([&] { u._ReadStandardFormattedUuid(u"0011"); }), u"Invalid format for Standard Uuid");
  EXPECT_EQ(ErrorText([&] { u._ReadMSFormattedUuid(u"{0011"); }), u"Invalid format for MS Styler Uuid");
  EXPECT_EQ(ErrorText([&] { u._ReadBase16FormattedUuid(u""); }), u"Invalid format for Hex Uuid");
  EXPECT_EQ(ErrorText([&] { u._ReadBase64FormattedUuid(u"AAAA"); }),
            u"Base64 encoded Uuid did not give 16 bytes of data");
  EXPECT_TRUE(u._ReadBase64FormattedUuid(u"ABEiM0RVZneImaq7zN3u/w==trailing"));
  EXPECT_EQ(u, Sample);
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
  EXPECT_EQ(ErrorText([&] { v._ReadMSFormattedUuid(std::string_view("{\xc3\xa9")); }),
            u"Invalid format for MS Styler Uuid");
}

// ---- versions ----

TQUMA_Uuid U(const char* text) { return TQUMA_Uuid::Create(std::string_view(text)); }

bool RfcVariant(const TQUMA_Uuid& u) { return (u._baUuid[8] & 0xC0) == 0x80; }

TEST(SHA1, MatchesPocoIncrementallyAndTheFipsVector) {
  const auto hex = [](const TQUMASHA1::TDigest& d) { return Poco::DigestEngine::digestToHex({d.begin(), d.end()}); };
  EXPECT_EQ(hex(TQUMASHA1::Hash("abc")), "a9993e364706816aba3e25717850c26c9cd0d89d");
  std::mt19937 rng(3);
  std::vector<Byte> data(1000);
  for (auto& b : data) b = static_cast<Byte>(rng());
  for (std::size_t len = 0; len <= 300; len += (len < 130 ? 1 : 17)) {
    Poco::SHA1Engine poco;
    poco.update(data.data(), static_cast<unsigned>(len));
    TQUMASHA1 mine;
    for (std::size_t pos = 0; pos < len;) {  // fed in random pieces
      const std::size_t step = std::min<std::size_t>(len - pos, rng() % 80);
      mine.Update(data.data() + pos, step);
      pos += step;
    }
    const Poco::DigestEngine::Digest& expected = poco.digest();
    const TQUMASHA1::TDigest digest = mine.Final();
    ASSERT_TRUE(std::equal(digest.begin(), digest.end(), expected.begin())) << len;
  }
}

TEST(UuidVersions, Version5VectorsVersion4AndReadingVersion7TimeBack) {
  // RFC 9562 appendix A.4, and the URL name space with a non-ASCII name hashed as UTF-8.
  EXPECT_EQ(TQUMA_Uuid::CreateV5(QUMAUuidNamespaceDNS, std::string_view("www.example.com")),
            U("2ed6657d-e927-568b-95e1-2665a8aea6a2"));
  EXPECT_EQ(TQUMA_Uuid::CreateV5(QUMAUuidNamespaceDNS, u"python.org"), U("886313e1-3b8a-5372-9b90-0c9aee199e5d"));
  const TQUMA_Uuid url = TQUMA_Uuid::CreateV5(QUMAUuidNamespaceURL, u"https://example.com/\u00e9");
  EXPECT_EQ(url, U("20ecd233-a9e7-5067-a96f-fd6600ca3fda"));
  EXPECT_EQ(url.Version(), 5);
  EXPECT_TRUE(RfcVariant(url));
  EXPECT_EQ(QUMAUuidNamespaceX500, U("6ba7b814-9dad-11d1-80b4-00c04fd430c8"));
  EXPECT_EQ(QUMAUuidNamespaceOID, U("6ba7b812-9dad-11d1-80b4-00c04fd430c8"));

  const TQUMA_Uuid v4 = TQUMA_Uuid::CreateV4();
  EXPECT_EQ(v4.Version(), 4);
  EXPECT_TRUE(RfcVariant(v4));
  EXPECT_EQ(v4.V7UnixMilliseconds(), std::nullopt);
  // RFC 9562 appendix A.6.
  EXPECT_EQ(U("017F22E2-79B0-7CC3-98C4-DC0C0C07398F").V7UnixMilliseconds(), Int64{0x017F22E279B0});
  EXPECT_EQ(U("017F22E2-79B0-7CC3-18C4-DC0C0C07398F").V7UnixMilliseconds(), std::nullopt);  // not the RFC variant
  const auto now = [] {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
  };
  const Int64 before = now();
  const TQUMA_Uuid v7 = TQUMA_Uuid::CreateV7();
  const Int64 after = now();
  EXPECT_EQ(v7.Version(), 7);
  EXPECT_TRUE(RfcVariant(v7));
  EXPECT_GE(*v7.V7UnixMilliseconds(), before);
  EXPECT_LE(*v7.V7UnixMilliseconds(), after);

  // The std::format-style format codes.
  const TQUMA_Uuid u = U("00112233-4455-6677-8899-aabbccddeeff");
  EXPECT_EQ(u.FormatSpec(""), "00112233-4455-6677-8899-aabbccddeeff");
  EXPECT_EQ(u.FormatSpec("D"), u.FormatSpec(""));
  EXPECT_EQ(u.FormatSpec("B"), "{00112233-4455-6677-8899-AABBCCDDEEFF}");
  EXPECT_EQ(u.FormatSpec("N"), "00112233445566778899aabbccddeeff");
  char small[8];
  EXPECT_EQ(u.FormatSpecTo(small, "N"), 0u);
  for (const char* bad : {"b", "X", "BN", "ms"})
    EXPECT_EQ(ErrorText([&] { (void)u.FormatSpec(bad); }), SUuidUnrecognisedFormat) << bad;
}

TEST(UuidVersions, Version7SortsInCreationOrderAcrossThreadsAndForkedChildrenDrawFreshBits) {
  constexpr int kThreads = 8, kPerThread = 100000;
  std::vector<std::vector<TQUMA_Uuid>> made(kThreads, std::vector<TQUMA_Uuid>(kPerThread));
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&values = made[t]] {
      for (auto& v : values) v = TQUMA_Uuid::CreateV7();
    });
  for (auto& t : threads) t.join();
  std::vector<TQUMA_Uuid> all;
  for (const auto& values : made) {
    for (std::size_t i = 1; i < values.size(); ++i)
      ASSERT_LT(TQUMA_Uuid::Compare(values[i - 1], values[i]), 0) << i;
    all.insert(all.end(), values.begin(), values.end());
  }
  std::sort(all.begin(), all.end(), std::less<TQUMA_Uuid>());
  EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end());

  // A forked child draws fresh random bits: two children of one parent do not repeat each other.
  (void)TQUMA_Uuid::CreateV7();  // the parent's pool is filled
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  for (int child = 0; child < 2; ++child)
    if (fork() == 0) {
      const TQUMA_Uuid u = TQUMA_Uuid::CreateV7();
      _exit(write(fds[1], u._baUuid, 16) == 16 ? 0 : 1);
    }
  TQUMA_Uuid a, b;
  ASSERT_EQ(read(fds[0], a._baUuid, 16), 16);
  ASSERT_EQ(read(fds[0], b._baUuid, 16), 16);
  while (wait(nullptr) > 0) continue;
  close(fds[0]);
  close(fds[1]);
  EXPECT_NE(std::memcmp(a._baUuid + 12, b._baUuid + 12, 4), 0);  // the 32 random bits at the end
}

}  // namespace
}  // namespace quma
