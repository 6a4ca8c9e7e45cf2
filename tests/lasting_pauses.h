/// Takes the place of the wait in which a sampler pauses, for the whole test program: only one source of it can include this.
#pragma once

#include <dlfcn.h>
#include <semaphore.h>

#include <atomic>

/// As long as there is one no pause that begins ends by itself: the sampler makes one pass after each start, and no other.
class LastingPauses {
public:
    LastingPauses() { s_last = true; }
    ~LastingPauses() { s_last = false; }
    LastingPauses(const LastingPauses&) = delete;
    LastingPauses& operator=(const LastingPauses&) = delete;

    static inline std::atomic<bool> s_last{false};
};

extern "C" int sem_clockwait(sem_t* semaphore, clockid_t clock, const timespec* end)
{
    static const auto real = reinterpret_cast<decltype(&sem_clockwait)>(dlsym(RTLD_NEXT, "sem_clockwait"));
    constexpr time_t LONG_S = 3600;
    timespec its_end = *end;
    its_end.tv_sec += LastingPauses::s_last ? LONG_S : 0;
    return real(semaphore, clock, &its_end);
}
