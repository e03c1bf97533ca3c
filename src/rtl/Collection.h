// The host collection: items that belong to one collection, created through the collection's item
// class, with an update bracket and change notifications; TOwnedCollection adds an owner.
//
//   auto* list = New<TOwnedCollection>(owner, TCollectionItemClass(TMyItem::StaticClass()));
//   auto* item = static_cast<TMyItem*>(list->Add());   // TMyItem(TCollection*) constructor
//   quma::Free(item);                                  // leaves the collection
#pragma once

#include <quma/Export.h>

#include <vector>

#include <quma/Classes.h>
#include <quma/Generics.h>
#include <quma/Object.h>

QUMA_PUBLIC_BEGIN
namespace quma {

class TCollection;

class TCollectionItem : public TPersistent {
  QUMA_CLASS(TCollectionItem, TPersistent)
  QUMA_VIRTUAL_CONSTRUCTOR(TCollection*)
 public:
  explicit TCollectionItem(TCollection* Collection = nullptr);
  void BeforeDestruction() override;
  ~TCollectionItem() override;

  TCollection* Collection() const noexcept { return FCollection; }
  // Moves the item to another collection (null: out of any).
  virtual void SetCollection(TCollection* Value);
  // Position in the collection, -1 outside one.
  Integer Index() const;
  // Moves the item within its collection.
  virtual void SetIndex(Integer Value);
  // Unique within the collection, never reused.
  Integer ID() const noexcept { return FID; }
  UnicodeString DisplayName() const { return GetDisplayName(); }
  UnicodeString GetNamePath() const override;

 protected:
  TPersistent* GetOwner() const override;
  virtual UnicodeString GetDisplayName() const { return ClassName(); }
  // Tells the collection that this item changed (AllItems: the change concerns every item).
  void Changed(bool AllItems);

 private:
  friend class TCollection;
  TCollection* FCollection = nullptr;
  Integer FID = 0;
};
using TCollectionItemClass = TClassOf<TCollectionItem>;

class TCollection : public TPersistent {
  QUMA_CLASS(TCollection, TPersistent)
 public:
  explicit TCollection(TCollectionItemClass ItemClass);
  void BeforeDestruction() override;
  ~TCollection() override;

  // A new item of the item class, appended.
  TCollectionItem* Add();
  // A new item at Index.
  TCollectionItem* Insert(Integer Index);
  // Frees the item at Index.
  void Delete(Integer Index);
  // Frees every item, newest first.
  void Clear();
  Integer Count() const noexcept { return static_cast<Integer>(FItems.size()); }
  // Raises EListError ("List index out of bounds (%d)") for a bad index.
  TCollectionItem* Items(Integer Index) const;
  TCollectionItem* FindItemID(Integer ID) const;
  TCollectionItemClass ItemClass() const noexcept { return FItemClass; }

  void BeginUpdate();
  void EndUpdate();
  Integer UpdateCount() const noexcept { return FUpdateCount; }

  // Copies Source's items (same count, each assigned in turn) when Source is a collection.
  void Assign(TPersistent* Source) override;

 protected:
  // Called after an item changed (Item null: possibly every item), outside update brackets.
  virtual void Update(TCollectionItem* Item) { (void)Item; }
  // Called when an item joins (cnAdded) or leaves (cnExtracting) the collection, and before
  // Delete frees one (cnDeleting).
  virtual void Notify(TCollectionItem* Item, TCollectionNotification Action) { (void)Item, (void)Action; }
  void Changed();

 private:
  friend class TCollectionItem;
  void InsertItem(TCollectionItem* Item);
  void RemoveItem(TCollectionItem* Item);

  TCollectionItemClass FItemClass;
  std::vector<TCollectionItem*> FItems;
  Integer FUpdateCount = 0;
  Integer FNextID = 0;
};

class TOwnedCollection : public TCollection {
  QUMA_CLASS(TOwnedCollection, TCollection)
 public:
  TOwnedCollection(TPersistent* AOwner, TCollectionItemClass ItemClass) : TCollection(ItemClass), FOwner(AOwner) {}

 protected:
  TPersistent* GetOwner() const override { return FOwner; }

 private:
  TPersistent* FOwner;
};

}  // namespace quma
QUMA_PUBLIC_END
