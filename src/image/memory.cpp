#include <weftmap/image/inset_view.hpp>
#include <weftmap/image/memory.hpp>
#include <weftmap/image/recycled_image.hpp>

#include <weftmap/frame/exceptions.hpp>

namespace WM {

MemoryAllocator::~MemoryAllocator() = default;

unsigned long long BaseLimitedByteMemoryAllocator::m_limit = ~0ull;
unsigned long long BaseLimitedByteMemoryAllocator::m_currentAllocatedSize = 0;

// The count is read before and written after the raw call, so a raw call
// that throws leaves it unchanged.
void* BaseLimitedByteMemoryAllocator::allocate(unsigned long long bytes) {
    auto const held = m_currentAllocatedSize;
    void* p = rawAllocate(bytes);
    m_currentAllocatedSize = held + bytes;
    return p;
}

void BaseLimitedByteMemoryAllocator::deallocate(void* p, unsigned long long bytes) {
    auto const held = m_currentAllocatedSize;
    rawDeallocate(p, bytes);
    m_currentAllocatedSize = held - bytes;
}

unsigned long long BaseLimitedByteMemoryAllocator::maxSize() const {
    return m_limit - m_currentAllocatedSize;
}

void BaseLimitedByteMemoryAllocator::setLimit(unsigned long long limit) {
    m_limit = limit;
}

void BaseLimitedByteMemoryAllocator::addLimit(long long delta) {
    m_limit = m_currentAllocatedSize + static_cast<unsigned long long>(delta);
}

unsigned long long BaseLimitedByteMemoryAllocator::getLimit() {
    return m_limit;
}

unsigned long long BaseLimitedByteMemoryAllocator::getCurrentAllocatedSize() {
    return m_currentAllocatedSize;
}

namespace detail {

void* limited_allocate(unsigned long long bytes) {
    MemoryAllocator* allocator = GetClientProcs()->GetMemoryAllocator();
    if (BaseLimitedByteMemoryAllocator::m_currentAllocatedSize + bytes >
        BaseLimitedByteMemoryAllocator::m_limit)
        raise_as(ErrorClass::MemoryLimit,
                 "WEFTMAP_MEMORY_LIMIT: limited_allocator has reached its m_limit");
    return allocator->allocate(bytes);
}

void limited_deallocate(void* p, unsigned long long bytes) {
    GetClientProcs()->GetMemoryAllocator()->deallocate(p, bytes);
}

}  // namespace detail

char const* locked_recycled_image_error::what() const noexcept {
    return "attempt to recreate a locked recycled_image";
}

char const* bounds_exception_t::what() const noexcept {
    return "out-of-bounds access in inset_view";
}

}  // namespace WM
