// SHA-1 (FIPS 180-4), for name-based UUIDs (version 5) and other identifiers that the RFCs
// define over it. Not for new security designs: SHA-1 collisions can be made.
//
//   TQUMASHA1 h;  h.Update(p, n);  h.Update(q, m);
//   TQUMASHA1::TDigest d = h.Final();      // twenty bytes
//   auto same = TQUMASHA1::Hash(p, n);     // one call
#pragma once

#include <quma/Export.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include <quma/System.h>

QUMA_PUBLIC_BEGIN
namespace quma {

class TQUMASHA1 {
 public:
  using TDigest = std::array<Byte, 20>;

  TQUMASHA1() noexcept { Reset(); }
  void Reset() noexcept;
  void Update(const void* pData, std::size_t nLength) noexcept;
  void Update(std::string_view Bytes) noexcept { Update(Bytes.data(), Bytes.size()); }
  // The digest of everything fed since the last Reset; the object is reset afterwards.
  TDigest Final() noexcept;

  static TDigest Hash(const void* pData, std::size_t nLength) noexcept;
  static TDigest Hash(std::string_view Bytes) noexcept { return Hash(Bytes.data(), Bytes.size()); }

 private:
  void Block(const Byte* p) noexcept;

  std::uint32_t FState[5];
  std::uint64_t FLength;  // bytes fed
  Byte FBuffer[64];
  std::size_t FFill;  // bytes in FBuffer
};

}  // namespace quma
QUMA_PUBLIC_END
