// The host date-time value: TDateTime is a double counting days since 30 December 1899, the
// fraction being the time of day. Before that day the whole part is negative and the fraction
// still counts forward from midnight (-1.25 is 29 December 1899, 06:00). Valid dates run from
// 1 January 0001 to 31 December 9999; times resolve to the millisecond.
#pragma once

#include <quma/Export.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include <quma/FormatSettings.h>
#include <quma/SysUtils.h>
#include <quma/System.h>

QUMA_PUBLIC_BEGIN
namespace quma {

using TDateTime = double;

inline constexpr Integer HoursPerDay = 24;
inline constexpr Integer MinsPerDay = 24 * 60;
inline constexpr Integer SecsPerDay = MinsPerDay * 60;
inline constexpr Integer MSecsPerDay = SecsPerDay * 1000;
inline constexpr Integer DateDelta = 693594;     // days from 1 January 0001 to 30 December 1899
inline constexpr Integer UnixDateDelta = 25569;  // days from 30 December 1899 to 1 January 1970
inline constexpr TDateTime MinDateTime = -693593.0;
inline constexpr TDateTime MaxDateTime = 2958465.99999999;

inline constexpr char16_t SDateEncodeError[] = u"Invalid argument to date encode";
inline constexpr char16_t STimeEncodeError[] = u"Invalid argument to time encode";
inline constexpr char16_t SInvalidDateTime[] = u"'%s' is not a valid date and time";

// An instant split into whole days (relative to 30 December 1899) and milliseconds of the day,
// the form every calculation here goes through so that sums of hours and minutes stay exact.
struct TDateTimeStamp {
  Int64 Days = 0;
  Integer MSecs = 0;  // 0 .. MSecsPerDay-1
};
// Rounds to the millisecond. False for NaN, infinities and values outside the valid dates.
bool TryDateTimeToStamp(TDateTime Value, TDateTimeStamp& Stamp) noexcept;
TDateTime StampToDateTime(const TDateTimeStamp& Stamp) noexcept;
// Adds a signed number of milliseconds, carrying into the days.
TDateTimeStamp IncStamp(TDateTimeStamp Stamp, Int64 MSecs) noexcept;

bool IsLeapYear(Word Year) noexcept;
Word DaysInAMonth(Word Year, Word Month) noexcept;  // 0 for a month outside 1..12
bool IsValidDate(Word Year, Word Month, Word Day) noexcept;
bool IsValidTime(Word Hour, Word Min, Word Sec, Word MSec) noexcept;

bool TryEncodeDate(Word Year, Word Month, Word Day, TDateTime& Date) noexcept;
bool TryEncodeTime(Word Hour, Word Min, Word Sec, Word MSec, TDateTime& Time) noexcept;
bool TryEncodeDateTime(Word Year, Word Month, Word Day, Word Hour, Word Min, Word Sec, Word MSec,
                       TDateTime& Value) noexcept;
TDateTime EncodeDate(Word Year, Word Month, Word Day);           // EConvertError SDateEncodeError
TDateTime EncodeTime(Word Hour, Word Min, Word Sec, Word MSec);  // EConvertError STimeEncodeError
// EConvertError "'<y/m/d h:n:s.z>' is not a valid date and time" for an impossible combination.
TDateTime EncodeDateTime(Word Year, Word Month, Word Day, Word Hour, Word Min, Word Sec, Word MSec);

// Days since 30 December 1899 of a proleptic Gregorian date (no validation).
Int64 DaysFromCivil(Integer Year, Integer Month, Integer Day) noexcept;
void CivilFromDays(Int64 Days, Integer& Year, Integer& Month, Integer& Day) noexcept;

// The decoders raise EConvertError (SInvalidDateTime with the number) for values that are not
// valid date-times (NaN, infinities, before year 1 or after year 9999).
void DecodeDate(TDateTime Value, Word& Year, Word& Month, Word& Day);
void DecodeTime(TDateTime Value, Word& Hour, Word& Min, Word& Sec, Word& MSec);
void DecodeDateTime(TDateTime Value, Word& Year, Word& Month, Word& Day, Word& Hour, Word& Min, Word& Sec, Word& MSec);
// 1 = Sunday .. 7 = Saturday.
Word DayOfWeek(TDateTime Value);
Word DayOfWeekOfDays(Int64 Days) noexcept;

// |A - B| <= Epsilon; a zero Epsilon picks a tolerance scaled to the operands.
bool SameValue(double A, double B, double Epsilon = 0) noexcept;

// Now: the local wall-clock time; NowUTC: the same instant in universal time.
TDateTime Now();
TDateTime NowUTC();

// Local <-> universal time through the process time zone (the TZ variable as read by the C
// library: after changing TZ, call tzset()). A local time that occurs twice (the hour repeated
// when clocks go back) is read as standard time; a local time skipped when clocks go forward is
// read with the offset in force before the change. Values that are not valid date-times raise
// EConvertError like the decoders.
TDateTime LocalTimeToUniversal(TDateTime Local);
TDateTime UniversalTimeToLocal(TDateTime Universal);
// The offset of local time from universal time at a universal instant, in seconds (east positive).
Int64 UtcOffsetSecondsAt(TDateTime Universal);

// TDateTime (read as universal time) <-> the system clock, at millisecond resolution. The
// millisecond time points cover every valid date; the system clock's own time point (nanoseconds
// on this platform) covers the years 1678 to 2261 only, and DateTimeToTimePoint raises
// EConvertError ("'<value>' is not a valid date and time") outside its range.
std::chrono::sys_time<std::chrono::milliseconds> DateTimeToSysTime(TDateTime Universal);
TDateTime SysTimeToDateTime(std::chrono::sys_time<std::chrono::milliseconds> Point) noexcept;
std::chrono::system_clock::time_point DateTimeToTimePoint(TDateTime Universal);
// Any time point of the system clock, truncated towards the past to the millisecond.
template <class Duration>
TDateTime TimePointToDateTime(std::chrono::sys_time<Duration> Point) noexcept {
  return SysTimeToDateTime(std::chrono::floor<std::chrono::milliseconds>(Point));
}

// The host date-time formatter. Pattern letters are case-insensitive:
//   c (short date and long time)  d dd (day)  ddd dddd (short/long day name)
//   ddddd dddddd (short/long date format)  m mm (month, or minutes right after an hour)
//   mmm mmmm (short/long month name)  yy yyyy (year)  h hh (hour)  n nn (minute)  s ss (second)
//   z zzz (milliseconds)  t tt (short/long time format)  am/pm a/p ampm (12-hour clock markers)
//   / and : (the settings' date and time separators)  '...' and "..." (literal text)
// Every other character is copied. An empty pattern means "c".
UnicodeString FormatDateTime(UnicodeStringView Pattern, TDateTime Value, const TFormatSettings& Settings);
UnicodeString FormatDateTime(UnicodeStringView Pattern, TDateTime Value);

}  // namespace quma
QUMA_PUBLIC_END
