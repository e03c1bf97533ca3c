// Symbol visibility. The library is compiled with -fvisibility=hidden, so only what its public
// headers declare is exported: every public header wraps its declarations in
// QUMA_PUBLIC_BEGIN ... QUMA_PUBLIC_END. Helpers defined only in .cpp files stay internal.
//
// Inline functions and templates in the headers keep default visibility (there is no
// -fvisibility-inlines-hidden): a bound callback compares the address of a per-member trampoline,
// and that address must be the same in the library and in the program that uses it.
#pragma once

#if defined(__GNUC__)
#define QUMA_PUBLIC_BEGIN _Pragma("GCC visibility push(default)")
#define QUMA_PUBLIC_END _Pragma("GCC visibility pop")
#define QUMA_API __attribute__((visibility("default")))
#define QUMA_INTERNAL __attribute__((visibility("hidden")))
#else
#define QUMA_PUBLIC_BEGIN
#define QUMA_PUBLIC_END
#define QUMA_API
#define QUMA_INTERNAL
#endif
