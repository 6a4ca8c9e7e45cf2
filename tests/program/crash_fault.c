/* Makes a program fail at a chosen call, and notes how it dies, by standing before the libraries that it calls:
 *     LD_PRELOAD=crash_fault.so CRASH_AT=gtk_init CRASH_BY=null CRASH_NOTES=notes program
 * CRASH_AT is one of the calls below; the program's first such call does what CRASH_BY says. CRASH_FAILS names one call
 * that fails. CRASH_NOTES receives the calls by which a program dies; those of a forked child go to the file of that name
 * with ".child" behind it. Only calls by the program itself count. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <gtk/gtk.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "heap_faults.h"

#define MANY_FRAMES 50

static int is_child;

/* What the program starts is left alone. */
__attribute__((constructor)) static void hide(void)
{
    unsetenv("LD_PRELOAD");
}

static int variable_is(const char *variable, const char *value)
{
    const char *found = getenv(variable);
    return found != NULL && strcmp(found, value) == 0;
}

static int is_of_program(const void *address)
{
    Dl_info info;
    return dladdr(address, &info) && strstr(info.dli_fname, ".so") == NULL;
}

__attribute__((format(printf, 1, 2))) static void note(const char *format, ...)
{
    const char *file = getenv("CRASH_NOTES");
    if (file == NULL)
        return;
    char name[4096];
    snprintf(name, sizeof name, "%s%s", file, is_child ? ".child" : "");
    int fd = open(name, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    va_list arguments;
    va_start(arguments, format);
    if (fd < 0 || vdprintf(fd, format, arguments) < 0)
        _exit(99);
    va_end(arguments);
    close(fd);
}

/* --- ways to crash --- */

static volatile int zero;

static void write_to_null(void)
{
    *(volatile int *)(long)zero = 1;
}

/* Throws a std::system_error; of the C++ library. */
void _ZSt20__throw_system_errori(int error);

/* Crashes with that many frames above it. */
__attribute__((noinline)) static void crash_below(long frames)
{
    volatile char room[512];
    room[0] = 1;
    if (frames != 0)
        crash_below(frames - 1);
    else
        write_to_null();
    room[1] = room[0];
}

/* As whoever asks an allocator that has crashed. */
static void wait_for_own_lock(void)
{
    static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_lock(&lock);
    pthread_mutex_lock(&lock);
}

static void crash(const char *way)
{
    static const char *const names[] = {[SIGSEGV] = "SIGSEGV", [SIGABRT] = "SIGABRT", [SIGFPE] = "SIGFPE",
                                        [SIGBUS] = "SIGBUS",   [SIGILL] = "SIGILL",   [SIGTRAP] = "SIGTRAP"};
    for (int number = 0; number < (int)G_N_ELEMENTS(names); number++)
        if (names[number] != NULL && strcmp(way, names[number]) == 0)
            raise(number); /* in this thread, as a fault would be: another one need not have it blocked */
    if (strcmp(way, "null") == 0)
        write_to_null();
    else if (strcmp(way, "abort") == 0)
        abort();
    else if (strcmp(way, "throw") == 0)
        _ZSt20__throw_system_errori(EINVAL);
    else if (strcmp(way, "g_error") == 0)
        g_error("a test's error");
    else if (strcmp(way, "deep") == 0)
        crash_below(MANY_FRAMES);
    else if (strcmp(way, "endless") == 0)
        crash_below(-1);
    else if (strcmp(way, "hang") == 0)
        wait_for_own_lock();
    else if (strcmp(way, "double free") == 0)
        free_twice();
    else if (strcmp(way, "damaged size") == 0)
        damage_size();
    else if (strcmp(way, "fault in free") == 0)
        fault_in_free();
}

static void crash_if_at(const char *call, const void *caller)
{
    static int crashed;
    if (variable_is("CRASH_AT", call) && is_of_program(caller) && !__sync_lock_test_and_set(&crashed, 1))
        crash(getenv("CRASH_BY"));
}

/* The function of that name behind ours. */
#define NEXT(name) ((__typeof__(&name))dlsym(RTLD_NEXT, #name))
#define CALLER __builtin_return_address(0)
#define FAILS(name) (variable_is("CRASH_FAILS", #name) && is_of_program(CALLER))
#define CRASH_IF_AT(name) crash_if_at(#name, CALLER)

/* --- calls to crash at --- */

void gtk_init(int *argc, char ***argv)
{
    CRASH_IF_AT(gtk_init);
    NEXT(gtk_init)(argc, argv);
}

/* In the constructor of the sensors' sampler */
int sem_init(sem_t *semaphore, int shared, unsigned value)
{
    CRASH_IF_AT(sem_init);
    return NEXT(sem_init)(semaphore, shared, value);
}

/* In a draw handler */
void cairo_stroke(cairo_t *cr)
{
    CRASH_IF_AT(cairo_stroke);
    NEXT(cairo_stroke)(cr);
}

/* In the pause of the loads' sampler */
int nanosleep(const struct timespec *time, struct timespec *rest)
{
    CRASH_IF_AT(nanosleep);
    return NEXT(nanosleep)(time, rest);
}

/* In the pause of the sensors' sampler */
int sem_clockwait(sem_t *semaphore, clockid_t clock, const struct timespec *end)
{
    CRASH_IF_AT(sem_clockwait);
    return NEXT(sem_clockwait)(semaphore, clock, end);
}

/* In the crash handler itself; in its child there is setenv, below */
void backtrace_symbols_fd(void *const *frames, int count, int fd)
{
    CRASH_IF_AT(backtrace_symbols_fd);
    NEXT(backtrace_symbols_fd)(frames, count, fd);
}

/* --- calls that fail --- */

/* Once, in one of the sampling threads: were both to die, the second would cut the report of the first. */
int pthread_mutex_lock(pthread_mutex_t *mutex)
{
    static __typeof__(&pthread_mutex_lock) next;
    static int failed;
    if (next == NULL)
        next = NEXT(pthread_mutex_lock);
    if (gettid() != getpid() && FAILS(pthread_mutex_lock) && !__sync_lock_test_and_set(&failed, 1))
        return EINVAL;
    return next(mutex);
}

int uname(struct utsname *system)
{
    return FAILS(uname) ? -1 : NEXT(uname)(system);
}

/* It fails only so far: every other time it is interrupted, and else writes one byte. */
ssize_t write(int file, const void *bytes, size_t count)
{
    static int calls;
    if (!FAILS(write))
        return NEXT(write)(file, bytes, count);
    if (++calls % 2 != 0) {
        errno = EINTR;
        return -1;
    }
    return NEXT(write)(file, bytes, 1);
}

/* --- calls to note --- */

int sigaction(int number, const struct sigaction *action, struct sigaction *old)
{
    if (action != NULL && is_of_program(CALLER)) {
        int masked = 0;
        for (int other = 1; other < NSIG; other++)
            masked += sigismember(&action->sa_mask, other) == 1;
        note("sigaction %d flags %#x masked %d\n", number, (unsigned)action->sa_flags, masked);
    }
    return NEXT(sigaction)(number, action, old);
}

__sighandler_t signal(int number, __sighandler_t handler)
{
    if (is_of_program(CALLER))
        note("signal %d %s\n", number, handler == SIG_DFL ? "default" : "handler");
    return NEXT(signal)(number, handler);
}

unsigned alarm(unsigned seconds)
{
    note("alarm %u\n", seconds);
    return NEXT(alarm)(seconds);
}

int open(const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    mode_t mode = va_arg(arguments, mode_t);
    va_end(arguments);
    if (is_of_program(CALLER))
        note("open %s\n", path);
    return NEXT(open)(path, flags, mode);
}

pid_t fork(void)
{
    if (!is_of_program(CALLER))
        return NEXT(fork)();
    CRASH_IF_AT(fork);
    note("fork\n");
    pid_t child = FAILS(fork) ? -1 : NEXT(fork)();
    is_child = child == 0;
    return child;
}

/* Whoever calls: as the last thing that a function does, it is called from nowhere in the program. */
int raise(int number)
{
    note("raise %d\n", number);
    return NEXT(raise)(number);
}

int setenv(const char *name, const char *value, int overwrite)
{
    CRASH_IF_AT(setenv);
    if (is_of_program(CALLER))
        note("setenv %s=%s %d\n", name, value, overwrite);
    return NEXT(setenv)(name, value, overwrite);
}

/* The last argument, a script, is noted as the lines behind. */
int execl(const char *path, const char *first, ...)
{
    va_list arguments;
    va_start(arguments, first);
    char *second = va_arg(arguments, char *);
    char *script = va_arg(arguments, char *);
    note("execl %s %s %s%s\n%s", path, first, second, va_arg(arguments, char *) == NULL ? "" : " and more", script);
    va_end(arguments);
    return FAILS(execl) ? -1 : execv(path, (char *[]){(char *)first, second, script, NULL});
}
