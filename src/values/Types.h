// Plain 2-D geometry values in two coordinate kinds: double precision (TPointD, TSizeD, TRectD)
// and signed 64-bit integers (TPoint64, TSize64, TRect64), the wide counterparts of the host's
// TPoint/TRect and TPointF/TSizeF/TRectF (<quma/RectF.h>) with the same operations; and
// TBoundsD, a persistent holding four edges with a default rectangle and a change callback.
//
//   TRectD r(0, 0, 200, 100);
//   double ratio;
//   r.FitInto(TRectD(0, 0, 100, 100), ratio);   // (0,25,100,75), ratio 2
//   RectToString(r + TRectD(300, 0, 400, 50));  // "(0,0,400,100)": + is the union
//
// Rectangles are half-open: width = Right - Left, height = Bottom - Top, and a rectangle with no
// positive width or height (or a NaN edge) is empty. 64-bit arithmetic wraps modulo 2^64 as the
// host's unchecked integer arithmetic does; results computed in floating point (Rotate, Scale by
// a fraction) are rounded to the nearest integer, halves away from zero, and saturate. Double
// results that go to 32-bit integers (Ceiling, Truncate, Round) saturate too. The geometry types
// have std::hash and operator<<, whose text is the one ToString gives ("(1,2)", "(0,0.5,10,20)");
// the standard library in use has no <format>, so ToString stands in for std::formatter.
#pragma once

#include <quma/Export.h>

#include <array>
#include <cmath>
#include <concepts>
#include <cstddef>
#include <functional>
#include <iosfwd>
#include <span>
#include <string>
#include <type_traits>

#include <quma/Classes.h>
#include <quma/Method.h>
#include <quma/RectF.h>
#include <quma/Strings.h>
#include <quma/System.h>

QUMA_PUBLIC_BEGIN
namespace quma {

// The host's single-precision comparison tolerance: differences up to it count as equal.
inline constexpr double Epsilon = 1E-40;

template <class T>
concept TGeometryCoordinate = std::same_as<T, double> || std::same_as<T, Int64>;

namespace detail {
// Coordinate arithmetic: plain for doubles, wrapping for 64-bit integers.
template <class T>
constexpr T GeoAdd(T a, T b) noexcept {
  if constexpr (std::is_integral_v<T>)
    return static_cast<T>(static_cast<UInt64>(a) + static_cast<UInt64>(b));
  else
    return a + b;
}
template <class T>
constexpr T GeoSub(T a, T b) noexcept {
  if constexpr (std::is_integral_v<T>)
    return static_cast<T>(static_cast<UInt64>(a) - static_cast<UInt64>(b));
  else
    return a - b;
}
template <class T>
constexpr T GeoMul(T a, T b) noexcept {
  if constexpr (std::is_integral_v<T>)
    return static_cast<T>(static_cast<UInt64>(a) * static_cast<UInt64>(b));
  else
    return a * b;
}
// A real result as a coordinate: doubles as they are, integers rounded half away from zero and
// saturated (NaN gives 0).
Int64 RoundToInt64(double v) noexcept;
std::int32_t RoundToInt32(double v) noexcept;
std::int32_t SaturateToInt32(double v) noexcept;  // v already integral (ceil, trunc, nearbyint)
template <class T>
T FromReal(double v) noexcept {
  if constexpr (std::is_integral_v<T>)
    return RoundToInt64(v);
  else
    return v;
}
}  // namespace detail

template <TGeometryCoordinate T>
struct TPointT;
template <TGeometryCoordinate T>
struct TSizeT;
template <TGeometryCoordinate T>
struct TRectT;

using TPointD = TPointT<double>;
using TPoint64 = TPointT<Int64>;
using TSizeD = TSizeT<double>;
using TSize64 = TSizeT<Int64>;
using TRectD = TRectT<double>;
using TRect64 = TRectT<Int64>;
using PPointD = TPointD*;
using PPoint64 = TPoint64*;
using PSizeD = TSizeD*;
using PSize64 = TSize64*;
using PRectD = TRectD*;
using PRect64 = TRect64*;
// The two coordinates as an array (the host's variant view of the same storage).
using TPointDType = std::array<double, 2>;
using TPoint64Type = std::array<Int64, 2>;

template <TGeometryCoordinate T>
struct TPointT {
  static constexpr bool IsReal = std::is_floating_point_v<T>;
  T X{};
  T Y{};

  constexpr TPointT() noexcept = default;
  constexpr TPointT(T AX, T AY) noexcept : X(AX), Y(AY) {}
  constexpr TPointT(const TPoint& APoint) noexcept : X(APoint.X), Y(APoint.Y) {}
  constexpr TPointT(const TPointF& APoint) noexcept
    requires IsReal
      : X(APoint.X), Y(APoint.Y) {}
  constexpr explicit TPointT(const std::array<T, 2>& A) noexcept : X(A[0]), Y(A[1]) {}
  static constexpr TPointT Create(T AX, T AY) noexcept { return {AX, AY}; }
  static constexpr TPointT Create(const TPoint& APoint) noexcept { return TPointT(APoint); }
  static constexpr TPointT Zero() noexcept { return {}; }

  constexpr T& operator[](int i) noexcept { return i == 0 ? X : Y; }
  constexpr T operator[](int i) const noexcept { return i == 0 ? X : Y; }
  constexpr std::array<T, 2> AsArray() const noexcept { return {X, Y}; }

  friend constexpr bool operator==(const TPointT&, const TPointT&) noexcept = default;
  friend constexpr TPointT operator+(const TPointT& APoint1, const TPointT& APoint2) noexcept {
    return {detail::GeoAdd(APoint1.X, APoint2.X), detail::GeoAdd(APoint1.Y, APoint2.Y)};
  }
  friend constexpr TPointT operator-(const TPointT& APoint1, const TPointT& APoint2) noexcept {
    return {detail::GeoSub(APoint1.X, APoint2.X), detail::GeoSub(APoint1.Y, APoint2.Y)};
  }
  constexpr TPointT operator-() const noexcept { return {detail::GeoSub(T{}, X), detail::GeoSub(T{}, Y)}; }
  // Point by point multiplies coordinate-wise.
  friend constexpr TPointT operator*(const TPointT& APoint1, const TPointT& APoint2) noexcept {
    return {detail::GeoMul(APoint1.X, APoint2.X), detail::GeoMul(APoint1.Y, APoint2.Y)};
  }
  friend constexpr TPointT operator*(const TPointT& APoint, T AFactor) noexcept {
    return {detail::GeoMul(APoint.X, AFactor), detail::GeoMul(APoint.Y, AFactor)};
  }
  friend constexpr TPointT operator*(T AFactor, const TPointT& APoint) noexcept { return APoint * AFactor; }
  // Doubles divide as IEEE numbers do; 64-bit coordinates truncate towards zero and raise
  // EDivByZero for a zero factor.
  friend TPointT operator/(const TPointT& APoint, T AFactor) { return APoint.Divide(AFactor); }

  // True when Distance(Point, Center) <= Radius.
  static bool PointInCircle(const TPointT& Point, const TPointT& Center, Integer Radius) noexcept;
  double Distance(const TPointT& P) const noexcept;
  constexpr T CrossProduct(const TPointT& P) const noexcept {
    return detail::GeoSub(detail::GeoMul(X, P.Y), detail::GeoMul(Y, P.X));
  }
  constexpr T DotProduct(const TPointT& P) const noexcept {
    return detail::GeoAdd(detail::GeoMul(X, P.X), detail::GeoMul(Y, P.Y));
  }
  constexpr void Offset(const TPointT& APoint) noexcept { *this = *this + APoint; }
  constexpr void Offset(T ADeltaX, T ADeltaY) noexcept { Offset(TPointT(ADeltaX, ADeltaY)); }
  constexpr void Offset(const TPoint& APoint) noexcept { Offset(TPointT(APoint)); }
  constexpr void SetLocation(T AX, T AY) noexcept { *this = {AX, AY}; }
  constexpr void SetLocation(const TPointT& P) noexcept { *this = P; }
  constexpr void SetLocation(const TPoint& P) noexcept { *this = TPointT(P); }
  constexpr TPointT Add(const TPointT& P) const noexcept { return *this + P; }
  constexpr TPointT Add(const TPoint& P) const noexcept { return *this + TPointT(P); }
  constexpr TPointT Subtract(const TPointT& P) const noexcept { return *this - P; }
  constexpr TPointT Subtract(const TPoint& P) const noexcept { return *this - TPointT(P); }
  constexpr TPointT Scale(T AFactor) const noexcept { return *this * AFactor; }
  // SameValue on each coordinate; an Epsilon of 0 lets SameValue choose one from the magnitudes.
  bool EqualsTo(const TPointT& Point, double AEpsilon = 0) const noexcept
    requires IsReal;
  // Doubles: both coordinates within Epsilon of 0; 64-bit: both exactly 0.
  bool IsZero() const noexcept;
  // The unit vector in the same direction, as doubles; a zero point stays zero.
  TPointD Normalize() const noexcept;
  double Length() const noexcept;
  // Radians, counter-clockwise in a y-up frame: (X cos - Y sin, X sin + Y cos).
  TPointT Rotate(double AAngle) const noexcept;
  // Mirrors at the line whose normal is APoint: Self + APoint * (-2 * Self.APoint).
  constexpr TPointT Reflect(const TPointT& APoint) const noexcept {
    return *this + APoint * detail::GeoMul(T(-2), DotProduct(APoint));
  }
  // Halfway between the points (64-bit: rounded towards minus infinity, without overflow).
  TPointT MidPoint(const TPointT& APoint) const noexcept;
  // The cosine of the angle between the two vectors, clamped to -1..1.
  double AngleCosine(const TPointT& APoint) const noexcept;
  // ArcTan2(Y - APoint.Y, X - APoint.X), radians.
  double Angle(const TPointT& APoint) const noexcept;

  // 32-bit points (saturated); Round rounds halves to even, as the host's Round.
  TPoint Ceiling() const noexcept
    requires IsReal;
  TPoint Truncate() const noexcept
    requires IsReal;
  TPoint Round() const noexcept
    requires IsReal;
  // round(X * s) / s (halves to even) with s = AScale when above 0, else 1; then (s/2, s/2) is
  // added when APlaceBetweenPixels (half the scale, not half a device pixel).
  TPointT SnapToPixel(double AScale, bool APlaceBetweenPixels) const noexcept
    requires IsReal;
  explicit operator TPointF() const noexcept
    requires IsReal
  {
    return {static_cast<float>(X), static_cast<float>(Y)};
  }

 private:
  TPointT Divide(T AFactor) const;
};

template <TGeometryCoordinate T>
struct TSizeT {
  static constexpr bool IsReal = std::is_floating_point_v<T>;
  T cx{};
  T cy{};

  constexpr TSizeT() noexcept = default;
  constexpr TSizeT(T AWidth, T AHeight) noexcept : cx(AWidth), cy(AHeight) {}
  constexpr TSizeT(const TSize& ASize) noexcept : cx(ASize.cx), cy(ASize.cy) {}
  constexpr TSizeT(const TPoint& APoint) noexcept : cx(APoint.X), cy(APoint.Y) {}
  constexpr TSizeT(const TSizeF& ASize) noexcept
    requires IsReal
      : cx(ASize.cx), cy(ASize.cy) {}
  constexpr TSizeT(const TPointF& APoint) noexcept
    requires IsReal
      : cx(APoint.X), cy(APoint.Y) {}
  constexpr explicit TSizeT(const TPointT<T>& APoint) noexcept : cx(APoint.X), cy(APoint.Y) {}
  static constexpr TSizeT Create(T AWidth, T AHeight) noexcept { return {AWidth, AHeight}; }
  static constexpr TSizeT Create(const TSizeT& ASize) noexcept { return ASize; }

  constexpr T Width() const noexcept { return cx; }
  constexpr T Height() const noexcept { return cy; }
  constexpr void SetWidth(T Value) noexcept { cx = Value; }
  constexpr void SetHeight(T Value) noexcept { cy = Value; }

  friend constexpr bool operator==(const TSizeT&, const TSizeT&) noexcept = default;
  friend constexpr TSizeT operator+(const TSizeT& A, const TSizeT& B) noexcept {
    return {detail::GeoAdd(A.cx, B.cx), detail::GeoAdd(A.cy, B.cy)};
  }
  friend constexpr TSizeT operator-(const TSizeT& A, const TSizeT& B) noexcept {
    return {detail::GeoSub(A.cx, B.cx), detail::GeoSub(A.cy, B.cy)};
  }
  constexpr TSizeT Add(const TSizeT& Point) const noexcept { return *this + Point; }
  constexpr TSizeT Subtract(const TSizeT& Point) const noexcept { return *this - Point; }
  // The length of the difference vector.
  double Distance(const TSizeT& P2) const noexcept;
  // Doubles: both within Epsilon of 0; 64-bit: both exactly 0.
  bool IsZero() const noexcept;
  constexpr TSizeT SwapDimensions() const noexcept { return {cy, cx}; }
  constexpr TPointT<T> ToPoint() const noexcept { return {cx, cy}; }

  TSize Ceiling() const noexcept
    requires IsReal;
  TSize Truncate() const noexcept
    requires IsReal;
  TSize Round() const noexcept
    requires IsReal;
  explicit operator TSizeF() const noexcept
    requires IsReal
  {
    return {static_cast<float>(cx), static_cast<float>(cy)};
  }
  explicit operator TPointF() const noexcept
    requires IsReal
  {
    return {static_cast<float>(cx), static_cast<float>(cy)};
  }
  explicit operator TSize() const noexcept
    requires(!IsReal)
  {
    return {detail::SaturateToInt32(static_cast<double>(cx)), detail::SaturateToInt32(static_cast<double>(cy))};
  }
};

template <TGeometryCoordinate T>
struct TRectT {
  static constexpr bool IsReal = std::is_floating_point_v<T>;
  using TPointType = TPointT<T>;
  using TSizeType = TSizeT<T>;
  T Left{};
  T Top{};
  T Right{};
  T Bottom{};

  constexpr TRectT() noexcept = default;
  constexpr TRectT(T ALeft, T ATop, T ARight, T ABottom) noexcept
      : Left(ALeft), Top(ATop), Right(ARight), Bottom(ABottom) {}
  // An empty rectangle at the point.
  constexpr explicit TRectT(const TPointType& P) noexcept : TRectT(P.X, P.Y, P.X, P.Y) {}
  constexpr TRectT(const TPointType& Origin, T Width, T Height) noexcept
      : TRectT(Origin.X, Origin.Y, detail::GeoAdd(Origin.X, Width), detail::GeoAdd(Origin.Y, Height)) {}
  constexpr TRectT(const TPointType& P1, const TPointType& P2, bool Normalize = false) noexcept
      : TRectT(P1.X, P1.Y, P2.X, P2.Y) {
    if (Normalize) NormalizeRect();
  }
  constexpr TRectT(const TRectT& R, bool Normalize) noexcept : TRectT(R) {
    if (Normalize) NormalizeRect();
  }
  constexpr TRectT(const TRectT&) noexcept = default;
  constexpr TRectT& operator=(const TRectT&) noexcept = default;
  constexpr TRectT(const TRect& R) noexcept : TRectT(R.Left, R.Top, R.Right, R.Bottom) {}
  constexpr TRectT(const TRectF& R) noexcept
    requires IsReal
      : TRectT(R.Left, R.Top, R.Right, R.Bottom) {}
  static constexpr TRectT Empty() noexcept { return {}; }

  friend constexpr bool operator==(const TRectT&, const TRectT&) noexcept = default;
  // + is the union (UnionRect), * the intersection (IntersectRect).
  friend TRectT operator+(const TRectT& A, const TRectT& B) noexcept { return Union(A, B); }
  friend TRectT operator*(const TRectT& A, const TRectT& B) noexcept { return Intersect(A, B); }

  explicit operator TRectF() const noexcept
    requires IsReal
  {
    return {static_cast<float>(Left), static_cast<float>(Top), static_cast<float>(Right), static_cast<float>(Bottom)};
  }
  // Saturated to the 32-bit range.
  explicit operator TRect() const noexcept
    requires(!IsReal)
  {
    return {detail::SaturateToInt32(static_cast<double>(Left)), detail::SaturateToInt32(static_cast<double>(Top)),
            detail::SaturateToInt32(static_cast<double>(Right)), detail::SaturateToInt32(static_cast<double>(Bottom))};
  }
  // TopLeft and BottomRight of each within SameValue's Epsilon.
  bool EqualsTo(const TRectT& R, double AEpsilon = 0) const noexcept
    requires IsReal;

  constexpr T Width() const noexcept { return detail::GeoSub(Right, Left); }
  constexpr T Height() const noexcept { return detail::GeoSub(Bottom, Top); }
  constexpr void SetWidth(T Value) noexcept { Right = detail::GeoAdd(Left, Value); }
  constexpr void SetHeight(T Value) noexcept { Bottom = detail::GeoAdd(Top, Value); }
  constexpr TSizeType Size() const noexcept { return {Width(), Height()}; }
  constexpr void SetSize(const TSizeType& Value) noexcept {
    SetWidth(Value.cx);
    SetHeight(Value.cy);
  }
  constexpr TPointType Location() const noexcept { return TopLeft(); }
  constexpr TPointType TopLeft() const noexcept { return {Left, Top}; }
  constexpr TPointType BottomRight() const noexcept { return {Right, Bottom}; }
  constexpr void SetTopLeft(const TPointType& P) noexcept { Left = P.X, Top = P.Y; }
  constexpr void SetBottomRight(const TPointType& P) noexcept { Right = P.X, Bottom = P.Y; }

  // Swaps Top and Bottom when Top > Bottom, then Left and Right when Left > Right.
  constexpr void NormalizeRect() noexcept {
    if (Top > Bottom) std::swap(Top, Bottom);
    if (Left > Right) std::swap(Left, Right);
  }
  // Not (Right > Left) or not (Bottom > Top): a NaN edge makes it empty.
  constexpr bool IsEmpty() const noexcept { return !(Right > Left) || !(Bottom > Top); }
  // Half-open: the left and top edges belong to the rectangle, the right and bottom ones do not.
  constexpr bool Contains(const TPointType& Pt) const noexcept {
    return Pt.X >= Left && Pt.X < Right && Pt.Y >= Top && Pt.Y < Bottom;
  }
  // Every edge of R within this rectangle's (R may touch them).
  constexpr bool Contains(const TRectT& R) const noexcept {
    return Left <= R.Left && R.Right <= Right && Top <= R.Top && R.Bottom <= Bottom;
  }
  // True exactly when the intersection is not empty (rectangles that only touch do not).
  constexpr bool IntersectsWith(const TRectT& R) const noexcept {
    return !IsEmpty() && !R.IsEmpty() && Left < R.Right && R.Left < Right && Top < R.Bottom && R.Top < Bottom;
  }
  static TRectT Intersect(const TRectT& R1, const TRectT& R2) noexcept;
  void Intersect(const TRectT& R) noexcept { *this = Intersect(*this, R); }
  static TRectT Union(const TRectT& R1, const TRectT& R2) noexcept;
  void Union(const TRectT& R) noexcept { *this = Union(*this, R); }
  // The smallest rectangle holding every point (its right and bottom edges on the outermost
  // points); Empty for no points.
  static TRectT Union(std::span<const TPointType> Points) noexcept;
  constexpr void Offset(T DX, T DY) noexcept {
    Left = detail::GeoAdd(Left, DX), Right = detail::GeoAdd(Right, DX);
    Top = detail::GeoAdd(Top, DY), Bottom = detail::GeoAdd(Bottom, DY);
  }
  constexpr void Offset(const TPointType& Point) noexcept { Offset(Point.X, Point.Y); }
  // Moves the rectangle, keeping its size, so that its top-left corner is (X, Y).
  constexpr void SetLocation(T X, T Y) noexcept { Offset(detail::GeoSub(X, Left), detail::GeoSub(Y, Top)); }
  constexpr void SetLocation(const TPointType& Point) noexcept { SetLocation(Point.X, Point.Y); }
  constexpr void Inflate(T DX, T DY) noexcept { Inflate(DX, DY, DX, DY); }
  constexpr void Inflate(T DL, T DT, T DR, T DB) noexcept {
    Left = detail::GeoSub(Left, DL), Top = detail::GeoSub(Top, DT);
    Right = detail::GeoAdd(Right, DR), Bottom = detail::GeoAdd(Bottom, DB);
  }
  // Doubles: the exact middle; 64-bit: Left + Width / 2 (truncated), as the host's TRect.
  TPointType CenterPoint() const noexcept;
  // The part of the rectangle along one edge, Size deep (Left: Left .. Left + Size, Right:
  // Right - Size .. Right, likewise Top and Bottom); the fraction form takes Percent of the
  // width or height (64-bit: truncated).
  template <std::integral I>
  TRectT SplitRect(TSplitRectType SplitType, I Size) const noexcept {
    return SplitBySize(SplitType, static_cast<T>(Size));
  }
  TRectT SplitRect(TSplitRectType SplitType, double Percent) const noexcept;
  TRectT SplitBySize(TSplitRectType SplitType, T Size) const noexcept;

  // The double rectangle's placement operations.
  TRectT FitInto(const TRectT& Dest) const noexcept
    requires IsReal;
  TRectT FitInto(const TRectT& Dest, double& Ratio) const noexcept
    requires IsReal;
  double Fit(const TRectT& BoundsRect) noexcept
    requires IsReal;
  TRectT CenterAt(const TRectT& Dest) const noexcept
    requires IsReal;
  TRectT PlaceInto(const TRectT& Dest, THorzRectAlign AHorzAlign = THorzRectAlign::Center,
                   TVertRectAlign AVertAlign = TVertRectAlign::Center) const noexcept
    requires IsReal;
  // Edges on the pixel grid of the scale (s = AScale when above 0, else 1): Left and Top rounded
  // to the nearest 1/s, Width and Height likewise (halves to even); then, when
  // APlaceBetweenPixels, moved by half a device pixel (1 / (2s)) so that lines fall between
  // pixels.
  TRectT SnapToPixel(double AScale, bool APlaceBetweenPixels = true) const noexcept
    requires IsReal;
  TRect Ceiling() const noexcept
    requires IsReal;
  TRect Truncate() const noexcept
    requires IsReal;
  TRect Round() const noexcept
    requires IsReal;
};

// ---- free functions ----

constexpr TPointD PointD(double X, double Y) noexcept { return {X, Y}; }
constexpr TPointD PointD(const TPoint& P) noexcept { return P; }
constexpr TPointD PointD(const TPointF& P) noexcept { return P; }
constexpr TPoint64 Point64(Int64 X, Int64 Y) noexcept { return {X, Y}; }
constexpr TPoint64 Point64(const TPoint& P) noexcept { return P; }
constexpr TSizeD SizeD(double cx, double cy) noexcept { return {cx, cy}; }
constexpr TSizeD SizeD(const TSize& S) noexcept { return S; }
constexpr TSizeD SizeD(const TSizeF& S) noexcept { return S; }
constexpr TSize64 Size64(Int64 cx, Int64 cy) noexcept { return {cx, cy}; }
constexpr TSize64 Size64(const TSize& S) noexcept { return S; }
constexpr TRectD RectD(double Left, double Top, double Right, double Bottom) noexcept {
  return {Left, Top, Right, Bottom};
}
constexpr TRectD RectD(const TRect& R) noexcept { return R; }
constexpr TRectD RectD(const TRectF& R) noexcept { return R; }
constexpr TRect64 Rect64(Int64 Left, Int64 Top, Int64 Right, Int64 Bottom) noexcept {
  return {Left, Top, Right, Bottom};
}
constexpr TRect64 Rect64(const TRect& R) noexcept { return R; }

template <TGeometryCoordinate T>
constexpr bool IsRectEmpty(const TRectT<T>& R) noexcept {
  return R.IsEmpty();
}
// R = R1 with the larger Left/Top and the smaller Right/Bottom of the two; all zeros when that is
// empty. True when the result is not empty.
template <TGeometryCoordinate T>
bool IntersectRect(TRectT<T>& R, const TRectT<T>& R1, const TRectT<T>& R2) noexcept;
inline bool IntersectRectD(TRectD& R, const TRectD& R1, const TRectD& R2) noexcept { return IntersectRect(R, R1, R2); }
// R = R1 grown to R2 when R2 is not empty (an empty R2 is ignored, an empty R1 is not); all zeros
// when the result is empty. True when the result is not empty.
template <TGeometryCoordinate T>
bool UnionRect(TRectT<T>& R, const TRectT<T>& R1, const TRectT<T>& R2) noexcept;
inline bool UnionRectD(TRectD& R, const TRectD& R1, const TRectD& R2) noexcept { return UnionRect(R, R1, R2); }
// Left -= DX, Right += DX, Top -= DY, Bottom += DY.
template <TGeometryCoordinate T>
constexpr void InflateRect(TRectT<T>& R, std::type_identity_t<T> DX, std::type_identity_t<T> DY) noexcept {
  R.Inflate(DX, DY);
}
template <TGeometryCoordinate T>
constexpr void OffsetRect(TRectT<T>& R, std::type_identity_t<T> DX, std::type_identity_t<T> DY) noexcept {
  R.Offset(DX, DY);
}
// Left and Right multiplied by DX, Top and Bottom by DY.
template <TGeometryCoordinate T>
constexpr void MultiplyRect(TRectT<T>& R, std::type_identity_t<T> DX, std::type_identity_t<T> DY) noexcept {
  R = {detail::GeoMul(R.Left, DX), detail::GeoMul(R.Top, DY), detail::GeoMul(R.Right, DX), detail::GeoMul(R.Bottom, DY)};
}
// Moves R, keeping its size, so that its centre lies on the centre of Bounds; returns it too.
template <TGeometryCoordinate T>
TRectT<T> RectCenter(TRectT<T>& R, const TRectT<T>& Bounds) noexcept;
template <TGeometryCoordinate T>
constexpr T RectWidth(const TRectT<T>& R) noexcept {
  return R.Width();
}
template <TGeometryCoordinate T>
constexpr T RectHeight(const TRectT<T>& R) noexcept {
  return R.Height();
}
template <TGeometryCoordinate T>
constexpr bool PtInRect(const TRectT<T>& R, const TPointT<T>& P) noexcept {
  return R.Contains(P);
}
// Sine and cosine computed together in extended precision.
void SinCosDouble(double Angle, double& Sin, double& Cos) noexcept;

// "(Left,Top,Right,Bottom)" with FloatToStr under GBFormatSettings (64-bit: IntToStr).
UnicodeString RectToString(const TRectD& R);
UnicodeString RectToString(const TRect64& R);
// "(X,Y)" and "(cx,cy)" in the same number forms: the text of operator<<.
UnicodeString ToString(const TPointD& P);
UnicodeString ToString(const TPoint64& P);
UnicodeString ToString(const TSizeD& S);
UnicodeString ToString(const TSize64& S);
inline UnicodeString ToString(const TRectD& R) { return RectToString(R); }
inline UnicodeString ToString(const TRect64& R) { return RectToString(R); }

// The geometry unit's own names where the string utilities already use them for the
// single-precision rectangle: quma::Types::StringToRect reads a TRectD (quma::StringToRect of
// <quma/StringUtils.h> reads a TRectF).
namespace Types {
// Reads "(Left,Top,Right,Bottom)": tokens split at any of ",()" (the first, before the bracket,
// dropped), four numbers read with StrToFloat under GBFormatSettings. Any failure gives
// TRectD::Empty(); nothing is raised.
TRectD StringToRect(UnicodeStringView S) noexcept;
using quma::RectToString;
}  // namespace Types

template <TGeometryCoordinate T>
std::ostream& operator<<(std::ostream& os, const TPointT<T>& P);
template <TGeometryCoordinate T>
std::ostream& operator<<(std::ostream& os, const TSizeT<T>& S);
template <TGeometryCoordinate T>
std::ostream& operator<<(std::ostream& os, const TRectT<T>& R);

namespace detail {
// Hash of coordinates that agrees with ==: 0.0 and -0.0 hash alike.
template <TGeometryCoordinate T>
std::size_t HashCoordinates(std::initializer_list<T> values) noexcept {
  std::size_t h = 0x9E3779B97F4A7C15ull;
  for (T v : values) {
    if constexpr (std::is_floating_point_v<T>)
      if (v == 0) v = 0;
    h ^= std::hash<T>()(v) + 0x9E3779B97F4A7C15ull + (h << 6) + (h >> 2);
  }
  return h;
}
}  // namespace detail

// ---- TBoundsD ----

class TFiler;
class TReader;

inline constexpr char16_t SBoundsFormat[] = u"%s (%4.2f,%4.2f)-(%4.2f,%4.2f)";

// Four double edges that remember a default rectangle (only edges that differ from it are
// streamed), read the older stream properties Rect, RectI, LeftI, TopI, RightI and BottomI, and
// announce each change through OnChange (the change callback; not a streamed property).
class TBoundsD : public TPersistent {
  QUMA_CLASS(TBoundsD, TPersistent)
 public:
  explicit TBoundsD(const TRectD& ADefaultValue = {});

  // From another TBoundsD: SetRect(Source.Rect); from nothing: back to the default rectangle;
  // otherwise the inherited assignment (EConvertError "Cannot assign a ...").
  void Assign(TPersistent* Source) override;
  // Another TBoundsD with exactly the same rectangle; otherwise identity.
  bool Equals(const TObject* Obj) const override;
  // "<class name> (%4.2f,%4.2f)-(%4.2f,%4.2f)" with Left, Top, Right and Bottom.
  UnicodeString ToString() const override;

  TRectD GetRect() const noexcept { return {FLeft, FTop, FRight, FBottom}; }
  // Sets all four edges and calls DoChange once when R differs (exactly) from the current edges.
  void SetRect(const TRectD& R);
  double Left() const noexcept { return FLeft; }
  double Top() const noexcept { return FTop; }
  double Right() const noexcept { return FRight; }
  double Bottom() const noexcept { return FBottom; }
  // Nothing happens when Value is SameValue (within Epsilon) with the edge; otherwise the edge is
  // set and DoChange called.
  void SetLeft(double Value);
  void SetTop(double Value);
  void SetRight(double Value);
  void SetBottom(double Value);
  // Stored-tests: the edge differs (beyond Epsilon) from the same edge of the default rectangle.
  bool IsLeftStored() const noexcept;
  bool IsTopStored() const noexcept;
  bool IsRightStored() const noexcept;
  bool IsBottomStored() const noexcept;
  const TRectD& DefaultValue() const noexcept { return FDefaultValue; }

  // R shrunk by the edges: (R.Left + Left, R.Top + Top, R.Right - Right, R.Bottom - Bottom).
  TRectD PaddingRect(const TRectD& R) const noexcept;
  // R grown by the edges: (R.Left - Left, R.Top - Top, R.Right + Right, R.Bottom + Bottom).
  TRectD MarginRect(const TRectD& R) const noexcept;
  double Width() const noexcept { return FRight - FLeft; }
  double Height() const noexcept { return FBottom - FTop; }
  bool Empty() const noexcept { return IsRectEmpty(GetRect()); }
  // All four edges within Epsilon of 0.
  bool MarginEmpty() const noexcept;

  TNotifyEvent OnChange;

 protected:
  void DefineProperties(TFiler* Filer) override;
  virtual void DoChange();

 private:
  void ReadRect(TReader* Reader);
  void ReadRectI(TReader* Reader);
  void ReadLeftI(TReader* Reader);
  void ReadTopI(TReader* Reader);
  void ReadRightI(TReader* Reader);
  void ReadBottomI(TReader* Reader);
  void SetEdge(double& Edge, double Value);

  TRectD FDefaultValue;
  double FLeft = 0;
  double FTop = 0;
  double FRight = 0;
  double FBottom = 0;
};

}  // namespace quma

template <quma::TGeometryCoordinate T>
struct std::hash<quma::TPointT<T>> {
  std::size_t operator()(const quma::TPointT<T>& P) const noexcept {
    return quma::detail::HashCoordinates<T>({P.X, P.Y});
  }
};
template <quma::TGeometryCoordinate T>
struct std::hash<quma::TSizeT<T>> {
  std::size_t operator()(const quma::TSizeT<T>& S) const noexcept {
    return quma::detail::HashCoordinates<T>({S.cx, S.cy});
  }
};
template <quma::TGeometryCoordinate T>
struct std::hash<quma::TRectT<T>> {
  std::size_t operator()(const quma::TRectT<T>& R) const noexcept {
    return quma::detail::HashCoordinates<T>({R.Left, R.Top, R.Right, R.Bottom});
  }
};
QUMA_PUBLIC_END
