// TQUMAPropertySet: a group of related settings that tells one listener when it changes and
// batches many changes into one notification between BeginUpdate and EndUpdate.
//
// Threading: a property set belongs to one thread at a time; the listener runs on the thread that
// made the change or closed the outermost batch. The pending-change counter and the depth
// decrement are atomic, BeginUpdate and the interface count are not.
#pragma once

#include <quma/Export.h>

#include <quma/Classes.h>
#include <quma/CoreUtils.h>
#include <quma/Method.h>

QUMA_PUBLIC_BEGIN
namespace quma {

enum class TQUMAPropertySetOption { psoInterfaceCounted, psoInterfaceDestroying };
using enum TQUMAPropertySetOption;
using TQUMAPropertySetOptions = TSet<TQUMAPropertySetOption, 8>;

class TQUMAPropertySet;
using PQUMAPropertySet = TQUMAPropertySet*;

// A new instance of Source's run-time class, made through its virtual constructor with AOwner and
// filled from Source by Assign; the caller owns it. ENotSupportedException when the class cannot
// be created through its class reference.
template <class T>
  requires std::is_base_of_v<TPersistent, T>
T* QUMADuplicateThroughClass(T* Source, TPersistent* AOwner) {
  T* copy = Source->ClassType()->template Create<T>(AOwner);
  if (!copy) throw ENotSupportedException(Format(u"%s cannot be created through its class", Source->ClassName()));
  try {
    copy->Assign(Source);
  } catch (...) {
    Free(copy);
    throw;
  }
  return copy;
}

class TQUMAPropertySet : public TPersistent, public IInterface {
  QUMA_CLASS(TQUMAPropertySet, TPersistent)
  // Create(AOwner) is the virtual constructor: Duplicate makes copies of the run-time class
  // through it, so descendants keep a constructor taking the owner (`using ...::TQUMAPropertySet;`).
  QUMA_VIRTUAL_CONSTRUCTOR(TPersistent*)

 public:
  explicit TQUMAPropertySet(TPersistent* AOwner = nullptr) noexcept : _pOwner(AOwner) {}

  // IInterface. Counting is off unless InterfaceCounted is set; then the release that brings the
  // count to 0 or below frees the object.
  Integer _AddRef() override;
  Integer _Release() override;
  HRESULT QueryInterface(const TGUID& IID, void** Obj) override;

  // Property accessors.
  virtual bool _GetInterfaceCounted() const;
  virtual bool _GetInterfaceDestroying() const;
  virtual bool _GetInUpdate() const;
  virtual TNotifyEvent _GetOnChange() const;
  virtual TPersistent* _GetOwner() const;
  // The nesting depth of open batches (not the number of pending changes).
  virtual Integer _GetUpdateCount() const;
  virtual void _SetInterfaceCounted(bool b);
  virtual void _SetOnChange(TNotifyEvent Value);

  virtual void BeginUpdate();
  virtual void EndUpdate();
  // A new object of the same run-time class with the same content (through Assign); the caller
  // owns it. The second form gives the copy this object's owner.
  virtual TQUMAPropertySet* Duplicate(TPersistent* pNewOwner);
  virtual TQUMAPropertySet* Duplicate();
  // Equal content; the base knows no properties, so distinct objects are never equal.
  virtual bool EqualTo(const TQUMAPropertySet* Other) const;
  bool Equals(const TObject* Obj) const override;

  // Properties.
  bool InterfaceCounted() const { return _GetInterfaceCounted(); }
  void SetInterfaceCounted(bool b) { _SetInterfaceCounted(b); }
  bool InterfaceDestroying() const { return _GetInterfaceDestroying(); }
  TNotifyEvent OnChange() const { return _GetOnChange(); }
  void SetOnChange(TNotifyEvent Value) { _SetOnChange(Value); }
  bool InUpdate() const { return _GetInUpdate(); }
  Integer UpdateCount() const { return _GetUpdateCount(); }
  TQUMAPropertySetOptions PropSetOptions() const noexcept { return _PropSetOptions; }

  // Typed copies for callers that know the class.
  template <class T>
  TObjectPtr<T> DuplicateAs(TPersistent* pNewOwner) {
    return TObjectPtr<T>(static_cast<T*>(Duplicate(pNewOwner)));
  }

  // BeginUpdate now, EndUpdate when the scope ends.
  [[nodiscard]] TUpdateScope<TQUMAPropertySet> Update() { return TUpdateScope<TQUMAPropertySet>(*this); }

 protected:
  // Hooks run in this order on every delivered change, before the listener.
  virtual void _AfterChange();
  virtual void _BeforeChange();
  virtual void _DoChange();
  virtual TQUMAPropertySet* _Duplicate(TPersistent* pNewOwner);
  // Every property setter calls this after storing a new value.
  virtual void _Change();

  TPersistent* GetOwner() const override { return _GetOwner(); }
  bool GetInterface(const TGUID& IID, void** Obj) override;

  Integer _nChangeDepth = 0;
  Integer _nChangeCount = 0;
  Integer _nRefCount = 0;
  TNotifyEvent _fnChange;
  TPersistent* _pOwner;
  TQUMAPropertySetOptions _PropSetOptions;
};
using TQUMAPropertySetClass = TClassOf<TQUMAPropertySet>;

}  // namespace quma
QUMA_PUBLIC_END
