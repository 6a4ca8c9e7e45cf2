/// What a test lays around the code under test: the kernel files of a made-up machine, environment variables, a home folder, other
/// rights, a locale; and the wait for a condition. Each puts everything back at the end of its scope.
#pragma once

#include <fcntl.h>
#include <sys/fsuid.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

/// For whatever has to come: a deadline for a machine that does a hundred other things, not an expectation. What comes costs no more for
/// it.
constexpr std::chrono::milliseconds DEADLINE = std::chrono::minutes(2);

/// Whether the condition comes true before the deadline.
template <typename Condition>
bool wait_until(Condition condition, std::chrono::milliseconds deadline = DEADLINE)
{
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

/// A thread that calls a getter again and again, and nothing else: so the getter's own lock is all that there is between it and the thread
/// that writes, and a lock that is missing shows in the thread sanitizer. The constructor waits for the first answer.
class Asking {
public:
    template <typename Getter, typename Check>
    Asking(Getter getter, Check check)
    {
        m_thread = std::thread([this, getter, check] {
            while (!m_ended.load(std::memory_order_relaxed)) {
                check(getter());
                m_has_answered.store(true, std::memory_order_relaxed);
            }
        });
        if (!wait_until([this] { return m_has_answered.load(std::memory_order_relaxed); })) {
            std::terminate();  // the thread hangs, so there is no way back
        }
    }
    ~Asking()
    {
        m_ended.store(true, std::memory_order_relaxed);
        m_thread.join();
    }
    Asking(const Asking&) = delete;
    Asking& operator=(const Asking&) = delete;

private:
    std::atomic<bool> m_ended{false};
    std::atomic<bool> m_has_answered{false};
    std::thread m_thread;
};

inline void write_text(const std::string& path, const std::string& text)
{
    std::ofstream out(path, std::ios::binary);
    out << text << std::flush;
    if (!out) {
        throw std::runtime_error("can't write " + path);
    }
}

/// The whole file; empty if it can't be opened.
inline std::string read_text(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

/// Removes a file, a link itself, or a folder with all in it, folders without rights too.
inline void remove_tree(const std::filesystem::path& path)
{
    namespace fs = std::filesystem;
    if (fs::symlink_status(path).type() == fs::file_type::directory) {
        fs::permissions(path, fs::perms::owner_all);
        for (const auto& entry : std::vector<fs::path>(fs::directory_iterator(path), {})) {
            remove_tree(entry);
        }
    }
    fs::remove(path);
}

/// Clock ticks of one CPU since the start of the machine.
struct Ticks {
    unsigned long long busy = 0;
    unsigned long long idle = 0;
};

/// The text of a /proc/stat with these CPUs, numbered from 0.
inline std::string stat_text(const std::vector<Ticks>& cpus)
{
    const auto columns = [](const Ticks& t) { return std::to_string(t.busy) + " 0 0 " + std::to_string(t.idle) + " 0 0 0 0 0 0\n"; };
    Ticks sum;
    std::string lines;
    for (std::size_t i = 0; i < cpus.size(); ++i) {
        sum.busy += cpus[i].busy;
        sum.idle += cpus[i].idle;
        lines += "cpu" + std::to_string(i) + " " + columns(cpus[i]);
    }
    return "cpu  " + columns(sum) + lines + "intr 4711 0 17\nctxt 815\nbtime 1700000000\nprocesses 99\n";
}

/// The files below /proc and /sys that the test sees, at first none. It has to run inside a tree of its own (machine/fake-machine
/// makes one), and refuses to lay anything elsewhere; where there can be none, as NO_MACHINE tells, the test ends as skipped. A file is
/// replaced in one step, so that whoever reads sees the old one or the new one.
class FakeMachine {
public:
    FakeMachine()
    {
        struct statfs sys = {};
        constexpr auto REAL_SYS = 0x62656572;  // SYSFS_MAGIC
        if (!std::filesystem::exists("/proc/made-up-machine") || statfs("/sys", &sys) != 0 || sys.f_type == REAL_SYS) {
            if (std::getenv("NO_MACHINE") != nullptr) {
                std::_Exit(NEEDS_MACHINE);
            }
            throw std::runtime_error("not inside a made-up machine: start the test by tests/machine/fake-machine run empty --");
        }
        clear();
    }
    ~FakeMachine() { clear(); }
    FakeMachine(const FakeMachine&) = delete;
    FakeMachine& operator=(const FakeMachine&) = delete;

    FakeMachine& file(const std::string& path, const std::string& text)
    {
        write_text(staged(path), text);
        return put_staged(path);
    }

    /// Takes a file or a whole folder away.
    FakeMachine& remove(const std::string& path)
    {
        remove_tree(path);
        return *this;
    }

    /// A folder in place of a file: it opens, but can't be read.
    FakeMachine& directory(const std::string& path)
    {
        std::filesystem::create_directory(staged(path));
        return put_staged(path);
    }

    FakeMachine& link(const std::string& path, const std::string& destination)
    {
        std::filesystem::create_symlink(destination, staged(path));
        return put_staged(path);
    }

    /// A file that opens, but whose reading fails with EIO: nothing is mapped at address 0.
    FakeMachine& failing(const std::string& path) { return link(path, "/proc/self/mem"); }

    /// A link to itself: even the question whether it exists fails.
    FakeMachine& loop(const std::string& path) { return link(path, path); }

    /// A file without any rights, which WithoutPrivileges makes count for root too.
    FakeMachine& unreadable(const std::string& path, const std::string& text)
    {
        file(path, text);
        std::filesystem::permissions(path, std::filesystem::perms::none);
        return *this;
    }

    /// A file whose opening hangs until hand_over() comes.
    FakeMachine& hanging(const std::string& path)
    {
        if (mkfifo(staged(path).c_str(), 0644) != 0) {
            throw std::runtime_error("can't make a pipe for " + path);
        }
        return put_staged(path);
    }

    /// Gives the text to whoever hangs in that file, and puts a new hanging file in its place, so that the next reading has to wait for
    /// a text of its own. Returns false if nobody hangs there.
    bool hand_over(const std::string& path, const std::string& text)
    {
        const int pipe = open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (pipe < 0) {
            return false;
        }
        hanging(path);
        const bool written = write(pipe, text.data(), text.size()) == static_cast<ssize_t>(text.size());
        close(pipe);
        if (!written) {
            throw std::runtime_error("too long a text for a pipe");
        }
        return true;
    }

    /// /proc/stat with these CPUs.
    FakeMachine& stat(const std::vector<Ticks>& cpus) { return file("/proc/stat", stat_text(cpus)); }

    /// The entry of a logical CPU, with the package and the core that it belongs to.
    FakeMachine& cpu(int number, int package, int core)
    {
        const std::string topology = "/sys/devices/system/cpu/cpu" + std::to_string(number) + "/topology/";
        file(topology + "physical_package_id", std::to_string(package) + "\n");
        return file(topology + "core_id", std::to_string(core) + "\n");
    }

    /// The entries of logical CPUs 0 to n - 1, each a core of its own in package 0.
    FakeMachine& cpus(int n)
    {
        for (int i = 0; i < n; ++i) {
            cpu(i, 0, i);
        }
        return *this;
    }

    /// Rated maximum clocks in kHz of CPUs 0, 1, 2...
    FakeMachine& max_freqs(const std::vector<unsigned long long>& khz)
    {
        for (std::size_t i = 0; i < khz.size(); ++i) {
            max_freq(i, std::to_string(khz[i]) + "\n");
        }
        return *this;
    }

    FakeMachine& max_freq(std::size_t number, const std::string& text) { return file(max_freq_path(number), text); }

    static std::string max_freq_path(std::size_t number)
    {
        return "/sys/devices/system/cpu/cpu" + std::to_string(number) + "/cpufreq/cpuinfo_max_freq";
    }

private:
    static constexpr int NEEDS_MACHINE = 77;  // the exit status that run-cases takes for that

    /// Where a new file is prepared: on the same mount, but in none of the folders that are listed, where it would look like a sensor.
    static std::string staged(const std::string& path) { return path.substr(0, path.find('/', 1)) + "/new"; }

    FakeMachine& put_staged(const std::string& path)
    {
        namespace fs = std::filesystem;
        fs::create_directories(fs::path(path).parent_path());
        if (fs::is_directory(fs::symlink_status(path)) || fs::is_directory(fs::symlink_status(staged(path)))) {
            remove_tree(path);  // rename puts only like over like
        }
        fs::rename(staged(path), path);
        return *this;
    }

    /// Takes everything away but what fake-machine has put there.
    static void clear()
    {
        for (const char* top : {"/proc", "/sys"}) {
            for (const auto& path : std::vector<std::filesystem::path>(std::filesystem::directory_iterator(top), {})) {
                if (!is_frame(path)) {
                    remove_tree(path);
                }
            }
        }
    }

    /// Whether an entry is the marker, or one of the links by which programs find themselves and others in the real /proc. They come and go
    /// with the processes.
    static bool is_frame(const std::filesystem::path& path)
    {
        std::error_code gone;
        const std::string destination = std::filesystem::read_symlink(path, gone);
        const bool stays_inside = destination.starts_with("/proc/") || destination.starts_with("/sys/");
        return path.filename() == "made-up-machine" || (!destination.empty() && !stays_inside);
    }
};

/// An environment variable with that value, or without any.
class ScopedEnv {
public:
    ScopedEnv(const std::string& name, const std::optional<std::string>& value) : m_name(name)
    {
        if (const char* before = std::getenv(name.c_str())) {
            m_before = before;
        }
        set(value);
    }
    ~ScopedEnv() { set(m_before); }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

    void set(const std::optional<std::string>& value)
    {
        if (value) {
            setenv(m_name.c_str(), value->c_str(), 1);
        } else {
            unsetenv(m_name.c_str());
        }
    }

private:
    const std::string m_name;
    std::optional<std::string> m_before;
};

class TemporaryFolder {
public:
    TemporaryFolder()
    {
        std::string name = std::filesystem::temp_directory_path() / "vantric-test-XXXXXX";
        if (mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("can't make " + name);
        }
        m_path = name;
    }
    ~TemporaryFolder() { remove_tree(m_path); }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

/// A user's home folder, at first empty, outside Snap.
class TemporaryHome {
public:
    const std::string& path() const { return m_folder.path(); }
    std::string config() const { return path() + "/.config/Vantric"; }

    /// Puts a saved file into the folder of the settings.
    void lay(const std::string& name, const std::string& text) const
    {
        std::filesystem::create_directories(config());
        write_text(config() + "/" + name, text);
    }

private:
    TemporaryFolder m_folder;
    ScopedEnv m_home{"HOME", m_folder.path()};
    ScopedEnv m_snap{"SNAP_USER_COMMON", std::nullopt};
};

/// Takes root's right to read and write everything from this thread and from those that it starts. Other users never had it.
class WithoutPrivileges {
public:
    WithoutPrivileges()
    {
        setfsuid(NOBODY);
        if (geteuid() == 0 && setfsuid(NOBODY) != NOBODY) {
            throw std::runtime_error("root can't lay its rights down here");
        }
    }
    ~WithoutPrivileges() { setfsuid(geteuid()); }
    WithoutPrivileges(const WithoutPrivileges&) = delete;
    WithoutPrivileges& operator=(const WithoutPrivileges&) = delete;

private:
    static constexpr int NOBODY = 65534;
};

/// A locale that writes one and a half as "1,5" and a million as "1.000.000". Compiled here, as few machines have one installed.
class DecimalCommaLocale {
public:
    DecimalCommaLocale()
    {
        const std::string& folder = m_folder.path();
        write_text(folder + "/source", "LC_NUMERIC\ndecimal_point \"<U002C>\"\nthousands_sep \"<U002E>\"\ngrouping 3;3\nEND LC_NUMERIC\n");
        write_text(folder + "/charmap",
                   "<code_set_name> ASCII\n<escape_char> /\nCHARMAP\n<U002C> /x2c COMMA\n<U002E> /x2e DOT\nEND CHARMAP\n");
        const std::string compiler = "localedef --quiet -c -i " + folder + "/source -f " + folder + "/charmap " + folder + "/comma";
        // It complains about all that the locale lacks; what counts is whether the locale can be had
        if (std::system(compiler.c_str()) < 0 || std::setlocale(LC_NUMERIC, "comma") == nullptr) {
            throw std::runtime_error("no locale with decimal commas");
        }
    }
    ~DecimalCommaLocale() { std::setlocale(LC_NUMERIC, m_before.c_str()); }
    DecimalCommaLocale(const DecimalCommaLocale&) = delete;
    DecimalCommaLocale& operator=(const DecimalCommaLocale&) = delete;

private:
    const std::string m_before = std::setlocale(LC_NUMERIC, nullptr);
    TemporaryFolder m_folder;
    ScopedEnv m_path{"LOCPATH", m_folder.path()};
};

/// Lets no file grow beyond that size, as on a disk that fills up.
class ScopedFileSizeLimit {
public:
    explicit ScopedFileSizeLimit(rlim_t size)
    {
        m_handler = std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &m_before);
        const rlimit limit = {.rlim_cur = size, .rlim_max = m_before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~ScopedFileSizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &m_before);
        std::signal(SIGXFSZ, m_handler);
    }
    ScopedFileSizeLimit(const ScopedFileSizeLimit&) = delete;
    ScopedFileSizeLimit& operator=(const ScopedFileSizeLimit&) = delete;

private:
    rlimit m_before = {};
    void (*m_handler)(int);
};
