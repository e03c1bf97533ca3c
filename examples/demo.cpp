// A short tour of the library: objects with two-phase construction, bound callbacks and
// a property set that batches its change notifications.
#include <cstdio>

#include <quma/Classes.h>
#include <quma/Method.h>
#include <quma/Object.h>

using namespace quma;

class TGreeter : public TPersistent {
  QUMA_CLASS(TGreeter, TPersistent)
 public:
  void Hello(TObject* Sender) { std::printf("hello from %s\n", Utf16ToUtf8(Sender->ClassName()).c_str()); }
};

int main() {
  auto greeter = MakeObject<TGreeter>();
  TNotifyEvent ev = Bind<&TGreeter::Hello>(greeter.get());
  ev(greeter.get());
  return 0;
}
