#pragma once
// A time-series graph: lanes stacked over one shared time axis, each with its named
// channels, a legend with every channel's latest value, pause, mouse zoom and pan (the view
// stops following the newest data until "Follow" or a double-click), auto-scaled value
// axes, a display-time window and the choice of time axis. Samples are buffered as they
// come; a frame (refresh) reduces what is on screen to min/max per pixel column and draws.

#include "plotbuffer.h"
#include "plotmanager.h"

#include <QColor>
#include <QString>
#include <QStringList>
#include <QVector>
#include <QWidget>

#include <functional>
#include <memory>
#include <vector>

class QCPAxis;
class QCPAxisRect;
class QCPGraph;
class QCPLegend;
class QCPMarginGroup;
class QComboBox;
class QCustomPlot;
class QDoubleSpinBox;
class QHBoxLayout;
class QToolBar;
class QLabel;
class QStackedLayout;
class QToolButton;

class TimeSeriesPlot : public QWidget
{
    Q_OBJECT

public:
    using TimeAxis = PlottingOptions::TimeAxis;
    using Formatter = std::function<QString(double)>;

    explicit TimeSeriesPlot(QWidget* parent = nullptr);
    ~TimeSeriesPlot() override;

    // ---- Lanes and channels
    // A lane is one value axis; `stretch` is its height relative to the others.
    int addLane(const QString& title, const QString& unit, double stretch = 1.0);
    int addChannel(int lane, const QString& name, const QColor& color, int decimals = 3);
    // The value axis of the lane stays at [lo, hi], auto-scale or not (flags, 0/1 lanes).
    void setLaneFixedRange(int lane, double lo, double hi);
    // Steps instead of lines between samples.
    void setChannelStep(int channel, bool step);
    // How the legend shows the channel's value (default: fixed decimals).
    void setChannelFormatter(int channel, Formatter formatter);
    // Fills the area between this channel and `other` (a tolerance band).
    void setChannelFill(int channel, int other, const QColor& color);
    void setChannelName(int channel, const QString& name);
    // Removes every lane and channel with their samples.
    void removeAll();
    QCPAxis* valueAxis(int lane) const;
    int laneCount() const { return static_cast<int>(m_lanes.size()); }
    int channelCount() const { return static_cast<int>(m_channels.size()); }
    QStringList channelNames() const;

    // ---- Data
    // One sample; t in seconds on the view's time axis, nondecreasing per channel.
    void append(int channel, double t, double value);
    // Forgets the samples (a seek, a new clock origin); lanes stay.
    void clear();
    // The newest buffered value of each channel (NaN for a channel without samples), also
    // while paused.
    QVector<double> latestValues() const;
    // Samples buffered for the channel.
    size_t bufferedCount(int channel) const;
    // Points handed to the graph of the channel in the last frame.
    int displayedPointCount(int channel) const;
    // The legend as drawn: "<name>  <value>" per channel.
    QStringList legendTexts() const;

    // ---- Frames
    // Brings the graphs up to date; true when something is to be drawn. refresh() also
    // draws (queued) when the widget is visible.
    bool prepareFrame();
    void refresh();

    // ---- What the user controls
    bool isPaused() const { return m_paused; }
    void setPaused(bool paused);
    bool isFollowing() const { return m_following; }
    // Back to the newest data, at the display-time window.
    void follow();
    bool autoScale() const { return m_autoScale; }
    void setAutoScale(bool on);
    // The window while following, in ms, within the bounds.
    int displayTime() const { return m_displayTimeMs; }
    void setDisplayTime(int ms);
    void setDisplayTimeBounds(int minimumMs, int maximumMs);
    // The time range shown, in s.
    double visibleFrom() const { return m_from; }
    double visibleTo() const { return m_to; }
    // Shows [from, to] and stops following, as a zoom or pan with the mouse does.
    void showRange(double from, double to);
    void setStrobes(bool strobes);
    bool strobes() const { return m_strobes; }
    void setTimeAxis(TimeAxis axis);
    TimeAxis timeAxis() const { return m_timeAxis; }

    // "Waiting for data…" in place of the graph until data comes.
    void setWaiting(bool waiting);
    bool isWaiting() const { return m_waiting; }
    // The tool bar above the graph, for a viewer's own indicators.
    QToolBar* toolBar() const { return m_bar; }
    QCustomPlot* customPlot() const { return m_plot; }

signals:
    // The user picked another time axis in the combo box.
    void timeAxisChosen(PlottingOptions::TimeAxis axis);

private:
    struct Lane
    {
        QCPAxisRect* rect = nullptr;
        QCPLegend* legend = nullptr;
        bool fixed = false;
        double lo = 0, hi = 1;
    };
    struct Channel
    {
        int lane = 0;
        QCPGraph* graph = nullptr;
        QString name;
        int decimals = 3;
        bool step = false;
        Formatter formatter;
        PlotRing ring;
        MinMaxDecimator decimator;
        QString legend;
    };

    void applyTimeRange(double from, double to);
    void onTimeRangeChanged(double from, double to);
    void applyGraphStyle(Channel& channel);
    void updateInteractions();
    void updateTimeAxisLabel();
    QString valueText(const Channel& channel, double v) const;
    double pixelWidth() const;
    // How far back samples are kept, in s.
    double keptSeconds() const;

    QCustomPlot* m_plot = nullptr;
    QCPMarginGroup* m_margins = nullptr;
    QToolBar* m_bar = nullptr;
    QStackedLayout* m_stack = nullptr;
    QLabel* m_waitingLabel = nullptr;
    QToolButton* m_pauseButton = nullptr;
    QToolButton* m_followButton = nullptr;
    QToolButton* m_autoScaleButton = nullptr;
    QDoubleSpinBox* m_windowBox = nullptr;
    QComboBox* m_axisBox = nullptr;

    std::vector<Lane> m_lanes;
    std::vector<std::unique_ptr<Channel>> m_channels;
    QVector<double> m_latest;
    struct Scratch;
    std::unique_ptr<Scratch> m_scratch; // points on their way to a graph

    bool m_paused = false;
    bool m_following = true;
    bool m_autoScale = true;
    bool m_strobes = false;
    bool m_waiting = true;
    bool m_newData = false;    // samples since the last frame
    bool m_viewChanged = true; // range, size or style changed since the last frame
    bool m_settingRange = false;
    bool m_haveData = false;
    double m_newest = 0; // newest sample time over all channels
    double m_from = 0, m_to = 10;
    int m_displayTimeMs = 10000;
    int m_minimumMs = 500, m_maximumMs = 10000;
    TimeAxis m_timeAxis = TimeAxis::SampleTime;
};
