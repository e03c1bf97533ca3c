#include <gtest/gtest.h>

#include <quma/IOUtils.h>
#include <quma/QUMAEncoding.h>

using namespace quma;

TEST(EncodingRegistry, StandardEncodingsUnderTheirOwnNames) {
  auto names = MakeObject<TStringList>();
  names->Add(u"kept");
  EXPECT_EQ(QUMAGetRegisteredEncodings(names.get()), 6);
  EXPECT_EQ(names->Count(), 7);
  for (const TEncoding* e : {TEncoding::ANSI(), TEncoding::ASCII(), TEncoding::BigEndianUnicode(), TEncoding::Unicode(),
                             TEncoding::UTF7(), TEncoding::UTF8()}) {
    EXPECT_EQ(QUMAGetEncoding(e->EncodingName()), e);
    EXPECT_EQ(QUMAGetEncodingClass(e->EncodingName()), e->ClassType());
    EXPECT_GE(names->IndexOf(e->EncodingName()), 1);
  }
  EXPECT_EQ(QUMAGetRegisteredEncodings(nullptr), 0);
  EXPECT_EQ(QUMAGetEncoding(u"unicode (utf-8)"), nullptr);  // names are case-sensitive
  EXPECT_EQ(QUMAGetEncodingClass(u"none"), nullptr);
}

TEST(EncodingRegistry, RegisterReplaceAndUnregisterByObject) {
  QUMARegisterEncoding(u"", TEncoding::UTF8());
  QUMARegisterEncoding(u"x", nullptr);
  EXPECT_EQ(QUMAGetEncoding(u""), nullptr);
  EXPECT_EQ(QUMAGetEncoding(u"x"), nullptr);
  QUMARegisterEncoding(u"x", TEncoding::UTF8());
  QUMARegisterEncoding(u"x", TEncoding::ASCII());
  EXPECT_EQ(QUMAGetEncoding(u"x"), TEncoding::ASCII());
  QUMAUnregisterEncoding(u"x", TEncoding::UTF8());  // another object: stays
  EXPECT_EQ(QUMAGetEncoding(u"x"), TEncoding::ASCII());
  QUMAUnregisterEncoding(u"x", TEncoding::ASCII());
  EXPECT_EQ(QUMAGetEncoding(u"x"), nullptr);
}

TEST(StreamEncoding, MarkDetectionAndPosition) {
  struct Case {
    TBytes Bytes;
    Int64 Position;
    const TEncoding* Default;
    bool Found;
    const TEncoding* Encoding;
    Int64 After;
  };
  const Case cases[] = {
      {{0xEF, 0xBB, 0xBF, 'a', 'b'}, 0, nullptr, true, TEncoding::UTF8(), 3},
      {{0xEF, 0xBB, 0xBF, 'a', 'b'}, 4, nullptr, true, TEncoding::UTF8(), 4},  // further on: stays
      {{0xFF, 0xFE, 'a', 0}, 0, nullptr, true, TEncoding::Unicode(), 2},
      {{0xFE, 0xFF}, 1, nullptr, true, TEncoding::BigEndianUnicode(), 2},  // short stream
      {{'a', 'b'}, 1, nullptr, false, TEncoding::UTF8(), 1},
      {{'a', 'b'}, 0, TEncoding::ANSI(), false, TEncoding::ANSI(), 0},
      {{}, 0, nullptr, false, TEncoding::UTF8(), 0},
  };
  for (const Case& c : cases) {
    auto s = MakeObject<TBytesStream>(c.Bytes);
    s->SetPosition(c.Position);
    const TEncoding* e = nullptr;
    EXPECT_EQ(QUMAGetStreamEncoding(s.get(), e, c.Default), c.Found);
    EXPECT_EQ(e, c.Encoding);
    EXPECT_EQ(s->Position(), c.After);
  }
  // A given encoding only measures its own mark.
  auto s = MakeObject<TBytesStream>(TBytes{0xEF, 0xBB, 0xBF});
  const TEncoding* given = TEncoding::Unicode();
  EXPECT_FALSE(QUMAGetStreamEncoding(s.get(), given));
  EXPECT_EQ(given, TEncoding::Unicode());
}

TEST(StreamEncoding, FetchReadsWholeCharacters) {
  struct Case {
    const TEncoding* Encoding;
    TBytes Bytes;
    UnicodeString Text;
    Integer ByteCount;
  };
  const Case cases[] = {
      {TEncoding::UTF8(), {0xE2, 0x82, 0xAC, 'x'}, u"\u20AC", 3},
      {TEncoding::UTF8(), {0xF0, 0x9F, 0x98, 0x80}, u"\U0001F600", 4},
      {TEncoding::Unicode(), {0x3D, 0xD8, 0x00, 0xDE}, u"\U0001F600", 4},  // a pair is not split
      {TEncoding::BigEndianUnicode(), {0xD8, 0x3D, 0xDE, 0x00}, u"\U0001F600", 4},
      {TEncoding::UTF7(), {'+', 'A', 'O', 'k', '-'}, u"\u00E9", 4},
      {TEncoding::ANSI(), {0x80}, u"\u20AC", 1},
  };
  for (const Case& c : cases) {
    auto s = MakeObject<TBytesStream>(c.Bytes);
    WideChar ch = 0;
    UnicodeString text = u"old";
    Integer count = 0;
    EXPECT_TRUE(QUMAFetchEncodedCharacter(s.get(), c.Encoding, ch, text, count));
    EXPECT_EQ(text, c.Text);
    EXPECT_EQ(ch, c.Text[0]);
    EXPECT_EQ(count, c.ByteCount);
    EXPECT_EQ(s->Position(), count);
  }
  // An incomplete character at the end: false, and its bytes stay consumed.
  auto s = MakeObject<TBytesStream>(TBytes{0xE2, 0x82});
  WideChar ch = 0;
  UnicodeString text = u"old";
  Integer count = 9;
  EXPECT_FALSE(QUMAFetchEncodedCharacter(s.get(), TEncoding::UTF8(), ch, text, count));
  EXPECT_EQ(text, u"");
  EXPECT_EQ(count, 0);
  EXPECT_EQ(s->Position(), 2);
  EXPECT_FALSE(QUMAFetchEncodedCharacter(s.get(), TEncoding::UTF8(), ch, text, count));  // at the end
}
