/* Lets a kind of system call fail from a chosen moment on, by standing before the libraries that a program calls:
 *     LD_PRELOAD=failing_calls.so FAILING_CALLS='rename=30' FAILING_CALLS_FROM=start program
 * FAILING_CALLS names one of the kinds below and the errno. FAILING_CALLS_FROM is "start", when all libraries are loaded, or "run", when
 * the main loop begins. A filter in the kernel does it, so nothing and nobody in the process gets around it, its children included. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <gtk/gtk.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#ifdef __x86_64__
#define ARCHITECTURE AUDIT_ARCH_X86_64
#else
#define ARCHITECTURE AUDIT_ARCH_AARCH64
#endif

#define WRITING (O_WRONLY | O_RDWR | O_CREAT)
#define MAX_LENGTH 64

/* A call of a kind. With a mask it counts only if its argument of that number has one of these bits. */
struct call {
    const char *kind;
    int number;
    int argument;
    unsigned mask;
};

#define CALL(kind, name) {kind, SYS_##name, 0, 0}

static const struct call CALLS[] = {
    {"open to write", SYS_openat, 2, WRITING},
    {"thread", SYS_clone, 0, CLONE_THREAD},
    CALL("thread", clone3),
    CALL("clone", clone),
    CALL("clone", clone3),
    CALL("clone3", clone3),
    CALL("openat", openat),
    CALL("read", read),
    CALL("write", write),
    CALL("write", writev),
    CALL("lseek", lseek),
    CALL("close", close),
    CALL("fsync", fsync),
    CALL("fsync", fdatasync),
    CALL("ftruncate", ftruncate),
    CALL("fallocate", fallocate),
    CALL("rename", renameat),
    CALL("rename", renameat2),
    CALL("unlink", unlinkat),
    CALL("mkdir", mkdirat),
    CALL("stat", newfstatat),
    CALL("stat", statx),
    CALL("fstat", fstat),
    CALL("readlink", readlinkat),
    CALL("access", faccessat),
    CALL("getdents64", getdents64),
    CALL("fcntl", fcntl),
    CALL("ioctl", ioctl),
    CALL("mmap", mmap),
    CALL("mprotect", mprotect),
    CALL("madvise", madvise),
    CALL("futex", futex),
    CALL("socket", socket),
    CALL("connect", connect),
    CALL("sendmsg", sendmsg),
    CALL("recvmsg", recvmsg),
    CALL("getsockopt", getsockopt),
    CALL("poll", ppoll),
    CALL("shmget", shmget),
    CALL("shmat", shmat),
    CALL("memfd_create", memfd_create),
    CALL("eventfd2", eventfd2),
    CALL("pipe2", pipe2),
    CALL("inotify_init1", inotify_init1),
    CALL("inotify_add_watch", inotify_add_watch),
    CALL("getrandom", getrandom),
    CALL("prctl", prctl),
    CALL("sched_getaffinity", sched_getaffinity),
    CALL("rt_sigaction", rt_sigaction),
    CALL("rt_sigprocmask", rt_sigprocmask),
    CALL("execve", execve),
    CALL("prlimit64", prlimit64),
#ifdef __x86_64__
    CALL("clone", fork),
    CALL("clone", vfork),
    CALL("openat", open),
    CALL("rename", rename),
    CALL("unlink", unlink),
    CALL("mkdir", mkdir),
    CALL("stat", stat),
    CALL("stat", lstat),
    CALL("readlink", readlink),
    CALL("access", access),
    CALL("poll", poll),
    CALL("eventfd2", eventfd),
    CALL("pipe2", pipe),
#endif
};

/* Appends to a filter what lets that call fail. The call's number is loaded before and behind it. */
static int append(struct sock_filter *filter, int length, const struct call *call, unsigned error)
{
    const unsigned argument = (unsigned)(offsetof(struct seccomp_data, args) + (size_t)call->argument * sizeof(__u64));
    filter[length++] = (struct sock_filter)BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, (unsigned)call->number, 0, call->mask ? 4 : 1);
    if (call->mask) {
        filter[length++] = (struct sock_filter)BPF_STMT(BPF_LD | BPF_W | BPF_ABS, argument);
        filter[length++] = (struct sock_filter)BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, call->mask, 0, 1);
    }
    filter[length++] = (struct sock_filter)BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error);
    if (call->mask)
        filter[length++] = (struct sock_filter)BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr));
    return length;
}

static void install(const char *kind, unsigned error)
{
    struct sock_filter filter[MAX_LENGTH] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ARCHITECTURE, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
    };
    const int head = 4;
    int length = head;
    for (size_t i = 0; i < sizeof CALLS / sizeof *CALLS; ++i)
        if (strcmp(CALLS[i].kind, kind) == 0)
            length = append(filter, length, &CALLS[i], error);
    if (length == head) {
        fprintf(stderr, "no calls of the kind %s\n", kind);
        abort();
    }
    filter[length++] = (struct sock_filter)BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
    const struct sock_fprog program = {(unsigned short)length, filter};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_TSYNC, &program) != 0) {
        perror("no filter of calls");
        abort();
    }
}

static void fail_from(const char *moment)
{
    char kind[32];
    unsigned error;
    const char *from = getenv("FAILING_CALLS_FROM"), *calls = getenv("FAILING_CALLS");
    if (from != NULL && calls != NULL && strcmp(from, moment) == 0 && sscanf(calls, "%31[^=]=%u", kind, &error) == 2)
        install(kind, error);
}

__attribute__((constructor)) static void on_start(void)
{
    fail_from("start");
}

void gtk_main(void)
{
    fail_from("run");
    ((__typeof__(&gtk_main))dlsym(RTLD_NEXT, "gtk_main"))();
}
