// TQUMASubscribedList<T>: a list that announces every addition, extraction and removal through a
// TQUMASubscribedCollectionNotification<T>, lets handlers defer work until all of them have run,
// and can free itself from inside a handler.
//
//   auto* list = quma::New<TQUMASubscribedList<TFoo*>>();
//   list->Notifications()->Subscribe(quma::Bind<&TView::ItemChanged>(view));
//   list->Add(foo);      // view->ItemChanged(list, foo, cnAdded)
//
// Threading and re-entrancy contract
// - The list itself is not thread-safe: use it from one thread at a time. Its notification event
//   follows the contract of TQUMASubscribedEvent (the pass runs under the event's list monitor).
// - A handler may change the list. The nested notification runs its handlers at once; deferred
//   work (CallMeBackWhenNotificationsComplete, DeleteWhenNotificationsComplete) waits for the
//   outermost notification to end.
// - Deferred callbacks run newest first, once each, after every handler and after-hook. A list
//   that is to be freed frees itself once, at that point, and runs no deferred callback. A
//   handler that frees the list outright stops the notification right there.
#pragma once

#include <quma/Export.h>

#include <utility>
#include <vector>

#include <quma/Generics.h>
#include <quma/SubscribedEvent.h>
#include <quma/System.h>

QUMA_PUBLIC_BEGIN
namespace quma {

enum class TQUMASubscribedListFlags { _slfInCallbacks, _slfDeleteAfterCallbacks };
using enum TQUMASubscribedListFlags;
using TQUMASubscribedListState = TSet<TQUMASubscribedListFlags>;

template <class T>
class TQUMASubscribedList : public TList<T> {
  QUMA_CLASS(TQUMASubscribedList, TList<T>)
 public:
  using TNotifications = TQUMASubscribedCollectionNotification<T>;
  using TCollectionNotifyEvent = typename TList<T>::TCollectionNotifyEvent;

  TQUMASubscribedList() = default;
  explicit TQUMASubscribedList(std::shared_ptr<const IComparer<T>> comparer) : TList<T>(std::move(comparer)) {}

  void AfterConstruction() override {
    inherited::AfterConstruction();
    _pCallbacks = New<TNotifications>();
    _pCallbacks->SetCallbackObject(this);
  }
  // Removes every item while the object is still whole, so that overridden hooks see them go.
  void BeforeDestruction() override {
    MarkDestroying();
    this->Clear();
    inherited::BeforeDestruction();
  }

  // The change event; its sender is the list.
  TNotifications* Notifications() const { return _GetNotifications(); }
  // One more subscriber of Notifications, replaced as a whole when set.
  TCollectionNotifyEvent OnNotify() const { return _GetOnNotify(); }
  void SetOnNotify(TCollectionNotifyEvent Value) { _SetOnNotify(Value); }

  // Makes this list equal to pSource with the fewest changes: differing items are replaced,
  // missing ones appended, surplus ones deleted from the end. A null source changes nothing.
  void SyncList(const TList<T>* pSource) {
    if (!pSource || pSource == this) return;
    detail::TAliveFlag alive(FAlive);
    const auto& comparer = *this->Comparer();
    for (Integer i = 0; i < pSource->Count(); ++i) {
      if (i < this->Count()) {
        if (comparer.Compare((*this)[i], (*pSource)[i]) != 0) this->SetItem(i, (*pSource)[i]);
      } else {
        this->Add((*pSource)[i]);
      }
      if (!alive.Alive) return;
    }
    while (this->Count() > pSource->Count()) {
      this->Delete(this->Count() - 1);
      if (!alive.Alive) return;
    }
  }

 protected:
  ~TQUMASubscribedList() override {
    FDestroying = true;
    detail::TAliveFlag::KillAll(FAlive);
    FAlive = nullptr;
    this->Clear();  // whatever a handler added while BeforeDestruction cleared
    FreeAndNil(_pCallbacks);
  }

  // Virtual operations, in slot order.
  virtual void _AfterAddNotify(const T& Item) { (void)Item; }
  virtual void _AfterRemoveNotify(const T& Item) { (void)Item; }
  virtual void _BeforeAddNotify(const T& Item) { (void)Item; }
  virtual void _BeforeRemoveNotify(const T& Item) { (void)Item; }
  virtual TNotifications* _GetNotifications() const { return _pCallbacks; }
  virtual TCollectionNotifyEvent _GetOnNotify() const { return _fnOnNotify; }
  virtual void _SetOnNotify(TCollectionNotifyEvent Value) {
    if (Value == _fnOnNotify) return;
    if (_fnOnNotify && _pCallbacks) _pCallbacks->Unsubscribe(_fnOnNotify);
    _fnOnNotify = Value;
    if (_fnOnNotify && _pCallbacks) _pCallbacks->Subscribe(_fnOnNotify);
  }

 public:
  // Runs fnCallback (sender: the list) once the current notification is over. Ignored outside
  // a notification.
  virtual void CallMeBackWhenNotificationsComplete(TNotifyEvent fnCallback) {
    if (_SubListState.Contains(_slfInCallbacks) && fnCallback) _aPostNotifies.push_back(fnCallback);
  }
  // Frees the list once the current notification is over. Ignored outside a notification.
  virtual void DeleteWhenNotificationsComplete() {
    if (_SubListState.Contains(_slfInCallbacks)) _SubListState.Include(_slfDeleteAfterCallbacks);
  }

 protected:
  // The list is on its way out: a deletion requested from now on is not carried out again. A
  // BeforeDestruction override that changes the list before calling the inherited one calls
  // this first, so that a handler asking for deletion cannot free the list twice.
  void MarkDestroying() noexcept { FDestroying = true; }
  bool Destroying() const noexcept { return FDestroying; }

  void Notify(const T& Item, TCollectionNotification Action) override {
    // The item may live in the list's storage, which a handler can move.
    const T item(Item);
    detail::TAliveFlag alive(FAlive);
    _SubListState.Include(_slfInCallbacks);
    ++FDepth;
    struct TPassEnd {  // also ends the notification when a handler throws
      TQUMASubscribedList* Self;
      const detail::TAliveFlag& Alive;
      void Run() noexcept {
        if (Self && Alive.Alive && --Self->FDepth == 0) Self->_SubListState.Exclude(_slfInCallbacks);
        Self = nullptr;
      }
      ~TPassEnd() { Run(); }
    } passEnd{this, alive};

    const bool added = Action == cnAdded;
    const bool removed = Action == cnRemoved || Action == cnExtracted;
    if (added)
      _BeforeAddNotify(item);
    else if (removed)
      _BeforeRemoveNotify(item);
    if (!alive.Alive) return;
    inherited::Notify(item, Action);
    if (!alive.Alive) return;
    TNotifications* const callbacks = _pCallbacks;
    if (callbacks) {
      callbacks->FireCallbacks(item, Action);
      if (!alive.Alive) return;
      if (_pCallbacks == callbacks) {
        if (added)
          _AfterAddNotify(item);
        else if (removed)
          _AfterRemoveNotify(item);
        if (!alive.Alive) return;
      }
    }
    if (FDepth > 1) return;  // deferred work waits for the outermost notification
    passEnd.Run();

    if (_SubListState.Contains(_slfDeleteAfterCallbacks)) {
      if (!FDestroying) Free(this);
      return;
    }
    while (!_aPostNotifies.empty() && _pCallbacks == callbacks) {
      // Taken off before the call, so that a change made by the callback cannot run it again.
      const TNotifyEvent callback = _aPostNotifies.back();
      _aPostNotifies.pop_back();
      callback(this);
      if (!alive.Alive) return;
    }
  }

  TNotifications* _pCallbacks = nullptr;
  TCollectionNotifyEvent _fnOnNotify;
  std::vector<TNotifyEvent> _aPostNotifies;
  TQUMASubscribedListState _SubListState;

 private:
  Integer FDepth = 0;  // nesting of notifications (a handler that changes the list)
  bool FDestroying = false;
  detail::TAliveFlag* FAlive = nullptr;
};

}  // namespace quma
QUMA_PUBLIC_END
