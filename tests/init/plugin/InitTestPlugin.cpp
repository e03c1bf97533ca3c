// A module loaded after start-up: its unit joins the process-wide registry when the module is
// loaded and is freed (undoing its own phases) when it is unloaded.
#include <quma/Initialisation.h>

using namespace quma;

namespace {

void (*gLog)(const char*) = nullptr;

class TPluginUnit : public TQUMAInitialisationUnit {
  QUMA_CLASS(TPluginUnit, TQUMAInitialisationUnit)
 public:
  using TQUMAInitialisationUnit::TQUMAInitialisationUnit;
  void _DoRegistration(const TQUMA_Uuid&) override { gLog("plugin:reg"); }
  void _DoInstantiation(const TQUMA_Uuid&) override { gLog("plugin:inst"); }
  void _DoDestruction(const TQUMA_Uuid&) override { gLog("plugin:destroy"); }
  void _DoDeregistration(const TQUMA_Uuid&) override { gLog("plugin:dereg"); }
};

TQUMAInitialisationUnit* gUnit = nullptr;
const TObjectPtr<TQUMAInitialisationUnit> gUnitOwner(New<TPluginUnit>(nullptr, &gUnit));

}  // namespace

extern "C" [[gnu::visibility("default")]] void quma_test_plugin_set_log(void (*fnLog)(const char*)) { gLog = fnLog; }
extern "C" [[gnu::visibility("default")]] TQUMAInitialisationUnit* quma_test_plugin_unit() { return gUnit; }
