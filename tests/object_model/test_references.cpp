// Lock and unlock counts, self-freeing, twilight, silent references and free indicators,
// destruction order and the free functions of the referenced persistent.
#include <thread>

#include "Helpers.h"

using namespace omtest;

namespace {

struct LockCounts : ::testing::Test {
  std::vector<std::string> journal;
};

}  // namespace

TEST_F(LockCounts, NewObjectIsUnreferencedAndNotFreedByAnything) {
  auto* x = New<TNode>(nullptr, "x");
  EXPECT_TRUE(x->FreeWhenUnreferenced());
  EXPECT_EQ(x->TotalReferenceCount(), 0);
  EXPECT_FALSE(x->_GetFreed());
  EXPECT_FALSE(x->_GetFreeing());
  EXPECT_TRUE(x->RPState().Contains(_rpFreeOnUnref));
  bool gone = false;
  x->RegisterFreeIndicator(gone);
  Free(x);
  EXPECT_TRUE(gone);
  EXPECT_TRUE(QUMAIsFreed(x));  // memory already released: answered from the registry
}

TEST_F(LockCounts, LocksAreCountedPerLockerAndTheLastOneFrees) {
  auto* x = New<TNode>(nullptr, "x");
  THolder a, b;  // plain objects: no link, they release their locks themselves
  bool gone = false;
  x->RegisterFreeIndicator(gone);
  x->AddMemLockReference(&a);
  x->AddMemLockReference(&a);
  x->AddMemLockReference(&b);
  EXPECT_EQ(x->LockCount(&a), 2);
  EXPECT_EQ(x->MemLockReferenceCount(), 2);  // lockers, not locks
  EXPECT_TRUE(x->IsLockedBy(&b));

  bool deleted = true;
  x->RemoveMemLockReference(&a, &deleted);
  EXPECT_FALSE(deleted);
  EXPECT_EQ(x->LockCount(&a), 1);
  x->RemoveMemLockReference(&b);
  EXPECT_EQ(x->LockCount(&b), 0);
  EXPECT_FALSE(x->IsLockedBy(&b));
  EXPECT_FALSE(gone);
  x->RemoveMemLockReference(&a, &deleted);
  EXPECT_TRUE(deleted);
  EXPECT_TRUE(gone);
}

TEST_F(LockCounts, UnlockByANonLockerStillFreesAnUnreferencedObject) {
  auto* x = New<TNode>(nullptr, "x");
  THolder stranger;
  bool deleted = false;
  x->RemoveMemLockReference(&stranger, &deleted);
  EXPECT_TRUE(deleted);
  EXPECT_TRUE(QUMAIsFreed(x));
}

TEST_F(LockCounts, FreeWhenUnreferencedOffKeepsTheObject) {
  auto* x = New<TNode>(nullptr, "x");
  x->SetFreeWhenUnreferenced(false);
  THolder a;
  x->AddMemLockReference(&a);
  bool deleted = true;
  x->RemoveMemLockReference(&a, &deleted);
  EXPECT_FALSE(deleted);
  EXPECT_FALSE(x->FreeIfUnreferenced());
  x->SetFreeWhenUnreferenced(true);
  EXPECT_TRUE(x->FreeIfUnreferenced());
}

TEST_F(LockCounts, AReferencedLockerIsLinkedBackAndUnlinkedWithItsLastLock) {
  auto* x = New<TNode>(nullptr, "x");
  auto* a = New<TNode>(nullptr, "a");
  x->AddMemLockReference(a);
  x->AddMemLockReference(a);
  EXPECT_EQ(a->NotifyReferenceCount(), 1);  // x learns of a's death through a's consumers
  x->SetFreeWhenUnreferenced(false);
  x->RemoveMemLockReference(a);
  x->RemoveMemLockReference(a);
  EXPECT_EQ(a->NotifyReferenceCount(), 0);
  Free(a);
  Free(x);
}

TEST_F(LockCounts, FreeingAReferencedLockerRemovesAllOfItsLocks) {
  auto* x = New<TNode>(nullptr, "x");
  auto* a = New<TNode>(nullptr, "a");
  TQUMAGuardedPtr<TNode> watch(x);
  x->AddMemLockReference(a);
  x->AddMemLockReference(a);
  Free(a);
  EXPECT_FALSE(watch);  // both locks went, and x freed itself
}

TEST_F(LockCounts, ObjectsThatLockEachOtherGoTogether) {
  auto* a = New<TNode>(nullptr, "a");
  auto* b = New<TNode>(nullptr, "b");
  auto* c = New<TNode>(nullptr, "c");
  a->AddMemLockReference(b);  // b locks a
  b->AddMemLockReference(a);  // a locks b
  c->AddMemLockReference(b);  // b locks c
  TQUMAGuardedPtr<TNode> gb(b), gc(c);
  Free(a);  // b loses a's lock and frees itself, which lets c go too
  EXPECT_FALSE(gb);
  EXPECT_FALSE(gc);
}

TEST_F(LockCounts, FreeingAComponentLockerRemovesOneLockOnly) {
  auto* x = New<TNode>(nullptr, "x");
  auto* c = New<TWatcher>();
  x->AddMemLockReference(c);
  x->AddMemLockReference(c);
  EXPECT_EQ(x->Wrapper()->FreeNotificationCount(), 1);
  Free(c);
  ASSERT_FALSE(QUMAIsFreed(x));
  EXPECT_EQ(x->MemLockReferenceCount(), 1);
  Free(x);  // the dead locker is never touched

  auto* y = New<TNode>(nullptr, "y");
  auto* d = New<TWatcher>();
  TQUMAGuardedPtr<TNode> watch(y);
  y->AddMemLockReference(d);
  Free(d);  // its only lock: y frees itself from inside the wrapper's notification
  EXPECT_FALSE(watch);
}

TEST_F(LockCounts, MemLockGuardHoldsForItsScope) {
  auto* x = New<TNode>(nullptr, "x");
  THolder holder;
  TQUMAGuardedPtr<TNode> watch(x);
  {
    TQUMAMemLockGuard<TNode> lock(x, &holder);
    EXPECT_EQ(x->LockCount(&holder), 1);
    TQUMAMemLockGuard<TNode> moved(std::move(lock));
    EXPECT_EQ(moved.Get(), x);
    EXPECT_EQ(x->LockCount(&holder), 1);
  }
  EXPECT_FALSE(watch);

  auto* y = New<TNode>(nullptr, "y");
  {
    TQUMAMemLockGuard<TNode> lock(y, &holder);
    Free(y);  // dies by other hands; the guard then releases nothing
    EXPECT_EQ(lock.Get(), nullptr);
    EXPECT_FALSE(lock.Release());
  }
}

// ---- twilight ----

namespace {
class TTwilightHandler : public TObject {
  QUMA_CLASS(TTwilightHandler, TObject)
 public:
  void Enter(TObject*, bool& stop) {
    ++Entered;
    stop = KeepAlive;
  }
  void Leave(TObject*) { ++Left; }
  bool KeepAlive = true;
  int Entered = 0;
  int Left = 0;
};
}  // namespace

TEST(Twilight, HandlerKeepsTheObjectUntilALaterUnlockLetsItGo) {
  auto* x = New<TNode>(nullptr, "x");
  TTwilightHandler h;
  THolder a;
  x->SetOnEnterTwilight(Bind<&TTwilightHandler::Enter>(&h));
  x->SetOnLeaveTwilight(Bind<&TTwilightHandler::Leave>(&h));
  x->AddMemLockReference(&a);
  bool deleted = true;
  x->RemoveMemLockReference(&a, &deleted);
  EXPECT_FALSE(deleted);
  EXPECT_EQ(h.Entered, 1);
  EXPECT_TRUE(x->RPState().Contains(_rpInTwilight));

  x->AddMemLockReference(&a);
  EXPECT_EQ(h.Left, 1);
  EXPECT_FALSE(x->RPState().Contains(_rpInTwilight));
  x->AddMemLockReference(&a);
  EXPECT_EQ(h.Left, 1);  // only when leaving twilight

  h.KeepAlive = false;
  x->RemoveMemLockReference(&a);
  x->RemoveMemLockReference(&a, &deleted);
  EXPECT_TRUE(deleted);
  EXPECT_EQ(h.Entered, 2);
}

// ---- silent references and free indicators ----

TEST(SilentReferences, NullOnlyVariablesStillHoldingTheObject) {
  auto* x = New<TNode>(nullptr, "x");
  auto* other = New<TNode>(nullptr, "other");
  TQUMAReferencedPersistent* held = x;
  TQUMAReferencedPersistent* moved = x;
  TQUMAReferencedPersistent* dropped = x;
  x->RegisterSilentReference(&held);
  x->RegisterSilentReference(&held);  // once only
  x->RegisterSilentReference(&moved);
  x->RegisterSilentReference(&dropped);
  x->UnregisterSilentReference(&dropped);
  moved = other;
  bool a = false, b = false;
  x->RegisterFreeIndicator(a);
  x->RegisterFreeIndicator(b);
  x->UnregisterFreeIndicator(b);
  Free(x);
  EXPECT_EQ(held, nullptr);
  EXPECT_EQ(moved, other);
  EXPECT_EQ(dropped, x);
  EXPECT_TRUE(a);
  EXPECT_FALSE(b);
  Free(other);
}

TEST(SilentReferences, GuardedPointerFollowsCopiesAndMoves) {
  auto* x = New<TNode>(nullptr, "x");
  TQUMAGuardedPtr<TNode> p(x);
  TQUMAGuardedPtr<TNode> copy = p;
  TQUMAGuardedPtr<TNode> moved(std::move(copy));
  EXPECT_FALSE(copy);
  std::vector<TQUMAGuardedPtr<TNode>> many(20, p);  // reallocation moves them all
  many.resize(200, p);
  EXPECT_EQ(moved.Get(), x);
  EXPECT_EQ(p->Name, "x");
  Free(x);
  EXPECT_FALSE(p);
  EXPECT_FALSE(moved);
  for (auto& g : many) EXPECT_FALSE(g);
  TQUMAGuardedPtr<TNode> late(x);  // a dead object is never attached
  EXPECT_FALSE(late);
}

TEST(SilentReferences, FreeStateIsVisibleWhileTheObjectGoes) {
  auto* x = New<TNode>(nullptr, "x");
  auto* c = New<TNode>(nullptr, "c");
  x->AddNotifyReference(c);
  bool sawFreeing = false, sawFreed = true;
  c->OnRemove = [&](TNode* self, TQUMAReferencedPersistent* other) {
    sawFreeing = other->_GetFreeing();
    sawFreed = other->_GetFreed();
    self->InheritedNotificationRef(other, opRemove);
  };
  Free(x);
  EXPECT_TRUE(sawFreeing);
  EXPECT_FALSE(sawFreed);
  EXPECT_TRUE(QUMAIsFreeing(x));
  EXPECT_TRUE(QUMAIsFreed(nullptr));
  Free(c);
}

// ---- destruction ----

TEST(Destruction, TellsConsumersThenLockersThenCallbackHoldersThenComponents) {
  std::vector<std::string> journal;
  auto* x = New<TNode>(nullptr, "x", &journal);
  auto* c1 = New<TNode>(nullptr, "c1", &journal);
  auto* c2 = New<TNode>(nullptr, "c2", &journal);
  auto* l1 = New<TNode>(nullptr, "l1", &journal);
  auto* l2 = New<TNode>(nullptr, "l2", &journal);
  THolder h1("h1", &journal), h2("h2", &journal);
  auto* w = New<TWatcher>(nullptr, &journal, "w");
  x->SetFreeWhenUnreferenced(false);
  x->AddNotifyReference(c1);
  x->AddMemLockReference(l1);
  x->AddNotifyReference(&h1, h1.Callback());
  x->AddNotifyReference(w);
  x->AddMemLockReference(l2);
  x->AddNotifyReference(c2);
  x->AddNotifyReference(&h2, h2.Callback());
  x->AddNotifyReference(&h1, h1.Callback());  // replaces, keeps its place
  EXPECT_EQ(x->NotifyReferenceCount(), 2);
  EXPECT_EQ(x->TotalReferenceCount(), 4);
  Free(x);
  const std::vector<std::string> expected = {"c2<-x", "c1<-x", "l2<-x", "l1<-x", "h1<-x", "h2<-x", "w<-x"};
  EXPECT_EQ(journal, expected);
  EXPECT_EQ(w->LastPayload, static_cast<TPersistent*>(x));
  EXPECT_EQ(l1->NotifyReferenceCount(), 0);  // the lockers forgot x
  for (TObject* o : std::initializer_list<TObject*>{c1, c2, l1, l2, w}) Free(o);
}

TEST(Destruction, ConsumerThatFreesItselfIsToldOnceAndTheLoopGoesOn) {
  std::vector<std::string> journal;
  auto* x = New<TNode>(nullptr, "x", &journal);
  auto* c1 = New<TNode>(nullptr, "c1", &journal);
  auto* c2 = New<TNode>(nullptr, "c2", &journal);
  auto* c3 = New<TNode>(nullptr, "c3", &journal);
  x->AddNotifyReference(c1);
  x->AddNotifyReference(c2);
  x->AddNotifyReference(c3);
  c2->OnRemove = [](TNode* self, TQUMAReferencedPersistent*) { Free(self); };
  TQUMAGuardedPtr<TNode> g2(c2);
  Free(x);
  EXPECT_EQ(journal, (std::vector<std::string>{"c3<-x", "c2<-x", "c1<-x"}));
  EXPECT_FALSE(g2);
  Free(c1);
  Free(c3);
}

TEST(Destruction, NestedFreeIsAbsorbed) {
  std::vector<std::string> journal;
  auto* x = New<TNode>(nullptr, "x", &journal);
  auto* c = New<TNode>(nullptr, "c", &journal);
  auto* d = New<TNode>(nullptr, "d", &journal);
  x->AddNotifyReference(c);
  x->AddNotifyReference(d);
  bool gone = false;
  x->RegisterFreeIndicator(gone);
  d->OnRemove = [&](TNode* self, TQUMAReferencedPersistent* other) {
    Free(other);  // destruction entered again from a notification
    EXPECT_FALSE(gone);
    EXPECT_FALSE(other->FreeIfUnreferenced());
    self->InheritedNotificationRef(other, opRemove);
  };
  Free(x);
  EXPECT_TRUE(gone);
  EXPECT_EQ(journal, (std::vector<std::string>{"d<-x", "c<-x"}));
  Free(c);
  Free(d);
}

TEST(Destruction, AddNotifyReferenceIgnoresSelfNullAndDuplicates) {
  auto* x = New<TNode>(nullptr, "x");
  auto* c = New<TNode>(nullptr, "c");
  x->AddNotifyReference(x);
  x->AddNotifyReference(static_cast<TQUMAReferencedPersistent*>(nullptr));
  x->AddNotifyReference(static_cast<TObject*>(nullptr), {});
  x->AddNotifyReference(c);
  x->AddNotifyReference(c);
  EXPECT_EQ(x->NotifyReferenceCount(), 1);
  x->RemoveNotifyReference(c);  // not told
  EXPECT_EQ(x->NotifyReferenceCount(), 0);
  Free(x);
  Free(c);
}

TEST(Destruction, CallbackRemovalNeedsTheSameCallback) {
  auto* x = New<TNode>(nullptr, "x");
  THolder h, other;
  x->AddNotifyReference(&h, h.Callback());
  x->RemoveNotifyReference(&h, other.Callback());  // a different callback stays
  Free(x);
  EXPECT_EQ(h.Count, 1);

  auto* y = New<TNode>(nullptr, "y");
  y->AddNotifyReference(&h, h.Callback());
  y->RemoveNotifyReference(&h, h.Callback());
  Free(y);
  EXPECT_EQ(h.Count, 1);
}

// ---- owners ----

TEST(OwnerChains, ReferencedOwnerIsWatchedAndClearedWhenItDies) {
  auto* owner = New<TNode>(nullptr, "owner");
  auto* next = New<TNode>(nullptr, "next");
  auto* child = New<TNode>(owner, "child");
  EXPECT_EQ(child->Owner(), owner);
  EXPECT_EQ(owner->NotifyReferenceCount(), 1);
  child->SetOwner(next);
  EXPECT_EQ(owner->NotifyReferenceCount(), 0);
  EXPECT_EQ(next->NotifyReferenceCount(), 1);
  Free(next);
  EXPECT_EQ(child->Owner(), nullptr);
  Free(owner);
  Free(child);
}

TEST(OwnerChains, OwningComponentAndReferencedOwnerWalkTheChain) {
  auto* root = New<TWatcher>();
  auto* mid = New<TWatcher>(root);
  auto* a = New<TNode>(mid, "a");
  auto* b = New<TNode>(a, "b");
  auto* c = New<TNode>(b, "c");
  EXPECT_EQ(c->OwningComponent(), mid);
  EXPECT_EQ(a->OwningComponent(), mid);
  EXPECT_EQ(c->ReferencedPersistentOwner(c), b);  // starts at the candidate's owner
  EXPECT_EQ(c->ReferencedPersistentOwner(b), a);
  EXPECT_EQ(c->ReferencedPersistentOwner(a), nullptr);
  EXPECT_EQ(c->ReferencedPersistentOwner(nullptr), nullptr);
  Free(c);
  Free(b);
  Free(a);
  Free(root);
}

TEST(OwnerChains, ComponentOwnerQueriesCacheInThreeWays) {
  auto* root = New<TWatcher>();
  auto* comp = New<TWatcher>(root);
  auto* x = New<TNode>(comp, "x");
  // Designing: both answers cached.
  EXPECT_FALSE(x->ComponentOwnerIsDesigning());
  root->SetDesigning(true);
  EXPECT_FALSE(x->ComponentOwnerIsDesigning());
  // Loading: a positive answer is asked again, a negative one sticks.
  root->BeginLoading();
  EXPECT_TRUE(x->ComponentOwnerIsLoading());
  root->Loaded();
  comp->Loaded();
  EXPECT_FALSE(x->ComponentOwnerIsLoading());
  root->BeginLoading();
  EXPECT_FALSE(x->ComponentOwnerIsLoading());
  // Destroying: never cached, and only the owning component counts.
  EXPECT_FALSE(x->ComponentOwnerIsDestroying());
  root->Destroying();
  EXPECT_TRUE(x->ComponentOwnerIsDestroying());

  auto* y = New<TNode>(root, "y");
  EXPECT_TRUE(y->ComponentOwnerIsDesigning());
  Free(x);
  Free(y);
  Free(root);
}

TEST(OwnerChains, AnOwnerThatUnlocksStopsBeingTheOwner) {
  auto* owner = New<TNode>(nullptr, "owner");
  auto* x = New<TNode>(owner, "x");
  THolder keeper;
  x->AddMemLockReference(&keeper);
  x->AddMemLockReference(owner);
  x->RemoveMemLockReference(owner);
  EXPECT_EQ(x->Owner(), nullptr);
  Free(x);
  Free(owner);
}

// ---- the rest of the surface ----

TEST(FreeFunctions, ClearTheVariableFirst) {
  auto* x = New<TNode>(nullptr, "x");
  auto* c = New<TNode>(nullptr, "c");
  THolder h;
  auto* w = New<TWatcher>();
  x->AddNotifyReference(c);
  x->AddNotifyReference(w);
  x->AddNotifyReference(&h, h.Callback());
  x->AddMemLockReference(&h);

  TNode* p = x;
  RemoveNotifyAndNil(p, static_cast<TQUMAReferencedPersistent*>(nullptr));
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
  TQUMAGuardedPtr<TNode> watch(x);
  UnlockAndNil(p, &h);
  EXPECT_EQ(p, nullptr);
  EXPECT_FALSE(watch);
  EXPECT_EQ(h.Count, 0);  // its callback was removed before
  TNode* none = nullptr;
  DiscardAndNil(none);
  UnlockAndNil(none, &h);
  Free(c);
  Free(w);
}

TEST(Surface, InterfaceCountingNeverGovernsLifetime) {
  auto obj = New<TNode>(nullptr, "x");
  void* intf = nullptr;
  EXPECT_EQ(obj->QueryInterface(IInterface::IID, &intf), S_OK);
  EXPECT_EQ(intf, static_cast<IInterface*>(obj));
  constexpr TGUID unknown = TGUID::Parse("{12345678-1234-1234-1234-123456789ABC}");
  EXPECT_EQ(obj->QueryInterface(unknown, &intf), E_NOINTERFACE);
  EXPECT_EQ(obj->_AddRef(), -1);
  EXPECT_EQ(obj->_Release(), -1);
  { TInterfacePtr<IInterface> ref(obj); }
  EXPECT_FALSE(QUMAIsFreed(obj));
  EXPECT_EQ(obj->_GetSelf(), obj);
  Free(obj);
}

TEST(Surface, CreationSequenceAndVirtualConstructor) {
  auto* a = New<TNode>(nullptr, "a");
  auto* b = New<TNode>(nullptr, "b");
  EXPECT_EQ(b->CreateSequence(), a->CreateSequence() + 1);
  TQUMAReferencedPersistent* made = TQUMAReferencedPersistentClass(TNode::StaticClass()).Create(a);
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(made->ClassName(), u"TNode");
  EXPECT_EQ(made->Owner(), a);
  Free(a);
  EXPECT_EQ(made->Owner(), nullptr);
  Free(made);
  TQUMAReferencedPersistent* base =
      TQUMAReferencedPersistentClass(TQUMAReferencedPersistent::StaticClass()).Create(b);
  ASSERT_NE(base, nullptr);
  EXPECT_EQ(b->NotifyReferenceCount(), 1);
  Free(b);
  Free(base);
}

TEST(Threads, ObjectsOfDifferentThreadsLiveAndDieIndependently) {
  // Each thread owns its objects; only the registry behind QUMAIsFreed is shared.
  auto work = [](std::vector<TQUMAReferencedPersistent*>* dead) {
    THolder holder;
    for (int i = 0; i < 2000; ++i) {
      auto* x = New<TNode>(nullptr, "x");
      x->AddMemLockReference(&holder);
      EXPECT_FALSE(QUMAIsFreed(x));
      x->RemoveMemLockReference(&holder);
      dead->push_back(x);
    }
  };
  std::vector<TQUMAReferencedPersistent*> deadA, deadB;
  std::thread a(work, &deadA), b(work, &deadB);
  a.join();
  b.join();
  std::size_t reportedFreed = 0;
  for (auto* p : deadA) reportedFreed += QUMAIsFreed(p);
  for (auto* p : deadB) reportedFreed += QUMAIsFreed(p);
  EXPECT_EQ(reportedFreed, deadA.size() + deadB.size());
}
