#include <quma/DeferredDisposalThread.h>

#include <algorithm>
#include <bit>
#include <mutex>
#include <unordered_map>
#include <vector>

#include <quma/Monitor.h>

#include "detail/Block.h"

namespace quma {

namespace detail {

// The scheduled objects in due order, as a row of blocks of at most BlockMax entries. A search
// touches two small contiguous arrays (each block's last due time, and a Fenwick tree of block
// sizes for positions) and then one block, so a million entries cost few cache misses per
// operation, where any one-entry-per-node tree costs one per level. The object index maps each
// object to its due time, which locates its entry among the entries due at that time.
class TDisposalSchedule {
 public:
  struct TEntry {
    UInt64 Due;
    TObject* Object;
  };

  std::size_t Count() const noexcept { return FCount; }
  bool Empty() const noexcept { return FCount == 0; }
  UInt64 FirstDue() const noexcept { return FBlocks.front().Front().Due; }
  UInt64 LastDue() const noexcept { return FLast.back(); }
  // Enters obj in the object index, due at `due`; false (and nothing changed) when it is
  // scheduled already. Insert must follow a successful claim.
  bool Claim(TObject* obj, UInt64 due) { return FDue.try_emplace(obj, due).second; }

  // Number of entries due before `due` (strictly, or also at `due` when `orEqual`).
  std::size_t CountBefore(UInt64 due, bool orEqual) const noexcept {
    const auto b = static_cast<std::size_t>(
        (orEqual ? std::upper_bound(FLast.begin(), FLast.end(), due) : std::lower_bound(FLast.begin(), FLast.end(), due)) -
        FLast.begin());
    if (b == FBlocks.size()) return FCount;
    const TBlock& block = FBlocks[b];
    auto less = [](const TEntry& e, UInt64 d) { return e.Due < d; };
    auto lessEq = [](UInt64 d, const TEntry& e) { return d < e.Due; };
    const auto at = orEqual ? std::upper_bound(block.Begin(), block.End(), due, lessEq)
                            : std::lower_bound(block.Begin(), block.End(), due, less);
    return Prefix(b) + static_cast<std::size_t>(at - block.Begin());
  }

  void Insert(std::size_t pos, TObject* obj, UInt64 due) {
    if (FBlocks.empty()) {
      FBlocks.emplace_back();
      FLast.push_back(due);
      FTree.assign(1, 0);
    }
    auto [b, offset] = Locate(pos);
    TBlock& block = FBlocks[b];
    block.InsertAt(offset, TEntry{due, obj});
    FLast[b] = block.Back().Due;
    ++FCount;
    if (block.Size() > BlockMax)
      Split(b);
    else
      AddToTree(b, 1);
  }

  TObject* RemoveAt(std::size_t pos) {
    auto [b, offset] = Locate(pos);
    if (offset == FBlocks[b].Size()) {  // Locate prefers the end of a block to the next one's start
      ++b;
      offset = 0;
    }
    return EraseFrom(b, offset);
  }

  // Removes obj if scheduled; true when it was.
  bool Remove(TObject* obj) {
    auto it = FDue.find(obj);
    if (it == FDue.end()) return false;
    const UInt64 due = it->second;
    auto b = static_cast<std::size_t>(std::lower_bound(FLast.begin(), FLast.end(), due) - FLast.begin());
    for (; b < FBlocks.size(); ++b) {
      TBlock& block = FBlocks[b];
      for (auto e = std::lower_bound(block.Begin(), block.End(), due, [](const TEntry& x, UInt64 d) { return x.Due < d; });
           e != block.End() && e->Due == due; ++e)
        if (e->Object == obj) {
          EraseFrom(b, static_cast<std::size_t>(e - block.Begin()));
          return true;
        }
    }
    return false;  // not reached: the index and the blocks agree
  }

  // Every due time later than limit becomes limit; the order stays ascending. True when the first
  // entry changed.
  bool Clamp(UInt64 limit) {
    if (Empty()) return false;
    const bool firstChanged = FirstDue() > limit;
    for (auto b = static_cast<std::size_t>(std::upper_bound(FLast.begin(), FLast.end(), limit) - FLast.begin());
         b < FBlocks.size(); ++b) {
      TBlock& block = FBlocks[b];
      for (TEntry* e = block.Begin(); e != block.End(); ++e)
        if (e->Due > limit) {
          e->Due = limit;
          FDue[e->Object] = limit;
        }
      FLast[b] = limit;
    }
    return firstChanged;
  }

  // Unlinks every entry; returns the objects in due order.
  std::vector<TObject*> TakeAll() {
    std::vector<TObject*> objects;
    objects.reserve(FCount);
    for (const TBlock& block : FBlocks)
      for (const TEntry* e = block.Begin(); e != block.End(); ++e) objects.push_back(e->Object);
    FBlocks.clear();
    FLast.clear();
    FTree.clear();
    FDue.clear();
    FCount = 0;
    return objects;
  }

 private:
  static constexpr std::size_t BlockMax = 512;

  using TBlock = detail::TBlock<TEntry>;


  // The block holding position pos and the offset in it; a position between two blocks belongs
  // to the end of the first.
  std::pair<std::size_t, std::size_t> Locate(std::size_t pos) const noexcept {
    // Fenwick descent: the last block whose preceding total is below pos (or block 0).
    std::size_t b = 0, before = 0;
    for (std::size_t step = std::bit_floor(FTree.size()); step; step >>= 1)
      if (b + step <= FTree.size() && before + FTree[b + step - 1] < pos) {
        b += step;
        before += FTree[b - 1];
      }
    return {b, pos - before};
  }

  std::size_t Prefix(std::size_t b) const noexcept {  // entries in the blocks before b
    std::size_t sum = 0;
    for (; b; b &= b - 1) sum += FTree[b - 1];
    return sum;
  }

  void AddToTree(std::size_t b, std::ptrdiff_t delta) noexcept {
    for (++b; b <= FTree.size(); b += b & (~b + 1)) FTree[b - 1] = static_cast<std::size_t>(static_cast<std::ptrdiff_t>(FTree[b - 1]) + delta);
  }

  void RebuildTree() {
    FTree.assign(FBlocks.size(), 0);
    for (std::size_t i = 1; i <= FTree.size(); ++i) {
      FTree[i - 1] += FBlocks[i - 1].Size();
      if (const std::size_t parent = i + (i & (~i + 1)); parent <= FTree.size()) FTree[parent - 1] += FTree[i - 1];
    }
  }

  void Split(std::size_t b) {
    TBlock upper = FBlocks[b].SplitOff();
    FLast[b] = FBlocks[b].Back().Due;
    FLast.insert(FLast.begin() + static_cast<std::ptrdiff_t>(b) + 1, upper.Back().Due);
    FBlocks.insert(FBlocks.begin() + static_cast<std::ptrdiff_t>(b) + 1, std::move(upper));
    RebuildTree();
  }

  TObject* EraseFrom(std::size_t b, std::size_t offset) {
    TBlock& block = FBlocks[b];
    TObject* obj = block.Begin()[offset].Object;
    FDue.erase(obj);
    --FCount;
    block.EraseAt(offset);  // the worker takes from the front: no shift
    if (block.Size() == 0) {
      FBlocks.erase(FBlocks.begin() + static_cast<std::ptrdiff_t>(b));
      FLast.erase(FLast.begin() + static_cast<std::ptrdiff_t>(b));
      RebuildTree();
    } else {
      FLast[b] = block.Back().Due;
      AddToTree(b, -1);
    }
    return obj;
  }

  std::vector<TBlock> FBlocks;
  std::vector<UInt64> FLast;         // each block's last due time
  std::vector<std::size_t> FTree;    // Fenwick tree of block sizes
  std::unordered_map<TObject*, UInt64> FDue;
  std::size_t FCount = 0;
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
  if (count == 0 || dueTime >= _pSchedule->LastDue()) return count;
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
    const UInt64 due = Now() + dwTickCount;
    if (!_pSchedule->Claim(pObject, due)) {  // scheduled already: one lookup in the common case
      CancelDisposal(pObject);
      _pSchedule->Claim(pObject, due);
    }
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
  if (_pSchedule->Remove(pObject)) _dctObjectDisposal->Remove(pObject);
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
  TObject* obj = _pSchedule->RemoveAt(i);
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
      while (!_pSchedule->Empty() && _pSchedule->FirstDue() <= now) _DisposeByIndex(0);
      wait = maxIdle;
      if (!_pSchedule->Empty())
        wait = static_cast<Cardinal>(std::min<UInt64>(_pSchedule->FirstDue() - now, maxIdle));
      wait = std::max(wait, MinimumWait);
    }
    const TWaitResult result = _pEvent->WaitFor(wait);
    _pEvent->ResetEvent();
    if (result == wrAbandoned || result == wrError) Terminate();
  }
  DisposeAll();
}

}  // namespace quma
