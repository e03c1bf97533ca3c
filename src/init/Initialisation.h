// Unit initialisation in ordered phases, across every module of the process.
//
// Modules (the main program and the shared libraries it loads) each construct one
// TQUMAInitialisationUnit and override its hooks. Phases are TQUMA_Uuid values that the modules
// agree on and register; at application start the registry runs every pending unit through every
// registration phase and then every instantiation phase, and undoes them in exact reverse.
//
//   class TAudioUnit : public TQUMAInitialisationUnit {
//     QUMA_CLASS(TAudioUnit, TQUMAInitialisationUnit)
//    public:
//     using TQUMAInitialisationUnit::TQUMAInitialisationUnit;
//     void _DoRegistration(const TQUMA_Uuid& uuidPhase) override { ... }
//   };
//   TQUMAInitialisationUnit* gAudioUnit = nullptr;
//   New<TAudioUnit>(nullptr, &gAudioUnit);   // registers itself; gAudioUnit now holds it
//   ...
//   int main() { RunInitProc(); ... }        // runs the start-up chain, and so the registry
//
// A library loaded later (dlopen) constructs its unit in its own start-up code; the application
// sees InitialisationNeeded() or DynamicLoadDetected() turn true and calls RunInitialisations().
//
// Threads: the registry's unit and module lists and the run operations are serialised by the
// registry's monitor, phase registration by each phase list's monitor. RunInitialisations leaves
// the registry's monitor held by the calling thread (twice per run), so after a run only that
// thread may use the locked registry operations. See docs/init.md for the Linux counterparts of
// the module list, the start-up hook and the library entry.
#pragma once

#include <quma/Export.h>

#include <span>
#include <vector>

#include <quma/Generics.h>
#include <quma/ReferencedPersistent.h>
#include <quma/System.h>
#include <quma/Uuid.h>

QUMA_PUBLIC_BEGIN
namespace quma {

class TQUMAInitialisationUnit;
class TQUMAInitialisationUnitRegistry;
class TQUMAInitialisationUnits;

// The client's variable that holds its unit.
using PQUMAInitialisationUnit = TQUMAInitialisationUnit**;
using TQUMAInitialisationUnitClass = TClassOf<TQUMAInitialisationUnit>;
using TQUMAInitialisationUnitRegistryClass = TClassOf<TQUMAInitialisationUnitRegistry>;
// An ordered list of phases, compared by value (the element-wise UUID operators are no order).
class TQUMAPhaseList : public TList<TQUMA_Uuid> {
  QUMA_CLASS(TQUMAPhaseList, TList<TQUMA_Uuid>)
 public:
  TQUMAPhaseList();
};
// A module's instance handle: its base address (see GetModuleCount).
using TQUMAModuleHandle = NativeUInt;

// ---- the start-up hook ----
// The process-wide start-up hook chain. A module that wants to run at application start saves
// the current hook with SetInitProc and calls the saved one first from its own hook; the
// application runs the whole chain with one RunInitProc() at the start of main. This library puts
// QUMAInitialiseRegisteredUnits in front of the chain when it is loaded.
using TProcedure = void (*)();
TProcedure GetInitProc() noexcept;
// Installs fnHook and returns the hook it replaces.
TProcedure SetInitProc(TProcedure fnHook) noexcept;
// Runs the current hook, if any.
void RunInitProc();

// ---- the registry ----

class TQUMAInitialisationUnitRegistry : public TQUMAReferencedPersistent {
  QUMA_CLASS(TQUMAInitialisationUnitRegistry, TQUMAReferencedPersistent)
 public:
  explicit TQUMAInitialisationUnitRegistry(TPersistent* AOwner = nullptr);
  void AfterConstruction() override;
  // Frees the units that never ran, then undoes every phase of the units that did (newest phase
  // and newest unit first); the initialised units themselves stay alive.
  void BeforeDestruction() override;
  ~TQUMAInitialisationUnitRegistry() override;

  // ---- properties ----
  TQUMAPhaseList* ClassPhases() { return _GetClassPhases(); }
  TQUMAPhaseList* InstantitionPhases() { return _GetInstantiationPhases(); }
  // The number of loaded modules differs from the one counted at the last run.
  bool DynamicLoadDetected() { return _GetDynamicLoadDetected(); }
  // A unit is pending, or more modules are loaded than the last run saw.
  bool InitialisationNeeded() { return _GetInitialisationNeeded(); }

  // ---- virtual operations, in slot order ----
  virtual TQUMAPhaseList* _GetClassPhases();
  virtual bool _GetDynamicLoadDetected();
  virtual bool _GetInitialisationNeeded();
  virtual TQUMAPhaseList* _GetInstantiationPhases();
  // Inserts uuid before uuidBeforePhase; with uuidBeforePhase absent, appends both (new first).
  // An existing uuid is not looked for, so it may end up twice.
  virtual void InsertInstantiationPhase(const TQUMA_Uuid& uuid, const TQUMA_Uuid& uuidBeforePhase);
  virtual void InsertRegistrationPhase(const TQUMA_Uuid& uuid, const TQUMA_Uuid& uuidBeforePhase);
  // Appends each phase that is not there yet.
  virtual void RegisterInstantiationPhase(const TQUMA_Uuid& uuid);
  virtual void RegisterInstantiationPhases(std::span<const TQUMA_Uuid> aUuids);
  virtual void RegisterRegistrationPhase(const TQUMA_Uuid& uuid);
  virtual void RegisterRegistrationPhases(std::span<const TQUMA_Uuid> aUuids);
  // Queues a unit for the next run, unless it is queued or initialised already.
  virtual void RegisterInitialisationUnit(TQUMAInitialisationUnit* pUnit);
  virtual void RemoveInitialisationUnit(TQUMAInitialisationUnit* pUnit);
  // Runs the pending units and records the loaded modules. Leaves the registry's monitor held.
  // More instantiation than registration phases raise EArgumentOutOfRangeException.
  virtual void RunInitialisations();
  virtual void RunInitialisationsForList(TQUMAInitialisationUnits* pList);
  virtual void RunUninitialisations();
  virtual void RunUninitialisationsForList(TQUMAInitialisationUnits* pList);
  // Remove the first equal entry of each phase; absent phases are ignored.
  virtual void UnregisterInstantiationPhase(const TQUMA_Uuid& uuid);
  virtual void UnregisterInstantiationPhases(std::span<const TQUMA_Uuid> aUuids);
  virtual void UnregisterRegistrationPhase(const TQUMA_Uuid& uuid);
  virtual void UnregisterRegistrationPhases(std::span<const TQUMA_Uuid> aUuids);
  void NotificationRef(TQUMAReferencedPersistent* Other, TOperation op) override;

  // ---- class functions ----
  // The process-wide registry, created on first use.
  static TQUMAInitialisationUnitRegistry* GetRegistry();
  // The process-wide registry, or null.
  static TQUMAInitialisationUnitRegistry* PeekRegistry() noexcept;
  static void FreeRegistry();
  // A registry exists and has run at least once.
  static bool GetApplicationInitialised();
  // The class destructor: frees the registry, once (the library's unload runs it).
  static void ClassDestroy();

 protected:
  TQUMAPhaseList* _pRegPhases = nullptr;
  TQUMAPhaseList* _pInstPhases = nullptr;
  TList<TQUMAModuleHandle>* _pInitedModules = nullptr;
  Integer _nModuleCount = 0;
  TQUMAInitialisationUnits* _pUnits = nullptr;
  TQUMAInitialisationUnits* _pUninitialisedUnits = nullptr;

  // The singleton, as a silent reference (so freeing it by any path clears the field).
  static TQUMAReferencedPersistent* _pRegistry;
  static bool _ClassInitFlag;

 private:
  friend class TQUMAInitialisationUnit;
  // The units of pList, as pointers that null themselves if a hook frees one.
  std::vector<TQUMAGuardedPtr<TQUMAInitialisationUnit>> Snapshot(const TQUMAInitialisationUnits* pList) const;
  void UndoPhases(const std::vector<TQUMAGuardedPtr<TQUMAInitialisationUnit>>& units);
};

// ---- the unit ----

class TQUMAInitialisationUnit : public TQUMAReferencedPersistent {
  QUMA_CLASS(TQUMAInitialisationUnit, TQUMAReferencedPersistent)
 public:
  // APointer (optional) is the client's variable: it holds the unit from now until the unit is
  // freed. Without ARegistry the unit joins the process-wide registry.
  explicit TQUMAInitialisationUnit(TPersistent* AOwner = nullptr, PQUMAInitialisationUnit APointer = nullptr,
                                   TQUMAInitialisationUnitRegistry* ARegistry = nullptr);
  // Creates the phase lists and registers the unit, so constructing it is all a module does.
  void AfterConstruction() override;
  // Undoes the unit's own phases, newest first (instantiation, then registration), and clears
  // the client's variable, while the unit is still whole.
  void BeforeDestruction() override;
  ~TQUMAInitialisationUnit() override;

  TQUMAInitialisationUnitRegistry* Registry() const noexcept { return _pRegistry.Get(); }

  // ---- virtual operations, in slot order ----
  // The four hooks (do nothing here).
  virtual void _DoDeregistration(const TQUMA_Uuid& uuidPhase);
  virtual void _DoDestruction(const TQUMA_Uuid& uuidPhase);
  virtual void _DoInstantiation(const TQUMA_Uuid& uuidPhase);
  virtual void _DoRegistration(const TQUMA_Uuid& uuidPhase);
  // Runs _DoDestruction and forgets the phase, whether or not the unit instantiated it.
  virtual void DestroyObjects(const TQUMA_Uuid& uuidPhase);
  // Runs _DoInstantiation once per phase.
  virtual void InstantiateObjects(const TQUMA_Uuid& uuidPhase);
  virtual void InstantiationComplete();
  // Runs _DoRegistration once per phase.
  virtual void RegisterClasses(const TQUMA_Uuid& uuidPhase);
  virtual void RegistrationsComplete();
  // Runs _DoDeregistration for a phase the unit registered, and forgets it.
  virtual void UnregisterClasses(const TQUMA_Uuid& uuidPhase);

  // The number of loaded modules: the main program and every loaded shared object.
  static Integer GetModuleCount();
  // Whether the registry's last run saw the module whose base address is AInstance.
  static bool IsModuleInitialisedByRTL(TQUMAModuleHandle AInstance);

 protected:
  PQUMAInitialisationUnit _ptr;
  TQUMAPhaseList* _pRegPhases = nullptr;                        // registration phases performed, in order
  TQUMAPhaseList* _pInstPhases = nullptr;                       // instantiation phases performed, in order
  TQUMAGuardedPtr<TQUMAInitialisationUnitRegistry> _pRegistry;  // not owned; nulls itself if the registry goes
};

// ---- the unit list ----

// A referenced list of units that takes notify references, so that it keeps no unit alive: a unit
// freed elsewhere drops out of every such list by itself, and leaving a list never frees a unit
// (as losing its last memory lock would).
class TQUMAInitialisationUnits : public TQUMAReferencedList<TQUMAInitialisationUnit> {
  QUMA_CLASS(TQUMAInitialisationUnits, TQUMAReferencedList<TQUMAInitialisationUnit>)
 public:
  TQUMAInitialisationUnits() { _RefAction = _raNotify; }
};

// ---- free functions ----
// Each forwards to the process-wide registry: the Register forms create it, the Remove and
// Unregister forms do nothing when there is none.
void QUMARegisterInitialisationUnit(TQUMAInitialisationUnit* pUnit);
void QUMARemoveInitialisationUnit(TQUMAInitialisationUnit* pUnit);
void QUMARegisterRegistrationPhase(const TQUMA_Uuid& uuid);
void QUMARegisterRegistrationPhases(std::span<const TQUMA_Uuid> aUuids);
void QUMARegisterInstantiationPhase(const TQUMA_Uuid& uuid);
void QUMARegisterInstantiationPhases(std::span<const TQUMA_Uuid> aUuids);
void QUMAUnregisterRegistrationPhase(const TQUMA_Uuid& uuid);
void QUMAUnregisterRegistrationPhases(std::span<const TQUMA_Uuid> aUuids);
void QUMAUnregisterInstantiationPhase(const TQUMA_Uuid& uuid);
void QUMAUnregisterInstantiationPhases(std::span<const TQUMA_Uuid> aUuids);
// The start-up hook this library installs: runs the hook it replaced, then the registry.
void QUMAInitialiseRegisteredUnits();
// blSkipSavedHook false: the replaced start-up hook first; then the registry's run, if a registry
// exists.
void _QUMADoInitialiseRegisteredUnits(bool blSkipSavedHook);

// ---- library entry ----
// The library's units run their start-up sections when the library is loaded, in the order of
// their dependencies, and their finalisation sections in reverse when it is unloaded. The order
// is the section's priority: a unit's priority is greater than that of every unit it uses.
// Sections run before the library's ordinary static initialisers (and at process exit after its
// static destructors), so a section touches only constant-initialised data and objects created on
// first use. See docs/init.md.
enum TQUMAUnitSectionOrder : int {
  usoInitialisation = 1000,  // QUMA.Initialisation: the registry and the start-up hook
};

#define QUMA_UNIT_SECTION_NAME2(a, b) a##b
#define QUMA_UNIT_SECTION_NAME(a, b) QUMA_UNIT_SECTION_NAME2(a, b)
// Declares a unit's start-up and finalisation sections (functions of no arguments) in one .cpp of
// the library.
#define QUMA_UNIT_SECTIONS(Order, StartUp, Finalisation)                                                              \
  [[gnu::constructor(Order), gnu::used]] static void QUMA_UNIT_SECTION_NAME(QUMAUnitStartUp_, Order)() { StartUp(); } \
  [[gnu::destructor(Order), gnu::used]] static void QUMA_UNIT_SECTION_NAME(QUMAUnitFinal_, Order)() { Finalisation(); }

}  // namespace quma
QUMA_PUBLIC_END
