// TQUMABroadcastEvent: a lock-protected list of notification callbacks. Listeners register and
// unregister from any thread; NotifyListeners calls all of them with one sender. Unlike
// TQUMASubscribedEvent it cannot be blocked, has no pending count and no stop flag, and it is
// itself the list.
//
//   auto ev = quma::MakeObject<TQUMABroadcastEvent>();
//   TQUMAScopedSubscription reg(*ev, quma::Bind<&TView::Changed>(view));  // unregisters on exit
//   ev->NotifyListeners();                                                // view->Changed(ev.get())
//
// Threading: one re-entrant critical section per event serialises registration, removal,
// changes of the sender and whole notification passes, across threads. Listeners run on the
// notifying thread, one pass at a time, and may register or unregister on that thread (the count
// is re-read before every call). A listener must not wait for another thread that wants to
// register on the same event: that deadlocks. CallbackObject is read without the lock. The
// list operations inherited from TList (Delete, Clear, ...) take no lock: use them only while
// the event is not shared.
#pragma once

#include <quma/Export.h>

#include <quma/Generics.h>
#include <quma/Method.h>
#include <quma/Object.h>
#include <quma/Threads.h>

QUMA_PUBLIC_BEGIN
namespace quma {

class TQUMABroadcastEvent : public TList<TNotifyEvent> {
  QUMA_CLASS(TQUMABroadcastEvent, TList<TNotifyEvent>)
 public:
  TQUMABroadcastEvent() = default;
  // Listeners receive ACallbackObject as sender instead of the event.
  explicit TQUMABroadcastEvent(TObject* ACallbackObject) noexcept : _pObject(ACallbackObject) {}
  // Creates the critical section.
  void AfterConstruction() override;

  TObject* CallbackObject() const { return _GetCallbackObject(); }
  void SetCallbackObject(TObject* Value) { _SetCallbackObject(Value); }

  // ---- virtual operations, in slot order ----
  // The sender as set (null: the event itself is the sender); read without the lock.
  virtual TObject* _GetCallbackObject() const;
  // Index of the entry equal to fnCallback (code and object), or -1. No lock of its own.
  virtual Integer _IndexOf(const TNotifyEvent& fnCallback) const;
  virtual void _SetCallbackObject(TObject* Value);
  // Calls every listener, in order, with the sender, inside the critical section (an empty
  // callback is passed over).
  virtual void NotifyListeners();
  // Appends unless an equal callback is registered.
  virtual void RegisterListener(const TNotifyEvent& fnCallback);
  virtual void UnregisterListener(const TNotifyEvent& fnCallback);

  // These replace the list's own operations, under the lock and without duplicates.
  // Index of the callback: its existing one, or the last after registering it.
  Integer Add(const TNotifyEvent& fnNewValue);
  // Inserts at Index (appends when Index is at or beyond the end) unless already registered;
  // an existing entry keeps its place.
  void Insert(Integer Index, const TNotifyEvent& fnNewValue);
  // Former index of the removed entry, or -1.
  Integer Remove(const TNotifyEvent& fnCallback);

  // Scoped registration (TQUMAScopedSubscription) registers through these names.
  void Subscribe(const TNotifyEvent& fnCallback) { RegisterListener(fnCallback); }
  void Unsubscribe(const TNotifyEvent& fnCallback) { UnregisterListener(fnCallback); }

 protected:
  ~TQUMABroadcastEvent() override;

  TObjectPtr<TCriticalSection> _pCSLock;
  TObject* _pObject = nullptr;
};

}  // namespace quma
QUMA_PUBLIC_END
