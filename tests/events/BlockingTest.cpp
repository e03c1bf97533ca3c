// Blocking, the pending-firing count that is never reset, and OnIsBlocked / OnUnblocked.
#include <gtest/gtest.h>

#include <quma/SubscribedEvent.h>
#include <quma/SubscribedGenerics.h>

#include "EventTestSupport.h"

using namespace quma;
using quma::test::TLog;
using quma::test::TProbe;

namespace {

class Blocking : public ::testing::Test {
 protected:
  void SetUp() override {
    event->Subscribe(a->OnA());
    event->SetOnUnblocked(watcher->OnB());
  }
  TLog log;
  TObjectPtr<TQUMASubscribedEvent> event = MakeObject<TQUMASubscribedEvent>();
  TObjectPtr<TProbe> a = MakeObject<TProbe>(log, "a");
  TObjectPtr<TProbe> watcher = MakeObject<TProbe>(log, "w");
};

TEST_F(Blocking, SuppressedFiringsAreDeliveredOnceAfterOnUnblocked) {
  event->Block();
  event->Block();
  for (int i = 0; i < 3; ++i) event->FireCallbacks();
  EXPECT_TRUE(event->Blocked());
  EXPECT_TRUE(event->CallbacksPending());
  event->Unblock();  // still blocked once
  EXPECT_TRUE(log.empty());
  event->SetCallbackObject(a.get());
  event->Unblock();
  EXPECT_EQ(log, (TLog{"w.B", "a.A"}));
  EXPECT_EQ(watcher->LastSender, event.get());  // OnUnblocked always gets the event
  EXPECT_EQ(a->LastSender, a.get());
}

TEST_F(Blocking, PendingCountIsNeverReset) {
  event->Block();
  event->FireCallbacks();
  event->Unblock();
  log.clear();
  event->FireCallbacks();
  EXPECT_TRUE(event->CallbacksPending());
  event->Block();  // nothing fired in between, yet the pair fires again
  event->Unblock();
  EXPECT_EQ(log, (TLog{"a.A", "w.B", "a.A"}));
}

TEST_F(Blocking, UnblockWithoutAnythingPendingFiresNothing) {
  event->Block();
  event->Unblock();
  EXPECT_FALSE(event->CallbacksPending());
  EXPECT_TRUE(log.empty());
}

TEST_F(Blocking, SurplusUnblockDoesNotUnderflow) {
  event->Unblock();
  event->Unblock();
  event->Block();
  EXPECT_TRUE(event->Blocked());
  event->FireCallbacks();
  EXPECT_TRUE(log.empty());
}

class TChecker : public TObject {
  QUMA_CLASS(TChecker, TObject)
 public:
  bool* Flag = nullptr;
  bool Check() { return *Flag; }
};

TEST_F(Blocking, BlockCheckerReplacesTheCounter) {
  bool blocked = true;
  auto checker = MakeObject<TChecker>();
  checker->Flag = &blocked;
  event->SetOnIsBlocked(Bind<&TChecker::Check>(checker.get()));
  EXPECT_EQ(event->OnIsBlocked(), Bind<&TChecker::Check>(checker.get()));

  event->FireCallbacks();
  EXPECT_TRUE(log.empty());
  blocked = false;
  event->Block();  // ignored while the checker decides
  event->Block();
  EXPECT_FALSE(event->Blocked());
  event->Unblock();  // the checker says unblocked: deliver
  EXPECT_EQ(log, (TLog{"w.B", "a.A"}));

  event->SetOnIsBlocked(nullptr);  // the counter is back, untouched by the Blocks above
  EXPECT_FALSE(event->Blocked());
}

TEST_F(Blocking, StopFlagAlreadySetCallsNobodyButStillCounts) {
  const bool stop = true;
  event->FireCallbacksWhileFalse(stop);
  EXPECT_TRUE(log.empty());
  EXPECT_FALSE(event->CallbacksPending());
  event->Block();
  event->FireCallbacksWhileFalse(stop);
  EXPECT_TRUE(event->CallbacksPending());
}

TEST_F(Blocking, TypedUnblockFiresWithItsOwnArgumentAndNoOnUnblocked) {
  auto typed = MakeObject<TQUMASubscribed1ParamEvent<int>>();
  typed->Subscribe(Bind<&TProbe::Typed>(a.get()));
  typed->SetOnUnblocked(watcher->OnB());
  typed->Block();
  typed->FireCallbacks(1);
  typed->FireCallbacks(2);
  typed->Unblock(99);
  EXPECT_EQ(log, (TLog{"a.Typed"}));
  EXPECT_EQ(a->LastParam, 99);
}

class TSink : public TObject {
  QUMA_CLASS(TSink, TObject)
 public:
  std::vector<std::pair<int, TCollectionNotification>> Seen;
  void Changed(TObject*, const int& Item, TCollectionNotification Action) { Seen.emplace_back(Item, Action); }
};

TEST_F(Blocking, ListChangesWhileBlockedBecomeOneNotification) {
  auto sink = MakeObject<TSink>();
  auto* list = New<TQUMASubscribedList<int>>();
  list->Notifications()->Subscribe(Bind<&TSink::Changed>(sink.get()));
  {
    TQUMAScopedBlock block(*list->Notifications(), -1, cnExtracted);
    list->Add(1);
    list->Add(2);
    list->Delete(0);
    EXPECT_TRUE(sink->Seen.empty());
  }
  EXPECT_EQ(sink->Seen, (std::vector<std::pair<int, TCollectionNotification>>{{-1, cnExtracted}}));
  Free(list);
}

TEST_F(Blocking, ScopedBlockUnblocksOnExitAndOnException) {
  {
    TQUMAScopedBlock block(*event);
    event->FireCallbacks();
    EXPECT_TRUE(log.empty());
  }
  EXPECT_EQ(log, (TLog{"w.B", "a.A"}));
  EXPECT_FALSE(event->Blocked());

  log.clear();
  a->Action = [] { throw std::runtime_error("subscriber failed"); };
  try {
    TQUMAScopedBlock block(*event);
    throw std::logic_error("scope failed");  // the unblock's own failure is dropped, this one wins
  } catch (const std::logic_error&) {
  }
  EXPECT_FALSE(event->Blocked());
  EXPECT_EQ(log, (TLog{"w.B", "a.A"}));

  // Leaving normally, a failing subscriber's exception reaches the caller.
  EXPECT_THROW({ TQUMAScopedBlock block(*event); }, std::runtime_error);
  EXPECT_FALSE(event->Blocked());
}

}  // namespace
