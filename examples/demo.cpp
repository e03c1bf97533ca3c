// A short tour of QUMALib.Utils: property sets that batch their change notifications, multicast
// events, reference-tracked objects, value types and a worker thread that hands work to the main
// thread.
#include <cstdio>
#include <string>

#include <quma/CRC32.h>
#include <quma/DateTime.h>
#include <quma/DateUtils.h>
#include <quma/PropertySet.h>
#include <quma/QUMANetEncoding.h>
#include <quma/ReferencedPersistent.h>
#include <quma/SubscribedEvent.h>
#include <quma/Threads.h>
#include <quma/Uuid.h>

using namespace quma;

namespace {

void Say(const std::string& label, UnicodeStringView text) {
  std::printf("%-34s %s\n", label.c_str(), Utf16ToUtf8(text).c_str());
}

// A property set with two properties; every setter reports the change.
class TWindowSettings : public TQUMAPropertySet {
  QUMA_CLASS(TWindowSettings, TQUMAPropertySet)
 public:
  using TQUMAPropertySet::TQUMAPropertySet;
  void SetWidth(int w) {
    FWidth = w;
    _Change();
  }
  void SetHeight(int h) {
    FHeight = h;
    _Change();
  }
  int Width() const { return FWidth; }
  int Height() const { return FHeight; }

 private:
  int FWidth = 0, FHeight = 0;
};

class TView : public TObject {
  QUMA_CLASS(TView, TObject)
 public:
  int Redraws = 0;
  void SettingsChanged(TObject* Sender) {
    auto* s = static_cast<TWindowSettings*>(Sender);
    ++Redraws;
    std::printf("  view redraws at %dx%d\n", s->Width(), s->Height());
  }
  void Saved(TObject*) { std::printf("  view hears: document saved\n"); }
};

// A reference-tracked document: whoever locks it keeps it alive.
class TDocument : public TQUMAReferencedPersistent {
  QUMA_CLASS(TDocument, TQUMAReferencedPersistent)
 public:
  using TQUMAReferencedPersistent::TQUMAReferencedPersistent;
  ~TDocument() override { std::printf("  document freed itself after its last lock\n"); }
};

class TCounter : public TThread {
  QUMA_CLASS(TCounter, TThread)
 public:
  TCounter() : TThread(true) {}
  void Report() { std::printf("  main thread reports for the worker: %s\n", IsMainThread() ? "yes" : "no"); }

 protected:
  void Execute() override { Synchronize(Bind<&TCounter::Report>(this)); }
};

}  // namespace

int main() {
  std::printf("Property set: three changes in one batch, one notification\n");
  auto settings = MakeObject<TWindowSettings>();
  auto view = MakeObject<TView>();
  settings->SetOnChange(Bind<&TView::SettingsChanged>(view.get()));
  {
    auto batch = settings->Update();
    settings->SetWidth(800);
    settings->SetHeight(600);
    settings->SetWidth(1024);
  }

  std::printf("Subscribed event, blocked while two firings are made\n");
  auto saved = MakeObject<TQUMASubscribedEvent>();
  saved->Subscribe(Bind<&TView::Saved>(view.get()));
  {
    TQUMAScopedBlock block(*saved);
    saved->FireCallbacks();
    saved->FireCallbacks();
  }

  std::printf("Referenced persistent with a memory lock and a guarded pointer\n");
  auto* doc = New<TDocument>(nullptr);
  doc->SetFreeWhenUnreferenced(true);
  TQUMAGuardedPtr<TDocument> weak(doc);
  {
    TQUMAMemLockGuard<TDocument> lock(doc, view.get());
    std::printf("  locks held: %d\n", doc->MemLockReferenceCount());
  }
  std::printf("  guarded pointer is %s\n", weak ? "still set" : "null");

  std::printf("Values\n");
  TQUMA_Uuid id = TQUMA_Uuid::Create(u"6ba7b810-9dad-11d1-80b4-00c04fd430c8");
  Say("  UUID, braced upper case:", id.Format(u"ms"));
  const std::string text = "The quick brown fox jumps over the lazy dog";
  Say("  CRC-32 of the fox:", IntToHex(CRC32(text.data(), static_cast<Cardinal>(text.size())), 8));
  Say("  Base32 of \"foobar\":", TQUMANetEncoding::Base32Encoding()->Encode(u"foobar"));
  Say("  HTTP date, 1994-11-06 08:49:37:", GMTimeToHTTPDate(EncodeDateTime(1994, 11, 6, 8, 49, 37, 0)));

  std::printf("Worker thread synchronising with the main thread\n");
  auto* worker = New<TCounter>();
  worker->Start();
  worker->WaitFor();  // services the worker's Synchronize while waiting
  Free(worker);
  return view->Redraws == 1 && !weak ? 0 : 1;
}
