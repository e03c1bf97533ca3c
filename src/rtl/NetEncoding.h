// Network encodings of the runtime base layer: the abstract TNetEncoding with its string and byte
// operations and shared instances, a Base64 encoder (RFC 4648) and a URL (percent) encoder whose
// four sets of unsafe characters descendants can replace.
//
//   UnicodeString b64 = TNetEncoding::Base64()->Encode(u"text");       // UTF-8 bytes, then Base64
//   UnicodeString q = TNetEncoding::URL()->EncodeQuery(u"a b/c");       // "a%20b/c"
//
// The shared instances are created on first use without a lock (compare-and-swap; a thread that
// loses the race frees its own instance), are safe to use from several threads at once (the
// encoders keep no state) and are freed when the library unloads.
#pragma once

#include <quma/Export.h>

#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>

#include <quma/Object.h>
#include <quma/System.h>

QUMA_PUBLIC_BEGIN
namespace quma {

// A set over the 256 8-bit character values.
class TAnsiCharSet {
 public:
  constexpr TAnsiCharSet() noexcept = default;
  constexpr TAnsiCharSet(std::initializer_list<char> chars) noexcept {
    for (char c : chars) Include(static_cast<Byte>(c));
  }
  constexpr TAnsiCharSet& Include(Byte c) noexcept {
    FBits[c >> 6] |= std::uint64_t{1} << (c & 63);
    return *this;
  }
  constexpr TAnsiCharSet& Exclude(Byte c) noexcept {
    FBits[c >> 6] &= ~(std::uint64_t{1} << (c & 63));
    return *this;
  }
  constexpr bool Contains(Byte c) const noexcept { return (FBits[c >> 6] >> (c & 63)) & 1u; }
  constexpr bool Contains(char c) const noexcept { return Contains(static_cast<Byte>(c)); }
  friend constexpr TAnsiCharSet operator+(TAnsiCharSet a, const TAnsiCharSet& b) noexcept {
    for (int i = 0; i < 4; ++i) a.FBits[i] |= b.FBits[i];
    return a;
  }
  friend constexpr TAnsiCharSet operator-(TAnsiCharSet a, const TAnsiCharSet& b) noexcept {
    for (int i = 0; i < 4; ++i) a.FBits[i] &= ~b.FBits[i];
    return a;
  }
  friend constexpr bool operator==(const TAnsiCharSet&, const TAnsiCharSet&) noexcept = default;

 private:
  std::uint64_t FBits[4] = {};
};

class TBase64Encoding;
class TURLEncoding;

class TNetEncoding : public TObject {
  QUMA_CLASS(TNetEncoding, TObject)

 public:
  // Text to encoded text and back.
  UnicodeString Encode(UnicodeStringView Input) { return DoEncode(Input); }
  UnicodeString Decode(UnicodeStringView Input) { return DoDecode(Input); }
  // The same over UTF-8 text (encodings that carry bytes in their strings take the bytes of the
  // std::string as they are).
  std::string Encode(std::string_view Input) { return DoEncodeUtf8(Input); }
  std::string Decode(std::string_view Input) { return DoDecodeUtf8(Input); }
  // Bytes to encoded bytes and back, and the mixed forms.
  TBytes Encode(std::span<const Byte> Input) { return DoEncodeBytes(Input); }
  TBytes Decode(std::span<const Byte> Input) { return DoDecodeBytes(Input); }
  UnicodeString EncodeBytesToString(std::span<const Byte> Input) { return DoEncodeBytesToString(Input); }
  TBytes DecodeStringToBytes(UnicodeStringView Input) { return DoDecodeStringToBytes(Input); }

  // Shared instances. Base64 breaks lines after 76 characters with CR LF; Base64String does not
  // break lines.
  static TBase64Encoding* Base64();
  static TBase64Encoding* Base64String();
  static TURLEncoding* URL();

 protected:
  TNetEncoding() noexcept = default;
  ~TNetEncoding() override = default;

  virtual UnicodeString DoEncode(UnicodeStringView Input) = 0;
  virtual UnicodeString DoDecode(UnicodeStringView Input) = 0;
  // The byte forms default to the string forms with one code unit per byte (values 0..255);
  // a result unit above 255 raises EEncodingError.
  virtual TBytes DoEncodeBytes(std::span<const Byte> Input);
  virtual TBytes DoDecodeBytes(std::span<const Byte> Input);
  virtual UnicodeString DoEncodeBytesToString(std::span<const Byte> Input);
  virtual TBytes DoDecodeStringToBytes(UnicodeStringView Input);
  // The UTF-8 forms default to the UTF-16 string forms with conversions on both sides.
  virtual std::string DoEncodeUtf8(std::string_view Input);
  virtual std::string DoDecodeUtf8(std::string_view Input);

  // Installs a shared instance without a lock: the first instance stored wins, a loser is freed.
  template <class T>
  static T* SharedInstance(std::atomic<T*>& slot, T* (*make)()) {
    T* current = slot.load(std::memory_order_acquire);
    if (current) return current;
    T* fresh = make();
    if (slot.compare_exchange_strong(current, fresh, std::memory_order_acq_rel, std::memory_order_acquire))
      return fresh;
    Free(fresh);
    return current;
  }
};

// RFC 4648 Base64 with "=" padding. Encoding breaks lines after CharsPerLine characters with
// LineSeparator (0 characters per line: no breaks). Decoding skips blanks, tabs and line breaks,
// stops at the first "=", and raises EConvertError ("Invalid Base64 input character: %s at
// offset %d") for any other character outside the alphabet. Text is carried as UTF-8 bytes.
class TBase64Encoding : public TNetEncoding {
  QUMA_CLASS(TBase64Encoding, TNetEncoding)

 public:
  explicit TBase64Encoding(Integer CharsPerLine = 76, UnicodeString LineSeparator = u"\r\n");
  Integer CharsPerLine() const noexcept { return FCharsPerLine; }
  const UnicodeString& LineSeparator() const noexcept { return FLineSeparator; }

  // Encoded length of n bytes (line breaks included) and the raw codec, for callers with buffers.
  std::size_t EncodedLength(std::size_t n) const noexcept;

 protected:
  UnicodeString DoEncode(UnicodeStringView Input) override;
  UnicodeString DoDecode(UnicodeStringView Input) override;
  TBytes DoEncodeBytes(std::span<const Byte> Input) override;
  TBytes DoDecodeBytes(std::span<const Byte> Input) override;
  UnicodeString DoEncodeBytesToString(std::span<const Byte> Input) override;
  TBytes DoDecodeStringToBytes(UnicodeStringView Input) override;

 private:
  Integer FCharsPerLine;
  UnicodeString FLineSeparator;
};

// Percent encoding of URL components. Text is encoded as UTF-8; every byte below 0x21 or above
// 0x7E, and every byte in the component's unsafe set, becomes "%XX" (upper-case digits), except
// that the form component writes a blank as "+". Decoding turns "%XX" into its byte and "+" into a
// blank and reads the bytes as UTF-8; a "%" not followed by two hex digits raises EConvertError
// ("Invalid URL encoded character (%s) at position %d"). Encode and Decode use the query rules.
class TURLEncoding : public TNetEncoding {
  QUMA_CLASS(TURLEncoding, TNetEncoding)

 public:
  using TUnsafeChars = TAnsiCharSet;

  TURLEncoding() noexcept = default;

  UnicodeString EncodeAuth(UnicodeStringView Input) const;
  UnicodeString EncodeForm(UnicodeStringView Input) const;
  UnicodeString EncodePath(UnicodeStringView Input) const;
  UnicodeString EncodeQuery(UnicodeStringView Input) const;
  // Any set; SpacesAsPlus writes a blank as "+" instead of "%20".
  static UnicodeString EncodeWith(UnicodeStringView Input, const TUnsafeChars& Unsafe, bool SpacesAsPlus);
  static UnicodeString URLDecode(UnicodeStringView Input);

  // The characters each component must escape beyond controls, blanks and non-ASCII bytes.
  // Descendants replace them.
  virtual TUnsafeChars _GetUnsafeAuthChars() const;
  virtual TUnsafeChars _GetUnsafeFormChars() const;
  virtual TUnsafeChars _GetUnsafePathChars() const;
  virtual TUnsafeChars _GetUnsafeQueryChars() const;

  // The default sets: RFC 3986 for auth, path and query, the HTML form encoding for forms. Each
  // holds "%" and "+" (the decoder reads "+" as a blank), so that decoding undoes every encoding.
  static constexpr TUnsafeChars UnsafeAuthChars{' ', '"', '#', '%', '+', '/', ':', '<', '>', '?', '@',
                                                '[', '\\', ']', '^', '`', '{', '|', '}'};
  static constexpr TUnsafeChars UnsafePathChars{' ', '"', '#', '%', '+', '<', '>', '?', '[', '\\', ']', '^', '`',
                                                '{', '|', '}'};
  static constexpr TUnsafeChars UnsafeQueryChars{' ', '"', '#', '%', '+', '<', '>', '[', '\\', ']', '^', '`',
                                                 '{', '|', '}'};
  static constexpr TUnsafeChars UnsafeFormChars{' ', '!', '"', '#', '$', '%', '&', '\'', '(', ')', '+', ',', '/',
                                                ':', ';', '<', '=', '>', '?', '@', '[', '\\', ']', '^', '`',
                                                '{', '|', '}', '~'};

 protected:
  UnicodeString DoEncode(UnicodeStringView Input) override { return EncodeQuery(Input); }
  UnicodeString DoDecode(UnicodeStringView Input) override { return URLDecode(Input); }
  TBytes DoEncodeBytes(std::span<const Byte> Input) override;
  TBytes DoDecodeBytes(std::span<const Byte> Input) override;
  UnicodeString DoEncodeBytesToString(std::span<const Byte> Input) override;
  TBytes DoDecodeStringToBytes(UnicodeStringView Input) override;
};

}  // namespace quma
QUMA_PUBLIC_END
