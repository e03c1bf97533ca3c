// Membership of characters in a few small character sets, answered with one table read for
// ASCII characters, and fast skipping of characters outside chosen sets. Used by the tokeniser
// and the string parser, which test every input character against several sets. Private to the
// library (not installed).
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <iterator>
#include <utility>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

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

  // Calls f(c) for every character in one of the classes of Mask.
  template <class F>
  void ForEachMember(Byte Mask, F&& f) const {
    for (std::size_t c = 0; c < FAscii.size(); ++c)
      if (FAscii[c] & Mask) f(static_cast<WideChar>(c));
    for (const auto& w : FWide)
      if (w.second & Mask) f(w.first);
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

// The characters of some classes, for skipping runs of other characters. Text is mostly such
// runs, so when the set has at most eight characters, eight characters are compared at once.
class TCharSkipper {
 public:
  // Takes the members of the classes in Mask; build again after the classes change.
  void Build(const TCharClasses& Classes, Byte Mask) {
    FClasses = &Classes;
    FMask = Mask;
    FCount = 0;
    Classes.ForEachMember(Mask, [this](WideChar c) {
#if defined(__SSE2__)
      if (FCount < std::size(FMembers)) FMembers[FCount] = _mm_set1_epi16(static_cast<short>(c));
#endif
      ++FCount;
    });
#if defined(__SSE2__)
    for (std::size_t k = FCount; k < std::size(FMembers) && FCount > 0; ++k)
      FMembers[k] = FMembers[0];  // repeats change nothing and keep the comparisons unrolled
#endif
  }

  // The number of leading characters of [p, p + n) that are not in the set.
  std::size_t Skip(const WideChar* p, std::size_t n) const noexcept {
    std::size_t i = 0;
    if (FCount == 0) return n;
    if (n == 0 || (FClasses->Of(p[0]) & FMask)) return 0;  // a special character next: often
#if defined(__SSE2__)
    if (FCount <= std::size(FMembers) && n >= 8) {
      for (; i + 8 <= n; i += 8)
        if (const unsigned mask = MemberMask(p + i)) return i + std::countr_zero(mask) / 2;
      if (i == n) return n;
      // The last characters: the final eight again, without the ones already looked at.
      const unsigned mask = MemberMask(p + n - 8) >> (2 * (i - (n - 8)));
      return mask ? i + std::countr_zero(mask) / 2 : n;
    }
#endif
    while (i < n && !(FClasses->Of(p[i]) & FMask)) ++i;
    return i;
  }

 private:
#if defined(__SSE2__)
  // Two bits for each character of p[0..8) that is in the set.
  unsigned MemberMask(const WideChar* p) const noexcept {
    const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    __m128i hit = _mm_cmpeq_epi16(block, FMembers[0]);
    for (std::size_t k = 1; k < std::size(FMembers); ++k) hit = _mm_or_si128(hit, _mm_cmpeq_epi16(block, FMembers[k]));
    return static_cast<unsigned>(_mm_movemask_epi8(hit));
  }
  __m128i FMembers[8] = {};  // the first eight members, each in all eight lanes
#endif
  const TCharClasses* FClasses = nullptr;
  Byte FMask = 0;
  std::size_t FCount = 0;
};

}  // namespace quma::detail
