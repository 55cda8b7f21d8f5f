#include "packetviewer.h"

#include "ndadevice.h"
#include "viewmanager.h"

const QEvent::Type PacketViewer::ClosingEvent::eventType =
    static_cast<QEvent::Type>(QEvent::registerEventType());

QString viewTypeName(ViewType type)
{
    switch (type) {
    case ThreeDView:
        return QStringLiteral("3D View");
    case InertialView:
        return QStringLiteral("Inertial Data");
    case OrientationView:
        return QStringLiteral("Orientation Data");
    case StatusView:
        return QStringLiteral("Status");
    case PositionView:
        return QStringLiteral("Position");
    case AltitudeView:
        return QStringLiteral("Altitude");
    case PressureView:
        return QStringLiteral("Pressure");
    case VelocityView:
        return QStringLiteral("Velocity");
    case GnssSatInfoView:
        return QStringLiteral("GNSS Satellite Info");
    case UtcDateTimeView:
        return QStringLiteral("UTC Date and Time");
    case NdaMessageView:
        return QStringLiteral("NDA Messages");
    case TemperatureView:
        return QStringLiteral("Temperature");
    case DeviceMessageView:
        return QStringLiteral("Device Messages");
    case FreeAccelerationView:
        return QStringLiteral("Free Acceleration");
    }
    return QString();
}

PacketViewer::PacketViewer(ViewManager& manager, const NvDeviceId& id, ViewType type)
    : QObject(nullptr), NdaDeviceObserverBase(manager.control(), id), m_manager(manager),
      m_type(type), m_viewedId(id)
{
    connectDevice();
    connect(&plotManager(), &PlotManager::optionsChanged, this,
            [this](const PlottingOptions& o) { applyOptions(o); });
}

PacketViewer::~PacketViewer()
{
    if (m_subscribed)
        plotManager().unsubscribe();
    // Never inserted into a sub-window: the widget is still ours.
    if (m_widget && !m_widget->parent())
        delete m_widget.data();
}

PlotManager& PacketViewer::plotManager() const
{
    return m_manager.plotManager();
}

const PlottingOptions& PacketViewer::options() const
{
    return plotManager().options();
}

QString PacketViewer::windowTitle() const
{
    return QStringLiteral("%1 - %2").arg(viewTypeName(m_type),
                                         QString::fromStdString(m_viewedId.toString()));
}

bool PacketViewer::isFileDevice() const
{
    return isDeviceValid() && device().isReadingFromFile();
}

void PacketViewer::processPacket(const NvDataPacket&, int64_t) {}

void PacketViewer::setWidget(QWidget* widget)
{
    m_widget = widget;
    if (widget)
        widget->setWindowTitle(windowTitle());
}

void PacketViewer::subscribeToRefresh()
{
    if (m_subscribed)
        return;
    m_subscribed = true;
    plotManager().subscribe();
    connect(&plotManager(), &PlotManager::refresh, this, &PacketViewer::handleRefresh);
}

void PacketViewer::connectDevice()
{
    if (!isDeviceValid())
        return;
    NdaDevice* dev = devicePtr();
    m_packetConnection =
        connect(dev, &NdaCallback::postProcessed, this, &PacketViewer::handlePacket);
}

void PacketViewer::handlePacket(const NvDataPacket& packet)
{
    ++m_packets;
    NdaDevice* dev = devicePtr();
    processPacket(packet, dev ? dev->currentPacketArrival() : 0);
}

void PacketViewer::handleRefresh()
{
    if (m_widget && m_widget->isVisible())
        refresh();
}

void PacketViewer::onDeviceClosed(const NvDeviceId& id)
{
    QObject::disconnect(m_packetConnection);
    (void)id;
    m_manager.postClosingEvent(m_type, m_viewedId);
}
