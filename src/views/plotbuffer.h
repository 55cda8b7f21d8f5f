#pragma once
// The samples behind a graph and what is drawn of them. A channel keeps its (time, value)
// samples in a ring; the decimator reduces the part on screen to at most two points, the
// lowest and the highest in time order, per pixel column. Columns sit at whole multiples
// of the column width in time, so a column that is complete never changes: each frame
// only the samples that arrived since the last one are scanned, and the cost of a frame
// follows the pixels, not the sample rate.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

struct PlotSample
{
    double t = 0; // s
    double v = 0;
};

// Samples in time order, oldest dropped first. Each sample has a sequence number that
// keeps growing over drops, so a reader can tell what is new since it last looked.
class PlotRing
{
public:
    // At most `maxSamples` are kept (the oldest give way); the store grows up to it.
    explicit PlotRing(size_t maxSamples = size_t(1) << 20);

    // A sample earlier than the newest one is taken as equal to it: times never go back
    // within a ring (the owner clears it when the source's clock does).
    void append(double t, double v);
    // Drops samples older than `t`.
    void trimBefore(double t);
    // Forgets every sample and starts a new epoch.
    void clear();

    bool empty() const { return m_count == 0; }
    size_t size() const { return m_count; }
    size_t maxSamples() const { return m_max; }
    // Sequence numbers: [firstSeq, endSeq) are held.
    uint64_t firstSeq() const { return m_first; }
    uint64_t endSeq() const { return m_first + m_count; }
    // Changes with every clear().
    uint64_t epoch() const { return m_epoch; }
    // `seq` must be held.
    const PlotSample& at(uint64_t seq) const
    {
        return m_data[static_cast<size_t>(m_start + (seq - m_first)) & m_mask];
    }
    const PlotSample& newest() const { return at(endSeq() - 1); }
    const PlotSample& oldest() const { return at(m_first); }
    // The first held sample at or after `t` (endSeq when none).
    uint64_t lowerBound(double t) const;

private:
    void grow();

    std::vector<PlotSample> m_data; // power-of-two size
    size_t m_mask = 0;
    size_t m_max;
    size_t m_start = 0; // slot of the oldest
    size_t m_count = 0;
    uint64_t m_first = 0;
    uint64_t m_epoch = 0;
};

// Min/max per pixel column over a ring, kept up to date frame by frame.
class MinMaxDecimator
{
public:
    // Brings the columns up to date for the window [from, to] at `width` seconds per
    // column and returns the points to draw, in time order: per column the lowest and the
    // highest sample in the order they came (one point for a column of one sample, or one
    // whose extremes are the same sample). The column before `from` is included, so that
    // a line enters from the left edge. Everything is recomputed only when the width
    // changes, the window starts before what is kept, the ring was cleared (or is another
    // one), or samples still to be scanned were dropped from the ring; otherwise only new
    // samples are scanned. The last column is scanned whole, also past `to`.
    const std::vector<PlotSample>& update(const PlotRing& ring, double from, double to,
                                          double width);
    const std::vector<PlotSample>& points() const { return m_points; }
    // The lowest and highest value among the points (false when there are none).
    bool valueRange(double& lo, double& hi) const;

    // Forgets everything; the next update recomputes.
    void reset();
    // How many updates recomputed everything, and how many samples were scanned in all.
    uint64_t fullRecomputes() const { return m_fullRecomputes; }
    uint64_t samplesScanned() const { return m_scanned; }

private:
    struct Column
    {
        PlotSample min, max;
        uint64_t minSeq = 0, maxSeq = 0;
        uint32_t count = 0;
    };

    int64_t columnOf(double t) const;
    void fold(const PlotSample& s, uint64_t seq, int64_t k);
    // Scans the ring from `seq` up to the end of column `lastColumn`.
    void scan(const PlotRing& ring, uint64_t seq, int64_t lastColumn);

    double m_width = 0;
    const PlotRing* m_ring = nullptr;
    uint64_t m_epoch = 0;
    bool m_valid = false;
    int64_t m_firstColumn = 0;    // column of m_columns.front()
    std::deque<Column> m_columns; // contiguous from m_firstColumn
    uint64_t m_nextSeq = 0;       // first sample the columns do not hold
    std::vector<PlotSample> m_points;
    double m_lo = 0, m_hi = 0; // of m_points
    uint64_t m_fullRecomputes = 0;
    uint64_t m_scanned = 0;
};
