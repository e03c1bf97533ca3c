#include <quma/Variants.h>

#include <limits>

namespace quma {

Variant Variant::Null() noexcept {
  Variant v;
  v.FType = varNull;
  return v;
}

Variant Variant::OleStr(UnicodeString value) {
  Variant v(std::move(value));
  v.FType = varOleStr;
  return v;
}

Variant Variant::AnsiString(std::string value) {
  Variant v;
  v.FType = varString;
  v.FValue = std::move(value);
  return v;
}

Variant Variant::FromUtf8(std::string_view value) { return Variant(Utf8ToUtf16(value)); }

TVarType Variant::VarType() const noexcept { return FType; }

bool Variant::AsBoolean() const {
  if (FType != varBoolean) throw EVariantTypeCastError(SInvalidVarCast);
  return std::get<bool>(FValue);
}

Int64 Variant::AsInt64() const {
  switch (FType) {
    case varSmallint:
    case varInteger:
      return std::get<Integer>(FValue);
    case varInt64:
      return std::get<Int64>(FValue);
    default:
      throw EVariantTypeCastError(SInvalidVarCast);
  }
}

double Variant::AsDouble() const {
  if (FType != varDouble) throw EVariantTypeCastError(SInvalidVarCast);
  return std::get<double>(FValue);
}

const UnicodeString& Variant::AsUnicode() const {
  if (FType != varOleStr && FType != varUString) throw EVariantTypeCastError(SInvalidVarCast);
  return std::get<UnicodeString>(FValue);
}

const std::string& Variant::AsAnsi() const {
  if (FType != varString) throw EVariantTypeCastError(SInvalidVarCast);
  return std::get<std::string>(FValue);
}

const Variant::TByteArray& Variant::Array() const {
  if (!IsArray()) throw EVariantNotAnArrayError(SVarNotArray);
  return std::get<TByteArray>(FValue);
}

Variant::TByteArray& Variant::Array() {
  if (!IsArray()) throw EVariantNotAnArrayError(SVarNotArray);
  return std::get<TByteArray>(FValue);
}

Integer Variant::ArrayLowBound(Integer dim) const {
  const TByteArray& a = Array();
  if (dim != 1) throw EVariantBadIndexError(SVarArrayBounds);
  return a.Low;
}

Integer Variant::ArrayHighBound(Integer dim) const {
  const TByteArray& a = Array();
  if (dim != 1) throw EVariantBadIndexError(SVarArrayBounds);
  return static_cast<Integer>(a.Low + static_cast<Int64>(a.Data.size()) - 1);
}

Byte Variant::GetElement(Integer index) const {
  const TByteArray& a = Array();
  const Int64 i = Int64{index} - a.Low;
  if (i < 0 || i >= static_cast<Int64>(a.Data.size())) throw EVariantBadIndexError(SVarArrayBounds);
  return a.Data[static_cast<std::size_t>(i)];
}

void Variant::PutElement(Integer index, Byte value) {
  TByteArray& a = Array();
  const Int64 i = Int64{index} - a.Low;
  if (i < 0 || i >= static_cast<Int64>(a.Data.size())) throw EVariantBadIndexError(SVarArrayBounds);
  a.Data[static_cast<std::size_t>(i)] = value;
}

void* Variant::ArrayLock() {
  TByteArray& a = Array();
  ++a.Locks;
  return a.Data.data();
}

void Variant::ArrayUnlock() {
  TByteArray& a = Array();
  if (a.Locks == 0) throw EVariantNotLockedError(SVarNotLocked);
  --a.Locks;
}

std::span<const Byte> Variant::ArrayBytes() const { return Array().Data; }

void Variant::ArrayRedim(Integer highBound) {
  TByteArray& a = Array();
  if (a.Locks) throw EVariantArrayLockedError(SVarArrayLocked);
  const Int64 count = Int64{highBound} - a.Low + 1;
  if (count < 0) throw EVariantBadIndexError(SVarArrayBounds);
  a.Data.resize(static_cast<std::size_t>(count));
}

bool operator==(const Variant& a, const Variant& b) noexcept { return a.FType == b.FType && a.FValue == b.FValue; }

Variant VarArrayCreate(Integer lowBound, Integer highBound, TVarType elementType) {
  if (elementType != varByte) throw EVariantBadVarTypeError(SVarBadType);
  const Int64 count = Int64{highBound} - lowBound + 1;
  if (count < 0) throw EVariantBadIndexError(SVarArrayBounds);
  Variant v;
  v.FType = varArray | varByte;
  v.FValue = Variant::TByteArray(lowBound, TBytes(static_cast<std::size_t>(count)));
  return v;
}

Variant VarArrayFromBytes(std::span<const Byte> bytes, Integer lowBound) {
  if (static_cast<Int64>(bytes.size()) - 1 + lowBound > std::numeric_limits<Integer>::max())
    throw EVariantBadIndexError(SVarArrayBounds);
  Variant v;
  v.FType = varArray | varByte;
  v.FValue = Variant::TByteArray(lowBound, TBytes(bytes.begin(), bytes.end()));
  return v;
}

TBytes VarArrayToBytes(const Variant& v) {
  const auto bytes = v.ArrayBytes();
  return TBytes(bytes.begin(), bytes.end());
}

}  // namespace quma
