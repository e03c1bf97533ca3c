#include <quma/Types.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <ostream>

#include <quma/DateTime.h>
#include <quma/FormatSettings.h>
#include <quma/StringUtils.h>
#include <quma/SysUtils.h>


QUMA_PUBLIC_BEGIN
namespace quma {

namespace detail {

Int64 RoundToInt64(double v) noexcept {
  if (std::isnan(v)) return 0;
  // 2^63 is the first double beyond the range.
  if (v >= 9223372036854775808.0) return std::numeric_limits<Int64>::max();
  if (v <= -9223372036854775808.0) return std::numeric_limits<Int64>::min();
  return static_cast<Int64>(std::round(v));
}

std::int32_t SaturateToInt32(double v) noexcept {
  if (std::isnan(v)) return 0;
  if (v >= 2147483647.0) return std::numeric_limits<std::int32_t>::max();
  if (v <= -2147483648.0) return std::numeric_limits<std::int32_t>::min();
  return static_cast<std::int32_t>(v);
}

std::int32_t RoundToInt32(double v) noexcept { return SaturateToInt32(std::round(v)); }

}  // namespace detail

namespace {

enum class TRounding { Up, TowardsZero, Nearest };

// A double as a 32-bit coordinate, rounded the named way (Nearest: halves to even) and saturated.
std::int32_t ToInt32(double v, TRounding rounding) noexcept {
  switch (rounding) {
    case TRounding::Up:
      return detail::SaturateToInt32(std::ceil(v));
    case TRounding::TowardsZero:
      return detail::SaturateToInt32(std::trunc(v));
    case TRounding::Nearest:
      break;
  }
  return detail::SaturateToInt32(std::nearbyint(v));
}

double AsReal(double v) noexcept { return v; }
double AsReal(Int64 v) noexcept { return static_cast<double>(v); }

UnicodeString Number(double v) { return FloatToStr(v, GBFormatSettings); }
UnicodeString Number(Int64 v) { return IntToStr(v); }

}  // namespace

// ---- TPointT ----

template <TGeometryCoordinate T>
TPointT<T> TPointT<T>::Divide(T AFactor) const {
  if constexpr (IsReal) {
    return {X / AFactor, Y / AFactor};
  } else {
    if (AFactor == 0) throw EDivByZero(SDivByZero);
    // The one quotient that overflows wraps like the other 64-bit arithmetic.
    const auto div = [AFactor](Int64 v) { return AFactor == -1 ? detail::GeoSub(Int64{0}, v) : v / AFactor; };
    return {div(X), div(Y)};
  }
}

template <TGeometryCoordinate T>
bool TPointT<T>::PointInCircle(const TPointT& Point, const TPointT& Center, Integer Radius) noexcept {
  return Point.Distance(Center) <= Radius;
}

template <TGeometryCoordinate T>
double TPointT<T>::Distance(const TPointT& P) const noexcept {
  // In doubles, so that 64-bit differences cannot wrap.
  return std::hypot(AsReal(X) - AsReal(P.X), AsReal(Y) - AsReal(P.Y));
}

template <TGeometryCoordinate T>
bool TPointT<T>::EqualsTo(const TPointT& Point, double AEpsilon) const noexcept
  requires IsReal
{
  return SameValue(X, Point.X, AEpsilon) && SameValue(Y, Point.Y, AEpsilon);
}

template <TGeometryCoordinate T>
bool TPointT<T>::IsZero() const noexcept {
  if constexpr (IsReal)
    return SameValue(X, 0, Epsilon) && SameValue(Y, 0, Epsilon);
  else
    return X == 0 && Y == 0;
}

template <TGeometryCoordinate T>
double TPointT<T>::Length() const noexcept {
  return std::hypot(AsReal(X), AsReal(Y));
}

template <TGeometryCoordinate T>
TPointD TPointT<T>::Normalize() const noexcept {
  const TPointD p(AsReal(X), AsReal(Y));
  const double length = Length();
  return length == 0 ? p : TPointD(p.X / length, p.Y / length);
}

template <TGeometryCoordinate T>
TPointT<T> TPointT<T>::Rotate(double AAngle) const noexcept {
  double s, c;
  SinCosDouble(AAngle, s, c);
  const double x = AsReal(X), y = AsReal(Y);
  return {detail::FromReal<T>(x * c - y * s), detail::FromReal<T>(x * s + y * c)};
}

template <TGeometryCoordinate T>
TPointT<T> TPointT<T>::MidPoint(const TPointT& APoint) const noexcept {
  if constexpr (IsReal) {
    return {(X + APoint.X) / 2, (Y + APoint.Y) / 2};
  } else {
    // floor((a + b) / 2) without forming the sum: halve each (arithmetic shifts round down) and
    // add back the half that two odd values lose.
    const auto mid = [](Int64 a, Int64 b) { return (a >> 1) + (b >> 1) + (a & b & 1); };
    return {mid(X, APoint.X), mid(Y, APoint.Y)};
  }
}

template <TGeometryCoordinate T>
double TPointT<T>::AngleCosine(const TPointT& APoint) const noexcept {
  const double dot = AsReal(X) * AsReal(APoint.X) + AsReal(Y) * AsReal(APoint.Y);
  const double length = Length() * APoint.Length();
  const double cosine = std::fabs(length) > Epsilon ? dot / length : dot / Epsilon;
  return std::clamp(cosine, -1.0, 1.0);
}

template <TGeometryCoordinate T>
double TPointT<T>::Angle(const TPointT& APoint) const noexcept {
  return std::atan2(AsReal(Y) - AsReal(APoint.Y), AsReal(X) - AsReal(APoint.X));
}

template <TGeometryCoordinate T>
TPoint TPointT<T>::Ceiling() const noexcept
  requires IsReal
{
  return {ToInt32(X, TRounding::Up), ToInt32(Y, TRounding::Up)};
}

template <TGeometryCoordinate T>
TPoint TPointT<T>::Truncate() const noexcept
  requires IsReal
{
  return {ToInt32(X, TRounding::TowardsZero), ToInt32(Y, TRounding::TowardsZero)};
}

template <TGeometryCoordinate T>
TPoint TPointT<T>::Round() const noexcept
  requires IsReal
{
  return {ToInt32(X, TRounding::Nearest), ToInt32(Y, TRounding::Nearest)};
}

template <TGeometryCoordinate T>
TPointT<T> TPointT<T>::SnapToPixel(double AScale, bool APlaceBetweenPixels) const noexcept
  requires IsReal
{
  const double s = AScale > 0 ? AScale : 1;
  TPointT r(std::nearbyint(X * s) / s, std::nearbyint(Y * s) / s);
  if (APlaceBetweenPixels) r.Offset(s / 2, s / 2);
  return r;
}

// ---- TSizeT ----

template <TGeometryCoordinate T>
double TSizeT<T>::Distance(const TSizeT& P2) const noexcept {
  return std::hypot(AsReal(cx) - AsReal(P2.cx), AsReal(cy) - AsReal(P2.cy));
}

template <TGeometryCoordinate T>
bool TSizeT<T>::IsZero() const noexcept {
  if constexpr (IsReal)
    return SameValue(cx, 0, Epsilon) && SameValue(cy, 0, Epsilon);
  else
    return cx == 0 && cy == 0;
}

template <TGeometryCoordinate T>
TSize TSizeT<T>::Ceiling() const noexcept
  requires IsReal
{
  return {ToInt32(cx, TRounding::Up), ToInt32(cy, TRounding::Up)};
}

template <TGeometryCoordinate T>
TSize TSizeT<T>::Truncate() const noexcept
  requires IsReal
{
  return {ToInt32(cx, TRounding::TowardsZero), ToInt32(cy, TRounding::TowardsZero)};
}

template <TGeometryCoordinate T>
TSize TSizeT<T>::Round() const noexcept
  requires IsReal
{
  return {ToInt32(cx, TRounding::Nearest), ToInt32(cy, TRounding::Nearest)};
}

// ---- TRectT ----

template <TGeometryCoordinate T>
bool TRectT<T>::EqualsTo(const TRectT& R, double AEpsilon) const noexcept
  requires IsReal
{
  return TopLeft().EqualsTo(R.TopLeft(), AEpsilon) && BottomRight().EqualsTo(R.BottomRight(), AEpsilon);
}

template <TGeometryCoordinate T>
TRectT<T> TRectT<T>::Intersect(const TRectT& R1, const TRectT& R2) noexcept {
  TRectT r;
  IntersectRect(r, R1, R2);
  return r;
}

template <TGeometryCoordinate T>
TRectT<T> TRectT<T>::Union(const TRectT& R1, const TRectT& R2) noexcept {
  TRectT r;
  UnionRect(r, R1, R2);
  return r;
}

template <TGeometryCoordinate T>
TRectT<T> TRectT<T>::Union(std::span<const TPointType> Points) noexcept {
  if (Points.empty()) return Empty();
  TRectT r(Points.front());
  for (const TPointType& p : Points.subspan(1)) {
    r.Left = std::min(r.Left, p.X);
    r.Top = std::min(r.Top, p.Y);
    r.Right = std::max(r.Right, p.X);
    r.Bottom = std::max(r.Bottom, p.Y);
  }
  return r;
}

template <TGeometryCoordinate T>
typename TRectT<T>::TPointType TRectT<T>::CenterPoint() const noexcept {
  if constexpr (IsReal)
    return {(Left + Right) / 2, (Top + Bottom) / 2};
  else
    return {detail::GeoAdd(Left, static_cast<Int64>(Width() / 2)), detail::GeoAdd(Top, static_cast<Int64>(Height() / 2))};
}

template <TGeometryCoordinate T>
TRectT<T> TRectT<T>::SplitBySize(TSplitRectType SplitType, T Size) const noexcept {
  TRectT r = *this;
  switch (SplitType) {
    case TSplitRectType::Left:
      r.Right = detail::GeoAdd(Left, Size);
      break;
    case TSplitRectType::Right:
      r.Left = detail::GeoSub(Right, Size);
      break;
    case TSplitRectType::Top:
      r.Bottom = detail::GeoAdd(Top, Size);
      break;
    case TSplitRectType::Bottom:
      r.Top = detail::GeoSub(Bottom, Size);
      break;
  }
  return r;
}

template <TGeometryCoordinate T>
TRectT<T> TRectT<T>::SplitRect(TSplitRectType SplitType, double Percent) const noexcept {
  const bool horizontal = SplitType == TSplitRectType::Left || SplitType == TSplitRectType::Right;
  const double size = Percent * AsReal(horizontal ? Width() : Height());
  if constexpr (IsReal)
    return SplitBySize(SplitType, size);
  else
    return SplitBySize(SplitType, detail::RoundToInt64(std::trunc(size)));
}

template <TGeometryCoordinate T>
TRectT<T> TRectT<T>::FitInto(const TRectT& Dest, double& Ratio) const noexcept
  requires IsReal
{
  if (!(Dest.Width() > 0) || !(Dest.Height() > 0)) {
    Ratio = 1;
    return *this;
  }
  const double rw = Width() / Dest.Width();
  const double rh = Height() / Dest.Height();
  Ratio = (rw > rh || std::isnan(rw) || std::isnan(rh)) ? rw : rh;
  if (Ratio == 0) return *this;
  TRectT r(0, 0, Width() / Ratio, Height() / Ratio);
  return RectCenter(r, Dest);
}

template <TGeometryCoordinate T>
TRectT<T> TRectT<T>::FitInto(const TRectT& Dest) const noexcept
  requires IsReal
{
  double ratio;
  return FitInto(Dest, ratio);
}

template <TGeometryCoordinate T>
double TRectT<T>::Fit(const TRectT& BoundsRect) noexcept
  requires IsReal
{
  double ratio = 1;
  if (BoundsRect.Width() > 0 && BoundsRect.Height() > 0) {
    const double rw = Width() / BoundsRect.Width();
    const double rh = Height() / BoundsRect.Height();
    ratio = (rw > rh || std::isnan(rw) || std::isnan(rh)) ? rw : rh;
  }
  // A smaller rectangle keeps its size; a larger one shrinks to fit.
  TRectT r = ratio >= 1 ? TRectT(0, 0, Width() / ratio, Height() / ratio) : TRectT(0, 0, Width(), Height());
  *this = RectCenter(r, BoundsRect);
  return ratio;
}

template <TGeometryCoordinate T>
TRectT<T> TRectT<T>::CenterAt(const TRectT& Dest) const noexcept
  requires IsReal
{
  TRectT r = *this;
  return RectCenter(r, Dest);
}

template <TGeometryCoordinate T>
TRectT<T> TRectT<T>::PlaceInto(const TRectT& Dest, THorzRectAlign AHorzAlign, TVertRectAlign AVertAlign) const noexcept
  requires IsReal
{
  TRectT r = *this;
  if (!(r.Width() <= Dest.Width()) || !(r.Height() <= Dest.Height())) r = FitInto(Dest);
  double x = 0, y = 0;
  switch (AHorzAlign) {
    case THorzRectAlign::Center:
      x = (Dest.Left + Dest.Right - r.Width()) / 2;
      break;
    case THorzRectAlign::Left:
      x = Dest.Left;
      break;
    case THorzRectAlign::Right:
      x = Dest.Right - r.Width();
      break;
  }
  switch (AVertAlign) {
    case TVertRectAlign::Center:
      y = (Dest.Top + Dest.Bottom - r.Height()) / 2;
      break;
    case TVertRectAlign::Top:
      y = Dest.Top;
      break;
    case TVertRectAlign::Bottom:
      y = Dest.Bottom - r.Height();
      break;
  }
  r.SetLocation(x, y);
  return r;
}

template <TGeometryCoordinate T>
TRectT<T> TRectT<T>::SnapToPixel(double AScale, bool APlaceBetweenPixels) const noexcept
  requires IsReal
{
  const double s = AScale > 0 ? AScale : 1;
  TRectT r;
  r.Left = std::nearbyint(Left * s) / s;
  r.Top = std::nearbyint(Top * s) / s;
  r.SetWidth(std::nearbyint(Width() * s) / s);
  r.SetHeight(std::nearbyint(Height() * s) / s);
  if (APlaceBetweenPixels) r.Offset(1 / (2 * s), 1 / (2 * s));
  return r;
}

template <TGeometryCoordinate T>
TRect TRectT<T>::Ceiling() const noexcept
  requires IsReal
{
  const auto r = TRounding::Up;
  return {ToInt32(Left, r), ToInt32(Top, r), ToInt32(Right, r), ToInt32(Bottom, r)};
}

template <TGeometryCoordinate T>
TRect TRectT<T>::Truncate() const noexcept
  requires IsReal
{
  const auto r = TRounding::TowardsZero;
  return {ToInt32(Left, r), ToInt32(Top, r), ToInt32(Right, r), ToInt32(Bottom, r)};
}

template <TGeometryCoordinate T>
TRect TRectT<T>::Round() const noexcept
  requires IsReal
{
  const auto r = TRounding::Nearest;
  return {ToInt32(Left, r), ToInt32(Top, r), ToInt32(Right, r), ToInt32(Bottom, r)};
}

// ---- free functions ----

template <TGeometryCoordinate T>
bool IntersectRect(TRectT<T>& R, const TRectT<T>& R1, const TRectT<T>& R2) noexcept {
  R = R1;
  R.Left = std::max(R1.Left, R2.Left);
  R.Top = std::max(R1.Top, R2.Top);
  R.Right = std::min(R1.Right, R2.Right);
  R.Bottom = std::min(R1.Bottom, R2.Bottom);
  if (R.IsEmpty()) {
    R = TRectT<T>::Empty();
    return false;
  }
  return true;
}

template <TGeometryCoordinate T>
bool UnionRect(TRectT<T>& R, const TRectT<T>& R1, const TRectT<T>& R2) noexcept {
  R = R1;
  if (!R2.IsEmpty()) {
    R.Left = std::min(R1.Left, R2.Left);
    R.Top = std::min(R1.Top, R2.Top);
    R.Right = std::max(R1.Right, R2.Right);
    R.Bottom = std::max(R1.Bottom, R2.Bottom);
  }
  if (R.IsEmpty()) {
    R = TRectT<T>::Empty();
    return false;
  }
  return true;
}

template <TGeometryCoordinate T>
TRectT<T> RectCenter(TRectT<T>& R, const TRectT<T>& Bounds) noexcept {
  using detail::GeoSub;
  R.Offset(GeoSub(T{}, R.Left), GeoSub(T{}, R.Top));
  R.Offset(GeoSub(Bounds.Width() / 2, R.Width() / 2), GeoSub(Bounds.Height() / 2, R.Height() / 2));
  R.Offset(Bounds.Left, Bounds.Top);
  return R;
}

void SinCosDouble(double Angle, double& Sin, double& Cos) noexcept {
  const long double a = Angle;
  Sin = static_cast<double>(std::sin(a));
  Cos = static_cast<double>(std::cos(a));
}

namespace {
template <class... V>
UnicodeString Tuple(const V&... values) {
  UnicodeString out(u"(");
  bool first = true;
  ((out += (first ? u"" : u","), out += Number(values), first = false), ...);
  out += u')';
  return out;
}
}  // namespace

UnicodeString RectToString(const TRectD& R) { return Tuple(R.Left, R.Top, R.Right, R.Bottom); }
UnicodeString RectToString(const TRect64& R) { return Tuple(R.Left, R.Top, R.Right, R.Bottom); }
UnicodeString ToString(const TPointD& P) { return Tuple(P.X, P.Y); }
UnicodeString ToString(const TPoint64& P) { return Tuple(P.X, P.Y); }
UnicodeString ToString(const TSizeD& S) { return Tuple(S.cx, S.cy); }
UnicodeString ToString(const TSize64& S) { return Tuple(S.cx, S.cy); }

TRectD Types::StringToRect(UnicodeStringView S) noexcept {
  try {
    UnicodeString text(S);
    GetToken(text, u",()");
    double edges[4];
    for (double& edge : edges) edge = StrToFloat(GetToken(text, u",()"), GBFormatSettings);
    return {edges[0], edges[1], edges[2], edges[3]};
  } catch (...) {
    // Any failure, including running out of memory for the copy, reads as the empty rectangle.
    return TRectD::Empty();
  }
}

template <TGeometryCoordinate T>
std::ostream& operator<<(std::ostream& os, const TPointT<T>& P) {
  return os << Utf16ToUtf8(ToString(P));
}
template <TGeometryCoordinate T>
std::ostream& operator<<(std::ostream& os, const TSizeT<T>& S) {
  return os << Utf16ToUtf8(ToString(S));
}
template <TGeometryCoordinate T>
std::ostream& operator<<(std::ostream& os, const TRectT<T>& R) {
  return os << Utf16ToUtf8(RectToString(R));
}

// Every member and free function exists for exactly the two coordinate kinds; the instances are
// part of the library's interface (hence the default visibility of this whole file).
#define QUMA_INSTANTIATE_GEOMETRY(T)                                                     \
  template struct TPointT<T>;                                                            \
  template struct TSizeT<T>;                                                             \
  template struct TRectT<T>;                                                             \
  template bool IntersectRect<T>(TRectT<T>&, const TRectT<T>&, const TRectT<T>&) noexcept; \
  template bool UnionRect<T>(TRectT<T>&, const TRectT<T>&, const TRectT<T>&) noexcept;     \
  template TRectT<T> RectCenter<T>(TRectT<T>&, const TRectT<T>&) noexcept;               \
  template std::ostream& operator<< <T>(std::ostream&, const TPointT<T>&);               \
  template std::ostream& operator<< <T>(std::ostream&, const TSizeT<T>&);                \
  template std::ostream& operator<< <T>(std::ostream&, const TRectT<T>&);
QUMA_INSTANTIATE_GEOMETRY(double)
QUMA_INSTANTIATE_GEOMETRY(Int64)
#undef QUMA_INSTANTIATE_GEOMETRY

}  // namespace quma
QUMA_PUBLIC_END
