/* Sends a program SIGINT and SIGTERM at the very moment at which it installs a handler for them, by standing before the C library. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <signal.h>

typedef void (*handler)(int);

handler signal(int number, handler installed)
{
    handler (*next)(int, handler) = (handler (*)(int, handler))dlsym(RTLD_NEXT, "signal");
    handler before = next(number, installed);
    if (number == SIGINT || number == SIGTERM)
        raise(number);
    return before;
}
