// The second module of the initialisation example: a shared library that the program loads with
// dlopen after start-up. Its unit joins the registry when the library is loaded and runs when the
// program initialises it late; unloading the library frees the unit, which undoes its phases.
#include <cstdio>

#include "InitDemoPhases.h"

using namespace quma;

namespace {

class TReportUnit : public TQUMAInitialisationUnit {
  QUMA_CLASS(TReportUnit, TQUMAInitialisationUnit)
 public:
  using TQUMAInitialisationUnit::TQUMAInitialisationUnit;
  void _DoRegistration(const TQUMA_Uuid& uuidPhase) override {
    std::printf("  [plugin] registers its report classes      (%s phase)\n", demo::PhaseName(uuidPhase));
  }
  void _DoInstantiation(const TQUMA_Uuid& uuidPhase) override {
    std::printf("  [plugin] creates its report generator      (%s phase)\n", demo::PhaseName(uuidPhase));
  }
  void _DoDestruction(const TQUMA_Uuid& uuidPhase) override {
    std::printf("  [plugin] frees its report generator        (%s phase)\n", demo::PhaseName(uuidPhase));
  }
  void _DoDeregistration(const TQUMA_Uuid& uuidPhase) override {
    std::printf("  [plugin] unregisters its report classes    (%s phase)\n", demo::PhaseName(uuidPhase));
  }
};

// Constructed by the library's start-up code, freed by its unload code.
TQUMAInitialisationUnit* gReportUnit = nullptr;
const TObjectPtr<TQUMAInitialisationUnit> gReportUnitOwner = [] {
  demo::RegisterPhases();
  return TObjectPtr<TQUMAInitialisationUnit>(New<TReportUnit>(nullptr, &gReportUnit));
}();

}  // namespace
