// The tokeniser on any line with fuzzed character sets and options; every value written by
// EscapeAndQuote comes back from Tokenise as one token, unchanged.
#include <quma/StringTokeniser.h>
#include <quma/Strings.h>
#include <quma/SysUtils.h>

#include "FuzzSupport.h"

using namespace quma;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::TInput in(data, size);
  const Byte flags = in.Byte();
  auto t = MakeObject<TQUMAStringTokeniser>();
  if (flags & 1) t->SetSeparators(Utf8ToUtf16(in.Piece()));
  if (flags & 2) {
    const UnicodeString quotes = Utf8ToUtf16(in.Piece());
    t->SetOpenQuotes(quotes.substr(0, quotes.size() / 2));
    t->SetCloseQuotes(quotes.substr(quotes.size() / 2));
  }
  if (flags & 4) t->SetEscapes(Utf8ToUtf16(in.Piece()));
  t->SetIgnoreEmptyTokens(flags & 8);
  t->SetRemoveEnclosingQuotes(flags & 16);
  t->SetAllowEmbeddedQuotes(flags & 32);
  const UnicodeString text = Utf8ToUtf16(in.Rest());

  const Integer count = t->Tokenise(text);
  QUMA_FUZZ_CHECK(count >= 0 && count == t->TokenCount());
  try {
    t->Token(count);
    QUMA_FUZZ_CHECK(false);
  } catch (const EArgumentOutOfRangeException&) {
  }
  UnicodeString value;
  t->ValueForName(u"name", value);

  // The round trip holds with the defaults plus an escape character, as documented.
  auto plain = MakeObject<TQUMAStringTokeniser>();
  plain->SetEscapes(u"\\");
  if (!text.empty() && plain->Tokenise(plain->EscapeAndQuote(text)) == 1) QUMA_FUZZ_CHECK(plain->Token(0) == text);
  return 0;
}
