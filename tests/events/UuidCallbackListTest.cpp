// The UUID callback and confirmation lists: order, duplicates, the veto that stops the poll and
// scoped registration.
#include <gtest/gtest.h>

#include <string>

#include <quma/SubscribedEvent.h>
#include <quma/UuidCallbackList.h>

using namespace quma;

namespace {

// Logs "<name>:<last byte of each UUID>" and answers its vote.
class TVoter : public TObject {
  QUMA_CLASS(TVoter, TObject)
 public:
  TVoter(std::string& log, char name, bool allow = true) : Log(log), Name(name), Allow(allow) {}
  void One(const TQUMA_Uuid& u) { Log += std::string(1, Name) + char('0' + u._baUuid[15]) + ' '; }
  void Two(const TQUMA_Uuid& u1, const TQUMA_Uuid& u2) { One(u1), One(u2); }
  void Vote(const TQUMA_Uuid& u, bool& blAllow) { One(u), blAllow = Allow; }
  void Vote2(const TQUMA_Uuid& u1, const TQUMA_Uuid& u2, bool& blAllow) { Two(u1, u2), blAllow = Allow; }
  std::string& Log;
  char Name;
  bool Allow;
};

TQUMA_Uuid Id(Byte last) {
  TQUMA_Uuid id;
  id._baUuid[15] = last;
  return id;
}

}  // namespace

TEST(UuidLists, ConfirmationsStopAtTheFirstVetoCallbacksRunEveryEntryDuplicatesIncluded) {
  std::string log;
  TVoter yes(log, 'y'), no(log, 'n', false), late(log, 'l');
  auto single = MakeObject<TQUMASingleUuidConfirmationList>();
  EXPECT_TRUE(single->RunConfirmations(Id(1)));
  for (TVoter* v : {&yes, &no, &late}) single->Add(Bind<&TVoter::Vote>(v));
  EXPECT_FALSE(single->RunConfirmations(Id(2)));
  single->Remove(Bind<&TVoter::Vote>(&no));
  EXPECT_TRUE(single->RunConfirmations(Id(3)));
  auto pair = MakeObject<TQUMADoubleUuidConfirmationList>();
  for (TVoter* v : {&no, &late}) pair->Add(Bind<&TVoter::Vote2>(v));
  EXPECT_FALSE(pair->RunConfirmations(Id(4), Id(5)));
  EXPECT_EQ(log, "y2 n2 y3 l3 n4 n5 ");

  log.clear();
  auto callbacks = MakeObject<TQUMASingleUuidCallbackList>();
  for (TVoter* v : {&yes, &late, &yes}) callbacks->Add(Bind<&TVoter::One>(v));
  callbacks->RunCallbacks(Id(1));
  callbacks->Remove(Bind<&TVoter::One>(&yes));  // one occurrence, the first
  callbacks->Remove(TQUMASingleUuidCallback());  // not there: ignored
  callbacks->RunCallbacks(Id(2));
  auto pairs = MakeObject<TQUMADoubleUuidCallbackList>();
  {
    TQUMAScopedSubscription scoped(*pairs, Bind<&TVoter::Two>(&late));
    pairs->RunCallbacks(Id(3), Id(4));
  }
  pairs->RunCallbacks(Id(5), Id(6));
  EXPECT_EQ(log, "y1 l1 y1 l2 y2 l3 l4 ");
}
