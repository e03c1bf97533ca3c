#include <quma/DateTime.h>
#include <quma/Filer.h>
#include <quma/Types.h>

namespace quma {

namespace {

// The four edges are the published properties, each stored only when it differs from the default.
// Published on first construction, so that no order of static initialisation can miss them.
bool PublishBounds() {
  PublishProperty<TBoundsD>(u"Left", &TBoundsD::Left, &TBoundsD::SetLeft, &TBoundsD::IsLeftStored);
  PublishProperty<TBoundsD>(u"Top", &TBoundsD::Top, &TBoundsD::SetTop, &TBoundsD::IsTopStored);
  PublishProperty<TBoundsD>(u"Right", &TBoundsD::Right, &TBoundsD::SetRight, &TBoundsD::IsRightStored);
  PublishProperty<TBoundsD>(u"Bottom", &TBoundsD::Bottom, &TBoundsD::SetBottom, &TBoundsD::IsBottomStored);
  return true;
}

bool Same(double A, double B) noexcept { return SameValue(A, B, Epsilon); }

}  // namespace

TBoundsD::TBoundsD(const TRectD& ADefaultValue) : FDefaultValue(ADefaultValue) {
  [[maybe_unused]] static const bool published = PublishBounds();
  SetRect(ADefaultValue);
}

void TBoundsD::Assign(TPersistent* Source) {
  if (!Source) {
    SetRect(FDefaultValue);
  } else if (auto* other = dynamic_cast<TBoundsD*>(Source)) {
    SetRect(other->GetRect());
  } else {
    TPersistent::Assign(Source);
  }
}

bool TBoundsD::Equals(const TObject* Obj) const {
  if (auto* other = dynamic_cast<const TBoundsD*>(Obj)) return GetRect() == other->GetRect();
  return TPersistent::Equals(Obj);
}

UnicodeString TBoundsD::ToString() const {
  return Format(SBoundsFormat, TPersistent::ToString(), FLeft, FTop, FRight, FBottom);
}

void TBoundsD::SetRect(const TRectD& R) {
  if (R == GetRect()) return;
  FLeft = R.Left;
  FTop = R.Top;
  FRight = R.Right;
  FBottom = R.Bottom;
  DoChange();
}

void TBoundsD::SetEdge(double& Edge, double Value) {
  if (Same(Value, Edge)) return;
  Edge = Value;
  DoChange();
}

void TBoundsD::SetLeft(double Value) { SetEdge(FLeft, Value); }
void TBoundsD::SetTop(double Value) { SetEdge(FTop, Value); }
void TBoundsD::SetRight(double Value) { SetEdge(FRight, Value); }
void TBoundsD::SetBottom(double Value) { SetEdge(FBottom, Value); }

bool TBoundsD::IsLeftStored() const noexcept { return !Same(FLeft, FDefaultValue.Left); }
bool TBoundsD::IsTopStored() const noexcept { return !Same(FTop, FDefaultValue.Top); }
bool TBoundsD::IsRightStored() const noexcept { return !Same(FRight, FDefaultValue.Right); }
bool TBoundsD::IsBottomStored() const noexcept { return !Same(FBottom, FDefaultValue.Bottom); }

TRectD TBoundsD::PaddingRect(const TRectD& R) const noexcept {
  return {R.Left + FLeft, R.Top + FTop, R.Right - FRight, R.Bottom - FBottom};
}

TRectD TBoundsD::MarginRect(const TRectD& R) const noexcept {
  return {R.Left - FLeft, R.Top - FTop, R.Right + FRight, R.Bottom + FBottom};
}

bool TBoundsD::MarginEmpty() const noexcept {
  return Same(FLeft, 0) && Same(FTop, 0) && Same(FRight, 0) && Same(FBottom, 0);
}

void TBoundsD::DoChange() {
  if (OnChange) OnChange(this);
}

// The older stream properties: read, never written.
void TBoundsD::DefineProperties(TFiler* Filer) {
  TPersistent::DefineProperties(Filer);
  Filer->DefineProperty(u"Rect", Bind<&TBoundsD::ReadRect>(this), nullptr, false);
  Filer->DefineProperty(u"RectI", Bind<&TBoundsD::ReadRectI>(this), nullptr, false);
  Filer->DefineProperty(u"LeftI", Bind<&TBoundsD::ReadLeftI>(this), nullptr, false);
  Filer->DefineProperty(u"RightI", Bind<&TBoundsD::ReadRightI>(this), nullptr, false);
  Filer->DefineProperty(u"TopI", Bind<&TBoundsD::ReadTopI>(this), nullptr, false);
  Filer->DefineProperty(u"BottomI", Bind<&TBoundsD::ReadBottomI>(this), nullptr, false);
}

void TBoundsD::ReadRect(TReader* Reader) { SetRect(Types::StringToRect(Reader->ReadString())); }
void TBoundsD::ReadRectI(TReader* Reader) { SetRect(TRectD(Types::StringToRect(Reader->ReadString()), false)); }
// Straight into the edge, without a change notification.
void TBoundsD::ReadLeftI(TReader* Reader) { FLeft = static_cast<double>(Reader->ReadInteger()); }
void TBoundsD::ReadRightI(TReader* Reader) { FRight = static_cast<double>(Reader->ReadInteger()); }
void TBoundsD::ReadTopI(TReader* Reader) { FTop = static_cast<double>(Reader->ReadInteger()); }
void TBoundsD::ReadBottomI(TReader* Reader) { FBottom = static_cast<double>(Reader->ReadInteger()); }

}  // namespace quma
