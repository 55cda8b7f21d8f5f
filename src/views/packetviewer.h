#pragma once
// The base of every data view: it follows one device (an observer), receives the device's
// packets, live or played back from a file, and owns the widget that the view manager puts
// into a sub-window. Viewers buffer what arrives and draw on the plot manager's refresh.

#include "ndadeviceobserver.h"
#include "plotmanager.h"
#include "viewtype.h"

#include "nvdatapacket.h"

#include <QEvent>
#include <QObject>
#include <QPointer>
#include <QWidget>

class ViewManager;

class PacketViewer : public QObject, public NdaDeviceObserverBase
{
    Q_OBJECT

public:
    // Posted to the view manager when the view is to be torn down on a later pass.
    class ClosingEvent : public QEvent
    {
    public:
        static const QEvent::Type eventType;
        ClosingEvent(ViewType viewType, const NvDeviceId& id)
            : QEvent(eventType), m_viewType(viewType), m_id(id)
        {
        }
        ViewType viewType() const { return m_viewType; }
        const NvDeviceId& deviceId() const { return m_id; }

    private:
        ViewType m_viewType;
        NvDeviceId m_id;
    };

    PacketViewer(ViewManager& manager, const NvDeviceId& id, ViewType type);
    ~PacketViewer() override;

    ViewType viewType() const { return m_type; }
    ViewManager& viewManager() const { return m_manager; }
    PlotManager& plotManager() const;
    const PlottingOptions& options() const;
    // The content of the view's sub-window; the sub-window owns it once inserted.
    QWidget* widget() const { return m_widget; }
    // "<view name> - <device id>"
    QString windowTitle() const;
    // A recording played back rather than a live device: the file display times apply.
    bool isFileDevice() const;
    // The id the view was made for, also after the device went away.
    const NvDeviceId& viewedDeviceId() const { return m_viewedId; }

    // One packet of the device, live or from playback, in order. arrivalNs: when the
    // library delivered it (steady clock, ns; 0 for a packet from a file).
    virtual void processPacket(const NvDataPacket& packet, int64_t arrivalNs);
    // A display frame: draw what was buffered since the last one. Called only while the
    // widget is visible.
    virtual void refresh() {}
    // The plotting options changed.
    virtual void applyOptions(const PlottingOptions& options) { (void)options; }
    // Forget what was shown (a new file position, a new measurement).
    virtual void clear() {}

    // Packets handed to processPacket so far.
    quint64 packetsProcessed() const { return m_packets; }

protected:
    // Subclasses set their content in the constructor.
    void setWidget(QWidget* widget);
    // Subclasses that draw on the clock call this once (the base unsubscribes).
    void subscribeToRefresh();
    void onDeviceClosed(const NvDeviceId& id) override;

private:
    void connectDevice();
    void handlePacket(const NvDataPacket& packet);
    void handleRefresh();

    ViewManager& m_manager;
    ViewType m_type;
    NvDeviceId m_viewedId;
    QPointer<QWidget> m_widget;
    QMetaObject::Connection m_packetConnection;
    bool m_subscribed = false;
    quint64 m_packets = 0;
};
