#include <quma/IOUtils.h>

#include <algorithm>
#include <vector>

namespace quma {

namespace {
// The marks the runtime detects are at most three bytes; the rest of the buffer is read only so
// that a stream shorter than that is examined as it is.
constexpr Int64 kProbeSize = 12;

// The length of the well-formed UTF-8 sequence at the start of Bytes (the Unicode standard's
// table of well-formed byte sequences), with its code point; 0 for anything else, a sequence cut
// short included.
int WellFormedUtf8(const Byte* Bytes, std::size_t Count, char32_t& CodePoint) noexcept {
  const Byte b = Bytes[0];
  if (b < 0x80) {
    CodePoint = b;
    return 1;
  }
  int length = 0;
  Byte low = 0x80, high = 0xBF;  // the range of the second byte
  if (b >= 0xC2 && b <= 0xDF) length = 2;
  else if (b >= 0xE0 && b <= 0xEF) {
    length = 3;
    if (b == 0xE0) low = 0xA0;
    if (b == 0xED) high = 0x9F;  // (no surrogates)
  } else if (b >= 0xF0 && b <= 0xF4) {
    length = 4;
    if (b == 0xF0) low = 0x90;
    if (b == 0xF4) high = 0x8F;
  } else {
    return 0;
  }
  if (Count < static_cast<std::size_t>(length) || Bytes[1] < low || Bytes[1] > high) return 0;
  char32_t c = b & (0x7F >> length);
  for (int i = 1; i < length; ++i) {
    if (i > 1 && (Bytes[i] & 0xC0) != 0x80) return 0;
    c = (c << 6) | (Bytes[i] & 0x3F);
  }
  CodePoint = c;
  return length;
}

}  // namespace

bool QUMAGetStreamEncoding(TStream* Stream, const TEncoding*& Encoding, const TEncoding* DefaultEncoding) {
  TBytes buffer(kProbeSize);
  const Int64 position = Stream->Position();
  Stream->SetPosition(0);
  const Int64 read = Stream->Read(buffer.data(), kProbeSize);
  std::fill(buffer.begin() + std::max<Int64>(read, 0), buffer.end(), Byte{0});
  const Integer markLength =
      TEncoding::GetBufferEncoding(buffer, Encoding, DefaultEncoding ? DefaultEncoding : TEncoding::UTF8());
  Stream->SetPosition(markLength < position ? position : markLength);
  return markLength > 0;
}

bool QUMAFetchEncodedCharacter(TStream* Stream, const TEncoding* Encoding, WideChar& Character, UnicodeString& Text,
                               Integer& ByteCount) {
  Text.clear();
  ByteCount = 0;
  if (!Stream) return false;
  if (!Encoding) Encoding = TEncoding::UTF8();
  if (TMemoryStream* memory = Encoding == TEncoding::UTF8() ? PlainMemoryStream(Stream) : nullptr) {
    // A well-formed sequence is what the byte-by-byte reading below would decode, at the byte that
    // completes it: take it straight from memory. Anything else takes that road.
    const Int64 position = memory->MemoryPosition(), size = memory->MemorySize();
    char32_t c = 0;
    const int length = position >= 0 && position < size
                           ? WellFormedUtf8(memory->Memory() + position, static_cast<std::size_t>(size - position), c)
                           : 0;
    if (length > 0) {
      if (c < 0x10000) {
        Text.assign(1, static_cast<char16_t>(c));
      } else {
        Text.assign(1, static_cast<char16_t>(0xD800 + ((c - 0x10000) >> 10)));
        Text.push_back(static_cast<char16_t>(0xDC00 + ((c - 0x10000) & 0x3FF)));
      }
      memory->TMemoryStream::Seek(position + length, soBeginning);
      Character = Text[0];
      ByteCount = length;
      return true;
    }
  }
  const Integer limit = Encoding->GetMaxByteCount(1);
  Byte small[16];
  std::vector<Byte> large;  // only for an encoding with characters longer than 16 bytes
  Byte* bytes = small;
  if (limit > static_cast<Integer>(sizeof small)) {
    large.resize(static_cast<std::size_t>(limit));
    bytes = large.data();
  }
  Integer count = 0;
  while (Stream->Position() < Stream->Size() && count < limit) {
    if (Stream->Read(bytes + count, 1) != 1) break;
    ++count;
    // Input that does not decode (EEncodingError from GetChars) is not a whole character yet:
    // read one more byte. The non-raising form keeps exceptions off this per-byte path.
    bool decoded = false;
    try {
      decoded = Encoding->TryGetChars(bytes, static_cast<std::size_t>(count), Text);
    } catch (const EEncodingError&) {
      // an encoding of the caller's that raises instead
    }
    if (!decoded || Text.empty()) {
      Text.clear();
      continue;  // (an empty result is a shift sequence, UTF-7 '+', with no character yet)
    }
    Character = Text[0];
    ByteCount = count;
    return true;
  }
  return false;
}

}  // namespace quma
