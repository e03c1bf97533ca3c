// What subscribers may do to the event while a pass runs on their own thread.
#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

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
  void TearDown() override { Free(event); }
  TLog log;
  TQUMASubscribedEvent* event = New<TQUMASubscribedEvent>();
  TObjectPtr<TProbe> a = MakeObject<TProbe>(log, "a"), b = MakeObject<TProbe>(log, "b"),
                     c = MakeObject<TProbe>(log, "c"), d = MakeObject<TProbe>(log, "d");
};

TEST_F(Reentrancy, SelfUnsubscribeSkipsTheSuccessorInThatPass) {
  a->Action = [&] { event->Unsubscribe(a->OnA()); };
  event->FireCallbacks();
  event->FireCallbacks();
  EXPECT_EQ(log, (TLog{"a.A", "c.A", "b.A", "c.A"}));
}

TEST_F(Reentrancy, SubscribersAddedDuringThePass) {
  b->Action = [&] {
    b->Action = [&] { event->PrioritySubscribe(d->OnA()); };
    event->Subscribe(d->OnA());  // appended: called in this pass
  };
  event->FireCallbacks();
  event->Unsubscribe(d->OnA());
  // Inserting at the front moves the running subscriber on: it is reached again.
  event->FireCallbacks();
  EXPECT_EQ(log, (TLog{"a.A", "b.A", "c.A", "d.A", "a.A", "b.A", "b.A", "c.A"}));
}

TEST_F(Reentrancy, SubscriberCanStopThePass) {
  bool stop = false;
  b->Action = [&] { stop = true; };
  event->FireCallbacksWhileFalse(stop);
  EXPECT_EQ(log, (TLog{"a.A", "b.A"}));
}

TEST_F(Reentrancy, BlockingOrFiringAgainDuringThePass) {
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
}

TEST_F(Reentrancy, SubscriberMayFreeTheEvent) {
  b->Action = [&] { FreeAndNil(event); };
  event->FireCallbacks();  // stops after b, touching nothing of the freed event
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
  for (auto* p : {a.get(), b.get()}) swapping->Subscribe(p->OnA());
  a->Action = [&] {
    a->Action = nullptr;
    swapping->SwapForEmptyList();  // frees the list the pass walks, monitor included
  };
  swapping->FireCallbacks();
  swapping->Subscribe(d->OnA());
  swapping->FireCallbacks();
  EXPECT_EQ(log, (TLog{"a.A", "d.A"}));
}

TEST_F(Reentrancy, ThrowingSubscriberEndsThePassAndReleasesTheMonitor) {
  b->Action = [] { throw std::runtime_error("boom"); };
  EXPECT_THROW(event->FireCallbacks(), std::runtime_error);
  EXPECT_EQ(log, (TLog{"a.A", "b.A"}));
  std::thread other([&] { event->Subscribe(d->OnA()); });  // would wait forever otherwise
  other.join();
  EXPECT_TRUE(event->IsSubscribed(d->OnA()));
}

}  // namespace
