// Text encodings of bytes and characters: hexadecimal strings, Base32 in its three alphabets, the
// URL encoding's query set, the encoding registry and reading encoded characters from streams.
#include <quma/HexStrings.h>
#include <quma/IOUtils.h>
#include <quma/QUMAEncoding.h>
#include <quma/QUMANetEncoding.h>
#include <quma/Strings.h>
#include <quma/SysUtils.h>

#include "ValuesTestSupport.h"

#include <gtest/gtest.h>

#include <array>
#include <random>
#include <string>
#include <vector>

namespace quma {
namespace {

using test::ErrorText;

TEST(HexStrings, WritesPairsWithSpacesAndSeparatorsReadsDigitsAcrossWhiteSpaceAndRoundTrips) {
  EXPECT_EQ(BytesToHexString(TBytes{}), u"");
  EXPECT_EQ(BytesToHexString(TBytes{0x00, 0x0A, 0xFF, 0x7b}), u"000aff7b");
  EXPECT_EQ(BytesToHexStringUtf8(TBytes{0xDE, 0xAD}), "dead");
  const TBytes five{1, 2, 3, 4, 5};
  EXPECT_EQ(BytesToHexString(five, 1, 2, u"\r\n"), u"01 02\r\n03 04\r\n05");
  EXPECT_EQ(BytesToHexString(five, 2, 0, u"|"), u"01  02  03  04  05");
  EXPECT_EQ(BytesToHexString(five, 0, 3, u"|"), u"010203|0405");
  EXPECT_EQ(BytesToHexString(five, 1, 1, u"|"), u"01|02|03|04|05");
  EXPECT_EQ(BytesToHexString(five, 1, 5, u"|"), u"01 02 03 04 05");  // no separator after the last
  EXPECT_EQ(BytesToHexString(five, -3, -1, u"|"), u"0102030405");
  EXPECT_EQ(BytesToHexString(TBytes{}, 1, 2, u"|"), u"");
  EXPECT_EQ(BytesToHexStringUtf8(five, 1, 2, "\n"), "01 02\n03 04\n05");

  // Reading takes digits across white space and rejects the rest.
  EXPECT_EQ(HexStringToBytes(u"0A 0b\r\n0C"), (TBytes{0x0A, 0x0B, 0x0C}));
  EXPECT_EQ(HexStringToBytes(u"0 A\t0\vb\f"), (TBytes{0x0A, 0x0B}));  // pairs form after cleaning
  EXPECT_EQ(HexStringToBytes(u"  \r\n\t "), TBytes{});
  EXPECT_EQ(HexStringToBytes("DEADbeef"), (TBytes{0xDE, 0xAD, 0xBE, 0xEF}));
  TBytes target{9, 9, 9};
  HexStringToBytes(u"", target);
  EXPECT_TRUE(target.empty());
  // Other characters and odd lengths are refused, leaving the target alone.
  const UnicodeString msg = SHexStringInvalidCharacters;
  for (UnicodeStringView bad : {u"ABC", u"AB0", u"0G", u"0x10", u"12\u00A034", u"12\u01303", u"-1",
                                u"1234567890abcdef1234567890abcdeg", u"1234567890abcdef 1234567890abcdef1"}) {
    TBytes target{7};
    EXPECT_EQ(ErrorText([&] { HexStringToBytes(bad, target); }), msg) << Utf16ToUtf8(bad);
    EXPECT_EQ(target, TBytes{7});
  }
  EXPECT_EQ(ErrorText([] { HexStringToBytes("caf\xc3\xa9"); }), msg);

  // Random round trips through both directions.
  std::mt19937 rng(99);
  for (int i = 0; i < 300; ++i) {
    TBytes data(rng() % 200);
    for (auto& b : data) b = static_cast<Byte>(rng());
    const UnicodeString plain = BytesToHexString(data);
    ASSERT_EQ(HexStringToBytes(plain), data);
    ASSERT_EQ(HexStringToBytes(UpperCase(plain)), data);
    ASSERT_EQ(HexStringToBytes(BytesToHexString(data, 1 + i % 3, 1 + i % 17, u"\r\n")), data);
    ASSERT_EQ(HexStringToBytes(Utf16ToUtf8(plain)), data);
    // A stray character anywhere in a long text is found.
    if (!plain.empty()) {
      UnicodeString broken = plain;
      broken[rng() % broken.size()] = u'z';
      ASSERT_EQ(ErrorText([&] { HexStringToBytes(broken); }), UnicodeString(SHexStringInvalidCharacters));
    }
  }
}

// ---- Base32 and URL ----

TQUMABase32Encoding* B32() { return TQUMANetEncoding::Base32Encoding(); }

// RFC 4648 sections 10 (standard and extended hex) and the same data in Crockford's alphabet,
// padded and not, in UTF-16 and UTF-8, decoded in either case.
TEST(Base32, Rfc4648VectorsInEveryAlphabet) {
  // The shared standard encoder is made once (by the runtime's shared-instance helper, tested under contention there).
  EXPECT_EQ(TQUMANetEncoding::GetBase32Encoding(), B32());
  EXPECT_EQ(B32()->ClassName(), u"TQUMABase32Encoding");
  const char16_t* plain[] = {u"", u"f", u"fo", u"foo", u"foob", u"fooba", u"foobar"};
  const std::pair<TQUMABase32Alphabet, std::array<const char16_t*, 7>> alphabets[] = {
      {TQUMABase32Alphabet::Standard,
       {u"", u"MY======", u"MZXQ====", u"MZXW6===", u"MZXW6YQ=", u"MZXW6YTB", u"MZXW6YTBOI======"}},
      {TQUMABase32Alphabet::ExtendedHex,
       {u"", u"CO======", u"CPNG====", u"CPNMU===", u"CPNMUOG=", u"CPNMUOJ1", u"CPNMUOJ1E8======"}},
      {TQUMABase32Alphabet::Crockford,
       {u"", u"CR======", u"CSQG====", u"CSQPY===", u"CSQPYRG=", u"CSQPYRK1", u"CSQPYRK1E8======"}}};
  for (const auto& [alphabet, encoded] : alphabets)
    for (const bool padding : {true, false}) {
      const auto enc = MakeObject<TQUMABase32Encoding>(alphabet, padding);
      TQUMABase32Encoding* const codec = alphabet == TQUMABase32Alphabet::Standard && padding ? B32() : enc.get();
      for (std::size_t i = 0; i < 7; ++i) {
        UnicodeString text = encoded[i];
        if (!padding) text.erase(text.find_last_not_of(u'=') + 1);
        SCOPED_TRACE(Utf16ToUtf8(text));
        EXPECT_EQ(codec->Encode(UnicodeStringView(plain[i])), text);
        EXPECT_EQ(codec->Decode(UnicodeStringView(encoded[i])), plain[i]);
        EXPECT_EQ(codec->Decode(LowerCase(text)), plain[i]);
        EXPECT_EQ(codec->Encode(Utf16ToUtf8(plain[i])), Utf16ToUtf8(text));
        EXPECT_EQ(codec->Decode(Utf16ToUtf8(LowerCase(text))), Utf16ToUtf8(plain[i]));
      }
    }
}

TEST(Base32, DecodingStopsAtPaddingReadsCrockfordsSpellingsReportsStrangersAndRoundTrips) {
  const auto hex = MakeObject<TQUMABase32Encoding>(TQUMABase32Alphabet::ExtendedHex, false);
  const auto crock = MakeObject<TQUMABase32Encoding>(TQUMABase32Alphabet::Crockford);
  EXPECT_EQ(B32()->Decode(u"MZXW6===MZXW6YTB"), u"foo");  // anything after "=" is ignored
  EXPECT_EQ(B32()->Decode(u"MZXW6YQ"), u"foob");  // unpadded text decodes too
  // Crockford: I and L read as 1, O as 0, hyphens are skipped (by Crockford's only); U is not a digit.
  EXPECT_EQ(crock->Decode(std::string_view("csq-pyr-k1e8")), "foobar");
  EXPECT_EQ(crock->Decode(std::string_view("CSQPYRKIE8")), crock->Decode(std::string_view("CSQPYRKLE8")));
  EXPECT_EQ(crock->Decode(std::string_view("O0")), crock->Decode(std::string_view("00")));
  const struct {
    TQUMABase32Encoding* Codec;
    const char16_t *Text, *Stranger;
    int Offset;
  } bad[] = {{crock.get(), u"CSQU", u"U", 3}, {hex.get(), u"CPNW", u"W", 3}, {B32(), u"MZ-X", u"-", 2}};
  for (const auto& c : bad)
    EXPECT_EQ(ErrorText([&] { (void)c.Codec->Decode(c.Text); }),
              Format(u"Invalid Base32 Input character: %s at offset %d of buffer", c.Stranger, c.Offset));
  EXPECT_EQ(ErrorText([] { B32()->Decode("MZ\xc3\xa9"); }),  // UTF-8: the character and its offset
            u"Invalid Base32 Input character: \u00e9 at offset 2 of buffer");
  // Long texts report the first stranger wherever it is.
  const UnicodeString text = B32()->Encode(UnicodeString(100, u'x'));  // 160 characters
  for (std::size_t pos : {0u, 7u, 15u, 16u, 31u, 33u, 100u, 150u, 159u}) {
    for (char16_t bad : {u'1', u'8', u'@', u'\u0141', u'\uFF21'}) {
      UnicodeString broken = text;
      broken[pos] = bad;
      EXPECT_EQ(ErrorText([&] { B32()->Decode(broken); }),
                Format(u"Invalid Base32 Input character: %s at offset %d of buffer", UnicodeString(1, bad), pos));
    }
    UnicodeString stopped = text;
    stopped[pos] = u'=';
    stopped[pos == 159 ? 0 : 159] = u'!';  // after the stop (or caught first when the stop is last)
    if (pos != 159) {
      EXPECT_EQ(B32()->Decode(stopped), B32()->Decode(text.substr(0, pos)));
    }
  }

  // Random data round trips in every alphabet and form.
  std::mt19937 rng(21);
  for (int i = 0; i < 300; ++i) {
    TBytes bytes(rng() % 300);
    for (auto& b : bytes) b = static_cast<Byte>(rng());
    const UnicodeString units(bytes.begin(), bytes.end());
    const std::string raw(bytes.begin(), bytes.end());
    ASSERT_EQ(B32()->Encode(units).size(), (bytes.size() + 4) / 5 * 8);
    for (TQUMABase32Encoding* codec : {B32(), hex.get(), crock.get()}) {
      const UnicodeString text = codec->Encode(units);
      ASSERT_EQ(codec->Decode(text), units);
      ASSERT_EQ(codec->Encode(std::span<const Byte>(bytes)), TBytes(text.begin(), text.end()));
      ASSERT_EQ(codec->Decode(codec->Encode(std::span<const Byte>(bytes))), bytes);
      ASSERT_EQ(codec->Decode(codec->Encode(raw)), raw);
    }
    // Extended hex text sorts like the data.
    std::string other(raw.size(), '\0');
    for (char& c : other) c = static_cast<char>(rng());
    ASSERT_EQ(raw < other, hex->Encode(raw) < hex->Encode(other));
  }
}

TEST(QUMAURLEncoding, QuerySetAddsAmpersandAndEquals) {
  TQUMAURLEncoding url;
  EXPECT_EQ(url.EncodeQuery(u"a=b&c"), u"a%3Db%26c");
  // The other sets are the runtime's.
  TURLEncoding plain;
  EXPECT_EQ(url._GetUnsafeAuthChars(), plain._GetUnsafeAuthChars());
  EXPECT_EQ(url._GetUnsafeFormChars(), plain._GetUnsafeFormChars());
  EXPECT_EQ(url._GetUnsafePathChars(), plain._GetUnsafePathChars());
  EXPECT_EQ(url._GetUnsafeQueryChars(), (plain._GetUnsafeQueryChars() + TAnsiCharSet{'&', '='}));
  EXPECT_EQ(url.EncodePath(u"a=b&c/d e"), u"a=b&c/d%20e");
}

// ---- the encoding registry and stream encodings ----

TEST(EncodingRegistry, StandardEncodingsUnderTheirOwnNamesAndOthersByObject) {
  auto names = MakeObject<TStringList>();
  names->Add(u"kept");
  EXPECT_EQ(QUMAGetRegisteredEncodings(names.get()), 6);
  EXPECT_EQ(names->Count(), 7);
  for (const TEncoding* e : {TEncoding::ANSI(), TEncoding::ASCII(), TEncoding::BigEndianUnicode(), TEncoding::Unicode(),
                             TEncoding::UTF7(), TEncoding::UTF8()}) {
    EXPECT_EQ(QUMAGetEncoding(e->EncodingName()), e);
    EXPECT_EQ(QUMAGetEncodingClass(e->EncodingName()), e->ClassType());
    EXPECT_GE(names->IndexOf(e->EncodingName()), 1);
  }
  EXPECT_EQ(QUMAGetRegisteredEncodings(nullptr), 0);
  EXPECT_EQ(QUMAGetEncoding(u"unicode (utf-8)"), nullptr);  // names are case-sensitive
  EXPECT_EQ(QUMAGetEncodingClass(u"none"), nullptr);
  // Register, replace and unregister by object.
  QUMARegisterEncoding(u"", TEncoding::UTF8());
  QUMARegisterEncoding(u"x", nullptr);
  EXPECT_EQ(QUMAGetEncoding(u""), nullptr);
  EXPECT_EQ(QUMAGetEncoding(u"x"), nullptr);
  QUMARegisterEncoding(u"x", TEncoding::UTF8());
  QUMARegisterEncoding(u"x", TEncoding::ASCII());
  EXPECT_EQ(QUMAGetEncoding(u"x"), TEncoding::ASCII());
  QUMAUnregisterEncoding(u"x", TEncoding::UTF8());  // another object: stays
  EXPECT_EQ(QUMAGetEncoding(u"x"), TEncoding::ASCII());
  QUMAUnregisterEncoding(u"x", TEncoding::ASCII());
  EXPECT_EQ(QUMAGetEncoding(u"x"), nullptr);
}

TEST(StreamEncoding, MarkDetectionPositionAndFetchingWholeCharacters) {
  struct Case {
    TBytes Bytes;
    Int64 Position;
    const TEncoding *Given, *Default;
    bool Found;
    const TEncoding* Encoding;
    Int64 After;
  };
  const Case cases[] = {
      {{0xEF, 0xBB, 0xBF, 'a', 'b'}, 0, nullptr, nullptr, true, TEncoding::UTF8(), 3},
      {{0xEF, 0xBB, 0xBF, 'a', 'b'}, 4, nullptr, nullptr, true, TEncoding::UTF8(), 4},  // further on: stays
      {{0xFF, 0xFE, 'a', 0}, 0, nullptr, nullptr, true, TEncoding::Unicode(), 2},
      {{0xFE, 0xFF}, 1, nullptr, nullptr, true, TEncoding::BigEndianUnicode(), 2},  // short stream
      {{'a', 'b'}, 1, nullptr, nullptr, false, TEncoding::UTF8(), 1},
      {{'a', 'b'}, 0, nullptr, TEncoding::ANSI(), false, TEncoding::ANSI(), 0},
      {{}, 0, nullptr, nullptr, false, TEncoding::UTF8(), 0},
      // A given encoding only measures its own mark.
      {{0xEF, 0xBB, 0xBF}, 0, TEncoding::Unicode(), nullptr, false, TEncoding::Unicode(), 0},
  };
  for (const Case& c : cases) {
    auto s = MakeObject<TBytesStream>(c.Bytes);
    s->SetPosition(c.Position);
    const TEncoding* e = c.Given;
    EXPECT_EQ(QUMAGetStreamEncoding(s.get(), e, c.Default), c.Found);
    EXPECT_EQ(e, c.Encoding);
    EXPECT_EQ(s->Position(), c.After);
  }

  // Fetching reads whole characters. One that is not whole at the end of the stream gives false, and its bytes stay
  // consumed.
  struct Fetch {
    const TEncoding* Encoding;
    TBytes Bytes;
    UnicodeString Text;  // empty: no whole character
    Integer ByteCount;
  };
  const Fetch fetches[] = {
      {TEncoding::UTF8(), {0xE2, 0x82, 0xAC, 'x'}, u"\u20AC", 3},
      {TEncoding::UTF8(), {0xF0, 0x9F, 0x98, 0x80}, u"\U0001F600", 4},
      {TEncoding::Unicode(), {0x3D, 0xD8, 0x00, 0xDE}, u"\U0001F600", 4},  // a pair is not split
      {TEncoding::BigEndianUnicode(), {0xD8, 0x3D, 0xDE, 0x00}, u"\U0001F600", 4},
      {TEncoding::UTF7(), {'+', 'A', 'O', 'k', '-'}, u"\u00E9", 4},
      {TEncoding::ANSI(), {0x80}, u"\u20AC", 1},
      {TEncoding::UTF8(), {0xE2, 0x82}, u"", 0},
      {TEncoding::UTF8(), {}, u"", 0},
  };
  for (const Fetch& c : fetches) {
    auto s = MakeObject<TBytesStream>(c.Bytes);
    WideChar ch = 0;
    UnicodeString text = u"old";
    Integer count = 9;
    EXPECT_EQ(QUMAFetchEncodedCharacter(s.get(), c.Encoding, ch, text, count), !c.Text.empty());
    EXPECT_EQ(text, c.Text);
    EXPECT_EQ(ch, c.Text.empty() ? 0 : c.Text[0]);
    EXPECT_EQ(count, c.ByteCount);
    EXPECT_EQ(s->Position(), c.Text.empty() ? std::ssize(c.Bytes) : count);
  }
}

}  // namespace
}  // namespace quma
