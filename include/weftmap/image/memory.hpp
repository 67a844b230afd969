// Image memory comes from the host through an allocator object reached from
// the client, under one process-wide limit.
#pragma once

#include <weftmap/frame/client.hpp>
#include <weftmap/frame/export.hpp>

#include <atomic>
#include <cstddef>

namespace WM {

class WEFTMAP_API MemoryAllocator {
public:
    virtual ~MemoryAllocator();
    virtual void* allocate(unsigned long long bytes) = 0;
    // `bytes` is the size that was given to allocate.
    virtual void deallocate(void* p, unsigned long long bytes) = 0;
    // Bytes still allowed.
    virtual unsigned long long maxSize() const = 0;
};

// Keeps the process-wide count of bytes held and the limit; the host
// supplies the raw memory operations. Both are relaxed atomics: hosts may run
// operations on several threads at once (a Python program with threads
// does), and each must see an exact count; one thread sees no difference.
class WEFTMAP_API BaseLimitedByteMemoryAllocator : public MemoryAllocator {
public:
    void* allocate(unsigned long long bytes) override;
    void deallocate(void* p, unsigned long long bytes) override;
    unsigned long long maxSize() const override;

    virtual void* rawAllocate(unsigned long long bytes) = 0;
    virtual void rawDeallocate(void* p, unsigned long long bytes) = 0;

    static void setLimit(unsigned long long limit);
    // After addLimit(n) exactly n further bytes fit: the base is the current
    // usage, not the old limit.
    static void addLimit(long long delta);
    static unsigned long long getLimit();
    static unsigned long long getCurrentAllocatedSize();

    static std::atomic<unsigned long long> m_limit;
    static std::atomic<unsigned long long> m_currentAllocatedSize;
};

// Stateless allocator of the image buffers; tests the limit before every
// allocation and forwards to the client's allocator.
template <class T>
class WMAllocator {
public:
    using value_type = T;

    WMAllocator() = default;
    template <class U>
    WMAllocator(WMAllocator<U> const&) {}

    T* allocate(std::size_t count);
    void deallocate(T* p, std::size_t count);

    friend bool operator==(WMAllocator const&, WMAllocator const&) { return true; }
    friend bool operator!=(WMAllocator const&, WMAllocator const&) { return false; }
};

namespace detail {
WEFTMAP_API void* limited_allocate(unsigned long long bytes);
WEFTMAP_API void limited_deallocate(void* p, unsigned long long bytes);
}  // namespace detail

template <class T>
T* WMAllocator<T>::allocate(std::size_t count) {
    return static_cast<T*>(detail::limited_allocate(count * sizeof(T)));
}

template <class T>
void WMAllocator<T>::deallocate(T* p, std::size_t count) {
    detail::limited_deallocate(p, count * sizeof(T));
}

}  // namespace WM
