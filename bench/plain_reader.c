/* plain_reader PATTERN...: opens, reads and closes what a monitor has to read, and makes nothing of it: /proc/stat every second, and
 * every other second the files that match the patterns when it starts. */
#include <errno.h>
#include <fcntl.h>
#include <glob.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

enum { SECONDS_OF_A_PASS = 2 };

static char text[1 << 16];

/* Most files have one short line, so that one reading is enough; the kernel hands /proc/stat out in pieces. */
static void read_file(const char* path, int in_pieces)
{
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return;
    }
    while (read(fd, text, sizeof text) > 0 && in_pieces) {
    }
    close(fd);
}

static void wait_until(const struct timespec* due)
{
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, due, NULL) == EINTR) {
    }
}

int main(int argc, char** argv)
{
    glob_t files = {0};
    for (int i = 1; i < argc; ++i) {
        if (glob(argv[i], GLOB_NOSORT | (i > 1 ? GLOB_APPEND : 0), NULL, &files) != 0) {
            fprintf(stderr, "plain_reader: no file %s\n", argv[i]);
            return EXIT_FAILURE;
        }
    }
    struct timespec due;
    clock_gettime(CLOCK_MONOTONIC, &due);
    for (int second = 0;; ++second) {
        read_file("/proc/stat", 1);
        for (size_t i = 0; second % SECONDS_OF_A_PASS == 0 && i < files.gl_pathc; ++i) {
            read_file(files.gl_pathv[i], 0);
        }
        ++due.tv_sec;
        wait_until(&due);
    }
}
