#include <quma/DateUtils.h>

#include <quma/FormatSettings.h>
#include <quma/Strings.h>

namespace quma {

namespace {

// Values this close to zero mean "now" (about a quarter of a millisecond).
constexpr double kNowTolerance = 3e-9;

// ---------------------------------------------------------------------------------------------
// Errors. The message quotes the whole input, whatever its encoding.

UnicodeString ToUtf16(UnicodeStringView s) { return UnicodeString(s); }
UnicodeString ToUtf16(std::string_view s) { return Utf8ToUtf16(s); }

template <class Str>
[[noreturn]] void RaiseUnableToConvert(Str text) {
  UnicodeString m(SUnableToConvertPrefix);
  m += ToUtf16(text);
  m += SUnableToConvertSuffix;
  throw EConvertError(std::move(m));
}

template <class Str>
[[noreturn]] void RaiseDifferentDay(Str text) {
  UnicodeString m(SDifferentDayPrefix);
  m += ToUtf16(text);
  m += SDifferentDaySuffix;
  throw EConvertError(std::move(m));
}

// ---------------------------------------------------------------------------------------------
// Matching. The layouts are fixed, so a positional scanner does the work of the anchored
// patterns: \w is an ASCII letter, digit or underscore, \d an ASCII digit, and the end of the
// text may be followed by one line feed.

template <class C>
constexpr bool IsDigit(C c) noexcept {
  return c >= C('0') && c <= C('9');
}
template <class C>
constexpr bool IsWord(C c) noexcept {
  return IsDigit(c) || (c >= C('a') && c <= C('z')) || (c >= C('A') && c <= C('Z')) || c == C('_');
}

template <class C>
struct Scanner {
  std::basic_string_view<C> s;
  std::size_t end;  // the text up to the optional final line feed
  std::size_t pos = 0;

  explicit Scanner(std::basic_string_view<C> text) noexcept
      : s(text), end(!text.empty() && text.back() == C('\n') ? text.size() - 1 : text.size()) {}

  bool AtEnd() const noexcept { return pos == end; }
  bool Lit(char c) noexcept {
    if (pos < end && s[pos] == C(c)) {
      ++pos;
      return true;
    }
    return false;
  }
  bool Lits(const char* lit) noexcept {
    std::size_t p = pos;
    for (; *lit; ++lit, ++p)
      if (p >= end || s[p] != C(*lit)) return false;
    pos = p;
    return true;
  }
  // Exactly n digits; their value.
  bool Digits(std::size_t n, int& value) noexcept {
    if (end - pos < n) return false;
    int v = 0;
    for (std::size_t i = 0; i < n; ++i) {
      const C c = s[pos + i];
      if (!IsDigit(c)) return false;
      v = v * 10 + (c - C('0'));
    }
    value = v;
    pos += n;
    return true;
  }
  // Exactly n word characters.
  bool Words(std::size_t n, std::basic_string_view<C>& out) noexcept {
    if (end - pos < n) return false;
    for (std::size_t i = 0; i < n; ++i)
      if (!IsWord(s[pos + i])) return false;
    out = s.substr(pos, n);
    pos += n;
    return true;
  }
};

// Index 1..12 / 1..7 of a name in an English table, or 0.
template <class C>
int FindName(std::basic_string_view<C> name, const UnicodeStringView* table, int count, bool ignoreCase) noexcept {
  for (int i = 0; i < count; ++i) {
    const UnicodeStringView entry = table[i];
    if (entry.size() != name.size()) continue;
    bool same = true;
    for (std::size_t k = 0; k < entry.size() && same; ++k) {
      const auto c = static_cast<char32_t>(name[k]);
      if (c >= 0x80) {
        same = false;
      } else {
        const WideChar w = static_cast<WideChar>(c);
        same = ignoreCase ? UpCase(w) == UpCase(entry[k]) : w == entry[k];
      }
    }
    if (same) return i + 1;
  }
  return 0;
}

template <class C>
int MonthIndex(std::basic_string_view<C> name, bool ignoreCase) noexcept {
  return FindName(name, EnglishShortMonthNames.data(), 12, ignoreCase);
}
template <class C>
int DayIndex(std::basic_string_view<C> name) noexcept {
  return FindName(name, EnglishShortDayNames.data(), 7, true);
}

TDateTime AddHoursMinutes(TDateTime value, int hours, int minutes) {
  TDateTimeStamp st;
  if (!TryDateTimeToStamp(value, st)) return value;
  return StampToDateTime(IncStamp(st, (static_cast<Int64>(hours) * 60 + minutes) * 60000));
}

// ---------------------------------------------------------------------------------------------
// Readers.

template <class C>
TDateTime ParseHTTP(std::basic_string_view<C> text) {
  Scanner<C> sc(text);
  std::basic_string_view<C> dayName, monthName;
  int day, year, hour, minute, second;
  if (!(sc.Words(3, dayName) && sc.Lits(", ") && sc.Digits(2, day) && sc.Lit(' ') && sc.Words(3, monthName) &&
        sc.Lit(' ') && sc.Digits(4, year) && sc.Lit(' ') && sc.Digits(2, hour) && sc.Lit(':') && sc.Digits(2, minute) &&
        sc.Lit(':') && sc.Digits(2, second) && sc.Lits(" GMT") && sc.AtEnd()))
    RaiseUnableToConvert(text);
  const int month = MonthIndex(monthName, true);
  if (month == 0) RaiseUnableToConvert(text);
  const auto y = static_cast<Word>(year), mo = static_cast<Word>(month), d = static_cast<Word>(day);
  const auto h = static_cast<Word>(hour), mi = static_cast<Word>(minute), se = static_cast<Word>(second);
  // An impossible date is the encoder's own error; a valid one gives its day number directly.
  if (!IsValidDate(y, mo, d) || !IsValidTime(h, mi, se, 0)) EncodeDateTime(y, mo, d, h, mi, se, 0);
  const Int64 days = DaysFromCivil(year, month, day);
  const int dayIndex = DayIndex(dayName);
  if (dayIndex == 0 || dayIndex != DayOfWeekOfDays(days)) RaiseDifferentDay(text);
  return StampToDateTime({days, ((hour * 60 + minute) * 60 + second) * 1000});
}

// The shared front of the two mail layouts up to the zone: [day name ", "] dd Mon year hh:nn[:ss] " ".
template <class C>
struct MailFields {
  bool HasDayName = false;
  int Day = 0, Year = 0, Hour = 0, Minute = 0, Second = 0;
  std::basic_string_view<C> Month;
};

template <class C>
bool ScanMailFront(Scanner<C>& sc, MailFields<C>& f, std::size_t minYear, std::size_t maxYear) {
  std::basic_string_view<C> dayName;
  {
    Scanner<C> probe = sc;
    if (probe.Words(3, dayName) && probe.Lits(", ")) {
      f.HasDayName = true;
      sc = probe;
    }
  }
  if (!(sc.Digits(2, f.Day) && sc.Lit(' ') && sc.Words(3, f.Month) && sc.Lit(' '))) return false;
  std::size_t yearDigits = 0;
  while (sc.pos + yearDigits < sc.end && yearDigits <= maxYear && IsDigit(sc.s[sc.pos + yearDigits])) ++yearDigits;
  if (yearDigits < minYear || yearDigits > maxYear || !sc.Digits(yearDigits, f.Year)) return false;
  if (!(sc.Lit(' ') && sc.Digits(2, f.Hour) && sc.Lit(':') && sc.Digits(2, f.Minute))) return false;
  if (sc.pos < sc.end && sc.s[sc.pos] == C(':')) {
    ++sc.pos;
    if (!sc.Digits(2, f.Second)) return false;
  }
  return sc.Lit(' ');
}

template <class C>
TDateTime EncodeMail(const MailFields<C>& f, int year, int month) {
  return EncodeDateTime(static_cast<Word>(year), static_cast<Word>(month), static_cast<Word>(f.Day),
                        static_cast<Word>(f.Hour), static_cast<Word>(f.Minute), static_cast<Word>(f.Second), 0);
}

template <class C>
TDateTime ParseRFC5322(std::basic_string_view<C> text) {
  Scanner<C> sc(text);
  MailFields<C> f;
  int zoneHours = 0, zoneMinutes = 0;
  C sign{};
  bool ok = ScanMailFront(sc, f, 4, 4) && sc.pos < sc.end;
  if (ok) {
    sign = sc.s[sc.pos++];
    ok = (sign == C('+') || sign == C('-')) && sc.Digits(2, zoneHours) && sc.Digits(2, zoneMinutes) && sc.AtEnd();
  }
  if (!ok) RaiseUnableToConvert(text);
  const int month = MonthIndex(f.Month, false);
  if (month == 0) RaiseUnableToConvert(text);
  TDateTime result = EncodeMail(f, f.Year, month);
  if (zoneHours > 12 || zoneMinutes > 60) RaiseUnableToConvert(text);
  result = sign == C('+') ? AddHoursMinutes(result, zoneHours, zoneMinutes)
                          : AddHoursMinutes(result, -zoneHours, -zoneMinutes);
  // A day name is compared together with its comma and blank, which no table entry has.
  if (f.HasDayName) RaiseDifferentDay(text);
  return result;
}

struct NamedZone {
  const char* Name;
  int Hours;
};
// Tested in this order; the first equal entry wins.
constexpr NamedZone kNamedZones[] = {
    {"Y", 12},   {"X", 11},   {"W", 10},   {"V", 9},   {"U", 8},    {"T", 7},    {"S", 6},    {"R", 5},
    {"Q", 4},    {"P", 3},    {"O", 2},    {"N", 1},   {"GMT", 0},  {"UTC", 0},  {"UT", 0},   {"Z", 0},
    {"A", -1},   {"B", -2},   {"C", -3},   {"D", -4},  {"EDT", -4}, {"E", -5},   {"EST", -5}, {"CDT", -5},
    {"F", -6},   {"CST", -6}, {"MDT", -6}, {"G", -7},  {"MST", -7}, {"PDT", -7}, {"H", -8},   {"PST", -8},
    {"PDT", -8}, {"I", -9},   {"K", -10},  {"L", -11}, {"M", -12}};

template <class C>
bool NamedZoneHours(std::basic_string_view<C> zone, int& hours) noexcept {
  for (const NamedZone& z : kNamedZones) {
    std::size_t k = 0;
    while (z.Name[k] && k < zone.size() && zone[k] == C(z.Name[k])) ++k;
    if (!z.Name[k] && k == zone.size()) {
      hours = z.Hours;
      return true;
    }
  }
  return false;
}

template <class C>
TDateTime ParseRFC822(std::basic_string_view<C> text) {
  Scanner<C> sc(text);
  MailFields<C> f;
  bool ok = ScanMailFront(sc, f, 2, 4);
  std::basic_string_view<C> zone;
  if (ok) {
    zone = sc.s.substr(sc.pos, sc.end - sc.pos);
    if (!zone.empty() && (zone[0] == C('+') || zone[0] == C('-'))) {
      ok = zone.size() == 5;
      for (std::size_t i = 1; ok && i < 5; ++i) ok = IsDigit(zone[i]);
    } else {
      ok = !zone.empty();
      for (std::size_t i = 0; ok && i < zone.size(); ++i) ok = IsWord(zone[i]);
    }
  }
  if (!ok) RaiseUnableToConvert(text);
  const int year = f.Year + (f.Year >= 80 ? 1900 : 2000);
  const int month = MonthIndex(f.Month, false);
  if (month == 0) RaiseUnableToConvert(text);
  TDateTime result = EncodeMail(f, year, month);
  int hours = 0, minutes = 0;
  if (zone.size() == 5 && IsDigit(zone[1]) && IsDigit(zone[2]) && IsDigit(zone[3]) && IsDigit(zone[4])) {
    hours = (zone[1] - C('0')) * 10 + (zone[2] - C('0'));
    minutes = (zone[3] - C('0')) * 10 + (zone[4] - C('0'));
    if (hours > 12 || minutes > 60) RaiseUnableToConvert(text);
    if (zone[0] == C('-')) {
      hours = -hours;
      minutes = -minutes;
    }
  } else if (!NamedZoneHours(zone, hours)) {
    RaiseUnableToConvert(text);
  }
  result = AddHoursMinutes(result, hours, minutes);
  if (f.HasDayName) RaiseDifferentDay(text);
  return result;
}

template <class C>
TDateTime ParseXML(std::basic_string_view<C> text) {
  int year, month, day, hour, minute, second;
  {
    Scanner<C> sc(text);
    if (sc.Digits(4, year) && sc.Lit('-') && sc.Digits(2, month) && sc.Lit('-') && sc.Digits(2, day) && sc.Lit('T') &&
        sc.Digits(2, hour) && sc.Lit(':') && sc.Digits(2, minute) && sc.Lit(':') && sc.Digits(2, second) &&
        sc.Lit('Z') && sc.AtEnd()) {
      TDateTime result;
      if (!TryEncodeDateTime(static_cast<Word>(year), static_cast<Word>(month), static_cast<Word>(day),
                             static_cast<Word>(hour), static_cast<Word>(minute), static_cast<Word>(second), 0, result))
        RaiseUnableToConvert(text);
      return result;
    }
  }
  {
    Scanner<C> sc(text);
    if (sc.Digits(4, year) && sc.Lit('-') && sc.Digits(2, month) && sc.Lit('-') && sc.Digits(2, day) && sc.AtEnd()) {
      TDateTime result;
      if (!TryEncodeDate(static_cast<Word>(year), static_cast<Word>(month), static_cast<Word>(day), result))
        RaiseUnableToConvert(text);
      return result;
    }
  }
  {
    Scanner<C> sc(text);
    if (sc.Digits(2, hour) && sc.Lit(':') && sc.Digits(2, minute) && sc.Lit(':') && sc.Digits(2, second) &&
        sc.AtEnd()) {
      TDateTime result;
      if (!TryEncodeTime(static_cast<Word>(hour), static_cast<Word>(minute), static_cast<Word>(second), 0, result))
        RaiseUnableToConvert(text);
      return result;
    }
  }
  return 0;
}

// ---------------------------------------------------------------------------------------------
// Writers. Each layout has fixed width, so the text is composed in place.

enum class Layout { HTTP, Mail, XML };

struct Fields {
  Integer Year, Month, Day, Hour, Min, Sec, DayOfWeek;
};

// False when the value is not a valid date-time.
bool Split(TDateTime value, Fields& f) noexcept {
  TDateTimeStamp st;
  if (!TryDateTimeToStamp(value, st)) return false;
  CivilFromDays(st.Days, f.Year, f.Month, f.Day);
  f.Hour = st.MSecs / 3600000;
  f.Min = st.MSecs / 60000 % 60;
  f.Sec = st.MSecs / 1000 % 60;
  f.DayOfWeek = DayOfWeekOfDays(st.Days);
  return true;
}

template <class C>
inline C* Put2(C* p, Integer v) noexcept {
  p[0] = static_cast<C>('0' + v / 10);
  p[1] = static_cast<C>('0' + v % 10);
  return p + 2;
}
template <class C>
inline C* Put4(C* p, Integer v) noexcept {
  p = Put2(p, v / 100);
  return Put2(p, v % 100);
}
template <class C>
inline C* PutText(C* p, const char* s) noexcept {
  while (*s) *p++ = static_cast<C>(*s++);
  return p;
}

constexpr const char kDayNames[7][4] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr const char kMonthNames[12][4] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                           "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

template <class C>
std::size_t Compose(C* buf, const Fields& f, Layout layout) noexcept {
  C* p = buf;
  if (layout == Layout::XML) {
    p = Put4(p, f.Year);
    *p++ = C('-');
    p = Put2(p, f.Month);
    *p++ = C('-');
    p = Put2(p, f.Day);
    *p++ = C('T');
  } else {
    p = PutText(p, kDayNames[f.DayOfWeek - 1]);
    *p++ = C(',');
    *p++ = C(' ');
    p = Put2(p, f.Day);
    *p++ = C(' ');
    p = PutText(p, kMonthNames[f.Month - 1]);
    *p++ = C(' ');
    p = Put4(p, f.Year);
    *p++ = C(' ');
  }
  p = Put2(p, f.Hour);
  *p++ = C(':');
  p = Put2(p, f.Min);
  *p++ = C(':');
  p = Put2(p, f.Sec);
  p = PutText(p, layout == Layout::HTTP ? " GMT" : layout == Layout::Mail ? " +0000" : "Z");
  return static_cast<std::size_t>(p - buf);
}

TDateTime NowOr(TDateTime value) { return SameValue(value, 0, kNowTolerance) ? NowUTC() : value; }

template <class S>
S WriteGMT(TDateTime value, Layout layout) {
  value = NowOr(value);
  Fields f;
  if (!Split(value, f)) {
    if (layout == Layout::XML) throw EConvertError(Format(SInvalidDateTime, FloatToStr(value)));
    throw EConvertError(SUnableToFormatDateTime);
  }
  typename S::value_type buf[40];
  return S(buf, Compose(buf, f, layout));
}

template <class S>
S WriteLocal(TDateTime value, Layout layout) {
  if (SameValue(value, 0, kNowTolerance)) {
    value = NowUTC();
  } else {
    TDateTimeStamp st;
    // An invalid value is left for the writer to report in its own words.
    if (TryDateTimeToStamp(value, st)) value = LocalTimeToUniversal(value);
  }
  return WriteGMT<S>(value, layout);
}

}  // namespace

UnicodeString GMTimeToHTTPDate(TDateTime Value) { return WriteGMT<UnicodeString>(Value, Layout::HTTP); }
UnicodeString GMTimeToRFC822Date(TDateTime Value) { return WriteGMT<UnicodeString>(Value, Layout::Mail); }
UnicodeString GMTimeToRFC5322Date(TDateTime Value) { return WriteGMT<UnicodeString>(Value, Layout::Mail); }
UnicodeString GMTimeToXMLDate(TDateTime Value) { return WriteGMT<UnicodeString>(Value, Layout::XML); }
UnicodeString LocalTimeToHTTPDate(TDateTime Value) { return WriteLocal<UnicodeString>(Value, Layout::HTTP); }
UnicodeString LocalTimeToRFC822Date(TDateTime Value) { return WriteLocal<UnicodeString>(Value, Layout::Mail); }
UnicodeString LocalTimeToRFC5322Date(TDateTime Value) { return WriteLocal<UnicodeString>(Value, Layout::Mail); }
UnicodeString LocalTimeToXMLDate(TDateTime Value) { return WriteLocal<UnicodeString>(Value, Layout::XML); }

std::string GMTimeToHTTPDateUtf8(TDateTime Value) { return WriteGMT<std::string>(Value, Layout::HTTP); }
std::string GMTimeToRFC822DateUtf8(TDateTime Value) { return WriteGMT<std::string>(Value, Layout::Mail); }
std::string GMTimeToRFC5322DateUtf8(TDateTime Value) { return WriteGMT<std::string>(Value, Layout::Mail); }
std::string GMTimeToXMLDateUtf8(TDateTime Value) { return WriteGMT<std::string>(Value, Layout::XML); }
std::string LocalTimeToHTTPDateUtf8(TDateTime Value) { return WriteLocal<std::string>(Value, Layout::HTTP); }
std::string LocalTimeToRFC822DateUtf8(TDateTime Value) { return WriteLocal<std::string>(Value, Layout::Mail); }
std::string LocalTimeToRFC5322DateUtf8(TDateTime Value) { return WriteLocal<std::string>(Value, Layout::Mail); }
std::string LocalTimeToXMLDateUtf8(TDateTime Value) { return WriteLocal<std::string>(Value, Layout::XML); }

TDateTime HTTPDateToGMTime(UnicodeStringView Text) { return ParseHTTP(Text); }
TDateTime RFC822DateToGMTime(UnicodeStringView Text) { return ParseRFC822(Text); }
TDateTime RFC5322DateToGMTime(UnicodeStringView Text) { return ParseRFC5322(Text); }
TDateTime XMLDateToGMTime(UnicodeStringView Text) { return ParseXML(Text); }
TDateTime HTTPDateToLocalTime(UnicodeStringView Text) { return UniversalTimeToLocal(ParseHTTP(Text)); }
TDateTime RFC822DateToLocalTime(UnicodeStringView Text) { return UniversalTimeToLocal(ParseRFC822(Text)); }
TDateTime RFC5322DateToLocalTime(UnicodeStringView Text) { return UniversalTimeToLocal(ParseRFC5322(Text)); }
TDateTime XMLDateToLocalTime(UnicodeStringView Text) { return UniversalTimeToLocal(ParseXML(Text)); }

TDateTime HTTPDateToGMTime(std::string_view Text) { return ParseHTTP(Text); }
TDateTime RFC822DateToGMTime(std::string_view Text) { return ParseRFC822(Text); }
TDateTime RFC5322DateToGMTime(std::string_view Text) { return ParseRFC5322(Text); }
TDateTime XMLDateToGMTime(std::string_view Text) { return ParseXML(Text); }
TDateTime HTTPDateToLocalTime(std::string_view Text) { return UniversalTimeToLocal(ParseHTTP(Text)); }
TDateTime RFC822DateToLocalTime(std::string_view Text) { return UniversalTimeToLocal(ParseRFC822(Text)); }
TDateTime RFC5322DateToLocalTime(std::string_view Text) { return UniversalTimeToLocal(ParseRFC5322(Text)); }
TDateTime XMLDateToLocalTime(std::string_view Text) { return UniversalTimeToLocal(ParseXML(Text)); }

}  // namespace quma
