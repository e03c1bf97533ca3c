// The initialisation registry: hook order across phases and units, reverse shutdown, idempotence,
// early frees, the instantiation cross-over, phase edits, modules loaded late, and process exit.
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <quma/Initialisation.h>
#include <quma/SysUtils.h>

#include "rtl/TestSupport.h"

using namespace quma;

namespace {

std::vector<std::string> gLog;

// Phase "A" is the UUID whose last byte is 'A'.
TQUMA_Uuid P(char c) {
  Byte bytes[16] = {};
  bytes[15] = static_cast<Byte>(c);
  return TQUMA_Uuid::Create(bytes);
}

std::string Take() {
  std::string text;
  for (const auto& e : gLog) text += (text.empty() ? "" : " ") + e;
  gLog.clear();
  return text;
}

class TRecUnit : public TQUMAInitialisationUnit {
  QUMA_CLASS(TRecUnit, TQUMAInitialisationUnit)
 public:
  TRecUnit(std::string name, TQUMAInitialisationUnitRegistry* reg, PQUMAInitialisationUnit var = nullptr)
      : TQUMAInitialisationUnit(nullptr, var, reg), Name(std::move(name)) {}
  void _DoRegistration(const TQUMA_Uuid& p) override { Log("reg:", p); }
  void _DoInstantiation(const TQUMA_Uuid& p) override {
    Log("inst:", p);
    if (FreeSelf) Free(this);
  }
  void _DoDestruction(const TQUMA_Uuid& p) override { Log("destroy:", p); }
  void _DoDeregistration(const TQUMA_Uuid& p) override { Log("dereg:", p); }
  // With KeepPhases the overrides run the hooks but never forget the phase.
  void DestroyObjects(const TQUMA_Uuid& p) override { KeepPhases ? _DoDestruction(p) : inherited::DestroyObjects(p); }
  void UnregisterClasses(const TQUMA_Uuid& p) override {
    KeepPhases ? _DoDeregistration(p) : inherited::UnregisterClasses(p);
  }
  void RegistrationsComplete() override { Log("regdone", {}); }
  void InstantiationComplete() override { Log("instdone", {}); }
  void Log(const char* what, const TQUMA_Uuid& p) {
    const std::string event = Name + ":" + what + (p._baUuid[15] ? std::string(1, char(p._baUuid[15])) : "");
    if (Echo)
      std::fprintf(stderr, "%s ", event.c_str());  // at exit, when gLog is already destroyed
    else
      gLog.push_back(event);
  }
  std::string Name;
  bool FreeSelf = false, KeepPhases = false;
  static inline bool Echo = false;
};

struct Registry : ::testing::Test {
  TObjectPtr<TQUMAInitialisationUnitRegistry> reg{New<TQUMAInitialisationUnitRegistry>()};
  void Phases(std::vector<TQUMA_Uuid> r, std::vector<TQUMA_Uuid> i) {
    reg->RegisterRegistrationPhases(r);
    reg->RegisterInstantiationPhases(i);
  }
  static std::string Names(const TQUMAPhaseList* list) {
    std::string s;
    for (const auto& p : *list) s += static_cast<char>(p._baUuid[15]);
    return s;
  }
  void SetUp() override { gLog.clear(); }
};

}  // namespace

TEST_F(Registry, RunsPhasesInOrderAndUndoesThemInExactReverse) {
  Phases({P('A'), P('B')}, {P('X'), P('Y')});
  TQUMAInitialisationUnit *v1 = nullptr, *v2 = nullptr;
  New<TRecUnit>("1", reg.get(), &v1);
  New<TRecUnit>("2", reg.get(), &v2);
  EXPECT_TRUE(reg->InitialisationNeeded());

  reg->RunInitialisations();
  // Instantiation index i runs registration phase i.
  EXPECT_EQ(Take(),
            "1:reg:A 2:reg:A 1:reg:B 2:reg:B 1:regdone 2:regdone "
            "1:inst:A 2:inst:A 1:inst:B 2:inst:B 1:instdone 2:instdone");
  EXPECT_FALSE(reg->InitialisationNeeded());
  EXPECT_FALSE(reg->DynamicLoadDetected());
  EXPECT_EQ(reg->MonitorLock().Depth(), 2u);  // the run keeps the registry

  reg->RunUninitialisations();
  // Destruction runs the instantiation list, whatever the units instantiated.
  EXPECT_EQ(Take(),
            "2:destroy:Y 1:destroy:Y 2:destroy:X 1:destroy:X "
            "2:dereg:B 1:dereg:B 2:dereg:A 1:dereg:A");
  EXPECT_TRUE(reg->DynamicLoadDetected());
  EXPECT_TRUE(reg->InitialisationNeeded());  // no module counts as initialised any more
  reg->RunUninitialisations();  // the units left the registry without being freed
  EXPECT_EQ(Take(), "");
  Free(v1);  // still holds instantiation phases A and B, and undoes them itself
  EXPECT_EQ(Take(), "1:destroy:B 1:destroy:A");
  Free(v2);
}

TEST_F(Registry, UnitHooksAndRegistrationsAreIdempotent) {
  auto* u = New<TRecUnit>("u", reg.get());
  u->RegisterClasses(P('A'));
  u->RegisterClasses(P('A'));
  u->InstantiateObjects(P('A'));
  u->InstantiateObjects(P('A'));
  u->UnregisterClasses(P('Z'));  // never registered: no hook
  u->DestroyObjects(P('Z'));     // never instantiated: the hook runs all the same
  EXPECT_EQ(Take(), "u:reg:A u:inst:A u:destroy:Z");

  Phases({P('A'), P('A'), P('B')}, {P('A')});
  EXPECT_EQ(Names(reg->ClassPhases()), "AB");
  reg->RegisterInitialisationUnit(u);
  reg->RunInitialisations();
  EXPECT_EQ(Take(), "u:reg:B u:regdone u:instdone");
  reg->RegisterInitialisationUnit(u);  // already initialised
  EXPECT_FALSE(reg->InitialisationNeeded());
  Free(u);
  EXPECT_EQ(Take(), "u:destroy:A u:dereg:B u:dereg:A");
  EXPECT_TRUE(reg->DynamicLoadDetected());
  // Overrides that never forget a phase do not hold destruction up: each phase is undone once.
  auto* k = New<TRecUnit>("k", reg.get());
  k->RegisterClasses(P('A'));
  k->InstantiateObjects(P('A'));
  k->InstantiateObjects(P('B'));
  k->KeepPhases = true;
  Take();
  Free(k);
  EXPECT_EQ(Take(), "k:destroy:B k:destroy:A k:dereg:A");
}

TEST_F(Registry, UnitsOrTheRegistryFreedEarly) {
  Phases({P('A'), P('B')}, {P('A')});
  TQUMAInitialisationUnit *u1 = nullptr, *u2 = nullptr, *pending = nullptr;
  Free(New<TRecUnit>("p", reg.get()));
  New<TRecUnit>("1", reg.get(), &u1);
  New<TRecUnit>("s", reg.get())->FreeSelf = true;
  reg->RunInitialisations();
  EXPECT_EQ(Take(),
            "1:reg:A s:reg:A 1:reg:B s:reg:B 1:regdone s:regdone 1:inst:A s:inst:A "
            "s:dereg:B s:dereg:A 1:instdone");
  New<TRecUnit>("2", reg.get(), &u2);
  reg->RunInitialisations();
  New<TRecUnit>("p", reg.get(), &pending);
  Take();
  Free(u1);  // undoes its own phases, newest first
  EXPECT_EQ(Take(), "1:destroy:A 1:dereg:B 1:dereg:A");
  reg.reset();  // frees the pending unit, undoes the phases of the other
  EXPECT_EQ(Take(), "2:destroy:A 2:dereg:B 2:dereg:A");
  EXPECT_EQ(pending, nullptr);
  ASSERT_NE(u2, nullptr);
  EXPECT_EQ(u2->Registry(), nullptr);
  Free(u2);
  EXPECT_EQ(Take(), "");
}

TEST_F(Registry, MoreInstantiationThanRegistrationPhasesFail) {
  Phases({P('A')}, {P('X'), P('Y')});
  New<TRecUnit>("u", reg.get());
  EXPECT_EQ(test::ErrorOf<EArgumentOutOfRangeException>([&] { reg->RunInitialisations(); }), "Argument out of range");
  EXPECT_EQ(Take(), "u:reg:A u:regdone u:inst:A");
  EXPECT_EQ(reg->MonitorLock().Depth(), 0u);  // a failed run keeps nothing
  EXPECT_TRUE(reg->InitialisationNeeded());
}

TEST_F(Registry, PhasesInsertedAndUnregisteredWhileUnitsExist) {
  Phases({P('A'), P('B')}, {P('A'), P('B')});
  auto* old = New<TRecUnit>("o", reg.get());
  reg->RunInitialisations();
  Take();

  reg->InsertRegistrationPhase(P('C'), P('B'));
  reg->InsertRegistrationPhase(P('D'), P('E'));  // unknown: both appended, new one first
  reg->InsertRegistrationPhase(P('A'), P('B'));  // no duplicate check
  EXPECT_EQ(Names(reg->ClassPhases()), "ACABDE");
  reg->UnregisterRegistrationPhases(std::vector{P('A'), P('D'), P('Q')});
  EXPECT_EQ(Names(reg->ClassPhases()), "CABE");
  reg->InsertInstantiationPhase(P('C'), P('A'));
  reg->UnregisterInstantiationPhase(P('B'));
  EXPECT_EQ(Names(reg->InstantitionPhases()), "CA");

  auto* fresh = New<TRecUnit>("n", reg.get());  // only the new unit runs, against the phases as they are now
  reg->RunInitialisations();
  EXPECT_EQ(Take(), "n:reg:C n:reg:A n:reg:B n:reg:E n:regdone n:inst:C n:inst:A n:instdone");
  reg->RunUninitialisations();
  EXPECT_EQ(Take(),
            "n:destroy:A o:destroy:A n:destroy:C o:destroy:C "
            "n:dereg:E n:dereg:B o:dereg:B n:dereg:A o:dereg:A n:dereg:C");
  Free(old);  // instantiation phase B was unregistered from the registry, not from the unit
  EXPECT_EQ(Take(), "o:destroy:B");
  Free(fresh);  // uninitialised units are their creator's to free
}

// The process-wide registry, the free functions and the start-up chain.
TEST(RegistrySingleton, StartUpChainRunsTheRegistry) {
  gLog.clear();
  ASSERT_EQ(GetInitProc(), &QUMAInitialiseRegisteredUnits);  // the library put itself in front
  static TProcedure saved = nullptr;
  saved = SetInitProc([] {
    gLog.push_back("app-hook");
    if (saved) saved();
  });
  QUMARegisterRegistrationPhases(std::vector{P('S')});
  QUMARegisterInstantiationPhases(std::vector{P('S')});
  TQUMAInitialisationUnit* unit = nullptr;
  New<TRecUnit>("s", nullptr, &unit);
  RunInitProc();
  EXPECT_EQ(Take(), "app-hook s:reg:S s:regdone s:inst:S s:instdone");
  EXPECT_TRUE(TQUMAInitialisationUnitRegistry::GetApplicationInitialised());
  SetInitProc(saved);

  QUMARemoveInitialisationUnit(unit);  // leaves the registry, keeps its phases
  auto* global = TQUMAInitialisationUnitRegistry::PeekRegistry();
  global->RunUninitialisations();
  QUMAUnregisterRegistrationPhase(P('S'));
  QUMAUnregisterInstantiationPhases(std::vector{P('S')});
  EXPECT_EQ(global->ClassPhases()->Count() + global->InstantitionPhases()->Count(), 0);
  EXPECT_EQ(Take(), "");
  QUMARegisterInitialisationUnit(unit);  // pending again, so freeing the registry frees it
  TQUMAInitialisationUnitRegistry::FreeRegistry();
  EXPECT_EQ(Take(), "s:destroy:S s:dereg:S");
  QUMAUnregisterRegistrationPhase(P('S'));  // no registry: nothing happens
  TQUMAInitialisationUnitRegistry::GetRegistry();
  EXPECT_FALSE(TQUMAInitialisationUnitRegistry::GetApplicationInitialised());  // never ran
}

#ifdef QUMA_TEST_INIT_PLUGIN
TEST(ModulesLoadedLate, AreDetectedAndTheirUnitsInitialised) {
  gLog.clear();
  auto* global = TQUMAInitialisationUnitRegistry::GetRegistry();
  QUMARegisterRegistrationPhase(P('L'));
  QUMARegisterInstantiationPhase(P('L'));
  TObjectPtr<TQUMAInitialisationUnitRegistry> empty(New<TQUMAInitialisationUnitRegistry>());
  global->RunInitialisations();
  empty->RunInitialisations();
  const Integer modules = TQUMAInitialisationUnit::GetModuleCount();

  void* lib = dlopen(QUMA_TEST_INIT_PLUGIN, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(lib, nullptr) << dlerror();
  EXPECT_EQ(TQUMAInitialisationUnit::GetModuleCount(), modules + 1);
  EXPECT_TRUE(empty->InitialisationNeeded());  // a new module, although no unit is pending
  EXPECT_TRUE(empty->DynamicLoadDetected());
  EXPECT_TRUE(global->InitialisationNeeded());  // and the module's unit is pending here
  using TLogProc = void (*)(const char*);
  reinterpret_cast<void (*)(TLogProc)>(dlsym(lib, "quma_test_plugin_set_log"))(
      [](const char* e) { gLog.emplace_back(e); });
  Dl_info info{};
  ASSERT_NE(dladdr(dlsym(lib, "quma_test_plugin_unit"), &info), 0);
  const auto handle = reinterpret_cast<TQUMAModuleHandle>(info.dli_fbase);
  EXPECT_FALSE(TQUMAInitialisationUnit::IsModuleInitialisedByRTL(handle));

  global->RunInitialisations();
  EXPECT_EQ(Take(), "plugin:reg plugin:inst");
  EXPECT_TRUE(TQUMAInitialisationUnit::IsModuleInitialisedByRTL(handle));
  EXPECT_FALSE(global->InitialisationNeeded());
  EXPECT_FALSE(global->DynamicLoadDetected());

  dlclose(lib);  // the module frees its unit, which undoes its own phases
  EXPECT_EQ(Take(), "plugin:destroy plugin:dereg");
  EXPECT_TRUE(global->DynamicLoadDetected());
  global->RunInitialisations();
  EXPECT_FALSE(TQUMAInitialisationUnit::IsModuleInitialisedByRTL(handle));
  QUMAUnregisterRegistrationPhase(P('L'));
  QUMAUnregisterInstantiationPhase(P('L'));
}
#endif

// A process that ends without RunUninitialisations: unloading the library frees the registry,
// which undoes the phases of the initialised units and frees the pending one; nothing leaks.
[[noreturn]] void ExitWithoutUninitialisations() {
  static TQUMAInitialisationUnit *a = nullptr, *b = nullptr;  // the initialised units stay reachable
  QUMARegisterRegistrationPhases(std::vector{P('A'), P('B')});
  QUMARegisterInstantiationPhase(P('A'));
  TRecUnit::Echo = true;
  New<TRecUnit>("1", nullptr, &a);
  New<TRecUnit>("2", nullptr, &b);
  RunInitProc();
  New<TRecUnit>("pending", nullptr);
  std::fprintf(stderr, "| ");
  std::exit(0);
}

TEST(ProcessExit, UndoesThePhasesWithoutUninitialisations) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(ExitWithoutUninitialisations(), ::testing::ExitedWithCode(0),
              "\\| 2:destroy:A 1:destroy:A 2:dereg:B 1:dereg:B 2:dereg:A 1:dereg:A $");
}
