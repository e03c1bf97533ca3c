// The host's plain geometry records: 32-bit integer TPoint, TSize and TRect, single-precision
// TPointF, TSizeF and TRectF, and the alignment and split enums that rectangle placement takes.
// They carry only what the wider geometry values (<quma/Types.h>) convert to and from.
#pragma once

#include <quma/Export.h>

#include <cstdint>

QUMA_PUBLIC_BEGIN
namespace quma {

struct TPoint {
  std::int32_t X = 0;
  std::int32_t Y = 0;
  friend constexpr bool operator==(const TPoint&, const TPoint&) noexcept = default;
};

struct TSize {
  std::int32_t cx = 0;
  std::int32_t cy = 0;
  constexpr std::int32_t Width() const noexcept { return cx; }
  constexpr std::int32_t Height() const noexcept { return cy; }
  friend constexpr bool operator==(const TSize&, const TSize&) noexcept = default;
};

struct TRect {
  std::int32_t Left = 0;
  std::int32_t Top = 0;
  std::int32_t Right = 0;
  std::int32_t Bottom = 0;

  constexpr std::int32_t Width() const noexcept { return Right - Left; }
  constexpr std::int32_t Height() const noexcept { return Bottom - Top; }
  constexpr bool IsEmpty() const noexcept { return Right <= Left || Bottom <= Top; }
  constexpr TPoint TopLeft() const noexcept { return {Left, Top}; }
  constexpr TPoint BottomRight() const noexcept { return {Right, Bottom}; }
  friend constexpr bool operator==(const TRect&, const TRect&) noexcept = default;
};

struct TPointF {
  float X = 0;
  float Y = 0;
  friend constexpr bool operator==(const TPointF&, const TPointF&) noexcept = default;
};

struct TSizeF {
  float cx = 0;
  float cy = 0;
  constexpr float Width() const noexcept { return cx; }
  constexpr float Height() const noexcept { return cy; }
  friend constexpr bool operator==(const TSizeF&, const TSizeF&) noexcept = default;
};

struct TRectF {
  float Left = 0;
  float Top = 0;
  float Right = 0;
  float Bottom = 0;

  constexpr float Width() const noexcept { return Right - Left; }
  constexpr float Height() const noexcept { return Bottom - Top; }
  // NaN edges make a rectangle empty, as every comparison with them fails.
  constexpr bool IsEmpty() const noexcept { return !(Right > Left) || !(Bottom > Top); }
  constexpr TPointF TopLeft() const noexcept { return {Left, Top}; }
  constexpr TPointF BottomRight() const noexcept { return {Right, Bottom}; }
  friend constexpr bool operator==(const TRectF&, const TRectF&) noexcept = default;
};

// Placement of a rectangle inside another (PlaceInto), in the host's value order.
enum class THorzRectAlign { Center, Left, Right };
enum class TVertRectAlign { Center, Top, Bottom };
// Which edge SplitRect keeps.
enum class TSplitRectType { Left, Right, Top, Bottom };

}  // namespace quma
QUMA_PUBLIC_END
