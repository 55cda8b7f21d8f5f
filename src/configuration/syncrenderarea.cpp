#include "syncrenderarea.h"

#include "nvenums.h"

#include <QPainter>
#include <QPainterPath>
#include <QPolygonF>

#include <algorithm>
#include <cmath>

namespace {

constexpr int TitleY = 20;
constexpr int OffsetArrowY = 150;
constexpr int SampleTop = 162;
constexpr int SampleBottom = 182;
constexpr int InfoBaseline = 208;
constexpr int LabelColumn = 78;
constexpr int RightMargin = 14;
// Enough pulses to show the skip pattern twice, few enough to stay readable.
constexpr int MinEvents = 5;
constexpr int MaxEvents = 10;
// Below this many pixels per sample the sample clock is drawn as a band.
constexpr double MinTickSpacing = 3.0;

const QColor SignalColor(20, 20, 20);
const QColor ActionColor(30, 100, 200);
const QColor SkippedColor(150, 150, 150);
const QColor GuideColor(190, 190, 190);

} // namespace

SyncRenderArea::SyncRenderArea(QWidget* parent) : QWidget(parent)
{
    setBackgroundRole(QPalette::Base);
    setAutoFillBackground(true);
    updateAdjustedPulseWidth();
}

QSize SyncRenderArea::minimumSizeHint() const
{
    return QSize(420, 216);
}

QSize SyncRenderArea::sizeHint() const
{
    return QSize(620, 216);
}

void SyncRenderArea::setFunction(int function)
{
    m_function = function;
    updateAdjustedPulseWidth(); // a time pulse has its own period
    update();
}

void SyncRenderArea::setFunctionText(const QString& text)
{
    m_functionText = text;
    update();
}

void SyncRenderArea::setUpdateRate(int rate)
{
    m_updateRate = rate;
    updateAdjustedPulseWidth();
    update();
}

void SyncRenderArea::setPolarity(int polarity)
{
    m_polarity = polarity;
    update();
}

void SyncRenderArea::setTriggerOnce(bool once)
{
    m_triggerOnce = once;
    updateAdjustedPulseWidth();
    update();
}

void SyncRenderArea::setSkipFirst(unsigned short count)
{
    m_skipFirst = count;
    update();
}

void SyncRenderArea::setSkipFactor(unsigned short factor)
{
    m_skipFactor = factor;
    update();
}

void SyncRenderArea::setPulseWidth(unsigned int microseconds)
{
    m_pulseWidth = microseconds;
    updateAdjustedPulseWidth();
    update();
}

void SyncRenderArea::setOffset(int microseconds)
{
    m_offset = microseconds;
    update();
}

void SyncRenderArea::setClockPeriod(unsigned short milliseconds)
{
    m_clockPeriod = milliseconds;
    update();
}

void SyncRenderArea::setInput(bool input)
{
    m_input = input;
    update();
}

void SyncRenderArea::setSyncMode(SyncMode mode)
{
    m_syncMode = mode;
    update();
}

void SyncRenderArea::setZeroPwMode(ZeroPwMode mode)
{
    m_zeroPwMode = mode;
    updateAdjustedPulseWidth();
    update();
}

void SyncRenderArea::setStartSampling(bool start)
{
    m_startSampling = start;
    update();
}

double SyncRenderArea::periodMs() const
{
    return m_updateRate > 0 ? 1000.0 / m_updateRate : 1000.0;
}

double SyncRenderArea::samplePeriodUs() const
{
    return 1000.0 * periodMs();
}

int SyncRenderArea::lowLevel() const
{
    const bool swapped =
        m_polarity == NSP_FALLING_EDGE || (m_polarity == NSP_BOTH_EDGES && m_secondEdge);
    return swapped != m_inverted ? HighY : LowY;
}

int SyncRenderArea::highLevel() const
{
    return lowLevel() == LowY ? HighY : LowY;
}

void SyncRenderArea::updateAdjustedPulseWidth()
{
    if (m_pulseWidth == 0) {
        switch (m_zeroPwMode) {
        case ZeroPwToggle:
            m_adjustedPulseWidth = static_cast<unsigned int>(std::max(0, width())) * 1000u;
            break;
        case ZeroPwSpike:
            m_adjustedPulseWidth = 1;
            break;
        default:
            m_adjustedPulseWidth = 0;
            break;
        }
        return;
    }
    // A pulse as long as the period would merge with the next one into a flat line.
    const double period = m_function == NSF_TIME_PULSE ? 1000000.0 : 1000.0 * periodMs();
    if (static_cast<double>(m_pulseWidth) >= period)
        m_adjustedPulseWidth = static_cast<unsigned int>(std::max(1.0, std::floor(period))) - 1u;
    else
        m_adjustedPulseWidth = m_pulseWidth;
}

void SyncRenderArea::resizeEvent(QResizeEvent* event)
{
    QWidget::resizeEvent(event);
    updateAdjustedPulseWidth();
}

bool SyncRenderArea::toggles() const
{
    if (m_polarity == NSP_BOTH_EDGES)
        return true;
    return !m_input && m_pulseWidth == 0 && m_zeroPwMode == ZeroPwToggle;
}

void SyncRenderArea::layoutEvents()
{
    m_events.clear();
    switch (m_syncMode) {
    case NoSync:
        return;
    case TriggerInput:
        // Triggers every other sample, so that the free-running clock shows between them.
        m_spacingUs = 2.0 * samplePeriodUs();
        break;
    case ClockInput:
        m_spacingUs = m_clockPeriod > 0 ? 1000.0 * m_clockPeriod : samplePeriodUs();
        break;
    case PulseOutput:
        m_spacingUs = m_function == NSF_TIME_PULSE ? 1000000.0 : samplePeriodUs();
        break;
    case EventOutput:
        m_spacingUs = 2.0 * samplePeriodUs();
        break;
    }
    int count = 1;
    if (m_syncMode == EventOutput) {
        m_spanUs = 3.0 * m_spacingUs;
    } else {
        const long wanted = long(m_skipFirst) + 2L * (long(m_skipFactor) + 1) + 1;
        count = static_cast<int>(std::clamp(wanted, long(MinEvents), long(MaxEvents)));
        m_spanUs = (count + 0.5) * m_spacingUs;
    }
    bool usedOne = false;
    for (int i = 0; i < count; ++i) {
        Event e;
        e.time = m_syncMode == EventOutput ? m_spacingUs : (i + 0.5) * m_spacingUs;
        e.used = i >= m_skipFirst && (i - m_skipFirst) % (int(m_skipFactor) + 1) == 0;
        if (m_triggerOnce && usedOne)
            e.used = false;
        usedOne = usedOne || e.used;
        m_events.append(e);
    }
}

double SyncRenderArea::plotLeft() const
{
    return LabelColumn;
}

double SyncRenderArea::plotRight() const
{
    return std::max<double>(plotLeft() + 10, width() - RightMargin);
}

double SyncRenderArea::xOf(double time) const
{
    // Offsets of many seconds would put points far outside; the painter need not see them.
    const double x = plotLeft() + time * (plotRight() - plotLeft()) / m_spanUs;
    return std::clamp(x, plotLeft() - 2 * width(), plotRight() + 2 * width());
}

double SyncRenderArea::actionTime(const Event& e) const
{
    return e.time + m_offset;
}

void SyncRenderArea::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing, true);
    layoutEvents();
    drawBackground(painter);
    if (m_syncMode == NoSync) {
        painter.setPen(SkippedColor);
        painter.drawText(rect(), Qt::AlignCenter, tr("No synchronization on this line"));
        return;
    }
    painter.save();
    painter.setClipRect(QRectF(plotLeft(), 0, plotRight() - plotLeft() + 1, height()));
    drawSyncFrames(painter);
    if (m_input)
        drawInputPulses(painter);
    else
        drawOutputPulse(painter);
    painter.restore();
    drawInfo(painter);
}

void SyncRenderArea::drawBackground(QPainter& painter)
{
    painter.fillRect(rect(), palette().color(QPalette::Base));
    painter.setPen(GuideColor);
    painter.drawRect(rect().adjusted(0, 0, -1, -1));

    QFont bold = font();
    bold.setBold(true);
    painter.setFont(bold);
    painter.setPen(SignalColor);
    painter.drawText(QPointF(8, TitleY), m_functionText);
    painter.setFont(font());
    if (m_syncMode == NoSync)
        return;

    // Row labels, and faint guides at the two levels.
    painter.setPen(SignalColor);
    const QRectF signalLabel(4, HighY, LabelColumn - 10, LowY - HighY);
    painter.drawText(signalLabel, Qt::AlignLeft | Qt::AlignVCenter,
                     m_input ? tr("Input") : tr("Output"));
    painter.drawText(QRectF(4, SampleTop, LabelColumn - 10, SampleBottom - SampleTop),
                     Qt::AlignLeft | Qt::AlignVCenter, tr("Samples"));
    QPen guide(GuideColor, 1, Qt::DotLine);
    painter.setPen(guide);
    painter.drawLine(QPointF(plotLeft(), HighY), QPointF(plotRight(), HighY));
    painter.drawLine(QPointF(plotLeft(), LowY), QPointF(plotRight(), LowY));
}

void SyncRenderArea::drawSyncFrames(QPainter& painter)
{
    const double tickPx = samplePeriodUs() * (plotRight() - plotLeft()) / m_spanUs;
    const bool clockedByTrigger = m_input && m_function == NSF_SAMPLE_AND_SEND;
    double start = 0;
    if (m_startSampling || m_function == NSF_START_SAMPLING) {
        start = m_spanUs;
        for (const Event& e : m_events)
            if (e.used) {
                start = actionTime(e);
                break;
            }
    }

    if (!clockedByTrigger && start < m_spanUs) {
        if (tickPx < MinTickSpacing) {
            const QRectF band(xOf(std::max(0.0, start)), SampleTop + 6, 0,
                              SampleBottom - SampleTop - 6);
            QRectF r = band;
            r.setRight(plotRight());
            painter.fillRect(r, QColor(225, 225, 225));
            painter.setPen(SkippedColor);
            painter.drawText(r.adjusted(4, 0, 0, 0), Qt::AlignLeft | Qt::AlignVCenter,
                             tr("%1 Hz").arg(m_updateRate));
        } else {
            painter.setPen(QPen(SkippedColor, 1));
            // Ticks on the grid the events fall on, or from the start trigger on.
            const double phase =
                m_events.isEmpty() ? 0.0 : std::fmod(m_events.first().time, samplePeriodUs());
            double t = start > 0 ? start : phase;
            for (; t <= m_spanUs; t += samplePeriodUs())
                painter.drawLine(QPointF(xOf(t), SampleTop + 6), QPointF(xOf(t), SampleBottom));
        }
    }

    // The samples the line gives rise to (inputs) or starts from (outputs). A clock only
    // steers the sample clock; it makes no samples of its own.
    if (m_syncMode == ClockInput)
        return;
    painter.setPen(QPen(ActionColor, 2.5));
    for (const Event& e : m_events) {
        if (!e.used)
            continue;
        const double t = m_input ? actionTime(e) : e.time;
        painter.drawLine(QPointF(xOf(t), SampleTop), QPointF(xOf(t), SampleBottom + 2));
        if (m_function == NSF_START_SAMPLING || m_startSampling)
            break;
    }
}

int SyncRenderArea::drawSinglePulse(QPainter& painter, double x, double width)
{
    const double end = std::min(x + width, plotRight() + 2);
    QPainterPath path(QPointF(x, lowLevel()));
    path.lineTo(x, highLevel());
    path.lineTo(end, highLevel());
    // A pulse that reaches the right edge goes on beyond it.
    if (x + width < plotRight() - 0.5)
        path.lineTo(end, lowLevel());
    painter.setPen(QPen(SignalColor, 2));
    painter.drawPath(path);
    return lowLevel();
}

void SyncRenderArea::drawDottedFrame(QPainter& painter, double x, double width)
{
    const double end = std::min(x + width, plotRight() + 2);
    QPainterPath path(QPointF(x, lowLevel()));
    path.lineTo(x, highLevel());
    path.lineTo(end, highLevel());
    path.lineTo(end, lowLevel());
    painter.setPen(QPen(SkippedColor, 1.5, Qt::DotLine));
    painter.drawPath(path);
}

void SyncRenderArea::drawEdgeMark(QPainter& painter, double x, bool rising)
{
    const double mid = (HighY + LowY) / 2.0;
    const double dy = rising ? -7 : 7;
    const QPolygonF head(
        {QPointF(x - 5, mid - dy / 2), QPointF(x + 5, mid - dy / 2), QPointF(x, mid + dy / 2)});
    painter.setPen(Qt::NoPen);
    painter.setBrush(ActionColor);
    painter.drawPolygon(head);
    painter.setBrush(Qt::NoBrush);
}

void SyncRenderArea::drawInputPulses(QPainter& painter)
{
    const double scale = (plotRight() - plotLeft()) / m_spanUs;
    // An external signal: pulses of a third of the spacing, or a square wave when both
    // edges count.
    const bool toggling = toggles();
    const double pulseUs = toggling ? m_spacingUs : m_spacingUs / 3.0;

    m_secondEdge = false;
    m_inverted = false;
    double curX = plotLeft();
    int curY = lowLevel();
    bool offsetShown = false;
    for (int i = 0; i < m_events.size(); ++i) {
        const Event& e = m_events[i];
        m_secondEdge = m_polarity == NSP_BOTH_EDGES && (i % 2 == 1);
        const double x = xOf(e.time);
        const double w = pulseUs * scale;
        painter.setPen(QPen(SignalColor, 2));
        if (x > curX)
            painter.drawLine(QPointF(curX, curY), QPointF(x, curY));
        if (e.used) {
            curY = drawSinglePulse(painter, x, w);
            drawEdgeMark(painter, x, highLevel() < lowLevel());
        } else {
            drawDottedFrame(painter, x, w);
            curY = lowLevel();
        }
        curX = x + w;
        if (e.used && !offsetShown) {
            offsetShown = true;
            drawOffset(painter, x, xOf(actionTime(e)));
        }
    }
    painter.setPen(QPen(SignalColor, 2));
    if (curX < plotRight())
        painter.drawLine(QPointF(curX, curY), QPointF(plotRight(), curY));
    m_secondEdge = false;
}

void SyncRenderArea::drawOutputPulse(QPainter& painter)
{
    const double scale = (plotRight() - plotLeft()) / m_spanUs;
    const bool toggling = toggles();
    double pulseUs = m_adjustedPulseWidth;
    if (toggling && m_syncMode != EventOutput)
        pulseUs = std::min(pulseUs, m_spacingUs);

    m_secondEdge = false;
    m_inverted = false;
    double curX = plotLeft();
    int curY = lowLevel();
    bool offsetShown = false;
    int toggled = 0;
    for (const Event& e : m_events) {
        const double x = xOf(actionTime(e));
        double w = pulseUs * scale;
        if (m_adjustedPulseWidth > 0)
            w = std::max(w, 1.0); // a hair-line pulse still shows
        if (e.used) {
            // Each pulse of a toggling output starts where the last one left the level.
            m_secondEdge = m_polarity == NSP_BOTH_EDGES && toggled % 2 == 1;
            m_inverted = m_polarity != NSP_BOTH_EDGES && toggling && toggled % 2 == 1;
            ++toggled;
        }
        painter.setPen(QPen(SignalColor, 2));
        if (x > curX)
            painter.drawLine(QPointF(curX, curY), QPointF(x, curY));
        if (!e.used) {
            drawDottedFrame(painter, x, w);
            painter.setPen(QPen(SignalColor, 2));
            painter.drawLine(QPointF(std::max(x, curX), curY), QPointF(x + w, curY));
            curX = std::max(curX, x + w);
            continue;
        }
        if (m_adjustedPulseWidth == 0) {
            curX = std::max(curX, x);
        } else {
            curY = drawSinglePulse(painter, x, w);
            curX = x + w;
        }
        if (!offsetShown) {
            offsetShown = true;
            // From the sample that starts the pulse to the pulse.
            QPen guide(GuideColor, 1, Qt::DashLine);
            painter.setPen(guide);
            painter.drawLine(QPointF(xOf(e.time), SampleTop), QPointF(xOf(e.time), HighY));
            drawOffset(painter, xOf(e.time), x);
        }
    }
    painter.setPen(QPen(SignalColor, 2));
    if (curX < plotRight())
        painter.drawLine(QPointF(curX, curY), QPointF(plotRight(), curY));
    m_secondEdge = false;
    m_inverted = false;
}

void SyncRenderArea::drawArrow(QPainter& painter, const QPointF& from, const QPointF& to)
{
    painter.drawLine(from, to);
    const double angle = std::atan2(to.y() - from.y(), to.x() - from.x());
    constexpr double HeadLength = 7;
    constexpr double HeadAngle = 0.45;
    const QPolygonF head({to,
                          QPointF(to.x() - HeadLength * std::cos(angle - HeadAngle),
                                  to.y() - HeadLength * std::sin(angle - HeadAngle)),
                          QPointF(to.x() - HeadLength * std::cos(angle + HeadAngle),
                                  to.y() - HeadLength * std::sin(angle + HeadAngle))});
    painter.save();
    painter.setBrush(painter.pen().color());
    painter.drawPolygon(head);
    painter.restore();
}

void SyncRenderArea::drawOffsetArrow(QPainter& painter, double fromX, double toX, double y)
{
    painter.setPen(QPen(ActionColor, 1.5));
    // Short ticks at both ends so that a small offset still reads as a measured span.
    painter.drawLine(QPointF(fromX, y - 5), QPointF(fromX, y + 5));
    if (std::abs(toX - fromX) >= 3)
        drawArrow(painter, QPointF(fromX, y), QPointF(toX, y));
}

void SyncRenderArea::drawOffset(QPainter& painter, double fromX, double toX)
{
    if (m_offset == 0)
        return;
    drawOffsetArrow(painter, fromX, toX, OffsetArrowY);
    const QString text =
        QStringLiteral("%1 %2 \u00b5s").arg(m_input ? tr("Offset") : tr("Delay")).arg(m_offset);
    const QFontMetricsF metrics(painter.font());
    const double textWidth = metrics.horizontalAdvance(text);
    double x = std::max(fromX, toX) + 6;
    if (x + textWidth > plotRight())
        x = std::min(fromX, toX) - 6 - textWidth;
    painter.setPen(ActionColor);
    painter.drawText(QPointF(std::max(plotLeft(), x), OffsetArrowY + 4), text);
}

void SyncRenderArea::drawInfo(QPainter& painter)
{
    QStringList parts;
    if (m_syncMode == ClockInput)
        parts << tr("Clock period %1 ms").arg(m_clockPeriod);
    else if (m_function == NSF_TIME_PULSE)
        parts << tr("1 pulse per second");
    else
        parts << tr("Sample period %1 ms").arg(periodMs(), 0, 'g', 4);
    if (!m_input) {
        if (m_adjustedPulseWidth != m_pulseWidth && m_pulseWidth != 0)
            parts << tr("Pulse width %1 \u00b5s (drawn %2 \u00b5s)")
                         .arg(m_pulseWidth)
                         .arg(m_adjustedPulseWidth);
        else
            parts << tr("Pulse width %1 \u00b5s").arg(m_pulseWidth);
    }
    if (m_skipFirst > 0)
        parts << tr("Skip first %1").arg(m_skipFirst);
    if (m_skipFactor > 0)
        parts << tr("Skip factor %1").arg(m_skipFactor);
    if (m_triggerOnce)
        parts << tr("Trigger once");
    painter.setPen(SignalColor);
    painter.drawText(QPointF(8, InfoBaseline), parts.join(QStringLiteral("   ")));
}
