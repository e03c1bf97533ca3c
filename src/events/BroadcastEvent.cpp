#include <quma/BroadcastEvent.h>

#include <atomic>
#include <mutex>

namespace quma {

void TQUMABroadcastEvent::AfterConstruction() {
  inherited::AfterConstruction();
  _pCSLock = MakeObject<TCriticalSection>();
}

TQUMABroadcastEvent::~TQUMABroadcastEvent() = default;

TObject* TQUMABroadcastEvent::_GetCallbackObject() const {
  return std::atomic_ref<TObject*>(const_cast<TObject*&>(_pObject)).load(std::memory_order_acquire);
}

Integer TQUMABroadcastEvent::_IndexOf(const TNotifyEvent& fnCallback) const {
  const auto entries = View();
  for (std::size_t i = 0; i < entries.size(); ++i)
    if (entries[i] == fnCallback) return static_cast<Integer>(i);
  return -1;
}

void TQUMABroadcastEvent::_SetCallbackObject(TObject* Value) {
  const std::lock_guard lock(*_pCSLock);
  std::atomic_ref<TObject*>(_pObject).store(Value, std::memory_order_release);
}

void TQUMABroadcastEvent::NotifyListeners() {
  const std::lock_guard lock(*_pCSLock);
  TObject* const set = _GetCallbackObject();
  TObject* const sender = set ? set : this;
  // Re-read on every step: a listener may register or unregister on this thread. An empty
  // entry is passed over rather than called.
  for (std::size_t i = 0; i < View().size(); ++i) {
    const TNotifyEvent entry = View()[i];
    if (entry) entry(sender);
  }
}

void TQUMABroadcastEvent::RegisterListener(const TNotifyEvent& fnCallback) {
  const std::lock_guard lock(*_pCSLock);
  if (_IndexOf(fnCallback) < 0) inherited::Add(fnCallback);
}

void TQUMABroadcastEvent::UnregisterListener(const TNotifyEvent& fnCallback) {
  const std::lock_guard lock(*_pCSLock);
  if (const Integer index = _IndexOf(fnCallback); index >= 0) Delete(index);
}

Integer TQUMABroadcastEvent::Add(const TNotifyEvent& fnNewValue) {
  const std::lock_guard lock(*_pCSLock);
  if (const Integer index = _IndexOf(fnNewValue); index >= 0) return index;
  RegisterListener(fnNewValue);
  return Count() - 1;
}

void TQUMABroadcastEvent::Insert(Integer Index, const TNotifyEvent& fnNewValue) {
  const std::lock_guard lock(*_pCSLock);
  if (_IndexOf(fnNewValue) >= 0) return;
  // A negative index raises the list's range error.
  inherited::Insert(Index < Count() ? Index : Count(), fnNewValue);
}

Integer TQUMABroadcastEvent::Remove(const TNotifyEvent& fnCallback) {
  const std::lock_guard lock(*_pCSLock);
  const Integer index = _IndexOf(fnCallback);
  if (index >= 0) Delete(index);
  return index;
}

}  // namespace quma
