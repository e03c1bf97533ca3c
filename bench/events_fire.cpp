// One firing of a multicast event with 1, 10 and 100 subscribers: TQUMASubscribedEvent (monitor
// included) and TQUMABroadcastEvent (NotifyListeners, critical section included) against a plain
// loop over std::function and against Boost.Signals2, in one run. "per_subscriber" divides the
// time of one firing by the number of subscribers.
#include <benchmark/benchmark.h>

#include <boost/signals2/signal.hpp>

#include <functional>
#include <memory>
#include <vector>

#include "CallbackReceiver.h"

#include <quma/BroadcastEvent.h>
#include <quma/Method.h>
#include <quma/Object.h>
#include <quma/SubscribedEvent.h>

using namespace quma;

namespace {

using quma_bench::TReceiver;

std::vector<TObjectPtr<TReceiver>> MakeReceivers(std::int64_t n) {
  std::vector<TObjectPtr<TReceiver>> receivers;
  for (std::int64_t i = 0; i < n; ++i) receivers.push_back(MakeObject<TReceiver>());
  return receivers;
}

// Seconds per subscriber call (printed with an SI prefix, "1.7n" is 1.7 ns).
void SetCounters(benchmark::State& state) {
  state.counters["per_subscriber"] = benchmark::Counter(static_cast<double>(state.iterations() * state.range(0)),
                                                        benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_SubscribedEvent(benchmark::State& state) {
  auto receivers = MakeReceivers(state.range(0));
  auto event = MakeObject<TQUMASubscribedEvent>();
  for (auto& r : receivers) event->Subscribe(Bind<&TReceiver::Handle>(r.get()));
  for (auto _ : state) event->FireCallbacks();
  SetCounters(state);
}

void BM_BroadcastEvent(benchmark::State& state) {
  auto receivers = MakeReceivers(state.range(0));
  auto event = MakeObject<TQUMABroadcastEvent>();
  for (auto& r : receivers) event->RegisterListener(Bind<&TReceiver::Handle>(r.get()));
  for (auto _ : state) event->NotifyListeners();
  SetCounters(state);
}

void BM_PlainFunctionLoop(benchmark::State& state) {
  auto receivers = MakeReceivers(state.range(0));
  std::vector<std::function<void(TObject*)>> callbacks;
  for (auto& r : receivers) callbacks.emplace_back([p = r.get()](TObject* sender) { p->Handle(sender); });
  TObject* sender = receivers.front().get();
  benchmark::DoNotOptimize(sender);
  for (auto _ : state)
    for (const auto& cb : callbacks) cb(sender);
  SetCounters(state);
}

void BM_Signals2(benchmark::State& state) {
  auto receivers = MakeReceivers(state.range(0));
  boost::signals2::signal<void(TObject*)> signal;
  for (auto& r : receivers) signal.connect([p = r.get()](TObject* sender) { p->Handle(sender); });
  TObject* sender = receivers.front().get();
  benchmark::DoNotOptimize(sender);
  for (auto _ : state) signal(sender);
  SetCounters(state);
}

}  // namespace

BENCHMARK(BM_SubscribedEvent)->Arg(1)->Arg(10)->Arg(100);
BENCHMARK(BM_BroadcastEvent)->Arg(1)->Arg(10)->Arg(100);
BENCHMARK(BM_PlainFunctionLoop)->Arg(1)->Arg(10)->Arg(100);
BENCHMARK(BM_Signals2)->Arg(1)->Arg(10)->Arg(100);

BENCHMARK_MAIN();
