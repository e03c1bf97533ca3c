#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include <quma/CoreTypes.h>
#include <quma/PropertySet.h>

#include "rtl/TestSupport.h"

using namespace quma;

namespace {

// A property set with one property and a trace of its hooks.
class TSample : public TQUMAPropertySet {
  QUMA_CLASS(TSample, TQUMAPropertySet)
 public:
  using TQUMAPropertySet::TQUMAPropertySet;
  std::vector<std::string>* Trace = nullptr;
  void SetValue(Integer v) {
    FValue = v;
    _Change();
  }
  void Assign(TPersistent* Source) override {
    if (auto* s = dynamic_cast<TSample*>(Source)) {
      FValue = s->FValue;
      return;
    }
    TQUMAPropertySet::Assign(Source);
  }
  bool EqualTo(const TQUMAPropertySet* Other) const override {
    auto* o = dynamic_cast<const TSample*>(Other);
    return o && o->FValue == FValue;
  }

 protected:
  void _BeforeChange() override { Log("before"); }
  void _DoChange() override { Log("do"); }
  void _AfterChange() override { Log("after"); }

 private:
  void Log(const char* s) {
    if (Trace) Trace->push_back(s);
  }
  Integer FValue = 0;
};

class TSampleChild : public TSample {
  QUMA_CLASS(TSampleChild, TSample)
};
// Equal to every property set it is asked about.
class TSampleSibling : public TQUMAPropertySet {
  QUMA_CLASS(TSampleSibling, TQUMAPropertySet)
 public:
  bool EqualTo(const TQUMAPropertySet*) const override { return true; }
};

// A property set whose change listener writes into the test's trace, or fails on request.
struct PropertySetBatching : ::testing::Test {
  TObjectPtr<TSample> set = MakeObject<TSample>();
  std::vector<std::string> trace;
  int calls = 0;
  bool fail = false;
  TObject* lastSender = nullptr;
  const std::vector<std::string> kDelivery{"before", "do", "after", "listener"};  // hooks, then the listener
  void SetUp() override {
    set->Trace = &trace;
    set->SetOnChange(TNotifyEvent(
        +[](void* self, TObject* sender) { static_cast<PropertySetBatching*>(self)->Changed(sender); }, this));
  }
  void Changed(TObject* sender) {
    if (fail) throw Exception("listener failed");
    ++calls;
    lastSender = sender;
    trace.push_back("listener");
  }
};

TEST_F(PropertySetBatching, OneDeliveryPerOutermostBatchHooksBeforeListener) {
  set->SetValue(1);  // unbatched: delivered at once
  EXPECT_EQ(trace, kDelivery);
  EXPECT_EQ(lastSender, set.get());
  trace.clear();
  set->BeginUpdate();
  set->BeginUpdate();
  set->SetValue(5);
  set->SetValue(6);
  EXPECT_EQ(set->UpdateCount(), 2);  // the depth, not the number of changes
  set->EndUpdate();
  EXPECT_TRUE(set->InUpdate());
  EXPECT_TRUE(trace.empty());
  set->EndUpdate();  // delivered at the outermost end only
  EXPECT_EQ(trace, kDelivery);
  set->BeginUpdate();
  for (int i = 0; i < 3; ++i) set->EndUpdate();  // an empty batch and unmatched ends deliver nothing
  EXPECT_EQ(set->UpdateCount(), 0);
  EXPECT_EQ(calls, 2);
  {
    auto scope = set->Update();  // the depth never went negative: one Begin opens a batch again
    set->SetValue(1);
    EXPECT_EQ(calls, 2);
  }
  EXPECT_EQ(calls, 3);
  // A failing listener leaves the pending count, so the next closing of an empty batch delivers again.
  fail = true;
  set->BeginUpdate();
  set->SetValue(1);
  EXPECT_THROW(set->EndUpdate(), Exception);
  fail = false;
  trace.clear();
  set->BeginUpdate();
  set->EndUpdate();
  EXPECT_EQ(trace, kDelivery);
}

// Counts the destructions of every instance, those made through the class reference included.
class TCounted : public TQUMAPropertySet {
  QUMA_CLASS(TCounted, TQUMAPropertySet)
 public:
  using TQUMAPropertySet::TQUMAPropertySet;
  ~TCounted() override { ++Destroyed; }
  static inline int Destroyed = 0;
};

TEST(PropertySets, EqualsDuplicateAndInterfaceCounting) {
  auto base = MakeObject<TQUMAPropertySet>(), otherBase = MakeObject<TQUMAPropertySet>();
  auto three = MakeObject<TSample>(), alsoThree = MakeObject<TSample>(), four = MakeObject<TSample>();
  auto childThree = MakeObject<TSampleChild>();
  auto sibling = MakeObject<TSampleSibling>();
  auto unrelated = MakeObject<TObject>();
  for (TSample* s : {three.get(), alsoThree.get(), static_cast<TSample*>(childThree.get())}) s->SetValue(3);
  four->SetValue(4);
  // Between an ancestor and a descendant class, either way round, the properties decide; between
  // classes where neither descends from the other, never.
  const std::tuple<TQUMAPropertySet*, TObject*, bool> cases[] = {
      {base.get(), base.get(), true},        {base.get(), nullptr, false},     {base.get(), otherBase.get(), false},
      {three.get(), alsoThree.get(), true},  {three.get(), four.get(), false}, {three.get(), unrelated.get(), false},
      {three.get(), childThree.get(), true}, {childThree.get(), three.get(), true},
      {three.get(), sibling.get(), false},   {sibling.get(), three.get(), false}};
  for (const auto& [left, right, equal] : cases)
    EXPECT_EQ(left->Equals(right), equal) << Utf16ToUtf8(left->ClassName() + u" " + (right ? right->ClassName() : u"nil"));

  // Duplicate copies the run-time class and owner; a class without Assign cannot copy.
  auto owner = MakeObject<TSample>();
  auto src = MakeObject<TSample>(owner.get());
  src->SetValue(9);
  TObjectPtr<TQUMAPropertySet> copy(src->Duplicate());
  EXPECT_EQ(copy->ClassType(), TSample::StaticClass());
  EXPECT_EQ(copy->Owner(), owner.get());
  EXPECT_TRUE(copy->Equals(src.get()));
  EXPECT_EQ(src->DuplicateAs<TSample>(nullptr)->Owner(), nullptr);
  const int destroyed = TCounted::Destroyed;
  EXPECT_EQ(test::ErrorOf<EConvertError>([] { MakeObject<TCounted>()->Duplicate(); }),
            "Cannot assign a TCounted to a TCounted");
  EXPECT_EQ(TCounted::Destroyed, destroyed + 2);  // the half-made copy is freed with the source

  // Interface counting is opt-in, and the last release frees.
  auto* set = New<TCounted>();
  EXPECT_EQ(set->_AddRef(), -1);  // off by default: nothing is counted
  EXPECT_EQ(set->_Release(), -1);
  set->SetInterfaceCounted(true);
  set->SetInterfaceCounted(true);  // no change
  void* raw = nullptr;
  ASSERT_EQ(set->QueryInterface(IInterface::IID, &raw), S_OK);
  EXPECT_EQ(set->QueryInterface(IQUMASelfReturning::IID, &raw), E_NOINTERFACE);
  EXPECT_EQ(IQUMASelfReturning::IID, TGUID::Parse("{1D3AF930-F9AC-4F55-B3B4-2C09E669C15C}"));
  EXPECT_EQ(raw, nullptr);
  EXPECT_EQ(set->_AddRef(), 2);
  {
    TInterfacePtr<IInterface> ref(set);
    EXPECT_EQ(set->_Release(), 2);
    EXPECT_EQ(set->_Release(), 1);
  }
  EXPECT_EQ(TCounted::Destroyed, destroyed + 3);
}

}  // namespace
