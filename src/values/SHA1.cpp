// SHA-1: the plain 80-round compression over 64-byte blocks, big-endian words.
#include <quma/SHA1.h>

#include <cstring>

namespace quma {

namespace {

inline std::uint32_t Rol(std::uint32_t x, int n) noexcept { return (x << n) | (x >> (32 - n)); }

inline std::uint32_t LoadBE(const Byte* p) noexcept {
  return (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) | (std::uint32_t{p[2]} << 8) | p[3];
}

}  // namespace

void TQUMASHA1::Reset() noexcept {
  FState[0] = 0x67452301u;
  FState[1] = 0xEFCDAB89u;
  FState[2] = 0x98BADCFEu;
  FState[3] = 0x10325476u;
  FState[4] = 0xC3D2E1F0u;
  FLength = 0;
  FFill = 0;
}

void TQUMASHA1::Block(const Byte* p) noexcept {
  std::uint32_t w[80];
  for (int i = 0; i < 16; ++i) w[i] = LoadBE(p + 4 * i);
  for (int i = 16; i < 80; ++i) w[i] = Rol(w[i - 3] ^ w[i - 8] ^ w[i - 14] ^ w[i - 16], 1);
  std::uint32_t a = FState[0], b = FState[1], c = FState[2], d = FState[3], e = FState[4];
  for (int i = 0; i < 80; ++i) {
    std::uint32_t f, k;
    if (i < 20) {
      f = (b & c) | (~b & d);
      k = 0x5A827999u;
    } else if (i < 40) {
      f = b ^ c ^ d;
      k = 0x6ED9EBA1u;
    } else if (i < 60) {
      f = (b & c) | (b & d) | (c & d);
      k = 0x8F1BBCDCu;
    } else {
      f = b ^ c ^ d;
      k = 0xCA62C1D6u;
    }
    const std::uint32_t t = Rol(a, 5) + f + e + k + w[i];
    e = d;
    d = c;
    c = Rol(b, 30);
    b = a;
    a = t;
  }
  FState[0] += a;
  FState[1] += b;
  FState[2] += c;
  FState[3] += d;
  FState[4] += e;
}

void TQUMASHA1::Update(const void* pData, std::size_t nLength) noexcept {
  const Byte* p = static_cast<const Byte*>(pData);
  FLength += nLength;
  if (FFill) {
    const std::size_t take = nLength < 64 - FFill ? nLength : 64 - FFill;
    std::memcpy(FBuffer + FFill, p, take);
    FFill += take;
    p += take;
    nLength -= take;
    if (FFill < 64) return;
    Block(FBuffer);
    FFill = 0;
  }
  for (; nLength >= 64; p += 64, nLength -= 64) Block(p);
  if (nLength) std::memcpy(FBuffer, p, nLength);
  FFill = nLength;
}

TQUMASHA1::TDigest TQUMASHA1::Final() noexcept {
  const std::uint64_t bits = FLength * 8;
  static constexpr Byte kPadding[64] = {0x80};
  // 0x80, zeros up to 56 mod 64, then the length in bits (big-endian).
  Update(kPadding, FFill < 56 ? 56 - FFill : 120 - FFill);
  Byte length[8];
  for (int i = 0; i < 8; ++i) length[i] = static_cast<Byte>(bits >> (56 - 8 * i));
  Update(length, 8);
  TDigest digest;
  for (int i = 0; i < 5; ++i)
    for (int k = 0; k < 4; ++k) digest[4 * i + k] = static_cast<Byte>(FState[i] >> (24 - 8 * k));
  Reset();
  return digest;
}

TQUMASHA1::TDigest TQUMASHA1::Hash(const void* pData, std::size_t nLength) noexcept {
  TQUMASHA1 h;
  h.Update(pData, nLength);
  return h.Final();
}

}  // namespace quma
