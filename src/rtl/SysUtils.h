// The exception hierarchy of the runtime base layer. Messages are UTF-16 (Message()); what()
// gives the same text in UTF-8. Each class reports its own name through ClassName().
#pragma once

#include <quma/Export.h>

#include <exception>
#include <string>
#include <string_view>

#include <quma/Strings.h>
#include <quma/System.h>

QUMA_PUBLIC_BEGIN
namespace quma {

class Exception : public std::exception {
 public:
  explicit Exception(UnicodeString message) : FMessage(std::move(message)), FWhat(Utf16ToUtf8(FMessage)) {}
  explicit Exception(std::string_view message) : FMessage(Utf8ToUtf16(message)), FWhat(message) {}
  explicit Exception(const char* message) : Exception(std::string_view(message)) {}
  explicit Exception(const char16_t* message) : Exception(UnicodeString(message)) {}
  ~Exception() override = default;

  const UnicodeString& Message() const noexcept { return FMessage; }
  void SetMessage(UnicodeString message) {
    FWhat = Utf16ToUtf8(message);
    FMessage = std::move(message);
  }
  const char* what() const noexcept override { return FWhat.c_str(); }
  virtual UnicodeString ClassName() const { return u"Exception"; }

 private:
  UnicodeString FMessage;
  std::string FWhat;
};

// Declares an exception class that only adds its name to its parent.
#define QUMA_DECLARE_EXCEPTION(Name, Parent)                                                \
  class Name : public Parent {                                                              \
   public:                                                                                  \
    using Parent::Parent;                                                                   \
    ::quma::UnicodeString ClassName() const override { return QUMA_U16_STRINGIFY(Name); } \
  }

QUMA_DECLARE_EXCEPTION(EConvertError, Exception);            // every parse or decode failure
QUMA_DECLARE_EXCEPTION(EArgumentException, Exception);
QUMA_DECLARE_EXCEPTION(EArgumentOutOfRangeException, EArgumentException);  // bad indexes
QUMA_DECLARE_EXCEPTION(EIntError, Exception);
QUMA_DECLARE_EXCEPTION(EDivByZero, EIntError);
QUMA_DECLARE_EXCEPTION(EEncodingError, Exception);
QUMA_DECLARE_EXCEPTION(EInvalidOperation, Exception);
QUMA_DECLARE_EXCEPTION(ENotSupportedException, Exception);
QUMA_DECLARE_EXCEPTION(EInvalidPointer, Exception);

// A list error that knows the offending index ("List index out of bounds (%d)").
class EListError : public Exception {
 public:
  EListError(UnicodeString message, Integer index = -1) : Exception(std::move(message)), FIndex(index) {}
  Integer Index() const noexcept { return FIndex; }
  UnicodeString ClassName() const override { return u"EListError"; }
  static EListError OutOfBounds(Integer index);

 private:
  Integer FIndex;
};

class EStringListError : public EListError {
 public:
  using EListError::EListError;
  UnicodeString ClassName() const override { return u"EStringListError"; }
};

// Texts of the host runtime, shared by every unit that raises these errors.
inline constexpr char16_t SArgumentOutOfRange[] = u"Argument out of range";
inline constexpr char16_t SListIndexError[] = u"List index out of bounds (%d)";
inline constexpr char16_t SAssignError[] = u"Cannot assign a %s to a %s";
inline constexpr char16_t SInvalidInteger[] = u"'%s' is not a valid integer value";
inline constexpr char16_t SInvalidFormat[] = u"Format '%s' invalid or incompatible with argument";
inline constexpr char16_t SDivByZero[] = u"Division by zero";
inline constexpr char16_t SDuplicateItem[] = u"Duplicates not allowed";
inline constexpr char16_t SItemNotFound[] = u"Item not found";
inline constexpr char16_t SUnbalancedOperation[] = u"Unbalanced stack or queue operation";

}  // namespace quma
QUMA_PUBLIC_END
