#include <quma/IOUtils.h>

#include <algorithm>
#include <vector>

namespace quma {

namespace {
// The marks the runtime detects are at most three bytes; the rest of the buffer is read only so
// that a stream shorter than that is examined as it is.
constexpr Int64 kProbeSize = 12;
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
