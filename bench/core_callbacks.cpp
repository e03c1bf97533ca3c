// Cost of calling a bound callback (TNotifyEvent) against a std::function holding the same
// binding and a direct member-function-pointer call, in one run.
#include <benchmark/benchmark.h>

#include <functional>

#include "CallbackReceiver.h"

#include <quma/Method.h>
#include <quma/Object.h>

using namespace quma;

namespace {

using quma_bench::TReceiver;

void BM_NotifyEvent(benchmark::State& state) {
  auto receiver = MakeObject<TReceiver>();
  TNotifyEvent ev = Bind<&TReceiver::Handle>(receiver.get());
  benchmark::DoNotOptimize(ev);
  TReceiver* r = receiver.get();
  for (auto _ : state) {
    TNotifyEvent* call = &ev;  // read the callback from memory, as a caller holding one does
    benchmark::DoNotOptimize(call);
    (*call)(r);
  }
  benchmark::DoNotOptimize(receiver->Count);
}
BENCHMARK(BM_NotifyEvent);

void BM_StdFunction(benchmark::State& state) {
  auto receiver = MakeObject<TReceiver>();
  TReceiver* r = receiver.get();
  std::function<void(TObject*)> fn = [r](TObject* s) { r->Handle(s); };
  benchmark::DoNotOptimize(fn);
  for (auto _ : state) {
    std::function<void(TObject*)>* call = &fn;
    benchmark::DoNotOptimize(call);
    (*call)(r);
  }
  benchmark::DoNotOptimize(receiver->Count);
}
BENCHMARK(BM_StdFunction);

void BM_MemberFunctionPointer(benchmark::State& state) {
  auto receiver = MakeObject<TReceiver>();
  TReceiver* r = receiver.get();
  void (TReceiver::*pm)(TObject*) = &TReceiver::Handle;
  benchmark::DoNotOptimize(pm);
  for (auto _ : state) {
    auto call = pm;
    benchmark::DoNotOptimize(call);
    (r->*call)(r);
  }
  benchmark::DoNotOptimize(receiver->Count);
}
BENCHMARK(BM_MemberFunctionPointer);

}  // namespace

BENCHMARK_MAIN();
