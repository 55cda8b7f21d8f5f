// The plotting library's inline code still uses Qt's foreach, which our targets switch
// off: its header has to come before any Qt header, with the keyword allowed.
#undef QT_NO_FOREACH
#include <qcustomplot.h>

#include "timeseriesplot.h"

#include <QComboBox>
#include <QDoubleSpinBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QSignalBlocker>
#include <QStackedLayout>
#include <QToolBar>
#include <QToolButton>
#include <QVBoxLayout>

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

constexpr double NoValue = std::numeric_limits<double>::quiet_NaN();
// Before the first layout (a widget never shown) the graphs are decimated for this width.
constexpr double FallbackPixels = 1000;

// A graph of data that is already at most two points per pixel column. QCPGraph would map
// each point through the axes, copy it twice and stroke a polyline down and up every
// column; here each pixel column is one filled 1-pixel-wide span from its lowest to its
// highest point, reaching to the last point of the column before so that the curve stays
// connected, all spans in one drawRects call (filling spans costs less than stroking
// vertical lines pixel by pixel). Points more than a pixel apart (few samples, zoomed in)
// are joined by lines. Anything else (strobes, steps, fills, wide pens) QCPGraph draws.
class ColumnGraph : public QCPGraph
{
public:
    using QCPGraph::QCPGraph;

protected:
    void draw(QCPPainter* painter) override
    {
        QCPAxis* key = mKeyAxis.data();
        QCPAxis* value = mValueAxis.data();
        if (!key || !value || mLineStyle != lsLine || !mScatterStyle.isNone() ||
            mBrush.style() != Qt::NoBrush || mPen.style() != Qt::SolidLine || mPen.widthF() > 1 ||
            key->scaleType() != QCPAxis::stLinear || value->scaleType() != QCPAxis::stLinear ||
            key->orientation() != Qt::Horizontal) {
            QCPGraph::draw(painter);
            return;
        }
        if (mDataContainer->isEmpty())
            return;
        const QCPRange keys = key->range();
        // The axes' own mapping, as two linear functions.
        const double x0 = key->coordToPixel(keys.lower);
        const double kx = (key->coordToPixel(keys.upper) - x0) / keys.size();
        const double y0 = value->coordToPixel(0);
        const double vy = value->coordToPixel(1) - y0;
        if (!std::isfinite(kx) || !std::isfinite(vy) || !std::isfinite(y0))
            return;
        auto pixel = [](double p) {
            // Rounded; std::lround is a library call per point.
            p = std::clamp(p, -1e6, 1e6) + 0.5;
            const int i = static_cast<int>(p);
            return p < i ? i - 1 : i;
        };

        m_lines.clear();
        m_spans.clear();
        bool open = false;
        int column = 0, lo = 0, hi = 0, lastX = 0, lastY = 0;
        auto flush = [&] { m_spans.push_back(QRect(column, lo, 1, hi - lo + 1)); };
        const auto end = mDataContainer->findEnd(keys.upper);
        for (auto it = mDataContainer->findBegin(keys.lower); it != end; ++it) {
            if (!std::isfinite(it->value)) {
                if (open)
                    flush();
                open = false;
                continue;
            }
            const int x = pixel(x0 + (it->key - keys.lower) * kx);
            const int y = pixel(y0 + it->value * vy);
            if (!open) {
                open = true;
                column = x;
                lo = hi = y;
            } else if (x == column) {
                lo = std::min(lo, y);
                hi = std::max(hi, y);
            } else if (x == column + 1) {
                flush();
                column = x;
                lo = std::min(y, lastY);
                hi = std::max(y, lastY);
            } else {
                flush();
                m_lines.push_back(QLine(lastX, lastY, x, y));
                column = x;
                lo = hi = y;
            }
            lastX = x;
            lastY = y;
        }
        if (open)
            flush();
        applyDefaultAntialiasingHint(painter);
        if (!m_spans.isEmpty()) {
            painter->setPen(Qt::NoPen);
            painter->setBrush(mPen.color());
            painter->drawRects(m_spans.constData(), static_cast<int>(m_spans.size()));
        }
        if (!m_lines.isEmpty()) {
            painter->setPen(mPen);
            painter->setBrush(Qt::NoBrush);
            painter->drawLines(m_lines.constData(), static_cast<int>(m_lines.size()));
        }
    }

private:
    QVector<QRect> m_spans;
    QVector<QLine> m_lines;
};

} // namespace

struct TimeSeriesPlot::Scratch
{
    QVector<QCPGraphData> points;
};

TimeSeriesPlot::TimeSeriesPlot(QWidget* parent)
    : QWidget(parent), m_scratch(std::make_unique<Scratch>())
{
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(2, 2, 2, 2);
    layout->setSpacing(2);

    // A tool bar rather than a row of widgets: in a narrow window what does not fit moves
    // behind its extension button instead of holding the window wide.
    m_bar = new QToolBar;
    m_bar->setIconSize(QSize(16, 16));
    m_bar->setStyleSheet(QStringLiteral("QToolBar { border: none; spacing: 4px; }"));
    m_pauseButton = new QToolButton;
    m_pauseButton->setText(tr("Pause"));
    m_pauseButton->setCheckable(true);
    m_pauseButton->setToolTip(tr("Freeze the graph; data keeps being recorded"));
    connect(m_pauseButton, &QToolButton::toggled, this, &TimeSeriesPlot::setPaused);
    m_followButton = new QToolButton;
    m_followButton->setText(tr("Follow"));
    m_followButton->setToolTip(tr("Back to the newest data (or double-click the graph)"));
    m_followButton->setEnabled(false);
    connect(m_followButton, &QToolButton::clicked, this, &TimeSeriesPlot::follow);
    m_autoScaleButton = new QToolButton;
    m_autoScaleButton->setText(tr("Auto-scale"));
    m_autoScaleButton->setCheckable(true);
    m_autoScaleButton->setChecked(true);
    m_autoScaleButton->setToolTip(
        tr("Fit the value axes to the data shown; off: zoom and drag them with the mouse"));
    connect(m_autoScaleButton, &QToolButton::toggled, this, &TimeSeriesPlot::setAutoScale);
    m_windowBox = new QDoubleSpinBox;
    m_windowBox->setDecimals(1);
    m_windowBox->setSingleStep(0.5);
    m_windowBox->setSuffix(tr(" s"));
    m_windowBox->setToolTip(tr("Time shown while following the newest data"));
    m_windowBox->setKeyboardTracking(false);
    connect(m_windowBox, qOverload<double>(&QDoubleSpinBox::valueChanged), this,
            [this](double s) { setDisplayTime(static_cast<int>(std::lround(s * 1000))); });
    m_axisBox = new QComboBox;
    m_axisBox->addItem(tr("Sample time"));
    m_axisBox->addItem(tr("Host time"));
    m_axisBox->setToolTip(tr("Time axis: the device's sample time or when data arrived here"));
    connect(m_axisBox, qOverload<int>(&QComboBox::activated), this, [this](int index) {
        emit timeAxisChosen(index == 1 ? TimeAxis::HostTime : TimeAxis::SampleTime);
    });
    m_bar->addWidget(m_pauseButton);
    m_bar->addWidget(m_followButton);
    m_bar->addWidget(m_autoScaleButton);
    m_bar->addWidget(new QLabel(tr("Window")));
    m_bar->addWidget(m_windowBox);
    m_bar->addWidget(m_axisBox);
    auto* spacer = new QWidget;
    spacer->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
    m_bar->addWidget(spacer);
    layout->addWidget(m_bar);

    m_plot = new QCustomPlot;
    // No phFastPolylines: for one-pixel pens it is slower than a plain polyline.
    m_plot->setPlottingHints(QCP::phCacheLabels);
    m_plot->setNotAntialiasedElements(QCP::aePlottables | QCP::aeFills | QCP::aeGrid |
                                      QCP::aeSubGrid | QCP::aeZeroLine | QCP::aeAxes);
    m_plot->setAutoAddPlottableToLegend(false);
    m_plot->setInteractions(QCP::iRangeDrag | QCP::iRangeZoom);
    m_plot->plotLayout()->clear(); // lanes come with addLane
    m_plot->plotLayout()->setRowSpacing(0);
    m_margins = new QCPMarginGroup(m_plot);
    connect(m_plot, &QCustomPlot::mouseDoubleClick, this, [this](QMouseEvent*) { follow(); });

    m_waitingLabel = new QLabel(tr("Waiting for data…"));
    m_waitingLabel->setAlignment(Qt::AlignCenter);
    auto* stackHost = new QWidget;
    m_stack = new QStackedLayout(stackHost);
    m_stack->addWidget(m_waitingLabel);
    m_stack->addWidget(m_plot);
    layout->addWidget(stackHost, 1);

    setDisplayTimeBounds(m_minimumMs, m_maximumMs);
    setDisplayTime(m_maximumMs);
    updateTimeAxisLabel();
}

TimeSeriesPlot::~TimeSeriesPlot() = default;

// ---- Lanes and channels

int TimeSeriesPlot::addLane(const QString& title, const QString& unit, double stretch)
{
    const int row = static_cast<int>(m_lanes.size());
    auto* rect = new QCPAxisRect(m_plot);
    m_plot->plotLayout()->addElement(row, 0, rect);
    m_plot->plotLayout()->setRowStretchFactor(row, stretch > 0 ? stretch : 1.0);
    rect->setMarginGroup(QCP::msLeft | QCP::msRight, m_margins);
    rect->setAutoMargins(QCP::msLeft | QCP::msRight | QCP::msBottom);
    rect->setMargins(QMargins(0, 4, 0, 0));
    QCPAxis* time = rect->axis(QCPAxis::atBottom);
    QCPAxis* value = rect->axis(QCPAxis::atLeft);
    value->setLabel(unit.isEmpty() ? title : QStringLiteral("%1 (%2)").arg(title, unit));
    QFont small = font();
    small.setPointSizeF(std::max(6.0, small.pointSizeF() - 1));
    value->setLabelFont(small);
    value->setTickLabelFont(small);
    time->setTickLabelFont(small);
    time->setLabelFont(small);
    value->grid()->setSubGridVisible(false);
    time->grid()->setSubGridVisible(false);
    time->setRange(m_from, m_to);
    // Only the lowest lane labels the shared time axis.
    if (!m_lanes.empty()) {
        QCPAxis* above = m_lanes.back().rect->axis(QCPAxis::atBottom);
        above->setTickLabels(false);
        above->setLabel(QString());
    }
    connect(time, qOverload<const QCPRange&>(&QCPAxis::rangeChanged), this,
            [this](const QCPRange& r) { onTimeRangeChanged(r.lower, r.upper); });

    auto* legend = new QCPLegend;
    rect->insetLayout()->addElement(legend, Qt::AlignTop | Qt::AlignRight);
    legend->setLayer(QStringLiteral("legend"));
    legend->setFont(small);
    legend->setBrush(QColor(255, 255, 255, 200));
    legend->setBorderPen(QPen(QColor(180, 180, 180)));
    legend->setRowSpacing(0);
    legend->setMargins(QMargins(4, 2, 4, 2));
    legend->setIconSize(14, 8);

    Lane lane;
    lane.rect = rect;
    lane.legend = legend;
    m_lanes.push_back(lane);
    updateTimeAxisLabel();
    updateInteractions();
    m_viewChanged = true;
    return row;
}

int TimeSeriesPlot::addChannel(int lane, const QString& name, const QColor& color, int decimals)
{
    if (lane < 0 || lane >= laneCount())
        return -1;
    const Lane& l = m_lanes[static_cast<size_t>(lane)];
    auto channel = std::make_unique<Channel>();
    channel->lane = lane;
    channel->name = name;
    channel->decimals = decimals;
    channel->graph =
        new ColumnGraph(l.rect->axis(QCPAxis::atBottom), l.rect->axis(QCPAxis::atLeft));
    channel->graph->setPen(QPen(color, 1));
    channel->graph->setAntialiased(false);
    channel->graph->setAntialiasedFill(false);
    // Our data is already at most two points per pixel column.
    channel->graph->setAdaptiveSampling(false);
    channel->graph->setName(name);
    channel->graph->addToLegend(l.legend);
    channel->legend = name;
    applyGraphStyle(*channel);
    m_channels.push_back(std::move(channel));
    m_latest.push_back(NoValue);
    m_viewChanged = true;
    return channelCount() - 1;
}

void TimeSeriesPlot::setLaneFixedRange(int lane, double lo, double hi)
{
    if (lane < 0 || lane >= laneCount())
        return;
    Lane& l = m_lanes[static_cast<size_t>(lane)];
    l.fixed = true;
    l.lo = lo;
    l.hi = hi;
    l.rect->axis(QCPAxis::atLeft)->setRange(lo, hi);
    m_viewChanged = true;
}

void TimeSeriesPlot::setChannelStep(int channel, bool step)
{
    if (channel < 0 || channel >= channelCount())
        return;
    m_channels[static_cast<size_t>(channel)]->step = step;
    applyGraphStyle(*m_channels[static_cast<size_t>(channel)]);
}

void TimeSeriesPlot::setChannelFormatter(int channel, Formatter formatter)
{
    if (channel >= 0 && channel < channelCount())
        m_channels[static_cast<size_t>(channel)]->formatter = std::move(formatter);
}

void TimeSeriesPlot::setChannelFill(int channel, int other, const QColor& color)
{
    if (channel < 0 || channel >= channelCount() || other < 0 || other >= channelCount())
        return;
    QCPGraph* graph = m_channels[static_cast<size_t>(channel)]->graph;
    graph->setBrush(color);
    graph->setChannelFillGraph(m_channels[static_cast<size_t>(other)]->graph);
}

void TimeSeriesPlot::setChannelName(int channel, const QString& name)
{
    if (channel < 0 || channel >= channelCount())
        return;
    m_channels[static_cast<size_t>(channel)]->name = name;
    m_viewChanged = true;
}

void TimeSeriesPlot::removeAll()
{
    m_plot->clearGraphs();
    m_plot->plotLayout()->clear();
    m_lanes.clear();
    m_channels.clear();
    m_latest.clear();
    m_haveData = false;
    m_newData = false;
    m_viewChanged = true;
}

QCPAxis* TimeSeriesPlot::valueAxis(int lane) const
{
    if (lane < 0 || lane >= laneCount())
        return nullptr;
    return m_lanes[static_cast<size_t>(lane)].rect->axis(QCPAxis::atLeft);
}

QStringList TimeSeriesPlot::channelNames() const
{
    QStringList names;
    for (const auto& c : m_channels)
        names << c->name;
    return names;
}

void TimeSeriesPlot::applyGraphStyle(Channel& channel)
{
    if (m_strobes) {
        channel.graph->setLineStyle(QCPGraph::lsNone);
        channel.graph->setScatterStyle(QCPScatterStyle(QCPScatterStyle::ssDisc, 3));
    } else {
        channel.graph->setLineStyle(channel.step ? QCPGraph::lsStepLeft : QCPGraph::lsLine);
        channel.graph->setScatterStyle(QCPScatterStyle(QCPScatterStyle::ssNone));
    }
}

// ---- Data

void TimeSeriesPlot::append(int channel, double t, double value)
{
    if (channel < 0 || channel >= channelCount() || !std::isfinite(t))
        return;
    Channel& c = *m_channels[static_cast<size_t>(channel)];
    c.ring.append(t, value);
    m_latest[channel] = value;
    if (!m_haveData || t > m_newest)
        m_newest = t;
    m_haveData = true;
    m_newData = true;
    // Frames trim the buffers, but a hidden view gets none.
    if ((c.ring.endSeq() & 4095) == 0)
        c.ring.trimBefore(m_newest - keptSeconds());
}

double TimeSeriesPlot::keptSeconds() const
{
    // Twice the longest window, so that a pause or a pan has something to show.
    return 2 * std::max({m_maximumMs / 1000.0, m_displayTimeMs / 1000.0, m_to - m_from});
}

void TimeSeriesPlot::clear()
{
    for (auto& c : m_channels) {
        c->ring.clear();
        c->decimator.reset();
        c->graph->data()->clear();
    }
    std::fill(m_latest.begin(), m_latest.end(), NoValue);
    m_haveData = false;
    m_newest = 0;
    m_newData = false;
    m_viewChanged = true;
}

QVector<double> TimeSeriesPlot::latestValues() const
{
    return m_latest;
}

size_t TimeSeriesPlot::bufferedCount(int channel) const
{
    if (channel < 0 || channel >= channelCount())
        return 0;
    return m_channels[static_cast<size_t>(channel)]->ring.size();
}

int TimeSeriesPlot::displayedPointCount(int channel) const
{
    if (channel < 0 || channel >= channelCount())
        return 0;
    return m_channels[static_cast<size_t>(channel)]->graph->data()->size();
}

QStringList TimeSeriesPlot::legendTexts() const
{
    QStringList texts;
    for (const auto& c : m_channels)
        texts << c->legend;
    return texts;
}

QString TimeSeriesPlot::valueText(const Channel& channel, double v) const
{
    if (!std::isfinite(v))
        return QStringLiteral("–");
    if (channel.formatter)
        return channel.formatter(v);
    return QString::number(v, 'f', channel.decimals);
}

// ---- Frames

double TimeSeriesPlot::pixelWidth() const
{
    if (!m_lanes.empty()) {
        const int w = m_lanes.front().rect->width();
        if (w >= 10)
            return w;
    }
    return FallbackPixels;
}

bool TimeSeriesPlot::prepareFrame()
{
    if (m_channels.empty())
        return false;
    const double window = m_displayTimeMs / 1000.0;
    if (m_haveData) {
        // Also while paused, so that a long pause does not pile up samples.
        const double keep = keptSeconds();
        for (auto& c : m_channels)
            c->ring.trimBefore(m_newest - keep);
    }
    const bool follows = m_following && !m_paused;
    if (!m_viewChanged && !(m_newData && follows))
        return false;

    double width;
    if (follows) {
        if (m_haveData)
            applyTimeRange(m_newest - window, m_newest);
        // From the window, not from the range: the columns must not move with rounding.
        width = window / pixelWidth();
    } else {
        width = (m_to - m_from) / pixelWidth();
    }
    if (!m_paused)
        m_newData = false;
    m_viewChanged = false;

    const double edge = std::nextafter(m_to, std::numeric_limits<double>::infinity());

    std::vector<double> lo(m_lanes.size()), hi(m_lanes.size());
    std::vector<bool> any(m_lanes.size(), false);
    for (auto& cp : m_channels) {
        Channel& c = *cp;
        const std::vector<PlotSample>& points = c.decimator.update(c.ring, m_from, m_to, width);
        QVector<QCPGraphData>& scratch = m_scratch->points;
        scratch.resize(static_cast<qsizetype>(points.size()));
        QCPGraphData* out = scratch.data();
        for (const PlotSample& p : points)
            *out++ = QCPGraphData(p.t, p.v);
        c.graph->data()->set(scratch, true);

        // The legend shows the value at the right edge: the newest while following.
        const uint64_t seq = c.ring.lowerBound(edge);
        const double v = seq > c.ring.firstSeq() ? c.ring.at(seq - 1).v : NoValue;
        c.legend = QStringLiteral("%1  %2").arg(c.name, valueText(c, v));
        c.graph->setName(c.legend);

        double a, b;
        const size_t lane = static_cast<size_t>(c.lane);
        if (c.decimator.valueRange(a, b)) {
            lo[lane] = any[lane] ? std::min(lo[lane], a) : a;
            hi[lane] = any[lane] ? std::max(hi[lane], b) : b;
            any[lane] = true;
        }
    }
    for (size_t i = 0; i < m_lanes.size(); ++i) {
        const Lane& l = m_lanes[i];
        QCPAxis* axis = l.rect->axis(QCPAxis::atLeft);
        if (l.fixed) {
            axis->setRange(l.lo, l.hi);
        } else if (m_autoScale && any[i]) {
            const double span = hi[i] - lo[i];
            const double pad = span > 0 ? span * 0.05 : std::max(std::fabs(hi[i]) * 0.05, 1e-3);
            axis->setRange(lo[i] - pad, hi[i] + pad);
        }
    }
    return true;
}

void TimeSeriesPlot::refresh()
{
    if (prepareFrame() && m_plot->isVisible())
        m_plot->replot(QCustomPlot::rpQueuedReplot);
}

void TimeSeriesPlot::applyTimeRange(double from, double to)
{
    m_from = from;
    m_to = to;
    m_settingRange = true;
    for (const Lane& l : m_lanes)
        l.rect->axis(QCPAxis::atBottom)->setRange(from, to);
    m_settingRange = false;
}

void TimeSeriesPlot::onTimeRangeChanged(double from, double to)
{
    if (m_settingRange)
        return;
    // A zoom or drag with the mouse on one lane: all lanes follow it, the data does not.
    applyTimeRange(from, to);
    if (m_following) {
        m_following = false;
        m_followButton->setEnabled(true);
    }
    m_viewChanged = true;
}

void TimeSeriesPlot::showRange(double from, double to)
{
    if (!(to > from))
        return;
    m_following = false;
    m_followButton->setEnabled(true);
    applyTimeRange(from, to);
    m_viewChanged = true;
}

// ---- What the user controls

void TimeSeriesPlot::setPaused(bool paused)
{
    if (paused == m_paused)
        return;
    m_paused = paused;
    {
        const QSignalBlocker block(m_pauseButton);
        m_pauseButton->setChecked(paused);
    }
    m_pauseButton->setText(paused ? tr("Resume") : tr("Pause"));
    if (!paused)
        follow(); // resuming jumps to now
}

void TimeSeriesPlot::follow()
{
    m_following = true;
    m_followButton->setEnabled(false);
    if (m_paused) {
        m_paused = false;
        const QSignalBlocker block(m_pauseButton);
        m_pauseButton->setChecked(false);
        m_pauseButton->setText(tr("Pause"));
    }
    m_viewChanged = true;
}

void TimeSeriesPlot::setAutoScale(bool on)
{
    m_autoScale = on;
    {
        const QSignalBlocker block(m_autoScaleButton);
        m_autoScaleButton->setChecked(on);
    }
    updateInteractions();
    m_viewChanged = true;
}

void TimeSeriesPlot::updateInteractions()
{
    // With auto-scale the value axes are ours; otherwise the mouse moves them too.
    const Qt::Orientations o = m_autoScale ? Qt::Horizontal : (Qt::Horizontal | Qt::Vertical);
    for (const Lane& l : m_lanes) {
        l.rect->setRangeDrag(o);
        l.rect->setRangeZoom(o);
        l.rect->setRangeDragAxes(l.rect->axis(QCPAxis::atBottom), l.rect->axis(QCPAxis::atLeft));
        l.rect->setRangeZoomAxes(l.rect->axis(QCPAxis::atBottom), l.rect->axis(QCPAxis::atLeft));
    }
}

void TimeSeriesPlot::setDisplayTime(int ms)
{
    ms = std::clamp(ms, m_minimumMs, m_maximumMs);
    {
        const QSignalBlocker block(m_windowBox);
        m_windowBox->setValue(ms / 1000.0);
    }
    if (ms == m_displayTimeMs)
        return;
    m_displayTimeMs = ms;
    m_viewChanged = true;
}

void TimeSeriesPlot::setDisplayTimeBounds(int minimumMs, int maximumMs)
{
    m_minimumMs = std::max(1, minimumMs);
    m_maximumMs = std::max(m_minimumMs, maximumMs);
    {
        const QSignalBlocker block(m_windowBox);
        m_windowBox->setRange(m_minimumMs / 1000.0, m_maximumMs / 1000.0);
    }
    setDisplayTime(m_displayTimeMs);
}

void TimeSeriesPlot::setStrobes(bool strobes)
{
    if (strobes == m_strobes)
        return;
    m_strobes = strobes;
    for (auto& c : m_channels)
        applyGraphStyle(*c);
    m_viewChanged = true;
}

void TimeSeriesPlot::setTimeAxis(TimeAxis axis)
{
    m_timeAxis = axis;
    {
        const QSignalBlocker block(m_axisBox);
        m_axisBox->setCurrentIndex(axis == TimeAxis::HostTime ? 1 : 0);
    }
    updateTimeAxisLabel();
    m_viewChanged = true;
}

void TimeSeriesPlot::updateTimeAxisLabel()
{
    if (m_lanes.empty())
        return;
    m_lanes.back()
        .rect->axis(QCPAxis::atBottom)
        ->setLabel(m_timeAxis == TimeAxis::HostTime ? tr("Host time (s)") : tr("Sample time (s)"));
}

void TimeSeriesPlot::setWaiting(bool waiting)
{
    m_waiting = waiting;
    m_stack->setCurrentIndex(waiting ? 0 : 1);
    m_viewChanged = true;
}
