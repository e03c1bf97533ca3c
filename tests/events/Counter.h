// A subscriber for the tests that fire from several threads: it counts its calls and notes when
// two of them overlap, which serialised passes never allow.
#pragma once

#include <atomic>
#include <functional>

#include <quma/Method.h>
#include <quma/Object.h>

namespace eventtest {

using namespace quma;

class TCounter : public TObject {
  QUMA_CLASS(TCounter, TObject)
 public:
  // Enter and Leave subscribed as a pair bracket the subscribers between them; Heard is both.
  void Enter(TObject* Sender) {
    if (Inside.fetch_add(1) != 0) Overlap = true;
    ++Calls;
    LastSender = Sender;
    if (Action) Action();
  }
  void Leave(TObject*) { Inside.fetch_sub(1); }
  void Heard(TObject* Sender) { Enter(Sender), Leave(Sender); }
  TNotifyEvent OnEnter() { return Bind<&TCounter::Enter>(this); }
  TNotifyEvent OnHeard() { return Bind<&TCounter::Heard>(this); }
  std::atomic<int> Inside{0}, Calls{0};
  std::atomic<bool> Overlap{false};
  TObject* LastSender = nullptr;
  std::function<void()> Action;  // runs inside Enter
};

}  // namespace eventtest
