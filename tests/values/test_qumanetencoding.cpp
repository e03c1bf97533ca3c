#include <quma/QUMANetEncoding.h>
#include <quma/Strings.h>
#include <quma/SysUtils.h>

#include "ValuesTestSupport.h"

#include <gtest/gtest.h>

#include <random>
#include <thread>
#include <vector>

namespace quma {
namespace {

using test::ConvertErrorOf;

TQUMABase32Encoding* B32() { return TQUMANetEncoding::Base32Encoding(); }

TEST(Base32, Rfc4648Vectors) {
  const std::pair<const char16_t*, const char16_t*> vectors[] = {{u"", u""},
                                                                 {u"f", u"MY======"},
                                                                 {u"fo", u"MZXQ===="},
                                                                 {u"foo", u"MZXW6==="},
                                                                 {u"foob", u"MZXW6YQ="},
                                                                 {u"fooba", u"MZXW6YTB"},
                                                                 {u"foobar", u"MZXW6YTBOI======"}};
  for (const auto& [plain, encoded] : vectors) {
    EXPECT_EQ(B32()->Encode(UnicodeStringView(plain)), encoded);
    EXPECT_EQ(B32()->Decode(UnicodeStringView(encoded)), plain);
    EXPECT_EQ(B32()->Decode(LowerCase(encoded)), plain);  // either case
    EXPECT_EQ(B32()->Encode(Utf16ToUtf8(plain)), Utf16ToUtf8(encoded));
    EXPECT_EQ(B32()->Decode(Utf16ToUtf8(LowerCase(encoded))), Utf16ToUtf8(plain));
  }
}

TEST(Base32, DecodingStopsAtPaddingAndReportsStrangers) {
  EXPECT_EQ(B32()->Decode(u"MZXW6===MZXW6YTB"), u"foo");  // anything after "=" is ignored
  EXPECT_EQ(B32()->Decode(u"MZXW6=!!"), u"foo");
  EXPECT_EQ(B32()->Decode(u"MZXW6YQ"), u"foob");  // unpadded text decodes too
  EXPECT_EQ(ConvertErrorOf([] { B32()->Decode(u"MZXW1YTB"); }),
            u"Invalid Base32 Input character: 1 at offset 4 of buffer");
  EXPECT_EQ(ConvertErrorOf([] { B32()->Decode(u"MZXW6YTBOI8====="); }),
            u"Invalid Base32 Input character: 8 at offset 10 of buffer");
  EXPECT_EQ(ConvertErrorOf([] { B32()->Decode(u"MZXW6YTB\u00e9"); }),
            u"Invalid Base32 Input character: \u00e9 at offset 8 of buffer");
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

TEST(Base32, RandomBytesRoundTripInEveryForm) {
  std::mt19937 rng(21);
  for (int i = 0; i < 300; ++i) {
    TBytes bytes(rng() % 300);
    for (auto& b : bytes) b = static_cast<Byte>(rng());
    const UnicodeString units(bytes.begin(), bytes.end());
    const UnicodeString text = B32()->Encode(units);
    ASSERT_EQ(text.size(), (bytes.size() + 4) / 5 * 8);
    ASSERT_EQ(B32()->Decode(text), units);
    ASSERT_EQ(B32()->Decode(LowerCase(text)), units);
    ASSERT_EQ(B32()->Encode(std::span<const Byte>(bytes)), TBytes(text.begin(), text.end()));
    ASSERT_EQ(B32()->Decode(B32()->Encode(std::span<const Byte>(bytes))), bytes);
    const std::string raw(bytes.begin(), bytes.end());
    ASSERT_EQ(B32()->Decode(B32()->Encode(raw)), raw);
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
