#include <quma/ReferencedPropertySet.h>

namespace quma {

TQUMAReferencedPropertySet::TQUMAReferencedPropertySet(TPersistent* AOwner)
    : TQUMAReferencedPersistent(AOwner), _pChange(MakeObject<TQUMASubscribedEvent>()) {}

void TQUMAReferencedPropertySet::_AfterChange() {}
void TQUMAReferencedPropertySet::_BeforeChange() {}
void TQUMAReferencedPropertySet::_DoChange() {}

TQUMAReferencedPropertySet* TQUMAReferencedPropertySet::_Duplicate(TPersistent* pNewOwner) {
  return QUMADuplicateThroughClass<TQUMAReferencedPropertySet>(this, pNewOwner);
}

bool TQUMAReferencedPropertySet::_GetInUpdate() const {
  const TQUMASubscribedEvent* event = _GetChangeEvent();
  return event && event->Blocked();
}

TQUMASubscribedEvent* TQUMAReferencedPropertySet::_GetChangeEvent() const { return _pChange.get(); }

void TQUMAReferencedPropertySet::_UnBlocked(TObject*) {
  _BeforeChange();
  _DoChange();
  _AfterChange();
}

void TQUMAReferencedPropertySet::BeginUpdate() {
  if (TQUMASubscribedEvent* event = _GetChangeEvent()) event->Block();
}

void TQUMAReferencedPropertySet::EndUpdate() {
  if (TQUMASubscribedEvent* event = _GetChangeEvent()) event->Unblock();
}

void TQUMAReferencedPropertySet::_Change() {
  TQUMASubscribedEvent* event = _GetChangeEvent();
  if (!event) return;
  if (!event->Blocked()) _UnBlocked(event);
  event->FireCallbacks();
}

TQUMAReferencedPropertySet* TQUMAReferencedPropertySet::Duplicate(TPersistent* pNewOwner) {
  return _Duplicate(pNewOwner);
}

TQUMAReferencedPropertySet* TQUMAReferencedPropertySet::Duplicate() { return _Duplicate(_GetOwner()); }

bool TQUMAReferencedPropertySet::EqualTo(const TQUMAReferencedPropertySet*) const { return false; }

bool TQUMAReferencedPropertySet::Equals(const TObject* Obj) const {
  if (Obj == this) return true;
  if (!Obj || !Obj->InheritsFrom(ClassType())) return false;
  return EqualTo(static_cast<const TQUMAReferencedPropertySet*>(Obj));
}

}  // namespace quma
