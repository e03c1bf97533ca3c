// Helpers shared by the fuzz targets: carving typed values out of the fuzzer's bytes, and a check
// that aborts (so libFuzzer keeps the input) when a promise of the library does not hold.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include <quma/System.h>

#define QUMA_FUZZ_CHECK(cond)                                                     \
  do {                                                                            \
    if (!(cond)) {                                                                \
      std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
      std::abort();                                                               \
    }                                                                             \
  } while (0)

namespace quma::fuzz {

// Reads from the front of the input; every read past the end gives zeros or empty text.
class TInput {
 public:
  TInput(const std::uint8_t* data, std::size_t size) noexcept : FData(data), FSize(size) {}

  std::size_t Left() const noexcept { return FSize - FPos; }
  std::uint8_t Byte() noexcept { return FPos < FSize ? FData[FPos++] : 0; }
  // A piece of text up to the next 0xFF byte (or the end).
  std::string_view Piece() noexcept {
    const std::size_t start = FPos;
    while (FPos < FSize && FData[FPos] != 0xFF) ++FPos;
    std::string_view s(reinterpret_cast<const char*>(FData + start), FPos - start);
    if (FPos < FSize) ++FPos;
    return s;
  }
  std::string_view Rest() noexcept {
    std::string_view s(reinterpret_cast<const char*>(FData + FPos), FSize - FPos);
    FPos = FSize;
    return s;
  }

 private:
  const std::uint8_t* FData;
  std::size_t FSize;
  std::size_t FPos = 0;
};

// The bytes read as UTF-16 code units, little-endian pairs (an odd last byte is dropped).
inline UnicodeString AsUtf16(std::string_view bytes) {
  UnicodeString s(bytes.size() / 2, u'\0');
  for (std::size_t i = 0; i < s.size(); ++i)
    s[i] = static_cast<char16_t>(static_cast<std::uint8_t>(bytes[2 * i]) | (static_cast<std::uint8_t>(bytes[2 * i + 1]) << 8));
  return s;
}

}  // namespace quma::fuzz
