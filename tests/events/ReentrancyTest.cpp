// What subscribers may do to the event while a pass is running on their own thread.
#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include <quma/Monitor.h>
#include <quma/SubscribedEvent.h>

#include "EventTestSupport.h"

using namespace quma;
using quma::test::TLog;
using quma::test::TProbe;

namespace {

class Reentrancy : public ::testing::Test {
 protected:
  void SetUp() override {
    for (auto* p : {a.get(), b.get(), c.get()}) event->Subscribe(p->OnA());
  }
  TLog log;
  TQUMASubscribedEvent* event = New<TQUMASubscribedEvent>();
  TObjectPtr<TProbe> a = MakeObject<TProbe>(log, "a");
  TObjectPtr<TProbe> b = MakeObject<TProbe>(log, "b");
  TObjectPtr<TProbe> c = MakeObject<TProbe>(log, "c");
  TObjectPtr<TProbe> d = MakeObject<TProbe>(log, "d");
  void TearDown() override { Free(event); }
};

TEST_F(Reentrancy, SelfUnsubscribeSkipsTheSuccessorInThatPass) {
  a->Action = [&] { event->Unsubscribe(a->OnA()); };
  event->FireCallbacks();
  EXPECT_EQ(log, (TLog{"a.A", "c.A"}));
  log.clear();
  event->FireCallbacks();
  EXPECT_EQ(log, (TLog{"b.A", "c.A"}));
}

TEST_F(Reentrancy, SubscriberAppendedDuringThePassIsCalledInIt) {
  b->Action = [&] { event->Subscribe(d->OnA()); };
  event->FireCallbacks();
  EXPECT_EQ(log, (TLog{"a.A", "b.A", "c.A", "d.A"}));
}

TEST_F(Reentrancy, PrioritySubscribeDuringThePassShiftsTheWalk) {
  // Inserting at the front moves the running subscriber one place on: it is reached again.
  b->Action = [&] {
    b->Action = nullptr;
    event->PrioritySubscribe(d->OnA());
  };
  event->FireCallbacks();
  EXPECT_EQ(log, (TLog{"a.A", "b.A", "b.A", "c.A"}));
}

TEST_F(Reentrancy, SubscriberCanStopThePass) {
  bool stop = false;
  b->Action = [&] { stop = true; };
  event->FireCallbacksWhileFalse(stop);
  EXPECT_EQ(log, (TLog{"a.A", "b.A"}));
}

TEST_F(Reentrancy, BlockingDuringThePassDefersLaterFirings) {
  a->Action = [&] {
    a->Action = nullptr;
    event->Block();
    event->FireCallbacks();  // counted, not nested
  };
  event->FireCallbacks();
  EXPECT_EQ(log, (TLog{"a.A", "b.A", "c.A"}));
  event->Unblock();
  EXPECT_EQ(log.size(), 6u);
}

TEST_F(Reentrancy, NestedFiringRunsAFullInnerPass) {
  a->Action = [&] {
    a->Action = nullptr;
    event->FireCallbacks();
  };
  event->FireCallbacks();
  EXPECT_EQ(log, (TLog{"a.A", "a.A", "b.A", "c.A", "b.A", "c.A"}));
}

TEST_F(Reentrancy, SubscriberMayFreeTheEvent) {
  b->Action = [&] { FreeAndNil(event); };
  event->FireCallbacks();  // stops after b, touching nothing of the freed event
  EXPECT_EQ(event, nullptr);
  EXPECT_EQ(log, (TLog{"a.A", "b.A"}));
}

// A derived event that can swap its subscriber list for a fresh one.
class TSwappingEvent : public TQUMASubscribedEvent {
  QUMA_CLASS(TSwappingEvent, TQUMASubscribedEvent)
 public:
  void SwapForEmptyList() { Free(ExchangeCallbackList(New<TQUMACallbackList>())); }
};

TEST_F(Reentrancy, PassStopsWhenTheEventDropsItsList) {
  auto swapping = MakeObject<TSwappingEvent>();
  for (auto* p : {a.get(), b.get(), c.get()}) swapping->Subscribe(p->OnA());
  a->Action = [&] {
    a->Action = nullptr;
    swapping->SwapForEmptyList();  // frees the list the pass walks, monitor included
  };
  swapping->FireCallbacks();
  EXPECT_EQ(log, (TLog{"a.A"}));
  swapping->Subscribe(d->OnA());
  swapping->FireCallbacks();
  EXPECT_EQ(log, (TLog{"a.A", "d.A"}));
}

TEST_F(Reentrancy, ThrowingSubscriberEndsThePassAndReleasesTheMonitor) {
  b->Action = [] { throw std::runtime_error("boom"); };
  EXPECT_THROW(event->FireCallbacks(), std::runtime_error);
  EXPECT_EQ(log, (TLog{"a.A", "b.A"}));

  // Another thread can take the subscriptions lock at once.
  std::thread other([&] { event->Subscribe(d->OnA()); });
  other.join();
  EXPECT_TRUE(event->IsSubscribed(d->OnA()));
}

TEST_F(Reentrancy, SnapshotIsStableWhileTheEventChanges) {
  auto snapshot = MakeObject<TQUMACallbackList>();
  event->PopulateCallbacks(snapshot.get());
  a->Action = [&] { event->Unsubscribe(a->OnA()); };
  snapshot->InvokeCallbacks(event);
  EXPECT_EQ(log, (TLog{"a.A", "b.A", "c.A"}));
}

}  // namespace
