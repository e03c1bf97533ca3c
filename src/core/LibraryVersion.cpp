#include <quma/Version.h>

namespace quma {

const char* LibraryVersion() noexcept { return QUMA_VERSION_STRING; }

}  // namespace quma
