// The type-only units: referenced stack, named lists, owned collection.
#include <quma/OwnedCollection.h>
#include <quma/ReferencedListOfNamedLists.h>
#include <quma/ReferencedPersistentStack.h>

#include "Helpers.h"

using namespace omtest;

TEST(ReferencedStackAndNamedLists, HoldTheirItemsWhileTheyKeepThemAndFindListsByName) {
  auto* stack = New<TQUMAReferencedPersistentStack<TNode>>();
  auto *a = N("a"), *b = N("b");
  THolder keeper;
  a->AddMemLockReference(&keeper);
  stack->Push(a);
  stack->Push(b);
  EXPECT_EQ(stack->Peek(), b);
  EXPECT_EQ(stack->Pop(), nullptr);  // b's only lock went with it, and b with it
  EXPECT_EQ(stack->Pop(), a);
  EXPECT_THROW(stack->Pop(), EListError);
  EXPECT_EQ(ErrorOf<EListError>([&] { stack->Peek(); }), "Unbalanced stack or queue operation");
  a->RemoveMemLockReference(&keeper);
  EXPECT_TRUE(QUMAIsFreed(a));
  Free(stack);

  auto* lists = New<TQUMAReferencedListOfNamedLists<TNode>>();
  auto* red = lists->ListByName(u"Red");
  EXPECT_EQ(lists->ListByName(u"RED"), red);
  EXPECT_EQ(lists->FindList(u"blue"), nullptr);
  auto* x = N("x");
  red->Items()->Add(x);
  EXPECT_TRUE(x->IsLockedBy(red));
  TQUMAGuardedPtr<TNode> gx(x);
  Free(lists);  // the named list loses its only lock, and takes x with it
  EXPECT_FALSE(gx);
}

namespace {
class TColumn : public TCollectionItem {
  QUMA_CLASS(TColumn, TCollectionItem)
 public:
  using TCollectionItem::TCollectionItem;
  void Assign(TPersistent* Source) override {
    if (auto* c = dynamic_cast<TColumn*>(Source)) return void(Width = c->Width);
    inherited::Assign(Source);
  }
  int Width = 0;
};
using TColumns = TQUMAOwnedCollection<TColumn>;
}  // namespace

TEST(OwnedCollection, TypedItemsWithOwnerIndexAndIds) {
  auto* owner = N("grid");
  TObjectPtr<TColumns> columns(New<TColumns>(owner)), copy(New<TColumns>(nullptr));
  TColumn *a = columns->Add(), *b = columns->Add(), *c = columns->Insert(0);
  EXPECT_EQ(columns->Items(0), c);
  EXPECT_EQ(b->Index(), 2);
  EXPECT_EQ(c->ID(), 2);
  EXPECT_EQ(columns->FindItemID(1), b);
  EXPECT_EQ(columns->Owner(), owner);
  EXPECT_EQ(a->Owner(), columns.get());
  a->Width = 7;
  b->SetIndex(0);
  EXPECT_EQ((*columns)[0], b);
  EXPECT_EQ(ErrorOf<EListError>([&] { columns->Items(3); }), "List index out of bounds (3)");
  columns->Delete(0);
  Free(c);  // an item freed directly leaves its collection
  EXPECT_EQ(columns->Count(), 1);
  for (int i = 0; i < 2; ++i) copy->Add();  // replaced by the assignment
  copy->Assign(columns.get());
  ASSERT_EQ(copy->Count(), 1);
  EXPECT_EQ(copy->Items(0)->Width, 7);
  EXPECT_THROW(copy->Assign(owner), EConvertError);
  columns.reset();
  Free(owner);
}
