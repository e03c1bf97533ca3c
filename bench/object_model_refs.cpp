// Cost of the reference protocol as the number of objects or references grows. Each case should
// grow linearly: 10x the N at most 15x the time.
//   LockUnlock           N objects, each locked and unlocked by one holder (the unlock frees it)
//   DestroyWithConsumers one object with N consumers destroyed
//   ListItemsFreed       N items of a self-referencing referenced list, each freed elsewhere,
//                        newest first and oldest first
// The shared_ptr case is a yardstick for (a): N objects shared and released.
#include <benchmark/benchmark.h>
#include <quma/ReferencedPersistent.h>

#include <malloc.h>

#include <algorithm>
#include <memory>
#include <vector>

using namespace quma;

namespace {

class TItem : public TQUMAReferencedPersistent {
  QUMA_CLASS(TItem, TQUMAReferencedPersistent)
 public:
  using TQUMAReferencedPersistent::TQUMAReferencedPersistent;
};

class THolder : public TObject {
  QUMA_CLASS(THolder, TObject)
};

void LockUnlock(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  THolder holder;
  std::vector<TItem*> items(n);
  for (auto _ : state) {
    state.PauseTiming();
    for (auto& p : items) p = New<TItem>(nullptr);
    state.ResumeTiming();
    for (TItem* p : items) p->AddMemLockReference(&holder);
    for (TItem* p : items) p->RemoveMemLockReference(&holder);  // frees it
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
}
BENCHMARK(LockUnlock)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

void SharedPtrYardstick(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  std::vector<std::shared_ptr<int>> owners(n), holders(n);
  for (auto _ : state) {
    state.PauseTiming();
    for (auto& p : owners) p = std::make_shared<int>(1);
    state.ResumeTiming();
    for (std::size_t i = 0; i < n; ++i) holders[i] = owners[i];
    for (auto& p : owners) p.reset();
    for (auto& p : holders) p.reset();  // frees it
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
}
BENCHMARK(SharedPtrYardstick)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

void DestroyWithConsumers(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  std::vector<TItem*> consumers(n);
  for (auto& c : consumers) c = New<TItem>(nullptr);
  for (auto _ : state) {
    state.PauseTiming();
    auto* x = New<TItem>(nullptr);
    for (TItem* c : consumers) x->AddNotifyReference(c);
    state.ResumeTiming();
    Free(x);  // tells every consumer, newest first
  }
  for (TItem* c : consumers) Free(c);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
}
BENCHMARK(DestroyWithConsumers)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

void ListItemsFreed(benchmark::State& state, bool newestFirst) {
  const auto n = static_cast<std::size_t>(state.range(0));
  std::vector<TItem*> items(n);
  for (auto _ : state) {
    state.PauseTiming();
    auto* list = New<TQUMAReferencedList<TItem>>();
    for (auto& p : items) {
      p = New<TItem>(nullptr);
      list->Add(p);
    }
    state.ResumeTiming();
    if (newestFirst)
      for (auto it = items.rbegin(); it != items.rend(); ++it) Free(*it);
    else
      for (TItem* p : items) Free(p);
    state.PauseTiming();
    if (list->Count() != 0) state.SkipWithError("an item stayed in the list");
    Free(list);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
}
BENCHMARK_CAPTURE(ListItemsFreed, NewestFirst, true)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
// The list stores its items in one array, so removing the oldest moves all the others.
BENCHMARK_CAPTURE(ListItemsFreed, OldestFirst, false)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

// Heap bytes one referenced object costs (its allocation and its bookkeeping), bare (0) and with
// one notify reference, one memory lock and one silent reference (1), as a counter.
void ReferencedObjectBytes(benchmark::State& state) {
  constexpr std::size_t n = 10000;
  const bool withReferences = state.range(0) != 0;
  THolder holder;
  auto* consumer = New<TItem>(nullptr);
  std::vector<TItem*> items(n);
  std::vector<TQUMAReferencedPersistent*> silent(n);
  double bytes = 1e300;  // the least of the rounds: the first one also grows the live-object registry
  for (auto _ : state) {
    const std::size_t before = mallinfo2().uordblks;
    for (std::size_t i = 0; i < n; ++i) {
      TItem* p = New<TItem>(nullptr);
      items[i] = p;
      if (withReferences) {
        p->AddNotifyReference(consumer);
        p->AddMemLockReference(&holder);
        silent[i] = p;
        p->RegisterSilentReference(&silent[i]);
      }
    }
    bytes = std::min(bytes, static_cast<double>(mallinfo2().uordblks - before) / n);
    for (TItem* p : items) Free(p);
  }
  Free(consumer);
  state.counters["bytes_per_object"] = bytes;
}
BENCHMARK(ReferencedObjectBytes)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

// Every iteration frees everything it made; without this glibc hands the heap top back to the
// system each time and the page faults of growing it again swamp the small cases.
int main(int argc, char** argv) {
  mallopt(M_TRIM_THRESHOLD, 512 * 1024 * 1024);
  mallopt(M_TOP_PAD, 64 * 1024 * 1024);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
