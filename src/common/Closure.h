// Bound calls without arguments of their own, run by the timer on its thread.
#pragma once

#include <new>

#include "common/RefObject.h"

class Closure {
  public:
    virtual ~Closure() = default;
    virtual void Run() = 0;
};

namespace ClosureInternal {

template <class T>
class MethodClosure0 final : public Closure {
  public:
    MethodClosure0(T* object, void (T::*method)()) : object_(object), method_(method) {}
    void Run() override {
        if (object_ != nullptr && method_ != nullptr) (object_->*method_)();
    }

  private:
    T* object_;
    void (T::*method_)();
};

// The second argument is owned by the closure; each run hands its callee a copy.
template <class T, class A1, class A2>
class MethodClosure2 final : public Closure {
  public:
    MethodClosure2(T* object, void (T::*method)(A1, A2), const A1& first, const A2& second)
        : object_(object), method_(method), first_(first), second_(second) {}
    void Run() override {
        if (object_ != nullptr && method_ != nullptr) (object_->*method_)(first_, second_);
    }

  private:
    T* object_;
    void (T::*method_)(A1, A2);
    A1 first_;
    A2 second_;
};

// Puts a fresh closure into a shared pointer; both are gone when there is no memory.
inline ObjectPtrT<Closure> Own(Closure* closure) {
    ObjectPtrT<Closure> pointer;
    pointer.Reset(closure);
    if (pointer.IsNull()) delete closure;
    return pointer;
}

}  // namespace ClosureInternal

// A null result means out of memory.
template <class T>
ObjectPtrT<Closure> NewClosure(T* object, void (T::*method)()) {
    return ClosureInternal::Own(new (std::nothrow)
                                    ClosureInternal::MethodClosure0<T>(object, method));
}

template <class T, class A1, class A2>
ObjectPtrT<Closure> NewClosure(T* object, void (T::*method)(A1, A2), const A1& first,
                               const A2& second) {
    return ClosureInternal::Own(new (std::nothrow) ClosureInternal::MethodClosure2<T, A1, A2>(
        object, method, first, second));
}
