// Other threads wait for a running pass; mixed traffic stays consistent. Also run under TSan.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <quma/SubscribedEvent.h>

using namespace quma;

namespace {

class TCounter : public TObject {
  QUMA_CLASS(TCounter, TObject)
 public:
  std::atomic<int> Inside{0}, Calls{0};
  std::atomic<bool> Overlap{false};
  void Enter(TObject*) {
    if (Inside.fetch_add(1) != 0) Overlap = true;
    Calls.fetch_add(1);
  }
  void Leave(TObject*) { Inside.fetch_sub(1); }
  TNotifyEvent OnEnter() { return Bind<&TCounter::Enter>(this); }
};

// Holds the pass open until the other thread is about to subscribe, then lingers.
class TGate : public TObject {
  QUMA_CLASS(TGate, TObject)
 public:
  std::atomic<bool> InPass{false}, OtherStarting{false}, OtherDone{false};
  bool OtherFinishedDuringPass = false;
  void Hold(TObject*) {
    InPass = true;
    while (!OtherStarting) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    OtherFinishedDuringPass = OtherDone;
  }
};

TEST(CrossThread, SubscribeFromAnotherThreadWaitsForThePass) {
  auto event = MakeObject<TQUMASubscribedEvent>();
  auto gate = MakeObject<TGate>();
  auto late = MakeObject<TCounter>();
  event->Subscribe(Bind<&TGate::Hold>(gate.get()));
  std::thread other([&] {
    while (!gate->InPass) std::this_thread::yield();
    gate->OtherStarting = true;
    event->Subscribe(late->OnEnter());
    gate->OtherDone = true;
  });
  event->FireCallbacks();
  other.join();
  EXPECT_FALSE(gate->OtherFinishedDuringPass);
  EXPECT_EQ(late->Calls, 0);  // it arrived after the pass
  EXPECT_TRUE(event->IsSubscribed(late->OnEnter()));
}

TEST(CrossThread, ChurnAndFiringsFromSeveralThreads) {
  auto event = MakeObject<TQUMASubscribedEvent>();
  auto probe = MakeObject<TCounter>();  // Enter..Leave must never overlap: passes are serialised
  event->Subscribe(probe->OnEnter());
  event->Subscribe(Bind<&TCounter::Leave>(probe.get()));
  std::vector<TObjectPtr<TCounter>> churners;
  for (int i = 0; i < 16; ++i) churners.push_back(MakeObject<TCounter>());

  std::atomic<bool> done{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t)
    threads.emplace_back([&] {
      do event->FireCallbacks();
      while (!done);
    });
  for (int t = 0; t < 2; ++t)
    threads.emplace_back([&, t] {
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
  threads[3].join();
  threads[2].join();
  done = true;
  threads[1].join();
  threads[0].join();
  EXPECT_FALSE(probe->Overlap);
  EXPECT_GT(probe->Calls, 0);
  EXPECT_EQ(event->SubscriberCount(), 2);  // every churner ended unsubscribed, no duplicate left
}

}  // namespace
