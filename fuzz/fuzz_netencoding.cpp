// The Base32, Base64 and URL decoders on any text, and encode-then-decode round trips.
#include <quma/NetEncoding.h>
#include <quma/QUMANetEncoding.h>
#include <quma/Strings.h>
#include <quma/SysUtils.h>

#include "FuzzSupport.h"

using namespace quma;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::TInput in(data, size);
  const Byte which = in.Byte();
  const std::string_view text = in.Rest();
  const std::span<const Byte> bytes(reinterpret_cast<const Byte*>(text.data()), text.size());
  try {
    switch (which % 4) {
      case 0: {
        auto* b32 = TQUMANetEncoding::Base32Encoding();
        QUMA_FUZZ_CHECK(b32->Decode(b32->Encode(text)) == text);
        b32->Decode(text);
        b32->Decode(fuzz::AsUtf16(text));
        break;
      }
      case 1: {
        auto* b64 = TNetEncoding::Base64();
        const TBytes encoded = b64->Encode(bytes);
        const TBytes decoded = b64->Decode(std::span<const Byte>(encoded));
        QUMA_FUZZ_CHECK(decoded.size() == bytes.size() && std::equal(decoded.begin(), decoded.end(), bytes.begin()));
        b64->Decode(bytes);
        b64->DecodeStringToBytes(fuzz::AsUtf16(text));
        break;
      }
      default: {
        static const auto ours = MakeObject<TQUMAURLEncoding>();
        TURLEncoding* url = which % 4 == 2 ? TNetEncoding::URL() : ours.get();
        const UnicodeString wide = Utf8ToUtf16(text);  // malformed UTF-8 becomes U+FFFD
        QUMA_FUZZ_CHECK(url->Decode(url->Encode(wide)) == wide);
        url->Decode(wide);
        url->Decode(text);
        break;
      }
    }
  } catch (const EConvertError&) {
    // the documented reaction to bad input
  }
  return 0;
}
