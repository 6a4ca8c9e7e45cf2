/* Lets a rebuild settle twenty times as late, so that a test has the time to do something before it has, by standing before GLib. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <glib.h>

enum { SETTLE_DELAY_MS = 450, TIMES = 20 };

guint g_timeout_add(guint interval, GSourceFunc function, gpointer data)
{
    guint (*next)(guint, GSourceFunc, gpointer) = (guint(*)(guint, GSourceFunc, gpointer))dlsym(RTLD_NEXT, "g_timeout_add");
    return next(interval == SETTLE_DELAY_MS ? interval * TIMES : interval, function, data);
}
