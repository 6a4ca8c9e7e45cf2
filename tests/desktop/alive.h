/// What a program holds, and what a step of it costs: objects and signal handlers alive, widgets, sources of the main loop, descriptors,
/// threads, memory; allocations and reads. Nothing here is a time. Defines functions of the libraries (see calls.h), so only one
/// source of a test program can include it.
#pragma once

#include <gtk/gtk.h>
#include <malloc.h>

#include <cstdarg>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <sstream>
#include <string>

#include "desktop/calls.h"

#ifdef SANITIZED
constexpr bool HEAP_IS_OURS = false;  // the sanitizer's allocator keeps what is freed, and can't be asked
#else
constexpr bool HEAP_IS_OURS = true;
#endif

// --- who is alive ---

/// Objects by their type, and the program's own signal handlers by type and signal, that have been made since its start and still are.
/// Objects are counted that are made by a call of g_object_new() and its like, which is how all libraries above GObject make theirs.
class Living {
public:
    static Living& instance()
    {
        static Living living;
        return living;
    }

    gpointer add_object(gpointer object)
    {
        if (object != nullptr) {
            static const GQuark MARK = g_quark_from_static_string("vantric-test-alive");
            const GType type = G_OBJECT_TYPE(object);
            change(g_type_name(type), 1);
            g_object_set_qdata_full(G_OBJECT(object), MARK, GSIZE_TO_POINTER(type),
                                    [](gpointer data) { instance().change(g_type_name(GPOINTER_TO_SIZE(data)), -1); });
        }
        return object;
    }

    void change(const std::string& kind, int by)
    {
        const std::lock_guard lock(m_mutex);
        m_counts[kind] += by;
    }

    std::map<std::string, long> counts() const
    {
        const std::lock_guard lock(m_mutex);
        return m_counts;
    }

private:
    mutable std::mutex m_mutex;
    std::map<std::string, long> m_counts;
};

extern "C" {

gpointer g_object_new(GType type, const gchar* first, ...)
{
    std::va_list arguments;
    va_start(arguments, first);
    GObject* const object = next<decltype(g_object_new_valist)>("g_object_new_valist")(type, first, arguments);
    va_end(arguments);
    return Living::instance().add_object(object);
}

GObject* g_object_new_valist(GType type, const gchar* first, va_list arguments)
{
    GObject* const object = next<decltype(g_object_new_valist)>("g_object_new_valist")(type, first, arguments);
    return G_OBJECT(Living::instance().add_object(object));
}

GObject* g_object_new_with_properties(GType type, guint count, const char* names[], const GValue values[])
{
    GObject* const object = next<decltype(g_object_new_with_properties)>("g_object_new_with_properties")(type, count, names, values);
    return G_OBJECT(Living::instance().add_object(object));
}

gulong g_signal_connect_data(gpointer instance, const gchar* signal, GCallback handler, gpointer data, GClosureNotify at_end,
                             GConnectFlags flags)
{
    // GTK itself adds a handler to a window each time it is shown, for screen readers, and keeps it as long as the window
    if (at_end != nullptr || !is_own_code(__builtin_return_address(0))) {
        return next<decltype(g_signal_connect_data)>("g_signal_connect_data")(instance, signal, handler, data, at_end, flags);
    }
    // GObject tells only the data when the closure goes, so the closure itself is what the name is found by
    static std::map<GClosure*, std::string> names;
    static std::mutex mutex;
    const auto end = [](gpointer, GClosure* closure) {
        const std::lock_guard lock(mutex);
        Living::instance().change(names.extract(closure).mapped(), -1);
    };
    GClosure* const closure =
        (flags & G_CONNECT_SWAPPED) != 0 ? g_cclosure_new_swap(handler, data, end) : g_cclosure_new(handler, data, end);
    {
        const std::lock_guard lock(mutex);
        const std::string& name = names[closure] = std::string("handlers of ") + G_OBJECT_TYPE_NAME(instance) + "::" + signal;
        Living::instance().change(name, 1);
    }
    return g_signal_connect_closure(instance, signal, closure, (flags & G_CONNECT_AFTER) != 0);
}

}  // extern "C"

// --- what a step costs ---

namespace allocations {

inline thread_local bool t_counting = false;
inline thread_local long t_count = 0;

inline void note()
{
    t_count += t_counting ? 1 : 0;
}

}  // namespace allocations

#ifndef SANITIZED

extern "C" {

void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);

void* malloc(std::size_t size)
{
    allocations::note();
    return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size)
{
    allocations::note();
    return __libc_calloc(count, size);
}

void* realloc(void* block, std::size_t size)
{
    allocations::note();
    return __libc_realloc(block, size);
}

}  // extern "C"

#endif

/// What this thread has asked the kernel to read so far, in calls; 0 where the kernel does not count.
inline long reads_so_far()
{
    std::ifstream file("/proc/thread-self/io");
    std::string name;
    long value = 0;
    while (file >> name >> value) {
        if (name == "syscr:") {
            return value;
        }
    }
    return 0;
}

/// What a piece of work costs, on this thread.
struct Cost {
    long allocations = 0;
    long reads = 0;

    template <typename Work>
    static Cost of(Work work)
    {
        const long own_reads = own_reads_once();
        const long reads_before = reads_so_far();
        allocations::t_count = 0;
        allocations::t_counting = true;
        work();
        allocations::t_counting = false;
        return {allocations::t_count, reads_so_far() - reads_before - own_reads};
    }

    Cost& operator+=(const Cost& other)
    {
        allocations += other.allocations;
        reads += other.reads;
        return *this;
    }

    /// What asking for the number of reads adds to it.
    static long own_reads_once()
    {
        const long before = reads_so_far();
        return reads_so_far() - before;
    }

    std::string text() const { return std::to_string(allocations) + " allocations, " + std::to_string(reads) + " reads"; }
};

// --- all together ---

namespace holdings {

inline long entries_of(const char* folder)
{
    return std::distance(std::filesystem::directory_iterator(folder), {});
}

inline void count_widget(GtkWidget* widget, gpointer count)
{
    ++*static_cast<long*>(count);
    if (GTK_IS_CONTAINER(widget)) {
        gtk_container_forall(GTK_CONTAINER(widget), count_widget, count);
    }
}

/// Of all windows, shown or hidden.
inline long widgets()
{
    long count = 0;
    GList* const windows = gtk_window_list_toplevels();
    for (GList* item = windows; item != nullptr; item = item->next) {
        count_widget(GTK_WIDGET(item->data), &count);
    }
    g_list_free(windows);
    return count;
}

}  // namespace holdings

/// Timers, idle callbacks and the like. Each gets the next number when it is added.
inline guint next_source_of_main_loop()
{
    const guint newest = g_timeout_add_full(
        G_PRIORITY_DEFAULT, 1000, [](gpointer) -> gboolean { return TRUE; }, nullptr, nullptr);
    g_source_remove(newest);
    return newest;
}

/// How many there are with that number or a later one.
inline long sources_of_main_loop(guint first = 1)
{
    const guint end = next_source_of_main_loop();
    long count = 0;
    for (guint number = first; number < end; ++number) {
        count += g_main_context_find_source_by_id(nullptr, number) != nullptr ? 1 : 0;
    }
    return count;
}

/// Everything else that can be counted at this moment, by name.
inline std::map<std::string, long> all_that_is_held()
{
    std::map<std::string, long> held = Living::instance().counts();
    held["widgets in windows"] = holdings::widgets();
    held["descriptors"] = holdings::entries_of("/proc/self/fd");
    held["threads"] = holdings::entries_of("/proc/self/task");
    return held;
}

/// What has become more or fewer, as "GtkLabel: 12, then 14"; empty if nothing has. Icons, fonts and computed styles don't count: GTK and
/// Pango keep them for a while after they were needed.
inline std::string differences(std::map<std::string, long> before, std::map<std::string, long> after)
{
    for (const char* kept : {"GdkPixbuf", "GtkCssImageBuiltin", "GtkCssStaticStyle", "PangoCairoFcFont", "PangoFcFontset"}) {
        before.erase(kept);
        after.erase(kept);
    }
    std::ostringstream text;
    for (const auto& [name, count] : before) {
        if (after[name] != count) {
            text << name << ": " << count << ", then " << after[name] << '\n';
        }
        after.erase(name);
    }
    for (const auto& [name, count] : after) {
        if (count != 0) {
            text << name << ": none, then " << count << '\n';
        }
    }
    return text.str();
}

/// Bytes of the heap in use; 0 where they can't be known.
inline long heap_in_use()
{
    return HEAP_IS_OURS ? static_cast<long>(mallinfo2().uordblks) : 0;
}
