#include <weftmap/image/inset_view.hpp>
#include <weftmap/image/memory.hpp>
#include <weftmap/image/recycled_image.hpp>

#include <weftmap/frame/exceptions.hpp>

#include <new>

namespace WM {

MemoryAllocator::~MemoryAllocator() = default;

std::atomic<unsigned long long> BaseLimitedByteMemoryAllocator::m_limit{~0ull};
std::atomic<unsigned long long> BaseLimitedByteMemoryAllocator::m_currentAllocatedSize{0};

namespace {
constexpr auto relaxed = std::memory_order_relaxed;
}

// The count changes only after the raw call succeeded, so a raw call that
// throws leaves it unchanged. A host allocator that answers with null
// instead of throwing gets std::bad_alloc thrown for it: no buffer may be null.
void* BaseLimitedByteMemoryAllocator::allocate(unsigned long long bytes) {
    void* p = rawAllocate(bytes);
    if (p == nullptr) throw std::bad_alloc();
    m_currentAllocatedSize.fetch_add(bytes, relaxed);
    return p;
}

void BaseLimitedByteMemoryAllocator::deallocate(void* p, unsigned long long bytes) {
    rawDeallocate(p, bytes);
    m_currentAllocatedSize.fetch_sub(bytes, relaxed);
}

unsigned long long BaseLimitedByteMemoryAllocator::maxSize() const {
    return m_limit.load(relaxed) - m_currentAllocatedSize.load(relaxed);
}

void BaseLimitedByteMemoryAllocator::setLimit(unsigned long long limit) {
    m_limit.store(limit, relaxed);
}

void BaseLimitedByteMemoryAllocator::addLimit(long long delta) {
    m_limit.store(m_currentAllocatedSize.load(relaxed) + static_cast<unsigned long long>(delta),
                  relaxed);
}

unsigned long long BaseLimitedByteMemoryAllocator::getLimit() {
    return m_limit.load(relaxed);
}

unsigned long long BaseLimitedByteMemoryAllocator::getCurrentAllocatedSize() {
    return m_currentAllocatedSize.load(relaxed);
}

namespace detail {

void* limited_allocate(unsigned long long bytes) {
    MemoryAllocator* allocator = registered_client().GetMemoryAllocator();
    unsigned long long const held = BaseLimitedByteMemoryAllocator::getCurrentAllocatedSize();
    unsigned long long const limit = BaseLimitedByteMemoryAllocator::getLimit();
    // Written so that a count near the top of the range cannot wrap.
    if (held > limit || bytes > limit - held)
        raise_as(ErrorClass::MemoryLimit,
                 "WEFTMAP_MEMORY_LIMIT: limited_allocator has reached its m_limit");
    void* p = allocator->allocate(bytes);
    if (p == nullptr) throw std::bad_alloc();
    return p;
}

void limited_deallocate(void* p, unsigned long long bytes) {
    registered_client().GetMemoryAllocator()->deallocate(p, bytes);
}

}  // namespace detail

char const* locked_recycled_image_error::what() const noexcept {
    return "attempt to recreate a locked recycled_image";
}

char const* bounds_exception_t::what() const noexcept {
    return "out-of-bounds access in inset_view";
}

}  // namespace WM
