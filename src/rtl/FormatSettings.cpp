#include <quma/FormatSettings.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

namespace quma {

namespace {

void FillEnglishNames(TFormatSettings& fs) {
  for (std::size_t i = 0; i < 12; ++i) {
    fs.ShortMonthNames[i] = UnicodeString(EnglishShortMonthNames[i]);
    fs.LongMonthNames[i] = UnicodeString(EnglishLongMonthNames[i]);
  }
  for (std::size_t i = 0; i < 7; ++i) {
    fs.ShortDayNames[i] = UnicodeString(EnglishShortDayNames[i]);
    fs.LongDayNames[i] = UnicodeString(EnglishLongDayNames[i]);
  }
}

TFormatSettings MakeGB() {
  TFormatSettings fs;
  fs.CurrencyString = u"\u00A3";
  fs.CurrencyFormat = 0;
  fs.NegCurrFormat = 1;
  fs.CurrencyDecimals = 2;
  fs.ThousandSeparator = u',';
  fs.DecimalSeparator = u'.';
  fs.DateSeparator = u'/';
  fs.TimeSeparator = u':';
  fs.ListSeparator = u',';
  fs.ShortDateFormat = u"dd/mm/yyyy";
  fs.LongDateFormat = u"dd mmmm yyyy";
  fs.TimeAMString = u"AM";
  fs.TimePMString = u"PM";
  fs.ShortTimeFormat = u"hh:nn";
  fs.LongTimeFormat = u"hh:nn:ss";
  fs.TwoDigitYearCenturyWindow = 50;
  FillEnglishNames(fs);
  return fs;
}

// en-US differs from en-GB only in the currency sign and the date and time patterns.
TFormatSettings MakeUS() {
  TFormatSettings fs = MakeGB();
  fs.CurrencyString = u"$";
  fs.ShortDateFormat = u"m/d/yyyy";
  fs.LongDateFormat = u"dddd, mmmm d, yyyy";
  fs.ShortTimeFormat = u"h:nn AMPM";
  fs.LongTimeFormat = u"h:nn:ss AMPM";
  return fs;
}

bool IsLocale(UnicodeStringView name, UnicodeStringView lang, UnicodeStringView region) {
  if (name.size() != 5 || (name[2] != u'-' && name[2] != u'_')) return false;
  return SameText(name.substr(0, 2), lang) && SameText(name.substr(3, 2), region);
}

// Every record ever installed as the default stays alive, so a reference handed out by
// DefaultFormatSettings never dangles.
struct DefaultStore {
  std::mutex Lock;
  std::deque<std::unique_ptr<const TFormatSettings>> Records;
  std::atomic<const TFormatSettings*> Current{nullptr};
  DefaultStore() {
    Records.push_back(std::make_unique<const TFormatSettings>(MakeUS()));
    Current.store(Records.back().get(), std::memory_order_release);
  }
};

// Never destroyed, so code that formats numbers during static destruction still finds it.
DefaultStore& Store() {
  static DefaultStore* const store = new DefaultStore;
  return *store;
}

}  // namespace

TFormatSettings TFormatSettings::Create(UnicodeStringView LocaleName) {
  if (IsLocale(LocaleName, u"en", u"GB")) return MakeGB();
  if (IsLocale(LocaleName, u"en", u"US")) return MakeUS();
  return Invariant();
}

TFormatSettings TFormatSettings::Invariant() {
  TFormatSettings fs;
  fs.CurrencyString = u"\u00A4";
  fs.CurrencyFormat = 0;
  fs.NegCurrFormat = 0;
  fs.CurrencyDecimals = 2;
  fs.ShortDateFormat = u"mm/dd/yyyy";
  fs.LongDateFormat = u"dddd, dd mmmm yyyy";
  fs.TimeAMString = u"AM";
  fs.TimePMString = u"PM";
  fs.ShortTimeFormat = u"hh:nn";
  fs.LongTimeFormat = u"hh:nn:ss";
  FillEnglishNames(fs);
  return fs;
}

const TFormatSettings& DefaultFormatSettings() noexcept { return *Store().Current.load(std::memory_order_acquire); }

void SetDefaultFormatSettings(const TFormatSettings& Settings) {
  auto& store = Store();
  auto record = std::make_unique<const TFormatSettings>(Settings);
  std::lock_guard guard(store.Lock);
  store.Records.push_back(std::move(record));
  store.Current.store(store.Records.back().get(), std::memory_order_release);
}

UnicodeString FloatToStr(double Value) { return FloatToStr(Value, DefaultFormatSettings()); }

void FloatToDecimal(TFloatRec& Result, double Value, int Precision, int Decimals) noexcept {
  Result = TFloatRec{};
  if (std::isnan(Value)) {
    Result.Exponent = -32768;
    return;
  }
  Result.Negative = std::signbit(Value);
  if (std::isinf(Value)) {
    Result.Exponent = 32767;
    return;
  }
  Result.Negative = Result.Negative && Value != 0;
  if (Value == 0) return;
  Precision = std::clamp(Precision, 1, 18);
  Decimals = std::clamp(Decimals, -400, 400);
  // Forty correctly rounded significant digits settle the rounding unless the digits after the
  // last kept one read 5000...: only then can the true value lie on either side of the halfway
  // point, and only then is the exact expansion (at most 767 significant digits) consulted.
  // Forty digits never carry into a new leading digit: no double lies that close to a power of
  // ten it is not equal to.
  char head[64];
  *std::to_chars(head, head + sizeof head - 1, std::fabs(Value), std::chars_format::scientific, 39).ptr = 0;
  char digits[41];
  digits[0] = head[0];
  std::memcpy(digits + 1, head + 2, 39);
  digits[40] = 0;
  const int exponent = std::atoi(head + 42) + 1;
  const int keep = std::min(Precision, exponent + Decimals);
  if (keep < 0) {
    Result.Negative = false;
    return;
  }
  bool up = digits[keep] > '5';
  if (digits[keep] == '5') {
    up = std::any_of(digits + keep + 1, digits + 40, [](char c) { return c != '0'; });
    if (!up) {
      char exact[820];
      std::to_chars(exact, exact + sizeof exact, std::fabs(Value), std::chars_format::scientific, 800);
      digits[0] = exact[0];
      std::memcpy(digits + 1, exact + 2, 39);
      up = digits[keep] >= '5';  // exactly halfway rounds away from zero
    }
  }
  int count = keep;
  int e = exponent;
  if (up) {
    int i = keep - 1;
    while (i >= 0 && digits[i] == '9') digits[i--] = '0';
    if (i >= 0) {
      ++digits[i];
    } else {
      digits[0] = '1';
      count = 1;
      ++e;
    }
  }
  while (count > 0 && digits[count - 1] == '0') --count;
  if (count == 0) {
    Result.Negative = false;
    return;
  }
  std::memcpy(Result.Digits.data(), digits, static_cast<std::size_t>(count));
  Result.Exponent = static_cast<SmallInt>(e);
}

UnicodeString FloatToStr(double Value, const TFormatSettings& Settings) {
  if (std::isnan(Value)) return u"NAN";
  if (std::isinf(Value)) return Value < 0 ? u"-INF" : u"INF";
  if (Value == 0) return u"0";
  // 15 significant digits, then the shortest of fixed and scientific notation by the host rule.
  TFloatRec rec;
  FloatToDecimal(rec, Value, 15, 9999);
  const bool negative = rec.Negative;
  const char* digits = rec.Digits.data();
  const int n = static_cast<int>(std::strlen(digits));
  const int exponent = rec.Exponent - 1;

  char16_t out[48];
  int o = 0;
  if (negative) out[o++] = u'-';
  if (exponent >= -4 && exponent < 15) {
    if (exponent < 0) {
      out[o++] = u'0';
      out[o++] = Settings.DecimalSeparator;
      for (int i = -1; i > exponent; --i) out[o++] = u'0';
      for (int i = 0; i < n; ++i) out[o++] = static_cast<char16_t>(digits[i]);
    } else {
      for (int i = 0; i <= exponent; ++i) out[o++] = i < n ? static_cast<char16_t>(digits[i]) : u'0';
      if (n > exponent + 1) {
        out[o++] = Settings.DecimalSeparator;
        for (int i = exponent + 1; i < n; ++i) out[o++] = static_cast<char16_t>(digits[i]);
      }
    }
  } else {
    out[o++] = static_cast<char16_t>(digits[0]);
    if (n > 1) {
      out[o++] = Settings.DecimalSeparator;
      for (int i = 1; i < n; ++i) out[o++] = static_cast<char16_t>(digits[i]);
    }
    out[o++] = u'E';
    if (exponent < 0) out[o++] = u'-';
    char eb[8];
    auto er = std::to_chars(eb, eb + sizeof eb, exponent < 0 ? -exponent : exponent);
    for (const char* q = eb; q < er.ptr; ++q) out[o++] = static_cast<char16_t>(*q);
  }
  return UnicodeString(out, static_cast<std::size_t>(o));
}

bool TryStrToFloat(UnicodeStringView S, double& Value, const TFormatSettings& Settings) noexcept {
  std::size_t i = 0, n = S.size();
  while (i < n && S[i] <= u' ') ++i;
  while (n > i && S[n - 1] <= u' ') --n;
  if (i == n || n - i > 400) return false;
  char buf[410];
  std::size_t o = 0;
  if (S[i] == u'+' || S[i] == u'-') {
    if (S[i] == u'-') buf[o++] = '-';
    ++i;
  }
  std::size_t mantissaDigits = 0;
  bool point = false;
  for (; i < n; ++i) {
    const WideChar c = S[i];
    if (c >= u'0' && c <= u'9') {
      buf[o++] = static_cast<char>(c);
      ++mantissaDigits;
    } else if (c == Settings.DecimalSeparator && !point) {
      buf[o++] = '.';
      point = true;
    } else {
      break;
    }
  }
  if (mantissaDigits == 0) return false;
  if (i < n && (S[i] == u'e' || S[i] == u'E')) {
    buf[o++] = 'e';
    ++i;
    if (i < n && (S[i] == u'+' || S[i] == u'-')) buf[o++] = static_cast<char>(S[i++]);
    std::size_t expDigits = 0;
    for (; i < n && S[i] >= u'0' && S[i] <= u'9'; ++i, ++expDigits) buf[o++] = static_cast<char>(S[i]);
    if (expDigits == 0) return false;
  }
  if (i != n) return false;
  double v = 0;
  auto res = std::from_chars(buf, buf + o, v, std::chars_format::general);
  if (res.ec == std::errc::result_out_of_range) {
    // Underflow reads as zero; overflow is not a value. The magnitude tells them apart.
    long magnitude = 0;
    bool seenPoint = false, seenNonZero = false;
    std::size_t k = buf[0] == '-' ? 1 : 0;
    for (; k < o && buf[k] != 'e'; ++k) {
      if (buf[k] == '.') {
        seenPoint = true;
      } else if (!seenNonZero) {
        if (buf[k] != '0') seenNonZero = true;
        if (seenPoint) --magnitude;
      } else if (!seenPoint) {
        ++magnitude;
      }
    }
    if (k < o) {
      // The exponent saturates: any exponent beyond the digit count decides the direction alone.
      std::size_t d = k + 1;
      const bool negativeExponent = buf[d] == '-';
      if (buf[d] == '-' || buf[d] == '+') ++d;
      long exponent = 0;
      for (; d < o; ++d) exponent = std::min(exponent * 10 + (buf[d] - '0'), 100000L);
      magnitude += negativeExponent ? -exponent : exponent;
    }
    if (magnitude > 0) return false;
    v = buf[0] == '-' ? -0.0 : 0.0;
  } else if (res.ec != std::errc() || res.ptr != buf + o) {
    return false;
  }
  Value = v;
  return true;
}

bool TryStrToFloat(UnicodeStringView S, double& Value) noexcept {
  return TryStrToFloat(S, Value, DefaultFormatSettings());
}

double StrToFloat(UnicodeStringView S, const TFormatSettings& Settings) {
  double v;
  if (!TryStrToFloat(S, v, Settings)) throw EConvertError(Format(SInvalidFloat, S));
  return v;
}

double StrToFloat(UnicodeStringView S) { return StrToFloat(S, DefaultFormatSettings()); }

}  // namespace quma
