// Bound callbacks: a (code, object) pair called as a method of the object, for any signature.
//
//   TNotifyEvent ev = quma::Bind<&TFoo::Changed>(foo);   // no allocation
//   ev(sender);
//
// The code half is a per-member-function trampoline, so two bindings of the same member function
// have the same code pointer. Two callbacks are equal only when both halves are; they are ordered
// by object pointer, then code pointer, both as unsigned numbers. For objects of the object model
// the object half is always the TObject address, whichever base declared the member function.
#pragma once

#include <quma/Export.h>

#include <compare>
#include <cstdint>
#include <functional>
#include <type_traits>
#include <utility>

#include <quma/System.h>

QUMA_PUBLIC_BEGIN
namespace quma {

class TObject;

// The untyped pair, as a container of callbacks of several shapes stores it.
struct TMethodData {
  void* Code = nullptr;
  void* Data = nullptr;
  friend bool operator==(const TMethodData&, const TMethodData&) noexcept = default;
};

template <class Sig>
class TMethod;

template <class R, class... A>
class TMethod<R(A...)> {
 public:
  using Signature = R(A...);
  using TCode = R (*)(void* data, A... args);

  constexpr TMethod() noexcept = default;
  constexpr TMethod(std::nullptr_t) noexcept {}
  constexpr TMethod(TCode code, void* data) noexcept : FCode(code), FData(data) {}

  R operator()(A... args) const { return FCode(FData, std::forward<A>(args)...); }

  TCode Code() const noexcept { return FCode; }
  void* Data() const noexcept { return FData; }
  // The object half seen as a number (ordering and hashing use it).
  NativeUInt DataAddress() const noexcept { return reinterpret_cast<NativeUInt>(FData); }
  NativeUInt CodeAddress() const noexcept { return reinterpret_cast<NativeUInt>(FCode); }

  // The library's own "is set" test looks at the code half (IsAssigned looks at the object).
  explicit operator bool() const noexcept { return FCode != nullptr; }

  friend bool operator==(const TMethod& a, const TMethod& b) noexcept {
    return a.FCode == b.FCode && a.FData == b.FData;
  }
  friend std::strong_ordering operator<=>(const TMethod& a, const TMethod& b) noexcept {
    if (auto c = a.DataAddress() <=> b.DataAddress(); c != 0) return c;
    return a.CodeAddress() <=> b.CodeAddress();
  }

  TMethodData Raw() const noexcept { return {reinterpret_cast<void*>(FCode), FData}; }
  static TMethod FromRaw(TMethodData raw) noexcept { return TMethod(reinterpret_cast<TCode>(raw.Code), raw.Data); }

 private:
  TCode FCode = nullptr;
  void* FData = nullptr;
};

// Reinterprets a callback as another shape (how a typed subscriber travels through an untyped
// list). Only a callback cast back to its own shape may be called.
template <class To, class From>
TMethod<To> MethodCast(const TMethod<From>& m) noexcept {
  return TMethod<To>::FromRaw(m.Raw());
}

namespace detail {
template <class C>
void* MethodDataOf(C* obj) noexcept {
  if constexpr (std::is_base_of_v<TObject, C>)
    return static_cast<void*>(const_cast<TObject*>(static_cast<const TObject*>(obj)));
  else
    return const_cast<void*>(static_cast<const void*>(obj));
}
template <class C>
C* MethodObjectOf(void* data) noexcept {
  if constexpr (std::is_base_of_v<TObject, C>)
    return static_cast<C*>(static_cast<TObject*>(data));
  else
    return static_cast<C*>(data);
}

template <auto MemFn>
struct MemberTraits;
#define QUMA_MEMBER_TRAITS(CV, NOEXCEPT)                                                    \
  template <class C, class R, class... A, R (C::*MemFn)(A...) CV NOEXCEPT>                  \
  struct MemberTraits<MemFn> {                                                              \
    using Class = CV C;                                                                     \
    using Method = TMethod<R(A...)>;                                                        \
    static R Call(void* data, A... args) {                                                  \
      return (MethodObjectOf<CV C>(data)->*MemFn)(std::forward<A>(args)...);                \
    }                                                                                       \
  };
QUMA_MEMBER_TRAITS(, )
QUMA_MEMBER_TRAITS(const, )
QUMA_MEMBER_TRAITS(, noexcept)
QUMA_MEMBER_TRAITS(const, noexcept)
#undef QUMA_MEMBER_TRAITS
}  // namespace detail

// Binds a member function to an object. The object may be of a class derived from the one that
// declares the member function; a null object gives a callback whose object half is null.
template <auto MemFn, class Obj>
auto Bind(Obj* obj) noexcept {
  using Traits = detail::MemberTraits<MemFn>;
  using C = typename Traits::Class;
  static_assert(std::is_convertible_v<Obj*, C*>, "the object does not have this member function");
  return typename Traits::Method(&Traits::Call, detail::MethodDataOf<C>(static_cast<C*>(obj)));
}

using TNotifyEvent = TMethod<void(TObject* Sender)>;

}  // namespace quma

template <class Sig>
struct std::hash<quma::TMethod<Sig>> {
  std::size_t operator()(const quma::TMethod<Sig>& m) const noexcept {
    return std::hash<quma::NativeUInt>()(m.DataAddress() * 31u ^ m.CodeAddress());
  }
};
QUMA_PUBLIC_END
