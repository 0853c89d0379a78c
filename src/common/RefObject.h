// Shared ownership of heap objects without a change to the objects: a count block is made
// beside an object when it is first put into an ObjectPtrT, and the object is deleted when
// the last ObjectPtrT lets go.
#pragma once

#include <cstdint>
#include <new>

#include "tova.h"

class RefObjectBase {
  public:
    virtual void DestroyObject() = 0;
    virtual void DestroySelf() = 0;
    virtual ~RefObjectBase() = default;
};

// Thread safety: the counts are changed only by atomic additions, and each decision is taken
// on the value that the addition returned.
// Invariants: strong_ is the number of pointers that share the object; block_ is 1 until the
// object has been deleted.
template <class T>
class RefObject final : public RefObjectBase {
  public:
    explicit RefObject(T* object) : object_(object) {}
    RefObject(const RefObject&) = delete;
    RefObject& operator=(const RefObject&) = delete;

    void DestroyObject() override {
        delete object_;
        object_ = nullptr;
    }
    void DestroySelf() override { delete this; }

    void AddStrong() { TOVA_AtomicAdd(&strong_, 1); }
    void ReleaseStrong() {
        if (TOVA_AtomicAdd(&strong_, -1) != 1) return;
        DestroyObject();
        if (TOVA_AtomicAdd(&block_, -1) == 1) DestroySelf();
    }

  private:
    T* object_;
    volatile int32_t strong_ = 0;
    volatile int32_t block_ = 1;
};

// A pointer that shares an object.
//
// Thread safety: different pointers to one object on any threads; one pointer is not guarded.
// Invariants: block_ is null exactly when raw_ is null.
template <class T>
class ObjectPtrT {
  public:
    ObjectPtrT() = default;
    ObjectPtrT(const ObjectPtrT& other) { Assign(other.raw_, other.block_); }
    ObjectPtrT& operator=(const ObjectPtrT& other) {
        Assign(other.raw_, other.block_);
        return *this;
    }
    ~ObjectPtrT() { Release(block_); }

    // Takes ownership of an object that no ObjectPtrT holds. If there is no memory for the
    // count block the pointer is null afterwards and the caller still owns the object.
    void Reset(T* object) {
        RefObject<T>* const former = block_;
        Share(object, nullptr);
        Release(former);
    }

    // Shares object, counted by block, or by a new block if that is null.
    void Assign(T* object, RefObject<T>* block) {
        RefObject<T>* const former = block_;
        Share(object, block);
        Release(former);
    }

    bool IsNull() const { return raw_ == nullptr; }
    T* Get() const { return raw_; }
    T* operator->() const { return raw_; }
    T& operator*() const { return *raw_; }

  private:
    void Share(T* object, RefObject<T>* block) {
        if (object != nullptr && block == nullptr) block = new (std::nothrow) RefObject<T>(object);
        raw_ = block != nullptr ? object : nullptr;
        block_ = raw_ != nullptr ? block : nullptr;
        if (block_ != nullptr) block_->AddStrong();
    }

    static void Release(RefObject<T>* block) {
        if (block != nullptr) block->ReleaseStrong();
    }

    T* raw_ = nullptr;
    RefObject<T>* block_ = nullptr;
};
