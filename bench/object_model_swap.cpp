// Cost of swapping a unique persistent for its replacement as the number of holders grows (10,
// 1k, 100k). The holders are of mixed kinds, in turn: silent reference, free indicator, plain
// locker (two locks), locking referenced persistent, consumer, callback holder, component. The
// swap should grow linearly: 10x the holders at most 15x the time. "per_holder" is the time of
// one swap divided by the number of holders.
// Yardstick in the same run: re-pointing as many std::shared_ptr holders at a new object.
#include <benchmark/benchmark.h>
#include <quma/UniquePersistent.h>

#include <memory>
#include <vector>

using namespace quma;

namespace {

class TUnique : public TQUMAUniquePersistent {
  QUMA_CLASS(TUnique, TQUMAUniquePersistent)
 public:
  using TQUMAUniquePersistent::TQUMAUniquePersistent;
};

class TNode : public TQUMAReferencedPersistent {
  QUMA_CLASS(TNode, TQUMAReferencedPersistent)
 public:
  using TQUMAReferencedPersistent::TQUMAReferencedPersistent;
};

class TPlainHolder : public TObject {
  QUMA_CLASS(TPlainHolder, TObject)
 public:
  void Told(TQUMAReferencedPersistent*, TOperation) {}
};

// The holders, kept across iterations: after each swap the replacement is freed, which tells
// them all and leaves them free to hold the next object.
struct THolders {
  THolders(std::size_t n, std::size_t kinds) {
    for (std::size_t i = 0; i < n; ++i) switch (i % kinds) {
        case 0: Silent.push_back(nullptr); break;
        case 1: ++Indicators; break;
        case 2: Plain.push_back(MakeObject<TPlainHolder>()); break;
        case 3: Lockers.push_back(MakeObject<TNode>()); break;
        case 4: Consumers.push_back(MakeObject<TNode>()); break;
        case 5: Callbacks.push_back(MakeObject<TPlainHolder>()); break;
        default: Components.push_back(MakeObject<TComponent>()); break;
      }
    Flags = std::make_unique<bool[]>(Indicators);
  }
  void Hold(TUnique* obj) {
    for (auto& p : Silent) {
      p = obj;
      obj->RegisterSilentReference(&p);
    }
    for (std::size_t i = 0; i < Indicators; ++i) obj->RegisterFreeIndicator(Flags[i] = false);
    for (auto& p : Plain) {
      obj->AddMemLockReference(p.get());
      obj->AddMemLockReference(p.get());
    }
    for (auto& p : Lockers) obj->AddMemLockReference(p.get());
    for (auto& p : Consumers) obj->AddNotifyReference(p.get());
    for (auto& p : Callbacks) obj->AddNotifyReference(p.get(), Bind<&TPlainHolder::Told>(p.get()));
    for (auto& p : Components) obj->AddNotifyReference(p.get());
  }
  std::vector<TQUMAReferencedPersistent*> Silent;
  std::size_t Indicators = 0;
  std::unique_ptr<bool[]> Flags;
  std::vector<TObjectPtr<TPlainHolder>> Plain, Callbacks;
  std::vector<TObjectPtr<TNode>> Lockers, Consumers;
  std::vector<TObjectPtr<TComponent>> Components;
};

void SetPerHolder(benchmark::State& state) {
  state.counters["per_holder"] = benchmark::Counter(static_cast<double>(state.iterations() * state.range(0)),
                                                    benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_SwapWith(benchmark::State& state) {
  THolders holders(static_cast<std::size_t>(state.range(0)), static_cast<std::size_t>(state.range(1)));
  for (auto _ : state) {
    state.PauseTiming();
    auto* old = New<TUnique>(nullptr);
    auto* replacement = New<TUnique>(nullptr);
    replacement->SetFreeWhenUnreferenced(false);
    holders.Hold(old);
    state.ResumeTiming();
    old->_SwapWith(replacement);
    state.PauseTiming();
    Free(replacement);
    state.ResumeTiming();
  }
  SetPerHolder(state);
}
BENCHMARK(BM_SwapWith)->ArgsProduct({{10, 1000, 10000, 100000}, {7, 6}})->Unit(benchmark::kMicrosecond);

void BM_SharedPtrRepoint(benchmark::State& state) {
  std::vector<std::shared_ptr<int>> holders(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    state.PauseTiming();
    auto old = std::make_shared<int>(1);
    for (auto& h : holders) h = old;
    old.reset();
    auto replacement = std::make_shared<int>(2);
    state.ResumeTiming();
    for (auto& h : holders) h = replacement;  // the last one frees the old object
    benchmark::DoNotOptimize(holders.data());
  }
  SetPerHolder(state);
}
BENCHMARK(BM_SharedPtrRepoint)->Arg(10)->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
