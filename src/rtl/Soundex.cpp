#include <quma/Soundex.h>

#include <quma/Strings.h>

namespace quma {

namespace {

// Digit per letter A..Z; 0 separates (vowels, Y), -1 is transparent (H, W).
constexpr signed char kScores[26] = {0, 1, 2, 3, 0, 1, 2, -1, 0, 2, 2, 4, 5, 5, 0, 1, 2, 6, 2, 3, 0, 1, -1, 2, 0, 2};

int Score(WideChar c) noexcept {
  const WideChar u = UpCase(c);
  return u >= u'A' && u <= u'Z' ? kScores[u - u'A'] : 0;
}

}  // namespace

UnicodeString Soundex(UnicodeStringView Text, Integer Length) {
  UnicodeString result;
  if (Text.empty() || Length < 1) return result;
  const auto want = static_cast<std::size_t>(Length);
  result.reserve(want);
  result.push_back(UpCase(Text[0]));
  int previous = Score(Text[0]);
  for (std::size_t i = 1; i < Text.size() && result.size() < want; ++i) {
    const int score = Score(Text[i]);
    if (score > 0 && score != previous) result.push_back(static_cast<WideChar>(u'0' + score));
    if (score != -1) previous = score;
  }
  if (result.size() < want) result.append(want - result.size(), u'0');
  return result;
}

}  // namespace quma
