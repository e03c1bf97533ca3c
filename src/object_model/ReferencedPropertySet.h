// TQUMAReferencedPropertySet: a property set with a shared, reference-tracked lifetime (it is a
// TQUMAReferencedPersistent) whose changes reach any number of subscribers through a blockable
// multicast event. A batch is a block of that event: the subscribers hear once when the
// outermost batch ends.
//
//   settings->ChangeEvent()->Subscribe(Bind<&TView::SettingsChanged>(view));
//   {
//     auto batch = settings->Update();   // BeginUpdate ... EndUpdate
//     settings->SetWidth(10);            // each setter calls _Change()
//     settings->SetHeight(20);
//   }                                    // view->SettingsChanged(settings) once
//
// Threading: a set belongs to one thread at a time; subscribing follows the contract of
// TQUMASubscribedEvent (locked), blocking does not.
#pragma once

#include <quma/Export.h>

#include <quma/CoreUtils.h>
#include <quma/PropertySet.h>
#include <quma/ReferencedPersistent.h>
#include <quma/SubscribedEvent.h>

QUMA_PUBLIC_BEGIN
namespace quma {

class TQUMAReferencedPropertySet : public TQUMAReferencedPersistent {
  QUMA_CLASS(TQUMAReferencedPropertySet, TQUMAReferencedPersistent)
 public:
  explicit TQUMAReferencedPropertySet(TPersistent* AOwner = nullptr);

  // The change event: its sender is the event itself unless a CallbackObject is set.
  TQUMASubscribedEvent* ChangeEvent() const { return _GetChangeEvent(); }
  bool InUpdate() const { return _GetInUpdate(); }
  // BeginUpdate now, EndUpdate when the scope ends.
  [[nodiscard]] TUpdateScope<TQUMAReferencedPropertySet> Update() { return TUpdateScope(*this); }
  // Typed copies for callers that know the class.
  template <class T>
  TObjectPtr<T> DuplicateAs(TPersistent* pNewOwner) {
    return TObjectPtr<T>(static_cast<T*>(Duplicate(pNewOwner)));
  }

 protected:
  // ---- virtual operations, in slot order ----
  // Hooks run, in the order before, do, after, on a change outside a batch.
  virtual void _AfterChange();
  virtual void _BeforeChange();
  virtual void _DoChange();
  virtual TQUMAReferencedPropertySet* _Duplicate(TPersistent* pNewOwner);

 public:
  // Whether the change event is blocked (by a batch, or by anyone holding the event).
  virtual bool _GetInUpdate() const;
  virtual TQUMASubscribedEvent* _GetChangeEvent() const;
  // Runs the three hooks. Shaped as the event's OnUnblocked handler: a derived class that
  // installs it there has the hooks run once when a batch ends (the base does not).
  virtual void _UnBlocked(TObject* Sender);
  virtual void BeginUpdate();

 protected:
  // Every property setter calls this after storing a new value: outside a batch the hooks run,
  // then the subscribers; inside one the firing is only counted.
  virtual void _Change();

 public:
  // A new object of the same run-time class with the same content (through Assign), with
  // pNewOwner or this object's owner; the caller owns it.
  virtual TQUMAReferencedPropertySet* Duplicate(TPersistent* pNewOwner);
  virtual TQUMAReferencedPropertySet* Duplicate();
  virtual void EndUpdate();
  // Equal content; the base knows no properties, so distinct objects are never equal.
  virtual bool EqualTo(const TQUMAReferencedPropertySet* Other) const;
  // Obj is this object, or an instance of this object's class (or a descendant) with equal
  // content. One direction only: an instance of a descendant asked about an instance of its
  // ancestor answers false without asking EqualTo.
  bool Equals(const TObject* Obj) const override;

 protected:
  TObjectPtr<TQUMASubscribedEvent> _pChange;
};
using TQUMAReferencedPropertySetClass = TClassOf<TQUMAReferencedPropertySet>;

}  // namespace quma
QUMA_PUBLIC_END
