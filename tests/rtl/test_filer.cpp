// Property streaming: published and defined properties through the text writer and reader.
#include <gtest/gtest.h>

#include <limits>
#include <utility>
#include <vector>

#include <quma/Filer.h>

#include "rtl/TestSupport.h"

using namespace quma;

namespace {

class TInner : public TPersistent {
  QUMA_CLASS(TInner, TPersistent)
 public:
  double Scale() const { return FScale; }
  void SetScale(double v) { FScale = v; }
  double FScale = 1;
};

class TSample : public TPersistent {
  QUMA_CLASS(TSample, TPersistent)
 public:
  TSample() : FInner(New<TInner>()) {}
  Integer Count() const { return FCount; }
  void SetCount(Integer v) { FCount = v; }
  bool IsCountStored() const { return FCount != 0; }
  UnicodeString Caption() const { return FCaption; }
  void SetCaption(UnicodeString v) { FCaption = std::move(v); }
  bool Flag() const { return FFlag; }
  void SetFlag(bool v) { FFlag = v; }
  double Ratio() const { return FRatio; }
  void SetRatio(double v) { FRatio = v; }
  TInner* Inner() const { return FInner.get(); }

  Int64 FExtra = 0;  // streamed through DefineProperties as "Extra", when not 0
  int FExtraWrites = 1, FExtraReads = 1;
  Integer FCount = 0;
  UnicodeString FCaption;
  bool FFlag = false;
  double FRatio = 0;
  TObjectPtr<TInner> FInner;

 protected:
  void DefineProperties(TFiler* Filer) override {
    Filer->DefineProperty(u"Extra", Bind<&TSample::ReadExtra>(this), Bind<&TSample::WriteExtra>(this), FExtra != 0);
  }

 private:
  void ReadExtra(TReader* Reader) {
    for (int i = 0; i < FExtraReads; ++i) FExtra = Reader->ReadInteger();
  }
  void WriteExtra(TWriter* Writer) {
    for (int i = 0; i < FExtraWrites; ++i) Writer->WriteInteger(FExtra);
  }
};

const bool kPublished = [] {
  PublishProperty<TInner>(u"Scale", &TInner::Scale, &TInner::SetScale);
  PublishProperty<TSample>(u"Count", &TSample::Count, &TSample::SetCount, &TSample::IsCountStored);
  PublishProperty<TSample>(u"Caption", &TSample::Caption, &TSample::SetCaption);
  PublishProperty<TSample>(u"Flag", &TSample::Flag, &TSample::SetFlag);
  PublishProperty<TSample>(u"Ratio", &TSample::Ratio, &TSample::SetRatio);
  PublishObjectProperty<TSample>(u"Inner", &TSample::Inner);
  return true;
}();

}  // namespace

TEST(Filer, WritesStoredPropertiesReadsThemBackAndRejectsBadInput) {
  ASSERT_TRUE(kPublished);
  TObjectPtr<TSample> a(New<TSample>());
  EXPECT_EQ(WritePropertiesToText(a.get()), u"Caption = ''\nFlag = False\nRatio = 0\nInner.Scale = 1\n");
  a->FCount = -7;
  a->FCaption = u"It's\r\n\u00E9 \U0001F600";
  a->FFlag = true;
  a->FRatio = 0.1;
  a->FInner->FScale = -std::numeric_limits<double>::infinity();
  a->FExtra = INT64_MIN;
  const UnicodeString text = WritePropertiesToText(a.get());
  EXPECT_EQ(text, u"Count = -7\nCaption = 'It''s'#13#10'\u00E9 \U0001F600'\nFlag = True\nRatio = 0.1\n"
                  u"Inner.Scale = -INF\nExtra = -9223372036854775808\n");
  TObjectPtr<TSample> b(New<TSample>());
  ReadPropertiesFromText(b.get(), u"\n  " + text + u"\n\n");
  EXPECT_EQ(WritePropertiesToText(b.get()), text);
  ReadPropertiesFromText(b.get(), u"ratio=NAN\ninner.scale = 2\t\nflag = false\nCaption=#65'b'#67");
  EXPECT_EQ(WritePropertiesToText(b.get()),
            u"Count = -7\nCaption = 'AbC'\nFlag = False\nRatio = NAN\nInner.Scale = 2\nExtra = -9223372036854775808\n");

  a->FExtraWrites = 2;
  EXPECT_THROW(WritePropertiesToText(a.get()), EWriteError);
  a->FExtraWrites = 0;
  EXPECT_EQ(WritePropertiesToText(a.get()).find(u"Extra"), UnicodeString::npos);

  // Every failure names the line and the property, and the object keeps every value it had, also
  // when the failure comes from a defined property's reader after earlier lines were applied.
  const UnicodeString before = WritePropertiesToText(b.get());
  const std::pair<const char*, std::vector<const char16_t*>> cases[] = {
      // error, texts
      {"Line 1, property Count: Invalid property value", {u"Count = x", u"Count = 1.5", u"Count = 1 2", u"Count ="}},
      {"Line 1, property Count: Property value out of range", {u"Count = 2147483648"}},
      {"Line 1, property Caption: Invalid property value", {u"Caption = 'open", u"Caption = #70000", u"Caption = 5"}},
      {"Line 1, property Flag: Invalid property value", {u"Flag = maybe", u"Flag = 'True'"}},
      {"Line 1, property Ratio: Invalid property value", {u"Ratio = 1e999"}},
      {"Line 1, property Nope: Property does not exist", {u"Nope = 1"}},
      {"Line 1, property Count.X: Property is not an object", {u"Count.X = 1"}},
      {"Line 1, property Inner: Invalid property value", {u"Inner = 1"}},
      {"Line 1: '<name> = <value>' expected", {u"= 1"}},
      {"Line 1, property Count: '<name> = <value>' expected", {u"Count 1"}},
      {"Line 3, property Flag: Invalid property value", {u"Count = 5\n\nFlag = maybe"}},
      {"Line 4, property Extra: Invalid property value",
       {u"Count = 5\nCaption = 'x'\nInner.Scale = 4\nExtra = 'text'"}}};
  for (const auto& [error, texts] : cases)
    for (const char16_t* text : texts) {
      EXPECT_EQ(test::ErrorOf<EReadError>([&] { ReadPropertiesFromText(b.get(), text); }), error) << Utf16ToUtf8(text);
      EXPECT_EQ(WritePropertiesToText(b.get()), before) << Utf16ToUtf8(text);
    }
  // A defined property's reader must take its one value, no more and no less.
  for (const int reads : {0, 2}) {
    b->FExtraReads = reads;
    EXPECT_EQ(test::ErrorOf<EReadError>([&] { ReadPropertiesFromText(b.get(), u"Extra = 5"); }),
              "Line 1, property Extra: Property value not read");
  }
}
