// The stream parser with a fixed XML-like definition set on any bytes (every encoding, with or
// without a byte-order mark): a tree or the documented error message, never a crash or a hang.
// The library's own classes take runs of text and stretches of characters at once; a parser and
// a stream of derived classes take every character through its step. Both must give the same.
#include <quma/StreamParser.h>
#include <quma/Streams.h>

#include <string>

#include "FuzzSupport.h"

using namespace quma;

namespace {

class TSink : public TObject {
  QUMA_CLASS(TSink, TObject)
 public:
  std::u16string Log;
  void Closed(TObject* Sender, TQUMAStreamedNode* Node) {
    Log += static_cast<TQUMAStreamedNodeDefinition*>(Sender)->Name() + u":" + Node->Text() + u"|";
    Free(Node);
  }
};

class TStepParser : public TQUMAStreamParser {
  QUMA_CLASS(TStepParser, TQUMAStreamParser)
 public:
  using TQUMAStreamParser::TQUMAStreamParser;
};

class TStepStream : public TMemoryStream {
  QUMA_CLASS(TStepStream, TMemoryStream)
 public:
  using TMemoryStream::TMemoryStream;
};

void Define(TQUMAStreamParser* Parser, TSink* Sink, const char16_t* Name, const char16_t* Open, const char16_t* Close,
            const char16_t* Allowed, bool Text, bool Nodes) {
  auto* d = New<TQUMAStreamedNodeDefinition>();
  d->SetName(Name);
  d->SetOpenMatch(Open);
  d->SetCloseMatch(Close);
  d->SetAllowedContentMatch(Allowed);
  d->SetAllowsContainedText(Text);
  d->SetAllowsContainedNodes(Nodes);
  d->SetCanBeRootNode(true);
  d->SetEscapes(u"\\");
  d->SetOnClose(Bind<&TSink::Closed>(Sink));
  Parser->AddNodeDefinition(d);
}

std::u16string Parse(TQUMAStreamParser* Parser, TStream* Stream, const std::uint8_t* Data, std::size_t Size) {
  auto sink = MakeObject<TSink>();
  Define(Parser, sink.get(), u"element", u"<[a-z]+(?:\\s+[a-z]+=\"[^\"]*\")*>", u"</[a-z]+>", u"^[^<]+", true, true);
  Define(Parser, sink.get(), u"comment", u"<!--", u"-->", u"^(?:-?[^-])+", false, false);
  Define(Parser, sink.get(), u"strict", u"<Q>", u"</Q>", u"", false, true);
  Define(Parser, sink.get(), u"look", u"<x(?=y)", u"", u"", false, false);
  Define(Parser, sink.get(), u"percent", u"%+>[a-z]", u"", u"", false, false);
  Define(Parser, sink.get(), u"space", u"\\s+", u"", u"", false, false);
  Stream->WriteBuffer(Data, static_cast<Int64>(Size));
  Stream->SetPosition(0);
  const bool ok = Parser->ParseStream(Stream);
  if (!ok) QUMA_FUZZ_CHECK(!Parser->ErrorMessage().empty());
  return sink->Log + (ok ? u"ok" : u"failed: " + Parser->ErrorMessage());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // A carriage return with nothing whole after it (the end, or a tail that does not decode) makes
  // the parser wait for the character that may still come, by design; the fuzzer would only
  // rediscover that. A carriage return that far from the end is followed by a whole character.
  for (std::size_t i = size > 8 ? size - 8 : 0; i < size; ++i)
    if (data[i] == '\r') return 0;
  auto fast = MakeObject<TQUMAStreamParser>();
  auto steps = MakeObject<TStepParser>();
  auto fastStream = MakeObject<TMemoryStream>();
  auto stepStream = MakeObject<TStepStream>();
  QUMA_FUZZ_CHECK(Parse(fast.get(), fastStream.get(), data, size) == Parse(steps.get(), stepStream.get(), data, size));
  return 0;
}
