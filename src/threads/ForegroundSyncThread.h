// Runs bound callbacks on the main thread after a delay, from any thread.
//
//   QUMAQueueForegroundCallback(Bind<&TFoo::Refresh>(foo), payload, 250);
//
// One lazily created worker keeps the queue ordered by due tick (entries with equal ticks run
// newest first), sleeps until the head is due and hands every due callback to the main thread in
// one Synchronize call; the main thread runs them when it services CheckSynchronize (see
// Threads.h: SyncEventFd lets any event loop notice). The worker ends itself after MaxIdle ms
// without work and is created again on the next request. Callbacks never run on the worker and
// never under its lock.
#pragma once

#include <quma/Export.h>

#include <atomic>
#include <chrono>
#include <memory>

#include <quma/Method.h>
#include <quma/Object.h>
#include <quma/Threads.h>

QUMA_PUBLIC_BEGIN
namespace quma {

namespace detail {
class TForegroundQueue;
}

// One queued callback: calls _fnCallback(_pPayload) once it is due.
class TQUMADeferredCallback : public TObject {
  QUMA_CLASS(TQUMADeferredCallback, TObject)
 public:
  // Due at GetTickCount + dwWaitFor, wrapping modulo 2^32.
  TQUMADeferredCallback(TNotifyEvent fnCallback, TObject* pPayload, Cardinal dwWaitFor) noexcept;
  // Calls the callback with the payload when its code is set.
  virtual void CallIt();

  TNotifyEvent Callback() const noexcept { return _fnCallback; }
  TObject* Payload() const noexcept { return _pPayload; }
  Cardinal TickTime() const noexcept { return _dwTickTime; }

 protected:
  TNotifyEvent _fnCallback;
  TObject* _pPayload;
  Cardinal _dwTickTime;
};

class TQUMAForegroundSyncThread : public TThread {
  QUMA_CLASS(TQUMAForegroundSyncThread, TThread)
 public:
  // Created suspended and FreeOnTerminate; ForegroundSync creates and starts the singleton.
  TQUMAForegroundSyncThread();
  ~TQUMAForegroundSyncThread() override;
  // Frees what is left in the queue, uncalled, and forgets the singleton if it is this worker.
  void BeforeDestruction() override;

  // Queues fnCallback(pPayload) to run on the main thread dwMilliseconds from now. An entry goes
  // before the queued entries with the same due tick.
  virtual void QueueSyncCallback(TNotifyEvent fnCallback, TObject* pPayload, Cardinal dwMilliseconds);
  // Removes (uncalled) every queued entry with this payload and exactly this callback (code and
  // object); dwMilliseconds takes no part.
  virtual void CancelSyncCallback(TNotifyEvent fnCallback, TObject* pPayload, Cardinal dwMilliseconds = 0);
  // Wakes the worker so that it looks at the queue again.
  virtual void Poke();
  // Runs on the main thread (through Synchronize): takes every due entry and calls them in order.
  virtual void RunCallbacks();

  template <class Rep, class Period>
  void QueueSyncCallback(TNotifyEvent fnCallback, TObject* pPayload, std::chrono::duration<Rep, Period> delay) {
    QueueSyncCallback(fnCallback, pPayload, DurationToMilliseconds(delay));
  }

  Cardinal MaxIdle() const noexcept;
  // A different value is stored and wakes the worker; the same value changes nothing.
  void SetMaxIdle(Cardinal dwMaxIdle);
  template <class Rep, class Period>
  void SetMaxIdle(std::chrono::duration<Rep, Period> maxIdle) {
    SetMaxIdle(DurationToMilliseconds(maxIdle));
  }
  // Number of queued entries, keep-alive entries included.
  std::size_t QueuedCount() const;

 protected:
  void Execute() override;
  void TerminatedSet() override;

 private:
  friend TQUMAForegroundSyncThread* ForegroundSync();
  friend void QUMAQueueForegroundCallback(TNotifyEvent, TObject*, Cardinal);
  friend void FinalizeForegroundSync();
  // Appends a keep-alive entry (due in 1000 ms) when the worker could otherwise time out sooner.
  void KeepAlive();

  std::unique_ptr<detail::TForegroundQueue> _pDeferred;
  std::unique_ptr<TEvent> _pEvent;
  std::atomic<Cardinal> _dwLastSleep;
  std::atomic<Cardinal> _dwMaxIdle;
};

// The worker, created and started on first use (and again after it retired). When it is about to
// go idle, a keep-alive entry due in 1000 ms makes sure it outlives the caller's request.
TQUMAForegroundSyncThread* ForegroundSync();

// ForegroundSync()->QueueSyncCallback(...), with no window in which the worker can retire between
// the two.
void QUMAQueueForegroundCallback(TNotifyEvent fnCallback, TObject* pPayload, Cardinal dwMilliseconds);
template <class Rep, class Period>
void QUMAQueueForegroundCallback(TNotifyEvent fnCallback, TObject* pPayload, std::chrono::duration<Rep, Period> delay) {
  QUMAQueueForegroundCallback(fnCallback, pPayload, DurationToMilliseconds(delay));
}

// What unloading the library does (tests call it to start afresh): drops every pending callback,
// uncalled, and asks the worker to end through a callback run on the main thread.
void FinalizeForegroundSync();

}  // namespace quma
QUMA_PUBLIC_END
