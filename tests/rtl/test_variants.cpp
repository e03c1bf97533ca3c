#include <quma/Variants.h>

#include <gtest/gtest.h>

#include <tuple>

// GCC 12 at -O1 (the sanitizer build) reports the inactive alternatives of std::variant
// temporaries inside EXPECT_THROW as maybe uninitialised; they are never read.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

using namespace quma;

TEST(Variants, TypeCodesTypedAccessAndByteArraysWithBounds) {
  EXPECT_TRUE(VarIsEmpty(Variant()));
  EXPECT_TRUE(VarIsNull(Variant::Null()));
  const std::pair<Variant, TVarType> types[] = {
      {Variant(), varEmpty},           {Variant(Integer{3}), varInteger},   {Variant(std::int16_t{3}), varSmallint},
      {Variant(Int64{3}), varInt64},   {Variant(true), varBoolean},         {Variant(2.5), varDouble},
      {Variant(u"text"), varUString}, {Variant::OleStr(u"text"), varOleStr}, {Variant::AnsiString("text"), varString}};
  for (const auto& [value, type] : types) EXPECT_EQ(VarType(value), type) << type;
  EXPECT_EQ(Variant::FromUtf8("caf\xc3\xa9").AsUnicode(), u"caf\u00e9");
  EXPECT_EQ(std::tuple(Variant(Integer{-7}).AsInt64(), Variant(2.5).AsDouble()), std::tuple(-7, 2.5));
  EXPECT_EQ(Variant::AnsiString("\xff\x01").AsAnsi(), "\xff\x01");
  EXPECT_THROW((void)Variant(u"x").AsAnsi(), EVariantTypeCastError);
  EXPECT_THROW((void)Variant().AsInt64(), EVariantTypeCastError);
  EXPECT_EQ(Variant(u"a"), Variant(u"a"));
  EXPECT_FALSE(Variant(u"a") == Variant::OleStr(u"a"));  // same text, different type

  // Byte arrays with bounds.
  Variant a = VarArrayCreate(-2, 3, varByte);
  EXPECT_EQ(VarType(a), varArray | varByte);
  EXPECT_TRUE(VarIsArray(a));
  EXPECT_EQ(std::tuple(VarArrayDimCount(a), VarArrayLowBound(a, 1), VarArrayHighBound(a, 1)), std::tuple(1, -2, 3));
  a.PutElement(-2, 0x11);
  a.PutElement(3, 0x66);
  EXPECT_THROW(a.PutElement(4, 0), EVariantBadIndexError);
  EXPECT_THROW((void)a.GetElement(-3), EVariantBadIndexError);
  EXPECT_THROW((void)VarArrayHighBound(a, 2), EVariantBadIndexError);
  auto* data = static_cast<Byte*>(VarArrayLock(a));
  EXPECT_EQ(data[0], 0x11);
  data[1] = 0x22;
  EXPECT_THROW(a.ArrayRedim(10), EVariantArrayLockedError);
  Variant copy = a;  // a deep copy, not locked
  copy.ArrayRedim(0);
  VarArrayUnlock(a);
  EXPECT_THROW(VarArrayUnlock(a), EVariantNotLockedError);
  EXPECT_EQ(VarArrayToBytes(a), (TBytes{0x11, 0x22, 0, 0, 0, 0x66}));
  EXPECT_EQ(VarArrayToBytes(copy), (TBytes{0x11, 0x22, 0}));
  const Variant b = VarArrayFromBytes(TBytes{1, 2, 3});
  EXPECT_EQ(b, VarArrayFromBytes(TBytes{1, 2, 3}));
  EXPECT_FALSE(b == VarArrayFromBytes(TBytes{1, 2, 4}));
  EXPECT_EQ(std::pair(VarArrayLowBound(b, 1), VarArrayHighBound(b, 1)), std::pair(0, 2));
  EXPECT_EQ(VarArrayHighBound(VarArrayCreate(0, -1, varByte), 1), -1);  // empty
  EXPECT_THROW((void)VarArrayCreate(0, 3, varInteger), EVariantBadVarTypeError);
  EXPECT_THROW((void)VarArrayCreate(5, 3, varByte), EVariantBadIndexError);
  EXPECT_THROW((void)VarArrayLowBound(Variant(Integer{1}), 1), EVariantNotAnArrayError);
}
