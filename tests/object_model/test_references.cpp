// Lock and unlock counts, self-freeing, twilight, silent references and free indicators,
// destruction order, owner chains and the free functions of the referenced persistent.
#include <thread>

#include "Helpers.h"

using namespace omtest;

TEST(LockCounts, LocksAreCountedPerLockerAndTheLastUnlockFreesUnlessSwitchedOffOrHeldInTwilight) {
  auto* x = N("x");
  THolder a, b;  // plain objects: no link, they release their locks themselves
  bool deleted = true;
  for (THolder* locker : {&a, &a, &b}) x->AddMemLockReference(locker);
  EXPECT_EQ(x->LockCount(&a), 2);
  EXPECT_EQ(x->MemLockReferenceCount(), 2);  // lockers, not locks
  EXPECT_TRUE(x->IsLockedBy(&b));
  x->RemoveMemLockReference(&a, &deleted);
  EXPECT_FALSE(deleted);
  EXPECT_EQ(x->LockCount(&a), 1);
  x->RemoveMemLockReference(&b);
  EXPECT_FALSE(x->IsLockedBy(&b));
  x->RemoveMemLockReference(&a, &deleted);
  EXPECT_TRUE(deleted);

  auto *y = N("y"), *z = N("z");  // an unlock by a non-locker still frees an unreferenced object
  y->RemoveMemLockReference(&a, &deleted);
  EXPECT_TRUE(deleted);
  EXPECT_TRUE(QUMAIsFreed(y));
  z->SetFreeWhenUnreferenced(false);  // unless it is not to be freed that way
  z->AddMemLockReference(&a);
  z->RemoveMemLockReference(&a, &deleted);
  EXPECT_FALSE(deleted);
  EXPECT_FALSE(z->FreeIfUnreferenced());
  z->SetFreeWhenUnreferenced(true);
  EXPECT_TRUE(z->FreeIfUnreferenced());

  // A twilight handler keeps the object until a later unlock lets it go.
  auto* t = N("t");
  THolder h;
  t->SetOnEnterTwilight(Bind<&THolder::Enter>(&h));
  t->SetOnLeaveTwilight(Bind<&THolder::Leave>(&h));
  t->AddMemLockReference(&a);
  t->RemoveMemLockReference(&a, &deleted);
  EXPECT_FALSE(deleted);
  EXPECT_EQ(h.Entered, 1);
  EXPECT_TRUE(t->RPState().Contains(_rpInTwilight));
  t->AddMemLockReference(&a);
  t->AddMemLockReference(&a);
  EXPECT_EQ(h.Left, 1);  // only when leaving twilight
  EXPECT_FALSE(t->RPState().Contains(_rpInTwilight));
  h.KeepAlive = false;
  t->RemoveMemLockReference(&a);
  t->RemoveMemLockReference(&a, &deleted);
  EXPECT_TRUE(deleted);
  EXPECT_EQ(h.Entered, 2);
}

TEST(LockCounts, AReferencedLockerIsLinkedBackAndItsDeathRemovesAllItsLocksAndAGuardHoldsForItsScope) {
  auto *x = N("x"), *y = N("y"), *a = N("a"), *b = N("b"), *c = N("c");
  TQUMAGuardedPtr<TNode> gy(y), gb(b), gc(c);
  for (TNode* n : {x, x, y, y}) n->AddMemLockReference(a);
  EXPECT_EQ(a->NotifyReferenceCount(), 2);  // x and y learn of a's death through a's consumers
  x->SetFreeWhenUnreferenced(false);
  x->RemoveMemLockReference(a);
  EXPECT_EQ(a->NotifyReferenceCount(), 2);
  x->RemoveMemLockReference(a);  // the last lock unlinks
  EXPECT_EQ(a->NotifyReferenceCount(), 1);
  a->AddMemLockReference(b);  // b locks a
  b->AddMemLockReference(a);  // a locks b
  c->AddMemLockReference(b);  // b locks c
  Free(a);
  EXPECT_FALSE(gy);  // both locks went, and y freed itself
  EXPECT_FALSE(gb);  // b lost a's lock and freed itself, which let c go too
  EXPECT_FALSE(gc);
  Free(x);

  // A lock guard holds for its scope.
  auto *g = N("g"), *h = N("h");
  THolder holder;
  TQUMAGuardedPtr<TNode> gg(g);
  {
    TQUMAMemLockGuard<TNode> lock(g, &holder);
    TQUMAMemLockGuard<TNode> moved(std::move(lock));
    EXPECT_EQ(moved.Get(), g);
    EXPECT_EQ(g->LockCount(&holder), 1);
  }
  EXPECT_FALSE(gg);
  TQUMAMemLockGuard<TNode> lock(h, &holder);
  Free(h);  // dies by other hands; the guard then releases nothing
  EXPECT_EQ(lock.Get(), nullptr);
  EXPECT_FALSE(lock.Release());
}

TEST(SilentReferences, NullOnlyVariablesStillHoldingTheObjectFollowMovesAndShowTheFreeState) {
  auto *x = N("x"), *other = N("other"), *c = N("c");
  TQUMAReferencedPersistent *held = x, *moved = x, *dropped = x;
  for (auto* v : {&held, &held, &moved, &dropped}) x->RegisterSilentReference(v);  // held once only
  x->UnregisterSilentReference(&dropped);
  moved = other;
  bool a = false, b = false, sawFreeing = false, sawFreed = true;
  x->RegisterFreeIndicator(a);
  x->RegisterFreeIndicator(b);
  x->UnregisterFreeIndicator(b);
  TQUMAGuardedPtr<TNode> p(x), copy = p;  // a silent reference that follows copies and moves
  TQUMAGuardedPtr<TNode> gmoved(std::move(copy));
  EXPECT_FALSE(copy);
  std::vector<TQUMAGuardedPtr<TNode>> many(20, p);  // reallocation moves them all
  many.resize(200, p);
  EXPECT_EQ(gmoved->Name, "x");
  x->AddNotifyReference(c);
  c->OnRemove = [&](TNode* self, TQUMAReferencedPersistent* o) {
    sawFreeing = o->_GetFreeing();
    sawFreed = o->_GetFreed();
    self->InheritedNotificationRef(o, opRemove);
  };
  Free(x);
  EXPECT_EQ(held, nullptr);
  EXPECT_EQ(moved, other);
  EXPECT_EQ(dropped, x);
  EXPECT_TRUE(a);
  EXPECT_FALSE(b);
  EXPECT_TRUE(sawFreeing && !sawFreed);
  EXPECT_TRUE(QUMAIsFreeing(x));
  EXPECT_TRUE(QUMAIsFreed(nullptr));
  EXPECT_FALSE(p || gmoved);
  for (auto& g : many) EXPECT_FALSE(g);
  TQUMAGuardedPtr<TNode> late(x);  // a dead object is never attached
  EXPECT_FALSE(late);
  FreeAll(other, c);
}

TEST(Destruction, TellsConsumersThenLockersThenCallbackHoldersThenComponentsSafelyWhenConsumersFreeAnything) {
  Journal journal;
  auto *x = N("x", &journal), *c1 = N("c1", &journal), *c2 = N("c2", &journal), *c3 = N("c3", &journal);
  auto *c4 = N("c4", &journal), *l1 = N("l1", &journal), *l2 = N("l2", &journal);
  THolder h1("h1", &journal), h2("h2", &journal), h3("h3", &journal);
  auto* w = New<TWatcher>(nullptr, &journal, "w");
  x->SetFreeWhenUnreferenced(false);
  x->AddNotifyReference(c1);
  x->AddMemLockReference(l1);
  x->AddNotifyReference(&h1, h1.Callback());
  x->AddNotifyReference(w);
  x->AddMemLockReference(l2);
  for (TNode* c : {c2, c3, c4}) x->AddNotifyReference(c);
  x->AddNotifyReference(&h2, h2.Callback());
  x->AddNotifyReference(&h3, h3.Callback());
  x->AddNotifyReference(&h1, h1.Callback());  // replaces, keeps its place
  for (TNode* ignored : {x, static_cast<TNode*>(nullptr), c1}) x->AddNotifyReference(ignored);  // self, null, twice
  x->AddNotifyReference(static_cast<TObject*>(nullptr), {});
  x->RemoveNotifyReference(c4);  // not told
  c1->RemoveNotifyReference(w);   // no component was ever told by c1: nothing to remove
  x->RemoveNotifyReference(&h2, h1.Callback());  // a different callback stays
  x->RemoveNotifyReference(&h3, h3.Callback());
  Free(c3);  // a consumer that dies leaves x's list by itself
  EXPECT_EQ(x->TotalReferenceCount(), 4);  // consumers and lockers; callbacks and components are not counted
  Free(x);
  EXPECT_EQ(journal, (Journal{"c2<-x", "c1<-x", "l2<-x", "l1<-x", "h1<-x", "h2<-x", "w<-x"}));
  EXPECT_EQ(l1->NotifyReferenceCount(), 0);  // the lockers forgot x

  // Consumers that free themselves or free the dying object again are safe.
  journal.clear();
  auto* y = N("y", &journal);
  for (TNode* c : {c1, c2, c4}) y->AddNotifyReference(c);
  bool gone = false;
  y->RegisterFreeIndicator(gone);
  c4->OnRemove = [&](TNode* self, TQUMAReferencedPersistent* other) {
    Free(other);  // destruction entered again from a notification
    EXPECT_FALSE(gone);
    EXPECT_FALSE(other->FreeIfUnreferenced());
    self->InheritedNotificationRef(other, opRemove);
  };
  c2->OnRemove = [](TNode* self, TQUMAReferencedPersistent*) { Free(self); };
  TQUMAGuardedPtr<TNode> g2(c2);
  Free(y);
  EXPECT_TRUE(gone);
  EXPECT_EQ(journal, (Journal{"c4<-y", "c2<-y", "c1<-y"}));  // told once each, the loop goes on
  EXPECT_FALSE(g2);
  FreeAll(c1, c4, l1, l2, w);
}

TEST(OwnerChains, ReferencedOwnersAreWatchedAndWalkedAndComponentOwnerQueriesCached) {
  auto* root = New<TWatcher>();
  auto* comp = New<TWatcher>(root);
  auto* a = New<TNode>(comp, "a");
  auto* b = New<TNode>(a, "b");
  auto *c = New<TNode>(b, "c"), *next = N("next");
  EXPECT_EQ(b->NotifyReferenceCount(), 1);  // a referenced owner is watched
  EXPECT_EQ(c->OwningComponent(), comp);  // through b and a
  // The walk starts at the candidate's owner.
  for (auto [from, owner] : {std::pair<TNode*, TNode*>{c, b}, {b, a}, {a, nullptr}, {nullptr, nullptr}})
    EXPECT_EQ(c->ReferencedPersistentOwner(from), owner) << TNode::NameOf(from);
  // Designing: both answers cached.
  EXPECT_FALSE(c->ComponentOwnerIsDesigning());
  root->SetDesigning(true);
  EXPECT_FALSE(c->ComponentOwnerIsDesigning());
  // Loading: a positive answer is asked again, a negative one sticks.
  root->BeginLoading();
  EXPECT_TRUE(c->ComponentOwnerIsLoading());
  root->Loaded();
  comp->Loaded();
  EXPECT_FALSE(c->ComponentOwnerIsLoading());
  root->BeginLoading();
  EXPECT_FALSE(c->ComponentOwnerIsLoading());
  // Destroying: never cached, and only the owning component counts.
  EXPECT_FALSE(c->ComponentOwnerIsDestroying());
  root->Destroying();
  EXPECT_TRUE(c->ComponentOwnerIsDestroying());
  auto* y = New<TNode>(root, "y");
  EXPECT_TRUE(y->ComponentOwnerIsDesigning());
  c->SetOwner(next);
  EXPECT_EQ(b->NotifyReferenceCount(), 0);
  Free(next);  // a dead owner is cleared
  EXPECT_EQ(c->Owner(), nullptr);
  c->SetOwner(b);
  THolder keeper;
  c->AddMemLockReference(&keeper);
  c->AddMemLockReference(b);
  c->RemoveMemLockReference(b);  // an owner that unlocks stops being the owner
  EXPECT_EQ(c->Owner(), nullptr);
  FreeAll(c, b, a, y, root);
}

TEST(FreeFunctions, ClearTheVariableFirst) {
  auto *x = N("x"), *c = N("c");
  THolder h;
  auto* w = New<TWatcher>();
  x->AddNotifyReference(c);
  x->AddNotifyReference(w);
  x->AddNotifyReference(&h, h.Callback());
  x->AddMemLockReference(&h);
  TNode* p = x;
  RemoveNotifyAndNil(p, static_cast<TQUMAReferencedPersistent*>(nullptr));
  RemoveNotifyAndNil(p, static_cast<TComponent*>(nullptr));
  RemoveNotifyAndNil(p, static_cast<TObject*>(nullptr), h.Callback());
  EXPECT_EQ(p, x);  // null consumer: nothing happens
  RemoveNotifyAndNil(p, c);
  EXPECT_EQ(p, nullptr);
  EXPECT_EQ(x->NotifyReferenceCount(), 0);
  p = x;
  RemoveNotifyAndNil(p, w);
  EXPECT_EQ(x->Wrapper()->FreeNotificationCount(), 0);
  p = x;
  RemoveNotifyAndNil(p, &h, h.Callback());
  p = x;
  DiscardAndNil(p);  // still locked: stays
  EXPECT_EQ(p, nullptr);
  EXPECT_FALSE(QUMAIsFreed(x));
  p = x;
  TQUMAGuardedPtr<TNode> gx(x);
  UnlockAndNil(p, &h);
  EXPECT_EQ(p, nullptr);
  EXPECT_FALSE(gx);
  EXPECT_EQ(h.Count, 0);  // its callback was removed before
  DiscardAndNil(p);  // null: nothing to do
  UnlockAndNil(p, &h);
  FreeAll(c, w);
}

TEST(Surface, InterfaceCountingNeverGovernsLifetimeAndCreationIsVirtual) {
  auto *a = N("a"), *b = N("b");
  void* intf = nullptr;
  EXPECT_EQ(a->QueryInterface(IInterface::IID, &intf), S_OK);
  EXPECT_EQ(intf, static_cast<IInterface*>(a));
  EXPECT_EQ(a->QueryInterface(TGUID::Parse("{12345678-1234-1234-1234-123456789ABC}"), &intf), E_NOINTERFACE);
  EXPECT_EQ(a->_AddRef() + a->_Release(), -2);
  { TInterfacePtr<IInterface> ref(a); }
  EXPECT_FALSE(QUMAIsFreed(a));
  EXPECT_EQ(b->CreateSequence(), a->CreateSequence() + 1);
  TQUMAReferencedPersistent* made = TQUMAReferencedPersistentClass(TNode::StaticClass()).Create(a);
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(made->ClassName(), u"TNode");
  EXPECT_EQ(made->Owner(), a);
  Free(a);
  EXPECT_EQ(made->Owner(), nullptr);
  TQUMAReferencedPersistent* base =
      TQUMAReferencedPersistentClass(TQUMAReferencedPersistent::StaticClass()).Create(b);
  EXPECT_EQ(b->NotifyReferenceCount(), 1);
  FreeAll(made, b, base);
}

TEST(Threads, ObjectsOfDifferentThreadsLiveAndDieIndependently) {
  // Each thread owns its objects; only the registry behind QUMAIsFreed is shared.
  std::vector<TQUMAReferencedPersistent*> dead[2];
  auto work = [](std::vector<TQUMAReferencedPersistent*>* died) {
    THolder holder;
    for (int i = 0; i < 2000; ++i) {
      auto* x = died->emplace_back(N("x"));
      x->AddMemLockReference(&holder);
      EXPECT_FALSE(QUMAIsFreed(x));
      x->RemoveMemLockReference(&holder);
    }
  };
  {
    std::jthread t0(work, &dead[0]), t1(work, &dead[1]);
  }
  for (auto& died : dead)
    for (auto* p : died) ASSERT_TRUE(QUMAIsFreed(p));  // memory already released: answered from the registry
}
