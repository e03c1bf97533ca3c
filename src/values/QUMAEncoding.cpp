#include <quma/QUMAEncoding.h>

#include <memory>

#include <quma/Generics.h>

namespace quma {

namespace {
using TRegistry = TDictionary<TQUMAEncodingName, const TEncoding*, std::hash<TQUMAEncodingName>>;

// Created by the first registration, freed with the library (constant-initialised, so the
// start-up registration below never sees it unconstructed).
std::unique_ptr<TRegistry, TObjectDeleter> gRegistry;

const TEncoding* const* Lookup(const TQUMAEncodingName& Name) {
  return gRegistry ? gRegistry->Find(Name) : nullptr;
}

// The unit's start-up registration, in the runtime's order.
const bool gStandardRegistered = [] {
  for (const TEncoding* e : {TEncoding::ANSI(), TEncoding::ASCII(), TEncoding::BigEndianUnicode(),
                             TEncoding::Unicode(), TEncoding::UTF7(), TEncoding::UTF8()})
    QUMARegisterEncoding(e->EncodingName(), e);
  return true;
}();
}  // namespace

void QUMARegisterEncoding(const TQUMAEncodingName& Name, const TEncoding* Encoding) {
  if (!gRegistry) gRegistry.reset(New<TRegistry>());
  if (Encoding && !Name.empty()) gRegistry->AddOrSetValue(Name, Encoding);
}

void QUMAUnregisterEncoding(const TQUMAEncodingName& Name, const TEncoding* Encoding) {
  const TEncoding* const* found = Lookup(Name);
  if (found && *found == Encoding) gRegistry->Remove(Name);
}

const TEncoding* QUMAGetEncoding(const TQUMAEncodingName& Name) {
  const TEncoding* const* found = Lookup(Name);
  return found ? *found : nullptr;
}

TClass QUMAGetEncodingClass(const TQUMAEncodingName& Name) {
  const TEncoding* e = QUMAGetEncoding(Name);
  return e ? e->ClassType() : nullptr;
}

Integer QUMAGetRegisteredEncodings(TStrings* Strings) {
  if (!Strings || !gRegistry) return 0;
  Integer n = 0;
  for (const auto& [name, encoding] : *gRegistry) {
    Strings->Add(name);
    ++n;
  }
  return n;
}

}  // namespace quma
