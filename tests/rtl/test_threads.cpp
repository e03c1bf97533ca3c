#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include <quma/Threads.h>

using namespace quma;

namespace {

class TWorker : public TThread {
  QUMA_CLASS(TWorker, TThread)
 public:
  using TThread::TThread;
  TEvent Wake{false, false};
  std::atomic<int> Loops{0};
  std::vector<int>* MainSide = nullptr;
  bool SynchronizeOnce = false;
  void OnMain() { MainSide->push_back(IsMainThread() ? 1 : 0); }

 protected:
  void Execute() override {
    if (SynchronizeOnce) Synchronize(Bind<&TWorker::OnMain>(this));
    while (!Terminated()) {
      ++Loops;
      Wake.WaitFor(1000);
    }
    SetReturnValue(7);
  }
  void TerminatedSet() override { Wake.SetEvent(); }
};

}  // namespace

TEST(Threads, TerminateWakesTheWorkerAndWaitForReturns) {
  auto* w = New<TWorker>();
  while (w->Loops == 0) std::this_thread::yield();
  w->Terminate();
  EXPECT_EQ(w->WaitFor(), 7);
  EXPECT_TRUE(w->Finished());
  Free(w);
}

TEST(Threads, SuspendedUntilStartAndFreedWhileRunning) {
  auto* w = New<TWorker>(true);
  EXPECT_FALSE(w->Started());
  w->Start();
  EXPECT_THROW(w->Start(), EThread);
  while (w->Loops == 0) std::this_thread::yield();
  Free(w);  // terminates (through TerminatedSet) and waits
}

TEST(Threads, SynchronizeRunsOnTheMainThreadWhenServiced) {
  SetMainThread();
  std::vector<int> seen;
  auto* w = New<TWorker>(true);
  w->MainSide = &seen;
  w->SynchronizeOnce = true;
  w->Start();
  while (seen.empty()) CheckSynchronize(10);
  EXPECT_EQ(seen, std::vector<int>{1});
  w->Terminate();
  w->WaitFor();
  Free(w);
}

namespace {
class TThrower : public TObject {
  QUMA_CLASS(TThrower, TObject)
 public:
  void Boom() { throw EConvertError("from main"); }
};
}  // namespace

TEST(Threads, SynchronizeReraisesInTheWorker) {
  SetMainThread();
  auto thrower = MakeObject<TThrower>();
  std::atomic<bool> caught{false};
  std::thread worker([&] {
    try {
      TThread::Synchronize(nullptr, Bind<&TThrower::Boom>(thrower.get()));
    } catch (const EConvertError& e) {
      caught = e.Message() == u"from main";
    }
  });
  while (!CheckSynchronize(10)) {
  }
  worker.join();
  EXPECT_TRUE(caught);
}

TEST(Threads, EventsAndTicks) {
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
  SetTickSource(nullptr);
  const Cardinal a = TThread::GetTickCount();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_GE(static_cast<Cardinal>(TThread::GetTickCount() - a), 15u);
}

namespace {
std::atomic<bool> gSelfFreeingDestroyed{false};
class TSelfFreeing : public TThread {
  QUMA_CLASS(TSelfFreeing, TThread)
 public:
  TSelfFreeing() : TThread(true) { SetFreeOnTerminate(true); }
  ~TSelfFreeing() override { gSelfFreeingDestroyed = true; }

 protected:
  void Execute() override {}
};
}  // namespace

TEST(Threads, FreeOnTerminateThreadFreesItself) {
  gSelfFreeingDestroyed = false;
  auto* t = New<TSelfFreeing>();
  t->Start();
  for (int i = 0; i < 500 && !gSelfFreeingDestroyed; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(2));
  EXPECT_TRUE(gSelfFreeingDestroyed);
}
