// Portable folder names: a path that starts with a known folder is stored with a "{:Token:}" in
// its place, and whole path segments (such as the program's own name) can be tokens too.
//
//   EncodeFolderName(u"/home/ann/Documents/Reports");   // u"{:Documents:}/Reports"
//   ExpandFolderName(u"{:Documents:}/Reports");         // the same folder on this machine
//
// The standard folders are registered when the library is loaded (see docs/text.md for the
// Linux folder behind each token); applications register their own and may unregister any.
// Both "/" and "\" are accepted as separators; results use "/" only. Registration is meant for
// start-up, but a reader-writer lock makes it safe at any time.
#pragma once

#include <quma/Export.h>

#include <optional>
#include <string>
#include <string_view>

#include <quma/System.h>

QUMA_PUBLIC_BEGIN
namespace quma {

// Stores folder under token (wrapped in "{:" and ":}" unless it already starts or ends with
// them); the last registration for a folder, or for a token, wins.
void RegisterFolderNameEncoding(UnicodeStringView szFolder, UnicodeStringView szToken);
// Stores a whole-segment token; szToken is taken as it is (no wrapping).
void RegisterFolderSegmentEncoding(UnicodeStringView szSegment, UnicodeStringView szToken);
// Removes each direction of a registration only when it still maps to the given counterpart
// exactly (case-sensitive); szToken must be the complete, wrapped token.
void UnregisterFolderNameEncoding(UnicodeStringView szFolder, UnicodeStringView szToken);
void UnregisterFolderSegmentEncoding(UnicodeStringView szSegment, UnicodeStringView szToken);

// The portable form: the longest registered folder that the path starts with (whole segments,
// case ignored) becomes its token, then every whole segment registered as a segment does.
UnicodeString EncodeFolderName(UnicodeStringView szName);
void EncodeFolderName(UnicodeStringView szName, UnicodeString& szResult);
std::string EncodeFolderName(std::string_view szName);  // UTF-8
// The real path: a leading folder token becomes its folder, then every segment token is
// replaced wherever it occurs (case ignored). Enclosing double quotes are kept.
UnicodeString ExpandFolderName(UnicodeStringView szName);
void ExpandFolderName(UnicodeStringView szName, UnicodeString& szResult);
std::string ExpandFolderName(std::string_view szName);  // UTF-8

// Where the standard folders are looked up. The default reads this process: its environment,
// the password database for a missing $HOME, and /proc/self/exe. Tests and special setups
// derive from it to register the folders of another home.
class TQUMAFolderEnvironment {
 public:
  virtual ~TQUMAFolderEnvironment() = default;
  // An environment variable, or nothing when it is not set.
  virtual std::optional<std::string> Variable(std::string_view Name) const;
  // $HOME when set and not empty, else the home folder of the process's user.
  virtual std::string HomeFolder() const;
  // The full path of the running executable.
  virtual std::string ExecutablePath() const;
};

// Registers the standard folders and the program's name as found through Env, in the fixed
// order (a later token for the same folder is the one encoding produces). Runs once with the
// default environment when the library is loaded.
void QUMARegisterStandardFolderNames(const TQUMAFolderEnvironment& Env);
// Forgets every folder and segment registration.
void QUMAClearFolderNameEncodings();

}  // namespace quma
QUMA_PUBLIC_END
