#include "plotbuffer.h"

#include <algorithm>
#include <cmath>

namespace {
constexpr size_t InitialCapacity = 1024;
}

PlotRing::PlotRing(size_t maxSamples) : m_max(std::max<size_t>(maxSamples, 2)) {}

void PlotRing::grow()
{
    const size_t capacity = m_data.empty() ? InitialCapacity : m_data.size() * 2;
    std::vector<PlotSample> data(capacity);
    for (size_t i = 0; i < m_count; ++i)
        data[i] = m_data[(m_start + i) & m_mask];
    m_data.swap(data);
    m_mask = capacity - 1;
    m_start = 0;
}

void PlotRing::append(double t, double v)
{
    if (m_count > 0 && !(t >= newest().t))
        t = newest().t; // also catches NaN
    if (m_count == m_data.size()) {
        if (m_data.size() < m_max) {
            grow();
        } else {
            // Full at the limit: the oldest gives way.
            m_start = (m_start + 1) & m_mask;
            --m_count;
            ++m_first;
        }
    }
    m_data[(m_start + m_count) & m_mask] = PlotSample{t, v};
    ++m_count;
}

void PlotRing::trimBefore(double t)
{
    const uint64_t keep = lowerBound(t);
    const size_t drop = static_cast<size_t>(keep - m_first);
    m_start = m_data.empty() ? 0 : (m_start + drop) & m_mask;
    m_count -= drop;
    m_first = keep;
}

void PlotRing::clear()
{
    m_first += m_count;
    m_count = 0;
    m_start = 0;
    ++m_epoch;
}

uint64_t PlotRing::lowerBound(double t) const
{
    uint64_t lo = m_first, hi = endSeq();
    while (lo < hi) {
        const uint64_t mid = lo + (hi - lo) / 2;
        if (at(mid).t < t)
            lo = mid + 1;
        else
            hi = mid;
    }
    return lo;
}

// ---- MinMaxDecimator

void MinMaxDecimator::reset()
{
    m_valid = false;
    m_columns.clear();
    m_points.clear();
}

int64_t MinMaxDecimator::columnOf(double t) const
{
    return static_cast<int64_t>(std::floor(t / m_width));
}

void MinMaxDecimator::fold(const PlotSample& s, uint64_t seq, int64_t k)
{
    if (!std::isfinite(s.v))
        return; // a gap, not a point
    const size_t index = static_cast<size_t>(k - m_firstColumn);
    if (index >= m_columns.size())
        m_columns.resize(index + 1);
    Column& c = m_columns[index];
    if (c.count++ == 0) {
        c.min = c.max = s;
        c.minSeq = c.maxSeq = seq;
        return;
    }
    if (s.v < c.min.v) {
        c.min = s;
        c.minSeq = seq;
    } else if (s.v > c.max.v) {
        c.max = s;
        c.maxSeq = seq;
    }
}

void MinMaxDecimator::scan(const PlotRing& ring, uint64_t seq, int64_t lastColumn)
{
    const uint64_t end = ring.endSeq();
    for (; seq < end; ++seq) {
        const PlotSample& s = ring.at(seq);
        const int64_t k = columnOf(s.t);
        if (k > lastColumn)
            break; // the rest lies beyond the window: it waits for the window to get there
        if (k >= m_firstColumn)
            fold(s, seq, k);
        ++m_scanned;
    }
    m_nextSeq = seq;
}

const std::vector<PlotSample>& MinMaxDecimator::update(const PlotRing& ring, double from, double to,
                                                       double width)
{
    m_points.clear();
    if (!(width > 0) || !(to >= from) || !std::isfinite(from) || !std::isfinite(to)) {
        m_valid = false;
        return m_points;
    }
    // Windows too far from zero for whole column numbers are not drawn.
    if (std::fabs(from / width) > 1e15 || std::fabs(to / width) > 1e15) {
        m_valid = false;
        return m_points;
    }

    const bool sameWidth = m_valid && width == m_width;
    m_width = width;
    const int64_t first = columnOf(from) - 1;
    const int64_t last = columnOf(to);

    const bool full = !sameWidth || &ring != m_ring || ring.epoch() != m_epoch ||
                      first < m_firstColumn || m_nextSeq < ring.firstSeq();
    if (full) {
        ++m_fullRecomputes;
        m_valid = true;
        m_ring = &ring;
        m_epoch = ring.epoch();
        m_columns.clear();
        m_firstColumn = first;
        // lowerBound finds the column's start; rounding may put a sample just before it
        // into the column, which scan() sorts out by column number.
        uint64_t seq = ring.lowerBound(static_cast<double>(first) * width);
        while (seq > ring.firstSeq() && columnOf(ring.at(seq - 1).t) >= first)
            --seq;
        scan(ring, seq, last);
    } else {
        // Columns that scrolled out to the left go; the rest are complete or growing.
        const int64_t drop =
            std::min<int64_t>(first - m_firstColumn, static_cast<int64_t>(m_columns.size()));
        m_columns.erase(m_columns.begin(), m_columns.begin() + drop);
        m_firstColumn = first;
        scan(ring, m_nextSeq, last);
    }

    const size_t shown =
        std::min(m_columns.size(), static_cast<size_t>(std::max<int64_t>(0, last - first + 1)));
    m_points.reserve(shown * 2);
    bool any = false;
    for (size_t i = 0; i < shown; ++i) {
        const Column& c = m_columns[i];
        if (c.count == 0)
            continue;
        m_lo = any ? std::min(m_lo, c.min.v) : c.min.v;
        m_hi = any ? std::max(m_hi, c.max.v) : c.max.v;
        any = true;
        if (c.minSeq == c.maxSeq) {
            m_points.push_back(c.min);
        } else if (c.minSeq < c.maxSeq) {
            m_points.push_back(c.min);
            m_points.push_back(c.max);
        } else {
            m_points.push_back(c.max);
            m_points.push_back(c.min);
        }
    }
    return m_points;
}

bool MinMaxDecimator::valueRange(double& lo, double& hi) const
{
    if (m_points.empty())
        return false;
    lo = m_lo;
    hi = m_hi;
    return true;
}
