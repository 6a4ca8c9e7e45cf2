/// The rectangles of a clip lie in bands from the top down, so that those of a place are found by bisection.
#include "damage.h"

#include <algorithm>

namespace {

Damage::Area area_of(const GdkRectangle& r)
{
    return static_cast<Damage::Area>(r.width) * r.height;
}

std::optional<GdkRectangle> whole_units(const cairo_rectangle_t& r)
{
    const GdkRectangle whole{static_cast<int>(r.x), static_cast<int>(r.y), static_cast<int>(r.width), static_cast<int>(r.height)};
    const bool is_whole = whole.x == r.x && whole.y == r.y && whole.width == r.width && whole.height == r.height;
    return is_whole ? std::optional(whole) : std::nullopt;
}

}  // namespace

std::optional<Damage> Damage::of(cairo_t* cr)
{
    cairo_rectangle_list_t* const list = cairo_copy_clip_rectangle_list(cr);
    Damage damage;
    bool is_whole = list->status == CAIRO_STATUS_SUCCESS;
    for (int i = 0; is_whole && i < list->num_rectangles; ++i) {
        const std::optional<GdkRectangle> part = whole_units(list->rectangles[i]);
        is_whole = part.has_value();
        if (is_whole) {
            damage.m_parts.push_back(*part);
        }
    }
    cairo_rectangle_list_destroy(list);
    return is_whole ? std::optional(damage) : std::nullopt;
}

Damage Damage::of(const cairo_region_t* region)
{
    Damage damage;
    damage.m_parts.resize(static_cast<std::size_t>(cairo_region_num_rectangles(region)));
    for (int i = 0; GdkRectangle & part : damage.m_parts) {
        cairo_region_get_rectangle(region, i++, &part);
    }
    return damage;
}

Damage Damage::of(const std::vector<GdkRectangle>& parts)
{
    return of(region_of(parts).get());
}

Damage Damage::of(const GdkRectangle& whole)
{
    Damage damage;
    damage.m_parts.push_back(whole);
    return damage;
}

Damage::Area Damage::area() const
{
    Area sum = 0;
    for (const GdkRectangle& part : m_parts) {
        sum += area_of(part);
    }
    return sum;
}

Damage::Area Damage::area_within(const GdkRectangle& place) const
{
    Area sum = 0;
    const auto is_above = [&](const GdkRectangle& part) { return part.y + part.height <= place.y; };
    auto part = std::partition_point(m_parts.begin(), m_parts.end(), is_above);
    for (; part != m_parts.end() && part->y < place.y + place.height; ++part) {
        if (GdkRectangle common; gdk_rectangle_intersect(&*part, &place, &common)) {
            sum += area_of(common);
        }
    }
    return sum;
}

GdkRectangle Damage::bounds() const
{
    GdkRectangle box = is_empty() ? GdkRectangle{} : m_parts.front();
    for (const GdkRectangle& part : m_parts) {
        gdk_rectangle_union(&box, &part, &box);
    }
    return box;
}

void Damage::clip(cairo_t* cr) const
{
    gdk_cairo_region(cr, region_of(m_parts).get());
    cairo_clip(cr);
}

Damage Damage::without(const GdkRectangle& place) const
{
    const Region rest = region_of(m_parts);
    cairo_region_subtract_rectangle(rest.get(), &place);
    return of(rest.get());
}

Damage::Region Damage::region_of(const std::vector<GdkRectangle>& parts)
{
    return {cairo_region_create_rectangles(parts.data(), static_cast<int>(parts.size())), cairo_region_destroy};
}
