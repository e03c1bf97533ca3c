// Every UUID reader, on UTF-8 and UTF-16 text; a value read from text comes back unchanged
// through each text form that can carry it.
#include <quma/Uuid.h>

#include "FuzzSupport.h"

using namespace quma;

namespace {

void RoundTrip(const TQUMA_Uuid& id) {
  for (const char* form : {"ms", "hex", "base64", "jhashpath"}) {
    const UnicodeString text = id.Format(std::string_view(form));
    QUMA_FUZZ_CHECK(TQUMA_Uuid::Create(text) == id);
    QUMA_FUZZ_CHECK(TQUMA_Uuid::TryParseText(id.FormatUtf8(form)) == id);
  }
  // The default form is the internal-reference text for values that start like "QUMA-" in
  // UTF-16; that text is for people and is not read back.
  const Byte* b = id._baUuid;
  if (!(b[0] == 'Q' && b[1] == 0 && b[2] == 'U' && b[3] == 0 && b[4] == 'M'))
    QUMA_FUZZ_CHECK(TQUMA_Uuid::Create(id.Format()) == id);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  if (auto id = TQUMA_Uuid::TryParse(bytes)) RoundTrip(*id);
  if (auto id = TQUMA_Uuid::TryParseText(bytes)) RoundTrip(*id);
  const UnicodeString wide = fuzz::AsUtf16(bytes);
  if (auto id = TQUMA_Uuid::TryParse(UnicodeStringView(wide))) RoundTrip(*id);
  try {
    TQUMA_Uuid::Create(wide.c_str());  // zero-terminated form: reads up to the first NUL
  } catch (const EConvertError&) {
  }
  return 0;
}
