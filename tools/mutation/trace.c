/* Notes which places of the program a process reaches: linked into a build with -fsanitize-coverage=trace-pc, whose compiler calls the
   function below at the start of each basic block. The notes are a file with a byte for each byte of code, shared while the process runs,
   so they outlive a crash. The folder for them is named by MUTATION_TRACE, or, as tests start programs with variables of their own, in the
   file "trace-to" beside the program. */
#define _GNU_SOURCE
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

enum { CODE_SIZE = 1 << 24 };

extern const char __ehdr_start __attribute__((visibility("hidden"))); /* where this library or program begins in memory */

static unsigned char* reached;

void __sanitizer_cov_trace_pc(void)
{
    uintptr_t place = (uintptr_t)__builtin_return_address(0) - (uintptr_t)&__ehdr_start;
    if (reached != NULL && place < CODE_SIZE) {
        reached[place] = 1;
    }
}

static int find_folder(char* folder, size_t size)
{
    const char* variable = getenv("MUTATION_TRACE");
    if (variable != NULL) {
        return snprintf(folder, size, "%s", variable) < (int)size;
    }
    char beside[4096];
    ssize_t length = readlink("/proc/self/exe", beside, sizeof beside - 16);
    if (length < 0) {
        return 0;
    }
    beside[length] = '\0';
    strcpy(strrchr(beside, '/') + 1, "trace-to");
    int file = open(beside, O_RDONLY | O_CLOEXEC);
    length = file < 0 ? 0 : read(file, folder, size - 1);
    if (file >= 0) {
        close(file);
    }
    folder[length > 0 ? length : 0] = '\0';
    return length > 0;
}

__attribute__((constructor(101))) static void begin_trace(void)
{
    char folder[4096];
    char path[4200];
    struct timespec now;
    if (!find_folder(folder, sizeof folder)) {
        return;
    }
    clock_gettime(CLOCK_MONOTONIC, &now);
    snprintf(path, sizeof path, "%s/%ld-%ld", folder, (long)getpid(), now.tv_nsec);
    int file = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (file < 0) {
        return;
    }
    if (ftruncate(file, CODE_SIZE) == 0) {
        void* notes = mmap(NULL, CODE_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        reached = notes == MAP_FAILED ? NULL : notes;
    }
    close(file);
}
