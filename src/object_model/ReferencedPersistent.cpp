#include <quma/ReferencedPersistent.h>

#include <quma/CoreUtils.h>

#include <time.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <cstdint>
#include <utility>

namespace quma {

namespace {

// Every referenced persistent between its constructor and the end of its destructor, by the
// address of its TObject part. QUMAIsFreed looks here before it reads anything, so that it can
// answer for objects whose memory is already gone. (A new object that happens to reuse the
// address of a dead one answers for itself.)
//
// The set is a hash table of memory pages, each with one bit per 8-byte address (objects with a
// virtual table are 8-byte aligned): one 64-byte line answers for every object in a 4 KiB page.
// Objects made or freed together usually sit together in memory, so with 100k objects the
// registry touches one line per page instead of one random line per object (a table of single
// addresses did, and that cache miss was most of the cost of creating and freeing an object).
class TLiveObjects {
  static constexpr unsigned kPageShift = 12;
  static_assert(alignof(TObject) >= 8);
  struct alignas(64) TPageBits {
    std::uint64_t Words[8];
  };

 public:
  void Add(const TObject* p) {
    std::lock_guard<std::mutex> guard(FLock);
    const std::uintptr_t page = PageOf(p);
    std::size_t i = Find(page);
    if (i == kNone) {
      if ((FCount + 1) * 2 > FKeys.size()) Grow();
      i = Home(page);
      while (FKeys[i]) i = (i + 1) & FMask;
      FKeys[i] = page;
      FBits[i] = {};
      ++FCount;
    }
    const auto [word, bit] = BitOf(p);
    FBits[i].Words[word] |= bit;
  }
  void Remove(const TObject* p) {
    std::lock_guard<std::mutex> guard(FLock);
    std::size_t i = Find(PageOf(p));
    if (i == kNone) return;
    const auto [word, bit] = BitOf(p);
    TPageBits& bits = FBits[i];
    bits.Words[word] &= ~bit;
    for (const std::uint64_t w : bits.Words)
      if (w) return;
    // The page's last object: backward-shift deletion keeps every probe chain unbroken without
    // tombstones.
    for (std::size_t j = i;;) {
      j = (j + 1) & FMask;
      if (!FKeys[j]) break;
      const std::size_t k = Home(FKeys[j]);
      const bool movable = i <= j ? (k <= i || k > j) : (k <= i && k > j);
      if (movable) {
        FKeys[i] = FKeys[j];
        FBits[i] = FBits[j];
        i = j;
      }
    }
    FKeys[i] = 0;
    --FCount;
  }
  bool Contains(const TObject* p) {
    std::lock_guard<std::mutex> guard(FLock);
    const std::size_t i = Find(PageOf(p));
    if (i == kNone) return false;
    const auto [word, bit] = BitOf(p);
    return (FBits[i].Words[word] & bit) != 0;
  }

 private:
  static constexpr std::size_t kNone = ~std::size_t{0};
  // The page number plus one, so that no key is zero (zero marks an empty slot).
  static std::uintptr_t PageOf(const TObject* p) noexcept {
    return (reinterpret_cast<std::uintptr_t>(p) >> kPageShift) + 1;
  }
  static std::pair<unsigned, std::uint64_t> BitOf(const TObject* p) noexcept {
    const auto offset = static_cast<unsigned>((reinterpret_cast<std::uintptr_t>(p) >> 3) & 511);
    return {offset >> 6, std::uint64_t{1} << (offset & 63)};
  }
  // Runs of sixteen neighbouring pages take sixteen neighbouring slots (a sweep over objects in
  // memory order then reads the table in order too); the runs themselves are scattered.
  std::size_t Home(std::uintptr_t page) const noexcept {
    auto x = static_cast<std::uint64_t>(page >> 4);
    x ^= x >> 33;
    x *= 0xff51afd7ed558ccdULL;
    x ^= x >> 33;
    return static_cast<std::size_t>((x << 4) | (page & 15)) & FMask;
  }
  std::size_t Find(std::uintptr_t page) const noexcept {
    if (FKeys.empty()) return kNone;
    for (std::size_t i = Home(page);; i = (i + 1) & FMask) {
      if (FKeys[i] == page) return i;
      if (!FKeys[i]) return kNone;
    }
  }
  void Grow() {
    std::vector<std::uintptr_t> oldKeys = std::move(FKeys);
    std::vector<TPageBits> oldBits = std::move(FBits);
    const std::size_t size = oldKeys.empty() ? 256 : oldKeys.size() * 2;
    FKeys.assign(size, 0);
    FBits.assign(size, TPageBits{});
    FMask = size - 1;
    for (std::size_t k = 0; k < oldKeys.size(); ++k)
      if (oldKeys[k]) {
        std::size_t i = Home(oldKeys[k]);
        while (FKeys[i]) i = (i + 1) & FMask;
        FKeys[i] = oldKeys[k];
        FBits[i] = oldBits[k];
      }
  }

  std::mutex FLock;
  std::vector<std::uintptr_t> FKeys;  // open addressing, linear probing; 0 = empty
  std::vector<TPageBits> FBits;       // beside FKeys: the live addresses of that page
  std::size_t FMask = 0;
  std::size_t FCount = 0;  // pages
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

detail::TLockerKind detail::KindOf(const TObject* Holder) noexcept {
  if (!Holder) return TLockerKind::lkOther;
  const TClass cls = Holder->ClassType();
  if (cls->InheritsFrom(TQUMAReferencedPersistent::StaticClass())) return TLockerKind::lkReferenced;
  if (cls->InheritsFrom(TComponent::StaticClass())) return TLockerKind::lkComponent;
  return TLockerKind::lkOther;
}

void detail::TakeContainerReference(TQUMAReferencedPersistent* Item, TObject* Holder, TQUMAReferenceAction Action,
                                    TObject* Self, TQUMAReferencedNotification Callback) {
  if (!Item || QUMAIsFreed(Item)) return;
  if (Action == _raMemLock) {
    if (Holder != Self)
      Item->AddMemLockReference(Holder);
    else
      Item->AddMemLockReference(Self, Callback);
  } else if (Holder == Self) {
    Item->AddNotifyReference(Self, Callback);
  } else if (const auto kind = KindOf(Holder); kind == TLockerKind::lkReferenced) {
    Item->AddNotifyReference(static_cast<TQUMAReferencedPersistent*>(Holder));
  } else if (kind == TLockerKind::lkComponent) {
    Item->AddNotifyReference(static_cast<TComponent*>(Holder));
  }
}

bool detail::DropContainerReference(TQUMAReferencedPersistent* Item, TObject* Holder, TQUMAReferenceAction Action,
                                    TObject* Self, TQUMAReferencedNotification Callback) {
  if (!Item || QUMAIsFreed(Item)) return true;
  bool deleted = false;
  if (Action == _raMemLock) {
    Item->RemoveMemLockReference(Holder, &deleted);
  } else if (Holder == Self) {
    Item->RemoveNotifyReference(Self, Callback);
  } else if (const auto kind = KindOf(Holder); kind == TLockerKind::lkReferenced) {
    Item->RemoveNotifyReference(static_cast<TQUMAReferencedPersistent*>(Holder));
  } else if (kind == TLockerKind::lkComponent) {
    Item->RemoveNotifyReference(static_cast<TComponent*>(Holder));
  }
  return deleted;
}

bool detail::IsSelfReferencingContainer(const TObject* Holder) noexcept {
  const auto* container = dynamic_cast<const IReferencingContainer*>(Holder);
  return container && container->HoldsForItself();
}

// ---- TQUMAReferencedPersistent: construction and plain properties ----

TQUMAReferencedPersistent::TQUMAReferencedPersistent(TPersistent* AOwner)
    : _nCreateSequence(CreationCounter().fetch_add(1, std::memory_order_relaxed)) {
  LiveObjects().Add(this);
  try {
    StoreOwner(AOwner);
    _RPState = {_rpFreeOnUnref};
    _blFreed = false;
    if (_pOwnerRef) _pOwnerRef->AddNotifyReference(this);
  } catch (...) {
    if (_pOwnerRef && !QUMAIsFreed(_pOwnerRef)) _pOwnerRef->RemoveNotifyReference(this);
    Free(std::exchange(_pConsumers, nullptr));
    LiveObjects().Remove(this);
    throw;
  }
}

TQUMAReferencedList<TQUMAReferencedPersistent>* TQUMAReferencedPersistent::NeedConsumers() {
  if (!_pConsumers && !_blFreed) {
    _pConsumers = New<TQUMAReferencedList<TQUMAReferencedPersistent>>();
    _pConsumers->SetReferenceAction(_raNotify);
  }
  return _pConsumers;
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
  const detail::TLockEntry* entry = _pMultiLock.Find(pForObject);
  return entry ? entry->Count : 0;
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
  return static_cast<Integer>(_pLockers.size());
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
  return _dctCustomNotify.Find(Holder);
}

bool TQUMAReferencedPersistent::IsLockedBy(const TObject* Other) const {
  if (_blFreed) return false;
  return _pMultiLock.Find(Other) != nullptr;
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
  if (!Consumer || Consumer == this || HasConsumer(Consumer) || !NeedConsumers()) return;
  _pConsumers->Add(Consumer);
  if (_pConsumers && _pConsumers->ContainsItem(Consumer)) Consumer->NotificationRef(this, opInsert);
}

void TQUMAReferencedPersistent::AddNotifyReference(TComponent* Consumer) {
  if (!Consumer) return;
  if (TQUMAPersistentWrapper* wrapper = _GetWrapper()) wrapper->FreeNotification(Consumer);
}

void TQUMAReferencedPersistent::AddNotifyReference(TObject* Consumer, TQUMAReferencedNotification Notification) {
  if (!Consumer) return;
  const detail::TLockerKind kind = detail::KindOf(Consumer);
  if (kind == detail::TLockerKind::lkReferenced)
    AddNotifyReference(static_cast<TQUMAReferencedPersistent*>(Consumer));
  else if (kind == detail::TLockerKind::lkComponent)
    AddNotifyReference(static_cast<TComponent*>(Consumer));
  if (Notification && !_blFreed) _dctCustomNotify.Set(Consumer, Notification);
}

void TQUMAReferencedPersistent::RemoveNotifyReference(TQUMAReferencedPersistent* Consumer) {
  if (_pConsumers && Consumer) _pConsumers->RemoveItem(Consumer);
}

void TQUMAReferencedPersistent::RemoveNotifyReference(TComponent* Consumer) {
  if (_pWrapper && Consumer) _pWrapper->RemoveFreeNotification(Consumer);
}

void TQUMAReferencedPersistent::RemoveNotifyReference(TObject* Consumer, TQUMAReferencedNotification Notification) {
  if (!Consumer) return;
  const detail::TLockerKind kind = detail::KindOf(Consumer);
  if (kind == detail::TLockerKind::lkReferenced)
    RemoveNotifyReference(static_cast<TQUMAReferencedPersistent*>(Consumer));
  else if (kind == detail::TLockerKind::lkComponent)
    RemoveNotifyReference(static_cast<TComponent*>(Consumer));
  if (Notification) {
    const TQUMAReferencedNotification* stored = _dctCustomNotify.Find(Consumer);
    if (stored && *stored == Notification) _dctCustomNotify.Remove(Consumer);
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
  if (_blFreed || !Consumer) return;
  if (_RPState.Contains(_rpInTwilight) && !LeaveTwilight()) return;
  if (detail::TLockEntry* entry = _pMultiLock.Find(Consumer)) {
    ++entry->Count;
    return;
  }
  _pLockers.push_back(Consumer);
  const detail::TLockerKind kind = detail::KindOf(Consumer);
  auto* r = kind == detail::TLockerKind::lkReferenced ? static_cast<TQUMAReferencedPersistent*>(Consumer) : nullptr;
  auto* c = kind == detail::TLockerKind::lkComponent ? static_cast<TComponent*>(Consumer) : nullptr;
  _pMultiLock.Insert(Consumer, detail::TLockEntry{1, kind});
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
  if (Notification && Consumer && !_blFreed) _dctCustomNotify.Set(Consumer, Notification);
}

void TQUMAReferencedPersistent::RemoveMemLockReference(TObject* Consumer, bool* blDeleted) {
  if (!_blFreed && Consumer) {
    if (detail::TLockEntry* entry = _pMultiLock.Find(Consumer)) {
      if (entry->Count - 1 > 0) {
        --entry->Count;
      } else {
        const detail::TLockerKind kind = entry->Kind;
        _pMultiLock.Erase(Consumer);
        // Lockers usually let go in the reverse order of locking: search from the newest.
        auto pos = std::find(_pLockers.rbegin(), _pLockers.rend(), Consumer);
        if (pos != _pLockers.rend()) _pLockers.erase(std::next(pos).base());
        _dctCustomNotify.Remove(Consumer);
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
  if (!_GetFreeWhenUnreferenced() || !_pLockers.empty() || _blFreed ||
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
  if (_blFreed) return;
  if (std::find(_pFreeIndicators.begin(), _pFreeIndicators.end(), &blIndicator) == _pFreeIndicators.end())
    _pFreeIndicators.push_back(&blIndicator);
}

void TQUMAReferencedPersistent::UnregisterFreeIndicator(bool& blIndicator) {
  auto pos = std::find(_pFreeIndicators.rbegin(), _pFreeIndicators.rend(), &blIndicator);
  if (pos != _pFreeIndicators.rend()) _pFreeIndicators.erase(std::next(pos).base());
}

void TQUMAReferencedPersistent::RegisterSilentReference(PQUMAReferencedPersistent pReference) {
  if (_blFreed || !pReference) return;
  if (std::find(_pRegPointers.begin(), _pRegPointers.end(), pReference) == _pRegPointers.end())
    _pRegPointers.push_back(pReference);
}

void TQUMAReferencedPersistent::UnregisterSilentReference(PQUMAReferencedPersistent pReference) {
  auto pos = std::find(_pRegPointers.rbegin(), _pRegPointers.rend(), pReference);
  if (pos != _pRegPointers.rend()) _pRegPointers.erase(std::next(pos).base());
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
  // A dying locker forgets what it locked. An object that is itself going does not tell back:
  // with two objects that lock each other that would bounce between them for ever.
  if (!deleted && Other && Other != this && !_RPState.Contains(_rpFreeing) && IsLockedBy(Other))
    Other->NotificationRef(this, opRemove);
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
  TObject* locker = _pLockers[index];
  _pLockers.erase(_pLockers.begin() + index);
  _pMultiLock.Erase(locker);
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
  while (!_pLockers.empty()) {
    const std::size_t i = _pLockers.size() - 1;
    TObject* locker = _pLockers[i];
    if (locker == this) {
      EraseLockerAt(i);
      continue;
    }
    const detail::TLockEntry* entry = _pMultiLock.Find(locker);
    if (entry && entry->Kind == detail::TLockerKind::lkReferenced)
      if (TQUMAReferencedPersistent* r = QUMAAsReferenced(locker)) r->NotificationRef(this, opRemove);
    if (i < _pLockers.size()) EraseLockerAt(i);
  }

  // Callback holders, in the order they first asked.
  if (!_dctCustomNotify.Empty()) {
    const auto keys = _dctCustomNotify.Keys();
    for (TObject* key : keys) {
      const TQUMAReferencedNotification* stored = _dctCustomNotify.Find(key);
      if (!stored) continue;
      const TQUMAReferencedNotification callback = *stored;
      callback(this, opRemove);
      _dctCustomNotify.Remove(key);
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
    _pLockers.clear();
    _pMultiLock.Clear();
    _dctCustomNotify.Clear();
    _RPState.Include(_rpFreed);
    _blFreed = true;
    auto indicators = std::move(_pFreeIndicators);
    for (auto it = indicators.rbegin(); it != indicators.rend(); ++it) **it = true;
    auto refs = std::move(_pRegPointers);
    for (auto it = refs.rbegin(); it != refs.rend(); ++it)
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

void TQUMAReferencedPersistentSafeBox::BeforeDestruction() {
  // Before the first phase: it would tell the kept objects (consumers of the box) to drop the
  // box's locks, and a kept object that does not free itself would then escape FreeAllObjects.
  if (!_RPState.Contains(_rpFreeing)) {
    if (_blFreeOnDestroy)
      FreeAllObjects();
    else
      Clear();
  }
  inherited::BeforeDestruction();
}

TQUMAReferencedPersistentSafeBox::~TQUMAReferencedPersistentSafeBox() { Free(std::exchange(_pKeptObjects, nullptr)); }

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
    // Other may be told back while the box is the one going: losing the box's lock can then
    // free it, and a freed object is never handed to the callback.
    bool otherFreed = QUMAIsFreed(Other);
    if (!otherFreed) Other->RegisterFreeIndicator(otherFreed);
    const bool removed = _pKeptObjects->RemoveItem(Other) >= 0;
    if (!otherFreed) Other->UnregisterFreeIndicator(otherFreed);
    if (removed && !otherFreed && _fnObjectRemoved) {
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
  detail::TakeContainerReference(p, Holder, _RefAction, this, Callback());
}

bool TQUMAOpportunisticReferencingStringList::DropReference(TQUMAReferencedPersistent* p, TObject* Holder) {
  return detail::DropContainerReference(p, Holder, _RefAction, this, Callback());
}

void TQUMAOpportunisticReferencingStringList::InsertItem(Integer Index, const UnicodeString& S, TObject* AObject) {
  const auto update = UpdateScope(*this);
  inherited::InsertItem(Index, S, AObject);
  if (TQUMAReferencedPersistent* r = QUMAAsReferenced(AObject)) {
    Remember(r);
    TakeReference(r, _GetReferencingObject());
  }
}

void TQUMAOpportunisticReferencingStringList::PutObject(Integer Index, TObject* AObject) {
  CheckIndex(Index);
  TObject* old = Objects(Index);
  if (old == AObject) return;
  const auto update = UpdateScope(*this);
  if (TQUMAReferencedPersistent* r = Referenced(old)) {
    Forget(old);
    DropReference(r, _GetReferencingObject());
  }
  inherited::PutObject(Index, AObject);
  if (TQUMAReferencedPersistent* r = QUMAAsReferenced(AObject)) {
    Remember(r);
    TakeReference(r, _GetReferencingObject());
  }
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

Integer TQUMAOpportunisticReferencingStringList::EntriesHolding(const TObject* AObject) const {
  auto it = FReferenced.find(AObject);
  return it == FReferenced.end() ? 0 : it->second.Count;
}

void TQUMAOpportunisticReferencingStringList::RetargetEntries(const TObject* From, TQUMAReferencedPersistent* To) {
  if (!From || !To || From == To || EntriesHolding(From) == 0) return;
  const auto update = UpdateScope(*this);
  for (Integer i = 0; i < Count(); ++i)
    if (Objects(i) == From) {
      Forget(From);
      inherited::PutObject(i, To);
      Remember(To);
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
