// The samples behind a graph: the ring of one channel and the min/max-per-pixel-column
// reduction of what is on screen, checked against the samples it was given.
#include "plotbuffer.h"

#include <QTest>

#include <algorithm>
#include <cmath>
#include <vector>

namespace {

using Points = std::vector<PlotSample>;

bool samePoints(const Points& a, const Points& b)
{
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](auto& x, auto& y) {
               return x.t == y.t && x.v == y.v;
           });
}

// Motion-like data: a few sines and a slow drift, 1 kHz.
double motion(double t)
{
    return 3 * std::sin(2 * M_PI * 0.7 * t) + 0.8 * std::sin(2 * M_PI * 11.3 * t + 0.4) +
           0.05 * std::sin(2 * M_PI * 97 * t) + 0.1 * t;
}

} // namespace

class TestPlotBuffer : public QObject
{
    Q_OBJECT

private slots:
    void ringKeepsOrderTrimsAndDropsTheOldest();
    void columnsKeepMinAndMaxInTimeOrder();
    void spikeInsideAColumnSurvives();
    void incrementalEqualsFullRecomputation();
    void scrollingDropsColumnsAndOtherWindowsRecompute();
    void badWindowsAndValuesDrawNothingWrong();
};

void TestPlotBuffer::ringKeepsOrderTrimsAndDropsTheOldest()
{
    PlotRing ring(4096);
    QVERIFY(ring.empty());
    for (int i = 0; i < 3000; ++i)
        ring.append(i * 0.001, i);
    QCOMPARE(ring.size(), size_t(3000));
    QCOMPARE(ring.firstSeq(), uint64_t(0));
    QCOMPARE(ring.newest().v, 2999.0);
    QCOMPARE(ring.lowerBound(1.0), uint64_t(1000));
    QCOMPARE(ring.lowerBound(-5), uint64_t(0));
    QCOMPARE(ring.lowerBound(99), ring.endSeq());

    // Trimming keeps the sequence numbers of what stays.
    ring.trimBefore(2.0);
    QCOMPARE(ring.size(), size_t(1000));
    QCOMPARE(ring.firstSeq(), uint64_t(2000));
    QCOMPARE(ring.oldest().v, 2000.0);
    QCOMPARE(ring.at(2500).v, 2500.0);

    // At its limit the oldest give way, across the wrap of the store.
    for (int i = 3000; i < 10000; ++i)
        ring.append(i * 0.001, i);
    QCOMPARE(ring.size(), size_t(4096));
    QCOMPARE(ring.endSeq(), uint64_t(10000));
    QCOMPARE(ring.oldest().v, double(10000 - 4096));
    for (uint64_t s = ring.firstSeq() + 1; s < ring.endSeq(); ++s)
        QVERIFY(ring.at(s).t > ring.at(s - 1).t);

    // A time that goes back is held at the newest; clear starts a new epoch.
    ring.append(1.0, -1);
    QCOMPARE(ring.newest().t, 9.999);
    const uint64_t epoch = ring.epoch();
    ring.clear();
    QVERIFY(ring.empty());
    QVERIFY(ring.epoch() != epoch);
    ring.append(0, 1);
    QCOMPARE(ring.size(), size_t(1));
}

void TestPlotBuffer::columnsKeepMinAndMaxInTimeOrder()
{
    PlotRing ring;
    // Column [0, 1): the maximum comes first; [1, 2): the minimum first; [2, 3): one sample;
    // [4, 5): equal values, one point.
    for (auto [t, v] : std::vector<std::pair<double, double>>{{0.1, 5},
                                                              {0.2, -3},
                                                              {0.5, 1},
                                                              {0.9, 2},
                                                              {1.1, 0},
                                                              {1.5, 4},
                                                              {1.7, 1},
                                                              {2.5, 7},
                                                              {4.2, 3},
                                                              {4.4, 3}})
        ring.append(t, v);
    MinMaxDecimator d;
    const Points& p = d.update(ring, 0.0, 4.99, 1.0);
    const Points expected{{0.1, 5}, {0.2, -3}, {1.1, 0}, {1.5, 4}, {2.5, 7}, {4.2, 3}};
    QVERIFY(samePoints(p, expected));
    double lo = 0, hi = 0;
    QVERIFY(d.valueRange(lo, hi));
    QCOMPARE(lo, -3.0);
    QCOMPARE(hi, 7.0);

    // The window ends inside a column: later columns are not drawn yet.
    QCOMPARE(d.update(ring, 0.0, 1.2, 1.0).size(), size_t(4));
}

void TestPlotBuffer::spikeInsideAColumnSurvives()
{
    // 10 s at 1 kHz onto 1000 columns: 10 samples per column, one of them a spike.
    PlotRing ring;
    for (int i = 0; i < 10000; ++i)
        ring.append(i * 0.001, i == 4321 ? 100.0 : motion(i * 0.001));
    MinMaxDecimator d;
    const Points& p = d.update(ring, 0.0, 9.999, 0.01);
    QVERIFY(p.size() <= 2 * 1001);
    QVERIFY(p.size() >= 1900);
    const auto spike = std::find_if(p.begin(), p.end(), [](auto& s) { return s.v == 100.0; });
    QVERIFY(spike != p.end());
    QCOMPARE(spike->t, 4.321);
    QVERIFY(std::is_sorted(p.begin(), p.end(), [](auto& a, auto& b) { return a.t < b.t; }));
    // Every extreme is a sample, and none of the samples is outside the range drawn.
    double lo, hi;
    QVERIFY(d.valueRange(lo, hi));
    for (uint64_t s = ring.firstSeq(); s < ring.endSeq(); ++s)
        QVERIFY(ring.at(s).v >= lo && ring.at(s).v <= hi);
}

void TestPlotBuffer::incrementalEqualsFullRecomputation()
{
    // Frames of 1/30 s at 1 kHz, following the newest sample with a 2 s window on 800 pixels.
    const double window = 2.0, width = window / 800;
    PlotRing ring;
    MinMaxDecimator live;
    int n = 0;
    for (int frame = 0; frame < 200; ++frame) {
        for (const int end = n + 33 + frame % 2; n < end; ++n)
            ring.append(n * 0.001, motion(n * 0.001));
        const double to = ring.newest().t;
        live.update(ring, to - window, to, width);
        if (frame % 37 == 5) {
            MinMaxDecimator fresh;
            QVERIFY(samePoints(live.points(), fresh.update(ring, to - window, to, width)));
        }
    }
    // Once computed in full, then only new samples: every sample scanned at most once.
    QCOMPARE(live.fullRecomputes(), uint64_t(1));
    QVERIFY(live.samplesScanned() <= uint64_t(n));
    const double to = ring.newest().t;
    MinMaxDecimator fresh;
    QVERIFY(samePoints(live.points(), fresh.update(ring, to - window, to, width)));
    QVERIFY(live.points().size() <= 2 * 802);
}

void TestPlotBuffer::scrollingDropsColumnsAndOtherWindowsRecompute()
{
    PlotRing ring;
    for (int i = 0; i < 20000; ++i)
        ring.append(i * 0.001, motion(i * 0.001));
    MinMaxDecimator d;
    d.update(ring, 5.0, 10.0, 0.01);
    QCOMPARE(d.fullRecomputes(), uint64_t(1));
    QVERIFY(d.points().front().t >= 4.98 && d.points().front().t < 5.0);
    QVERIFY(d.points().back().t < 10.01); // the column at the right edge is whole

    // Scrolling forward: columns leave on the left, no recomputation.
    d.update(ring, 8.0, 13.0, 0.01);
    QCOMPARE(d.fullRecomputes(), uint64_t(1));
    QVERIFY(d.points().front().t >= 7.98 && d.points().front().t < 8.0);
    QVERIFY(d.points().back().t < 13.01 && d.points().back().t > 12.98);
    MinMaxDecimator fresh;
    QVERIFY(samePoints(d.points(), fresh.update(ring, 8.0, 13.0, 0.01)));

    // Back in time, or another column width: everything again.
    d.update(ring, 2.0, 7.0, 0.01);
    QCOMPARE(d.fullRecomputes(), uint64_t(2));
    QVERIFY(d.points().front().t < 2.0 && d.points().back().t < 7.01);
    d.update(ring, 2.0, 7.0, 0.02);
    QCOMPARE(d.fullRecomputes(), uint64_t(3));
    QVERIFY(d.points().size() <= 2 * 252);

    // A cleared ring starts over.
    ring.clear();
    QVERIFY(d.update(ring, 2.0, 7.0, 0.02).empty());
    QCOMPARE(d.fullRecomputes(), uint64_t(4));
}

void TestPlotBuffer::badWindowsAndValuesDrawNothingWrong()
{
    PlotRing ring;
    ring.append(0.0, 1);
    ring.append(0.5, std::nan(""));
    ring.append(1.0, 2);
    MinMaxDecimator d;
    QVERIFY(d.update(ring, 1.0, 0.0, 0.01).empty());
    QVERIFY(d.update(ring, 0.0, 1.0, 0.0).empty());
    QVERIFY(d.update(ring, 0.0, std::nan(""), 0.01).empty());
    QVERIFY(d.update(ring, 0.0, 1e300, 1e-300).empty());
    const Points& p = d.update(ring, 0.0, 1.0, 0.1);
    QVERIFY(samePoints(p, Points{{0.0, 1}, {1.0, 2}})); // the NaN is a gap
    PlotRing empty;
    QVERIFY(d.update(empty, 0.0, 1.0, 0.1).empty());
}

QTEST_APPLESS_MAIN(TestPlotBuffer)
#include "tst_plotbuffer.moc"
