// Who is subscribed, in which order, and who counts as the same subscriber.
#include <gtest/gtest.h>

#include <quma/SubscribedEvent.h>

#include "EventTestSupport.h"

using namespace quma;
using quma::test::TLog;
using quma::test::TProbe;

namespace {

class SubscriberOrder : public ::testing::Test {
 protected:
  TLog log;
  TObjectPtr<TQUMASubscribedEvent> event = MakeObject<TQUMASubscribedEvent>();
  TObjectPtr<TProbe> a = MakeObject<TProbe>(log, "a"), b = MakeObject<TProbe>(log, "b"),
                     c = MakeObject<TProbe>(log, "c");
};

TEST_F(SubscriberOrder, DuplicatesAreIgnoredAndKeepTheirPlace) {
  event->PrioritySubscribe(a->OnA());  // on an empty event: appended
  event->Subscribe(b->OnA());
  event->Subscribe(a->OnA());
  event->PrioritySubscribe(b->OnA());  // already there: not moved to the front
  event->PrioritySubscribe(c->OnA());
  event->FireCallbacks();
  EXPECT_EQ(log, (TLog{"c.A", "a.A", "b.A"}));
}

TEST_F(SubscriberOrder, IdentityIsTheCodeAndObjectPair) {
  event->Subscribe(a->OnA());
  event->Subscribe(b->OnA());                        // same code, other object
  event->Subscribe(a->OnB());                        // same object, other method
  event->Subscribe(TNotifyEvent(nullptr, c.get()));  // no code: kept, never called
  EXPECT_EQ(event->SubscriberCount(), 4);
  EXPECT_TRUE(event->IsSubscribed(a->OnB()));
  EXPECT_FALSE(event->IsSubscribed(c->OnA()));
  event->Unsubscribe(c->OnA());  // absent: ignored
  event->Unsubscribe(a->OnA());
  event->FireCallbacks();
  EXPECT_EQ(log, (TLog{"b.A", "a.B"}));
}

TEST(CallbackList, CompareOrdersByObjectThenCode) {
  TLog log;
  auto p = MakeObject<TProbe>(log, "p"), q = MakeObject<TProbe>(log, "q");
  TProbe* lo = std::min(p.get(), q.get());
  TProbe* hi = std::max(p.get(), q.get());
  const TNotifyEvent loA = lo->OnA(), loB = lo->OnB(), hiA = hi->OnA();
  const int codeOrder = loA.CodeAddress() < loB.CodeAddress() ? -1 : 1;
  EXPECT_EQ(TQUMACallbackList::_CompareCallbacks(loA, loA), 0);
  EXPECT_EQ(TQUMACallbackList::_CompareCallbacks(loA, hiA), -1);
  EXPECT_EQ(TQUMACallbackList::_CompareCallbacks(hiA, loB), 1);  // the object decides first
  EXPECT_EQ(TQUMACallbackList::_CompareCallbacks(loA, loB), codeOrder);
  EXPECT_EQ(TQUMACallbackList::_CompareCallbacks(loB, loA), -codeOrder);

  auto list = MakeObject<TQUMACallbackList>();  // searches find only the exact pair
  list->Add(hiA);
  list->Add(loB);
  EXPECT_EQ(list->IndexOf(loB), 1);
  EXPECT_FALSE(list->Contains(loA));
}

TEST_F(SubscriberOrder, SenderIsTheCallbackObjectOrTheEvent) {
  event->Subscribe(a->OnA());
  event->FireCallbacks();
  EXPECT_EQ(a->LastSender, event.get());
  event->SetCallbackObject(c.get());
  event->FireCallbacks();
  EXPECT_EQ(a->LastSender, c.get());
  event->SetCallbackObject(nullptr);  // back to the default
  EXPECT_EQ(event->CallbackObject(), event.get());

  auto owned = MakeObject<TQUMASubscribedEvent>(b.get());
  owned->Subscribe(a->OnA());
  owned->FireCallbacks();
  EXPECT_EQ(a->LastSender, b.get());
}

TEST_F(SubscriberOrder, SnapshotIsInvokedWithoutTheEvent) {
  event->Subscribe(a->OnA());
  event->Subscribe(b->OnA());
  auto snapshot = MakeObject<TQUMACallbackList>();
  snapshot->Add(b->OnA());
  event->PopulateCallbacks(snapshot.get());  // appends, no duplicate check
  event->PopulateCallbacks(nullptr);
  event->Unsubscribe(a->OnA());
  a->Action = [&] {  // the walk re-reads the count
    if (snapshot->Count() == 3) snapshot->Add(c->OnA());
  };
  snapshot->InvokeCallbacks(c.get());
  EXPECT_EQ(log, (TLog{"b.A", "a.A", "b.A", "c.A"}));
  EXPECT_EQ(a->LastSender, c.get());
}

// Every step goes through the virtual slots, so an override changes all callers.
class TCountingEvent : public TQUMASubscribedEvent {
  QUMA_CLASS(TCountingEvent, TQUMASubscribedEvent)
 public:
  int Subscribes = 0;
  void Subscribe(const TNotifyEvent& fnCallback) override {
    ++Subscribes;
    inherited::Subscribe(fnCallback);
  }
};

TEST_F(SubscriberOrder, TransferAddsOnlyMissingSubscribersAndEmptiesTheSource) {
  auto target = MakeObject<TCountingEvent>();
  target->Subscribe(b->OnA());
  for (auto* p : {a.get(), b.get(), c.get()}) event->Subscribe(p->OnA());
  event->TransferSubscriptions(target.get());
  EXPECT_EQ(event->SubscriberCount(), 0);
  EXPECT_EQ(target->Subscribes, 3);
  target->FireCallbacks();
  EXPECT_EQ(log, (TLog{"b.A", "a.A", "c.A"}));

  event->Subscribe(a->OnA());
  event->TransferSubscriptions(nullptr);
  event->TransferSubscriptions(event.get());
  EXPECT_EQ(event->SubscriberCount(), 1);
}

TEST_F(SubscriberOrder, TypedSubscribersShareTheUntypedIdentity) {
  auto typed = MakeObject<TQUMASubscribed1ParamEvent<int>>();
  const auto fn = Bind<&TProbe::Typed>(a.get());
  typed->Subscribe(fn);
  typed->Subscribe(fn);
  typed->PrioritySubscribe(Bind<&TProbe::Typed>(b.get()));
  EXPECT_TRUE(typed->IsSubscribed(MethodCast<void(TObject*)>(fn)));
  typed->FireCallbacks(42);
  EXPECT_EQ(log, (TLog{"b.Typed", "a.Typed"}));
  EXPECT_EQ(a->LastParam, 42);
  typed->Unsubscribe(fn);
  EXPECT_FALSE(typed->IsSubscribed(fn));
  // An untyped firing through the base class hands typed subscribers a value-initialised one.
  static_cast<TQUMASubscribedEvent&>(*typed).FireCallbacks();
  EXPECT_EQ(b->LastParam, 0);
}

TEST_F(SubscriberOrder, ScopedSubscriptionEndsWithItsScope) {
  auto typed = MakeObject<TQUMASubscribed1ParamEvent<int>>();
  {
    TQUMAScopedSubscription sub(*event, a->OnA());
    TQUMAScopedSubscription moved(std::move(sub));
    TQUMAScopedSubscription kept(*event, b->OnA());
    kept.Release();
    TQUMAScopedSubscription typedSub(*typed, Bind<&TProbe::Typed>(c.get()));
    EXPECT_TRUE(event->IsSubscribed(a->OnA()));
    typed->FireCallbacks(7);
  }
  EXPECT_FALSE(event->IsSubscribed(a->OnA()));
  EXPECT_TRUE(event->IsSubscribed(b->OnA()));
  typed->FireCallbacks(8);
  EXPECT_EQ(c->LastParam, 7);
}

}  // namespace
