#include <quma/SubscribedEvent.h>

namespace quma {

namespace {
// Calls _CompareCallbacks directly: searches in a subscriber list stay free of std::function.
struct TCallbackComparer final : IComparer<TNotifyEvent> {
  int Compare(const TNotifyEvent& left, const TNotifyEvent& right) const override {
    return TQUMACallbackList::_CompareCallbacks(left, right);
  }
};

std::shared_ptr<const IComparer<TNotifyEvent>> CallbackComparer() {
  static const std::shared_ptr<const IComparer<TNotifyEvent>> instance = std::make_shared<TCallbackComparer>();
  return instance;
}
}  // namespace

// ---- TQUMACallbackList ----

TQUMACallbackList::TQUMACallbackList() : TList<TNotifyEvent>(CallbackComparer()) {}

int TQUMACallbackList::_CompareCallbacks(const TNotifyEvent& Left, const TNotifyEvent& Right) noexcept {
  const NativeUInt leftData = Left.DataAddress(), rightData = Right.DataAddress();
  if (leftData != rightData) return leftData < rightData ? -1 : 1;
  const NativeUInt leftCode = Left.CodeAddress(), rightCode = Right.CodeAddress();
  if (leftCode != rightCode) return leftCode < rightCode ? -1 : 1;
  return 0;
}

void TQUMACallbackList::InvokeCallbacks(TObject* Sender) {
  for (std::size_t i = 0; i < View().size(); ++i) {
    const TNotifyEvent entry = View()[i];
    if (entry) entry(Sender);
  }
}

// ---- TQUMASubscribedEvent ----

void TQUMASubscribedEvent::AfterConstruction() {
  inherited::AfterConstruction();
  if (!_fnaCallbacks) _fnaCallbacks = New<TQUMACallbackList>();  // unless a derived class made one
}

TQUMASubscribedEvent::~TQUMASubscribedEvent() {
  // A subscriber freed the event in the middle of a pass: those passes stop without touching
  // it again (they also leave the monitor alone, as it goes with the list).
  DropPasses(true);
  FreeAndNil(_fnaCallbacks);
  _fnBlockChecker = nullptr;
}

void TQUMASubscribedEvent::_FireCallbacks(const bool& pStop) {
  FirePass(pStop, [](const TNotifyEvent& entry, TObject* sender) { entry(sender); });
}

TObject* TQUMASubscribedEvent::_GetCallbackObject() const {
  return _pCallbackObject ? _pCallbackObject : const_cast<TQUMASubscribedEvent*>(this);
}

bool TQUMASubscribedEvent::_GetCallbacksPending() const { return ChangeCount() >= 1; }

TQUMASubscribedEvent::TBlockChecker TQUMASubscribedEvent::_GetOnIsBlocked() const { return _fnBlockChecker; }

TNotifyEvent TQUMASubscribedEvent::_GetOnUnblocked() const { return _fnUnblocked; }

Integer TQUMASubscribedEvent::_GetSubscriberCount() const { return _fnaCallbacks ? _fnaCallbacks->Count() : 0; }

bool TQUMASubscribedEvent::_IsBlocked() const {
  if (_fnBlockChecker) return _fnBlockChecker();
  return std::atomic_ref<Integer>(const_cast<Integer&>(_nBlockCount)).load(std::memory_order_relaxed) > 0;
}

void TQUMASubscribedEvent::_SetCallbackObject(TObject* Value) { _pCallbackObject = Value; }

void TQUMASubscribedEvent::_SetOnIsBlocked(TBlockChecker Value) { _fnBlockChecker = Value; }

void TQUMASubscribedEvent::_SetOnUnblocked(TNotifyEvent Value) { _fnUnblocked = Value; }

void TQUMASubscribedEvent::Block() {
  if (!_fnBlockChecker) AtomicIncrement(_nBlockCount);
}

void TQUMASubscribedEvent::FireCallbacks() {
  static constexpr bool kNeverStop = false;
  if (_IsBlocked())
    CountSuppressedFiring();
  else
    _FireCallbacks(kNeverStop);
}

void TQUMASubscribedEvent::FireCallbacksWhileFalse(const bool& pStop) {
  if (_IsBlocked())
    CountSuppressedFiring();
  else
    _FireCallbacks(pStop);
}

bool TQUMASubscribedEvent::IsSubscribed(const TNotifyEvent& fnCallback) const {
  TQUMACallbackList* const list = _fnaCallbacks;
  if (!list) return false;
  TMonitorGuard lock(list);
  for (const TNotifyEvent& entry : list->View())
    if (entry.Code() == fnCallback.Code() && entry.Data() == fnCallback.Data()) return true;
  return false;
}

void TQUMASubscribedEvent::PopulateCallbacks(TQUMACallbackList* pTarget) const {
  TQUMACallbackList* const list = _fnaCallbacks;
  if (!pTarget || !list) return;
  // The current subscribers only, even when the target is the event's own list.
  const std::size_t count = list->View().size();
  for (std::size_t i = 0; i < count && i < list->View().size(); ++i) pTarget->Add(list->View()[i]);
}

void TQUMASubscribedEvent::PrioritySubscribe(const TNotifyEvent& fnCallback) {
  TQUMACallbackList* const list = _fnaCallbacks;
  if (!list) return;
  TMonitorGuard lock(list);
  if (list->Contains(fnCallback)) return;
  if (list->Count() == 0)
    list->Add(fnCallback);
  else
    list->Insert(0, fnCallback);
}

void TQUMASubscribedEvent::Subscribe(const TNotifyEvent& fnCallback) {
  TQUMACallbackList* const list = _fnaCallbacks;
  if (!list) return;
  TMonitorGuard lock(list);
  if (!list->Contains(fnCallback)) list->Add(fnCallback);
}

void TQUMASubscribedEvent::Unblock() {
  ReleaseBlock();
  if (!_IsBlocked() && ChangeCount() > 0) {
    if (_fnUnblocked) _fnUnblocked(this);
    FireCallbacks();
  }
}

void TQUMASubscribedEvent::Unsubscribe(const TNotifyEvent& fnCallback) {
  TQUMACallbackList* const list = _fnaCallbacks;
  if (!list) return;
  TMonitorGuard lock(list);
  list->Remove(fnCallback);
}

void TQUMASubscribedEvent::TransferSubscriptions(TQUMASubscribedEvent* pToEvent) {
  TQUMACallbackList* const list = _fnaCallbacks;
  if (!pToEvent || pToEvent == this || !list) return;
  TMonitorGuard lock(list);
  for (std::size_t i = 0; i < list->View().size(); ++i) {
    const TNotifyEvent entry = list->View()[i];
    if (!pToEvent->IsSubscribed(entry)) pToEvent->Subscribe(entry);
  }
  list->Clear();
}

TQUMACallbackList* TQUMASubscribedEvent::ExchangeCallbackList(TQUMACallbackList* List) noexcept {
  if (List != _fnaCallbacks) DropPasses(false);
  return std::exchange(_fnaCallbacks, List);
}

void TQUMASubscribedEvent::ReleaseBlock() noexcept {
  if (_fnBlockChecker) return;
  std::atomic_ref<Integer> count(_nBlockCount);
  Integer seen = count.load(std::memory_order_relaxed);
  while (seen >= 1 && !count.compare_exchange_weak(seen, seen - 1, std::memory_order_relaxed)) {
  }
}

}  // namespace quma
