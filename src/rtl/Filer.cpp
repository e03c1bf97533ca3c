#include <quma/Filer.h>

#include <charconv>
#include <cmath>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>

namespace quma {

// ---- published properties ----

namespace {

struct TRegistry {
  std::shared_mutex Lock;
  std::unordered_map<TClass, std::vector<TPublishedProperty>> Tables;
};

TRegistry& Registry() {
  static TRegistry registry;
  return registry;
}

}  // namespace

void TPublishedProperties::Register(TClass Class, TPublishedProperty Property) {
  auto& registry = Registry();
  std::unique_lock guard(registry.Lock);
  auto& table = registry.Tables[Class];
  for (auto& existing : table) {
    if (SameText(existing.Name, Property.Name)) {
      existing = std::move(Property);
      return;
    }
  }
  table.push_back(std::move(Property));
}

std::vector<TPublishedProperty> TPublishedProperties::Of(TClass Class) {
  std::vector<TClass> chain;
  for (TClass c = Class; c; c = c->ClassParent()) chain.push_back(c);
  auto& registry = Registry();
  std::shared_lock guard(registry.Lock);
  std::vector<TPublishedProperty> result;
  for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
    const auto found = registry.Tables.find(*it);
    if (found != registry.Tables.end()) result.insert(result.end(), found->second.begin(), found->second.end());
  }
  return result;
}

bool TPublishedProperties::Find(TClass Class, UnicodeStringView Name, TPublishedProperty& Property) {
  auto& registry = Registry();
  std::shared_lock guard(registry.Lock);
  for (TClass c = Class; c; c = c->ClassParent()) {
    const auto found = registry.Tables.find(c);
    if (found == registry.Tables.end()) continue;
    for (const auto& p : found->second) {
      if (SameText(p.Name, Name)) {
        Property = p;
        return true;
      }
    }
  }
  return false;
}

// ---- value text ----

namespace {

using TToken = TReader::TToken;
using TKind = TToken::TKind;

constexpr int kMaxNesting = 32;

bool IsIdentStart(WideChar c) noexcept { return (c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z') || c == u'_'; }
bool IsIdentChar(WideChar c) noexcept { return IsIdentStart(c) || (c >= u'0' && c <= u'9'); }
bool IsBlank(WideChar c) noexcept { return c == u' ' || c == u'\t' || c == u'\r'; }

UnicodeString FloatText(double v) {
  if (std::isnan(v)) return u"NAN";
  if (std::isinf(v)) return v < 0 ? u"-INF" : u"INF";
  char buf[32];
  const auto r = std::to_chars(buf, buf + sizeof buf, v);  // shortest text that reads back exactly
  return UnicodeString(buf, r.ptr);
}

bool ParseFloat(UnicodeStringView text, double& v) {
  if (SameText(text, u"NAN")) {
    v = std::numeric_limits<double>::quiet_NaN();
    return true;
  }
  if (SameText(text, u"INF") || SameText(text, u"+INF") || SameText(text, u"-INF")) {
    v = text[0] == u'-' ? -HUGE_VAL : HUGE_VAL;
    return true;
  }
  std::string ascii;
  for (WideChar c : text) {
    if (c > 0x7F) return false;
    ascii.push_back(static_cast<char>(c));
  }
  std::size_t start = ascii.size() > 1 && ascii[0] == '+' ? 1 : 0;
  const auto r = std::from_chars(ascii.data() + start, ascii.data() + ascii.size(), v);
  return r.ec == std::errc() && r.ptr == ascii.data() + ascii.size();
}

UnicodeString QuotedText(UnicodeStringView s) {
  if (s.empty()) return u"''";
  UnicodeString out;
  bool open = false;
  for (WideChar c : s) {
    if (c < 0x20) {
      if (open) out.push_back(u'\'');
      open = false;
      out.push_back(u'#');
      out += IntToStr(c);
      continue;
    }
    if (!open) out.push_back(u'\'');
    open = true;
    out.push_back(c);
    if (c == u'\'') out.push_back(u'\'');
  }
  if (open) out.push_back(u'\'');
  return out;
}

UnicodeString ValueText(const TPropertyValue& value) {
  struct {
    UnicodeString operator()(Int64 v) const { return IntToStr(v); }
    UnicodeString operator()(double v) const { return FloatText(v); }
    UnicodeString operator()(const UnicodeString& v) const { return QuotedText(v); }
    UnicodeString operator()(bool v) const { return v ? u"True" : u"False"; }
  } text;
  return std::visit(text, value);
}

// Scans one value; false when the text is not a value (a reason is not needed: the caller names
// the property and says the value is invalid).
bool ScanValue(UnicodeStringView s, std::size_t& i, TToken& token) {
  const std::size_t n = s.size();
  if (i >= n) return false;
  if (s[i] == u'\'' || s[i] == u'#') {
    token.Kind = TKind::tkString;
    while (i < n && (s[i] == u'\'' || s[i] == u'#')) {
      if (s[i] == u'#') {
        std::size_t j = ++i;
        UInt64 code = 0;
        while (i < n && s[i] >= u'0' && s[i] <= u'9' && code <= 0xFFFF) code = code * 10 + (s[i++] - u'0');
        if (i == j || code > 0xFFFF) return false;
        token.Text.push_back(static_cast<WideChar>(code));
        continue;
      }
      for (++i;; ++i) {
        if (i >= n) return false;  // unterminated
        if (s[i] == u'\'') {
          if (i + 1 < n && s[i + 1] == u'\'') {
            token.Text.push_back(u'\'');
            ++i;
            continue;
          }
          ++i;
          break;
        }
        token.Text.push_back(s[i]);
      }
    }
    return true;
  }
  const std::size_t start = i;
  while (i < n && !IsBlank(s[i])) ++i;
  token.Text.assign(s.substr(start, i - start));
  if (SameText(token.Text, u"True") || SameText(token.Text, u"False")) {
    token.Kind = TKind::tkIdent;
    return true;
  }
  Int64 integer;
  if (TryStrToInt64(token.Text, integer) && token.Text.find_first_of(u"$xX") == UnicodeString::npos) {
    token.Kind = TKind::tkInteger;
    return true;
  }
  double real;
  token.Kind = TKind::tkFloat;
  return ParseFloat(token.Text, real);
}

[[noreturn]] void ValueError(UnicodeStringView reason) { throw EReadError(UnicodeString(reason)); }

TPropertyValue Convert(const TToken& token, const TPublishedProperty& p) {
  switch (p.Kind) {
    case TPropertyKind::pkInteger: {
      if (token.Kind != TKind::tkInteger) break;
      const Int64 v = StrToInt64(token.Text);
      if (v < p.MinValue || v > p.MaxValue) ValueError(SPropertyValueRange);
      return v;
    }
    case TPropertyKind::pkFloat: {
      double v = 0;
      if ((token.Kind != TKind::tkInteger && token.Kind != TKind::tkFloat) || !ParseFloat(token.Text, v)) break;
      return v;
    }
    case TPropertyKind::pkString:
      if (token.Kind != TKind::tkString) break;
      return token.Text;
    case TPropertyKind::pkBoolean:
      if (token.Kind != TKind::tkIdent) break;
      return SameText(token.Text, u"True");
    case TPropertyKind::pkObject:
      break;
  }
  ValueError(SInvalidPropertyValue);
}

}  // namespace

// ---- TWriter ----

void TWriter::WriteProperties(TPersistent* Instance) {
  if (Instance) WriteObject(Instance, UnicodeString(), 0);
}

void TWriter::WriteObject(TPersistent* Instance, const UnicodeString& Prefix, int Depth) {
  if (Depth > kMaxNesting) throw EWriteError(u"Object properties nest too deeply");
  for (const TPublishedProperty& p : TPublishedProperties::Of(Instance->ClassType())) {
    if (p.Kind == TPropertyKind::pkObject) {
      if (TPersistent* child = p.GetObject(*Instance)) WriteObject(child, Prefix + p.Name + u".", Depth + 1);
    } else if (!p.Stored || p.Stored(*Instance)) {
      WriteLine(Prefix + p.Name, p.Get(*Instance));
    }
  }
  FPrefix = Prefix;
  CallDefineProperties(Instance, this);
}

void TWriter::DefineProperty(UnicodeStringView Name, TReaderProc, TWriterProc WriteData, bool HasData) {
  if (!HasData || !WriteData) return;
  FPendingName = FPrefix + UnicodeString(Name);
  FValueDue = true;
  WriteData(this);
  FValueDue = false;  // a writer that wrote nothing leaves no line
}

void TWriter::WriteValue(const TPropertyValue& Value) {
  if (!FValueDue) throw EWriteError(Format(SDuplicateWrite, FPendingName));
  FValueDue = false;
  WriteLine(FPendingName, Value);
}

void TWriter::WriteInteger(Int64 Value) { WriteValue(Value); }
void TWriter::WriteFloat(double Value) { WriteValue(Value); }
void TWriter::WriteString(UnicodeStringView Value) { WriteValue(UnicodeString(Value)); }
void TWriter::WriteBoolean(bool Value) { WriteValue(Value); }

void TWriter::WriteLine(UnicodeStringView Name, const TPropertyValue& Value) {
  FText += Name;
  FText += u" = ";
  FText += ValueText(Value);
  FText += u'\n';
}

// ---- TReader ----

struct TReader::TLine {
  Integer Number = 0;
  UnicodeString Path;                  // as written, for messages
  std::vector<UnicodeString> Segments;
  TToken Value;
  TPersistent* Target = nullptr;       // the object the last segment belongs to
  bool Published = false;
  TPublishedProperty Property;
  TPropertyValue Converted;
};

TReader::TReader(UnicodeStringView Text) : FText(Text) {}

void TReader::DefineProperty(UnicodeStringView Name, TReaderProc ReadData, TWriterProc, bool) {
  if (FPropFound || !ReadData || !SameText(Name, FPropName)) return;
  FPropFound = true;
  if (!FProbing) ReadData(this);
}

void TReader::ReadProperties(TPersistent* Instance) {
  std::vector<TLine> lines;
  // Scan and resolve every line before anything changes.
  const UnicodeStringView text(FText);
  std::size_t pos = 0;
  for (Integer number = 1; pos <= text.size(); ++number) {
    std::size_t end = text.find(u'\n', pos);
    if (end == UnicodeStringView::npos) end = text.size();
    const UnicodeStringView s = text.substr(pos, end - pos);
    pos = end + 1;
    std::size_t i = 0;
    while (i < s.size() && IsBlank(s[i])) ++i;
    if (i == s.size()) continue;
    TLine line;
    line.Number = number;
    const auto lineError = [&](UnicodeStringView reason) -> EReadError {
      if (line.Path.empty()) return EReadError(Format(SReadErrorLine, number, reason));
      return EReadError(Format(SReadErrorAt, number, line.Path, reason));
    };
    for (;;) {
      const std::size_t start = i;
      if (i >= s.size() || !IsIdentStart(s[i])) throw lineError(SExpectedAssignment);
      while (i < s.size() && IsIdentChar(s[i])) ++i;
      line.Segments.emplace_back(s.substr(start, i - start));
      if (i < s.size() && s[i] == u'.') {
        ++i;
        continue;
      }
      break;
    }
    for (const auto& segment : line.Segments) line.Path += (line.Path.empty() ? u"" : u".") + segment;
    while (i < s.size() && IsBlank(s[i])) ++i;
    if (i >= s.size() || s[i] != u'=') throw lineError(SExpectedAssignment);
    ++i;
    while (i < s.size() && IsBlank(s[i])) ++i;
    if (!ScanValue(s, i, line.Value)) throw lineError(SInvalidPropertyValue);
    while (i < s.size() && IsBlank(s[i])) ++i;
    if (i != s.size()) throw lineError(SInvalidPropertyValue);

    TPersistent* target = Instance;
    TPublishedProperty p;
    for (std::size_t k = 0; k + 1 < line.Segments.size(); ++k) {
      if (!TPublishedProperties::Find(target->ClassType(), line.Segments[k], p)) throw lineError(SUnknownProperty);
      if (p.Kind != TPropertyKind::pkObject || !(target = p.GetObject(*target))) throw lineError(SPropertyNotObject);
    }
    line.Target = target;
    if (TPublishedProperties::Find(target->ClassType(), line.Segments.back(), p)) {
      line.Published = true;
      try {
        line.Converted = Convert(line.Value, p);
      } catch (const Exception& e) {
        throw lineError(e.Message());
      }
      line.Property = std::move(p);
    } else {
      FProbing = true;
      FPropFound = false;
      FPropName = line.Segments.back();
      CallDefineProperties(target, this);
      FProbing = false;
      if (!FPropFound) throw lineError(SUnknownProperty);
    }
    lines.push_back(std::move(line));
  }

  // What a failure part-way must put back: every published value of the objects touched.
  struct TSaved {
    TPersistent* Object;
    TPublishedProperty Property;
    TPropertyValue Value;
  };
  std::vector<TSaved> saved;
  std::vector<TPersistent*> touched;
  for (const TLine& line : lines) {
    if (std::find(touched.begin(), touched.end(), line.Target) != touched.end()) continue;
    touched.push_back(line.Target);
    for (TPublishedProperty& p : TPublishedProperties::Of(line.Target->ClassType()))
      if (p.Kind != TPropertyKind::pkObject) saved.push_back({line.Target, p, p.Get(*line.Target)});
  }
  for (const TLine& line : lines) {
    try {
      Apply(line, line.Target);
    } catch (const Exception& e) {
      for (const TSaved& s : saved) {
        try {
          s.Property.Set(*s.Object, s.Value);
        } catch (...) {
          // Restoring a value the object held before cannot sensibly fail; go on with the rest.
        }
      }
      throw EReadError(Format(SReadErrorAt, line.Number, line.Path, e.Message()));
    }
  }
}

void TReader::Apply(const TLine& Line, TPersistent* Target) {
  if (Line.Published) {
    Line.Property.Set(*Target, Line.Converted);
    return;
  }
  FValue = &Line.Value;
  FValueTaken = false;
  FPropFound = false;
  FPropName = Line.Segments.back();
  CallDefineProperties(Target, this);
  FValue = nullptr;
  if (!FValueTaken) ValueError(SPropertyNotRead);
}

namespace {
const TToken& Take(const TToken* value, bool& taken, std::initializer_list<TKind> kinds) {
  if (!value || taken) ValueError(SPropertyNotRead);
  if (std::find(kinds.begin(), kinds.end(), value->Kind) == kinds.end()) ValueError(SInvalidPropertyValue);
  taken = true;
  return *value;
}
}  // namespace

Int64 TReader::ReadInteger() { return StrToInt64(Take(FValue, FValueTaken, {TKind::tkInteger}).Text); }

double TReader::ReadFloat() {
  double v = 0;
  ParseFloat(Take(FValue, FValueTaken, {TKind::tkInteger, TKind::tkFloat}).Text, v);
  return v;
}

UnicodeString TReader::ReadString() { return Take(FValue, FValueTaken, {TKind::tkString}).Text; }

bool TReader::ReadBoolean() { return SameText(Take(FValue, FValueTaken, {TKind::tkIdent}).Text, u"True"); }

UnicodeString WritePropertiesToText(TPersistent* Instance) {
  TObjectPtr<TWriter> writer(New<TWriter>());
  writer->WriteProperties(Instance);
  return writer->Text();
}

void ReadPropertiesFromText(TPersistent* Instance, UnicodeStringView Text) {
  TObjectPtr<TReader> reader(New<TReader>(Text));
  reader->ReadProperties(Instance);
}

}  // namespace quma
