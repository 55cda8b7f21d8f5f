#include "deviceitem.h"

#include "devicemodel.h"
#include "ndacontrol.h"
#include "ndadevice.h"

#include <QMenu>
#include <QPointer>
#include <QtMath>

namespace {

// Missed packets or checksum errors this recent still colour the link row.
constexpr qint64 TroubleHoldMs = 5000;
// A measurement that has just started has not filled its one-second window yet.
constexpr qint64 RateGraceMs = 2000;
constexpr double HealthyRatio = 0.95;

} // namespace

DeviceItem::DeviceItem(const NvDeviceId& id, const QString& key, DeviceModel& model)
    : NdaDeviceObserver(model.ndaControl(), id),
      DeviceListTreeItem(key, QVariant(), ReadOnlyText, model)
{
    setValue(QStringLiteral("%1%2").arg(m_prefix, deviceIdToString(id)));
    NdaDevice& dev = device();
    if (dev.isValid()) {
        connect(&dev, &NdaCallback::deviceStateChange, this, &DeviceItem::handleDeviceStateChanged);
        connect(&dev, &NdaDevice::progressChanged, this, &DeviceItem::handleProgressChanged);
        connect(&dev, &NdaDevice::progressCompleted, this, &DeviceItem::handleProgressCompleted);
        connect(&dev, &NdaDevice::flushingAborted, this, &DeviceItem::handleFlushingAborted);
        if (dev.isMeasuring())
            m_measuringSince.start();
        const NdaLinkHealth health = dev.linkHealth();
        m_lastLost = health.missed + health.checksumErrors;
    }
}

DeviceItem::~DeviceItem() = default;

void DeviceItem::createDeviceItems()
{
    m_deviceInformation = new DeviceListTreeItem(tr("Device Information"), model());
    appendChild(m_deviceInformation);
    auto add = [this](const QString& key, const QVariant& value) {
        auto* row = new DeviceListTreeItem(key, value, ReadOnlyText, model());
        m_deviceInformation->appendChild(row);
        return row;
    };
    m_productCode = add(tr("Product Code"), QStringLiteral("fakeProductCode"));
    m_port = add(tr("Communication Port"), QString());
    m_baudrate = add(tr("Baudrate"), tr("N/A"));
    m_firmware = add(tr("Firmware Revision"), tr("N/A"));
    m_hardware = add(tr("Hardware Revision"), tr("N/A"));
    m_link = add(tr("Link"), tr("N/A"));
    updateLinkHealth();
}

void DeviceItem::refresh()
{
    NdaDevice& dev = device();
    if (dev.isValid()) {
        setProductCode(dev.shortProductCode());
        setPortName(dev.portName());
        setBaudRate(nvBaudRateToRate(dev.serialBaudRate()));
        setFirmwareRevision(QString::fromStdString(dev.firmwareVersion().toString()));
        const NvVersion hw = dev.hardwareVersion();
        setHardwareRevision(QStringLiteral("%1.%2").arg(hw.major).arg(hw.minor));
    }
    if (m_firmware) {
        m_firmware->setIcon(m_firmwareWarning.isEmpty() ? QIcon() : DeviceModel::warningIcon());
        m_firmware->setToolTip(m_firmwareWarning);
    }
    DeviceListTreeItem::refresh();
    model().emitDeviceDataChanged();
}

NvDeviceId DeviceItem::deviceId() const
{
    return NdaDeviceObserverBase::deviceId();
}

QMenu* DeviceItem::contextMenu()
{
    auto* menu = new QMenu;
    QAction* disconnect = menu->addAction(tr("Disconnect"));
    const QString text = deviceIdToString(deviceId());
    DeviceModel* m = &model();
    connect(disconnect, &QAction::triggered, m, [m, text] { m->disconnectDevice(text); });
    return menu;
}

NdaDeviceState::Type DeviceItem::state() const
{
    return device().ndaDeviceState();
}

QString DeviceItem::productCode() const
{
    return m_productCode ? m_productCode->value().toString() : QString();
}

void DeviceItem::setProductCode(const QString& code)
{
    if (m_productCode)
        m_productCode->setValue(code);
}

QString DeviceItem::portName() const
{
    return m_port ? m_port->value().toString() : QString();
}

void DeviceItem::setPortName(const QString& port)
{
    if (m_port)
        m_port->setValue(port);
}

QVariant DeviceItem::baudrate() const
{
    return m_baudrate ? m_baudrate->value() : QVariant();
}

void DeviceItem::setBaudRate(int rate)
{
    if (m_baudrate)
        m_baudrate->setValue(rate);
}

QString DeviceItem::firmwareRevision() const
{
    return m_firmware ? m_firmware->value().toString() : QString();
}

void DeviceItem::setFirmwareRevision(const QString& text)
{
    if (m_firmware)
        m_firmware->setValue(text);
}

QString DeviceItem::hardwareRevision() const
{
    return m_hardware ? m_hardware->value().toString() : QString();
}

void DeviceItem::setHardwareRevision(const QString& text)
{
    if (m_hardware)
        m_hardware->setValue(text);
}

QString DeviceItem::getNdaFilterProfileName() const
{
    const int current = device().ndaFilterProfile();
    for (const NvFilterProfileInfo& profile : device().availableNdaFilterProfiles())
        if (profile.type == current)
            return QString::fromStdString(profile.label);
    return QString();
}

QStringList DeviceItem::getAvailableNdaFilterProfiles() const
{
    QStringList labels;
    for (const NvFilterProfileInfo& profile : device().availableNdaFilterProfiles())
        labels << QString::fromStdString(profile.label);
    return labels;
}

NvDeviceId DeviceItem::stringToDeviceId(const QString& text)
{
    return NvDeviceId::fromString(text.trimmed().toStdString());
}

QString DeviceItem::deviceIdToString(const NvDeviceId& id)
{
    return QString::fromStdString(id.toString());
}

QString DeviceItem::firmwareWarning() const
{
    return m_firmwareWarning;
}

void DeviceItem::setFirmwareWarning(const QString& text)
{
    m_firmwareWarning = text;
    setToolTip(text);
    if (m_firmware) {
        m_firmware->setIcon(text.isEmpty() ? QIcon() : DeviceModel::warningIcon());
        m_firmware->setToolTip(text);
    }
}

bool DeviceItem::updateLinkHealth()
{
    if (!m_link)
        return false;
    QString text;
    QString tip;
    bool troubled = false;
    NdaDevice& dev = device();
    if (!dev.isValid() || dev.isReadingFromFile()) {
        text = tr("N/A");
    } else {
        const NdaLinkHealth health = dev.linkHealth();
        const int received = qRound(health.packetsPerSecond);
        text = health.configuredRate > 0 ? tr("%1/%2 Hz, %3 missed")
                                               .arg(received)
                                               .arg(health.configuredRate)
                                               .arg(health.missed)
                                         : tr("%1 Hz, %2 missed").arg(received).arg(health.missed);
        if (health.trackers == 0)
            text = tr("no tracker measuring");
        else if (health.isMaster())
            text = tr("%n tracker(s), ", nullptr, health.trackers) + text;
        if (health.checksumErrors > 0)
            text += tr(", %1 checksum errors").arg(health.checksumErrors);

        const quint64 lost = health.missed + health.checksumErrors;
        if (lost > m_lastLost)
            m_lastTrouble.start();
        m_lastLost = lost;
        const bool recentLoss = m_lastTrouble.isValid() && m_lastTrouble.elapsed() < TroubleHoldMs;
        const bool slow = m_measuringSince.isValid() && m_measuringSince.elapsed() >= RateGraceMs &&
                          health.configuredRate > 0 && health.ratio() < HealthyRatio;
        troubled = recentLoss || slow;

        tip = tr("Link: %1 of %2 packets/s\nReceived: %3\nMissed: %4\nChecksum errors: %5")
                  .arg(health.packetsPerSecond, 0, 'f', 1)
                  .arg(health.configuredRate > 0 ? QString::number(health.configuredRate)
                                                 : tr("unknown"))
                  .arg(health.packets)
                  .arg(health.missed)
                  .arg(health.checksumErrors);
        if (health.isMaster())
            tip = tr("A wireless master sends no data of its own: its link is that of the "
                     "%n tracker(s) measuring through it.",
                     nullptr, health.trackers) +
                  QLatin1Char('\n') + tip;
    }
    const bool changed =
        text != m_link->value().toString() || tip != m_linkToolTip || troubled != m_linkTroubled;
    m_link->setValue(text);
    m_link->setToolTip(tip);
    m_linkToolTip = tip;
    m_linkTroubled = troubled;
    return changed;
}

void DeviceItem::onDeviceClosed(const NvDeviceId& id)
{
    NdaDeviceObserver::onDeviceClosed(id);
    // We are inside our own closer's event: the row goes from the next turn of the loop.
    QPointer<DeviceItem> self(this);
    DeviceModel* m = &model();
    QMetaObject::invokeMethod(
        m,
        [m, self] {
            if (self)
                m->removeDeviceItem(self);
        },
        Qt::QueuedConnection);
}

void DeviceItem::handleDeviceStateChanged(const NvDeviceId& id, NdaDeviceState::Type newState,
                                          NdaDeviceState::Type oldState)
{
    if (NdaDeviceState::isMeasuring(newState) && !NdaDeviceState::isMeasuring(oldState))
        m_measuringSince.start();
    else if (!NdaDeviceState::isMeasuring(newState))
        m_measuringSince.invalidate();
    model().emitDeviceDataChanged(id, DeviceModel::StateColumn);
}

void DeviceItem::handleProgressChanged(NdaDevice& device, int current, int total)
{
    m_progressCurrent = current;
    m_progressTotal = total;
    model().emitDeviceDataChanged(device.deviceId(), DeviceModel::ProgressColumn);
}

void DeviceItem::handleProgressCompleted(NdaDevice& device, int result)
{
    Q_UNUSED(result);
    resetProgress();
    model().emitDeviceDataChanged(device.deviceId(), DeviceModel::ProgressColumn);
}

void DeviceItem::handleFlushingAborted(NdaDevice& device)
{
    resetProgress();
    model().emitDeviceDataChanged(device.deviceId(), DeviceModel::ProgressColumn);
}

void DeviceItem::resetProgress()
{
    m_progressCurrent = -1;
    m_progressTotal = -1;
}
