// A collection with an owner whose items are of one known class: TQUMAOwnedCollection<T> is the
// host owned collection with typed access.
//
//   TQUMAOwnedCollection<TColumn> columns(grid);
//   TColumn* c = columns.Add();
#pragma once

#include <quma/Export.h>

#include <type_traits>

#include <quma/Collection.h>

QUMA_PUBLIC_BEGIN
namespace quma {

template <class T>
class TQUMAOwnedCollection : public TOwnedCollection {
  QUMA_CLASS(TQUMAOwnedCollection, TOwnedCollection)
 public:
  static_assert(std::is_base_of_v<TCollectionItem, T>, "items are collection items");
  explicit TQUMAOwnedCollection(TPersistent* AOwner) : TOwnedCollection(AOwner, TCollectionItemClass(T::StaticClass())) {}

  T* Add() { return static_cast<T*>(TOwnedCollection::Add()); }
  T* Insert(Integer Index) { return static_cast<T*>(TOwnedCollection::Insert(Index)); }
  T* Items(Integer Index) const { return static_cast<T*>(TOwnedCollection::Items(Index)); }
  T* operator[](Integer Index) const { return Items(Index); }
  T* FindItemID(Integer ID) const { return static_cast<T*>(TOwnedCollection::FindItemID(ID)); }
};

}  // namespace quma
QUMA_PUBLIC_END
