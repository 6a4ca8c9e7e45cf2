/// What tests of the window's geometry share: the saved records, the traces, and the calls by which the program asks for its window's
/// place and size, sets them, and opens the file. Defines functions of the libraries (see calls.h), so only one source of a test
/// program can include it.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "app.h"
#include "desktop/calls.h"
#include "desktop/renamed_display.h"
#include "fake_machine.h"
#include "live_app.h"

// --- texts to compare ---

inline std::string size_text(int width, int height)
{
    return std::to_string(width) + "x" + std::to_string(height);
}

inline std::string place_text(int x, int y)
{
    return std::to_string(x) + "," + std::to_string(y);
}

/// Such as "300x400 at 10,20".
inline std::string rect_text(const WindowRect& rect)
{
    return size_text(rect.width, rect.height) + " at " + place_text(rect.x, rect.y);
}

/// The record of an orientation as it stands in the file, such as "300x400 at 10,20, 2 columns".
inline std::string stored(bool horizontal)
{
    const WindowGeometry record = WindowManager::instance().load(horizontal);
    return rect_text({record.x, record.y, record.width, record.height}) + ", " + std::to_string(record.num_columns) + " columns";
}

inline void store(bool horizontal, const WindowRect& rect, int columns)
{
    WindowManager::instance().save(rect.x, rect.y, rect.width, rect.height, columns, horizontal);
}

// --- standard error ---

/// Takes what goes to standard error, as long as it stands.
class StandardError {
public:
    StandardError() : m_before(dup(STDERR_FILENO)), m_file(memfd_create("standard error", MFD_CLOEXEC))
    {
        std::fflush(stderr);
        if (m_before < 0 || m_file < 0 || dup2(m_file, STDERR_FILENO) < 0) {
            throw std::runtime_error("can't take standard error");
        }
    }
    ~StandardError()
    {
        std::fflush(stderr);
        dup2(m_before, STDERR_FILENO);
        close(m_before);
        close(m_file);
    }
    StandardError(const StandardError&) = delete;
    StandardError& operator=(const StandardError&) = delete;

    /// What has come since the last call.
    std::string take()
    {
        std::string text;
        char buffer[512];
        for (ssize_t n = 0; (n = pread(m_file, buffer, sizeof buffer, m_taken)) > 0; m_taken += n) {
            text.append(buffer, static_cast<std::size_t>(n));
        }
        return text;
    }

private:
    const int m_before;
    const int m_file;
    off_t m_taken = 0;
};

// --- what is overheard ---

struct Overheard {
    const App* app = nullptr;  ///< the one that is listened to
    std::vector<std::string> calls;
    std::vector<std::string> moves;
    std::vector<std::string> sizes;       ///< that the window was asked to take
    std::optional<WindowRect> made_up;    ///< what the program hears of its window in place of the truth
    std::function<void()> before_a_call;  ///< may add what has changed meanwhile

    void note(const std::string& call)
    {
        if (app != nullptr) {
            if (before_a_call) {
                before_a_call();
            }
            calls.push_back(call);
        }
    }

    void forget()
    {
        calls.clear();
        moves.clear();
        sizes.clear();
    }
};

inline Overheard g_overheard;

extern "C" {

void gtk_window_move(GtkWindow* window, gint x, gint y)
{
    g_overheard.moves.push_back(place_text(x, y));
    g_overheard.note("moves to " + place_text(x, y));
    next<decltype(gtk_window_move)>("gtk_window_move")(window, x, y);
}

void gtk_window_resize(GtkWindow* window, gint width, gint height)
{
    g_overheard.sizes.push_back(size_text(width, height));
    g_overheard.note("resizes to " + size_text(width, height));
    next<decltype(gtk_window_resize)>("gtk_window_resize")(window, width, height);
}

void gtk_window_get_position(GtkWindow* window, gint* x, gint* y)
{
    if (g_overheard.made_up && is_own_code(__builtin_return_address(0))) {
        *x = g_overheard.made_up->x;
        *y = g_overheard.made_up->y;
    } else {
        next<decltype(gtk_window_get_position)>("gtk_window_get_position")(window, x, y);
    }
}

void gtk_window_get_size(GtkWindow* window, gint* width, gint* height)
{
    if (g_overheard.made_up && is_own_code(__builtin_return_address(0))) {
        *width = g_overheard.made_up->width;
        *height = g_overheard.made_up->height;
    } else {
        next<decltype(gtk_window_get_size)>("gtk_window_get_size")(window, width, height);
    }
}

FILE* fopen64(const char* path, const char* mode)
{
    if (std::string(path).ends_with("/geometry.json")) {
        g_overheard.note(*mode == 'r' ? "reads the file" : "writes the file");
    }
    return next<decltype(fopen64)>("fopen64")(path, mode);
}

}  // extern "C"

// --- the real window ---

/// Where the window is, whatever is made up.
inline WindowRect real_rect(const App& app)
{
    const std::optional<WindowRect> made_up = std::exchange(g_overheard.made_up, std::nullopt);
    const WindowRect rect = WindowRect::of(app.m_window);
    g_overheard.made_up = made_up;
    return rect;
}

inline std::string allocated_size(const App& app)
{
    return size_text(gtk_widget_get_allocated_width(app.m_window), gtk_widget_get_allocated_height(app.m_window));
}

/// Runs the main loop until the window has that size and has given it to its content.
inline bool takes_size(const App& app, const WindowRect& rect)
{
    return iterate_until([&] {
        const WindowRect now = real_rect(app);
        return size_text(now.width, now.height) == size_text(rect.width, rect.height) &&
               allocated_size(app) == size_text(rect.width, rect.height);
    });
}

/// Runs the main loop until the window stands there as well.
inline bool comes_to(const App& app, const WindowRect& rect)
{
    return takes_size(app, rect) && iterate_until([&] { return rect_text(real_rect(app)) == rect_text(rect); });
}

/// Changes size and place as a user would: not at once, since GTK takes the news of a move for the answer to a change of size that it has
/// just asked for, and asks for the old size again.
inline bool user_moves(const App& app, const WindowRect& rect)
{
    next<decltype(gtk_window_resize)>("gtk_window_resize")(GTK_WINDOW(app.m_window), rect.width, rect.height);
    if (!takes_size(app, rect)) {
        return false;
    }
    next<decltype(gtk_window_move)>("gtk_window_move")(GTK_WINDOW(app.m_window), rect.x, rect.y);
    return comes_to(app, rect);
}
