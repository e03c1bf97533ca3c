// The referencing rules of the containers: referenced list, safe box, opportunistic string list
// and the component wrapper; moving the referencing object; freeing from inside handlers.
#include "Helpers.h"

using namespace omtest;

namespace {

using TNodeList = TQUMAReferencedList<TNode>;

// Records collection notifications and can free the list from inside one.
class TListWatcher : public TObject {
  QUMA_CLASS(TListWatcher, TObject)
 public:
  void Changed(TObject* Sender, TNode* const& Item, TCollectionNotification Action) {
    Log.push_back((Action == cnAdded ? "+" : "-") + (Item ? Item->Name : std::string("null")));
    if (FreeOnRemove && Action == cnRemoved) {
      FreeOnRemove = false;
      Free(Sender);
    }
  }
  std::vector<std::string> Log;
  bool FreeOnRemove = false;
};

}  // namespace

TEST(ReferencedList, LocksItemsForItsReferencingObject) {
  auto* a = New<TNode>(nullptr, "a");
  auto* list = New<TNodeList>(a);
  auto* x = New<TNode>(nullptr, "x");
  auto* y = New<TNode>(nullptr, "y");
  TQUMAGuardedPtr<TNode> gx(x);
  list->Add(x);
  list->Add(y);
  EXPECT_EQ(list->ReferencingObject(), a);
  EXPECT_EQ(x->LockCount(a), 1);
  list->Delete(0);  // releases a's lock; nobody else holds x
  EXPECT_FALSE(gx);
  EXPECT_EQ(list->Count(), 1);
  Free(list);  // y loses its lock too
  EXPECT_TRUE(QUMAIsFreed(y));

  // An item freed by other hands stays in a list that holds it for somebody else (a is told,
  // not the list); the list never touches it again.
  auto* list2 = New<TNodeList>(a);
  auto* z = New<TNode>(nullptr, "z");
  list2->Add(z);
  Free(z);
  EXPECT_EQ(list2->Count(), 1);
  EXPECT_EQ(a->NotifyReferenceCount(), 0);
  list2->Clear();
  Free(list2);
  Free(a);
}

TEST(ReferencedList, ExtractAndReplaceMoveTheReferences) {
  auto* list = New<TNodeList>();
  auto* x = New<TNode>(nullptr, "x");
  auto* y = New<TNode>(nullptr, "y");
  THolder keeper;
  x->AddMemLockReference(&keeper);
  list->Add(x);
  list->SetItem(0, y);  // x loses the list's lock, y gains it
  EXPECT_FALSE(x->IsLockedBy(list));
  EXPECT_TRUE(y->IsLockedBy(list));
  TQUMAGuardedPtr<TNode> gy(y);
  list->Extract(y);  // an extracted item loses its reference too
  EXPECT_FALSE(gy);
  EXPECT_EQ(list->RemoveItem(y), -1);
  x->RemoveMemLockReference(&keeper);
  Free(list);
}

TEST(ReferencedList, MovingTheReferencingObjectFreesNothing) {
  auto* a = New<TNode>(nullptr, "a");
  auto* b = New<TNode>(nullptr, "b");
  auto* list = New<TNodeList>(a);
  std::vector<TQUMAGuardedPtr<TNode>> items;
  for (int i = 0; i < 4; ++i) {
    auto* n = New<TNode>(nullptr, "n" + std::to_string(i));
    items.emplace_back(n);
    list->Add(n);
  }
  list->Add(items[0].Get());  // twice: two locks
  list->SetReferencingObject(b);
  for (auto& n : items) {
    ASSERT_TRUE(n);
    EXPECT_FALSE(n->IsLockedBy(a));
    EXPECT_TRUE(n->IsLockedBy(b));
  }
  EXPECT_EQ(items[0]->LockCount(b), 2);
  list->SetReferencingObject(nullptr);  // ignored on a non-empty list
  EXPECT_EQ(list->ReferencingObject(), b);
  list->SetReferencingObject(list);  // back to the list itself
  EXPECT_TRUE(items[1]->IsLockedBy(list));
  EXPECT_FALSE(items[1]->IsLockedBy(b));
  list->SetReferenceAction(_raNotify);  // chosen before the first item only
  EXPECT_EQ(list->ReferenceAction(), _raMemLock);
  for (auto& n : items) ASSERT_TRUE(n);
  Free(list);
  for (auto& n : items) EXPECT_FALSE(n);  // the list was the last holder
  Free(a);
  Free(b);
}

TEST(ReferencedList, SelfReferencingListDropsItemsFreedElsewhere) {
  auto* list = New<TNodeList>();
  TListWatcher watcher;
  list->SubscribeToChangeNotification(Bind<&TListWatcher::Changed>(&watcher));
  auto* x = New<TNode>(nullptr, "x");
  auto* y = New<TNode>(nullptr, "y");
  x->SetFreeWhenUnreferenced(false);
  list->Add(x);
  list->Add(y);
  list->Add(x);
  EXPECT_EQ(list->ItemCount(x), 2);
  EXPECT_EQ(x->LockCount(list), 2);
  Free(x);
  ASSERT_EQ(list->Count(), 1);
  EXPECT_EQ((*list)[0], y);
  EXPECT_EQ(watcher.Log, (std::vector<std::string>{"+x", "+y", "+x", "-x", "-x"}));
  list->UnsubscribeFromChangeNotification(Bind<&TListWatcher::Changed>(&watcher));
  Free(list);
  EXPECT_TRUE(QUMAIsFreed(y));
}

TEST(ReferencedList, ListFreedFromInsideARemovalHandler) {
  auto* list = New<TNodeList>();
  TListWatcher watcher;
  list->SetOnNotify(Bind<&TListWatcher::Changed>(&watcher));
  auto* x = New<TNode>(nullptr, "x");
  auto* y = New<TNode>(nullptr, "y");
  y->SetFreeWhenUnreferenced(false);
  list->Add(x);
  list->Add(x);
  list->Add(y);
  x->SetFreeWhenUnreferenced(false);
  watcher.FreeOnRemove = true;
  Free(x);  // the first removal frees the list; the walk stops there
  EXPECT_FALSE(QUMAIsFreed(y));
  EXPECT_EQ(y->MemLockReferenceCount(), 0);  // the dying list let go of y
  Free(y);

  auto* list2 = New<TNodeList>();
  auto* z = New<TNode>(nullptr, "z");
  list2->Add(z);
  list2->SetOnNotify(Bind<&TListWatcher::Changed>(&watcher));
  watcher.FreeOnRemove = true;
  list2->Clear();  // freed by the handler of its own Clear
  EXPECT_TRUE(QUMAIsFreed(z));

  // Freed again by a handler while the list empties itself on the way out.
  auto* list3 = New<TNodeList>();
  auto* u = New<TNode>(nullptr, "u");
  auto* v = New<TNode>(nullptr, "v");
  list3->Add(u);
  list3->Add(v);
  list3->SetOnNotify(Bind<&TListWatcher::Changed>(&watcher));
  watcher.FreeOnRemove = true;
  Free(list3);
  EXPECT_TRUE(QUMAIsFreed(u));
  EXPECT_TRUE(QUMAIsFreed(v));
}

TEST(ReferencedList, ClearGoesFromLastToFirstAndNotifyListsOnlyWatch) {
  auto* a = New<TNode>(nullptr, "a");
  auto* list = New<TNodeList>(a);
  list->SetReferenceAction(_raNotify);
  TListWatcher watcher;
  list->SetOnNotify(Bind<&TListWatcher::Changed>(&watcher));
  auto* x = New<TNode>(nullptr, "x");
  auto* y = New<TNode>(nullptr, "y");
  list->Add(x);
  list->Add(y);
  EXPECT_EQ(x->NotifyReferenceCount(), 1);  // a is told when x goes
  EXPECT_EQ(x->MemLockReferenceCount(), 0);
  list->Clear();
  EXPECT_EQ(watcher.Log, (std::vector<std::string>{"+x", "+y", "-y", "-x"}));
  EXPECT_EQ(x->NotifyReferenceCount(), 0);
  EXPECT_FALSE(QUMAIsFreed(x));
  Free(list);
  Free(x);
  Free(y);
  Free(a);
}

TEST(ReferencedList, ReferencedPersistentKeepsConsumersInOne) {
  std::vector<std::string> journal;
  auto* x = New<TNode>(nullptr, "x", &journal);
  std::vector<TNode*> consumers;
  for (int i = 0; i < 5; ++i) {
    consumers.push_back(New<TNode>(nullptr, "c" + std::to_string(i), &journal));
    x->AddNotifyReference(consumers.back());
  }
  Free(consumers[2]);  // a consumer that dies leaves x's list by itself
  EXPECT_EQ(x->NotifyReferenceCount(), 4);
  Free(x);
  EXPECT_EQ(journal, (std::vector<std::string>{"c4<-x", "c3<-x", "c1<-x", "c0<-x"}));
  for (int i : {0, 1, 3, 4}) Free(consumers[static_cast<std::size_t>(i)]);
}

// ---- safe box ----

TEST(SafeBox, KeepsObjectsAliveUntilRemoved) {
  auto* box = New<TQUMAReferencedPersistentSafeBox>(nullptr);
  auto* x = New<TNode>(nullptr, "x");
  TQUMAGuardedPtr<TNode> gx(x);
  box->Add(x);
  box->Add(nullptr);
  EXPECT_EQ(box->Count(), 1);
  EXPECT_TRUE(x->IsLockedBy(box));
  box->Remove(x);
  EXPECT_FALSE(gx);
  auto* y = New<TNode>(nullptr, "y");
  auto* z = New<TNode>(nullptr, "z");
  THolder keeper;
  z->AddMemLockReference(&keeper);
  box->Add(y);
  box->Add(z);
  box->Clear();
  EXPECT_TRUE(QUMAIsFreed(y));
  EXPECT_FALSE(QUMAIsFreed(z));
  z->RemoveMemLockReference(&keeper);
  Free(box);
}

namespace {
class TRemovedLog : public TObject {
  QUMA_CLASS(TRemovedLog, TObject)
 public:
  void Removed(TObject* Sender) { Senders.push_back(Sender); }
  std::vector<TObject*> Senders;
};
}  // namespace

TEST(SafeBox, ObjectFreedInsideLeavesAndIsReportedOnce) {
  auto* box = New<TQUMAReferencedPersistentSafeBox>(nullptr);
  TRemovedLog log;
  box->SetOnObjectRemoved(Bind<&TRemovedLog::Removed>(&log));
  auto* x = New<TNode>(nullptr, "x");
  auto* y = New<TNode>(nullptr, "y");
  box->Add(x);
  box->Add(y);
  Free(x);
  EXPECT_EQ(box->Count(), 1);
  EXPECT_FALSE(box->Contains(x));
  EXPECT_EQ(log.Senders, std::vector<TObject*>{x});
  Free(box);  // y's only lock goes with the box
  EXPECT_TRUE(QUMAIsFreed(y));
}

TEST(SafeBox, FreeAllObjectsFreesEachExactlyOnce) {
  auto* box = New<TQUMAReferencedPersistentSafeBox>(nullptr, true);
  THolder keeper;
  std::vector<TNode*> nodes;
  std::vector<bool> gone(4, false);
  for (int i = 0; i < 4; ++i) {
    nodes.push_back(New<TNode>(nullptr, "n" + std::to_string(i)));
    box->Add(nodes.back());
  }
  nodes[1]->AddMemLockReference(&keeper);  // survives losing the box's lock, so the box frees it
  nodes[2]->SetFreeWhenUnreferenced(false);
  box->Add(nodes[3]);  // held twice
  bool flags[4] = {};
  for (int i = 0; i < 4; ++i) nodes[static_cast<std::size_t>(i)]->RegisterFreeIndicator(flags[i]);
  box->FreeAllObjects();
  for (bool f : flags) EXPECT_TRUE(f);
  EXPECT_EQ(box->Count(), 0);
  auto* late = New<TNode>(nullptr, "late");
  late->SetFreeWhenUnreferenced(false);
  box->Add(late);
  Free(box);  // late, a consumer of the box, was let go in the first phase already
  ASSERT_FALSE(QUMAIsFreed(late));
  EXPECT_EQ(late->MemLockReferenceCount(), 0);
  Free(late);
}

namespace {
class TBoxKiller : public TObject {
  QUMA_CLASS(TBoxKiller, TObject)
 public:
  void Removed(TObject*) { Free(Box); }
  TQUMAReferencedPersistentSafeBox* Box = nullptr;
};
}  // namespace

TEST(SafeBox, CreatedThroughItsClass) {
  TQUMAReferencedPersistent* made =
      TQUMAReferencedPersistentClass(TQUMAReferencedPersistentSafeBox::StaticClass()).Create(nullptr);
  auto* box = dynamic_cast<TQUMAReferencedPersistentSafeBox*>(made);
  ASSERT_NE(box, nullptr);
  EXPECT_FALSE(box->FreeOnDestroy());
  auto* x = New<TNode>(nullptr, "x");
  box->Add(x);  // the kept-objects list exists once construction is complete
  EXPECT_EQ(box->Count(), 1);
  Free(box);
  EXPECT_TRUE(QUMAIsFreed(x));
}

TEST(SafeBox, BoxFreedFromItsOwnRemovalCallback) {
  auto* box = New<TQUMAReferencedPersistentSafeBox>(nullptr);
  auto* x = New<TNode>(nullptr, "x");
  auto* y = New<TNode>(nullptr, "y");
  y->SetFreeWhenUnreferenced(false);
  box->Add(x);
  box->Add(y);
  TBoxKiller killer;
  killer.Box = box;
  box->SetOnObjectRemoved(Bind<&TBoxKiller::Removed>(&killer));
  Free(x);
  EXPECT_TRUE(QUMAIsFreed(box));
  EXPECT_EQ(y->MemLockReferenceCount(), 0);
  Free(y);
}

// ---- opportunistic string list ----

namespace {
class TPlain : public TObject {
  QUMA_CLASS(TPlain, TObject)
 public:
  explicit TPlain(int* frees) : Frees(frees) {}
  ~TPlain() override { ++*Frees; }
  int* Frees;
};
using TOppList = TQUMAOpportunisticReferencingStringList;
}  // namespace

TEST(OpportunisticStringList, ReferencesOnlyReferencedPersistents) {
  int frees = 0;
  auto* list = New<TOppList>();
  auto* x = New<TNode>(nullptr, "x");
  auto* plain = New<TPlain>(&frees);
  list->AddObject(u"x", x);
  list->AddObject(u"plain", plain);
  list->AddObject(u"again", x);
  EXPECT_EQ(x->LockCount(list), 2);
  EXPECT_EQ(list->CountOfObject(x), 2);
  list->PutObject(0, x);  // the same object: nothing changes
  EXPECT_EQ(x->LockCount(list), 2);
  TQUMAGuardedPtr<TNode> gx(x);
  list->Delete(2);
  list->PutObject(0, nullptr);  // the last lock goes: x frees itself
  EXPECT_FALSE(gx);
  list->Delete(1);  // plain and not owned: stays
  EXPECT_EQ(frees, 0);
  EXPECT_EQ(list->Count(), 1);
  try {
    list->PutObject(3, x);
    FAIL();
  } catch (const EStringListError& e) {
    EXPECT_EQ(e.Message(), u"List index out of bounds (3)");
  }
  EXPECT_THROW(list->Delete(-1), EStringListError);
  Free(list);
  Free(plain);
}

TEST(OpportunisticStringList, OwnershipRulesOfDeleteAndClear) {
  int frees = 0;
  auto* list = New<TOppList>();
  list->SetOwnsNonReferencedObjects(true);
  list->AddObject(u"a", New<TPlain>(&frees));
  auto* kept = New<TPlain>(&frees);
  list->AddObject(u"b", kept);
  list->Delete(0);
  EXPECT_EQ(frees, 1);
  list->Clear();  // OwnsNonReferencedObjects is not asked by Clear
  EXPECT_EQ(frees, 1);
  Free(kept);
  frees = 0;
  list->SetOwnsNonReferencedObjects(false);
  list->SetOwnsObjects(true);
  auto* y = New<TNode>(nullptr, "y");
  THolder keeper;
  y->AddMemLockReference(&keeper);
  list->AddObject(u"p", New<TPlain>(&frees));
  list->AddObject(u"y", y);
  list->AddObject(u"q", New<TPlain>(&frees));
  list->Delete(1);  // y survives losing the lock, so OwnsObjects frees it
  EXPECT_TRUE(QUMAIsFreed(y));
  list->Clear();
  EXPECT_EQ(frees, 2);
  auto* z = New<TNode>(nullptr, "z");
  list->AddObject(u"z", z);
  list->AddObject(u"r", New<TPlain>(&frees));
  Free(list);  // z frees itself when unlocked; only r is left to free
  EXPECT_TRUE(QUMAIsFreed(z));
  EXPECT_EQ(frees, 3);
}

TEST(OpportunisticStringList, EntryOfAnObjectFreedElsewhereIsEmptied) {
  auto* list = New<TOppList>();
  auto* x = New<TNode>(nullptr, "x");
  x->SetFreeWhenUnreferenced(false);
  list->AddObject(u"one", x);
  list->Add(u"two");
  list->AddObject(u"three", x);
  Free(x);
  ASSERT_EQ(list->Count(), 3);
  EXPECT_EQ(list->Objects(0), nullptr);
  EXPECT_EQ(list->Objects(2), nullptr);
  EXPECT_EQ(list->Strings(2), u"three");
  Free(list);
}

TEST(OpportunisticStringList, MovingTheReferencingObject) {
  auto* a = New<TNode>(nullptr, "a");
  auto* b = New<TNode>(nullptr, "b");
  auto* list = New<TOppList>(a);
  auto* x = New<TNode>(nullptr, "x");
  list->AddObject(u"x", x);
  EXPECT_TRUE(x->IsLockedBy(a));
  list->SetReferencingObject(b);
  ASSERT_FALSE(QUMAIsFreed(x));
  EXPECT_FALSE(x->IsLockedBy(a));
  EXPECT_TRUE(x->IsLockedBy(b));
  EXPECT_EQ(list->ReferencingObject(), b);
  // b's death removes its locks: x goes, and the list (not its holder) keeps a dead entry
  // that it never touches again.
  Free(b);
  EXPECT_TRUE(QUMAIsFreed(x));
  list->SetOwnsObjects(true);
  list->Delete(0);
  Free(list);
  Free(a);
}

// ---- components through the wrapper ----

TEST(Wrapper, ComponentsAreToldThroughTheWrapper) {
  auto* x = New<TNode>(nullptr, "x");
  auto* w1 = New<TWatcher>();
  auto* w2 = New<TWatcher>();
  x->AddNotifyReference(w1);
  x->AddNotifyReference(static_cast<TObject*>(w2), {});
  TQUMAPersistentWrapper* wrapper = x->Wrapper();
  EXPECT_EQ(wrapper, x->Wrapper());
  EXPECT_EQ(wrapper->Payload(), x);
  EXPECT_EQ(wrapper->GetComponentOwner(), nullptr);
  ASSERT_EQ(wrapper->FreeNotificationCount(), 2);
  EXPECT_EQ(wrapper->FreeNotifee(0), w1);
  EXPECT_THROW(wrapper->FreeNotifee(2), EListError);
  x->RemoveNotifyReference(w2);
  EXPECT_EQ(wrapper->FreeNotificationCount(), 1);
  EXPECT_EQ(x->TotalReferenceCount(), 0);  // components are not counted
  Free(x);
  EXPECT_EQ(w1->Removals, 1);
  EXPECT_EQ(w1->LastPayload, static_cast<TPersistent*>(x));
  EXPECT_EQ(w2->Removals, 0);
  Free(w1);
  Free(w2);
}

TEST(Wrapper, ReferencedListWithAComponentAsReferencingObject) {
  auto* comp = New<TWatcher>();
  auto* list = New<TNodeList>(comp);
  list->SetReferenceAction(_raNotify);
  auto* x = New<TNode>(nullptr, "x");
  list->Add(x);
  EXPECT_EQ(x->Wrapper()->FreeNotificationCount(), 1);
  Free(x);
  EXPECT_EQ(comp->Removals, 1);
  // A referencing object of no known kind takes no reference at all.
  THolder plain;
  auto* other = New<TNodeList>(&plain);
  other->SetReferenceAction(_raNotify);
  auto* y = New<TNode>(nullptr, "y");
  other->Add(y);
  EXPECT_EQ(y->TotalReferenceCount(), 0);
  Free(other);
  Free(y);
  Free(list);
  Free(comp);
}
