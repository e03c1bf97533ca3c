// Service threads: how soon a 0 ms foreground callback runs on a main thread that sleeps on the
// eventfd (against a plain std::condition_variable hand-off), and how queueing and scheduling
// grow with the size of the schedule (against an ordered std::multimap).
#include <benchmark/benchmark.h>

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include <quma/DeferredDisposalThread.h>
#include <quma/ForegroundSyncThread.h>

using namespace quma;
using Clock = std::chrono::steady_clock;

namespace {

void ReportPercentiles(benchmark::State& state, std::vector<double>& us) {
  if (us.empty()) return;
  std::sort(us.begin(), us.end());
  state.counters["median_us"] = us[us.size() / 2];
  state.counters["p99_us"] = us[us.size() * 99 / 100];
}

class TLatencyProbe : public TObject {
  QUMA_CLASS(TLatencyProbe, TObject)
 public:
  Clock::time_point Ran;
  void Hit(TObject*) { Ran = Clock::now(); }
};

// Queue from the main thread, sleep in epoll on SyncEventFd, run the due callback.
void BM_ForegroundCallbackLatency(benchmark::State& state) {
  SetMainThread();
  TLatencyProbe probe;
  const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
  epoll_event watch{};
  watch.events = EPOLLIN;
  ::epoll_ctl(epoll, EPOLL_CTL_ADD, SyncEventFd(), &watch);
  std::vector<double> samples;
  for (auto _ : state) {
    probe.Ran = {};
    const auto queued = Clock::now();
    QUMAQueueForegroundCallback(Bind<&TLatencyProbe::Hit>(&probe), &probe, 0);
    while (probe.Ran == Clock::time_point{}) {
      epoll_event ready;
      if (::epoll_wait(epoll, &ready, 1, 1000) == 1) CheckSynchronize();
    }
    samples.push_back(std::chrono::duration<double, std::micro>(probe.Ran - queued).count());
  }
  ::close(epoll);
  ReportPercentiles(state, samples);
}
BENCHMARK(BM_ForegroundCallbackLatency)->Iterations(5000)->UseRealTime();

// The peer: wake a thread that waits on a condition variable and note when it runs.
void BM_ConditionVariableHandOff(benchmark::State& state) {
  std::mutex lock;
  std::condition_variable wake, back;
  bool posted = false, stop = false;
  Clock::time_point ran;
  std::thread waiter([&] {
    std::unique_lock guard(lock);
    for (;;) {
      wake.wait(guard, [&] { return posted || stop; });
      if (stop) return;
      ran = Clock::now();
      posted = false;
      back.notify_one();
    }
  });
  std::vector<double> samples;
  for (auto _ : state) {
    Clock::time_point sent;
    {
      std::unique_lock guard(lock);
      sent = Clock::now();
      posted = true;
      wake.notify_one();
      back.wait(guard, [&] { return !posted; });
    }
    samples.push_back(std::chrono::duration<double, std::micro>(ran - sent).count());
  }
  {
    std::lock_guard guard(lock);
    stop = true;
  }
  wake.notify_one();
  waiter.join();
  ReportPercentiles(state, samples);
}
BENCHMARK(BM_ConditionVariableHandOff)->Iterations(5000)->UseRealTime();

class TSink : public TObject {
  QUMA_CLASS(TSink, TObject)
 public:
  void Hit(TObject*) {}
};

// Queueing N callbacks due in 1 to 60 s (none runs while measured).
void BM_QueueForegroundCallbacks(benchmark::State& state) {
  TSink sink;
  std::minstd_rand random(42);
  const auto n = static_cast<int>(state.range(0));
  for (auto _ : state) {
    for (int i = 0; i < n; ++i)
      QUMAQueueForegroundCallback(Bind<&TSink::Hit>(&sink), &sink, 1000 + random() % 59000);
    state.PauseTiming();
    ForegroundSync()->CancelSyncCallback(Bind<&TSink::Hit>(&sink), &sink);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_QueueForegroundCallbacks)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

// The peer: the same due ticks in an ordered multimap, newest first among equals.
void BM_QueueMultimap(benchmark::State& state) {
  std::minstd_rand random(42);
  const auto n = static_cast<int>(state.range(0));
  for (auto _ : state) {
    std::multimap<Cardinal, TObject*> queue;
    const Cardinal now = TThread::GetTickCount();
    for (int i = 0; i < n; ++i) {
      const Cardinal due = now + 1000 + random() % 59000;
      queue.emplace_hint(queue.lower_bound(due), due, nullptr);
    }
    benchmark::DoNotOptimize(queue);
    state.PauseTiming();
    queue.clear();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_QueueMultimap)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

// Scheduling N disposals due in 60 to 120 s on a suspended disposal thread.
void BM_ScheduleDisposals(benchmark::State& state) {
  std::minstd_rand random(42);
  const auto n = static_cast<std::size_t>(state.range(0));
  std::vector<TObject*> objects(n);
  for (auto _ : state) {
    state.PauseTiming();
    auto* disposer = New<TQUMADeferredDisposalThread>();
    disposer->SetSuspendDisposals(true);
    for (auto& obj : objects) obj = New<TSink>();
    state.ResumeTiming();
    for (TObject* obj : objects) disposer->DisposeAfterDelay(obj, 60000 + random() % 60000);
    state.PauseTiming();
    Free(disposer);  // frees the objects
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<Int64>(n));
}
BENCHMARK(BM_ScheduleDisposals)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_ScheduleMultimap(benchmark::State& state) {
  std::minstd_rand random(42);
  const auto n = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    std::multimap<UInt64, TObject*> schedule;
    const UInt64 now = TThread::GetTickCount64();
    for (std::size_t i = 0; i < n; ++i) schedule.emplace(now + 60000 + random() % 60000, nullptr);
    benchmark::DoNotOptimize(schedule);
    state.PauseTiming();
    schedule.clear();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<Int64>(n));
}
BENCHMARK(BM_ScheduleMultimap)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
