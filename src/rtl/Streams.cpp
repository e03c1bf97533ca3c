#include <quma/Streams.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <quma/Encoding.h>

namespace quma {

// ---- TStream ----

Int64 TStream::Size() {
  const Int64 pos = Seek(0, soCurrent);
  const Int64 size = Seek(0, soEnd);
  Seek(pos, soBeginning);
  return size;
}

void TStream::SetSize(Int64) {}

void TStream::ReadBuffer(void* Buffer, Int64 Count) {
  auto* p = static_cast<Byte*>(Buffer);
  while (Count > 0) {
    const Int64 n = Read(p, Count);
    if (n <= 0) throw EReadError(SReadError);
    p += n;
    Count -= n;
  }
}

void TStream::WriteBuffer(const void* Buffer, Int64 Count) {
  auto* p = static_cast<const Byte*>(Buffer);
  while (Count > 0) {
    const Int64 n = Write(p, Count);
    if (n <= 0) throw EWriteError(SWriteError);
    p += n;
    Count -= n;
  }
}

TBytes TStream::ReadBytes(Int64 Count) {
  TBytes out(static_cast<std::size_t>(std::max<Int64>(Count, 0)));
  const Int64 n = out.empty() ? 0 : Read(out.data(), Count);
  out.resize(static_cast<std::size_t>(std::max<Int64>(n, 0)));
  return out;
}

Int64 TStream::CopyFrom(TStream* Source, Int64 Count) {
  if (Count <= 0) {
    Source->SetPosition(0);
    Count = Source->Size();
  }
  const Int64 total = Count;
  Byte buf[65536];
  while (Count > 0) {
    const Int64 n = std::min<Int64>(Count, sizeof buf);
    Source->ReadBuffer(buf, n);
    WriteBuffer(buf, n);
    Count -= n;
  }
  return total;
}

// ---- TMemoryStream ----

// The position never goes below zero (Seek rejects such a target), so every access below stays
// inside the buffer; a position past the end reads nothing and a write there extends the stream.

Int64 TMemoryStream::Read(void* Buffer, Int64 Count) {
  const Int64 size = Size();
  if (Count <= 0 || FPosition >= size) return 0;
  const Int64 n = std::min(Count, size - FPosition);
  std::memcpy(Buffer, FData.data() + FPosition, static_cast<std::size_t>(n));
  FPosition += n;
  return n;
}

Int64 TMemoryStream::Write(const void* Buffer, Int64 Count) {
  Int64 end = 0;
  if (Count <= 0 || __builtin_add_overflow(FPosition, Count, &end)) return 0;
  if (end > Size()) Grow(end);
  std::memcpy(FData.data() + FPosition, Buffer, static_cast<std::size_t>(Count));
  FPosition = end;
  return Count;
}

Int64 TMemoryStream::Seek(Int64 Offset, TSeekOrigin Origin) {
  const Int64 base = Origin == soBeginning ? 0 : Origin == soCurrent ? FPosition : Size();
  Int64 target = 0;
  // A target below zero (or beyond the integer range) is rejected: the position stays, as a
  // file's offset does when lseek fails.
  if (!__builtin_add_overflow(base, Offset, &target) && target >= 0) FPosition = target;
  return FPosition;
}

void TMemoryStream::SetSize(Int64 NewSize) {
  NewSize = std::max<Int64>(NewSize, 0);
  if (NewSize > Size()) Grow(NewSize);
  else FData.resize(static_cast<std::size_t>(NewSize));
  if (FPosition > NewSize) FPosition = NewSize;
}

void TMemoryStream::Grow(Int64 NewSize) {
  try {
    if (static_cast<std::uint64_t>(NewSize) > FData.max_size()) throw std::length_error("memory stream");
    FData.resize(std::max<std::size_t>(FData.size(), static_cast<std::size_t>(NewSize)));
  } catch (const std::exception&) {
    throw EStreamError(SMemoryStreamError);
  }
}

void TMemoryStream::Clear() noexcept {
  FData.clear();
  FPosition = 0;
}

void TMemoryStream::LoadFromStream(TStream* Stream) {
  Stream->SetPosition(0);
  const Int64 n = Stream->Size();
  SetSize(n);
  if (n) Stream->ReadBuffer(FData.data(), n);
  FPosition = 0;
}

void TMemoryStream::SaveToStream(TStream* Stream) {
  if (!FData.empty()) Stream->WriteBuffer(FData.data(), Size());
}

TBytesStream::TBytesStream(TBytes Bytes) { FData = std::move(Bytes); }

// ---- TStringStream ----

TStringStream::TStringStream(UnicodeStringView AString, const TEncoding* AEncoding, bool WritePreamble)
    : FEncoding(AEncoding ? AEncoding : TEncoding::UTF8()) {
  if (WritePreamble) {
    const TBytes preamble = FEncoding->GetPreamble();
    FData = preamble;
  }
  const TBytes body = FEncoding->GetBytes(AString);
  FData.insert(FData.end(), body.begin(), body.end());
}

TStringStream::TStringStream(std::string_view Utf8) : FEncoding(TEncoding::UTF8()) {
  FData.assign(Utf8.begin(), Utf8.end());
}

UnicodeString TStringStream::DataString() const { return FEncoding->GetString(FData); }

void TStringStream::WriteString(UnicodeStringView AString) {
  const TBytes b = FEncoding->GetBytes(AString);
  if (!b.empty()) WriteBuffer(b.data(), static_cast<Int64>(b.size()));
}

// ---- TFileStream ----

TFileStream::TFileStream(std::string_view FileName, Word Mode) : TFileStream(Utf8ToUtf16(FileName), Mode) {}

TFileStream::TFileStream(UnicodeStringView FileName, Word Mode) : FFileName(FileName) {
  const std::string path = Utf16ToUtf8(FileName);
  if ((Mode & fmCreate) == fmCreate) {
    FHandle = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (FHandle < 0)
      throw EFCreateError(Format(SFCreateErrorEx, FFileName, std::string_view(std::strerror(errno))));
    return;
  }
  int flags = O_CLOEXEC;
  switch (Mode & 3) {
    case fmOpenWrite: flags |= O_WRONLY; break;
    case fmOpenReadWrite: flags |= O_RDWR; break;
    default: flags |= O_RDONLY; break;
  }
  FHandle = ::open(path.c_str(), flags);
  if (FHandle < 0) throw EFOpenError(Format(SFOpenErrorEx, FFileName, std::string_view(std::strerror(errno))));
}

TFileStream::~TFileStream() {
  if (FHandle >= 0) ::close(FHandle);
}

Int64 TFileStream::Read(void* Buffer, Int64 Count) {
  if (Count <= 0) return 0;
  ssize_t n;
  do n = ::read(FHandle, Buffer, static_cast<std::size_t>(Count));
  while (n < 0 && errno == EINTR);
  return n < 0 ? 0 : n;
}

Int64 TFileStream::Write(const void* Buffer, Int64 Count) {
  if (Count <= 0) return 0;
  ssize_t n;
  do n = ::write(FHandle, Buffer, static_cast<std::size_t>(Count));
  while (n < 0 && errno == EINTR);
  return n < 0 ? 0 : n;
}

Int64 TFileStream::Seek(Int64 Offset, TSeekOrigin Origin) {
  const int whence = Origin == soBeginning ? SEEK_SET : Origin == soCurrent ? SEEK_CUR : SEEK_END;
  const off_t pos = ::lseek(FHandle, Offset, whence);
  // A rejected target (below zero) leaves the offset where it was; report that, never -1.
  return pos >= 0 ? pos : ::lseek(FHandle, 0, SEEK_CUR);
}

void TFileStream::SetSize(Int64 NewSize) {
  if (::ftruncate(FHandle, NewSize) != 0) throw EStreamError(SWriteError);
  if (Position() > NewSize) Seek(NewSize, soBeginning);
}

TMemoryStream* PlainMemoryStream(TStream* Stream) noexcept {
  if (!Stream) return nullptr;
  const TClass cls = Stream->ClassType();
  return cls == TMemoryStream::StaticClass() || cls == TBytesStream::StaticClass() ||
                 cls == TStringStream::StaticClass()
             ? static_cast<TMemoryStream*>(Stream)
             : nullptr;
}

}  // namespace quma
