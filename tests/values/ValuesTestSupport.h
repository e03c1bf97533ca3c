// Helpers shared by the value tests.
#pragma once

#include <random>

#include <quma/SysUtils.h>
#include <quma/Uuid.h>

namespace quma::test {

// The message of the E that f raises, or "<no error>".
template <class E = EConvertError, class F>
UnicodeString ErrorOf(F f) {
  try {
    f();
  } catch (const E& e) {
    return e.Message();
  }
  return u"<no error>";
}

inline TQUMA_Uuid RandomUuid(std::mt19937& rng) {
  TQUMA_Uuid u;
  for (Byte& b : u._baUuid) b = static_cast<Byte>(rng());
  return u;
}

}  // namespace quma::test
