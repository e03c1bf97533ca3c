// UUID versions 4, 5 and 7, the SHA-1 under version 5, and the std::format-style format codes.
#include <quma/SHA1.h>
#include <quma/SysUtils.h>
#include <quma/Uuid.h>

#include <Poco/SHA1Engine.h>
#include <gtest/gtest.h>

#include "ValuesTestSupport.h"

#include <algorithm>
#include <chrono>
#include <random>
#include <thread>
#include <vector>

namespace quma {
namespace {

TQUMA_Uuid U(const char* text) { return TQUMA_Uuid::Create(std::string_view(text)); }

bool RfcVariant(const TQUMA_Uuid& u) { return (u._baUuid[8] & 0xC0) == 0x80; }

TEST(SHA1, MatchesPocoIncrementallyAndTheFipsVectors) {
  const auto hex = [](const TQUMASHA1::TDigest& d) { return Poco::DigestEngine::digestToHex({d.begin(), d.end()}); };
  EXPECT_EQ(hex(TQUMASHA1::Hash("abc")), "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_EQ(hex(TQUMASHA1::Hash("")), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
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

TEST(UuidVersions, Version5Vectors) {
  // RFC 9562 appendix A.4, and the URL name space with a non-ASCII name hashed as UTF-8.
  EXPECT_EQ(TQUMA_Uuid::CreateV5(QUMAUuidNamespaceDNS, std::string_view("www.example.com")),
            U("2ed6657d-e927-568b-95e1-2665a8aea6a2"));
  EXPECT_EQ(TQUMA_Uuid::CreateV5(QUMAUuidNamespaceDNS, u"python.org"), U("886313e1-3b8a-5372-9b90-0c9aee199e5d"));
  const TQUMA_Uuid url = TQUMA_Uuid::CreateV5(QUMAUuidNamespaceURL, u"https://example.com/\u00e9");
  EXPECT_EQ(url, U("20ecd233-a9e7-5067-a96f-fd6600ca3fda"));
  EXPECT_EQ(url.Version(), 5);
  EXPECT_TRUE(RfcVariant(url));
  EXPECT_EQ(QUMAUuidNamespaceDNS, U("6ba7b810-9dad-11d1-80b4-00c04fd430c8"));
  EXPECT_EQ(QUMAUuidNamespaceX500, U("6ba7b814-9dad-11d1-80b4-00c04fd430c8"));
  EXPECT_NE(TQUMA_Uuid::CreateV5(QUMAUuidNamespaceOID, std::string_view("x")),
            TQUMA_Uuid::CreateV5(QUMAUuidNamespaceX500, std::string_view("x")));
}

TEST(UuidVersions, Version4AndReadingVersion7TimeBack) {
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
}

TEST(UuidVersions, Version7SortsInCreationOrderAcrossThreads) {
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
}

TEST(UuidVersions, FormatSpecs) {
  const TQUMA_Uuid u = U("00112233-4455-6677-8899-aabbccddeeff");
  EXPECT_EQ(u.FormatSpec(""), "00112233-4455-6677-8899-aabbccddeeff");
  EXPECT_EQ(u.FormatSpec("D"), u.FormatSpec(""));
  EXPECT_EQ(u.FormatSpec("B"), "{00112233-4455-6677-8899-AABBCCDDEEFF}");
  EXPECT_EQ(u.FormatSpec("N"), "00112233445566778899aabbccddeeff");
  char small[8];
  EXPECT_EQ(u.FormatSpecTo(small, "N"), 0u);
  for (const char* bad : {"b", "X", "BN", "ms"})
    EXPECT_EQ(test::ConvertErrorOf([&] { (void)u.FormatSpec(bad); }), SUuidUnrecognisedFormat) << bad;
}

}  // namespace
}  // namespace quma
