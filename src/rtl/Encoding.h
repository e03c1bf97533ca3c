// Text encodings: the host's six standard encodings as shared objects, byte-order-mark detection,
// and strict decoding (invalid or incomplete input raises EEncodingError).
//
// Names and code pages: ANSI is Windows-1252 ("Western European (Windows-1252)", 1252), ASCII
// ("US-ASCII", 20127), BigEndianUnicode ("Unicode (UTF-16 big-endian)", 1201), Unicode
// ("Unicode (UTF-16)", little-endian, 1200), UTF7 ("Unicode (UTF-7)", 65000), UTF8
// ("Unicode (UTF-8)", 65001). Default is UTF-8, the platform's text encoding.
#pragma once

#include <quma/Export.h>

#include <quma/Object.h>
#include <quma/SysUtils.h>

QUMA_PUBLIC_BEGIN
namespace quma {

inline constexpr char16_t SNoMappingForUnicode[] =
    u"No mapping for the Unicode character exists in the target multi-byte code page";

class TEncoding : public TObject {
  QUMA_CLASS(TEncoding, TObject)
 public:
  // Shared instances; they live as long as the process and must not be freed.
  static const TEncoding* ANSI() noexcept;
  static const TEncoding* ASCII() noexcept;
  static const TEncoding* BigEndianUnicode() noexcept;
  static const TEncoding* Unicode() noexcept;
  static const TEncoding* UTF7() noexcept;
  static const TEncoding* UTF8() noexcept;
  static const TEncoding* Default() noexcept { return UTF8(); }
  static bool IsStandardEncoding(const TEncoding* AEncoding) noexcept;

  virtual UnicodeString EncodingName() const = 0;
  virtual Integer CodePage() const noexcept = 0;
  virtual bool IsSingleByte() const noexcept { return false; }
  virtual TBytes GetPreamble() const { return {}; }
  // Most bytes CharCount UTF-16 code units can take (GetBytes never writes more), and most code
  // units ByteCount bytes give.
  virtual Integer GetMaxByteCount(Integer CharCount) const = 0;
  virtual Integer GetMaxCharCount(Integer ByteCount) const = 0;

  TBytes GetBytes(UnicodeStringView S) const;
  // Decoding raises EEncodingError on input that is not valid (an incomplete final sequence
  // included, and in UTF-16 and UTF-7 a surrogate without its partner, a high surrogate at the
  // end counting as incomplete), except for the single-byte encodings, which map every byte.
  UnicodeString GetString(const TBytes& Bytes) const { return GetChars(Bytes.data(), Bytes.size()); }
  UnicodeString GetString(const TBytes& Bytes, Integer ByteIndex, Integer ByteCount) const;
  UnicodeString GetChars(const Byte* Bytes, std::size_t Count) const;
  // GetChars without the exception: false (Out then unspecified) where GetChars would raise.
  bool TryGetChars(const Byte* Bytes, std::size_t Count, UnicodeString& Out) const;

  // Byte-order-mark detection. With AEncoding null, looks for the UTF-8, UTF-16 LE and UTF-16 BE
  // marks in that order and sets AEncoding to the one found (or to ADefaultEncoding); with
  // AEncoding given, only measures that encoding's mark. Returns the mark length found, or 0.
  static Integer GetBufferEncoding(const TBytes& Buffer, const TEncoding*& AEncoding,
                                   const TEncoding* ADefaultEncoding = Default());
  static TBytes Convert(const TEncoding* Source, const TEncoding* Destination, const TBytes& Bytes);

 protected:
  virtual void DoGetBytes(UnicodeStringView S, TBytes& Out) const = 0;
  // Appends the decoded text to Out; false for input that does not decode.
  virtual bool DoGetChars(const Byte* Bytes, std::size_t Count, UnicodeString& Out) const = 0;
};

class TUTF8Encoding : public TEncoding {
  QUMA_CLASS(TUTF8Encoding, TEncoding)
 public:
  UnicodeString EncodingName() const override { return u"Unicode (UTF-8)"; }
  Integer CodePage() const noexcept override { return 65001; }
  TBytes GetPreamble() const override { return {0xEF, 0xBB, 0xBF}; }
  Integer GetMaxByteCount(Integer CharCount) const override { return (CharCount + 1) * 3; }
  Integer GetMaxCharCount(Integer ByteCount) const override { return ByteCount + 1; }

 protected:
  void DoGetBytes(UnicodeStringView S, TBytes& Out) const override;
  bool DoGetChars(const Byte* Bytes, std::size_t Count, UnicodeString& Out) const override;
};

class TUnicodeEncoding : public TEncoding {
  QUMA_CLASS(TUnicodeEncoding, TEncoding)
 public:
  UnicodeString EncodingName() const override { return u"Unicode (UTF-16)"; }
  Integer CodePage() const noexcept override { return 1200; }
  TBytes GetPreamble() const override { return {0xFF, 0xFE}; }
  Integer GetMaxByteCount(Integer CharCount) const override { return (CharCount + 1) * 2; }
  Integer GetMaxCharCount(Integer ByteCount) const override { return ByteCount / 2 + ByteCount % 2 + 1; }

 protected:
  virtual bool BigEndian() const noexcept { return false; }
  void DoGetBytes(UnicodeStringView S, TBytes& Out) const override;
  bool DoGetChars(const Byte* Bytes, std::size_t Count, UnicodeString& Out) const override;
};

class TBigEndianUnicodeEncoding : public TUnicodeEncoding {
  QUMA_CLASS(TBigEndianUnicodeEncoding, TUnicodeEncoding)
 public:
  UnicodeString EncodingName() const override { return u"Unicode (UTF-16 big-endian)"; }
  Integer CodePage() const noexcept override { return 1201; }
  TBytes GetPreamble() const override { return {0xFE, 0xFF}; }

 protected:
  bool BigEndian() const noexcept override { return true; }
};

class TUTF7Encoding : public TEncoding {
  QUMA_CLASS(TUTF7Encoding, TEncoding)
 public:
  UnicodeString EncodingName() const override { return u"Unicode (UTF-7)"; }
  Integer CodePage() const noexcept override { return 65000; }
  Integer GetMaxByteCount(Integer CharCount) const override { return CharCount * 3 + 2; }
  Integer GetMaxCharCount(Integer ByteCount) const override { return ByteCount + 1; }

 protected:
  void DoGetBytes(UnicodeStringView S, TBytes& Out) const override;
  bool DoGetChars(const Byte* Bytes, std::size_t Count, UnicodeString& Out) const override;
};

// Single-byte encodings: every byte decodes; characters outside the set encode as '?'.
class TSingleByteEncoding : public TEncoding {
  QUMA_CLASS(TSingleByteEncoding, TEncoding)
 public:
  bool IsSingleByte() const noexcept override { return true; }
  Integer GetMaxByteCount(Integer CharCount) const override { return CharCount + 1; }
  Integer GetMaxCharCount(Integer ByteCount) const override { return ByteCount; }

 protected:
  // The code unit of each byte value.
  virtual const char16_t* Table() const noexcept = 0;
  void DoGetBytes(UnicodeStringView S, TBytes& Out) const override;
  bool DoGetChars(const Byte* Bytes, std::size_t Count, UnicodeString& Out) const override;
};

class TASCIIEncoding : public TSingleByteEncoding {
  QUMA_CLASS(TASCIIEncoding, TSingleByteEncoding)
 public:
  UnicodeString EncodingName() const override { return u"US-ASCII"; }
  Integer CodePage() const noexcept override { return 20127; }

 protected:
  const char16_t* Table() const noexcept override;
};

class TANSIEncoding : public TSingleByteEncoding {
  QUMA_CLASS(TANSIEncoding, TSingleByteEncoding)
 public:
  UnicodeString EncodingName() const override { return u"Western European (Windows-1252)"; }
  Integer CodePage() const noexcept override { return 1252; }

 protected:
  const char16_t* Table() const noexcept override;
};

}  // namespace quma
QUMA_PUBLIC_END
