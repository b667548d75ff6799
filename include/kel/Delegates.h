// kelbase - Delegates.h
//
// Callable objects (KEL::Delegates_and_Calls).
//
// Fast delegates (TFastDelegateR<R>, CFastDelegate) are two-word values, an object and a member
// function, copied freely and called without allocation; a static function is bound through the
// delegate's own thunk, so every delegate is called the same way. Lock guards store their
// restore function in one.
//
// Counted delegates (CDelegate) are handles on a reference-counted block that holds the bound
// call and the error of its last run. Threads take their work as a CDelegate: a library
// exception that leaves the call is recorded in the block and reported through the block's
// failure notification; it never travels further.
#pragma once

#include <kel/Exceptions.h>

#include <cstddef>
#include <new>
#include <type_traits>
#include <utility>

namespace KEL {
namespace Threading {
/// An atomic signed 32-bit counter; the reference count of every counted block.
class KEL_API CSyncCounter {
public:
    constexpr CSyncCounter(int initial = 0) noexcept : m_iCount(initial) {}
    CSyncCounter(const CSyncCounter& other) noexcept : m_iCount(other.Count()) {}
    CSyncCounter& operator=(const CSyncCounter& other) noexcept {
        Set(other.Count());
        return *this;
    }
    /// Stores `value` and returns it.
    int Set(int value) noexcept {
        m_iCount.store(value, std::memory_order_seq_cst);
        return value;
    }
    /// Atomic increment and decrement; both return the new value.
    int Incr() noexcept { return m_iCount.fetch_add(1, std::memory_order_seq_cst) + 1; }
    int Decr() noexcept { return m_iCount.fetch_sub(1, std::memory_order_seq_cst) - 1; }
    int Count() const noexcept { return m_iCount.load(std::memory_order_seq_cst); }

private:
    std::atomic<int> m_iCount;
};
} // namespace Threading

namespace Delegates_and_Calls {
namespace detail {

/// Stands for "some object" in the stored member-function pointers.
class GenericClass;

/// The stored pair: the object and a member function of it taking no argument.
template <class GenericMemFn, class StaticFn>
struct ClosurePtr {
    GenericClass* object = nullptr;
    GenericMemFn function = nullptr;
    ClosurePtr() noexcept = default;
    explicit ClosurePtr(void* obj) noexcept : object(static_cast<GenericClass*>(obj)) {}
};

} // namespace detail

/// A delegate returning R: a member function bound to its object, or a static function.
template <class R>
class TFastDelegateR {
public:
    using GenericMemFn = R (detail::GenericClass::*)();
    using StaticFn = R (*)();

    TFastDelegateR() noexcept = default;
    TFastDelegateR(StaticFn fn) noexcept { Bind(fn); }
    template <class C>
    TFastDelegateR(C* object, R (C::*fn)()) noexcept {
        Bind(object, fn);
    }

    /// Binds a static function: the object word holds its address and the function word the
    /// thunk that calls it.
    void Bind(StaticFn fn) noexcept {
        m_Closure.object = reinterpret_cast<detail::GenericClass*>(reinterpret_cast<void*>(fn));
        m_Closure.function = reinterpret_cast<GenericMemFn>(&TFastDelegateR::InvokeStaticFunction);
    }
    template <class C>
    void Bind(C* object, R (C::*fn)()) noexcept {
        m_Closure.object = reinterpret_cast<detail::GenericClass*>(object);
        m_Closure.function = reinterpret_cast<GenericMemFn>(fn);
    }

    R operator()() const { return (m_Closure.object->*(m_Closure.function))(); }
    bool IsEmpty() const noexcept { return m_Closure.function == nullptr; }
    bool operator==(const TFastDelegateR& o) const noexcept {
        return m_Closure.function == o.m_Closure.function && m_Closure.object == o.m_Closure.object;
    }
    bool operator!=(const TFastDelegateR& o) const noexcept { return !(*this == o); }

private:
    // Called with the static function's address as `this`.
    R InvokeStaticFunction() {
        StaticFn fn = reinterpret_cast<StaticFn>(reinterpret_cast<void*>(this));
        return fn();
    }
    detail::ClosurePtr<GenericMemFn, StaticFn> m_Closure;
};

/// The void form.
class CFastDelegate : public TFastDelegateR<void> {
public:
    using TFastDelegateR<void>::TFastDelegateR;
};

/// A handle on a counted call block. Copies share the block; the last handle deletes it.
class KEL_API CDelegate {
public:
    /// The counted block: the call, its failure notification and the error of the last run.
    class KEL_API CCbBase : public Threading::CSyncCounter {
    public:
        CCbBase() noexcept : CSyncCounter(1) {}
        virtual ~CCbBase();
        CCbBase(const CCbBase&) = delete;
        CCbBase& operator=(const CCbBase&) = delete;
        /// Runs the bound function.
        virtual void Call() = 0;
        /// Called after a run ended with a library exception, once the log is recorded.
        virtual void Failed() {}
        /// Called when the call is handed to another thread to run (a thread pool's Enqueue).
        virtual void HandedOver() {}
        /// The error of the last run (empty after a normal run).
        Exceptions::CErrorLog m_ErrorLog;

        /// Blocks of up to 256 bytes come from a per-thread cache that hands blocks between
        /// threads in batches: a pool job's block is usually made on one thread and freed on
        /// another, which the general heap serves slowly.
        static void* operator new(std::size_t size);
        static void operator delete(void* block, std::size_t size) noexcept;
        /// Over-aligned blocks go to the global heap.
        static void* operator new(std::size_t size, std::align_val_t alignment) {
            return ::operator new(size, alignment);
        }
        static void operator delete(void* block, std::size_t, std::align_val_t alignment) noexcept {
            ::operator delete(block, alignment);
        }
    };

    CDelegate() noexcept = default;
    /// Adopts `block` (with the reference it was created with).
    explicit CDelegate(CCbBase* block) noexcept : m_pCB(block) {}
    CDelegate(const CDelegate& other) noexcept : m_pCB(other.m_pCB) {
        if (m_pCB) m_pCB->Incr();
    }
    CDelegate(CDelegate&& other) noexcept : m_pCB(other.m_pCB) { other.m_pCB = nullptr; }
    CDelegate& operator=(const CDelegate& other) noexcept;
    CDelegate& operator=(CDelegate&& other) noexcept;
    virtual ~CDelegate() { Release(); }

    bool IsValid() const noexcept { return m_pCB != nullptr; }
    /// Runs the call: 1 after a normal run or for an empty handle, 0 when the run ended with a
    /// library exception (recorded in the block; the exception goes no further).
    unsigned int operator()();
    /// The code recorded by the last run (0 without block or error).
    unsigned int GetError() const noexcept;
    /// Copies the recorded log into `log` and returns its code; clears `log` and returns 0 when
    /// there is none.
    unsigned int GetError(Exceptions::CErrorLog& log) const;
    /// Drops the reference and empties the handle.
    void Release() noexcept;
    /// Tells the block that the call is handed to another thread to run.
    void HandOver() {
        if (m_pCB) m_pCB->HandedOver();
    }

protected:
    friend class Internals::CThreadCB;
    CCbBase* GetCB() const noexcept { return m_pCB; }
    /// Installs `block`, dropping a previous one.
    void Reset(CCbBase* block) noexcept {
        Release();
        m_pCB = block;
    }

private:
    CCbBase* m_pCB = nullptr;
};

/// A counted delegate that calls a member function of an object.
class KEL_API CCall : public CDelegate {
public:
    class KEL_API CCbHead : public CCbBase {};
    CCall() noexcept = default;

protected:
    unsigned int Init(CCbHead* block) noexcept {
        Reset(block);
        return 1;
    }
};

template <class K>
class TDelegate;

/// Binds `object` and its member function `fn` into a CCall.
template <>
class TDelegate<CCall> : public CCall {
public:
    /// The counted block that holds the object and its member function.
    template <class C>
    class CCb : public CCbHead {
    public:
        CCb(C* object, void (C::*fn)()) noexcept : m_pObject(object), m_pFn(fn) {}
        void Call() override { (m_pObject->*m_pFn)(); }

    private:
        C* m_pObject;
        void (C::*m_pFn)();
    };

    TDelegate() noexcept = default;
    template <class C>
    TDelegate(C* object, void (C::*fn)()) {
        Init(new CCb<C>(object, fn));
    }
};

/// Binds any callable into a CCall.
template <class F> class TFunctionCall : public CCall {
public:
    /// The counted block that holds the callable.
    class CCb : public CCbHead {
    public:
        explicit CCb(F fn) : m_Fn(std::move(fn)) {}
        void Call() override { m_Fn(); }

    private:
        F m_Fn;
    };
    explicit TFunctionCall(F fn) { Init(new CCb(std::move(fn))); }
};

/// Binds any callable (a lambda, a function object, a function pointer) into a counted
/// delegate: `pool.Enqueue(MakeDelegate([&] { ... }));`.
template <class F> TFunctionCall<std::decay_t<F>> MakeDelegate(F&& fn) {
    return TFunctionCall<std::decay_t<F>>(std::forward<F>(fn));
}

} // namespace Delegates_and_Calls
} // namespace KEL
