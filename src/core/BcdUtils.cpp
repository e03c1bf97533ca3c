#include <quma/BcdUtils.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <vector>

#include <quma/PerlRegEx.h>
#include <quma/Strings.h>

namespace quma {

namespace {

int DigitCount(const TBcd& b) noexcept { return std::min<int>(b.Precision, TBcd::MaxDigits); }

// ---------------------------------------------------------------------------------------------
// Number patterns, compiled once per separator pair and shared by every thread.

struct PatternEntry {
  WideChar Thousands;
  WideChar Decimal;
  std::unique_ptr<const TRegex> Regex;
};

UnicodeString BuildPattern(WideChar t, WideChar d) {
  UnicodeString p = u"([\\+\\-]?[0-9\\";
  p += t;
  p += u"]+)(\\";
  p += d;
  p += u"?(?<=\\";
  p += d;
  p += u")[0-9]+)?(e?(?<=e)[0-9]*)?";
  return p;
}

const TRegex& NumberPattern(WideChar t, WideChar d) {
  // The last pattern a thread used is remembered without locking; entries are never removed.
  thread_local const PatternEntry* last = nullptr;
  if (last && last->Thousands == t && last->Decimal == d) return *last->Regex;
  // Never destroyed: threads may still hold `last` while the process shuts down.
  static std::mutex* const lock = new std::mutex;
  static auto* const entries = new std::vector<std::unique_ptr<PatternEntry>>;
  std::lock_guard guard(*lock);
  for (const auto& e : *entries)
    if (e->Thousands == t && e->Decimal == d) {
      last = e.get();
      return *e->Regex;
    }
  auto regex = std::make_unique<const TRegex>(UnicodeStringView(BuildPattern(t, d)), TPerlRegExOptions{preCaseLess});
  entries->push_back(std::make_unique<PatternEntry>(PatternEntry{t, d, std::move(regex)}));
  last = entries->back().get();
  return *last->Regex;
}

[[noreturn]] void RaiseBcdConvert(UnicodeStringView text) {
  UnicodeString m(u"Unable to convert \"");
  m += text;
  m += u"\" to TBcd";
  throw EConvertError(std::move(m));
}

const TFormatSettings& EnGBSettings() {
  static const TFormatSettings settings = TFormatSettings::Create(u"en-GB");
  return settings;
}

}  // namespace

bool QUMA_BcdIsZero(const TBcd& Bcd) noexcept {
  const int prec = DigitCount(Bcd);
  for (int i = 0; i < prec / 2; ++i)
    if (Bcd.Fraction[static_cast<std::size_t>(i)] != 0) return false;
  return (prec & 1) == 0 || (Bcd.Fraction[static_cast<std::size_t>(prec / 2)] >> 4) == 0;
}

void QUMA_BcdCompact(const TBcd& Source, TBcd& Mantissa, Integer& Exponent) {
  Exponent = 0;
  if (QUMA_BcdIsZero(Source)) return;
  const int prec = DigitCount(Source);
  int first = 0;
  while (Source.Digit(first) == 0) ++first;
  int last = prec - 1;
  while (last > first && Source.Digit(last) == 0) --last;
  Exponent = (prec - Source.Places()) - first - 1;
  const int count = last - first + 1;
  TBcd digits;
  digits.Precision = static_cast<Byte>(count);
  for (int i = 0; i < count; ++i) digits.SetDigit(i, Source.Digit(first + i));
  NormalizeBcd(digits, Mantissa, count, 0);
  Mantissa.SignSpecialPlaces =
      static_cast<Byte>(((Mantissa.Precision - 1) & TBcd::PlacesMask) | (Source.SignSpecialPlaces & TBcd::SignBit));
}

void QUMA_BcdDivide(const TBcd& Dividend, const TBcd& Divisor, TBcd& Quotient) {
  if (QUMA_BcdIsZero(Divisor)) throw EDivByZero(SBcdDivideByZero);
  if (QUMA_BcdIsZero(Dividend)) {
    Quotient = Dividend;
    return;
  }
  if (BcdCompare(Dividend, Divisor) == 0) {
    Quotient = IntegerToBcd(1);
    return;
  }
  if (BcdCompare(Divisor, IntegerToBcd(1)) == 0) {
    Quotient = Dividend;
    return;
  }
  if (BcdCompare(Divisor, IntegerToBcd(-1)) == 0) {
    Quotient = Dividend;
    Quotient.SignSpecialPlaces ^= TBcd::SignBit;
    return;
  }
  const bool signsDiffer = Dividend.IsNegative() != Divisor.IsNegative();
  TBcd a, b;
  Integer ea = 0, eb = 0;
  QUMA_BcdCompact(Dividend, a, ea);
  QUMA_BcdCompact(Divisor, b, eb);
  a.SignSpecialPlaces &= static_cast<Byte>(~TBcd::SignBit);  // adding b subtracts
  b.SignSpecialPlaces |= TBcd::SignBit;
  const int d = ea - eb;

  TBcd q;
  if (d <= -TBcd::MaxDigits) {
    // Every digit would lie beyond the 63 places a decimal can hold.
    q.Precision = 1;
  } else {
    if (d < 0) {
      q.Precision = static_cast<Byte>(-d);
      q.SignSpecialPlaces = static_cast<Byte>(-d - 1);
    }
    const int digitLimit = std::min(TBcd::MaxDigits, d + 61);
    TBcd remainder = a;
    while (!QUMA_BcdIsZero(remainder)) {
      Byte digit = 0;
      for (;;) {
        TBcd next;
        BcdAdd(remainder, b, next);
        if (next.IsNegative() && !QUMA_BcdIsZero(next)) break;
        remainder = next;
        ++digit;
      }
      q.SetDigit(q.Precision, digit);
      ++q.Precision;
      if (q.Precision > d + 1) ++q.SignSpecialPlaces;
      if (q.Precision >= digitLimit) break;
      // Bring down a zero: one more digit, or one place fewer once the digits are used up.
      if (remainder.Precision < TBcd::MaxDigits && remainder.Precision < d + 61) {
        remainder.SetDigit(remainder.Precision, 0);
        ++remainder.Precision;
      } else if (remainder.Places() > 0) {
        --remainder.SignSpecialPlaces;
      }
    }
    // Trailing zeros of the integer part.
    if (q.Precision < d + 1) q.Precision = static_cast<Byte>(std::min(d + 1, TBcd::MaxDigits));
  }
  if (signsDiffer) q.SignSpecialPlaces |= TBcd::SignBit;
  Quotient = q;
}

void QUMA_BcdFromString(UnicodeStringView Text, TBcd& Result) { QUMA_BcdFromString(Text, Result, EnGBSettings()); }

void QUMA_BcdFromString(UnicodeStringView Text, TBcd& Result, const TFormatSettings& Settings) {
  const TRegex& pattern = NumberPattern(Settings.ThousandSeparator, Settings.DecimalSeparator);
  TRegexMatch m;
  if (!pattern.Match(Text, m)) RaiseBcdConvert(Text);
  UnicodeString number;
  for (int g = 1; g <= 3; ++g)
    if (m.GroupMatched(g)) number += m.Group(g);
  if (!TryStrToBcd(number, Result, DefaultFormatSettings())) RaiseBcdConvert(Text);
}

void QUMA_BcdFromString(std::string_view Text, TBcd& Result) { QUMA_BcdFromString(Utf8ToUtf16(Text), Result); }

void QUMA_BcdFromString(std::string_view Text, TBcd& Result, const TFormatSettings& Settings) {
  QUMA_BcdFromString(Utf8ToUtf16(Text), Result, Settings);
}

}  // namespace quma
