// The phases that the two modules of the initialisation example agree on. Each module registers
// them (registering a phase twice keeps one entry), so either may be loaded first.
#pragma once

#include <quma/Initialisation.h>

namespace demo {

// Classes of the core first, then those of extensions; objects in the same order.
inline quma::TQUMA_Uuid CorePhase() { return quma::TQUMA_Uuid::Create("9f0c8a52-4d1e-4b6f-8a51-0c2e7d3b1a01"); }
inline quma::TQUMA_Uuid ExtensionPhase() { return quma::TQUMA_Uuid::Create("9f0c8a52-4d1e-4b6f-8a51-0c2e7d3b1a02"); }

inline const char* PhaseName(const quma::TQUMA_Uuid& uuidPhase) {
  return uuidPhase == CorePhase() ? "core" : uuidPhase == ExtensionPhase() ? "extension" : "other";
}

inline void RegisterPhases() {
  const quma::TQUMA_Uuid phases[] = {CorePhase(), ExtensionPhase()};
  quma::QUMARegisterRegistrationPhases(phases);
  quma::QUMARegisterInstantiationPhases(phases);
}

}  // namespace demo
