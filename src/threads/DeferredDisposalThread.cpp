#include <quma/DeferredDisposalThread.h>

#include <algorithm>
#include <mutex>
#include <unordered_map>
#include <vector>

#include <quma/Monitor.h>

#include "detail/SequenceTree.h"

namespace quma {

namespace detail {

struct TDisposalNode : TSequenceNode<TDisposalNode> {
  TObject* Object = nullptr;
  UInt64 Due = 0;
};

// The scheduled objects in due order, with positions found in logarithmic time and each object's
// entry found by address.
class TDisposalSchedule {
 public:
  TDisposalSchedule() = default;
  TDisposalSchedule(const TDisposalSchedule&) = delete;
  TDisposalSchedule& operator=(const TDisposalSchedule&) = delete;
  ~TDisposalSchedule() {
    for (TDisposalNode* node : FTree.TakeAll()) delete node;
  }

  std::size_t Count() const noexcept { return FTree.Count(); }
  bool Empty() const noexcept { return FTree.Empty(); }
  TDisposalNode* First() const noexcept { return FTree.First(); }
  TDisposalNode* Last() const noexcept { return FTree.Last(); }
  TDisposalNode* Find(TObject* obj) const {
    auto it = FByObject.find(obj);
    return it == FByObject.end() ? nullptr : it->second;
  }

  // Number of entries due before `due` (strictly, or also at `due` when `orEqual`).
  std::size_t CountBefore(UInt64 due, bool orEqual) const noexcept {
    std::size_t pos = 0;
    for (const TDisposalNode* n = FTree.Root(); n;) {
      if (n->Due < due || (orEqual && n->Due == due)) {
        pos += FTree.SizeOf(n->Left) + 1;
        n = n->Right;
      } else {
        n = n->Left;
      }
    }
    return pos;
  }

  TDisposalNode* At(std::size_t i) const noexcept {
    TDisposalNode* n = FTree.Root();
    while (n) {
      const std::size_t left = FTree.SizeOf(n->Left);
      if (i == left) break;
      if (i < left) {
        n = n->Left;
      } else {
        i -= left + 1;
        n = n->Right;
      }
    }
    return n;
  }

  void Insert(std::size_t pos, TObject* obj, UInt64 due) {
    auto node = std::make_unique<TDisposalNode>();
    node->Object = obj;
    node->Due = due;
    FByObject.emplace(obj, node.get());
    FTree.InsertAt(pos, node.release());
  }

  TObject* Remove(TDisposalNode* node) {
    std::unique_ptr<TDisposalNode> owned(node);
    FTree.Erase(node);
    FByObject.erase(node->Object);
    return node->Object;
  }

  // Every due time later than limit becomes limit; the order stays ascending. True when the first
  // entry changed.
  bool Clamp(UInt64 limit) noexcept {
    const bool firstChanged = !Empty() && First()->Due > limit;
    for (TDisposalNode* n = At(CountBefore(limit, true)); n; n = TSequenceTree<TDisposalNode>::Next(n))
      n->Due = limit;
    return firstChanged;
  }

  // Unlinks every entry; returns the objects in due order.
  std::vector<TObject*> TakeAll() {
    std::vector<TObject*> objects;
    FByObject.clear();
    for (TDisposalNode* node : FTree.TakeAll()) {
      objects.push_back(node->Object);
      delete node;
    }
    return objects;
  }

 private:
  TSequenceTree<TDisposalNode> FTree;
  std::unordered_map<TObject*, TDisposalNode*> FByObject;
};

}  // namespace detail

namespace {

constexpr Cardinal MinimumWait = 20;  // bounds the worker's polling rate

UInt64 Now() noexcept { return TThread::GetTickCount64(); }

}  // namespace

TQUMADeferredDisposalThread::TQUMADeferredDisposalThread(bool CreateSuspended) : TThread(CreateSuspended) {}

TQUMADeferredDisposalThread::~TQUMADeferredDisposalThread() = default;

void TQUMADeferredDisposalThread::AfterConstruction() {
  _pEvent = std::make_unique<TEvent>(true, false);
  _pSchedule = std::make_unique<detail::TDisposalSchedule>();
  _dctObjectDisposal.reset(New<TDictionary<TObject*, TNotifyEvent>>());
  _dwMaxIdle = 10000;
  _blSuspended = false;
  _pLockObject = this;
  TThread::AfterConstruction();
}

void TQUMADeferredDisposalThread::BeforeDestruction() {
  TThread::BeforeDestruction();
  DisposeAll();  // a thread never started, or objects scheduled after the worker ended
}

void TQUMADeferredDisposalThread::DisposeAll() {
  if (!_pSchedule) return;
  std::vector<TObject*> objects;
  {
    TMonitorGuard guard(_GetLockObject());
    objects = _pSchedule->TakeAll();
    _dctObjectDisposal->Clear();
  }
  for (auto it = objects.rbegin(); it != objects.rend(); ++it) Free(*it);
}

std::size_t TQUMADeferredDisposalThread::ScheduledCount() const {
  TMonitorGuard guard(_GetLockObject());
  return _pSchedule->Count();
}

std::size_t TQUMADeferredDisposalThread::_FindInsertPosition(UInt64 dueTime) const {
  const std::size_t count = _pSchedule->Count();
  if (count == 0 || dueTime >= _pSchedule->Last()->Due) return count;
  // The search over a list, replayed on positions: [equalFrom, equalTo) holds the entries equal to
  // dueTime, everything before is earlier, everything after later. The first probe that lands
  // among the equal entries decides.
  const std::size_t equalFrom = _pSchedule->CountBefore(dueTime, false);
  const std::size_t equalTo = _pSchedule->CountBefore(dueTime, true);
  std::ptrdiff_t lo = -1;
  auto hi = static_cast<std::ptrdiff_t>(count);
  while (hi - lo > 1) {
    const std::ptrdiff_t mid = lo + (hi - lo) / 2;
    const auto m = static_cast<std::size_t>(mid);
    if (m >= equalFrom && m < equalTo) return m;
    if (m >= equalTo)
      hi = mid;
    else
      lo = mid;
  }
  return static_cast<std::size_t>(hi);
}

void TQUMADeferredDisposalThread::DisposeAfterDelay(TObject* pObject, Cardinal dwTickCount) {
  if (!pObject) return;
  std::size_t pos;
  {
    TMonitorGuard guard(_GetLockObject());
    if (_pSchedule->Find(pObject)) CancelDisposal(pObject);
    const UInt64 due = Now() + dwTickCount;
    pos = _FindInsertPosition(due);
    _pSchedule->Insert(pos, pObject, due);
  }
  if (pos == 0) Poke();
}

void TQUMADeferredDisposalThread::DisposeAfterDelayWithCallback(TObject* pObject, Cardinal dwTickCount,
                                                                TNotifyEvent fnDisposal) {
  if (!pObject) return;
  TMonitorGuard guard(_GetLockObject());
  if (fnDisposal) _dctObjectDisposal->Add(pObject, fnDisposal);
  // Re-scheduling cancels first, and with it the callback just added: kept as it is.
  DisposeAfterDelay(pObject, dwTickCount);
}

void TQUMADeferredDisposalThread::CancelDisposal(TObject* pObject) {
  TMonitorGuard guard(_GetLockObject());
  if (detail::TDisposalNode* node = _pSchedule->Find(pObject)) {
    _pSchedule->Remove(node);
    _dctObjectDisposal->Remove(pObject);
  }
}

void TQUMADeferredDisposalThread::SetMaxDelay(Cardinal dwTickcount) {
  bool firstChanged;
  {
    TMonitorGuard guard(_GetLockObject());
    if (_pSchedule->Empty()) return;
    firstChanged = _pSchedule->Clamp(Now() + dwTickcount);
  }
  if (firstChanged) Poke();
}

void TQUMADeferredDisposalThread::Poke() {
  if (_pEvent) _pEvent->SetEvent();
}

void TQUMADeferredDisposalThread::TerminatedSet() {
  TThread::TerminatedSet();
  Poke();
}

TEvent* TQUMADeferredDisposalThread::_GetEvent() const { return _pEvent.get(); }
TObject* TQUMADeferredDisposalThread::_GetLockObject() const { return _pLockObject.load(std::memory_order_acquire); }
Cardinal TQUMADeferredDisposalThread::_GetMaxIdle() const { return _dwMaxIdle.load(std::memory_order_relaxed); }
bool TQUMADeferredDisposalThread::_GetSuspendDisposals() const { return _blSuspended.load(std::memory_order_acquire); }
void TQUMADeferredDisposalThread::_SetLockObject(TObject* value) { _pLockObject.store(value, std::memory_order_release); }

void TQUMADeferredDisposalThread::_SetMaxIdle(Cardinal value) {
  if (_dwMaxIdle.exchange(value, std::memory_order_relaxed) != value) Poke();
}

void TQUMADeferredDisposalThread::_SetSuspendDisposals(bool value) {
  TMonitorGuard guard(_GetLockObject());
  if (_blSuspended.exchange(value, std::memory_order_acq_rel) != value && !value) Poke();
}

void TQUMADeferredDisposalThread::_DisposeByIndex(std::size_t i) {
  if (i >= _pSchedule->Count()) return;
  TObject* obj = _pSchedule->Remove(_pSchedule->At(i));
  if (std::optional<TNotifyEvent> callback = _dctObjectDisposal->ExtractPair(obj); callback && *callback)
    (*callback)(obj);  // the callback decides the object's fate
  else
    Free(obj);
}

void TQUMADeferredDisposalThread::Execute() {
  NameThreadForDebugging("TQUMADeferredDisposalThread");
  if (!_GetLockObject()) _SetLockObject(this);
  while (!Terminated()) {
    Cardinal wait = MinimumWait;  // the lock is busy: look again soon, never block on it
    const Cardinal maxIdle = _GetMaxIdle();
    if (_GetSuspendDisposals()) {
      wait = maxIdle;
    } else if (std::unique_lock lock(_GetLockObject()->MonitorLock(), std::try_to_lock); lock.owns_lock()) {
      const UInt64 now = Now();
      while (!_pSchedule->Empty() && _pSchedule->First()->Due <= now) _DisposeByIndex(0);
      wait = maxIdle;
      if (!_pSchedule->Empty())
        wait = static_cast<Cardinal>(std::min<UInt64>(_pSchedule->First()->Due - now, maxIdle));
      wait = std::max(wait, MinimumWait);
    }
    const TWaitResult result = _pEvent->WaitFor(wait);
    _pEvent->ResetEvent();
    if (result == wrAbandoned || result == wrError) Terminate();
  }
  DisposeAll();
}

}  // namespace quma
