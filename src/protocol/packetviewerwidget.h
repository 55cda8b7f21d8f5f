#pragma once

// The latest data packet of one device, item by item: name, format (precision and
// frame) and value(s). Redrawn at most ten times a second, however fast packets come.

#include <nvdatapacket.h>
#include <nvdeviceid.h>

#include <QPointer>
#include <QWidget>

class NdaControl;
class NdaDevice;
class NvMessagesStructure;
class QLabel;
class QTimer;
class QToolButton;
class QTreeWidget;

class PacketViewerWidget : public QWidget
{
    Q_OBJECT
public:
    static constexpr int RefreshIntervalMs = 100;

    PacketViewerWidget(const NvMessagesStructure& structures, NdaControl& control,
                       const NvDeviceId& id, QWidget* parent = nullptr);
    ~PacketViewerWidget() override;

    const NvDeviceId& deviceId() const { return m_id; }
    bool isPaused() const { return m_paused; }
    // The packet shown, and how many came since the viewer opened.
    const NvDataPacket& shownPacket() const { return m_shown; }
    qint64 packetCount() const { return m_received; }
    QTreeWidget* itemTree() const { return m_items; }

public slots:
    void setPaused(bool paused);
    // Takes a packet as the device would deliver it (also for recordings played back).
    void showPacket(const NvDataPacket& packet);

private:
    void refresh();

    const NvMessagesStructure& m_structures;
    NdaControl& m_control;
    NvDeviceId m_id;
    QPointer<NdaDevice> m_device;

    QTreeWidget* m_items;
    QLabel* m_status;
    QToolButton* m_pauseButton;
    QTimer* m_refreshTimer;

    bool m_paused = false;
    bool m_dirty = false;
    NvDataPacket m_latest;
    NvDataPacket m_shown;
    qint64 m_received = 0;
};
