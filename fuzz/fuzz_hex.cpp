// HexStringToBytes on any text (UTF-8 and UTF-16), and bytes -> text -> bytes with every layout.
#include <quma/HexStrings.h>
#include <quma/SysUtils.h>

#include "FuzzSupport.h"

using namespace quma;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::TInput in(data, size);
  const int spaces = in.Byte() % 5, perLine = in.Byte() % 9;
  const std::string_view rest = in.Rest();
  const std::span<const Byte> bytes(reinterpret_cast<const Byte*>(rest.data()), rest.size());

  const TBytes back = HexStringToBytes(BytesToHexStringUtf8(bytes, spaces, perLine, "\r\n"));
  QUMA_FUZZ_CHECK(back.size() == bytes.size() && std::equal(back.begin(), back.end(), bytes.begin()));
  QUMA_FUZZ_CHECK(HexStringToBytes(BytesToHexString(bytes)) == back);

  TBytes kept{1, 2, 3};
  try {
    HexStringToBytes(rest, kept);
  } catch (const EConvertError&) {
    QUMA_FUZZ_CHECK((kept == TBytes{1, 2, 3}));  // a rejected text leaves the array as it was
  }
  try {
    HexStringToBytes(fuzz::AsUtf16(rest));
  } catch (const EConvertError&) {
  }
  return 0;
}
