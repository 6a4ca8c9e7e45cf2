/* Lets a program's time pass faster, so that a test sees many minutes of it:
 *     LD_PRELOAD=time_lapse.so TIME_LAPSE=50 program
 * The clock by which GLib and the C++ library count runs that many times as fast, and what they wait for comes as
 * much sooner. Meant for a program that waits in these calls only. (faketime 0.9.10 leaves ppoll with timeouts below
 * a second alone, so the main loop would go on ticking once a second.) */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <poll.h>
#include <semaphore.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#define NS_PER_S 1000000000LL
#define NS_PER_MS 1000000LL

static long long factor(void)
{
    static long long value;
    if (value == 0)
        value = atoll(getenv("TIME_LAPSE"));
    return value;
}

static long long to_ns(const struct timespec *time)
{
    return time->tv_sec * NS_PER_S + time->tv_nsec;
}

static struct timespec from_ns(long long ns)
{
    return (struct timespec){.tv_sec = ns / NS_PER_S, .tv_nsec = ns % NS_PER_S};
}

static long long start; /* by the clock as it is, in ns; 0 until somebody has asked for the time */

int clock_gettime(clockid_t clock, struct timespec *time)
{
    int result = (int)syscall(SYS_clock_gettime, clock, time);
    if (result == 0 && clock == CLOCK_MONOTONIC) {
        long long now = to_ns(time);
        if (start == 0)
            start = now; /* threads may race here: they differ by less than they can notice */
        *time = from_ns(start + (now - start) * factor());
    }
    return result;
}

int nanosleep(const struct timespec *duration, struct timespec *rest)
{
    struct timespec shorter = from_ns(to_ns(duration) / factor());
    int result = (int)syscall(SYS_nanosleep, &shorter, rest);
    if (result != 0 && rest)
        *rest = from_ns(to_ns(rest) * factor());
    return result;
}

/* Its deadline comes from the clock above, and has to be told to the kernel by the other. */
int sem_clockwait(sem_t *semaphore, clockid_t clock, const struct timespec *deadline)
{
    __typeof__(&sem_clockwait) next = (__typeof__(&sem_clockwait))dlsym(RTLD_NEXT, "sem_clockwait");
    struct timespec sooner = *deadline;
    if (clock == CLOCK_MONOTONIC)
        sooner = from_ns(start + (to_ns(deadline) - start) / factor());
    return next(semaphore, clock, &sooner);
}

int ppoll(struct pollfd *fds, nfds_t count, const struct timespec *timeout, const sigset_t *mask)
{
    struct timespec shorter;
    if (timeout)
        shorter = from_ns(to_ns(timeout) / factor());
    return (int)syscall(SYS_ppoll, fds, count, timeout ? &shorter : NULL, mask, _NSIG / 8);
}

int poll(struct pollfd *fds, nfds_t count, int timeout_ms)
{
    struct timespec timeout = from_ns(timeout_ms * NS_PER_MS);
    return ppoll(fds, count, timeout_ms < 0 ? NULL : &timeout, NULL);
}
