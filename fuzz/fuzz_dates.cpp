// Each internet date reader on any text; a text the HTTP or XML reader accepts comes back the same
// through its writer and reader.
#include <cmath>
#include <type_traits>

#include <quma/DateUtils.h>
#include <quma/Strings.h>

#include "FuzzSupport.h"

using namespace quma;

namespace {

template <class Read, class Write>
void Check(const UnicodeString& text, Read read, Write write) {
  TDateTime value;
  try {
    value = read(text);
  } catch (const EConvertError&) {
    return;
  }
  if constexpr (!std::is_same_v<Write, std::nullptr_t>) {
    if (!std::isfinite(value) || std::fabs(value) < 1e-8) return;  // 0 writes "now"
    UnicodeString again;
    try {
      again = write(value);
    } catch (const EConvertError&) {
      return;  // outside what the writer can express
    }
    QUMA_FUZZ_CHECK(std::fabs(read(again) - value) < 1e-6);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::TInput in(data, size);
  const Byte which = in.Byte();
  const std::string_view rest = in.Rest();
  const UnicodeString text = (which & 0x80) ? fuzz::AsUtf16(rest) : Utf8ToUtf16(rest);
  auto http = [](UnicodeStringView s) { return HTTPDateToGMTime(s); };
  auto xml = [](UnicodeStringView s) { return XMLDateToGMTime(s); };
  switch (which % 6) {
    case 0: Check(text, http, [](TDateTime v) { return GMTimeToHTTPDate(v); }); break;
    case 1: Check(text, xml, [](TDateTime v) { return GMTimeToXMLDate(v); }); break;
    case 2: Check(text, [](UnicodeStringView s) { return RFC822DateToGMTime(s); }, nullptr); break;
    case 3: Check(text, [](UnicodeStringView s) { return RFC5322DateToGMTime(s); }, nullptr); break;
    case 4: Check(text, [](UnicodeStringView s) { return HTTPDateToLocalTime(s); }, nullptr); break;
    default: Check(text, [](UnicodeStringView s) { return RFC822DateToLocalTime(s); }, nullptr); break;
  }
  return 0;
}
