// The handler object that the callback and event benchmarks call through every variant.
#pragma once

#include <benchmark/benchmark.h>

#include <quma/Object.h>

namespace quma_bench {

class TReceiver : public quma::TObject {
  QUMA_CLASS(TReceiver, quma::TObject)
 public:
  long Count = 0;
  // Not inlinable into the caller: every variant pays for one real call of the handler.
  [[gnu::noinline]] void Handle(quma::TObject* Sender) {
    Count += Sender != nullptr;
    benchmark::ClobberMemory();
  }
};

}  // namespace quma_bench
