// The property-stream reader on any text: it reads the object or raises EReadError leaving the
// object exactly as it was; what the writer writes, the reader reads back to the same text.
#include <quma/Filer.h>
#include <quma/Streams.h>
#include <quma/Strings.h>

#include "FuzzSupport.h"

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
  TInner* Inner() const { return FInner.get(); }

  Int64 FExtra = 0;
  Integer FCount = 0;
  UnicodeString FCaption;
  bool FFlag = false;
  TObjectPtr<TInner> FInner;

 protected:
  void DefineProperties(TFiler* Filer) override {
    Filer->DefineProperty(u"Extra", Bind<&TSample::ReadExtra>(this), Bind<&TSample::WriteExtra>(this), FExtra != 0);
  }

 private:
  void ReadExtra(TReader* Reader) { FExtra = Reader->ReadInteger(); }
  void WriteExtra(TWriter* Writer) { Writer->WriteInteger(FExtra); }
};

const bool kPublished = [] {
  PublishProperty<TInner>(u"Scale", &TInner::Scale, &TInner::SetScale);
  PublishProperty<TSample>(u"Count", &TSample::Count, &TSample::SetCount, &TSample::IsCountStored);
  PublishProperty<TSample>(u"Caption", &TSample::Caption, &TSample::SetCaption);
  PublishProperty<TSample>(u"Flag", &TSample::Flag, &TSample::SetFlag);
  PublishObjectProperty<TSample>(u"Inner", &TSample::Inner);
  return true;
}();

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto sample = MakeObject<TSample>();
  sample->SetCaption(u"before");
  const UnicodeString before = WritePropertiesToText(sample.get());
  const UnicodeString text = Utf8ToUtf16(std::string_view(reinterpret_cast<const char*>(data), size));
  try {
    ReadPropertiesFromText(sample.get(), text);
  } catch (const EReadError&) {
    QUMA_FUZZ_CHECK(WritePropertiesToText(sample.get()) == before);
    return 0;
  }
  const UnicodeString written = WritePropertiesToText(sample.get());
  auto copy = MakeObject<TSample>();
  ReadPropertiesFromText(copy.get(), written);
  QUMA_FUZZ_CHECK(WritePropertiesToText(copy.get()) == written);
  return 0;
}
