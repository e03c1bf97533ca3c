#include <gtest/gtest.h>

#include <atomic>
#include <algorithm>
#include <barrier>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <numeric>
#include <random>
#include <thread>
#include <vector>

#include <quma/DeferredDisposalThread.h>
#include <quma/ForegroundSyncThread.h>

using namespace quma;
using namespace std::chrono_literals;

#if defined(__SANITIZE_THREAD__)
constexpr int StressScale = 10;  // ThreadSanitizer runs these about 20 times slower
#else
constexpr int StressScale = 1;
#endif

namespace {

std::atomic<UInt64> gClock{0};
std::mutex gFreedLock;
std::vector<int> gFreed;  // tags of the TTagged objects freed, in order

class TProbe : public TObject {
  QUMA_CLASS(TProbe, TObject)
 public:
  std::vector<TObject*> Seen;
  std::atomic<bool> Ended{false};
  void Hit(TObject* payload) {
    EXPECT_TRUE(IsMainThread());
    Seen.push_back(payload);
  }
  void Boom(TObject* payload) {
    Seen.push_back(payload);
    throw EConvertError("boom");
  }
  void End(TObject*) { Ended = true; }
  void Take(TObject* payload) { Seen.push_back(payload); }  // on any thread
};

class TTagged : public TObject {
  QUMA_CLASS(TTagged, TObject)
 public:
  explicit TTagged(int tag) : Tag(tag) {}
  ~TTagged() override {
    std::lock_guard lock(gFreedLock);
    gFreed.push_back(Tag);
  }
  const int Tag;
};

std::vector<int> Freed() {
  std::lock_guard lock(gFreedLock);
  return gFreed;
}

// Freezes the tick source at a chosen moment for the test's lifetime.
class ServiceThreads : public ::testing::Test {
 public:
  void SetUp() override {
    SetMainThread();
    Retire();
    gClock = 0x7'0000'0000ull;
    SetTickSource(FakeTicks);
    gFreed.clear();
  }
  static UInt64 FakeTicks() { return gClock.load(); }
  void TearDown() override {
    Retire();
    SetTickSource(nullptr);
  }
  static void Advance(UInt64 ms) {
    gClock += ms;
    ForegroundSync()->Poke();
  }
  // Services the main thread until done() holds (or five seconds pass).
  static bool Service(const std::function<bool()>& done, std::chrono::seconds limit = 5s) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done() && std::chrono::steady_clock::now() < deadline) CheckSynchronize(2);
    return done();
  }
  // Gives a worker time to do what it must not, then services the main thread.
  static void Settle() {
    std::this_thread::sleep_for(20ms);
    CheckSynchronize();
  }
  // Ends the current worker (dropping its queue) and waits until it is gone.
  static void Retire() {
    auto probe = MakeObject<TProbe>();
    ForegroundSync()->OnTerminate = Bind<&TProbe::End>(probe.get());
    FinalizeForegroundSync();
    EXPECT_TRUE(Service([&] { return probe->Ended.load(); }));
  }
  static bool WaitFreed(std::size_t n) {
    return Service([n] { return Freed().size() >= n; }) && Freed().size() == n;
  }
};

}  // namespace

TEST_F(ServiceThreads, ForegroundCancellingAndExceptions) {
  TProbe probe, other, a, b, e;
  const TNotifyEvent hit = Bind<&TProbe::Hit>(&probe);
  TQUMAForegroundSyncThread* worker = ForegroundSync();
  QUMAQueueForegroundCallback(hit, &e, 10);
  QUMAQueueForegroundCallback(Bind<&TProbe::Hit>(&other), &e, 10);  // same payload, other callback
  EXPECT_EQ(worker->QueuedCount(), 3u);  // with a keep-alive entry: the head falls due within a second
  QUMAQueueForegroundCallback(hit, &b, 20ms);
  QUMAQueueForegroundCallback(hit, &a, 20);
  QUMAQueueForegroundCallback(Bind<&TProbe::Boom>(&probe), &a, 20);  // first of its batch; throws
  worker->CancelSyncCallback(hit, &e, 999);                          // the delay takes no part
  Advance(10);
  ASSERT_TRUE(Service([&] { return other.Seen.size() == 1; }));
  Advance(10);
  ASSERT_TRUE(Service([&] { return !probe.Seen.empty(); }));
  Settle();
  EXPECT_EQ(probe.Seen, std::vector<TObject*>{&a});  // the rest of the batch was dropped
  QUMAQueueForegroundCallback(hit, &b, 0);           // the worker lives on
  EXPECT_TRUE(Service([&] { return probe.Seen.size() == 2; }));
}

// Thousands of entries with many equal ticks run in the order of the plain list: each inserted
// before the first entry whose tick is not lower, also where the keep-alive entries that
// ForegroundSync appends (due in 1000 ms) leave the list unsorted.
TEST_F(ServiceThreads, ForegroundOrderMatchesTheListModel) {
  constexpr std::size_t N = 3000;
  TProbe probe;
  auto payloads = std::make_unique<TProbe[]>(N);
  std::vector<std::pair<Cardinal, TObject*>> model;  // keep-alive entries have no payload here
  std::minstd_rand random(7);
  TQUMAForegroundSyncThread* worker = ForegroundSync();
  for (std::size_t i = 0; i < N; ++i) {
    const Cardinal now = TThread::GetTickCount(), delay = random() % 40 + 990 * (random() % 3);
    worker->QueueSyncCallback(Bind<&TProbe::Hit>(&probe), &payloads[i], delay);
    auto at = std::find_if(model.begin(), model.end(), [&](const auto& e) { return e.first >= now + delay; });
    model.insert(at, {now + delay, &payloads[i]});
    if (i % 100 == 0 && ForegroundSync() && model.front().first - now < 1000) model.push_back({now + 1000, nullptr});
  }
  Advance(2100);
  ASSERT_TRUE(Service([&] { return probe.Seen.size() == N; }));
  std::vector<TObject*> expected;
  for (const auto& e : model)
    if (e.second) expected.push_back(e.second);
  EXPECT_EQ(probe.Seen, expected);
}

TEST_F(ServiceThreads, ForegroundTicksWrapLateNotEarly) {
  gClock = 0x1'FFFF'FFF0ull;
  TProbe probe, early, late;
  const TNotifyEvent hit = Bind<&TProbe::Hit>(&probe);
  QUMAQueueForegroundCallback(hit, &early, 8);     // due at 0xFFFFFFF8
  QUMAQueueForegroundCallback(hit, &late, 0x20);   // due at 0x10, after the wrap
  Advance(0x20);  // now 0x10: the wrapped entry is due, the other compares as not yet due
  ASSERT_TRUE(Service([&] { return !probe.Seen.empty(); }));
  Settle();
  EXPECT_EQ(probe.Seen, std::vector<TObject*>{&late});  // the early entry goes with the worker
}

TEST_F(ServiceThreads, ForegroundWorkerRetiresWhenIdleAndIsRecreated) {
  TProbe probe;
  TQUMAForegroundSyncThread* worker = ForegroundSync();
  worker->OnTerminate = Bind<&TProbe::End>(&probe);
  // Wakes the worker from its 10 s wait. No request follows: under the frozen clock the keep-alive
  // entry a request may queue would never fall due, and the worker would never be idle.
  worker->SetMaxIdle(30ms);
  ASSERT_TRUE(Service([&] { return probe.Ended.load(); }));
  QUMAQueueForegroundCallback(Bind<&TProbe::Hit>(&probe), &probe, 0);
  EXPECT_TRUE(Service([&] { return probe.Seen.size() == 1; }));
  EXPECT_EQ(ForegroundSync()->MaxIdle(), 10000u);  // a new worker, with the default

  // Unloading drops what is pending.
  QUMAQueueForegroundCallback(Bind<&TProbe::Hit>(&probe), &probe, 0);
  FinalizeForegroundSync();
  Settle();
  EXPECT_EQ(probe.Seen.size(), 1u);
}

// Eight producers queue on a worker that, in the first round, keeps retiring: the clock jumps by
// 1.5 s at a time (running the keep-alive entries) and every new worker gets MaxIdle 1 ms.
TEST_F(ServiceThreads, ForegroundStressEveryCallbackRunsOnceOrIsCancelled) {
  // The frozen clock first: keep-alive entries left on the real clock's ticks would stay queued
  // (and keep the worker alive) until the frozen clock caught up with them.
  for (const bool retiring : {true, false}) {
    SCOPED_TRACE(retiring);
    SetTickSource(retiring ? FakeTicks : nullptr);
    constexpr int Producers = 8;
    const int perProducer = (retiring ? 10000 : 100000) / StressScale;
    // Each producer's own probe, then its doomed one; runs(from) gives the calls each has seen.
    auto slots = std::make_unique<TProbe[]>(2 * Producers);
    auto runs = [&](int from) {
      std::vector<std::size_t> n;
      for (int p = from; p < from + Producers; ++p) n.push_back(slots[static_cast<std::size_t>(p)].Seen.size());
      return n;
    };
    std::vector<std::thread> producers;
    std::atomic<int> finished{0};
    std::barrier pause(Producers);
    for (int p = 0; p < Producers; ++p)
      producers.emplace_back([&, p] {
        std::minstd_rand random(static_cast<unsigned>(p));
        TProbe *own = &slots[static_cast<std::size_t>(p)], *doomed = &slots[static_cast<std::size_t>(Producers + p)];
        for (int i = 0; i < perProducer; ++i) {
          if (retiring && i % 1000 == 0) {  // all pause together: room to retire
            pause.arrive_and_wait();
            std::this_thread::sleep_for(20ms);
          }
          if (!retiring && i % 10 == 0)
            QUMAQueueForegroundCallback(Bind<&TProbe::Take>(doomed), doomed, 3600000);
          else
            QUMAQueueForegroundCallback(Bind<&TProbe::Take>(own), own, retiring ? 0 : random() % 20);
        }
        ForegroundSync()->CancelSyncCallback(Bind<&TProbe::Take>(doomed), doomed);
        ++finished;
      });
    const std::vector<std::size_t> expected(Producers, retiring ? perProducer : perProducer - (perProducer + 9) / 10);
    int freshWorkers = 0;
    Service([&] {
      if (retiring) {
        gClock += 1500;  // keep-alive entries (due in 1000 ms) fall overdue and ask for no more
        TQUMAForegroundSyncThread* worker = ForegroundSync();
        if (worker->MaxIdle() != 1) ++freshWorkers;
        worker->SetMaxIdle(1);
      }
      return finished == Producers && runs(0) == expected;
    }, 60s);
    for (auto& t : producers) t.join();
    EXPECT_EQ(runs(0), expected);
    EXPECT_EQ(runs(Producers), std::vector<std::size_t>(Producers, 0));
    EXPECT_TRUE(!retiring || freshWorkers > 2) << freshWorkers;
  }
}

// ---- deferred disposal ----

// Thousands of objects, many due at the same time, some rescheduled or cancelled, are freed in the
// order of the plain list with its binary-search insert.
TEST_F(ServiceThreads, DisposalOrderMatchesTheListModel) {
  constexpr int N = 5000;
  std::vector<std::pair<UInt64, int>> model;
  auto insert = [&](UInt64 due, int tag) {  // appended after an equal last entry, else bisected
    std::ptrdiff_t lo = -1, hi = std::ssize(model);
    while (!model.empty() && due < model.back().first && hi - lo > 1) {
      const std::ptrdiff_t mid = lo + (hi - lo) / 2;
      const UInt64 t = model[static_cast<std::size_t>(mid)].first;
      if (due == t) hi = lo = mid;  // goes before the equal entry it met
      else (due < t ? hi : lo) = mid;
    }
    model.insert(model.begin() + hi, {due, tag});
  };
  auto erase = [&](int tag) { std::erase_if(model, [&](const auto& e) { return e.second == tag; }); };
  auto disposer = MakeObject<TQUMADeferredDisposalThread>();
  disposer->SetSuspendDisposals(true);
  std::vector<TTagged*> objects;
  std::minstd_rand random(11);
  for (int i = 0; i < N; ++i) {
    const Cardinal delay = random() % 30;
    const int pick = static_cast<int>(random() % 8);
    if (pick == 1 && !objects.empty()) {  // cancel one and free it here
      const std::size_t at = random() % objects.size();
      disposer->CancelDisposal(objects[at]);
      erase(objects[at]->Tag);
      Free(objects[at]);
      objects.erase(objects.begin() + static_cast<std::ptrdiff_t>(at));
    } else {  // reschedule an earlier one, or schedule a new one
      TTagged* const t =
          pick == 0 && !objects.empty() ? objects[random() % objects.size()] : objects.emplace_back(New<TTagged>(i));
      disposer->DisposeAfterDelay(t, delay);
      erase(t->Tag);
      insert(gClock + delay, t->Tag);
    }
    if (i % 500 == 0) gClock += 1;
  }
  gFreed.clear();
  gClock += 100;
  disposer->SetSuspendDisposals(false);
  ASSERT_TRUE(WaitFreed(model.size()));
  std::vector<int> expected;
  for (const auto& e : model) expected.push_back(e.second);
  EXPECT_EQ(Freed(), expected);
}

TEST_F(ServiceThreads, DisposalScheduleOperations) {
  TProbe sink;
  auto disposer = MakeObject<TQUMADeferredDisposalThread>();
  disposer->SetSuspendDisposals(true);
  auto* again = New<TTagged>(1);
  disposer->DisposeAfterDelay(again, 5);
  disposer->DisposeAfterDelay(again, 50);  // one entry, due at the later time
  auto* passed = New<TTagged>(2);
  disposer->DisposeAfterDelayWithCallback(passed, 5ms, Bind<&TProbe::Take>(&sink));
  EXPECT_THROW(disposer->DisposeAfterDelayWithCallback(passed, 5, Bind<&TProbe::Take>(&sink)), EListError);
  auto* kept = New<TTagged>(3);
  disposer->DisposeAfterDelayWithCallback(kept, 5, Bind<&TProbe::Take>(&sink));
  disposer->CancelDisposal(kept);
  disposer->DisposeAfterDelay(nullptr, 0);  // ignored
  EXPECT_EQ(disposer->ScheduledCount(), 2u);

  gClock += 10;  // the disposal order test shows that nothing goes while suspended
  disposer->SetSuspendDisposals(false);
  EXPECT_TRUE(Service([&] { return disposer->ScheduledCount() == 1; }));
  disposer->Terminate();  // rendezvous with the worker before reading what it passed on
  disposer->WaitFor();
  EXPECT_EQ(sink.Seen, std::vector<TObject*>{passed});
  EXPECT_EQ(Freed(), std::vector<int>{1});  // termination frees the rest at once
  Free(passed);
  Free(kept);
}

TEST_F(ServiceThreads, DisposalMaxDelayAndSharedLock) {
  auto shared = MakeObject<TProbe>();
  auto disposer = MakeObject<TQUMADeferredDisposalThread>(true);
  disposer->SetLockObject(shared.get());
  disposer->Start();
  disposer->SetMaxDelay(0);  // nothing scheduled: nothing happens
  disposer->DisposeAfterDelay(New<TTagged>(1), 100000);
  disposer->DisposeAfterDelay(New<TTagged>(2), 50);
  TMonitor::Enter(shared.get());
  disposer->SetMaxDelay(0);  // everything due now, but the lock is held
  std::this_thread::sleep_for(50ms);
  EXPECT_TRUE(Freed().empty());
  TMonitor::Exit(shared.get());
  ASSERT_TRUE(WaitFreed(2));
  EXPECT_EQ(Freed(), (std::vector<int>{2, 1}));
}

TEST_F(ServiceThreads, DisposalWakesForAnEarlierEntryAndUnderStressFreesEveryObjectOnce) {
  SetTickSource(nullptr);
  constexpr int Producers = 4, PerProducer = 250000 / StressScale;
  auto* disposer = New<TQUMADeferredDisposalThread>();
  disposer->DisposeAfterDelay(New<TTagged>(-1), 600000);
  std::this_thread::sleep_for(20ms);
  disposer->DisposeAfterDelay(New<TTagged>(-2), 0);  // a new first entry wakes the worker
  ASSERT_TRUE(WaitFreed(1));
  EXPECT_EQ(Freed(), std::vector<int>{-2});
  std::vector<std::thread> producers;
  for (int p = 0; p < Producers; ++p)
    producers.emplace_back([&, p] {
      std::minstd_rand random(static_cast<unsigned>(p));
      for (int i = 0; i < PerProducer; ++i) disposer->DisposeAfterDelay(New<TTagged>(p * PerProducer + i), random() % 50);
    });
  for (auto& t : producers) t.join();
  std::this_thread::sleep_for(30ms);
  Free(disposer);  // whatever is still scheduled goes now
  std::vector<int> freed = Freed(), all(Producers * PerProducer + 2);
  std::sort(freed.begin(), freed.end());
  std::iota(all.begin(), all.end(), -2);
  EXPECT_TRUE(freed == all);
}
