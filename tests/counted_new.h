/// Takes the place of operator new and delete, by malloc and free: counts the allocations, and notices the end of a watched one. Defines
/// them for the whole program, so only one source of it can include this. The thread sanitizer brings its own; then there is nothing here.
#pragma once

#ifndef THREAD_SANITIZED

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

inline std::atomic<std::size_t> g_allocations = 0;  ///< so far, on all threads
inline void* g_watched = nullptr;                   ///< the memory whose end is awaited
inline bool g_watched_is_freed = false;

#pragma GCC diagnostic ignored "-Wmismatched-new-delete"  // new is malloc here, and delete free

void* operator new(std::size_t size)
{
    ++g_allocations;
    if (void* const memory = std::malloc(size)) {
        return memory;
    }
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept
{
    g_watched_is_freed = g_watched_is_freed || (memory != nullptr && memory == g_watched);
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    operator delete(memory);
}

#endif
