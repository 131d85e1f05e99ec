// The object model: reference-counted objects, counted pointers, the factory
// newObj, checked casts, per-thread storage, lazily built process-wide
// singletons and the heap-only guard.
#pragma once

#include <atomic>
#include <cstdint>
#include <exception>
#include <new>
#include <typeinfo>
#include <utility>

namespace tal {

/// Root interface of every shared object. Always inherited virtually, so an
/// object reachable through several interfaces has one identity and one count.
class IBase {
public:
  virtual ~IBase() = default;
  virtual void addRef() const = 0;
  virtual void release() const = 0;
  /// Whether a checked cast of this object to `target` may proceed.
  virtual bool checkCastAllowed(std::type_info const& target) const = 0;

protected:
  IBase() = default;
  IBase(IBase const&) = default;
  IBase& operator=(IBase const&) = default;
};

/// The implementation of IBase: an atomic reference count that starts at 1.
/// The first reference belongs to whoever constructed the object.
class CBase : public virtual IBase {
public:
  CBase() noexcept : m_refCount(1) {}
  /// A copy is a new object: its count starts at 1.
  CBase(CBase const&) noexcept : IBase(), m_refCount(1) {}
  /// Assignment copies no count.
  CBase& operator=(CBase const&) noexcept { return *this; }
  ~CBase() override = default;

  void addRef() const override;
  /// Drops one reference. The release that reaches zero parks the count at
  /// -0x40000000 and calls deleteThis(), so a destructor that takes and drops
  /// references to itself can never bring the count to zero again.
  void release() const override;
  bool checkCastAllowed(std::type_info const& target) const override;
  /// Destroys the object through its virtual deleting destructor.
  virtual void deleteThis();

  /// The current count; for diagnostics and tests only.
  std::int32_t getRefCount() const noexcept { return m_refCount.load(); }

  /// The count value a released object is parked at.
  static constexpr std::int32_t kParkedCount = -0x40000000;

private:
  mutable std::atomic<std::int32_t> m_refCount;
};

/// Counted pointer: owns one reference to the object it points at (or null).
template <class T> class P {
public:
  P() noexcept : m_p(nullptr) {}
  P(std::nullptr_t) noexcept : m_p(nullptr) {}
  /// Takes a new reference to `p`.
  P(T* p) : m_p(p) {
    if (m_p) m_p->addRef();
  }
  P(P const& other) : m_p(other.m_p) {
    if (m_p) m_p->addRef();
  }
  P(P&& other) noexcept : m_p(other.m_p) { other.m_p = nullptr; }
  template <class U, class = decltype(static_cast<T*>(std::declval<U*>()))>
  P(P<U> const& other) : m_p(other.get()) {
    if (m_p) m_p->addRef();
  }
  ~P() {
    if (m_p) m_p->release();
  }

  /// Stores the new pointer, adds its reference, then releases the old one,
  /// so self-assignment is safe.
  P& operator=(P const& other) {
    T* old = m_p;
    m_p = other.m_p;
    if (m_p) m_p->addRef();
    if (old) old->release();
    return *this;
  }
  P& operator=(P&& other) noexcept {
    if (this != &other) {
      T* old = m_p;
      m_p = other.m_p;
      other.m_p = nullptr;
      if (old) old->release();
    }
    return *this;
  }
  P& operator=(T* p) { return *this = P(p); }

  /// Takes over a reference the caller already owns (no addRef).
  static P adopt(T* p) noexcept {
    P result;
    result.m_p = p;
    return result;
  }
  /// Gives up the reference without releasing it.
  T* detach() noexcept {
    T* p = m_p;
    m_p = nullptr;
    return p;
  }

  T* get() const noexcept { return m_p; }
  T* operator->() const noexcept { return m_p; }
  T& operator*() const noexcept { return *m_p; }
  explicit operator bool() const noexcept { return m_p != nullptr; }
  bool operator!() const noexcept { return m_p == nullptr; }

private:
  T* m_p;
};

template <class T, class U> bool operator==(P<T> const& a, P<U> const& b) { return a.get() == b.get(); }
template <class T, class U> bool operator!=(P<T> const& a, P<U> const& b) { return a.get() != b.get(); }
template <class T> bool operator==(P<T> const& a, std::nullptr_t) { return !a; }
template <class T> bool operator!=(P<T> const& a, std::nullptr_t) { return !!a; }

/// Builds a T on the heap and hands its initial reference to the result.
/// Uses T's own allocation function where it has one (the heap-only guard's),
/// the global one otherwise. If the constructor throws, the memory is returned
/// and the exception propagates unchanged.
template <class T, class... Args> P<T> newObj(Args&&... args) {
  return P<T>::adopt(new T(std::forward<Args>(args)...));
}

namespace detail {
[[noreturn]] void throwCastError(IBase const* object, std::type_info const& target);
[[noreturn]] void throwStaticConstructionFailed();
[[noreturn]] void throwMustAllocateWithNew(std::type_info const& guardType);
/// Locks the process-wide global mutex for the life of the object.
class GlobalLock {
public:
  GlobalLock();
  ~GlobalLock();
  GlobalLock(GlobalLock const&) = delete;
  GlobalLock& operator=(GlobalLock const&) = delete;

private:
  void* m_lock;
};
/// Gives up the processor (threadYield(true)).
void yieldThread();
} // namespace detail

/// Checked cast of an IBase object to X: null stays null; an object that
/// refuses the cast (checkCastAllowed) or is not an X throws CCastError.
template <class X> P<X> checkedCast(IBase const* object) {
  if (!object) return P<X>();
  if (!object->checkCastAllowed(typeid(X))) detail::throwCastError(object, typeid(X));
  X* result = dynamic_cast<X*>(const_cast<IBase*>(object));
  if (!result) detail::throwCastError(object, typeid(X));
  return P<X>(result);
}
template <class X, class U> P<X> checkedCast(P<U> const& object) { return checkedCast<X>(static_cast<IBase const*>(object.get())); }

/// A plain value held as a counted object.
template <class T> class TSimpleType : public CBase {
public:
  TSimpleType() : value() {}
  explicit TSimpleType(T const& v) : value(v) {}
  T value;
};

template <class T> class TSafeGlobalPointer;

/// Per-thread storage slots, each holding a counted IBase per thread. A
/// thread's values are released when that thread ends.
class CThreadLocalStorageManager : public CBase {
public:
  CThreadLocalStorageManager();
  ~CThreadLocalStorageManager() override;
  CThreadLocalStorageManager(CThreadLocalStorageManager const&) = delete;
  CThreadLocalStorageManager& operator=(CThreadLocalStorageManager const&) = delete;

  /// A new slot index, never handed out before in this process.
  int createSlot();
  /// The calling thread's value in `slot` (a new reference), or null.
  P<IBase> getThreadValue(int slot);
  /// Stores a reference to `value` (null clears) for the calling thread,
  /// releasing the previous one.
  void setThreadValue(int slot, IBase* value);

  /// The lazily built process-wide manager (throws if building it failed).
  static TSafeGlobalPointer<CThreadLocalStorageManager>& get();
  /// Construction guard of get()'s holder.
  static bool& globalInstanceGuard();
};

/// One slot of the process-wide thread-local storage manager.
class CThreadLocalStorage : public CBase {
public:
  CThreadLocalStorage();
  int getSlot() const noexcept { return m_slot; }
  /// The calling thread's value, or null.
  P<IBase> getValue() const;
  /// Stores `value` for the calling thread.
  void setValue(IBase* value) const;

private:
  int m_slot;
};

/// A slot whose per-thread values are expected to be T objects.
template <class T> class TThreadLocalStorage : public CBase {
public:
  TThreadLocalStorage() = default;
  int getSlot() const noexcept { return m_storage.getSlot(); }
  /// The calling thread's value, checked-cast to T (CCastError if it is not one), or null.
  P<T> get() const { return checkedCast<T>(m_storage.getValue().get()); }
  P<IBase> getRaw() const { return m_storage.getValue(); }
  void set(IBase* value) const { m_storage.setValue(value); }

private:
  CThreadLocalStorage m_storage;
};

/// Holder of a lazily built process-wide singleton, meant to be a
/// function-local static:
///
///   static P<X> makeX();
///   TSafeGlobalPointer<X>& getX() {
///     std::exception_ptr firstFailure;
///     static TSafeGlobalPointer<X> g_pInstance(xGuard(), makeX, firstFailure);
///     return g_pInstance.ready(firstFailure);
///   }
///
/// The constructor builds the object under the global mutex and the
/// construction guard (a re-entrant request while building skips the build).
/// `state` moves from 0 to kBuilt, or to kFailed for good: the caller whose
/// build failed gets the original exception, every later request throws
/// "Construction of static object has failed.". At exit the state returns to 0
/// and the instance is released.
template <class T> class TSafeGlobalPointer {
public:
  static constexpr std::uint64_t kBuilt = 0x47A592FE710A82BCull;
  static constexpr std::uint64_t kFailed = 0xFE3493AD1F6783BDull;

  template <class Make> TSafeGlobalPointer(bool& guard, Make&& make, std::exception_ptr& failure) noexcept {
    try {
      detail::GlobalLock lock;
      bool const wasBuilding = guard;
      guard = true;
      if (!wasBuilding) {
        state.store(0);
        instance = make();
        state.store(kBuilt);
      }
    } catch (...) {
      T* p = instance.detach();
      if (p) p->release();
      guard = false;
      state.store(kFailed);
      failure = std::current_exception();
    }
  }
  TSafeGlobalPointer(TSafeGlobalPointer const&) = delete;
  TSafeGlobalPointer& operator=(TSafeGlobalPointer const&) = delete;
  ~TSafeGlobalPointer() {
    state.store(0);
    if (instance) instance.get()->release();
    (void)instance.detach();
  }

  /// Rethrows this call's own build failure; otherwise waits (yielding) until
  /// the state is final and returns the holder, or throws if building failed.
  TSafeGlobalPointer& ready(std::exception_ptr const& failure) {
    if (failure) std::rethrow_exception(failure);
    for (;;) {
      std::uint64_t const s = state.load();
      if (s == kBuilt) return *this;
      if (s == kFailed) detail::throwStaticConstructionFailed();
      detail::yieldThread();
    }
  }

  P<T> instance;
  std::atomic<std::uint64_t> state{0};
};

/// Base for heap-only classes (used as TRequireNewAlloc<CBase>). Its
/// allocation function sets the calling thread's "allocated with new" flag,
/// and its constructor reads and clears that flag: one allocation licenses
/// exactly one construction. tal::newObj and a plain `new` both go through the
/// allocation function; construction on the stack or as a member throws
/// "Objects of class ... must be allocated with new.".
template <class T> class TRequireNewAlloc : public T {
public:
  using FlagStorage = TThreadLocalStorage<TSimpleType<bool>>;

  TRequireNewAlloc() {
    P<TSimpleType<bool>> flag = currentThreadFlag();
    bool const allowed = flag->value;
    flag->value = false;
    if (!allowed) detail::throwMustAllocateWithNew(typeid(TRequireNewAlloc<T>));
  }
  TRequireNewAlloc(TRequireNewAlloc const&) = delete;
  TRequireNewAlloc& operator=(TRequireNewAlloc const&) = delete;

  static void* operator new(std::size_t size) {
    void* memory = ::operator new(size);
    try {
      currentThreadFlag()->value = true;
    } catch (...) {
      ::operator delete(memory);
      throw;
    }
    return memory;
  }
// GCC 12 pairs the class's allocation and deallocation functions wrongly once
// both are inlined into a caller and reports a mismatch that is not there.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
  static void operator delete(void* memory) noexcept { ::operator delete(memory); }
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
  /// Placement forms, for callers that provide memory (and set the flag) themselves.
  static void* operator new(std::size_t, void* where) noexcept { return where; }
  static void operator delete(void*, void*) noexcept {}

  /// The process-wide holder of the per-thread flag storage.
  static TSafeGlobalPointer<FlagStorage>& getAllocatedWithNew() {
    std::exception_ptr failure;
    static TSafeGlobalPointer<FlagStorage> g_pAllocatedWithNew(allocatedWithNewGuard(), [] { return newObj<FlagStorage>(); },
                                                                failure);
    return g_pAllocatedWithNew.ready(failure);
  }
  /// Construction guard of getAllocatedWithNew()'s holder.
  static bool& allocatedWithNewGuard() {
    static bool g_Guard = false;
    return g_Guard;
  }

  /// The calling thread's flag object. A thread without one gets a fresh
  /// TSimpleType<bool> (false) installed; a foreign value throws CCastError.
  static P<TSimpleType<bool>> currentThreadFlag() {
    P<FlagStorage> storage = getAllocatedWithNew().instance;
    P<IBase> value = CThreadLocalStorageManager::get().instance->getThreadValue(storage->getSlot());
    if (!value) {
      P<TSimpleType<bool>> fresh = newObj<TSimpleType<bool>>(false);
      storage->set(fresh.get());
      return fresh;
    }
    return checkedCast<TSimpleType<bool>>(value.get());
  }
};

} // namespace tal
