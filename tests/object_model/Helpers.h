// Shared test fixtures for the object model tests.
#pragma once

#include <gtest/gtest.h>
#include <quma/ReferencedPersistent.h>

#include <functional>
#include <string>
#include <vector>

namespace omtest {

using namespace quma;

// A referenced persistent with a name that logs the removal notifications it receives into a
// shared journal and can run a test-supplied action when told.
class TNode : public TQUMAReferencedPersistent {
  QUMA_CLASS(TNode, TQUMAReferencedPersistent)
 public:
  using TQUMAReferencedPersistent::TQUMAReferencedPersistent;
  TNode(TPersistent* AOwner, std::string name, std::vector<std::string>* journal = nullptr)
      : TQUMAReferencedPersistent(AOwner), Name(std::move(name)), Journal(journal) {}

  void NotificationRef(TQUMAReferencedPersistent* Other, TOperation op) override {
    if (op == opRemove && Journal) {
      auto* other = dynamic_cast<TNode*>(Other);
      Journal->push_back(Name + "<-" + (other ? other->Name : std::string("?")));
    }
    if (op == opRemove && OnRemove) {
      auto action = OnRemove;
      action(this, Other);  // may free this object
      return;
    }
    inherited::NotificationRef(Other, op);
  }
  // Lets an action that frees the node finish the inherited handling first when it wants to.
  void InheritedNotificationRef(TQUMAReferencedPersistent* Other, TOperation op) { inherited::NotificationRef(Other, op); }

  std::string Name;
  std::vector<std::string>* Journal = nullptr;
  std::function<void(TNode* self, TQUMAReferencedPersistent* other)> OnRemove;
};

// A plain object that holds callbacks and records what it was told.
class THolder : public TObject {
  QUMA_CLASS(THolder, TObject)
 public:
  explicit THolder(std::string name = "holder", std::vector<std::string>* journal = nullptr)
      : Name(std::move(name)), Journal(journal) {}
  void Told(TQUMAReferencedPersistent* Other, TOperation op) {
    ++Count;
    if (Journal && op == opRemove) {
      auto* other = dynamic_cast<TNode*>(Other);
      Journal->push_back(Name + "<-" + (other ? other->Name : std::string("?")));
    }
  }
  TQUMAReferencedNotification Callback() { return Bind<&THolder::Told>(this); }
  std::string Name;
  std::vector<std::string>* Journal;
  int Count = 0;
};

// A component that records removal notifications.
class TWatcher : public TComponent {
  QUMA_CLASS(TWatcher, TComponent)
 public:
  explicit TWatcher(TComponent* AOwner = nullptr, std::vector<std::string>* journal = nullptr, std::string name = "watcher")
      : TComponent(AOwner), Journal(journal), Label(std::move(name)) {}
  void Notification(TComponent* AComponent, TOperation Operation) override {
    if (Operation == opRemove) {
      ++Removals;
      if (auto* w = dynamic_cast<TQUMAPersistentWrapper*>(AComponent)) {
        LastPayload = w->Payload();
        if (Journal) {
          auto* node = dynamic_cast<TNode*>(w->Payload());
          Journal->push_back(Label + "<-" + (node ? node->Name : std::string("?")));
        }
      }
    }
    inherited::Notification(AComponent, Operation);
  }
  std::vector<std::string>* Journal;
  std::string Label;
  int Removals = 0;
  TPersistent* LastPayload = nullptr;
};

}  // namespace omtest
