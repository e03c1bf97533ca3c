// The error text a call raises, so that a documented message is checked in one line.
#pragma once

#include <string>

#include <quma/SysUtils.h>

namespace quma::test {

// The message (UTF-8) of the E that f throws, or "no error".
template <class E = Exception, class F>
std::string ErrorOf(F&& f) {
  try {
    f();
  } catch (const E& e) {
    return e.what();
  }
  return "no error";
}

}  // namespace quma::test
