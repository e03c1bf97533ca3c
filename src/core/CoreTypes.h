// Vocabulary types shared across the library: the located exception, string pairs, bound
// callback shapes, a three-valued answer and the self-returning interface.
#pragma once

#include <quma/Export.h>

#include <quma/Method.h>
#include <quma/Object.h>
#include <quma/SysUtils.h>
#include <quma/System.h>

QUMA_PUBLIC_BEGIN
namespace quma {

class TCollectionItem;

// An exception that carries the unit, routine and line that raised it. The message is the given
// text alone; the location is kept apart for whoever reports it.
class EQUMACodeLocatedException : public Exception {
 public:
  EQUMACodeLocatedException(UnicodeString szUnitFile, UnicodeString szRoutine, Integer nLineNumber,
                            UnicodeString szMessage)
      : Exception(std::move(szMessage)),
        _szUnit(std::move(szUnitFile)),
        _szRoutine(std::move(szRoutine)),
        _nLine(nLineNumber) {}
  EQUMACodeLocatedException(std::string_view szUnitFile, std::string_view szRoutine, Integer nLineNumber,
                            std::string_view szMessage)
      : EQUMACodeLocatedException(Utf8ToUtf16(szUnitFile), Utf8ToUtf16(szRoutine), nLineNumber,
                                  Utf8ToUtf16(szMessage)) {}

  const UnicodeString& UnitName() const noexcept { return _szUnit; }
  const UnicodeString& RoutineName() const noexcept { return _szRoutine; }
  Integer LineNumber() const noexcept { return _nLine; }
  UnicodeString ClassName() const override { return u"EQUMACodeLocatedException"; }

 private:
  UnicodeString _szUnit;
  UnicodeString _szRoutine;
  Integer _nLine;
};

// Throws EQUMACodeLocatedException located at the call site.
#define QUMA_RAISE_LOCATED(message) \
  throw ::quma::EQUMACodeLocatedException(std::string_view(__FILE__), std::string_view(__func__), __LINE__, message)

struct TQUMACodeNamePair {
  UnicodeString Code;
  UnicodeString Name;
  friend bool operator==(const TQUMACodeNamePair&, const TQUMACodeNamePair&) = default;
};

struct TQUMAKeyValuePair {
  UnicodeString _szKey;
  UnicodeString _szValue;
  friend bool operator==(const TQUMAKeyValuePair&, const TQUMAKeyValuePair&) = default;
};

inline TQUMACodeNamePair QUMACodeNamePair(UnicodeString Code, UnicodeString Name) {
  return {std::move(Code), std::move(Name)};
}
inline TQUMAKeyValuePair QUMAKeyValuePair(UnicodeString Key, UnicodeString Value) {
  return {std::move(Key), std::move(Value)};
}

enum class TQUMATriStateResponse { trTrue, trFalse, trUnknown };
using enum TQUMATriStateResponse;

using TConfirmAction = TMethod<bool(TObject* Sender)>;
using TQUMABoolGetter = TMethod<bool()>;
using TQUMABoolSetter = TMethod<void(bool blNewValue)>;
using TQUMAIntGetter = TMethod<Integer()>;
using TQUMAIntSetter = TMethod<void(Integer nNewValue)>;
using TCollectionCallback = TMethod<void(TCollectionItem* Item)>;

// An interface that hands back the object implementing it.
struct IQUMASelfReturning : IInterface {
  static constexpr TGUID IID = TGUID::Parse("{1D3AF930-F9AC-4F55-B3B4-2C09E669C15C}");
  virtual TObject* GetImplementor() = 0;

 protected:
  ~IQUMASelfReturning() = default;
};

}  // namespace quma
QUMA_PUBLIC_END
