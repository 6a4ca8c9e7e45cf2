/* Notes which of some calls a program makes, and in which order, by standing before the libraries that it calls:
 *     LD_PRELOAD=call_order.so CALL_ORDER_FILE=notes program
 * Only calls by the program itself and by the C++ library on its behalf count; those among libraries do not. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <gtk/gtk.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static void note(const char *text)
{
    const char *file = getenv("CALL_ORDER_FILE");
    int fd = file ? open(file, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644) : -1;
    if (fd < 0 || write(fd, text, strlen(text)) < 0)
        abort();
    close(fd);
}

static int is_called_by(const void *address, const char *name)
{
    Dl_info info;
    return dladdr(address, &info) && strstr(info.dli_fname, name) != NULL;
}

static int is_of_program(const void *address)
{
    return !is_called_by(address, ".so");
}

/* The function of that name behind ours. */
#define NEXT(name) ((__typeof__(&name))dlsym(RTLD_NEXT, #name))
#define CALLER __builtin_return_address(0)

__sighandler_t signal(int number, __sighandler_t handler)
{
    char text[32];
    snprintf(text, sizeof text, "signal %d\n", number);
    if (is_of_program(CALLER))
        note(text);
    return NEXT(signal)(number, handler);
}

void gtk_init(int *argc, char ***argv)
{
    note("gtk_init\n");
    NEXT(gtk_init)(argc, argv);
}

void gtk_widget_set_default_direction(GtkTextDirection direction)
{
    char text[64];
    snprintf(text, sizeof text, "gtk_widget_set_default_direction %d\n", direction);
    if (is_of_program(CALLER))
        note(text);
    NEXT(gtk_widget_set_default_direction)(direction);
}

GtkWidget *gtk_window_new(GtkWindowType type)
{
    if (is_of_program(CALLER))
        note("gtk_window_new\n");
    return NEXT(gtk_window_new)(type);
}

void gtk_window_move(GtkWindow *window, gint x, gint y)
{
    if (is_of_program(CALLER))
        note("gtk_window_move\n");
    NEXT(gtk_window_move)(window, x, y);
}

void gtk_widget_show_all(GtkWidget *widget)
{
    NEXT(gtk_widget_show_all)(widget);
    if (is_of_program(CALLER))
        note("gtk_widget_show_all\n");
}

int pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*run)(void *), void *data)
{
    if (is_of_program(CALLER) || is_called_by(CALLER, "libstdc++"))
        note("thread\n");
    return NEXT(pthread_create)(thread, attributes, run, data);
}

guint g_timeout_add(guint interval, GSourceFunc function, gpointer data)
{
    char text[32];
    snprintf(text, sizeof text, "g_timeout_add %u\n", interval);
    if (is_of_program(CALLER))
        note(text);
    return NEXT(g_timeout_add)(interval, function, data);
}

void gtk_main(void)
{
    note("gtk_main\n");
    NEXT(gtk_main)();
}
