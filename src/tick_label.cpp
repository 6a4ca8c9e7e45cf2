/// A type derived from GtkLabel, with one store of shaped texts for all labels, and in each label what it has found out.
#include "tick_label.h"

#include <algorithm>
#include <memory>
#include <string>
#include <unordered_map>

namespace {

/// How large a text is, in pixels.
struct Extents {
    PangoRectangle room{};  ///< that it takes
    PangoRectangle mark{};  ///< the room with what of the ink leaves it

    static Extents of(PangoLayout* layout)
    {
        Extents extents;
        PangoRectangle ink;
        pango_layout_get_pixel_extents(layout, &ink, &extents.room);
        const PangoRectangle& room = extents.room;
        const int left = std::min(ink.x, room.x);
        const int top = std::min(ink.y, room.y);
        extents.mark = {left, top, std::max(ink.x + ink.width, room.x + room.width) - left,
                        std::max(ink.y + ink.height, room.y + room.height) - top};
        return extents;
    }
    bool operator==(const Extents& other) const
    {
        const auto same = [](const PangoRectangle& a, const PangoRectangle& b) {
            return a.x == b.x && a.y == b.y && a.width == b.width && a.height == b.height;
        };
        return same(room, other.room) && same(mark, other.mark);
    }
};

/// A text as GtkLabel has shaped it.
struct ShapedText {
    std::shared_ptr<PangoLayout> layout;
    Extents extents;
};

/// All that decides how a text is shaped, but for the text.
class Typography {
public:
    Typography() = default;
    explicit Typography(PangoContext* context)
        : m_font(pango_font_description_copy(pango_context_get_font_description(context)), pango_font_description_free),
          m_language(pango_context_get_language(context)),
          m_direction(pango_context_get_base_dir(context))
    {
    }
    bool is_that_of(PangoContext* context) const
    {
        return m_direction == pango_context_get_base_dir(context) && m_language == pango_context_get_language(context) &&
               pango_font_description_equal(m_font.get(), pango_context_get_font_description(context));
    }

private:
    std::shared_ptr<PangoFontDescription> m_font;
    PangoLanguage* m_language = nullptr;
    PangoDirection m_direction = PANGO_DIRECTION_LTR;
};

/// The shaped texts of all labels, by their markup. A label whose typography is not that of the others shapes its texts by itself.
class ShapedTexts {
public:
    /// The label's text at present; null for a label that is not like the others. Borrowed, until the next call.
    const ShapedText* of(GtkLabel* label)
    {
        PangoContext* const context = gtk_widget_get_pango_context(GTK_WIDGET(label));
        if (m_texts.empty()) {
            m_typography = Typography(context);
        } else if (!m_typography.is_that_of(context)) {
            return nullptr;
        }
        const char* const markup = gtk_label_get_label(label);
        const auto known = m_texts.find(markup);
        return known != m_texts.end() ? &known->second : &add(label, markup);
    }
    void forget() { m_texts.clear(); }

private:
    static constexpr std::size_t MOST = 128;  // a kilobyte each; there are 101 percentages, a few of them in two colours

    const ShapedText& add(GtkLabel* label, const char* markup)
    {
        if (m_texts.size() == MOST) {
            m_texts.clear();
        }
        PangoLayout* const layout = gtk_label_get_layout(label);
        g_object_ref(layout);  // the label itself lets go of it with its next text
        return m_texts[markup] = {{layout, g_object_unref}, Extents::of(layout)};
    }

    std::unordered_map<std::string, ShapedText> m_texts;
    Typography m_typography;
};

ShapedTexts& g_shaped_texts = *new ShapedTexts;  // without an end: labels of a window that is open till the end come too late for it
int g_labels = 0;                                // that are alive

/// What a plain label has found out, with a text of these extents and with the allocation and the style that it still has.
struct Findings {
    Extents extents;
    bool has_width = false;
    bool has_height = false;
    bool has_place = false;
    bool is_allocated = false;
    int minimum_width = 0;
    int natural_width = 0;
    int minimum_height = 0;
    int natural_height = 0;
    int minimum_baseline = -1;
    int natural_baseline = -1;
    int x = 0;  ///< of the text in the label
    int y = 0;
};

struct TickLabel {
    GtkLabel parent;
    Findings found;
};
struct TickLabelClass {
    GtkLabelClass parent;
};

GtkWidgetClass* g_plain_label = nullptr;  // what GtkLabel does

Findings& findings(GtkWidget* widget)
{
    return reinterpret_cast<TickLabel*>(widget)->found;
}

/// The text at present, with the findings made to be those for its extents; null where the label has to do all by itself.
const ShapedText* shaped_text(GtkWidget* widget)
{
    const ShapedText* const text = g_shaped_texts.of(GTK_LABEL(widget));
    if (text == nullptr) {
        findings(widget) = {};
        return nullptr;
    }
    if (Findings& found = findings(widget); found.extents != text->extents) {
        found = {.extents = text->extents};
    }
    return text;
}

void get_preferred_width(GtkWidget* widget, gint* minimum, gint* natural)
{
    const bool is_shared = shaped_text(widget) != nullptr;
    Findings& found = findings(widget);
    if (!found.has_width) {
        g_plain_label->get_preferred_width(widget, &found.minimum_width, &found.natural_width);
        found.has_width = is_shared;
    }
    *minimum = found.minimum_width;
    *natural = found.natural_width;
}

void get_preferred_height(GtkWidget* widget, gint width, gint* minimum, gint* natural, gint* minimum_baseline, gint* natural_baseline)
{
    const bool is_shared = shaped_text(widget) != nullptr;
    Findings& found = findings(widget);
    if (!found.has_height) {
        g_plain_label->get_preferred_height_and_baseline_for_width(widget, width, &found.minimum_height, &found.natural_height,
                                                                   &found.minimum_baseline, &found.natural_baseline);
        found.has_height = is_shared;
    }
    *minimum = found.minimum_height;
    *natural = found.natural_height;
    *minimum_baseline = found.minimum_baseline;
    *natural_baseline = found.natural_baseline;
}

void size_allocate(GtkWidget* widget, GtkAllocation* allocation)
{
    GtkAllocation present;
    gtk_widget_get_allocation(widget, &present);
    const bool is_shared = shaped_text(widget) != nullptr;
    Findings& found = findings(widget);
    if (found.is_allocated && gdk_rectangle_equal(&present, allocation)) {
        return;
    }
    g_plain_label->size_allocate(widget, allocation);
    found.is_allocated = is_shared;
    found.has_place = false;
}

bool has_margins(GtkStyleContext* style)
{
    constexpr GtkBorder NONE{};
    const GtkStateFlags state = gtk_style_context_get_state(style);
    GtkBorder sides[3];
    gtk_style_context_get_margin(style, state, &sides[0]);
    gtk_style_context_get_border(style, state, &sides[1]);
    gtk_style_context_get_padding(style, state, &sides[2]);
    for (const GtkBorder& side : sides) {
        if (side.left != NONE.left || side.right != NONE.right || side.top != NONE.top || side.bottom != NONE.bottom) {
            return true;
        }
    }
    return false;
}

/// Finds out where the text stands. A theme may frame a label, which is then left to it.
void find_place(GtkWidget* widget, Findings& found)
{
    GtkAllocation allocation;
    gtk_widget_get_allocation(widget, &allocation);
    gtk_label_get_layout_offsets(GTK_LABEL(widget), &found.x, &found.y);
    found.x -= allocation.x;
    found.y -= allocation.y;
    found.has_place = !has_margins(gtk_widget_get_style_context(widget));
}

gboolean draw(GtkWidget* widget, cairo_t* cr)
{
    const ShapedText* const text = shaped_text(widget);
    Findings& found = findings(widget);
    if (text != nullptr && found.is_allocated && !found.has_place) {
        find_place(widget, found);
    }
    if (!found.has_place) {
        return g_plain_label->draw(widget, cr);
    }
    GtkStyleContext* const style = gtk_widget_get_style_context(widget);
    gtk_render_background(style, cr, 0, 0, gtk_widget_get_allocated_width(widget), gtk_widget_get_allocated_height(widget));
    gtk_render_layout(style, cr, found.x, found.y, text->layout.get());
    return FALSE;
}

void style_updated(GtkWidget* widget)
{
    findings(widget) = {};
    g_shaped_texts.forget();  // the font's resolution may have changed, which nothing else tells
    g_plain_label->style_updated(widget);
}

void direction_changed(GtkWidget* widget, GtkTextDirection before)
{
    findings(widget) = {};
    g_plain_label->direction_changed(widget, before);
}

void finalize(GObject* object)
{
    if (--g_labels == 0) {
        g_shaped_texts.forget();
    }
    G_OBJECT_CLASS(g_plain_label)->finalize(object);
}

void init_class(gpointer type, gpointer)
{
    g_plain_label = GTK_WIDGET_CLASS(g_type_class_peek_parent(type));
    GtkWidgetClass* const widget = GTK_WIDGET_CLASS(type);
    widget->get_preferred_width = get_preferred_width;
    widget->get_preferred_height_and_baseline_for_width = get_preferred_height;
    widget->size_allocate = size_allocate;
    widget->draw = draw;
    widget->style_updated = style_updated;
    widget->direction_changed = direction_changed;
    G_OBJECT_CLASS(type)->finalize = finalize;
}

void init(GTypeInstance* label, gpointer)
{
    ++g_labels;
    reinterpret_cast<TickLabel*>(label)->found = {};
}

GType tick_label_type()
{
    static const GType TYPE = g_type_register_static_simple(GTK_TYPE_LABEL, "VantricTickLabel", sizeof(TickLabelClass), init_class,
                                                            sizeof(TickLabel), init, GTypeFlags{});
    return TYPE;
}

}  // namespace

GtkWidget* tick_label_new(const char* markup)
{
    GtkWidget* const label = GTK_WIDGET(g_object_new(tick_label_type(), nullptr));
    gtk_label_set_markup(GTK_LABEL(label), markup);
    return label;
}
