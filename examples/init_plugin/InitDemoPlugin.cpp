// The second module of the initialisation example: a shared library that the program loads with
// dlopen after start-up. Its unit joins the registry when the library is loaded and runs when the
// program initialises it late; unloading the library frees the unit, which undoes its phases.
#include "InitDemoShared.h"

namespace {

// Constructed by the library's start-up code, freed by its unload code.
quma::TQUMAInitialisationUnit* gReportUnit = nullptr;
const quma::TObjectPtr<quma::TQUMAInitialisationUnit> gReportUnitOwner = [] {
  demo::RegisterPhases();
  return quma::TObjectPtr<quma::TQUMAInitialisationUnit>(
      quma::New<demo::TReportingUnit>("plugin", "the report classes", "the report generator", &gReportUnit));
}();

}  // namespace
