/// The sensors of a made-up machine: where their files stand, every way in which such a file can fail, a record of which files the code
/// under test opens, and a task that hangs in files until the test hands their texts over.
#pragma once

#include <fcntl.h>
#include <limits.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "fake_machine.h"

inline const std::string THERMAL = "/sys/class/thermal";
inline const std::string HWMON = "/sys/class/hwmon";
inline const std::string POWERCAP = "/sys/class/powercap/intel-rapl";
inline const std::string ENERGY = POWERCAP + "/intel-rapl:0/energy_uj";
inline const std::string MEMINFO = "/proc/meminfo";

inline std::string cpu_path(int cpu, const std::string& name)
{
    return "/sys/devices/system/cpu/cpu" + std::to_string(cpu) + "/" + name;
}

inline std::string current_freq_path(int cpu)
{
    return cpu_path(cpu, "cpufreq/scaling_cur_freq");
}

inline std::string throttle_path(int cpu)
{
    return cpu_path(cpu, "thermal_throttle/core_throttle_count");
}

inline std::string zone_path(int zone, const std::string& name)
{
    return THERMAL + "/thermal_zone" + std::to_string(zone) + "/" + name;
}

inline std::string chip_path(int chip, const std::string& name)
{
    return HWMON + "/hwmon" + std::to_string(chip) + "/" + name;
}

inline void lay_zone(FakeMachine& machine, int zone, const std::string& type, const std::string& millidegrees = "47000")
{
    machine.file(zone_path(zone, "type"), type + "\n").file(zone_path(zone, "temp"), millidegrees + "\n");
}

inline void lay_chip(FakeMachine& machine, int chip, const std::string& name, const std::string& millidegrees = "47000")
{
    machine.file(chip_path(chip, "name"), name + "\n").file(chip_path(chip, "temp1_input"), millidegrees + "\n");
}

inline void lay_trip(FakeMachine& machine, int zone, int trip, const std::string& type, const std::string& millidegrees)
{
    const std::string trip_path = zone_path(zone, "trip_point_" + std::to_string(trip));
    machine.file(trip_path + "_type", type + "\n").file(trip_path + "_temp", millidegrees + "\n");
}

/// The entries of a folder in the order in which its file system lists them.
inline std::vector<std::string> listed(const std::string& folder)
{
    std::vector<std::string> paths;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        paths.push_back(entry.path());
    }
    return paths;
}

/// Makes folders with that prefix, numbered so that they come neither sorted upwards nor downwards whether the file system lists
/// the oldest or the newest first. Gives them back as it lists them.
inline std::vector<std::string> lay_unsorted_folders(FakeMachine& machine, const std::string& prefix)
{
    for (const char* number : {"2", "0", "3", "1"}) {
        machine.directory(prefix + number);
    }
    return listed(std::filesystem::path(prefix).parent_path());
}

/// Puts the file into each state in which it gives no number, one after the other, and tells `check` what is wrong. `good` is a text
/// that would be read if the rights sufficed.
template <typename Check>
void for_each_failure(FakeMachine& machine, const std::string& path, const std::string& good, Check check)
{
    machine.remove(path);
    check("no file");
    for (const char* text : {"", "\n", " \t\n", "N/A\n", "<unknown>\n", "-\n", "x47000\n", "99999999999999999999999\n"}) {
        machine.file(path, text);
        check(std::string("this text: ") + text);
    }
    machine.directory(path);
    check("a folder in its place");
    machine.failing(path);
    check("it opens, but can't be read");
    machine.loop(path);
    check("a link to itself");
    machine.link(path, "/sys/gone");
    check("a link to nowhere");
    machine.unreadable(path, good);
    {
        const WithoutPrivileges ordinary;
        check("no rights");
    }
    machine.remove(path);
}

/// Notes each opening of these files and folders. They must exist, and one that is replaced meanwhile is lost from sight.
class OpenLog {
public:
    explicit OpenLog(const std::vector<std::string>& paths) : m_inotify(inotify_init1(IN_NONBLOCK | IN_CLOEXEC))
    {
        for (const std::string& path : paths) {
            // Closing is watched too, as two equal events in a row would be merged into one
            const int watch = inotify_add_watch(m_inotify, path.c_str(), IN_OPEN | IN_CLOSE_NOWRITE);
            if (watch < 0) {
                throw std::runtime_error("can't watch " + path);
            }
            m_paths[watch] = path;
        }
    }
    ~OpenLog() { close(m_inotify); }
    OpenLog(const OpenLog&) = delete;
    OpenLog& operator=(const OpenLog&) = delete;

    /// What was opened since the last call, in that order.
    std::vector<std::string> opened()
    {
        std::vector<std::string> paths;
        alignas(inotify_event) char events[64 * (sizeof(inotify_event) + NAME_MAX + 1)];
        for (ssize_t size; (size = read(m_inotify, events, sizeof events)) > 0;) {
            for (const char* at = events; at < events + size;) {
                const auto* event = reinterpret_cast<const inotify_event*>(at);
                if ((event->mask & IN_OPEN) != 0 && event->len == 0) {  // those with a name are of entries of a watched folder
                    paths.push_back(m_paths.at(event->wd));
                }
                at += sizeof(inotify_event) + event->len;
            }
        }
        return paths;
    }

    long times_opened(const std::string& path)
    {
        const std::vector<std::string> paths = opened();
        return std::count(paths.begin(), paths.end(), path);
    }

private:
    const int m_inotify;
    std::map<int, std::string> m_paths;
};

/// Runs a task in a thread of its own, which hangs in each of these files whenever it opens one, until the test gives it a text. At the
/// end all that is still open is given empty texts, so that a failed test ends too.
class HangingTask {
public:
    template <typename Task>
    HangingTask(FakeMachine& machine, const std::vector<std::string>& files, Task task) : m_machine(machine), m_files(files)
    {
        for (const std::string& file : files) {
            machine.hanging(file);
        }
        m_thread = std::thread([this, task] {
            task();
            m_ended = true;
        });
    }
    ~HangingTask()
    {
        for (const int pipe : m_held) {
            close(pipe);
        }
        wait_until([this] {
            for (const std::string& file : m_files) {
                m_machine.hand_over(file, "");
            }
            return m_ended.load();
        });
        m_thread.join();
    }
    HangingTask(const HangingTask&) = delete;
    HangingTask& operator=(const HangingTask&) = delete;

    /// Waits for the task to hang in that file, and hands the text over. False if it never comes there.
    bool give(const std::string& file, const std::string& text)
    {
        return wait_until([&] { return m_machine.hand_over(file, text); });
    }

    /// Waits until the task hangs in that file, and leaves it there.
    bool hangs_in(const std::string& file)
    {
        return wait_until([&] {
            const int pipe = open(file.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
            if (pipe < 0) {
                return false;
            }
            m_held.push_back(pipe);
            return true;
        });
    }

    /// Lets the task go on from where hangs_in() left it.
    void let_go(const std::string& text)
    {
        const int pipe = m_held.back();
        m_held.pop_back();
        const bool written = write(pipe, text.data(), text.size()) == static_cast<ssize_t>(text.size());
        close(pipe);
        if (!written) {
            throw std::runtime_error("too long a text for a pipe");
        }
    }

    bool ended() const { return m_ended; }
    bool ends() const
    {
        return wait_until([this] { return m_ended.load(); });
    }

private:
    FakeMachine& m_machine;
    const std::vector<std::string> m_files;
    std::vector<int> m_held;
    std::thread m_thread;
    std::atomic<bool> m_ended{false};
};
