/// The application: window, latest readings, and all that the user sees.
#pragma once

#include <gtk/gtk.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "card_backdrop.h"
#include "chart_painter.h"
#include "cpu_reader.h"
#include "cpu_topology.h"
#include "damage.h"
#include "pixel_canvas.h"
#include "shared_image.h"
#include "system_metrics.h"
#include "theme.h"
#include "widget_building.h"
#include "window_manager.h"

/// What a chart shows; attached to its drawing area as object data "meta" and freed with it.
struct ChartMeta {
    std::int32_t cpu_index = -1;    ///< position in App::Cache::cores, or -1 for the total chart
    std::int32_t color_index = -1;  ///< group colour 0 to 3, or -1 for the total colour
};

/// Where a window stands and how large it is, in pixels. On Wayland a client can't learn the position.
struct WindowRect {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;

    /// What GTK reports of a window at present.
    static WindowRect of(GtkWidget* window);
};

/// The one application object; main thread only.
///   app.cpp           life cycle, tick             app_layout.cpp    the tree, placement, sizes, card titles
///   app_window.cpp    window and geometry          app_rebuild.cpp   change of columns and orientation
///   app_painting.cpp  the window onto the screen   app_settings.cpp  the settings dialog
///   app_charts.cpp    charts, colours of load      app_theme.cpp     light and dark, the stylesheet
///   app_status.cpp    the status readouts          app_language.cpp  language change while running
///   app_cards.cpp     cards, headers, total panel
class App {
public:
    // --- app.cpp: life cycle and tick ---

    /// Creates both sampling objects; what SystemMetrics finds out at construction is ready for run(), and what it throws is passed on.
    /// Starts no thread.
    App();
    /// Ends both sampling threads, which takes up to about a second. Leaves the window to the end of the process.
    ~App();
    App(const App&) = delete;
    App& operator=(const App&) = delete;

    /// Start-up, main loop; returns the exit status, always 0. Without a display GTK ends the process.
    int run(int argc, char** argv);

    GtkWidget* window() const { return m_window; }
    /// From then on there is no size to be saved, though GTK may still wait for a clipboard manager. False as long as there is no window
    /// yet.
    bool is_window_closed() const { return m_is_window_closed; }
    int num_columns() const { return m_num_columns; }
    bool is_horizontal() const { return m_horizontal; }

private:
    static constexpr int COLUMN_WIDTH = 58;  ///< pixels of the default width for each column of cards

    /// Latest copy of all measured values. Only the tick writes it, so painters and label updates never take a sampler's lock.
    struct Cache {
        std::vector<CoreStats> cores;
        double total = 0.0;                   ///< 0.0 to 1.0
        std::deque<double> total_history;     ///< oldest first
        std::vector<double> frequencies;      ///< MHz, by CPU number; may be short
        std::vector<double> max_frequencies;  ///< likewise; 0.0 where it is unknown
        double mem_used_gb = -1.0;            ///< GiB; -1.0 until measured
        double mem_total_gb = -1.0;
    };

    /// One card. The widgets are borrowed but for the card.
    struct CoreWidgets {
        GtkWidget* card = nullptr;  ///< a reference of our own: cards are moved between containers
        GtkWidget* chart = nullptr;
        GtkWidget* name_label = nullptr;
        GtkWidget* pct_label = nullptr;
        std::int32_t cpu_index = 0;
        bool short_label = false;  ///< the title is the bare number
    };

    /// One section, at the position of its CpuCluster.
    struct ClusterUI {
        GtkWidget* section_hdr = nullptr;  ///< a reference of our own, as with cards
        GtkWidget* name_label = nullptr;
        std::int32_t grid_row = 0;       ///< row of the first cards
        std::vector<CoreWidgets> cores;  ///< in the order of cpu_indices
    };

    /// The text that the info line shows, with all that it was chosen by: measuring texts is dear, and the choice seldom another.
    struct InfoChoice {
        std::vector<std::string> candidates;
        int width = 0;   ///< in pixels
        guint font = 0;  ///< serial number of the font, its size and its resolution
        std::string text;

        bool was_made_of(const std::vector<std::string>& texts, int room, guint serial) const
        {
            return candidates == texts && width == room && font == serial;
        }
    };

    static gboolean on_update(gpointer data);
    /// One tick: fresh readings into the cache, the labels, and a redraw of every chart.
    void update();
    void fill_cache();
    void update_card(const CoreWidgets& widgets);
    /// Sets a label's markup unless it stands there already: for each label that is set GTK measures the window anew.
    static void set_markup(GtkWidget* label, const char* markup);
    /// Likewise a label's plain text, and a widget's tooltip; an empty tooltip is none.
    static void set_text(GtkWidget* label, const char* text);
    static void set_tooltip(GtkWidget* widget, const char* text);
    /// The byte of a colour channel from 0.0 to 1.0 as labels show it: cut towards zero.
    static unsigned label_byte(double channel) { return static_cast<unsigned>(as_double(channel * 255)); }

    // --- app_window.cpp: the window, its monitor and its geometry ---

    void create_window();
    /// The stored width if it is positive, the stored height if it is believable, else the defaults of the orientation.
    void initial_window_size(const WindowGeometry& stored, int& width, int& height) const;
    void place_window(const WindowGeometry& stored, int width, int height);
    void limit_window_size();
    static gboolean on_configure(GtkWidget* widget, GdkEventConfigure* ev, gpointer data);
    static gboolean on_delete(GtkWidget* widget, GdkEvent* event, gpointer data);
    static void on_destroy(GtkWidget* widget, gpointer data);
    WindowRect rect_to_remember() const;
    /// Makes that the record of the orientation in force.
    void save_geometry(const WindowRect& rect) const;
    /// Writes to standard error if the environment variable VANTRIC_TRACE exists at that moment.
    static void trace(const char* format, ...) G_GNUC_PRINTF(1, 2);
    /// The orientation as traces name it.
    const char* orientation_word() const { return m_horizontal ? "horiz" : "vert"; }
    /// False without a display.
    static bool running_on_wayland();
    /// The primary monitor, else the one on which `widget` stands, else the first; null if there is none. Both may be null.
    static GdkMonitor* usable_monitor(GdkDisplay* display, GtkWidget* widget);
    /// Of that monitor; 0 by 0 without one.
    GdkRectangle monitor_area() const;
    /// Default width in vertical orientation, in pixels.
    static int calc_window_w(int cols);

    // --- app_painting.cpp: how the window gets onto the screen ---

    /// GDK's handler of all events: where the X server shares memory with the program, the window is painted there. All else is GTK's.
    static void handle_event(GdkEvent* event, gpointer data);
    bool paint_exposed(const GdkEventExpose& event);
    /// "draw" handler of the window: paints it where GTK has an image of it.
    static gboolean draw_window(GtkWidget* window, cairo_t* cr, gpointer data);
    void paint_window(cairo_t* cr, const Damage& damage);
    bool is_readings_alone(const Damage& damage, const PixelCanvas& canvas);
    void paint_readings(cairo_t* cr, const PixelCanvas& canvas, const CoreWidgets& core, const Damage& damage);
    /// Borrowed, until the next call.
    const CardBackdrop& title_backdrop(const CoreWidgets& core, const PixelCanvas& canvas);
    const CardBackdrop& status_backdrop(const PixelCanvas& canvas);
    GdkRectangle status_area() const;
    void paint_status(cairo_t* cr, const PixelCanvas& canvas);
    /// "style-updated" handler of the very first card, for all, and of the total panel.
    static void forget_backdrops(GtkWidget* card, gpointer data);

    // --- app_charts.cpp: painting; reads m_cache and takes no lock ---

    static gboolean draw_chart(GtkWidget* w, cairo_t* cr, gpointer data);
    static gboolean draw_color_bar(GtkWidget* w, cairo_t* cr, gpointer data);
    /// Paints a chart of `w` by `h` pixels. `history` holds loads from 0.0 to 1.0, oldest first, at most 60; `ghost` the forms of the
    /// text behind the curve, longest first; `pct_overlay` the load shown in the corner, or a negative number for none.
    static void paint_chart(cairo_t* cr, int w, int h, const std::deque<double>& history, const Rgb& accent, const Palette& pal,
                            const std::vector<std::string>& ghost, double pct_overlay);
    /// Paints the longest candidate that can be read at that size, if any.
    static void draw_ghost(cairo_t* cr, int w, int h, const std::vector<std::string>& candidates, const Palette& pal);
    static void draw_ghost_text(cairo_t* cr, int w, int h, const std::string& text, double size, const Palette& pal);
    /// Forms of a clock frequency for draw_ghost, longest first; none if `mhz` is not positive.
    static std::vector<std::string> freq_texts(double mhz);
    /// The colour for a load from 0.0 to 1.0; each result is 0.0 to 1.0.
    static void usage_color(double usage, bool dark, double& r, double& g, double& b);
    /// The configured colour of group 0 to 3, or that of the total for any other index; the built-in one if the text is no colour.
    static Rgb group_color(int index);
    Palette palette() const { return Palette::for_theme(m_dark); }
    double total_frequency() const;
    /// What the chart widget shows, in that area.
    ChartPainter::Chart chart_of(GtkWidget* chart, const GdkRectangle& area) const;

    // --- app_status.cpp: temperature and power, throttle label, info line ---

    void update_right_info_label();
    /// How far the busy CPUs run below their highest clock, 0.0 to 1.0 (0.0 if none is busy); -1.0 if it can't be known.
    double compute_throttle() const;
    void update_throttle_label();
    std::string throttle_markup(double t, bool thermal) const;
    static std::string throttle_tooltip(double t, bool thermal, double temperature, double limit);
    /// Core, thread and memory counts, in as many words as fit.
    void update_info_line();
    int info_line_width() const;
    std::string longest_fitting(const std::vector<std::string>& candidates, int avail) const;

    // --- app_rebuild.cpp: changes of shape while the program runs ---

    /// Applies a new number of columns, at least 1: moves the cards, gives the window its default size for them and saves that.
    /// Does not replace m_core_grid, so the kind of container must be the one that the number needs.
    void relayout_cores(int columns);
    /// Replaces everything inside the window by the layout of the orientation in the settings, at the geometry stored for that
    /// orientation. Never call it from a handler of a widget that it destroys: see queue_rebuild_layout().
    void rebuild_layout();
    /// Calls rebuild_layout() once from the main loop. Requests are not merged.
    void queue_rebuild_layout();
    void release_sections();
    void enter_stored_geometry(const WindowGeometry& stored, const WindowRect& left, int width, int height);
    GdkPoint rebuild_target(const WindowGeometry& stored, const WindowRect& left, int width, int height) const;
    static gboolean on_pending_move(gpointer data);
    static gboolean on_settled(gpointer data);

    // --- app_cards.cpp: the widget groups ---

    /// "Performance (8)", in the current language.
    static std::string section_title(const CpuCluster& cluster);
    /// "Core 5" for the CPU at position 4, in the current language.
    static std::string card_title(std::int32_t cpu_index);
    GtkWidget* create_core_card(int cpu_index, int color_index);
    GtkWidget* create_section_header(const CpuCluster& cluster);
    /// `extra` goes on top of the panel; may be null. Sets m_right_info_label, m_throttle_label and m_total_chart.
    GtkWidget* create_total_panel(GtkWidget* extra);
    GtkWidget* create_status_row(GtkWidget* panel);
    GtkWidget* create_chart(const ChartMeta& meta, int min_height);
    /// What a chart is called, and what it shows, such as "43%, 4.909 GHz"; empty as long as it shows nothing. Screen readers ask.
    static std::string chart_name(GtkWidget* chart, gpointer data);
    static std::string chart_description(GtkWidget* chart, gpointer data);
    /// The load that a chart shows last, 0.0 to 1.0; empty if there is no reading.
    std::optional<double> load_of(const ChartMeta& meta) const;
    /// The clock behind it in MHz, or 0.0.
    double frequency_of(const ChartMeta& meta) const;
    /// Tells a screen reader that what it knows of the window is called otherwise now.
    void tell_new_names() const;

    // --- app_layout.cpp: the tree under the window ---

    void build_layout();
    GtkWidget* create_header_block();
    GtkWidget* create_core_grid() const;
    void create_sections();
    /// Places headers and cards in m_core_grid, `columns` to a row.
    void populate_core_grid(int columns);
    void empty_core_grid();
    void place_in_grid(int cols);
    void place_in_single_row();
    void place_in_row_boxes(int columns);
    /// Gives each card the long or the short title, by what fits at that width of the window.
    void fit_core_labels(int window_w);
    void fit_core_label(CoreWidgets& widgets, int card_width, int pct_width);
    /// Width that is left for cards, in pixels.
    int cards_width(int window_w) const;
    static void on_win_size_alloc(GtkWidget* widget, GtkAllocation* allocation, gpointer data);
    /// "style-updated" handler of the info line and of the first card's title, for all: texts are chosen anew in the next allocation.
    static void on_font_changed(GtkWidget* label, gpointer data);
    /// Default size of the window in horizontal orientation, in pixels.
    void default_horizontal_size(int& w, int& h) const;
    static int default_horizontal_columns() { return 1; }
    bool single_core_row() const { return m_horizontal && m_num_columns == 1; }
    int card_count() const;
    /// Width of a text in the widget's font, in pixels.
    static int text_width(GtkWidget* widget, const std::string& text);
    /// Charts take what height the cards leave them, so there is nothing to adapt.
    void adapt_chart_heights(int) {}

    // --- app_theme.cpp: light and dark, the stylesheet ---

    /// Decides between light and dark and puts the stylesheet on the screen. May wait for the portal: see system_prefers_dark().
    void apply_theme();
    /// Calls apply_theme() once from the main loop.
    void queue_apply_theme();
    /// Whether the theme in the settings is dark at this moment; "auto" and unknown words ask the desktop.
    bool resolve_dark() const;
    /// Asks the XDG desktop portal for the colour scheme, else GTK's own settings. Blocks meanwhile, for at most half a second; the first
    /// time for up to three seconds before, until there is a connection to the session bus. One that takes longer counts as missing from
    /// then on.
    static bool system_prefers_dark();
    /// Follows the portal's changes from now on.
    void watch_system_theme();
    static void on_portal_setting_changed(GDBusConnection* connection, const gchar* sender, const gchar* path, const gchar* interface,
                                          const gchar* signal, GVariant* parameters, gpointer data);

    // --- app_language.cpp: another language in the running interface ---

    /// Makes the current language's direction GTK's default.
    static void apply_text_direction();
    /// Puts the whole interface into the current language, with no new window.
    void retranslate();
    void relabel_sections();
    static void relabel_card(CoreWidgets& widgets);

    // --- app_settings.cpp: the settings dialog, a window of its own behind the gear ---

    GtkWidget* create_settings_popover();
    /// Fills the dialog's box with everything that can be chosen, in the current language and scheme.
    void build_settings_content(GtkWidget* box);
    GtkWidget* create_orientation_row();
    GtkWidget* create_columns_frame();
    GtkWidget* create_language_row();
    GtkWidget* create_theme_row();
    GtkWidget* create_colors_expander();
    void add_cluster_color_rows(GtkWidget* box);
    void add_color_row(GtkWidget* box, const char* label, const std::string& slot);
    /// A colour that does not parse shows as black. The row's object data "button" is its GtkColorButton.
    GtkWidget* color_row(const char* label, const char* hex, GCallback on_set, gpointer data);
    /// Builds the content afresh from the main loop, if the dialog was ever opened: what asks for it stands in that content.
    void rebuild_settings_content();
    void replace_settings_content();
    void save_settings() const;
    /// Counts the columns of the next layout up or down; the cards stay where they are until "Apply".
    void step_columns(int step);

    static void on_settings_clicked(GtkWidget* widget, gpointer data);
    static void on_fewer_columns(GtkWidget* widget, gpointer data);
    static void on_more_columns(GtkWidget* widget, gpointer data);
    static void on_apply_columns(GtkWidget* widget, gpointer data);
    static void on_orientation_changed(GtkComboBox* combo, gpointer data);
    static void on_language_changed(GtkComboBox* combo, gpointer data);
    static void on_theme_changed(GtkComboBox* combo, gpointer data);
    static void on_color_set(GtkColorButton* button, gpointer data);
    static void on_reset_colors(GtkWidget* widget, gpointer data);

    GtkWidget* m_window = nullptr;  ///< null again once it is closed
    GtkWidget* m_cpu_label = nullptr;
    GtkWidget* m_info_label = nullptr;
    GtkWidget* m_right_info_label = nullptr;  ///< temperature and power
    GtkWidget* m_total_chart = nullptr;
    GtkWidget* m_total_panel = nullptr;
    GtkWidget* m_throttle_label = nullptr;
    GtkWidget* m_core_grid = nullptr;         ///< a GtkGrid, or a vertical GtkBox of rows
    GtkWidget* m_settings_popover = nullptr;  ///< the settings dialog; null until first opened, then kept
    GtkWidget* m_settings_box = nullptr;      ///< its one child, which survives changes of the content
    GtkWidget* m_colors_expander = nullptr;
    GtkWidget* m_col_label = nullptr;  ///< the number of columns in the dialog
    GtkCssProvider* m_css = nullptr;   ///< owned
    std::vector<ClusterUI> m_clusters_ui;
    std::unique_ptr<SharedImage> m_screen_image;  ///< what stands on the screen; null until painted, and where memory can't be shared
    bool m_shares_memory = true;                  ///< until that was refused
    CardBackdrops m_title_backdrops;              ///< of the cards
    CardBackdrops m_status_backdrops;             ///< of the total panel
    ChartPainter m_chart_painter;
    Cache m_cache;
    InfoChoice m_info_choice;
    std::unique_ptr<CPUReader> m_cpu_reader;
    std::unique_ptr<SystemMetrics> m_sys_metrics;
    std::vector<CpuCluster> m_clusters;
    std::int32_t m_num_columns = 4;       ///< replaced by run()
    bool m_horizontal = false;            ///< replaced by run()
    bool m_freeze_geometry_save = false;  ///< a rebuild is on its way: on_configure() saves nothing
    std::int32_t m_pending_move_x = 0;    ///< where the delayed move of a rebuild will put the window
    std::int32_t m_pending_move_y = 0;
    std::int32_t m_last_window_h = 0;  ///< 0 until the first allocation, and after a rebuild
    std::int32_t m_last_window_w = 0;  ///< likewise after a change of fonts
    bool m_is_window_closed = false;
    bool m_paints_own_canvas =
        false;               ///< inside paint_window(), on pixels in memory; written there, read by draw_window() and by draw_chart()
    bool m_dark = false;     ///< the resolved theme; written by apply_theme() alone
    guint m_portal_sub = 0;  ///< subscription to the portal's signal; 0 if there is none
    const Handlers m_handlers{this};
};
