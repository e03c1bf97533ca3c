// The stream parser with the XML-like example grammar: throughput on 1 MB and 10 MB of a
// catalogue, and how the time grows with the length of one node. Yardsticks in the same run:
// Expat parsing the same bytes, PCRE2's JIT finding every tag in them, and, for the character
// reader, the C library's mbrtowc over the same UTF-8.
#include <benchmark/benchmark.h>

#define PCRE2_CODE_UNIT_WIDTH 16
#include <expat.h>
#include <pcre2.h>

#include <clocale>
#include <cwchar>
#include <string>

#include <quma/IOUtils.h>
#include <quma/StreamParser.h>

#include "../examples/XmlGrammar.h"

namespace {

using namespace quma;

// A catalogue of about Bytes bytes: books with attributes, nested tags, entities, non-ASCII
// text and comments, one per 420 bytes or so.
std::string Catalogue(std::size_t Bytes) {
  std::string out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<catalog updated=\"2026-11-23\">\n";
  for (int i = 0; out.size() < Bytes; ++i) {
    const std::string id = std::to_string(i);
    out += "  <book id=\"bk" + id + "\" lang=\"en\">\n    <title>Practical Regular Expressions, volume " + id +
           "</title>\n    <author>L\xC3\xA9" "a Dubois &amp; Anna Berg</author>\n"
           "    <price currency=\"EUR\">39.90</price>\n    <tags><tag>text</tag><tag>parsing</tag></tags>\n"
           "    <!-- restocked - see order " + id + " -->\n    <out-of-print/>\n  </book>\n";
  }
  return out + "</catalog>\n";
}

// One element whose text is Length bytes long.
std::string LongNode(std::size_t Length) {
  std::string text;
  while (text.size() < Length) text += "Lorem ipsum dolor sit amet, consectetur adipiscing elit\n";
  text.resize(Length);
  return "<text>" + text + "</text>";
}

// With the example's tree builder, or (Tree false) with handlers that only count and free the
// nodes: the parser's own share.
bool ParseWithGrammar(const std::string& Input, bool Tree = true) {
  auto parser = MakeObject<TQUMAStreamParser>();
  auto tree = MakeObject<examples::TXmlTreeBuilder>();
  tree->AddDefinitions(parser.get());
  std::size_t nodes = 0;
  if (!Tree)
    for (auto* definition : parser->Definitions()->ToVector()) {
      definition->SetOnOpen({});
      definition->SetOnClose(TQUMAStreamedNodeEvent(
          +[](void* count, TObject*, TQUMAStreamedNode* node) {
            ++*static_cast<std::size_t*>(count);
            Free(node);
          },
          &nodes));
    }
  auto stream = MakeObject<TBytesStream>(TBytes(Input.begin(), Input.end()));
  const bool ok = parser->ParseStream(stream.get());
  benchmark::DoNotOptimize(nodes);
  return ok;
}

void StreamParser(benchmark::State& state) {
  const std::string input = state.range(0) > 0 ? Catalogue(static_cast<std::size_t>(state.range(0)))
                                               : LongNode(static_cast<std::size_t>(-state.range(0)));
  for (auto _ : state)
    if (!ParseWithGrammar(input)) state.SkipWithError("parse failed");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * input.size()));
}
BENCHMARK(StreamParser)->Name("QUMAStreamParser/catalogue")->Arg(1 << 20)->Arg(10 << 20)->Unit(benchmark::kMillisecond);

void StreamParserCounting(benchmark::State& state) {
  const std::string input = Catalogue(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state)
    if (!ParseWithGrammar(input, false)) state.SkipWithError("parse failed");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * input.size()));
}
BENCHMARK(StreamParserCounting)->Name("QUMAStreamParser/catalogue_count")->Arg(1 << 20)->Arg(10 << 20)->Unit(benchmark::kMillisecond);
BENCHMARK(StreamParser)
    ->Name("QUMAStreamParser/one_node")
    ->Arg(-(1 << 10))->Arg(-(16 << 10))->Arg(-(128 << 10))->Arg(-(1 << 20))
    ->Unit(benchmark::kMillisecond);

// A node checked by a valid pattern is matched whole after every character: quadratic.
void StreamParserValidNode(benchmark::State& state) {
  const std::string input = "{" + std::string(static_cast<std::size_t>(state.range(0)), 'x') + "}";
  for (auto _ : state) {
    auto parser = MakeObject<TQUMAStreamParser>();
    auto* block = New<TQUMAStreamedNodeDefinition>();
    block->SetOpenMatch(u"\\{");
    block->SetValidContentMatch(u"\\{[^}]*\\}?");
    block->SetAllowsContainedText(true);
    block->SetCanBeRootNode(true);
    block->SetOnClose(TQUMAStreamedNodeEvent(+[](void*, TObject*, TQUMAStreamedNode* n) { Free(n); }, nullptr));
    parser->AddNodeDefinition(block);
    auto stream = MakeObject<TBytesStream>(TBytes(input.begin(), input.end()));
    if (!parser->ParseStream(stream.get())) state.SkipWithError("parse failed");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * input.size()));
}
BENCHMARK(StreamParserValidNode)->Arg(1 << 10)->Arg(4 << 10)->Arg(16 << 10)->Arg(64 << 10)->Unit(benchmark::kMillisecond);

void Expat(benchmark::State& state) {
  const std::string input = state.range(0) > 0 ? Catalogue(static_cast<std::size_t>(state.range(0)))
                                               : LongNode(static_cast<std::size_t>(-state.range(0)));
  for (auto _ : state) {
    XML_Parser p = XML_ParserCreate(nullptr);
    std::size_t elements = 0;
    XML_SetUserData(p, &elements);
    XML_SetElementHandler(p, [](void* d, const XML_Char*, const XML_Char**) { ++*static_cast<std::size_t*>(d); },
                          nullptr);
    if (XML_Parse(p, input.data(), static_cast<int>(input.size()), 1) != XML_STATUS_OK) state.SkipWithError("expat");
    benchmark::DoNotOptimize(elements);
    XML_ParserFree(p);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * input.size()));
}
BENCHMARK(Expat)->Name("Expat/catalogue")->Arg(1 << 20)->Arg(10 << 20)->Unit(benchmark::kMillisecond);
BENCHMARK(Expat)->Name("Expat/one_node")->Arg(-(1 << 10))->Arg(-(1 << 20))->Unit(benchmark::kMillisecond);

void Pcre2JitTags(benchmark::State& state) {
  const UnicodeString input = Utf8ToUtf16(Catalogue(static_cast<std::size_t>(state.range(0))));
  int err = 0;
  PCRE2_SIZE offset = 0;
  const char16_t pattern[] = u"<[^>]*>";
  pcre2_code* code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern), PCRE2_ZERO_TERMINATED, 0, &err, &offset, nullptr);
  pcre2_jit_compile(code, PCRE2_JIT_COMPLETE);
  pcre2_match_data* md = pcre2_match_data_create_from_pattern(code, nullptr);
  for (auto _ : state) {
    std::size_t tags = 0;
    PCRE2_SIZE at = 0;
    while (pcre2_jit_match(code, reinterpret_cast<PCRE2_SPTR>(input.data()), input.size(), at, 0, md, nullptr) > 0) {
      at = pcre2_get_ovector_pointer(md)[1];
      ++tags;
    }
    benchmark::DoNotOptimize(tags);
  }
  pcre2_match_data_free(md);
  pcre2_code_free(code);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * input.size()));
}
BENCHMARK(Pcre2JitTags)->Name("PCRE2_JIT/all_tags")->Arg(1 << 20)->Arg(10 << 20)->Unit(benchmark::kMillisecond);

// 10 MB of UTF-8 text with two- and three-byte characters, one character at a time.
const std::string& Utf8Text() {
  static const std::string text = [] {
    std::string t;
    while (t.size() < (10u << 20)) t += "Caf\xC3\xA9 cr\xC3\xA8me \xE2\x82\xAC 12, stra\xC3\x9F" "e ";
    return t;
  }();
  return text;
}

void FetchEncodedCharacter(benchmark::State& state) {
  const std::string& text = Utf8Text();
  auto stream = MakeObject<TBytesStream>(TBytes(text.begin(), text.end()));
  for (auto _ : state) {
    stream->SetPosition(0);
    WideChar c = 0;
    UnicodeString chars;
    Integer bytes = 0;
    std::size_t n = 0;
    while (QUMAFetchEncodedCharacter(stream.get(), TEncoding::UTF8(), c, chars, bytes)) ++n;
    benchmark::DoNotOptimize(n);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(FetchEncodedCharacter)->Name("QUMAFetchEncodedCharacter/utf8_10MB")->Unit(benchmark::kMillisecond);

void Mbrtowc(benchmark::State& state) {
  const std::string& text = Utf8Text();
  if (!std::setlocale(LC_CTYPE, "C.UTF-8")) state.SkipWithError("no C.UTF-8 locale");
  for (auto _ : state) {
    std::mbstate_t mb{};
    std::size_t n = 0;
    for (std::size_t at = 0; at < text.size();) {
      wchar_t w;
      const std::size_t r = std::mbrtowc(&w, text.data() + at, text.size() - at, &mb);
      if (r == 0 || r > 4) break;
      at += r;
      ++n;
    }
    benchmark::DoNotOptimize(n);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(Mbrtowc)->Name("mbrtowc/utf8_10MB")->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
