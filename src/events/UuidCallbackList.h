// Thread-safe lists of bound callbacks invoked with one or two UUIDs: two callback lists that
// notify, and two confirmation lists that ask every subscriber whether the action the UUIDs name
// may go ahead (the first veto stops the poll).
//
//   auto vetoes = quma::MakeObject<TQUMASingleUuidConfirmationList>();
//   TQUMAScopedSubscription reg(*vetoes, quma::Bind<&TStore::MayDelete>(store));
//   if (vetoes->RunConfirmations(id)) Delete(id);
//
// Threading: every operation holds the list's monitor (re-entrant) for its whole duration, so
// callbacks run on the calling thread with the monitor held: they may add or remove on that
// thread (the length is re-read before every call) while other threads wait.
#pragma once

#include <quma/Export.h>

#include <cstddef>
#include <vector>

#include <quma/Method.h>
#include <quma/Monitor.h>
#include <quma/Object.h>
#include <quma/Uuid.h>

QUMA_PUBLIC_BEGIN
namespace quma {

using TQUMASingleUuidCallback = TMethod<void(const TQUMA_Uuid& uuid)>;
using TQUMASingleUuidConfirmation = TMethod<void(const TQUMA_Uuid& uuid, bool& blAllow)>;
using TQUMADoubleUuidCallback = TMethod<void(const TQUMA_Uuid& uuid1, const TQUMA_Uuid& uuid2)>;
using TQUMADoubleUuidConfirmation = TMethod<void(const TQUMA_Uuid& uuid1, const TQUMA_Uuid& uuid2, bool& blAllow)>;

// What the four lists share: the callbacks in registration order, under the list's monitor.
template <class TCallback>
class TQUMAUuidCallbackArray : public TObject {
  QUMA_CLASS(TQUMAUuidCallbackArray, TObject)
 public:
  // Appends, without a duplicate check: a callback added twice runs twice.
  void Add(const TCallback& pCallback) {
    const TMonitorGuard lock(this);
    _daCallbacks.push_back(pCallback);
  }
  // Removes the first equal entry (code and object); an absent callback is ignored.
  void Remove(const TCallback& pCallback) {
    const TMonitorGuard lock(this);
    for (auto it = _daCallbacks.begin(); it != _daCallbacks.end(); ++it)
      if (*it == pCallback) {
        _daCallbacks.erase(it);
        return;
      }
  }
  Integer Count() const {
    const TMonitorGuard lock(this);
    return static_cast<Integer>(_daCallbacks.size());
  }
  // Scoped registration (TQUMAScopedSubscription) registers through these names.
  void Subscribe(const TCallback& pCallback) { Add(pCallback); }
  void Unsubscribe(const TCallback& pCallback) { Remove(pCallback); }

 protected:
  // Calls every entry in registration order. An empty entry is passed over rather than called.
  template <class... A>
  void Run(const A&... args) {
    const TMonitorGuard lock(this);
    for (std::size_t i = 0; i < _daCallbacks.size(); ++i) {
      const TCallback entry = _daCallbacks[i];
      if (entry) entry(args...);
    }
  }
  // Asks the entries in order while the answer is still yes; an empty list answers yes.
  template <class... A>
  bool Confirm(const A&... args) {
    const TMonitorGuard lock(this);
    bool blAllow = true;
    for (std::size_t i = 0; blAllow && i < _daCallbacks.size(); ++i) {
      const TCallback entry = _daCallbacks[i];
      if (entry) entry(args..., blAllow);
    }
    return blAllow;
  }

  std::vector<TCallback> _daCallbacks;
};

class TQUMASingleUuidCallbackList : public TQUMAUuidCallbackArray<TQUMASingleUuidCallback> {
  QUMA_CLASS(TQUMASingleUuidCallbackList, TQUMAUuidCallbackArray<TQUMASingleUuidCallback>)
 public:
  void RunCallbacks(TQUMA_Uuid uuid) { Run(uuid); }
};

class TQUMASingleUuidConfirmationList : public TQUMAUuidCallbackArray<TQUMASingleUuidConfirmation> {
  QUMA_CLASS(TQUMASingleUuidConfirmationList, TQUMAUuidCallbackArray<TQUMASingleUuidConfirmation>)
 public:
  // True unless a subscriber vetoed; nobody after the first veto is asked.
  bool RunConfirmations(TQUMA_Uuid uuid) { return Confirm(uuid); }
};

class TQUMADoubleUuidCallbackList : public TQUMAUuidCallbackArray<TQUMADoubleUuidCallback> {
  QUMA_CLASS(TQUMADoubleUuidCallbackList, TQUMAUuidCallbackArray<TQUMADoubleUuidCallback>)
 public:
  void RunCallbacks(TQUMA_Uuid uuid1, TQUMA_Uuid uuid2) { Run(uuid1, uuid2); }
};

class TQUMADoubleUuidConfirmationList : public TQUMAUuidCallbackArray<TQUMADoubleUuidConfirmation> {
  QUMA_CLASS(TQUMADoubleUuidConfirmationList, TQUMAUuidCallbackArray<TQUMADoubleUuidConfirmation>)
 public:
  // True unless a subscriber vetoed; nobody after the first veto is asked.
  bool RunConfirmations(TQUMA_Uuid uuid1, TQUMA_Uuid uuid2) { return Confirm(uuid1, uuid2); }
};

}  // namespace quma
QUMA_PUBLIC_END
