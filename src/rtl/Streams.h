// Byte streams: the abstract TStream with the host's positioning and error behaviour, memory
// streams, byte and string streams, and file streams.
#pragma once

#include <quma/Export.h>

#include <cstdio>
#include <string_view>

#include <quma/Object.h>
#include <quma/SysUtils.h>

QUMA_PUBLIC_BEGIN
namespace quma {

class TEncoding;

enum class TSeekOrigin { soBeginning, soCurrent, soEnd };
using enum TSeekOrigin;

QUMA_DECLARE_EXCEPTION(EStreamError, Exception);
QUMA_DECLARE_EXCEPTION(EReadError, EStreamError);
QUMA_DECLARE_EXCEPTION(EWriteError, EStreamError);
QUMA_DECLARE_EXCEPTION(EFCreateError, EStreamError);
QUMA_DECLARE_EXCEPTION(EFOpenError, EStreamError);

inline constexpr char16_t SReadError[] = u"Stream read error";
inline constexpr char16_t SWriteError[] = u"Stream write error";
inline constexpr char16_t SFCreateErrorEx[] = u"Cannot create file \"%s\". %s";
inline constexpr char16_t SFOpenErrorEx[] = u"Cannot open file \"%s\". %s";
inline constexpr char16_t SMemoryStreamError[] = u"Out of memory while expanding memory stream";

class TStream : public TObject {
  QUMA_CLASS(TStream, TObject)
 public:
  // Reads up to Count bytes; returns how many were read (0 at or past the end, or for a count
  // below one).
  virtual Int64 Read(void* Buffer, Int64 Count) = 0;
  // Writes up to Count bytes; returns how many were written.
  virtual Int64 Write(const void* Buffer, Int64 Count) = 0;
  // Moves the position; returns the new position. A target below zero is rejected: the position
  // stays where it was. Positions past the end are allowed.
  virtual Int64 Seek(Int64 Offset, TSeekOrigin Origin) = 0;
  virtual Int64 Size();
  virtual void SetSize(Int64 NewSize);

  Int64 Position() { return Seek(0, soCurrent); }
  void SetPosition(Int64 Pos) { Seek(Pos, soBeginning); }
  // All or nothing: EReadError ("Stream read error") / EWriteError ("Stream write error").
  void ReadBuffer(void* Buffer, Int64 Count);
  void WriteBuffer(const void* Buffer, Int64 Count);
  TBytes ReadBytes(Int64 Count);  // up to Count bytes
  // Copies Count bytes from Source (all of it from the start when Count is 0 or less); returns
  // the count.
  Int64 CopyFrom(TStream* Source, Int64 Count);
};

// A stream over a block of memory it owns and grows.
class TMemoryStream : public TStream {
  QUMA_CLASS(TMemoryStream, TStream)
 public:
  TMemoryStream() = default;
  Int64 Read(void* Buffer, Int64 Count) override;
  Int64 Write(const void* Buffer, Int64 Count) override;
  Int64 Seek(Int64 Offset, TSeekOrigin Origin) override;
  Int64 Size() override { return static_cast<Int64>(FData.size()); }
  void SetSize(Int64 NewSize) override;
  void Clear() noexcept;
  const Byte* Memory() const noexcept { return FData.data(); }
  Byte* Memory() noexcept { return FData.data(); }
  // Position and Size without the virtual calls, for a reader that knows the stream is exactly
  // this class (or one that overrides neither).
  Int64 MemoryPosition() const noexcept { return FPosition; }
  Int64 MemorySize() const noexcept { return static_cast<Int64>(FData.size()); }
  void LoadFromStream(TStream* Stream);
  void SaveToStream(TStream* Stream);

 protected:
  // Enlarges the buffer to at least NewSize bytes (new bytes are zero); EStreamError ("Out of
  // memory while expanding memory stream") when it cannot.
  void Grow(Int64 NewSize);
  TBytes FData;
  Int64 FPosition = 0;
};

class TBytesStream : public TMemoryStream {
  QUMA_CLASS(TBytesStream, TMemoryStream)
 public:
  explicit TBytesStream(TBytes Bytes = {});
  const TBytes& Bytes() const noexcept { return FData; }
};

// A memory stream holding text encoded with an encoding (UTF-8 by default).
class TStringStream : public TBytesStream {
  QUMA_CLASS(TStringStream, TBytesStream)
 public:
  explicit TStringStream(UnicodeStringView AString = {}, const TEncoding* AEncoding = nullptr,
                         bool WritePreamble = false);
  explicit TStringStream(std::string_view Utf8);
  UnicodeString DataString() const;
  const TEncoding* Encoding() const noexcept { return FEncoding; }
  void WriteString(UnicodeStringView AString);

 private:
  const TEncoding* FEncoding;
};

// File modes of the host (share modes are accepted and ignored on this platform).
inline constexpr Word fmCreate = 0xFF00;
inline constexpr Word fmOpenRead = 0x0000;
inline constexpr Word fmOpenWrite = 0x0001;
inline constexpr Word fmOpenReadWrite = 0x0002;
inline constexpr Word fmShareDenyNone = 0x0040;

class TFileStream : public TStream {
  QUMA_CLASS(TFileStream, TStream)
 public:
  TFileStream(UnicodeStringView FileName, Word Mode);
  TFileStream(std::string_view FileName, Word Mode);
  ~TFileStream() override;
  Int64 Read(void* Buffer, Int64 Count) override;
  Int64 Write(const void* Buffer, Int64 Count) override;
  Int64 Seek(Int64 Offset, TSeekOrigin Origin) override;
  void SetSize(Int64 NewSize) override;
  const UnicodeString& FileName() const noexcept { return FFileName; }

 private:
  UnicodeString FFileName;
  int FHandle = -1;
};

// The stream as a memory stream when it is one of the library's own memory classes, whose bytes
// are their memory (a derived class may read something else); null otherwise. Readers use it to
// read the memory directly.
TMemoryStream* PlainMemoryStream(TStream* Stream) noexcept;

}  // namespace quma
QUMA_PUBLIC_END
