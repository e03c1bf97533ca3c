// The host's single-precision rectangle.
#pragma once

namespace quma {

struct TRectF {
  float Left = 0;
  float Top = 0;
  float Right = 0;
  float Bottom = 0;

  constexpr float Width() const noexcept { return Right - Left; }
  constexpr float Height() const noexcept { return Bottom - Top; }
  constexpr bool IsEmpty() const noexcept { return Right <= Left || Bottom <= Top; }
  friend constexpr bool operator==(const TRectF&, const TRectF&) noexcept = default;
};

}  // namespace quma
