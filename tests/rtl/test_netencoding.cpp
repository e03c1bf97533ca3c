#include <quma/NetEncoding.h>
#include <quma/SysUtils.h>

#include "rtl/TestSupport.h"

#include <gtest/gtest.h>

#include <random>
#include <thread>
#include <vector>

using namespace quma;
using quma::test::ErrorOf;

TEST(NetEncoding, Base64Rfc4648VectorsAndLinesURLComponentsAndDecoding) {
  TBase64Encoding* b64 = TNetEncoding::Base64();
  const std::pair<const char16_t*, const char16_t*> vectors[] = {
      {u"", u""},         {u"f", u"Zg=="},         {u"fo", u"Zm8="},        {u"foo", u"Zm9v"},
      {u"foob", u"Zm9vYg=="}, {u"fooba", u"Zm9vYmE="}, {u"foobar", u"Zm9vYmFy"},
  };
  for (const auto& [plain, encoded] : vectors) {
    EXPECT_EQ(b64->Encode(UnicodeStringView(plain)), encoded);
    EXPECT_EQ(b64->Decode(UnicodeStringView(encoded)), plain);
  }
  EXPECT_EQ(b64->Encode(u"\u00e9"), u"w6k=");  // text goes as UTF-8
  EXPECT_EQ(b64->Encode("\xc3\xa9"), "w6k=");
  // 76 characters per line for the shared encoder, none for Base64String.
  const TBytes sixty(60, 0xFF);
  const UnicodeString lined = b64->EncodeBytesToString(sixty);
  EXPECT_EQ(lined, UnicodeString(76, u'/') + u"\r\n////");
  EXPECT_EQ(b64->DecodeStringToBytes(lined), sixty);
  EXPECT_EQ(TNetEncoding::Base64String()->EncodeBytesToString(sixty).size(), 80u);
  EXPECT_EQ(b64->Decode(u"Zm9v\r\n YmFy\t"), u"foobar");
  EXPECT_EQ(ErrorOf<EConvertError>([&] { b64->Decode(u"Zm9v*mFy"); }), "Invalid Base64 input character: * at offset 4");
  std::mt19937 rng(4);
  for (int i = 0; i < 100; ++i) {
    TBytes data(rng() % 200);
    for (auto& b : data) b = static_cast<Byte>(rng());
    ASSERT_EQ(b64->Decode(b64->Encode(std::span<const Byte>(data))), data);
  }

  // URL components and decoding.
  TURLEncoding* url = TNetEncoding::URL();
  EXPECT_EQ(url->EncodeQuery(u"a b+c&d=e/f?g#h"), u"a%20b%2Bc&d=e/f?g%23h");
  EXPECT_EQ(url->EncodePath(u"a b/c?d"), u"a%20b/c%3Fd");
  EXPECT_EQ(url->EncodeAuth(u"user:p@ss/x"), u"user%3Ap%40ss%2Fx");
  EXPECT_EQ(url->EncodeForm(u"a b&c=d~e*f"), u"a+b%26c%3Dd%7Ee*f");
  EXPECT_EQ(url->Encode(u"caf\u00e9\n"), u"caf%C3%A9%0A");
  EXPECT_EQ(url->Decode(u"caf%C3%A9+%2b"), u"caf\u00e9 +");
  EXPECT_EQ(url->Decode(u"\u00e9%20x"), u"\u00e9 x");
  EXPECT_EQ(url->Decode("a%2Fb"), "a/b");
  for (const char16_t* bad : {u"abc%", u"abc%4", u"abc%G1"}) {
    EXPECT_EQ(ErrorOf<EConvertError>([&] { url->Decode(UnicodeStringView(bad)); }),
              "Invalid URL encoded character (" + Utf16ToUtf8(UnicodeStringView(bad).substr(3)) + ") at position 3");
  }
  // Every encoding can be undone: each unsafe set holds "%" (and "+", read back as a space).
  rng.seed(8);
  for (int i = 0; i < 200; ++i) {
    UnicodeString s;
    for (int k = rng() % 40; k > 0; --k) s.push_back(static_cast<char16_t>(0x20 + rng() % 0x60));
    ASSERT_EQ(url->Decode(url->EncodeQuery(s)), s);
    ASSERT_EQ(url->Decode(url->EncodeForm(s)), s);
    ASSERT_EQ(url->Decode(url->EncodeAuth(s)), s);
    ASSERT_EQ(url->Decode(url->EncodePath(s)), s);
  }
}

TEST(NetEncoding, SharedInstancesAreCreatedOnceUnderContention) {
  std::vector<std::thread> threads;
  std::vector<TNetEncoding*> got(8);
  for (int t = 0; t < 8; ++t) threads.emplace_back([&, t] { got[t] = t % 2 ? static_cast<TNetEncoding*>(TNetEncoding::URL()) : TNetEncoding::Base64(); });
  for (auto& th : threads) th.join();
  for (int t = 0; t < 8; ++t) EXPECT_EQ(got[t], got[t % 2]);
  EXPECT_NE(got[0], got[1]);
}
