// Tokenising lines of space-separated, partly quoted fields against Boost's tokenizer with
// escaped_list_separator (same lines, same tokens, every token's length read), and the string
// parser on 1 MB and 10 MB of structured text (its time should grow linearly).
#include <benchmark/benchmark.h>

#include <boost/tokenizer.hpp>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include <quma/StringParser.h>
#include <quma/StringTokeniser.h>
#include <quma/Strings.h>

namespace {

constexpr std::size_t kMegabyte = 1 << 20;

// About 1 MB of lines of space-separated fields. Of every eight fields, Quoted on average are
// two words in quotes and Escaped are quoted with escaped quotes inside; the rest are words.
struct TLineSet {
  std::vector<std::string> Lines8;
  std::vector<quma::UnicodeString> Lines16;
  std::size_t Bytes = 0;
};

TLineSet MakeLines(unsigned seed, const std::vector<std::string>& words, unsigned quoted, unsigned escaped) {
  TLineSet s;
  std::mt19937 rng(seed);
  auto word = [&]() -> const std::string& { return words[rng() % words.size()]; };
  while (s.Bytes < kMegabyte) {
    std::string line;
    const unsigned fields = 4 + rng() % 8;
    for (unsigned f = 0; f < fields; ++f) {
      if (f) line += ' ';
      const unsigned kind = rng() % 8;
      if (kind < quoted)
        line += '"' + word() + ' ' + word() + '"';  // alpha "beta eta"
      else if (kind < quoted + escaped)
        line += "\"x \\\"" + word() + "\\\" z\"";  // "x \"gamma\" z"
      else
        line += word();
    }
    s.Bytes += line.size() + 1;
    s.Lines16.push_back(quma::Utf8ToUtf16(line));
    s.Lines8.push_back(std::move(line));
  }
  return s;
}

// 0: dense (short words, half the fields quoted, a quarter of them with escapes);
// 1: log-like (log words, a quarter quoted, one in eight with escapes).
const TLineSet& Lines(int mix) {
  static const TLineSet sets[] = {
      MakeLines(11, {"alpha", "beta", "gamma", "delta", "epsilon", "zeta", "eta", "theta", "1234", "56.78"}, 2, 2),
      MakeLines(12,
                {"GET", "server-04", "2024-05-01T12:00:01Z", "/var/log/app.log", "200", "user@example.com",
                 "timeout", "0.125", "connection", "request_id=7f3a9c"},
                2, 1)};
  return sets[mix];
}

quma::TObjectPtr<quma::TQUMAStringTokeniser> MakeTokeniser() {
  auto t = quma::MakeObject<quma::TQUMAStringTokeniser>();
  t->SetEscapes(u"\\");
  return t;
}

// Both tokenisers must agree on every line before their speed means anything.
void CheckSameTokens(int mix) {
  auto t = MakeTokeniser();
  const boost::escaped_list_separator<char> sep('\\', ' ', '"');
  for (const auto& line : Lines(mix).Lines8) {
    t->Tokenise(line);
    boost::tokenizer<boost::escaped_list_separator<char>> tok(line, sep);
    quma::Integer i = 0;
    for (const std::string& field : tok)
      if (i >= t->TokenCount() || quma::Utf16ToUtf8(t->Token(i++)) != field) std::abort();
    if (i != t->TokenCount()) std::abort();
  }
}

template <class Line>
void RunQUMA(benchmark::State& state, const std::vector<Line>& lines) {
  CheckSameTokens(static_cast<int>(state.range(0)));
  auto t = MakeTokeniser();
  for (auto _ : state) {
    std::size_t chars = 0;
    for (const auto& line : lines) {
      const quma::Integer n = t->Tokenise(line);
      for (quma::Integer i = 0; i < n; ++i) chars += t->Token(i).size();
    }
    benchmark::DoNotOptimize(chars);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * Lines(static_cast<int>(state.range(0))).Bytes));
}

void BM_Tokenise_QUMA_UTF16(benchmark::State& state) { RunQUMA(state, Lines(static_cast<int>(state.range(0))).Lines16); }
BENCHMARK(BM_Tokenise_QUMA_UTF16)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// The UTF-8 entry converts each line first.
void BM_Tokenise_QUMA_UTF8(benchmark::State& state) { RunQUMA(state, Lines(static_cast<int>(state.range(0))).Lines8); }
BENCHMARK(BM_Tokenise_QUMA_UTF8)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void BM_Tokenise_BoostEscapedList(benchmark::State& state) {
  const TLineSet& set = Lines(static_cast<int>(state.range(0)));
  const boost::escaped_list_separator<char> sep('\\', ' ', '"');
  for (auto _ : state) {
    std::size_t chars = 0;
    for (const auto& line : set.Lines8) {
      boost::tokenizer<boost::escaped_list_separator<char>> tok(line, sep);
      for (const std::string& field : tok) chars += field.size();
    }
    benchmark::DoNotOptimize(chars);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * set.Bytes));
}
BENCHMARK(BM_Tokenise_BoostEscapedList)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// N MB of lines such as: call(arg1, "quoted, text", [x y]) = 42; \"escaped\"
quma::UnicodeString ParserText(std::size_t megabytes) {
  std::mt19937 rng(5);
  const char16_t* names[] = {u"alpha", u"beta", u"gamma", u"delta", u"x", u"value_2"};
  quma::UnicodeString text;
  text.reserve(megabytes * kMegabyte + 128);
  while (text.size() < megabytes * kMegabyte) {
    text += names[rng() % 6];
    text += u"(";
    text += names[rng() % 6];
    text += u", \"quoted, text\", [";
    text += names[rng() % 6];
    text += u" ";
    text += names[rng() % 6];
    text += u"]) = 42; \\\"esc\\\"\n";
  }
  return text;
}

void BM_StringParser(benchmark::State& state) {
  const quma::UnicodeString text = ParserText(static_cast<std::size_t>(state.range(0)));
  auto parser = quma::MakeObject<quma::TQUMAStringParser>();
  parser->SetSeparators(u",;=");
  parser->SetEscapes(u"\\");
  parser->AddQuotePair(u'"', u'"');
  parser->AddBracketPair(u'(', u')');
  parser->AddBracketPair(u'[', u']');
  for (auto _ : state) {
    quma::TQUMAParsedNodeList nodes;  // building and freeing the tree are both timed
    parser->Parse(text, &nodes);
    benchmark::DoNotOptimize(nodes.Count());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_StringParser)->Arg(1)->Arg(10)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
