// TQUMA_Uuid: a 128-bit identifier held as sixteen bytes in network (big-endian) order, with
// field views, GUID conversions, a stable 32-bit hash and a family of text and byte forms.
//
//   auto id = TQUMA_Uuid::Create(u"6ba7b810-9dad-11d1-80b4-00c04fd430c8");
//   id.Format(u"ms");         // "{6BA7B810-9DAD-11D1-80B4-00C04FD430C8}"
//   TQUMA_Uuid r;  r.Randomise();   // a random version-4 value
//
// Ordering: the relational operators test every byte (Left < Right only when each byte of Left
// is below the same byte of Right), so they are not an order; Compare, std::less<TQUMA_Uuid> and
// std::hash<TQUMA_Uuid> make the type usable as a key of the standard containers.
#pragma once

#include <quma/Export.h>

#include <array>
#include <compare>
#include <concepts>
#include <cstddef>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include <quma/System.h>
#include <quma/Variants.h>

QUMA_PUBLIC_BEGIN
namespace quma {

// Texts raised as EConvertError (EArgumentOutOfRangeException for the node index).
inline constexpr char16_t SUuidUnrecognisedFormat[] = u"Unrecognised Format";
inline constexpr char16_t SUuidInvalidStandard[] = u"Invalid format for Standard Uuid";
inline constexpr char16_t SUuidInvalidMS[] = u"Invalid format for MS Styler Uuid";
inline constexpr char16_t SUuidInvalidHex[] = u"Invalid format for Hex Uuid";
inline constexpr char16_t SUuidInvalidJHash[] = u"Invalid format for JHash Uuid";
inline constexpr char16_t SUuidBase64Size[] = u"Base64 encoded Uuid did not give 16 bytes of data";
inline constexpr char16_t SUuidBase64Character[] = u"Invalid character found in Base64 encoded data";
inline constexpr char16_t SUuidInvalidHexCharacter[] = u"Invalid hex character encountered";
inline constexpr char16_t SUuidVariantText[] = u"Unable to interpret Variant text as Uuid";
inline constexpr char16_t SUuidNodeIndex[] = u"%d is invalid (should be between 0 and 5)";

struct TQUMA_Uuid;
using PQUMA_UUID = TQUMA_Uuid*;

struct TQUMA_Uuid {
  Byte _baUuid[16];  // the value, network order; no other state

  // The zero value.
  constexpr TQUMA_Uuid() noexcept : _baUuid{} {}
  // From a platform GUID (through _SetAsGuid, so TimeLow stays 0: see _SetAsGuid).
  TQUMA_Uuid(const TGUID& Guid) noexcept : _baUuid{} { _SetAsGuid(Guid); }
  // Assigning a GUID keeps the target's TimeLow (bytes 0..3).
  TQUMA_Uuid& operator=(const TGUID& Guid) noexcept {
    _SetAsGuid(Guid);
    return *this;
  }
  // The sixteen bytes as they are (network order).
  constexpr explicit TQUMA_Uuid(const std::array<Byte, 16>& Bytes) noexcept
      : _baUuid{Bytes[0], Bytes[1], Bytes[2],  Bytes[3],  Bytes[4],  Bytes[5],  Bytes[6],  Bytes[7],
                Bytes[8], Bytes[9], Bytes[10], Bytes[11], Bytes[12], Bytes[13], Bytes[14], Bytes[15]} {}
  TQUMA_Uuid(const TQUMA_Uuid&) noexcept = default;
  TQUMA_Uuid& operator=(const TQUMA_Uuid&) noexcept = default;
  operator TGUID() const noexcept { return _GetAsGuid(); }

  // ---- constructors ----
  // Text in any form _ReadFormattedUuid recognises (the length counts up to the first zero unit).
  static TQUMA_Uuid Create(UnicodeStringView szSource);
  static TQUMA_Uuid Create(const char16_t* pszSource);  // zero-terminated; nullptr reads as empty
  static TQUMA_Uuid Create(std::string_view szSource);  // UTF-8
  // Sixteen bytes at pBytes, not checked.
  static TQUMA_Uuid Create(const Byte* pBytes) noexcept;
  // true: the zero value. false: seeds the runtime's general generator (Randomize) and returns
  // the new value without filling it (zero here): call Randomise for a random identifier.
  template <std::same_as<bool> B>
  static TQUMA_Uuid Create(B blZeroed) noexcept {
    return CreateZeroed(blZeroed);
  }
  static TQUMA_Uuid Create(const TQUMA_Uuid& Other) noexcept { return Other; }

  // ---- versions (RFC 9562) ----
  // Version 4: random, as Randomise (zero when the kernel has no random bytes).
  static TQUMA_Uuid CreateV4() noexcept;
  // Version 7: the Unix time in milliseconds (48 bits), version and variant, then a 42-bit counter
  // and 32 random bits. The counter starts at a random value below 2^41 in each new millisecond
  // and counts up within it, under one process-wide lock, so the values one process makes sort
  // (Compare, std::less) in the order they were made, on every thread. Random bits come from
  // getrandom(2); without them the counter starts at zero and the tail is zero.
  static TQUMA_Uuid CreateV7() noexcept;
  // Version 5: SHA-1 of the namespace's sixteen bytes followed by the name, cut to sixteen bytes,
  // version and variant set. Text names are hashed as UTF-8 (a UTF-16 name is converted first).
  static TQUMA_Uuid CreateV5(const TQUMA_Uuid& Namespace, std::span<const Byte> Name) noexcept;
  static TQUMA_Uuid CreateV5(const TQUMA_Uuid& Namespace, std::string_view Name) noexcept;
  static TQUMA_Uuid CreateV5(const TQUMA_Uuid& Namespace, UnicodeStringView Name);
  // The Unix time in milliseconds of a version-7 value (version 7, RFC variant); nullopt for
  // any other value.
  std::optional<Int64> V7UnixMilliseconds() const noexcept;

  // Non-throwing readers for untrusted text: nullopt where the throwing reader would raise.
  // TryParse takes every form of _ReadFormattedUuid, TryParseText the printable ones only.
  static std::optional<TQUMA_Uuid> TryParse(UnicodeStringView szSource) noexcept;
  static std::optional<TQUMA_Uuid> TryParse(std::string_view szSource) noexcept;
  static std::optional<TQUMA_Uuid> TryParseText(UnicodeStringView szSource) noexcept;
  static std::optional<TQUMA_Uuid> TryParseText(std::string_view szSource) noexcept;

  // ---- methods ----
  void Zero() noexcept;
  // A random version-4 value from CreateGUID; unchanged when the system has no random bytes.
  void Randomise() noexcept;
  // Jenkins' lookup2 over the sixteen bytes, initial value 0. Stable across runs and machines.
  Cardinal JHash() const noexcept;
  // -1, 0 or 1 by the first differing byte (unsigned): the order of the standard text.
  static Integer Compare(const TQUMA_Uuid& Left, const TQUMA_Uuid& Right) noexcept;

  // Text forms by name (ASCII case ignored): "ms"/"microsoft", "base64"/"base.64"/"base:64"/
  // "base::64", "hex"/"dbhex"/"base16"/"base.16"/"base:16"/"base::16", "mysql"/"binary",
  // "jhashpath"; anything else gives the standard form (or the internal reference form for
  // values whose bytes begin with the UTF-16 text "QUM").
  UnicodeString Format(UnicodeStringView szFormat = {}) const;
  UnicodeString Format(std::string_view szFormat) const;
  // The same text in UTF-8 (code units that are not characters, as in the binary form, become
  // U+FFFD).
  std::string FormatUtf8(std::string_view szFormat = {}) const;

  // The same texts written into a caller's buffer, without allocating (a fixed array converts to
  // the span). Returns the number of units (bytes) written, or 0 when the text does not fit, in
  // which case nothing is written. No terminator is added. A buffer of MaxTextLength units
  // (MaxUtf8TextLength bytes) holds every form: the UTF-8 text of the binary form and of an
  // internal reference is longer than its UTF-16 text.
  static constexpr std::size_t MaxTextLength = 38;
  static constexpr std::size_t MaxUtf8TextLength = 52;
  std::size_t FormatTo(std::span<char16_t> Buffer, UnicodeStringView szFormat = {}) const noexcept;
  std::size_t FormatTo(std::span<char16_t> Buffer, std::string_view szFormat) const noexcept;
  std::size_t FormatTo(std::span<char> Buffer, std::string_view szFormat = {}) const noexcept;

  // The text for a std::format-style format code: "" or "D" the default form (as Format()), "B" braced
  // upper case (the "ms" form), "N" 32 digits (the "hex" form). Any other format code raises
  // EConvertError "Unrecognised Format". FormatSpecTo returns 0 when Buffer is too small.
  std::string FormatSpec(std::string_view Spec) const;
  std::size_t FormatSpecTo(std::span<char> Buffer, std::string_view Spec) const;

  // Variant input: byte arrays, empty/null (zero), OLE and 8-bit strings; false for other types.
  bool TrySetAsVariant(const Variant& NewValue);

  // ---- readers (true on success; failures raise EConvertError) ----
  bool _ReadFormattedUuid(const char16_t* pszUuid);
  bool _ReadFormattedUuid(UnicodeStringView szUuid);
  bool _ReadFormattedUuid(std::string_view szUuid);
  bool _ReadTextFormattedUuid(const char16_t* pszUuid);
  bool _ReadTextFormattedUuid(UnicodeStringView szUuid);
  bool _ReadTextFormattedUuid(std::string_view szUuid);
  // Single forms; each also takes a UTF-16 view and UTF-8 text.
#define QUMA_UUID_SINGLE_READER(Name)           \
  bool Name(const char16_t* pszUuid);           \
  bool Name(UnicodeStringView szUuid);          \
  bool Name(std::string_view szUuid);
  QUMA_UUID_SINGLE_READER(_ReadStandardFormattedUuid)
  QUMA_UUID_SINGLE_READER(_ReadMSFormattedUuid)
  QUMA_UUID_SINGLE_READER(_ReadBase16FormattedUuid)
  QUMA_UUID_SINGLE_READER(_ReadBase64FormattedUuid)
  QUMA_UUID_SINGLE_READER(_ReadJHashpathFormattedUuid)
  QUMA_UUID_SINGLE_READER(_ReadBinaryFormattedUuid)
  QUMA_UUID_SINGLE_READER(_ReadWideCharFormattedUuid)
#undef QUMA_UUID_SINGLE_READER

  // ---- properties ----
  TBytes _GetAsBytes() const;
  TGUID _GetAsGuid() const noexcept;
  UnicodeString _GetAsString() const;
  Variant _GetAsVariant() const;
  Byte _GetClockSequenceHighAndVariant() const noexcept { return _baUuid[8]; }
  Byte _GetClockSequenceLow() const noexcept { return _baUuid[9]; }
  bool _GetIsZero() const noexcept;
  Byte _GetNode(Integer nIndex) const;  // EArgumentOutOfRangeException outside 0..5
  Cardinal _GetTimeLow() const noexcept {
    return (Cardinal{_baUuid[0]} << 24) | (Cardinal{_baUuid[1]} << 16) | (Cardinal{_baUuid[2]} << 8) | _baUuid[3];
  }
  Word _GetTimeMid() const noexcept { return static_cast<Word>((_baUuid[4] << 8) | _baUuid[5]); }
  Word _GetTimeHighAndVersion() const noexcept { return static_cast<Word>((_baUuid[6] << 8) | _baUuid[7]); }
  Byte _GetVariant() const noexcept { return static_cast<Byte>((_baUuid[8] & 0xE0) >> 5); }
  Byte _GetVersion() const noexcept { return static_cast<Byte>(_GetTimeHighAndVersion() >> 12); }

  // Copies the first sixteen bytes (an array of fewer bytes fills only as many).
  void _SetAsBytes(std::span<const Byte> NewValue) noexcept;
  // Writes TimeHighAndVersion from the low half of D1, then TimeMid from D2, TimeHighAndVersion
  // again from D3 and bytes 8..15 from D4: TimeLow is never written, so a GUID round trip keeps
  // D2, D3 and D4 but not D1.
  void _SetAsGuid(const TGUID& NewValue) noexcept;
  // The raw form: eight code units, unit k = byte 2k + 256 * byte 2k+1. A shorter string is
  // ignored.
  void _SetAsString(UnicodeStringView NewValue) noexcept;
  // Raises what the text reader raises for string variants; other types are ignored.
  void _SetAsVariant(const Variant& NewValue);
  void _SetClockSequenceHighAndVariant(Byte nNewValue) noexcept { _baUuid[8] = nNewValue; }
  void _SetClockSequenceLow(Byte nNewValue) noexcept { _baUuid[9] = nNewValue; }
  void _SetNode(Integer nIndex, Byte nNewValue) noexcept {  // other indexes are ignored
    if (nIndex >= 0 && nIndex < 6) _baUuid[10 + nIndex] = nNewValue;
  }
  void _SetTimeLow(Cardinal nNewValue) noexcept;
  void _SetTimeMid(Word nNewValue) noexcept;
  void _SetTimeHighAndVersion(Word nNewValue) noexcept;
  // Clears the top three bits of byte 8 and sets none: the new value's bits are shifted out.
  void _SetVariant(Byte nNewValue) noexcept;
  void _SetVersion(Byte nNewValue) noexcept;  // the low nibble of the value

  // Read-only spellings of the properties (the Variant property is _GetVariant).
  bool IsZero() const noexcept { return _GetIsZero(); }
  Byte Version() const noexcept { return _GetVersion(); }
  Cardinal TimeLow() const noexcept { return _GetTimeLow(); }
  Word TimeMid() const noexcept { return _GetTimeMid(); }
  Word TimeHighAndVersion() const noexcept { return _GetTimeHighAndVersion(); }
  Byte ClockSequenceHighAndVariant() const noexcept { return _GetClockSequenceHighAndVariant(); }
  Byte ClockSequenceLow() const noexcept { return _GetClockSequenceLow(); }
  Byte Node(Integer nIndex) const { return _GetNode(nIndex); }
  TBytes AsBytes() const { return _GetAsBytes(); }
  TGUID AsGuid() const noexcept { return _GetAsGuid(); }
  UnicodeString AsString() const { return _GetAsString(); }
  Variant AsVariant() const { return _GetAsVariant(); }

  // ---- operators ----
  friend QUMA_API bool operator==(const TQUMA_Uuid& Left, const TQUMA_Uuid& Right) noexcept;
  // Element-wise: true only when the relation holds for all sixteen byte pairs.
  friend QUMA_API bool operator>(const TQUMA_Uuid& Left, const TQUMA_Uuid& Right) noexcept;
  friend QUMA_API bool operator>=(const TQUMA_Uuid& Left, const TQUMA_Uuid& Right) noexcept;
  friend QUMA_API bool operator<(const TQUMA_Uuid& Left, const TQUMA_Uuid& Right) noexcept;
  friend QUMA_API bool operator<=(const TQUMA_Uuid& Left, const TQUMA_Uuid& Right) noexcept;

 private:
  static TQUMA_Uuid CreateZeroed(bool blZeroed) noexcept;
};

static_assert(sizeof(TQUMA_Uuid) == 16);

// The name spaces of RFC 9562 (section 6.6) for version-5 values.
inline constexpr TQUMA_Uuid QUMAUuidNamespaceDNS{
    std::array<Byte, 16>{0x6b, 0xa7, 0xb8, 0x10, 0x9d, 0xad, 0x11, 0xd1, 0x80, 0xb4, 0x00, 0xc0, 0x4f, 0xd4, 0x30, 0xc8}};
inline constexpr TQUMA_Uuid QUMAUuidNamespaceURL{
    std::array<Byte, 16>{0x6b, 0xa7, 0xb8, 0x11, 0x9d, 0xad, 0x11, 0xd1, 0x80, 0xb4, 0x00, 0xc0, 0x4f, 0xd4, 0x30, 0xc8}};
inline constexpr TQUMA_Uuid QUMAUuidNamespaceOID{
    std::array<Byte, 16>{0x6b, 0xa7, 0xb8, 0x12, 0x9d, 0xad, 0x11, 0xd1, 0x80, 0xb4, 0x00, 0xc0, 0x4f, 0xd4, 0x30, 0xc8}};
inline constexpr TQUMA_Uuid QUMAUuidNamespaceX500{
    std::array<Byte, 16>{0x6b, 0xa7, 0xb8, 0x14, 0x9d, 0xad, 0x11, 0xd1, 0x80, 0xb4, 0x00, 0xc0, 0x4f, 0xd4, 0x30, 0xc8}};
static_assert(std::is_trivially_copyable_v<TQUMA_Uuid>);

}  // namespace quma

template <>
struct std::hash<quma::TQUMA_Uuid> {
  std::size_t operator()(const quma::TQUMA_Uuid& u) const noexcept { return u.JHash(); }
};

// std::format("{:B}", id) where the standard library has <format> (g++ 13 and later; g++ 12 has
// none, and there FormatSpec is the same thing). Specs as FormatSpec; char output only.
#if __has_include(<format>)
#include <format>
#endif
#if defined(__cpp_lib_format)
template <>
struct std::formatter<quma::TQUMA_Uuid, char> {
  constexpr auto parse(std::format_parse_context& ctx) {
    auto it = ctx.begin();
    if (it != ctx.end() && *it != '}') {
      if (*it != 'D' && *it != 'B' && *it != 'N') throw std::format_error("Unrecognised Format");
      FSpec = *it++;
    }
    if (it != ctx.end() && *it != '}') throw std::format_error("Unrecognised Format");
    return it;
  }
  template <class FormatContext>
  auto format(const quma::TQUMA_Uuid& u, FormatContext& ctx) const {
    char text[quma::TQUMA_Uuid::MaxUtf8TextLength];
    const std::size_t n = u.FormatSpecTo(text, std::string_view(&FSpec, FSpec ? 1 : 0));
    return std::copy(text, text + n, ctx.out());
  }

 private:
  char FSpec = 0;
};
#endif

// Ordered containers sort by Compare (the order of the standard text), not by the element-wise
// operator<.
template <>
struct std::less<quma::TQUMA_Uuid> {
  bool operator()(const quma::TQUMA_Uuid& a, const quma::TQUMA_Uuid& b) const noexcept {
    return quma::TQUMA_Uuid::Compare(a, b) < 0;
  }
};
QUMA_PUBLIC_END
