#include <quma/CoreUtils.h>

#include <dirent.h>
#include <fcntl.h>
#include <linux/input.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

namespace quma {

Integer CountOfCharInString(WideChar c, UnicodeStringView s) noexcept {
  Integer n = 0;
  for (std::size_t i = s.size(); i-- > 0;)
    if (s[i] == c) ++n;
  return n;
}

namespace {
// Not guarded: racing first calls compute the same answer.
bool gByteOrderTested = false;
bool gBigEndian = false;
}  // namespace

bool CurrentPlatformIsBigEndian() noexcept {
  if (!std::atomic_ref<bool>(gByteOrderTested).load(std::memory_order_acquire)) {
    const Word probe = 1;
    Byte first;
    std::memcpy(&first, &probe, 1);
    std::atomic_ref<bool>(gBigEndian).store(first != 1, std::memory_order_relaxed);
    std::atomic_ref<bool>(gByteOrderTested).store(true, std::memory_order_release);
  }
  return std::atomic_ref<bool>(gBigEndian).load(std::memory_order_relaxed);
}

bool CurrentPlatformIsLittleEndian() noexcept { return !CurrentPlatformIsBigEndian(); }

// ---- key state ----

// The generic modifier codes map to the left-hand key, so IsKeyDown's second question for the
// right-hand key matters.
int LinuxKeyCode(Integer vk) noexcept {
  static constexpr std::array<unsigned short, 26> kLetters = {
      KEY_A, KEY_B, KEY_C, KEY_D, KEY_E, KEY_F, KEY_G, KEY_H, KEY_I, KEY_J, KEY_K, KEY_L, KEY_M,
      KEY_N, KEY_O, KEY_P, KEY_Q, KEY_R, KEY_S, KEY_T, KEY_U, KEY_V, KEY_W, KEY_X, KEY_Y, KEY_Z};
  static constexpr std::array<unsigned short, 10> kDigits = {KEY_0, KEY_1, KEY_2, KEY_3, KEY_4,
                                                             KEY_5, KEY_6, KEY_7, KEY_8, KEY_9};
  static constexpr std::array<unsigned short, 10> kNumpad = {KEY_KP0, KEY_KP1, KEY_KP2, KEY_KP3, KEY_KP4,
                                                             KEY_KP5, KEY_KP6, KEY_KP7, KEY_KP8, KEY_KP9};
  static constexpr std::array<unsigned short, 12> kFunction = {KEY_F1, KEY_F2, KEY_F3, KEY_F4,  KEY_F5,  KEY_F6,
                                                               KEY_F7, KEY_F8, KEY_F9, KEY_F10, KEY_F11, KEY_F12};
  if (vk >= 'A' && vk <= 'Z') return kLetters[static_cast<std::size_t>(vk - 'A')];
  if (vk >= '0' && vk <= '9') return kDigits[static_cast<std::size_t>(vk - '0')];
  if (vk >= 0x60 && vk <= 0x69) return kNumpad[static_cast<std::size_t>(vk - 0x60)];
  if (vk >= 0x70 && vk <= 0x7B) return kFunction[static_cast<std::size_t>(vk - 0x70)];
  switch (vk) {
    case 0x01: return BTN_LEFT;
    case 0x02: return BTN_RIGHT;
    case 0x04: return BTN_MIDDLE;
    case 0x08: return KEY_BACKSPACE;
    case 0x09: return KEY_TAB;
    case 0x0D: return KEY_ENTER;
    case VK_SHIFT: return KEY_LEFTSHIFT;
    case VK_CONTROL: return KEY_LEFTCTRL;
    case VK_MENU: return KEY_LEFTALT;
    case 0x13: return KEY_PAUSE;
    case 0x14: return KEY_CAPSLOCK;
    case 0x1B: return KEY_ESC;
    case 0x20: return KEY_SPACE;
    case 0x21: return KEY_PAGEUP;
    case 0x22: return KEY_PAGEDOWN;
    case 0x23: return KEY_END;
    case 0x24: return KEY_HOME;
    case 0x25: return KEY_LEFT;
    case 0x26: return KEY_UP;
    case 0x27: return KEY_RIGHT;
    case 0x28: return KEY_DOWN;
    case 0x2C: return KEY_SYSRQ;
    case 0x2D: return KEY_INSERT;
    case 0x2E: return KEY_DELETE;
    case 0x5B: return KEY_LEFTMETA;
    case 0x5C: return KEY_RIGHTMETA;
    case 0x6A: return KEY_KPASTERISK;
    case 0x6B: return KEY_KPPLUS;
    case 0x6D: return KEY_KPMINUS;
    case 0x6E: return KEY_KPDOT;
    case 0x6F: return KEY_KPSLASH;
    case 0x90: return KEY_NUMLOCK;
    case 0x91: return KEY_SCROLLLOCK;
    case VK_LSHIFT: return KEY_LEFTSHIFT;
    case VK_RSHIFT: return KEY_RIGHTSHIFT;
    case VK_LCONTROL: return KEY_LEFTCTRL;
    case VK_RCONTROL: return KEY_RIGHTCTRL;
    case VK_LMENU: return KEY_LEFTALT;
    case VK_RMENU: return KEY_RIGHTALT;
    default: return 0;
  }
}

namespace {

// Reads the pressed-key bitmaps of every readable evdev device (/dev/input/event*) with
// EVIOCGKEY. Devices are opened on first use and re-scanned when none could be opened; reading
// them needs the rights of the `input` group (or root), otherwise every key reads as up.
class TEvdevKeyStateProvider final : public IKeyStateProvider {
 public:
  ~TEvdevKeyStateProvider() override {
    for (int fd : FDevices) ::close(fd);
  }

  SmallInt GetAsyncKeyState(Integer nVirtualKey) override {
    const int code = LinuxKeyCode(nVirtualKey);
    if (code <= 0) return 0;
    std::lock_guard lock(FLock);
    if (FDevices.empty()) Scan();
    std::array<unsigned char, KEY_MAX / 8 + 1> bits{};
    for (int fd : FDevices) {
      bits.fill(0);
      if (::ioctl(fd, EVIOCGKEY(sizeof bits), bits.data()) < 0) continue;
      if (bits[static_cast<std::size_t>(code / 8)] & (1u << (code % 8))) return static_cast<SmallInt>(0x8000);
    }
    return 0;
  }

 private:
  void Scan() {
    DIR* dir = ::opendir("/dev/input");
    if (!dir) return;
    while (dirent* e = ::readdir(dir)) {
      if (std::strncmp(e->d_name, "event", 5) != 0) continue;
      const std::string path = std::string("/dev/input/") + e->d_name;
      const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
      if (fd < 0) continue;
      unsigned long evbits = 0;
      if (::ioctl(fd, EVIOCGBIT(0, sizeof evbits), &evbits) >= 0 && (evbits & (1ul << EV_KEY)))
        FDevices.push_back(fd);
      else
        ::close(fd);
    }
    ::closedir(dir);
  }

  std::mutex FLock;
  std::vector<int> FDevices;
};

std::mutex gProviderLock;
std::shared_ptr<IKeyStateProvider> gProvider;

}  // namespace

std::shared_ptr<IKeyStateProvider> DefaultKeyStateProvider() {
  static const std::shared_ptr<IKeyStateProvider> instance = std::make_shared<TEvdevKeyStateProvider>();
  return instance;
}

std::shared_ptr<IKeyStateProvider> SetKeyStateProvider(std::shared_ptr<IKeyStateProvider> provider) {
  std::lock_guard lock(gProviderLock);
  auto previous = gProvider ? gProvider : DefaultKeyStateProvider();
  gProvider = std::move(provider);
  return previous;
}

bool IsKeyDown(Integer nVirtualKey) {
  std::shared_ptr<IKeyStateProvider> provider;
  {
    std::lock_guard lock(gProviderLock);
    provider = gProvider;
  }
  if (!provider) provider = DefaultKeyStateProvider();
  auto down = [&](Integer vk) { return (static_cast<Word>(provider->GetAsyncKeyState(vk)) & 0xFF00) != 0; };
  if (down(nVirtualKey)) return true;
  switch (nVirtualKey) {
    case VK_SHIFT: return down(VK_RSHIFT);
    case VK_CONTROL: return down(VK_RCONTROL);
    case VK_MENU: return down(VK_RMENU);
    default: return false;
  }
}

}  // namespace quma
