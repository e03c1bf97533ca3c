// Units of two modules initialised in shared phases: the program's own unit runs at start-up
// through the start-up hook chain; a shared library loaded later brings a unit of its own, which
// the program notices and initialises late.
#include <dlfcn.h>

#include <cstdio>

#include <quma/Initialisation.h>

#include "init_plugin/InitDemoShared.h"

using namespace quma;

namespace {

// The program's unit, made by its own start-up code (before main) and freed after main returns.
TQUMAInitialisationUnit* gCoreUnit = nullptr;
const TObjectPtr<TQUMAInitialisationUnit> gCoreUnitOwner = [] {
  demo::RegisterPhases();
  return TObjectPtr<TQUMAInitialisationUnit>(
      New<demo::TReportingUnit>("main", "the document classes", "the document store", &gCoreUnit));
}();

void Status(const char* szWhen) {
  auto* registry = TQUMAInitialisationUnitRegistry::GetRegistry();
  std::printf("%-34s initialisation needed: %-3s  dynamic load detected: %s\n", szWhen,
              registry->InitialisationNeeded() ? "yes" : "no", registry->DynamicLoadDetected() ? "yes" : "no");
}

}  // namespace

int main() {
  std::printf("start-up: running the start-up hook chain\n");
  RunInitProc();
  Status("after start-up:");

#ifdef QUMA_INIT_DEMO_PLUGIN
  void* plugin = dlopen(QUMA_INIT_DEMO_PLUGIN, RTLD_NOW | RTLD_LOCAL);
  if (!plugin) {
    std::fprintf(stderr, "cannot load the plugin: %s\n", dlerror());
    return 1;
  }
  Status("after loading the plugin:");
  auto* registry = TQUMAInitialisationUnitRegistry::GetRegistry();
  if (registry->InitialisationNeeded()) {
    std::printf("late initialisation of the plugin's unit\n");
    registry->RunInitialisations();
  }
  Status("after the late initialisation:");
  std::printf("unloading the plugin\n");
  dlclose(plugin);
#endif
  std::printf("shut-down\n");
  return 0;
}
