#include <quma/DateTime.h>

#include <cmath>
#include <ctime>

namespace quma {

namespace {

constexpr Int64 kMinDays = -693593;  // 1 January 0001
constexpr Int64 kMaxDays = 2958465;  // 31 December 9999

Int64 FloorDiv(Int64 a, Int64 b) noexcept {
  Int64 q = a / b;
  if ((a % b != 0) && ((a < 0) != (b < 0))) --q;
  return q;
}

[[noreturn]] void InvalidValue(TDateTime value) { throw EConvertError(Format(SInvalidDateTime, FloatToStr(value))); }

TDateTimeStamp CheckedStamp(TDateTime value) {
  TDateTimeStamp st;
  if (!TryDateTimeToStamp(value, st)) InvalidValue(value);
  return st;
}

void AppendNumber(UnicodeString& out, Integer value, int minDigits) {
  char16_t buf[12];
  int n = 0;
  unsigned v = static_cast<unsigned>(value < 0 ? -value : value);
  do {
    buf[n++] = static_cast<char16_t>(u'0' + v % 10);
    v /= 10;
  } while (v != 0);
  while (n < minDigits) buf[n++] = u'0';
  if (value < 0) out.push_back(u'-');
  while (n > 0) out.push_back(buf[--n]);
}

std::time_t StampToUnixSeconds(const TDateTimeStamp& st) noexcept {
  return static_cast<std::time_t>((st.Days - UnixDateDelta) * SecsPerDay + st.MSecs / 1000);
}

bool LocalInfo(std::time_t t, long& offset, bool& dst) noexcept {
  std::tm tm{};
  if (!localtime_r(&t, &tm)) return false;
  offset = tm.tm_gmtoff;
  dst = tm.tm_isdst > 0;
  return true;
}

struct DecodedParts {
  Integer Year, Month, Day, Hour, Min, Sec, MSec, DayOfWeek;
};

DecodedParts Decode(TDateTime value) {
  const TDateTimeStamp st = CheckedStamp(value);
  DecodedParts p{};
  CivilFromDays(st.Days, p.Year, p.Month, p.Day);
  p.Hour = st.MSecs / 3600000;
  p.Min = st.MSecs / 60000 % 60;
  p.Sec = st.MSecs / 1000 % 60;
  p.MSec = st.MSecs % 1000;
  p.DayOfWeek = DayOfWeekOfDays(st.Days);
  return p;
}

bool HasAmPm(UnicodeStringView pattern) noexcept {
  WideChar quote = 0;
  for (std::size_t i = 0; i < pattern.size(); ++i) {
    const WideChar c = pattern[i];
    if (quote) {
      if (c == quote) quote = 0;
      continue;
    }
    if (c == u'\'' || c == u'"') {
      quote = c;
      continue;
    }
    const UnicodeStringView rest = pattern.substr(i);
    if (rest.size() >= 5 && SameText(rest.substr(0, 5), u"am/pm")) return true;
    if (rest.size() >= 3 && SameText(rest.substr(0, 3), u"a/p")) return true;
    if (rest.size() >= 4 && SameText(rest.substr(0, 4), u"ampm")) return true;
  }
  return false;
}

void FormatInto(UnicodeString& out, UnicodeStringView pattern, const DecodedParts& p, const TFormatSettings& fs,
                int depth) {
  if (pattern.empty()) pattern = u"c";
  const bool twelveHour = HasAmPm(pattern);
  bool afterHour = false;
  std::size_t i = 0;
  auto count = [&](WideChar letter) {
    std::size_t n = 0;
    while (i + n < pattern.size() && UpCase(pattern[i + n]) == letter) ++n;
    return n;
  };
  auto nested = [&](const UnicodeString& sub) {
    // Settings patterns may name each other; a bounded depth keeps a self-reference harmless.
    if (depth < 2) FormatInto(out, sub, p, fs, depth + 1);
  };
  while (i < pattern.size()) {
    const WideChar c = pattern[i];
    const WideChar u = UpCase(c);
    switch (u) {
      case u'\'':
      case u'"': {
        std::size_t j = i + 1;
        while (j < pattern.size() && pattern[j] != c) ++j;
        out.append(pattern.substr(i + 1, j - i - 1));
        i = j < pattern.size() ? j + 1 : j;
        continue;
      }
      case u'D': {
        const std::size_t n = count(u'D');
        i += n;
        if (n <= 2)
          AppendNumber(out, p.Day, static_cast<int>(n));
        else if (n == 3)
          out.append(fs.ShortDayNames[static_cast<std::size_t>(p.DayOfWeek - 1)]);
        else if (n == 4)
          out.append(fs.LongDayNames[static_cast<std::size_t>(p.DayOfWeek - 1)]);
        else if (n == 5)
          nested(fs.ShortDateFormat);
        else
          nested(fs.LongDateFormat);
        afterHour = false;
        continue;
      }
      case u'M': {
        const std::size_t n = count(u'M');
        i += n;
        if (n <= 2)
          AppendNumber(out, afterHour ? p.Min : p.Month, static_cast<int>(n));
        else if (n == 3)
          out.append(fs.ShortMonthNames[static_cast<std::size_t>(p.Month - 1)]);
        else
          out.append(fs.LongMonthNames[static_cast<std::size_t>(p.Month - 1)]);
        afterHour = false;
        continue;
      }
      case u'Y': {
        const std::size_t n = count(u'Y');
        i += n;
        if (n <= 2)
          AppendNumber(out, p.Year % 100, 2);
        else
          AppendNumber(out, p.Year, 4);
        afterHour = false;
        continue;
      }
      case u'H': {
        const std::size_t n = count(u'H');
        i += n;
        Integer h = p.Hour;
        if (twelveHour) {
          h %= 12;
          if (h == 0) h = 12;
        }
        AppendNumber(out, h, n >= 2 ? 2 : 1);
        afterHour = true;
        continue;
      }
      case u'N':
      case u'S': {
        const std::size_t n = count(u);
        i += n;
        AppendNumber(out, u == u'N' ? p.Min : p.Sec, n >= 2 ? 2 : 1);
        afterHour = false;
        continue;
      }
      case u'Z': {
        const std::size_t n = count(u'Z');
        i += n;
        AppendNumber(out, p.MSec, n >= 2 ? 3 : 1);
        afterHour = false;
        continue;
      }
      case u'T': {
        const std::size_t n = count(u'T');
        i += n;
        nested(n >= 2 ? fs.LongTimeFormat : fs.ShortTimeFormat);
        afterHour = false;
        continue;
      }
      case u'C': {
        ++i;
        nested(fs.ShortDateFormat);
        if (p.Hour != 0 || p.Min != 0 || p.Sec != 0 || p.MSec != 0) {
          out.push_back(u' ');
          nested(fs.LongTimeFormat);
        }
        afterHour = false;
        continue;
      }
      case u'A': {
        const UnicodeStringView rest = pattern.substr(i);
        const bool pm = p.Hour >= 12;
        if (rest.size() >= 5 && SameText(rest.substr(0, 5), u"am/pm")) {
          UnicodeString marker(pm ? rest.substr(3, 2) : rest.substr(0, 2));
          out.append(marker);
          i += 5;
        } else if (rest.size() >= 3 && SameText(rest.substr(0, 3), u"a/p")) {
          out.push_back(pm ? rest[2] : rest[0]);
          i += 3;
        } else if (rest.size() >= 4 && SameText(rest.substr(0, 4), u"ampm")) {
          out.append(pm ? fs.TimePMString : fs.TimeAMString);
          i += 4;
        } else {
          out.push_back(c);
          ++i;
        }
        continue;
      }
      case u'/':
        out.push_back(fs.DateSeparator);
        ++i;
        continue;
      case u':':
        out.push_back(fs.TimeSeparator);
        ++i;
        continue;
      default:
        out.push_back(c);
        ++i;
        continue;
    }
  }
}

}  // namespace

bool TryDateTimeToStamp(TDateTime Value, TDateTimeStamp& Stamp) noexcept {
  if (!std::isfinite(Value) || std::fabs(Value) > 3.0e6) return false;
  // The whole part is the day and the fraction the time of day, forward from midnight even for
  // negative values. Round the time of day, then carry a full day into the next calendar day
  // (rounding the value as a whole would move a negative date a day back just before midnight).
  const double whole = std::trunc(Value);
  Int64 days = static_cast<Int64>(whole);
  Int64 ms = static_cast<Int64>(std::nearbyint(std::fabs(Value - whole) * MSecsPerDay));
  if (ms >= MSecsPerDay) {
    ms -= MSecsPerDay;
    ++days;
  }
  if (days < kMinDays || days > kMaxDays) return false;
  Stamp.Days = days;
  Stamp.MSecs = static_cast<Integer>(ms);
  return true;
}

TDateTime StampToDateTime(const TDateTimeStamp& Stamp) noexcept {
  const double day = static_cast<double>(Stamp.Days);
  const double time = static_cast<double>(Stamp.MSecs) / MSecsPerDay;
  return Stamp.Days >= 0 ? day + time : day - time;
}

TDateTimeStamp IncStamp(TDateTimeStamp Stamp, Int64 MSecs) noexcept {
  const Int64 total = Stamp.MSecs + MSecs;
  Stamp.Days += FloorDiv(total, MSecsPerDay);
  Stamp.MSecs = static_cast<Integer>(total - FloorDiv(total, MSecsPerDay) * MSecsPerDay);
  return Stamp;
}

bool IsLeapYear(Word Year) noexcept { return Year % 4 == 0 && (Year % 100 != 0 || Year % 400 == 0); }

Word DaysInAMonth(Word Year, Word Month) noexcept {
  static constexpr Word kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (Month < 1 || Month > 12) return 0;
  return Month == 2 && IsLeapYear(Year) ? 29 : kDays[Month - 1];
}

bool IsValidDate(Word Year, Word Month, Word Day) noexcept {
  return Year >= 1 && Year <= 9999 && Month >= 1 && Month <= 12 && Day >= 1 && Day <= DaysInAMonth(Year, Month);
}

bool IsValidTime(Word Hour, Word Min, Word Sec, Word MSec) noexcept {
  return Hour < 24 && Min < 60 && Sec < 60 && MSec < 1000;
}

Int64 DaysFromCivil(Integer Year, Integer Month, Integer Day) noexcept {
  const Int64 y = static_cast<Int64>(Year) - (Month <= 2 ? 1 : 0);
  const Int64 era = (y >= 0 ? y : y - 399) / 400;
  const Int64 yoe = y - era * 400;
  const Int64 doy = (153 * (Month + (Month > 2 ? -3 : 9)) + 2) / 5 + Day - 1;
  const Int64 doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468 + UnixDateDelta;
}

void CivilFromDays(Int64 Days, Integer& Year, Integer& Month, Integer& Day) noexcept {
  const Int64 z = Days - UnixDateDelta + 719468;
  const Int64 era = (z >= 0 ? z : z - 146096) / 146097;
  const Int64 doe = z - era * 146097;
  const Int64 yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const Int64 doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const Int64 mp = (5 * doy + 2) / 153;
  Day = static_cast<Integer>(doy - (153 * mp + 2) / 5 + 1);
  Month = static_cast<Integer>(mp < 10 ? mp + 3 : mp - 9);
  Year = static_cast<Integer>(yoe + era * 400 + (Month <= 2 ? 1 : 0));
}

bool TryEncodeDate(Word Year, Word Month, Word Day, TDateTime& Date) noexcept {
  if (!IsValidDate(Year, Month, Day)) return false;
  Date = static_cast<double>(DaysFromCivil(Year, Month, Day));
  return true;
}

bool TryEncodeTime(Word Hour, Word Min, Word Sec, Word MSec, TDateTime& Time) noexcept {
  if (!IsValidTime(Hour, Min, Sec, MSec)) return false;
  Time = static_cast<double>(((Hour * 60 + Min) * 60 + Sec) * 1000 + MSec) / MSecsPerDay;
  return true;
}

bool TryEncodeDateTime(Word Year, Word Month, Word Day, Word Hour, Word Min, Word Sec, Word MSec,
                       TDateTime& Value) noexcept {
  if (!IsValidDate(Year, Month, Day) || !IsValidTime(Hour, Min, Sec, MSec)) return false;
  Value = StampToDateTime({DaysFromCivil(Year, Month, Day), ((Hour * 60 + Min) * 60 + Sec) * 1000 + MSec});
  return true;
}

TDateTime EncodeDate(Word Year, Word Month, Word Day) {
  TDateTime d;
  if (!TryEncodeDate(Year, Month, Day, d)) throw EConvertError(SDateEncodeError);
  return d;
}

TDateTime EncodeTime(Word Hour, Word Min, Word Sec, Word MSec) {
  TDateTime t;
  if (!TryEncodeTime(Hour, Min, Sec, MSec, t)) throw EConvertError(STimeEncodeError);
  return t;
}

TDateTime EncodeDateTime(Word Year, Word Month, Word Day, Word Hour, Word Min, Word Sec, Word MSec) {
  TDateTime v;
  if (!TryEncodeDateTime(Year, Month, Day, Hour, Min, Sec, MSec, v))
    throw EConvertError(
        Format(SInvalidDateTime, Format(u"%d/%d/%d %d:%d:%d.%d", Year, Month, Day, Hour, Min, Sec, MSec)));
  return v;
}

void DecodeDate(TDateTime Value, Word& Year, Word& Month, Word& Day) {
  const DecodedParts p = Decode(Value);
  Year = static_cast<Word>(p.Year);
  Month = static_cast<Word>(p.Month);
  Day = static_cast<Word>(p.Day);
}

void DecodeTime(TDateTime Value, Word& Hour, Word& Min, Word& Sec, Word& MSec) {
  const DecodedParts p = Decode(Value);
  Hour = static_cast<Word>(p.Hour);
  Min = static_cast<Word>(p.Min);
  Sec = static_cast<Word>(p.Sec);
  MSec = static_cast<Word>(p.MSec);
}

void DecodeDateTime(TDateTime Value, Word& Year, Word& Month, Word& Day, Word& Hour, Word& Min, Word& Sec, Word& MSec) {
  const DecodedParts p = Decode(Value);
  Year = static_cast<Word>(p.Year);
  Month = static_cast<Word>(p.Month);
  Day = static_cast<Word>(p.Day);
  Hour = static_cast<Word>(p.Hour);
  Min = static_cast<Word>(p.Min);
  Sec = static_cast<Word>(p.Sec);
  MSec = static_cast<Word>(p.MSec);
}

Word DayOfWeekOfDays(Int64 Days) noexcept {
  // Day 0 (30 December 1899) was a Saturday.
  return static_cast<Word>((Days % 7 + 7 + 6) % 7 + 1);
}

Word DayOfWeek(TDateTime Value) { return DayOfWeekOfDays(CheckedStamp(Value).Days); }

bool SameValue(double A, double B, double Epsilon) noexcept {
  if (Epsilon == 0) {
    constexpr double kResolution = 1e-12;
    Epsilon = std::fmax(std::fmin(std::fabs(A), std::fabs(B)) * kResolution, kResolution);
  }
  return A > B ? A - B <= Epsilon : B - A <= Epsilon;
}

TDateTime NowUTC() { return TimePointToDateTime(std::chrono::system_clock::now()); }

TDateTime Now() { return UniversalTimeToLocal(NowUTC()); }

Int64 UtcOffsetSecondsAt(TDateTime Universal) {
  const TDateTimeStamp st = CheckedStamp(Universal);
  long offset = 0;
  bool dst = false;
  LocalInfo(StampToUnixSeconds(st), offset, dst);
  return offset;
}

TDateTime UniversalTimeToLocal(TDateTime Universal) {
  const TDateTimeStamp st = CheckedStamp(Universal);
  long offset = 0;
  bool dst = false;
  LocalInfo(StampToUnixSeconds(st), offset, dst);
  return StampToDateTime(IncStamp(st, static_cast<Int64>(offset) * 1000));
}

TDateTime LocalTimeToUniversal(TDateTime Local) {
  const TDateTimeStamp st = CheckedStamp(Local);
  const std::time_t wall = StampToUnixSeconds(st);
  // Offsets in force around the wall-clock time; a candidate instant is right when the offset
  // at that instant maps it back onto the wall-clock time.
  long before = 0, after = 0;
  bool dst = false;
  LocalInfo(wall - SecsPerDay, before, dst);
  LocalInfo(wall + SecsPerDay, after, dst);
  long chosen = before;
  bool found = false;
  for (long candidate : {before, after}) {
    long actual = 0;
    bool candidateDst = false;
    if (!LocalInfo(wall - candidate, actual, candidateDst) || actual != candidate) continue;
    if (!found || !candidateDst) chosen = candidate;  // a repeated hour reads as standard time
    found = true;
  }
  if (!found && before == after) {
    // Neither neighbour matches: a short-lived offset inside the two days; ask the instant itself.
    long inside = before;
    LocalInfo(wall - before, inside, dst);
    chosen = inside;
  }
  return StampToDateTime(IncStamp(st, -static_cast<Int64>(chosen) * 1000));
}

std::chrono::sys_time<std::chrono::milliseconds> DateTimeToSysTime(TDateTime Universal) {
  const TDateTimeStamp st = CheckedStamp(Universal);
  return std::chrono::sys_time<std::chrono::milliseconds>(
      std::chrono::milliseconds((st.Days - UnixDateDelta) * MSecsPerDay + st.MSecs));
}

TDateTime SysTimeToDateTime(std::chrono::sys_time<std::chrono::milliseconds> Point) noexcept {
  const Int64 ms = Point.time_since_epoch().count();
  TDateTimeStamp st;
  st.Days = FloorDiv(ms, MSecsPerDay) + UnixDateDelta;
  st.MSecs = static_cast<Integer>(ms - FloorDiv(ms, MSecsPerDay) * MSecsPerDay);
  return StampToDateTime(st);
}

std::chrono::system_clock::time_point DateTimeToTimePoint(TDateTime Universal) {
  using Clock = std::chrono::system_clock;
  const auto ms = DateTimeToSysTime(Universal).time_since_epoch();
  constexpr auto lo = std::chrono::floor<std::chrono::milliseconds>(Clock::duration::min());
  constexpr auto hi = std::chrono::floor<std::chrono::milliseconds>(Clock::duration::max());
  if (ms <= lo || ms >= hi) InvalidValue(Universal);
  return Clock::time_point(std::chrono::duration_cast<Clock::duration>(ms));
}

UnicodeString FormatDateTime(UnicodeStringView Pattern, TDateTime Value, const TFormatSettings& Settings) {
  const DecodedParts p = Decode(Value);
  UnicodeString out;
  out.reserve(Pattern.size() + 16);
  FormatInto(out, Pattern, p, Settings, 0);
  return out;
}

UnicodeString FormatDateTime(UnicodeStringView Pattern, TDateTime Value) {
  return FormatDateTime(Pattern, Value, DefaultFormatSettings());
}

}  // namespace quma
