// Recording subscribers shared by the event tests.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <quma/Method.h>
#include <quma/Object.h>

namespace quma::test {

using TLog = std::vector<std::string>;

// A subscriber that logs "<name>.<method>" and then runs an optional action.
class TProbe : public TObject {
  QUMA_CLASS(TProbe, TObject)
 public:
  TProbe(TLog& log, std::string name) : Log(log), Name(std::move(name)) {}

  void A(TObject* Sender) { Hit("A", Sender); }
  void B(TObject* Sender) { Hit("B", Sender); }
  void Typed(TObject* Sender, const int& Param) {
    LastParam = Param;
    Hit("Typed", Sender);
  }

  TNotifyEvent OnA() { return Bind<&TProbe::A>(this); }
  TNotifyEvent OnB() { return Bind<&TProbe::B>(this); }

  TLog& Log;
  std::string Name;
  TObject* LastSender = nullptr;
  int LastParam = 0;
  std::function<void()> Action;

 private:
  void Hit(const char* method, TObject* sender) {
    LastSender = sender;
    Log.push_back(Name + "." + method);
    if (Action) Action();
  }
};

}  // namespace quma::test
