// The text sub-commands: tokenise, folder and parse.
#include <algorithm>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <quma/FolderNameEncoding.h>
#include <quma/StreamParser.h>
#include <quma/StringTokeniser.h>
#include <quma/Strings.h>

#include "ToolSupport.h"

namespace quma::tool {

namespace {

// Lines of a text, without their line ends (a final line without one included).
std::vector<std::string_view> Lines(std::string_view all) {
  std::vector<std::string_view> lines;
  std::size_t start = 0;
  while (start < all.size()) {
    std::size_t end = all.find('\n', start);
    if (end == std::string_view::npos) end = all.size();
    std::string_view line = all.substr(start, end - start);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    lines.push_back(line);
    start = end + 1;
  }
  return lines;
}

// A token on a tab-separated output line: tab, line feed and backslash written as \t, \n, \\.
std::string Escaped(std::string_view token) {
  std::string out;
  for (char c : token) {
    switch (c) {
      case '\t': out += "\\t"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\\': out += "\\\\"; break;
      default: out += c;
    }
  }
  return out;
}

void AddTokenise(CLI::App& app, TCommands& commands) {
  struct TTokenise {
    std::optional<std::string> separators, quotes, escapes, name;
    bool keepEmpty = false, keepQuotes = false, embedded = false, quote = false;
    std::string file = "-";
  };
  auto opts = std::make_shared<TTokenise>();
  auto* sub = app.add_subcommand(
      "tokenise", "Split each line into tokens (printed tab-separated), look a name up, or quote values");
  sub->add_option("-s,--separators", opts->separators, "Separator characters (default: blank, tab, CR, LF, NUL)");
  sub->add_option("-q,--quotes", opts->quotes,
                  "Quote pairs: open and close characters alternating, e.g. '\"\"()' (default: \"\")");
  sub->add_option("-e,--escapes", opts->escapes, "Escape characters (default: none)");
  sub->add_flag("--keep-empty", opts->keepEmpty, "Keep empty tokens");
  sub->add_flag("--keep-quotes", opts->keepQuotes, "Keep the quotes around quoted tokens");
  sub->add_flag("--embedded-quotes", opts->embedded, "Allow quotes inside tokens");
  sub->add_option("-n,--name", opts->name, "Print the value of NAME=value tokens instead (one line per input line)");
  sub->add_flag("--quote", opts->quote, "Write each line as one token that tokenising gives back");
  sub->add_option("FILE", opts->file, "Input file; - or none for standard input");
  sub->alias("tokenize");
  commands.emplace_back(sub, [opts] {
    auto tokeniser = MakeObject<TQUMAStringTokeniser>();
    if (opts->separators) tokeniser->SetSeparators(Utf8ToUtf16(*opts->separators));
    if (opts->quotes) {
      const UnicodeString pairs = Utf8ToUtf16(*opts->quotes);
      if (pairs.size() % 2 != 0) throw TToolError("--quotes: open and close characters must come in pairs");
      UnicodeString open, close;
      for (std::size_t i = 0; i < pairs.size(); i += 2) open += pairs[i], close += pairs[i + 1];
      tokeniser->SetOpenQuotes(open);
      tokeniser->SetCloseQuotes(close);
    }
    if (opts->escapes) tokeniser->SetEscapes(Utf8ToUtf16(*opts->escapes));
    tokeniser->SetIgnoreEmptyTokens(!opts->keepEmpty);
    tokeniser->SetRemoveEnclosingQuotes(!opts->keepQuotes);
    tokeniser->SetAllowEmbeddedQuotes(opts->embedded);

    TInput in(opts->file);
    const std::string all = in.ReadAll();
    std::string out;
    for (std::string_view line : Lines(all)) {
      if (opts->quote) {
        out += tokeniser->EscapeAndQuote(line);
      } else if (opts->name) {
        std::string value;
        if (tokeniser->Tokenise(line) > 0 && tokeniser->ValueForName(std::string_view(*opts->name), value))
          out += Escaped(value);
      } else {
        tokeniser->Tokenise(line);
        bool first = true;
        for (const auto& token : tokeniser->Tokens()) {
          if (!first) out += '\t';
          first = false;
          out += Escaped(Utf16ToUtf8(token));
        }
      }
      out += '\n';
    }
    Out(out);
  });
}

void AddFolder(CLI::App& app, TCommands& commands) {
  auto* folder = app.add_subcommand("folder", "Turn paths into portable {:Token:} folder names and back");
  folder->require_subcommand(1);
  for (const bool encode : {true, false}) {
    auto paths = std::make_shared<std::vector<std::string>>();
    auto* sub = folder->add_subcommand(encode ? "encode" : "expand",
                                       encode ? "Replace known folders and segments of PATH by their tokens"
                                              : "Replace the tokens of PATH by this machine's folders");
    sub->add_option("PATH", *paths, "Paths (none: lines of standard input)");
    commands.emplace_back(sub, [paths, encode] {
      std::string all;
      std::vector<std::string_view> names(paths->begin(), paths->end());
      if (paths->empty()) {
        all = TInput("-").ReadAll();
        names = Lines(all);
      }
      std::string out;
      for (std::string_view name : names) {
        out += encode ? EncodeFolderName(name) : ExpandFolderName(name);
        out += '\n';
      }
      Out(out);
    });
  }
}

// The node tree of a parse, built from the definitions' open and close callbacks.
struct TTreeNode {
  std::string Kind, Open, Content, Close;
  std::vector<std::unique_ptr<TTreeNode>> Children;
};

class TTreeBuilder : public TObject {
  QUMA_CLASS(TTreeBuilder, TObject)
 public:
  std::vector<std::unique_ptr<TTreeNode>> Roots;
  std::vector<std::string> Dropped;  // definitions whose nodes are left out of the tree
  TProgress* Progress = nullptr;

  void NodeOpened(TObject*, TQUMAStreamedNode* Node) {
    auto item = std::make_unique<TTreeNode>();
    item->Kind = Utf16ToUtf8(Node->Definition()->Name());
    FOpen.push_back(std::move(item));
    if (Progress)
      if (TStream* stream = Node->Parser()->CurrentStream()) Progress->Update(static_cast<std::size_t>(stream->Position()));
  }

  void NodeClosed(TObject*, TQUMAStreamedNode* Node) {
    std::unique_ptr<TTreeNode> item = std::move(FOpen.back());
    FOpen.pop_back();
    item->Open = Utf16ToUtf8(Node->Open());
    item->Content = Utf16ToUtf8(Node->Content());
    item->Close = Utf16ToUtf8(Node->Close());
    Free(Node);
    for (const auto& kind : Dropped)
      if (item->Kind == kind) return;
    (FOpen.empty() ? Roots : FOpen.back()->Children).push_back(std::move(item));
  }

  // One line per node, indented two blanks per level: kind, the open text, and the content
  // without the white space around it, quoted (left out when there is none).
  static void Print(const TTreeNode& Node, std::string& Out, int Depth = 0) {
    Out.append(static_cast<std::size_t>(Depth) * 2, ' ');
    Out += Node.Kind + " " + Escaped(Node.Open);
    const auto first = Node.Content.find_first_not_of(" \t\r\n");
    if (first != std::string::npos)
      Out += " \"" + Escaped(Node.Content.substr(first, Node.Content.find_last_not_of(" \t\r\n") + 1 - first)) + "\"";
    Out += "\n";
    for (const auto& child : Node.Children) Print(*child, Out, Depth + 1);
  }

 private:
  std::vector<std::unique_ptr<TTreeNode>> FOpen;
};

bool ParseBool(const std::string& file, int line, const std::string& key, const std::string& value) {
  if (value == "true" || value == "yes" || value == "1") return true;
  if (value == "false" || value == "no" || value == "0") return false;
  throw TToolError(file + ":" + std::to_string(line) + ": " + key + ": expected true or false, not \"" + value + "\"");
}

std::string Trim(std::string_view s) {
  const auto first = s.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return std::string(s.substr(first, s.find_last_not_of(" \t") + 1 - first));
}

// Reads a definitions file into Parser, in the order of its sections:
//   # comment
//   [name]                 one section per node definition, tried in this order
//   open = REGEX           the node's opening text (required)
//   close = REGEX          its closing text (none: the node is the open match alone)
//   allowed = REGEX        what its content may hold;  valid = REGEX  what it must be when done
//   escapes = CHARS        escape characters inside the node
//   text = BOOL, nodes = BOOL, multiline = BOOL, root = BOOL (default true)
//   ignore-case = open close content valid   (any of them)
//   drop = BOOL            leave these nodes out of the printed tree (white space, say)
void LoadDefinitions(const std::string& file, TQUMAStreamParser* Parser, TTreeBuilder* Builder) {
  const std::string all = TInput(file).ReadAll();
  TQUMAStreamedNodeDefinition* current = nullptr;
  int number = 0;
  for (std::string_view raw : Lines(all)) {
    ++number;
    const std::string line = Trim(raw);
    if (line.empty() || line[0] == '#' || line[0] == ';') continue;
    auto where = [&] { return file + ":" + std::to_string(number) + ": "; };
    if (line.front() == '[') {
      if (line.back() != ']' || line.size() < 3) throw TToolError(where() + "a section is \"[name]\"");
      current = New<TQUMAStreamedNodeDefinition>();
      current->SetName(Utf8ToUtf16(line.substr(1, line.size() - 2)));
      current->SetCanBeRootNode(true);
      current->SetOnOpen(Bind<&TTreeBuilder::NodeOpened>(Builder));
      current->SetOnClose(Bind<&TTreeBuilder::NodeClosed>(Builder));
      Parser->AddNodeDefinition(current);
      continue;
    }
    const auto eq = line.find('=');
    if (eq == std::string::npos) throw TToolError(where() + "expected \"key = value\"");
    if (!current) throw TToolError(where() + "\"" + Trim(line.substr(0, eq)) + "\" before the first [section]");
    const std::string key = Trim(line.substr(0, eq)), value = Trim(line.substr(eq + 1));
    const UnicodeString text = Utf8ToUtf16(value);
    if (key == "open") current->SetOpenMatch(text);
    else if (key == "close") current->SetCloseMatch(text);
    else if (key == "allowed") current->SetAllowedContentMatch(text);
    else if (key == "valid") current->SetValidContentMatch(text);
    else if (key == "escapes") current->SetEscapes(text);
    else if (key == "text") current->SetAllowsContainedText(ParseBool(file, number, key, value));
    else if (key == "nodes") current->SetAllowsContainedNodes(ParseBool(file, number, key, value));
    else if (key == "multiline") current->SetAllowsMultiLineText(ParseBool(file, number, key, value));
    else if (key == "root") current->SetCanBeRootNode(ParseBool(file, number, key, value));
    else if (key == "drop") {
      if (ParseBool(file, number, key, value)) Builder->Dropped.push_back(Utf16ToUtf8(current->Name()));
    } else if (key == "ignore-case") {
      std::size_t start = 0;
      while (start < value.size()) {
        std::size_t end = value.find(' ', start);
        if (end == std::string::npos) end = value.size();
        const std::string what = value.substr(start, end - start);
        if (what == "open") current->SetCaseInsensitiveOpen(true);
        else if (what == "close") current->SetCaseInsensitiveClose(true);
        else if (what == "content") current->SetCaseInsensitiveContent(true);
        else if (what == "valid") current->SetCaseInsensitiveValid(true);
        else if (!what.empty()) throw TToolError(where() + "ignore-case: unknown part \"" + what + "\"");
        start = end + 1;
      }
    } else {
      throw TToolError(where() + "unknown key \"" + key + "\"");
    }
  }
  if (Parser->DefinitionCount() == 0) throw TToolError(file + ": no [section] defines a node");
}

void AddParse(CLI::App& app, TCommands& commands) {
  struct TParse {
    std::string definitions, file = "-";
  };
  auto opts = std::make_shared<TParse>();
  auto* sub = app.add_subcommand("parse", "Parse a text stream with node definitions and print the node tree");
  sub->add_option("-D,--definitions", opts->definitions, "The node definitions (an INI-style file; see docs/tools.md)")
      ->required();
  sub->add_option("STREAM", opts->file, "Text to parse (any registered encoding; - or none for standard input)");
  commands.emplace_back(sub, [opts] {
    auto builder = MakeObject<TTreeBuilder>();
    auto parser = MakeObject<TQUMAStreamParser>();
    LoadDefinitions(opts->definitions, parser.get(), builder.get());

    // The parser looks ahead and steps back, so standard input is read into memory first.
    std::unique_ptr<TStream, void (*)(TStream*)> stream(nullptr, [](TStream* s) { Free(s); });
    if (opts->file == "-") {
      auto* memory = New<TMemoryStream>();
      stream.reset(memory);
      TInput in("-");
      for (auto block = in.Next(); !block.empty(); block = in.Next()) memory->WriteBuffer(block.data(), static_cast<Int64>(block.size()));
      memory->SetPosition(0);
    } else {
      TInput check(opts->file);  // the tool's own error text for a missing or unreadable file
      stream.reset(New<TFileStream>(std::string_view(opts->file), fmOpenRead | fmShareDenyNone));
    }
    // The parser waits for the character after a carriage return, so a text that ends in a lone
    // one would never finish: refuse it instead.
    if (const Int64 size = stream->Size(); size > 0) {
      Byte tail[8] = {};
      const Int64 n = std::min<Int64>(size, 8);
      stream->SetPosition(size - n);
      stream->ReadBuffer(tail, n);
      stream->SetPosition(0);
      const std::string_view last(reinterpret_cast<const char*>(tail), static_cast<std::size_t>(n));
      const auto cr = last.rfind('\r');
      const std::string_view after = cr == std::string_view::npos ? std::string_view() : last.substr(cr + 1);
      // After the last carriage return: nothing, half a UTF-16 unit, or bytes that do not decode.
      if (cr != std::string_view::npos && (after.empty() || after == std::string_view("\0", 1) || !IsValidUtf8(after)))
        throw TToolError((opts->file == "-" ? std::string("stdin") : opts->file) +
                         ": the text ends in a lone carriage return, which leaves its last line unfinished");
    }
    TProgress progress(opts->file == "-" ? "stdin" : opts->file, static_cast<std::size_t>(stream->Size()), true);
    builder->Progress = &progress;
    if (!parser->ParseStream(stream.get()))
      throw TToolError((opts->file == "-" ? std::string("stdin") : opts->file) + ": " + Utf16ToUtf8(parser->ErrorMessage()));
    std::string out;
    for (const auto& root : builder->Roots) TTreeBuilder::Print(*root, out);
    Out(out);
  });
}

}  // namespace

void RegisterTextCommands(CLI::App& app, TCommands& commands) {
  AddTokenise(app, commands);
  AddFolder(app, commands);
  AddParse(app, commands);
}

}  // namespace quma::tool
