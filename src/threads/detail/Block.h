// One block of a schedule kept as a row of blocks: a vector whose front entries can be taken
// without shifting the rest (they are dropped in bulk once they make up half of it).
#pragma once

#include <cstddef>
#include <vector>

namespace quma::detail {

template <class T>
struct TBlock {
  std::vector<T> Items;
  std::size_t Head = 0;  // entries before Head have been taken

  std::size_t Size() const noexcept { return Items.size() - Head; }
  T* Begin() noexcept { return Items.data() + Head; }
  T* End() noexcept { return Items.data() + Items.size(); }
  const T* Begin() const noexcept { return Items.data() + Head; }
  const T* End() const noexcept { return Items.data() + Items.size(); }
  const T& Front() const noexcept { return Items[Head]; }
  const T& Back() const noexcept { return Items.back(); }

  void InsertAt(std::size_t offset, T item) {
    Items.insert(Items.begin() + static_cast<std::ptrdiff_t>(Head + offset), std::move(item));
  }
  void EraseAt(std::size_t offset) {
    if (offset > 0) {
      Items.erase(Items.begin() + static_cast<std::ptrdiff_t>(Head + offset));
      return;
    }
    if (++Head * 2 > Items.size() && Head > 64) Compact();
  }
  void Compact() {
    Items.erase(Items.begin(), Items.begin() + static_cast<std::ptrdiff_t>(Head));
    Head = 0;
  }
  // Moves the upper half into a new block.
  TBlock SplitOff() {
    Compact();
    TBlock upper;
    const auto middle = Items.begin() + static_cast<std::ptrdiff_t>(Items.size() / 2);
    upper.Items.assign(middle, Items.end());
    Items.erase(middle, Items.end());
    return upper;
  }
};

}  // namespace quma::detail
