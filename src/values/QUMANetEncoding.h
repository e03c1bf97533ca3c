// Additions to the network encodings: a Base32 encoder after RFC 4648 (shared through
// TQUMANetEncoding::Base32Encoding) and a URL encoder whose query component also escapes "&" and
// "=".
//
//   TQUMANetEncoding::Base32Encoding()->Encode(u"foobar");   // "MZXW6YTBOI======"
//   TQUMAURLEncoding url;  url.EncodeQuery(u"a=b&c");          // "a%3Db%26c"
//
// (The header is named after its classes because NetEncoding.h is the runtime's own unit.)
#pragma once

#include <quma/Export.h>

#include <atomic>
#include <string>
#include <string_view>

#include <quma/NetEncoding.h>

QUMA_PUBLIC_BEGIN
namespace quma {

class TQUMABase32Encoding;

inline constexpr char16_t SBase32InvalidCharacter[] = u"Invalid Base32 Input character: %s at offset %d of buffer";

// Owns the shared Base32 encoder. Abstract: only its class members are used.
class TQUMANetEncoding : public TNetEncoding {
  QUMA_CLASS(TQUMANetEncoding, TNetEncoding)

 public:
  // The shared encoder, created on first use without a lock (the first instance installed by
  // compare-and-swap wins; a thread that loses frees its own). Safe from several threads at once.
  static TQUMABase32Encoding* Base32Encoding() { return GetBase32Encoding(); }
  static TQUMABase32Encoding* GetBase32Encoding();

 protected:
  TQUMANetEncoding() noexcept = default;

 private:
  static std::atomic<TQUMABase32Encoding*> FBase32Encoding;
};

// The Base32 alphabets: RFC 4648 section 6 (the default), section 7 ("extended hex": digits, then
// A..V, so that encoded text sorts like the data) and Crockford's (digits and the letters without
// I L O U). Decoding takes either case in all three; Crockford's also reads I and L as 1 and O as
// 0, and skips hyphens.
enum class TQUMABase32Alphabet : Byte { Standard, ExtendedHex, Crockford };

// RFC 4648 Base32. The strings carry bytes one per code unit (the low byte of each unit is
// used); the UTF-8 forms take the bytes of the std::string as they are. Encoding gives upper-case
// text padded with "=" to a multiple of eight characters. Decoding accepts either case, stops at
// the first "=" (anything after it is ignored) and raises EConvertError "Invalid Base32 Input
// character: %s at offset %d of buffer" for any character outside the alphabet.
// The byte forms of TNetEncoding reach the same codec through the string forms.
// Another alphabet, or no padding (the text ends with its last digit), is chosen at construction:
//   auto hex = MakeObject<TQUMABase32Encoding>(TQUMABase32Alphabet::ExtendedHex, false);
// Decoding always stops at the first "=", padded or not.
class TQUMABase32Encoding : public TNetEncoding {
  QUMA_CLASS(TQUMABase32Encoding, TNetEncoding)

 public:
  TQUMABase32Encoding() noexcept = default;
  explicit TQUMABase32Encoding(TQUMABase32Alphabet Alphabet, bool Padding = true) noexcept;
  TQUMABase32Alphabet Alphabet() const noexcept { return FAlphabet; }
  bool Padding() const noexcept { return FPadding; }

 protected:
  UnicodeString DoEncode(UnicodeStringView Input) override;
  UnicodeString DoDecode(UnicodeStringView Input) override;
  std::string DoEncodeUtf8(std::string_view Input) override;
  std::string DoDecodeUtf8(std::string_view Input) override;

 private:
  TQUMABase32Alphabet FAlphabet = TQUMABase32Alphabet::Standard;
  bool FPadding = true;
};

// The runtime's URL encoder with "&" and "=" added to the query component's unsafe set (so that
// a value cannot split a query into more parameters). The other three sets are the runtime's.
class TQUMAURLEncoding : public TURLEncoding {
  QUMA_CLASS(TQUMAURLEncoding, TURLEncoding)

 public:
  TQUMAURLEncoding() noexcept = default;

  TUnsafeChars _GetUnsafeAuthChars() const override;
  TUnsafeChars _GetUnsafeFormChars() const override;
  TUnsafeChars _GetUnsafePathChars() const override;
  TUnsafeChars _GetUnsafeQueryChars() const override;
};

}  // namespace quma
QUMA_PUBLIC_END
