#include <quma/UniquePersistent.h>

#include <quma/CoreUtils.h>

#include <algorithm>
#include <unordered_set>
#include <vector>

namespace quma {

namespace {

// Appends the entries of From that To lacks, in order, and empties From. Large lists are
// checked against a hash set, so a swap stays linear in the number of holders.
template <class List>
void AppendMissing(List& To, List& From) {
  List moving = std::move(From);
  if (To.empty()) {
    for (auto p : moving) To.push_back(p);
    return;
  }
  using P = std::remove_cvref_t<decltype(*To.begin())>;
  std::unordered_set<P> known;
  if (To.size() > 8) known.insert(To.begin(), To.end());
  for (auto p : moving) {
    const bool present = known.empty() ? std::find(To.begin(), To.end(), p) != To.end() : !known.insert(p).second;
    if (!present) To.push_back(p);
  }
}

// Runs a clean-up when the scope ends, also by an exception.
template <class F>
class TFinally {
 public:
  explicit TFinally(F f) noexcept : FClean(std::move(f)) {}
  TFinally(const TFinally&) = delete;
  TFinally& operator=(const TFinally&) = delete;
  ~TFinally() { FClean(); }

 private:
  F FClean;
};

}  // namespace

// ---- TQUMAUniquePersistent ----

void TQUMAUniquePersistent::AfterConstruction() {
  inherited::AfterConstruction();
  _pSwapEvent = MakeObject<TQUMAUniquePersistentSwapEvent>(this);
}

TQUMAUniquePersistent::~TQUMAUniquePersistent() {
  for (bool* stop : FSwapStops) *stop = true;
}

bool TQUMAUniquePersistent::FreeIfUnreferenced() { return FSwapDepth == 0 && inherited::FreeIfUnreferenced(); }

void TQUMAUniquePersistent::_BeforeSwap(TQUMAUniquePersistent*) {}
void TQUMAUniquePersistent::_AfterSwapCallbacks() {}

// Whether this object or the replacement still lives is asked of the live-object registry, not
// of free indicators: the swap moves free indicators, and a nested swap would move such guards
// of an outer one with them.
void TQUMAUniquePersistent::_SwapWith(TQUMAUniquePersistent* Replacement) {
  if (!Replacement || Replacement == this || QUMAIsFreeing(Replacement) || _GetFreeing()) return;
  ++FSwapDepth;
  const TFinally finish([this]() noexcept {
    if (!QUMAIsFreed(this)) --FSwapDepth;
  });
  _BeforeSwap(Replacement);
  if (QUMAIsFreeing(this) || QUMAIsFreeing(Replacement)) return;
  _DoSwapWith(Replacement);
  if (!QUMAIsFreeing(this) && !QUMAIsFreeing(Replacement)) _AfterSwap(Replacement);
}

void TQUMAUniquePersistent::_DoSwapWith(TQUMAUniquePersistent* Replacement) {
  if (!Replacement || Replacement == this || QUMAIsFreed(Replacement)) return;
  MoveSilentReferences(Replacement);
  MoveFreeIndicators(Replacement);
  MoveMemLocks(Replacement);
  MoveConsumers(Replacement);
  MoveCallbackHolders(Replacement);
  MoveComponents(Replacement);
  MoveTwilightHandlers(Replacement);
}

void TQUMAUniquePersistent::MoveSilentReferences(TQUMAUniquePersistent* Replacement) {
  for (PQUMAReferencedPersistent p : _pRegPointers)
    if (p) *p = Replacement;
  AppendMissing(Replacement->_pRegPointers, _pRegPointers);
}

void TQUMAUniquePersistent::MoveFreeIndicators(TQUMAUniquePersistent* Replacement) {
  AppendMissing(Replacement->_pFreeIndicators, _pFreeIndicators);
}

// Each locker ends up holding on the replacement as many locks as it held here, unless it held
// more there already. A container that holds this object for itself keeps its lock here (it
// hears of this object's end, or follows the swap), and so does the replacement if it locked
// this object: that lock ends with this object.
void TQUMAUniquePersistent::MoveMemLocks(TQUMAUniquePersistent* Replacement) {
  const std::vector<TObject*> lockers(_pLockers.begin(), _pLockers.end());
  std::vector<TObject*> staying;
  for (TObject* locker : lockers) {
    const detail::TLockEntry* entry = _pMultiLock.Find(locker);
    if (!entry) continue;
    const detail::TLockerKind kind = entry->Kind;
    if (locker == Replacement || (kind == detail::TLockerKind::lkOther && detail::IsSelfReferencingContainer(locker))) {
      staying.push_back(locker);
      continue;
    }
    Integer wanted = entry->Count;
    TObject* holder = locker;
    if (locker == this) {
      holder = Replacement;
      wanted += Replacement->_GetLockCount(Replacement);
    }
    if (Replacement->_GetLockCount(holder) < wanted) {
      // The callback travels with the first lock; the callback holders' step then finds it
      // there and leaves it.
      const TQUMAReferencedNotification* callback = CustomNotification(locker);
      if (callback && holder == locker)
        Replacement->AddMemLockReference(holder, *callback);
      else
        Replacement->AddMemLockReference(holder);
      while (Replacement->_GetLockCount(holder) < wanted && !QUMAIsFreed(Replacement))
        Replacement->AddMemLockReference(holder);
    }
    if (kind == detail::TLockerKind::lkComponent) {
      if (_pWrapper) _pWrapper->RemoveFreeNotification(static_cast<TComponent*>(locker));
    } else if (kind == detail::TLockerKind::lkReferenced && locker != this) {
      // Alive: a referenced locker that dies drops its locks first.
      static_cast<TQUMAReferencedPersistent*>(locker)->RemoveNotifyReference(this);
    }
    _pMultiLock.Erase(locker);
  }
  _pLockers.clear();
  for (TObject* locker : staying) _pLockers.push_back(locker);
}

// Consumers that hold on to this object move; its owner and the objects this object locks or
// owns stay its consumers, so that they hear of its end (and drop its locks, or their owner).
void TQUMAUniquePersistent::MoveConsumers(TQUMAUniquePersistent* Replacement) {
  if (!_pConsumers || _pConsumers->Count() == 0) return;
  const std::vector<TQUMAReferencedPersistent*> consumers = _pConsumers->ToVector();
  std::vector<TQUMAReferencedPersistent*> staying;
  for (TQUMAReferencedPersistent* consumer : consumers) {  // alive: a dying consumer leaves the list
    if (static_cast<TPersistent*>(consumer) == _pOwner || consumer->IsLockedBy(this) ||
        consumer->Owner() == static_cast<TPersistent*>(this)) {
      staying.push_back(consumer);
      continue;
    }
    if (!Replacement->HasConsumer(consumer)) Replacement->AddNotifyReference(consumer);
  }
  _pConsumers->Clear();
  for (TQUMAReferencedPersistent* consumer : staying)
    if (_pConsumers && !QUMAIsFreed(consumer)) _pConsumers->Add(consumer);
}

// Callback holders move unless the replacement has its own. Containers that hold this object
// for themselves (among them the consumer lists of the objects it watches) stay: they still
// hold this object, not the replacement.
void TQUMAUniquePersistent::MoveCallbackHolders(TQUMAUniquePersistent* Replacement) {
  if (_dctCustomNotify.Empty()) return;
  std::vector<std::pair<TObject*, TQUMAReferencedNotification>> staying;
  for (TObject* key : _dctCustomNotify.Keys()) {
    const TQUMAReferencedNotification* callback = _dctCustomNotify.Find(key);
    if (!callback) continue;
    const TQUMAReferencedNotification fn = *callback;
    if (detail::IsSelfReferencingContainer(key))
      staying.emplace_back(key, fn);
    else if (!Replacement->CustomNotification(key))
      Replacement->AddNotifyReference(key, fn);
  }
  _dctCustomNotify.Clear();
  for (const auto& [key, fn] : staying) _dctCustomNotify.Set(key, fn);
}

// Components linked to this object's wrapper link to the replacement's; the old links go
// through the host's removal notification naming the old wrapper (its payload is this object,
// which is about to go).
void TQUMAUniquePersistent::MoveComponents(TQUMAUniquePersistent* Replacement) {
  if (!_pWrapper || _pWrapper->FreeNotificationCount() == 0) return;
  for (Integer i = 0, count = _pWrapper->FreeNotificationCount(); i < count; ++i)
    Replacement->AddNotifyReference(_pWrapper->FreeNotifee(i));
  _pWrapper->RemoveFreeNotifications();
}

void TQUMAUniquePersistent::MoveTwilightHandlers(TQUMAUniquePersistent* Replacement) {
  if (const TQUMATwilightFalling enter = _GetOnEnterTwilight()) {
    if (!Replacement->_GetOnEnterTwilight()) Replacement->_SetOnEnterTwilight(enter);
    _SetOnEnterTwilight(nullptr);
  }
  if (const TNotifyEvent leave = _GetOnLeaveTwilight()) {
    if (!Replacement->_GetOnLeaveTwilight()) Replacement->_SetOnLeaveTwilight(leave);
    _SetOnLeaveTwilight(nullptr);
  }
}

// The announcement stops when a subscriber frees this object (the swap ends there) or the
// replacement (nobody is handed a freed object; the subscribers then stay with this object).
// The stop flag is not a free indicator, so that a nested swap does not carry it away.
void TQUMAUniquePersistent::_AfterSwap(TQUMAUniquePersistent* Replacement) {
  if (!Replacement || QUMAIsFreeing(Replacement)) return;
  bool stop = false;
  FSwapStops.push_back(&stop);
  Replacement->FSwapStops.push_back(&stop);
  {
    const TFinally unwatch([&]() noexcept {
      for (TQUMAUniquePersistent* p : {this, Replacement})
        if (!QUMAIsFreed(p)) std::erase(p->FSwapStops, &stop);
    });
    if (_pSwapEvent) _pSwapEvent->FireCallbacksWhileFalse(Replacement, stop);
    if (QUMAIsFreed(this)) return;
    if (_pSwapEvent && !stop) _pSwapEvent->TransferSubscriptions(Replacement->OnSwap());
    _AfterSwapCallbacks();
    if (QUMAIsFreed(this)) return;
  }
  Free(this);
}

// ---- TQUMAOpportunisticUniqueStringList ----

TQUMAOpportunisticUniqueStringList::~TQUMAOpportunisticUniqueStringList() { UnfollowAll(); }

TQUMAUniquePersistentSwapCallback TQUMAOpportunisticUniqueStringList::SwapCallback() noexcept {
  return Bind<&TQUMAOpportunisticUniqueStringList::_ObjectSwapped>(this);
}

TQUMAUniquePersistent* TQUMAOpportunisticUniqueStringList::Unique(TObject* AObject) noexcept {
  TQUMAReferencedPersistent* r = QUMAAsReferenced(AObject);
  return r && !QUMAIsFreed(r) ? dynamic_cast<TQUMAUniquePersistent*>(r) : nullptr;
}

void TQUMAOpportunisticUniqueStringList::Follow(TObject* AObject) {
  if (TQUMAUniquePersistent* u = Unique(AObject); u && u->OnSwap()) u->OnSwap()->Subscribe(SwapCallback());
}

void TQUMAOpportunisticUniqueStringList::Unfollow(TObject* AObject) {
  if (TQUMAUniquePersistent* u = Unique(AObject); u && u->OnSwap() && EntriesHolding(u) <= 1)
    u->OnSwap()->Unsubscribe(SwapCallback());
}

void TQUMAOpportunisticUniqueStringList::UnfollowAll() {
  for (Integer i = 0, count = Count(); i < count; ++i)
    if (TQUMAUniquePersistent* u = Unique(Objects(i)); u && u->OnSwap()) u->OnSwap()->Unsubscribe(SwapCallback());
}

void TQUMAOpportunisticUniqueStringList::InsertItem(Integer Index, const UnicodeString& S, TObject* AObject) {
  const auto update = UpdateScope(*this);
  inherited::InsertItem(Index, S, AObject);
  Follow(AObject);
}

void TQUMAOpportunisticUniqueStringList::PutObject(Integer Index, TObject* AObject) {
  CheckIndex(Index);
  TObject* old = Objects(Index);
  if (old == AObject) return;
  if (!FFollowingSwap) Unfollow(old);
  {
    const auto update = UpdateScope(*this);
    inherited::PutObject(Index, AObject);
  }
  if (!FFollowingSwap) Follow(AObject);
}

void TQUMAOpportunisticUniqueStringList::Delete(Integer Index) {
  CheckIndex(Index);
  Unfollow(Objects(Index));
  inherited::Delete(Index);
}

void TQUMAOpportunisticUniqueStringList::Clear() {
  UnfollowAll();
  inherited::Clear();
}

void TQUMAOpportunisticUniqueStringList::_ObjectSwapped(TObject* Sender, TQUMAUniquePersistent* const& Replacement) {
  if (!Sender || !Replacement || QUMAIsFreed(Replacement)) return;
  // The old object's swap event hands this subscription over to the replacement; leaving it
  // alone here keeps the other subscribers of this firing from being skipped.
  const bool outer = std::exchange(FFollowingSwap, true);
  if (HoldsForItself()) {
    // The list's own references stayed on the old object: move them entry by entry.
    for (Integer i = 0; i < Count(); ++i)
      if (Objects(i) == Sender) PutObject(i, Replacement);
  } else {
    // The referencing object's references moved with the swap.
    RetargetEntries(Sender, Replacement);
  }
  FFollowingSwap = outer;
}

void TQUMAOpportunisticUniqueStringList::_NotificationRef(TQUMAReferencedPersistent* Other, TOperation op) {
  if (op == opRemove)
    if (TQUMAUniquePersistent* u = Unique(Other); u && u->OnSwap()) u->OnSwap()->Unsubscribe(SwapCallback());
  inherited::_NotificationRef(Other, op);
}

}  // namespace quma
