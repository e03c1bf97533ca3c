#include <quma/ReferencedPersistent.h>

#include <time.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <unordered_set>

namespace quma {

namespace {

// Every referenced persistent between its constructor and the end of its destructor, by the
// address of its TObject part. QUMAIsFreed looks here before it reads anything, so that it can
// answer for objects whose memory is gone. (A new object that happens to reuse the address of a
// dead one answers for itself.)
class TLiveObjects {
 public:
  void Add(const TObject* p) {
    std::lock_guard<std::mutex> guard(FLock);
    FObjects.insert(p);
  }
  void Remove(const TObject* p) {
    std::lock_guard<std::mutex> guard(FLock);
    FObjects.erase(p);
  }
  bool Contains(const TObject* p) {
    std::lock_guard<std::mutex> guard(FLock);
    return FObjects.count(p) != 0;
  }

 private:
  std::mutex FLock;
  std::unordered_set<const TObject*> FObjects;
};

// Never destroyed: objects may die during static destruction.
TLiveObjects& LiveObjects() {
  static TLiveObjects* const objects = new TLiveObjects;
  return *objects;
}

// Milliseconds since system start, as the host tick count (wraps after 49.7 days).
Cardinal TickCount() noexcept {
  timespec ts{};
  clock_gettime(CLOCK_BOOTTIME, &ts);
  return static_cast<Cardinal>(static_cast<UInt64>(ts.tv_sec) * 1000u + static_cast<UInt64>(ts.tv_nsec) / 1000000u);
}

// The creation counter starts at the tick count of the moment the class is initialised.
std::atomic<Cardinal>& CreationCounter() noexcept {
  static std::atomic<Cardinal> counter{TickCount()};
  return counter;
}
[[maybe_unused]] const bool gCreationCounterReady = (CreationCounter(), true);

// Registers a local flag as a free indicator for as long as the object lives.
class TLifeWatch {
 public:
  explicit TLifeWatch(TQUMAReferencedPersistent* obj) : FObject(obj) { FObject->RegisterFreeIndicator(FDeleted); }
  TLifeWatch(const TLifeWatch&) = delete;
  TLifeWatch& operator=(const TLifeWatch&) = delete;
  ~TLifeWatch() {
    if (!FDeleted) FObject->UnregisterFreeIndicator(FDeleted);
  }
  bool Alive() const noexcept { return !FDeleted; }

 private:
  TQUMAReferencedPersistent* FObject;
  bool FDeleted = false;
};

}  // namespace

// ---- free-state queries ----

bool QUMAIsFreed(const TQUMAReferencedPersistent* p) noexcept {
  if (!p || !LiveObjects().Contains(p)) return true;
  return p->_blFreed;
}

bool QUMAIsFreeing(const TQUMAReferencedPersistent* p) noexcept {
  if (!p || !LiveObjects().Contains(p)) return true;
  return p->_blFreed || p->_RPState.Contains(_rpFreeing);
}

TQUMAReferencedPersistent* QUMAAsReferenced(TObject* p) noexcept {
  if (!p || !LiveObjects().Contains(p)) return nullptr;
  return dynamic_cast<TQUMAReferencedPersistent*>(p);
}

// ---- detail::TNotifyHolders ----

void detail::TNotifyHolders::Set(TObject* key, const TQUMAReferencedNotification& fn) {
  auto it = FIndex.find(key);
  if (it != FIndex.end()) {
    it->second->second = fn;
    return;
  }
  FEntries.emplace_back(key, fn);
  FIndex.emplace(key, std::prev(FEntries.end()));
}

const TQUMAReferencedNotification* detail::TNotifyHolders::Find(const TObject* key) const noexcept {
  auto it = FIndex.find(key);
  return it == FIndex.end() ? nullptr : &it->second->second;
}

bool detail::TNotifyHolders::Remove(const TObject* key) {
  auto it = FIndex.find(key);
  if (it == FIndex.end()) return false;
  FEntries.erase(it->second);
  FIndex.erase(it);
  return true;
}

std::vector<TObject*> detail::TNotifyHolders::Keys() const {
  std::vector<TObject*> keys;
  keys.reserve(FEntries.size());
  for (const auto& entry : FEntries) keys.push_back(entry.first);
  return keys;
}

// ---- TQUMAReferencedPersistent: construction and plain properties ----

TQUMAReferencedPersistent::TQUMAReferencedPersistent(TPersistent* AOwner)
    : _nCreateSequence(CreationCounter().fetch_add(1, std::memory_order_relaxed)) {
  LiveObjects().Add(this);
  try {
    _pLockers = std::make_unique<std::vector<TObject*>>();
    _pConsumers = New<TQUMAReferencedList<TQUMAReferencedPersistent>>();
    _pConsumers->SetReferenceAction(_raNotify);
    _pMultiLock = std::make_unique<std::unordered_map<const TObject*, detail::TLockEntry>>();
    _dctCustomNotify = std::make_unique<detail::TNotifyHolders>();
    StoreOwner(AOwner);
    _RPState = {_rpFreeOnUnref};
    _blFreed = false;
    _pFreeIndicators = std::make_unique<std::vector<bool*>>();
    _pRegPointers = std::make_unique<std::vector<PQUMAReferencedPersistent>>();
    if (_pOwnerRef) _pOwnerRef->AddNotifyReference(this);
  } catch (...) {
    if (_pOwnerRef && !QUMAIsFreed(_pOwnerRef)) _pOwnerRef->RemoveNotifyReference(this);
    Free(std::exchange(_pConsumers, nullptr));
    LiveObjects().Remove(this);
    throw;
  }
}

void TQUMAReferencedPersistent::StoreOwner(TPersistent* Value) {
  _pOwner = Value;
  _pOwnerRef = Value ? dynamic_cast<TQUMAReferencedPersistent*>(Value) : nullptr;
}

bool TQUMAReferencedPersistent::_GetFreeWhenUnreferenced() const { return _RPState.Contains(_rpFreeOnUnref); }

void TQUMAReferencedPersistent::_SetFreeWhenUnreferenced(bool Value) {
  if (Value)
    _RPState.Include(_rpFreeOnUnref);
  else
    _RPState.Exclude(_rpFreeOnUnref);
}

Integer TQUMAReferencedPersistent::_GetLockCount(const TObject* pForObject) const {
  if (!_pMultiLock) return 0;
  auto it = _pMultiLock->find(pForObject);
  return it == _pMultiLock->end() ? 0 : it->second.Count;
}

TQUMATwilightFalling TQUMAReferencedPersistent::_GetOnEnterTwilight() const { return _fnEnterTwilight; }
TNotifyEvent TQUMAReferencedPersistent::_GetOnLeaveTwilight() const { return _fnLeaveTwilight; }
void TQUMAReferencedPersistent::_SetOnEnterTwilight(TQUMATwilightFalling Value) { _fnEnterTwilight = Value; }
void TQUMAReferencedPersistent::_SetOnLeaveTwilight(TNotifyEvent Value) { _fnLeaveTwilight = Value; }

TPersistent* TQUMAReferencedPersistent::_GetOwner() const { return _pOwner; }

void TQUMAReferencedPersistent::_SetOwner(TPersistent* Value) {
  if (Value == _pOwner) return;
  if (_pOwnerRef && !QUMAIsFreed(_pOwnerRef)) _pOwnerRef->RemoveNotifyReference(this);
  StoreOwner(Value);
  if (_pOwnerRef) _pOwnerRef->AddNotifyReference(this);
}

TComponent* TQUMAReferencedPersistent::_GetOwningComponent() const {
  for (TPersistent* p = _pOwner; p; p = p->Owner())
    if (auto* c = dynamic_cast<TComponent*>(p)) return c;
  return nullptr;
}

TQUMAReferencedPersistent* TQUMAReferencedPersistent::ReferencedPersistentOwner(const TPersistent* pCandidate) const {
  if (!pCandidate) return nullptr;
  for (TPersistent* p = pCandidate->Owner(); p; p = p->Owner())
    if (auto* r = dynamic_cast<TQUMAReferencedPersistent*>(p)) return r;
  return nullptr;
}

Integer TQUMAReferencedPersistent::_GetMemLockReferenceCount() const {
  return _pLockers ? static_cast<Integer>(_pLockers->size()) : 0;
}
Integer TQUMAReferencedPersistent::_GetNotifyReferenceCount() const { return _pConsumers ? _pConsumers->Count() : 0; }
Integer TQUMAReferencedPersistent::_GetTotalReferenceCount() const {
  return _GetMemLockReferenceCount() + _GetNotifyReferenceCount();
}
TQUMAReferencedPersistent* TQUMAReferencedPersistent::_GetSelf() { return this; }

TQUMAPersistentWrapper* TQUMAReferencedPersistent::_GetWrapper() {
  if (!_pWrapper && !_blFreed) {
    _pWrapper = New<TQUMAPersistentWrapper>(nullptr, this);
    _pWrapper->SetOnNotify(Bind<&TQUMAReferencedPersistent::Notification>(this));
  }
  return _pWrapper;
}

bool TQUMAReferencedPersistent::GetInterface(const TGUID& IID, void** Obj) {
  if (IID == IInterface::IID) {
    if (Obj) *Obj = static_cast<IInterface*>(this);
    return true;
  }
  return inherited::GetInterface(IID, Obj);
}

HRESULT TQUMAReferencedPersistent::QueryInterface(const TGUID& IID, void** Obj) {
  return GetInterface(IID, Obj) ? S_OK : E_NOINTERFACE;
}

bool TQUMAReferencedPersistent::HasConsumer(const TQUMAReferencedPersistent* Consumer) const {
  return _pConsumers && _pConsumers->ContainsItem(Consumer);
}

const TQUMAReferencedNotification* TQUMAReferencedPersistent::CustomNotification(const TObject* Holder) const {
  return _dctCustomNotify ? _dctCustomNotify->Find(Holder) : nullptr;
}

bool TQUMAReferencedPersistent::IsLockedBy(const TObject* Other) const {
  if (_blFreed || !_pLockers || !_pMultiLock) return false;
  return _pMultiLock->count(Other) != 0;
}

// ---- component owner queries ----

bool TQUMAReferencedPersistent::ComponentOwnerIsDesigning() {
  if (!_RPState.Contains(_rpCompOwnerDesignChecked)) {
    bool designing = false;
    for (TComponent* c = _GetOwningComponent(); c; c = c->GetComponentOwner())
      if (c->ComponentState().Contains(csDesigning)) {
        designing = true;
        break;
      }
    if (designing) _RPState.Include(_rpCompOwnerDesigning);
    _RPState.Include(_rpCompOwnerDesignChecked);
  }
  return _RPState.Contains(_rpCompOwnerDesigning);
}

bool TQUMAReferencedPersistent::ComponentOwnerIsLoading() {
  if (_RPState.Contains(_rpCompOwnerLoaded)) return false;
  for (TComponent* c = _GetOwningComponent(); c; c = c->GetComponentOwner())
    if (c->ComponentState().Contains(csLoading)) return true;
  _RPState.Include(_rpCompOwnerLoaded);
  return false;
}

bool TQUMAReferencedPersistent::ComponentOwnerIsDestroying() const {
  TComponent* c = _GetOwningComponent();
  return c && c->ComponentState().Contains(csDestroying);
}

// ---- notify references ----

void TQUMAReferencedPersistent::AddNotifyReference(TQUMAReferencedPersistent* Consumer) {
  if (!_pConsumers || !Consumer || Consumer == this || _pConsumers->ContainsItem(Consumer)) return;
  _pConsumers->Add(Consumer);
  if (_pConsumers && _pConsumers->ContainsItem(Consumer)) Consumer->NotificationRef(this, opInsert);
}

void TQUMAReferencedPersistent::AddNotifyReference(TComponent* Consumer) {
  if (!Consumer) return;
  if (TQUMAPersistentWrapper* wrapper = _GetWrapper()) wrapper->FreeNotification(Consumer);
}

void TQUMAReferencedPersistent::AddNotifyReference(TObject* Consumer, TQUMAReferencedNotification Notification) {
  if (!Consumer) return;
  if (TQUMAReferencedPersistent* r = QUMAAsReferenced(Consumer))
    AddNotifyReference(r);
  else if (auto* c = dynamic_cast<TComponent*>(Consumer))
    AddNotifyReference(c);
  if (Notification && _dctCustomNotify) _dctCustomNotify->Set(Consumer, Notification);
}

void TQUMAReferencedPersistent::RemoveNotifyReference(TQUMAReferencedPersistent* Consumer) {
  if (_pConsumers && Consumer) _pConsumers->RemoveItem(Consumer);
}

void TQUMAReferencedPersistent::RemoveNotifyReference(TComponent* Consumer) {
  if (_pWrapper && Consumer) _pWrapper->RemoveFreeNotification(Consumer);
}

void TQUMAReferencedPersistent::RemoveNotifyReference(TObject* Consumer, TQUMAReferencedNotification Notification) {
  if (!Consumer) return;
  if (TQUMAReferencedPersistent* r = QUMAAsReferenced(Consumer))
    RemoveNotifyReference(r);
  else if (auto* c = dynamic_cast<TComponent*>(Consumer))
    RemoveNotifyReference(c);
  if (Notification && _dctCustomNotify) {
    const TQUMAReferencedNotification* stored = _dctCustomNotify->Find(Consumer);
    if (stored && *stored == Notification) _dctCustomNotify->Remove(Consumer);
  }
}

// ---- memory locks ----

bool TQUMAReferencedPersistent::LeaveTwilight() {
  if (const TNotifyEvent leave = _GetOnLeaveTwilight()) {
    TLifeWatch watch(this);
    leave(this);
    if (!watch.Alive()) return false;
  }
  _RPState.Exclude(_rpInTwilight);
  return true;
}

void TQUMAReferencedPersistent::AddMemLockReference(TObject* Consumer) {
  if (!_pLockers || !Consumer) return;
  if (_RPState.Contains(_rpInTwilight) && !LeaveTwilight()) return;
  auto it = _pMultiLock->find(Consumer);
  if (it != _pMultiLock->end()) {
    ++it->second.Count;
    return;
  }
  _pLockers->push_back(Consumer);
  detail::TLockerKind kind = detail::TLockerKind::lkOther;
  TQUMAReferencedPersistent* r = QUMAAsReferenced(Consumer);
  TComponent* c = r ? nullptr : dynamic_cast<TComponent*>(Consumer);
  if (r)
    kind = detail::TLockerKind::lkReferenced;
  else if (c)
    kind = detail::TLockerKind::lkComponent;
  _pMultiLock->emplace(Consumer, detail::TLockEntry{1, kind});
  // The object must learn of the locker's death.
  if (r) {
    if (r != this && !r->HasConsumer(this)) r->AddNotifyReference(this);
  } else if (c) {
    if (TQUMAPersistentWrapper* wrapper = _GetWrapper()) wrapper->FreeNotification(c);
  }
}

void TQUMAReferencedPersistent::AddMemLockReference(TObject* Consumer, TQUMAReferencedNotification Notification) {
  if (_RPState.Contains(_rpInTwilight) && _GetOnLeaveTwilight()) {
    TLifeWatch watch(this);  // the leave handler may free the object
    AddMemLockReference(Consumer);
    if (!watch.Alive()) return;
  } else {
    AddMemLockReference(Consumer);
  }
  if (Notification && Consumer && _dctCustomNotify) _dctCustomNotify->Set(Consumer, Notification);
}

void TQUMAReferencedPersistent::RemoveMemLockReference(TObject* Consumer, bool* blDeleted) {
  if (_pLockers && Consumer) {
    auto it = _pMultiLock->find(Consumer);
    if (it != _pMultiLock->end()) {
      if (it->second.Count - 1 > 0) {
        --it->second.Count;
      } else {
        const detail::TLockerKind kind = it->second.Kind;
        _pMultiLock->erase(it);
        // Lockers usually let go in the reverse order of locking: search from the newest.
        auto pos = std::find(_pLockers->rbegin(), _pLockers->rend(), Consumer);
        if (pos != _pLockers->rend()) _pLockers->erase(std::next(pos).base());
        _dctCustomNotify->Remove(Consumer);
        if (kind == detail::TLockerKind::lkReferenced) {
          if (TQUMAReferencedPersistent* r = QUMAAsReferenced(Consumer)) r->RemoveNotifyReference(this);
        } else if (kind == detail::TLockerKind::lkComponent && _pWrapper) {
          // Only a component still linked to the wrapper is alive to be unlinked.
          for (Integer i = _pWrapper->FreeNotificationCount() - 1; i >= 0; --i) {
            TComponent* c = _pWrapper->FreeNotifee(i);
            if (static_cast<TObject*>(c) == Consumer) {
              _pWrapper->RemoveFreeNotification(c);
              break;
            }
          }
        }
      }
    }
  }
  const bool deleted = FreeIfUnreferenced();
  if (blDeleted) *blDeleted = deleted;
  if (!deleted && _pOwner && static_cast<TObject*>(_pOwner) == Consumer) StoreOwner(nullptr);
}

bool TQUMAReferencedPersistent::FreeIfUnreferenced() {
  if (!_GetFreeWhenUnreferenced() || !_pLockers || !_pLockers->empty() || _blFreed ||
      _RPState.Contains(_rpFreeing))
    return false;
  if (const TQUMATwilightFalling enter = _GetOnEnterTwilight()) {
    bool stop = false;
    TLifeWatch watch(this);
    enter(this, stop);
    if (!watch.Alive()) return true;  // the handler freed it itself
    if (stop) {
      _RPState.Include(_rpInTwilight);
      return false;
    }
  }
  Free(this);
  return true;
}

// ---- silent references and free indicators ----

void TQUMAReferencedPersistent::RegisterFreeIndicator(bool& blIndicator) {
  if (!_pFreeIndicators) return;
  if (std::find(_pFreeIndicators->begin(), _pFreeIndicators->end(), &blIndicator) == _pFreeIndicators->end())
    _pFreeIndicators->push_back(&blIndicator);
}

void TQUMAReferencedPersistent::UnregisterFreeIndicator(bool& blIndicator) {
  if (!_pFreeIndicators) return;
  auto pos = std::find(_pFreeIndicators->rbegin(), _pFreeIndicators->rend(), &blIndicator);
  if (pos != _pFreeIndicators->rend()) _pFreeIndicators->erase(std::next(pos).base());
}

void TQUMAReferencedPersistent::RegisterSilentReference(PQUMAReferencedPersistent pReference) {
  if (!_pRegPointers || !pReference) return;
  if (std::find(_pRegPointers->begin(), _pRegPointers->end(), pReference) == _pRegPointers->end())
    _pRegPointers->push_back(pReference);
}

void TQUMAReferencedPersistent::UnregisterSilentReference(PQUMAReferencedPersistent pReference) {
  if (!_pRegPointers) return;
  auto pos = std::find(_pRegPointers->rbegin(), _pRegPointers->rend(), pReference);
  if (pos != _pRegPointers->rend()) _pRegPointers->erase(std::next(pos).base());
}

// ---- removal notifications ----

void TQUMAReferencedPersistent::NotificationRef(TQUMAReferencedPersistent* Other, TOperation op) {
  if (op != opRemove || _blFreed) return;
  if (Other && static_cast<TPersistent*>(Other) == _pOwner) StoreOwner(nullptr);

  // Either object may die from here on; the local copies and the flag tell.
  TQUMAReferencedPersistent* other = Other;
  TQUMAReferencedPersistent* self = this;
  bool deleted = false;
  if (Other && !QUMAIsFreed(Other)) Other->RegisterSilentReference(&other);
  RegisterSilentReference(&self);
  RegisterFreeIndicator(deleted);

  if (HasConsumer(Other)) RemoveNotifyReference(Other);
  // A dying locker forgets what it locked.
  if (!deleted && Other && Other != this && IsLockedBy(Other)) Other->NotificationRef(this, opRemove);
  if (!deleted) UnregisterFreeIndicator(deleted);
  // All of the locks go, one at a time; the last one may free this object.
  while (!deleted && self && other && IsLockedBy(other)) RemoveMemLockReference(other, &deleted);

  if (!deleted && self) UnregisterSilentReference(&self);
  if (other && !QUMAIsFreed(other)) other->UnregisterSilentReference(&other);
}

void TQUMAReferencedPersistent::Notification(TComponent* AComponent, TOperation Operation) {
  // One lock level only, unlike a dying referenced persistent, whose locks all go.
  if (Operation == opRemove && AComponent && IsLockedBy(AComponent)) RemoveMemLockReference(AComponent, nullptr);
}

// ---- destruction ----

bool TQUMAReferencedPersistent::EnterDestruction() noexcept {
  if (_blInDestruction) return false;
  _blInDestruction = true;
  return true;
}

void TQUMAReferencedPersistent::EraseLockerAt(std::size_t index) {
  TObject* locker = (*_pLockers)[index];
  _pLockers->erase(_pLockers->begin() + static_cast<std::ptrdiff_t>(index));
  _pMultiLock->erase(locker);
}

void TQUMAReferencedPersistent::BeforeDestruction() {
  if (_RPState.Contains(_rpFreeing)) return;
  RunDestructionPhaseOne();
  inherited::BeforeDestruction();
}

void TQUMAReferencedPersistent::RunDestructionPhaseOne() {
  _RPState.Include(_rpFreeing);

  // Consumers, newest first. A consumer may remove itself (or free itself) while being told.
  while (_pConsumers && _pConsumers->Count() > 0) {
    const Integer i = _pConsumers->Count() - 1;
    TQUMAReferencedPersistent* consumer = (*_pConsumers)[i];
    if (!consumer || consumer == this || QUMAIsFreed(consumer)) {
      _pConsumers->Delete(i);
      continue;
    }
    consumer->NotificationRef(this, opRemove);
    if (_pConsumers && i < _pConsumers->Count()) _pConsumers->Delete(i);
  }

  // Lockers, newest first: the referenced persistents among them forget this object.
  while (_pLockers && !_pLockers->empty()) {
    const std::size_t i = _pLockers->size() - 1;
    TObject* locker = (*_pLockers)[i];
    if (locker == this) {
      EraseLockerAt(i);
      continue;
    }
    auto it = _pMultiLock->find(locker);
    if (it != _pMultiLock->end() && it->second.Kind == detail::TLockerKind::lkReferenced)
      if (TQUMAReferencedPersistent* r = QUMAAsReferenced(locker)) r->NotificationRef(this, opRemove);
    if (_pLockers && i < _pLockers->size()) EraseLockerAt(i);
  }

  // Callback holders, in the order they first asked.
  if (_dctCustomNotify && !_dctCustomNotify->Empty()) {
    const std::vector<TObject*> keys = _dctCustomNotify->Keys();
    for (TObject* key : keys) {
      if (!_dctCustomNotify) break;
      const TQUMAReferencedNotification* stored = _dctCustomNotify->Find(key);
      if (!stored) continue;
      const TQUMAReferencedNotification callback = *stored;
      callback(this, opRemove);
      if (_dctCustomNotify) _dctCustomNotify->Remove(key);
    }
  }

  // Host components learn of it through the wrapper's destruction.
  if (TQUMAPersistentWrapper* wrapper = std::exchange(_pWrapper, nullptr)) Free(wrapper);

  _RPState.Include(_rpReadyToFree);
}

TQUMAReferencedPersistent::~TQUMAReferencedPersistent() {
  // An object destroyed without Free (its construction failed half-way) still tells everybody.
  if (!_RPState.Contains(_rpFreeing)) RunDestructionPhaseOne();

  if (_RPState.Contains(_rpReadyToFree) && !_blFreed) {
    if (_pOwnerRef && !QUMAIsFreed(_pOwnerRef)) _pOwnerRef->RemoveNotifyReference(this);
    Free(std::exchange(_pConsumers, nullptr));
    _pLockers.reset();
    _pMultiLock.reset();
    _dctCustomNotify.reset();
    _RPState.Include(_rpFreed);
    _blFreed = true;
    if (std::unique_ptr<std::vector<bool*>> indicators = std::move(_pFreeIndicators))
      for (auto it = indicators->rbegin(); it != indicators->rend(); ++it) **it = true;
    if (std::unique_ptr<std::vector<PQUMAReferencedPersistent>> refs = std::move(_pRegPointers))
      for (auto it = refs->rbegin(); it != refs->rend(); ++it)
        if (*it && **it == this) **it = nullptr;
  }
  // Whatever was created after the first phase.
  if (TQUMAPersistentWrapper* wrapper = std::exchange(_pWrapper, nullptr)) Free(wrapper);
  if (_pConsumers) Free(std::exchange(_pConsumers, nullptr));
  LiveObjects().Remove(this);
}

// ---- TQUMAPersistentWrapper ----

TQUMAPersistentWrapper::TQUMAPersistentWrapper(TComponent* AOwner, TPersistent* APayload)
    : TComponent(AOwner), _pPayload(APayload) {}

TQUMAPersistentWrapper::~TQUMAPersistentWrapper() {
  FLife.reset();
  // Told here, while the components can still see a wrapper and ask for its payload.
  Destroying();
  RemoveFreeNotifications();
}

void TQUMAPersistentWrapper::Notification(TComponent* AComponent, TOperation Operation) {
  if (_fnOnNotify) {
    const std::weak_ptr<bool> life = FLife;
    _fnOnNotify(AComponent, Operation);
    if (life.expired()) return;  // the payload went and took the wrapper with it
  }
  inherited::Notification(AComponent, Operation);
}

// ---- TQUMAReferencedPersistentSafeBox ----

TQUMAReferencedPersistentSafeBox::TQUMAReferencedPersistentSafeBox(TPersistent* AOwner, bool blFreeObjectsOnDestroy)
    : TQUMAReferencedPersistent(AOwner), _blFreeOnDestroy(blFreeObjectsOnDestroy) {}

void TQUMAReferencedPersistentSafeBox::AfterConstruction() {
  inherited::AfterConstruction();
  _pKeptObjects = New<TQUMAReferencedList<TQUMAReferencedPersistent>>(this);
}

TQUMAReferencedPersistentSafeBox::~TQUMAReferencedPersistentSafeBox() {
  if (_blFreeOnDestroy) FreeAllObjects();
  Free(std::exchange(_pKeptObjects, nullptr));
}

void TQUMAReferencedPersistentSafeBox::Add(TQUMAReferencedPersistent* pObject) {
  if (pObject && _pKeptObjects) _pKeptObjects->Add(pObject);
}

void TQUMAReferencedPersistentSafeBox::Remove(TQUMAReferencedPersistent* pObject) {
  if (pObject && _pKeptObjects) _pKeptObjects->RemoveItem(pObject);
}

void TQUMAReferencedPersistentSafeBox::Clear() {
  if (_pKeptObjects) _pKeptObjects->Clear();
}

void TQUMAReferencedPersistentSafeBox::FreeAllObjects() {
  while (_pKeptObjects && _pKeptObjects->Count() > 0) {
    TQUMAReferencedPersistent* obj = _pKeptObjects->First();
    if (QUMAIsFreed(obj)) {  // died while the box held it by other means
      _pKeptObjects->Delete(0);
      continue;
    }
    bool deleted = false;
    obj->RegisterFreeIndicator(deleted);
    _pKeptObjects->Delete(0);
    if (!deleted) {
      obj->UnregisterFreeIndicator(deleted);
      Free(obj);
    }
  }
}

void TQUMAReferencedPersistentSafeBox::NotificationRef(TQUMAReferencedPersistent* Other, TOperation op) {
  if (op == opRemove && Other && _pKeptObjects && !_blFreed) {
    if (_pKeptObjects->RemoveItem(Other) >= 0 && _fnObjectRemoved) {
      TLifeWatch watch(this);
      _fnObjectRemoved(Other);
      if (!watch.Alive()) return;
    }
  }
  inherited::NotificationRef(Other, op);
}

// ---- TQUMAOpportunisticReferencingStringList ----
//
// Entries whose object is a referenced persistent hold a reference on it for the referencing
// object (the list itself when none is set), as a referenced list does. Ownership:
//   PutObject  never frees the object it replaces;
//   Delete     frees a plain object when OwnsNonReferencedObjects is set, and any object still
//              alive when OwnsObjects is set;
//   Clear and the destructor free only with OwnsObjects (OwnsNonReferencedObjects is not asked).

TQUMAOpportunisticReferencingStringList::~TQUMAOpportunisticReferencingStringList() {
  OnChange = nullptr;
  OnChanging = nullptr;
  ReleaseObjects(RemoveAllItems());
}

TQUMAReferencedNotification TQUMAOpportunisticReferencingStringList::Callback() noexcept {
  return Bind<&TQUMAOpportunisticReferencingStringList::_NotificationRef>(this);
}

TObject* TQUMAOpportunisticReferencingStringList::_GetReferencingObject() const {
  return _pRefObject ? _pRefObject : const_cast<TQUMAOpportunisticReferencingStringList*>(this);
}

TQUMAReferencedPersistent* TQUMAOpportunisticReferencingStringList::Referenced(TObject* AObject) const {
  if (!AObject || FReferenced.empty()) return nullptr;
  auto it = FReferenced.find(AObject);
  return it == FReferenced.end() ? nullptr : it->second.Object;
}

void TQUMAOpportunisticReferencingStringList::Remember(TQUMAReferencedPersistent* p) {
  auto [it, added] = FReferenced.try_emplace(p, TReferencedEntry{p, 0});
  ++it->second.Count;
}

void TQUMAOpportunisticReferencingStringList::Forget(const TObject* p) {
  auto it = FReferenced.find(p);
  if (it != FReferenced.end() && --it->second.Count <= 0) FReferenced.erase(it);
}

void TQUMAOpportunisticReferencingStringList::TakeReference(TQUMAReferencedPersistent* p, TObject* Holder) {
  if (!p || QUMAIsFreed(p)) return;
  if (_RefAction == _raMemLock) {
    if (Holder != this)
      p->AddMemLockReference(Holder);
    else
      p->AddMemLockReference(this, Callback());
  } else if (Holder == this) {
    p->AddNotifyReference(this, Callback());
  } else if (TQUMAReferencedPersistent* r = QUMAAsReferenced(Holder)) {
    p->AddNotifyReference(r);
  } else if (auto* c = dynamic_cast<TComponent*>(Holder)) {
    p->AddNotifyReference(c);
  }
}

bool TQUMAOpportunisticReferencingStringList::DropReference(TQUMAReferencedPersistent* p, TObject* Holder) {
  if (!p || QUMAIsFreed(p)) return true;
  bool deleted = false;
  if (_RefAction == _raMemLock) {
    p->RemoveMemLockReference(Holder, &deleted);
  } else if (Holder == this) {
    p->RemoveNotifyReference(this, Callback());
  } else if (TQUMAReferencedPersistent* r = QUMAAsReferenced(Holder)) {
    p->RemoveNotifyReference(r);
  } else if (auto* c = dynamic_cast<TComponent*>(Holder)) {
    p->RemoveNotifyReference(c);
  }
  return deleted;
}

void TQUMAOpportunisticReferencingStringList::InsertItem(Integer Index, const UnicodeString& S, TObject* AObject) {
  BeginUpdate();
  try {
    inherited::InsertItem(Index, S, AObject);
    if (TQUMAReferencedPersistent* r = QUMAAsReferenced(AObject)) {
      Remember(r);
      TakeReference(r, _GetReferencingObject());
    }
  } catch (...) {
    EndUpdate();
    throw;
  }
  EndUpdate();
}

void TQUMAOpportunisticReferencingStringList::PutObject(Integer Index, TObject* AObject) {
  CheckIndex(Index);
  TObject* old = Objects(Index);
  if (old == AObject) return;
  BeginUpdate();
  try {
    if (TQUMAReferencedPersistent* r = Referenced(old)) {
      Forget(old);
      DropReference(r, _GetReferencingObject());
    }
    inherited::PutObject(Index, AObject);
    if (TQUMAReferencedPersistent* r = QUMAAsReferenced(AObject)) {
      Remember(r);
      TakeReference(r, _GetReferencingObject());
    }
  } catch (...) {
    EndUpdate();
    throw;
  }
  EndUpdate();
}

void TQUMAOpportunisticReferencingStringList::Delete(Integer Index) {
  CheckIndex(Index);
  Changing();
  TObject* obj = RemoveItem(Index);
  bool freed = false;
  if (TQUMAReferencedPersistent* r = Referenced(obj)) {
    Forget(obj);
    freed = DropReference(r, _GetReferencingObject()) || QUMAIsFreed(r);
  } else if (obj && _GetOwnsNonReferencedObjects()) {
    Free(obj);
    freed = true;
  }
  if (obj && !freed && OwnsObjects()) Free(obj);
  Changed();
}

void TQUMAOpportunisticReferencingStringList::Clear() {
  if (Count() == 0) return;
  Changing();
  ReleaseObjects(RemoveAllItems());
  Changed();
}

void TQUMAOpportunisticReferencingStringList::ReleaseObjects(const std::vector<TObject*>& objects) {
  TObject* const holder = _GetReferencingObject();
  for (auto it = objects.rbegin(); it != objects.rend(); ++it) {
    TObject* obj = *it;
    bool freed = false;
    if (TQUMAReferencedPersistent* r = Referenced(obj)) {
      Forget(obj);
      freed = DropReference(r, holder) || QUMAIsFreed(r);
    }
    if (obj && !freed && OwnsObjects()) Free(obj);
  }
}

Integer TQUMAOpportunisticReferencingStringList::_GetCountOfObject(const TObject* AObject) const {
  Integer n = 0;
  for (Integer i = 0, count = Count(); i < count; ++i)
    if (Objects(i) == AObject) ++n;
  return n;
}

void TQUMAOpportunisticReferencingStringList::_NotificationRef(TQUMAReferencedPersistent* Other, TOperation op) {
  if (op != opRemove || !Other) return;
  const TObject* dying = Other;
  for (Integer i = 0; i < Count(); ++i)
    if (Objects(i) == dying) PutObject(i, nullptr);
}

void TQUMAOpportunisticReferencingStringList::_SetReferencingObject(TObject* Value) {
  if (Count() == 0) {
    _pRefObject = Value;
    return;
  }
  if (!Value || Value == _GetReferencingObject()) return;
  TObject* old = _GetReferencingObject();
  _pRefObject = Value;
  TObject* holder = _GetReferencingObject();
  std::vector<TQUMAReferencedPersistent*> items;
  for (Integer i = 0, count = Count(); i < count; ++i)
    if (TQUMAReferencedPersistent* r = Referenced(Objects(i))) items.push_back(r);
  // The new reference first, so that no object passes through an unreferenced moment.
  for (TQUMAReferencedPersistent* r : items) {
    TakeReference(r, holder);
    DropReference(r, old);
  }
}

}  // namespace quma
