#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <tuple>

#include <quma/Encoding.h>
#include <quma/Streams.h>

#include "rtl/TestSupport.h"

using namespace quma;
using quma::test::ErrorOf;

namespace {
const TEncoding* const kAll[] = {TEncoding::ANSI(),    TEncoding::ASCII(), TEncoding::BigEndianUnicode(),
                                 TEncoding::Unicode(), TEncoding::UTF7(),  TEncoding::UTF8()};

std::string Ascii(const TBytes& b) { return std::string(b.begin(), b.end()); }

// A stream whose first write takes nothing (a later one would take everything).
class TFullStream : public TStream {
  QUMA_CLASS(TFullStream, TStream)
 public:
  int Writes = 0;
  Int64 Read(void*, Int64) override { return 0; }
  Int64 Write(const void*, Int64 Count) override { return Writes++ == 0 ? 0 : Count; }
  Int64 Seek(Int64, TSeekOrigin) override { return 0; }
};

class TDerivedBytes : public TBytesStream {
  QUMA_CLASS(TDerivedBytes, TBytesStream)
};
}  // namespace

TEST(Encodings, KnownByteFormsBothWaysAndByteOrderMarks) {
  const std::tuple<const TEncoding*, UnicodeString, TBytes> cases[] = {
      {TEncoding::UTF8(), u"\u00E9", {0xC3, 0xA9}},
      {TEncoding::Unicode(), u"A\U0001F600", {0x41, 0, 0x3D, 0xD8, 0x00, 0xDE}},
      {TEncoding::BigEndianUnicode(), u"A\U0001F600", {0, 0x41, 0xD8, 0x3D, 0xDE, 0x00}},
      {TEncoding::ANSI(), u"caf\u00E9 \u20AC", {'c', 'a', 'f', 0xE9, ' ', 0x80}},
      // RFC 2152 examples; a run ends with '-' only where the next byte could continue it.
      {TEncoding::UTF7(), u"A\u2262\u0391.", {'A', '+', 'I', 'm', 'I', 'D', 'k', 'Q', '.'}},
      {TEncoding::UTF7(), u"1 + 1", {'1', ' ', '+', '-', ' ', '1'}},
      {TEncoding::UTF7(), u"a+z", {'a', '+', '-', 'z'}},
      {TEncoding::UTF7(), u"\u00E91", {'+', 'A', 'O', 'k', '-', '1'}},
      {TEncoding::UTF7(), u"\u00E9-", {'+', 'A', 'O', 'k', '-', '-'}},
      {TEncoding::UTF7(), u"\u65E5\u672C\u8A9E", {'+', 'Z', 'e', 'V', 'n', 'L', 'I', 'q', 'e', '-'}},
  };
  for (const auto& [enc, text, bytes] : cases) {
    SCOPED_TRACE(Utf16ToUtf8(enc->EncodingName() + u" " + text));
    EXPECT_EQ(enc->GetBytes(text), bytes);
    EXPECT_EQ(enc->GetString(bytes), text);
  }
  // Single-byte encodings map what they cannot hold to '?', both ways.
  EXPECT_EQ(TEncoding::ANSI()->GetBytes(u"\u4E00"), TBytes{'?'});
  EXPECT_EQ(TEncoding::ASCII()->GetBytes(u"a\u00E9"), (TBytes{'a', '?'}));
  EXPECT_EQ(TEncoding::ASCII()->GetString(TBytes{0x7F, 0x80, 0xE9}), u"\x7F??");

  // Byte-order marks: buffer, given, default, mark length, encoding found.
  const std::tuple<TBytes, const TEncoding*, const TEncoding*, Integer, const TEncoding*> marks[] = {
      {{0xEF, 0xBB, 0xBF, 'x'}, nullptr, TEncoding::Default(), 3, TEncoding::UTF8()},
      {{0xFF, 0xFE, 0, 0}, nullptr, TEncoding::Default(), 2, TEncoding::Unicode()},
      {{0xFE, 0xFF}, nullptr, TEncoding::Default(), 2, TEncoding::BigEndianUnicode()},
      {{'a', 'b'}, nullptr, TEncoding::ANSI(), 0, TEncoding::ANSI()},
      {{0xEF, 0xBB, 0xBF}, TEncoding::Unicode(), TEncoding::Default(), 0, TEncoding::Unicode()},  // only measured
  };
  for (const auto& [buffer, given, fallback, length, expected] : marks) {
    const TEncoding* found = given;
    EXPECT_EQ(TEncoding::GetBufferEncoding(buffer, found, fallback), length);
    EXPECT_EQ(found, expected);
  }
}

// Random texts over the characters that stress each encoder (runs, '+', '-', zero, surrogates)
// round-trip and never exceed the promised maximum.
TEST(Encodings, RoundTripWithinMaxByteCount) {
  EXPECT_EQ(TEncoding::UTF7()->GetBytes(UnicodeString(u"\0+\u00FF\u00FF", 4)).size(), 13u);
  const char16_t alphabet[] = {0, u'+', u'-', u'a', u'1', u' ', u'~', 0xE9, 0xFFFF, 0x20AC};
  std::mt19937 rng(7);
  for (int round = 0; round < 2000; ++round) {
    UnicodeString text;
    for (unsigned n = rng() % 12; n > 0; --n) {
      if (rng() % 8 == 0)
        text += u"\U0001F600";
      else
        text.push_back(alphabet[rng() % std::size(alphabet)]);
    }
    for (const TEncoding* e : kAll) {
      const TBytes bytes = e->GetBytes(text);
      ASSERT_LE(static_cast<Integer>(bytes.size()), e->GetMaxByteCount(static_cast<Integer>(text.size())))
          << Utf16ToUtf8(e->EncodingName()) << " " << Ascii(bytes);
      if (!e->IsSingleByte()) {
        ASSERT_EQ(e->GetString(bytes), text) << Utf16ToUtf8(e->EncodingName());
      }
    }
  }
}

TEST(Encodings, InvalidOrIncompleteInputRaises) {
  const std::pair<const TEncoding*, TBytes> cases[] = {
      {TEncoding::UTF8(), {0xE2, 0x82}},                          // cut sequence
      {TEncoding::Unicode(), {0x41}},                             // half a unit
      {TEncoding::Unicode(), {0x3D, 0xD8}},                       // high surrogate at the end
      {TEncoding::Unicode(), {0x00, 0xDE, 0x41, 0x00}},           // lone low surrogate
      {TEncoding::Unicode(), {0x3D, 0xD8, 0x41, 0x00}},           // high followed by 'A'
      {TEncoding::BigEndianUnicode(), {0xDE, 0x00}},              // lone low surrogate
      {TEncoding::BigEndianUnicode(), {0xD8, 0x3D, 0xD8, 0x3D}},  // high followed by high
      {TEncoding::UTF7(), {'+', '2', 'D', '0'}},                  // run cut after a high surrogate
      {TEncoding::UTF7(), {'+', '2', 'D', '0', '-', 'a'}},
      {TEncoding::UTF7(), {'+', '3', 'g', 'A', '-'}},             // lone low surrogate
      {TEncoding::UTF7(), {0xC3}},                                // not 7-bit
  };
  for (const auto& [enc, bytes] : cases) {
    SCOPED_TRACE(Utf16ToUtf8(enc->EncodingName()) + " " + Ascii(bytes));
    EXPECT_EQ(ErrorOf<EEncodingError>([&] { enc->GetString(bytes); }),
              "No mapping for the Unicode character exists in the target multi-byte code page");
  }
  // A pair split over two runs is still a pair.
  EXPECT_EQ(TEncoding::UTF7()->GetString(TBytes{'+', '2', 'D', '0', '-', '+', '3', 'g', 'A', '-'}), u"\U0001F600");
}

// Every stream: positions past the end read nothing and a write there extends the stream;
// negative targets and counts change nothing.
TEST(Streams, PositionsAndCountsStayInsideTheBuffer) {
  const auto path = std::filesystem::temp_directory_path() / ("quma_stream_test_" + std::to_string(::getpid()));
  auto mem = MakeObject<TMemoryStream>();
  auto file = MakeObject<TFileStream>(std::string_view(path.string()), fmCreate);
  for (TStream* s : {static_cast<TStream*>(mem.get()), static_cast<TStream*>(file.get())}) {
    SCOPED_TRACE(Utf16ToUtf8(s->ClassName()));
    s->WriteBuffer("hello", 5);
    char buf[8] = {};
    s->SetPosition(-3);
    EXPECT_EQ(s->Position(), 5);
    EXPECT_EQ(s->Seek(-6, soEnd), 5);
    EXPECT_EQ(s->Seek(-6, soCurrent), 5);
    EXPECT_EQ(s->Seek(-2, soEnd), 3);
    EXPECT_EQ(s->Read(buf, -1), 0);
    EXPECT_EQ(s->Write("x", -1), 0);
    EXPECT_EQ(s->Read(buf, 8), 2);
    EXPECT_STREQ(buf, "lo");
    EXPECT_EQ(s->Seek(2, soEnd), 7);
    EXPECT_EQ(s->Read(buf, 8), 0);
    s->WriteBuffer("!", 1);
    EXPECT_EQ(s->Size(), 8);
    s->SetPosition(5);
    EXPECT_EQ(s->ReadBytes(3), (TBytes{0, 0, '!'}));
    s->SetPosition(0);
    EXPECT_EQ(ErrorOf<EReadError>([&] { s->ReadBuffer(buf, 9); }), "Stream read error");
    EXPECT_EQ(ErrorOf<EWriteError>([] { MakeObject<TFullStream>()->WriteBuffer("x", 1); }), "Stream write error");
    s->SetSize(2);
    EXPECT_EQ(s->Size(), 2);
    EXPECT_LE(s->Position(), 2);
  }
  mem->SetSize(-1);
  EXPECT_EQ(std::tuple(mem->Size(), mem->Position()), std::tuple(0, 0));
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // sanitizer allocators abort on such a request
  mem->SetPosition(Int64(1) << 62);
  EXPECT_EQ(ErrorOf<EStreamError>([&] { mem->Write("x", 1); }), "Out of memory while expanding memory stream");
  EXPECT_EQ(mem->Size(), 0);
#endif
  mem->SetPosition(0x7FFFFFFFFFFFFFFF);
  EXPECT_EQ(mem->Write("x", 1), 0);  // the end would overflow
  EXPECT_EQ(mem->Seek(1, soCurrent), 0x7FFFFFFFFFFFFFFF);
  char c = 0;
  // A failed read or write moves nothing.
  EXPECT_EQ(TFileStream(std::string_view(path.string()), fmOpenWrite).Read(&c, 1), 0);
  EXPECT_EQ(TFileStream(std::string_view(path.string()), fmOpenRead).Write(&c, 1), 0);
  file.reset();
  std::filesystem::remove(path);
}

TEST(Streams, CopyStringAndFileStreams) {
  auto src = MakeObject<TBytesStream>(TBytes{'h', 'e', 'y'});
  src->SetPosition(2);
  auto copy = MakeObject<TBytesStream>();
  EXPECT_EQ(copy->CopyFrom(src.get(), 0), 3);  // 0: all of it, from the start
  EXPECT_EQ(copy->Bytes(), (TBytes{'h', 'e', 'y'}));

  auto u = MakeObject<TStringStream>(std::string_view("caf\xC3\xA9"));
  EXPECT_EQ(u->DataString(), u"caf\u00E9");
  EXPECT_EQ(u->Size(), 5);
  // The library's own memory classes read their memory; a derived class may not.
  auto derived = MakeObject<TDerivedBytes>();
  EXPECT_EQ(std::tuple(PlainMemoryStream(u.get()), PlainMemoryStream(copy.get()), PlainMemoryStream(derived.get()),
                       PlainMemoryStream(nullptr)),
            std::tuple(u.get(), copy.get(), nullptr, nullptr));

  EXPECT_EQ(ErrorOf<EFOpenError>([] { TFileStream(std::string_view("/nonexistent/dir/file"), fmOpenRead); }),
            "Cannot open file \"/nonexistent/dir/file\". No such file or directory");
}
