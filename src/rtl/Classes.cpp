#include <quma/Classes.h>

#include <algorithm>
#include <utility>

namespace quma {

// ---- TPersistent ----

void TPersistent::Assign(TPersistent* Source) {
  if (Source) {
    Source->AssignTo(this);
    return;
  }
  AssignError(nullptr);
}

void TPersistent::AssignTo(TPersistent* Dest) { Dest->AssignError(this); }

void TPersistent::AssignError(const TPersistent* Source) const {
  const UnicodeString source = Source ? Source->ClassName() : UnicodeString(u"nil");
  throw EConvertError(Format(SAssignError, source, ClassName()));
}

// ---- TComponent ----

// Owner() answers from the constructor on; the owner's list and notification wait until the
// component is whole.
TComponent::TComponent(TComponent* AOwner) : FOwner(AOwner), FAwaitingOwner(AOwner != nullptr) {}

void TComponent::AfterConstruction() {
  TPersistent::AfterConstruction();
  if (!FAwaitingOwner) return;
  FAwaitingOwner = false;
  std::exchange(FOwner, nullptr)->InsertComponent(this);
}

// The host's teardown order, run while the component is whole: every notified component and the
// owner see this component's own class and overrides.
void TComponent::BeforeDestruction() {
  TearDown();
  TPersistent::BeforeDestruction();
}

// Only a component whose AfterConstruction failed gets here unfinished; it must still leave its
// owner and links.
TComponent::~TComponent() { TearDown(); }

void TComponent::TearDown() {
  Destroying();
  RemoveFreeNotifications();
  DestroyComponents();
  if (FOwner && !FAwaitingOwner) FOwner->RemoveComponent(this);
}

TComponent* TComponent::Components(Integer index) const {
  if (index < 0 || index >= ComponentCount()) throw EListError::OutOfBounds(index);
  return FComponents[static_cast<std::size_t>(index)];
}

Integer TComponent::ComponentIndex() const {
  if (!FOwner) return -1;
  auto& list = FOwner->FComponents;
  auto it = std::find(list.begin(), list.end(), this);
  return it == list.end() ? -1 : static_cast<Integer>(it - list.begin());
}

TComponent* TComponent::FindComponent(UnicodeStringView name) const {
  if (name.empty()) return nullptr;
  for (TComponent* c : FComponents)
    if (SameText(c->FName, name)) return c;
  return nullptr;
}

void TComponent::InsertComponent(TComponent* AComponent) {
  if (!AComponent) return;
  if (AComponent->FOwner) AComponent->FOwner->RemoveComponent(AComponent);
  FComponents.push_back(AComponent);
  AComponent->FOwner = this;
  if (FComponentState.Contains(csDesigning)) AComponent->SetDesigning(true);
  Notification(AComponent, opInsert);
}

void TComponent::RemoveComponent(TComponent* AComponent) {
  if (!AComponent || AComponent->FOwner != this) return;
  Notification(AComponent, opRemove);
  auto it = std::find(FComponents.begin(), FComponents.end(), AComponent);
  if (it != FComponents.end()) FComponents.erase(it);
  AComponent->FOwner = nullptr;
}

void TComponent::DestroyComponents() {
  // Newest first. As in the host, a component with free-notification links leaves through
  // RemoveComponent (the owner and its components are told); the others just leave.
  while (!FComponents.empty()) {
    TComponent* c = FComponents.back();
    if (c->FComponentState.Contains(csFreeNotification)) {
      RemoveComponent(c);
    } else {
      FComponents.pop_back();
      c->FOwner = nullptr;
    }
    Free(c);
  }
}

void TComponent::Destroying() {
  if (FComponentState.Contains(csDestroying)) return;
  FComponentState.Include(csDestroying);
  for (TComponent* c : FComponents) c->Destroying();
}

void TComponent::FreeNotification(TComponent* AComponent) {
  if (!AComponent || AComponent == this) return;
  if (!FOwner || AComponent->FOwner != FOwner) {
    if (std::find(FFreeNotifies.begin(), FFreeNotifies.end(), AComponent) == FFreeNotifies.end()) {
      FFreeNotifies.push_back(AComponent);
      AComponent->FreeNotification(this);
    }
  }
  FComponentState.Include(csFreeNotification);
}

void TComponent::RemoveNotification(TComponent* AComponent) {
  auto it = std::find(FFreeNotifies.begin(), FFreeNotifies.end(), AComponent);
  if (it != FFreeNotifies.end()) FFreeNotifies.erase(it);
  if (FFreeNotifies.empty()) FComponentState.Exclude(csFreeNotification);
}

void TComponent::RemoveFreeNotification(TComponent* AComponent) {
  if (!AComponent) return;
  RemoveNotification(AComponent);
  AComponent->RemoveNotification(this);
}

TComponent* TComponent::FreeNotifyItem(Integer index) const {
  if (index < 0 || index >= FreeNotifyCount()) throw EListError::OutOfBounds(index);
  return FFreeNotifies[static_cast<std::size_t>(index)];
}

void TComponent::RemoveFreeNotifications() {
  // Each notified component drops its link, which shrinks the list; the newest goes first.
  while (!FFreeNotifies.empty()) {
    const std::size_t before = FFreeNotifies.size();
    TComponent* other = FFreeNotifies.back();
    other->Notification(this, opRemove);
    if (FFreeNotifies.size() == before && !FFreeNotifies.empty() && FFreeNotifies.back() == other) {
      // The component kept the link (an override that did not call the inherited handler).
      FFreeNotifies.pop_back();
      other->RemoveNotification(this);
    }
  }
  FComponentState.Exclude(csFreeNotification);
}

void TComponent::BeginLoading() {
  FComponentState.Include(csLoading);
  for (TComponent* c : FComponents) c->BeginLoading();
}

void TComponent::Loaded() { FComponentState.Exclude(csLoading); }

void TComponent::SetDesigning(bool value, bool setChildren) {
  if (value)
    FComponentState.Include(csDesigning);
  else
    FComponentState.Exclude(csDesigning);
  if (setChildren)
    for (TComponent* c : FComponents) c->SetDesigning(value, true);
}

void TComponent::Notification(TComponent* AComponent, TOperation Operation) {
  if (Operation == opRemove && AComponent) RemoveFreeNotification(AComponent);
  // Owned components may leave while being told; walk down from the end and clamp.
  for (auto i = static_cast<std::ptrdiff_t>(FComponents.size()) - 1; i >= 0; --i) {
    if (static_cast<std::size_t>(i) >= FComponents.size()) {
      i = static_cast<std::ptrdiff_t>(FComponents.size());
      continue;
    }
    FComponents[static_cast<std::size_t>(i)]->Notification(AComponent, Operation);
  }
}

}  // namespace quma
