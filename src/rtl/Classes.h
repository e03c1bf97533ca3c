// The persistent and component model of the runtime base layer.
//
// TPersistent: the Assign/AssignTo copy protocol and an overridable owner (Owner() reads it).
// TComponent: an ownership tree (owners free their components), ComponentState, and two-way free
// notification links: a component tells every linked component, through Notification(opRemove),
// that it is going away.
#pragma once

#include <quma/Export.h>

#include <vector>

#include <quma/Generics.h>
#include <quma/Object.h>
#include <quma/SysUtils.h>

QUMA_PUBLIC_BEGIN
namespace quma {

enum class TOperation { opInsert, opRemove };

class TFiler;
using enum TOperation;

class TPersistent : public TObject {
  QUMA_CLASS(TPersistent, TObject)
 public:
  // Copies Source into this object. The default asks Source to do it (AssignTo); when neither
  // side knows how, EConvertError "Cannot assign a <source class> to a <this class>".
  virtual void Assign(TPersistent* Source);
  // The owner as the object reports it (GetOwner); readable for any persistent.
  TPersistent* Owner() const { return GetOwner(); }
  virtual UnicodeString GetNamePath() const { return ClassName(); }

 protected:
  virtual void AssignTo(TPersistent* Dest);
  virtual TPersistent* GetOwner() const { return nullptr; }
  // Properties streamed beside the published ones (<quma/Filer.h>); the filer calls it.
  virtual void DefineProperties([[maybe_unused]] TFiler* Filer) {}
  [[noreturn]] void AssignError(const TPersistent* Source) const;
  friend class TFiler;
};
using TPersistentClass = TClassOf<TPersistent>;

enum class TComponentStateFlag {
  csLoading,
  csReading,
  csWriting,
  csDestroying,
  csDesigning,
  csAncestor,
  csUpdating,
  csFixups,
  csFreeNotification,
  csInline,
  csDesignInstance
};
using enum TComponentStateFlag;
using TComponentState = TSet<TComponentStateFlag>;

class TComponent : public TPersistent {
  QUMA_CLASS(TComponent, TPersistent)
  QUMA_VIRTUAL_CONSTRUCTOR(TComponent*)
 public:
  explicit TComponent(TComponent* AOwner = nullptr);
  ~TComponent() override;
  // Joins the owner given to the constructor: its Notification(opInsert) sees this component
  // whole, with its own class and overrides.
  void AfterConstruction() override;
  // Tells the linked components, frees the owned ones (newest first) and leaves the owner.
  void BeforeDestruction() override;

  TComponent* GetComponentOwner() const noexcept { return FOwner; }
  const UnicodeString& Name() const noexcept { return FName; }
  void SetName(UnicodeString name) { FName = std::move(name); }
  NativeInt Tag = 0;

  TComponentState ComponentState() const noexcept { return FComponentState; }
  Integer ComponentCount() const noexcept { return static_cast<Integer>(FComponents.size()); }
  TComponent* Components(Integer index) const;
  Integer ComponentIndex() const;
  TComponent* FindComponent(UnicodeStringView name) const;

  void InsertComponent(TComponent* AComponent);
  void RemoveComponent(TComponent* AComponent);
  void DestroyComponents();
  // Sets csDestroying here and in every owned component.
  void Destroying();

  // Links this component and AComponent both ways so that each is told when the other goes.
  // Components with the same owner need no link (the owner tells them).
  void FreeNotification(TComponent* AComponent);
  void RemoveFreeNotification(TComponent* AComponent);

  // Stand-ins for the streaming system and the designer: csLoading is set between BeginLoading
  // and Loaded, csDesigning by SetDesigning.
  void BeginLoading();
  virtual void Loaded();
  void SetDesigning(bool value, bool setChildren = true);

  // Called with opInsert/opRemove when a component joins or leaves this one's ownership tree,
  // and with opRemove when a linked component goes. The default drops the link and passes the
  // notification to the owned components.
  virtual void Notification(TComponent* AComponent, TOperation Operation);

 protected:
  TPersistent* GetOwner() const override { return FOwner; }
  // The host's free-notification list, newest last.
  Integer FreeNotifyCount() const noexcept { return static_cast<Integer>(FFreeNotifies.size()); }
  TComponent* FreeNotifyItem(Integer index) const;
  // Tells every linked component that this one is going (newest link first) and drops the links.
  void RemoveFreeNotifications();

 private:
  void RemoveNotification(TComponent* AComponent);
  void TearDown();

  TComponent* FOwner = nullptr;
  bool FAwaitingOwner = false;  // FOwner is the constructor's, not joined yet
  UnicodeString FName;
  std::vector<TComponent*> FComponents;
  std::vector<TComponent*> FFreeNotifies;
  TComponentState FComponentState;
};
using TComponentClass = TClassOf<TComponent>;

class TCollectionItem;

}  // namespace quma
QUMA_PUBLIC_END
