#include <quma/Monitor.h>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace quma {

// The futex calls directly: libstdc++ 12's atomic wait/notify keeps its own count of waiters and
// can lose a wake-up between them, leaving a waiter asleep on a free lock.
static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t), "the futex word is the atomic itself");

void TRecursiveLock::FutexWait(std::uint32_t expected) noexcept {
  ::syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&FState), FUTEX_WAIT_PRIVATE, expected, nullptr, nullptr, 0);
}

void TRecursiveLock::FutexWakeOne() noexcept {
  ::syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&FState), FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

void TRecursiveLock::LockSlow(std::uint32_t seen) noexcept {
  // Brief spin first: monitor sections are usually short.
  for (int spin = 0; spin < 64 && seen != 0; ++spin) {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
    seen = FState.load(std::memory_order_relaxed);
    if (seen == 0 && FState.compare_exchange_weak(seen, 1, std::memory_order_acquire, std::memory_order_relaxed))
      return;
  }
  // Mark the lock contended and sleep until the holder leaves.
  if (seen != 2) seen = FState.exchange(2, std::memory_order_acquire);
  while (seen != 0) {
    FutexWait(2);
    seen = FState.exchange(2, std::memory_order_acquire);
  }
}

bool TRecursiveLock::TryEnter(std::chrono::milliseconds timeout) noexcept {
  if (TryEnter()) return true;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  auto pause = std::chrono::microseconds(1);
  while (std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(pause);
    if (TryEnter()) return true;
    pause = std::min(pause * 2, std::chrono::microseconds(1000));
  }
  return false;
}

void TMonitor::Exit(const TObject* obj) {
  TRecursiveLock& lock = obj->MonitorLock();
  if (!lock.HeldByCurrentThread()) throw EMonitorLockException(u"Object lock not owned");
  lock.Leave();
}

}  // namespace quma
