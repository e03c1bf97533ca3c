#include <quma/Object.h>

#include <quma/Monitor.h>
#include <quma/Strings.h>

namespace quma {

TClass TObject::StaticClass() noexcept {
  static constexpr TClassInfo info(u"TObject", nullptr, &typeid(TObject), nullptr, nullptr);
  return &info;
}

TObject::~TObject() { delete FMonitor.load(std::memory_order_acquire); }

bool TObject::ClassNameIs(UnicodeStringView name) const { return SameText(ClassType()->Name(), name); }

bool TObject::GetInterface(const TGUID&, void** Obj) {
  if (Obj) *Obj = nullptr;
  return false;
}

TRecursiveLock& TObject::CreateMonitor() const {
  TRecursiveLock* lock = nullptr;
  auto* fresh = new TRecursiveLock;
  if (FMonitor.compare_exchange_strong(lock, fresh, std::memory_order_acq_rel, std::memory_order_acquire))
    return *fresh;
  delete fresh;  // another thread installed one first
  return *lock;
}

void Free(const TObject* obj) {
  if (!obj) return;
  auto* self = const_cast<TObject*>(obj);
  if (!self->EnterDestruction()) return;
  self->BeforeDestruction();
  delete self;
}

}  // namespace quma
