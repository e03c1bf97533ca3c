// The subscribed list: hooks and subscribers around each change, deferred work, self-deletion,
// OnNotify as a subscriber, SyncList.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include <quma/SubscribedGenerics.h>

using namespace quma;

namespace {

using TLog = std::vector<std::string>;

// Logs its hooks, and counts its own destruction through a counter owned by the test.
class TLoggingList : public TQUMASubscribedList<int> {
  QUMA_CLASS(TLoggingList, TQUMASubscribedList<int>)
 public:
  TLoggingList(TLog& log, int& destroyed) : Log(log), Destroyed(destroyed) {}
  ~TLoggingList() override { ++Destroyed; }
  TLog& Log;
  int& Destroyed;

 protected:
  void _BeforeAddNotify(const int& Item) override { Log.push_back("+" + std::to_string(Item)); }
  void _AfterAddNotify(const int& Item) override { Log.push_back("+" + std::to_string(Item) + " done"); }
  void _BeforeRemoveNotify(const int& Item) override { Log.push_back("-" + std::to_string(Item)); }
  void _AfterRemoveNotify(const int& Item) override { Log.push_back("-" + std::to_string(Item) + " done"); }
};

class THandler : public TObject {
  QUMA_CLASS(THandler, TObject)
 public:
  THandler(TLog& log, std::string name) : Log(log), Name(std::move(name)) {}
  TLog& Log;
  std::string Name;
  std::function<void(TLoggingList*, int, TCollectionNotification)> Action;

  void Changed(TObject* Sender, const int& Item, TCollectionNotification What) {
    static const char* const kNames[] = {"adding", "added", "extracting", "extracted", "deleting", "removed"};
    Log.push_back(Name + " " + kNames[static_cast<int>(What)] + " " + std::to_string(Item));
    if (Action) Action(static_cast<TLoggingList*>(Sender), Item, What);
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
  TObjectPtr<THandler> h1 = MakeObject<THandler>(log, "h1"), h2 = MakeObject<THandler>(log, "h2");
};

TEST_F(SubscribedList, HooksSurroundTheSubscribersOnEveryChangeAndOnNotifyIsOneOfThem) {
  list->SetOnNotify(h2->OnChanged());
  list->SetOnNotify(h2->OnChanged());  // unchanged: still one entry, so h2 hears each change once
  list->Add(1);
  list->Add(2);
  list->ExtractAt(0);
  list->Delete(0);
  EXPECT_EQ(log, (TLog{"+1", "h1 added 1", "h2 added 1", "+1 done", "+2", "h1 added 2", "h2 added 2", "+2 done",  //
                       "-1", "h1 extracted 1", "h2 extracted 1", "-1 done",                                       //
                       "-2", "h1 removed 2", "h2 removed 2", "-2 done"}));
  list->SetOnNotify(h1->OnChanged());  // replaces h2; h1 was already subscribed
  EXPECT_EQ(list->Notifications()->SubscriberCount(), 1);
  list->SetOnNotify(nullptr);  // only unsubscribes
  EXPECT_EQ(list->Notifications()->SubscriberCount(), 0);
  // An item seen by later subscribers survives growth of the storage it came from; h2 hears it
  // as a subscriber after h1 and through the plain list's handler before it.
  for (THandler* h : {h1.get(), h2.get()}) list->Notifications()->Subscribe(h->OnChanged());
  h1->Action = [&](TLoggingList* l, int item, TCollectionNotification What) {
    if (What == cnAdded && item == 100)
      for (int i = 0; i < 64; ++i) l->Add(i);  // reallocates the storage the item came from
  };
  static_cast<TList<int>*>(list)->OnNotify = h2->OnChanged();  // the plain list's own handler is kept
  list->Add(100);
  EXPECT_EQ(std::count(log.begin(), log.end(), "h2 added 100"), 2);
}

TEST_F(SubscribedList, PostNotifyCallbacksRunNewestFirstOnceAfterTheOutermostPassAndHandlersMayFreeTheList) {
  h1->Action = [&](TLoggingList* l, int, TCollectionNotification) {
    h1->Action = nullptr;
    l->CallMeBackWhenNotificationsComplete(h1->OnLater());
    l->CallMeBackWhenNotificationsComplete(h2->OnLater());
    l->Add(2);  // nested: announced at once, the deferred callbacks still wait
  };
  list->Add(7);
  list->Add(8);                                              // nothing left over from the last pass
  list->CallMeBackWhenNotificationsComplete(h2->OnLater());  // outside a pass: ignored
  list->DeleteWhenNotificationsComplete();
  list->Add(9);
  EXPECT_EQ(log, (TLog{"+7", "h1 added 7", "+2", "h1 added 2", "+2 done", "+7 done", "h2 later 2", "h1 later 2",  //
                       "+8", "h1 added 8", "+8 done", "+9", "h1 added 9", "+9 done"}));
  EXPECT_EQ(destroyed, 0);
  // A handler may free the list outright: the removals its destruction announces must not free it
  // again, not even by asking for deletion then.
  h1->Action = [&](TLoggingList* l, int, TCollectionNotification What) {
    if (What == cnAdded)
      Free(l);
    else
      l->DeleteWhenNotificationsComplete();
  };
  list->Add(2);
  EXPECT_EQ(destroyed, 1);
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
  // Destruction announces each removal; the deferred callback never runs.
  EXPECT_EQ(log,
            (TLog{"+4", "h1 added 4", "h2 added 4", "+4 done",  //
                  "-3", "h1 removed 3", "h2 removed 3", "-3 done", "-4", "h1 removed 4", "h2 removed 4", "-4 done"}));
}

TEST_F(SubscribedList, ChangesWhileBlockedBecomeOneNotificationAndSyncListMakesTheFewestChanges) {
  list->Notifications()->Unblock(-2, cnAdded);  // nothing suppressed: nothing fires
  {
    TQUMAScopedBlock block(*list->Notifications(), -1, cnExtracted);
    list->Add(1);
    list->Delete(0);
  }
  EXPECT_EQ(log, (TLog{"+1", "+1 done", "-1", "-1 done", "h1 extracted -1"}));
  for (int v : {1, 2, 3, 4}) list->Add(v);
  auto source = MakeObject<TList<int>>();
  for (int v : {1, 2, 3, 4}) source->Add(v);
  log.clear();
  list->SyncList(source.get());
  list->SyncList(nullptr);
  EXPECT_TRUE(log.empty());

  source->SetItem(1, 20);
  source->Delete(3);
  list->SyncList(source.get());
  EXPECT_EQ(list->ToVector(), (std::vector<int>{1, 20, 3}));
  EXPECT_EQ(log, (TLog{"-2", "h1 removed 2", "-2 done", "+20", "h1 added 20", "+20 done",  //
                       "-4", "h1 removed 4", "-4 done"}));
  for (int v : {9, 10}) source->Add(v);
  list->SyncList(source.get());
  EXPECT_EQ(list->ToVector(), (std::vector<int>{1, 20, 3, 9, 10}));
}

}  // namespace
