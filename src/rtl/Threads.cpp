#include <quma/Threads.h>

#include <pthread.h>
#include <time.h>

#include <deque>
#include <string>

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
  bool Waiting = false;  // Synchronize (true) or Queue (false)
  bool Done = false;
  std::exception_ptr Error;
};

struct TSyncQueue {
  std::mutex Lock;
  std::condition_variable Arrived;    // the main thread waits for requests
  std::condition_variable Completed;  // workers wait for their request
  // Synchronize requests live on the waiting thread's stack; queued ones are owned by the queue.
  std::deque<TSyncRequest*> Pending;
  TNotifyEvent WakeHook;
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

void SetWakeMainThread(TNotifyEvent hook) {
  auto& q = SyncQueue();
  std::lock_guard lock(q.Lock);
  q.WakeHook = hook;
}

bool CheckSynchronize(Cardinal Timeout) {
  auto& q = SyncQueue();
  std::deque<TSyncRequest*> batch;
  {
    std::unique_lock lock(q.Lock);
    if (q.Pending.empty() && Timeout > 0) {
      auto ready = [&] { return !q.Pending.empty(); };
      if (Timeout == INFINITE)
        q.Arrived.wait(lock, ready);
      else
        q.Arrived.wait_for(lock, std::chrono::milliseconds(Timeout), ready);
    }
    batch.swap(q.Pending);
  }
  const bool ran = !batch.empty();
  for (TSyncRequest* request : batch) {
    try {
      if (request->Method) request->Method();
    } catch (...) {
      if (request->Waiting) request->Error = std::current_exception();
      // A queued call has nobody to report to; its exception is dropped.
    }
    if (request->Waiting) {
      // The waiter owns the request and may leave as soon as Done is set: touch it no more.
      std::lock_guard lock(q.Lock);
      request->Done = true;
    } else {
      delete request;
    }
  }
  if (ran) q.Completed.notify_all();
  return ran;
}

void TThread::Synchronize(TThread*, TThreadMethod AMethod) {
  if (IsMainThread()) {
    if (AMethod) AMethod();
    return;
  }
  TSyncRequest request;
  request.Method = AMethod;
  request.Waiting = true;
  Post(&request);
  auto& q = SyncQueue();
  {
    std::unique_lock lock(q.Lock);
    q.Completed.wait(lock, [&] { return request.Done; });
  }
  if (request.Error) std::rethrow_exception(request.Error);
}

void TThread::Queue(TThread*, TThreadMethod AMethod) {
  if (IsMainThread()) {
    if (AMethod) AMethod();
    return;
  }
  auto* request = new TSyncRequest;
  request->Method = AMethod;
  Post(request);
}

void TThread::NameThreadForDebugging(std::string_view name) {
  std::string n(name.substr(0, 15));
  ::pthread_setname_np(::pthread_self(), n.c_str());
}

TThread* TThread::CurrentThread() noexcept { return tlsCurrentThread; }

// ---- TThread ----

TThread::TThread(bool CreateSuspended) : FCreateSuspended(CreateSuspended) {}

void TThread::AfterConstruction() {
  TObject::AfterConstruction();
  if (!FCreateSuspended) Start();
}

void TThread::BeforeDestruction() {
  if (FHandle.joinable() && FHandle.get_id() != std::this_thread::get_id() && !Finished()) {
    Terminate();
    if (IsMainThread())
      while (!Finished()) CheckSynchronize(5);
  }
  TObject::BeforeDestruction();
}

TThread::~TThread() {
  // A thread that frees itself runs this on its own thread and is detached; anyone else waits.
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
  // finish before its handle exists.
  FHandle = std::thread(&TThread::ThreadProc, this);
  FGate.store(true, std::memory_order_release);
  FGate.notify_one();
}

void TThread::Terminate() {
  FTerminated.store(true, std::memory_order_release);
  TerminatedSet();
}

Integer TThread::WaitFor() {
  if (FFreeOnTerminate) throw EThread(u"Cannot call WaitFor on a FreeOnTerminate thread");
  if (FHandle.joinable()) {
    if (FHandle.get_id() == std::this_thread::get_id()) throw EThread(u"Thread cannot wait for itself");
    // A worker that synchronises with a main thread waiting here would deadlock: keep servicing.
    if (IsMainThread()) {
      while (!FFinished.load(std::memory_order_acquire)) CheckSynchronize(5);
    }
    FHandle.join();
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
  self->FGate.wait(false, std::memory_order_acquire);
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
  self->FFinished.store(true, std::memory_order_release);
  tlsCurrentThread = nullptr;
  if (freeOnTerminate) Free(self);
}

}  // namespace quma
