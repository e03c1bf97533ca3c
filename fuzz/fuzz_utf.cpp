// UTF-8 <-> UTF-16 conversions and UTF8CompareStr on any bytes: valid text converts both ways
// unchanged, malformed text never crashes, and the comparison is a consistent order.
#include <quma/StringUtils.h>
#include <quma/Strings.h>

#include "FuzzSupport.h"

using namespace quma;

namespace {

int Sign(Integer v) { return (v > 0) - (v < 0); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::TInput in(data, size);
  const std::string_view a = in.Piece(), b = in.Rest();

  const UnicodeString wide = Utf8ToUtf16(a);
  if (IsValidUtf8(a)) {
    QUMA_FUZZ_CHECK(Utf16ToUtf8(wide) == a);
    QUMA_FUZZ_CHECK(TryUtf8ToUtf16(a) == wide);
  } else {
    QUMA_FUZZ_CHECK(!TryUtf8ToUtf16(a));
  }
  Utf16ToUtf8(fuzz::AsUtf16(b));  // lone surrogates included

  try {
    const Integer ab = UTF8CompareStr(a, b), ba = UTF8CompareStr(b, a);
    QUMA_FUZZ_CHECK(Sign(ab) == -Sign(ba));
    QUMA_FUZZ_CHECK(UTF8CompareStr(a, a) == 0);
    UTF8CompareStr(a, UnicodeStringView(fuzz::AsUtf16(b)));
  } catch (const EQUMAUTF8EncodingError&) {
  }
  return 0;
}
