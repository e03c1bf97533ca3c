// Folder name encoding: registration rules, encoding and expansion, and the standard folders
// read from a fake home with a fake user-dirs.dirs.
#include <gtest/gtest.h>

#include <pwd.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <thread>

#include <quma/FolderNameEncoding.h>
#include <quma/Strings.h>

using namespace quma;

namespace {

// An environment made of a table; remembers which variables were asked for.
class TFakeEnvironment : public TQUMAFolderEnvironment {
 public:
  std::map<std::string, std::string> Variables;
  std::string Executable;
  mutable std::set<std::string> Asked;

  std::optional<std::string> Variable(std::string_view Name) const override {
    Asked.emplace(Name);
    auto it = Variables.find(std::string(Name));
    return it == Variables.end() ? std::nullopt : std::optional<std::string>(it->second);
  }
  std::string ExecutablePath() const override { return Executable; }
};

class FolderNames : public ::testing::Test {
 protected:
  void SetUp() override { QUMAClearFolderNameEncodings(); }
  // Leaves the process with its own standard folders again.
  void TearDown() override {
    QUMAClearFolderNameEncodings();
    QUMARegisterStandardFolderNames(TQUMAFolderEnvironment());
  }
};

}  // namespace

TEST_F(FolderNames, EncodingExpansionAndRegistrationRules) {
  RegisterFolderNameEncoding(u"/data", u"Data");                // wrapped
  RegisterFolderNameEncoding(u"\\data\\Deep\\", u"{:Deep:}");   // already wrapped, separators normalised
  RegisterFolderSegmentEncoding(u"MyApp", u"{:AppName:}");
  const std::pair<const char16_t*, const char16_t*> cases[] = {  // path, encoded
      {u"/data", u"{:Data:}"},
      {u"/DATA/x", u"{:Data:}/x"},
      {u"/data/deep/y", u"{:Deep:}/y"},          // the longest folder wins
      {u"/database/x", u"/database/x"},          // a separator must follow the folder
      {u"\\data/x\\z", u"{:Data:}/x/z"},         // mixed separators come out as "/"
      {u"/opt/MYAPP/myapp.d/myapp", u"/opt/{:AppName:}/myapp.d/{:AppName:}"},  // whole segments
      {u"//a//", u"//a//"},                      // empty segments survive
      {u"\"/data\"", u"\"/data\""},              // quotes are not special when encoding
  };
  for (const auto& [path, encoded] : cases) EXPECT_EQ(EncodeFolderName(path), encoded) << Utf16ToUtf8(path);
  const std::pair<const char16_t*, const char16_t*> expansions[] = {  // encoded, expanded
      {u"{:data:}\\x", u"/data/x"},
      {u"{:Deep:}", u"/data/Deep"},
      {u"\"{:Data:}/a b\"", u"\"/data/a b\""},            // quotes kept
      {u"\"{:Data:}/a", u"\"{:Data:}/a"},                 // one quote: the whole name is not a token
      {u"{:Data:}x", u"{:Data:}x"},                       // a folder token is a whole segment
      {u"/x/{:appname:}.conf/{:AppName:}", u"/x/MyApp.conf/MyApp"},  // segment tokens anywhere
  };
  for (const auto& [encoded, expanded] : expansions) {
    UnicodeString out;
    ExpandFolderName(encoded, out);
    EXPECT_EQ(out, expanded) << Utf16ToUtf8(encoded);
  }
  EXPECT_EQ(ExpandFolderName(std::string_view("{:Data:}/\xC3\xA9")), "/data/\xC3\xA9");  // UTF-8

  // Later registrations win, and unregistering needs an exact match.
  RegisterFolderNameEncoding(u"/srv", u"One");
  RegisterFolderNameEncoding(u"/srv", u"Two");  // the folder now encodes as Two; both expand
  EXPECT_EQ(EncodeFolderName(u"/srv/a"), u"{:Two:}/a");
  EXPECT_EQ(ExpandFolderName(u"{:One:}/a"), u"/srv/a");

  UnregisterFolderNameEncoding(u"/srv", u"Two");  // not the stored, wrapped token: nothing
  EXPECT_EQ(EncodeFolderName(u"/srv"), u"{:Two:}");
  EXPECT_EQ(ExpandFolderName(u"{:Two:}"), u"/srv");
  // Each direction goes only where it still maps to the given counterpart exactly.
  UnregisterFolderNameEncoding(u"/srv", u"{:two:}");
  EXPECT_EQ(EncodeFolderName(u"/srv"), u"{:Two:}");
  EXPECT_EQ(ExpandFolderName(u"{:Two:}"), u"{:Two:}");
  UnregisterFolderNameEncoding(u"/SRV/", u"{:Two:}");
  EXPECT_EQ(EncodeFolderName(u"/srv"), u"/srv");
  EXPECT_EQ(ExpandFolderName(u"{:one:}"), u"/srv");

  RegisterFolderSegmentEncoding(u"tool", u"<T>");
  UnregisterFolderSegmentEncoding(u"tool", u"<t>");
  EXPECT_EQ(EncodeFolderName(u"/a/tool"), u"/a/<T>");
  UnregisterFolderSegmentEncoding(u"TOOL", u"<T>");
  EXPECT_EQ(EncodeFolderName(u"/a/tool"), u"/a/tool");
  EXPECT_EQ(ExpandFolderName(u"/a/<T>"), u"/a/<T>");
}

TEST_F(FolderNames, StandardFoldersComeFromTheXdgDirectoriesOrTheProcess) {
  const std::filesystem::path home =
      std::filesystem::temp_directory_path() / ("quma-folders-" + std::to_string(getpid()));
  std::filesystem::create_directories(home / "cfg");
  {
    std::ofstream dirs(home / "cfg" / "user-dirs.dirs");
    dirs << "# written by a test\n"
            "XDG_DESKTOP_DIR=\"${HOME}/Desk top\"\\\n"  // a backslash that ends the line: a separator
            "XDG_DOCUMENTS_DIR=$DOCROOT9/'Do cs'\n"  // unquoted, then single quotes that keep the space
            "  XDG_PICTURES_DIR=\"$HOME/Pic\\\"s\\$\"\n"
            "XDG_PUBLICSHARE_DIR=\"$HOME/\"\n"  // the home itself: switched off
            "XDG_MUSIC_DIR=relative/Music\n";
  }
  TFakeEnvironment env;
  env.Variables = {{"HOME", home.string()},
                   {"XDG_CONFIG_HOME", (home / "cfg").string()},
                   {"XDG_CACHE_HOME", "not/absolute"},
                   {"DOCROOT9", "/srv/docs"},
                   {"UNUSED", "/never"}};
  env.Executable = "/opt/tools/bin/Viewer.bin";
  QUMARegisterStandardFolderNames(env);
  std::filesystem::remove_all(home);

  const std::string h = home.string();
  const std::pair<std::string, const char*> cases[] = {  // path, encoded
      {h + "/Desk top/a", "{:Desktop:}/a"},
      {"/srv/docs/Do cs/b", "{:Documents:}/b"},
      {h + "/Pic\"s$", "{:Pictures:}"},  // in quotes a backslash escapes only $ ` " and itself
      {h + "/.cache/c", "{:Cache:}/c"},  // XDG_CACHE_HOME is not absolute: the default
      {h + "/.local/share/d", "{:Library:}/d"},
      {h + "/e", "{:Profile:}/e"},  // registered after {:Home:} for the same folder
      {"/tmp/f", "{:Temp:}/f"},
      {"/opt/tools/bin/viewer/g", "{:AppFolder:}/{:AppName:}/g"},
  };
  for (const auto& [path, encoded] : cases) EXPECT_EQ(EncodeFolderName(std::string_view(path)), encoded) << path;
  EXPECT_EQ(ExpandFolderName(std::string_view("{:Home:}/x")), h + "/x");
  EXPECT_EQ(ExpandFolderName(std::string_view("{:Public:}")), "{:Public:}");
  EXPECT_EQ(ExpandFolderName(std::string_view("{:Windows:}")), "{:Windows:}");
  // The base directories, the temporary folder and what the file refers to; nothing else.
  EXPECT_EQ(env.Asked, (std::set<std::string>{"HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME", "XDG_DATA_HOME",
                                              "TMPDIR", "DOCROOT9"}));

  // The process defaults use this executable; registered later, they win.
  QUMARegisterStandardFolderNames(TQUMAFolderEnvironment());
  const std::string exe = TQUMAFolderEnvironment().ExecutablePath();
  ASSERT_FALSE(exe.empty());
  EXPECT_EQ(EncodeFolderName(std::string_view(exe)), "{:AppFolder:}/{:AppName:}");
  EXPECT_EQ(ExpandFolderName(std::string_view("{:AppFolder:}/{:AppName:}")), exe);
  TFakeEnvironment emptyHome;  // an empty $HOME counts as unset: the password database decides
  emptyHome.Variables = {{"HOME", ""}};
  EXPECT_EQ(emptyHome.HomeFolder(), getpwuid(getuid())->pw_dir);
  TFakeEnvironment rootHome;  // a service account's home may be / itself
  rootHome.Variables = {{"HOME", "/"}};
  QUMARegisterStandardFolderNames(rootHome);
  EXPECT_EQ(EncodeFolderName(std::string_view("/.cache/x")), "{:Cache:}/x");
}

TEST_F(FolderNames, RegisteringWhileOtherThreadsEncodeIsSafe) {
  RegisterFolderNameEncoding(u"/data", u"Data");
  std::atomic<bool> stop{false};
  std::thread reader([&] {
    while (!stop) {
      EXPECT_EQ(EncodeFolderName(u"/data/a"), u"{:Data:}/a");
      EXPECT_EQ(ExpandFolderName(u"{:Data:}/a"), u"/data/a");
    }
  });
  for (int i = 0; i < 200; ++i) {
    RegisterFolderNameEncoding(u"/other" + IntToStr(i), u"Other");
    RegisterFolderSegmentEncoding(u"seg" + IntToStr(i), u"{:Seg:}");
  }
  stop = true;
  reader.join();
}
