// The referenced property set: batching through the change event, the hooks, duplication and the
// one-directional Equals.
#include <quma/ReferencedPropertySet.h>

#include "Helpers.h"

using namespace omtest;

namespace {

class TSize : public TQUMAReferencedPropertySet {
  QUMA_CLASS(TSize, TQUMAReferencedPropertySet)
 public:
  using TQUMAReferencedPropertySet::TQUMAReferencedPropertySet;
  void SetWidth(int Value) { Width = Value, _Change(); }
  void Assign(TPersistent* Source) override { SetWidth(dynamic_cast<TSize&>(*Source).Width); }
  bool EqualTo(const TQUMAReferencedPropertySet* Other) const override {
    return ++EqualToCalls, static_cast<const TSize*>(Other)->Width == Width;
  }
  int Width = 0;
  mutable int EqualToCalls = 0;
  Journal Hooks;

 protected:
  void _BeforeChange() override { Hooks.push_back("before"); }
  void _DoChange() override { Hooks.push_back("do"); }
  void _AfterChange() override { Hooks.push_back("after"); }
};

class TBox : public TSize {
  QUMA_CLASS(TBox, TSize)
 public:
  using TSize::TSize;
};

}  // namespace

TEST(ReferencedPropertySet, BatchesFireOnceHooksRunWhenWiredDuplicatesKeepTheClassAndEqualsLooksOneWay) {
  auto* size = New<TSize>(nullptr);
  THolder sub;
  TQUMAScopedSubscription subscription(*size->ChangeEvent(), Bind<&THolder::Removed>(&sub));
  const Journal hooks{"before", "do", "after"};
  size->SetWidth(1);
  EXPECT_EQ(size->Hooks, hooks);
  EXPECT_EQ(sub.Senders, std::vector<TObject*>{size->ChangeEvent()});
  size->Hooks.clear();
  {
    const auto batch = size->Update();
    EXPECT_TRUE(size->InUpdate());
    for (int w : {2, 3, 4}) size->SetWidth(w);
    EXPECT_EQ(sub.Senders.size(), 1u);
  }
  EXPECT_TRUE(size->Hooks.empty());
  size->ChangeEvent()->SetOnUnblocked(Bind<&TSize::_UnBlocked>(size));  // hooks once per batch
  size->BeginUpdate();
  size->SetWidth(5);
  size->EndUpdate();
  EXPECT_EQ(size->Hooks, hooks);
  EXPECT_EQ(sub.Senders.size(), 3u);  // one per batch
  subscription.Reset();

  auto* owner = N("owner");
  auto* box = New<TBox>(owner);
  box->SetWidth(7);
  auto copy = box->DuplicateAs<TBox>(nullptr);
  EXPECT_EQ(copy->ClassType(), TBox::StaticClass());
  EXPECT_EQ(copy->Width, 7);
  EXPECT_EQ(TObjectPtr<TQUMAReferencedPropertySet>(box->Duplicate())->Owner(), owner);
  size->SetWidth(7);
  EXPECT_TRUE(size->Equals(box));  // a descendant instance: EqualTo decides
  EXPECT_EQ(size->EqualToCalls, 1);
  EXPECT_FALSE(box->Equals(size));  // an ancestor instance: false without asking
  EXPECT_EQ(box->EqualToCalls, 0);
  EXPECT_TRUE(box->Equals(box));
  EXPECT_FALSE(box->Equals(nullptr));
  auto *plain = New<TQUMAReferencedPropertySet>(nullptr), *other = New<TQUMAReferencedPropertySet>(nullptr);
  EXPECT_FALSE(plain->Equals(other));  // the base knows no properties: distinct objects differ
  FreeAll(size, box, owner, plain, other);
}
