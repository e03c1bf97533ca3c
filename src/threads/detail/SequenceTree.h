// An ordered sequence with logarithmic insertion at any position, removal of any element and
// position look-up: a treap keyed implicitly by position, with parent links. The service threads
// keep their schedules in it, in exactly the order a plain list would have, where a list's
// insertion scan or shift would make queueing quadratic.
//
// Node derives from TSequenceNode<Node>. If it has `void Pull() noexcept`, that is called to
// recompute its own aggregates (from its children) whenever they may have changed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace quma::detail {

template <class Node>
struct TSequenceNode {
  Node* Left = nullptr;
  Node* Right = nullptr;
  Node* Parent = nullptr;
  std::size_t Size = 1;
  std::uint32_t Priority = 0;
};

template <class Node>
class TSequenceTree {
 public:
  std::size_t Count() const noexcept { return SizeOf(FRoot); }
  bool Empty() const noexcept { return FRoot == nullptr; }
  Node* Root() const noexcept { return FRoot; }
  static std::size_t SizeOf(const Node* n) noexcept { return n ? n->Size : 0; }

  Node* First() const noexcept {
    Node* n = FRoot;
    while (n && n->Left) n = n->Left;
    return n;
  }
  Node* Last() const noexcept {
    Node* n = FRoot;
    while (n && n->Right) n = n->Right;
    return n;
  }
  static Node* Next(Node* n) noexcept {
    if (n->Right) {
      n = n->Right;
      while (n->Left) n = n->Left;
      return n;
    }
    while (n->Parent && n->Parent->Right == n) n = n->Parent;
    return n->Parent;
  }
  static std::size_t PositionOf(const Node* n) noexcept {
    std::size_t pos = SizeOf(n->Left);
    for (; n->Parent; n = n->Parent)
      if (n->Parent->Right == n) pos += SizeOf(n->Parent->Left) + 1;
    return pos;
  }

  // Inserts n so that it ends up at position pos (0 <= pos <= Count()): down to where its
  // priority belongs, then the subtree there is split around it.
  void InsertAt(std::size_t pos, Node* n) noexcept {
    n->Priority = NextPriority();
    Node** link = &FRoot;
    Node* parent = nullptr;
    while (*link && (*link)->Priority > n->Priority) {
      parent = *link;
      const std::size_t left = SizeOf(parent->Left);
      if (pos <= left) {
        link = &parent->Left;
      } else {
        pos -= left + 1;
        link = &parent->Right;
      }
    }
    Split(*link, pos, n->Left, n->Right);
    if (n->Left) n->Left->Parent = n;
    if (n->Right) n->Right->Parent = n;
    n->Parent = parent;
    *link = n;
    Refresh(n);
  }

  // Unlinks n (which must be in this tree); the node is not freed.
  void Erase(Node* n) noexcept {
    Node* joined = Merge(n->Left, n->Right);
    Node* parent = n->Parent;
    if (joined) joined->Parent = parent;
    if (!parent)
      FRoot = joined;
    else if (parent->Left == n)
      parent->Left = joined;
    else
      parent->Right = joined;
    for (; parent; parent = parent->Parent) Update(parent);
    n->Left = n->Right = n->Parent = nullptr;
  }

  // Recomputes the aggregates on the path from n to the root after n's own key changed.
  static void Refresh(Node* n) noexcept {
    for (; n; n = n->Parent) Update(n);
  }

  // Unlinks every node and returns them in order.
  std::vector<Node*> TakeAll() {
    std::vector<Node*> all;
    all.reserve(Count());
    for (Node* n = First(); n; n = Next(n)) all.push_back(n);
    FRoot = nullptr;
    return all;
  }

 private:
  static void Update(Node* n) noexcept {
    n->Size = 1 + SizeOf(n->Left) + SizeOf(n->Right);
    if constexpr (requires { n->Pull(); }) n->Pull();
  }

  // left receives the first k nodes of t, right the rest.
  static void Split(Node* t, std::size_t k, Node*& left, Node*& right) noexcept {
    if (!t) {
      left = right = nullptr;
      return;
    }
    if (SizeOf(t->Left) < k) {
      Split(t->Right, k - SizeOf(t->Left) - 1, t->Right, right);
      if (t->Right) t->Right->Parent = t;
      if (right) right->Parent = nullptr;
      Update(t);
      left = t;
    } else {
      Split(t->Left, k, left, t->Left);
      if (t->Left) t->Left->Parent = t;
      if (left) left->Parent = nullptr;
      Update(t);
      right = t;
    }
  }

  static Node* Merge(Node* a, Node* b) noexcept {
    if (!a) return b;
    if (!b) return a;
    if (a->Priority > b->Priority) {
      a->Right = Merge(a->Right, b);
      a->Right->Parent = a;
      Update(a);
      return a;
    }
    b->Left = Merge(a, b->Left);
    b->Left->Parent = b;
    Update(b);
    return b;
  }

  std::uint32_t NextPriority() noexcept {  // xorshift32: balance needs spread, not secrecy
    FSeed ^= FSeed << 13;
    FSeed ^= FSeed >> 17;
    FSeed ^= FSeed << 5;
    return FSeed;
  }

  Node* FRoot = nullptr;
  std::uint32_t FSeed = 0x9E3779B9u;
};

}  // namespace quma::detail
