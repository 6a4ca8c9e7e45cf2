/// The memory is a System V segment that this program and the X server map; what Xlib has for it is looked up while the program runs.
#include "shared_image.h"

#ifdef GDK_WINDOWING_X11

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/XShm.h>
#include <dlfcn.h>
#include <gdk/gdkx.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <bit>
#include <cstdint>
#include <optional>
#include <utility>

#include "invalidations.h"
#include "screen_reach.h"

namespace {

constexpr gint64 SOON_US = 250'000;  // a server that has not read a picture after that shows nothing else meanwhile

/// The functions of Xlib and of its extension. GTK brings both libraries where it has a use for them, so the program asks for none of them
/// by itself, and runs without.
class Xlib {
public:
    /// Whether all of them were found; otherwise none may be called.
    bool is_there() const { return has_all; }

    decltype(&XShmQueryExtension) query_extension = nullptr;
    decltype(&XShmCreateImage) create_image = nullptr;
    decltype(&XShmAttach) attach = nullptr;
    decltype(&XShmDetach) detach = nullptr;
    decltype(&XShmPutImage) put_image = nullptr;
    decltype(&XCreateGC) create_gc = nullptr;
    decltype(&XFreeGC) free_gc = nullptr;
    decltype(&XSync) sync = nullptr;

private:
    template <typename Function>
    static bool find(Function& function, const char* name)
    {
        function = reinterpret_cast<Function>(dlsym(RTLD_DEFAULT, name));
        return function != nullptr;
    }

    bool has_all = find(query_extension, "XShmQueryExtension") && find(create_image, "XShmCreateImage") && find(attach, "XShmAttach") &&
                   find(detach, "XShmDetach") && find(put_image, "XShmPutImage") && find(create_gc, "XCreateGC") &&
                   find(free_gc, "XFreeGC") && find(sync, "XSync");
};

const Xlib& xlib()
{
    static const Xlib FUNCTIONS;
    return FUNCTIONS;
}

/// Whether a pixel is a number with the channels where cairo has them.
bool has_pixels_of_cairo(const XImage& image)
{
    constexpr int BITS = 32;
    constexpr int BYTE_ORDER_HERE = std::endian::native == std::endian::little ? LSBFirst : MSBFirst;
    return image.bits_per_pixel == BITS && image.byte_order == BYTE_ORDER_HERE && image.red_mask == 0xFF0000 &&
           image.green_mask == 0xFF00 && image.blue_mask == 0xFF;
}

}  // namespace

struct SharedImage::Memory {
    Display* display = nullptr;
    Window window = 0;
    int width = 0;  ///< in pixels, of which each unit of the window is `scale` by `scale`
    int height = 0;
    int scale = 1;
    XShmSegmentInfo segment{};
    XImage* image = nullptr;
    bool is_attached = false;
    GC gc = nullptr;
    cairo_surface_t* surface = nullptr;
    cairo_font_options_t* font_options = nullptr;
    unsigned long last_put = 0;  ///< number of the request
    gint64 last_put_us = 0;
    std::optional<Invalidations> invalidations;
    std::optional<ScreenReach> reach;
    GdkRectangle reachable{};  ///< when damage was taken last

    Memory() { segment.shmid = -1; }
    ~Memory();
    Memory(const Memory&) = delete;
    Memory& operator=(const Memory&) = delete;

    bool allocate(GdkWindow* of);
    bool attach(GdkDisplay* to);
    void make_surface(GdkWindow* like);
};

SharedImage::Memory::~Memory()
{
    g_clear_pointer(&font_options, cairo_font_options_destroy);
    g_clear_pointer(&surface, cairo_surface_destroy);
    if (gc != nullptr) {
        xlib().free_gc(display, gc);
    }
    if (is_attached) {
        xlib().detach(display, &segment);
    }
    if (segment.shmaddr != nullptr) {
        shmdt(segment.shmaddr);
    }
    if (image != nullptr) {
        image->data = nullptr;
        XDestroyImage(image);
    }
}

/// Makes the memory, on this side alone.
bool SharedImage::Memory::allocate(GdkWindow* of)
{
    GdkVisual* const visual = gdk_window_get_visual(of);
    scale = gdk_window_get_scale_factor(of);
    width = gdk_window_get_width(of) * scale;
    height = gdk_window_get_height(of) * scale;
    image = xlib().create_image(display, GDK_VISUAL_XVISUAL(visual), static_cast<unsigned>(gdk_visual_get_depth(visual)), ZPixmap, nullptr,
                                &segment, static_cast<unsigned>(width), static_cast<unsigned>(height));
    if (image == nullptr || !has_pixels_of_cairo(*image)) {
        return false;
    }
    constexpr int OWNER_ALONE = 0600;
    segment.shmid = shmget(IPC_PRIVATE, static_cast<std::size_t>(image->bytes_per_line) * static_cast<std::size_t>(height), OWNER_ALONE);
    if (segment.shmid == -1) {
        return false;
    }
    void* const address = shmat(segment.shmid, nullptr, 0);
    segment.shmaddr = reinterpret_cast<std::intptr_t>(address) != -1 ? static_cast<char*>(address) : nullptr;
    image->data = segment.shmaddr;
    return segment.shmaddr != nullptr;
}

/// Has the server take part. The memory is marked to go with the last of its users at once, so that a crash leaves nothing behind.
bool SharedImage::Memory::attach(GdkDisplay* to)
{
    gdk_x11_display_error_trap_push(to);
    xlib().attach(display, &segment);
    xlib().sync(display, False);
    is_attached = gdk_x11_display_error_trap_pop(to) == 0;
    return is_attached;
}

void SharedImage::Memory::make_surface(GdkWindow* like)
{
    cairo_surface_t* const on_server = gdk_window_create_similar_surface(like, CAIRO_CONTENT_COLOR, 1, 1);
    font_options = cairo_font_options_create();
    cairo_surface_get_font_options(on_server, font_options);
    cairo_surface_destroy(on_server);

    constexpr int DEPTH_WITHOUT_ALPHA = 24;
    const bool is_opaque = gdk_visual_get_depth(gdk_window_get_visual(like)) == DEPTH_WITHOUT_ALPHA;
    surface =
        cairo_image_surface_create_for_data(reinterpret_cast<unsigned char*>(segment.shmaddr),
                                            is_opaque ? CAIRO_FORMAT_RGB24 : CAIRO_FORMAT_ARGB32, width, height, image->bytes_per_line);
    cairo_surface_set_device_scale(surface, scale, scale);
}

SharedImage::SharedImage(std::unique_ptr<Memory> memory) : m_memory(std::move(memory)) {}

SharedImage::~SharedImage() = default;

std::unique_ptr<SharedImage> SharedImage::of(GdkWindow* window)
{
    GdkDisplay* const display = gdk_window_get_display(window);
    if (!GDK_IS_X11_WINDOW(window) || !xlib().is_there() || !xlib().query_extension(GDK_DISPLAY_XDISPLAY(display))) {
        return nullptr;
    }
    auto memory = std::make_unique<Memory>();
    memory->display = GDK_DISPLAY_XDISPLAY(display);
    memory->window = GDK_WINDOW_XID(window);
    const bool is_shared = memory->allocate(window) && memory->attach(display);
    if (memory->segment.shmid != -1) {
        shmctl(memory->segment.shmid, IPC_RMID, nullptr);
    }
    if (!is_shared) {
        return nullptr;
    }
    memory->gc = xlib().create_gc(memory->display, memory->window, 0, nullptr);
    memory->make_surface(window);
    memory->invalidations.emplace(window);
    memory->reach.emplace(window);
    return std::unique_ptr<SharedImage>(new SharedImage(std::move(memory)));
}

bool SharedImage::fits(GdkWindow* window) const
{
    const int scale = gdk_window_get_scale_factor(window);
    return m_memory->scale == scale && m_memory->width == gdk_window_get_width(window) * scale &&
           m_memory->height == gdk_window_get_height(window) * scale && m_memory->window == GDK_WINDOW_XID(window);
}

/// What has come within reach since then is painted whole: the server may have asked for it when it was not yet known to be.
Damage SharedImage::take_damage()
{
    const GdkRectangle before = std::exchange(m_memory->reachable, m_memory->reach->part());
    const Damage invalid = m_memory->invalidations->take(m_memory->reachable);
    return gdk_rectangle_equal(&before, &m_memory->reachable) ? invalid : Damage::of(std::vector{m_memory->reachable});
}

cairo_t* SharedImage::begin()
{
    Memory& memory = *m_memory;
    if (LastKnownRequestProcessed(memory.display) < memory.last_put && g_get_monotonic_time() - memory.last_put_us < SOON_US) {
        xlib().sync(memory.display, False);
    }
    cairo_t* const cr = cairo_create(memory.surface);
    cairo_set_font_options(cr, memory.font_options);
    return cr;
}

void SharedImage::put_up(const GdkRectangle& part)
{
    Memory& memory = *m_memory;
    cairo_surface_flush(memory.surface);
    const int x = part.x * memory.scale;
    const int y = part.y * memory.scale;
    memory.last_put = NextRequest(memory.display);
    memory.last_put_us = g_get_monotonic_time();
    xlib().put_image(memory.display, memory.window, memory.gc, memory.image, x, y, x, y, static_cast<unsigned>(part.width * memory.scale),
                     static_cast<unsigned>(part.height * memory.scale), False);
}

#else

struct SharedImage::Memory {};

SharedImage::~SharedImage() = default;

std::unique_ptr<SharedImage> SharedImage::of(GdkWindow*)
{
    return nullptr;
}

bool SharedImage::fits(GdkWindow*) const
{
    return false;
}

Damage SharedImage::take_damage()
{
    return Damage::of(std::vector<GdkRectangle>{});
}

cairo_t* SharedImage::begin()
{
    return nullptr;
}

void SharedImage::put_up(const GdkRectangle&) {}

#endif
