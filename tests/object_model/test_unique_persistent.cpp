// Swapping a unique persistent for its replacement, seen from every kind of holder; swap
// subscribers that free the old object or start a swap of their own while it is announced; the
// string list that follows swaps.
#include <quma/UniquePersistent.h>

#include "Helpers.h"

using namespace omtest;

namespace {

class TUnique : public TQUMAUniquePersistent {
  QUMA_CLASS(TUnique, TQUMAUniquePersistent)
 public:
  using TQUMAUniquePersistent::TQUMAUniquePersistent;
  void _BeforeSwap(TQUMAUniquePersistent* Replacement) override { ++BeforeSwaps, inherited::_BeforeSwap(Replacement); }
  int BeforeSwaps = 0;
};
TUnique* U() { return New<TUnique>(nullptr); }

// A swap subscriber that records what it is told and can act on it.
class TSwapWatch : public TObject {
  QUMA_CLASS(TSwapWatch, TObject)
 public:
  void Swapped(TObject* Sender, TQUMAUniquePersistent* const& Replacement) {
    Seen.emplace_back(Sender, Replacement);
    if (Action) Action(Sender, Replacement);
  }
  TQUMAUniquePersistentSwapCallback Callback() { return Bind<&TSwapWatch::Swapped>(this); }
  std::vector<std::pair<TObject*, TQUMAUniquePersistent*>> Seen;
  std::function<void(TObject*, TQUMAUniquePersistent*)> Action;
};

}  // namespace

TEST(UniqueSwap, EveryKindOfHolderEndsUpOnTheReplacement) {
  Journal log;
  auto *old = U(), *rep = U();
  old->_SwapWith(nullptr);
  old->_SwapWith(old);
  THolder plain("plain", &log), callbackHolder("callback", &log), twilight, even;
  auto *lockingNode = N("lockingNode"), *consumer = N("consumer", &log);
  auto *watcher = New<TWatcher>(nullptr, &log), *lockingComponent = New<TWatcher>(nullptr, &log, "lockingComponent");
  TQUMAReferencedPersistent *silent = old, *elsewhere = old, *own = rep;
  bool gone = false;
  rep->RegisterSilentReference(&own);  // the replacement's own references stay beside the moved ones
  for (auto* v : {&silent, &elsewhere}) old->RegisterSilentReference(v);
  elsewhere = consumer;  // pointed elsewhere before the swap: the swap still sets it
  old->RegisterFreeIndicator(gone);
  for (TObject* locker : std::initializer_list<TObject*>{&plain, &plain, lockingNode, old, lockingComponent})
    old->AddMemLockReference(locker);
  rep->AddMemLockReference(&plain);  // two locks on the old object, one here: two afterwards
  old->AddMemLockReference(&even);
  rep->AddMemLockReference(&even);  // as many here as there: no more afterwards
  old->AddMemLockReference(&callbackHolder, callbackHolder.Callback());
  old->AddNotifyReference(consumer);
  old->AddNotifyReference(watcher);
  old->SetOnEnterTwilight(Bind<&THolder::Enter>(&twilight));
  old->SetOnLeaveTwilight(Bind<&THolder::Leave>(&twilight));

  old->_SwapWith(rep);
  EXPECT_TRUE(QUMAIsFreed(old));
  EXPECT_FALSE(gone);
  EXPECT_EQ(elsewhere, rep);
  for (auto [locker, count] : std::initializer_list<std::pair<TObject*, int>>{
           {&plain, 2}, {&even, 1}, {lockingNode, 1}, {rep, 1}, {lockingComponent, 1}, {&callbackHolder, 1}})
    EXPECT_EQ(rep->LockCount(locker), count);
  EXPECT_EQ(log, (Journal{"watcher<-?"}));  // the old wrapper's links went, naming the old object
  EXPECT_EQ(rep->OnEnterTwilight(), Bind<&THolder::Enter>(&twilight));
  EXPECT_EQ(rep->OnLeaveTwilight(), Bind<&THolder::Leave>(&twilight));

  log.clear();
  Free(rep);  // every holder now hears of the replacement's end
  EXPECT_TRUE(gone);
  EXPECT_EQ(silent, nullptr);
  EXPECT_EQ(own, nullptr);
  EXPECT_EQ(log, (Journal{"consumer<-?", "callback<-?", "watcher<-?", "lockingComponent<-?"}));
  EXPECT_EQ(lockingNode->NotifyReferenceCount(), 0);
  FreeAll(lockingNode, consumer, watcher, lockingComponent);
}

TEST(UniqueSwap, ObjectsTheOldOneLocksOrOwnsAndContainersHoldingItForThemselvesHearOfItsEnd) {
  auto *old = U(), *rep = U();
  auto *owned = New<TNode>(old, "owned"), *locked = N("locked");
  locked->AddMemLockReference(old);
  auto* list = New<TQUMAReferencedList<TQUMAReferencedPersistent>>();
  list->Add(old);  // a container that holds the old object for itself
  old->_SwapWith(rep);
  EXPECT_EQ(owned->Owner(), nullptr);
  EXPECT_TRUE(QUMAIsFreed(locked));  // its only lock went with the old object
  EXPECT_EQ(list->Count(), 0);
  EXPECT_EQ(rep->TotalReferenceCount(), 0);  // not even the list's lock
  // Nothing is swapped onto an object on its way out, not even the first hook runs.
  auto* other = U();
  auto* consumer = N("consumer");
  rep->AddNotifyReference(consumer);
  consumer->OnRemove = [other](TNode* self, TQUMAReferencedPersistent* dying) {
    other->_SwapWith(static_cast<TQUMAUniquePersistent*>(dying));
    self->InheritedNotificationRef(dying, opRemove);
  };
  FreeAll(owned, list, rep);
  EXPECT_FALSE(QUMAIsFreed(other));
  EXPECT_EQ(other->BeforeSwaps, 0);
  FreeAll(other, consumer);
}

// The first subscriber does nothing, frees the old object, or swaps the replacement on in turn.
TEST(UniqueSwap, SubscribersAreToldInOrderAndHandedOverUnlessOneFreesTheOldObjectOrTheReplacement) {
  enum { kNothing, kFreesOld, kSwapsOn };
  for (const int action : {kNothing, kFreesOld, kSwapsOn}) {
    auto *old = U(), *rep = U(), *next = U();
    THolder locker;
    TSwapWatch first, second;
    old->OnSwap()->Subscribe(first.Callback());
    old->OnSwap()->Subscribe(second.Callback());
    if (action == kFreesOld) first.Action = [](TObject* sender, TQUMAUniquePersistent*) { Free(sender); };
    if (action == kSwapsOn) first.Action = [next](TObject*, TQUMAUniquePersistent* r) { r->_SwapWith(next); };
    TQUMAReferencedPersistent* silent = old;
    old->RegisterSilentReference(&silent);
    old->AddMemLockReference(&locker);
    old->_SwapWith(rep);
    EXPECT_TRUE(QUMAIsFreed(old));
    EXPECT_EQ(QUMAIsFreed(rep), action == kSwapsOn);
    TQUMAUniquePersistent* last = action == kSwapsOn ? next : rep;
    EXPECT_EQ(silent, last);  // the references moved before the announcement
    EXPECT_EQ(last->LockCount(&locker), 1);
    EXPECT_EQ(first.Seen, (decltype(first.Seen){{old, rep}}));
    EXPECT_EQ(second.Seen.size(), action == kNothing ? 1u : 0u);  // never handed a freed replacement
    EXPECT_EQ(last->OnSwap()->SubscriberCount(), action == kNothing ? 2 : 0);
    last->RemoveMemLockReference(&locker);
    EXPECT_EQ(silent, nullptr);
    if (action != kSwapsOn) Free(next);
  }
}

TEST(UniqueStringList, EntriesFollowASwapWithTheListsReferencesMovedOnce) {
  auto* holder = N("holder");
  auto* own = New<TQUMAOpportunisticUniqueStringList>();
  auto* onBehalf = New<TQUMAOpportunisticUniqueStringList>(holder);
  auto *old = U(), *rep = U();
  own->AddObject(u"a", old);
  own->AddObject(u"b", old);
  onBehalf->AddObject(u"c", nullptr);
  onBehalf->PutObject(0, old);  // followed when put, too
  old->_SwapWith(rep);
  EXPECT_EQ(own->CountOfObject(rep), 2);
  EXPECT_EQ(onBehalf->Objects(0), rep);
  EXPECT_EQ(rep->LockCount(own), 2);
  EXPECT_EQ(rep->LockCount(holder), 1);
  own->Delete(0);
  EXPECT_EQ(rep->OnSwap()->SubscriberCount(), 2);  // both lists follow it: an entry of own still holds it
  own->PutObject(0, nullptr);
  EXPECT_EQ(rep->OnSwap()->SubscriberCount(), 1);
  onBehalf->Clear();
  EXPECT_TRUE(QUMAIsFreed(rep));
  FreeAll(own, onBehalf, holder);
}
