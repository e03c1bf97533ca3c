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

// About 1 MB of lines such as: alpha 1234 "two words" beta "x \"y\" z" gamma
const std::vector<std::string>& Lines8() {
  static const std::vector<std::string> lines = [] {
    std::mt19937 rng(11);
    const char* words[] = {"alpha", "beta", "gamma", "delta", "epsilon", "zeta", "eta", "theta", "1234", "56.78"};
    std::vector<std::string> out;
    std::size_t total = 0;
    while (total < kMegabyte) {
      std::string line;
      const int fields = 4 + static_cast<int>(rng() % 8);
      for (int f = 0; f < fields; ++f) {
        if (f) line += ' ';
        switch (rng() % 4) {
          case 0:  // quoted, with a separator inside
            line += '"' + std::string(words[rng() % 10]) + ' ' + words[rng() % 10] + '"';
            break;
          case 1:  // quoted, with escaped quotes
            line += "\"x \\\"" + std::string(words[rng() % 10]) + "\\\" z\"";
            break;
          default:
            line += words[rng() % 10];
        }
      }
      total += line.size() + 1;
      out.push_back(std::move(line));
    }
    return out;
  }();
  return lines;
}

const std::vector<quma::UnicodeString>& Lines16() {
  static const std::vector<quma::UnicodeString> lines = [] {
    std::vector<quma::UnicodeString> out;
    for (const auto& l : Lines8()) out.push_back(quma::Utf8ToUtf16(l));
    return out;
  }();
  return lines;
}

std::size_t BytesOf(const std::vector<std::string>& lines) {
  std::size_t n = 0;
  for (const auto& l : lines) n += l.size() + 1;
  return n;
}

quma::TObjectPtr<quma::TQUMAStringTokeniser> MakeTokeniser() {
  auto t = quma::MakeObject<quma::TQUMAStringTokeniser>();
  t->SetEscapes(u"\\");
  return t;
}

// Both tokenisers must agree on every line before their speed means anything.
void CheckSameTokens() {
  static const bool checked = [] {
    auto t = MakeTokeniser();
    const boost::escaped_list_separator<char> sep('\\', ' ', '"');
    for (const auto& line : Lines8()) {
      t->Tokenise(line);
      boost::tokenizer<boost::escaped_list_separator<char>> tok(line, sep);
      quma::Integer i = 0;
      for (const std::string& field : tok)
        if (i >= t->TokenCount() || quma::Utf16ToUtf8(t->Token(i++)) != field) std::abort();
      if (i != t->TokenCount()) std::abort();
    }
    return true;
  }();
  (void)checked;
}

void BM_Tokenise_QUMA_UTF16(benchmark::State& state) {
  CheckSameTokens();
  auto t = MakeTokeniser();
  for (auto _ : state) {
    std::size_t chars = 0;
    for (const auto& line : Lines16()) {
      const quma::Integer n = t->Tokenise(line);
      for (quma::Integer i = 0; i < n; ++i) chars += t->Token(i).size();
    }
    benchmark::DoNotOptimize(chars);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * BytesOf(Lines8())));
}
BENCHMARK(BM_Tokenise_QUMA_UTF16)->Unit(benchmark::kMillisecond);

// The UTF-8 entry converts each line first.
void BM_Tokenise_QUMA_UTF8(benchmark::State& state) {
  CheckSameTokens();
  auto t = MakeTokeniser();
  for (auto _ : state) {
    std::size_t chars = 0;
    for (const auto& line : Lines8()) {
      const quma::Integer n = t->Tokenise(line);
      for (quma::Integer i = 0; i < n; ++i) chars += t->Token(i).size();
    }
    benchmark::DoNotOptimize(chars);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * BytesOf(Lines8())));
}
BENCHMARK(BM_Tokenise_QUMA_UTF8)->Unit(benchmark::kMillisecond);

void BM_Tokenise_BoostEscapedList(benchmark::State& state) {
  CheckSameTokens();
  const boost::escaped_list_separator<char> sep('\\', ' ', '"');
  for (auto _ : state) {
    std::size_t chars = 0;
    for (const auto& line : Lines8()) {
      boost::tokenizer<boost::escaped_list_separator<char>> tok(line, sep);
      for (const std::string& field : tok) chars += field.size();
    }
    benchmark::DoNotOptimize(chars);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * BytesOf(Lines8())));
}
BENCHMARK(BM_Tokenise_BoostEscapedList)->Unit(benchmark::kMillisecond);

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
