// The value sub-commands: uuid, crc32, base32, hex and date.
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <quma/CRC32.h>
#include <quma/DateTime.h>
#include <quma/DateUtils.h>
#include <quma/HexStrings.h>
#include <quma/QUMANetEncoding.h>
#include <quma/Strings.h>
#include <quma/Uuid.h>

#include "ToolSupport.h"

namespace quma::tool {

namespace {

// Lines of standard input, without their line ends; blank lines are skipped.
std::vector<std::string> StdinLines() {
  TInput in("-");
  std::vector<std::string> lines;
  const std::string all = in.ReadAll();
  std::size_t start = 0;
  while (start < all.size()) {
    std::size_t end = all.find('\n', start);
    if (end == std::string::npos) end = all.size();
    std::string line = all.substr(start, end - start);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (!line.empty()) lines.push_back(std::move(line));
    start = end + 1;
  }
  return lines;
}

void AddUuid(CLI::App& app, TCommands& commands) {
  auto* uuid = app.add_subcommand("uuid", "Make, reformat and check UUIDs");
  uuid->require_subcommand(1);

  struct TNew {
    int count = 1;
    std::string form;
  };
  auto opts = std::make_shared<TNew>();
  auto* make = uuid->add_subcommand("new", "Print new random (version 4) UUIDs");
  make->add_option("-n,--count", opts->count, "How many to print")->check(CLI::Range(1, 1 << 24));
  make->add_option("-f,--format", opts->form, "Text form (standard, ms, hex, base64, jhashpath, binary)");
  commands.emplace_back(make, [opts] {
    std::string out;
    for (int i = 0; i < opts->count; ++i) {
      TQUMA_Uuid id;
      id.Randomise();
      out += id.FormatUtf8(opts->form);
      out += '\n';
    }
    Out(out);
  });

  struct TFormat {
    std::string form;
    std::vector<std::string> texts;
  };
  auto fmt = std::make_shared<TFormat>();
  auto* format = uuid->add_subcommand("format", "Rewrite UUIDs (arguments, or lines of stdin) in a text form");
  format->add_option("FORM", fmt->form, "Text form (standard, ms, hex, base64, jhashpath, binary)")->required();
  format->add_option("TEXT", fmt->texts, "UUIDs in any readable form");
  commands.emplace_back(format, [fmt] {
    const auto texts = fmt->texts.empty() ? StdinLines() : fmt->texts;
    std::string out;
    for (const auto& text : texts) {
      out += TQUMA_Uuid::Create(std::string_view(text)).FormatUtf8(fmt->form);
      out += '\n';
    }
    Out(out);
  });

  auto text = std::make_shared<std::string>();
  auto* parse = uuid->add_subcommand("parse", "Read a UUID in any form; print it in the standard form");
  parse->add_option("TEXT", *text, "The UUID")->required();
  commands.emplace_back(parse, [text] {
    const auto id = TQUMA_Uuid::Create(std::string_view(*text));
    Out(id.FormatUtf8() + "\n");
  });
}

void AddCrc32(CLI::App& app, TCommands& commands) {
  auto files = std::make_shared<std::vector<std::string>>();
  auto* crc = app.add_subcommand("crc32", "Print the CRC-32 (zlib's) and byte count of each file, like cksum");
  crc->add_option("FILE", *files, "Files to read; - or none for standard input");
  commands.emplace_back(crc, [files] {
    const bool named = !files->empty();
    const std::vector<std::string> names = named ? *files : std::vector<std::string>{"-"};
    bool failed = false;
    for (const auto& name : names) {
      try {
        TInput in(name, true);
        Cardinal crc = QUMACRC32Start;
        std::uint64_t length = 0;
        for (auto block = in.Next(); !block.empty(); block = in.Next()) {
          crc = ~CRC32(block.data(), static_cast<Cardinal>(block.size()), crc);
          length += block.size();
        }
        char line[64];
        std::snprintf(line, sizeof line, "%08" PRIx32 " %" PRIu64, static_cast<std::uint32_t>(~crc), length);
        Out(std::string(line) + (named ? " " + name : std::string()) + "\n");
      } catch (const TToolError& e) {
        // Like cksum: report the file and go on with the others; the status tells.
        std::fflush(stdout);
        std::fprintf(stderr, "quma: %s\n", e.what());
        failed = true;
      }
    }
    if (failed) throw TToolError("some files could not be read");
  });
}

void AddBase32(CLI::App& app, TCommands& commands) {
  struct TBase32 {
    bool decode = false;
    int wrap = 76;
    std::string file = "-";
  };
  auto opts = std::make_shared<TBase32>();
  auto* b32 = app.add_subcommand("base32", "Base32-encode (RFC 4648) standard input or a file, or decode it");
  b32->add_flag("-d,--decode", opts->decode, "Decode");
  b32->add_option("-w,--wrap", opts->wrap, "Wrap encoded lines after COLS characters (0: no wrapping)")
      ->check(CLI::NonNegativeNumber);
  b32->add_option("FILE", opts->file, "Input file; - or none for standard input");
  commands.emplace_back(b32, [opts] {
    auto* codec = TQUMANetEncoding::Base32Encoding();
    TInput in(opts->file);
    if (!opts->decode) {
      // Whole 5-byte groups encode without padding, so blocks can be encoded one at a time.
      std::string pending, text;
      int column = 0;
      auto emit = [&](std::string_view encoded) {
        for (char c : encoded) {
          text += c;
          if (opts->wrap > 0 && ++column == opts->wrap) {
            text += '\n';
            column = 0;
          }
        }
        Out(text);
        text.clear();
      };
      for (auto block = in.Next(); !block.empty(); block = in.Next()) {
        pending.append(reinterpret_cast<const char*>(block.data()), block.size());
        const std::size_t whole = pending.size() / 5 * 5;
        emit(codec->Encode(std::string_view(pending).substr(0, whole)));
        pending.erase(0, whole);
      }
      emit(codec->Encode(std::string_view(pending)));
      if (column > 0 || opts->wrap == 0) Out("\n");
      return;
    }
    // Decoding: line breaks and blanks between groups are dropped; whole 8-character groups decode
    // on their own, and the first "=" ends the data (what follows is ignored, as the codec does).
    std::string pending;
    bool ended = false;
    for (auto block = in.Next(); !block.empty() && !ended; block = in.Next()) {
      for (Byte b : block)
        if (b != '\n' && b != '\r' && b != ' ' && b != '\t') pending += static_cast<char>(b);
      ended = pending.find('=') != std::string::npos;
      const std::size_t whole = ended ? pending.size() : pending.size() / 8 * 8;
      Out(codec->Decode(std::string_view(pending).substr(0, whole)));
      pending.erase(0, whole);
    }
    Out(codec->Decode(std::string_view(pending)));
  });
}

void AddHex(CLI::App& app, TCommands& commands) {
  struct THex {
    bool decode = false;
    int group = 0;
    int perLine = 0;
    std::string file = "-";
  };
  auto opts = std::make_shared<THex>();
  auto* hex = app.add_subcommand("hex", "Write bytes as lower-case hexadecimal text, or read them back");
  hex->add_flag("-d,--decode", opts->decode, "Decode hexadecimal text (white space is ignored)");
  hex->add_option("-g,--group", opts->group, "Blanks between two bytes of a line")->check(CLI::Range(0, 64));
  hex->add_option("-l,--per-line", opts->perLine, "Bytes per line (0: one line)")->check(CLI::Range(0, 1 << 20));
  hex->add_option("FILE", opts->file, "Input file; - or none for standard input");
  commands.emplace_back(hex, [opts] {
    TInput in(opts->file);
    if (opts->decode) {
      // An odd digit at the end of a block waits for its partner in the next one.
      std::string carry;
      TBytes bytes;
      for (auto block = in.Next(); !block.empty(); block = in.Next()) {
        std::string text = carry;
        text.append(reinterpret_cast<const char*>(block.data()), block.size());
        std::size_t digits = 0, last = 0;
        for (std::size_t i = 0; i < text.size(); ++i)
          if (!std::isspace(static_cast<unsigned char>(text[i]))) ++digits, last = i;
        carry.clear();
        if (digits % 2 == 1) {
          carry = text.substr(last);
          text.resize(last);
        }
        HexStringToBytes(std::string_view(text), bytes);
        Out(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
      }
      if (!carry.empty()) HexStringToBytes(std::string_view(carry), bytes);  // raises: odd digit count
      return;
    }
    // Blocks are whole lines, so the layout carries on across them.
    const std::size_t chunk = opts->perLine > 0 ? std::size_t(opts->perLine) * (1 + (1 << 16) / opts->perLine) : 1 << 16;
    std::vector<Byte> pending;
    bool first = true;
    auto emit = [&](std::size_t n) {
      if (n == 0) return;
      if (!first) Out(opts->perLine > 0 ? std::string("\n") : std::string(std::size_t(opts->group), ' '));
      first = false;
      Out(BytesToHexStringUtf8(std::span<const Byte>(pending.data(), n), opts->group, opts->perLine, "\n"));
      pending.erase(pending.begin(), pending.begin() + static_cast<std::ptrdiff_t>(n));
    };
    for (auto block = in.Next(); !block.empty(); block = in.Next()) {
      pending.insert(pending.end(), block.begin(), block.end());
      while (pending.size() >= chunk) emit(chunk);
    }
    emit(pending.size());
    if (!first) Out("\n");
  });
}

enum class TDateForm { Http, Rfc822, Rfc5322, Xml };

std::string FormatDate(TDateForm form, bool local, TDateTime value) {
  switch (form) {
    case TDateForm::Http: return local ? LocalTimeToHTTPDateUtf8(value) : GMTimeToHTTPDateUtf8(value);
    case TDateForm::Rfc822: return local ? LocalTimeToRFC822DateUtf8(value) : GMTimeToRFC822DateUtf8(value);
    case TDateForm::Rfc5322: return local ? LocalTimeToRFC5322DateUtf8(value) : GMTimeToRFC5322DateUtf8(value);
    case TDateForm::Xml: break;
  }
  return local ? LocalTimeToXMLDateUtf8(value) : GMTimeToXMLDateUtf8(value);
}

TDateTime ParseDate(TDateForm form, bool local, std::string_view text) {
  const UnicodeString s = Utf8ToUtf16(text);
  switch (form) {
    case TDateForm::Http: return local ? HTTPDateToLocalTime(s) : HTTPDateToGMTime(s);
    case TDateForm::Rfc822: return local ? RFC822DateToLocalTime(s) : RFC822DateToGMTime(s);
    case TDateForm::Rfc5322: return local ? RFC5322DateToLocalTime(s) : RFC5322DateToGMTime(s);
    case TDateForm::Xml: break;
  }
  return local ? XMLDateToLocalTime(s) : XMLDateToGMTime(s);
}

void AddDate(CLI::App& app, TCommands& commands) {
  auto* date = app.add_subcommand(
      "date", "Print the time in an internet date form, or read a text in that form");
  date->require_subcommand(1);
  const std::pair<const char*, TDateForm> forms[] = {
      {"http", TDateForm::Http}, {"rfc822", TDateForm::Rfc822}, {"rfc5322", TDateForm::Rfc5322}, {"xml", TDateForm::Xml}};
  const std::map<std::string, TDateForm> targets = {{"http", TDateForm::Http},
                                                    {"rfc822", TDateForm::Rfc822},
                                                    {"rfc5322", TDateForm::Rfc5322},
                                                    {"xml", TDateForm::Xml}};
  for (const auto& [name, form] : forms) {
    struct TDate {
      bool local = false;
      std::optional<double> at;
      std::optional<std::string> text;
      std::string to = "xml";
      bool unix = false;
    };
    auto opts = std::make_shared<TDate>();
    auto* sub = date->add_subcommand(name, std::string("Format now, or --at a time, as ") + name +
                                               "; or read TEXT in that form and print it as --to");
    sub->add_flag("--local", opts->local, "Local time instead of GMT");
    sub->add_option("--at", opts->at, "Seconds since 1970-01-01 00:00:00 UTC to format instead of now");
    sub->add_option("--to", opts->to, "Form to print a read TEXT in (http, rfc822, rfc5322, xml)")
        ->check(CLI::IsMember({"http", "rfc822", "rfc5322", "xml"}));
    sub->add_flag("--unix", opts->unix, "Print a read TEXT as seconds since 1970-01-01 00:00:00 UTC");
    sub->add_option("TEXT", opts->text, "A date in this form to read");
    commands.emplace_back(sub, [opts, form, targets] {
      if (opts->text) {
        const TDateTime value = ParseDate(form, opts->local, *opts->text);
        if (opts->unix) {
          const TDateTime universal = opts->local ? LocalTimeToUniversal(value) : value;
          Out(std::to_string(DateTimeToSysTime(universal).time_since_epoch().count() / 1000) + "\n");
        } else {
          Out(FormatDate(targets.at(opts->to), opts->local, value) + "\n");
        }
        return;
      }
      TDateTime value = NowUTC();
      if (opts->at) {
        if (!std::isfinite(*opts->at)) throw TToolError("--at: not a number of seconds");
        value = 25569.0 + *opts->at / 86400.0;
      }
      if (opts->local) value = UniversalTimeToLocal(value);
      Out(FormatDate(form, opts->local, value) + "\n");
    });
  }
}

}  // namespace

void RegisterValueCommands(CLI::App& app, TCommands& commands) {
  AddUuid(app, commands);
  AddCrc32(app, commands);
  AddBase32(app, commands);
  AddHex(app, commands);
  AddDate(app, commands);
}

}  // namespace quma::tool
