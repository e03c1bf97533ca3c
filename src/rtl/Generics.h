// Generic containers of the runtime base layer: TList<T> with a comparer and an overridable
// Notify, the owning TObjectList<T>, TDictionary<K, V> and TStack<T>.
//
// A Notify override may free the list (a notifying list that deletes itself from a handler):
// every operation calls Notify last, and operations that notify several items stop when the list
// has gone.
#pragma once

#include <quma/Export.h>

#include <algorithm>
#include <compare>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <unordered_map>
#include <utility>
#include <vector>

#include <quma/Method.h>
#include <quma/Object.h>
#include <quma/SysUtils.h>

QUMA_PUBLIC_BEGIN
namespace quma {

// The host collection notification values, in the host's order.
enum class TCollectionNotification { cnAdding, cnAdded, cnExtracting, cnExtracted, cnDeleting, cnRemoved };
using enum TCollectionNotification;

// Three-way comparison of two values: <0, 0 or >0.
template <class T>
class IComparer {
 public:
  virtual ~IComparer() = default;
  virtual int Compare(const T& left, const T& right) const = 0;
};

template <class T>
class TComparer {
 public:
  using TComparison = std::function<int(const T&, const T&)>;

  // Ordering by <=> or <, else equality only (unequal values compare as 1).
  static std::shared_ptr<const IComparer<T>> Default() {
    static const std::shared_ptr<const IComparer<T>> instance = std::make_shared<DefaultComparer>();
    return instance;
  }
  static std::shared_ptr<const IComparer<T>> Construct(TComparison comparison) {
    return std::make_shared<DelegatedComparer>(std::move(comparison));
  }

 private:
  struct DefaultComparer final : IComparer<T> {
    int Compare(const T& a, const T& b) const override {
      if constexpr (std::three_way_comparable<T>) {
        auto c = a <=> b;
        return c < 0 ? -1 : c > 0 ? 1 : 0;
      } else if constexpr (requires { a < b; }) {
        return a < b ? -1 : b < a ? 1 : 0;
      } else {
        return a == b ? 0 : 1;
      }
    }
  };
  struct DelegatedComparer final : IComparer<T> {
    explicit DelegatedComparer(TComparison f) : F(std::move(f)) {}
    int Compare(const T& a, const T& b) const override { return F(a, b); }
    TComparison F;
  };
};

namespace detail {
// Lets a multi-item operation notice that a Notify handler freed the container.
struct TAliveFlag {
  bool Alive = true;
  TAliveFlag** Slot;
  TAliveFlag* Previous;
  explicit TAliveFlag(TAliveFlag*& slot) noexcept : Slot(&slot), Previous(slot) { slot = this; }
  ~TAliveFlag() {
    if (Alive) *Slot = Previous;
  }
  static void KillAll(TAliveFlag* head) noexcept {
    for (; head; head = head->Previous) head->Alive = false;
  }
};
}  // namespace detail

template <class T>
class TList : public TObject {
  QUMA_CLASS(TList, TObject)
 public:
  using TCollectionNotifyEvent = TMethod<void(TObject* Sender, const T& Item, TCollectionNotification Action)>;
  using value_type = T;
  using iterator = typename std::vector<T>::const_iterator;

  TList() : FComparer(TComparer<T>::Default()) {}
  explicit TList(std::shared_ptr<const IComparer<T>> comparer)
      : FComparer(comparer ? std::move(comparer) : TComparer<T>::Default()) {}
  // Freeing a list removes its items first, while the object is whole, so that Notify overrides
  // hear of every item as Clear would tell them.
  void BeforeDestruction() override {
    Clear();
    TObject::BeforeDestruction();
  }
  ~TList() override { detail::TAliveFlag::KillAll(FAlive); }

  Integer Count() const noexcept { return static_cast<Integer>(FItems.size() - FHead); }
  bool IsEmpty() const noexcept { return FItems.size() == FHead; }
  Integer Capacity() const noexcept { return static_cast<Integer>(FItems.capacity() - FHead); }
  void SetCapacity(Integer n) { FItems.reserve(FHead + static_cast<std::size_t>(std::max(n, 0))); }

  const T& operator[](Integer index) const {
    CheckIndex(index, Count());
    return At(index);
  }
  const T& Items(Integer index) const { return (*this)[index]; }
  const T& First() const { return (*this)[0]; }
  const T& Last() const { return (*this)[Count() - 1]; }

  // Replaces an item: the old one is notified as removed, the new one as added.
  void SetItem(Integer index, T value) {
    CheckIndex(index, Count());
    const T added = value;  // handlers may change the list, so they never see its storage
    T old = std::exchange(At(index), std::move(value));
    detail::TAliveFlag alive(FAlive);
    Notify(old, cnRemoved);
    if (alive.Alive) Notify(added, cnAdded);
  }

  Integer Add(T value) {
    const T added = value;  // handlers may grow the list, so they never see its storage
    FItems.push_back(std::move(value));
    const Integer index = Count() - 1;
    Notify(added, cnAdded);
    return index;
  }
  void AddRange(const std::vector<T>& values) {
    for (const T& v : values) Insert(Count(), v);
  }
  void Insert(Integer index, T value) {
    CheckIndex(index, Count() + 1);
    const T added = value;
    if (index == 0 && FHead > 0) {
      FItems[FHead - 1] = std::move(value);  // reuse the slot a front removal left
      --FHead;
    } else {
      FItems.insert(Begin() + index, std::move(value));
    }
    Notify(added, cnAdded);
  }

  Integer IndexOf(const T& value) const {
    for (std::size_t i = FHead; i < FItems.size(); ++i)
      if (FComparer->Compare(FItems[i], value) == 0) return static_cast<Integer>(i - FHead);
    return -1;
  }
  Integer LastIndexOf(const T& value) const {
    for (std::size_t i = FItems.size(); i-- > FHead;)
      if (FComparer->Compare(FItems[i], value) == 0) return static_cast<Integer>(i - FHead);
    return -1;
  }
  bool Contains(const T& value) const { return IndexOf(value) >= 0; }

  // Removes the first equal item; returns its former index or -1.
  Integer Remove(const T& value) {
    const Integer index = IndexOf(value);
    if (index >= 0) Delete(index);
    return index;
  }
  void Delete(Integer index) {
    CheckIndex(index, Count());
    T old = TakeOut(index);
    Notify(old, cnRemoved);
  }
  void DeleteRange(Integer index, Integer count) {
    if (index < 0 || count < 0 || index + count > Count()) throw EArgumentOutOfRangeException(SArgumentOutOfRange);
    if (count == 0) return;
    std::vector<T> old(std::make_move_iterator(Begin() + index), std::make_move_iterator(Begin() + index + count));
    FItems.erase(Begin() + index, Begin() + index + count);
    NotifyAll(old, cnRemoved);
  }
  // Takes an item out without the removal a owning list would act on (notified as extracted).
  std::optional<T> Extract(const T& value) {
    const Integer index = IndexOf(value);
    if (index < 0) return std::nullopt;
    return ExtractAt(index);
  }
  T ExtractAt(Integer index) {
    CheckIndex(index, Count());
    T old = TakeOut(index);
    Notify(old, cnExtracted);
    return old;
  }
  // Removes every item, notifying each as removed, first to last.
  void Clear() {
    std::vector<T> old(std::make_move_iterator(Begin()), std::make_move_iterator(FItems.end()));
    FItems.clear();
    FHead = 0;
    NotifyAll(old, cnRemoved);
  }

  void Exchange(Integer a, Integer b) {
    CheckIndex(a, Count());
    CheckIndex(b, Count());
    std::swap(At(a), At(b));
  }
  void Move(Integer from, Integer to) {
    CheckIndex(from, Count());
    CheckIndex(to, Count());
    T v = std::move(At(from));
    FItems.erase(Begin() + from);
    FItems.insert(Begin() + to, std::move(v));
  }
  void Reverse() { std::reverse(Begin(), FItems.end()); }
  void Sort() {
    std::stable_sort(Begin(), FItems.end(), [this](const T& a, const T& b) { return FComparer->Compare(a, b) < 0; });
  }
  void Sort(const IComparer<T>& comparer) {
    std::stable_sort(Begin(), FItems.end(), [&](const T& a, const T& b) { return comparer.Compare(a, b) < 0; });
  }
  // On a list sorted by its comparer: true and the index when found, else false and the
  // insertion point.
  bool BinarySearch(const T& value, Integer& index) const {
    auto it = std::lower_bound(begin(), end(), value,
                               [this](const T& a, const T& b) { return FComparer->Compare(a, b) < 0; });
    index = static_cast<Integer>(it - begin());
    return it != end() && FComparer->Compare(*it, value) == 0;
  }

  const std::shared_ptr<const IComparer<T>>& Comparer() const noexcept { return FComparer; }
  // The items in order, without copying; valid until the list changes.
  std::span<const T> View() const noexcept { return std::span<const T>(FItems.data() + FHead, FItems.size() - FHead); }
  std::vector<T> ToVector() const { return std::vector<T>(begin(), end()); }
  iterator begin() const noexcept { return FItems.begin() + static_cast<std::ptrdiff_t>(FHead); }
  iterator end() const noexcept { return FItems.end(); }

  TCollectionNotifyEvent OnNotify;

 protected:
  // Called after every addition, extraction and removal, with a copy of the item (never a
  // reference into the list, which the handler may change or free). The default calls OnNotify.
  virtual void Notify(const T& Item, TCollectionNotification Action) {
    if (OnNotify) OnNotify(this, Item, Action);
  }

  static void CheckIndex(Integer index, Integer limit) {
    if (index < 0 || index >= limit) throw EArgumentOutOfRangeException(SArgumentOutOfRange);
  }
  // A handler that frees the list while the final Clear notifies leaves the release to the
  // Free already under way.
  bool EnterDestruction() noexcept override { return !std::exchange(FDestroying, true); }

 private:
  // Storage: the live items are FItems[FHead..]. Removing the first item only moves FHead, so a
  // list emptied from the front costs linear time in all; the dead prefix is dropped once it is
  // at least half the storage.
  typename std::vector<T>::iterator Begin() noexcept { return FItems.begin() + static_cast<std::ptrdiff_t>(FHead); }
  T& At(Integer index) noexcept { return FItems[FHead + static_cast<std::size_t>(index)]; }
  const T& At(Integer index) const noexcept { return FItems[FHead + static_cast<std::size_t>(index)]; }
  T TakeOut(Integer index) {
    T old = std::move(At(index));
    if (index == 0) {
      ++FHead;
      if (FHead == FItems.size()) {
        FItems.clear();
        FHead = 0;
      } else if (FHead >= 32 && FHead * 2 >= FItems.size()) {
        FItems.erase(FItems.begin(), Begin());
        FHead = 0;
      }
    } else {
      FItems.erase(Begin() + index);
    }
    return old;
  }
  void NotifyAll(const std::vector<T>& items, TCollectionNotification action) {
    detail::TAliveFlag alive(FAlive);
    for (const T& v : items) {
      Notify(v, action);
      if (!alive.Alive) return;
    }
  }

  std::vector<T> FItems;
  std::size_t FHead = 0;
  std::shared_ptr<const IComparer<T>> FComparer;
  detail::TAliveFlag* FAlive = nullptr;
  bool FDestroying = false;
};

// A list of objects that frees the objects it removes while OwnsObjects is true (extraction
// hands the object back instead).
template <class T>
class TObjectList : public TList<T*> {
  QUMA_CLASS(TObjectList, TList<T*>)
 public:
  explicit TObjectList(bool ownsObjects = true) : FOwnsObjects(ownsObjects) {}
  TObjectList(std::shared_ptr<const IComparer<T*>> comparer, bool ownsObjects = true)
      : TList<T*>(std::move(comparer)), FOwnsObjects(ownsObjects) {}
  // Owned items left by a handler of the final Clear; the list frees them without notifying.
  ~TObjectList() override {
    if (FOwnsObjects)
      for (T* item : this->View()) Free(item);
  }

  bool OwnsObjects() const noexcept { return FOwnsObjects; }
  void SetOwnsObjects(bool value) noexcept { FOwnsObjects = value; }

 protected:
  void Notify(T* const& Item, TCollectionNotification Action) override {
    const bool owns = FOwnsObjects;  // the handler below may free this list
    T* item = Item;
    TList<T*>::Notify(Item, Action);
    if (owns && Action == cnRemoved) Free(item);
  }

 private:
  bool FOwnsObjects;
};

// Hash dictionary with the host's error behaviour. Iteration order is unspecified.
template <class K, class V, class Hash = std::hash<K>>
class TDictionary : public TObject {
  QUMA_CLASS(TDictionary, TObject)
 public:
  using map_type = std::unordered_map<K, V, Hash>;

  TDictionary() = default;

  Integer Count() const noexcept { return static_cast<Integer>(FMap.size()); }
  // Raises EListError ("Duplicates not allowed") for a key already present.
  void Add(const K& key, V value) {
    if (!FMap.try_emplace(key, std::move(value)).second) throw EListError(SDuplicateItem);
  }
  void AddOrSetValue(const K& key, V value) { FMap.insert_or_assign(key, std::move(value)); }
  bool TryAdd(const K& key, V value) { return FMap.try_emplace(key, std::move(value)).second; }
  bool ContainsKey(const K& key) const { return FMap.find(key) != FMap.end(); }
  bool TryGetValue(const K& key, V& value) const {
    auto it = FMap.find(key);
    if (it == FMap.end()) return false;
    value = it->second;
    return true;
  }
  V* Find(const K& key) noexcept {
    auto it = FMap.find(key);
    return it == FMap.end() ? nullptr : &it->second;
  }
  const V* Find(const K& key) const noexcept {
    auto it = FMap.find(key);
    return it == FMap.end() ? nullptr : &it->second;
  }
  // Raises EListError ("Item not found") for a missing key.
  const V& Items(const K& key) const {
    auto it = FMap.find(key);
    if (it == FMap.end()) throw EListError(SItemNotFound);
    return it->second;
  }
  V& Items(const K& key) {
    auto it = FMap.find(key);
    if (it == FMap.end()) throw EListError(SItemNotFound);
    return it->second;
  }
  bool Remove(const K& key) { return FMap.erase(key) != 0; }
  std::optional<V> ExtractPair(const K& key) {
    auto node = FMap.extract(key);
    if (node.empty()) return std::nullopt;
    return std::move(node.mapped());
  }
  void Clear() noexcept { FMap.clear(); }
  std::vector<K> Keys() const {
    std::vector<K> keys;
    keys.reserve(FMap.size());
    for (const auto& kv : FMap) keys.push_back(kv.first);
    return keys;
  }
  std::vector<V> Values() const {
    std::vector<V> values;
    values.reserve(FMap.size());
    for (const auto& kv : FMap) values.push_back(kv.second);
    return values;
  }
  auto begin() const noexcept { return FMap.begin(); }
  auto end() const noexcept { return FMap.end(); }
  const map_type& Map() const noexcept { return FMap; }

 private:
  map_type FMap;
};

template <class T>
class TStack : public TObject {
  QUMA_CLASS(TStack, TObject)
 public:
  Integer Count() const noexcept { return static_cast<Integer>(FItems.size()); }
  void Push(T value) { FItems.push_back(std::move(value)); }
  // Pop and Peek on an empty stack raise EListError ("Unbalanced stack or queue operation").
  T Pop() {
    if (FItems.empty()) throw EListError(SUnbalancedOperation);
    T v = std::move(FItems.back());
    FItems.pop_back();
    return v;
  }
  const T& Peek() const {
    if (FItems.empty()) throw EListError(SUnbalancedOperation);
    return FItems.back();
  }
  void Clear() noexcept { FItems.clear(); }

 private:
  std::vector<T> FItems;
};

}  // namespace quma
QUMA_PUBLIC_END
