#include <quma/Initialisation.h>

#include <link.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <memory>
#include <mutex>
#include <utility>

#include <quma/Monitor.h>

namespace quma {

namespace {

std::atomic<TProcedure> gInitProc{nullptr};
TProcedure gSavedInitProc = nullptr;  // the start-up hook this library replaced when it was loaded
int gInitialisationCounter = 0;       // start-up sections run minus finalisation sections run

// Creation and look-up of the process-wide registry. Trivially destructible, so it still works
// from the unload section, which runs after the library's static destructors.
constinit std::mutex gRegistryMutex;

// Phases compare by value (the element-wise UUID operators are no order). Never destroyed: the
// unload section may still create or search phase lists after static destruction.
const std::shared_ptr<const IComparer<TQUMA_Uuid>>& PhaseComparer() {
  static const auto* const comparer = new std::shared_ptr<const IComparer<TQUMA_Uuid>>(TComparer<TQUMA_Uuid>::Construct(
      [](const TQUMA_Uuid& a, const TQUMA_Uuid& b) { return static_cast<int>(TQUMA_Uuid::Compare(a, b)); }));
  return *comparer;
}

TQUMAPhaseList* NewPhaseList() { return New<TQUMAPhaseList>(); }

TQUMAInitialisationUnits* NewUnitList() { return New<TQUMAInitialisationUnits>(); }

// ---- phase list edits, each under the list's own monitor ----

void AppendPhase(TQUMAPhaseList* pList, const TQUMA_Uuid& uuid) {
  if (!pList) return;
  TMonitorGuard guard(pList);
  if (!pList->Contains(uuid)) pList->Add(uuid);
}

void InsertPhase(TQUMAPhaseList* pList, const TQUMA_Uuid& uuid, const TQUMA_Uuid& uuidBeforePhase) {
  if (!pList) return;
  TMonitorGuard guard(pList);
  const Integer index = pList->IndexOf(uuidBeforePhase);
  if (index >= 0) {
    pList->Insert(index, uuid);
  } else {
    pList->Add(uuid);
    pList->Add(uuidBeforePhase);
  }
}

void RemovePhase(TQUMAPhaseList* pList, const TQUMA_Uuid& uuid) {
  if (!pList) return;
  TMonitorGuard guard(pList);
  pList->Remove(uuid);
}

// ---- the loaded modules ----

// A module's handle is its base address: where its first loadable segment is mapped (page
// aligned), which is what dladdr reports as dli_fbase.
TQUMAModuleHandle BaseAddress(const dl_phdr_info& info, ElfW(Addr) pageMask) noexcept {
  ElfW(Addr) lowest = ~ElfW(Addr){0};
  for (ElfW(Half) i = 0; i < info.dlpi_phnum; ++i)
    if (info.dlpi_phdr[i].p_type == PT_LOAD) lowest = std::min(lowest, info.dlpi_phdr[i].p_vaddr);
  if (lowest == ~ElfW(Addr){0}) lowest = 0;
  return static_cast<TQUMAModuleHandle>(info.dlpi_addr + (lowest & pageMask));
}

struct TModuleWalk {
  std::vector<TQUMAModuleHandle>* Handles;  // null: count only
  ElfW(Addr) PageMask;
  Integer Count = 0;
  std::exception_ptr Error;
};

// The loader holds its lock while it calls this: nothing may propagate out of it.
int VisitModule(dl_phdr_info* info, std::size_t, void* data) noexcept {
  auto* walk = static_cast<TModuleWalk*>(data);
  ++walk->Count;
  if (!walk->Handles) return 0;
  try {
    walk->Handles->push_back(BaseAddress(*info, walk->PageMask));
  } catch (...) {
    walk->Error = std::current_exception();
    return 1;
  }
  return 0;
}

Integer WalkModules(std::vector<TQUMAModuleHandle>* pHandles) {
  TModuleWalk walk{pHandles, ~static_cast<ElfW(Addr)>(sysconf(_SC_PAGESIZE) - 1)};
  dl_iterate_phdr(&VisitModule, &walk);
  if (walk.Error) std::rethrow_exception(walk.Error);
  return walk.Count;
}

}  // namespace

// ---- the start-up hook ----

TProcedure GetInitProc() noexcept { return gInitProc.load(std::memory_order_acquire); }

TProcedure SetInitProc(TProcedure fnHook) noexcept { return gInitProc.exchange(fnHook, std::memory_order_acq_rel); }

void RunInitProc() {
  if (const TProcedure hook = GetInitProc()) hook();
}

TQUMAPhaseList::TQUMAPhaseList() : TList<TQUMA_Uuid>(PhaseComparer()) {}

// ---- TQUMAInitialisationUnitRegistry ----

TQUMAReferencedPersistent* TQUMAInitialisationUnitRegistry::_pRegistry = nullptr;
bool TQUMAInitialisationUnitRegistry::_ClassInitFlag = false;

TQUMAInitialisationUnitRegistry::TQUMAInitialisationUnitRegistry(TPersistent* AOwner)
    : TQUMAReferencedPersistent(AOwner) {}

void TQUMAInitialisationUnitRegistry::AfterConstruction() {
  inherited::AfterConstruction();
  if (!_pUnits) _pUnits = NewUnitList();
  if (!_pUninitialisedUnits) _pUninitialisedUnits = NewUnitList();
  if (!_pRegPhases) _pRegPhases = NewPhaseList();
  if (!_pInstPhases) _pInstPhases = NewPhaseList();
  Free(std::exchange(_pInitedModules, New<TList<TQUMAModuleHandle>>()));
}

void TQUMAInitialisationUnitRegistry::BeforeDestruction() {
  inherited::BeforeDestruction();
  {
    const std::lock_guard lock(gRegistryMutex);
    if (_pRegistry == this) _pRegistry = nullptr;
  }
  // Units that never ran are the registry's to free (one that is already going is left to its
  // own Free).
  if (_pUninitialisedUnits) {
    while (_pUninitialisedUnits->Count() > 0) {
      TQUMAInitialisationUnit* unit = _pUninitialisedUnits->Last();
      _pUninitialisedUnits->Delete(_pUninitialisedUnits->Count() - 1);
      if (!QUMAIsFreeing(unit)) Free(unit);
    }
    FreeAndNil(_pUninitialisedUnits);
  }
  if (_pUnits) {
    UndoPhases(Snapshot(_pUnits));
    FreeAndNil(_pUnits);
  }
  FreeAndNil(_pInstPhases);
  FreeAndNil(_pRegPhases);
  FreeAndNil(_pInitedModules);
}

TQUMAInitialisationUnitRegistry::~TQUMAInitialisationUnitRegistry() {
  // Only when construction failed: BeforeDestruction has released everything otherwise.
  Free(_pUninitialisedUnits);
  Free(_pUnits);
  Free(_pInstPhases);
  Free(_pRegPhases);
  Free(_pInitedModules);
}

TQUMAPhaseList* TQUMAInitialisationUnitRegistry::_GetClassPhases() { return _pRegPhases; }

TQUMAPhaseList* TQUMAInitialisationUnitRegistry::_GetInstantiationPhases() { return _pInstPhases; }

bool TQUMAInitialisationUnitRegistry::_GetDynamicLoadDetected() {
  return TQUMAInitialisationUnit::GetModuleCount() != _nModuleCount;
}

bool TQUMAInitialisationUnitRegistry::_GetInitialisationNeeded() {
  if (_pUninitialisedUnits && _pUninitialisedUnits->Count() > 0) return true;
  return TQUMAInitialisationUnit::GetModuleCount() > (_pInitedModules ? _pInitedModules->Count() : 0);
}

void TQUMAInitialisationUnitRegistry::InsertInstantiationPhase(const TQUMA_Uuid& uuid,
                                                               const TQUMA_Uuid& uuidBeforePhase) {
  InsertPhase(_pInstPhases, uuid, uuidBeforePhase);
}

void TQUMAInitialisationUnitRegistry::InsertRegistrationPhase(const TQUMA_Uuid& uuid,
                                                              const TQUMA_Uuid& uuidBeforePhase) {
  InsertPhase(_pRegPhases, uuid, uuidBeforePhase);
}

void TQUMAInitialisationUnitRegistry::RegisterInstantiationPhase(const TQUMA_Uuid& uuid) {
  AppendPhase(_pInstPhases, uuid);
}

void TQUMAInitialisationUnitRegistry::RegisterInstantiationPhases(std::span<const TQUMA_Uuid> aUuids) {
  for (const TQUMA_Uuid& uuid : aUuids) RegisterInstantiationPhase(uuid);
}

void TQUMAInitialisationUnitRegistry::RegisterRegistrationPhase(const TQUMA_Uuid& uuid) {
  AppendPhase(_pRegPhases, uuid);
}

void TQUMAInitialisationUnitRegistry::RegisterRegistrationPhases(std::span<const TQUMA_Uuid> aUuids) {
  for (const TQUMA_Uuid& uuid : aUuids) RegisterRegistrationPhase(uuid);
}

void TQUMAInitialisationUnitRegistry::UnregisterInstantiationPhase(const TQUMA_Uuid& uuid) {
  RemovePhase(_pInstPhases, uuid);
}

void TQUMAInitialisationUnitRegistry::UnregisterInstantiationPhases(std::span<const TQUMA_Uuid> aUuids) {
  for (const TQUMA_Uuid& uuid : aUuids) UnregisterInstantiationPhase(uuid);
}

void TQUMAInitialisationUnitRegistry::UnregisterRegistrationPhase(const TQUMA_Uuid& uuid) {
  RemovePhase(_pRegPhases, uuid);
}

void TQUMAInitialisationUnitRegistry::UnregisterRegistrationPhases(std::span<const TQUMA_Uuid> aUuids) {
  for (const TQUMA_Uuid& uuid : aUuids) UnregisterRegistrationPhase(uuid);
}

void TQUMAInitialisationUnitRegistry::RegisterInitialisationUnit(TQUMAInitialisationUnit* pUnit) {
  if (!pUnit || QUMAIsFreeing(pUnit)) return;
  TMonitorGuard guard(this);
  if (!_pUninitialisedUnits || !_pUnits) return;  // the registry is going
  if (_pUninitialisedUnits->ContainsItem(pUnit) || _pUnits->ContainsItem(pUnit)) return;
  _pUninitialisedUnits->Add(pUnit);
}

void TQUMAInitialisationUnitRegistry::RemoveInitialisationUnit(TQUMAInitialisationUnit* pUnit) {
  if (!pUnit) return;
  TMonitorGuard guard(this);
  if (_pUnits) _pUnits->RemoveItem(pUnit);
  if (_pUninitialisedUnits) _pUninitialisedUnits->RemoveItem(pUnit);
}

void TQUMAInitialisationUnitRegistry::RunInitialisations() {
  TMonitorGuard guard(this);
  RunInitialisationsForList(_pUninitialisedUnits);

  std::vector<TQUMAModuleHandle> seen;
  const Integer count = WalkModules(&seen);
  for (const TQUMAModuleHandle handle : seen)
    if (!_pInitedModules->Contains(handle)) _pInitedModules->Add(handle);
  std::sort(seen.begin(), seen.end());
  for (Integer i = _pInitedModules->Count() - 1; i >= 0; --i)
    if (!std::binary_search(seen.begin(), seen.end(), (*_pInitedModules)[i])) _pInitedModules->Delete(i);
  _nModuleCount = count;
}

void TQUMAInitialisationUnitRegistry::RunInitialisationsForList(TQUMAInitialisationUnits* pList) {
  if (!pList) return;
  // Taken here and taken again at the end, and never released: the initialising thread keeps
  // the registry. Only a failed run gives back its first entry.
  TMonitor::Enter(this);
  try {
    const auto units = Snapshot(pList);
    const auto takesPart = [&](const TQUMAGuardedPtr<TQUMAInitialisationUnit>& unit) {
      return unit && (pList == _pUninitialisedUnits || _pUninitialisedUnits->ContainsItem(unit.Get()));
    };
    for (Integer i = 0; i < _pRegPhases->Count(); ++i)
      for (const auto& unit : units)
        if (takesPart(unit)) unit->RegisterClasses(TQUMA_Uuid((*_pRegPhases)[i]));
    for (const auto& unit : units)
      if (takesPart(unit)) unit->RegistrationsComplete();
    // Instantiation phase i runs the registration phase at index i: more instantiation than
    // registration phases end in the list's index error.
    for (Integer i = 0; i < _pInstPhases->Count(); ++i)
      for (const auto& unit : units)
        if (takesPart(unit)) unit->InstantiateObjects(TQUMA_Uuid((*_pRegPhases)[i]));
    for (const auto& unit : units) {
      if (!takesPart(unit)) continue;
      unit->InstantiationComplete();
      if (!unit) continue;
      _pUnits->Add(unit.Get());
      _pUninitialisedUnits->RemoveItem(unit.Get());
    }
  } catch (...) {
    TMonitor::Exit(this);
    throw;
  }
  TMonitor::Enter(this);
}

void TQUMAInitialisationUnitRegistry::RunUninitialisations() {
  TMonitorGuard guard(this);
  RunUninitialisationsForList(_pUnits);
  _pInitedModules->Clear();
  _nModuleCount = 0;
}

void TQUMAInitialisationUnitRegistry::RunUninitialisationsForList(TQUMAInitialisationUnits* pList) {
  if (!pList) return;
  TMonitorGuard guard(this);
  UndoPhases(Snapshot(pList));
  for (Integer i = _pUnits->Count() - 1; i >= 0; --i)
    if (i < _pUnits->Count() && pList->ContainsItem((*_pUnits)[i])) _pUnits->Delete(i);
}

std::vector<TQUMAGuardedPtr<TQUMAInitialisationUnit>> TQUMAInitialisationUnitRegistry::Snapshot(
    const TQUMAInitialisationUnits* pList) const {
  std::vector<TQUMAGuardedPtr<TQUMAInitialisationUnit>> units;
  units.reserve(static_cast<std::size_t>(pList->Count()));
  for (TQUMAInitialisationUnit* unit : *pList) units.emplace_back(unit);
  return units;
}

// Every instantiation phase and then every registration phase, each from the last to the first,
// for the given units from the last to the first that are (still) initialised.
void TQUMAInitialisationUnitRegistry::UndoPhases(const std::vector<TQUMAGuardedPtr<TQUMAInitialisationUnit>>& units) {
  const auto initialised = [&](const TQUMAGuardedPtr<TQUMAInitialisationUnit>& unit) {
    return unit && _pUnits->ContainsItem(unit.Get());
  };
  for (Integer i = _pInstPhases->Count() - 1; i >= 0; --i)
    for (auto unit = units.rbegin(); unit != units.rend(); ++unit)
      if (initialised(*unit)) (*unit)->DestroyObjects(TQUMA_Uuid((*_pInstPhases)[i]));
  for (Integer i = _pRegPhases->Count() - 1; i >= 0; --i)
    for (auto unit = units.rbegin(); unit != units.rend(); ++unit)
      if (initialised(*unit)) (*unit)->UnregisterClasses(TQUMA_Uuid((*_pRegPhases)[i]));
}

void TQUMAInitialisationUnitRegistry::NotificationRef(TQUMAReferencedPersistent* Other, TOperation op) {
  inherited::NotificationRef(Other, op);
}

TQUMAInitialisationUnitRegistry* TQUMAInitialisationUnitRegistry::GetRegistry() {
  const std::lock_guard lock(gRegistryMutex);
  if (!_pRegistry) {
    auto* registry = New<TQUMAInitialisationUnitRegistry>();
    _pRegistry = registry;
    registry->RegisterSilentReference(&_pRegistry);
  }
  return static_cast<TQUMAInitialisationUnitRegistry*>(_pRegistry);
}

TQUMAInitialisationUnitRegistry* TQUMAInitialisationUnitRegistry::PeekRegistry() noexcept {
  const std::lock_guard lock(gRegistryMutex);
  return static_cast<TQUMAInitialisationUnitRegistry*>(_pRegistry);
}

void TQUMAInitialisationUnitRegistry::FreeRegistry() { Free(PeekRegistry()); }

bool TQUMAInitialisationUnitRegistry::GetApplicationInitialised() {
  const TQUMAInitialisationUnitRegistry* registry = PeekRegistry();
  return registry && registry->_pInitedModules && registry->_pInitedModules->Count() > 0;
}

void TQUMAInitialisationUnitRegistry::ClassDestroy() {
  if (std::exchange(_ClassInitFlag, true)) return;
  FreeRegistry();
}

// ---- TQUMAInitialisationUnit ----

TQUMAInitialisationUnit::TQUMAInitialisationUnit(TPersistent* AOwner, PQUMAInitialisationUnit APointer,
                                                 TQUMAInitialisationUnitRegistry* ARegistry)
    : TQUMAReferencedPersistent(AOwner), _ptr(APointer), _pRegistry(ARegistry) {
  if (_ptr) *_ptr = this;
}

void TQUMAInitialisationUnit::AfterConstruction() {
  inherited::AfterConstruction();
  _pRegPhases = NewPhaseList();
  _pInstPhases = NewPhaseList();
  if (!_pRegistry) _pRegistry = TQUMAInitialisationUnitRegistry::GetRegistry();
  _pRegistry->RegisterInitialisationUnit(this);
}

void TQUMAInitialisationUnit::BeforeDestruction() {
  // Newest phase first. An override that does not forget the phase must not hold destruction
  // up, so a phase that is still there afterwards is dropped here.
  while (_pInstPhases && _pInstPhases->Count() > 0) {
    const Integer count = _pInstPhases->Count();
    DestroyObjects(TQUMA_Uuid(_pInstPhases->Last()));
    if (_pInstPhases->Count() >= count) _pInstPhases->Delete(count - 1);
  }
  while (_pRegPhases && _pRegPhases->Count() > 0) {
    const Integer count = _pRegPhases->Count();
    UnregisterClasses(TQUMA_Uuid(_pRegPhases->Last()));
    if (_pRegPhases->Count() >= count) _pRegPhases->Delete(count - 1);
  }
  if (PQUMAInitialisationUnit variable = std::exchange(_ptr, nullptr)) *variable = nullptr;
  FreeAndNil(_pInstPhases);
  FreeAndNil(_pRegPhases);
  // The registry's next DynamicLoadDetected reports a change.
  if (TQUMAInitialisationUnitRegistry* registry = _pRegistry.Get()) registry->_nModuleCount = 0;
  inherited::BeforeDestruction();
}

TQUMAInitialisationUnit::~TQUMAInitialisationUnit() {
  // Only when construction failed: BeforeDestruction has released everything otherwise.
  if (_ptr) *_ptr = nullptr;
  Free(_pInstPhases);
  Free(_pRegPhases);
}

void TQUMAInitialisationUnit::_DoDeregistration(const TQUMA_Uuid&) {}
void TQUMAInitialisationUnit::_DoDestruction(const TQUMA_Uuid&) {}
void TQUMAInitialisationUnit::_DoInstantiation(const TQUMA_Uuid&) {}
void TQUMAInitialisationUnit::_DoRegistration(const TQUMA_Uuid&) {}
void TQUMAInitialisationUnit::InstantiationComplete() {}
void TQUMAInitialisationUnit::RegistrationsComplete() {}

// Each step records the phase only if its hook left the unit alive (a hook may free it).
void TQUMAInitialisationUnit::DestroyObjects(const TQUMA_Uuid& uuidPhase) {
  if (!_pInstPhases) return;
  const TQUMAGuardedPtr<TQUMAInitialisationUnit> self(this);
  _DoDestruction(uuidPhase);
  if (self && _pInstPhases) _pInstPhases->Remove(uuidPhase);
}

void TQUMAInitialisationUnit::InstantiateObjects(const TQUMA_Uuid& uuidPhase) {
  if (!_pInstPhases || _pInstPhases->Contains(uuidPhase)) return;
  const TQUMAGuardedPtr<TQUMAInitialisationUnit> self(this);
  _DoInstantiation(uuidPhase);
  if (self && _pInstPhases) _pInstPhases->Add(uuidPhase);
}

void TQUMAInitialisationUnit::RegisterClasses(const TQUMA_Uuid& uuidPhase) {
  if (!_pRegPhases || _pRegPhases->Contains(uuidPhase)) return;
  const TQUMAGuardedPtr<TQUMAInitialisationUnit> self(this);
  _DoRegistration(uuidPhase);
  if (self && _pRegPhases) _pRegPhases->Add(uuidPhase);
}

void TQUMAInitialisationUnit::UnregisterClasses(const TQUMA_Uuid& uuidPhase) {
  if (!_pRegPhases || !_pRegPhases->Contains(uuidPhase)) return;
  const TQUMAGuardedPtr<TQUMAInitialisationUnit> self(this);
  _DoDeregistration(uuidPhase);
  if (self && _pRegPhases) _pRegPhases->Remove(uuidPhase);
}

Integer TQUMAInitialisationUnit::GetModuleCount() { return WalkModules(nullptr); }

bool TQUMAInitialisationUnit::IsModuleInitialisedByRTL(TQUMAModuleHandle AInstance) {
  const TQUMAInitialisationUnitRegistry* registry = TQUMAInitialisationUnitRegistry::GetRegistry();
  return registry->_pInitedModules && registry->_pInitedModules->Contains(AInstance);
}

// ---- free functions ----

void QUMARegisterInitialisationUnit(TQUMAInitialisationUnit* pUnit) {
  TQUMAInitialisationUnitRegistry::GetRegistry()->RegisterInitialisationUnit(pUnit);
}

void QUMARemoveInitialisationUnit(TQUMAInitialisationUnit* pUnit) {
  if (auto* registry = TQUMAInitialisationUnitRegistry::PeekRegistry()) registry->RemoveInitialisationUnit(pUnit);
}

void QUMARegisterRegistrationPhase(const TQUMA_Uuid& uuid) {
  TQUMAInitialisationUnitRegistry::GetRegistry()->RegisterRegistrationPhase(uuid);
}

void QUMARegisterRegistrationPhases(std::span<const TQUMA_Uuid> aUuids) {
  TQUMAInitialisationUnitRegistry::GetRegistry()->RegisterRegistrationPhases(aUuids);
}

void QUMARegisterInstantiationPhase(const TQUMA_Uuid& uuid) {
  TQUMAInitialisationUnitRegistry::GetRegistry()->RegisterInstantiationPhase(uuid);
}

void QUMARegisterInstantiationPhases(std::span<const TQUMA_Uuid> aUuids) {
  TQUMAInitialisationUnitRegistry::GetRegistry()->RegisterInstantiationPhases(aUuids);
}

void QUMAUnregisterRegistrationPhase(const TQUMA_Uuid& uuid) {
  if (auto* registry = TQUMAInitialisationUnitRegistry::PeekRegistry()) registry->UnregisterRegistrationPhase(uuid);
}

void QUMAUnregisterRegistrationPhases(std::span<const TQUMA_Uuid> aUuids) {
  if (auto* registry = TQUMAInitialisationUnitRegistry::PeekRegistry()) registry->UnregisterRegistrationPhases(aUuids);
}

void QUMAUnregisterInstantiationPhase(const TQUMA_Uuid& uuid) {
  if (auto* registry = TQUMAInitialisationUnitRegistry::PeekRegistry()) registry->UnregisterInstantiationPhase(uuid);
}

void QUMAUnregisterInstantiationPhases(std::span<const TQUMA_Uuid> aUuids) {
  if (auto* registry = TQUMAInitialisationUnitRegistry::PeekRegistry()) registry->UnregisterInstantiationPhases(aUuids);
}

void QUMAInitialiseRegisteredUnits() { _QUMADoInitialiseRegisteredUnits(false); }

void _QUMADoInitialiseRegisteredUnits(bool blSkipSavedHook) {
  if (!blSkipSavedHook && gSavedInitProc) gSavedInitProc();
  if (auto* registry = TQUMAInitialisationUnitRegistry::PeekRegistry()) registry->RunInitialisations();
}

// ---- the unit's sections ----

namespace {

// Runs once: puts the registry's start-up hook in front of the chain and creates the registry.
void InitialisationStartUp() {
  if (gInitialisationCounter++ != 0) return;
  gSavedInitProc = SetInitProc(&QUMAInitialiseRegisteredUnits);
  TQUMAInitialisationUnitRegistry::GetRegistry();
}

// The finalisation section only counts; the class destructor that follows it frees the registry,
// which undoes the phases of the units that are still initialised.
void InitialisationFinalisation() {
  --gInitialisationCounter;
  TQUMAInitialisationUnitRegistry::ClassDestroy();
}

}  // namespace

QUMA_UNIT_SECTIONS(usoInitialisation, InitialisationStartUp, InitialisationFinalisation)

}  // namespace quma
