/* Lets a program see a clock that is set while it runs, by standing before the C library:
 *     LD_PRELOAD=set_clock.so SET_CLOCK_FILE=seconds program
 * The file says by how many seconds the time of day is wrong. The clocks that nobody can set stay as they are. */
#define _GNU_SOURCE
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

static long wrong_by(void)
{
    const char *name = getenv("SET_CLOCK_FILE");
    FILE *file = name ? fopen(name, "re") : NULL;
    long seconds = 0;
    if (file == NULL || fscanf(file, "%ld", &seconds) == EOF)
        seconds = 0; /* it is just being written */
    if (file)
        fclose(file);
    return seconds;
}

int clock_gettime(clockid_t clock, struct timespec *now)
{
    int result = (int)syscall(SYS_clock_gettime, clock, now);
    if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE))
        now->tv_sec += wrong_by();
    return result;
}

int gettimeofday(struct timeval *restrict now, void *restrict zone)
{
    int result = (int)syscall(SYS_gettimeofday, now, zone);
    now->tv_sec += wrong_by();
    return result;
}

time_t time(time_t *result)
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    if (result)
        *result = now.tv_sec;
    return now.tv_sec;
}
