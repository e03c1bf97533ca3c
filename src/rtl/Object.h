// The root object model: two-phase construction and destruction, run-time class references with
// virtual constructors, class tests, and a lazily created re-entrant monitor on every object.
//
//   auto* p = quma::New<TFoo>(args...);   // constructor, then AfterConstruction()
//   quma::Free(p);                        // BeforeDestruction(), then the destructors
//
// Every class derived from TObject names itself with QUMA_CLASS(Self, Parent) inside its body.
// That gives it a TClassInfo (name, parent, virtual constructor) and makes ClassType() answer the
// run-time class. A hierarchy that wants a virtual constructor declares the argument list once
// with QUMA_VIRTUAL_CONSTRUCTOR(args...) in its base; every descendant that is constructible with
// those arguments (inheriting constructors is enough) can then be created through its class.
#pragma once

#include <quma/Export.h>

#include <atomic>
#include <memory>
#include <tuple>
#include <typeinfo>
#include <tuple>
#include <utility>

#include <quma/System.h>

QUMA_PUBLIC_BEGIN
namespace quma {

class TObject;
class TRecursiveLock;
class TClassInfo;
using TClass = const TClassInfo*;

namespace detail {
template <class T, class Args>
struct VirtualFactory {
  static TObject* Create(const void* packedArgs);
};
template <class T>
concept HasVirtualCtor = requires { typename T::VirtualCtorArgs; };
template <class T>
struct CtorArity {};
template <class... A>
struct CtorArity<std::tuple<A...>> {
  // A new-expression, not is_constructible: the latter also wants a public destructor, which
  // object-model classes may hide.
  template <class T>
  static constexpr bool Constructible = requires(A... a) { new T(a...); };
};
}  // namespace detail

// Run-time class information: one static instance per class.
class TClassInfo {
 public:
  using TFactory = TObject* (*)(const void* packedArgs);
  constexpr TClassInfo(const char16_t* name, TClass (*parent)() noexcept, const std::type_info* type,
                       TFactory factory, const std::type_info* factoryArgs) noexcept
      : FName(name), FParent(parent), FType(type), FFactory(factory), FFactoryArgs(factoryArgs) {}

  const char16_t* Name() const noexcept { return FName; }
  UnicodeString ClassName() const { return FName; }
  TClass ClassParent() const noexcept { return FParent ? FParent() : nullptr; }
  const std::type_info& TypeInfo() const noexcept { return *FType; }
  bool InheritsFrom(TClass other) const noexcept {
    for (TClass c = this; c; c = c->ClassParent())
      if (c == other) return true;
    return false;
  }

  // Virtual constructor: creates an instance of exactly this class with the argument list that
  // Base declared. Returns nullptr when this class cannot be created that way (abstract, or
  // not constructible with the arguments).
  template <class Base, class... A>
  Base* Create(A&&... args) const;

  template <class Self, class Parent>
  static constexpr TClassInfo Make(const char16_t* name) noexcept;

 private:
  const char16_t* FName;
  TClass (*FParent)() noexcept;        // Parent::StaticClass; a function keeps this constexpr
  const std::type_info* FType;
  TFactory FFactory;                   // VirtualFactory<Self, Args>::Create
  const std::type_info* FFactoryArgs;  // typeid(std::tuple<Args...>) the factory unpacks
};

// Declares the class in the object model. Parent may contain commas (templates).
#define QUMA_CLASS(Self, ...)                                                                    \
 public:                                                                                         \
  using inherited = __VA_ARGS__;                                                                 \
  using ThisClass = Self;                                                                        \
  static ::quma::TClass StaticClass() noexcept {                                                 \
    static constexpr ::quma::TClassInfo info =                                                    \
        ::quma::TClassInfo::Make<Self, __VA_ARGS__>(QUMA_U16_STRINGIFY(Self));                    \
    return &info;                                                                                \
  }                                                                                              \
  ::quma::TClass ClassType() const noexcept override { return StaticClass(); }                  \
                                                                                                 \
 private:

// Declares the argument list of the hierarchy's virtual constructor.
#define QUMA_VIRTUAL_CONSTRUCTOR(...) \
 public:                              \
  using VirtualCtorArgs = std::tuple<__VA_ARGS__>;

class TObject {
 public:
  using ThisClass = TObject;
  static TClass StaticClass() noexcept;
  virtual TClass ClassType() const noexcept { return StaticClass(); }

  TObject() noexcept = default;
  TObject(const TObject&) = delete;
  TObject& operator=(const TObject&) = delete;

  // Runs after the most-derived constructor has finished (New calls it), so virtual calls here
  // reach the most-derived overrides.
  virtual void AfterConstruction() {}
  // Runs before any destructor (Free calls it), with the object still whole.
  virtual void BeforeDestruction() {}

  UnicodeString ClassName() const { return ClassType()->ClassName(); }
  bool ClassNameIs(UnicodeStringView name) const;
  TClass ClassParent() const noexcept { return ClassType()->ClassParent(); }
  bool InheritsFrom(TClass cls) const noexcept { return ClassType()->InheritsFrom(cls); }
  template <class T>
  bool Is() const noexcept {
    return dynamic_cast<const T*>(this) != nullptr;
  }

  virtual bool Equals(const TObject* Obj) const { return Obj == this; }
  virtual NativeInt GetHashCode() const noexcept { return reinterpret_cast<NativeInt>(this); }
  virtual UnicodeString ToString() const { return ClassName(); }

  // The host interface lookup: answers the interfaces this object's class implements.
  // Overrides check their own identifiers and defer to the parent.
  virtual bool GetInterface(const TGUID& IID, void** Obj);

  // The object's re-entrant monitor, created on first use (see TMonitor).
  TRecursiveLock& MonitorLock() const {
    if (TRecursiveLock* lock = FMonitor.load(std::memory_order_acquire)) return *lock;
    return CreateMonitor();
  }

 protected:
  virtual ~TObject();
  // Free asks this first. An object whose destruction is already under way further up the stack
  // answers false, so that a nested Free does nothing and the outer one releases the memory.
  virtual bool EnterDestruction() noexcept { return true; }
  // Runs once AfterConstruction has returned, for a base class that may act only when every
  // override of AfterConstruction has finished (a thread starts its worker here).
  virtual void Constructed() {}

 private:
  friend void Free(const TObject* obj);
  friend struct TObjectDeleter;
  template <class T, class... A>
  friend T* New(A&&... args);

  TRecursiveLock& CreateMonitor() const;

  mutable std::atomic<TRecursiveLock*> FMonitor{nullptr};
};

// Creates an object: constructor, then AfterConstruction. If AfterConstruction throws, the object
// is destroyed (without BeforeDestruction, as it never finished construction) and the exception
// passes on.
template <class T, class... A>
T* New(A&&... args) {
  static_assert(std::is_base_of_v<TObject, T>, "New<T> creates TObject descendants");
  static_assert(std::is_same_v<typename T::ThisClass, T>, "the class lacks QUMA_CLASS(Self, Parent)");
  T* obj = new T(std::forward<A>(args)...);
  try {
    obj->AfterConstruction();
    static_cast<TObject*>(obj)->Constructed();
  } catch (...) {
    delete static_cast<TObject*>(obj);
    throw;
  }
  return obj;
}

// Null-safe destruction: BeforeDestruction, then the virtual destructor.
void Free(const TObject* obj);

template <class T>
void FreeAndNil(T*& obj) {
  T* p = obj;
  obj = nullptr;
  Free(p);
}

struct TObjectDeleter {
  void operator()(const TObject* obj) const { Free(obj); }
};
// Unique ownership of an object-model object; releases through Free.
template <class T>
using TObjectPtr = std::unique_ptr<T, TObjectDeleter>;

template <class T, class... A>
TObjectPtr<T> MakeObject(A&&... args) {
  return TObjectPtr<T>(New<T>(std::forward<A>(args)...));
}

// A typed class reference ("class of Base"): a TClass known to descend from Base.
template <class Base>
class TClassOf {
 public:
  constexpr TClassOf() noexcept = default;
  constexpr TClassOf(std::nullptr_t) noexcept {}
  TClassOf(TClass cls) noexcept : FClass(cls) {}
  template <class D>
    requires std::is_base_of_v<Base, D>
  static TClassOf Of() noexcept {
    return TClassOf(D::StaticClass());
  }
  TClass Get() const noexcept { return FClass; }
  operator TClass() const noexcept { return FClass; }
  explicit operator bool() const noexcept { return FClass != nullptr; }
  template <class... A>
  Base* Create(A&&... args) const {
    return FClass ? FClass->Create<Base>(std::forward<A>(args)...) : nullptr;
  }

 private:
  TClass FClass = nullptr;
};

// ---- implementation of the templates ----

template <class T, class Args>
TObject* detail::VirtualFactory<T, Args>::Create(const void* packedArgs) {
  return std::apply([](auto&&... a) -> TObject* { return New<T>(std::forward<decltype(a)>(a)...); },
                    *static_cast<const Args*>(packedArgs));
}

template <class Self, class Parent>
constexpr TClassInfo TClassInfo::Make(const char16_t* name) noexcept {
  TFactory factory = nullptr;
  const std::type_info* args = nullptr;
  if constexpr (detail::HasVirtualCtor<Self>) {
    using Args = typename Self::VirtualCtorArgs;
    if constexpr (!std::is_abstract_v<Self> && detail::CtorArity<Args>::template Constructible<Self>) {
      factory = &detail::VirtualFactory<Self, Args>::Create;
      args = &typeid(Args);
    }
  }
  return TClassInfo(name, &Parent::StaticClass, &typeid(Self), factory, args);
}

template <class Base, class... A>
Base* TClassInfo::Create(A&&... args) const {
  using Args = typename Base::VirtualCtorArgs;
  if (!FFactory || !InheritsFrom(Base::StaticClass()) || *FFactoryArgs != typeid(Args)) return nullptr;
  const Args packed(std::forward<A>(args)...);
  // The factory makes an instance of this class, which was just seen to inherit from Base.
  return static_cast<Base*>(FFactory(&packed));
}

}  // namespace quma
QUMA_PUBLIC_END
