// Reading text from byte streams: the encoding of a stream from its byte-order mark, and one
// character at a time in a given encoding (the stream parser's input).
#pragma once

#include <quma/Export.h>

#include <quma/Encoding.h>
#include <quma/Streams.h>

QUMA_PUBLIC_BEGIN
namespace quma {

// Detects the byte-order mark at the start of Stream. With Encoding null on entry it is set to
// the encoding of the mark found, else to DefaultEncoding (UTF-8 when that is null); with
// Encoding given, only that encoding's mark is measured. True when a mark was found. Afterwards
// the stream is just after the mark, or back where it was when that was further on. Stream
// errors pass on.
bool QUMAGetStreamEncoding(TStream* Stream, const TEncoding*& Encoding, const TEncoding* DefaultEncoding = nullptr);

// Reads the next character of Stream in Encoding (UTF-8 when null), one byte at a time until the
// bytes read decode, at most Encoding->GetMaxByteCount(1) of them. On success Character is the
// first UTF-16 unit, Text every unit decoded (two for a surrogate pair) and ByteCount the bytes
// consumed. False at the end of the stream or when no character decodes; the bytes read stay
// consumed. Only EEncodingError is absorbed.
bool QUMAFetchEncodedCharacter(TStream* Stream, const TEncoding* Encoding, WideChar& Character, UnicodeString& Text,
                               Integer& ByteCount);

}  // namespace quma
QUMA_PUBLIC_END
