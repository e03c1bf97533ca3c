// Helpers shared by the value tests.
#pragma once

#include <random>

#include <quma/SysUtils.h>
#include <quma/Uuid.h>

#include "rtl/TestSupport.h"

namespace quma::test {

// The message of the E that f raises, as UTF-16 text.
template <class E = EConvertError, class F>
UnicodeString ErrorText(F f) {
  return Utf8ToUtf16(ErrorOf<E>(f));
}

inline TQUMA_Uuid RandomUuid(std::mt19937& rng) {
  TQUMA_Uuid u;
  for (Byte& b : u._baUuid) b = static_cast<Byte>(rng());
  return u;
}

}  // namespace quma::test
