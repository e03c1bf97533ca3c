#include <quma/Random.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>

#include <sys/random.h>

namespace quma {

namespace {

std::atomic<Cardinal> GRandSeed{0};

// The classic linear congruential step of the runtime's generator.
constexpr Cardinal Step(Cardinal s) noexcept { return s * 0x08088405u + 1u; }

Cardinal NextSeed() noexcept {
  Cardinal s = GRandSeed.load(std::memory_order_relaxed);
  while (!GRandSeed.compare_exchange_weak(s, Step(s), std::memory_order_relaxed)) {
  }
  return Step(s);
}

bool SystemRandom(void* buffer, std::size_t size) noexcept {
  auto* p = static_cast<unsigned char*>(buffer);
  while (size) {
    const ssize_t got = getrandom(p, size, 0);
    if (got < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    p += got;
    size -= static_cast<std::size_t>(got);
  }
  return true;
}

}  // namespace

void Randomize() noexcept {
  Cardinal seed;
  if (!SystemRandom(&seed, sizeof seed))
    seed = static_cast<Cardinal>(std::chrono::steady_clock::now().time_since_epoch().count());
  GRandSeed.store(seed, std::memory_order_relaxed);
}

Cardinal RandSeed() noexcept { return GRandSeed.load(std::memory_order_relaxed); }
void SetRandSeed(Cardinal seed) noexcept { GRandSeed.store(seed, std::memory_order_relaxed); }

Integer Random(Integer range) noexcept {
  if (range <= 0) return 0;
  return static_cast<Integer>((UInt64{NextSeed()} * static_cast<UInt64>(range)) >> 32);
}

double Random() noexcept { return NextSeed() / 4294967296.0; }

HRESULT CreateGUID(TGUID& Guid) noexcept {
  unsigned char b[16];
  if (!SystemRandom(b, sizeof b)) return static_cast<HRESULT>(0x80004005u);
  TGUID g;
  std::memcpy(&g.D1, b, 4);
  std::memcpy(&g.D2, b + 4, 2);
  std::memcpy(&g.D3, b + 6, 2);
  std::memcpy(g.D4, b + 8, 8);
  g.D3 = static_cast<std::uint16_t>((g.D3 & 0x0FFF) | 0x4000);      // version 4
  g.D4[0] = static_cast<std::uint8_t>((g.D4[0] & 0x3F) | 0x80);    // RFC 4122 variant
  Guid = g;
  return S_OK;
}

}  // namespace quma
