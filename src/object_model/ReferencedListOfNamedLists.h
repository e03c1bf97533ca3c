// Named referenced lists, and a referenced list of them found by name.
//
// TQUMANamedReferencedList<T> is a referenced persistent with a name that holds a referenced list
// of T (its items are locked on its behalf). TQUMAReferencedListOfNamedLists<T> holds such lists
// the way a referenced list holds any referenced persistent, and finds them by name (ASCII case
// ignored).
#pragma once

#include <quma/Export.h>

#include <utility>

#include <quma/ReferencedPersistent.h>

QUMA_PUBLIC_BEGIN
namespace quma {

template <class T>
class TQUMANamedReferencedList : public TQUMAReferencedPersistent {
  QUMA_CLASS(TQUMANamedReferencedList, TQUMAReferencedPersistent)
 public:
  explicit TQUMANamedReferencedList(TPersistent* AOwner = nullptr, UnicodeString AName = {})
      : TQUMAReferencedPersistent(AOwner), FName(std::move(AName)) {}
  void AfterConstruction() override {
    inherited::AfterConstruction();
    FItems = New<TQUMAReferencedList<T>>(this);
  }

  const UnicodeString& Name() const noexcept { return FName; }
  void SetName(UnicodeString Value) { FName = std::move(Value); }
  TQUMAReferencedList<T>* Items() const noexcept { return FItems; }
  ~TQUMANamedReferencedList() override { Free(std::exchange(FItems, nullptr)); }

 private:
  UnicodeString FName;
  TQUMAReferencedList<T>* FItems = nullptr;
};

template <class T>
class TQUMAReferencedListOfNamedLists : public TQUMAReferencedList<TQUMANamedReferencedList<T>> {
  QUMA_CLASS(TQUMAReferencedListOfNamedLists, TQUMAReferencedList<TQUMANamedReferencedList<T>>)
 public:
  using TNamed = TQUMANamedReferencedList<T>;
  using TQUMAReferencedList<TNamed>::TQUMAReferencedList;

  // The first list with this name, or null.
  TNamed* FindList(UnicodeStringView Name) const {
    for (TNamed* list : *this)
      if (list && SameText(list->Name(), Name)) return list;
    return nullptr;
  }
  // The list with this name, created (and held by this list) when there is none.
  TNamed* ListByName(UnicodeStringView Name) {
    if (TNamed* found = FindList(Name)) return found;
    TNamed* list = New<TNamed>(nullptr, UnicodeString(Name));
    this->Add(list);
    return list;
  }
};

}  // namespace quma
QUMA_PUBLIC_END
