#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>

#include <quma/Encoding.h>
#include <quma/Streams.h>

using namespace quma;

TEST(Encodings, RoundTripEveryStandardEncoding) {
  const UnicodeString text = u"Hi + \u00E9\u20AC \U0001F600 a-b~";
  for (const TEncoding* e : {TEncoding::UTF8(), TEncoding::Unicode(), TEncoding::BigEndianUnicode(), TEncoding::UTF7()}) {
    SCOPED_TRACE(Utf16ToUtf8(e->EncodingName()));
    EXPECT_EQ(e->GetString(e->GetBytes(text)), text);
    EXPECT_TRUE(TEncoding::IsStandardEncoding(e));
  }
  EXPECT_EQ(TEncoding::ANSI()->GetString(TEncoding::ANSI()->GetBytes(u"caf\u00E9 \u20AC")), u"caf\u00E9 \u20AC");
  EXPECT_EQ(TEncoding::ANSI()->GetBytes(u"\u20AC\u4E00"), (TBytes{0x80, '?'}));
  EXPECT_EQ(TEncoding::ASCII()->GetBytes(u"a\u00E9"), (TBytes{'a', '?'}));
  EXPECT_EQ(TEncoding::ASCII()->GetString(TBytes{'a', 0xE9}), u"a?");
}

TEST(Encodings, KnownByteForms) {
  EXPECT_EQ(TEncoding::UTF8()->GetBytes(u"\u00E9"), (TBytes{0xC3, 0xA9}));
  EXPECT_EQ(TEncoding::Unicode()->GetBytes(u"A"), (TBytes{0x41, 0x00}));
  EXPECT_EQ(TEncoding::BigEndianUnicode()->GetBytes(u"A"), (TBytes{0x00, 0x41}));
  // RFC 2152 examples.
  auto utf7 = [](UnicodeStringView s) {
    const TBytes b = TEncoding::UTF7()->GetBytes(s);
    return std::string(b.begin(), b.end());
  };
  EXPECT_EQ(utf7(u"A\u2262\u0391."), "A+ImIDkQ.");
  EXPECT_EQ(utf7(u"1 + 1"), "1 +- 1");
  EXPECT_EQ(TEncoding::UTF7()->GetString(TBytes{'+', 'Z', 'e', 'V', 'n', 'L', 'I', 'q', 'e', '-'}), u"\u65E5\u672C\u8A9E");
  EXPECT_EQ(TEncoding::UTF8()->GetMaxByteCount(1), 6);
  EXPECT_EQ(TEncoding::Unicode()->GetMaxByteCount(1), 4);
}

TEST(Encodings, IncompleteInputRaises) {
  try {
    TEncoding::UTF8()->GetString(TBytes{0xE2, 0x82});
    FAIL();
  } catch (const EEncodingError& e) {
    EXPECT_EQ(e.Message(), u"No mapping for the Unicode character exists in the target multi-byte code page");
  }
  EXPECT_THROW(TEncoding::Unicode()->GetString(TBytes{0x41}), EEncodingError);
  EXPECT_THROW(TEncoding::Unicode()->GetString(TBytes{0x3D, 0xD8}), EEncodingError);  // lone high surrogate
  EXPECT_EQ(TEncoding::Unicode()->GetString(TBytes{0x3D, 0xD8, 0x00, 0xDE}), u"\U0001F600");
}

TEST(Encodings, ByteOrderMarkDetection) {
  const TEncoding* found = nullptr;
  EXPECT_EQ(TEncoding::GetBufferEncoding(TBytes{0xEF, 0xBB, 0xBF, 'x'}, found), 3);
  EXPECT_EQ(found, TEncoding::UTF8());
  found = nullptr;
  EXPECT_EQ(TEncoding::GetBufferEncoding(TBytes{0xFF, 0xFE, 0, 0}, found), 2);
  EXPECT_EQ(found, TEncoding::Unicode());
  found = nullptr;
  EXPECT_EQ(TEncoding::GetBufferEncoding(TBytes{0xFE, 0xFF}, found), 2);
  EXPECT_EQ(found, TEncoding::BigEndianUnicode());
  found = nullptr;
  EXPECT_EQ(TEncoding::GetBufferEncoding(TBytes{'a', 'b'}, found, TEncoding::ANSI()), 0);
  EXPECT_EQ(found, TEncoding::ANSI());
  found = TEncoding::Unicode();  // a given encoding is only measured
  EXPECT_EQ(TEncoding::GetBufferEncoding(TBytes{0xEF, 0xBB, 0xBF}, found), 0);
  EXPECT_EQ(found, TEncoding::Unicode());
}

TEST(Streams, MemoryStreamPositionsAndErrors) {
  auto s = MakeObject<TMemoryStream>();
  const char data[] = "hello";
  s->WriteBuffer(data, 5);
  EXPECT_EQ(s->Size(), 5);
  EXPECT_EQ(s->Position(), 5);
  s->Seek(-2, soEnd);
  char buf[8] = {};
  EXPECT_EQ(s->Read(buf, 8), 2);
  EXPECT_STREQ(buf, "lo");
  s->SetPosition(0);
  try {
    s->ReadBuffer(buf, 6);
    FAIL();
  } catch (const EReadError& e) {
    EXPECT_EQ(e.Message(), u"Stream read error");
  }
  s->SetSize(2);
  EXPECT_EQ(s->Size(), 2);
  auto copy = MakeObject<TBytesStream>();
  EXPECT_EQ(copy->CopyFrom(s.get(), 0), 2);
  EXPECT_EQ(copy->Bytes(), (TBytes{'h', 'e'}));
}

TEST(Streams, StringStreamUsesItsEncoding) {
  auto s = MakeObject<TStringStream>(u"\u00E9", TEncoding::Unicode(), true);
  EXPECT_EQ(s->Bytes(), (TBytes{0xFF, 0xFE, 0xE9, 0x00}));
  auto u = MakeObject<TStringStream>(std::string_view("caf\xC3\xA9"));
  EXPECT_EQ(u->DataString(), u"caf\u00E9");
  EXPECT_EQ(u->Size(), 5);
}

TEST(Streams, FileStreamCreatesReadsAndReportsErrors) {
  const auto path = std::filesystem::temp_directory_path() / ("quma_stream_test_" + std::to_string(::getpid()));
  {
    auto f = MakeObject<TFileStream>(std::string_view(path.string()), fmCreate);
    f->WriteBuffer("abcdef", 6);
    f->SetSize(4);
  }
  {
    auto f = MakeObject<TFileStream>(std::string_view(path.string()), fmOpenRead);
    EXPECT_EQ(f->Size(), 4);
    EXPECT_EQ(f->ReadBytes(10), (TBytes{'a', 'b', 'c', 'd'}));
  }
  std::filesystem::remove(path);
  try {
    TFileStream missing(std::string_view("/nonexistent/dir/file"), fmOpenRead);
    FAIL();
  } catch (const EFOpenError& e) {
    EXPECT_EQ(e.Message(), u"Cannot open file \"/nonexistent/dir/file\". No such file or directory");
  }
}
