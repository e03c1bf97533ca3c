// Reference-tracked objects and the containers that hold them.
//
// A TQUMAReferencedPersistent knows who holds it and how:
//   - consumers (notify references) are told through NotificationRef when it goes away;
//   - lockers (memory locks, counted per locker) keep it alive; with FreeWhenUnreferenced set it
//     frees itself when the last lock goes (unless an OnEnterTwilight handler keeps it);
//   - silent references are pointer variables it sets to null when it dies;
//   - free indicators are booleans it sets to true when it dies.
// Holders may be other referenced persistents, host components (linked through a
// TQUMAPersistentWrapper) or any object that supplies a TQUMAReferencedNotification callback.
//
//   auto* doc = New<TDocument>(nullptr);
//   doc->AddMemLockReference(view);       // view keeps doc alive
//   TQUMAGuardedPtr<TDocument> weak(doc); // nulls itself when doc dies
//   doc->RemoveMemLockReference(view);    // last lock: doc frees itself; weak is now null
//
// The containers take references for their items on behalf of a referencing object:
// TQUMAReferencedList<T>, TQUMAReferencedPersistentSafeBox and
// TQUMAOpportunisticReferencingStringList. See docs/object_model.md for the whole protocol,
// including how QUMAIsFreed answers for objects whose memory is already gone.
//
// Nothing here is thread-safe: an object and everything that references it belong to one thread
// at a time (only the live-object registry behind QUMAIsFreed is shared and locked).
#pragma once

#include <quma/Export.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

#include <quma/Classes.h>
#include <quma/Generics.h>
#include <quma/Method.h>
#include <quma/Monitor.h>
#include <quma/Object.h>
#include <quma/StringList.h>
#include <quma/SubscribedEvent.h>
#include <quma/SubscribedGenerics.h>
#include <quma/System.h>

QUMA_PUBLIC_BEGIN
namespace quma {

class TQUMAReferencedPersistent;
class TQUMAPersistentWrapper;
template <class T>
class TQUMAReferencedList;

// A variable holding a referenced persistent, as a silent reference names it.
using PQUMAReferencedPersistent = TQUMAReferencedPersistent**;
using TQUMAReferencedPersistentClass = TClassOf<TQUMAReferencedPersistent>;

enum class TQUMAReferencedPersistentState : Byte {
  _rpFreeOnUnref,
  _rpFreeing,
  _rpReadyToFree,
  _rpFreed,
  _rpCompOwnerLoaded,
  _rpCompOwnerDesigning,
  _rpCompOwnerDesignChecked,
  _rpInTwilight
};
using enum TQUMAReferencedPersistentState;
using TQUMAReferencedPersistentStates = TSet<TQUMAReferencedPersistentState, 8>;

// The shape of every reference notification: Other is going (remove) or was linked (insert).
using TQUMAReferencedNotification = TMethod<void(TQUMAReferencedPersistent* Other, TOperation op)>;
// Asked before an unreferenced object frees itself; setting blStopNightFalling keeps it.
using TQUMATwilightFalling = TMethod<void(TObject* Sender, bool& blStopNightFalling)>;
using TComponentNotification = TMethod<void(TComponent* AComponent, TOperation op)>;

// Which reference a container takes on its items.
enum class TQUMAReferenceAction { _raMemLock, _raNotify };
using enum TQUMAReferenceAction;

// Vocabulary for referenced dictionaries (declared for callers; nothing here uses it).
enum class TQUMADictionaryReferences { drReferencesKeys, drReferencesValues, drOwnsKeys, drOwnsValues };
using enum TQUMADictionaryReferences;
enum class TQUMARefDictionaryAction { _rda_OwnsUnrefKeys, _rda_OwnsUnrefValues };
using enum TQUMARefDictionaryAction;
using TQUMARefDictionaryActions = TSet<TQUMARefDictionaryAction>;

// True when p is null or names no live referenced persistent, or when the object has released
// its bookkeeping (it is inside its destructor). Safe for pointers whose memory is already gone:
// the address is looked up in the registry of live objects before anything is read.
bool QUMAIsFreed(const TQUMAReferencedPersistent* p) noexcept;
// QUMAIsFreed, or the object's destruction has begun.
bool QUMAIsFreeing(const TQUMAReferencedPersistent* p) noexcept;
// The object seen as a referenced persistent when it is a live one (no read of dead memory).
TQUMAReferencedPersistent* QUMAAsReferenced(TObject* p) noexcept;

namespace detail {
// A short list kept in place while it holds at most N items (most objects have one locker, one
// callback holder, a free indicator or two), on the heap beyond that. Order is kept. The in-place
// items share their storage with the heap pointer, so an empty list costs N pointers and a count.
template <class T, std::size_t N>
class TSmallList {
  static_assert(std::is_trivially_copyable_v<T> && N >= 1);
  static constexpr std::uint32_t kOnHeap = ~std::uint32_t{0};

 public:
  TSmallList() noexcept : FInline{} {}
  TSmallList(const TSmallList&) = delete;
  TSmallList& operator=(const TSmallList&) = delete;
  TSmallList(TSmallList&& o) noexcept : FInline{} { Take(o); }
  TSmallList& operator=(TSmallList&& o) noexcept {
    if (this != &o) {
      clear();
      Take(o);
    }
    return *this;
  }
  ~TSmallList() { clear(); }

  T* begin() noexcept { return OnHeap() ? FHeap->data() : FInline; }
  T* end() noexcept { return begin() + size(); }
  const T* begin() const noexcept { return OnHeap() ? FHeap->data() : FInline; }
  const T* end() const noexcept { return begin() + size(); }
  std::reverse_iterator<T*> rbegin() noexcept { return std::reverse_iterator<T*>(end()); }
  std::reverse_iterator<T*> rend() noexcept { return std::reverse_iterator<T*>(begin()); }
  std::size_t size() const noexcept { return OnHeap() ? FHeap->size() : FSize; }
  bool empty() const noexcept { return size() == 0; }
  T& operator[](std::size_t i) noexcept { return begin()[i]; }
  const T& operator[](std::size_t i) const noexcept { return begin()[i]; }

  void push_back(const T& value) {
    if (!OnHeap()) {
      if (FSize < N) {
        FInline[FSize++] = value;
        return;
      }
      auto* heap = new std::vector<T>();
      try {
        heap->reserve(N * 2 + 2);
      } catch (...) {
        delete heap;
        throw;
      }
      heap->assign(FInline, FInline + FSize);
      FHeap = heap;
      FSize = kOnHeap;
    }
    FHeap->push_back(value);
  }
  void erase(T* pos) noexcept {
    if (OnHeap()) {
      FHeap->erase(FHeap->begin() + (pos - FHeap->data()));
      return;
    }
    std::copy(pos + 1, FInline + FSize, pos);
    --FSize;
  }
  void clear() noexcept {
    if (OnHeap()) delete FHeap;
    FSize = 0;
  }

 private:
  bool OnHeap() const noexcept { return FSize == kOnHeap; }
  void Take(TSmallList& o) noexcept {
    if (o.OnHeap())
      FHeap = o.FHeap;
    else
      std::copy(o.FInline, o.FInline + o.FSize, FInline);
    FSize = o.FSize;
    o.FSize = 0;
  }

  union {
    T FInline[N];
    std::vector<T>* FHeap;  // once more than N items were held
  };
  std::uint32_t FSize = 0;  // in place; kOnHeap when the items are in FHeap
};

// Hashes an object address so that objects near each other in memory (made one after another)
// land in nearby buckets: walking many objects in order then walks the bucket array in order too,
// instead of one cache miss per object once the table outgrows the caches. (The identity hash of
// std::hash spreads objects 8 bytes of bucket array per byte of address apart.)
struct TAddressHash {
  std::size_t operator()(const void* p) const noexcept { return reinterpret_cast<std::uintptr_t>(p) >> 4; }
};

// Values by object, the first one kept in place. Keys are never null (null marks the empty
// first slot).
template <class V>
class TInlineMap {
 public:
  V* Find(const TObject* key) noexcept {
    if (FFirstKey == key && key) return &FFirstValue;
    if (!FMore || FMore->empty()) return nullptr;
    auto it = FMore->find(key);
    return it == FMore->end() ? nullptr : &it->second;
  }
  const V* Find(const TObject* key) const noexcept { return const_cast<TInlineMap*>(this)->Find(key); }
  // The key must not be present.
  void Insert(const TObject* key, const V& value) {
    if (!FFirstKey) {
      FFirstKey = key;
      FFirstValue = value;
      return;
    }
    if (!FMore) FMore = std::make_unique<std::unordered_map<const TObject*, V, TAddressHash>>();
    FMore->emplace(key, value);
  }
  bool Erase(const TObject* key) {
    if (FFirstKey == key && key) {
      FFirstKey = nullptr;
      FFirstValue = V{};
      return true;
    }
    return FMore && FMore->erase(key) != 0;
  }
  std::size_t Count() const noexcept { return (FFirstKey ? 1 : 0) + (FMore ? FMore->size() : 0); }
  void Clear() noexcept {
    FFirstKey = nullptr;
    FFirstValue = V{};
    FMore.reset();
  }

 private:
  const TObject* FFirstKey = nullptr;
  V FFirstValue{};
  std::unique_ptr<std::unordered_map<const TObject*, V, TAddressHash>> FMore;
};

// Callback holders in the order they first asked (the order in which they are told). One object
// may be watched for many others (a consumer of 100k objects), so a removal finds its place in
// the order through the entry and leaves a hole; the holes are squeezed out when they are half.
class TNotifyHolders {
 public:
  bool Empty() const noexcept { return FValues.Count() == 0; }
  std::size_t Count() const noexcept { return FValues.Count(); }
  void Set(TObject* key, const TQUMAReferencedNotification& fn) {
    if (TEntry* stored = FValues.Find(key)) {
      stored->Fn = fn;
      return;
    }
    FOrder.push_back(key);
    try {
      FValues.Insert(key, TEntry{fn, FOrder.size() - 1});
    } catch (...) {
      FOrder.erase(FOrder.end() - 1);
      throw;
    }
  }
  const TQUMAReferencedNotification* Find(const TObject* key) const noexcept {
    const TEntry* stored = FValues.Find(key);
    return stored ? &stored->Fn : nullptr;
  }
  bool Remove(const TObject* key) {
    const TEntry* stored = FValues.Find(key);
    if (!stored) return false;
    const std::size_t pos = stored->Pos;
    FValues.Erase(key);
    FOrder[pos] = nullptr;
    if (++FHoles * 2 > FOrder.size()) Squeeze();
    return true;
  }
  // A copy of the holders, in order (in place for the usual one or two).
  TSmallList<TObject*, 2> Keys() const {
    TSmallList<TObject*, 2> keys;
    for (TObject* key : FOrder)
      if (key) keys.push_back(key);
    return keys;
  }
  void Clear() noexcept {
    FOrder.clear();
    FValues.Clear();
    FHoles = 0;
  }

 private:
  struct TEntry {
    TQUMAReferencedNotification Fn;
    std::size_t Pos = 0;  // in FOrder
  };
  void Squeeze() noexcept {
    std::size_t to = 0;
    for (std::size_t from = 0; from < FOrder.size(); ++from)
      if (TObject* key = FOrder[from]) {
        FOrder[to] = key;
        FValues.Find(key)->Pos = to++;
      }
    while (FOrder.size() > to) FOrder.erase(FOrder.end() - 1);
    FHoles = 0;
  }

  TSmallList<TObject*, 1> FOrder;  // null: a removed holder
  TInlineMap<TEntry> FValues;
  std::size_t FHoles = 0;
};

// Lets a loop notice that a handler freed the container it walks (the container kills every
// flag of its chain when it dies). Linked out of line: the compiler cannot follow the chain and
// would take the link for a dangling pointer.
class TLifeFlag {
 public:
  explicit TLifeFlag(TLifeFlag*& slot) noexcept { Link(slot); }
  TLifeFlag(const TLifeFlag&) = delete;
  TLifeFlag& operator=(const TLifeFlag&) = delete;
  ~TLifeFlag() {
    if (Alive) *FSlot = FPrevious;
  }
  static void KillAll(TLifeFlag* head) noexcept {
    for (; head; head = head->FPrevious) head->Alive = false;
  }
  bool Alive = true;

 private:
  [[gnu::noinline]] void Link(TLifeFlag*& slot) noexcept {
    FSlot = &slot;
    FPrevious = slot;
    slot = this;
  }
  TLifeFlag** FSlot = nullptr;
  TLifeFlag* FPrevious = nullptr;
};

// A container that takes references on its items. One that holds them for itself (through its
// own callback) keeps them when an item is swapped for a replacement: it hears of the old item's
// end as usual, or follows the swap itself.
class IReferencingContainer {
 public:
  virtual bool HoldsForItself() const noexcept = 0;

 protected:
  ~IReferencingContainer() = default;
};
// Holder is a container that references its items for itself.
bool IsSelfReferencingContainer(const TObject* Holder) noexcept;

// How a locker learns of the object's death, fixed when it first locks.
enum class TLockerKind : Byte { lkOther, lkReferenced, lkComponent };
struct TLockEntry {
  Integer Count = 0;
  TLockerKind Kind = TLockerKind::lkOther;
};
// The kind of a live holder, from its class (no registry look-up).
TLockerKind KindOf(const TObject* Holder) noexcept;
// The reference a container takes on an item for Holder: a memory lock, or a notify reference
// matching the holder's kind. A container that holds for itself (Holder == Self) is told through
// Callback. Items already freed are left alone.
void TakeContainerReference(TQUMAReferencedPersistent* Item, TObject* Holder, TQUMAReferenceAction Action,
                            TObject* Self, TQUMAReferencedNotification Callback);
// Undoes TakeContainerReference; true when releasing a memory lock freed the item.
bool DropContainerReference(TQUMAReferencedPersistent* Item, TObject* Holder, TQUMAReferenceAction Action,
                            TObject* Self, TQUMAReferencedNotification Callback);
}  // namespace detail

class TQUMAReferencedPersistent : public TPersistent, public IInterface {
  QUMA_CLASS(TQUMAReferencedPersistent, TPersistent)
  QUMA_VIRTUAL_CONSTRUCTOR(TPersistent*)
 public:
  explicit TQUMAReferencedPersistent(TPersistent* AOwner = nullptr);
  void BeforeDestruction() override;

  // ---- properties ----
  Integer LockCount(const TObject* pForObject) const { return _GetLockCount(pForObject); }
  bool FreeWhenUnreferenced() const { return _GetFreeWhenUnreferenced(); }
  void SetFreeWhenUnreferenced(bool Value) { _SetFreeWhenUnreferenced(Value); }
  TQUMATwilightFalling OnEnterTwilight() const { return _GetOnEnterTwilight(); }
  void SetOnEnterTwilight(TQUMATwilightFalling Value) { _SetOnEnterTwilight(Value); }
  TNotifyEvent OnLeaveTwilight() const { return _GetOnLeaveTwilight(); }
  void SetOnLeaveTwilight(TNotifyEvent Value) { _SetOnLeaveTwilight(Value); }
  TPersistent* Owner() const { return _GetOwner(); }
  void SetOwner(TPersistent* Value) { _SetOwner(Value); }
  TComponent* OwningComponent() const { return _GetOwningComponent(); }
  Integer MemLockReferenceCount() const { return _GetMemLockReferenceCount(); }
  Integer NotifyReferenceCount() const { return _GetNotifyReferenceCount(); }
  Integer TotalReferenceCount() const { return _GetTotalReferenceCount(); }
  TQUMAPersistentWrapper* Wrapper() { return _GetWrapper(); }
  // Whether the bookkeeping is released / destruction has begun. Also true for an object whose
  // memory is gone; under a checker that validates every member call (UBSan's vptr check) ask
  // QUMAIsFreed(p) instead, which never touches the object.
  bool _GetFreed() const noexcept { return QUMAIsFreed(this); }
  bool _GetFreeing() const noexcept { return QUMAIsFreeing(this); }
  bool _Freed() const noexcept { return _GetFreed(); }
  bool _Freeing() const noexcept { return _GetFreeing(); }
  TQUMAReferencedPersistentStates RPState() const noexcept { return _RPState; }
  Cardinal CreateSequence() const noexcept { return _nCreateSequence; }

  // ---- virtual operations, in slot order ----
  virtual bool _GetFreeWhenUnreferenced() const;
  virtual Integer _GetLockCount(const TObject* pForObject) const;
  virtual TQUMATwilightFalling _GetOnEnterTwilight() const;
  virtual TNotifyEvent _GetOnLeaveTwilight() const;
  virtual TPersistent* _GetOwner() const;
  // The first host component up the owner chain, starting at the owner.
  virtual TComponent* _GetOwningComponent() const;
  // Number of lockers (not of locks).
  virtual Integer _GetMemLockReferenceCount() const;
  virtual Integer _GetNotifyReferenceCount() const;
  virtual TQUMAReferencedPersistent* _GetSelf();
  virtual Integer _GetTotalReferenceCount() const;
  // The proxy component for host components, created on first use.
  virtual TQUMAPersistentWrapper* _GetWrapper();
  // A host component linked through the wrapper is going: drops one of its locks.
  virtual void Notification(TComponent* AComponent, TOperation Operation);
  // Other is going (remove): forget it as owner and consumer, and drop all of its locks.
  virtual void NotificationRef(TQUMAReferencedPersistent* Other, TOperation op);
  virtual void _SetFreeWhenUnreferenced(bool Value);
  virtual void _SetOnEnterTwilight(TQUMATwilightFalling Value);
  virtual void _SetOnLeaveTwilight(TNotifyEvent Value);
  // Moves the notify reference from the old referenced-persistent owner to the new one.
  virtual void _SetOwner(TPersistent* Value);
  virtual void AddMemLockReference(TObject* Consumer);
  virtual void AddMemLockReference(TObject* Consumer, TQUMAReferencedNotification Notification);
  virtual void AddNotifyReference(TQUMAReferencedPersistent* Consumer);
  virtual void AddNotifyReference(TComponent* Consumer);
  virtual void AddNotifyReference(TObject* Consumer, TQUMAReferencedNotification Notification);
  // Cached once, both answers.
  virtual bool ComponentOwnerIsDesigning();
  // Never cached.
  virtual bool ComponentOwnerIsDestroying() const;
  // Only the negative answer is cached.
  virtual bool ComponentOwnerIsLoading();
  // Frees the object when it may free itself and nobody locks it; true when it did.
  virtual bool FreeIfUnreferenced();
  HRESULT QueryInterface(const TGUID& IID, void** Obj) override;
  // The first referenced persistent up the owner chain of pCandidate, starting at its owner.
  virtual TQUMAReferencedPersistent* ReferencedPersistentOwner(const TPersistent* pCandidate) const;
  virtual void RegisterFreeIndicator(bool& blIndicator);
  virtual void RegisterSilentReference(PQUMAReferencedPersistent pReference);
  // Drops one lock of Consumer (all bookkeeping of it with the last one), then frees the object
  // if it is unreferenced; *blDeleted tells whether it did.
  virtual void RemoveMemLockReference(TObject* Consumer, bool* blDeleted = nullptr);
  virtual void RemoveNotifyReference(TQUMAReferencedPersistent* Consumer);
  virtual void RemoveNotifyReference(TComponent* Consumer);
  virtual void RemoveNotifyReference(TObject* Consumer, TQUMAReferencedNotification Notification);
  virtual void UnregisterFreeIndicator(bool& blIndicator);
  virtual void UnregisterSilentReference(PQUMAReferencedPersistent pReference);

  bool IsLockedBy(const TObject* Other) const;
  // Interface references never govern the lifetime.
  Integer _AddRef() override { return -1; }
  Integer _Release() override { return -1; }
  bool GetInterface(const TGUID& IID, void** Obj) override;

  // Public so that the class and its descendants can be created through their class reference
  // (the virtual constructor); release objects with Free, never with delete.
  ~TQUMAReferencedPersistent() override;

 protected:
  TPersistent* GetOwner() const override { return _GetOwner(); }
  bool EnterDestruction() noexcept override;

  // Whether Consumer is among the consumers (constant time).
  bool HasConsumer(const TQUMAReferencedPersistent* Consumer) const;
  // The callback a holder stored, or null.
  const TQUMAReferencedNotification* CustomNotification(const TObject* Holder) const;

  // The bookkeeping is held in place (empty containers cost no allocation) and released by the
  // destructor, after which _blFreed is set and every reference operation does nothing. The
  // consumer list is created with the first consumer.
  Cardinal _nCreateSequence;
  detail::TSmallList<TObject*, 1> _pLockers;
  TQUMAReferencedList<TQUMAReferencedPersistent>* _pConsumers = nullptr;
  detail::TNotifyHolders _dctCustomNotify;
  detail::TInlineMap<detail::TLockEntry> _pMultiLock;
  detail::TSmallList<bool*, 2> _pFreeIndicators;
  detail::TSmallList<PQUMAReferencedPersistent, 2> _pRegPointers;
  TPersistent* _pOwner = nullptr;
  TQUMAPersistentWrapper* _pWrapper = nullptr;
  TQUMAReferencedPersistentStates _RPState;
  bool _blFreed = false;
  TQUMATwilightFalling _fnEnterTwilight;
  TNotifyEvent _fnLeaveTwilight;

 private:
  friend bool QUMAIsFreed(const TQUMAReferencedPersistent* p) noexcept;
  friend bool QUMAIsFreeing(const TQUMAReferencedPersistent* p) noexcept;

  void StoreOwner(TPersistent* Value);
  TQUMAReferencedList<TQUMAReferencedPersistent>* NeedConsumers();
  void RunDestructionPhaseOne();
  void EraseLockerAt(std::size_t index);
  bool LeaveTwilight();  // false when the leave handler freed the object

  TQUMAReferencedPersistent* _pOwnerRef = nullptr;  // the owner when it is a referenced persistent
  bool _blInDestruction = false;
};

// ---- free functions: clear the variable first, then act on the object it held ----

template <class T>
  requires std::is_base_of_v<TQUMAReferencedPersistent, T>
void DiscardAndNil(T*& p) {
  T* obj = std::exchange(p, nullptr);
  if (obj) obj->FreeIfUnreferenced();
}
template <class T>
  requires std::is_base_of_v<TQUMAReferencedPersistent, T>
void RemoveNotifyAndNil(T*& p, TQUMAReferencedPersistent* Consumer) {
  if (!p || !Consumer) return;
  T* obj = std::exchange(p, nullptr);
  obj->RemoveNotifyReference(Consumer);
}
template <class T>
  requires std::is_base_of_v<TQUMAReferencedPersistent, T>
void RemoveNotifyAndNil(T*& p, TComponent* Consumer) {
  if (!p || !Consumer) return;
  T* obj = std::exchange(p, nullptr);
  obj->RemoveNotifyReference(Consumer);
}
template <class T>
  requires std::is_base_of_v<TQUMAReferencedPersistent, T>
void RemoveNotifyAndNil(T*& p, TObject* Consumer, TQUMAReferencedNotification Notification) {
  if (!p || !Consumer) return;
  T* obj = std::exchange(p, nullptr);
  obj->RemoveNotifyReference(Consumer, Notification);
}
// Drops one lock of Consumer, which may free the object.
template <class T>
  requires std::is_base_of_v<TQUMAReferencedPersistent, T>
void UnlockAndNil(T*& p, TObject* Consumer) {
  if (!p || !Consumer) return;
  T* obj = std::exchange(p, nullptr);
  obj->RemoveMemLockReference(Consumer, nullptr);
}

// ---- scope helpers over silent references and memory locks ----

// A pointer that nulls itself when the object dies (a silent reference that registers and
// unregisters itself). It owns nothing and keeps nothing alive.
template <class T>
class TQUMAGuardedPtr {
 public:
  static_assert(std::is_base_of_v<TQUMAReferencedPersistent, T>);

  TQUMAGuardedPtr() noexcept = default;
  TQUMAGuardedPtr(T* p) { Attach(p); }  // NOLINT: implicit like a raw pointer
  TQUMAGuardedPtr(const TQUMAGuardedPtr& o) { Attach(o.Get()); }
  TQUMAGuardedPtr(TQUMAGuardedPtr&& o) {
    Attach(o.Get());
    o.Reset();
  }
  TQUMAGuardedPtr& operator=(const TQUMAGuardedPtr& o) {
    if (this != &o) Reset(o.Get());
    return *this;
  }
  TQUMAGuardedPtr& operator=(TQUMAGuardedPtr&& o) {
    if (this != &o) {
      Reset(o.Get());
      o.Reset();
    }
    return *this;
  }
  TQUMAGuardedPtr& operator=(T* p) {
    Reset(p);
    return *this;
  }
  ~TQUMAGuardedPtr() { Detach(); }

  void Reset(T* p = nullptr) {
    if (p == Get()) return;
    Detach();
    Attach(p);
  }
  T* Get() const noexcept { return static_cast<T*>(FObject); }
  T* operator->() const noexcept { return Get(); }
  T& operator*() const noexcept { return *Get(); }
  explicit operator bool() const noexcept { return FObject != nullptr; }
  friend bool operator==(const TQUMAGuardedPtr& a, const T* b) noexcept { return a.Get() == b; }

 private:
  void Attach(T* p) {
    if (!p || QUMAIsFreed(p)) return;
    FObject = p;
    FObject->RegisterSilentReference(&FObject);
  }
  void Detach() {
    if (TQUMAReferencedPersistent* p = std::exchange(FObject, nullptr)) p->UnregisterSilentReference(&FObject);
  }

  TQUMAReferencedPersistent* FObject = nullptr;
};

// Holds one memory lock for Holder while in scope; the release may free the object. The object
// may also die by other hands meanwhile (an explicit Free); the guard then releases nothing.
template <class T>
class [[nodiscard]] TQUMAMemLockGuard {
 public:
  static_assert(std::is_base_of_v<TQUMAReferencedPersistent, T>);

  TQUMAMemLockGuard(T* p, TObject* Holder) : FObject(p), FHolder(Holder) {
    if (FObject && FHolder) FObject->AddMemLockReference(FHolder);
  }
  TQUMAMemLockGuard(TQUMAMemLockGuard&& o)
      : FObject(std::move(o.FObject)), FHolder(std::exchange(o.FHolder, nullptr)) {}
  TQUMAMemLockGuard(const TQUMAMemLockGuard&) = delete;
  TQUMAMemLockGuard& operator=(const TQUMAMemLockGuard&) = delete;
  TQUMAMemLockGuard& operator=(TQUMAMemLockGuard&&) = delete;
  ~TQUMAMemLockGuard() { Release(); }

  // Drops the lock now; true when that freed the object.
  bool Release() {
    T* p = FObject.Get();
    FObject.Reset();
    if (!p || !FHolder) return false;
    bool deleted = false;
    p->RemoveMemLockReference(std::exchange(FHolder, nullptr), &deleted);
    return deleted;
  }
  T* Get() const noexcept { return FObject.Get(); }
  T* operator->() const noexcept { return FObject.Get(); }

 private:
  TQUMAGuardedPtr<T> FObject;
  TObject* FHolder;
};

// ---- TQUMAReferencedList<T> ----

// A subscribed list of referenced persistents that references each item on behalf of its
// referencing object: a memory lock (default) or a notify reference. With no referencing object
// the list itself is the holder, through a callback, and an item that dies elsewhere drops out
// of the list by itself.
template <class T>
class TQUMAReferencedList : public TQUMASubscribedList<T*>, public detail::IReferencingContainer {
  QUMA_CLASS(TQUMAReferencedList, TQUMASubscribedList<T*>)
 public:
  static_assert(std::is_base_of_v<TQUMAReferencedPersistent, T>);
  using TCollectionNotifyEvent = typename TQUMASubscribedList<T*>::TCollectionNotifyEvent;

  TQUMAReferencedList() = default;
  explicit TQUMAReferencedList(TObject* ReferencingObject) : _pRefObject(ReferencingObject) {}

  // Removes the items from the last to the first while the list is whole, so that each
  // removal drops its reference.
  void BeforeDestruction() override {
    Clear();
    // Items whose removal was under way when a handler freed the list.
    for (auto& pending : FPending)
      if (!std::exchange(pending.Dropped, true)) DropReference(pending.Item, _GetReferencingObject(), _RefAction);
    inherited::BeforeDestruction();
  }

  // The holder of the references: the referencing object, or the list itself.
  TObject* ReferencingObject() const { return _GetReferencingObject(); }
  void SetReferencingObject(TObject* Value) { _SetReferencingObject(Value); }
  TQUMAReferenceAction ReferenceAction() const noexcept { return _RefAction; }
  // Chosen while the list is empty (the items' references keep the kind they were taken with;
  // a change on a non-empty list is ignored).
  void SetReferenceAction(TQUMAReferenceAction Value) noexcept {
    if (this->Count() == 0) _RefAction = Value;
  }

  // Deletes the items one by one from the last to the first.
  void Clear() {
    detail::TLifeFlag alive(FAlive);
    while (alive.Alive && this->Count() > 0) this->Delete(this->Count() - 1);
  }
  // Constant-time membership and occurrence count (an index kept beside the items).
  bool ContainsItem(const T* Item) const { return ItemCount(Item) > 0; }
  Integer ItemCount(const T* Item) const {
    const auto it = FIndex.find(static_cast<const TQUMAReferencedPersistent*>(Item));
    return it == FIndex.end() ? 0 : it->second;
  }
  // Removes the first occurrence; returns its former index or -1. Finds it without a full
  // scan when the item occurs once.
  Integer RemoveItem(const T* Item) {
    const Integer index = FirstIndexFrom(static_cast<const TQUMAReferencedPersistent*>(Item), 0);
    if (index >= 0) this->Delete(index);
    return index;
  }

  virtual TObject* _GetReferencingObject() const {
    return _pRefObject ? _pRefObject : const_cast<TQUMAReferencedList*>(this);
  }
  bool HoldsForItself() const noexcept override { return !_pRefObject || _pRefObject == this; }
  // An item that the list references through its callback is going: delete every occurrence.
  virtual void _NotificationRef(TQUMAReferencedPersistent* Other, TOperation op) {
    if (op != opRemove || !Other) return;
    TMonitor::Enter(this);
    auto* const holder = this->_GetNotifications();
    detail::TLifeFlag alive(FAlive);
    Integer i = 0;
    while (this->_GetNotifications() == holder) {
      i = FirstIndexFrom(Other, i);
      if (i < 0) break;
      this->Delete(i);
      if (!alive.Alive) return;  // a removal handler freed the list, monitor and all
    }
    if (this->_GetNotifications() == holder) TMonitor::Exit(this);
  }
  virtual void _SetReferencingObject(TObject* Value) {
    if (this->Count() == 0) {
      _pRefObject = Value;
      return;
    }
    const TObject* current = _GetReferencingObject();
    if (!Value || Value == current) return;
    TObject* old = _GetReferencingObject();
    _pRefObject = Value;
    MoveReferences(old);
  }
  virtual void SubscribeToChangeNotification(const TCollectionNotifyEvent& fnCallback) {
    if (auto* n = this->_GetNotifications()) n->Subscribe(fnCallback);
  }
  virtual void UnsubscribeFromChangeNotification(const TCollectionNotifyEvent& fnCallback) {
    if (auto* n = this->_GetNotifications()) n->Unsubscribe(fnCallback);
  }

 protected:
  // A handler that frees the list while it is already being destroyed (it asks for that from a
  // removal notification of the final Clear) leaves the release to the outer Free.
  bool EnterDestruction() noexcept override { return !std::exchange(FInDestruction, true); }

  ~TQUMAReferencedList() override {
    detail::TLifeFlag::KillAll(FAlive);
    FAlive = nullptr;
    Clear();  // whatever a handler added after BeforeDestruction
  }

  void _BeforeAddNotify(T* const& Item) override {
    inherited::_BeforeAddNotify(Item);
    TakeReference(Item, _GetReferencingObject(), _RefAction);
  }
  void _AfterRemoveNotify(T* const& Item) override {
    inherited::_AfterRemoveNotify(Item);
    if (!FPending.empty()) FPending.back().Dropped = true;
    DropReference(Item, _GetReferencingObject(), _RefAction);
  }
  // Keeps the index in step with every change before anybody hears of it, and makes sure that a
  // removed item loses its reference even when the after-hook does not run (a handler freed the
  // list, which then drops it in BeforeDestruction).
  void Notify(T* const& Item, TCollectionNotification Action) override {
    T* const item = Item;
    const auto* key = static_cast<const TQUMAReferencedPersistent*>(item);
    if (Action == cnAdded) {
      ++FIndex[key];
    } else if (Action == cnRemoved || Action == cnExtracted) {
      auto it = FIndex.find(key);
      if (it != FIndex.end() && --it->second <= 0) FIndex.erase(it);
      detail::TLifeFlag alive(FAlive);
      FPending.push_back({item, false});
      inherited::Notify(item, Action);
      if (!alive.Alive) return;
      const TPendingRemoval pending = FPending.back();
      FPending.pop_back();
      if (!pending.Dropped) DropReference(pending.Item, _GetReferencingObject(), _RefAction);
      return;
    }
    inherited::Notify(item, Action);
  }

  TQUMAReferencedNotification Callback() noexcept { return Bind<&TQUMAReferencedList::_NotificationRef>(this); }

  void TakeReference(T* Item, TObject* Holder, TQUMAReferenceAction Action) {
    detail::TakeContainerReference(Item, Holder, Action, this, Callback());
  }
  void DropReference(T* Item, TObject* Holder, TQUMAReferenceAction Action) {
    detail::DropContainerReference(Item, Holder, Action, this, Callback());
  }

  TObject* _pRefObject = nullptr;
  TQUMAReferenceAction _RefAction = _raMemLock;

 private:
  // The first index >= from holding Item, or -1. An item that occurs once is searched from both
  // ends at once, so items near either end are found at once.
  Integer FirstIndexFrom(const TQUMAReferencedPersistent* Item, Integer from) const {
    const auto it = FIndex.find(Item);
    if (it == FIndex.end()) return -1;
    const auto items = this->View();
    Integer lo = std::max(from, 0);
    Integer hi = static_cast<Integer>(items.size()) - 1;
    if (it->second == 1) {
      for (; lo <= hi; ++lo, --hi) {
        if (static_cast<const TQUMAReferencedPersistent*>(items[lo]) == Item) return lo;
        if (static_cast<const TQUMAReferencedPersistent*>(items[hi]) == Item) return hi;
      }
      return -1;
    }
    for (; lo <= hi; ++lo)
      if (static_cast<const TQUMAReferencedPersistent*>(items[lo]) == Item) return lo;
    return -1;
  }
  // Every item takes the reference for the current holder before it loses the one for
  // OldHolder, so that no item passes through an unreferenced moment.
  void MoveReferences(TObject* OldHolder) {
    const std::vector<T*> items = this->ToVector();
    TObject* holder = _GetReferencingObject();
    for (T* item : items) {
      TakeReference(item, holder, _RefAction);
      DropReference(item, OldHolder, _RefAction);
    }
  }

  struct TPendingRemoval {
    T* Item;
    bool Dropped;
  };
  std::unordered_map<const TQUMAReferencedPersistent*, Integer, detail::TAddressHash> FIndex;
  std::vector<TPendingRemoval> FPending;  // removals being notified, innermost last
  detail::TLifeFlag* FAlive = nullptr;
  bool FInDestruction = false;
};

// ---- TQUMAPersistentWrapper ----

// The component that stands for a referenced persistent in the host free-notification
// mechanism: components link to it, and learn through its destruction that the payload went.
class TQUMAPersistentWrapper : public TComponent {
  QUMA_CLASS(TQUMAPersistentWrapper, TComponent)
 public:
  explicit TQUMAPersistentWrapper(TComponent* AOwner) : TQUMAPersistentWrapper(AOwner, nullptr) {}
  TQUMAPersistentWrapper(TComponent* AOwner, TPersistent* APayload);
  ~TQUMAPersistentWrapper() override;

  TComponent* FreeNotifee(Integer nIndex) const { return _GetFreeNotifee(nIndex); }
  Integer FreeNotificationCount() const noexcept { return FreeNotifyCount(); }
  TComponentNotification OnNotify() const noexcept { return _fnOnNotify; }
  void SetOnNotify(TComponentNotification Value) noexcept { _fnOnNotify = Value; }
  TPersistent* Payload() const noexcept { return _pPayload; }
  void SetPayload(TPersistent* Value) noexcept { _pPayload = Value; }
  using TComponent::RemoveFreeNotifications;

  // Tells OnNotify first, then the host's own handling (unless OnNotify freed the wrapper).
  void Notification(TComponent* AComponent, TOperation Operation) override;

 protected:
  virtual TComponent* _GetFreeNotifee(Integer nIndex) const { return FreeNotifyItem(nIndex); }

  TPersistent* _pPayload;
  TComponentNotification _fnOnNotify;

 private:
  std::shared_ptr<bool> FLife = std::make_shared<bool>(true);  // expires with the wrapper
};

// ---- TQUMAReferencedPersistentSafeBox ----

// Keeps referenced persistents alive while they are in it (a memory lock each, on behalf of the
// box). A kept object freed by other hands leaves the box and fires OnObjectRemoved.
class TQUMAReferencedPersistentSafeBox : public TQUMAReferencedPersistent {
  QUMA_CLASS(TQUMAReferencedPersistentSafeBox, TQUMAReferencedPersistent)
 public:
  explicit TQUMAReferencedPersistentSafeBox(TPersistent* AOwner = nullptr)
      : TQUMAReferencedPersistentSafeBox(AOwner, false) {}
  TQUMAReferencedPersistentSafeBox(TPersistent* AOwner, bool blFreeObjectsOnDestroy);
  void AfterConstruction() override;

  void Add(TQUMAReferencedPersistent* pObject);
  void Remove(TQUMAReferencedPersistent* pObject);
  void Clear();
  // Takes every object out and frees it (once, also when losing the box's lock freed it).
  void FreeAllObjects();
  Integer Count() const { return _pKeptObjects ? _pKeptObjects->Count() : 0; }
  TQUMAReferencedPersistent* Items(Integer Index) const { return (*_pKeptObjects)[Index]; }
  bool Contains(const TQUMAReferencedPersistent* pObject) const {
    return _pKeptObjects && _pKeptObjects->ContainsItem(pObject);
  }
  bool FreeOnDestroy() const noexcept { return _blFreeOnDestroy; }
  TNotifyEvent OnObjectRemoved() const noexcept { return _fnObjectRemoved; }
  void SetOnObjectRemoved(TNotifyEvent Value) noexcept { _fnObjectRemoved = Value; }

  void NotificationRef(TQUMAReferencedPersistent* Other, TOperation op) override;
  // The kept objects go first (freed when the box frees its objects on destruction, let go
  // otherwise), before the box tells its own holders.
  void BeforeDestruction() override;
  ~TQUMAReferencedPersistentSafeBox() override;

 protected:

  TQUMAReferencedList<TQUMAReferencedPersistent>* _pKeptObjects = nullptr;
  TNotifyEvent _fnObjectRemoved;
  bool _blFreeOnDestroy;
};

// ---- TQUMAOpportunisticReferencingStringList ----

// A string list that references the objects of its entries that are referenced persistents
// (as a referenced list does), and can own the others.
class TQUMAOpportunisticReferencingStringList : public TStringList, public detail::IReferencingContainer {
  QUMA_CLASS(TQUMAOpportunisticReferencingStringList, TStringList)
 public:
  TQUMAOpportunisticReferencingStringList() = default;
  explicit TQUMAOpportunisticReferencingStringList(TObject* ReferencingObject, bool OwnsObjects = false)
      : TStringList(OwnsObjects), _pRefObject(ReferencingObject) {}
  ~TQUMAOpportunisticReferencingStringList() override;

  Integer CountOfObject(const TObject* AObject) const { return _GetCountOfObject(AObject); }
  bool OwnsNonReferencedObjects() const { return _GetOwnsNonReferencedObjects(); }
  void SetOwnsNonReferencedObjects(bool Value) { _SetOwnsNonReferencedObjects(Value); }
  TQUMAReferenceAction ReferenceAction() const noexcept { return _RefAction; }
  // Chosen while the list is empty (a change on a non-empty list is ignored).
  void SetReferenceAction(TQUMAReferenceAction Value) noexcept {
    if (Count() == 0) _RefAction = Value;
  }
  TObject* ReferencingObject() const { return _GetReferencingObject(); }
  void SetReferencingObject(TObject* Value) { _SetReferencingObject(Value); }

  // Index checks and ownership as the host list; see the class comment in the .cpp.
  void PutObject(Integer Index, TObject* AObject) override;
  void Clear() override;
  void Delete(Integer Index) override;

  // ---- virtual operations, in slot order ----
  virtual Integer _GetCountOfObject(const TObject* AObject) const;
  virtual bool _GetOwnsNonReferencedObjects() const { return _blOwnsNonRefd; }
  virtual TObject* _GetReferencingObject() const;
  virtual void _NotificationRef(TQUMAReferencedPersistent* Other, TOperation op);
  virtual void _SetOwnsNonReferencedObjects(bool Value) { _blOwnsNonRefd = Value; }
  virtual void _SetReferencingObject(TObject* Value);

  bool HoldsForItself() const noexcept override { return !_pRefObject || _pRefObject == this; }

 protected:
  void InsertItem(Integer Index, const UnicodeString& S, TObject* AObject) override;
  // Number of entries holding the referenced persistent AObject (constant time).
  Integer EntriesHolding(const TObject* AObject) const;
  // Every entry holding From holds To instead, without touching any reference: for a swap that
  // has already moved the referencing object's references over to To.
  void RetargetEntries(const TObject* From, TQUMAReferencedPersistent* To);

  TObject* _pRefObject = nullptr;
  TQUMAReferenceAction _RefAction = _raMemLock;
  bool _blOwnsNonRefd = false;

 private:
  TQUMAReferencedNotification Callback() noexcept;
  // The referenced persistent an entry holds; answers also for one that died meanwhile (the
  // list remembers which of its objects are referenced persistents).
  TQUMAReferencedPersistent* Referenced(TObject* AObject) const;
  void Remember(TQUMAReferencedPersistent* p);
  void Forget(const TObject* p);
  void TakeReference(TQUMAReferencedPersistent* p, TObject* Holder);
  // Drops the reference; true when that freed the object (or it was already gone).
  bool DropReference(TQUMAReferencedPersistent* p, TObject* Holder);
  // Clear and the destructor: references dropped, owned objects freed, last to first.
  void ReleaseObjects(const std::vector<TObject*>& objects);

  struct TReferencedEntry {
    TQUMAReferencedPersistent* Object;
    Integer Count;  // entries holding it
  };
  std::unordered_map<const TObject*, TReferencedEntry> FReferenced;
};

}  // namespace quma
QUMA_PUBLIC_END
