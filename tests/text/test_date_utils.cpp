// Internet date texts: writers checked against the C library in UTC, readers against the layouts
// and their error messages, local forms under fixed time zones.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <quma/DateTime.h>
#include <quma/DateUtils.h>
#include <quma/Strings.h>

#include "rtl/TestSupport.h"

using namespace quma;

namespace {

std::string M1(const std::string& text) { return "Unable to convert \"" + text + "\" to TDateTime"; }
std::string M2(const std::string& text) {
  return "Convert \"" + text + "\" to TDateTime but found a different day of week";
}

template <class F>
std::string ConvertErrorOf(F&& f) { return test::ErrorOf<EConvertError>(std::forward<F>(f)); }

TDateTime DT(int y, int m, int d, int h = 0, int n = 0, int s = 0) {
  return EncodeDateTime(static_cast<Word>(y), static_cast<Word>(m), static_cast<Word>(d), static_cast<Word>(h),
                        static_cast<Word>(n), static_cast<Word>(s), 0);
}

std::string StrfUtc(std::time_t t, const char* pattern) {
  std::tm tm{};
  gmtime_r(&t, &tm);
  char buf[64];
  const std::size_t n = std::strftime(buf, sizeof buf, pattern, &tm);
  return std::string(buf, n);
}

TDateTime FromUnix(std::time_t t) { return TimePointToDateTime(std::chrono::sys_seconds(std::chrono::seconds(t))); }

std::time_t Utc(int y, int m, int d) {
  std::tm tm{};
  tm.tm_year = y - 1900;
  tm.tm_mon = m - 1;
  tm.tm_mday = d;
  return timegm(&tm);
}

// Leap days, year ends, the 1900 and 2000 boundaries, the epoch days, and 2000 random seconds.
std::vector<std::time_t> Instants() {
  std::vector<std::time_t> out;
  const int days[][3] = {{1000, 1, 1}, {1600, 2, 29},  {1899, 12, 30}, {1899, 12, 31}, {1900, 1, 1}, {1900, 2, 28},
                         {1900, 3, 1}, {1969, 12, 31}, {1970, 1, 1},   {1999, 12, 31}, {2000, 1, 1}, {2000, 2, 29},
                         {2000, 3, 1}, {2004, 2, 29},  {2024, 2, 29},  {2100, 2, 28},  {2100, 3, 1}, {9999, 12, 31}};
  for (auto& d : days)
    for (std::time_t offset : {0L, 1L, 3599L, 43200L, 86399L}) out.push_back(Utc(d[0], d[1], d[2]) + offset);
  std::mt19937_64 rng(42);
  std::uniform_int_distribution<std::time_t> dist(Utc(1000, 1, 1), Utc(9999, 12, 31) + 86399);
  for (int i = 0; i < 2000; ++i) out.push_back(dist(rng));
  return out;
}

// Sets the process time zone for its lifetime, then puts back what was there.
struct ScopedTimeZone {
  explicit ScopedTimeZone(const char* tz) {
    if (const char* old = std::getenv("TZ")) Old = old;
    setenv("TZ", tz, 1);
    tzset();
  }
  ~ScopedTimeZone() {
    Old ? setenv("TZ", Old->c_str(), 1) : unsetenv("TZ");
    tzset();
  }
  std::optional<std::string> Old;
};

}  // namespace

TEST(DateWriters, MatchTheCLibraryInUtcReadBackAndAgreeWithTheGeneralFormatter) {
  for (std::time_t t : Instants()) {
    const TDateTime v = FromUnix(t);
    if (v == 0) continue;  // zero stands for "now"
    SCOPED_TRACE(t);
    ASSERT_EQ(Utf16ToUtf8(GMTimeToHTTPDate(v)), StrfUtc(t, "%a, %d %b %Y %H:%M:%S GMT"));
    ASSERT_EQ(Utf16ToUtf8(GMTimeToRFC822Date(v)), StrfUtc(t, "%a, %d %b %Y %H:%M:%S +0000"));
    ASSERT_EQ(Utf16ToUtf8(GMTimeToRFC5322Date(v)), StrfUtc(t, "%a, %d %b %Y %H:%M:%S +0000"));
    ASSERT_EQ(Utf16ToUtf8(GMTimeToXMLDate(v)), StrfUtc(t, "%Y-%m-%dT%H:%M:%SZ"));
    ASSERT_EQ(GMTimeToHTTPDateUtf8(v), StrfUtc(t, "%a, %d %b %Y %H:%M:%S GMT"));
    // ...and every second they write reads back.
    ASSERT_DOUBLE_EQ(HTTPDateToGMTime(GMTimeToHTTPDate(v)), v);
    ASSERT_DOUBLE_EQ(HTTPDateToGMTime(GMTimeToHTTPDateUtf8(v)), v);
    ASSERT_DOUBLE_EQ(XMLDateToGMTime(GMTimeToXMLDate(v)), v);
  }

  // They agree with the general formatter.
  const TFormatSettings gb = TFormatSettings::Create(u"en-GB");
  for (TDateTime v : {DT(1, 1, 1), DT(999, 12, 31, 23, 59, 59), DT(1899, 12, 29, 6), -1.75, 0.5, 45000.123456}) {
    EXPECT_EQ(GMTimeToHTTPDate(v), FormatDateTime(u"ddd, dd mmm yyyy hh':'nn':'ss 'GMT'", v, gb));
    EXPECT_EQ(GMTimeToRFC5322Date(v), FormatDateTime(u"ddd, dd mmm yyyy hh':'nn':'ss '+0000'", v, gb));
    EXPECT_EQ(GMTimeToXMLDate(v), FormatDateTime(u"yyyy'-'mm'-'dd'T'hh':'nn':'ss'Z'", v));
  }
  // Writers round to the millisecond before dropping it, like the formatter.
  EXPECT_EQ(GMTimeToHTTPDate(DT(2024, 2, 29, 23, 59, 59) + 0.9994 / SecsPerDay), u"Thu, 29 Feb 2024 23:59:59 GMT");
  EXPECT_EQ(GMTimeToHTTPDate(DT(2024, 2, 29, 23, 59, 59) + 0.9996 / SecsPerDay), u"Fri, 01 Mar 2024 00:00:00 GMT");
  EXPECT_EQ(GMTimeToHTTPDate(DT(2024, 2, 29) + 0.99999999999), u"Fri, 01 Mar 2024 00:00:00 GMT");
  // Before 1900 the whole part is the day and the fraction runs forward: the time of day is
  // rounded first and carries into the next day.
  EXPECT_EQ(GMTimeToHTTPDate(-18095.999999999884), u"Sun, 16 Jun 1850 00:00:00 GMT");
  EXPECT_EQ(GMTimeToHTTPDate(-18095.99998), u"Sat, 15 Jun 1850 23:59:58 GMT");
  EXPECT_EQ(GMTimeToHTTPDate(-0.999999999999), u"Sun, 31 Dec 1899 00:00:00 GMT");
}

TEST(DateWriters, ZeroMeansNowAndUnwritableValuesRaise) {
  for (TDateTime zero : {0.0, 2e-9, -3e-9}) {
    const TDateTime before = NowUTC() - 1.0 / SecsPerDay;
    const TDateTime http = HTTPDateToGMTime(GMTimeToHTTPDate(zero)), xml = XMLDateToGMTime(GMTimeToXMLDate(zero));
    const TDateTime after = NowUTC();
    EXPECT_TRUE(before <= http && http <= after && before <= xml && xml <= after) << zero;
  }
  // 4e-9 is just past the tolerance: 30 December 1899 itself.
  EXPECT_EQ(GMTimeToXMLDate(4e-9), u"1899-12-30T00:00:00Z");
  for (TDateTime bad : {1e10, -1e7, std::nan(""), HUGE_VAL}) {
    for (auto write : {GMTimeToHTTPDate, GMTimeToRFC822Date, LocalTimeToRFC5322Date})
      EXPECT_EQ(ConvertErrorOf([&] { write(bad); }), "Unable to create formatted string from TDateTime");
    // The XML writer lets the formatter's own error through.
    EXPECT_NE(ConvertErrorOf([&] { GMTimeToXMLDate(bad); }).find("is not a valid date and time"), std::string::npos);
  }
}

struct TReader {
  TDateTime (*Wide)(UnicodeStringView);
  TDateTime (*Narrow)(std::string_view);
};

TEST(DateReaders, RejectedTextsAreNamedAndRFC822YearsAndZonesShift) {
  const struct {
    TReader Read;
    std::vector<const char*> Unreadable, WrongDay;
  } readers[] = {
      {{HTTPDateToGMTime, HTTPDateToGMTime},
       {"", "Sun, 06 Nov 1994 08:49:37", "Sun, 6 Nov 1994 08:49:37 GMT", "Sun, 06 Nov 94 08:49:37 GMT",
        "Sun 06 Nov 1994 08:49:37 GMT", "Sun, 06 Nov 1994 08:49:37 gmt", "Sun, 06 Nov 1994 08:49:37 GMT ",
        " Sun, 06 Nov 1994 08:49:37 GMT", "Sun, 06 Nov 1994 08:49:37 GMT\n\n", "Sun, 06 Nov 1994 8:49:37 GMT",
        "Su\xC3\xA9, 06 Nov 1994 08:49:37 GMT", "Sun, 06 Nov 1994 08:49:3x GMT", "Sun, 06 Nox 1994 08:49:37 GMT"},
       {"Mon, 06 Nov 1994 08:49:37 GMT", "Xyz, 06 Nov 1994 08:49:37 GMT"}},
      // A day name is never accepted by the RFC 822 reader, even the right one; the zone is checked first.
      {{RFC822DateToGMTime, RFC822DateToGMTime},
       {"15 Jun 99 12:00 J", "15 Jun 99 12:00 gmt", "15 Jun 99 12:00 Est", "15 Jun 99 12:00 +1300",
        "15 Jun 99 12:00 +0061", "15 jun 99 12:00 GMT", "15 JUN 99 12:00 GMT", "15 Jun 9 12:00 GMT",
        "15 Jun 99999 12:00 GMT", "15 Jun 99 12:00", "15 Jun 99 12:00 +01000", "15 Jun 99 12:00 +01",
        "15 Jun 99 12:00:0 GMT", "15 Jun 99 12:00 G-T", "Tue, 15 Jun 99 12:00 J"},
       {"Tue, 15 Jun 99 12:00 GMT"}},
      {{RFC5322DateToGMTime, RFC5322DateToGMTime},
       {"01 Jan 2024 10:00:00 +1300", "01 Jan 2024 10:00:00 -0061", "01 Jan 2024 10:00:00 GMT",
        "01 Jan 24 10:00:00 +0000", "01 jan 2024 10:00:00 +0000", "01 Jan 2024 10:00:00 0000",
        "Mon, 01 Jan 2024 10:00:00 +1300", "Monday, 01 Jan 2024 10:00:00 +0000"},
       {"Mon, 01 Jan 2024 10:00:00 +0000"}},
      {{XMLDateToGMTime, XMLDateToGMTime},
       {"2024-02-30", "2023-02-29T00:00:00Z", "2024-13-01T00:00:00Z", "2024-01-01T24:00:00Z", "0000-01-01", "24:00:00",
        "12:60:00", "12:00:60"},
       {}},
  };
  for (const auto& r : readers)
    for (const auto& [texts, message] : {std::pair{&r.Unreadable, &M1}, {&r.WrongDay, &M2}})
      for (const char* bad : *texts) {
        EXPECT_EQ(ConvertErrorOf([&] { r.Read.Wide(Utf8ToUtf16(bad)); }), message(bad)) << bad;
        EXPECT_EQ(ConvertErrorOf([&] { r.Read.Narrow(bad); }), message(bad)) << bad;
      }

  // RFC 822: years shift by the eighty rule.
  const std::pair<const char*, TDateTime> years[] = {
      {"01 Jan 99 10:00 GMT", DT(1999, 1, 1, 10)},         {"01 Jan 05 10:00 GMT", DT(2005, 1, 1, 10)},
      {"01 Jan 80 10:00 UT", DT(1980, 1, 1, 10)},          {"01 Jan 79 10:00 Z", DT(2079, 1, 1, 10)},
      {"01 Jan 2024 10:00 GMT", DT(3924, 1, 1, 10)},       {"01 Jan 123 10:00:30 UTC", DT(2023, 1, 1, 10, 0, 30)},
      {"01 Jan 2000 10:00:00 EST", DT(3900, 1, 1, 5)},     {"31 Dec 99 23:30 +0100", DT(2000, 1, 1, 0, 30)},
      {"01 Jan 00 00:30 -0100", DT(1999, 12, 31, 23, 30)}};  // the last two cross midnight and the year
  for (const auto& [text, expected] : years) {
    EXPECT_DOUBLE_EQ(RFC822DateToGMTime(text), expected) << text;
    EXPECT_DOUBLE_EQ(RFC822DateToGMTime(Utf8ToUtf16(text)), expected) << text;
  }
  // Zones are added in the direction of their sign. A five-character name whose last four
  // characters are digits counts as a numeric zone.
  const struct {
    const char16_t* Zone;
    double Hours;
  } zones[] = {{u"Y", 12},  {u"X", 11},   {u"W", 10},   {u"V", 9},   {u"U", 8},    {u"T", 7},
               {u"S", 6},   {u"R", 5},    {u"Q", 4},    {u"P", 3},   {u"O", 2},    {u"N", 1},
               {u"GMT", 0}, {u"UTC", 0},  {u"UT", 0},   {u"Z", 0},   {u"A", -1},   {u"B", -2},
               {u"C", -3},  {u"D", -4},   {u"EDT", -4}, {u"E", -5},  {u"EST", -5}, {u"CDT", -5},
               {u"F", -6},  {u"CST", -6}, {u"MDT", -6}, {u"G", -7},  {u"MST", -7}, {u"PDT", -7},
               {u"H", -8},  {u"PST", -8}, {u"I", -9},   {u"K", -10}, {u"L", -11},  {u"M", -12},
               {u"+0130", 1.5}, {u"-0130", -1.5}, {u"+1200", 12}, {u"+0060", 1}, {u"A0200", 2}};
  const TDateTime base = DT(1999, 6, 15, 12);
  for (const auto& z : zones) {
    const UnicodeString text = UnicodeString(u"15 Jun 99 12:00 ") + z.Zone;
    EXPECT_NEAR(RFC822DateToGMTime(text), base + z.Hours / 24.0, 1e-9) << Utf16ToUtf8(text);
  }
}

TEST(DateReaders, HTTPNamesIgnoreCaseRFC5322HasNoDayNameXMLHasThreeLayouts) {
  // HTTP: names ignore case and must fit the date.
  EXPECT_DOUBLE_EQ(HTTPDateToGMTime(u"sUN, 06 nov 1994 08:49:37 GMT"), DT(1994, 11, 6, 8, 49, 37));
  EXPECT_DOUBLE_EQ(HTTPDateToGMTime("Sun, 06 Nov 1994 08:49:37 GMT\n"), DT(1994, 11, 6, 8, 49, 37));
  // An impossible date is the date encoder's own conversion error.
  const std::string impossible = ConvertErrorOf([] { HTTPDateToGMTime(u"Fri, 30 Feb 2024 10:00:00 GMT"); });
  EXPECT_NE(impossible.find("is not a valid date and time"), std::string::npos) << impossible;
  EXPECT_NE(ConvertErrorOf([] { HTTPDateToGMTime(u"Sun, 06 Nov 1994 24:00:00 GMT"); }), "no error");
  // RFC 5322 reads only texts without a day name.
  EXPECT_DOUBLE_EQ(RFC5322DateToGMTime(u"01 Jan 2024 10:00 +0100"), DT(2024, 1, 1, 11));
  EXPECT_DOUBLE_EQ(RFC5322DateToGMTime("01 Jan 2024 10:00:00 -0230"), DT(2024, 1, 1, 7, 30));
  EXPECT_DOUBLE_EQ(RFC5322DateToGMTime(u"29 Feb 2000 23:59:59 +0000\n"), DT(2000, 2, 29, 23, 59, 59));
  // Written texts carry a day name, so they cannot be read back; without it they can.
  const TDateTime v = DT(2000, 2, 29, 13, 14, 15);
  const UnicodeString written = GMTimeToRFC5322Date(v);
  EXPECT_EQ(ConvertErrorOf([&] { RFC5322DateToGMTime(written); }), M2(Utf16ToUtf8(written)));
  EXPECT_DOUBLE_EQ(RFC5322DateToGMTime(UnicodeStringView(written).substr(5)), v);
  // XML: three layouts, and a quiet zero for other texts.
  EXPECT_DOUBLE_EQ(XMLDateToGMTime(u"2024-02-29T12:34:56Z"), DT(2024, 2, 29, 12, 34, 56));
  EXPECT_DOUBLE_EQ(XMLDateToGMTime(u"2024-02-29"), DT(2024, 2, 29));
  EXPECT_DOUBLE_EQ(XMLDateToGMTime(u"06:00:00"), 0.25);
  EXPECT_DOUBLE_EQ(XMLDateToGMTime("1899-12-30"), 0.0);
  for (const char16_t* quiet :
       {u"hello", u"", u"2024-02-29T12:34:56", u"2024-02-29T12:34:56+01:00", u"6:00:00", u"2024-2-29", u"24-02-29"})
    EXPECT_EQ(XMLDateToGMTime(quiet), 0.0) << Utf16ToUtf8(quiet);
}

TEST(LocalDates, ConvertThroughTheProcessTimeZone) {
  {
    // West of GMT; zero still means now.
    ScopedTimeZone tz("EST5EDT,M3.2.0,M11.1.0");
    EXPECT_EQ(LocalTimeToHTTPDate(DT(2024, 1, 15, 22)), u"Tue, 16 Jan 2024 03:00:00 GMT");
    EXPECT_DOUBLE_EQ(HTTPDateToLocalTime(u"Tue, 16 Jan 2024 03:00:00 GMT"), DT(2024, 1, 15, 22));
    EXPECT_NEAR(HTTPDateToGMTime(LocalTimeToHTTPDate(0)), NowUTC(), 2.0 / SecsPerDay);
  }
  ScopedTimeZone tz("CET-1CEST,M3.5.0,M10.5.0/3");
  // Winter: one hour east of GMT; summer: two.
  EXPECT_EQ(LocalTimeToHTTPDate(DT(2024, 1, 15, 12)), u"Mon, 15 Jan 2024 11:00:00 GMT");
  EXPECT_EQ(LocalTimeToHTTPDate(DT(2024, 7, 15, 12)), u"Mon, 15 Jul 2024 10:00:00 GMT");
  EXPECT_EQ(LocalTimeToRFC822Date(DT(2024, 1, 1, 0, 30)), u"Sun, 31 Dec 2023 23:30:00 +0000");
  EXPECT_EQ(LocalTimeToRFC5322Date(DT(2024, 1, 1, 0, 30)), u"Sun, 31 Dec 2023 23:30:00 +0000");
  EXPECT_EQ(LocalTimeToXMLDate(DT(2024, 7, 15, 12)), u"2024-07-15T10:00:00Z");
  EXPECT_EQ(LocalTimeToXMLDateUtf8(DT(2024, 7, 15, 12)), "2024-07-15T10:00:00Z");
  EXPECT_DOUBLE_EQ(HTTPDateToLocalTime("Mon, 15 Jan 2024 10:00:00 GMT"), DT(2024, 1, 15, 11));
  EXPECT_DOUBLE_EQ(RFC822DateToLocalTime(u"15 Jan 24 10:00 GMT"), DT(2024, 1, 15, 11));
  EXPECT_DOUBLE_EQ(RFC5322DateToLocalTime(u"15 Jan 2024 10:00 +0000"), DT(2024, 1, 15, 11));
  EXPECT_DOUBLE_EQ(XMLDateToLocalTime(u"2024-07-15T10:00:00Z"), DT(2024, 7, 15, 12));
  // The quiet zero of the XML reader is converted like any other value.
  EXPECT_DOUBLE_EQ(XMLDateToLocalTime(u"hello"), 1.0 / 24);
  // The hour repeated in autumn reads as standard time; the hour skipped in spring moves forward.
  EXPECT_EQ(LocalTimeToHTTPDate(DT(2024, 10, 27, 2, 30)), u"Sun, 27 Oct 2024 01:30:00 GMT");
  EXPECT_EQ(LocalTimeToHTTPDate(DT(2024, 3, 31, 2, 30)), u"Sun, 31 Mar 2024 01:30:00 GMT");
  // Round trips through local time away from the transitions.
  for (std::time_t t : Instants()) {
    const TDateTime v = FromUnix(t);
    if (v < DT(1971, 1, 1) || v > DT(9999, 12, 30)) continue;  // local time must stay a valid date
    ASSERT_DOUBLE_EQ(HTTPDateToLocalTime(LocalTimeToHTTPDate(UniversalTimeToLocal(v))), UniversalTimeToLocal(v)) << t;
  }
}
