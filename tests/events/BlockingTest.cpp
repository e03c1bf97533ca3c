// Blocking, the pending-firing count that is never reset, and OnIsBlocked / OnUnblocked.
#include <gtest/gtest.h>

#include <stdexcept>

#include <quma/SubscribedEvent.h>

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
  TObjectPtr<TProbe> a = MakeObject<TProbe>(log, "a"), watcher = MakeObject<TProbe>(log, "w");
};

TEST_F(Blocking, SuppressedFiringsAreDeliveredOnceAfterOnUnblocked) {
  event->Block();
  event->Block();
  for (int i = 0; i < 3; ++i) event->FireCallbacks();
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
  event->Unblock();  // nothing suppressed yet: nothing fires
  EXPECT_TRUE(log.empty());
  event->Block();
  event->FireCallbacks();
  event->Unblock();
  EXPECT_TRUE(event->CallbacksPending());
  event->Block();  // nothing fired in between, yet the pair fires again
  event->Unblock();
  EXPECT_EQ(log, (TLog{"w.B", "a.A", "w.B", "a.A"}));
}

TEST_F(Blocking, SurplusUnblockDoesNotUnderflow) {
  event->Unblock();
  event->Unblock();
  event->Block();
  EXPECT_TRUE(event->Blocked());
}

class TChecker : public TObject {
  QUMA_CLASS(TChecker, TObject)
 public:
  bool Answer = true;
  bool Check() { return Answer; }
};

TEST_F(Blocking, BlockCheckerReplacesTheCounter) {
  auto checker = MakeObject<TChecker>();
  event->SetOnIsBlocked(Bind<&TChecker::Check>(checker.get()));
  event->FireCallbacks();
  EXPECT_TRUE(log.empty());
  checker->Answer = false;
  event->Block();  // ignored while the checker decides
  EXPECT_FALSE(event->Blocked());
  event->Unblock();
  EXPECT_EQ(log, (TLog{"w.B", "a.A"}));
  event->SetOnIsBlocked(nullptr);  // the counter is back, untouched by the Block above
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
  {
    TQUMAScopedBlock block(*typed, 99);
    typed->FireCallbacks(1);
    typed->FireCallbacks(2);
  }
  EXPECT_EQ(log, (TLog{"a.Typed"}));
  EXPECT_EQ(a->LastParam, 99);
}

TEST_F(Blocking, ScopedBlockUnblocksOnExitAndOnException) {
  a->Action = [] { throw std::runtime_error("subscriber failed"); };
  try {
    TQUMAScopedBlock block(*event);
    event->FireCallbacks();
    throw std::logic_error("scope failed");  // wins over the subscriber's exception
  } catch (const std::logic_error&) {
  }
  EXPECT_FALSE(event->Blocked());
  EXPECT_EQ(log, (TLog{"w.B", "a.A"}));
  // Leaving normally, the subscriber's exception reaches the caller.
  EXPECT_THROW({ TQUMAScopedBlock block(*event); }, std::runtime_error);
  EXPECT_FALSE(event->Blocked());
}

}  // namespace
