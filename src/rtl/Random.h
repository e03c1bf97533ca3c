// The runtime's random numbers: the general pseudo-random generator (Randomize seeds it; Random
// draws from it) and CreateGUID, which makes random version-4 GUIDs from the operating system's
// cryptographic source.
#pragma once

#include <quma/Export.h>

#include <quma/System.h>

QUMA_PUBLIC_BEGIN
namespace quma {

// Seeds the general generator from the system's random source. Thread-safe.
void Randomize() noexcept;
// The current seed of the general generator, and setting it (for repeatable sequences).
Cardinal RandSeed() noexcept;
void SetRandSeed(Cardinal seed) noexcept;
// 0 <= result < range (0 when range <= 0), and 0 <= result < 1. Thread-safe; not for secrets.
Integer Random(Integer range) noexcept;
double Random() noexcept;

// A new random GUID with the version-4 and RFC 4122 variant bits set, from getrandom(2).
// Returns S_OK, or E_FAIL (0x80004005) when the system cannot supply random bytes; Guid is
// unchanged then.
HRESULT CreateGUID(TGUID& Guid) noexcept;

}  // namespace quma
QUMA_PUBLIC_END
