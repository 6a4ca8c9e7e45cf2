/// Texts of charts by way of ChartFont: everything beside cairo's own text calls.
#include "chart_font.h"

#include <cmath>
#include <random>
#include <string>

#include "desktop/pictures.h"
#include "live_app.h"

namespace {

class ChartFontTest : public DesktopTest {
protected:
    ChartFontTest() { gtk_init(nullptr, nullptr); }

    static std::string random_text(std::mt19937& random)
    {
        static const std::string CHARACTERS = "0123456789., GHzMG%k-";
        std::string text;
        for (auto i = random() % 12; i > 0; --i) {
            text += CHARACTERS[random() % CHARACTERS.size()];
        }
        return text;
    }
    static cairo_text_extents_t by_cairo(cairo_t* cr, double size, const std::string& text)
    {
        cairo_text_extents_t extents;
        select_chart_font(cr);
        cairo_set_font_size(cr, size);
        cairo_text_extents(cr, text.c_str(), &extents);
        return extents;
    }
};

}  // namespace

TEST_F(ChartFontTest, MeasuresAsCairoDoes)
{
    std::mt19937 random(1);
    for (int i = 0; i < 500; ++i) {
        const Picture picture(4, 4);
        const double size = 5.0 + static_cast<double>(random() % 1500) / 100;
        const std::string text = random_text(random);
        const cairo_text_extents_t ours = ChartFont(picture.cr(), size).measure(text);
        const cairo_text_extents_t wanted = by_cairo(picture.cr(), size, text);
        ASSERT_DOUBLE_EQ(ours.x_bearing, wanted.x_bearing) << text << " at " << size;
        ASSERT_DOUBLE_EQ(ours.y_bearing, wanted.y_bearing) << text << " at " << size;
        ASSERT_DOUBLE_EQ(ours.width, wanted.width) << text << " at " << size;
        ASSERT_DOUBLE_EQ(ours.height, wanted.height) << text << " at " << size;
        ASSERT_DOUBLE_EQ(ours.x_advance, wanted.x_advance) << text << " at " << size;
    }
}

TEST_F(ChartFontTest, ShowsAsCairoDoes)
{
    std::mt19937 random(2);
    ChartFonts fonts;
    for (int i = 0; i < 200; ++i) {
        const int zoom = 1 + i % 2;
        const double size = 7.0 + static_cast<double>(random() % 12);
        const double x = 3 + static_cast<double>(random() % 10) / 10;
        const std::string text = random_text(random);
        const auto paint = [&](const std::function<void(cairo_t*)>& show) {
            Picture picture(150, 30);
            cairo_surface_set_device_scale(cairo_get_target(picture.cr()), zoom, zoom);
            cairo_t* const cr = cairo_create(cairo_get_target(picture.cr()));
            show(cr);
            cairo_destroy(cr);
            cairo_surface_set_device_scale(cairo_get_target(picture.cr()), 1, 1);
            return picture;
        };
        const Picture ours = paint([&](cairo_t* cr) { fonts.at(cr, size).show(cr, x, 14, text); });
        const Picture wanted = paint([&](cairo_t* cr) {
            select_chart_font(cr);
            cairo_set_font_size(cr, size);
            cairo_move_to(cr, x, 14);
            cairo_show_text(cr, text.c_str());
        });
        ASSERT_EQ(ours, wanted) << text << " at " << size << ", scale " << zoom;
    }
}

TEST_F(ChartFontTest, KeepsFewSizes)
{
    const Picture picture(4, 4);
    ChartFonts fonts;
    for (int size = 5; size < 100; ++size) {
        fonts.at(picture.cr(), size);
        ASSERT_LE(fonts.m_fonts.size(), 12U);
    }
}
