// The cost of the graph views. BM_PlotFrame: one display frame of a graph with 9 channels
// of 1000 Hz over a 10 s window, with a new 1/30 s of samples per frame, drawn through our
// min/max-per-column path and, for comparison, with every sample handed to plain
// QCustomPlot (its own adaptive sampling on). BM_LiveGui: the process's CPU share while
// four kvsim devices stream at 1000 Hz into one inertial view each, in a shown MDI area.
// The plotting library's inline code still uses Qt's foreach, which our targets switch
// off: its header has to come before any Qt header, with the keyword allowed.
#undef QT_NO_FOREACH
#include <qcustomplot.h>

#include "kvsimharness.h"
#include "ndacontrol.h"
#include "timeseriesplot.h"
#include "timeseriesviewers.h"
#include "viewmanager.h"

#include <QApplication>
#include <QEventLoop>
#include <QMdiArea>
#include <QTimer>

#include <benchmark/benchmark.h>

#include <array>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <sys/resource.h>
#include <vector>

namespace {

using namespace std::chrono_literals;

constexpr int Lanes = 3;
constexpr int ChannelsPerLane = 3;
constexpr int Channels = Lanes * ChannelsPerLane;
constexpr int Rate = 1000;      // Hz
constexpr double Window = 10.0; // s
constexpr int Width = 1000;
constexpr int Height = 700;

const QColor Colors[ChannelsPerLane] = {QColor(214, 39, 40), QColor(44, 160, 44),
                                        QColor(31, 119, 180)};
const char* const LaneNames[Lanes] = {"Acceleration", "Rate of turn", "Magnetic field"};
const char* const Units[Lanes] = {"m/s²", "rad/s", "a.u."};
const char* const Axes[ChannelsPerLane] = {"x", "y", "z"};

// Motion-like samples: a few sines per channel at 0.2..8 Hz with sensor noise, so that
// every column has its own extremes.
class MotionSource
{
public:
    MotionSource()
    {
        uint32_t seed = 12345;
        auto uniform = [&seed](double lo, double hi) {
            seed = seed * 1664525u + 1013904223u;
            return lo + (hi - lo) * (seed >> 8) / double(1u << 24);
        };
        for (auto& waves : m_waves)
            for (auto& w : waves)
                w = {uniform(0.3, 3.0), 2 * M_PI * uniform(0.2, 8.0), uniform(0, 2 * M_PI)};
        for (int c = 0; c < Channels; ++c)
            m_offset[size_t(c)] = c % ChannelsPerLane == 2 && c < ChannelsPerLane ? 9.81 : 0;
    }
    double value(int channel, double t)
    {
        double v = m_offset[size_t(channel)];
        for (const auto& w : m_waves[size_t(channel)])
            v += w[0] * std::sin(w[1] * t + w[2]);
        m_noise = m_noise * 1103515245u + 12345u;
        return v + 0.02 * ((m_noise >> 16) / 32768.0 - 1.0);
    }

private:
    std::array<std::array<std::array<double, 3>, 3>, Channels> m_waves{};
    std::array<double, Channels> m_offset{};
    uint32_t m_noise = 1;
};

// How many samples the frame `frame` brings: 1000 Hz / 30 frames/s, 33 or 34.
int samplesOfFrame(int64_t frame)
{
    return int((frame + 1) * Rate / 30 - frame * Rate / 30);
}

void decimatedFrames(benchmark::State& state)
{
    TimeSeriesPlot plot;
    for (int lane = 0; lane < Lanes; ++lane) {
        plot.addLane(QString::fromUtf8(LaneNames[lane]), QString::fromUtf8(Units[lane]));
        for (int c = 0; c < ChannelsPerLane; ++c)
            plot.addChannel(lane, QString::fromUtf8(Axes[c]), Colors[c]);
    }
    plot.setDisplayTime(int(Window * 1000));
    plot.setWaiting(false);
    plot.resize(Width, Height);
    plot.show();
    QCoreApplication::processEvents();

    MotionSource source;
    int64_t n = 0;
    auto add = [&](int count) {
        for (int i = 0; i < count; ++i, ++n) {
            const double t = double(n) / Rate;
            for (int c = 0; c < Channels; ++c)
                plot.append(c, t, source.value(c, t));
        }
    };
    add(int(Window * Rate));
    QCustomPlot* qcp = plot.customPlot();
    for (int i = 0; i < 3; ++i) { // settle the layout and the column width
        add(samplesOfFrame(i));
        plot.prepareFrame();
        qcp->replot(QCustomPlot::rpImmediateRefresh);
    }
    int64_t frame = 3, points = 0;
    for (auto _ : state) {
        add(samplesOfFrame(frame++));
        plot.prepareFrame();
        qcp->replot(QCustomPlot::rpImmediateRefresh);
        for (int c = 0; c < Channels; ++c)
            points += plot.displayedPointCount(c);
    }
    state.counters["points_per_frame"] =
        benchmark::Counter(double(points), benchmark::Counter::kAvgIterations);
    state.counters["plot_width"] = qcp->width();
    state.counters["plot_height"] = qcp->height();
}

// The same graph in plain QCustomPlot: every sample goes to the graphs, which sample
// adaptively themselves; value axes fitted to the data in view, legends with the latest
// values, as ours.
void plainFrames(benchmark::State& state)
{
    // The size of the plot inside our widget (below its tool bar), and its settings.
    QCustomPlot qcp;
    QSize size(Width, Height);
    {
        TimeSeriesPlot probe;
        probe.addLane(QStringLiteral("probe"), QString());
        probe.setWaiting(false);
        probe.resize(Width, Height);
        probe.show();
        QCoreApplication::processEvents();
        size = probe.customPlot()->size();
        qcp.setPlottingHints(probe.customPlot()->plottingHints());
        qcp.setAntialiasedElements(probe.customPlot()->antialiasedElements());
        qcp.setNotAntialiasedElements(probe.customPlot()->notAntialiasedElements());
    }
    qcp.setAutoAddPlottableToLegend(false);
    qcp.plotLayout()->clear();
    qcp.plotLayout()->setRowSpacing(0);
    auto* margins = new QCPMarginGroup(&qcp);
    std::vector<QCPGraph*> graphs;
    std::vector<QCPAxisRect*> rects;
    QFont small = qcp.font();
    small.setPointSizeF(std::max(6.0, small.pointSizeF() - 1));
    for (int lane = 0; lane < Lanes; ++lane) {
        auto* rect = new QCPAxisRect(&qcp);
        qcp.plotLayout()->addElement(lane, 0, rect);
        rect->setMarginGroup(QCP::msLeft | QCP::msRight, margins);
        rect->setAutoMargins(QCP::msLeft | QCP::msRight | QCP::msBottom);
        rect->setMargins(QMargins(0, 4, 0, 0));
        QCPAxis* time = rect->axis(QCPAxis::atBottom);
        QCPAxis* value = rect->axis(QCPAxis::atLeft);
        value->setLabel(QStringLiteral("%1 (%2)").arg(QString::fromUtf8(LaneNames[lane]),
                                                      QString::fromUtf8(Units[lane])));
        for (QCPAxis* a : {time, value}) {
            a->setLabelFont(small);
            a->setTickLabelFont(small);
            a->grid()->setSubGridVisible(false);
        }
        if (lane < Lanes - 1)
            time->setTickLabels(false);
        else
            time->setLabel(QStringLiteral("Sample time (s)"));
        auto* legend = new QCPLegend;
        rect->insetLayout()->addElement(legend, Qt::AlignTop | Qt::AlignRight);
        legend->setLayer(QStringLiteral("legend"));
        legend->setFont(small);
        legend->setBrush(QColor(255, 255, 255, 200));
        legend->setBorderPen(QPen(QColor(180, 180, 180)));
        legend->setRowSpacing(0);
        legend->setMargins(QMargins(4, 2, 4, 2));
        legend->setIconSize(14, 8);
        for (int c = 0; c < ChannelsPerLane; ++c) {
            QCPGraph* g = qcp.addGraph(time, value);
            g->setPen(QPen(Colors[c], 1));
            g->setAntialiased(false);
            g->setAntialiasedFill(false);
            g->setAdaptiveSampling(true);
            g->addToLegend(legend);
            graphs.push_back(g);
        }
        rects.push_back(rect);
    }
    qcp.resize(size);
    qcp.show();
    QCoreApplication::processEvents();

    MotionSource source;
    int64_t n = 0;
    std::vector<QVector<double>> keys(Channels), values(Channels);
    auto add = [&](int count) {
        for (int c = 0; c < Channels; ++c) {
            keys[size_t(c)].clear();
            values[size_t(c)].clear();
        }
        for (int i = 0; i < count; ++i, ++n) {
            const double t = double(n) / Rate;
            for (int c = 0; c < Channels; ++c) {
                keys[size_t(c)].push_back(t);
                values[size_t(c)].push_back(source.value(c, t));
            }
        }
        for (int c = 0; c < Channels; ++c)
            graphs[size_t(c)]->addData(keys[size_t(c)], values[size_t(c)], true);
    };
    auto frame = [&]() {
        const double newest = double(n - 1) / Rate;
        for (int c = 0; c < Channels; ++c) {
            QCPGraph* g = graphs[size_t(c)];
            g->data()->removeBefore(newest - 2 * Window);
            const double latest = (g->data()->constEnd() - 1)->value;
            g->setName(QStringLiteral("%1  %2")
                           .arg(QString::fromUtf8(Axes[c % ChannelsPerLane]))
                           .arg(latest, 0, 'f', 3));
        }
        for (int lane = 0; lane < Lanes; ++lane) {
            QCPRange keysShown(newest - Window, newest);
            rects[size_t(lane)]->axis(QCPAxis::atBottom)->setRange(keysShown);
            bool any = false;
            QCPRange all;
            for (int c = 0; c < ChannelsPerLane; ++c) {
                bool found = false;
                const QCPRange r = graphs[size_t(lane * ChannelsPerLane + c)]->getValueRange(
                    found, QCP::sdBoth, keysShown);
                if (found) {
                    all = any ? QCPRange(std::min(all.lower, r.lower), std::max(all.upper, r.upper))
                              : r;
                    any = true;
                }
            }
            if (any) {
                const double pad = std::max(all.size() * 0.05, 1e-3);
                rects[size_t(lane)]
                    ->axis(QCPAxis::atLeft)
                    ->setRange(all.lower - pad, all.upper + pad);
            }
        }
        qcp.replot(QCustomPlot::rpImmediateRefresh);
    };
    add(int(Window * Rate));
    for (int i = 0; i < 3; ++i) {
        add(samplesOfFrame(i));
        frame();
    }
    int64_t f = 3;
    for (auto _ : state) {
        add(samplesOfFrame(f++));
        frame();
    }
    state.counters["plot_width"] = qcp.width();
    state.counters["plot_height"] = qcp.height();
}

double cpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage); // this process only: kvsim is another one
    auto seconds = [](const timeval& tv) { return double(tv.tv_sec) + tv.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double guiThreadSeconds()
{
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + ts.tv_nsec / 1e9;
}

void liveGui(benchmark::State& state, int devices, int rate)
{
    std::vector<std::string> args{"--quiet"};
    for (int i = 0; i < devices; ++i) {
        args.push_back("--device");
        args.push_back("ahrs:rate=" + std::to_string(rate) + ",index=" + std::to_string(i));
    }
    kvtest::KvsimProcess sim(args);
    if (!sim.started()) {
        state.SkipWithError("kvsim did not start");
        return;
    }
    auto control = std::make_unique<NdaControl>();
    NvControl_setReplyTimeout(control->libraryControl(), 5000);
    std::vector<NvDeviceId> ids;
    for (const auto& port : sim.ports()) {
        if (!control->openPort(port.path, NBR_921600, 0)) {
            state.SkipWithError("a kvsim port did not open");
            return;
        }
        ids.push_back(NvDeviceId::fromString(port.id));
    }

    QMdiArea area;
    area.resize(1600, 1000);
    area.show();
    ViewManager vm(*control, area);
    vm.allowView(InertialView);
    std::vector<TimeSeriesViewer*> viewers;
    uint64_t replots = 0;
    for (const NvDeviceId& id : ids) {
        vm.openView(InertialView, id);
        const ViewManager::ViewerList views = vm.findViews(InertialView, id);
        auto* viewer =
            views.isEmpty() ? nullptr : qobject_cast<TimeSeriesViewer*>(views.front().data());
        if (!viewer) {
            state.SkipWithError("no inertial view");
            return;
        }
        QObject::connect(viewer->plot()->customPlot(), &QCustomPlot::afterReplot, &area,
                         [&replots] { ++replots; });
        viewers.push_back(viewer);
    }
    area.tileSubWindows();
    for (const NvDeviceId& id : ids)
        if (!control->gotoMeasurement(id)) {
            state.SkipWithError("a device did not start measuring");
            return;
        }
    QEventLoop loop;
    QTimer::singleShot(1500ms, &loop, &QEventLoop::quit); // past the start, buffers filling
    loop.exec();

    double cpu = 0, gui = 0, wall = 0;
    uint64_t packets = 0, frames = 0;
    for (auto _ : state) {
        uint64_t p0 = 0;
        for (const TimeSeriesViewer* v : viewers)
            p0 += v->packetsProcessed();
        const uint64_t r0 = replots;
        const double c0 = cpuSeconds(), g0 = guiThreadSeconds();
        const auto t0 = std::chrono::steady_clock::now();
        QTimer::singleShot(5s, Qt::PreciseTimer, &loop, &QEventLoop::quit);
        loop.exec();
        wall += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        cpu += cpuSeconds() - c0;
        gui += guiThreadSeconds() - g0;
        for (const TimeSeriesViewer* v : viewers)
            packets += v->packetsProcessed();
        packets -= p0;
        frames += replots - r0;
    }
    for (const NvDeviceId& id : ids)
        control->gotoConfig(id);
    control->close();

    state.counters["cpu_cores"] = cpu / wall;
    state.counters["gui_thread_cores"] = gui / wall;
    state.counters["packets_per_s"] = double(packets) / wall;
    state.counters["frames_per_s_per_view"] = double(frames) / wall / devices;
}

} // namespace

int main(int argc, char** argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    benchmark::RegisterBenchmark("BM_PlotFrame/decimated", decimatedFrames)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("BM_PlotFrame/plain", plainFrames)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("BM_LiveGui/4x1000Hz",
                                 [](benchmark::State& state) { liveGui(state, 4, 1000); })
        ->Iterations(1)
        ->UseRealTime()
        ->Unit(benchmark::kSecond);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
