// Property streaming for persistents: published properties (a per-class table, the stand-in for
// the host's run-time type information) with stored-tests, the DefineProperties protocol, and a
// writer and a reader of the values in a readable text form, one property per line:
//
//   Left = 1.5
//   Caption = 'It''s'#13#10'two lines'
//   Visible = True
//   Padding.Top = 4            (a property of the object held in the published property Padding)
//
// Numbers are written in the shortest form that reads back to the same double; strings are
// quoted with ' (doubled inside) and control characters written as #n; blank lines are ignored.
// A class publishes its properties once, e.g. at start-up from its own source file:
//
//   PublishProperty<TBoundsD>(u"Left", &TBoundsD::Left, &TBoundsD::SetLeft, &TBoundsD::IsLeftStored);
//
// Writing lists, for the object and then each published object property in turn, the published
// properties whose stored-test holds (ancestors' properties first, in publication order), then the
// properties DefineProperties declares with a writer and HasData. Reading checks every line
// before it changes anything (syntax, property names, published values); a reader of a defined
// property that fails part-way makes the reader restore every published property of the objects
// it touched. Either way a failed read leaves the object as it was (observers may have seen the
// restoring assignments) and raises EReadError "Line <n>, property <name>: <reason>".
#pragma once

#include <quma/Export.h>

#include <algorithm>
#include <functional>
#include <limits>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

#include <quma/Classes.h>
#include <quma/Method.h>
#include <quma/Object.h>
#include <quma/Streams.h>
#include <quma/Strings.h>
#include <quma/SysUtils.h>
#include <quma/System.h>

QUMA_PUBLIC_BEGIN
namespace quma {

// Errors are the streams' EReadError and EWriteError.
inline constexpr char16_t SReadErrorAt[] = u"Line %d, property %s: %s";
inline constexpr char16_t SReadErrorLine[] = u"Line %d: %s";
inline constexpr char16_t SUnknownProperty[] = u"Property does not exist";
inline constexpr char16_t SInvalidPropertyValue[] = u"Invalid property value";
inline constexpr char16_t SPropertyNotObject[] = u"Property is not an object";
inline constexpr char16_t SPropertyNotRead[] = u"Property value not read";
inline constexpr char16_t SPropertyValueRange[] = u"Property value out of range";
inline constexpr char16_t SExpectedAssignment[] = u"'<name> = <value>' expected";
inline constexpr char16_t SDuplicateWrite[] = u"Property %s written twice";

enum class TPropertyKind { pkInteger, pkFloat, pkString, pkBoolean, pkObject };
using TPropertyValue = std::variant<Int64, double, UnicodeString, bool>;

// One published property. Get/Set/Stored work on instances of the publishing class or its
// descendants; an object property has GetObject instead of Get and Set.
struct TPublishedProperty {
  UnicodeString Name;
  TPropertyKind Kind = TPropertyKind::pkInteger;
  Int64 MinValue = 0;  // integer properties: the range of the property's type
  Int64 MaxValue = 0;
  std::function<TPropertyValue(const TPersistent&)> Get;
  std::function<void(TPersistent&, const TPropertyValue&)> Set;
  std::function<bool(const TPersistent&)> Stored;  // empty: always stored
  std::function<TPersistent*(const TPersistent&)> GetObject;
};

// The per-class tables. Any thread may read; registration is serialised.
class TPublishedProperties {
 public:
  // Adds a property to Class's table (a later registration of the same name replaces it).
  static void Register(TClass Class, TPublishedProperty Property);
  // Every published property of Class, ancestors' first.
  static std::vector<TPublishedProperty> Of(TClass Class);
  // Case-insensitive look-up through Class and its ancestors; false when there is none.
  static bool Find(TClass Class, UnicodeStringView Name, TPublishedProperty& Property);
};

// Publishes a property of class C with a getter, a setter and an optional stored-test. The value
// type picks the kind: bool, an integer type (values out of its range are rejected on reading),
// a floating-point type, or UnicodeString.
template <class C, class V>
void PublishProperty(UnicodeStringView Name, V (C::*Getter)() const, void (C::*Setter)(V),
                     bool (C::*StoredTest)() const = nullptr) {
  static_assert(std::is_base_of_v<TPersistent, C>, "published properties belong to persistents");
  TPublishedProperty p;
  p.Name = UnicodeString(Name);
  using Plain = std::remove_cvref_t<V>;
  if constexpr (std::is_same_v<Plain, bool>) {
    p.Kind = TPropertyKind::pkBoolean;
  } else if constexpr (std::is_integral_v<Plain>) {
    p.Kind = TPropertyKind::pkInteger;
    p.MinValue = static_cast<Int64>(std::numeric_limits<Plain>::min());
    p.MaxValue = static_cast<Int64>(std::min<UInt64>(std::numeric_limits<Plain>::max(), INT64_MAX));
  } else if constexpr (std::is_floating_point_v<Plain>) {
    p.Kind = TPropertyKind::pkFloat;
  } else {
    static_assert(std::is_same_v<Plain, UnicodeString>, "unsupported property type");
    p.Kind = TPropertyKind::pkString;
  }
  p.Get = [Getter](const TPersistent& obj) -> TPropertyValue {
    const Plain v = (static_cast<const C&>(obj).*Getter)();
    if constexpr (std::is_same_v<Plain, bool> || std::is_same_v<Plain, UnicodeString>)
      return v;
    else if constexpr (std::is_integral_v<Plain>)
      return static_cast<Int64>(v);
    else
      return static_cast<double>(v);
  };
  p.Set = [Setter](TPersistent& obj, const TPropertyValue& value) {
    std::visit(
        [&](const auto& v) {
          using W = std::remove_cvref_t<decltype(v)>;
          if constexpr (std::is_convertible_v<W, Plain>) (static_cast<C&>(obj).*Setter)(static_cast<Plain>(v));
        },
        value);
  };
  if (StoredTest) p.Stored = [StoredTest](const TPersistent& obj) { return (static_cast<const C&>(obj).*StoredTest)(); };
  TPublishedProperties::Register(C::StaticClass(), std::move(p));
}

// Publishes a property that holds a persistent object, streamed through its own properties.
template <class C, class O>
void PublishObjectProperty(UnicodeStringView Name, O* (C::*Getter)() const) {
  static_assert(std::is_base_of_v<TPersistent, O>, "object properties hold persistents");
  TPublishedProperty p;
  p.Name = UnicodeString(Name);
  p.Kind = TPropertyKind::pkObject;
  p.GetObject = [Getter](const TPersistent& obj) -> TPersistent* { return (static_cast<const C&>(obj).*Getter)(); };
  TPublishedProperties::Register(C::StaticClass(), std::move(p));
}

class TReader;
class TWriter;
using TReaderProc = TMethod<void(TReader* Reader)>;
using TWriterProc = TMethod<void(TWriter* Writer)>;

// What DefineProperties talks to: a reader or a writer.
class TFiler : public TObject {
  QUMA_CLASS(TFiler, TObject)
 public:
  // Declares a property beside the published ones. A writer calls WriteData (which writes one
  // value) when HasData; a reader calls ReadData when the line it is reading names the property.
  virtual void DefineProperty(UnicodeStringView Name, TReaderProc ReadData, TWriterProc WriteData, bool HasData) = 0;

 protected:
  static void CallDefineProperties(TPersistent* Instance, TFiler* Filer) { Instance->DefineProperties(Filer); }
};

class TWriter : public TFiler {
  QUMA_CLASS(TWriter, TFiler)
 public:
  // Appends one line per stored property of Instance (see the top of this file).
  void WriteProperties(TPersistent* Instance);
  const UnicodeString& Text() const noexcept { return FText; }

  // The value of the defined property being written; each WriteData writes exactly one.
  void WriteInteger(Int64 Value);
  void WriteFloat(double Value);
  void WriteString(UnicodeStringView Value);
  void WriteBoolean(bool Value);

  void DefineProperty(UnicodeStringView Name, TReaderProc ReadData, TWriterProc WriteData, bool HasData) override;

 private:
  void WriteObject(TPersistent* Instance, const UnicodeString& Prefix, int Depth);
  void WriteLine(UnicodeStringView Name, const TPropertyValue& Value);
  void WriteValue(const TPropertyValue& Value);

  UnicodeString FText;
  UnicodeString FPrefix;
  UnicodeString FPendingName;  // the defined property whose value is due
  bool FValueDue = false;
};

class TReader : public TFiler {
  QUMA_CLASS(TReader, TFiler)
 public:
  explicit TReader(UnicodeStringView Text);
  // Reads every line into Instance, all or nothing (see the top of this file).
  void ReadProperties(TPersistent* Instance);

  // The value of the defined property being read; EReadError when it has another type.
  Int64 ReadInteger();
  double ReadFloat();
  UnicodeString ReadString();
  bool ReadBoolean();

  void DefineProperty(UnicodeStringView Name, TReaderProc ReadData, TWriterProc WriteData, bool HasData) override;

  // A scanned value: its kind as written and its text (strings already unquoted).
  struct TToken {
    enum class TKind { tkInteger, tkFloat, tkString, tkIdent } Kind = TKind::tkInteger;
    UnicodeString Text;
  };

 private:
  struct TLine;
  void Apply(const TLine& Line, TPersistent* Target);

  UnicodeString FText;
  const TToken* FValue = nullptr;   // the value a defined property's reader may take
  UnicodeString FPropName;          // the defined property being looked for
  bool FPropFound = false;
  bool FValueTaken = false;
  bool FProbing = false;            // DefineProperties called only to learn the names
};

// Conveniences: the whole text of an object's stored properties, and reading one back.
UnicodeString WritePropertiesToText(TPersistent* Instance);
void ReadPropertiesFromText(TPersistent* Instance, UnicodeStringView Text);

}  // namespace quma
QUMA_PUBLIC_END
