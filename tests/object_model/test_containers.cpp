// The referencing rules of the containers: referenced list, safe box, opportunistic string list
// and the component wrapper; moving the referencing object; freeing from inside handlers.
#include "Helpers.h"

using namespace omtest;

namespace {
using TNodeList = TQUMAReferencedList<TNode>;
using TOppList = TQUMAOpportunisticReferencingStringList;
}  // namespace

TEST(ReferencedList, LocksItemsForItsReferencingObjectWhichMovesWithoutAFree) {
  auto *a = N("a"), *b = N("b"), *z = N("z"), *w = N("w");
  auto* list = New<TNodeList>(a);
  std::vector<TQUMAGuardedPtr<TNode>> items;
  for (const char* name : {"n0", "n1", "n2"}) list->Add(items.emplace_back(N(name)).Get());
  list->Add(items[0].Get());  // twice: two locks
  EXPECT_EQ(items[0]->LockCount(a), 2);
  list->Delete(1);  // releases a's lock; nobody else holds n1
  EXPECT_FALSE(items[1]);
  items.erase(items.begin() + 1);
  list->SetReferencingObject(b);  // a's locks not moved would outlive the list below
  EXPECT_EQ(items[0]->LockCount(b), 2);
  list->SetReferencingObject(nullptr);  // ignored on a non-empty list
  EXPECT_EQ(list->ReferencingObject(), b);
  list->SetReferencingObject(list);  // back to the list itself
  list->SetReferenceAction(_raNotify);  // chosen before the first item only
  EXPECT_EQ(list->ReferenceAction(), _raMemLock);
  for (auto& n : items) ASSERT_TRUE(n);
  Free(list);
  for (auto& n : items) EXPECT_FALSE(n);  // the list was the last holder
  // An item freed by other hands stays in a list that holds it for somebody else (a is told,
  // not the list); the list never touches it again, not even when it goes and lets w go.
  list = New<TNodeList>(a);
  for (TNode* n : {z, w}) list->Add(n);
  Free(z);
  EXPECT_EQ(list->Count(), 2);
  EXPECT_EQ(a->NotifyReferenceCount(), 1);
  Free(list);
  EXPECT_TRUE(QUMAIsFreed(w));
  FreeAll(a, b);
}

TEST(ReferencedList, SelfReferencingListDropsItemsFreedElsewhereAndMovesLocksOnReplaceAndExtract) {
  auto* list = New<TNodeList>();
  THolder watcher, keeper;
  list->SubscribeToChangeNotification(Bind<&THolder::Changed>(&watcher));
  auto *x = N("x"), *y = N("y"), *r = N("r"), *e = N("e");
  x->SetFreeWhenUnreferenced(false);
  for (TNode* n : {x, y, x}) list->Add(n);
  EXPECT_EQ(list->ItemCount(x), 2);
  EXPECT_EQ(x->LockCount(list), 2);
  Free(x);
  EXPECT_EQ(list->ToVector(), std::vector<TNode*>{y});
  EXPECT_EQ(watcher.Events, (Journal{"+x", "+y", "+x", "-x", "-x"}));
  list->UnsubscribeFromChangeNotification(Bind<&THolder::Changed>(&watcher));
  r->AddMemLockReference(&keeper);
  list->Add(r);
  list->SetItem(1, e);  // r loses the list's lock, e gains it
  EXPECT_FALSE(r->IsLockedBy(list));
  EXPECT_TRUE(e->IsLockedBy(list));
  TQUMAGuardedPtr<TNode> ge(e);
  list->Extract(e);  // an extracted item loses its reference too
  EXPECT_FALSE(ge);
  EXPECT_EQ(list->RemoveItem(e), -1);
  EXPECT_EQ(watcher.Events.size(), 5u);  // no longer subscribed
  r->RemoveMemLockReference(&keeper);
  Free(list);
  EXPECT_TRUE(QUMAIsFreed(y));
}

TEST(ReferencedList, ListFreedFromInsideARemovalHandler) {
  THolder watcher;
  auto *x = N("x"), *y = N("y"), *z = N("z"), *u = N("u"), *v = N("v");
  auto *list = New<TNodeList>(), *list2 = New<TNodeList>(), *list3 = New<TNodeList>();
  y->SetFreeWhenUnreferenced(false);
  for (TNode* n : {x, x, y}) list->Add(n);
  list2->Add(z);
  for (TNode* n : {u, v}) list3->Add(n);
  for (TNodeList* l : {list, list2, list3}) l->SetOnNotify(Bind<&THolder::Changed>(&watcher));
  x->SetFreeWhenUnreferenced(false);
  watcher.FreeOnRemove = true;
  Free(x);  // the first removal frees the list; the walk stops there
  EXPECT_FALSE(QUMAIsFreed(y));
  EXPECT_EQ(y->MemLockReferenceCount(), 0);  // the dying list let go of y
  Free(y);
  watcher.FreeOnRemove = true;
  list2->Clear();  // freed by the handler of its own Clear
  EXPECT_TRUE(QUMAIsFreed(z));
  watcher.FreeOnRemove = true;
  Free(list3);  // freed again by a handler while the list empties itself on the way out
  EXPECT_TRUE(QUMAIsFreed(u) && QUMAIsFreed(v));
}

TEST(ReferencedList, NotifyListsOnlyWatchForANodeOrAComponentAndClearFromLastToFirst) {
  auto *a = N("a"), *x = N("x"), *y = N("y"), *v = N("v"), *w = N("w");
  auto* comp = New<TWatcher>();
  THolder watcher, plain;
  auto *list = New<TNodeList>(a), *clist = New<TNodeList>(comp), *other = New<TNodeList>(&plain);
  for (TNodeList* l : {list, clist, other}) l->SetReferenceAction(_raNotify);
  list->SetOnNotify(Bind<&THolder::Changed>(&watcher));
  for (TNode* n : {x, y}) list->Add(n);
  clist->Add(v);
  other->Add(w);
  EXPECT_EQ(x->NotifyReferenceCount(), 1);  // a is told when x goes
  EXPECT_EQ(x->MemLockReferenceCount(), 0);
  EXPECT_EQ(w->TotalReferenceCount(), 0);  // a referencing object of no known kind takes no reference
  list->Clear();
  EXPECT_EQ(watcher.Events, (Journal{"+x", "+y", "-y", "-x"}));
  EXPECT_EQ(x->NotifyReferenceCount(), 0);
  EXPECT_FALSE(QUMAIsFreed(x));
  Free(v);
  EXPECT_EQ(comp->Removals, 1);  // a component is told through the wrapper
  FreeAll(list, clist, other, x, y, w, a, comp);
}

TEST(SafeBox, CreatedThroughItsClassKeepsObjectsAliveUntilRemovedAndFreeAllObjectsFreesEachOnce) {
  auto* box = dynamic_cast<TQUMAReferencedPersistentSafeBox*>(
      TQUMAReferencedPersistentClass(TQUMAReferencedPersistentSafeBox::StaticClass()).Create(nullptr));
  ASSERT_NE(box, nullptr);
  EXPECT_FALSE(box->FreeOnDestroy());
  auto *x = N("x"), *y = N("y"), *z = N("z");
  TQUMAGuardedPtr<TNode> gx(x);
  box->Add(x);  // the kept-objects list exists once construction is complete
  box->Add(nullptr);
  EXPECT_EQ(box->Count(), 1);
  EXPECT_TRUE(x->IsLockedBy(box));
  box->Remove(x);
  EXPECT_FALSE(gx);
  THolder keeper;
  z->AddMemLockReference(&keeper);
  for (TNode* n : {y, z}) box->Add(n);
  box->Clear();
  EXPECT_TRUE(QUMAIsFreed(y));
  EXPECT_FALSE(QUMAIsFreed(z));
  z->RemoveMemLockReference(&keeper);
  Free(box);

  box = New<TQUMAReferencedPersistentSafeBox>(nullptr, true);
  std::vector<TNode*> nodes;
  bool flags[4] = {};
  for (int i = 0; i < 4; ++i) {
    box->Add(nodes.emplace_back(N("n" + std::to_string(i))));
    nodes.back()->RegisterFreeIndicator(flags[i]);
  }
  nodes[1]->AddMemLockReference(&keeper);  // survives losing the box's lock, so the box frees it
  nodes[2]->SetFreeWhenUnreferenced(false);
  box->Add(nodes[3]);  // held twice
  box->FreeAllObjects();
  for (bool f : flags) EXPECT_TRUE(f);
  EXPECT_EQ(box->Count(), 0);
  auto* late = N("late");
  late->SetFreeWhenUnreferenced(false);
  box->Add(late);
  Free(box);  // frees what it keeps before its holders (the kept objects among them) let go
  EXPECT_TRUE(QUMAIsFreed(late));
}

TEST(SafeBox, ObjectFreedInsideLeavesAndIsReportedOnceAndTheBoxMayBeFreedThen) {
  auto* box = New<TQUMAReferencedPersistentSafeBox>(nullptr);
  THolder log;
  box->SetOnObjectRemoved(Bind<&THolder::Removed>(&log));
  auto *x = N("x"), *y = N("y"), *z = N("z"), *w = N("w");
  z->SetFreeWhenUnreferenced(false);
  for (TNode* n : {x, y, z, w}) box->Add(n);
  Free(x);
  EXPECT_EQ(box->Count(), 3);
  EXPECT_FALSE(box->Contains(x));
  EXPECT_EQ(log.Senders, std::vector<TObject*>{x});
  log.Victim = box;
  Free(y);  // the removal callback frees the box
  EXPECT_TRUE(QUMAIsFreed(box));
  // The box let z and w go (w freed itself): neither went by itself, so neither is reported,
  // and above all w is never handed over already freed.
  EXPECT_EQ(log.Senders, (std::vector<TObject*>{x, y}));
  EXPECT_TRUE(QUMAIsFreed(w));
  EXPECT_EQ(z->MemLockReferenceCount(), 0);
  Free(z);
}

TEST(OpportunisticStringList, ReferencesOnlyReferencedPersistentsAndEmptiesEntriesFreedElsewhere) {
  int frees = 0;
  auto* list = New<TOppList>();
  list->SetReferenceAction(_raNotify);  // taken while empty
  EXPECT_EQ(list->ReferenceAction(), _raNotify);
  list->SetReferenceAction(_raMemLock);
  auto *x = N("x"), *y = N("y");
  auto* plain = New<TFreeCounter>(&frees);
  list->AddObject(u"x", x);
  list->AddObject(u"plain", plain);
  list->AddObject(u"again", x);
  EXPECT_EQ(x->LockCount(list), 2);
  list->PutObject(0, x);  // the same object: nothing changes
  EXPECT_EQ(x->LockCount(list), 2);
  TQUMAGuardedPtr<TNode> gx(x);
  list->Delete(2);
  list->PutObject(0, nullptr);  // the last lock goes: x frees itself
  EXPECT_FALSE(gx);
  list->Delete(1);  // plain and not owned: stays
  EXPECT_EQ(frees, 0);
  EXPECT_EQ(ErrorOf<EStringListError>([&] { list->PutObject(3, y); }), "List index out of bounds (3)");
  EXPECT_THROW(list->Delete(-1), EStringListError);
  y->SetFreeWhenUnreferenced(false);
  list->PutObject(0, y);
  list->Add(u"two");
  list->AddObject(u"three", y);
  Free(y);
  EXPECT_EQ(list->Objects(0), nullptr);
  EXPECT_EQ(list->Objects(2), nullptr);
  EXPECT_EQ(list->Strings(2), u"three");
  FreeAll(list, plain);
}

TEST(OpportunisticStringList, OwnershipRulesOfDeleteAndClear) {
  int frees = 0;
  auto* list = New<TOppList>();
  list->SetOwnsNonReferencedObjects(true);
  list->AddObject(u"a", New<TFreeCounter>(&frees));
  auto* kept = New<TFreeCounter>(&frees);
  list->AddObject(u"b", kept);
  list->Delete(0);
  EXPECT_EQ(frees, 1);
  list->Clear();  // OwnsNonReferencedObjects is not asked by Clear
  EXPECT_EQ(frees, 1);
  Free(kept);
  list->SetOwnsNonReferencedObjects(false);
  list->SetOwnsObjects(true);
  auto *y = N("y"), *z = N("z");
  THolder keeper;
  y->AddMemLockReference(&keeper);
  list->AddObject(u"p", New<TFreeCounter>(&frees));
  list->AddObject(u"y", y);
  list->AddObject(u"q", New<TFreeCounter>(&frees));
  list->Delete(1);  // y survives losing the lock, so OwnsObjects frees it
  EXPECT_TRUE(QUMAIsFreed(y));
  list->Clear();
  EXPECT_EQ(frees, 4);  // a and kept before, p and q by the list
  list->AddObject(u"z", z);
  list->AddObject(u"r", New<TFreeCounter>(&frees));
  Free(list);  // z frees itself when unlocked; only r is left to free
  EXPECT_TRUE(QUMAIsFreed(z));
  EXPECT_EQ(frees, 5);
}

TEST(OpportunisticStringList, MovingTheReferencingObject) {
  auto *a = N("a"), *b = N("b"), *x = N("x");
  auto* list = New<TOppList>(a);
  list->AddObject(u"x", x);
  EXPECT_TRUE(x->IsLockedBy(a));
  list->SetReferencingObject(b);
  ASSERT_FALSE(QUMAIsFreed(x));
  // b's death removes its locks: x goes (so b, not a, held it), and the list (not its holder)
  // keeps a dead entry that it never touches again.
  Free(b);
  EXPECT_TRUE(QUMAIsFreed(x));
  list->SetOwnsObjects(true);
  list->Delete(0);
  FreeAll(list, a);
}

TEST(Wrapper, ComponentsAreToldThroughTheWrapperAndFreeingOneRemovesOneLock) {
  auto *x = N("x"), *y = N("y"), *z = N("z");
  auto *w1 = New<TWatcher>(), *w2 = New<TWatcher>();
  x->AddNotifyReference(w1);
  x->AddNotifyReference(static_cast<TObject*>(w2), {});
  TQUMAPersistentWrapper* wrapper = x->Wrapper();
  ASSERT_EQ(wrapper->FreeNotificationCount(), 2);
  EXPECT_EQ(wrapper->FreeNotifee(0), w1);
  EXPECT_THROW(wrapper->FreeNotifee(2), EListError);
  x->RemoveNotifyReference(w2);
  Free(x);
  EXPECT_EQ(w1->Removals, 1);
  EXPECT_EQ(w2->Removals, 0);
  y->AddMemLockReference(w1);
  y->AddMemLockReference(w1);
  EXPECT_EQ(y->Wrapper()->FreeNotificationCount(), 1);
  Free(w1);
  ASSERT_FALSE(QUMAIsFreed(y));
  EXPECT_EQ(y->MemLockReferenceCount(), 1);
  Free(y);  // the dead locker is never touched
  TQUMAGuardedPtr<TNode> gz(z);
  z->AddMemLockReference(w2);
  Free(w2);  // its only lock: z frees itself from inside the wrapper's notification
  EXPECT_FALSE(gz);
}
