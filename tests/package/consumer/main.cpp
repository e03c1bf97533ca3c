// Built against the installed library: uses a header of each layer and checks a result.
#include <cstdio>

#include <quma/CoreUtils.h>
#include <quma/PropertySet.h>
#include <quma/Version.h>
#include <cstring>

int main() {
  auto set = quma::MakeObject<quma::TQUMAPropertySet>();
  set->BeginUpdate();
  const bool ok = set->UpdateCount() == 1 && quma::UpperCase(u"abc") == u"ABC" &&
                  quma::CountOfCharInString(u'a', u"banana") == 3 &&
                  std::strcmp(quma::LibraryVersion(), QUMA_VERSION_STRING) == 0;
  set->EndUpdate();
  std::printf("%s\n", ok ? "consumer ok" : "consumer FAILED");
  return ok ? 0 : 1;
}
