/// All but install() and prepare() runs in signal context, on whichever thread took the signal, or in the child forked there. What has
/// crashed may be the allocator, and then whoever asks it for memory may wait for good. So nothing here asks it but what can't do without,
/// fork() and setenv(), and whatever hangs all the same is ended after a while. Some of the rest is not allowed in signal context either,
/// and can fail: better a report that mostly works than none.
#include "crash_handler.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <initializer_list>
#include <string_view>

#include "build_config.h"

#ifdef HAVE_BACKTRACE
#include <execinfo.h>
#endif

namespace {

using BuildConfig::APP_NAME;
using BuildConfig::APP_VERSION;
constexpr const char* REPORT_NAME = "Vantric_crash.txt";
constexpr mode_t REPORT_MODE = 0666;  // less the user's umask
constexpr int MAX_FRAMES = 32;
constexpr unsigned TIME_LIMIT_S = 3;  // for all that the dying process and its child do; mostly it takes some milliseconds

struct FatalSignal {
    int number;
    const char* name;
};
constexpr FatalSignal FATAL_SIGNALS[] = {
    {SIGSEGV, "SIGSEGV (Segmentation fault)"},     {SIGABRT, "SIGABRT (Abort)"},
    {SIGFPE, "SIGFPE (Floating point exception)"}, {SIGBUS, "SIGBUS (Bus error)"},
    {SIGILL, "SIGILL (Illegal instruction)"},      {SIGTRAP, "SIGTRAP (Trap — usually a fatal GLib/GTK error)"},
};

// A path is one byte longer here than the kernel opens: one that had to be cut does not open, and names no other file.
using PathText = std::array<char, PATH_MAX + 1>;
using TimeText = std::array<char, 64>;
using SubjectText = std::array<char, 256>;
using ScriptText = std::array<char, 4 * PATH_MAX + 4096>;  // holds the report's path four times

/// A variable that tells where the user's display is; the value is null if it is unset.
struct DisplayVariable {
    const char* name;
    const char* value;
};
using DisplayVariables = std::array<DisplayVariable, 3>;

/// The words of the dialogue.
struct Wording {
    const char* btn_send;
    const char* btn_cancel;
    const char* win_title;  // behind the program's name
};
constexpr Wording GERMAN = {"Absturzbericht senden", "Nicht senden", " - Können Sie beschreiben, wann der Fehler aufgetreten ist?"};
constexpr Wording ENGLISH = {"Send crash report", "Don't send", " - Can you describe when the error occurred?"};

const char* signalName(int sig)
{
    for (const FatalSignal& fatal : FATAL_SIGNALS) {
        if (fatal.number == sig) {
            return fatal.name;
        }
    }
    return "Unknown signal";
}

const char* value_or(const char* variable, const char* fallback)
{
    const char* value = std::getenv(variable);
    return value ? value : fallback;
}

PathText crashFilePath()
{
    PathText path;
    std::snprintf(path.data(), path.size(), "%s/%s", value_or("XDG_RUNTIME_DIR", "/tmp"), REPORT_NAME);
    return path;
}

/// Not by localtime, which looks for the time zone anew, with the allocator.
TimeText local_time()
{
    TimeText text;
    const std::time_t now = std::time(nullptr);
    std::tm parts = {};
    localtime_r(&now, &parts);
    std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts);
    return text;
}

// --- the end in any case ---

volatile std::sig_atomic_t g_fatal_signal = 0;  // the latest one; 0 before the first
volatile std::sig_atomic_t g_process = 0;       // the one that reports its crashes; what it forks does not

void unblock(int sig)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, sig);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

/// Takes SIGALRM, on whichever thread the system picks.
void end_at_once(int)
{
    const int sig = g_fatal_signal;
    std::signal(sig, SIG_DFL);
    unblock(sig);  // this may be the thread that waits inside the handler
    std::raise(sig);
}

/// Ends this process by the fatal signal, should it still be there when the time is up. A second crash, inside the handler, does not
/// prolong the time.
void limit_time(int sig)
{
    const bool is_second = g_fatal_signal != 0;
    g_fatal_signal = sig;
    if (is_second) {
        return;
    }
    struct sigaction action = {};
    action.sa_handler = end_at_once;
    sigemptyset(&action.sa_mask);
    sigaction(SIGALRM, &action, nullptr);
    unblock(SIGALRM);  // which the program may have inherited
    alarm(TIME_LIMIT_S);
}

// --- the report ---

/// Whether the report may replace that file: one that the user has made, and that has no other name.
bool is_own_file(const struct stat& file)
{
    return S_ISREG(file.st_mode) && file.st_uid == geteuid() && file.st_nlink <= 1;
}

/// Opens the report for writing; -1 if that is not possible. Everybody can put something in its place where the folder is /tmp: so it is
/// emptied only after a look at what has been opened, and neither a link is followed nor a reader waited for.
int open_report(const PathText& path)
{
    const int report = open(path.data(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, REPORT_MODE);
    if (report < 0) {
        return -1;
    }
    struct stat file = {};
    if (fstat(report, &file) != 0 || !is_own_file(file) || ftruncate(report, 0) != 0) {
        close(report);
        return -1;
    }
    return report;
}

void write_text(int report, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t written = write(report, text.data(), text.size());
        if (written > 0) {
            text.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno != EINTR) {
            return;
        }
    }
}

/// Not by a stream, whose buffer comes from the allocator.
void write_texts(int report, std::initializer_list<std::string_view> texts)
{
    for (const std::string_view text : texts) {
        write_text(report, text);
    }
}

void write_heading(int report, int sig, const TimeText& time)
{
    std::array<char, 16> number = {};
    std::to_chars(number.begin(), number.end(), sig);
    write_texts(report, {"=== ", APP_NAME, " Crash Report ===\n"});
    write_texts(report, {"Version: ", APP_VERSION, "\n"});
    write_texts(report, {"Signal: ", signalName(sig), " (", number.data(), ")\n"});
    write_texts(report, {"Time: ", time.data(), "\n"});
    utsname system;
    if (uname(&system) == 0) {
        write_texts(report, {"System: ", system.sysname, " ", system.release, " ", system.machine, "\n"});
    }
    write_texts(report, {"Desktop: ", value_or("XDG_CURRENT_DESKTOP", "unknown"), " (", value_or("XDG_SESSION_TYPE", "unknown"), ")\n"});
    if (const char* snap = std::getenv("SNAP_VERSION")) {
        write_texts(report, {"Snap: yes (v", snap, ")\n"});
    } else {
        write_text(report, "Snap: no\n");
    }
}

void write_frames(int report)
{
#ifdef HAVE_BACKTRACE
    void* frames[MAX_FRAMES];
    const int count = backtrace(frames, MAX_FRAMES);
    backtrace_symbols_fd(frames, count, report);
#else
    write_text(report, "(none: this C library has no backtrace)\n");
#endif
}

void write_report(int report, int sig, const TimeText& time)
{
    write_heading(report, sig, time);
    write_text(report, "\nBacktrace:\n");
    write_frames(report);
    write_text(report, "\n=== End Report ===\n");
}

// --- the child: the dialogue ---

DisplayVariables display_variables()
{
    DisplayVariables variables = {{{"DISPLAY", nullptr}, {"WAYLAND_DISPLAY", nullptr}, {"XAUTHORITY", nullptr}}};
    for (DisplayVariable& variable : variables) {
        variable.value = std::getenv(variable.name);
    }
    return variables;
}

/// Whether one of the three variables begins with "de", in whatever order of precedence, and whatever follows.
bool isGerman()
{
    for (const char* name : {"LANG", "LC_ALL", "LANGUAGE"}) {
        if (std::string_view(value_or(name, "")).starts_with("de")) {
            return true;
        }
    }
    return false;
}

/// The script, for bash. Its texts are pasted in without escaping: the apostrophe of the English button leaves a quotation open, so bash
/// refuses the whole script, and only German users are asked.
ScriptText dialogue_script(const char* path, const char* subject)
{
    const auto& [btn_send, btn_cancel, win_title] = isGerman() ? GERMAN : ENGLISH;
    ScriptText script;
    std::snprintf(
        script.data(), script.size(),
        R"script(DESC=$(zenity --text-info --editable --title='%s%s' --width=500 --height=250 --ok-label='%s' --cancel-label='%s' 2>/dev/null)
if [ $? -ne 0 ]; then exit 0; fi
echo '' >> '%s'
echo 'User description:' >> '%s'
echo "$DESC" >> '%s'
BODY=$(python3 -c "
import urllib.parse
with open('%s') as f: data = f.read()
print(urllib.parse.quote(data))
" 2>/dev/null)
SUBJ=$(python3 -c "import urllib.parse; print(urllib.parse.quote('%s'))" 2>/dev/null)
xdg-open "mailto:%s?subject=${SUBJ}&body=${BODY}" 2>/dev/null || true
)script",
        APP_NAME, win_title, btn_send, btn_cancel, path, path, path, path, subject, BuildConfig::CRASH_MAILBOX);
    return script;
}

/// Lets the dialogue and the mail client be ended as any program can be. The child has the mask of the thread that crashed, and would
/// pass it on: the crash signal is blocked in it, and SIGINT and SIGTERM mostly are, which the program lets through at chosen instants
/// only. Their handler is the window's and has no business here.
void accept_signals()
{
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

/// Keeps bash's complaint about a script that it refuses off the user's terminal.
void hide_complaints()
{
    const int nowhere = open("/dev/null", O_WRONLY);
    if (nowhere >= 0 && nowhere != STDERR_FILENO) {
        dup2(nowhere, STDERR_FILENO);
        close(nowhere);
    }
}

[[noreturn]] void run_dialogue(const PathText& path, int sig, const TimeText& time, const DisplayVariables& display)
{
    accept_signals();
    hide_complaints();
    for (const auto& [name, value] : display) {
        if (value != nullptr) {
            setenv(name, value, 1);
        }
    }
    SubjectText subject;
    std::snprintf(subject.data(), subject.size(), "%s Crash: %s - %s", APP_NAME, signalName(sig), time.data());
    const ScriptText script = dialogue_script(path.data(), subject.data());
    alarm(0);  // the user may take any time
    execl("/bin/bash", "bash", "-c", script.data(), nullptr);
    _exit(0);
}

// --- the handler ---

/// Writes the report and starts the child that shows the dialogue. Without a report there is no dialogue.
void report_crash(int sig)
{
    const PathText path = crashFilePath();
    const int report = open_report(path);
    if (report < 0) {
        return;
    }
    const TimeText time = local_time();
    write_report(report, sig, time);
    close(report);
    const DisplayVariables display = display_variables();
    itimerval time_left = {};
    getitimer(ITIMER_REAL, &time_left);
    if (fork() == 0) {
        setitimer(ITIMER_REAL, &time_left, nullptr);  // a child does not inherit it
        run_dialogue(path, sig, time, display);
    }
}

/// The signal raised at the end is blocked until the return, and then ends the process, as if there had been no handler. A crash of the
/// child ends the child alone.
void crashHandler(int sig)
{
    std::signal(sig, SIG_DFL);
    if (getpid() == g_process) {
        limit_time(sig);
        report_crash(sig);
    }
    std::raise(sig);
}

/// Does beforehand what takes memory, or the dynamic loader, when it happens for the first time.
void prepare()
{
    tzset();  // loads the time zone
#ifdef HAVE_BACKTRACE
    void* frame = nullptr;
    backtrace(&frame, 1);  // opens a library the first time, which would end the program where it has crashed while opening another
#endif
}

}  // namespace

void CrashHandler::install()
{
    g_process = getpid();
    prepare();
    struct sigaction action = {};
    action.sa_handler = crashHandler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const FatalSignal& fatal : FATAL_SIGNALS) {
        sigaction(fatal.number, &action, nullptr);
    }
}
