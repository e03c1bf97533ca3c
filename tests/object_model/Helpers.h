// Shared test fixtures for the object model tests.
#pragma once

#include <gtest/gtest.h>
#include <quma/ReferencedPersistent.h>

#include "rtl/TestSupport.h"

#include <functional>
#include <string>
#include <vector>

namespace omtest {

using namespace quma;
using Journal = std::vector<std::string>;
using quma::test::ErrorOf;
using quma::test::TFreeCounter;

// A referenced persistent with a name that logs the removal notifications it receives into a
// shared journal and can run a test-supplied action (which may free it) instead of the default.
class TNode : public TQUMAReferencedPersistent {
  QUMA_CLASS(TNode, TQUMAReferencedPersistent)
 public:
  using TQUMAReferencedPersistent::TQUMAReferencedPersistent;
  TNode(TPersistent* AOwner, std::string name, Journal* journal = nullptr)
      : TQUMAReferencedPersistent(AOwner), Name(std::move(name)), Log(journal) {}

  void NotificationRef(TQUMAReferencedPersistent* Other, TOperation op) override {
    if (op == opRemove && Log) Log->push_back(Name + "<-" + NameOf(Other));
    if (op == opRemove && OnRemove) return std::function(OnRemove)(this, Other);
    inherited::NotificationRef(Other, op);
  }
  void InheritedNotificationRef(TQUMAReferencedPersistent* Other, TOperation op) { inherited::NotificationRef(Other, op); }
  static std::string NameOf(TObject* o) {
    auto* node = dynamic_cast<TNode*>(o);
    return node ? node->Name : std::string("?");
  }

  std::string Name;
  Journal* Log = nullptr;
  std::function<void(TNode* self, TQUMAReferencedPersistent* other)> OnRemove;
};

// Frees each object in turn (null-safe): the objects a test still holds at its end.
template <class... T>
void FreeAll(T*... objects) {
  (Free(objects), ...);
}

inline TNode* N(const std::string& name, Journal* journal = nullptr) { return New<TNode>(nullptr, name, journal); }

// A plain object that is every kind of handler the tests need: a callback holder, a twilight
// handler, a list watcher and a safe box's removal handler. Its handlers can free a target.
class THolder : public TObject {
  QUMA_CLASS(THolder, TObject)
 public:
  explicit THolder(std::string name = "holder", Journal* journal = nullptr) : Name(std::move(name)), Log(journal) {}
  void Told(TQUMAReferencedPersistent* Other, TOperation op) {
    ++Count;
    if (Log && op == opRemove) Log->push_back(Name + "<-" + TNode::NameOf(Other));
  }
  TQUMAReferencedNotification Callback() { return Bind<&THolder::Told>(this); }
  void Enter(TObject*, bool& stop) { ++Entered, stop = KeepAlive; }
  void Leave(TObject*) { ++Left; }
  void Changed(TObject* Sender, TNode* const& Item, TCollectionNotification Action) {
    Events.push_back((Action == cnAdded ? "+" : "-") + (Item ? Item->Name : std::string("null")));
    if (FreeOnRemove && Action == cnRemoved) FreeOnRemove = false, Free(Sender);
  }
  void Removed(TObject* Sender) {
    Senders.push_back(Sender);
    FreeAndNil(Victim);
  }
  std::string Name;
  Journal* Log;
  Journal Events;
  std::vector<TObject*> Senders;
  TObject* Victim = nullptr;
  bool KeepAlive = true, FreeOnRemove = false;
  int Count = 0, Entered = 0, Left = 0;
};

// A component that records removal notifications.
class TWatcher : public TComponent {
  QUMA_CLASS(TWatcher, TComponent)
 public:
  explicit TWatcher(TComponent* AOwner = nullptr, Journal* journal = nullptr, std::string name = "watcher")
      : TComponent(AOwner), Log(journal), Label(std::move(name)) {}
  void Notification(TComponent* AComponent, TOperation Operation) override {
    if (auto* w = dynamic_cast<TQUMAPersistentWrapper*>(AComponent); w && Operation == opRemove) {
      ++Removals;
      if (Log) Log->push_back(Label + "<-" + TNode::NameOf(w->Payload()));
    }
    inherited::Notification(AComponent, Operation);
  }
  Journal* Log;
  std::string Label;
  int Removals = 0;
};

}  // namespace omtest
