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
  TObjectPtr<TProbe> a = MakeObject<TProbe>(log, "a");
  TObjectPtr<TProbe> b = MakeObject<TProbe>(log, "b");
  TObjectPtr<TProbe> c = MakeObject<TProbe>(log, "c");
};

TEST_F(SubscriberOrder, DuplicatesAreIgnoredAndKeepTheirPlace) {
  event->Subscribe(a->OnA());
  event->Subscribe(b->OnA());
  event->Subscribe(a->OnA());
  event->PrioritySubscribe(b->OnA());  // already there: not moved to the front
  event->PrioritySubscribe(c->OnA());
  EXPECT_EQ(event->SubscriberCount(), 3);
  event->FireCallbacks();
  EXPECT_EQ(log, (TLog{"c.A", "a.A", "b.A"}));
}

TEST_F(SubscriberOrder, IdentityIsTheCodeAndObjectPair) {
  event->Subscribe(a->OnA());
  event->Subscribe(b->OnA());  // same code, other object
  event->Subscribe(a->OnB());  // same object, other method
  EXPECT_EQ(event->SubscriberCount(), 3);
  EXPECT_TRUE(event->IsSubscribed(a->OnB()));
  EXPECT_FALSE(event->IsSubscribed(c->OnA()));

  event->Unsubscribe(c->OnA());  // absent: ignored
  event->Unsubscribe(a->OnA());
  EXPECT_FALSE(event->IsSubscribed(a->OnA()));
  event->FireCallbacks();
  EXPECT_EQ(log, (TLog{"b.A", "a.B"}));
}

TEST_F(SubscriberOrder, PrioritySubscribeOnAnEmptyEventAppends) {
  event->PrioritySubscribe(a->OnA());
  event->Subscribe(b->OnA());
  event->FireCallbacks();
  EXPECT_EQ(log, (TLog{"a.A", "b.A"}));
}

TEST_F(SubscriberOrder, SenderIsTheCallbackObjectOrTheEvent) {
  event->Subscribe(a->OnA());
  event->FireCallbacks();
  EXPECT_EQ(a->LastSender, event.get());
  EXPECT_EQ(event->CallbackObject(), event.get());

  event->SetCallbackObject(c.get());
  event->FireCallbacks();
  EXPECT_EQ(a->LastSender, c.get());

  event->SetCallbackObject(nullptr);  // back to the default
  event->FireCallbacks();
  EXPECT_EQ(a->LastSender, event.get());

  auto owned = MakeObject<TQUMASubscribedEvent>(b.get());
  owned->Subscribe(a->OnA());
  owned->FireCallbacks();
  EXPECT_EQ(a->LastSender, b.get());
}

TEST_F(SubscriberOrder, CallbacksWithoutCodeAreKeptButSkipped) {
  event->Subscribe(TNotifyEvent(nullptr, a.get()));
  event->Subscribe(b->OnA());
  EXPECT_EQ(event->SubscriberCount(), 2);
  event->FireCallbacks();
  EXPECT_EQ(log, (TLog{"b.A"}));
}

TEST(CallbackList, CompareOrdersByObjectThenCode) {
  TLog log;
  auto p = MakeObject<TProbe>(log, "p");
  auto q = MakeObject<TProbe>(log, "q");
  TProbe* lo = p.get() < q.get() ? p.get() : q.get();
  TProbe* hi = lo == p.get() ? q.get() : p.get();
  const TNotifyEvent loA = lo->OnA(), loB = lo->OnB(), hiA = hi->OnA();
  const bool aFirst = loA.CodeAddress() < loB.CodeAddress();

  EXPECT_EQ(TQUMACallbackList::_CompareCallbacks(loA, loA), 0);
  EXPECT_EQ(TQUMACallbackList::_CompareCallbacks(loA, hiA), -1);
  EXPECT_EQ(TQUMACallbackList::_CompareCallbacks(hiA, loB), 1);
  EXPECT_EQ(TQUMACallbackList::_CompareCallbacks(loA, loB), aFirst ? -1 : 1);
  EXPECT_EQ(TQUMACallbackList::_CompareCallbacks(loB, loA), aFirst ? 1 : -1);

  // Searches by value use that ordering, so they find only the exact pair.
  auto list = MakeObject<TQUMACallbackList>();
  list->Add(hiA);
  list->Add(loB);
  EXPECT_EQ(list->IndexOf(loB), 1);
  EXPECT_FALSE(list->Contains(loA));
  EXPECT_EQ(list->Remove(hiA), 0);
  EXPECT_EQ(list->Count(), 1);
}

TEST_F(SubscriberOrder, SnapshotIsInvokedWithoutTheEvent) {
  event->Subscribe(a->OnA());
  event->Subscribe(b->OnA());
  auto snapshot = MakeObject<TQUMACallbackList>();
  snapshot->Add(b->OnA());
  event->PopulateCallbacks(snapshot.get());  // appends, no duplicate check
  event->PopulateCallbacks(nullptr);
  ASSERT_EQ(snapshot->Count(), 3);

  event->Unsubscribe(a->OnA());
  snapshot->InvokeCallbacks(c.get());
  EXPECT_EQ(log, (TLog{"b.A", "a.A", "b.A"}));
  EXPECT_EQ(a->LastSender, c.get());
}

TEST_F(SubscriberOrder, InvokeCallbacksSeesEntriesAddedDuringTheWalk) {
  auto snapshot = MakeObject<TQUMACallbackList>();
  snapshot->Add(a->OnA());
  snapshot->Add(TNotifyEvent());
  a->Action = [&] {
    if (snapshot->Count() < 3) snapshot->Add(b->OnA());
  };
  snapshot->InvokeCallbacks(nullptr);
  EXPECT_EQ(log, (TLog{"a.A", "b.A"}));
}

TEST_F(SubscriberOrder, TransferAddsOnlyMissingSubscribersAndEmptiesTheSource) {
  auto target = MakeObject<TQUMASubscribedEvent>();
  target->Subscribe(b->OnA());
  event->Subscribe(a->OnA());
  event->Subscribe(b->OnA());
  event->Subscribe(c->OnA());
  event->TransferSubscriptions(target.get());
  EXPECT_EQ(event->SubscriberCount(), 0);
  target->FireCallbacks();
  EXPECT_EQ(log, (TLog{"b.A", "a.A", "c.A"}));

  event->Subscribe(a->OnA());
  event->TransferSubscriptions(nullptr);
  event->TransferSubscriptions(event.get());
  EXPECT_EQ(event->SubscriberCount(), 1);
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

TEST_F(SubscriberOrder, TransferGoesThroughTheTargetsVirtualSubscribe) {
  auto target = MakeObject<TCountingEvent>();
  event->Subscribe(a->OnA());
  event->TransferSubscriptions(target.get());
  EXPECT_EQ(target->Subscribes, 1);
}

TEST_F(SubscriberOrder, TypedSubscribersShareTheUntypedIdentity) {
  auto typed = MakeObject<TQUMASubscribed1ParamEvent<int>>();
  const auto fn = Bind<&TProbe::Typed>(a.get());
  typed->Subscribe(fn);
  typed->Subscribe(fn);
  typed->PrioritySubscribe(Bind<&TProbe::Typed>(b.get()));
  EXPECT_EQ(typed->SubscriberCount(), 2);
  EXPECT_TRUE(typed->IsSubscribed(fn));
  EXPECT_TRUE(typed->IsSubscribed(MethodCast<void(TObject*)>(fn)));
  typed->FireCallbacks(42);
  EXPECT_EQ(log, (TLog{"b.Typed", "a.Typed"}));
  EXPECT_EQ(a->LastParam, 42);
  EXPECT_EQ(a->LastSender, typed.get());
  typed->Unsubscribe(fn);
  EXPECT_FALSE(typed->IsSubscribed(fn));

  // An untyped firing through the base class hands typed subscribers a value-initialised one.
  static_cast<TQUMASubscribedEvent&>(*typed).FireCallbacks();
  EXPECT_EQ(b->LastParam, 0);
}

TEST_F(SubscriberOrder, ScopedSubscriptionEndsWithItsScope) {
  {
    TQUMAScopedSubscription sub(*event, a->OnA());
    EXPECT_TRUE(event->IsSubscribed(a->OnA()));
    TQUMAScopedSubscription moved(std::move(sub));
    TQUMAScopedSubscription kept(*event, b->OnA());
    kept.Release();
  }
  EXPECT_FALSE(event->IsSubscribed(a->OnA()));
  EXPECT_TRUE(event->IsSubscribed(b->OnA()));

  auto typed = MakeObject<TQUMASubscribed1ParamEvent<int>>();
  {
    TQUMAScopedSubscription sub(*typed, Bind<&TProbe::Typed>(c.get()));
    typed->FireCallbacks(7);
  }
  typed->FireCallbacks(8);
  EXPECT_EQ(c->LastParam, 7);
}

}  // namespace
