#include "tests/unit/allocationcounter.h"

#include <atomic>

static std::atomic<std::size_t> s_bytes{0};
static std::atomic<std::size_t> s_allocations{0};

static void s_count(std::size_t size)
{
    s_bytes.fetch_add(size, std::memory_order_relaxed);
    s_allocations.fetch_add(1, std::memory_order_relaxed);
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)

// The sanitizers bring their own heap and announce each allocation to a hook.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*mallocHook)(const volatile void *,
                                                                            std::size_t),
                                                         void (*freeHook)(const volatile void *));

static void s_onMalloc(const volatile void *, std::size_t size)
{
    s_count(size);
}

static void s_onFree(const volatile void *) {}

static const int s_hooks = __sanitizer_install_malloc_and_free_hooks(&s_onMalloc, &s_onFree);

#else

// The C library's own heap under its other names: a program that defines these replaces them for every
// library it loads, Qt's containers included.
extern "C" {

void *__libc_malloc(std::size_t size);
void *__libc_calloc(std::size_t count, std::size_t size);
void *__libc_realloc(void *block, std::size_t size);

void *malloc(std::size_t size)
{
    s_count(size);
    return __libc_malloc(size);
}

void *calloc(std::size_t count, std::size_t size)
{
    s_count(count * size);
    return __libc_calloc(count, size);
}

void *realloc(void *block, std::size_t size)
{
    s_count(size);
    return __libc_realloc(block, size);
}

} // extern "C"

#endif

AllocationCounter::AllocationCounter()
    : m_startBytes(s_bytes.load()), m_startAllocations(s_allocations.load())
{
}

std::size_t AllocationCounter::bytes() const
{
    return s_bytes.load() - m_startBytes;
}

std::size_t AllocationCounter::allocations() const
{
    return s_allocations.load() - m_startAllocations;
}
