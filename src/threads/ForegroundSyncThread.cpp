#include <quma/ForegroundSyncThread.h>

#include <algorithm>
#include <functional>
#include <mutex>
#include <unordered_map>
#include <vector>

#include <quma/Monitor.h>

#include "detail/SequenceTree.h"

namespace quma {

// ---- the queue ----

namespace detail {

struct TForegroundNode : TSequenceNode<TForegroundNode> {
  TObjectPtr<TQUMADeferredCallback> Entry;
  Cardinal Tick = 0;
  Cardinal MaxTick = 0;  // largest Tick in this subtree, for the insertion search
  TForegroundNode* KeyPrev = nullptr;  // entries with the same callback and payload
  TForegroundNode* KeyNext = nullptr;

  void Pull() noexcept {
    MaxTick = Tick;
    if (Left) MaxTick = std::max(MaxTick, Left->MaxTick);
    if (Right) MaxTick = std::max(MaxTick, Right->MaxTick);
  }
};

// The queue in list order. Insertion goes before the first entry whose tick is not lower
// (unsigned), as a scan from the head would find it, even where keep-alive entries appended at the
// end or a wrapped tick counter leave the order unsorted; the subtree maxima find that entry in
// logarithmic time. Cancelling looks entries up by callback and payload.
class TForegroundQueue {
 public:
  TForegroundQueue() = default;
  TForegroundQueue(const TForegroundQueue&) = delete;
  TForegroundQueue& operator=(const TForegroundQueue&) = delete;
  ~TForegroundQueue() { Clear(); }

  bool Empty() const noexcept { return FTree.Empty(); }
  std::size_t Count() const noexcept { return FTree.Count(); }
  const TQUMADeferredCallback* Head() const noexcept { return Empty() ? nullptr : FTree.First()->Entry.get(); }

  void InsertSorted(TObjectPtr<TQUMADeferredCallback> entry) {
    const Cardinal tick = entry->TickTime();
    Add(std::move(entry), FirstNotBelow(tick));
  }
  void InsertFront(TObjectPtr<TQUMADeferredCallback> entry) { Add(std::move(entry), 0); }
  void Append(TObjectPtr<TQUMADeferredCallback> entry) { Add(std::move(entry), Count()); }

  TObjectPtr<TQUMADeferredCallback> TakeHead() {
    TForegroundNode* node = FTree.First();
    FTree.Erase(node);
    Unindex(node);
    std::unique_ptr<TForegroundNode> owned(node);
    return std::move(node->Entry);
  }

  void Cancel(TNotifyEvent fnCallback, TObject* pPayload) {
    auto it = FByKey.find(TKey{fnCallback.Raw(), pPayload});
    if (it == FByKey.end()) return;
    TForegroundNode* node = it->second;
    FByKey.erase(it);
    while (node) {
      std::unique_ptr<TForegroundNode> owned(node);
      node = node->KeyNext;
      FTree.Erase(owned.get());
    }
  }

  void Clear() {
    FByKey.clear();
    for (TForegroundNode* node : FTree.TakeAll()) delete node;
  }

 private:
  struct TKey {
    TMethodData Callback;
    TObject* Payload;
    friend bool operator==(const TKey&, const TKey&) noexcept = default;
  };
  struct THashKey {
    std::size_t operator()(const TKey& k) const noexcept {
      const std::hash<const void*> h;
      return h(k.Callback.Code) ^ (h(k.Callback.Data) * 31) ^ (h(k.Payload) * 1021);
    }
  };

  std::size_t FirstNotBelow(Cardinal tick) const noexcept {
    const TForegroundNode* n = FTree.Root();
    if (!n || n->MaxTick < tick) return Count();
    std::size_t pos = 0;
    for (;;) {
      if (n->Left && n->Left->MaxTick >= tick) {
        n = n->Left;
      } else if (n->Tick >= tick) {
        return pos + FTree.SizeOf(n->Left);
      } else {
        pos += FTree.SizeOf(n->Left) + 1;
        n = n->Right;
      }
    }
  }

  void Add(TObjectPtr<TQUMADeferredCallback> entry, std::size_t pos) {
    auto node = std::make_unique<TForegroundNode>();
    node->Tick = entry->TickTime();
    TForegroundNode*& head = FByKey[TKey{entry->Callback().Raw(), entry->Payload()}];
    node->Entry = std::move(entry);
    node->KeyNext = head;
    if (head) head->KeyPrev = node.get();
    head = node.get();
    FTree.InsertAt(pos, node.release());
  }

  void Unindex(TForegroundNode* node) {
    if (node->KeyNext) node->KeyNext->KeyPrev = node->KeyPrev;
    if (node->KeyPrev) {
      node->KeyPrev->KeyNext = node->KeyNext;
    } else {
      auto it = FByKey.find(TKey{node->Entry->Callback().Raw(), node->Entry->Payload()});
      if (node->KeyNext)
        it->second = node->KeyNext;
      else
        FByKey.erase(it);
    }
  }

  TSequenceTree<TForegroundNode> FTree;
  std::unordered_map<TKey, TForegroundNode*, THashKey> FByKey;
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
