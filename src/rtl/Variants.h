// Variant: a tagged value with the host runtime's type codes. It covers what the value types
// exchange through variants: empty and null, integers, floating point, booleans, the three string
// kinds (OLE wide string, 8-bit string, the runtime's UTF-16 string) and one-dimensional arrays of
// bytes with arbitrary bounds. Variants copy by value (arrays are copied deeply).
#pragma once

#include <quma/Export.h>

#include <span>
#include <string>
#include <string_view>
#include <variant>

#include <quma/SysUtils.h>
#include <quma/System.h>

QUMA_PUBLIC_BEGIN
namespace quma {

using TVarType = Word;

inline constexpr TVarType varEmpty = 0x0000;
inline constexpr TVarType varNull = 0x0001;
inline constexpr TVarType varSmallint = 0x0002;
inline constexpr TVarType varInteger = 0x0003;
inline constexpr TVarType varDouble = 0x0005;
inline constexpr TVarType varOleStr = 0x0008;
inline constexpr TVarType varBoolean = 0x000B;
inline constexpr TVarType varByte = 0x0011;
inline constexpr TVarType varInt64 = 0x0014;
inline constexpr TVarType varString = 0x0100;   // 8-bit string
inline constexpr TVarType varUString = 0x0102;  // the runtime's UTF-16 string
inline constexpr TVarType varTypeMask = 0x0FFF;
inline constexpr TVarType varArray = 0x2000;

QUMA_DECLARE_EXCEPTION(EVariantError, Exception);
QUMA_DECLARE_EXCEPTION(EVariantBadVarTypeError, EVariantError);   // "Invalid variant type"
QUMA_DECLARE_EXCEPTION(EVariantBadIndexError, EVariantError);     // "Variant or safe array index out of bounds"
QUMA_DECLARE_EXCEPTION(EVariantNotAnArrayError, EVariantError);   // "Variant is not an array"
QUMA_DECLARE_EXCEPTION(EVariantTypeCastError, EVariantError);     // "Invalid variant type conversion"
QUMA_DECLARE_EXCEPTION(EVariantArrayLockedError, EVariantError);  // "Variant or safe array is locked"
QUMA_DECLARE_EXCEPTION(EVariantNotLockedError, EVariantError);    // "Variant or safe array is not locked"

inline constexpr char16_t SVarBadType[] = u"Invalid variant type";
inline constexpr char16_t SVarArrayBounds[] = u"Variant or safe array index out of bounds";
inline constexpr char16_t SVarNotArray[] = u"Variant is not an array";
inline constexpr char16_t SInvalidVarCast[] = u"Invalid variant type conversion";
inline constexpr char16_t SVarArrayLocked[] = u"Variant or safe array is locked";
inline constexpr char16_t SVarNotLocked[] = u"Variant or safe array is not locked";

class Variant {
 public:
  Variant() noexcept = default;  // varEmpty
  static Variant Null() noexcept;

  Variant(bool value) noexcept : FType(varBoolean), FValue(value) {}
  Variant(std::int16_t value) noexcept : FType(varSmallint), FValue(Integer{value}) {}
  Variant(Integer value) noexcept : FType(varInteger), FValue(value) {}
  Variant(Int64 value) noexcept : FType(varInt64), FValue(value) {}
  Variant(double value) noexcept : FType(varDouble), FValue(value) {}
  // A UTF-16 string becomes the runtime's string type (varUString).
  Variant(UnicodeString value) noexcept : FType(varUString), FValue(std::move(value)) {}
  Variant(const char16_t* value) : Variant(UnicodeString(value ? value : u"")) {}
  // 8-bit text is ambiguous (UTF-8 or 8-bit string): say which with FromUtf8 or AnsiString.
  Variant(const char*) = delete;

  // The other string kinds, named because they hold the same C++ types.
  static Variant OleStr(UnicodeString value);   // varOleStr
  static Variant AnsiString(std::string value);  // varString: 8-bit characters, stored as they are
  static Variant FromUtf8(std::string_view value);  // varUString from UTF-8

  TVarType VarType() const noexcept;  // includes varArray for arrays
  bool IsEmpty() const noexcept { return FType == varEmpty; }
  bool IsNull() const noexcept { return FType == varNull; }
  bool IsArray() const noexcept { return (FType & varArray) != 0; }

  // Typed access without conversion; a variant of another type raises EVariantTypeCastError.
  bool AsBoolean() const;
  Int64 AsInt64() const;  // varSmallint, varInteger, varInt64, varByte
  double AsDouble() const;
  const UnicodeString& AsUnicode() const;  // varOleStr and varUString
  const std::string& AsAnsi() const;       // varString

  // Arrays (one dimension). Non-arrays raise EVariantNotAnArrayError; dimension other than 1
  // raises EVariantBadIndexError.
  Integer ArrayDimCount() const noexcept { return IsArray() ? 1 : 0; }
  Integer ArrayLowBound(Integer dim = 1) const;
  Integer ArrayHighBound(Integer dim = 1) const;
  Byte GetElement(Integer index) const;  // bound-checked: EVariantBadIndexError
  void PutElement(Integer index, Byte value);
  // Direct access to the element storage between Lock and Unlock (counted).
  void* ArrayLock();
  void ArrayUnlock();
  std::span<const Byte> ArrayBytes() const;  // the elements in index order
  // Changes the bounds, keeping the elements that stay in range; refused while locked.
  void ArrayRedim(Integer highBound);

  friend QUMA_API bool operator==(const Variant& a, const Variant& b) noexcept;

 private:
  struct TByteArray {
    Integer Low = 0;
    TBytes Data;
    int Locks = 0;
    TByteArray() = default;
    TByteArray(Integer low, TBytes data) : Low(low), Data(std::move(data)) {}
    TByteArray(const TByteArray& o) : Low(o.Low), Data(o.Data) {}  // a copy is never locked
    TByteArray& operator=(const TByteArray& o) {
      Low = o.Low;
      Data = o.Data;
      Locks = 0;
      return *this;
    }
    TByteArray(TByteArray&&) noexcept = default;
    TByteArray& operator=(TByteArray&&) noexcept = default;
    friend bool operator==(const TByteArray& a, const TByteArray& b) noexcept {
      return a.Low == b.Low && a.Data == b.Data;
    }
  };
  friend Variant VarArrayCreate(Integer lowBound, Integer highBound, TVarType elementType);
  friend Variant VarArrayFromBytes(std::span<const Byte> bytes, Integer lowBound);

  const TByteArray& Array() const;
  TByteArray& Array();

  TVarType FType = varEmpty;
  std::variant<std::monostate, bool, Integer, Int64, double, UnicodeString, std::string, TByteArray> FValue;
};

// The host's free functions over variants.
inline TVarType VarType(const Variant& v) noexcept { return v.VarType(); }
inline bool VarIsEmpty(const Variant& v) noexcept { return v.IsEmpty(); }
inline bool VarIsNull(const Variant& v) noexcept { return v.IsNull(); }
inline bool VarIsArray(const Variant& v) noexcept { return v.IsArray(); }
// Creates a one-dimensional array lowBound..highBound of zero elements. Only byte elements
// (varByte) are supported; another type raises EVariantBadVarTypeError, highBound < lowBound - 1
// raises EVariantBadIndexError.
Variant VarArrayCreate(Integer lowBound, Integer highBound, TVarType elementType);
Variant VarArrayFromBytes(std::span<const Byte> bytes, Integer lowBound = 0);
TBytes VarArrayToBytes(const Variant& v);
inline Integer VarArrayDimCount(const Variant& v) noexcept { return v.ArrayDimCount(); }
inline Integer VarArrayLowBound(const Variant& v, Integer dim) { return v.ArrayLowBound(dim); }
inline Integer VarArrayHighBound(const Variant& v, Integer dim) { return v.ArrayHighBound(dim); }
inline void* VarArrayLock(Variant& v) { return v.ArrayLock(); }
inline void VarArrayUnlock(Variant& v) { v.ArrayUnlock(); }

}  // namespace quma
QUMA_PUBLIC_END
