/// A display by another name: for tests of what the program does on Wayland, in a window under X11.
#pragma once

#include <gtk/gtk.h>

#include <utility>

/// Lets the type of the display have another name, until the end of the scope. The display remains what it is in all else.
class RenamedDisplay {
public:
    explicit RenamedDisplay(const char* type_name) : m_instance(reinterpret_cast<GTypeInstance*>(gdk_display_get_default()))
    {
        GTypeQuery parent;
        g_type_query(G_TYPE_FROM_INSTANCE(m_instance), &parent);
        const GType type =
            g_type_register_static_simple(parent.type, type_name, parent.class_size, nullptr, parent.instance_size, nullptr, GTypeFlags{});
        m_before = std::exchange(m_instance->g_class, static_cast<GTypeClass*>(g_type_class_ref(type)));
    }
    ~RenamedDisplay() { m_instance->g_class = m_before; }
    RenamedDisplay(const RenamedDisplay&) = delete;
    RenamedDisplay& operator=(const RenamedDisplay&) = delete;

private:
    GTypeInstance* const m_instance;
    GTypeClass* m_before = nullptr;
};
