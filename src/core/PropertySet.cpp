#include <quma/PropertySet.h>

#include <quma/Monitor.h>

namespace quma {

Integer TQUMAPropertySet::_AddRef() {
  if (!_PropSetOptions.Contains(psoInterfaceCounted) || _PropSetOptions.Contains(psoInterfaceDestroying)) return -1;
  return PreInc(_nRefCount);
}

Integer TQUMAPropertySet::_Release() {
  if (!_PropSetOptions.Contains(psoInterfaceCounted) || _PropSetOptions.Contains(psoInterfaceDestroying)) return -1;
  const Integer count = PreDec(_nRefCount);
  if (_nRefCount <= 0) Free(this);
  return count;
}

bool TQUMAPropertySet::GetInterface(const TGUID& IID, void** Obj) {
  if (IID == IInterface::IID) {
    *Obj = static_cast<IInterface*>(this);
    _AddRef();
    return true;
  }
  return TPersistent::GetInterface(IID, Obj);
}

HRESULT TQUMAPropertySet::QueryInterface(const TGUID& IID, void** Obj) {
  void* dummy = nullptr;
  return GetInterface(IID, Obj ? Obj : &dummy) ? S_OK : E_NOINTERFACE;
}

bool TQUMAPropertySet::_GetInterfaceCounted() const { return _PropSetOptions.Contains(psoInterfaceCounted); }
bool TQUMAPropertySet::_GetInterfaceDestroying() const { return _PropSetOptions.Contains(psoInterfaceDestroying); }
bool TQUMAPropertySet::_GetInUpdate() const { return _nChangeDepth > 0; }
TNotifyEvent TQUMAPropertySet::_GetOnChange() const { return _fnChange; }
TPersistent* TQUMAPropertySet::_GetOwner() const { return _pOwner; }
Integer TQUMAPropertySet::_GetUpdateCount() const { return _nChangeDepth; }

void TQUMAPropertySet::_SetInterfaceCounted(bool b) {
  if (b == _GetInterfaceCounted()) return;
  if (b)
    _PropSetOptions.Include(psoInterfaceCounted);
  else
    _PropSetOptions.Exclude(psoInterfaceCounted);
}

void TQUMAPropertySet::_SetOnChange(TNotifyEvent Value) { _fnChange = Value; }

void TQUMAPropertySet::_AfterChange() {}
void TQUMAPropertySet::_BeforeChange() {}
void TQUMAPropertySet::_DoChange() {}

void TQUMAPropertySet::_Change() {
  if (_nChangeDepth > 0) {
    AtomicIncrement(_nChangeCount);
    return;
  }
  _BeforeChange();
  _DoChange();
  _AfterChange();
  if (_fnChange) _fnChange(this);
}

void TQUMAPropertySet::BeginUpdate() { PreInc(_nChangeDepth); }

void TQUMAPropertySet::EndUpdate() {
  if (_nChangeDepth > 0) AtomicDecrement(_nChangeDepth);
  if (_nChangeDepth == 0 && _nChangeCount > 0) {
    _Change();
    _nChangeCount = 0;  // after the delivery: a listener that raises leaves the count
  }
}

TQUMAPropertySet* TQUMAPropertySet::_Duplicate(TPersistent* pNewOwner) {
  return QUMADuplicateThroughClass<TQUMAPropertySet>(this, pNewOwner);
}

TQUMAPropertySet* TQUMAPropertySet::Duplicate(TPersistent* pNewOwner) { return _Duplicate(pNewOwner); }
TQUMAPropertySet* TQUMAPropertySet::Duplicate() { return _Duplicate(_GetOwner()); }

bool TQUMAPropertySet::EqualTo(const TQUMAPropertySet*) const { return false; }

bool TQUMAPropertySet::Equals(const TObject* Obj) const {
  if (Obj == this) return true;
  if (!Obj) return false;
  if (Obj->InheritsFrom(ClassType()) || InheritsFrom(Obj->ClassType())) {
    // An ancestor that is not a property set has no properties to compare.
    const auto* other = dynamic_cast<const TQUMAPropertySet*>(Obj);
    return other && EqualTo(other);
  }
  return false;
}

}  // namespace quma
