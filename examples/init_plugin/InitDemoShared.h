// What the two modules of the initialisation example share: the phases they agree on, and a unit
// that reports its hooks. Each module registers the phases (registering a phase twice keeps one
// entry), so either may be loaded first.
#pragma once

#include <cstdio>

#include <quma/Initialisation.h>

namespace demo {

// Classes of the core first, then those of extensions; objects in the same order.
inline quma::TQUMA_Uuid CorePhase() { return quma::TQUMA_Uuid::Create("9f0c8a52-4d1e-4b6f-8a51-0c2e7d3b1a01"); }
inline quma::TQUMA_Uuid ExtensionPhase() { return quma::TQUMA_Uuid::Create("9f0c8a52-4d1e-4b6f-8a51-0c2e7d3b1a02"); }

inline void RegisterPhases() {
  const quma::TQUMA_Uuid phases[] = {CorePhase(), ExtensionPhase()};
  quma::QUMARegisterRegistrationPhases(phases);
  quma::QUMARegisterInstantiationPhases(phases);
}

// A module's unit: says what it registers and creates in each phase.
class TReportingUnit : public quma::TQUMAInitialisationUnit {
  QUMA_CLASS(TReportingUnit, quma::TQUMAInitialisationUnit)
 public:
  TReportingUnit(const char* szModule, const char* szClasses, const char* szObjects,
                 quma::PQUMAInitialisationUnit pVariable)
      : quma::TQUMAInitialisationUnit(nullptr, pVariable),
        FModule(szModule),
        FClasses(szClasses),
        FObjects(szObjects) {}
  void _DoRegistration(const quma::TQUMA_Uuid& uuidPhase) override { Say("registers", FClasses, uuidPhase); }
  void _DoInstantiation(const quma::TQUMA_Uuid& uuidPhase) override { Say("creates", FObjects, uuidPhase); }
  void _DoDestruction(const quma::TQUMA_Uuid& uuidPhase) override { Say("frees", FObjects, uuidPhase); }
  void _DoDeregistration(const quma::TQUMA_Uuid& uuidPhase) override { Say("unregisters", FClasses, uuidPhase); }

 private:
  void Say(const char* szVerb, const char* szWhat, const quma::TQUMA_Uuid& uuidPhase) const {
    const char* phase = uuidPhase == CorePhase() ? "core" : uuidPhase == ExtensionPhase() ? "extension" : "other";
    std::printf("  [%s] %s %s (%s phase)\n", FModule, szVerb, szWhat, phase);
  }
  const char* FModule;
  const char* FClasses;
  const char* FObjects;
};

}  // namespace demo
