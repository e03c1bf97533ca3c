// A main loop built on epoll that services the main-thread queue: one watch on SyncEventFd(),
// CheckSynchronize() when it fires. Foreground callbacks queued from a worker thread run here, on
// the main thread, in due order; the last one ends the loop.
#include <sys/epoll.h>
#include <unistd.h>

#include <cstdio>
#include <thread>

#include <quma/ForegroundSyncThread.h>

using namespace quma;

namespace {

class TApp : public TObject {
  QUMA_CLASS(TApp, TObject)
 public:
  bool Running = true;
  void Say(TObject* payload) {
    std::printf("%s on the %s thread\n", static_cast<TApp*>(payload) == this ? "last callback" : "callback",
                IsMainThread() ? "main" : "other");
  }
  void Quit(TObject* payload) {
    Say(payload);
    Running = false;
  }
};

}  // namespace

int main() {
  TApp app;
  const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
  epoll_event watch{};
  watch.events = EPOLLIN;
  watch.data.fd = SyncEventFd();
  ::epoll_ctl(epoll, EPOLL_CTL_ADD, SyncEventFd(), &watch);

  std::thread producer([&] {
    using namespace std::chrono_literals;
    QUMAQueueForegroundCallback(Bind<&TApp::Quit>(&app), &app, 60ms);
    QUMAQueueForegroundCallback(Bind<&TApp::Say>(&app), nullptr, 20ms);
    QUMAQueueForegroundCallback(Bind<&TApp::Say>(&app), nullptr, 0ms);
  });

  while (app.Running) {
    epoll_event ready[4];
    const int n = ::epoll_wait(epoll, ready, 4, 1000);  // other watches would be served here too
    for (int i = 0; i < n; ++i)
      if (ready[i].data.fd == SyncEventFd()) CheckSynchronize();
  }
  producer.join();
  ::close(epoll);
  return 0;
}
