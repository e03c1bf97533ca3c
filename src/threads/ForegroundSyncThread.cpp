#include <quma/ForegroundSyncThread.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include <quma/Monitor.h>

#include "detail/Block.h"

namespace quma {

// ---- the queue ----

namespace detail {

// The queue in list order, as a row of blocks of at most BlockMax entries. Insertion goes before
// the first entry whose tick is not lower (unsigned), as a scan from the head would find it, even
// where keep-alive entries appended at the end or a wrapped tick counter leave the order unsorted:
// a tree of block maxima names the first block holding such an entry, and a scan of that block
// the entry. Cancelling scans the whole queue, as the list does.
class TForegroundQueue {
 public:
  TForegroundQueue() = default;
  TForegroundQueue(const TForegroundQueue&) = delete;
  TForegroundQueue& operator=(const TForegroundQueue&) = delete;
  ~TForegroundQueue() { Clear(); }

  bool Empty() const noexcept { return FCount == 0; }
  std::size_t Count() const noexcept { return FCount; }
  const TQUMADeferredCallback* Head() const noexcept { return Empty() ? nullptr : FBlocks.front().Front().Entry; }

  void InsertSorted(TObjectPtr<TQUMADeferredCallback> entry) {
    const Cardinal tick = entry->TickTime();
    const std::size_t b = FirstBlockNotBelow(tick);
    if (b == FBlocks.size()) return Append(std::move(entry));
    const TItemBlock& block = FBlocks[b];
    const auto at = std::find_if(block.Begin(), block.End(), [&](const TItem& i) { return i.Tick >= tick; });
    Insert(b, static_cast<std::size_t>(at - block.Begin()), std::move(entry));
  }
  void InsertFront(TObjectPtr<TQUMADeferredCallback> entry) { Insert(0, 0, std::move(entry)); }
  void Append(TObjectPtr<TQUMADeferredCallback> entry) {
    Insert(FBlocks.empty() ? 0 : FBlocks.size() - 1, FBlocks.empty() ? 0 : FBlocks.back().Size(), std::move(entry));
  }

  TObjectPtr<TQUMADeferredCallback> TakeHead() { return TObjectPtr<TQUMADeferredCallback>(EraseAt(0, 0)); }

  void Cancel(TNotifyEvent fnCallback, TObject* pPayload) {
    for (std::size_t b = 0; b < FBlocks.size();) {
      TItemBlock& block = FBlocks[b];
      std::size_t offset = 0;
      for (const TItem* i = block.Begin(); i != block.End(); ++i, ++offset)
        if (i->Entry->Payload() == pPayload && i->Entry->Callback() == fnCallback) break;
      if (offset == block.Size()) {
        ++b;
      } else {
        const std::size_t before = FBlocks.size();
        Free(EraseAt(b, offset));
        if (FBlocks.size() < before) continue;  // the block went: b names the next one
      }
    }
  }

  void Clear() {
    for (TItemBlock& block : FBlocks)
      for (TItem* i = block.Begin(); i != block.End(); ++i) Free(i->Entry);
    FBlocks.clear();
    FMax.clear();
    FCount = 0;
    RebuildMaxima();
  }

 private:
  struct TItem {
    Cardinal Tick;
    TQUMADeferredCallback* Entry;  // owned
  };
  using TItemBlock = TBlock<TItem>;
  static constexpr std::size_t BlockMax = 512;

  static Cardinal MaxOf(const TItemBlock& block) noexcept {
    Cardinal m = 0;
    for (const TItem* i = block.Begin(); i != block.End(); ++i) m = std::max(m, i->Tick);
    return m;
  }

  // Segment tree over the block maxima (a missing block counts as -1, below every tick).
  std::size_t FirstBlockNotBelow(Cardinal tick) const noexcept {
    if (FBlocks.empty() || FTree[1] < static_cast<std::int64_t>(tick)) return FBlocks.size();
    std::size_t i = 1;
    while (i < FLeaves) i = FTree[2 * i] >= static_cast<std::int64_t>(tick) ? 2 * i : 2 * i + 1;
    return i - FLeaves;
  }
  void SetMax(std::size_t b, Cardinal value) noexcept {
    FMax[b] = value;
    std::size_t i = FLeaves + b;
    FTree[i] = value;
    for (i /= 2; i; i /= 2) FTree[i] = std::max(FTree[2 * i], FTree[2 * i + 1]);
  }
  void RebuildMaxima() {
    FLeaves = std::bit_ceil(std::max<std::size_t>(FBlocks.size(), 1));
    FTree.assign(2 * FLeaves, -1);
    for (std::size_t b = 0; b < FMax.size(); ++b) FTree[FLeaves + b] = FMax[b];
    for (std::size_t i = FLeaves - 1; i; --i) FTree[i] = std::max(FTree[2 * i], FTree[2 * i + 1]);
  }

  void Insert(std::size_t b, std::size_t offset, TObjectPtr<TQUMADeferredCallback> entry) {
    const Cardinal tick = entry->TickTime();
    if (FBlocks.empty()) {
      FBlocks.emplace_back();
      FMax.push_back(tick);
      RebuildMaxima();
    }
    TItemBlock& block = FBlocks[b];
    block.InsertAt(offset, TItem{tick, entry.release()});
    ++FCount;
    if (block.Size() > BlockMax) {
      TItemBlock upper = block.SplitOff();
      FMax[b] = MaxOf(block);
      FMax.insert(FMax.begin() + static_cast<std::ptrdiff_t>(b) + 1, MaxOf(upper));
      FBlocks.insert(FBlocks.begin() + static_cast<std::ptrdiff_t>(b) + 1, std::move(upper));
      RebuildMaxima();
    } else if (tick > FMax[b]) {
      SetMax(b, tick);
    }
  }

  // Unlinks the entry at (b, offset) and hands it over.
  TQUMADeferredCallback* EraseAt(std::size_t b, std::size_t offset) {
    TItemBlock& block = FBlocks[b];
    const TItem item = block.Begin()[offset];
    block.EraseAt(offset);
    --FCount;
    if (block.Size() == 0) {
      FBlocks.erase(FBlocks.begin() + static_cast<std::ptrdiff_t>(b));
      FMax.erase(FMax.begin() + static_cast<std::ptrdiff_t>(b));
      RebuildMaxima();
    } else if (item.Tick == FMax[b]) {
      SetMax(b, MaxOf(block));
    }
    return item.Entry;
  }

  std::vector<TItemBlock> FBlocks;
  std::vector<Cardinal> FMax;       // each block's largest tick
  std::vector<std::int64_t> FTree;  // segment tree over FMax, FLeaves leaves
  std::size_t FLeaves = 1;
  std::size_t FCount = 0;
};

}  // namespace detail

// ---- the entries ----

TQUMADeferredCallback::TQUMADeferredCallback(TNotifyEvent fnCallback, TObject* pPayload, Cardinal dwWaitFor) noexcept
    : _fnCallback(fnCallback), _pPayload(pPayload), _dwTickTime(TThread::GetTickCount() + dwWaitFor) {}

void TQUMADeferredCallback::CallIt() {
  if (_fnCallback) _fnCallback(_pPayload);
}

namespace {

// Keeps the worker from timing out; calls nothing of consequence.
class TQUMANOPCallback final : public TQUMADeferredCallback {
  QUMA_CLASS(TQUMANOPCallback, TQUMADeferredCallback)
 public:
  explicit TQUMANOPCallback(Cardinal dwWaitFor) noexcept : TQUMADeferredCallback(TNotifyEvent(), nullptr, dwWaitFor) {
    _fnCallback = Bind<&TQUMANOPCallback::Nothing>(this);
    _pPayload = this;
  }
  void Nothing(TObject*) {}
};

// Run on the main thread with the worker as payload, so that the worker ends from there.
class TQUMATerminationCallback final : public TQUMADeferredCallback {
  QUMA_CLASS(TQUMATerminationCallback, TQUMADeferredCallback)
 public:
  TQUMATerminationCallback(TObject* pPayload, Cardinal dwWaitFor) noexcept
      : TQUMADeferredCallback(TNotifyEvent(), pPayload, dwWaitFor) {
    _fnCallback = Bind<&TQUMATerminationCallback::TerminateThread>(this);
  }
  void TerminateThread(TObject* Sender) {
    if (auto* thread = dynamic_cast<TThread*>(Sender)) thread->Terminate();
  }
};

// Guards the singleton variable. Taken before a worker's monitor, never after: creating the
// worker, the keep-alive check, queueing through QUMAQueueForegroundCallback and the worker's
// decision to retire are mutually exclusive, so no request can reach a worker that has retired.
std::mutex gSingletonLock;
TQUMAForegroundSyncThread* gSingleton = nullptr;

constexpr Cardinal KeepAliveMilliseconds = 1000;

}  // namespace

// ---- the worker ----

TQUMAForegroundSyncThread::TQUMAForegroundSyncThread()
    : TThread(true),
      _pDeferred(std::make_unique<detail::TForegroundQueue>()),
      _pEvent(std::make_unique<TEvent>(true, false)),
      _dwLastSleep(GetTickCount()),
      _dwMaxIdle(10000) {
  SetFreeOnTerminate(true);
}

TQUMAForegroundSyncThread::~TQUMAForegroundSyncThread() = default;

void TQUMAForegroundSyncThread::BeforeDestruction() {
  TThread::BeforeDestruction();
  {
    TMonitorGuard guard(this);
    _pDeferred->Clear();
  }
  std::lock_guard lock(gSingletonLock);
  if (gSingleton == this) gSingleton = nullptr;
}

void TQUMAForegroundSyncThread::QueueSyncCallback(TNotifyEvent fnCallback, TObject* pPayload, Cardinal dwMilliseconds) {
  TObjectPtr<TQUMADeferredCallback> entry(New<TQUMADeferredCallback>(fnCallback, pPayload, dwMilliseconds));
  {
    TMonitorGuard guard(this);
    _pDeferred->InsertSorted(std::move(entry));
  }
  Poke();
}

void TQUMAForegroundSyncThread::CancelSyncCallback(TNotifyEvent fnCallback, TObject* pPayload, Cardinal) {
  {
    TMonitorGuard guard(this);
    _pDeferred->Cancel(fnCallback, pPayload);
  }
  Poke();
}

void TQUMAForegroundSyncThread::Poke() { _pEvent->SetEvent(); }

Cardinal TQUMAForegroundSyncThread::MaxIdle() const noexcept { return _dwMaxIdle.load(std::memory_order_relaxed); }

void TQUMAForegroundSyncThread::SetMaxIdle(Cardinal dwMaxIdle) {
  if (_dwMaxIdle.exchange(dwMaxIdle, std::memory_order_relaxed) != dwMaxIdle) Poke();
}

std::size_t TQUMAForegroundSyncThread::QueuedCount() const {
  TMonitorGuard guard(this);
  return _pDeferred->Count();
}

void TQUMAForegroundSyncThread::TerminatedSet() {
  TThread::TerminatedSet();
  Poke();
}

void TQUMAForegroundSyncThread::Execute() {
  NameThreadForDebugging("TQUMAForegroundSyncThread");
  while (!Terminated()) {
    Cardinal wait;
    {
      TMonitorGuard guard(this);
      wait = MaxIdle();
      // Unsigned: an overdue head gives a huge difference, and the wait stays MaxIdle.
      if (const TQUMADeferredCallback* head = _pDeferred->Head())
        wait = std::min(wait, static_cast<Cardinal>(head->TickTime() - GetTickCount()));
    }
    if (static_cast<Integer>(wait) > 0) {
      _dwLastSleep.store(GetTickCount(), std::memory_order_relaxed);
      if (_pEvent->WaitFor(wait) != wrSignaled) {
        std::lock_guard lock(gSingletonLock);
        TMonitorGuard guard(this);
        if (_pDeferred->Empty()) {
          // Idle for MaxIdle: end through the main thread; the next request makes a new worker.
          _pDeferred->InsertFront(TObjectPtr<TQUMADeferredCallback>(New<TQUMATerminationCallback>(this, 0)));
          if (gSingleton == this) gSingleton = nullptr;
        }
      }
    }
    if (Terminated()) break;
    bool due;
    {
      TMonitorGuard guard(this);
      const TQUMADeferredCallback* head = _pDeferred->Head();
      due = head && head->TickTime() <= GetTickCount();
    }
    // Reset only here: a Poke at any later moment makes the next wait return at once.
    _pEvent->ResetEvent();
    if (due) Synchronize(Bind<&TQUMAForegroundSyncThread::RunCallbacks>(this));
  }
}

void TQUMAForegroundSyncThread::RunCallbacks() {
  std::vector<TObjectPtr<TQUMADeferredCallback>> taken;
  {
    TMonitorGuard guard(this);
    for (const TQUMADeferredCallback* head = _pDeferred->Head(); head && GetTickCount() >= head->TickTime();
         head = _pDeferred->Head())
      taken.push_back(_pDeferred->TakeHead());
  }
  // Outside the lock: callbacks may queue and cancel. The first exception drops the rest.
  try {
    for (auto& entry : taken) entry->CallIt();
  } catch (...) {
  }
}

// ---- entry points ----

void TQUMAForegroundSyncThread::KeepAlive() {
  TMonitorGuard guard(this);
  const Cardinal now = GetTickCount();
  const TQUMADeferredCallback* head = _pDeferred->Head();
  // Unsigned: an overdue head counts as far away (the worker is poked, it will not time out).
  const Cardinal left = head ? head->TickTime() - now : MaxIdle() - (now - _dwLastSleep.load(std::memory_order_relaxed));
  if (left < KeepAliveMilliseconds) {
    _pDeferred->Append(TObjectPtr<TQUMADeferredCallback>(New<TQUMANOPCallback>(KeepAliveMilliseconds)));
    Poke();
  }
}

namespace {

// The caller holds gSingletonLock.
TQUMAForegroundSyncThread* SingletonLocked() {
  if (!gSingleton) {
    auto* worker = New<TQUMAForegroundSyncThread>();
    gSingleton = worker;
    worker->Start();
  }
  return gSingleton;
}

}  // namespace

TQUMAForegroundSyncThread* ForegroundSync() {
  std::lock_guard lock(gSingletonLock);
  TQUMAForegroundSyncThread* worker = SingletonLocked();
  worker->KeepAlive();
  return worker;
}

void QUMAQueueForegroundCallback(TNotifyEvent fnCallback, TObject* pPayload, Cardinal dwMilliseconds) {
  // Holding the singleton lock keeps the worker from deciding to retire in between.
  std::lock_guard lock(gSingletonLock);
  TQUMAForegroundSyncThread* worker = SingletonLocked();
  worker->KeepAlive();
  worker->QueueSyncCallback(fnCallback, pPayload, dwMilliseconds);
}

void FinalizeForegroundSync() {
  {
    std::lock_guard lock(gSingletonLock);
    TQUMAForegroundSyncThread* worker = gSingleton;
    if (!worker) return;
    gSingleton = nullptr;  // a later request (tests) starts a new worker
    TObjectPtr<TQUMADeferredCallback> termination(New<TQUMATerminationCallback>(worker, 0));
    {
      TMonitorGuard guard(worker);
      worker->_pDeferred->Clear();
      worker->_pDeferred->Append(std::move(termination));
    }
    worker->Poke();
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(15));  // lets the worker reach the main thread
}

namespace {
// Unit finalisation.
struct TForegroundSyncFinalizer {
  ~TForegroundSyncFinalizer() { FinalizeForegroundSync(); }
} gForegroundSyncFinalizer;
}  // namespace

}  // namespace quma
