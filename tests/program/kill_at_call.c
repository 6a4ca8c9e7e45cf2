/* Kills the program at a chosen moment of its saves, or makes the saves take longer, by standing before the libraries that it calls:
 *     LD_PRELOAD=kill_at_call.so KILL_AT_CALL_FILE=orders program
 * From the moment at which the file of orders exists, the calls that concern the files of the program's own folder are counted. The file
 * holds a line:
 *     kill N      SIGKILL before the Nth call
 *     halve N     the Nth call, if it is a write, writes only half of its bytes; SIGKILL behind it
 *     slow N      each call waits N microseconds first
 * The names of the calls are appended to the file with ".calls" behind its name. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

static const char OWN_FOLDER[] = "/.config/Vantric";

/* The function of that name behind ours. */
#define NEXT(name) ((__typeof__(&name))dlsym(RTLD_NEXT, #name))

static void note(const char *file, const char *call)
{
    char path[4096], line[64];
    snprintf(path, sizeof path, "%s.calls", file);
    int length = snprintf(line, sizeof line, "%s\n", call);
    int fd = NEXT(open)(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0 || NEXT(write)(fd, line, (size_t)length) < 0)
        abort();
    NEXT(close)(fd);
}

/* Says which call this is and obeys the orders; true if it is the one to be halved. */
static int is_to_be_halved(const char *call)
{
    static int count;
    char word[16] = "";
    int number = 0;
    const char *file = getenv("KILL_AT_CALL_FILE");
    FILE *orders = file ? NEXT(fopen)(file, "r") : NULL;
    if (orders == NULL)
        return 0;
    int found = fscanf(orders, "%15s %d", word, &number);
    NEXT(fclose)(orders);
    if (found != 2)
        return 0;
    if (strcmp(word, "slow") == 0) {
        usleep((useconds_t)number);
        return 0;
    }
    ++count;
    if (strcmp(word, "kill") == 0 && count == number)
        raise(SIGKILL);
    note(file, call);
    return strcmp(word, "halve") == 0 && count == number;
}

static int is_own_path(const char *path)
{
    return path != NULL && strstr(path, OWN_FOLDER) != NULL;
}

static int is_own_file(int fd)
{
    char link[64], path[4096];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    ssize_t length = readlink(link, path, sizeof path - 1);
    if (length < 0)
        return 0;
    path[length] = '\0';
    return is_own_path(path);
}

FILE *fopen(const char *path, const char *mode)
{
    if (is_own_path(path) && strpbrk(mode, "wa+"))
        is_to_be_halved("fopen");
    return NEXT(fopen)(path, mode);
}

FILE *fopen64(const char *path, const char *mode)
{
    if (is_own_path(path) && strpbrk(mode, "wa+"))
        is_to_be_halved("fopen");
    return NEXT(fopen64)(path, mode);
}

int fclose(FILE *file)
{
    if (is_own_file(fileno(file)))
        is_to_be_halved("fclose");
    return NEXT(fclose)(file);
}

ssize_t write(int fd, const void *data, size_t length)
{
    int is_halved = is_own_file(fd) && is_to_be_halved("write");
    ssize_t written = NEXT(write)(fd, data, is_halved ? length / 2 : length);
    if (is_halved)
        raise(SIGKILL);
    return written;
}

ssize_t writev(int fd, const struct iovec *parts, int count)
{
    if (is_own_file(fd) && is_to_be_halved("writev"))
        abort(); /* nothing so long is written that the library would gather it */
    return NEXT(writev)(fd, parts, count);
}

int rename(const char *from, const char *to)
{
    if (is_own_path(to))
        is_to_be_halved("rename");
    return NEXT(rename)(from, to);
}

int mkdir(const char *path, mode_t mode)
{
    if (is_own_path(path))
        is_to_be_halved("mkdir");
    return NEXT(mkdir)(path, mode);
}
