/// By GTK's own way of letting a container lay itself out, with a handler that passes on what others would notice.
#include "layout_boundary.h"

namespace {

/// What a box asks for.
struct Request {
    GtkRequisition minimum{};
    GtkRequisition natural{};

    static Request of(GtkWidget* box)
    {
        Request request;
        gtk_widget_get_preferred_size(box, &request.minimum, &request.natural);
        return request;
    }
    bool operator==(const Request& other) const
    {
        const auto same = [](const GtkRequisition& a, const GtkRequisition& b) { return a.width == b.width && a.height == b.height; };
        return same(minimum, other.minimum) && same(natural, other.natural);
    }
};

bool has_room(GtkWidget* box, const GtkRequisition& minimum)
{
    return gtk_widget_get_allocated_width(box) >= minimum.width && gtk_widget_get_allocated_height(box) >= minimum.height;
}

/// "check-resize" handler, before GTK's own, which lays the box out inside the area that it has.
void pass_on_what_others_notice(GtkContainer* box, gpointer data)
{
    Request& known = *static_cast<Request*>(data);
    GtkWidget* const widget = GTK_WIDGET(box);
    const Request request = Request::of(widget);
    const bool has_enough = has_room(widget, request.minimum);
    if (request == known && has_enough) {
        return;
    }
    known = request;
    if (GtkWidget* parent = gtk_widget_get_parent(widget)) {
        gtk_widget_queue_resize_no_redraw(parent);
    }
    if (!has_enough) {
        g_signal_stop_emission_by_name(box, "check-resize");  // the parent's layout is still to come, and gives it more
    }
}

void delete_request(gpointer request, GClosure*)
{
    delete static_cast<Request*>(request);
}

}  // namespace

void make_layout_boundary(GtkWidget* box)
{
    g_signal_connect_data(box, "check-resize", G_CALLBACK(pass_on_what_others_notice), new Request, delete_request, GConnectFlags{});
    // Deprecated since windows do their layout once for each frame; a part of a window with a layout of its own has no other way
    G_GNUC_BEGIN_IGNORE_DEPRECATIONS
    gtk_container_set_resize_mode(GTK_CONTAINER(box), GTK_RESIZE_QUEUE);
    G_GNUC_END_IGNORE_DEPRECATIONS
}
