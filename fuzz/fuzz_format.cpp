// Format with a fuzzed format text and fuzzed arguments: a result or EConvertError, nothing else.
#include <cstring>
#include <vector>

#include <quma/Strings.h>
#include <quma/SysUtils.h>

#include "FuzzSupport.h"

using namespace quma;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::TInput in(data, size);
  const UnicodeString fmt = Utf8ToUtf16(in.Piece());
  std::vector<UnicodeString> texts;
  texts.reserve(8);
  std::vector<TFormatArg> args;
  while (in.Left() > 0 && args.size() < 8) {
    switch (in.Byte() % 5) {
      case 0: {
        Int64 v = 0;
        for (int k = 0; k < 8; ++k) v = (v << 8) | in.Byte();
        args.emplace_back(v);
        break;
      }
      case 1: {
        std::uint64_t bits = 0;
        for (int k = 0; k < 8; ++k) bits = (bits << 8) | in.Byte();
        double v;
        std::memcpy(&v, &bits, sizeof v);
        args.emplace_back(v);
        break;
      }
      case 2: texts.push_back(Utf8ToUtf16(in.Piece())); args.emplace_back(texts.back()); break;
      case 3: args.emplace_back(static_cast<WideChar>(in.Byte())); break;
      default: args.emplace_back(static_cast<UInt64>(in.Byte()) * 1000003u); break;
    }
  }
  try {
    FormatV(fmt, args.data(), args.size());
  } catch (const EConvertError&) {
  }
  return 0;
}
