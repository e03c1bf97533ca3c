// Re-entrant locking. TRecursiveLock is a small futex-backed recursive mutex; every TObject owns
// one lazily (TMonitor), and TAtomic gives the host's locked increments and decrements.
#pragma once

#include <quma/Export.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

#include <quma/Object.h>
#include <quma/SysUtils.h>
#include <quma/System.h>

QUMA_PUBLIC_BEGIN
namespace quma {

// Recursive mutex: the owning thread may enter again; each Enter needs one Leave. Uncontended
// entry is one compare-and-swap; re-entry touches no shared cache line.
class TRecursiveLock {
 public:
  TRecursiveLock() noexcept = default;
  TRecursiveLock(const TRecursiveLock&) = delete;
  TRecursiveLock& operator=(const TRecursiveLock&) = delete;

  void Enter() noexcept {
    const std::thread::id me = std::this_thread::get_id();
    if (FOwner.load(std::memory_order_relaxed) == me) {
      ++FDepth;
      return;
    }
    std::uint32_t expected = 0;
    if (!FState.compare_exchange_strong(expected, 1, std::memory_order_acquire, std::memory_order_relaxed))
      LockSlow(expected);
    FOwner.store(me, std::memory_order_relaxed);
    FDepth = 1;
  }

  bool TryEnter() noexcept {
    const std::thread::id me = std::this_thread::get_id();
    if (FOwner.load(std::memory_order_relaxed) == me) {
      ++FDepth;
      return true;
    }
    std::uint32_t expected = 0;
    if (!FState.compare_exchange_strong(expected, 1, std::memory_order_acquire, std::memory_order_relaxed))
      return false;
    FOwner.store(me, std::memory_order_relaxed);
    FDepth = 1;
    return true;
  }

  // Waits at most `timeout` for the lock.
  bool TryEnter(std::chrono::milliseconds timeout) noexcept;

  // Must be called by the owning thread.
  void Leave() noexcept {
    if (--FDepth != 0) return;
    FOwner.store(std::thread::id(), std::memory_order_relaxed);
    if (FState.exchange(0, std::memory_order_release) == 2) FutexWakeOne();
  }

  bool HeldByCurrentThread() const noexcept {
    return FOwner.load(std::memory_order_relaxed) == std::this_thread::get_id();
  }
  // Nesting depth of the calling thread (0 when it does not hold the lock).
  std::uint32_t Depth() const noexcept { return HeldByCurrentThread() ? FDepth : 0; }

  // Standard Lockable names, so std::scoped_lock and std::unique_lock work.
  void lock() noexcept { Enter(); }
  bool try_lock() noexcept { return TryEnter(); }
  void unlock() noexcept { Leave(); }

 private:
  void LockSlow(std::uint32_t seen) noexcept;
  void FutexWait(std::uint32_t expected) noexcept;
  void FutexWakeOne() noexcept;

  std::atomic<std::uint32_t> FState{0};  // 0 free, 1 held, 2 held with waiters
  std::atomic<std::thread::id> FOwner{};
  std::uint32_t FDepth = 0;  // only touched by the owner
};

// The host's lock error: a monitor left by a thread that does not hold it.
QUMA_DECLARE_EXCEPTION(EMonitorLockException, Exception);

// The host monitor: a re-entrant lock owned by any object. Exit by a thread that does not hold
// the lock raises EMonitorLockException ("Object lock not owned") and leaves the lock as it was.
struct TMonitor {
  static void Enter(const TObject* obj) { obj->MonitorLock().Enter(); }
  static bool TryEnter(const TObject* obj) { return obj->MonitorLock().TryEnter(); }
  static bool TryEnter(const TObject* obj, std::chrono::milliseconds timeout) {
    return obj->MonitorLock().TryEnter(timeout);
  }
  static void Exit(const TObject* obj);
};

// Scope guard for a monitor or recursive lock.
class [[nodiscard]] TMonitorGuard {
 public:
  explicit TMonitorGuard(const TObject* obj) : FLock(obj->MonitorLock()) { FLock.Enter(); }
  explicit TMonitorGuard(TRecursiveLock& lock) noexcept : FLock(lock) { FLock.Enter(); }
  TMonitorGuard(const TMonitorGuard&) = delete;
  TMonitorGuard& operator=(const TMonitorGuard&) = delete;
  ~TMonitorGuard() { FLock.Leave(); }

 private:
  TRecursiveLock& FLock;
};

// Locked (atomic) arithmetic on plain variables, as the host's interlocked operations.
template <class T>
  requires std::is_integral_v<T>
T AtomicIncrement(T& target, T delta = 1) noexcept {
  return std::atomic_ref<T>(target).fetch_add(delta, std::memory_order_seq_cst) + delta;
}
template <class T>
  requires std::is_integral_v<T>
T AtomicDecrement(T& target, T delta = 1) noexcept {
  return std::atomic_ref<T>(target).fetch_sub(delta, std::memory_order_seq_cst) - delta;
}
template <class T>
T AtomicExchange(T& target, T value) noexcept {
  return std::atomic_ref<T>(target).exchange(value, std::memory_order_seq_cst);
}
template <class T>
bool AtomicCmpExchange(T& target, T newValue, T comparand) noexcept {
  return std::atomic_ref<T>(target).compare_exchange_strong(comparand, newValue, std::memory_order_seq_cst);
}

}  // namespace quma
QUMA_PUBLIC_END
