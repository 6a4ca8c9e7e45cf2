/// How the program ends where the allocator is what has crashed: each thread that asks it for memory from then on may wait for good, the
/// dying one above all. The rest of the crash handler is tested from outside, in tests/program/test_crash.py.
#include "crash_handler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <map>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

#include "cpu_reader.h"
#include "desktop/calls.h"
#include "fake_machine.h"
#include "program/heap_faults.h"

namespace {

constexpr int CRASHES = 50;  // of each kind in each thread, all at once

struct Kind {
    const char* name;
    void (*commit)();
    int signal;
};
constexpr Kind KINDS[] = {
    {"double free", free_twice, SIGABRT},
    {"damaged size", damage_size, SIGABRT},
    {"fault in free", fault_in_free, SIGSEGV},
};

std::atomic<pid_t> g_may_not_allocate = 0;           // a process that is ended if it asks for memory
std::atomic<void (*)()> g_fault_in_pause = nullptr;  // committed by the sampling thread, in its next pause

void commit(void (*fault)(), bool in_sampler)
{
    if (!in_sampler) {
        fault();
        return;
    }
    g_fault_in_pause = fault;
    for (;;) {
        pause();
    }
}

/// A program with a sampling thread, which commits the fault on one of its two threads. Like the program itself, it has one arena for both.
[[noreturn]] void die(void (*fault)(), bool in_sampler, const std::string& folder)
{
    setenv("XDG_RUNTIME_DIR", folder.c_str(), 1);
    mallopt(M_ARENA_MAX, 1);
    prctl(PR_SET_DUMPABLE, 0);  // hundreds of cores would keep the system busy
    if (std::freopen((folder + "/complaints").c_str(), "w", stderr) == nullptr) {
        _exit(1);
    }
    CrashHandler::install();
    CPUReader reader;
    reader.start();
    commit(fault, in_sampler);
    _exit(0);
}

bool has_whole_report(const std::string& folder)
{
    static const std::regex whole(
        "=== Vantric Crash Report ===\n(\\w+: .*\n)+\nBacktrace:\n(.*\\[0x[0-9a-f]+\\]\n){4,}\n=== End Report ===\n");
    const std::string report = folder + "/Vantric_crash.txt";
    return std::filesystem::exists(report) && std::regex_match(read_text(report), whole);
}

std::string name_of(const Kind& kind, bool in_sampler)
{
    return std::string(kind.name) + (in_sampler ? " in a sampler" : " in the main thread");
}

class Dying {
public:
    Dying(const Kind& kind, bool in_sampler, const std::string& folder) : m_folder(folder), m_name(name_of(kind, in_sampler))
    {
        std::filesystem::create_directory(folder);
        m_pid = fork();
        if (m_pid == 0) {
            die(kind.commit, in_sampler, folder);
        }
        if (m_pid < 0) {
            throw std::runtime_error("can't fork");  // -1 would mean all processes further on
        }
    }

    bool has_ended()
    {
        m_has_ended = m_has_ended || waitpid(m_pid, &m_status, WNOHANG) == m_pid;
        return m_has_ended;
    }

    void end()
    {
        if (!has_ended()) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, &m_status, 0);
        }
    }

    std::string outcome() const
    {
        return m_name + (WIFSIGNALED(m_status) ? ": signal " + std::to_string(WTERMSIG(m_status)) : ": no signal") +
               (m_has_ended ? "" : ", having hung") + (has_whole_report(m_folder) ? ", whole report" : ", no whole report");
    }

private:
    const std::string m_folder;
    const std::string m_name;
    pid_t m_pid = 0;
    int m_status = 0;
    bool m_has_ended = false;
};

}  // namespace

#ifndef SANITIZED
extern "C" void* __libc_malloc(std::size_t size);  // NOLINT(bugprone-reserved-identifier)
extern "C" void* malloc(std::size_t size)
{
    if (g_may_not_allocate == getpid()) {
        _exit(0);
    }
    return __libc_malloc(size);
}
#endif

extern "C" int nanosleep(const timespec* time, timespec* rest)
{
    if (auto* const fault = g_fault_in_pause.exchange(nullptr)) {
        fault();
    }
    return next<decltype(nanosleep)>("nanosleep")(time, rest);
}

TEST(DamagedHeap, IsNotAskedForMemory)
{
#ifdef SANITIZED
    GTEST_SKIP() << "a sanitizer has an allocator of its own";
#endif
    const TemporaryFolder folder;
    const ScopedEnv runtime("XDG_RUNTIME_DIR", folder.path());
    const pid_t dying = fork();
    if (dying == 0) {
        prctl(PR_SET_DUMPABLE, 0);
        CrashHandler::install();
        g_may_not_allocate = getpid();
        std::raise(SIGSEGV);
    }
    ASSERT_GT(dying, 0);
    int status = 0;
    waitpid(dying, &status, 0);
    EXPECT_EQ(WIFSIGNALED(status) ? WTERMSIG(status) : 0, SIGSEGV);
    EXPECT_TRUE(has_whole_report(folder.path()));
}

TEST(DamagedHeap, EndsByItsSignalWithAWholeReport)
{
#ifdef SANITIZED
    GTEST_SKIP() << "a sanitizer's allocator finds such faults itself";
#endif
    const TemporaryFolder folder;
    std::vector<Dying> all;
    std::map<std::string, int> expected;
    for (const Kind& kind : KINDS) {
        for (const bool in_sampler : {false, true}) {
            for (int i = 0; i < CRASHES; ++i) {
                all.emplace_back(kind, in_sampler, folder.path() + "/" + std::to_string(all.size()));
            }
            expected[name_of(kind, in_sampler) + ": signal " + std::to_string(kind.signal) + ", whole report"] = CRASHES;
        }
    }
    std::map<std::string, int> outcomes;
    wait_until([&] { return std::ranges::all_of(all, &Dying::has_ended); });
    for (Dying& dying : all) {
        dying.end();
        ++outcomes[dying.outcome()];
    }
    EXPECT_EQ(outcomes, expected);
}
