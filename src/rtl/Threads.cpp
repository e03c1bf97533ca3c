#include <quma/Threads.h>

#include <pthread.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include <quma/Strings.h>

namespace quma {

// ---- TEvent ----

void TEvent::SetEvent() {
  {
    std::lock_guard lock(FLock);
    FSignaled = true;
  }
  if (FManualReset)
    FCond.notify_all();
  else
    FCond.notify_one();
}

void TEvent::ResetEvent() {
  std::lock_guard lock(FLock);
  FSignaled = false;
}

bool TEvent::IsSet() const {
  std::lock_guard lock(FLock);
  return FSignaled;
}

TWaitResult TEvent::WaitFor(Cardinal Timeout) {
  std::unique_lock lock(FLock);
  auto ready = [this] { return FSignaled; };
  if (Timeout == INFINITE)
    FCond.wait(lock, ready);
  else if (!FCond.wait_for(lock, std::chrono::milliseconds(Timeout), ready))
    return wrTimeout;
  if (!FManualReset) FSignaled = false;
  return wrSignaled;
}

// ---- ticks ----

namespace {
std::atomic<TTickSource> gTickSource{nullptr};

UInt64 MonotonicMilliseconds() noexcept {
  timespec ts;
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<UInt64>(ts.tv_sec) * 1000u + static_cast<UInt64>(ts.tv_nsec) / 1000000u;
}
}  // namespace

void SetTickSource(TTickSource source) noexcept { gTickSource.store(source, std::memory_order_release); }

UInt64 TThread::GetTickCount64() noexcept {
  if (TTickSource s = gTickSource.load(std::memory_order_acquire)) return s();
  return MonotonicMilliseconds();
}

Cardinal TThread::GetTickCount() noexcept { return static_cast<Cardinal>(GetTickCount64()); }

// ---- main thread and the synchronisation queue ----

namespace {

struct TSyncRequest {
  TThreadMethod Method;
  TThread* Thread = nullptr;  // the thread the request belongs to (RemoveQueuedEvents)
  UInt64 Serial = 0;
  bool Waiting = false;  // Synchronize (true) or Queue (false)
  bool Done = false;
  std::exception_ptr Error;
};

struct TSyncQueue {
  std::mutex Lock;
  std::condition_variable Arrived;    // the main thread waits for requests
  std::condition_variable Completed;  // workers wait for their request, and freeing threads for
                                      // their running queued method
  // Synchronize requests live on the waiting thread's stack; queued ones are owned by the queue.
  std::deque<TSyncRequest*> Pending;
  std::vector<const TSyncRequest*> Running;  // nested CheckSynchronize calls stack up here
  UInt64 NextSerial = 0;
  TNotifyEvent WakeHook;
  // Readable exactly while Pending is non-empty: written on the first arrival, drained when the
  // last request is taken (both under Lock).
  const int EventFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);

  void Signal() const noexcept {
    const std::uint64_t one = 1;
    [[maybe_unused]] auto n = ::write(EventFd, &one, sizeof one);
  }
  void Drain() const noexcept {
    std::uint64_t value;
    [[maybe_unused]] auto n = ::read(EventFd, &value, sizeof value);
  }
  bool IsRunning(const TThread* thread) const noexcept {
    return std::any_of(Running.begin(), Running.end(), [&](const TSyncRequest* r) { return r->Thread == thread; });
  }
};

TSyncQueue& SyncQueue() {
  static TSyncQueue* queue = new TSyncQueue;  // never destroyed: workers may outlive static teardown
  return *queue;
}

std::atomic<std::thread::id> gMainThread{std::this_thread::get_id()};
thread_local TThread* tlsCurrentThread = nullptr;

void Post(TSyncRequest* request) {
  auto& q = SyncQueue();
  TNotifyEvent hook;
  {
    std::lock_guard lock(q.Lock);
    request->Serial = q.NextSerial++;
    if (q.Pending.empty()) q.Signal();
    q.Pending.push_back(request);
    hook = q.WakeHook;
  }
  q.Arrived.notify_all();
  if (hook) hook(nullptr);
}

}  // namespace

std::thread::id MainThreadID() noexcept { return gMainThread.load(std::memory_order_acquire); }
void SetMainThread() noexcept { gMainThread.store(std::this_thread::get_id(), std::memory_order_release); }
bool IsMainThread() noexcept { return std::this_thread::get_id() == MainThreadID(); }
int SyncEventFd() noexcept { return SyncQueue().EventFd; }

void SetWakeMainThread(TNotifyEvent hook) {
  auto& q = SyncQueue();
  std::lock_guard lock(q.Lock);
  q.WakeHook = hook;
}

bool CheckSynchronize(Cardinal Timeout) {
  if (!IsMainThread())
    throw EThread(Format(u"CheckSynchronize called from thread $%X, which is NOT the main thread",
                         static_cast<Int64>(::gettid())));
  auto& q = SyncQueue();
  std::unique_lock lock(q.Lock);
  if (q.Pending.empty() && Timeout > 0) {
    auto ready = [&] { return !q.Pending.empty(); };
    if (Timeout == INFINITE)
      q.Arrived.wait(lock, ready);
    else
      q.Arrived.wait_for(lock, std::chrono::milliseconds(Timeout), ready);
  }
  // Only what waits now: a worker that keeps queueing cannot hold the main thread here for ever.
  const UInt64 limit = q.NextSerial;
  bool ran = false;
  // One request at a time, each taken only when the previous one has returned, so that a nested
  // call (WaitFor or Free inside a synchronised method) finds the rest still waiting.
  while (!q.Pending.empty() && q.Pending.front()->Serial < limit) {
    TSyncRequest* request = q.Pending.front();
    q.Pending.pop_front();
    if (q.Pending.empty()) q.Drain();
    q.Running.push_back(request);
    lock.unlock();
    ran = true;
    std::exception_ptr error;
    try {
      if (request->Method) request->Method();
    } catch (...) {
      error = std::current_exception();  // a queued call has nobody to report to: dropped
    }
    lock.lock();
    std::erase(q.Running, request);
    if (request->Waiting) {
      // The waiter owns the request and may leave as soon as Done is set: touch it no more.
      request->Error = std::move(error);
      request->Done = true;
    } else {
      delete request;
    }
    q.Completed.notify_all();
  }
  return ran;
}

void TThread::Synchronize(TThread* AThread, TThreadMethod AMethod) {
  if (IsMainThread()) {
    if (AMethod) AMethod();
    return;
  }
  TSyncRequest request;
  request.Method = AMethod;
  request.Thread = AThread;
  request.Waiting = true;
  Post(&request);
  auto& q = SyncQueue();
  {
    std::unique_lock lock(q.Lock);
    q.Completed.wait(lock, [&] { return request.Done; });
  }
  if (request.Error) std::rethrow_exception(request.Error);
}

void TThread::Queue(TThread* AThread, TThreadMethod AMethod) {
  if (IsMainThread()) {
    if (AMethod) AMethod();
    return;
  }
  auto* request = new TSyncRequest;
  request->Method = AMethod;
  request->Thread = AThread;
  Post(request);
}

void TThread::RemoveQueuedEvents(TThread* AThread) {
  auto& q = SyncQueue();
  std::unique_lock lock(q.Lock);
  std::erase_if(q.Pending, [&](TSyncRequest* r) {
    if (r->Waiting || r->Thread != AThread) return false;
    delete r;
    return true;
  });
  if (q.Pending.empty()) q.Drain();
  // A queued method of the thread may be running on the main thread right now. On the main thread
  // it is further up this very stack (it frees its own thread), so only other threads wait.
  if (!IsMainThread()) q.Completed.wait(lock, [&] { return !q.IsRunning(AThread); });
}

void TThread::NameThreadForDebugging(std::string_view name) {
  std::string n(name.substr(0, 15));
  ::pthread_setname_np(::pthread_self(), n.c_str());
}

TThread* TThread::CurrentThread() noexcept { return tlsCurrentThread; }

// ---- TThread ----

TThread::TThread(bool CreateSuspended) : FCreateSuspended(CreateSuspended) {}

void TThread::Constructed() {
  TObject::Constructed();
  if (!FCreateSuspended && !Started()) Start();
}

void TThread::WaitUntilFinished() {
  // A worker that synchronises with a main thread waiting here would deadlock: keep servicing.
  auto& q = SyncQueue();
  if (IsMainThread()) {
    while (!Finished()) {
      CheckSynchronize();
      std::unique_lock lock(q.Lock);
      q.Arrived.wait(lock, [&] { return !q.Pending.empty() || Finished(); });
    }
  } else {
    std::unique_lock lock(q.Lock);
    q.Completed.wait(lock, [&] { return Finished(); });
  }
}

void TThread::BeforeDestruction() {
  // Execute must be over before any destructor runs, whichever thread frees. A thread that frees
  // itself (FreeOnTerminate) is past Execute already.
  if (FHandle.joinable() && FHandle.get_id() != std::this_thread::get_id()) {
    if (!Finished()) Terminate();
    WaitUntilFinished();
    FHandle.join();
  }
  RemoveQueuedEvents(this);
  TObject::BeforeDestruction();
}

TThread::~TThread() {
  // A thread that frees itself runs this on its own thread and is detached; BeforeDestruction has
  // joined every other started thread unless construction failed half-way.
  if (FHandle.joinable()) {
    if (FHandle.get_id() == std::this_thread::get_id()) {
      FHandle.detach();
    } else {
      FTerminated.store(true, std::memory_order_release);
      FHandle.join();
    }
  }
}

void TThread::Start() {
  if (FStarted.exchange(true, std::memory_order_acq_rel)) throw EThread(u"Cannot call Start on a running or suspended thread");
  // The worker waits at the gate until FHandle is stored: a thread that frees itself must not
  // finish before its handle exists. (A mutex rather than an atomic wait: libstdc++ 12's atomic
  // wait can lose a wake-up.)
  const std::lock_guard<std::mutex> gate(FGate);
  FHandle = std::thread(&TThread::ThreadProc, this);
}

void TThread::Terminate() {
  FTerminated.store(true, std::memory_order_release);
  TerminatedSet();
}

Integer TThread::WaitFor() {
  if (FFreeOnTerminate) throw EThread(u"Cannot call WaitFor on a FreeOnTerminate thread");
  if (Started()) {
    if (ThreadID() == std::this_thread::get_id()) throw EThread(u"Thread cannot wait for itself");
    WaitUntilFinished();
  }
  return FReturnValue;
}

void TThread::DoTerminate() {
  if (OnTerminate) Synchronize(this, TThreadMethod(+[](void* self) {
    auto* t = static_cast<TThread*>(self);
    t->OnTerminate(t);
  }, this));
}

void TThread::ThreadProc(TThread* self) {
  { const std::lock_guard<std::mutex> gate(self->FGate); }
  tlsCurrentThread = self;
  self->FThreadID.store(std::this_thread::get_id(), std::memory_order_release);
  try {
    if (!self->Terminated()) self->Execute();
  } catch (...) {
    self->FFatalException = std::current_exception();
  }
  const bool freeOnTerminate = self->FFreeOnTerminate;
  try {
    self->DoTerminate();
  } catch (...) {
    if (!self->FFatalException) self->FFatalException = std::current_exception();
  }
  tlsCurrentThread = nullptr;
  if (freeOnTerminate) {
    Free(self);
    return;
  }
  // Set under the queue's lock and announced through its condition variables, so that a waiter
  // cannot see the flag, free the object and leave us notifying through freed memory.
  auto& q = SyncQueue();
  {
    std::lock_guard lock(q.Lock);
    self->FFinished.store(true, std::memory_order_release);
  }
  q.Arrived.notify_all();
  q.Completed.notify_all();
}

}  // namespace quma
