// CRC-32 (the reflected 0xEDB88320 polynomial of zlib and Ethernet) over memory blocks and over
// single values, so that a caller can fold the fields of a record into one running checksum; and
// CRC-32C (Castagnoli) over memory blocks, at the end.
//
// The register is not inverted on entry but is inverted on exit:
//   CRC32(p, n, 0xFFFFFFFF)                     the standard CRC-32 of the n bytes
//   CRC32(q, m, ~CRC32(p, n, 0xFFFFFFFF))       continues it over q (pass NOT the previous result)
// Every trailing nCRC defaults to 0xFFFFFFFF, the start of a standard checksum.
#pragma once

#include <quma/Export.h>

#include <cstddef>
#include <cstdint>
#include <concepts>
#include <span>
#include <string_view>

#include <quma/System.h>

QUMA_PUBLIC_BEGIN
namespace quma {

inline constexpr Cardinal QUMACRC32Start = 0xFFFFFFFFu;

// The x87 80-bit extended layout: 64-bit significand (explicit integer bit), then sign and a
// 15-bit biased exponent. Exactly ten bytes.
#pragma pack(push, 1)
struct TExtended80Rec {
  UInt64 Mantissa = 0;
  Word SignExponent = 0;

  static TExtended80Rec FromExtended(long double value) noexcept;
  long double ToExtended() const noexcept;
  constexpr Word Exponent() const noexcept { return SignExponent & 0x7FFF; }
  constexpr bool Sign() const noexcept { return (SignExponent & 0x8000) != 0; }
};
#pragma pack(pop)
static_assert(sizeof(TExtended80Rec) == 10);

// The core: feeds nLength bytes at pData (not checked) into the register nCRC.
Cardinal CRC32(const void* pData, Cardinal nLength, Cardinal nCRC = QUMACRC32Start) noexcept;

// The contents of a byte range (a convenience beside the documented overloads).
inline Cardinal CRC32(std::span<const Byte> data, Cardinal nCRC = QUMACRC32Start) noexcept {
  return CRC32(data.data(), static_cast<Cardinal>(data.size()), nCRC);
}

// A dynamic array feeds the bytes of the array reference itself, not its elements: on x86-64
// that is the 8-byte data pointer (nullptr for an empty array), so equal contents at different
// addresses give different checksums. Use the span overload to checksum the contents.
Cardinal CRC32(const TBytes& baData, Cardinal nCRC = QUMACRC32Start) noexcept;

// Single values: their bytes in memory order (little-endian numbers, IEEE 754 floats).
// The bool overload takes exactly bool, so that a pointer (CRC32(text)) does not compile into
// a checksum of one byte: pass text as CRC32(s.data(), s.size()).
Cardinal CRC32Bool(bool value, Cardinal nCRC) noexcept;
template <std::same_as<bool> B>
inline Cardinal CRC32(B value, Cardinal nCRC = QUMACRC32Start) noexcept {
  return CRC32Bool(value, nCRC);
}
Cardinal CRC32(char value, Cardinal nCRC = QUMACRC32Start) noexcept;
Cardinal CRC32(char16_t value, Cardinal nCRC = QUMACRC32Start) noexcept;
Cardinal CRC32(std::int8_t value, Cardinal nCRC = QUMACRC32Start) noexcept;
Cardinal CRC32(std::uint8_t value, Cardinal nCRC = QUMACRC32Start) noexcept;
Cardinal CRC32(std::int16_t value, Cardinal nCRC = QUMACRC32Start) noexcept;
Cardinal CRC32(std::uint16_t value, Cardinal nCRC = QUMACRC32Start) noexcept;
Cardinal CRC32(std::int32_t value, Cardinal nCRC = QUMACRC32Start) noexcept;
Cardinal CRC32(std::uint32_t value, Cardinal nCRC = QUMACRC32Start) noexcept;
Cardinal CRC32(long value, Cardinal nCRC = QUMACRC32Start) noexcept;  // Int64 on x86-64 Linux
Cardinal CRC32(unsigned long value, Cardinal nCRC = QUMACRC32Start) noexcept;
Cardinal CRC32(long long value, Cardinal nCRC = QUMACRC32Start) noexcept;
Cardinal CRC32(unsigned long long value, Cardinal nCRC = QUMACRC32Start) noexcept;
Cardinal CRC32(float value, Cardinal nCRC = QUMACRC32Start) noexcept;
Cardinal CRC32(double value, Cardinal nCRC = QUMACRC32Start) noexcept;
// 80-bit extended: the ten bytes of the x87 layout (the padding of long double is not fed).
Cardinal CRC32(long double value, Cardinal nCRC = QUMACRC32Start) noexcept;
Cardinal CRC32(const TExtended80Rec& value, Cardinal nCRC = QUMACRC32Start) noexcept;

// The ways the core can compute a checksum; every kernel gives the same results. The best one the
// CPU supports is chosen once when the library loads and used by every CRC32 overload.
enum class TCRC32Kernel : Byte {
  Table,                    // slicing by eight over derived tables
  CarrylessMultiply,        // PCLMULQDQ folding over 128-bit registers (64 bytes and more)
  VectorCarrylessMultiply,  // VPCLMULQDQ folding over 512-bit registers (256 bytes and more)
};
bool CRC32KernelSupported(TCRC32Kernel Kernel) noexcept;
TCRC32Kernel CRC32ActiveKernel() noexcept;
// The core with a chosen kernel (one this CPU lacks gives way to the next simpler one): for
// tests and measurements.
Cardinal CRC32WithKernel(TCRC32Kernel Kernel, const void* pData, Cardinal nLength,
                         Cardinal nCRC = QUMACRC32Start) noexcept;

// The 256-entry table of the polynomial (entry i = reflected CRC of the single byte i).
const Cardinal* CRC32Table() noexcept;

// ---- CRC-32C ----
// CRC-32C (Castagnoli, the reflected polynomial 0x82F63B78 of iSCSI, SCTP, ext4 and others), with
// the same register conventions as CRC32: not inverted on entry, inverted on exit, so
//   CRC32C(q, m, ~CRC32C(p, n))   continues the checksum of p over q.
inline constexpr Cardinal QUMACRC32CStart = 0xFFFFFFFFu;
Cardinal CRC32C(const void* pData, Cardinal nLength, Cardinal nCRC = QUMACRC32CStart) noexcept;
inline Cardinal CRC32C(std::span<const Byte> data, Cardinal nCRC = QUMACRC32CStart) noexcept {
  return CRC32C(data.data(), static_cast<Cardinal>(data.size()), nCRC);
}
// The bytes of UTF-8 (or any 8-bit) text.
inline Cardinal CRC32C(std::string_view text, Cardinal nCRC = QUMACRC32CStart) noexcept {
  return CRC32C(text.data(), static_cast<Cardinal>(text.size()), nCRC);
}

// As for CRC32: the kernels give the same results; the best one is chosen once at load.
enum class TCRC32CKernel : Byte {
  Table,             // slicing by eight
  Crc32Instruction,  // SSE 4.2 crc32, three streams at a time
};
bool CRC32CKernelSupported(TCRC32CKernel Kernel) noexcept;
TCRC32CKernel CRC32CActiveKernel() noexcept;
// With a chosen kernel (one this CPU lacks gives way to the table).
Cardinal CRC32CWithKernel(TCRC32CKernel Kernel, const void* pData, Cardinal nLength,
                          Cardinal nCRC = QUMACRC32CStart) noexcept;
const Cardinal* CRC32CTable() noexcept;

}  // namespace quma
QUMA_PUBLIC_END
