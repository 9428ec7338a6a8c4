#include "MemoryLimit.h"

#include <cstdlib>
#include <new>

bool memory_limit::largeAllocationsFail = false;

void* operator new(std::size_t size) {
    constexpr std::size_t large = 1 << 20;
    void* const memory = memory_limit::largeAllocationsFail && size > large ? nullptr : std::malloc(size);
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}

void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { std::free(memory); }
