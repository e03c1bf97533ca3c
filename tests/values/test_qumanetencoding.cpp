#include <quma/QUMANetEncoding.h>
#include <quma/Strings.h>
#include <quma/SysUtils.h>

#include "ValuesTestSupport.h"

#include <gtest/gtest.h>

#include <array>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace quma {
namespace {

using test::ConvertErrorOf;

TQUMABase32Encoding* B32() { return TQUMANetEncoding::Base32Encoding(); }

// RFC 4648 sections 10 (standard and extended hex) and the same data in Crockford's alphabet,
// padded and not, in UTF-16 and UTF-8, decoded in either case.
TEST(Base32, Rfc4648VectorsInEveryAlphabet) {
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

TEST(Base32, DecodingStopsAtPaddingReadsCrockfordsSpellingsAndReportsStrangers) {
  const auto hex = MakeObject<TQUMABase32Encoding>(TQUMABase32Alphabet::ExtendedHex, false);
  const auto crock = MakeObject<TQUMABase32Encoding>(TQUMABase32Alphabet::Crockford);
  EXPECT_EQ(B32()->Decode(u"MZXW6===MZXW6YTB"), u"foo");  // anything after "=" is ignored
  EXPECT_EQ(B32()->Decode(u"MZXW6=!!"), u"foo");
  EXPECT_EQ(B32()->Decode(u"MZXW6YQ"), u"foob");  // unpadded text decodes too
  // Crockford: I and L read as 1, O as 0, hyphens are skipped; U is not a digit.
  EXPECT_EQ(crock->Decode(std::string_view("csq-pyr-k1e8")), "foobar");
  EXPECT_EQ(crock->Decode(std::string_view("CSQPYRKIE8")), crock->Decode(std::string_view("CSQPYRKLE8")));
  EXPECT_EQ(crock->Decode(std::string_view("O0")), crock->Decode(std::string_view("00")));
  const struct {
    TQUMABase32Encoding* Codec;
    const char16_t *Text, *Stranger;
    int Offset;
  } bad[] = {{crock.get(), u"CSQU", u"U", 3},          {hex.get(), u"CPNW", u"W", 3},
             {B32(), u"MZ-X", u"-", 2} /* Crockford's only */, {B32(), u"MZXW1YTB", u"1", 4},
             {B32(), u"MZXW6YTBOI8=====", u"8", 10},   {B32(), u"MZXW6YTB\u00e9", u"\u00e9", 8}};
  for (const auto& c : bad)
    EXPECT_EQ(ConvertErrorOf([&] { (void)c.Codec->Decode(c.Text); }),
              Format(u"Invalid Base32 Input character: %s at offset %d of buffer", c.Stranger, c.Offset));
  EXPECT_EQ(ConvertErrorOf([] { B32()->Decode("MZ\xc3\xa9"); }),  // UTF-8: the character and its offset
            u"Invalid Base32 Input character: \u00e9 at offset 2 of buffer");
}

TEST(Base32, LongTextsReportTheFirstStrangerWherever) {
  const UnicodeString text = B32()->Encode(UnicodeString(100, u'x'));  // 160 characters
  for (std::size_t pos : {0u, 7u, 15u, 16u, 31u, 33u, 100u, 150u, 159u}) {
    for (char16_t bad : {u'1', u'8', u'@', u'\u0141', u'\uFF21'}) {
      UnicodeString broken = text;
      broken[pos] = bad;
      EXPECT_EQ(ConvertErrorOf([&] { B32()->Decode(broken); }),
                Format(u"Invalid Base32 Input character: %s at offset %d of buffer", UnicodeString(1, bad), pos));
    }
    UnicodeString stopped = text;
    stopped[pos] = u'=';
    stopped[pos == 159 ? 0 : 159] = u'!';  // after the stop (or caught first when the stop is last)
    if (pos != 159) {
      EXPECT_EQ(B32()->Decode(stopped), B32()->Decode(text.substr(0, pos)));
    }
  }
}

TEST(Base32, RandomDataRoundTripsInEveryAlphabetAndForm) {
  const auto hex = MakeObject<TQUMABase32Encoding>(TQUMABase32Alphabet::ExtendedHex, false);
  const auto crock = MakeObject<TQUMABase32Encoding>(TQUMABase32Alphabet::Crockford);
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
      ASSERT_EQ(codec->Decode(LowerCase(text)), units);
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

TEST(Base32, SharedEncoderIsOneInstanceAcrossThreads) {
  std::vector<std::thread> threads;
  std::vector<TQUMABase32Encoding*> got(8);
  for (int t = 0; t < 8; ++t)
    threads.emplace_back([&, t] {
      got[t] = TQUMANetEncoding::GetBase32Encoding();
      EXPECT_EQ(got[t]->Encode(u"foobar"), u"MZXW6YTBOI======");
    });
  for (auto& th : threads) th.join();
  for (auto* p : got) EXPECT_EQ(p, got[0]);
  EXPECT_EQ(got[0]->ClassName(), u"TQUMABase32Encoding");
}

TEST(QUMAURLEncoding, QuerySetAddsAmpersandAndEquals) {
  TQUMAURLEncoding url;
  EXPECT_EQ(url.EncodeQuery(u"a=b&c"), u"a%3Db%26c");
  EXPECT_EQ(url.Encode(u"a=b&c"), u"a%3Db%26c");
  EXPECT_EQ(url.Decode(u"a%3Db%26c"), u"a=b&c");
  TURLEncoding plain;
  EXPECT_EQ(plain.EncodeQuery(u"a=b&c"), u"a=b&c");
  // The other sets are the runtime's.
  EXPECT_EQ(url._GetUnsafeAuthChars(), plain._GetUnsafeAuthChars());
  EXPECT_EQ(url._GetUnsafeFormChars(), plain._GetUnsafeFormChars());
  EXPECT_EQ(url._GetUnsafePathChars(), plain._GetUnsafePathChars());
  EXPECT_EQ(url._GetUnsafeQueryChars(), (plain._GetUnsafeQueryChars() + TAnsiCharSet{'&', '='}));
  EXPECT_EQ(url.EncodePath(u"a=b&c/d e"), u"a=b&c/d%20e");
}

}  // namespace
}  // namespace quma
