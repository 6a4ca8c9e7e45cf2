// How the two edges of the stroke are found.
//
// A segment of the stroke is a rectangle around a part of the curve. Where two of them meet, their edges cross on the inner side of the
// bend; the gap on the outer side is filled up to the point where they would cross (miter), or straight from corner to corner (bevel):
//
//                    miter            The upper edge of the stroke is a chain of such points, and so is the lower one: here
//                     /\              the miter above, the crossing below.
//            bevel   /__\             Where segments are shorter than the stroke is wide, a crossing lies beyond the end of a
//                   / /\ \            segment, and parts of other segments cover its edge. Then the chain is united, piece by
//                  / /  \ \           piece, with all that is known of the edge of that segment.
//                 / / /\ \ \          .
//          upper / / /  \ \ \         .
//               / / /    \ \ \        .
//                  / lower
//
// Points are rounded as cairo rounds them, to 1/256 of a pixel, before anything is derived from them: the choice between miter and bevel
// then is cairo's to the last bit. Nothing else is rounded, while cairo rounds the corners of rectangles, too.
#include "curve_outline.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr double PARTS_OF_PIXEL = 256.0;  // in cairo's numbers
constexpr double MITER_LIMIT = 10.0;      // cairo's own
constexpr double HIGHEST_LOAD = 16.0;     // more than this is as good as infinite
constexpr float FAR = 1e9F;               // beyond any chart

double sane_load(double value)
{
    return std::isnan(value) ? 0.0 : std::clamp(value, -HIGHEST_LOAD, HIGHEST_LOAD);
}

float rounded(double pixels)
{
    return static_cast<float>(std::lrint(pixels * PARTS_OF_PIXEL)) / static_cast<float>(PARTS_OF_PIXEL);
}

CurveOutline::Point operator-(const CurveOutline::Point& point)
{
    return {-point.x, -point.y};
}

/// On the way along a chain, from left to right.
class Walk {
public:
    Walk(const CurveOutline::Point* first, const CurveOutline::Point* last) : m_edge(first), m_last(last) {}

    /// Goes on until the edge ends right of that x. There is none at the end of the chain.
    void go_to(float x)
    {
        while (m_edge != m_last && m_edge[1].x <= x) {
            ++m_edge;
        }
        m_is_on_edge = m_edge != m_last && m_edge->x <= x;
        if (m_is_on_edge) {
            m_slope = (m_edge[1].y - m_edge->y) / (m_edge[1].x - m_edge->x);
        }
    }
    bool is_over() const { return m_edge == m_last; }
    bool is_on_edge() const { return m_is_on_edge; }
    /// Where the next point is.
    float next() const { return is_over() ? FAR : m_edge[m_is_on_edge ? 1 : 0].x; }
    /// On the edge; below everything if there is none.
    float y(float x) const { return m_is_on_edge ? m_edge->y + (x - m_edge->x) * m_slope : FAR; }

private:
    const CurveOutline::Point* m_edge;  ///< begins here, and goes to the next point
    const CurveOutline::Point* const m_last;
    bool m_is_on_edge = false;
    float m_slope = 0.0F;
};

}  // namespace

/// Builds one edge of the stroke, segment by segment. For the lower edge all is mirrored, so that the edge is the smallest y everywhere.
class CurveOutline::Side {
public:
    Side(CurveOutline& outline, bool is_lower)
        : m_outline(outline), m_chain(is_lower ? outline.m_lower : outline.m_upper), m_sign(is_lower ? -1.0F : 1.0F)
    {
    }

    void build();

private:
    /// What a segment, with its parts of the joins, shows on this side.
    struct Piece {
        Point points[4];
        std::size_t count = 0;
        std::size_t long_side = 0;  ///< goes from that point to the next

        void add(const Point& point) { points[count++] = point; }
        const Point& end() const { return points[long_side + 1]; }
        const Point& last() const { return points[count - 1]; }
    };
    static constexpr std::size_t NONE = static_cast<std::size_t>(-1);

    Point at(const Point& place, const Point& offset) const { return {place.x + m_sign * offset.x, m_sign * place.y + offset.y}; }
    bool is_outer(const Bend& bend) const { return bend.turns_down == (m_sign > 0); }

    bool bend_plainly(std::size_t i);
    float x_at_end(std::size_t i) const;
    const Point& normal_at_end(std::size_t i) const;
    void close(std::size_t i);
    void add(std::size_t i);
    void begin(Piece& piece, std::size_t i) const;
    void end(Piece& piece, std::size_t i) const;
    void append(const Piece& piece, std::size_t first);
    void unite(const Piece& piece);
    void append_upper_of(const Chain& known, const Piece& piece);
    void append(const Point& point);

    CurveOutline& m_outline;
    Chain& m_chain;
    const float m_sign;
    std::size_t m_long_side = NONE;  ///< where that of the last segment begins in the chain, if its end is seen
    bool m_is_open = false;          ///< that end is not in the chain yet
};

void CurveOutline::Side::build()
{
    add(0);
    for (std::size_t i = 1; i < m_outline.m_segments.size(); ++i) {
        if (!bend_plainly(i)) {
            close(i - 1);
            add(i);
        }
    }
    close(m_outline.m_segments.size() - 1);
    for (Point& point : m_chain) {
        point.y *= m_sign;
    }
}

/// Lets the chain bend where the long sides of a segment and of the one before meet. Does nothing, and says so, if they don't meet where
/// both are seen. The corners beyond an inner bend are left out: even where one peeps out behind a very short segment, no test can tell.
bool CurveOutline::Side::bend_plainly(std::size_t i)
{
    const Point& place = m_outline.m_curve[i];
    const Bend& bend = m_outline.m_bends[i - 1];
    const bool is_outside = is_outer(bend);
    if (m_long_side == NONE || (is_outside && bend.join == Join::bevel)) {
        return false;
    }
    const Point meeting = at(place, bend.to_miter);
    const float begin = m_chain[m_long_side].x;
    if (!is_outside && !(begin < meeting.x && meeting.x < x_at_end(i))) {
        return false;
    }
    m_chain.resize(m_long_side + 1);
    m_chain.push_back(meeting);
    ++m_long_side;
    m_is_open = true;
    return true;
}

/// Where a segment's long side ends.
float CurveOutline::Side::x_at_end(std::size_t i) const
{
    return m_outline.m_curve[i + 1].x + m_sign * normal_at_end(i).x;
}

/// The end of a segment's long side, from the curve.
const CurveOutline::Point& CurveOutline::Side::normal_at_end(std::size_t i) const
{
    const bool is_miter = i < m_outline.m_bends.size() && is_outer(m_outline.m_bends[i]) && m_outline.m_bends[i].join == Join::miter;
    return is_miter ? m_outline.m_bends[i].to_miter : m_outline.m_segments[i].normal;
}

/// Adds the end of the last segment.
void CurveOutline::Side::close(std::size_t i)
{
    if (m_is_open) {
        Piece piece;
        end(piece, i);
        m_chain.insert(m_chain.end(), piece.points, piece.points + piece.count);
        m_is_open = false;
    }
}

/// Adds all of a segment, after all of the one before.
void CurveOutline::Side::add(std::size_t i)
{
    Piece piece;
    begin(piece, i);
    piece.long_side = piece.count - 1;
    end(piece, i);
    if (m_chain.empty() || m_chain.back() == piece.points[0]) {
        append(piece, m_chain.empty() ? 0 : 1);
    } else {
        unite(piece);
    }
}

/// The left end of a segment.
void CurveOutline::Side::begin(Piece& piece, std::size_t i) const
{
    const Point& place = m_outline.m_curve[i];
    const Segment& segment = m_outline.m_segments[i];
    const bool goes_down = segment.dy * static_cast<double>(m_sign) > 0;
    if (i > 0 && is_outer(m_outline.m_bends[i - 1])) {
        const Bend& bend = m_outline.m_bends[i - 1];
        if (bend.join == Join::miter) {
            piece.add(at(place, bend.to_miter));
            return;
        }
        piece.add(at(place, m_outline.m_segments[i - 1].normal));
    } else if (goes_down) {  // the end of the rectangle is seen: all of it, or its half on this side
        piece.add(at(place, i > 0 ? Point{} : -segment.normal));
    }
    piece.add(at(place, segment.normal));
}

/// The right end.
void CurveOutline::Side::end(Piece& piece, std::size_t i) const
{
    const Point& place = m_outline.m_curve[i + 1];
    const Segment& segment = m_outline.m_segments[i];
    const bool goes_up = segment.dy * static_cast<double>(m_sign) < 0;
    const bool is_last = i == m_outline.m_bends.size();
    piece.add(at(place, normal_at_end(i)));
    if (goes_up && (is_last || !is_outer(m_outline.m_bends[i]))) {
        piece.add(at(place, is_last ? -segment.normal : Point{}));
    }
}

void CurveOutline::Side::append(const Piece& piece, std::size_t first)
{
    m_long_side = m_chain.size() + piece.long_side - first;
    m_chain.insert(m_chain.end(), piece.points + first, piece.points + piece.count);
}

/// Adds a piece which may cover what is known of the edge, or be covered.
void CurveOutline::Side::unite(const Piece& piece)
{
    std::size_t clear = m_chain.size();
    while (clear > 0 && m_chain[clear - 1].x > piece.points[0].x) {
        --clear;
    }
    Chain& known = m_outline.m_known;
    known.assign(m_chain.begin() + static_cast<std::ptrdiff_t>(clear > 0 ? clear - 1 : 0), m_chain.end());
    m_chain.resize(clear);
    append_upper_of(known, piece);
    const std::size_t after_end = piece.count - piece.long_side - 2;
    const std::size_t end = m_chain.size() - 1 - after_end;
    m_long_side = m_chain.back() == piece.last() && m_chain[end] == piece.end() ? end - 1 : NONE;
}

/// Goes from point to point of both, beginning where the piece does.
void CurveOutline::Side::append_upper_of(const Chain& known, const Piece& piece)
{
    Walk a(known.data(), known.data() + known.size() - 1);
    Walk b(piece.points, &piece.last());
    float x = piece.points[0].x;
    for (a.go_to(x), b.go_to(x); !(a.is_over() && b.is_over()); a.go_to(x), b.go_to(x)) {
        const float next = std::min(a.next(), b.next());
        const float difference = a.y(x) - b.y(x);
        const float next_difference = a.y(next) - b.y(next);
        append({x, difference < 0 ? a.y(x) : b.y(x)});
        if (a.is_on_edge() && b.is_on_edge() && (difference < 0) != (next_difference < 0)) {
            const float crossing = x + (next - x) * (difference / (difference - next_difference));
            append({crossing, a.y(crossing)});
        }
        append({next, next_difference < 0 ? a.y(next) : b.y(next)});
        x = next;
    }
}

void CurveOutline::Side::append(const Point& point)
{
    if (m_chain.empty() || !(m_chain.back() == point)) {
        m_chain.push_back(point);
    }
}

void CurveOutline::take(const std::deque<double>& history, int capacity, int width, int height, double line_width)
{
    place_points(history, capacity, width, height);
    m_upper.clear();
    m_lower.clear();
    if (m_curve.size() < 2) {
        return;
    }
    measure_segments(line_width / 2);
    measure_bends();
    Side(*this, false).build();
    Side(*this, true).build();
}

/// Of a level stretch, only the ends are taken.
void CurveOutline::place_points(const std::deque<double>& history, int capacity, int width, int height)
{
    const double step = static_cast<double>(width) / (capacity - 1);
    double steps_to_end = static_cast<double>(history.size());
    m_curve.clear();
    for (const double value : history) {
        --steps_to_end;
        const Point point{rounded(width - steps_to_end * step), rounded((1.0 - sane_load(value)) * height)};
        const std::size_t count = m_curve.size();
        if (count >= 1 && m_curve.back() == point) {
            continue;
        }
        if (count >= 2 && m_curve[count - 1].y == point.y && m_curve[count - 2].y == point.y) {
            m_curve.back() = point;
        } else {
            m_curve.push_back(point);
        }
    }
}

void CurveOutline::measure_segments(double half_width)
{
    m_segments.resize(m_curve.size() - 1);
    for (std::size_t i = 0; i < m_segments.size(); ++i) {
        const double dx = static_cast<double>(m_curve[i + 1].x) - static_cast<double>(m_curve[i].x);
        const double dy = static_cast<double>(m_curve[i + 1].y) - static_cast<double>(m_curve[i].y);
        const double length = std::sqrt(dx * dx + dy * dy);
        Segment& segment = m_segments[i];
        segment.dx = dx / length;
        segment.dy = dy / length;
        segment.normal = {static_cast<float>(segment.dy * half_width), static_cast<float>(-segment.dx * half_width)};
    }
}

void CurveOutline::measure_bends()
{
    m_bends.resize(m_segments.size() - 1);
    for (std::size_t i = 0; i < m_bends.size(); ++i) {
        const Segment& a = m_segments[i];
        const Segment& b = m_segments[i + 1];
        const double closeness = 1 + (a.dx * b.dx + a.dy * b.dy);
        const float part = 1.0F / static_cast<float>(closeness);
        Bend& bend = m_bends[i];
        bend.to_miter = {(a.normal.x + b.normal.x) * part, (a.normal.y + b.normal.y) * part};
        bend.turns_down = a.dx * b.dy > a.dy * b.dx;
        bend.join = 2 <= MITER_LIMIT * MITER_LIMIT * closeness ? Join::miter : Join::bevel;
    }
}
