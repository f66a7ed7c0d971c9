#pragma once

#include <stdint.h>

#include <atomic>

namespace tavrin {

// Shared ownership of a heap object through a heap reference count.
//
// Copies share one count; the copy that drops the count to zero deletes the
// object (through its virtual destructor when T has one) and the count. A
// tv_sp built from a null pointer still owns a count of 1: that is the
// failure value of operations that return a tv_sp, recognised by get() being
// null. Copies may be taken and dropped concurrently from any threads; one
// tv_sp object must not be assigned from two threads at once.
template <typename T>
class tv_sp {
  public:
    tv_sp() = default;

    explicit tv_sp(T* object) : count(new std::atomic<int32_t>(1)), ptr(object) {}

    tv_sp(const tv_sp& other) : count(other.count), ptr(other.ptr) { retain(); }

    tv_sp& operator=(const tv_sp& other) {
        // Take the new reference before dropping the old one so that
        // self-assignment never frees what it is about to copy.
        tv_sp copy(other);
        swap(copy);
        return *this;
    }

    ~tv_sp() { release(); }

    T* get() const { return ptr; }
    T* operator->() const { return ptr; }
    T& operator*() const { return *ptr; }
    bool isNull() const { return ptr == nullptr; }
    explicit operator bool() const { return ptr != nullptr; }

    // Number of tv_sp sharing the count, or 0 when there is no count.
    int32_t useCount() const {
        return count == nullptr ? 0 : count->load(std::memory_order_acquire);
    }

  private:
    void retain() {
        if (count != nullptr) count->fetch_add(1, std::memory_order_acq_rel);
    }

    void release() {
        if (count == nullptr) return;
        // acq_rel: the deleting thread must see every write that other
        // owners made to the object before they dropped their references.
        if (count->fetch_sub(1, std::memory_order_acq_rel) == 1) {
            static_assert(sizeof(T) > 0, "tv_sp deletes T: T must be a complete type here");
            delete ptr;
            delete count;
        }
        ptr = nullptr;
        count = nullptr;
    }

    void swap(tv_sp& other) {
        std::atomic<int32_t>* otherCount = other.count;
        T* otherPtr = other.ptr;
        other.count = count;
        other.ptr = ptr;
        count = otherCount;
        ptr = otherPtr;
    }

    std::atomic<int32_t>* count = nullptr;
    T* ptr = nullptr;
};

}  // namespace tavrin
