#include <gtest/gtest.h>

#include <poll.h>

#include <atomic>
#include <thread>
#include <vector>

#include <quma/Threads.h>

#include "rtl/TestSupport.h"

using namespace quma;
using quma::test::ErrorOf;
using namespace std::chrono_literals;

namespace {

// Runs until terminated (woken by TerminatedSet); optionally synchronises once first.
class TWorker : public TThread {
  QUMA_CLASS(TWorker, TThread)
 public:
  using TThread::TThread;
  TEvent Wake{false, false};
  std::atomic<int> Loops{0};
  std::vector<int>* MainSide = nullptr;
  void OnMain() { MainSide->push_back(IsMainThread() ? 1 : 0); }
  void Boom() { throw EConvertError("from main"); }

 protected:
  void Execute() override {
    if (MainSide) Synchronize(Bind<&TWorker::OnMain>(this));
    while (!Terminated()) {
      ++Loops;
      Wake.WaitFor(1000);
    }
    SetReturnValue(7);
  }
  void TerminatedSet() override { Wake.SetEvent(); }
};

bool Readable(int fd) {
  pollfd p{fd, POLLIN, 0};
  return ::poll(&p, 1, 0) == 1;
}

TEST(Threads, LifecycleSynchronizeAndWaitFromSeveralThreads) {
  SetMainThread();
  std::vector<int> seen;
  auto* w = New<TWorker>(true);
  w->MainSide = &seen;
  EXPECT_FALSE(w->Started());
  w->Start();
  EXPECT_THROW(w->Start(), EThread);
  while (seen.empty()) CheckSynchronize(10);
  EXPECT_EQ(seen, std::vector<int>{1});  // run on the main thread
  // An exception raised there is raised again in the thread that asked.
  std::string caught;
  std::thread worker(
      [&] { caught = ErrorOf<EConvertError>([&] { TThread::Synchronize(nullptr, Bind<&TWorker::Boom>(w)); }); });
  while (!CheckSynchronize(10)) continue;
  worker.join();
  EXPECT_EQ(caught, "from main");
  while (w->Loops == 0) std::this_thread::yield();
  // Two waiters on one thread both return.
  std::atomic<int> returned{0};
  std::thread a([&] { returned += w->WaitFor(); });
  std::thread b([&] { returned += w->WaitFor(); });
  std::this_thread::sleep_for(10ms);
  w->Terminate();
  EXPECT_EQ(w->WaitFor(), 7);
  a.join();
  b.join();
  EXPECT_EQ(returned, 14);
  EXPECT_TRUE(w->Finished());
  Free(w);
  Free(New<TWorker>());  // freed while running: terminated (through TerminatedSet) and waited for
}

std::atomic<bool> gLateDestroyed{false}, gSawDestroyed{true};
// Finishes its own set-up after the inherited AfterConstruction, keeps working for a while after
// being terminated, and records whether its members were gone by then.
class TLate : public TThread {
  QUMA_CLASS(TLate, TThread)
 public:
  TLate() : TThread(false) {}
  ~TLate() override { gLateDestroyed = true; }
  std::atomic<bool> Ready{false}, SawReady{false}, Running{false};
  void AfterConstruction() override {
    TThread::AfterConstruction();
    std::this_thread::sleep_for(20ms);
    Ready = true;
  }

 protected:
  void Execute() override {
    SawReady = Ready.load();
    Running = true;
    while (!Terminated()) std::this_thread::sleep_for(1ms);
    std::this_thread::sleep_for(30ms);
    gSawDestroyed = gLateDestroyed.load();
  }
};

TEST(Threads, ExecuteNeverOverlapsConstructionOrDestruction) {
  auto* t = New<TLate>();
  while (!t->Running) std::this_thread::yield();
  EXPECT_TRUE(t->SawReady);
  std::thread([t] { Free(t); }).join();  // freed from a worker, not the main thread
  EXPECT_FALSE(gSawDestroyed);
  EXPECT_TRUE(gLateDestroyed);
}

std::atomic<int> gQueuedRuns{0};
// Synchronises Step once, or queues Count; Step may wait for or free another thread.
class TSyncer : public TThread {
  QUMA_CLASS(TSyncer, TThread)
 public:
  TSyncer() : TThread(true) {}
  TSyncer* Other = nullptr;
  bool FreeOther = false;
  int QueueCount = 0;
  void Step() {
    if (!Other) return;
    if (FreeOther)
      FreeAndNil(Other);
    else
      Other->WaitFor();
  }
  void Count() { ++gQueuedRuns; }

 protected:
  void Execute() override {
    for (int i = 0; i < QueueCount; ++i) Queue(Bind<&TSyncer::Count>(this));
    if (QueueCount == 0) Synchronize(Bind<&TSyncer::Step>(this));
  }
};

TEST(Threads, WaitForOrFreeInsideASynchronizedMethodServicesTheRestAndQueuedMethodsOfAFreedThreadAreDropped) {
  SetMainThread();
  for (bool freeOther : {false, true}) {
    SCOPED_TRACE(freeOther);
    auto* first = New<TSyncer>();
    auto* second = New<TSyncer>();
    first->Other = second;
    first->FreeOther = freeOther;
    first->Start();
    std::this_thread::sleep_for(20ms);  // first's request waits ahead of second's
    second->Start();
    std::this_thread::sleep_for(20ms);
    while (!first->Finished()) CheckSynchronize(10);
    if (!freeOther) Free(second);
    Free(first);
  }
  // Queued methods of a freed thread are dropped.
  std::atomic<int> unowned{0};
  gQueuedRuns = 0;
  auto* t = New<TSyncer>();
  t->QueueCount = 5;
  t->Start();
  std::thread([&] {
    TThread::Queue(nullptr, TThreadMethod(+[](void* n) { ++*static_cast<std::atomic<int>*>(n); }, &unowned));
  }).join();
  while (!t->Finished()) std::this_thread::yield();
  EXPECT_TRUE(Readable(SyncEventFd()));
  // Nobody may service requests off the main thread; the attempt runs nothing.
  std::thread([] { EXPECT_THROW(CheckSynchronize(), EThread); }).join();
  Free(t);
  EXPECT_TRUE(CheckSynchronize());
  EXPECT_EQ(gQueuedRuns, 0);
  EXPECT_EQ(unowned, 1);
  EXPECT_FALSE(Readable(SyncEventFd()));
}

TEST(Threads, EventsTicksAndDurations) {
  TEvent manual(true, false);
  EXPECT_EQ(manual.WaitFor(1), wrTimeout);
  manual.SetEvent();
  EXPECT_EQ(manual.WaitFor(0), wrSignaled);
  EXPECT_EQ(manual.WaitFor(0), wrSignaled);  // stays set
  manual.ResetEvent();
  EXPECT_FALSE(manual.IsSet());
  TEvent autoReset(false, true);
  EXPECT_EQ(autoReset.WaitFor(0), wrSignaled);
  EXPECT_EQ(autoReset.WaitFor(0), wrTimeout);  // reset by the first waiter

  SetTickSource(+[]() -> UInt64 { return 0x1'0000'0005ull; });
  EXPECT_EQ(TThread::GetTickCount(), 5u);  // wraps modulo 2^32
  SetTickSource(nullptr);  // the real clock drives the stress tests of the service threads

  EXPECT_EQ(DurationToMilliseconds(1500us), 2u);
  EXPECT_EQ(DurationToMilliseconds(-3s), 0u);
  EXPECT_EQ(DurationToMilliseconds(2s), 2000u);
  EXPECT_EQ(DurationToMilliseconds(std::chrono::hours(24 * 365)), INFINITE - 1);
}

}  // namespace
