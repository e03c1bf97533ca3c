#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <quma/Classes.h>
#include <quma/Collection.h>
#include <quma/Generics.h>
#include <quma/Method.h>
#include <quma/Monitor.h>

#include "rtl/TestSupport.h"

using namespace quma;
using quma::test::ErrorOf;
using quma::test::TFreeCounter;

namespace {

std::vector<std::string> gTrace;

class TBase : public TObject {
  QUMA_CLASS(TBase, TObject)
  QUMA_VIRTUAL_CONSTRUCTOR(int)
 public:
  explicit TBase(int v) : Value(v) {}
  ~TBase() override { gTrace.push_back("~TBase"); }
  void AfterConstruction() override { gTrace.push_back("after:" + Kind()); }
  void BeforeDestruction() override { gTrace.push_back("before:" + Kind()); }
  virtual std::string Kind() const { return "base"; }
  int Value;
};

class TDerived : public TBase {
  QUMA_CLASS(TDerived, TBase)
 public:
  using TBase::TBase;
  ~TDerived() override { gTrace.push_back("~TDerived"); }
  std::string Kind() const override { return "derived"; }
};

class THiddenDestructor : public TBase {
  QUMA_CLASS(THiddenDestructor, TBase)
 public:
  using TBase::TBase;

 protected:
  ~THiddenDestructor() override = default;  // only Free may destroy it
};

class TAbstractish : public TBase {
  QUMA_CLASS(TAbstractish, TBase)
 public:
  TAbstractish() : TBase(0) {}  // not creatable with the hierarchy's arguments
};

TEST(ObjectModel, TwoPhaseLifetimeClassReferencesAndVirtualConstructors) {
  gTrace.clear();
  TDerived* d = New<TDerived>(7);
  EXPECT_EQ(gTrace, std::vector<std::string>{"after:derived"});
  EXPECT_TRUE(d->ClassNameIs(u"tderived"));
  EXPECT_EQ(d->ClassParent(), TBase::StaticClass());
  EXPECT_TRUE(d->InheritsFrom(TObject::StaticClass()));
  EXPECT_FALSE(TBase::StaticClass()->InheritsFrom(TDerived::StaticClass()));
  EXPECT_TRUE(d->Is<TBase>());
  EXPECT_EQ(TList<int>::StaticClass()->ClassParent(), TObject::StaticClass());
  TObjectPtr<TBase> copy(TClassOf<TBase>(d->ClassType()).Create(8));
  ASSERT_TRUE(copy);
  EXPECT_EQ(copy->ClassName() + u" " + copy->ToString(), u"TDerived TDerived");
  EXPECT_EQ(copy->Value, 8);
  EXPECT_EQ(TClassOf<TBase>(TAbstractish::StaticClass()).Create(1), nullptr);
  TObjectPtr<TBase> hidden(TClassOf<TBase>(THiddenDestructor::StaticClass()).Create(2));
  EXPECT_EQ(hidden ? hidden->ClassName() : u"", u"THiddenDestructor");
  gTrace.clear();
  Free(d);
  EXPECT_EQ(gTrace, (std::vector<std::string>{"before:derived", "~TDerived", "~TBase"}));
  Free(nullptr);  // null-safe
  TBase* p = New<TBase>(1);
  FreeAndNil(p);
  EXPECT_EQ(p, nullptr);
  // The message for a class, not nil, is checked by the string list's Assign.
  EXPECT_EQ(ErrorOf<EConvertError>([] { MakeObject<TPersistent>()->Assign(nullptr); }),
            "Cannot assign a nil to a TPersistent");
}

class TTarget : public TObject {
  QUMA_CLASS(TTarget, TObject)
 public:
  int Calls = 0;
  void A(TObject*) { ++Calls; }
  void B(TObject*) { Calls += 10; }
  int Twice(int x) const { return 2 * x; }
};

TEST(BoundCallbacks, EqualityAndOrderUseBothPointers) {
  auto t1 = MakeObject<TTarget>();
  auto t2 = MakeObject<TTarget>();
  const TNotifyEvent a1 = Bind<&TTarget::A>(t1.get()), b1 = Bind<&TTarget::B>(t1.get());
  const TNotifyEvent a2 = Bind<&TTarget::A>(t2.get());
  EXPECT_EQ(a1, Bind<&TTarget::A>(t1.get()));
  EXPECT_NE(a1, b1);  // two methods of one object
  EXPECT_NE(a1, a2);  // same code on two objects
  EXPECT_EQ(a1.Code(), a2.Code());
  EXPECT_EQ(a1.Data(), static_cast<TObject*>(t1.get()));
  // Ordered by object address first.
  EXPECT_EQ(a1 < a2, reinterpret_cast<NativeUInt>(t1.get()) < reinterpret_cast<NativeUInt>(t2.get()));
  EXPECT_EQ((a1 <=> b1) < 0, a1.CodeAddress() < b1.CodeAddress());
  a1(nullptr);
  b1(nullptr);
  EXPECT_EQ(t1->Calls, 11);
  EXPECT_EQ(Bind<&TTarget::Twice>(t2.get())(21), 42);
  // Round trip through the untyped shape.
  EXPECT_EQ(MethodCast<void(TObject*)>(MethodCast<void(TObject*, int)>(a2)), a2);
  EXPECT_FALSE(static_cast<bool>(TNotifyEvent()));
}

TEST(Monitor, ReentrantOnTheOwningThreadExclusiveOnOthersAndSerialising) {
  auto obj = MakeObject<TTarget>();
  const auto otherGets = [&] {
    bool got = false;
    std::thread([&] {
      if ((got = TMonitor::TryEnter(obj.get(), std::chrono::milliseconds(20))))
        TMonitor::Exit(obj.get());
      else  // nor may it release the lock
        EXPECT_EQ(ErrorOf<EMonitorLockException>([&] { TMonitor::Exit(obj.get()); }), "Object lock not owned");
    }).join();
    return got;
  };
  TMonitor::Enter(obj.get());
  TMonitor::Enter(obj.get());
  EXPECT_FALSE(otherGets());
  TMonitor::Exit(obj.get());
  EXPECT_FALSE(otherGets());  // still held once
  TMonitor::Exit(obj.get());
  EXPECT_TRUE(otherGets());
  EXPECT_THROW(TMonitor::Exit(obj.get()), EMonitorLockException);
  // Guards, nested too, serialise updates from several threads.
#ifdef __SANITIZE_THREAD__
  constexpr int kRounds = 2000;  // every lock operation is instrumented: keep the run short
#else
  constexpr int kRounds = 20000;
#endif
  long counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < kRounds; ++i) {
        TMonitorGuard guard(obj.get());
        TMonitorGuard nested(obj.get());
        ++counter;
      }
    });
  for (auto& th : threads) th.join();
  EXPECT_EQ(counter, 4 * kRounds);
  Integer n = 0;
  EXPECT_EQ(AtomicIncrement(n), 1);
  EXPECT_EQ(AtomicDecrement(n), 0);
}

class TRecordingList : public TList<int> {
  QUMA_CLASS(TRecordingList, TList<int>)
 public:
  std::vector<std::pair<int, TCollectionNotification>>* Log;
  int FreeOn = -1;
  explicit TRecordingList(std::vector<std::pair<int, TCollectionNotification>>* log) : Log(log) {}

 protected:
  void Notify(const int& Item, TCollectionNotification Action) override {
    Log->emplace_back(Item, Action);
    if (Item == FreeOn) Free(this);  // a handler that frees its own list
  }
};

class TLoggedCollection : public TCollection {
  QUMA_CLASS(TLoggedCollection, TCollection)
 public:
  using TCollection::TCollection;
  std::vector<std::pair<int, TCollectionNotification>>* Log = nullptr;
  int Updates = 0;

 protected:
  void Notify(TCollectionItem* Item, TCollectionNotification Action) override { Log->emplace_back(Item->ID(), Action); }
  void Update(TCollectionItem*) override { ++Updates; }
};

TEST(Notifications, GenericListsAndCollectionsHearOfEveryChangeUntilFreed) {
  using P = std::pair<int, TCollectionNotification>;
  std::vector<P> log;
  auto* list = New<TRecordingList>(&log);
  list->Add(1);
  list->Add(2);
  list->Insert(0, 0);
  EXPECT_EQ(list->ExtractAt(1), 1);
  EXPECT_EQ(list->Remove(2), 1);
  EXPECT_EQ(list->Remove(99), -1);
  list->SetItem(0, 5);
  EXPECT_EQ(log, (std::vector<P>{{1, cnAdded}, {2, cnAdded}, {0, cnAdded}, {1, cnExtracted}, {2, cnRemoved},
                                 {0, cnRemoved}, {5, cnAdded}}));
  EXPECT_THROW(list->Delete(3), EArgumentOutOfRangeException);
  EXPECT_THROW(list->Insert(-1, 0), EArgumentOutOfRangeException);
  EXPECT_THROW(list->DeleteRange(0, 2), EArgumentOutOfRangeException);
  list->AddRange({6, 7, 8});
  log.clear();
  list->DeleteRange(0, 2);
  EXPECT_EQ(list->ToVector(), (std::vector<int>{7, 8}));
  list->FreeOn = 8;  // a handler of the final removals frees the list again: ignored
  Free(list);        // the override hears of every item, as Clear would tell it
  EXPECT_EQ(log, (std::vector<P>{{5, cnRemoved}, {6, cnRemoved}, {7, cnRemoved}, {8, cnRemoved}}));

  list = New<TRecordingList>(&log);
  list->AddRange({0, 1, 2, 3, 4});
  log.clear();
  list->FreeOn = 2;
  list->Clear();  // the list dies while notifying item 2; the rest are not notified
  EXPECT_EQ(log.size(), 3u);

  // A collection's override hears of every item come and go until the end.
  log.clear();
  auto* items = New<TLoggedCollection>(TCollectionItemClass(TCollectionItem::StaticClass()));
  items->Log = &log;
  for (int i = 0; i < 3; ++i) items->Add();
  EXPECT_EQ(items->Updates, 3);  // each addition changes the collection
  items->Delete(1);
  Free(items->Items(0));
  Free(items);  // the override still hears of the last item
  EXPECT_EQ(log, (std::vector<P>{{0, cnAdded}, {1, cnAdded}, {2, cnAdded}, {1, cnDeleting}, {1, cnExtracting},
                                 {0, cnExtracting}, {2, cnExtracting}}));
}

TEST(GenericContainers, ListOrderIndexesComparerObjectListDictionaryAndStack) {
  auto list = MakeObject<TList<int>>();
  for (int i = 0; i < 100; ++i) list->Add(i);
  for (int i = 0; i < 60; ++i) list->Delete(0);
  EXPECT_EQ(list->First(), 60);
  EXPECT_EQ(list->IndexOf(75), 15);
  list->Insert(0, -1);  // reuses the freed front slot
  list->Insert(1, -2);
  EXPECT_EQ(list->ToVector()[2], 60);
  EXPECT_EQ(list->Items(1), -2);
  EXPECT_EQ(list->ExtractAt(0), -1);
  EXPECT_EQ(list->Remove(99), 40);
  EXPECT_EQ(list->Last(), 98);
  list->Clear();
  EXPECT_TRUE(list->IsEmpty());
  list->Add(5);
  EXPECT_EQ(list->ToVector(), std::vector<int>{5});

  auto digits = MakeObject<TList<int>>(TComparer<int>::Construct([](const int& a, const int& b) {
    return (a % 10) - (b % 10);  // equal when the last digit is
  }));
  digits->AddRange({13, 21});
  EXPECT_EQ(digits->IndexOf(3), 0);
  EXPECT_TRUE(digits->Contains(1));
  digits->Sort();
  EXPECT_EQ(digits->First(), 21);
  Integer at = -1;
  EXPECT_TRUE(digits->BinarySearch(33, at));
  EXPECT_EQ(at, 1);
  int frees = 0;
  {
    auto owning = MakeObject<TObjectList<TFreeCounter>>();
    auto* kept = New<TFreeCounter>(&frees);
    owning->Add(kept);
    owning->Add(New<TFreeCounter>(&frees));
    ASSERT_TRUE(owning->Extract(kept).has_value());  // extraction hands it back, also from the front
    EXPECT_EQ(frees, 0);
    Free(kept);
  }
  EXPECT_EQ(frees, 2);

  auto dict = MakeObject<TDictionary<int, std::string>>();
  dict->Add(1, "one");
  EXPECT_EQ(ErrorOf<EListError>([&] { dict->Add(1, "uno"); }), "Duplicates not allowed");
  EXPECT_EQ(ErrorOf<EListError>([&] { dict->Items(2); }), "Item not found");
  std::string v;
  EXPECT_TRUE(dict->TryGetValue(1, v));
  EXPECT_EQ(v, "one");

  auto stack = MakeObject<TStack<int>>();
  for (int i : {1, 2}) stack->Push(i);
  EXPECT_EQ(stack->Pop(), 2);
  EXPECT_EQ(stack->Peek(), 1);
  stack->Pop();
  EXPECT_EQ(ErrorOf<EListError>([&] { stack->Pop(); }), "Unbalanced stack or queue operation");
}

using S = std::tuple<TComponent*, TOperation, UnicodeString>;
class TWatcher : public TComponent {
  QUMA_CLASS(TWatcher, TComponent)
 public:
  using TComponent::TComponent;
  // Who was announced, how, and as which class.
  std::vector<S>* Seen = nullptr;
  void Notification(TComponent* AComponent, TOperation Operation) override {
    if (Seen) Seen->emplace_back(AComponent, Operation, AComponent->ClassName());
    TComponent::Notification(AComponent, Operation);
  }
};

TEST(Components, OwnershipLinksStatesAndTeardown) {
  std::vector<S> seen;
  auto owner = MakeObject<TWatcher>();
  owner->Seen = &seen;
  auto* child = New<TWatcher>(owner.get());
  EXPECT_EQ(std::tuple(owner->ComponentCount(), owner->Components(0)), std::tuple(1, child));
  EXPECT_EQ(child->Owner(), owner.get());
  // The owner hears of it once it is whole.
  EXPECT_EQ(seen, (std::vector<S>{{child, opInsert, u"TWatcher"}}));

  auto watcher = MakeObject<TWatcher>();
  watcher->Seen = &seen;
  auto* other = New<TWatcher>();
  other->FreeNotification(watcher.get());
  other->RemoveFreeNotification(watcher.get());
  Free(other);
  EXPECT_FALSE(watcher->ComponentState().Contains(csFreeNotification));
  EXPECT_EQ(seen.size(), 1u);  // the link was dropped both ways

  // A component moved to the owner it is linked with keeps the link.
  auto* moved = New<TWatcher>(owner.get());
  moved->FreeNotification(watcher.get());
  watcher->InsertComponent(moved);
  EXPECT_EQ(moved->Owner(), watcher.get());
  EXPECT_TRUE(watcher->ComponentState().Contains(csFreeNotification));
  Free(moved);

  owner->SetDesigning(true);
  EXPECT_TRUE(child->ComponentState().Contains(csDesigning));
  owner->BeginLoading();
  EXPECT_TRUE(child->ComponentState().Contains(csLoading));
  child->Loaded();
  EXPECT_FALSE(child->ComponentState().Contains(csLoading));

  // Teardown runs while the component is whole: linked components see its own class, and owned
  // ones are freed (newest first) before any destructor runs.
  seen.clear();
  auto* dying = New<TWatcher>();
  New<TWatcher>(dying);
  auto* linked = New<TWatcher>(dying);
  New<TWatcher>(dying);
  dying->Seen = &seen;
  dying->FreeNotification(watcher.get());
  linked->FreeNotification(watcher.get());
  Free(dying);
  EXPECT_EQ(seen, (std::vector<S>{{dying, opRemove, u"TWatcher"},     // its own link first
                                  {linked, opRemove, u"TWatcher"},    // the owner hears of a linked one
                                  {linked, opRemove, u"TWatcher"}}));  // and so does its link
}

}  // namespace
