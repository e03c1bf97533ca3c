// Date-time values, the date-time formatter, the fixed format settings and float text.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <ctime>
#include <limits>
#include <random>
#include <tuple>

#include <quma/DateTime.h>
#include <quma/FormatSettings.h>
#include <quma/Strings.h>

#include "rtl/TestSupport.h"

using namespace quma;

using quma::test::ErrorOf;

TEST(DateTimeValue, EncodeDecodeAcrossTheWholeRangeValidationAndTheSystemClock) {
  EXPECT_EQ(EncodeDate(1, 1, 1), MinDateTime);
  EXPECT_EQ(EncodeDate(9999, 12, 31), 2958465.0);
  EXPECT_EQ(EncodeDateTime(1899, 12, 29, 6, 0, 0, 0), -1.25);  // the time counts away from day 0
  EXPECT_EQ(EncodeTime(18, 0, 0, 0), 0.75);
  std::mt19937 rng(7);
  std::uniform_int_distribution<int> day(-693593, 2958465), ms(0, MSecsPerDay - 1);
  Word y, m, d, h, n, s, z;
  for (int i = 0; i < 5000; ++i) {
    const TDateTimeStamp st{day(rng), ms(rng)};
    const TDateTime v = StampToDateTime(st);
    DecodeDateTime(v, y, m, d, h, n, s, z);
    ASSERT_EQ(EncodeDateTime(y, m, d, h, n, s, z), v);
    TDateTimeStamp back;
    ASSERT_TRUE(TryDateTimeToStamp(v, back));
    ASSERT_EQ(std::pair(back.Days, back.MSecs), std::pair(st.Days, st.MSecs));
    ASSERT_EQ(((h * 60 + n) * 60 + s) * 1000 + z, st.MSecs);
    // Date and day of week against the C library.
    std::tm tm{};
    const std::time_t t = (st.Days - UnixDateDelta) * Int64{SecsPerDay};
    gmtime_r(&t, &tm);
    ASSERT_EQ(DayOfWeek(v), tm.tm_wday + 1);
    ASSERT_EQ(std::tuple(y, m, d), std::tuple(tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday));
  }
  // To and from the system clock.
  using namespace std::chrono;
  EXPECT_EQ(SysTimeToDateTime(sys_time<milliseconds>{}), UnixDateDelta);
  EXPECT_EQ(DateTimeToSysTime(EncodeDate(1, 1, 1)).time_since_epoch().count(), -62135596800000);
  const TDateTime v = EncodeDateTime(2024, 2, 29, 12, 34, 56, 789);
  EXPECT_EQ(TimePointToDateTime(DateTimeToTimePoint(v)), v);
  EXPECT_EQ(TimePointToDateTime(sys_seconds(seconds(-1))), StampToDateTime({UnixDateDelta - 1, MSecsPerDay - 1000}));
  EXPECT_THROW(DateTimeToTimePoint(EncodeDate(1000, 1, 1)), EConvertError);
  EXPECT_NEAR(NowUTC(), TimePointToDateTime(system_clock::now()), 1.0 / SecsPerDay);

  // Validation and errors.
  EXPECT_EQ(std::tuple(IsValidDate(2000, 2, 29), IsValidDate(1900, 2, 29), IsValidDate(0, 1, 1)),
            std::tuple(true, false, false));
  EXPECT_EQ(std::tuple(IsValidTime(23, 59, 59, 999), IsValidTime(24, 0, 0, 0), IsValidTime(0, 0, 0, 1000)),
            std::tuple(true, false, false));
  TDateTime kept = 123;
  EXPECT_FALSE(TryEncodeDateTime(2023, 2, 29, 0, 0, 0, 0, kept));
  EXPECT_EQ(kept, 123);
  EXPECT_EQ(ErrorOf<EConvertError>([] { EncodeDateTime(2024, 2, 30, 10, 0, 0, 0); }),
            "'2024/2/30 10:0:0.0' is not a valid date and time");
  EXPECT_THROW(EncodeDate(2024, 13, 1), EConvertError);
  EXPECT_THROW(EncodeTime(0, 60, 0, 0), EConvertError);
  EXPECT_THROW(DecodeDate(std::numeric_limits<double>::quiet_NaN(), y, m, d), EConvertError);
  EXPECT_THROW(DecodeDate(MinDateTime - 1, y, m, d), EConvertError);
  EXPECT_THROW(DayOfWeek(MaxDateTime + 1), EConvertError);
}

TEST(DateTimeFormatter, PatternLetters) {
  const TFormatSettings gb = TFormatSettings::Create(u"en-GB");
  const TFormatSettings us = TFormatSettings::Create(u"en_us");  // names in any case and either separator
  const TDateTime v = EncodeDateTime(2024, 3, 5, 14, 7, 9, 45);
  EXPECT_EQ(FormatDateTime(u"d dd ddd dddd m mm mmm mmmm yy yyyy", v, gb), u"5 05 Tue Tuesday 3 03 Mar March 24 2024");
  // "m" right after an hour is the minute.
  EXPECT_EQ(FormatDateTime(u"h:n:s.z hh:nn:ss.zzz hh:mm", v, gb), u"14:7:9.45 14:07:09.045 14:07");
  EXPECT_EQ(FormatDateTime(u"ddddd", v, us), u"3/5/2024");
  EXPECT_EQ(FormatDateTime(u"ddddd", v, TFormatSettings::Create(u"xx-YY")), u"03/05/2024");  // unknown: invariant
  EXPECT_EQ(FormatDateTime(u"dddddd", v, us), u"Tuesday, March 5, 2024");
  EXPECT_EQ(FormatDateTime(u"tt", v, us), u"2:07:09 PM");
  EXPECT_EQ(FormatDateTime(u"h am/pm A/P 'dd' \"mm\" c", v, gb), u"2 pm P dd mm 05/03/2024 14:07:09");
  EXPECT_EQ(FormatDateTime(u"", EncodeDate(2024, 3, 5), gb), u"05/03/2024");  // "c" drops a midnight time
  EXPECT_EQ(FormatDateTime(u"c", EncodeDateTime(2024, 3, 5, 0, 5, 0, 0), gb), u"05/03/2024 00:05:00");
  TFormatSettings de = gb;
  de.DateSeparator = u'.';
  EXPECT_EQ(FormatDateTime(u"dd/mm/yyyy", v, de), u"05.03.2024");
  EXPECT_EQ(FormatDateTime(u"yyyy", EncodeDate(33, 1, 1), gb), u"0033");
}

TEST(FloatText, WrittenWithFifteenDigitsAndReadWithTheSettingsOrTheReplaceableDefault) {
  const TFormatSettings gb = TFormatSettings::Create(u"en-GB");
  // The 16th digit rounds half away from zero when the binary value is exactly halfway (1e15 + 5).
  const std::pair<double, const char16_t*> cases[] = {{0, u"0"}, {-2.5, u"-2.5"}, {100, u"100"},
      {1.0 / 3, u"0.333333333333333"}, {2.0 / 3, u"0.666666666666667"}, {0.1f, u"0.100000001490116"},
      {0.0001, u"0.0001"}, {0.00001, u"1E-5"}, {-1.5e-7, u"-1.5E-7"}, {1e14, u"100000000000000"},
      {123456789012345, u"123456789012345"}, {1e15, u"1E15"}, {1234567890123456, u"1.23456789012346E15"},
      {1.7976931348623157e308, u"1.79769313486232E308"}, {std::numeric_limits<double>::quiet_NaN(), u"NAN"},
      {-HUGE_VAL, u"-INF"}, {1000000000000005, u"1.00000000000001E15"}, {-1000000000000005, u"-1.00000000000001E15"},
      {12345678901234.25, u"12345678901234.3"}, {1000000000000004.875, u"1E15"}};
  for (const auto& [value, text] : cases) EXPECT_EQ(FloatToStr(value, gb), text) << value;
  TFormatSettings comma = gb;
  comma.DecimalSeparator = u',';
  comma.ThousandSeparator = u'.';
  EXPECT_EQ(FloatToStr(-1.25e-9, comma), u"-1,25E-9");
  EXPECT_EQ(StrToFloat(u"2,75", comma), 2.75);
  const std::pair<const char16_t*, double> good[] = {{u" 10.5 ", 10.5}, {u"-.5", -0.5}, {u"5.", 5.0},
      {u"+1.5E-7", 1.5e-7}, {u"1e-400", 0.0}, {u"-1e-4296611111111111111111", 0.0}, {u"0e4296611111111111111111", 0.0}};
  for (const auto& [text, value] : good) EXPECT_EQ(StrToFloat(text, gb), value) << Utf16ToUtf8(text);
  for (const char16_t* bad :
       {u"", u" ", u"abc", u"1.5.5", u"1,5", u"1e", u"e5", u".", u"1e400", u"--1", u"1 2", u"0x10",
        u"1e4296611111111111111111", u"10e99999999999999999999", u"-0.1e+9223372036854775808"})
    EXPECT_EQ(ErrorOf<EConvertError>([&] { StrToFloat(bad, gb); }),
              "'" + Utf16ToUtf8(bad) + "' is not a valid floating point value");
  double v = 7;
  EXPECT_FALSE(TryStrToFloat(u"x", v, gb));
  EXPECT_EQ(v, 7);
  // Whatever is written reads back to a value that writes the same text.
  std::mt19937_64 rng(3);
  std::uniform_real_distribution<double> mantissa(-10, 10);
  std::uniform_int_distribution<int> exponent(-30, 30);
  for (int i = 0; i < 2000; ++i) {
    const double x = std::ldexp(mantissa(rng), exponent(rng));
    const UnicodeString text = FloatToStr(x, gb);
    ASSERT_EQ(FloatToStr(StrToFloat(text, gb), gb), text);
  }
  // The process default can be replaced.
  const TFormatSettings saved = DefaultFormatSettings();
  const TFormatSettings& before = DefaultFormatSettings();
  SetDefaultFormatSettings(comma);
  EXPECT_EQ(FloatToStr(2.5), u"2,5");
  EXPECT_EQ(StrToFloat(u"2,5"), 2.5);
  EXPECT_EQ(before.DecimalSeparator, u'.');  // earlier records stay readable
  SetDefaultFormatSettings(saved);
  EXPECT_EQ(FloatToStr(2.5), u"2.5");
}
