// The UUID callback and confirmation lists: order, duplicates, the veto that stops the poll and
// scoped registration.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <quma/SubscribedEvent.h>
#include <quma/UuidCallbackList.h>

using namespace quma;

namespace {

using TLog = std::vector<std::string>;

class TVoter : public TObject {
  QUMA_CLASS(TVoter, TObject)
 public:
  TVoter(TLog& log, std::string name, bool allow = true) : Log(log), Name(std::move(name)), Allow(allow) {}
  void One(const TQUMA_Uuid& uuid) { Log.push_back(Name + ":" + std::to_string(uuid._baUuid[15])); }
  void Two(const TQUMA_Uuid& uuid1, const TQUMA_Uuid& uuid2) {
    Log.push_back(Name + ":" + std::to_string(uuid1._baUuid[15]) + "," + std::to_string(uuid2._baUuid[15]));
  }
  void Vote(const TQUMA_Uuid& uuid, bool& blAllow) {
    One(uuid);
    blAllow = Allow;
  }
  void Vote2(const TQUMA_Uuid& uuid1, const TQUMA_Uuid& uuid2, bool& blAllow) {
    Two(uuid1, uuid2);
    blAllow = Allow;
  }
  TLog& Log;
  std::string Name;
  bool Allow;
};

TQUMA_Uuid Id(Byte last) {
  TQUMA_Uuid id;
  id._baUuid[15] = last;
  return id;
}

}  // namespace

TEST(UuidConfirmationList, TheFirstVetoStopsThePollAndAnEmptyListAllows) {
  TLog log;
  TVoter yes(log, "yes"), no(log, "no", false), late(log, "late");
  auto single = MakeObject<TQUMASingleUuidConfirmationList>();
  EXPECT_TRUE(single->RunConfirmations(Id(1)));
  for (TVoter* v : {&yes, &no, &late}) single->Add(Bind<&TVoter::Vote>(v));
  EXPECT_FALSE(single->RunConfirmations(Id(2)));
  EXPECT_EQ(log, (TLog{"yes:2", "no:2"}));
  single->Remove(Bind<&TVoter::Vote>(&no));
  EXPECT_TRUE(single->RunConfirmations(Id(3)));

  log.clear();
  auto pair = MakeObject<TQUMADoubleUuidConfirmationList>();
  for (TVoter* v : {&no, &late}) pair->Add(Bind<&TVoter::Vote2>(v));
  EXPECT_FALSE(pair->RunConfirmations(Id(4), Id(5)));
  EXPECT_EQ(log, (TLog{"no:4,5"}));
}

TEST(UuidCallbackList, RunsEveryEntryInOrderDuplicatesIncluded) {
  TLog log;
  TVoter a(log, "a"), b(log, "b");
  auto single = MakeObject<TQUMASingleUuidCallbackList>();
  single->Add(Bind<&TVoter::One>(&a));
  single->Add(Bind<&TVoter::One>(&b));
  single->Add(Bind<&TVoter::One>(&a));
  single->RunCallbacks(Id(1));
  EXPECT_EQ(log, (TLog{"a:1", "b:1", "a:1"}));
  single->Remove(Bind<&TVoter::One>(&a));  // one occurrence, the first
  single->Remove(TQUMASingleUuidCallback());  // not there: ignored
  log.clear();
  single->RunCallbacks(Id(2));
  EXPECT_EQ(log, (TLog{"b:2", "a:2"}));

  log.clear();
  auto pair = MakeObject<TQUMADoubleUuidCallbackList>();
  {
    TQUMAScopedSubscription scoped(*pair, Bind<&TVoter::Two>(&b));
    pair->RunCallbacks(Id(3), Id(4));
  }
  pair->RunCallbacks(Id(5), Id(6));
  EXPECT_EQ(log, (TLog{"b:3,4"}));
  EXPECT_EQ(pair->Count(), 0);
}
