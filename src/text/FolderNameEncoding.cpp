#include <quma/FolderNameEncoding.h>

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <utility>
#include <vector>

#include <quma/StringTokeniser.h>
#include <quma/Strings.h>

namespace quma {

namespace {

constexpr WideChar kSeparator = u'/';

// A string-to-string dictionary that enumerates in order of first registration; replacing a
// value keeps the key's place. Keys are few, so look-ups scan.
class TOrderedDictionary {
 public:
  using TEntry = std::pair<UnicodeString, UnicodeString>;

  bool Empty() const noexcept { return FEntries.empty(); }
  const std::vector<TEntry>& Entries() const noexcept { return FEntries; }

  void Set(UnicodeString Key, UnicodeString Value) {
    if (auto it = Find(Key); it != FEntries.end())
      it->second = std::move(Value);
    else
      FEntries.emplace_back(std::move(Key), std::move(Value));
  }
  // Removes Key only while it maps to Value exactly.
  bool RemoveIfValue(UnicodeStringView Key, UnicodeStringView Value) {
    auto it = Find(Key);
    if (it == FEntries.end() || it->second != Value) return false;
    FEntries.erase(it);
    return true;
  }
  void Clear() noexcept { FEntries.clear(); }

 private:
  std::vector<TEntry>::iterator Find(UnicodeStringView Key) {
    return std::find_if(FEntries.begin(), FEntries.end(), [Key](const TEntry& e) { return e.first == Key; });
  }
  std::vector<TEntry> FEntries;
};

struct TFolderTables {
  std::shared_mutex Lock;
  TOrderedDictionary FolderEncoding;   // lower-cased folder -> token
  TOrderedDictionary FolderExpansion;  // lower-cased token -> folder
  TOrderedDictionary SegmentEncoding;  // lower-cased segment -> token
  TOrderedDictionary SegmentExpansion; // lower-cased token -> segment
  // FolderEncoding's entries, longest key first (equal lengths in enumeration order).
  std::vector<const TOrderedDictionary::TEntry*> EncodingByLength;

  void FolderEncodingChanged() {
    EncodingByLength.clear();
    for (const auto& e : FolderEncoding.Entries()) EncodingByLength.push_back(&e);
    std::stable_sort(EncodingByLength.begin(), EncodingByLength.end(),
                     [](const auto* a, const auto* b) { return a->first.size() > b->first.size(); });
  }
};

TFolderTables& Tables() {
  static TFolderTables tables;
  return tables;
}

UnicodeString WithPlatformSeparators(UnicodeStringView s) {
  UnicodeString result(s);
  std::replace(result.begin(), result.end(), u'\\', kSeparator);
  return result;
}

UnicodeString NormalisedFolder(UnicodeStringView s) {
  UnicodeString result = WithPlatformSeparators(s);
  if (!result.empty() && result.back() == kSeparator) result.pop_back();
  return result;
}

// Whether Text starts with Key (ASCII case ignored) as whole segments: Key is all of Text or is
// followed by a separator.
bool StartsWithFolder(UnicodeStringView Text, UnicodeStringView Key) noexcept {
  if (Key.size() > Text.size() || !SameText(Text.substr(0, Key.size()), Key)) return false;
  return Key.size() == Text.size() || Text[Key.size()] == kSeparator;
}

// Every occurrence of Pattern (ASCII case ignored) replaced by Replacement, left to right, the
// replaced text not searched again.
UnicodeString ReplaceAllText(UnicodeStringView Text, UnicodeStringView Pattern, UnicodeStringView Replacement) {
  if (Pattern.empty() || Pattern.size() > Text.size()) return UnicodeString(Text);
  UnicodeString result;
  std::size_t start = 0;
  for (std::size_t i = 0; i + Pattern.size() <= Text.size();) {
    if (SameText(Text.substr(i, Pattern.size()), Pattern)) {
      result.append(Text.substr(start, i - start)).append(Replacement);
      i += Pattern.size();
      start = i;
    } else {
      ++i;
    }
  }
  result.append(Text.substr(start));
  return result;
}

}  // namespace

void RegisterFolderNameEncoding(UnicodeStringView szFolder, UnicodeStringView szToken) {
  UnicodeString token(szToken);
  if (!token.starts_with(u"{:")) token.insert(0, u"{:");
  if (!token.ends_with(u":}")) token += u":}";
  token = NormalisedFolder(token);
  UnicodeString folder = NormalisedFolder(szFolder);
  UnicodeString folderKey = LowerCase(folder);
  UnicodeString tokenKey = LowerCase(token);

  TFolderTables& t = Tables();
  const std::unique_lock lock(t.Lock);
  t.FolderEncoding.Set(std::move(folderKey), token);
  t.FolderExpansion.Set(std::move(tokenKey), std::move(folder));
  t.FolderEncodingChanged();
}

void RegisterFolderSegmentEncoding(UnicodeStringView szSegment, UnicodeStringView szToken) {
  TFolderTables& t = Tables();
  UnicodeString segmentKey = LowerCase(szSegment);
  UnicodeString tokenKey = LowerCase(szToken);
  const std::unique_lock lock(t.Lock);
  t.SegmentEncoding.Set(std::move(segmentKey), UnicodeString(szToken));
  t.SegmentExpansion.Set(std::move(tokenKey), UnicodeString(szSegment));
}

void UnregisterFolderNameEncoding(UnicodeStringView szFolder, UnicodeStringView szToken) {
  const UnicodeString folder = NormalisedFolder(szFolder);
  const UnicodeString token = NormalisedFolder(szToken);
  TFolderTables& t = Tables();
  const std::unique_lock lock(t.Lock);
  if (t.FolderEncoding.RemoveIfValue(LowerCase(folder), token)) t.FolderEncodingChanged();
  t.FolderExpansion.RemoveIfValue(LowerCase(token), folder);
}

void UnregisterFolderSegmentEncoding(UnicodeStringView szSegment, UnicodeStringView szToken) {
  TFolderTables& t = Tables();
  const std::unique_lock lock(t.Lock);
  t.SegmentEncoding.RemoveIfValue(LowerCase(szSegment), szToken);
  t.SegmentExpansion.RemoveIfValue(LowerCase(szToken), szSegment);
}

void QUMAClearFolderNameEncodings() {
  TFolderTables& t = Tables();
  const std::unique_lock lock(t.Lock);
  t.FolderEncoding.Clear();
  t.FolderExpansion.Clear();
  t.SegmentEncoding.Clear();
  t.SegmentExpansion.Clear();
  t.FolderEncodingChanged();
}

void EncodeFolderName(UnicodeStringView szName, UnicodeString& szResult) {
  UnicodeString result = WithPlatformSeparators(szName);
  TFolderTables& t = Tables();
  const std::shared_lock lock(t.Lock);

  for (const TOrderedDictionary::TEntry* e : t.EncodingByLength) {
    if (StartsWithFolder(result, e->first)) {
      result = e->second + result.substr(e->first.size());
      break;
    }
  }

  if (!t.SegmentEncoding.Empty()) {
    // Whole segments only; empty segments (a leading or doubled separator) survive the split.
    TObjectPtr<TQUMAStringTokeniser> splitter = MakeObject<TQUMAStringTokeniser>(true);
    splitter->SetSeparators(u"/\\");
    const Integer count = splitter->Tokenise(result);
    const auto& segments = t.SegmentEncoding.Entries();
    UnicodeString joined;
    joined.reserve(result.size());
    for (Integer i = 0; i < count; ++i) {
      if (i > 0) joined.push_back(kSeparator);
      const UnicodeString& segment = splitter->Token(i);
      const UnicodeString key = LowerCase(segment);
      auto it = std::find_if(segments.begin(), segments.end(), [&](const auto& s) { return s.first == key; });
      joined += it == segments.end() ? segment : it->second;
    }
    result = std::move(joined);
  }
  szResult = std::move(result);
}

void ExpandFolderName(UnicodeStringView szName, UnicodeString& szResult) {
  const bool quoted = szName.size() >= 2 && szName.front() == u'"' && szName.back() == u'"';
  if (quoted) szName = szName.substr(1, szName.size() - 2);
  UnicodeString result = WithPlatformSeparators(szName);
  TFolderTables& t = Tables();
  {
    const std::shared_lock lock(t.Lock);
    for (const auto& [key, folder] : t.FolderExpansion.Entries()) {
      if (StartsWithFolder(result, key)) {
        result = folder + result.substr(key.size());
        break;
      }
    }
    // Plain substring replacement, unlike the per-segment encoding.
    for (const auto& [key, segment] : t.SegmentExpansion.Entries()) result = ReplaceAllText(result, key, segment);
  }
  szResult = quoted ? u'"' + result + u'"' : std::move(result);
}

namespace {
using TFolderNameFunction = void (*)(UnicodeStringView, UnicodeString&);
UnicodeString Returned(TFolderNameFunction f, UnicodeStringView szName) {
  UnicodeString result;
  f(szName, result);
  return result;
}
std::string ReturnedUtf8(TFolderNameFunction f, std::string_view szName) {
  return Utf16ToUtf8(Returned(f, Utf8ToUtf16(szName)));
}
}  // namespace

UnicodeString EncodeFolderName(UnicodeStringView szName) { return Returned(EncodeFolderName, szName); }
std::string EncodeFolderName(std::string_view szName) { return ReturnedUtf8(EncodeFolderName, szName); }
UnicodeString ExpandFolderName(UnicodeStringView szName) { return Returned(ExpandFolderName, szName); }
std::string ExpandFolderName(std::string_view szName) { return ReturnedUtf8(ExpandFolderName, szName); }

// ---- the standard folders ----

std::optional<std::string> TQUMAFolderEnvironment::Variable(std::string_view Name) const {
  const char* value = std::getenv(std::string(Name).c_str());
  if (!value) return std::nullopt;
  return std::string(value);
}

std::string TQUMAFolderEnvironment::HomeFolder() const {
  if (auto home = Variable("HOME"); home && !home->empty()) return *home;
  long size = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
  passwd entry{};
  passwd* found = nullptr;
  if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found || !found->pw_dir) return {};
  return found->pw_dir;
}

std::string TQUMAFolderEnvironment::ExecutablePath() const {
  std::string path(256, '\0');
  for (;;) {
    const ssize_t n = readlink("/proc/self/exe", path.data(), path.size());
    if (n < 0) return {};
    if (static_cast<std::size_t>(n) < path.size()) {
      path.resize(static_cast<std::size_t>(n));
      return path;
    }
    path.resize(path.size() * 2);
  }
}

namespace {

bool IsAbsolute(const std::string& path) { return !path.empty() && path.front() == '/'; }

bool IsNameChar(char c, bool first) {
  return c == '_' || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (!first && c >= '0' && c <= '9');
}

// Reads the shell assignments of user-dirs.dirs (NAME="$HOME/Folder", NAME=/abs/path, '...'
// taken literally). $NAME and ${NAME} are expanded, so the variables the file names are the only
// ones read; HOME is the environment's home folder. Unset variables expand to nothing.
class TUserDirsReader {
 public:
  TUserDirsReader(const TQUMAFolderEnvironment& Env, const std::string& Home) : FEnv(Env), FHome(Home) {}

  std::map<std::string, std::string> Read(const std::string& FileName) {
    std::map<std::string, std::string> dirs;
    std::ifstream in(FileName);
    std::string line;
    while (std::getline(in, line)) {
      std::size_t i = line.find_first_not_of(" \t");
      if (i == std::string::npos || line[i] == '#') continue;
      const std::size_t nameStart = i;
      while (i < line.size() && IsNameChar(line[i], i == nameStart)) ++i;
      if (i == nameStart || i >= line.size() || line[i] != '=') continue;
      dirs[line.substr(nameStart, i - nameStart)] = Value(line, i + 1);
    }
    return dirs;
  }

 private:
  std::string Value(const std::string& line, std::size_t i) {
    std::string value;
    char quote = 0;  // the quote character of the stretch being read
    for (; i < line.size(); ++i) {
      const char c = line[i];
      if (quote == '\'') {
        if (c == '\'')
          quote = 0;
        else
          value += c;
      } else if (c == '"') {
        quote = quote ? 0 : '"';
      } else if (c == '\'' && !quote) {
        quote = '\'';
      } else if (c == '\\' && i + 1 < line.size()) {
        const char next = line[i + 1];
        // Inside double quotes a backslash only escapes $ ` " \ (and the newline).
        if (quote && next != '$' && next != '`' && next != '"' && next != '\\') value += c;
        value += next;
        ++i;
      } else if (c == '$') {
        i = Expand(line, i, value);
      } else if (!quote && (c == ' ' || c == '\t' || c == '#')) {
        break;  // end of an unquoted word
      } else {
        value += c;
      }
    }
    return value;
  }

  // Expands the variable at line[i] == '$' into value; returns the index of its last character.
  std::size_t Expand(const std::string& line, std::size_t i, std::string& value) {
    const bool braced = i + 1 < line.size() && line[i + 1] == '{';
    const std::size_t start = i + (braced ? 2 : 1);
    std::size_t end = start;
    while (end < line.size() && IsNameChar(line[end], end == start)) ++end;
    if (end == start || (braced && (end >= line.size() || line[end] != '}'))) {
      value += '$';  // not a variable reference: the dollar sign stands for itself
      return i;
    }
    const std::string name = line.substr(start, end - start);
    if (name == "HOME")
      value += FHome;
    else if (auto v = FEnv.Variable(name))
      value += *v;
    return braced ? end : end - 1;
  }

  const TQUMAFolderEnvironment& FEnv;
  const std::string& FHome;
};

std::string WithoutTrailingSlash(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

// An XDG base directory: the variable when it holds an absolute path, else HOME/Fallback.
std::string BaseDirectory(const TQUMAFolderEnvironment& Env, const std::string& Home, std::string_view Variable,
                          std::string_view Fallback) {
  if (auto v = Env.Variable(Variable); v && IsAbsolute(*v)) return *v;
  if (!IsAbsolute(Home)) return std::string();
  const std::string home = WithoutTrailingSlash(Home);
  return (home == "/" ? home : home + "/") + std::string(Fallback);  // a home of / gives /.cache, not //.cache
}

void RegisterFolder(const std::string& Folder, UnicodeStringView Token) {
  // The root would become an empty key that every absolute path starts with.
  if (WithoutTrailingSlash(Folder).size() > 1) RegisterFolderNameEncoding(Utf8ToUtf16(Folder), Token);
}

}  // namespace

void QUMARegisterStandardFolderNames(const TQUMAFolderEnvironment& Env) {
  const std::string home = Env.HomeFolder();
  std::map<std::string, std::string> userDirs;
  if (IsAbsolute(home)) {
    const std::string config = BaseDirectory(Env, home, "XDG_CONFIG_HOME", ".config");
    userDirs = TUserDirsReader(Env, home).Read(config + "/user-dirs.dirs");
  }
  // A user directory set to the home folder itself is switched off.
  auto userDir = [&](const std::string& name) {
    auto it = userDirs.find(name);
    if (it == userDirs.end() || !IsAbsolute(it->second)) return std::string();
    std::string dir = WithoutTrailingSlash(it->second);
    return dir == WithoutTrailingSlash(home) ? std::string() : dir;
  };
  std::string temp = Env.Variable("TMPDIR").value_or("");
  if (!IsAbsolute(temp)) temp = "/tmp";
  const std::string exe = Env.ExecutablePath();
  const std::size_t slash = exe.rfind('/');
  const std::string exeFolder = slash == std::string::npos ? std::string() : exe.substr(0, slash);
  std::string appName = slash == std::string::npos ? exe : exe.substr(slash + 1);
  if (const std::size_t dot = appName.rfind('.'); dot != std::string::npos) appName.resize(dot);

  // The registration order decides which token encoding produces for a folder named twice.
  RegisterFolder(userDir("XDG_PUBLICSHARE_DIR"), u"{:Public:}");
  RegisterFolder(BaseDirectory(Env, home, "XDG_CACHE_HOME", ".cache"), u"{:Cache:}");
  RegisterFolder(userDir("XDG_DOCUMENTS_DIR"), u"{:Documents:}");
  RegisterFolder(temp, u"{:Temp:}");
  RegisterFolder(BaseDirectory(Env, home, "XDG_DATA_HOME", ".local/share"), u"{:Library:}");
  RegisterFolder(home, u"{:Home:}");
  RegisterFolder(userDir("XDG_PICTURES_DIR"), u"{:Pictures:}");
  if (!appName.empty()) RegisterFolderSegmentEncoding(Utf8ToUtf16(appName), u"{:AppName:}");
  RegisterFolder(exeFolder, u"{:AppFolder:}");
  RegisterFolder(userDir("XDG_DESKTOP_DIR"), u"{:Desktop:}");
  RegisterFolder(home, u"{:Profile:}");
}

namespace {
// The standard folders of this process, registered when the library is loaded. A failure here
// (only memory exhaustion can fail) leaves the folders unregistered rather than ending the
// program before main.
[[maybe_unused]] const bool kStandardFoldersRegistered = [] {
  try {
    QUMARegisterStandardFolderNames(TQUMAFolderEnvironment());
    return true;
  } catch (...) {
    return false;
  }
}();
}  // namespace

}  // namespace quma
