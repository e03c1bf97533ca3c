// Fundamental vocabulary of the runtime base layer: fixed-width aliases, UTF-16 strings, byte
// buffers, small enumeration sets, GUIDs and the reference-counted interface model.
#pragma once

#include <quma/Export.h>

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

// u"x" from a token, for macros that name classes.
#define QUMA_U16_LITERAL(s) u##s
#define QUMA_U16_STRINGIFY(x) QUMA_U16_LITERAL(#x)

QUMA_PUBLIC_BEGIN
namespace quma {

using ShortInt = std::int8_t;
using Byte = std::uint8_t;
using SmallInt = std::int16_t;
using Word = std::uint16_t;
using Integer = std::int32_t;
using Cardinal = std::uint32_t;
using Int64 = std::int64_t;
using UInt64 = std::uint64_t;
using NativeInt = std::intptr_t;
using NativeUInt = std::uintptr_t;  // pointer-sized: handles and pointers seen as numbers

using WideChar = char16_t;
using UnicodeString = std::u16string;         // strings are UTF-16
using UnicodeStringView = std::u16string_view;
using TBytes = std::vector<Byte>;             // dynamic array of bytes

using HRESULT = std::int32_t;
inline constexpr HRESULT S_OK = 0;
inline constexpr HRESULT E_NOINTERFACE = static_cast<HRESULT>(0x80004002u);

// A set of enumeration values, stored as bits (ordinal 0 is bit 0). Enumerations that are
// used in sets end with a `_Count`-free last value; the capacity is a template argument.
template <class E, std::size_t N = 32>
class TSet {
  static_assert(std::is_enum_v<E>);

 public:
  constexpr TSet() noexcept = default;
  constexpr TSet(std::initializer_list<E> values) noexcept {
    for (E v : values) Include(v);
  }
  constexpr bool Contains(E v) const noexcept { return (FBits >> Bit(v)) & 1u; }
  constexpr TSet& Include(E v) noexcept {
    FBits |= Mask(v);
    return *this;
  }
  constexpr TSet& Exclude(E v) noexcept {
    FBits &= ~Mask(v);
    return *this;
  }
  constexpr bool Empty() const noexcept { return FBits == 0; }
  constexpr std::uint64_t Bits() const noexcept { return FBits; }
  static constexpr TSet FromBits(std::uint64_t bits) noexcept {
    TSet s;
    s.FBits = bits;
    return s;
  }
  friend constexpr TSet operator+(TSet a, TSet b) noexcept { return FromBits(a.FBits | b.FBits); }
  friend constexpr TSet operator-(TSet a, TSet b) noexcept { return FromBits(a.FBits & ~b.FBits); }
  friend constexpr TSet operator*(TSet a, TSet b) noexcept { return FromBits(a.FBits & b.FBits); }
  friend constexpr bool operator==(TSet a, TSet b) noexcept = default;

 private:
  static_assert(N <= 64);
  static constexpr unsigned Bit(E v) noexcept { return static_cast<unsigned>(v); }
  static constexpr std::uint64_t Mask(E v) noexcept { return std::uint64_t{1} << Bit(v); }
  std::uint64_t FBits = 0;
};

// The platform GUID layout: D1 to D3 are native integers, D4 eight bytes.
struct TGUID {
  std::uint32_t D1 = 0;
  std::uint16_t D2 = 0;
  std::uint16_t D3 = 0;
  std::uint8_t D4[8] = {};

  friend constexpr bool operator==(const TGUID& a, const TGUID& b) noexcept {
    if (a.D1 != b.D1 || a.D2 != b.D2 || a.D3 != b.D3) return false;
    for (int i = 0; i < 8; ++i)
      if (a.D4[i] != b.D4[i]) return false;
    return true;
  }

  // Reads "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}" at compile time (interface identifiers).
  static consteval TGUID Parse(const char (&s)[39]) {
    TGUID g;
    auto hex = [&](int pos, int len) consteval {
      std::uint64_t v = 0;
      for (int i = 0; i < len; ++i) {
        char c = s[pos + i];
        int d = c >= '0' && c <= '9'   ? c - '0'
                : c >= 'a' && c <= 'f' ? c - 'a' + 10
                : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                       : throw "invalid GUID literal";
        v = v * 16 + static_cast<std::uint64_t>(d);
      }
      return v;
    };
    if (s[0] != '{' || s[9] != '-' || s[14] != '-' || s[19] != '-' || s[24] != '-' || s[37] != '}')
      throw "invalid GUID literal";
    g.D1 = static_cast<std::uint32_t>(hex(1, 8));
    g.D2 = static_cast<std::uint16_t>(hex(10, 4));
    g.D3 = static_cast<std::uint16_t>(hex(15, 4));
    g.D4[0] = static_cast<std::uint8_t>(hex(20, 2));
    g.D4[1] = static_cast<std::uint8_t>(hex(22, 2));
    for (int i = 0; i < 6; ++i) g.D4[2 + i] = static_cast<std::uint8_t>(hex(25 + 2 * i, 2));
    return g;
  }
};

// The base of every reference-counted interface. Interface types declare their identifier as
// `static constexpr TGUID IID`. Interfaces are never deleted through this base.
struct IInterface {
  static constexpr TGUID IID = TGUID::Parse("{00000000-0000-0000-C000-000000000046}");
  virtual HRESULT QueryInterface(const TGUID& IID, void** Obj) = 0;
  virtual Integer _AddRef() = 0;
  virtual Integer _Release() = 0;

 protected:
  ~IInterface() = default;
};

// Owning interface reference: adds a reference on copy, releases on destruction.
template <class I>
class TInterfacePtr {
 public:
  TInterfacePtr() noexcept = default;
  TInterfacePtr(std::nullptr_t) noexcept {}
  explicit TInterfacePtr(I* p) : FPtr(p) {
    if (FPtr) FPtr->_AddRef();
  }
  TInterfacePtr(const TInterfacePtr& o) : TInterfacePtr(o.FPtr) {}
  TInterfacePtr(TInterfacePtr&& o) noexcept : FPtr(o.FPtr) { o.FPtr = nullptr; }
  TInterfacePtr& operator=(TInterfacePtr o) noexcept {
    std::swap(FPtr, o.FPtr);
    return *this;
  }
  ~TInterfacePtr() { Reset(); }
  void Reset() {
    if (I* p = FPtr) {
      FPtr = nullptr;
      p->_Release();
    }
  }
  I* Get() const noexcept { return FPtr; }
  I* operator->() const noexcept { return FPtr; }
  I& operator*() const noexcept { return *FPtr; }
  explicit operator bool() const noexcept { return FPtr != nullptr; }

  // Takes over a pointer that already carries one reference (as QueryInterface returns it).
  static TInterfacePtr Adopt(I* p) noexcept {
    TInterfacePtr r;
    r.FPtr = p;
    return r;
  }

 private:
  I* FPtr = nullptr;
};

}  // namespace quma
QUMA_PUBLIC_END
