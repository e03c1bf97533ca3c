// A stack of referenced persistents that references its items as a TQUMAReferencedList does (a
// memory lock for the referencing object, by default the stack itself).
//
//   TQUMAReferencedPersistentStack<TJob> jobs;   // New<...>() it like any list
//   jobs->Push(job);                              // locked while on the stack
//   TJob* top = jobs->Pop();                      // null when losing the lock freed it
#pragma once

#include <quma/Export.h>

#include <quma/ReferencedPersistent.h>

QUMA_PUBLIC_BEGIN
namespace quma {

template <class T>
class TQUMAReferencedPersistentStack : public TQUMAReferencedList<T> {
  QUMA_CLASS(TQUMAReferencedPersistentStack, TQUMAReferencedList<T>)
 public:
  using TQUMAReferencedList<T>::TQUMAReferencedList;

  void Push(T* Item) { this->Add(Item); }
  // The top item; EListError ("Unbalanced stack or queue operation") when empty.
  T* Peek() const {
    if (this->Count() == 0) throw EListError(SUnbalancedOperation);
    return this->Last();
  }
  // Takes the top item off. The stack's reference goes with it, which may free the item: the
  // result is then null.
  T* Pop() {
    if (this->Count() == 0) throw EListError(SUnbalancedOperation);
    TQUMAGuardedPtr<T> top(this->Last());
    this->Delete(this->Count() - 1);
    return top.Get();
  }
};

}  // namespace quma
QUMA_PUBLIC_END
