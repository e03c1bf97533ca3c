// QUMAFetchEncodedCharacter decodes UTF-8 in the library's memory streams straight from memory;
// a derived stream class takes the byte-by-byte road. Both must read the same characters.
#include <gtest/gtest.h>

#include <random>

#include <quma/IOUtils.h>

using namespace quma;

namespace {
class TByteByByteStream : public TBytesStream {
  QUMA_CLASS(TByteByByteStream, TBytesStream)
 public:
  using TBytesStream::TBytesStream;
};

// Every character read from Bytes, with its units, bytes and the position after it.
std::string ReadAll(TStream* stream) {
  std::string out;
  WideChar c = 0;
  UnicodeString text;
  Integer bytes = 0;
  while (QUMAFetchEncodedCharacter(stream, TEncoding::UTF8(), c, text, bytes)) {
    out += std::to_string(c) + ":" + std::to_string(text.size()) + ":" + std::to_string(text.back()) + ":" +
           std::to_string(bytes) + "@" + std::to_string(stream->Position()) + " ";
  }
  return out + "end@" + std::to_string(stream->Position());
}
}  // namespace

TEST(FetchEncodedCharacter, MemoryAndByteByByteReadingAgree) {
  std::mt19937 random(5);
  // Lead bytes of every kind, the edges of the continuation ranges, ASCII and stray bytes.
  const Byte pieces[] = {0x41, 0x7F, 0x80, 0x8F, 0x90, 0x9F, 0xA0, 0xBF, 0xC0, 0xC1, 0xC2, 0xDF,
                         0xE0, 0xE1, 0xEC, 0xED, 0xEE, 0xEF, 0xF0, 0xF1, 0xF3, 0xF4, 0xF5, 0xFF};
  for (int i = 0; i < 20000; ++i) {
    TBytes input(random() % 7 + 1);
    for (Byte& b : input) b = pieces[random() % std::size(pieces)];
    auto memory = MakeObject<TBytesStream>(input);
    auto byByte = MakeObject<TByteByByteStream>(input);
    ASSERT_EQ(ReadAll(memory.get()), ReadAll(byByte.get())) << ::testing::PrintToString(input);
  }
}
