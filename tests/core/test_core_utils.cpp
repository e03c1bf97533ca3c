#include <gtest/gtest.h>
#include <linux/input-event-codes.h>

#include <bit>
#include <limits>
#include <map>

#include <quma/CoreTypes.h>
#include <quma/CoreUtils.h>

using namespace quma;

TEST(Counters, WrapAroundAndConvertTheDeltaToTheVariablesWidth) {
  std::uint8_t u8 = 0;
  EXPECT_EQ(PostDec(u8), 0);
  EXPECT_EQ(PreInc(u8, 0x106), 5);  // from 255; 0x106 truncated to 8 bits is 6
  std::int8_t s8 = 127;
  EXPECT_EQ(PreInc(s8), -128);
  std::int16_t s16 = std::numeric_limits<std::int16_t>::min();
  EXPECT_EQ(PreDec(s16), 32767);
  EXPECT_EQ(PreInc(s16, 0x10001), -32768);
  std::uint16_t u16 = 65535;
  EXPECT_EQ(PostInc(u16), 65535);
  EXPECT_EQ(u16, 0);
  Integer s32 = std::numeric_limits<Integer>::max();
  EXPECT_EQ(PreInc(s32), std::numeric_limits<Integer>::min());
  EXPECT_EQ(PostDec(s32, 3), std::numeric_limits<Integer>::min());
  Cardinal u32 = 0;
  EXPECT_EQ(PreDec(u32), 0xFFFFFFFFu);
  UInt64 u64 = 0;
  EXPECT_EQ(PreDec(u64), ~UInt64{0});
  EXPECT_EQ(PreDec(u64, -1), 0u);  // a delta of -1 sign-extends, so subtracting it adds one
  Int64 s64 = 0;
  EXPECT_EQ(PreDec(s64, std::numeric_limits<Integer>::min()), Int64{1} << 31);
}

namespace {
class THolder : public TObject {
  QUMA_CLASS(THolder, TObject)
 public:
  void Handle(TObject*) {}
};

TEST(CoreUtils, CountOfCharByteOrderAndIsAssigned) {
  EXPECT_EQ(CountOfCharInString(u'a', u""), 0);
  EXPECT_EQ(CountOfCharInString(u'a', u"banana"), 3);
  EXPECT_EQ(CountOfCharInString(u'\xE9', u"\xE9t\xE9"), 2);
  EXPECT_EQ(CurrentPlatformIsBigEndian(), std::endian::native == std::endian::big);
  EXPECT_EQ(CurrentPlatformIsLittleEndian(), std::endian::native == std::endian::little);
  // IsAssigned looks at the object half only.
  TObjectPtr<THolder> holder = MakeObject<THolder>();
  TNotifyEvent bound = Bind<&THolder::Handle>(holder.get());
  EXPECT_TRUE(IsAssigned(&bound));
  TNotifyEvent codeOnly = Bind<&THolder::Handle>(static_cast<THolder*>(nullptr));
  EXPECT_TRUE(static_cast<bool>(codeOnly));  // the code half is set...
  EXPECT_FALSE(IsAssigned(&codeOnly));       // ...but without an object it counts as unassigned
  EXPECT_FALSE(IsAssigned(TNotifyEvent()));
  EXPECT_FALSE(IsAssigned(static_cast<const TNotifyEvent*>(nullptr)));
}

class TFakeKeys final : public IKeyStateProvider {
 public:
  std::map<Integer, SmallInt> State;
  std::vector<Integer> Asked;
  SmallInt GetAsyncKeyState(Integer vk) override {
    Asked.push_back(vk);
    auto it = State.find(vk);
    return it == State.end() ? 0 : it->second;
  }
};

TEST(IsKeyDown, HighByteMeansDownAndGenericModifiersFallBackToTheRightHandKey) {
  auto keys = std::make_shared<TFakeKeys>();
  SetKeyStateProvider(keys);
  keys->State['A'] = static_cast<SmallInt>(0x8000);
  keys->State['B'] = 0x0100;  // any bit of the high byte
  keys->State['C'] = 0x0001;  // "pressed since last call" bit only: not down
  for (Integer vk : {VK_RSHIFT, VK_RCONTROL, VK_RMENU}) keys->State[vk] = static_cast<SmallInt>(0x8000);
  for (Integer vk : {Integer('A'), Integer('B'), VK_SHIFT, VK_CONTROL, VK_MENU}) EXPECT_TRUE(IsKeyDown(vk)) << vk;
  keys->Asked.clear();
  EXPECT_FALSE(IsKeyDown('C'));
  EXPECT_EQ(keys->Asked, std::vector<Integer>{'C'});  // other keys are asked once
  // Whatever the machine's input devices, the real source answers; keys without a Linux
  // equivalent read as up.
  EXPECT_EQ(SetKeyStateProvider(nullptr), keys);  // hands back the one it replaces
  EXPECT_FALSE(IsKeyDown(0xFF));
  EXPECT_EQ(DefaultKeyStateProvider()->GetAsyncKeyState(0xFF), 0);
}

TEST(IsKeyDown, LinuxKeyCodesAtTheEdgesOfEachRange) {
  const Integer keys[] = {'A',       'Z',      '0', '9', 0x60, 0x69, 0x70, 0x7B, 0x01, VK_SHIFT,
                          VK_RSHIFT, VK_RMENU, '/', ':', '@',  '[',  0x7C, 0xFF, -1};
  const int codes[] = {
      KEY_A,          KEY_Z,        KEY_0, KEY_9, KEY_KP0, KEY_KP9,      KEY_F1, KEY_F12, BTN_LEFT, KEY_LEFTSHIFT,
      KEY_RIGHTSHIFT, KEY_RIGHTALT, 0,     0,     0,       KEY_LEFTMETA, 0,      0,       0};
  static_assert(std::size(keys) == std::size(codes));
  for (std::size_t i = 0; i < std::size(keys); ++i) EXPECT_EQ(LinuxKeyCode(keys[i]), codes[i]) << keys[i];
}

TEST(LocatedException, CarriesLocationApartFromMessage) {
  const int line = __LINE__ + 2;
  try {
    QUMA_RAISE_LOCATED("from the macro");
    ADD_FAILURE() << "nothing was raised";
  } catch (const EQUMACodeLocatedException& e) {
    EXPECT_STREQ(e.what(), "from the macro");
    EXPECT_TRUE(e.UnitName().ends_with(u"test_core_utils.cpp"));
    EXPECT_EQ(e.RoutineName(), u"TestBody");
    EXPECT_EQ(e.LineNumber(), line);
  }
}

}  // namespace
