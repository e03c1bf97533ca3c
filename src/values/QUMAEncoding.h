// The process-wide registry of text encodings by name, filled at start-up with the runtime's six
// standard encodings under the names they report themselves (EncodingName).
//
//   if (const TEncoding* e = QUMAGetEncoding(u"Unicode (UTF-8)")) bytes = e->GetBytes(text);
//
// Named after its classes rather than its unit because Encoding.h is the runtime's own header.
// No lock: register at start-up and shutdown; look-ups may run concurrently only while nobody
// registers.
#pragma once

#include <quma/Export.h>

#include <functional>

#include <quma/Encoding.h>
#include <quma/StringList.h>

QUMA_PUBLIC_BEGIN
namespace quma {

// The registry's key: a UTF-16 name of its own type, compared exactly (case-sensitive).
class TQUMAEncodingName : public UnicodeString {
 public:
  using UnicodeString::UnicodeString;
  TQUMAEncodingName(UnicodeString s) : UnicodeString(std::move(s)) {}  // NOLINT: names are strings
  TQUMAEncodingName(UnicodeStringView s) : UnicodeString(s) {}          // NOLINT
};

// Adds the pair, or replaces the encoding registered under the name; an empty name or a null
// encoding changes nothing. The registry does not own the encodings.
void QUMARegisterEncoding(const TQUMAEncodingName& Name, const TEncoding* Encoding);
// Removes the name only when it is registered with this very object.
void QUMAUnregisterEncoding(const TQUMAEncodingName& Name, const TEncoding* Encoding);
// The registered encoding, or null.
const TEncoding* QUMAGetEncoding(const TQUMAEncodingName& Name);
// The class of the registered encoding, or null.
TClass QUMAGetEncodingClass(const TQUMAEncodingName& Name);
// Appends every registered name (hash order) to Strings without clearing it; returns how many.
Integer QUMAGetRegisteredEncodings(TStrings* Strings);

}  // namespace quma

template <>
struct std::hash<quma::TQUMAEncodingName> : std::hash<quma::UnicodeString> {};
QUMA_PUBLIC_END
