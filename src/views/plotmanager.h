#pragma once
// What every data view shares: the plotting options from the settings store and one
// display clock. Views buffer what arrives and draw on the clock's tick, so the cost of a
// view follows the frame rate, not the packet rate.

#include <QObject>
#include <QString>

class QTimer;

struct PlottingOptions
{
    enum class TimeAxis
    {
        SampleTime, // the device's own sample time
        HostTime,   // when the packet reached this computer
    };

    bool strobes = false;               // "graphStyle" 256: samples as dots, no lines
    bool orientationQuaternion = false; // "plotOrientationMode" "Quaternion"
    bool fahrenheit = false;            // "plotTemperatureFormat" "Fahrenheit"
    int minimumDisplayTimeLive = 500;   // ms
    int maximumDisplayTimeLive = 10000; // ms
    int minimumDisplayTimeFile = 500;   // ms
    int maximumDisplayTimeFile = 10000; // ms
    bool autoFileTimeAdjust = false;
    TimeAxis timeAxis = TimeAxis::SampleTime; // "plotTimeAxis": "SampleTime" or "HostTime"

    // The window of time a graph shows, clamped into the live or the file bounds.
    int clampDisplayTime(int ms, bool file) const;
    int defaultDisplayTime(bool file) const
    {
        return file ? maximumDisplayTimeFile : maximumDisplayTimeLive;
    }

    static PlottingOptions fromSettings();
    void save() const;
};

class PlotManager : public QObject
{
    Q_OBJECT

public:
    static constexpr int FramesPerSecond = 30;

    explicit PlotManager(QObject* parent = nullptr);
    ~PlotManager() override;

    const PlottingOptions& options() const { return m_options; }
    // Reads the options again (after the options dialog applied) and tells the views.
    void reloadOptions();
    void setOptions(const PlottingOptions& options);

    // The clock runs while anybody listens to refresh().
    void subscribe();
    void unsubscribe();
    bool isRunning() const;

signals:
    // One display frame: views draw what they buffered since the last one.
    void refresh();
    void optionsChanged(const PlottingOptions& options);

private:
    PlottingOptions m_options;
    QTimer* m_timer = nullptr;
    int m_subscribers = 0;
};
