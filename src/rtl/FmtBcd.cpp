#include <quma/FmtBcd.h>

#include <algorithm>

namespace quma {

namespace {

// Unpacked working form: digits most significant first, the last Places of them decimals.
struct Decimal {
  static constexpr int Capacity = 192;
  bool Negative = false;
  int Count = 0;
  int Places = 0;
  Byte Digits[Capacity] = {};

  int IntegerDigits() const noexcept { return Count - Places; }
  bool IsZero() const noexcept {
    for (int i = 0; i < Count; ++i)
      if (Digits[i] != 0) return false;
    return true;
  }
  void StripLeadingZeros() noexcept {
    int lead = 0;
    while (lead < IntegerDigits() && Digits[lead] == 0) ++lead;
    if (lead > 0) {
      std::copy(Digits + lead, Digits + Count, Digits);
      Count -= lead;
    }
  }
  // Prepends or appends zeros so that the value is unchanged but the shape is (ints, places).
  void Reshape(int ints, int places) noexcept {
    const int addFront = ints - IntegerDigits();
    if (addFront > 0) {
      std::copy_backward(Digits, Digits + Count, Digits + Count + addFront);
      std::fill(Digits, Digits + addFront, Byte{0});
      Count += addFront;
    }
    while (Places < places) {
      Digits[Count++] = 0;
      ++Places;
    }
  }
  // Keeps `places` decimals, rounding once, half away from zero, from the first dropped digit
  // (0.4595 to no places is 0, not 1 by way of 0.46 and 0.5). Returns whether a non-zero digit
  // was dropped.
  bool RoundToPlaces(int places) noexcept {
    if (Places <= places) return false;
    const int keep = Count - (Places - places);
    bool lost = false;
    for (int i = std::max(keep, 0); i < Count; ++i) lost = lost || Digits[i] != 0;
    const bool up = keep >= 0 && Digits[keep] >= 5;
    Count = std::max(keep, 0);
    Places = places;
    if (up) {
      int i = Count - 1;
      while (i >= 0 && Digits[i] == 9) Digits[i--] = 0;
      if (i >= 0) {
        ++Digits[i];
      } else {
        std::copy_backward(Digits, Digits + Count, Digits + Count + 1);
        Digits[0] = 1;
        ++Count;
      }
    }
    return lost;
  }
};

Decimal FromBcd(const TBcd& b) noexcept {
  Decimal d;
  const int prec = std::min<int>(b.Precision, TBcd::MaxDigits);
  const int places = b.Places();
  d.Negative = b.IsNegative();
  for (int i = prec; i < places; ++i) d.Digits[d.Count++] = 0;  // places beyond the digits: leading zeros
  for (int i = 0; i < prec; ++i) d.Digits[d.Count++] = b.Digit(i);
  d.Places = places;
  return d;
}

// Packs d (already fitting) into out with no leading integer zeros.
void Pack(const Decimal& d, TBcd& out) noexcept {
  out = TBcd{};
  if (d.Count == 0) {
    out.Precision = 1;
    out.SignSpecialPlaces = d.Negative ? TBcd::SignBit : Byte{0};
    return;
  }
  out.Precision = static_cast<Byte>(d.Count);
  out.SignSpecialPlaces = static_cast<Byte>((d.Negative ? TBcd::SignBit : 0) | d.Places);
  for (int i = 0; i < d.Count; ++i) out.SetDigit(i, d.Digits[i]);
}

// Fits d into 64 digits and 63 places by rounding decimals away. False when the integer part
// alone is too long.
bool Fit(Decimal& d) noexcept {
  d.StripLeadingZeros();
  // One rounding to the places that fit; a carry into a new leading digit may need one more.
  for (int pass = 0; pass < 2 && d.Places > 0 && (d.Count > TBcd::MaxDigits || d.Places > TBcd::PlacesMask); ++pass) {
    const int excess = std::max(0, d.Count - TBcd::MaxDigits);
    d.RoundToPlaces(std::max(0, std::min<int>(TBcd::PlacesMask, d.Places - excess)));
    d.StripLeadingZeros();
  }
  return d.Count <= TBcd::MaxDigits;
}

int CompareMagnitude(Decimal a, Decimal b) noexcept {
  const int ints = std::max(a.IntegerDigits(), b.IntegerDigits());
  const int places = std::max(a.Places, b.Places);
  a.Reshape(ints, places);
  b.Reshape(ints, places);
  for (int i = 0; i < a.Count; ++i)
    if (a.Digits[i] != b.Digits[i]) return a.Digits[i] < b.Digits[i] ? -1 : 1;
  return 0;
}

Decimal AddDecimals(Decimal a, Decimal b) noexcept {
  const int ints = std::max(a.IntegerDigits(), b.IntegerDigits()) + 1;
  const int places = std::max(a.Places, b.Places);
  const bool aZero = a.IsZero(), bZero = b.IsZero();
  if (aZero) a.Negative = false;
  if (bZero) b.Negative = false;
  a.Reshape(ints, places);
  b.Reshape(ints, places);
  Decimal r;
  r.Count = a.Count;
  r.Places = places;
  if (a.Negative == b.Negative) {
    int carry = 0;
    for (int i = a.Count - 1; i >= 0; --i) {
      const int s = a.Digits[i] + b.Digits[i] + carry;
      r.Digits[i] = static_cast<Byte>(s % 10);
      carry = s / 10;
    }
    r.Negative = a.Negative;
  } else {
    const int cmp = CompareMagnitude(a, b);
    const Decimal& big = cmp >= 0 ? a : b;
    const Decimal& small = cmp >= 0 ? b : a;
    int borrow = 0;
    for (int i = a.Count - 1; i >= 0; --i) {
      int s = big.Digits[i] - small.Digits[i] - borrow;
      borrow = s < 0 ? 1 : 0;
      if (s < 0) s += 10;
      r.Digits[i] = static_cast<Byte>(s);
    }
    r.Negative = cmp != 0 && big.Negative;
  }
  return r;
}

}  // namespace

bool NormalizeBcd(const TBcd& In, TBcd& Out, int Prec, int Places) noexcept {
  if (Prec < 1 || Prec > TBcd::MaxDigits || Places < 0 || Places > TBcd::PlacesMask || Places > Prec) return false;
  Decimal d = FromBcd(In);
  d.StripLeadingZeros();
  const bool exact = !d.RoundToPlaces(Places);
  d.StripLeadingZeros();
  if (d.IntegerDigits() > Prec - Places) return false;
  d.Reshape(Prec - Places, Places);
  Out = TBcd{};
  Out.Precision = static_cast<Byte>(Prec);
  Out.SignSpecialPlaces = static_cast<Byte>((d.Negative ? TBcd::SignBit : 0) | Places);
  for (int i = 0; i < d.Count; ++i) Out.SetDigit(i, d.Digits[i]);
  return exact;
}

bool TryStrToBcd(UnicodeStringView S, TBcd& Bcd, const TFormatSettings& Settings) noexcept {
  std::size_t i = 0, n = S.size();
  while (i < n && S[i] <= u' ') ++i;
  while (n > i && S[n - 1] <= u' ') --n;
  Decimal d;
  if (i < n && (S[i] == u'+' || S[i] == u'-')) d.Negative = S[i++] == u'-';
  int digits = 0;
  auto push = [&](WideChar c) {
    if (d.Count == 0 && c == u'0' && d.Places == 0) return true;  // leading integer zeros
    if (d.Count >= Decimal::Capacity - 1) return false;
    d.Digits[d.Count++] = static_cast<Byte>(c - u'0');
    return true;
  };
  for (; i < n; ++i) {
    const WideChar c = S[i];
    if (c >= u'0' && c <= u'9') {
      ++digits;
      if (!push(c)) return false;
    } else if (c == Settings.ThousandSeparator && c != Settings.DecimalSeparator && digits > 0) {
      continue;
    } else {
      break;
    }
  }
  if (i < n && S[i] == Settings.DecimalSeparator) {
    for (++i; i < n && S[i] >= u'0' && S[i] <= u'9'; ++i) {
      ++digits;
      if (d.Count >= Decimal::Capacity - 1) return false;
      d.Digits[d.Count++] = static_cast<Byte>(S[i] - u'0');
      ++d.Places;
    }
  }
  if (digits == 0) return false;
  int exponent = 0;
  if (i < n && (S[i] == u'e' || S[i] == u'E')) {
    ++i;
    bool negativeExp = false, signed_ = false;
    if (i < n && (S[i] == u'+' || S[i] == u'-')) {
      negativeExp = S[i++] == u'-';
      signed_ = true;
    }
    std::size_t expDigits = 0;
    for (; i < n && S[i] >= u'0' && S[i] <= u'9'; ++i, ++expDigits) {
      exponent = exponent * 10 + (S[i] - u'0');
      if (exponent > 1000) return false;
    }
    if (signed_ && expDigits == 0) return false;
    if (negativeExp) exponent = -exponent;
  }
  if (i != n) return false;
  if (d.IsZero()) {
    d.Count = 0;
    d.Places = 0;
  } else if (exponent > 0) {
    // Move the point right: consume places first, then append zeros.
    const int fromPlaces = std::min(exponent, d.Places);
    d.Places -= fromPlaces;
    for (int k = fromPlaces; k < exponent; ++k) {
      if (d.Count >= Decimal::Capacity - 1) return false;
      d.Digits[d.Count++] = 0;
    }
  } else if (exponent < 0) {
    d.Places -= exponent;
    if (d.Places > Decimal::Capacity - 1) return false;
    d.Reshape(0, d.Places);
  }
  // Trailing decimal zeros carry no value; drop them when they would not fit.
  d.StripLeadingZeros();
  while (d.Places > 0 && (d.Count > TBcd::MaxDigits || d.Places > TBcd::PlacesMask) && d.Digits[d.Count - 1] == 0) {
    --d.Count;
    --d.Places;
  }
  if (d.Count > TBcd::MaxDigits || d.Places > TBcd::PlacesMask) return false;
  Pack(d, Bcd);
  return true;
}

bool TryStrToBcd(UnicodeStringView S, TBcd& Bcd) noexcept { return TryStrToBcd(S, Bcd, DefaultFormatSettings()); }

TBcd StrToBcd(UnicodeStringView S, const TFormatSettings& Settings) {
  TBcd b;
  if (!TryStrToBcd(S, b, Settings)) throw EConvertError(Format(SInvalidBcdValue, S));
  return b;
}

TBcd StrToBcd(UnicodeStringView S) { return StrToBcd(S, DefaultFormatSettings()); }

UnicodeString BcdToStr(const TBcd& Bcd, const TFormatSettings& Settings) {
  Decimal d = FromBcd(Bcd);
  d.StripLeadingZeros();
  while (d.Places > 0 && d.Digits[d.Count - 1] == 0) {
    --d.Count;
    --d.Places;
  }
  UnicodeString s;
  if (d.Negative && !d.IsZero()) s.push_back(u'-');
  if (d.IntegerDigits() == 0) s.push_back(u'0');
  for (int i = 0; i < d.Count; ++i) {
    if (i == d.IntegerDigits()) s.push_back(Settings.DecimalSeparator);
    s.push_back(static_cast<WideChar>(u'0' + d.Digits[i]));
  }
  return s;
}

UnicodeString BcdToStr(const TBcd& Bcd) { return BcdToStr(Bcd, DefaultFormatSettings()); }

TBcd IntegerToBcd(Int64 Value) noexcept {
  Decimal d;
  d.Negative = Value < 0;
  UInt64 v = d.Negative ? UInt64(0) - static_cast<UInt64>(Value) : static_cast<UInt64>(Value);
  Byte rev[20];
  int n = 0;
  do {
    rev[n++] = static_cast<Byte>(v % 10);
    v /= 10;
  } while (v != 0);
  while (n > 0) d.Digits[d.Count++] = rev[--n];
  TBcd b;
  Pack(d, b);
  return b;
}

void BcdAdd(const TBcd& A, const TBcd& B, TBcd& Result) {
  Decimal r = AddDecimals(FromBcd(A), FromBcd(B));
  if (!Fit(r)) throw EConvertError(SBcdOverflow);
  Pack(r, Result);
}

void BcdSubtract(const TBcd& A, const TBcd& B, TBcd& Result) {
  Decimal b = FromBcd(B);
  b.Negative = !b.Negative;
  Decimal r = AddDecimals(FromBcd(A), b);
  if (!Fit(r)) throw EConvertError(SBcdOverflow);
  Pack(r, Result);
}

int BcdCompare(const TBcd& A, const TBcd& B) noexcept {
  const Decimal a = FromBcd(A), b = FromBcd(B);
  const bool aZero = a.IsZero(), bZero = b.IsZero();
  const bool aNeg = a.Negative && !aZero, bNeg = b.Negative && !bZero;
  if (aNeg != bNeg) return aNeg ? -1 : 1;
  const int m = CompareMagnitude(a, b);
  return aNeg ? -m : m;
}

}  // namespace quma
