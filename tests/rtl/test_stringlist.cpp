#include <gtest/gtest.h>
#include <quma/StringList.h>

#include <vector>

using namespace quma;

namespace {

class TTracked : public TObject {
  QUMA_CLASS(TTracked, TObject)
 public:
  explicit TTracked(int* frees) : FFrees(frees) {}
  ~TTracked() override { ++*FFrees; }

 private:
  int* FFrees;
};

class TChangeLog : public TObject {
  QUMA_CLASS(TChangeLog, TObject)
 public:
  void Changing(TObject*) { Events.push_back('<'); }
  void Changed(TObject*) { Events.push_back('>'); }
  std::string Events;
};

}  // namespace

TEST(StringList, AddInsertAndLookUp) {
  auto list = MakeObject<TStringList>();
  EXPECT_EQ(list->Add(u"beta"), 0);
  EXPECT_EQ(list->Add("gamma"), 1);
  list->Insert(0, u"alpha");
  ASSERT_EQ(list->Count(), 3);
  EXPECT_EQ(list->Strings(0), u"alpha");
  EXPECT_EQ((*list)[2], u"gamma");
  EXPECT_EQ(list->IndexOf(u"BETA"), 1);
  EXPECT_EQ(list->IndexOf("missing"), -1);
  list->SetCaseSensitive(true);
  EXPECT_EQ(list->IndexOf(u"BETA"), -1);
  list->Insert(3, u"end");  // inserting at Count appends
  EXPECT_EQ(list->Strings(3), u"end");
}

TEST(StringList, NameValuePairs) {
  auto list = MakeObject<TStringList>();
  list->Add(u"plain");
  list->Add(u"Colour=blue");
  list->Add(u"size=10=ten");
  EXPECT_EQ(list->IndexOfName(u"COLOUR"), 1);
  EXPECT_EQ(list->Values(u"colour"), u"blue");
  EXPECT_EQ(list->Values(u"size"), u"10=ten");
  EXPECT_EQ(list->Values(u"plain"), u"");
  EXPECT_EQ(list->Names(0), u"");
  EXPECT_EQ(list->Names(2), u"size");
  EXPECT_EQ(list->ValueFromIndex(1), u"blue");

  list->SetValue(u"colour", u"red");
  EXPECT_EQ(list->Strings(1), u"colour=red");
  list->SetValue(u"shape", u"round");
  EXPECT_EQ(list->Strings(3), u"shape=round");
  list->SetValue(u"size", u"");
  EXPECT_EQ(list->Count(), 3);
  EXPECT_EQ(list->IndexOfName(u"size"), -1);
}

TEST(StringList, TextJoinsAndSplitsLines) {
  auto list = MakeObject<TStringList>();
  list->SetText(u"one\r\ntwo\nthree\rfour");
  ASSERT_EQ(list->Count(), 4);
  EXPECT_EQ(list->Strings(3), u"four");
  EXPECT_EQ(list->Text(), u"one\ntwo\nthree\nfour\n");
  list->SetText(u"a\n\nb\n");
  ASSERT_EQ(list->Count(), 3);
  EXPECT_EQ(list->Strings(1), u"");
}

TEST(StringList, IndexErrorsCarryTheIndex) {
  auto list = MakeObject<TStringList>();
  list->Add(u"x");
  try {
    list->Delete(5);
    FAIL() << "no error";
  } catch (const EStringListError& e) {
    EXPECT_EQ(e.Message(), u"List index out of bounds (5)");
    EXPECT_EQ(e.Index(), 5);
  }
  EXPECT_THROW(list->Strings(-1), EStringListError);
  EXPECT_THROW(list->PutObject(1, nullptr), EStringListError);
  EXPECT_THROW(list->Insert(2, u"y"), EStringListError);
  EXPECT_THROW(list->Objects(1), EListError);
  EXPECT_EQ(list->Count(), 1);  // nothing was lost
}

TEST(StringList, OwnedObjectsAreFreedByDeleteClearAndDestruction) {
  int frees = 0;
  {
    auto list = MakeObject<TStringList>(true);
    for (int i = 0; i < 4; ++i) list->AddObject(u"o", New<TTracked>(&frees));
    TObject* kept = list->Objects(0);
    list->PutObject(0, nullptr);  // replacing never frees
    EXPECT_EQ(frees, 0);
    Free(kept);
    EXPECT_EQ(frees, 1);
    list->Delete(1);
    EXPECT_EQ(frees, 2);
    list->SetOwnsObjects(false);
    TObject* loose = list->Objects(1);
    list->Delete(1);
    EXPECT_EQ(frees, 2);
    Free(loose);
    list->SetOwnsObjects(true);
    list->AddObject(u"p", New<TTracked>(&frees));
    list->Clear();
    EXPECT_EQ(frees, 5);
    list->AddObject(u"q", New<TTracked>(&frees));
  }
  EXPECT_EQ(frees, 6);
}

TEST(StringList, ChangeEventsBracketEachChangeAndUpdates) {
  auto log = MakeObject<TChangeLog>();
  auto list = MakeObject<TStringList>();
  list->OnChanging = Bind<&TChangeLog::Changing>(log.get());
  list->OnChange = Bind<&TChangeLog::Changed>(log.get());
  list->Add(u"a");
  list->Put(0, u"b");
  list->PutObject(0, log.get());
  list->Delete(0);
  EXPECT_EQ(log->Events, "<><><><>");
  log->Events.clear();
  list->BeginUpdate();
  list->BeginUpdate();
  list->Add(u"x");
  list->Add(u"y");
  list->EndUpdate();
  EXPECT_EQ(log->Events, "<");
  list->EndUpdate();
  EXPECT_EQ(log->Events, "<>");
  log->Events.clear();
  list->Clear();
  list->Clear();  // already empty: no change
  EXPECT_EQ(log->Events, "<>");
}
