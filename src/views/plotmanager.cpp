#include "plotmanager.h"

#include <QSettings>
#include <QTimer>

#include <algorithm>

int PlottingOptions::clampDisplayTime(int ms, bool file) const
{
    const int lo = std::max(1, file ? minimumDisplayTimeFile : minimumDisplayTimeLive);
    const int hi = std::max(lo, file ? maximumDisplayTimeFile : maximumDisplayTimeLive);
    return std::clamp(ms, lo, hi);
}

PlottingOptions PlottingOptions::fromSettings()
{
    QSettings s;
    PlottingOptions o;
    o.strobes = s.value(QStringLiteral("graphStyle"), 0).toInt() == 256;
    o.orientationQuaternion =
        s.value(QStringLiteral("plotOrientationMode"), QStringLiteral("Euler")).toString() ==
        QLatin1String("Quaternion");
    o.fahrenheit =
        s.value(QStringLiteral("plotTemperatureFormat"), QStringLiteral("Celsius")).toString() ==
        QLatin1String("Fahrenheit");
    o.minimumDisplayTimeLive = s.value(QStringLiteral("minimumDisplayTimeLive"), 500).toInt();
    o.maximumDisplayTimeLive = s.value(QStringLiteral("maximumDisplayTimeLive"), 10000).toInt();
    o.minimumDisplayTimeFile = s.value(QStringLiteral("minimumDisplayTimeFile"), 500).toInt();
    o.maximumDisplayTimeFile = s.value(QStringLiteral("maximumDisplayTimeFile"), 10000).toInt();
    o.autoFileTimeAdjust = s.value(QStringLiteral("autoFileTimeAdjust"), false).toBool();
    o.timeAxis = s.value(QStringLiteral("plotTimeAxis"), QStringLiteral("SampleTime")).toString() ==
                         QLatin1String("HostTime")
                     ? TimeAxis::HostTime
                     : TimeAxis::SampleTime;
    return o;
}

void PlottingOptions::save() const
{
    QSettings s;
    s.setValue(QStringLiteral("graphStyle"), strobes ? 256 : 0);
    s.setValue(QStringLiteral("plotOrientationMode"),
               orientationQuaternion ? QStringLiteral("Quaternion") : QStringLiteral("Euler"));
    s.setValue(QStringLiteral("plotTemperatureFormat"),
               fahrenheit ? QStringLiteral("Fahrenheit") : QStringLiteral("Celsius"));
    s.setValue(QStringLiteral("minimumDisplayTimeLive"), minimumDisplayTimeLive);
    s.setValue(QStringLiteral("maximumDisplayTimeLive"), maximumDisplayTimeLive);
    s.setValue(QStringLiteral("minimumDisplayTimeFile"), minimumDisplayTimeFile);
    s.setValue(QStringLiteral("maximumDisplayTimeFile"), maximumDisplayTimeFile);
    s.setValue(QStringLiteral("autoFileTimeAdjust"), autoFileTimeAdjust);
    s.setValue(QStringLiteral("plotTimeAxis"), timeAxis == TimeAxis::HostTime
                                                   ? QStringLiteral("HostTime")
                                                   : QStringLiteral("SampleTime"));
}

PlotManager::PlotManager(QObject* parent)
    : QObject(parent), m_options(PlottingOptions::fromSettings()), m_timer(new QTimer(this))
{
    m_timer->setInterval(1000 / FramesPerSecond);
    m_timer->setTimerType(Qt::PreciseTimer);
    connect(m_timer, &QTimer::timeout, this, &PlotManager::refresh);
}

PlotManager::~PlotManager() = default;

void PlotManager::reloadOptions()
{
    setOptions(PlottingOptions::fromSettings());
}

void PlotManager::setOptions(const PlottingOptions& options)
{
    m_options = options;
    emit optionsChanged(m_options);
}

void PlotManager::subscribe()
{
    if (m_subscribers++ == 0)
        m_timer->start();
}

void PlotManager::unsubscribe()
{
    if (m_subscribers > 0 && --m_subscribers == 0)
        m_timer->stop();
}

bool PlotManager::isRunning() const
{
    return m_timer->isActive();
}
