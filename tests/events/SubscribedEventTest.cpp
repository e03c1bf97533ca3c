// The subscribed event: who is subscribed and in which order, blocking and the pending count that is
// never reset, what subscribers may do during a pass, and other threads meeting a pass (also run under TSan).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <quma/SubscribedEvent.h>

#include "Counter.h"

using namespace quma;
using eventtest::TCounter;

namespace {

using TLog = std::vector<std::string>;

// A subscriber that logs "<name>.<method>" and then runs an optional action.
class TProbe : public TObject {
  QUMA_CLASS(TProbe, TObject)
 public:
  TProbe(TLog& log, std::string name) : Log(log), Name(std::move(name)) {}
  void A(TObject* Sender) { Hit("A", Sender); }
  void B(TObject* Sender) { Hit("B", Sender); }
  void Typed(TObject* Sender, const int& Param) {
    LastParam = Param;
    Hit("Typed", Sender);
  }
  TNotifyEvent OnA() { return Bind<&TProbe::A>(this); }
  TNotifyEvent OnB() { return Bind<&TProbe::B>(this); }
  bool Check() { return Answer; }
  bool Answer = true;
  TLog& Log;
  std::string Name;
  TObject* LastSender = nullptr;
  int LastParam = 0;
  std::function<void()> Action;

 private:
  void Hit(const char* method, TObject* sender) {
    LastSender = sender;
    Log.push_back(Name + "." + method);
    if (Action) Action();
  }
};

class Event : public ::testing::Test {
 protected:
  void TearDown() override { Free(event); }
  void SubscribeA(std::initializer_list<TProbe*> probes) {
    for (auto* p : probes) event->Subscribe(p->OnA());
  }
  TLog log;
  TQUMASubscribedEvent* event = New<TQUMASubscribedEvent>();
  TObjectPtr<TProbe> a = MakeObject<TProbe>(log, "a"), b = MakeObject<TProbe>(log, "b"),
                     c = MakeObject<TProbe>(log, "c"), d = MakeObject<TProbe>(log, "d");
};

TEST_F(Event, SubscribersAreCodeObjectPairsThatKeepTheirFirstPlaceOrderedByObjectThenCode) {
  event->PrioritySubscribe(a->OnA());  // on an empty event: appended
  event->Subscribe(b->OnA());          // same code, other object
  event->Subscribe(a->OnB());          // same object, other method
  event->Subscribe(a->OnA());          // duplicate: ignored
  event->PrioritySubscribe(b->OnA());  // already there: not moved to the front
  event->PrioritySubscribe(c->OnA());
  event->Subscribe(TNotifyEvent(nullptr, d.get()));  // no code: kept, never called
  EXPECT_EQ(event->SubscriberCount(), 5);
  event->Unsubscribe(d->OnA());  // absent: ignored
  event->Unsubscribe(a->OnA());
  event->FireCallbacks();
  EXPECT_EQ(log, (TLog{"c.A", "b.A", "a.B"}));
  // Searches compare by object, then by code.
  TProbe* lo = std::min(a.get(), b.get());
  TProbe* hi = std::max(a.get(), b.get());
  const TNotifyEvent loA = lo->OnA(), loB = lo->OnB(), hiA = hi->OnA();
  const int codeOrder = loA.CodeAddress() < loB.CodeAddress() ? -1 : 1;
  // The object decides first (hiA against loB).
  const std::tuple<TNotifyEvent, TNotifyEvent, int> cases[] = {
      {loA, loA, 0}, {loA, hiA, -1}, {hiA, loB, 1}, {loA, loB, codeOrder}, {loB, loA, -codeOrder}};
  for (const auto& [left, right, order] : cases) EXPECT_EQ(TQUMACallbackList::_CompareCallbacks(left, right), order);
}

TEST_F(Event, SenderIsTheCallbackObjectOrTheEventAndASnapshotIsInvokedWithoutTheEvent) {
  auto owned = MakeObject<TQUMASubscribedEvent>(d.get());
  owned->Subscribe(a->OnA());
  owned->FireCallbacks();
  EXPECT_EQ(a->LastSender, d.get());
  owned->SetCallbackObject(nullptr);  // back to the default
  owned->FireCallbacks();
  EXPECT_EQ(a->LastSender, owned.get());
  SubscribeA({a.get(), b.get()});
  auto snapshot = MakeObject<TQUMACallbackList>();
  snapshot->Add(b->OnA());
  event->PopulateCallbacks(snapshot.get());  // appends, no duplicate check
  event->PopulateCallbacks(nullptr);
  event->Unsubscribe(a->OnA());
  a->Action = [&] {  // the walk re-reads the count
    if (snapshot->Count() == 3) snapshot->Add(c->OnA());
  };
  snapshot->InvokeCallbacks(c.get());
  EXPECT_EQ(log, (TLog{"a.A", "a.A", "b.A", "a.A", "b.A", "c.A"}));
  EXPECT_EQ(a->LastSender, c.get());
}

// Every step goes through the virtual slots, so an override changes all callers. This one counts
// Subscribe calls and can swap its subscriber list for a fresh one.
class TOpenEvent : public TQUMASubscribedEvent {
  QUMA_CLASS(TOpenEvent, TQUMASubscribedEvent)
 public:
  int Subscribes = 0;
  void Subscribe(const TNotifyEvent& fnCallback) override {
    ++Subscribes;
    inherited::Subscribe(fnCallback);
  }
  void SwapForEmptyList(TQUMACallbackList* list = New<TQUMACallbackList>()) { Free(ExchangeCallbackList(list)); }
};
// A subscriber list that reports its end.
class TWatchedList : public TQUMACallbackList {
  QUMA_CLASS(TWatchedList, TQUMACallbackList)
 public:
  explicit TWatchedList(bool* freed) : Freed(freed) {}
  ~TWatchedList() override { *Freed = true; }
  bool* Freed;
};

TEST_F(Event, TransferAddsOnlyMissingSubscribersAndAPassStopsWhenTheEventDropsItsList) {
  auto target = MakeObject<TOpenEvent>();
  target->Subscribe(b->OnA());
  SubscribeA({a.get(), b.get(), c.get()});
  event->TransferSubscriptions(target.get());
  EXPECT_EQ(event->SubscriberCount(), 0);
  EXPECT_EQ(target->Subscribes, 3);
  target->FireCallbacks();
  EXPECT_EQ(log, (TLog{"b.A", "a.A", "c.A"}));
  event->Subscribe(a->OnA());
  for (auto* target : {static_cast<TQUMASubscribedEvent*>(nullptr), event}) event->TransferSubscriptions(target);
  EXPECT_EQ(event->SubscriberCount(), 1);
  a->Action = [&] {
    a->Action = nullptr;
    target->SwapForEmptyList();  // frees the list the pass walks, monitor included
  };
  target->FireCallbacks();
  target->Subscribe(d->OnA());
  target->FireCallbacks();
  EXPECT_EQ(log, (TLog{"b.A", "a.A", "c.A", "b.A", "a.A", "d.A"}));
  bool freed = false;
  target->SwapForEmptyList(New<TWatchedList>(&freed));
  target.reset();
  EXPECT_TRUE(freed);  // the event frees the list it holds
}

TEST_F(Event, TypedEventsShareTheUntypedIdentityAndUnblockWithTheirOwnArgument) {
  auto typed = MakeObject<TQUMASubscribed1ParamEvent<int>>();
  const auto fn = Bind<&TProbe::Typed>(a.get());
  typed->Subscribe(fn);
  typed->Subscribe(fn);
  typed->PrioritySubscribe(Bind<&TProbe::Typed>(b.get()));
  EXPECT_TRUE(typed->IsSubscribed(MethodCast<void(TObject*)>(fn)));
  typed->FireCallbacks(42);
  EXPECT_EQ(a->LastParam, 42);
  typed->Unsubscribe(fn);  // a is not called again
  // An untyped firing through the base class hands typed subscribers a value-initialised one.
  static_cast<TQUMASubscribedEvent&>(*typed).FireCallbacks();
  EXPECT_EQ(b->LastParam, 0);
  {
    TQUMAScopedSubscription sub(*event, a->OnA());
    TQUMAScopedSubscription moved(std::move(sub));
    TQUMAScopedSubscription kept(*event, b->OnA());
    kept.Release();
    TQUMAScopedSubscription typedSub(*typed, Bind<&TProbe::Typed>(c.get()));
    typed->FireCallbacks(7);
  }
  EXPECT_FALSE(event->IsSubscribed(a->OnA()));
  EXPECT_TRUE(event->IsSubscribed(b->OnA()));
  typed->FireCallbacks(8);
  EXPECT_EQ(c->LastParam, 7);
  // A typed Unblock fires once with its own argument and without OnUnblocked, and only after a
  // suppressed firing.
  typed->Unblock(5);
  typed->SetOnUnblocked(d->OnB());
  {
    TQUMAScopedBlock block(*typed, 99);
    typed->FireCallbacks(1);  // one suppressed firing is enough
  }
  EXPECT_EQ(b->LastParam, 99);
  EXPECT_EQ(log, (TLog{"b.Typed", "a.Typed", "b.Typed", "b.Typed", "c.Typed", "b.Typed", "b.Typed"}));
}

TEST_F(Event, BlockedFiringsAreDeliveredOnceThePendingCountIsNeverResetAndScopedBlocksUnblockAlways) {
  event->Subscribe(a->OnA());
  event->SetOnUnblocked(d->OnB());
  event->Unblock();  // surplus: the counter does not go below zero
  event->Unblock();
  event->Block();
  event->Unblock();  // nothing suppressed yet: nothing fires
  event->Block();
  event->Block();
  for (int i = 0; i < 3; ++i) event->FireCallbacks();
  event->Unblock();  // still blocked once
  EXPECT_TRUE(log.empty() && event->Blocked());
  event->SetCallbackObject(c.get());
  event->Unblock();
  EXPECT_EQ(log, (TLog{"d.B", "a.A"}));
  EXPECT_EQ(d->LastSender, event);  // OnUnblocked always gets the event
  EXPECT_EQ(a->LastSender, c.get());
  event->Block();  // nothing fired in between, yet the pair fires again
  event->Unblock();
  EXPECT_EQ(log, (TLog{"d.B", "a.A", "d.B", "a.A"}));
  // A block checker replaces the counter.
  log.clear();
  event->SetOnIsBlocked(Bind<&TProbe::Check>(b.get()));
  event->FireCallbacks();
  EXPECT_TRUE(log.empty());
  b->Answer = false;
  event->Block();  // ignored while the checker decides
  EXPECT_FALSE(event->Blocked());
  event->Unblock();
  EXPECT_EQ(log, (TLog{"d.B", "a.A"}));
  event->SetOnIsBlocked(nullptr);  // the counter is back, untouched by the Block above
  EXPECT_FALSE(event->Blocked());
  // A scoped block unblocks on exit and on an exception.
  log.clear();
  a->Action = [] { throw std::runtime_error("subscriber failed"); };
  try {
    TQUMAScopedBlock block(*event);
    event->FireCallbacks();
    throw std::logic_error("scope failed");  // wins over the subscriber's exception
  } catch (const std::logic_error&) {
  }
  EXPECT_FALSE(event->Blocked());
  EXPECT_EQ(log, (TLog{"d.B", "a.A"}));
  // Leaving normally, the subscriber's exception reaches the caller.
  EXPECT_THROW({ TQUMAScopedBlock block(*event); }, std::runtime_error);
  EXPECT_FALSE(event->Blocked());
}

TEST_F(Event, StopFlagEndsThePassAndWhenAlreadySetCallsNobodyButStillCounts) {
  SubscribeA({a.get(), b.get(), c.get()});
  bool stop = false;
  b->Action = [&] { stop = true; };
  event->FireCallbacksWhileFalse(stop);
  event->FireCallbacksWhileFalse(stop);
  EXPECT_EQ(log, (TLog{"a.A", "b.A"}));
  EXPECT_FALSE(event->CallbacksPending());
  event->Block();
  event->FireCallbacksWhileFalse(stop);
  EXPECT_TRUE(event->CallbacksPending());
}

// Re-entrancy: the pass walks the live list by index on the firing thread.

TEST_F(Event, SubscribersRemovedOrAddedDuringThePass) {
  SubscribeA({a.get(), b.get(), c.get()});
  a->Action = [&] { event->Unsubscribe(a->OnA()); };  // skips its successor in that pass
  event->FireCallbacks();
  b->Action = [&] {
    b->Action = [&] { event->PrioritySubscribe(d->OnA()); };
    event->Subscribe(d->OnA());  // appended: called in this pass
  };
  event->FireCallbacks();
  event->Unsubscribe(d->OnA());
  // Inserting at the front moves the running subscriber on: it is reached again.
  event->FireCallbacks();
  EXPECT_EQ(log, (TLog{"a.A", "c.A", "b.A", "c.A", "d.A", "b.A", "b.A", "c.A"}));
}

TEST_F(Event, BlockingOrFiringAgainDuringThePass) {
  SubscribeA({a.get(), b.get(), c.get()});
  a->Action = [&] {
    a->Action = [&] {
      a->Action = nullptr;
      event->Block();
      event->FireCallbacks();  // counted, not nested
    };
    event->FireCallbacks();  // a full inner pass
  };
  event->FireCallbacks();
  EXPECT_EQ(log, (TLog{"a.A", "a.A", "b.A", "c.A", "b.A", "c.A"}));
  event->Unblock();
  EXPECT_EQ(log.size(), 9u);
  log.clear();
  b->Action = [&] { FreeAndNil(event); };
  event->FireCallbacks();  // stops after b, touching nothing of the freed event
  EXPECT_EQ(log, (TLog{"a.A", "b.A"}));
}

// Other threads.

TEST_F(Event, SubscribeFromAnotherThreadWaitsForThePassWhichAThrowingSubscriberEnds) {
  std::thread other;
  a->Action = [&] {  // starts the other thread inside the pass and gives it time to subscribe
    other = std::thread([&] { event->Subscribe(d->OnA()); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(event->IsSubscribed(d->OnA()));
  };
  SubscribeA({a.get(), b.get(), c.get()});
  b->Action = [] { throw std::runtime_error("boom"); };
  EXPECT_THROW(event->FireCallbacks(), std::runtime_error);
  other.join();  // would wait forever if the throw had kept the monitor
  EXPECT_EQ(log, (TLog{"a.A", "b.A"}));
  EXPECT_TRUE(event->IsSubscribed(d->OnA()));
}

TEST_F(Event, ChurnAndFiringsFromSeveralThreads) {
  auto probe = MakeObject<TCounter>();  // Enter..Leave must never overlap: passes are serialised
  event->Subscribe(probe->OnEnter());
  event->Subscribe(Bind<&TCounter::Leave>(probe.get()));
  std::vector<TObjectPtr<TCounter>> churners;
  for (int i = 0; i < 16; ++i) churners.push_back(MakeObject<TCounter>());
  std::atomic<bool> done{false};
  std::vector<std::thread> firers, churn;
  for (int t = 0; t < 2; ++t)
    firers.emplace_back([&] {
      do event->FireCallbacks();
      while (!done);
    });
  for (int t = 0; t < 2; ++t)
    churn.emplace_back([&, t] {
      for (int round = 0; round < 200; ++round)
        for (int i = t * 8; i < t * 8 + 8; ++i) {
          const TNotifyEvent fn = churners[static_cast<std::size_t>(i)]->OnEnter();
          if (round % 2 == 0) {
            event->Subscribe(fn);
            event->PrioritySubscribe(fn);  // a duplicate: ignored
          } else {
            event->Unsubscribe(fn);
          }
        }
    });
  for (auto& th : churn) th.join();
  done = true;
  for (auto& th : firers) th.join();
  EXPECT_FALSE(probe->Overlap);
  EXPECT_GT(probe->Calls, 0);
  EXPECT_EQ(event->SubscriberCount(), 2);  // every churner ended unsubscribed, no duplicate left
}

}  // namespace
