#include <gtest/gtest.h>
#include <quma/Encoding.h>
#include <quma/Streams.h>
#include <quma/StringList.h>

#include "rtl/TestSupport.h"

#include <cstdio>
#include <random>
#include <tuple>
#include <vector>

using namespace quma;
using quma::test::ErrorOf;
using quma::test::TFreeCounter;

namespace {

using Strings = std::vector<UnicodeString>;

Strings Items(const TStrings& list) {
  Strings out;
  for (Integer i = 0; i < list.Count(); ++i) out.push_back(list.Strings(i));
  return out;
}

TObjectPtr<TStringList> ListOf(const Strings& items) {
  auto list = MakeObject<TStringList>();
  list->AddStrings(items);
  return list;
}

}  // namespace

TEST(StringList, AddInsertLookUpIndexErrorsAndNameValuePairs) {
  auto list = MakeObject<TStringList>();
  EXPECT_EQ(list->Add(u"beta"), 0);
  EXPECT_EQ(list->Add("gamma"), 1);
  list->Insert(0, u"alpha");
  list->Insert(3, u"end");  // inserting at Count appends
  EXPECT_EQ(Items(*list), (Strings{u"alpha", u"beta", u"gamma", u"end"}));
  EXPECT_EQ((*list)[2], u"gamma");
  EXPECT_EQ(list->IndexOf(u"BETA"), 1);
  EXPECT_EQ(list->IndexOf("missing"), -1);
  list->SetCaseSensitive(true);
  EXPECT_EQ(list->IndexOf(u"BETA"), -1);
  list->Move(0, 3);
  EXPECT_EQ(Items(*list), (Strings{u"beta", u"gamma", u"end", u"alpha"}));

  EXPECT_EQ(ErrorOf<EStringListError>([&] { list->Delete(5); }), "List index out of bounds (5)");
  EXPECT_THROW(list->Strings(-1), EStringListError);
  EXPECT_THROW(list->PutObject(4, nullptr), EStringListError);
  EXPECT_THROW(list->Insert(5, u"y"), EStringListError);
  EXPECT_THROW(list->Objects(4), EListError);
  EXPECT_EQ(list->Count(), 4);  // nothing was lost

  // Name-value pairs.
  auto pairs = ListOf({u"plain", u"Colour=blue", u"size=10=ten"});
  EXPECT_EQ(pairs->IndexOfName(u"COLOUR"), 1);
  EXPECT_EQ(pairs->Values(u"colour"), u"blue");
  EXPECT_EQ(pairs->Values(u"size"), u"10=ten");
  EXPECT_EQ(pairs->Values(u"plain"), u"");
  EXPECT_EQ(pairs->Names(0), u"");
  EXPECT_EQ(pairs->Names(2), u"size");
  EXPECT_EQ(pairs->ValueFromIndex(1), u"blue");

  pairs->SetValue(u"colour", u"red");
  pairs->SetValue(u"shape", u"round");
  pairs->SetValue(u"size", u"");
  pairs->SetValueFromIndex(0, u"x");
  pairs->SetValueFromIndex(-1, u"y");
  EXPECT_EQ(Items(*pairs), (Strings{u"=x", u"colour=red", u"shape=round", u"=y"}));
  pairs->SetValueFromIndex(0, u"");
  pairs->SetNameValueSeparator(u':');
  pairs->AddPair(u"k", u"v");
  EXPECT_EQ(pairs->Values("K"), u"v");
  EXPECT_EQ(pairs->IndexOfName(u"colour"), -1);
  EXPECT_EQ(pairs->Count(), 4);
}

TEST(StringList, OwnedObjectsAreFreedByDeleteClearAndDestruction) {
  int frees = 0;
  {
    auto list = MakeObject<TStringList>(true);
    for (int i = 0; i < 4; ++i) list->AddObject(u"o", New<TFreeCounter>(&frees));
    TObject* kept = list->Objects(0);
    list->PutObject(0, nullptr);  // replacing never frees
    list->Move(3, 1);             // nor does moving
    EXPECT_EQ(frees, 0);
    Free(kept);
    list->Delete(1);
    EXPECT_EQ(frees, 2);
    list->SetOwnsObjects(false);
    TObject* loose = list->Objects(1);
    list->Delete(1);
    EXPECT_EQ(frees, 2);
    Free(loose);
    list->SetOwnsObjects(true);
    list->AddObject(u"p", New<TFreeCounter>(&frees));
    list->Clear();
    EXPECT_EQ(frees, 5);
    list->AddObject(u"q", New<TFreeCounter>(&frees));
  }
  EXPECT_EQ(frees, 6);
}

TEST(StringList, ChangeEventsBracketEachChangeAndUpdates) {
  std::string events;
  auto list = MakeObject<TStringList>();
  list->OnChanging = TNotifyEvent(+[](void* e, TObject*) { *static_cast<std::string*>(e) += '<'; }, &events);
  list->OnChange = TNotifyEvent(+[](void* e, TObject*) { *static_cast<std::string*>(e) += '>'; }, &events);
  list->Add(u"a");
  list->Put(0, u"b");
  list->PutObject(0, list.get());
  list->Delete(0);
  EXPECT_EQ(events, "<><><><>");
  events.clear();
  list->BeginUpdate();
  list->BeginUpdate();
  list->Add(u"x");
  list->Add(u"y");
  list->EndUpdate();
  EXPECT_EQ(events, "<");
  list->EndUpdate();
  EXPECT_EQ(events, "<>");
  events.clear();
  list->Clear();
  list->Clear();  // already empty: no change
  list->SetCommaText(u"c,b,a");
  list->Sort();
  EXPECT_EQ(events, "<><><>");  // one bracket for the whole text, one for the sort
}

TEST(StringList, SortedListsApplyDuplicatesAndAssignCopiesStringsObjectsAndSettings) {
  const std::pair<TDuplicates, Strings> cases[] = {
      {dupIgnore, {u"a", u"b", u"c"}}, {dupAccept, {u"a", u"B", u"b", u"c"}}, {dupError, {u"a", u"b", u"c"}}};
  for (const auto& [mode, expected] : cases) {
    auto list = ListOf({u"c", u"b", u"a"});
    list->SetDuplicates(mode);
    list->SetSorted(true);
    EXPECT_EQ(list->Add(u"0"), 0);
    list->Delete(0);
    if (mode == dupError)
      EXPECT_EQ(ErrorOf<EStringListError>([&] { list->Add(u"B"); }), "String list does not allow duplicates");
    else
      EXPECT_EQ(list->Add(u"B"), 1);  // dupIgnore: the index of the entry already there
    EXPECT_EQ(Items(*list), expected);
  }
  auto list = ListOf({u"b", u"B", u"a"});
  list->SetSorted(true);
  Integer at = -1;
  EXPECT_TRUE(list->Find(u"B", at));
  EXPECT_EQ(at, 1);  // the first of the equal strings
  EXPECT_FALSE(list->Find(u"aa", at));
  EXPECT_EQ(at, 1);
  EXPECT_EQ(list->IndexOf(u"A"), 0);
  EXPECT_EQ(ErrorOf<EStringListError>([&] { list->Insert(0, u"x"); }), "Operation not allowed on sorted list");
  EXPECT_EQ(ErrorOf<EStringListError>([&] { list->Put(0, u"x"); }), "Operation not allowed on sorted list");
  list->SetCaseSensitive(true);  // sorts again, ordinally
  EXPECT_EQ(Items(*list), (Strings{u"B", u"a", u"b"}));
  list->CustomSort([](TStringList&, Integer a, Integer b) { return b - a; });  // kept sorted: no effect
  EXPECT_EQ(list->Strings(0), u"B");
  list->SetSorted(false);
  list->CustomSort([](TStringList&, Integer a, Integer b) { return b - a; });
  EXPECT_EQ(Items(*list), (Strings{u"b", u"a", u"B"}));
  list->SetCaseSensitive(false);
  list->Sort();  // stable: "b" stays before "B"
  EXPECT_EQ(Items(*list), (Strings{u"a", u"b", u"B"}));

  // Assign copies strings, objects and settings.
  auto source = ListOf({u"b", u"a", u"b"});
  source->PutObject(0, source.get());
  source->SetDelimiter(u';');
  source->SetCaseSensitive(true);
  source->SetDuplicates(dupAccept);
  source->SetSorted(true);
  auto target = ListOf({u"old"});
  target->Assign(source.get());
  EXPECT_EQ(Items(*target), (Strings{u"a", u"b", u"b"}));
  EXPECT_EQ(target->Objects(1), source.get());
  EXPECT_EQ(target->DelimitedText(), u"a;b;b");
  EXPECT_TRUE(target->Sorted() && target->CaseSensitive() && target->Duplicates() == dupAccept);
  EXPECT_TRUE(target->Equals(source.get()));
  EXPECT_FALSE(target->Equals(ListOf({u"a", u"b", u"B"}).get()));
  target->AddStrings(target.get());  // adding itself doubles it
  EXPECT_EQ(target->Count(), 6);

  auto other = MakeObject<TPersistent>();
  EXPECT_EQ(ErrorOf<EConvertError>([&] { target->Assign(other.get()); }),
            "Cannot assign a TPersistent to a TStringList");
  EXPECT_EQ(target->Count(), 6);
}

TEST(DelimitedText, DocumentedSplittingRules) {
  const std::tuple<const char16_t*, bool, Strings> cases[] = {  // text, strict, items
      {u"", false, {}},
      {u"\"\"", false, {u""}},
      {u" a , b ", false, {u"a", u"b"}},
      {u" a , b ", true, {u" a ", u" b "}},
      {u"a b,c", false, {u"a", u"b", u"c"}},
      {u"a b,c", true, {u"a b", u"c"}},
      {u"\"a \"\"q\"\" b\",c", false, {u"a \"q\" b", u"c"}},
      {u"a,,b", false, {u"a", u"", u"b"}},
      {u",a,", true, {u"", u"a", u""}},
      {u"a, ", false, {u"a"}},
      {u"a, ", true, {u"a", u" "}},
      {u"\"ab\"cd", false, {u"ab", u"cd"}},
      {u"\"open, end", true, {u"open, end"}},
  };
  auto list = MakeObject<TStringList>();
  for (const auto& [text, strict, expected] : cases) {
    list->SetStrictDelimiter(strict);
    list->SetDelimitedText(text);
    EXPECT_EQ(Items(*list), expected) << Utf16ToUtf8(text) << (strict ? " strict" : "");
  }
  const std::tuple<Strings, bool, const char16_t*> joins[] = {  // items, strict, text
      {{}, false, u""},
      {{u""}, false, u"\"\""},
      {{u"a b", u"", u"c"}, false, u"\"a b\",,c"},
      {{u"a b", u"", u"c"}, true, u"a b,,c"},
      {{u"say \"hi\"", u"x,y"}, true, u"\"say \"\"hi\"\"\",\"x,y\""},
  };
  for (const auto& [items, strict, text] : joins) {
    list->SetStrictDelimiter(strict);
    list->Clear();
    list->AddStrings(items);
    EXPECT_EQ(list->DelimitedText(), text);
  }
  list->SetDelimiter(u';');
  list->SetQuoteChar(u'\'');
  EXPECT_EQ(list->CommaText(), u"\"say \"\"hi\"\"\",\"x,y\"");  // its own delimiter and quote
  list->SetCommaText("p q, r");
  EXPECT_EQ(Items(*list), (Strings{u"p", u"q", u"r"}));
  EXPECT_EQ(list->DelimitedText(), u"p;q;r");
}

// Random lists over an alphabet full of delimiters, quotes and blanks come back unchanged from
// their delimited text, their comma text and their text.
TEST(DelimitedText, RoundTripsOfRandomLists) {
  static constexpr char16_t alphabet[] = u"ab ,;|\"'\t\0\x00E9<";
  std::mt19937 rng(20261123);
  auto randomList = [&](bool lines) {
    Strings items(rng() % 6);
    for (auto& s : items)
      for (unsigned n = rng() % 5; n > 0; --n) {
        const char16_t c = alphabet[rng() % (std::size(alphabet) - 1)];
        s += lines && c == u'<' ? u'x' : c;  // text items must not hold the line break
      }
    return items;
  };
  const std::tuple<WideChar, WideChar, bool> settings[] = {  // delimiter, quote, strict
      {u',', u'"', false}, {u';', u'\'', false}, {u'|', u'"', true}, {u'\t', u'\'', true}};
  auto list = MakeObject<TStringList>();
  auto copy = MakeObject<TStringList>();
  for (int round = 0; round < 300; ++round) {
    const auto& [delimiter, quote, strict] = settings[round % std::size(settings)];
    const Strings items = randomList(false);
    list->Clear();
    list->AddStrings(items);
    list->SetDelimiter(delimiter);
    list->SetQuoteChar(quote);
    list->SetStrictDelimiter(strict);
    copy->Assign(list.get());
    copy->SetDelimitedText(list->DelimitedText());
    ASSERT_EQ(Items(*copy), items) << Utf16ToUtf8(list->DelimitedText());
    copy->SetCommaText(list->CommaText());
    ASSERT_EQ(Items(*copy), items) << Utf16ToUtf8(list->CommaText());

    list->Clear();
    list->AddStrings(randomList(true));
    list->SetLineBreak(round % 2 ? u"<br>" : u"\n");
    copy->Assign(list.get());
    copy->SetText(list->Text());
    ASSERT_TRUE(copy->Equals(list.get())) << Utf16ToUtf8(list->Text());
  }
}

TEST(StringList, StreamsChooseAndDetectTheEncoding) {
  const Strings items{u"ascii", u"", u"caf\x00E9 \xD83D\xDE00"};
  const std::pair<const TEncoding*, bool> cases[] = {  // encoding, detected by its byte-order mark
      {TEncoding::UTF8(), true}, {TEncoding::Unicode(), true}, {TEncoding::BigEndianUnicode(), true},
      {TEncoding::UTF7(), false}};
  auto list = ListOf(items);
  auto loaded = MakeObject<TStringList>();
  for (const auto& [encoding, detected] : cases) {
    auto stream = MakeObject<TMemoryStream>();
    list->SaveToStream(stream.get(), encoding);
    EXPECT_EQ(stream->Size(),
              static_cast<Int64>(encoding->GetPreamble().size() + encoding->GetBytes(list->Text()).size()));
    stream->SetPosition(0);
    loaded->LoadFromStream(stream.get(), detected ? nullptr : encoding);
    EXPECT_EQ(Items(*loaded), items) << Utf16ToUtf8(encoding->EncodingName());
    EXPECT_EQ(loaded->Encoding(), encoding);
  }
  // A save without an encoding uses the loaded one; WriteBOM off leaves the mark out.
  auto stream = MakeObject<TMemoryStream>();
  loaded->SaveToStream(stream.get());
  EXPECT_EQ(stream->Size(), static_cast<Int64>(TEncoding::UTF7()->GetBytes(loaded->Text()).size()));
  list->SetWriteBOM(false);
  stream->SetSize(0);
  list->SaveToStream(stream.get(), TEncoding::Unicode());
  EXPECT_EQ(stream->Size(), static_cast<Int64>(TEncoding::Unicode()->GetBytes(list->Text()).size()));
  // Without a mark the default encoding reads it.
  auto raw = MakeObject<TBytesStream>(TBytes{'x', '\r', '\n', 'y'});
  loaded->LoadFromStream(raw.get());
  EXPECT_EQ(Items(*loaded), (Strings{u"x", u"y"}));
  EXPECT_EQ(loaded->Encoding(), TEncoding::UTF8());
  // Bytes that do not decode leave the list as it was.
  auto bad = MakeObject<TBytesStream>(TBytes{'a', 0xC3});
  EXPECT_THROW(loaded->LoadFromStream(bad.get()), EEncodingError);
  EXPECT_EQ(Items(*loaded), (Strings{u"x", u"y"}));

  const std::string path = ::testing::TempDir() + "quma_stringlist.txt";
  list->SetWriteBOM(true);
  list->SaveToFile(path, TEncoding::Unicode());
  loaded->LoadFromFile(path);
  EXPECT_TRUE(loaded->Equals(list.get()));
  std::remove(path.c_str());
}

