// The integer, float and BCD readers and the BCD helpers on any text; an integer read back from
// its own text is the same integer, a BCD value the same value.
#include <cmath>

#include <quma/BcdUtils.h>
#include <quma/FmtBcd.h>
#include <quma/FormatSettings.h>
#include <quma/Strings.h>
#include <quma/SysUtils.h>

#include "FuzzSupport.h"

using namespace quma;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::TInput in(data, size);
  const UnicodeString a = Utf8ToUtf16(in.Piece()), b = Utf8ToUtf16(in.Piece());

  Integer i = 0;
  if (TryStrToInt(a, i)) QUMA_FUZZ_CHECK(StrToInt(IntToStr(i)) == i);
  Int64 l = 0;
  if (TryStrToInt64(a, l)) QUMA_FUZZ_CHECK(StrToInt64(IntToStr(l)) == l);
  QUMA_FUZZ_CHECK(StrToIntDef(a, 7) == (TryStrToInt(a, i) ? i : 7));

  double d = 0;
  if (TryStrToFloat(a, d) && std::isfinite(d)) {
    double again = 0;
    QUMA_FUZZ_CHECK(TryStrToFloat(FloatToStr(d), again));
  }

  TBcd x, y, q;
  const bool hasX = TryStrToBcd(a, x), hasY = TryStrToBcd(b, y);
  if (hasX) {
    TBcd back;
    QUMA_FUZZ_CHECK(TryStrToBcd(BcdToStr(x), back) && back == x);
    TBcd mantissa;
    Integer exponent = 0;
    QUMA_BcdCompact(x, mantissa, exponent);
    QUMA_FUZZ_CHECK(QUMA_BcdIsZero(x) == QUMA_BcdIsZero(mantissa));
  }
  try {
    if (hasX && hasY) QUMA_BcdDivide(x, y, q);
  } catch (const Exception&) {
    // division by zero and overflow are reported, never a crash
  }
  try {
    QUMA_BcdFromString(a, x);
  } catch (const EConvertError&) {
  }
  return 0;
}
