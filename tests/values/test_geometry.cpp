// Geometry values: the documented cases, laws checked over random rectangles, and the bounds
// object with its streamed properties.
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <random>
#include <sstream>

#include <quma/Filer.h>
#include <quma/Types.h>

#include "ValuesTestSupport.h"

using namespace quma;

namespace {
using quma::test::ErrorText;

std::string Text(const TRectD& r) { return Utf16ToUtf8(RectToString(r)); }

// Edges on a 1/8 grid: exact in binary, in 15 decimal digits and in single precision.
TRectD RandomRect(std::mt19937& rng) {
  std::uniform_int_distribution<int> v(-800, 800);
  return {v(rng) / 8.0, v(rng) / 8.0, v(rng) / 8.0, v(rng) / 8.0};
}
}  // namespace

TEST(Geometry, DocumentedRectangleCasesAndMembers) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_TRUE(IsRectEmpty(TRectD(5, 0, 5, 10)));
  EXPECT_TRUE(TRectD(0, 0, nan, 10).IsEmpty());
  EXPECT_FALSE(TRectD(0, 0, 1, 1).IsEmpty());
  TRectD r(9, 9, 9, 9);
  EXPECT_FALSE(IntersectRect(r, TRectD(0, 0, 1, 1), TRectD(2, 2, 3, 3)));
  EXPECT_EQ(r, TRectD());
  EXPECT_TRUE(UnionRect(r, TRectD(1, 2, 3, 4), TRectD(7, 7, 7, 9)));  // an empty second is ignored
  EXPECT_EQ(r, TRectD(1, 2, 3, 4));
  EXPECT_TRUE(UnionRectD(r, TRectD(5, 5, 5, 5), TRectD(0, 0, 1, 1)));  // an empty first is not
  EXPECT_EQ(r, TRectD(0, 0, 5, 5));
  EXPECT_FALSE(UnionRect(r, TRectD(5, 5, 5, 6), TRectD(7, 7, 7, 9)));
  EXPECT_EQ(r, TRectD());
  EXPECT_EQ(TRectD(TPointD(10, 20), TPointD(0, 5), true), TRectD(0, 5, 10, 20));  // normalised
  double ratio = 0;
  EXPECT_EQ(TRectD(0, 0, 200, 100).FitInto(TRectD(0, 0, 100, 100), ratio), TRectD(0, 25, 100, 75));
  EXPECT_EQ(ratio, 2);
  EXPECT_EQ(TRectD(0, 0, 200, 100).FitInto(TRectD(0, 0, 0, 100), ratio), TRectD(0, 0, 200, 100));
  EXPECT_EQ(ratio, 1);
  TRectD small(0, 0, 50, 20);
  EXPECT_EQ(small.Fit(TRectD(0, 0, 100, 100)), 0.5);
  EXPECT_EQ(small, TRectD(25, 40, 75, 60));
  EXPECT_EQ(TRectD(0, 0, 50, nan).Fit(TRectD(0, 0, 100, 100)), 0.5);  // with a NaN ratio the width's is taken
  EXPECT_EQ(TRectD(0, 0, 50, 20).PlaceInto(TRectD(0, 0, 100, 100), THorzRectAlign::Right, TVertRectAlign::Top),
            TRectD(50, 0, 100, 20));
  EXPECT_EQ(TRectD(0, 0, 400, 100).PlaceInto(TRectD(0, 0, 100, 100), THorzRectAlign::Left, TVertRectAlign::Bottom),
            TRectD(0, 75, 100, 100));
  EXPECT_EQ(TRectD(0, 0, 10, 10).CenterAt(TRectD(0, 0, 30, 50)), TRectD(10, 20, 20, 30));
  for (const char16_t* bad : {u"(1,2,x,4)", u"(1,2,3)", u"", u"1,2,3,4"})
    EXPECT_EQ(Types::StringToRect(bad), TRectD()) << Utf16ToUtf8(bad);
  EXPECT_EQ(Utf16ToUtf8(RectToString(TRect64(-1, 2, INT64_MAX, 4))), "(-1,2,9223372036854775807,4)");

  // The members.
  r = TRectD(TPointD(1, 2), 10, 20);
  EXPECT_EQ(r, TRectD(1, 2, 11, 22));
  EXPECT_EQ(r.Size(), TSizeD(10, 20));
  r.SetLocation(5, 5);
  EXPECT_EQ(r, TRectD(5, 5, 15, 25));
  r.SetSize({2, 3});
  EXPECT_EQ(r, TRectD(5, 5, 7, 8));
  r.Inflate(1, 2, 3, 4);
  EXPECT_EQ(r, TRectD(4, 3, 10, 12));
  InflateRect(r, 1, 1);
  OffsetRect(r, -3.0, 0.0);
  EXPECT_EQ(r, TRectD(0, 2, 8, 13));
  MultiplyRect(r, 2, 0.5);
  EXPECT_EQ(r, TRectD(0, 1, 16, 6.5));
  EXPECT_EQ(r.CenterPoint(), TPointD(8, 3.75));
  EXPECT_EQ(TRect64(0, 0, 5, 5).CenterPoint(), TPoint64(2, 2));
  EXPECT_TRUE(r.Contains(TPointD(0, 1)));
  EXPECT_FALSE(PtInRect(r, TPointD(16, 2)));  // right edge outside
  EXPECT_TRUE(r.Contains(TRectD(0, 1, 16, 6.5)));
  EXPECT_FALSE(TRectD(0, 0, 1, 1).IntersectsWith(TRectD(1, 0, 2, 1)));  // touching
  const TRectD s(0, 0, 10, 20);
  EXPECT_EQ(s.SplitRect(TSplitRectType::Left, 3), TRectD(0, 0, 3, 20));
  EXPECT_EQ(s.SplitRect(TSplitRectType::Right, 0.25), TRectD(7.5, 0, 10, 20));
  EXPECT_EQ(s.SplitRect(TSplitRectType::Top, 5), TRectD(0, 0, 10, 5));
  EXPECT_EQ(s.SplitRect(TSplitRectType::Bottom, 0.5), TRectD(0, 10, 10, 20));
  EXPECT_EQ(TRect64(0, 0, 10, 10).SplitRect(TSplitRectType::Right, 0.55), TRect64(5, 0, 10, 10));
  const TPointD pts[] = {{3, -1}, {-2, 4}, {0, 0}};
  EXPECT_EQ(TRectD::Union(pts), TRectD(-2, -1, 3, 4));
  EXPECT_EQ(TRectD::Union(std::span<const TPointD>()), TRectD());
  EXPECT_EQ(TRectD(0.2, 0.5, 1.5, 2.5).Round(), (TRect{0, 0, 2, 2}));  // halves to even
  EXPECT_EQ(TRectD(0.2, -0.5, 1.5, 2.5).Ceiling(), (TRect{1, 0, 2, 3}));
  EXPECT_EQ(TRectD(-0.7, std::nan(""), 1e20, 2.5).Truncate(), (TRect{0, 0, INT32_MAX, 2}));  // NaN saturates to 0
  EXPECT_EQ(TRectD(0.3, 0.3, 2.4, 2.4).SnapToPixel(2, false), TRectD(0.5, 0.5, 2.5, 2.5));
  EXPECT_EQ(TRectD(0, 0, 2, 2).SnapToPixel(0), TRectD(0.5, 0.5, 2.5, 2.5));
  EXPECT_TRUE(TRectD(0, 0, 1, 1).EqualsTo(TRectD(1e-13, 0, 1, 1)));
  EXPECT_FALSE(TRectD(0, 0, 1, 1).EqualsTo(TRectD(0.1, 0, 1, 1), 0.01));
  EXPECT_EQ(TRectD(TRect{1, 2, 3, 4}), TRectD(1, 2, 3, 4));
  EXPECT_EQ(static_cast<TRect>(TRect64(-1, 0, INT64_MAX, INT64_MIN)), (TRect{-1, 0, INT32_MAX, INT32_MIN}));
  EXPECT_EQ(TRectD(0, 0, 1, 1) + TRectD(2, 2, 3, 3), TRectD(0, 0, 3, 3));
  EXPECT_EQ(TRectD(0, 0, 2, 2) * TRectD(1, 1, 3, 3), TRectD(1, 1, 2, 2));
}

TEST(Geometry, PointsSizesHashAndText) {
  const TPointD p(3, 4);
  EXPECT_EQ(p.Length(), 5);
  EXPECT_EQ(p.Distance({0, 0}), 5);
  EXPECT_EQ(p + TPointD(1, 1), TPointD(4, 5));
  EXPECT_EQ(p - TPointD(TPoint{1, 1}), TPointD(2, 3));
  EXPECT_EQ(-p, TPointD(-3, -4));
  EXPECT_EQ(p * TPointD(2, 3), TPointD(6, 12));
  EXPECT_EQ(2.0 * p, p.Scale(2));
  EXPECT_EQ(p / 2.0, TPointD(1.5, 2));
  EXPECT_EQ(p.CrossProduct({1, 0}), -4);
  EXPECT_EQ(p.DotProduct({1, 2}), 11);
  EXPECT_EQ(p.Normalize(), TPointD(0.6, 0.8));
  EXPECT_EQ(TPoint64(0, 0).Normalize(), TPointD());
  EXPECT_TRUE(p.Rotate(std::numbers::pi / 2).EqualsTo({-4, 3}, 1e-12));
  EXPECT_EQ(TPoint64(3, 4).Rotate(std::numbers::pi / 2), TPoint64(-4, 3));
  EXPECT_EQ(TPointD(1, -1).Reflect({0, 1}), TPointD(1, 1));
  EXPECT_EQ(TPoint64(1, -1).Reflect({0, 1}), TPoint64(1, 1));
  EXPECT_EQ(TPointD(1, 2).MidPoint({2, 5}), TPointD(1.5, 3.5));
  EXPECT_EQ(TPoint64(-3, INT64_MAX).MidPoint({0, INT64_MAX - 2}), TPoint64(-2, INT64_MAX - 1));
  EXPECT_EQ(TPointD(1, 0).AngleCosine({0, 5}), 0);
  EXPECT_EQ(TPointD(2, 0).AngleCosine({-1, 0}), -1);
  EXPECT_EQ(TPointD(0, 0).AngleCosine({1, 0}), 0);
  EXPECT_DOUBLE_EQ(TPointD(1, 1).Angle({0, 0}), std::numbers::pi / 4);
  EXPECT_TRUE(TPointD::PointInCircle({3, 4}, {0, 0}, 5));
  EXPECT_FALSE(TPoint64::PointInCircle({3, 5}, {0, 0}, 5));
  EXPECT_TRUE(TPointD(1e-41, 0).IsZero());
  EXPECT_FALSE(TPoint64(0, 1).IsZero());
  EXPECT_FALSE(TPointD(0, 1).IsZero());
  EXPECT_EQ(TPointD(1.5, -1.5).Round(), (TPoint{2, -2}));
  EXPECT_EQ(TPointD(2.5, -0.5).Round(), (TPoint{2, 0}));
  EXPECT_EQ(TPointD(1.2, -1.2).Ceiling(), (TPoint{2, -1}));
  EXPECT_EQ(TPointD(0.26, 0.74).SnapToPixel(2, false), TPointD(0.5, 0.5));
  EXPECT_EQ(TPointD(0.26, 0.74).SnapToPixel(2, true), TPointD(1.5, 1.5));  // adds half the scale
  TPointD q = p;
  q.Offset(TPoint{1, 2});
  q.Offset(1, 1);
  EXPECT_EQ(q, TPointD(5, 7));
  q[1] = 9;
  EXPECT_EQ(q.AsArray(), (TPointDType{5, 9}));
  EXPECT_EQ(TPoint64(7, -7) / 2, TPoint64(3, -3));
  EXPECT_EQ(TPoint64(INT64_MIN, 1) / -1, TPoint64(INT64_MIN, -1));  // wraps
  EXPECT_EQ(ErrorText<EDivByZero>([] { (void)(TPoint64(1, 1) / 0); }), u"Division by zero");
  EXPECT_EQ(TPoint64(INT64_MAX, 0) + TPoint64(1, 0), TPoint64(INT64_MIN, 0));

  const TSizeD s(3, 4);
  EXPECT_EQ(s.SwapDimensions(), TSizeD(4, 3));
  EXPECT_EQ(s.Distance({0, 0}), 5);
  EXPECT_EQ(s + TSizeD(1, 1) - TSizeD(2, 2), TSizeD(2, 3));
  EXPECT_EQ(TSizeD(1.5, 2.5).Round(), (TSize{2, 2}));
  EXPECT_EQ(TSizeD(1.5, 2.5).Truncate(), (TSize{1, 2}));
  EXPECT_TRUE(TSize64().IsZero());
  EXPECT_EQ(static_cast<TSize>(TSize64(INT64_MAX, -1)), (TSize{INT32_MAX, -1}));
  EXPECT_EQ(static_cast<TPointF>(TSizeD(TPointF{1.5f, 2})), (TPointF{1.5f, 2}));
  EXPECT_EQ(std::hash<TPointD>()({0.0, 1}), std::hash<TPointD>()({-0.0, 1}));
  EXPECT_NE(std::hash<TRect64>()({1, 2, 3, 4}), std::hash<TRect64>()({2, 1, 3, 4}));
  std::ostringstream os;
  os << TPointD(1.5, -2) << TSize64(3, 4) << TRectD(0, 0.5, 10, 20);
  EXPECT_EQ(os.str(), "(1.5,-2)(3,4)(0,0.5,10,20)");
}

// Laws over random rectangles (some empty, some inverted).
TEST(Geometry, LawsOverRandomRectangles) {
  std::mt19937 rng(16);
  for (int i = 0; i < 3000; ++i) {
    const TRectD a = RandomRect(rng), b = RandomRect(rng);
    TRectD ab, ba;
    const bool meets = IntersectRect(ab, a, b);
    ASSERT_EQ(meets, IntersectRect(ba, b, a));
    ASSERT_EQ(ab, ba);
    ASSERT_EQ(meets, a.IntersectsWith(b));
    ASSERT_EQ(meets, !ab.IsEmpty());
    ASSERT_TRUE(!meets || (a.Contains(ab) && b.Contains(ab))) << Text(a) << Text(b);
    TRectD u;
    if (UnionRect(u, a, b)) {
      ASSERT_TRUE(a.IsEmpty() || u.Contains(a));
      ASSERT_TRUE(b.IsEmpty() || u.Contains(b));
      ASSERT_TRUE(a.IsEmpty() || b.IsEmpty() || u == b + a);
    }
    ASSERT_EQ(a * a, a.IsEmpty() ? TRectD() : a);

    TRectD n = a;
    n.NormalizeRect();
    ASSERT_TRUE(n.Left <= n.Right && n.Top <= n.Bottom);
    ASSERT_EQ(std::minmax(a.Left, a.Right), std::minmax(n.Left, n.Right));
    ASSERT_EQ(std::minmax(a.Top, a.Bottom), std::minmax(n.Top, n.Bottom));

    // Fit and place never enlarge, and a placed rectangle lies inside a non-empty destination.
    if (!n.IsEmpty() && !b.IsEmpty()) {
      const TRectD placed = n.PlaceInto(b, THorzRectAlign(i % 3), TVertRectAlign(i / 3 % 3));
      ASSERT_LE(placed.Width(), n.Width() * (1 + 1e-12));
      ASSERT_LE(placed.Height(), n.Height() * (1 + 1e-12));
      ASSERT_TRUE(placed.EqualsTo(placed * b, 1e-9) || placed.Width() < 1e-9) << Text(n) << Text(b);
      TRectD fitted = n;
      fitted.Fit(b);
      ASSERT_LE(fitted.Width(), n.Width() * (1 + 1e-12));
      ASSERT_LE(fitted.Height(), b.Height() * (1 + 1e-12));
    }

    // Exact round trips: text, single precision, 32- and 64-bit integers.
    ASSERT_EQ(Types::StringToRect(RectToString(a)), a) << Text(a);
    ASSERT_EQ(TRectD(static_cast<TRectF>(a)), a);
    const TRect i32{static_cast<int>(a.Left * 8), static_cast<int>(a.Top * 8), static_cast<int>(a.Right * 8),
                    static_cast<int>(a.Bottom * 8)};
    ASSERT_EQ(static_cast<TRect>(TRect64(i32)), i32);
    ASSERT_EQ(TRectD(i32).Round(), i32);
  }
}

// ---- the bounds object ----

namespace {
struct TChangeCounter : TObject {
  QUMA_CLASS(TChangeCounter, TObject)
 public:
  int Count = 0;
  void Changed(TObject*) { ++Count; }
};
}  // namespace

TEST(Bounds, NotifiesRealChangesStreamsNonDefaultEdgesAndReadsOlderProperties) {
  TObjectPtr<TBoundsD> b(New<TBoundsD>(TRectD(1, 2, 3, 4)));
  TObjectPtr<TChangeCounter> counter(New<TChangeCounter>());
  b->OnChange = Bind<&TChangeCounter::Changed>(counter.get());
  EXPECT_EQ(b->GetRect(), TRectD(1, 2, 3, 4));
  b->SetLeft(1 + 1e-41);  // within Epsilon
  b->SetRect(TRectD(1, 2, 3, 4));
  EXPECT_EQ(counter->Count, 0);
  b->SetTop(5);
  b->SetRect(TRectD(0, 0, 10, 10));
  EXPECT_EQ(counter->Count, 2);
  b->Assign(nullptr);
  EXPECT_EQ(b->GetRect(), TRectD(1, 2, 3, 4));
  EXPECT_EQ(counter->Count, 3);
  b->Assign(nullptr);
  EXPECT_EQ(counter->Count, 3);

  TObjectPtr<TBoundsD> other(New<TBoundsD>(TRectD(0, 0, 8, 9)));
  b->Assign(other.get());
  EXPECT_TRUE(b->Equals(other.get()));
  EXPECT_EQ(counter->Count, 4);
  TObjectPtr<TPersistent> unrelated(New<TPersistent>());
  EXPECT_EQ(ErrorText([&] { b->Assign(unrelated.get()); }), u"Cannot assign a TPersistent to a TBoundsD");
  EXPECT_FALSE(b->Equals(unrelated.get()));

  b->SetRect({0.125, -0.125, 2.675, 1e6});  // halves round away from zero; 2.675 is below half
  EXPECT_EQ(b->ToString(), u"TBoundsD (0.13,-0.13)-(2.67,1000000.00)");
  b->SetRect({1, 2, 3, 4});
  EXPECT_EQ(b->PaddingRect({0, 0, 10, 10}), TRectD(1, 2, 7, 6));
  EXPECT_EQ(b->MarginRect({0, 0, 10, 10}), TRectD(-1, -2, 13, 14));
  EXPECT_EQ(b->Width(), 2);
  EXPECT_FALSE(b->Empty());
  EXPECT_FALSE(b->MarginEmpty());
  b->SetRect({});
  EXPECT_TRUE(b->MarginEmpty() && b->Empty());

  // Older properties: the integer edges, and the rectangle as text.
  counter->Count = 0;
  ReadPropertiesFromText(b.get(), u"LeftI = 5\n  topi = -3\nRightI = 7\nBottomI = 8");
  EXPECT_EQ(b->GetRect(), TRectD(5, -3, 7, 8));
  EXPECT_EQ(counter->Count, 0);
  ReadPropertiesFromText(b.get(), u"Rect = '(1,2,3,4.5)'");
  EXPECT_EQ(b->GetRect(), TRectD(1, 2, 3, 4.5));
  ReadPropertiesFromText(b.get(), u"RectI = '(10,20,0,5)'");  // not normalised
  EXPECT_EQ(b->GetRect(), TRectD(10, 20, 0, 5));
  ReadPropertiesFromText(b.get(), u"Rect = '(1,2,x,4)'");  // as StringToRect: empty
  EXPECT_EQ(b->GetRect(), TRectD());
  EXPECT_EQ(counter->Count, 3);
  // Older data of the wrong type is reported and changes nothing.
  b->SetRect({1, 2, 3, 4});
  for (const auto& [text, name] : {std::pair{u"Left = 9\nLeftI = 1.5", u"LeftI"}, {u"Top = 9\nRectI = 5", u"RectI"}}) {
    EXPECT_EQ(ErrorText<EReadError>([&] { ReadPropertiesFromText(b.get(), text); }),
              u"Line 2, property " + UnicodeString(name) + u": Invalid property value");
    EXPECT_EQ(b->GetRect(), TRectD(1, 2, 3, 4));
  }

  // Only edges that differ from the default are streamed.
  TObjectPtr<TBoundsD> d(New<TBoundsD>());
  EXPECT_EQ(WritePropertiesToText(d.get()), u"");
  // Edges equal to the writer's default are not written, so a reader keeps its own there.
  TObjectPtr<TBoundsD> copy(New<TBoundsD>(TRectD(1, 1, 5, 5)));
  d->SetRect({0, 3, 0, 0});
  ReadPropertiesFromText(copy.get(), WritePropertiesToText(d.get()));
  EXPECT_EQ(copy->GetRect(), TRectD(1, 3, 5, 5));
  d->SetRect({0.1, -2.5, 1e300, 7});
  EXPECT_EQ(WritePropertiesToText(d.get()), u"Left = 0.1\nTop = -2.5\nRight = 1e+300\nBottom = 7\n");
  ReadPropertiesFromText(copy.get(), WritePropertiesToText(d.get()));
  EXPECT_EQ(copy->GetRect(), d->GetRect());
}

