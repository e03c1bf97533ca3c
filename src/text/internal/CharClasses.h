// Membership of characters in a few small character sets, answered with one table read for
// ASCII characters. Used by the tokeniser and the string parser, which test every input
// character against several sets. Private to the library (not installed).
#pragma once

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

#include <quma/System.h>

namespace quma::detail {

class TCharClasses {
 public:
  // The classes (bits) character c belongs to.
  Byte Of(WideChar c) const noexcept {
    if (c < FAscii.size()) return FAscii[c];
    return FWide.empty() ? Byte{0} : WideOf(c);
  }

  // Makes Chars the members of class Bit, replacing the earlier members.
  void Assign(Byte Bit, UnicodeStringView Chars) {
    for (Byte& b : FAscii) b &= static_cast<Byte>(~Bit);
    for (auto& w : FWide) w.second &= static_cast<Byte>(~Bit);
    std::erase_if(FWide, [](const auto& w) { return w.second == 0; });
    for (WideChar c : Chars) {
      if (c < FAscii.size()) {
        FAscii[c] |= Bit;
      } else {
        auto it = std::find_if(FWide.begin(), FWide.end(), [c](const auto& w) { return w.first == c; });
        if (it == FWide.end())
          FWide.emplace_back(c, Bit);
        else
          it->second |= Bit;
      }
    }
  }

 private:
  Byte WideOf(WideChar c) const noexcept {
    for (const auto& w : FWide)
      if (w.first == c) return w.second;
    return 0;
  }

  std::array<Byte, 128> FAscii{};
  std::vector<std::pair<WideChar, Byte>> FWide;  // members above ASCII, rare and few
};

}  // namespace quma::detail
