// Small aids shared by the test programs: the error text a call raises, so that a documented
// message is checked in one line, and an object that counts its own destruction.
#pragma once

#include <string>

#include <quma/Object.h>
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

// Adds one to a counter owned by the test when it is destroyed.
class TFreeCounter : public TObject {
  QUMA_CLASS(TFreeCounter, TObject)
 public:
  explicit TFreeCounter(int* frees) : Frees(frees) {}
  ~TFreeCounter() override { ++*Frees; }
  int* Frees;
};

}  // namespace quma::test
