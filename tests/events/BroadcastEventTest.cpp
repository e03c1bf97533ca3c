// The broadcast event: registration without duplicates, the list operations it replaces, the
// sender, listeners added during a pass, and other threads registering and unregistering while it
// notifies (also run under TSan).
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <utility>
#include <vector>

#include <quma/BroadcastEvent.h>
#include <quma/SubscribedEvent.h>

#include "Counter.h"

using namespace quma;

using eventtest::TCounter;

TEST(BroadcastEvent, RegistersEachCallbackOnceAndNotifiesInOrderWithTheSender) {
  auto event = MakeObject<TQUMABroadcastEvent>();
  TCounter a, b, c, d;
  event->RegisterListener(a.OnHeard());
  event->RegisterListener(a.OnHeard());
  EXPECT_EQ(event->Add(a.OnHeard()), 0);
  EXPECT_EQ(event->Add(a.OnEnter()), 1);  // another method of the same object
  event->Insert(0, b.OnHeard());
  event->Insert(0, a.OnEnter());  // already there: keeps its place
  event->Insert(99, c.OnHeard());
  EXPECT_THROW(event->Insert(-1, d.OnHeard()), EArgumentOutOfRangeException);
  EXPECT_EQ(event->_IndexOf(c.OnHeard()), 3);
  EXPECT_EQ(event->Remove(d.OnHeard()), -1);
  EXPECT_EQ(event->Remove(a.OnEnter()), 2);
  event->UnregisterListener(b.OnHeard());
  event->RegisterListener(TNotifyEvent());  // an empty entry is passed over
  c.Action = [&, once = true]() mutable {  // appends d during the pass, which calls it too
    if (std::exchange(once, false)) event->RegisterListener(d.OnHeard());
  };
  event->NotifyListeners();
  EXPECT_EQ(a.LastSender, event.get());
  EXPECT_EQ(d.Calls.load(), 1);
  event->SetCallbackObject(&b);
  {
    TQUMAScopedSubscription scoped(*event, b.OnHeard());
    event->NotifyListeners();
  }
  EXPECT_EQ(b.LastSender, &b);
  EXPECT_EQ(event->_IndexOf(b.OnHeard()), -1);
  EXPECT_EQ(b.Calls.load(), 1);
}

TEST(BroadcastEvent, OtherThreadsRegisterAndUnregisterWhileItNotifies) {
  auto event = MakeObject<TQUMABroadcastEvent>();
  TCounter steady;
  event->RegisterListener(steady.OnHeard());
  constexpr int kThreads = 3, kRounds = 300;
  std::vector<TCounter> transient(kThreads);
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      while (!go.load()) std::this_thread::yield();
      for (int i = 0; i < kRounds; ++i) {
        event->RegisterListener(transient[t].OnHeard());
        if (i % 3 == 0) event->NotifyListeners();
        event->UnregisterListener(transient[t].OnHeard());
      }
    });
  go = true;
  for (int i = 0; i < kRounds; ++i) event->NotifyListeners();
  for (auto& th : threads) th.join();
  EXPECT_EQ(event->Count(), 1);
  EXPECT_EQ(steady.Calls.load(), kRounds + kThreads * (kRounds / 3));
  EXPECT_FALSE(steady.Overlap);  // passes from several threads must not overlap
  for (auto& l : transient) EXPECT_GE(l.Calls.load(), kRounds / 3);  // its own notifications at least
}
