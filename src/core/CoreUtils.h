// Counter arithmetic that returns a value, the platform byte order, the keyboard state, the
// bound-callback test and a character count.
#pragma once

#include <quma/Export.h>

#include <exception>
#include <memory>
#include <type_traits>

#include <quma/Classes.h>
#include <quma/Method.h>
#include <quma/System.h>

QUMA_PUBLIC_BEGIN
namespace quma {

namespace detail {
template <class T>
concept CounterInt = std::is_integral_v<T> && !std::is_same_v<T, bool> &&
                     (sizeof(T) == 1 || sizeof(T) == 2 || sizeof(T) == 4 || sizeof(T) == 8);
// Wrap-around addition in the width of T: the delta is truncated to narrower widths and
// sign-extended to wider ones.
template <CounterInt T>
constexpr T WrapAdd(T value, Integer delta) noexcept {
  using U = std::make_unsigned_t<T>;
  return static_cast<T>(static_cast<U>(static_cast<U>(value) + static_cast<U>(delta)));
}
template <CounterInt T>
constexpr T WrapSub(T value, Integer delta) noexcept {
  using U = std::make_unsigned_t<T>;
  return static_cast<T>(static_cast<U>(static_cast<U>(value) - static_cast<U>(delta)));
}
}  // namespace detail

// Plain (non-atomic) read-modify-write counters for every integer width, wrapping on overflow.
template <detail::CounterInt T>
constexpr T PreInc(T& n, Integer nDelta = 1) noexcept {
  n = detail::WrapAdd(n, nDelta);
  return n;
}
template <detail::CounterInt T>
constexpr T PreDec(T& n, Integer nDelta = 1) noexcept {
  n = detail::WrapSub(n, nDelta);
  return n;
}
template <detail::CounterInt T>
constexpr T PostInc(T& n, Integer nDelta = 1) noexcept {
  const T old = n;
  n = detail::WrapAdd(n, nDelta);
  return old;
}
template <detail::CounterInt T>
constexpr T PostDec(T& n, Integer nDelta = 1) noexcept {
  const T old = n;
  n = detail::WrapSub(n, nDelta);
  return old;
}

// Number of code units of s equal to c.
Integer CountOfCharInString(WideChar c, UnicodeStringView s) noexcept;

// Byte order, tested once per process and cached.
bool CurrentPlatformIsBigEndian() noexcept;
bool CurrentPlatformIsLittleEndian() noexcept;

// True when the object half of the callback is set; the code half is not looked at.
template <class Sig>
constexpr bool IsAssigned(const TMethod<Sig>* fnCallback) noexcept {
  return fnCallback && fnCallback->Data() != nullptr;
}
template <class Sig>
constexpr bool IsAssigned(const TMethod<Sig>& fnCallback) noexcept {
  return fnCallback.Data() != nullptr;
}
constexpr bool IsAssigned(const TMethodData* fnCallback) noexcept { return fnCallback && fnCallback->Data; }

// The owner of any persistent, as its GetOwner reports it (null-safe).
inline TPersistent* OwnerOf(const TPersistent* p) { return p ? p->Owner() : nullptr; }

// ---- key state ----

// Virtual-key codes use the Windows numbering (VK_SHIFT = 16, VK_RSHIFT = 161, 'A' = 65, ...).
inline constexpr Integer VK_SHIFT = 16, VK_CONTROL = 17, VK_MENU = 18;
inline constexpr Integer VK_LSHIFT = 160, VK_RSHIFT = 161, VK_LCONTROL = 162, VK_RCONTROL = 163, VK_LMENU = 164,
                         VK_RMENU = 165;

// A source of asynchronous key state: the high bit of the result (0x8000) is set while the key is
// down. The default reads the Linux input devices (/dev/input/event*) for the code LinuxKeyCode gives.
class IKeyStateProvider {
 public:
  virtual ~IKeyStateProvider() = default;
  virtual SmallInt GetAsyncKeyState(Integer nVirtualKey) = 0;
};

// The Linux input event code (<linux/input-event-codes.h>) the default provider reads for a
// virtual key, 0 when there is none; the generic modifiers give the left-hand key. Providers that
// read another source of the same codes (libinput, a remote device) use it too.
int LinuxKeyCode(Integer nVirtualKey) noexcept;

// Replaces the process-wide provider (nullptr restores the default); returns the previous one.
std::shared_ptr<IKeyStateProvider> SetKeyStateProvider(std::shared_ptr<IKeyStateProvider> provider);
std::shared_ptr<IKeyStateProvider> DefaultKeyStateProvider();

// True when the key is down; for Shift, Control and Alt also when the right-hand key is.
bool IsKeyDown(Integer nVirtualKey);

// ---- scope guards ----

// Holds a BeginUpdate/EndUpdate bracket open for a scope. If the scope is left by an exception,
// an exception from EndUpdate is swallowed (the first one wins); otherwise it propagates.
template <class T>
class [[nodiscard]] TUpdateScope {
 public:
  explicit TUpdateScope(T& target) : FTarget(&target), FUncaught(std::uncaught_exceptions()) { target.BeginUpdate(); }
  TUpdateScope(TUpdateScope&& o) noexcept : FTarget(std::exchange(o.FTarget, nullptr)), FUncaught(o.FUncaught) {}
  TUpdateScope(const TUpdateScope&) = delete;
  TUpdateScope& operator=(const TUpdateScope&) = delete;
  TUpdateScope& operator=(TUpdateScope&&) = delete;
  ~TUpdateScope() noexcept(false) {
    T* t = std::exchange(FTarget, nullptr);
    if (!t) return;
    if (std::uncaught_exceptions() > FUncaught) {
      try {
        t->EndUpdate();
      } catch (...) {
      }
    } else {
      t->EndUpdate();
    }
  }
  // Closes the bracket early.
  void Close() {
    if (T* t = std::exchange(FTarget, nullptr)) t->EndUpdate();
  }

 private:
  T* FTarget;
  int FUncaught;
};

template <class T>
TUpdateScope<T> UpdateScope(T& target) {
  return TUpdateScope<T>(target);
}

}  // namespace quma
QUMA_PUBLIC_END
