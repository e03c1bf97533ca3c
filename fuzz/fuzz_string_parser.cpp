// The string parser on any text with fuzzed character classes: a node tree, never a crash.
#include <quma/StringParser.h>
#include <quma/Strings.h>

#include "FuzzSupport.h"

using namespace quma;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::TInput in(data, size);
  const Byte flags = in.Byte();
  auto p = MakeObject<TQUMAStringParser>();
  if (flags & 1) p->SetSeparators(Utf8ToUtf16(in.Piece()));
  if (flags & 2) p->SetWhitespace(Utf8ToUtf16(in.Piece()));
  if (flags & 4) p->SetEscapes(Utf8ToUtf16(in.Piece()));
  p->SetIgnoreWhitespace(flags & 8);
  const UnicodeString pairs = Utf8ToUtf16(in.Piece());
  for (std::size_t i = 0; i + 1 < pairs.size(); i += 2) {
    if (flags & 16) p->AddQuotePair(pairs[i], pairs[i + 1]);
    else p->AddBracketPair(pairs[i], pairs[i + 1]);
  }
  TQUMAParsedNodeList nodes;
  QUMA_FUZZ_CHECK(p->Parse(Utf8ToUtf16(in.Rest()), &nodes));
  return 0;
}
