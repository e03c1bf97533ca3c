// The subscribed list: hooks and subscribers around each change, deferred work, self-deletion,
// OnNotify as a subscriber, SyncList.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <quma/SubscribedGenerics.h>

#include "EventTestSupport.h"

using namespace quma;
using quma::test::TLog;

namespace {

std::string ActionName(TCollectionNotification action) {
  switch (action) {
    case cnAdded: return "added";
    case cnExtracted: return "extracted";
    case cnRemoved: return "removed";
    default: return "other";
  }
}

// Logs its hooks, and counts its own destruction through a flag owned by the test.
class TLoggingList : public TQUMASubscribedList<int> {
  QUMA_CLASS(TLoggingList, TQUMASubscribedList<int>)
 public:
  TLoggingList(TLog& log, int& destroyed) : Log(log), Destroyed(destroyed) {}
  ~TLoggingList() override { ++Destroyed; }
  TLog& Log;
  int& Destroyed;

  using inherited::_SubListState;

 protected:
  void _BeforeAddNotify(const int& Item) override { Log.push_back("before-add " + std::to_string(Item)); }
  void _AfterAddNotify(const int& Item) override { Log.push_back("after-add " + std::to_string(Item)); }
  void _BeforeRemoveNotify(const int& Item) override { Log.push_back("before-remove " + std::to_string(Item)); }
  void _AfterRemoveNotify(const int& Item) override { Log.push_back("after-remove " + std::to_string(Item)); }
};

class THandler : public TObject {
  QUMA_CLASS(THandler, TObject)
 public:
  THandler(TLog& log, std::string name) : Log(log), Name(std::move(name)) {}
  TLog& Log;
  std::string Name;
  std::function<void(TLoggingList*, int, TCollectionNotification)> Action;

  void Changed(TObject* Sender, const int& Item, TCollectionNotification Action_) {
    Log.push_back(Name + " " + ActionName(Action_) + " " + std::to_string(Item));
    if (Action) Action(static_cast<TLoggingList*>(Sender), Item, Action_);
  }
  void Later(TObject* Sender) {
    Log.push_back(Name + " later " + std::to_string(static_cast<TLoggingList*>(Sender)->Count()));
  }
  TLoggingList::TCollectionNotifyEvent OnChanged() { return Bind<&THandler::Changed>(this); }
  TNotifyEvent OnLater() { return Bind<&THandler::Later>(this); }
};

class SubscribedList : public ::testing::Test {
 protected:
  void SetUp() override { list->Notifications()->Subscribe(h1->OnChanged()); }
  void TearDown() override {
    if (destroyed == 0) Free(list);
  }
  TLog log;
  int destroyed = 0;
  TLoggingList* list = New<TLoggingList>(log, destroyed);
  TObjectPtr<THandler> h1 = MakeObject<THandler>(log, "h1");
  TObjectPtr<THandler> h2 = MakeObject<THandler>(log, "h2");
};

TEST_F(SubscribedList, HooksSurroundTheSubscribersOnEveryChange) {
  list->Add(1);
  list->Add(2);
  list->ExtractAt(0);
  list->Delete(0);
  EXPECT_EQ(log, (TLog{"before-add 1", "h1 added 1", "after-add 1",            //
                       "before-add 2", "h1 added 2", "after-add 2",            //
                       "before-remove 1", "h1 extracted 1", "after-remove 1",  //
                       "before-remove 2", "h1 removed 2", "after-remove 2"}));
  EXPECT_EQ(list->Notifications()->CallbackObject(), list);
}

TEST_F(SubscribedList, OnNotifyIsOneMoreSubscriber) {
  list->SetOnNotify(h2->OnChanged());
  list->SetOnNotify(h2->OnChanged());  // unchanged: still one entry
  EXPECT_EQ(list->Notifications()->SubscriberCount(), 2);
  EXPECT_EQ(list->OnNotify(), h2->OnChanged());
  list->Add(5);
  EXPECT_EQ(log, (TLog{"before-add 5", "h1 added 5", "h2 added 5", "after-add 5"}));

  list->SetOnNotify(h1->OnChanged());  // replaces h2; h1 was already subscribed
  EXPECT_EQ(list->Notifications()->SubscriberCount(), 1);
  list->SetOnNotify(nullptr);  // only unsubscribes
  EXPECT_EQ(list->Notifications()->SubscriberCount(), 0);
}

TEST_F(SubscribedList, PostNotifyCallbacksRunNewestFirstAfterTheHooks) {
  h1->Action = [&](TLoggingList* l, int, TCollectionNotification) {
    EXPECT_TRUE(l->_SubListState.Contains(_slfInCallbacks));
    l->CallMeBackWhenNotificationsComplete(h1->OnLater());
    l->CallMeBackWhenNotificationsComplete(h2->OnLater());
    l->CallMeBackWhenNotificationsComplete(nullptr);
  };
  list->Add(7);
  EXPECT_EQ(log, (TLog{"before-add 7", "h1 added 7", "after-add 7", "h2 later 1", "h1 later 1"}));
  EXPECT_FALSE(list->_SubListState.Contains(_slfInCallbacks));

  log.clear();
  h1->Action = nullptr;
  // Nothing is left over from the last pass, and requests outside a pass are ignored.
  list->Add(8);
  list->CallMeBackWhenNotificationsComplete(h2->OnLater());
  list->DeleteWhenNotificationsComplete();
  list->Add(9);
  EXPECT_EQ(log.size(), 6u);
  EXPECT_EQ(destroyed, 0);
}

TEST_F(SubscribedList, ChangesMadeByAHandlerDeferWorkToTheOutermostPass) {
  h1->Action = [&](TLoggingList* l, int item, TCollectionNotification action) {
    if (action == cnAdded && item == 1) {
      l->CallMeBackWhenNotificationsComplete(h2->OnLater());
      l->Add(2);  // nested pass: its handlers run now, the deferred callback waits
    }
  };
  list->Add(1);
  EXPECT_EQ(log, (TLog{"before-add 1", "h1 added 1", "before-add 2", "h1 added 2", "after-add 2", "after-add 1",
                       "h2 later 2"}));
}

TEST_F(SubscribedList, DeleteWhenCompleteFreesOnceAfterEverythingElse) {
  list->Notifications()->Subscribe(h2->OnChanged());
  list->Add(3);
  log.clear();
  h1->Action = [&](TLoggingList* l, int, TCollectionNotification) {
    h1->Action = nullptr;
    l->CallMeBackWhenNotificationsComplete(h1->OnLater());
    l->DeleteWhenNotificationsComplete();
    l->DeleteWhenNotificationsComplete();
  };
  list->Add(4);
  EXPECT_EQ(destroyed, 1);
  // The destruction clears the list, announcing each removal; the deferred callback never runs.
  EXPECT_EQ(log, (TLog{"before-add 4", "h1 added 4", "h2 added 4", "after-add 4",            //
                       "before-remove 3", "h1 removed 3", "h2 removed 3", "after-remove 3",  //
                       "before-remove 4", "h1 removed 4", "h2 removed 4", "after-remove 4"}));
}

TEST_F(SubscribedList, SelfDeletionDuringAMultiItemChangeStopsIt) {
  for (int i = 0; i < 4; ++i) list->Add(i);
  h1->Action = [&](TLoggingList* l, int, TCollectionNotification action) {
    if (action == cnRemoved) l->DeleteWhenNotificationsComplete();
  };
  list->DeleteRange(0, 3);
  EXPECT_EQ(destroyed, 1);
}

TEST_F(SubscribedList, HandlerMayFreeTheListOutright) {
  list->Add(1);
  h1->Action = [&](TLoggingList* l, int, TCollectionNotification action) {
    if (action == cnAdded) Free(l);
  };
  list->Add(2);
  EXPECT_EQ(destroyed, 1);
}

TEST_F(SubscribedList, DeletionAskedForDuringDestructionIsNotRepeated) {
  list->Add(1);
  list->Add(2);
  h1->Action = [&](TLoggingList* l, int, TCollectionNotification) { l->DeleteWhenNotificationsComplete(); };
  Free(list);
  EXPECT_EQ(destroyed, 1);
}

TEST_F(SubscribedList, SyncListMakesTheFewestChanges) {
  for (int v : {1, 2, 3, 4}) list->Add(v);
  auto source = MakeObject<TList<int>>();
  for (int v : {1, 2, 3, 4}) source->Add(v);
  log.clear();
  list->SyncList(source.get());
  list->SyncList(nullptr);
  EXPECT_TRUE(log.empty());

  list->Notifications()->Unsubscribe(h1->OnChanged());
  list->SetOnNotify(h2->OnChanged());
  source->SetItem(1, 20);
  source->Delete(3);
  list->SyncList(source.get());
  EXPECT_EQ(list->ToVector(), (std::vector<int>{1, 20, 3}));
  EXPECT_EQ(log, (TLog{"before-remove 2", "h2 removed 2", "after-remove 2", "before-add 20", "h2 added 20",
                       "after-add 20", "before-remove 4", "h2 removed 4", "after-remove 4"}));

  log.clear();
  source->Add(9);
  source->Add(10);
  list->SyncList(source.get());
  EXPECT_EQ(list->ToVector(), (std::vector<int>{1, 20, 3, 9, 10}));
  EXPECT_EQ(log.size(), 6u);
}

TEST_F(SubscribedList, ItemSeenByLaterHandlersSurvivesGrowthOfTheStorage) {
  list->Notifications()->Subscribe(h2->OnChanged());
  h1->Action = [&](TLoggingList* l, int item, TCollectionNotification action) {
    if (action == cnAdded && item == 100)
      for (int i = 0; i < 64; ++i) l->Add(i);  // reallocates the storage the item came from
  };
  list->Add(100);
  EXPECT_NE(std::find(log.begin(), log.end(), "h2 added 100"), log.end());
}

TEST_F(SubscribedList, DestructionAnnouncesEveryRemovalThroughTheHooks) {
  list->Add(1);
  list->Add(2);
  log.clear();
  Free(list);
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(log, (TLog{"before-remove 1", "h1 removed 1", "after-remove 1",  //
                       "before-remove 2", "h1 removed 2", "after-remove 2"}));
}

}  // namespace
