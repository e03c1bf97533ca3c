// A worker that frees objects some milliseconds after they were handed to it, or passes them to a
// disposal callback instead.
//
//   auto* disposer = New<TQUMADeferredDisposalThread>();   // runs until freed
//   disposer->DisposeAfterDelay(released, 5000);             // freed in 5 s, on the worker
//
// The schedule is kept in due order and guarded by the monitor of LockObject (the thread itself
// unless a client shares its own lock, set before anything is scheduled): CancelDisposal under
// that lock guarantees the object is not being freed concurrently. The worker only try-enters the
// lock, polling at most every 20 ms while it is busy. Everything still scheduled is freed at once,
// last due first and without callbacks, when the thread terminates or is freed.
//
// Due times come from TThread::GetTickCount64, which tests replace (SetTickSource).
#pragma once

#include <quma/Export.h>

#include <atomic>
#include <chrono>
#include <memory>

#include <quma/Generics.h>
#include <quma/Method.h>
#include <quma/Threads.h>

QUMA_PUBLIC_BEGIN
namespace quma {

namespace detail {
class TDisposalSchedule;
}

class TQUMADeferredDisposalThread : public TThread {
  QUMA_CLASS(TQUMADeferredDisposalThread, TThread)
 public:
  // The inherited constructor: usually not suspended.
  explicit TQUMADeferredDisposalThread(bool CreateSuspended = false);
  ~TQUMADeferredDisposalThread() override;
  // Creates the event, the schedule and the dictionary; MaxIdle 10000, not suspended, locked by
  // itself.
  void AfterConstruction() override;
  // Terminates and waits for the worker, then frees what is still scheduled (last due first).
  void BeforeDestruction() override;

  // Frees pObject dwTickCount ms from now (absent objects are ignored). An object already
  // scheduled is cancelled first, disposal callback included.
  virtual void DisposeAfterDelay(TObject* pObject, Cardinal dwTickCount);
  // As DisposeAfterDelay, but passes the object to fnDisposal (when set) instead of freeing it.
  // A second callback for a scheduled object raises EListError ("Duplicates not allowed").
  virtual void DisposeAfterDelayWithCallback(TObject* pObject, Cardinal dwTickCount, TNotifyEvent fnDisposal);
  // Removes the object and its callback from the schedule without freeing it.
  virtual void CancelDisposal(TObject* pObject);
  // Brings every due time later than now + dwTickcount ms forward to that moment.
  virtual void SetMaxDelay(Cardinal dwTickcount);
  virtual void Poke();

  template <class Rep, class Period>
  void DisposeAfterDelay(TObject* pObject, std::chrono::duration<Rep, Period> delay) {
    DisposeAfterDelay(pObject, DurationToMilliseconds(delay));
  }
  template <class Rep, class Period>
  void DisposeAfterDelayWithCallback(TObject* pObject, std::chrono::duration<Rep, Period> delay, TNotifyEvent fnDisposal) {
    DisposeAfterDelayWithCallback(pObject, DurationToMilliseconds(delay), fnDisposal);
  }
  template <class Rep, class Period>
  void SetMaxDelay(std::chrono::duration<Rep, Period> maxDelay) {
    SetMaxDelay(DurationToMilliseconds(maxDelay));
  }

  TEvent* Event() const { return _GetEvent(); }
  TObject* LockObject() const { return _GetLockObject(); }
  void SetLockObject(TObject* value) { _SetLockObject(value); }
  Cardinal MaxIdle() const { return _GetMaxIdle(); }
  void SetMaxIdle(Cardinal value) { _SetMaxIdle(value); }
  template <class Rep, class Period>
  void SetMaxIdle(std::chrono::duration<Rep, Period> value) {
    _SetMaxIdle(DurationToMilliseconds(value));
  }
  bool SuspendDisposals() const { return _GetSuspendDisposals(); }
  void SetSuspendDisposals(bool value) { _SetSuspendDisposals(value); }
  // Number of scheduled objects.
  std::size_t ScheduledCount() const;

 protected:
  void Execute() override;
  void TerminatedSet() override;

  // Removes the i-th scheduled object (and its due time) and frees it, or passes it to its
  // disposal callback. The caller holds the lock.
  virtual void _DisposeByIndex(std::size_t i);
  // Where a new due time goes: a binary search that appends an entry equal to the last, but puts
  // one equal to an entry it meets in the middle before that entry.
  virtual std::size_t _FindInsertPosition(UInt64 dueTime) const;
  virtual TEvent* _GetEvent() const;
  virtual TObject* _GetLockObject() const;
  virtual Cardinal _GetMaxIdle() const;
  virtual bool _GetSuspendDisposals() const;
  virtual void _SetLockObject(TObject* value);
  virtual void _SetMaxIdle(Cardinal value);
  virtual void _SetSuspendDisposals(bool value);

 private:
  // Frees every scheduled object, last due first, without calling any disposal callback.
  void DisposeAll();

  std::unique_ptr<TDictionary<TObject*, TNotifyEvent>> _dctObjectDisposal;
  std::atomic<TObject*> _pLockObject{nullptr};
  std::unique_ptr<TEvent> _pEvent;
  // The objects with their due times, in due order (one sequence rather than two parallel lists,
  // whose insertion shifts would make scheduling quadratic).
  std::unique_ptr<detail::TDisposalSchedule> _pSchedule;
  std::atomic<Cardinal> _dwMaxIdle{10000};
  std::atomic<bool> _blSuspended{false};
};

}  // namespace quma
QUMA_PUBLIC_END
