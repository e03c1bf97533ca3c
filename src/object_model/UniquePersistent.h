// TQUMAUniquePersistent: a referenced persistent that can be replaced in place. When a second
// instance turns out to be the same thing as this one, _SwapWith(Replacement) moves every
// reference held on this object over to the replacement, tells the subscribers of OnSwap which
// object now stands in its place, hands those subscribers over too, and frees this object.
//
//   TQUMAGuardedPtr<TContact> ref(duplicate);
//   duplicate->_SwapWith(original);          // ref now holds original; duplicate is gone
//
// What moves, in order: silent references, free indicators, memory locks with their counts
// (the larger count wins where both objects were locked by the same holder), consumers,
// callback holders, components, twilight handlers. What stays with the old object and ends
// with it: its own owner, the objects it locks or owns (they hear of its end as usual), and the
// references of containers that hold it for themselves (they hear of its end, or follow the swap
// like TQUMAOpportunisticUniqueStringList). See docs/object_model.md.
//
// Threading: none; a swap runs on the one thread that all objects involved belong to.
#pragma once

#include <quma/Export.h>

#include <quma/ReferencedPersistent.h>
#include <quma/SubscribedEvent.h>

#include <vector>

QUMA_PUBLIC_BEGIN
namespace quma {

class TQUMAUniquePersistent;
using PQUMAUniquePersistent = TQUMAUniquePersistent**;
using TQUMAUniquePersistentSwapCallback = TMethod<void(TObject* Sender, TQUMAUniquePersistent* const& Replacement)>;
using TQUMAUniquePersistentSwapEvent = TQUMASubscribed1ParamEvent<TQUMAUniquePersistent*>;

class TQUMAUniquePersistent : public TQUMAReferencedPersistent {
  QUMA_CLASS(TQUMAUniquePersistent, TQUMAReferencedPersistent)
 public:
  using TQUMAReferencedPersistent::TQUMAReferencedPersistent;
  // Creates the swap event, with this object as its sender.
  void AfterConstruction() override;
  ~TQUMAUniquePersistent() override;

  // The swap event: subscribers receive the replacement (subscribe a
  // TQUMAUniquePersistentSwapCallback). After a swap they are subscribed to the replacement's.
  TQUMAUniquePersistentSwapEvent* OnSwap() const noexcept { return _pSwapEvent.get(); }

  // While a swap is under way the object does not free itself on losing its last lock (a
  // subscriber that moves its reference to the replacement must not end the swap early); it is
  // freed when the swap completes. An explicit Free still ends it.
  bool FreeIfUnreferenced() override;

  // ---- virtual operations, in slot order ----
 protected:
  // Announces the swap to the OnSwap subscribers (stopping if one frees this object), hands
  // them over to the replacement, and frees this object.
  virtual void _AfterSwap(TQUMAUniquePersistent* Replacement);
  // Hooks for derived classes, empty here.
  virtual void _AfterSwapCallbacks();
  virtual void _BeforeSwap(TQUMAUniquePersistent* Replacement);
  // Moves the references (see the file comment).
  virtual void _DoSwapWith(TQUMAUniquePersistent* Replacement);

 public:
  // The whole swap. Nothing happens for a null or freed replacement, or for this object itself.
  virtual void _SwapWith(TQUMAUniquePersistent* Replacement);

 protected:
  TObjectPtr<TQUMAUniquePersistentSwapEvent> _pSwapEvent;

 private:
  void MoveSilentReferences(TQUMAUniquePersistent* Replacement);
  void MoveFreeIndicators(TQUMAUniquePersistent* Replacement);
  void MoveMemLocks(TQUMAUniquePersistent* Replacement);
  void MoveConsumers(TQUMAUniquePersistent* Replacement);
  void MoveCallbackHolders(TQUMAUniquePersistent* Replacement);
  void MoveComponents(TQUMAUniquePersistent* Replacement);
  void MoveTwilightHandlers(TQUMAUniquePersistent* Replacement);

  Integer FSwapDepth = 0;         // swaps of this object under way
  std::vector<bool*> FSwapStops;  // stop flags of the swap announcements this object takes part in
};
using TQUMAUniquePersistentClass = TClassOf<TQUMAUniquePersistent>;

// The opportunistic referencing string list that follows swaps: an entry holding a unique
// persistent that is swapped holds the replacement afterwards, with the list's reference moved.
class TQUMAOpportunisticUniqueStringList : public TQUMAOpportunisticReferencingStringList {
  QUMA_CLASS(TQUMAOpportunisticUniqueStringList, TQUMAOpportunisticReferencingStringList)
 public:
  using TQUMAOpportunisticReferencingStringList::TQUMAOpportunisticReferencingStringList;
  ~TQUMAOpportunisticUniqueStringList() override;

  void PutObject(Integer Index, TObject* AObject) override;
  void Delete(Integer Index) override;
  void Clear() override;

  // Every entry holding Sender holds Replacement instead.
  virtual void _ObjectSwapped(TObject* Sender, TQUMAUniquePersistent* const& Replacement);
  void _NotificationRef(TQUMAReferencedPersistent* Other, TOperation op) override;

 protected:
  void InsertItem(Integer Index, const UnicodeString& S, TObject* AObject) override;

 private:
  TQUMAUniquePersistentSwapCallback SwapCallback() noexcept;
  // The live unique persistent an entry holds, or null.
  static TQUMAUniquePersistent* Unique(TObject* AObject) noexcept;
  void Follow(TObject* AObject);
  // Stops following AObject once no entry holds it any more.
  void Unfollow(TObject* AObject);
  void UnfollowAll();

  bool FFollowingSwap = false;  // _ObjectSwapped at work: the swap moves the subscription itself
};

}  // namespace quma
QUMA_PUBLIC_END
