// The quma tool, driven as a user would: arguments, standard input, output, status.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <iterator>
#include <string>

namespace {

namespace fs = std::filesystem;

struct TRun {
  int status = -1;
  std::string out, err;
};

fs::path Scratch() {
  static const fs::path dir = [] {
    auto d = fs::temp_directory_path() / ("quma-tool-test-" + std::to_string(::getpid()));
    fs::create_directories(d);
    return d;
  }();
  return dir;
}

std::string Slurp(const fs::path& p) {
  std::ifstream f(p, std::ios::binary);
  return {std::istreambuf_iterator<char>(f), {}};
}

void Spit(const fs::path& p, const std::string& data) { std::ofstream(p, std::ios::binary) << data; }

// Runs the tool with a shell-quoted argument string and the given standard input.
TRun Quma(const std::string& args, const std::string& input = {}) {
  const auto dir = Scratch();
  Spit(dir / "in", input);
  const std::string cmd = std::string("'") + QUMA_TOOL_PATH + "' " + args + " <'" + (dir / "in").string() + "' >'" +
                          (dir / "out").string() + "' 2>'" + (dir / "err").string() + "'";
  const int rc = std::system(cmd.c_str());
  return {WIFEXITED(rc) ? WEXITSTATUS(rc) : -1, Slurp(dir / "out"), Slurp(dir / "err")};
}

// Runs each case and compares status, output and error output exactly.
struct TCase {
  std::string args, input;
  int status;
  std::string out, err = {};
};

void ExpectRuns(std::initializer_list<TCase> cases) {
  for (const TCase& c : cases) {
    SCOPED_TRACE(c.args);
    const TRun r = Quma(c.args, c.input);
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.out, c.out);
    EXPECT_EQ(r.err, c.err);
  }
}

TEST(QumaTool, HelpVersionAndUsageErrors) {
  auto help = Quma("--help");
  EXPECT_EQ(help.status, 0);
  for (const char* sub : {"uuid", "crc32", "base32", "hex", "date", "tokenise", "folder", "parse"})
    EXPECT_NE(help.out.find(sub), std::string::npos) << sub;
  auto version = Quma("--version");
  EXPECT_EQ(version.status, 0);
  EXPECT_EQ(version.out.rfind("quma (QUMALib.Utils) ", 0), 0u) << version.out;

  for (const char* bad : {"", "frobnicate", "hex --group x", "uuid", "date http --to nowhere", "crc32 --nope"}) {
    auto r = Quma(bad);
    EXPECT_EQ(r.status, 2) << bad;
    EXPECT_TRUE(r.out.empty()) << bad;
    EXPECT_EQ(r.err.rfind("quma: ", 0), 0u) << bad << ": " << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  }
}

// The forms themselves are the UUID value's business; here: arguments, stdin lines, status.
TEST(QumaTool, UuidArgumentsAndStandardInput) {
  const std::string id = "6ba7b810-9dad-11d1-80b4-00c04fd430c8", hex = "6ba7b8109dad11d180b400c04fd430c8";
  ExpectRuns({
      {"uuid format ms " + id + " " + hex, "", 0,
       "{6BA7B810-9DAD-11D1-80B4-00C04FD430C8}\n{6BA7B810-9DAD-11D1-80B4-00C04FD430C8}\n"},
      {"uuid parse " + hex, "", 0, id + "\n"},
      // Lines of standard input when no argument is given.
      {"uuid format hex", id + "\n\n{6BA7B810-9DAD-11D1-80B4-00C04FD430C8}\n", 0, hex + "\n" + hex + "\n"},
      {"uuid parse 6ba7b810-9dad-11d1-80b4", "", 1, "", "quma: Unrecognised Format\n"},
  });
  auto made = Quma("uuid new -n 3");
  ASSERT_EQ(made.out.size(), 3 * 37u);
  EXPECT_NE(made.out.substr(0, 36), made.out.substr(37, 36));
}

// Large inputs go through in blocks: the CRC chains across them, the codecs' lines and groups too.
TEST(QumaTool, Crc32Base32AndHexStreamLargeInputs) {
  std::mt19937 random(2);
  std::string a(300001, '\0'), b = "123456789";
  for (auto& c : a) c = static_cast<char>(random());
  const std::string fileA = (Scratch() / "a.bin").string(), fileB = (Scratch() / "b.txt").string();
  Spit(fileA, a);
  Spit(fileB, b);
  char expected[128];
  const uLong crcA = crc32(0, reinterpret_cast<const Bytef*>(a.data()), static_cast<uInt>(a.size()));
  std::snprintf(expected, sizeof expected, "%08lx %zu %s\n", crcA, a.size(), fileA.c_str());
  ExpectRuns({
      {"crc32 " + fileA + " " + fileB, "", 0, expected + ("cbf43926 9 " + fileB + "\n")},
      {"crc32", b, 0, "cbf43926 9\n"},
      {"crc32 -", "", 0, "00000000 0 -\n"},
      // A missing file is reported and the others still get their line.
      {"crc32 /nonexistent/x " + fileB, "", 1, "cbf43926 9 " + fileB + "\n",
       "quma: /nonexistent/x: No such file or directory\nquma: some files could not be read\n"},
      {"base32", "foobar", 0, "MZXW6YTBOI======\n"},
      {"base32 -d", "MZ!W6YTB", 1, "", "quma: Invalid Base32 Input character: ! at offset 2 of buffer\n"},
      {"hex -g 1 -l 2", std::string("\x01\x02\x03\x04\x05", 5), 0, "01 02\n03 04\n05\n"},
      // Streamed: whole pairs go out before the odd digit is refused.
      {"hex -d", "ABC", 1, "\xAB", "quma: HexStringToBytes: String contains invalid characters\n"},
  });
  for (const std::string codec : {"base32", "base32 -w 0", "base32 -w 7", "hex", "hex -g 1 -l 16", "hex -g 2", "hex -l 3"}) {
    auto enc = Quma(codec, a);
    auto dec = Quma(codec.substr(0, codec.find(' ')) + " -d", enc.out);
    ASSERT_EQ(dec.status, 0) << dec.err;
    EXPECT_TRUE(dec.out == a) << codec;
  }
}

// Dates, tokenising and folder names: each option reaches the library call it stands for.
TEST(QumaTool, DateTokeniseAndFolderOptions) {
  ExpectRuns({
      {"date xml --at 784111777", "", 0, "1994-11-06T08:49:37Z\n"},
      {"date http 'Sun, 06 Nov 1994 08:49:37 GMT'", "", 0, "1994-11-06T08:49:37Z\n"},
      {"date http --unix 'Sun, 06 Nov 1994 08:49:37 GMT'", "", 0, "784111777\n"},
      {"date xml --to http 1994-11-06T08:49:37Z", "", 0, "Sun, 06 Nov 1994 08:49:37 GMT\n"},
      {"date http 'Sun, 06 Nov 1994'", "", 1, "", "quma: Unable to convert \"Sun, 06 Nov 1994\" to TDateTime\n"},
      {"tokenise", "a \"b c\"  d\n\nx\ty\n", 0, "a\tb c\td\n\nx\ty\n"},
      {"tokenise --keep-empty -s ,", "a,,b\n", 0, "a\t\tb\n"},
      {"tokenise -q '()' --keep-quotes", "(a b) c\n", 0, "(a b)\tc\n"},
      {"tokenise -n KEY --embedded-quotes", "name=x key=\"v w\"\nnothing here\n", 0, "v w\n\n"},
      {"tokenise -q '(' ", "", 1, "", "quma: --quotes: open and close characters must come in pairs\n"},
      {"folder expand /plain/path", "", 0, "/plain/path\n"},
  });
  EXPECT_EQ(Quma("date http").out.size(), 30u);  // now
  // --quote writes each line so that tokenising gives it back as one token.
  const std::string values = "plain\nwith space\nquote \" inside\n";
  auto quoted = Quma("tokenise --quote -e '\\'", values);
  EXPECT_EQ(Quma("tokenise -e '\\'", quoted.out).out, values);
  const std::string home = std::getenv("HOME") ? std::getenv("HOME") : "";  // without it nothing is encoded
  auto encoded = Quma("folder encode '" + home + "/some/file'");
  EXPECT_EQ(encoded.out.rfind("{:", 0), 0u) << encoded.out;
  EXPECT_EQ(Quma("folder expand", encoded.out).out, home + "/some/file\n");
}

TEST(QumaTool, ParsePrintsTheNodeTreeOrTheParsersError) {
  const std::string defs = "parse -D " + (Scratch() / "defs.ini").string();
  Spit(Scratch() / "defs.ini",
       "# elements with text, white space dropped\n[element]\nopen = <[a-z]+>\nclose = </[a-z]+>\n"
       "allowed = ^[^<]+\ntext = true\nnodes = true\n\n[space]\nopen = \\s+\ndrop = yes\n");
  ExpectRuns({
      {defs, "<a> hi <b>x</b>\n<c></c></a>\n", 0, "element <a> \"hi\"\n  element <b> \"x\"\n  element <c>\n"},
      {defs, "<a>x", 1, "", "quma: stdin: Unclosed nodes at end of stream\n"},
      {defs, "<a>x</a>\r", 1, "",
       "quma: stdin: the text ends in a lone carriage return, which leaves its last line unfinished\n"},
  });
  const std::pair<const char*, const char*> badDefinitions[] = {  // file text, error after the file name
      {"open = x\n", ":1: \"open\" before the first [section]"},
      {"[a]\nopen\n", ":2: expected \"key = value\""},
      {"[a]\ntext = maybe\n", ":2: text: expected true or false, not \"maybe\""},
      {"[a]\ncolour = red\n", ":2: unknown key \"colour\""},
      {"# nothing\n", ": no [section] defines a node"},
  };
  const std::string bad = (Scratch() / "defs-bad.ini").string();
  for (const auto& [text, error] : badDefinitions) {
    Spit(bad, text);
    ExpectRuns({{"parse -D " + bad, "x", 1, "", "quma: " + bad + error + "\n"}});
  }
}

}  // namespace
