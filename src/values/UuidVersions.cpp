// The RFC 9562 versions of TQUMA_Uuid: 4 (random), 5 (SHA-1 of a name) and 7 (Unix time, counter,
// random), and reading the time back out of a version-7 value.
//
// Version 7 needs ten random bytes per value. A getrandom(2) call per value would cost more than
// everything else together, so each thread draws 256 bytes at a time into a pool. A child process
// must not hand out its parent's pooled bytes: a fork bumps a generation number, and a pool from
// an older generation is refilled before use.
#include <quma/Uuid.h>

#include <errno.h>
#include <pthread.h>
#include <sys/random.h>
#include <time.h>

#include <atomic>
#include <cstring>
#include <mutex>

#include <quma/SHA1.h>
#include <quma/Strings.h>

namespace quma {

namespace {

std::atomic<unsigned> gForkGeneration{0};

class TRandomPool {
 public:
  // n <= sizeof FBytes random bytes at out; false (and zeros) when the kernel has none.
  bool Take(Byte* out, std::size_t n) noexcept {
    const unsigned generation = gForkGeneration.load(std::memory_order_relaxed);
    if ((FGeneration != generation || FLeft < n) && !Refill(generation)) {
      std::memset(out, 0, n);
      return false;
    }
    Byte* const from = FBytes + sizeof FBytes - FLeft;
    std::memcpy(out, from, n);
    std::memset(from, 0, n);  // a used byte does not stay around in memory
    FLeft -= n;
    return true;
  }

 private:
  bool Refill(unsigned generation) noexcept {
    for (std::size_t got = 0; got < sizeof FBytes;) {
      const ssize_t r = getrandom(FBytes + got, sizeof FBytes - got, 0);
      if (r < 0) {
        if (errno == EINTR) continue;
        FLeft = 0;
        return false;
      }
      got += static_cast<std::size_t>(r);
    }
    FLeft = sizeof FBytes;
    FGeneration = generation;
    return true;
  }

  Byte FBytes[256];
  std::size_t FLeft = 0;
  unsigned FGeneration = 0;
};

thread_local TRandomPool tRandomPool;

// The last millisecond and counter handed out, for the whole process. The lock is held across a
// fork, so that the child does not inherit it locked by a thread it does not have.
struct TV7Clock {
  std::mutex Lock;
  UInt64 LastMs = 0;
  UInt64 Counter = 0;  // 42 bits
};

TV7Clock& V7Clock() noexcept {
  static TV7Clock* const clock = new TV7Clock;  // never destroyed: usable during static destruction
  return *clock;
}

void BeforeFork() noexcept { V7Clock().Lock.lock(); }
void AfterForkParent() noexcept { V7Clock().Lock.unlock(); }
void AfterForkChild() noexcept {
  gForkGeneration.fetch_add(1, std::memory_order_relaxed);
  V7Clock().Lock.unlock();
}

[[maybe_unused]] const int gAtFork = (V7Clock(), pthread_atfork(BeforeFork, AfterForkParent, AfterForkChild));

constexpr UInt64 kCounterLimit = UInt64{1} << 42;

UInt64 UnixMilliseconds() noexcept {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<UInt64>(ts.tv_sec) * 1000u + static_cast<UInt64>(ts.tv_nsec) / 1000000u;
}

}  // namespace

TQUMA_Uuid TQUMA_Uuid::CreateV4() noexcept {
  TQUMA_Uuid u;
  u.Randomise();
  return u;
}

TQUMA_Uuid TQUMA_Uuid::CreateV7() noexcept {
  Byte random[10];  // a counter start (41 bits) and the 32-bit tail
  tRandomPool.Take(random, sizeof random);
  UInt64 start = 0;
  for (int i = 0; i < 6; ++i) start = (start << 8) | random[i];
  start &= (UInt64{1} << 41) - 1;  // room for at least 2^41 values in one millisecond

  const UInt64 now = UnixMilliseconds();
  UInt64 ms, counter;
  {
    TV7Clock& clock = V7Clock();
    std::lock_guard<std::mutex> guard(clock.Lock);
    if (now > clock.LastMs) {
      clock.LastMs = now;
      clock.Counter = start;
    } else if (++clock.Counter == kCounterLimit) {  // the clock went back, or 2^41 values in 1 ms
      ++clock.LastMs;
      clock.Counter = start;
    }
    ms = clock.LastMs;
    counter = clock.Counter;
  }

  TQUMA_Uuid u;
  Byte* b = u._baUuid;
  for (int i = 0; i < 6; ++i) b[i] = static_cast<Byte>(ms >> (40 - 8 * i));
  b[6] = static_cast<Byte>(0x70 | ((counter >> 38) & 0x0F));
  b[7] = static_cast<Byte>(counter >> 30);
  b[8] = static_cast<Byte>(0x80 | ((counter >> 24) & 0x3F));
  b[9] = static_cast<Byte>(counter >> 16);
  b[10] = static_cast<Byte>(counter >> 8);
  b[11] = static_cast<Byte>(counter);
  std::memcpy(b + 12, random + 6, 4);
  return u;
}

TQUMA_Uuid TQUMA_Uuid::CreateV5(const TQUMA_Uuid& Namespace, std::span<const Byte> Name) noexcept {
  TQUMASHA1 sha;
  sha.Update(Namespace._baUuid, 16);
  sha.Update(Name.data(), Name.size());
  const TQUMASHA1::TDigest digest = sha.Final();
  TQUMA_Uuid u;
  std::memcpy(u._baUuid, digest.data(), 16);
  u._baUuid[6] = static_cast<Byte>((u._baUuid[6] & 0x0F) | 0x50);
  u._baUuid[8] = static_cast<Byte>((u._baUuid[8] & 0x3F) | 0x80);
  return u;
}

TQUMA_Uuid TQUMA_Uuid::CreateV5(const TQUMA_Uuid& Namespace, std::string_view Name) noexcept {
  return CreateV5(Namespace, std::span<const Byte>(reinterpret_cast<const Byte*>(Name.data()), Name.size()));
}

TQUMA_Uuid TQUMA_Uuid::CreateV5(const TQUMA_Uuid& Namespace, UnicodeStringView Name) {
  return CreateV5(Namespace, std::string_view(Utf16ToUtf8(Name)));
}

std::optional<Int64> TQUMA_Uuid::V7UnixMilliseconds() const noexcept {
  if (_GetVersion() != 7 || (_baUuid[8] & 0xC0) != 0x80) return std::nullopt;
  UInt64 ms = 0;
  for (int i = 0; i < 6; ++i) ms = (ms << 8) | _baUuid[i];
  return static_cast<Int64>(ms);
}

}  // namespace quma
