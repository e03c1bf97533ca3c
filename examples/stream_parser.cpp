// Parses an XML-like file with the stream parser and prints its node tree.
//
//   quma_stream_parser [file]        (default: the catalogue in tests/data)
#include <cstdio>
#include <string>

#include <quma/StreamParser.h>

#include "XmlGrammar.h"

using namespace quma;

int main(int argc, char** argv) {
  const std::string path = argc > 1 ? argv[1] : QUMA_EXAMPLE_DATA_DIR "/catalog.xml";
  try {
    auto parser = MakeObject<TQUMAStreamParser>();
    auto tree = MakeObject<examples::TXmlTreeBuilder>();
    tree->AddDefinitions(parser.get());
    auto file = MakeObject<TFileStream>(std::string_view(path), fmOpenRead);
    if (!parser->ParseStream(file.get())) {
      std::fprintf(stderr, "%s: %s\n", path.c_str(), Utf16ToUtf8(parser->ErrorMessage()).c_str());
      return 1;
    }
    std::string out;
    for (const auto& root : tree->Roots) examples::TXmlTreeBuilder::Print(*root, out);
    std::fputs(out.c_str(), stdout);
    return 0;
  } catch (const Exception& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return 1;
  }
}
