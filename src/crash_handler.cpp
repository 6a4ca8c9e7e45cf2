/// All but install() runs in signal context, on whichever thread took the signal, or in the child forked there. Much of it is not allowed
/// there and can hang or fail, depending on what has crashed: better a report that mostly works than none.
#include "crash_handler.h"

#include <execinfo.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <string_view>

#include "build_config.h"

using namespace std::string_literals;

namespace {

using BuildConfig::APP_NAME;
using BuildConfig::APP_VERSION;
constexpr const char* REPORT_NAME = "Vantric_crash.txt";
constexpr int MAX_FRAMES = 32;

struct FatalSignal {
    int number;
    const char* name;
};
constexpr FatalSignal FATAL_SIGNALS[] = {
    {SIGSEGV, "SIGSEGV (Segmentation fault)"},     {SIGABRT, "SIGABRT (Abort)"},
    {SIGFPE, "SIGFPE (Floating point exception)"}, {SIGBUS, "SIGBUS (Bus error)"},
    {SIGILL, "SIGILL (Illegal instruction)"},      {SIGTRAP, "SIGTRAP (Trap — usually a fatal GLib/GTK error)"},
};

// The dying process makes its texts without the allocator, which may be what has crashed. A path is one byte longer here than the kernel
// opens: one that had to be cut does not open, and names no other file.
using PathText = std::array<char, PATH_MAX + 1>;
using TimeText = std::array<char, 64>;

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

TimeText local_time()
{
    TimeText text;
    const std::time_t now = std::time(nullptr);
    std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", std::localtime(&now));
    return text;
}

// --- the report ---

void write_heading(std::FILE* report, int sig, const TimeText& time)
{
    std::fprintf(report, "=== %s Crash Report ===\n", APP_NAME);
    std::fprintf(report, "Version: %s\n", APP_VERSION);
    std::fprintf(report, "Signal: %s (%d)\n", signalName(sig), sig);
    std::fprintf(report, "Time: %s\n", time.data());
    utsname system;
    if (uname(&system) == 0) {
        std::fprintf(report, "System: %s %s %s\n", system.sysname, system.release, system.machine);
    }
    std::fprintf(report, "Desktop: %s (%s)\n", value_or("XDG_CURRENT_DESKTOP", "unknown"), value_or("XDG_SESSION_TYPE", "unknown"));
    if (const char* snap = std::getenv("SNAP_VERSION")) {
        std::fprintf(report, "Snap: yes (v%s)\n", snap);
    } else {
        std::fprintf(report, "Snap: no\n");
    }
}

void write_backtrace(std::FILE* report)
{
    std::fprintf(report, "\nBacktrace:\n");
    std::fflush(report);  // the frames go past the stream
    void* frames[MAX_FRAMES];
    const int count = backtrace(frames, MAX_FRAMES);
    backtrace_symbols_fd(frames, count, fileno(report));
    std::fprintf(report, "\n=== End Report ===\n");
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
std::string dialogue_script(const std::string& path, const std::string& subject)
{
    const auto& [btn_send, btn_cancel, win_title] = isGerman() ? GERMAN : ENGLISH;
    std::string script = "DESC=$(zenity --text-info --editable --title='"s + APP_NAME + win_title + "' --width=500 --height=250";
    script += " --ok-label='"s + btn_send + "' --cancel-label='" + btn_cancel + "' 2>/dev/null)\n";
    script += "if [ $? -ne 0 ]; then exit 0; fi\n";
    script += "echo '' >> '" + path + "'\n";
    script += "echo 'User description:' >> '" + path + "'\n";
    script += "echo \"$DESC\" >> '" + path + "'\n";
    script += "BODY=$(python3 -c \"\n";
    script += "import urllib.parse\n";
    script += "with open('" + path + "') as f: data = f.read()\n";
    script += "print(urllib.parse.quote(data))\n";
    script += "\" 2>/dev/null)\n";
    script += "SUBJ=$(python3 -c \"import urllib.parse; print(urllib.parse.quote('" + subject + "'))\" 2>/dev/null)\n";
    script += "xdg-open \"mailto:"s + BuildConfig::CRASH_MAILBOX + "?subject=${SUBJ}&body=${BODY}\" 2>/dev/null || true\n";
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

[[noreturn]] void run_dialogue(const PathText& path, int sig, const TimeText& time, const DisplayVariables& display)
{
    accept_signals();
    for (const auto& [name, value] : display) {
        if (value != nullptr) {
            setenv(name, value, 1);
        }
    }
    const std::string subject = APP_NAME + " Crash: "s + signalName(sig) + " - " + time.data();
    const std::string script = dialogue_script(path.data(), subject);
    execl("/bin/bash", "bash", "-c", script.c_str(), nullptr);
    _exit(0);
}

// --- the handler ---

/// Writes the report and starts the child that shows the dialogue. Without a report there is no dialogue.
void report_crash(int sig)
{
    const PathText path = crashFilePath();
    std::FILE* const report = std::fopen(path.data(), "w");
    if (report == nullptr) {
        return;
    }
    const TimeText time = local_time();
    write_heading(report, sig, time);
    write_backtrace(report);
    std::fclose(report);
    const DisplayVariables display = display_variables();
    if (fork() == 0) {
        run_dialogue(path, sig, time, display);
    }
}

/// The signal raised at the end is blocked until the return, and then ends the process, as if there had been no handler.
void crashHandler(int sig)
{
    std::signal(sig, SIG_DFL);
    report_crash(sig);
    std::raise(sig);
}

}  // namespace

void CrashHandler::install()
{
    tzset();  // so that localtime need not load the time zone, with the allocator and a lock, in the middle of a crash
    struct sigaction action = {};
    action.sa_handler = crashHandler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const FatalSignal& fatal : FATAL_SIGNALS) {
        sigaction(fatal.number, &action, nullptr);
    }
}
