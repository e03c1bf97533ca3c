// Multicast events that can be blocked: TQUMASubscribedEvent and its callback list, and the typed
// forms TQUMASubscribedCollectionNotification<T> and TQUMASubscribed1ParamEvent<T>.
//
//   auto ev = quma::MakeObject<TQUMASubscribedEvent>();
//   ev->Subscribe(quma::Bind<&TView::Changed>(view));
//   ev->FireCallbacks();                                // view->Changed(ev.get())
//
// Threading and re-entrancy contract
// - Subscribe, PrioritySubscribe, Unsubscribe, IsSubscribed, TransferSubscriptions and every
//   firing pass hold the monitor of the subscriber list (a re-entrant lock). Subscribers run on
//   the firing thread with that monitor held; another thread that changes the subscriptions, or
//   fires, waits until the pass is over.
// - A pass walks the live list by index and re-reads the count before every call. On the firing
//   thread a subscriber may subscribe or unsubscribe anyone: an appended subscriber is called in
//   the same pass, and a subscriber that unsubscribes itself makes its successor be skipped in
//   that pass. Take a snapshot with PopulateCallbacks when a stable set is needed.
// - A subscriber may block the event during a pass: the pass goes on, later firings are counted.
//   A subscriber may also free the event: the pass stops at once and touches nothing of it.
// - An exception thrown by a subscriber ends the pass (the monitor is left) and propagates.
// - Block, Unblock and the counters take no lock and are meant for one thread at a time (they
//   are race-free, but interleaved blocking from several threads has no useful meaning).
//   SubscriberCount and PopulateCallbacks read without the lock; setting OnIsBlocked,
//   OnUnblocked or CallbackObject is part of setting the event up, before it is shared.
#pragma once

#include <quma/Export.h>

#include <atomic>
#include <cstddef>
#include <exception>
#include <memory>
#include <tuple>
#include <type_traits>
#include <utility>

#include <quma/Generics.h>
#include <quma/Method.h>
#include <quma/Monitor.h>
#include <quma/Object.h>

QUMA_PUBLIC_BEGIN
namespace quma {

// A list of notification callbacks. Searches by value (Contains, IndexOf, Remove) use the
// callback ordering of _CompareCallbacks.
class TQUMACallbackList : public TList<TNotifyEvent> {
  QUMA_CLASS(TQUMACallbackList, TList<TNotifyEvent>)
 public:
  TQUMACallbackList();

  // Orders by object pointer, then by code pointer, both unsigned: -1, 0 or 1.
  static int _CompareCallbacks(const TNotifyEvent& Left, const TNotifyEvent& Right) noexcept;

  // Calls every entry with a code pointer with Sender, from index 0 up. The count is re-read
  // before every call, so entries added meanwhile are called too and a removal shifts the walk.
  void InvokeCallbacks(TObject* Sender);
};

class TQUMASubscribedEvent : public TObject {
  QUMA_CLASS(TQUMASubscribedEvent, TObject)
 public:
  using TBlockChecker = TMethod<bool()>;

  TQUMASubscribedEvent() noexcept = default;
  // Subscribers receive ACallbackObject as sender instead of the event.
  explicit TQUMASubscribedEvent(TObject* ACallbackObject) noexcept : _pCallbackObject(ACallbackObject) {}

  void AfterConstruction() override;

  // Properties.
  bool Blocked() const { return _IsBlocked(); }
  TObject* CallbackObject() const { return _GetCallbackObject(); }
  void SetCallbackObject(TObject* Value) { _SetCallbackObject(Value); }
  bool CallbacksPending() const { return _GetCallbacksPending(); }
  TBlockChecker OnIsBlocked() const { return _GetOnIsBlocked(); }
  void SetOnIsBlocked(TBlockChecker Value) { _SetOnIsBlocked(Value); }
  TNotifyEvent OnUnblocked() const { return _GetOnUnblocked(); }
  void SetOnUnblocked(TNotifyEvent Value) { _SetOnUnblocked(Value); }
  Integer SubscriberCount() const { return _GetSubscriberCount(); }

 protected:
  // Virtual operations, in slot order (continued in the public section below).
  virtual void _FireCallbacks(const bool& pStop);
  virtual TObject* _GetCallbackObject() const;
  virtual bool _GetCallbacksPending() const;
  virtual TBlockChecker _GetOnIsBlocked() const;
  virtual TNotifyEvent _GetOnUnblocked() const;
  virtual Integer _GetSubscriberCount() const;
  virtual bool _IsBlocked() const;
  virtual void _SetCallbackObject(TObject* Value);
  virtual void _SetOnIsBlocked(TBlockChecker Value);
  virtual void _SetOnUnblocked(TNotifyEvent Value);

 public:
  // Nests; ignored while OnIsBlocked is set.
  virtual void Block();
  // Fires now, or counts a pending firing while blocked.
  virtual void FireCallbacks();
  // As FireCallbacks, but stops before the next subscriber once pStop reads true.
  virtual void FireCallbacksWhileFalse(const bool& pStop);
  virtual bool IsSubscribed(const TNotifyEvent& fnCallback) const;
  // Appends every subscriber, in order, to pTarget (no lock, no duplicate check).
  virtual void PopulateCallbacks(TQUMACallbackList* pTarget) const;
  // Inserts at the front unless already subscribed (an existing entry keeps its place).
  virtual void PrioritySubscribe(const TNotifyEvent& fnCallback);
  // Appends unless already subscribed.
  virtual void Subscribe(const TNotifyEvent& fnCallback);
  // Undoes one Block; when that leaves the event unblocked and a firing was ever suppressed,
  // calls OnUnblocked (sender: the event) and fires once.
  virtual void Unblock();
  virtual void Unsubscribe(const TNotifyEvent& fnCallback);

  // Moves every subscriber that pToEvent lacks over to it, in order; this event ends up with
  // none. Transferring to itself changes nothing.
  void TransferSubscriptions(TQUMASubscribedEvent* pToEvent);

 protected:
  ~TQUMASubscribedEvent() override;

  // One firing pass over the live list: `call(entry, sender)` for every entry with a code
  // pointer, under the list's monitor, until pStop reads true, the list runs out, the event
  // gets another list or the event is freed. The typed events fire through it too.
  template <class F>
  void FirePass(const bool& pStop, F&& call);

  // Step 1 of Unblock: one level less, never below zero, nothing while a checker is set.
  void ReleaseBlock() noexcept;
  // Counts a suppressed firing.
  void CountSuppressedFiring() noexcept { AtomicIncrement(_nChangeCount); }
  Integer ChangeCount() const noexcept {
    return std::atomic_ref<Integer>(const_cast<Integer&>(_nChangeCount)).load(std::memory_order_relaxed);
  }

  // The subscriber list. A derived class may install its own before AfterConstruction (which
  // then keeps it). Installing another one later stops the passes running over the old one,
  // which they no longer touch; the old list is handed back to the caller.
  TQUMACallbackList* CallbackList() const noexcept { return _fnaCallbacks; }
  TQUMACallbackList* ExchangeCallbackList(TQUMACallbackList* List) noexcept;

  Integer _nChangeCount = 0;
  Integer _nBlockCount = 0;
  TNotifyEvent _fnUnblocked;
  TBlockChecker _fnBlockChecker;

 private:
  TQUMACallbackList* _fnaCallbacks = nullptr;  // changed only through ExchangeCallbackList

 protected:
  TObject* _pCallbackObject = nullptr;

 private:
  // A running pass. The passes on the stack are linked, so that dropping the list or freeing
  // the event can tell each of them at once; the loop then reads nothing but its own frame.
  // Only touched with the list's monitor held.
  struct TPassFrame {
    TQUMACallbackList* List;  // null once the event no longer holds the list of this pass
    TPassFrame* Previous;
    bool EventGone = false;
  };
  class TPassGuard;
  void DropPasses(bool eventGone) noexcept {
    for (TPassFrame* frame = FPasses; frame; frame = frame->Previous) {
      frame->List = nullptr;
      frame->EventGone = eventGone;
    }
  }
  TPassFrame* FPasses = nullptr;
};

// Ends a pass, also when a subscriber throws: unlinks the frame and leaves the monitor, unless
// the event went meanwhile (its list and monitor went with it) or holds another list now (the
// old one may be gone, so its monitor is not touched again).
class TQUMASubscribedEvent::TPassGuard {
 public:
  TPassGuard(TQUMASubscribedEvent* event, TRecursiveLock* lock, TPassFrame* frame) noexcept
      : FEvent(event), FLock(lock), FFrame(frame) {}
  TPassGuard(const TPassGuard&) = delete;
  TPassGuard& operator=(const TPassGuard&) = delete;
  ~TPassGuard() {
    if (FFrame->EventGone) return;
    FEvent->FPasses = FFrame->Previous;
    if (FFrame->List) FLock->Leave();
  }

 private:
  TQUMASubscribedEvent* FEvent;
  TRecursiveLock* FLock;
  TPassFrame* FFrame;
};

template <class F>
void TQUMASubscribedEvent::FirePass(const bool& pStop, F&& call) {
  TQUMACallbackList* const list = _fnaCallbacks;
  if (!list) return;
  TObject* const sender = _GetCallbackObject();
  TRecursiveLock& lock = list->MonitorLock();
  lock.Enter();
  TPassFrame frame{list, FPasses};
#if defined(__GNUC__) && !defined(__clang__) && __GNUC__ >= 12
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdangling-pointer"  // unlinked by the guard
#endif
  FPasses = &frame;
#if defined(__GNUC__) && !defined(__clang__) && __GNUC__ >= 12
#pragma GCC diagnostic pop
#endif
  const TPassGuard guard(this, &lock, &frame);
  // Re-read after each call: a subscriber may change the list, make the event drop it, free
  // the event or set the stop flag.
  for (std::size_t i = 0; !pStop && frame.List == list; ++i) {
    const std::span<const TNotifyEvent> entries = list->View();
    if (i >= entries.size()) break;
    const TNotifyEvent entry = entries[i];
    if (entry) call(entry, sender);
  }
}

// A multicast event whose subscribers receive the sender, an item and a collection action.
template <class T>
class TQUMASubscribedCollectionNotification : public TQUMASubscribedEvent {
  QUMA_CLASS(TQUMASubscribedCollectionNotification, TQUMASubscribedEvent)
 public:
  using TCallback = typename TList<T>::TCollectionNotifyEvent;  // (Sender, const T& Item, Action)

  using TQUMASubscribedEvent::TQUMASubscribedEvent;

  void FireCallbacks(const T& Item, TCollectionNotification Action) {
    if (_IsBlocked())
      CountSuppressedFiring();
    else
      _FireCallbacks(Item, Action);
  }
  // Undoes one Block; when that leaves the event unblocked and a firing was ever suppressed,
  // fires once with these arguments (OnUnblocked is not called).
  void Unblock(const T& Item, TCollectionNotification Action) {
    ReleaseBlock();
    if (!_IsBlocked() && ChangeCount() > 0) _FireCallbacks(Item, Action);
  }
  void Subscribe(const TCallback& fnCallback) { Untyped().Subscribe(Raw(fnCallback)); }
  void PrioritySubscribe(const TCallback& fnCallback) { Untyped().PrioritySubscribe(Raw(fnCallback)); }
  void Unsubscribe(const TCallback& fnCallback) { Untyped().Unsubscribe(Raw(fnCallback)); }
  using TQUMASubscribedEvent::IsSubscribed;
  bool IsSubscribed(const TCallback& fnCallback) const { return IsSubscribed(Raw(fnCallback)); }

 protected:
  virtual void _FireCallbacks(const T& Item, TCollectionNotification Action) {
    static constexpr bool kNeverStop = false;
    FirePass(kNeverStop, [&](const TNotifyEvent& entry, TObject* sender) {
      MethodCast<void(TObject*, const T&, TCollectionNotification)>(entry)(sender, Item, Action);
    });
  }
  // An untyped firing (through the base class, or its Unblock) must not call typed subscribers
  // with the wrong shape: they receive a value-initialised item and action instead.
  void _FireCallbacks(const bool& pStop) override {
    if constexpr (std::is_default_constructible_v<T>) {
      if (!pStop) _FireCallbacks(T{}, TCollectionNotification{});
    }
  }

 private:
  static TNotifyEvent Raw(const TCallback& fn) noexcept { return MethodCast<void(TObject*)>(fn); }
  TQUMASubscribedEvent& Untyped() noexcept { return *this; }
};

// A multicast event whose subscribers receive the sender and one typed argument.
template <class T>
class TQUMASubscribed1ParamEvent : public TQUMASubscribedEvent {
  QUMA_CLASS(TQUMASubscribed1ParamEvent, TQUMASubscribedEvent)
 public:
  using TCallback = TMethod<void(TObject* Sender, const T& Param)>;

  using TQUMASubscribedEvent::TQUMASubscribedEvent;

  void FireCallbacks(const T& Param) {
    static constexpr bool kNeverStop = false;
    FireCallbacksWhileFalse(Param, kNeverStop);
  }
  void FireCallbacksWhileFalse(const T& Param, const bool& pStop) {
    if (_IsBlocked())
      CountSuppressedFiring();
    else
      _FireCallbacks(Param, pStop);
  }
  // Undoes one Block; when that leaves the event unblocked and a firing was ever suppressed,
  // fires once with Param (OnUnblocked is not called).
  void Unblock(const T& Param) {
    ReleaseBlock();
    if (!_IsBlocked() && ChangeCount() > 0) {
      static constexpr bool kNeverStop = false;
      _FireCallbacks(Param, kNeverStop);
    }
  }
  void Subscribe(const TCallback& fnCallback) { Untyped().Subscribe(Raw(fnCallback)); }
  void PrioritySubscribe(const TCallback& fnCallback) { Untyped().PrioritySubscribe(Raw(fnCallback)); }
  void Unsubscribe(const TCallback& fnCallback) { Untyped().Unsubscribe(Raw(fnCallback)); }
  using TQUMASubscribedEvent::IsSubscribed;
  bool IsSubscribed(const TCallback& fnCallback) const { return IsSubscribed(Raw(fnCallback)); }

 protected:
  virtual void _FireCallbacks(const T& Param, const bool& pStop) {
    FirePass(pStop, [&](const TNotifyEvent& entry, TObject* sender) {
      MethodCast<void(TObject*, const T&)>(entry)(sender, Param);
    });
  }
  // An untyped firing must not call typed subscribers with the wrong shape: they receive a
  // value-initialised argument instead.
  void _FireCallbacks(const bool& pStop) override {
    if constexpr (std::is_default_constructible_v<T>) _FireCallbacks(T{}, pStop);
  }

 private:
  static TNotifyEvent Raw(const TCallback& fn) noexcept { return MethodCast<void(TObject*)>(fn); }
  TQUMASubscribedEvent& Untyped() noexcept { return *this; }
};

// Scope guard for one subscription: subscribes on construction, unsubscribes on scope exit.
//   TQUMAScopedSubscription sub(*ev, quma::Bind<&TView::Changed>(view));
// Any E with Subscribe/Unsubscribe serves: the broadcast event and the UUID lists name their
// registration calls so too.
template <class E, class M>
class [[nodiscard]] TQUMAScopedSubscription {
 public:
  TQUMAScopedSubscription(E& Event, M fnCallback) : FEvent(&Event), FCallback(fnCallback) {
    Event.Subscribe(fnCallback);
  }
  TQUMAScopedSubscription(TQUMAScopedSubscription&& other) noexcept
      : FEvent(std::exchange(other.FEvent, nullptr)), FCallback(other.FCallback) {}
  TQUMAScopedSubscription(const TQUMAScopedSubscription&) = delete;
  TQUMAScopedSubscription& operator=(const TQUMAScopedSubscription&) = delete;
  TQUMAScopedSubscription& operator=(TQUMAScopedSubscription&&) = delete;
  ~TQUMAScopedSubscription() { Reset(); }

  // Unsubscribes now.
  void Reset() {
    if (E* ev = std::exchange(FEvent, nullptr)) ev->Unsubscribe(FCallback);
  }
  // Keeps the subscription beyond the scope.
  void Release() noexcept { FEvent = nullptr; }

 private:
  E* FEvent;
  M FCallback;
};

// Scope guard for one Block: unblocks on scope exit. Typed events take the arguments their
// Unblock delivers:  TQUMAScopedBlock b(*notifications, item, cnAdded);
// If a subscriber throws from the Unblock at scope exit, the exception propagates, unless the
// scope is being left by another exception (that one wins).
template <class E, class... A>
class [[nodiscard]] TQUMAScopedBlock {
 public:
  explicit TQUMAScopedBlock(E& Event, A... UnblockArgs)
      : FEvent(&Event), FArgs(std::move(UnblockArgs)...), FExceptions(std::uncaught_exceptions()) {
    Event.Block();
  }
  TQUMAScopedBlock(TQUMAScopedBlock&& other) noexcept
      : FEvent(std::exchange(other.FEvent, nullptr)), FArgs(std::move(other.FArgs)), FExceptions(other.FExceptions) {}
  TQUMAScopedBlock(const TQUMAScopedBlock&) = delete;
  TQUMAScopedBlock& operator=(const TQUMAScopedBlock&) = delete;
  TQUMAScopedBlock& operator=(TQUMAScopedBlock&&) = delete;
  ~TQUMAScopedBlock() noexcept(false) {
    if (std::uncaught_exceptions() > FExceptions) {
      try {
        Reset();
      } catch (...) {
      }
    } else {
      Reset();
    }
  }

  // Unblocks now.
  void Reset() {
    if (E* ev = std::exchange(FEvent, nullptr)) std::apply([ev](auto&... a) { ev->Unblock(a...); }, FArgs);
  }

 private:
  E* FEvent;
  std::tuple<A...> FArgs;
  int FExceptions;
};

}  // namespace quma
QUMA_PUBLIC_END
