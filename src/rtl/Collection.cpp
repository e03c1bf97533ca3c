#include <quma/Collection.h>

#include <algorithm>

namespace quma {

// ---- TCollectionItem ----

TCollectionItem::TCollectionItem(TCollection* Collection) { SetCollection(Collection); }

// The collection hears of the item leaving while the item is whole.
void TCollectionItem::BeforeDestruction() {
  SetCollection(nullptr);
  inherited::BeforeDestruction();
}

TCollectionItem::~TCollectionItem() { SetCollection(nullptr); }

void TCollectionItem::SetCollection(TCollection* Value) {
  if (Value == FCollection) return;
  if (FCollection) FCollection->RemoveItem(this);
  if (Value) Value->InsertItem(this);
}

Integer TCollectionItem::Index() const {
  if (!FCollection) return -1;
  const auto& items = FCollection->FItems;
  auto it = std::find(items.begin(), items.end(), this);
  return it == items.end() ? -1 : static_cast<Integer>(it - items.begin());
}

void TCollectionItem::SetIndex(Integer Value) {
  const Integer current = Index();
  if (current < 0 || Value == current) return;
  auto& items = FCollection->FItems;
  if (Value < 0) Value = 0;
  if (Value >= static_cast<Integer>(items.size())) Value = static_cast<Integer>(items.size()) - 1;
  items.erase(items.begin() + current);
  items.insert(items.begin() + Value, this);
  Changed(true);
}

UnicodeString TCollectionItem::GetNamePath() const {
  if (!FCollection) return ClassName();
  return FCollection->GetNamePath() + u"[" + IntToStr(Index()) + u"]";
}

TPersistent* TCollectionItem::GetOwner() const { return FCollection; }

void TCollectionItem::Changed(bool AllItems) {
  if (FCollection && FCollection->UpdateCount() == 0) FCollection->Update(AllItems ? nullptr : this);
}

// ---- TCollection ----

TCollection::TCollection(TCollectionItemClass ItemClass) : FItemClass(ItemClass) {}

// The items go while the collection is whole, so that Notify overrides see each one leave.
void TCollection::BeforeDestruction() {
  FUpdateCount = 1;  // no Update calls while going
  Clear();
  inherited::BeforeDestruction();
}

TCollection::~TCollection() {
  FUpdateCount = 1;
  Clear();
}

TCollectionItem* TCollection::Add() {
  TCollectionItem* item = FItemClass.Create(this);
  if (!item)
    throw EInvalidOperation(Format(u"Cannot create an item of class %s",
                                   FItemClass ? FItemClass.Get()->ClassName() : UnicodeString(u"nil")));
  return item;
}

TCollectionItem* TCollection::Insert(Integer Index) {
  BeginUpdate();
  TCollectionItem* item = nullptr;
  try {
    item = Add();
    item->SetIndex(Index);
  } catch (...) {
    EndUpdate();
    throw;
  }
  EndUpdate();
  return item;
}

void TCollection::Delete(Integer Index) {
  TCollectionItem* item = Items(Index);
  Notify(item, cnDeleting);
  Free(item);
}

void TCollection::Clear() {
  if (FItems.empty()) return;
  BeginUpdate();
  while (!FItems.empty()) Free(FItems.back());
  EndUpdate();
}

TCollectionItem* TCollection::Items(Integer Index) const {
  if (Index < 0 || Index >= Count()) throw EListError::OutOfBounds(Index);
  return FItems[static_cast<std::size_t>(Index)];
}

TCollectionItem* TCollection::FindItemID(Integer ID) const {
  for (TCollectionItem* item : FItems)
    if (item->FID == ID) return item;
  return nullptr;
}

void TCollection::BeginUpdate() { ++FUpdateCount; }

void TCollection::EndUpdate() {
  if (FUpdateCount > 0 && --FUpdateCount == 0) Changed();
}

void TCollection::Changed() {
  if (FUpdateCount == 0) Update(nullptr);
}

void TCollection::Assign(TPersistent* Source) {
  auto* source = dynamic_cast<TCollection*>(Source);
  if (!source) {
    inherited::Assign(Source);
    return;
  }
  if (source == this) return;
  BeginUpdate();
  try {
    Clear();
    for (TCollectionItem* item : source->FItems) Add()->Assign(item);
  } catch (...) {
    EndUpdate();
    throw;
  }
  EndUpdate();
}

void TCollection::InsertItem(TCollectionItem* Item) {
  FItems.push_back(Item);
  Item->FCollection = this;
  Item->FID = FNextID++;
  Notify(Item, cnAdded);
  Changed();
}

void TCollection::RemoveItem(TCollectionItem* Item) {
  Notify(Item, cnExtracting);
  auto it = std::find(FItems.begin(), FItems.end(), Item);
  if (it != FItems.end()) FItems.erase(it);
  Item->FCollection = nullptr;
  Changed();
}

}  // namespace quma
