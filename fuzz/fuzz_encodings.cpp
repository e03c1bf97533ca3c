// Every standard encoding: decoding any bytes is strict (EEncodingError or text within the
// encoding's character bound), encoding any UTF-16 stays within its byte bound, the Unicode
// encodings give decoded text back byte for byte, and byte-order-mark detection never misreads.
#include <quma/Encoding.h>

#include "FuzzSupport.h"

using namespace quma;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::TInput in(data, size);
  const Byte which = in.Byte();
  const std::string_view rest = in.Rest();
  const TBytes bytes(rest.begin(), rest.end());
  const TEncoding* encodings[] = {TEncoding::ANSI(), TEncoding::ASCII(), TEncoding::BigEndianUnicode(),
                                  TEncoding::Unicode(), TEncoding::UTF7(), TEncoding::UTF8()};
  const TEncoding* enc = encodings[which % 6];
  const auto n = static_cast<Integer>(bytes.size());

  try {
    const UnicodeString text = enc->GetString(bytes);
    QUMA_FUZZ_CHECK(static_cast<Integer>(text.size()) <= enc->GetMaxCharCount(n));
    if (enc == TEncoding::UTF8() || enc == TEncoding::Unicode() || enc == TEncoding::BigEndianUnicode())
      QUMA_FUZZ_CHECK(enc->GetBytes(text) == bytes);
  } catch (const EEncodingError&) {
    QUMA_FUZZ_CHECK(!enc->IsSingleByte());
  }

  const UnicodeString wide = fuzz::AsUtf16(rest);
  try {
    const TBytes encoded = enc->GetBytes(wide);
    QUMA_FUZZ_CHECK(static_cast<Integer>(encoded.size()) <= enc->GetMaxByteCount(static_cast<Integer>(wide.size())));
    if (enc == TEncoding::UTF7()) QUMA_FUZZ_CHECK(enc->GetString(encoded) == wide);
  } catch (const EEncodingError&) {
  }

  const TEncoding* found = nullptr;
  const Integer mark = TEncoding::GetBufferEncoding(bytes, found);
  QUMA_FUZZ_CHECK(found != nullptr && mark >= 0 && mark <= n);
  if (mark > 0) QUMA_FUZZ_CHECK(static_cast<Integer>(found->GetPreamble().size()) == mark);
  return 0;
}
