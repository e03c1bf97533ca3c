// The stream parser with a fixed XML-like definition set on any bytes (every encoding, with or
// without a byte-order mark): a tree or the documented error message, never a crash or a hang.
#include <quma/StreamParser.h>
#include <quma/Streams.h>

#include "FuzzSupport.h"

using namespace quma;

namespace {

class TSink : public TObject {
  QUMA_CLASS(TSink, TObject)
 public:
  void Closed(TObject*, TQUMAStreamedNode* Node) { Free(Node); }
};

TQUMAStreamedNodeDefinition* Define(TQUMAStreamParser* Parser, TSink* Sink, const char16_t* Name, const char16_t* Open,
                                    const char16_t* Close, const char16_t* Allowed, bool Nested) {
  auto* d = New<TQUMAStreamedNodeDefinition>();
  d->SetName(Name);
  d->SetOpenMatch(Open);
  d->SetCloseMatch(Close);
  d->SetAllowedContentMatch(Allowed);
  d->SetAllowsContainedText(Nested);
  d->SetAllowsContainedNodes(Nested);
  d->SetCanBeRootNode(true);
  d->SetEscapes(u"\\");
  d->SetOnClose(Bind<&TSink::Closed>(Sink));
  Parser->AddNodeDefinition(d);
  return d;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // A carriage return with nothing whole after it (the end, or a tail that does not decode) makes
  // the parser wait for the character that may still come, by design; the fuzzer would only
  // rediscover that. A carriage return that far from the end is followed by a whole character.
  for (std::size_t i = size > 8 ? size - 8 : 0; i < size; ++i)
    if (data[i] == '\r') return 0;
  static TSink* sink = New<TSink>();
  auto parser = MakeObject<TQUMAStreamParser>();
  Define(parser.get(), sink, u"element", u"<[a-z]+>", u"</[a-z]+>", u"^[^<]+", true);
  Define(parser.get(), sink, u"comment", u"<!--", u"-->", u"^(?:-?[^-])+", false);
  Define(parser.get(), sink, u"space", u"\\s+", u"", u"", false);
  auto stream = MakeObject<TMemoryStream>();
  stream->WriteBuffer(data, static_cast<Int64>(size));
  stream->SetPosition(0);
  if (!parser->ParseStream(stream.get())) QUMA_FUZZ_CHECK(!parser->ErrorMessage().empty());
  return 0;
}
