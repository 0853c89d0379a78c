// A holder of one replaceable callback target of a fixed signature.
#pragma once

#include <new>
#include <utility>

#include "common/LockOrder.h"
#include "common/RefObject.h"
#include "common/Sync.h"

template <class Sig>
class IDelegate;

template <class... Args>
class IDelegate<void(Args...)> {
  public:
    virtual ~IDelegate() = default;
    // A new heap copy, or null when out of memory.
    virtual IDelegate* Clone() const = 0;
    // True for a target of the same kind with the same object and member function.
    virtual bool Equals(const IDelegate& other) const = 0;
    // True when the object or the member function is null.
    virtual bool IsEmpty() const = 0;
    // Skipped only when both are null: targets are kept complete.
    virtual void Invoke(Args... args) = 0;
    // False, without a call, when either is null.
    virtual bool InvokeIfBound(Args... args) = 0;
};

template <class M>
class ClassDelegate;

template <class T, class... Args>
class ClassDelegate<void (T::*)(Args...)> final : public IDelegate<void(Args...)> {
  public:
    using Method = void (T::*)(Args...);

    ClassDelegate(Method method, T* object) : method_(method), object_(object) {}

    IDelegate<void(Args...)>* Clone() const override {
        return new (std::nothrow) ClassDelegate(*this);
    }
    bool Equals(const IDelegate<void(Args...)>& other) const override {
        const auto* const same = dynamic_cast<const ClassDelegate*>(&other);
        return same != nullptr && same->method_ == method_ && same->object_ == object_;
    }
    bool IsEmpty() const override { return method_ == nullptr || object_ == nullptr; }
    void Invoke(Args... args) override {
        if (method_ == nullptr && object_ == nullptr) return;
        (object_->*method_)(std::forward<Args>(args)...);
    }
    bool InvokeIfBound(Args... args) override {
        if (IsEmpty()) return false;
        (object_->*method_)(std::forward<Args>(args)...);
        return true;
    }

  private:
    Method method_;
    T* object_;
};

template <class Sig>
class Delegate;

// Thread safety: every operation on any thread. A call runs outside the mutex on a copy of the
// target, so a call that runs while the target is replaced ends on the old one.
// Invariants: a copy has a mutex of its own and shares the target.
template <class... Args>
class Delegate<void(Args...)> {
  public:
    using Target = ObjectPtrT<IDelegate<void(Args...)>>;

    Delegate() = default;
    Delegate(const Delegate& other) : target_(other.Get()) {}
    Delegate& operator=(const Delegate& other) {
        Set(other.Get());
        return *this;
    }
    virtual ~Delegate() = default;

    void Set(Target target) {
        // The former target is released after the mutex: its destruction is foreign code.
        Target former;
        {
            TOVA_MutexGuard guard(mutex_);
            former = target_;
            target_ = target;
        }
    }

    Target Get() const {
        TOVA_MutexGuard guard(mutex_);
        return target_;
    }

    void operator()(Args... args) const {
        const Target target = Get();
        if (!target.IsNull()) target->Invoke(std::forward<Args>(args)...);  // calls out
    }

  private:
    Target target_ GUARDED_BY(mutex_);
    mutable TOVA_Mutex mutex_ ACQUIRED_AFTER(lock_order::leaf);
};
