// Threads and synchronisation primitives of the runtime base layer.
//
// The threading contract:
// - The main thread is the thread that loaded the library, unless SetMainThread names another.
//   It alone calls CheckSynchronize (elsewhere it raises EThread and runs nothing). It services
//   Synchronize/Queue requests by calling CheckSynchronize from its loop; a loop that sleeps in
//   poll/epoll/select watches SyncEventFd(), which is readable while requests wait. A main thread
//   that never does so never runs them, and a worker that calls Synchronize waits.
// - CheckSynchronize runs the requests one at a time, in arrival order, and takes the next only
//   after the previous one has returned. A synchronised method may therefore call CheckSynchronize
//   again (directly, or through WaitFor or Free of another thread): the nested call runs the
//   requests that are still waiting.
// - Any thread may create, Start, Terminate, WaitFor and Free a TThread, and any number of threads
//   may WaitFor the same thread. WaitFor and Free on the main thread keep servicing requests while
//   they wait, so a worker blocked in Synchronize cannot deadlock them. A thread must not wait for
//   itself, and a synchronised method must not wait for the thread whose Synchronize runs it (that
//   thread is blocked until the method returns).
// - Freeing a thread terminates it and waits for Execute (and OnTerminate) to return before any
//   destructor runs, then drops the methods it queued that have not run yet; a queued method that
//   is running at that moment on the main thread is waited for.
// - A thread not created suspended starts once the most-derived AfterConstruction has returned.
// - FreeOnTerminate threads free themselves on their own thread after OnTerminate; nobody else may
//   WaitFor or Free them.
// - Exceptions: one escaping Execute is kept in FatalException; one raised by a synchronised
//   method is raised again in the thread that called Synchronize; one raised by a queued method is
//   dropped.
#pragma once

#include <quma/Export.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <string_view>
#include <thread>

#include <quma/Method.h>
#include <quma/Monitor.h>
#include <quma/Object.h>
#include <quma/SysUtils.h>

QUMA_PUBLIC_BEGIN
namespace quma {

using TThreadMethod = TMethod<void()>;

inline constexpr Cardinal INFINITE = 0xFFFFFFFFu;

enum class TWaitResult { wrSignaled, wrTimeout, wrAbandoned, wrError, wrIOCompletion };
using enum TWaitResult;

QUMA_DECLARE_EXCEPTION(EThread, Exception);

// An event object: manual-reset events stay signalled until ResetEvent, auto-reset events release
// one waiter and reset themselves.
class TEvent : public TObject {
  QUMA_CLASS(TEvent, TObject)
 public:
  explicit TEvent(bool ManualReset = true, bool InitialState = false) noexcept
      : FManualReset(ManualReset), FSignaled(InitialState) {}
  void SetEvent();
  void ResetEvent();
  TWaitResult WaitFor(Cardinal Timeout = INFINITE);
  bool IsSet() const;

 private:
  const bool FManualReset;
  bool FSignaled;
  mutable std::mutex FLock;
  std::condition_variable FCond;
};

// A re-entrant critical section with the host's names.
class TCriticalSection : public TObject {
  QUMA_CLASS(TCriticalSection, TObject)
 public:
  void Acquire() noexcept { FLock.Enter(); }
  void Release() noexcept { FLock.Leave(); }
  void Enter() noexcept { FLock.Enter(); }
  void Leave() noexcept { FLock.Leave(); }
  bool TryEnter() noexcept { return FLock.TryEnter(); }
  void lock() noexcept { FLock.Enter(); }
  void unlock() noexcept { FLock.Leave(); }

 private:
  TRecursiveLock FLock;
};

class TThread : public TObject {
  QUMA_CLASS(TThread, TObject)
 public:
  // A thread not created suspended starts once construction has finished (AfterConstruction).
  explicit TThread(bool CreateSuspended = false);
  ~TThread() override;
  // Freeing a running thread from another thread terminates it and waits for it first, then drops
  // the methods it queued that have not run.
  void BeforeDestruction() override;

  void Start();
  // Sets Terminated, then calls TerminatedSet so that a sleeping worker can be woken.
  void Terminate();
  bool Terminated() const noexcept { return FTerminated.load(std::memory_order_acquire); }
  // Waits until Execute has returned; returns ReturnValue. Not for FreeOnTerminate threads. Any
  // number of threads may wait at once.
  Integer WaitFor();
  bool Started() const noexcept { return FStarted.load(std::memory_order_acquire); }
  bool Finished() const noexcept { return FFinished.load(std::memory_order_acquire); }
  bool FreeOnTerminate() const noexcept { return FFreeOnTerminate; }
  void SetFreeOnTerminate(bool value) noexcept { FFreeOnTerminate = value; }
  std::thread::id ThreadID() const noexcept { return FThreadID.load(std::memory_order_acquire); }
  Integer ReturnValue() const noexcept { return FReturnValue; }
  // The exception that escaped Execute, if any.
  std::exception_ptr FatalException() const noexcept { return FFatalException; }

  // Called on the main thread (through Synchronize) after Execute returns.
  TNotifyEvent OnTerminate;

  // Runs method on the main thread and waits for it; from the main thread itself it runs at once.
  // An exception raised by the method is raised again in the caller.
  static void Synchronize(TThread* AThread, TThreadMethod AMethod);
  // Hands method to the main thread without waiting. A method queued for a thread (AThread not
  // null) is dropped if that thread is freed before the method runs.
  static void Queue(TThread* AThread, TThreadMethod AMethod);
  // Drops every queued method of AThread that has not run yet.
  static void RemoveQueuedEvents(TThread* AThread);
  // Milliseconds since an arbitrary start (system boot), wrapping modulo 2^32.
  static Cardinal GetTickCount() noexcept;
  static UInt64 GetTickCount64() noexcept;
  // Gives the calling thread a name for debuggers (truncated to the platform's 15 characters).
  static void NameThreadForDebugging(std::string_view name);
  // The TThread object running the calling thread, or nullptr on other threads.
  static TThread* CurrentThread() noexcept;

 protected:
  // Starts the worker unless the thread was created suspended.
  void Constructed() override;
  virtual void Execute() = 0;
  virtual void TerminatedSet() {}
  virtual void DoTerminate();
  void Synchronize(TThreadMethod AMethod) { Synchronize(this, AMethod); }
  void Queue(TThreadMethod AMethod) { Queue(this, AMethod); }
  void SetReturnValue(Integer value) noexcept { FReturnValue = value; }

 private:
  static void ThreadProc(TThread* self);
  void WaitUntilFinished();

  std::thread FHandle;
  std::atomic<std::thread::id> FThreadID{};
  std::atomic<bool> FTerminated{false};
  std::atomic<bool> FStarted{false};
  std::atomic<bool> FFinished{false};
  std::mutex FGate;  // held by Start until FHandle is stored
  bool FCreateSuspended;
  bool FFreeOnTerminate = false;
  Integer FReturnValue = 0;
  std::exception_ptr FFatalException;
};

// ---- main-thread servicing ----

std::thread::id MainThreadID() noexcept;
// Declares the calling thread the main thread (the one that services Synchronize).
void SetMainThread() noexcept;
bool IsMainThread() noexcept;
// Runs the Synchronize/Queue requests waiting when it is called, one at a time; waits up to Timeout
// ms for one to arrive when none is waiting. Returns true when something ran. Raises EThread on any
// thread but the main thread.
bool CheckSynchronize(Cardinal Timeout = 0);
// An eventfd that polls readable while Synchronize/Queue requests wait: a main loop built on
// epoll, GLib, Qt or asio watches it and calls CheckSynchronize when it fires. Only
// CheckSynchronize clears it; never read from it yourself.
int SyncEventFd() noexcept;
// A hook called (from the requesting thread) whenever a request is queued, for programs whose main
// loop sleeps elsewhere and must be woken. Pass an empty callback to remove it.
void SetWakeMainThread(TNotifyEvent hook);

// Test and simulation hook: replaces the tick source of GetTickCount/GetTickCount64 (nullptr
// restores the monotonic clock).
using TTickSource = UInt64 (*)();
void SetTickSource(TTickSource source) noexcept;

// Milliseconds of a std::chrono duration for the millisecond interfaces: rounded up, negative as
// 0, saturated below INFINITE.
template <class Rep, class Period>
Cardinal DurationToMilliseconds(std::chrono::duration<Rep, Period> d) noexcept {
  if (d <= d.zero()) return 0;
  const long double ms = std::chrono::duration<long double, std::milli>(d).count();
  if (ms >= static_cast<long double>(INFINITE - 1)) return INFINITE - 1;
  const auto whole = static_cast<Cardinal>(ms);
  return whole < ms ? whole + 1 : whole;
}

}  // namespace quma
QUMA_PUBLIC_END
