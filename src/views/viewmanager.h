#pragma once
// Owns every data view the user opens for a device: one MDI sub-window per viewer, lists
// per view type and device, counts, and the start and end of open and close operations so
// that the main frame can follow with its toggles. Closing and delayed opening go through
// events posted to the manager, so a view is never torn down inside its own call stack.

#include "packetviewer.h"
#include "viewtype.h"

#include "nvdeviceid.h"

#include <QEvent>
#include <QList>
#include <QObject>
#include <QSharedPointer>

#include <functional>
#include <map>
#include <set>
#include <vector>

class NdaControl;
class PlotManager;
class QMdiArea;
class QMdiSubWindow;

class ViewManager : public QObject
{
    Q_OBJECT

public:
    using ViewerPtr = QSharedPointer<PacketViewer>;
    using ViewerList = QList<ViewerPtr>;
    using DevicePredicate = std::function<bool(const NvDeviceId&)>;
    using DeviceIdTest = bool (NvDeviceId::*)() const;
    using DelayMap = std::map<NvDeviceId, unsigned>;

    struct ViewOperation
    {
        enum Type
        {
            Open = 0,
            Close = 1,
        };
    };

    class ChangeViewStateEvent : public QEvent
    {
    public:
        static const QEvent::Type eventType;
        ChangeViewStateEvent(ViewType viewType, const NvDeviceId& id, bool open, unsigned delay)
            : QEvent(eventType), m_viewType(viewType), m_id(id), m_open(open), m_delay(delay)
        {
        }
        ViewType viewType() const { return m_viewType; }
        const NvDeviceId& deviceId() const { return m_id; }
        bool open() const { return m_open; }
        unsigned delay() const { return m_delay; }

    private:
        ViewType m_viewType;
        NvDeviceId m_id;
        bool m_open;
        unsigned m_delay;
    };

    ViewManager(NdaControl& control, QMdiArea& mdiArea, QObject* parent = nullptr);
    ~ViewManager() override;

    NdaControl& control() const { return m_control; }
    QMdiArea& mdiArea() const { return m_mdiArea; }
    // The shared display clock and plotting options; a default one unless one was set.
    PlotManager& plotManager() const;
    void setPlotManager(PlotManager* manager);

    // The devices that openViews(type) and toggleViews work on: the user's selection; all
    // open devices when none is set.
    void setDevices(const std::vector<NvDeviceId>& ids);
    std::vector<NvDeviceId> devices() const;

    // ---- Permissions
    void allowView(ViewType type);
    void allowView(ViewType type, DevicePredicate predicate);
    void allowView(ViewType type, DeviceIdTest test);
    bool viewAllowed(const NvDeviceId& id, ViewType type) const;

    // ---- Opening
    void openView(ViewType type, const NvDeviceId& id);
    void openView(const ViewerPtr& viewer);
    void openViews(ViewType type);
    void openViewsLater(ViewType type, const NvDeviceId& id, unsigned delay);
    void openViewsLater(ViewType type, const DelayMap& delays);
    void openViewsLater(const std::map<ViewType, DelayMap>& delays,
                        const std::set<ViewType>& types);
    void changeViewStateLater(ViewType type, const NvDeviceId& id, bool open, unsigned delay);
    QMdiSubWindow* createWindow(QWidget* widget);
    void insertView(const ViewerPtr& viewer);

    // ---- Closing
    void closeViews(ViewType type);
    void closeViews(ViewType type, const NvDeviceId& id);
    void closeViews(const NvDeviceId& id, const std::set<ViewType>& types);
    void closeViews(const std::set<ViewType>& types);
    void closeAndReopenViews(ViewType type);
    void closeAndReopenViews(ViewType type, const NvDeviceId& id);
    void closeAndReopenViews(const NvDeviceId& id, const std::set<ViewType>& types);
    void closeAndReopenViews(const std::set<ViewType>& types);
    void clearViews();
    void clearViews(ViewType type);
    void clearViews(ViewType type, const NvDeviceId& id);
    void clearViews(const NvDeviceId& id);
    void eraseView(ViewType type, const NvDeviceId& id);
    void removeWidget(QWidget* widget);
    void postClosingEvent(ViewType type, const NvDeviceId& id);

    // ---- Queries
    const std::map<NvDeviceId, ViewerList>* lookup(ViewType type) const;
    const ViewerList* lookup(ViewType type, const NvDeviceId& id) const;
    ViewerList findViews(ViewType type) const;
    ViewerList findViews(ViewType type, const NvDeviceId& id) const;
    ViewerList viewList(ViewType type, const NvDeviceId& id) const;
    unsigned viewCountInfo() const;
    unsigned viewCountInfo(ViewType type) const;
    unsigned viewCountInfo(const NvDeviceId& id) const;
    unsigned viewCountInfo(ViewType type, const NvDeviceId& id) const;
    bool isOperationInProgress(ViewOperation::Type op, ViewType type, const NvDeviceId& id) const;
    // The sub-window that shows `viewer` (null when it has none).
    QMdiSubWindow* subWindow(const PacketViewer* viewer) const;

    // ---- Other
    void toggleViews(ViewType type, bool on);
    void autoTileViews();
    bool autoTile() const { return m_autoTile; }
    void setAutoTile(bool on) { m_autoTile = on; }

    bool event(QEvent* e) override;
    bool eventFilter(QObject* watched, QEvent* e) override;

    // Constructs the viewer class of `type` for `id`; null for a value outside the table.
    static ViewerPtr createView(ViewManager& manager, ViewType type, const NvDeviceId& id);

signals:
    void beforeConstructingView(ViewType type, const NvDeviceId& id);
    void afterConstructingView(ViewType type, const NvDeviceId& id);
    void beforeOpeningView(ViewType type, const NvDeviceId& id);
    void afterOpeningView(ViewType type, const NvDeviceId& id);
    void viewTypeCountChanged(ViewType type, unsigned oldCount, unsigned newCount);
    void viewTypeToggled(ViewType type, bool on, const ViewManager::ViewerList& viewers);
    void viewOperationStarted(ViewManager::ViewOperation::Type op, ViewType type,
                              const NvDeviceId& id);
    void viewOperationStarted(ViewManager::ViewOperation::Type op, ViewType type);
    void viewOperationCompleted(ViewManager::ViewOperation::Type op, ViewType type,
                                const NvDeviceId& id);
    void viewOperationCompleted(ViewManager::ViewOperation::Type op, ViewType type);
    // The user closed a view's sub-window (it goes on a later pass).
    void viewClosedByUser(ViewType type, const NvDeviceId& id);

private:
    void beginViewOperation(ViewOperation::Type op, ViewType type, const NvDeviceId& id);
    void endViewOperation(ViewOperation::Type op, ViewType type, const NvDeviceId& id);
    void increaseViewCount(ViewType type);
    void decreaseViewCount(ViewType type, unsigned n);
    // Takes the viewers of (type, id) out of the lists and their sub-windows away.
    ViewerList takeViews(ViewType type, const NvDeviceId& id);
    void destroyViewers(const ViewerList& viewers);
    std::vector<NvDeviceId> allowedDevices(ViewType type) const;

    NdaControl& m_control;
    QMdiArea& m_mdiArea;
    PlotManager* m_plotManager = nullptr;
    PlotManager* m_ownPlotManager = nullptr;
    std::vector<NvDeviceId> m_devices;
    bool m_devicesSet = false;

    std::map<ViewType, std::map<NvDeviceId, ViewerList>> m_views;
    std::map<ViewType, unsigned> m_viewCounts;
    std::map<ViewOperation::Type, std::map<ViewType, std::map<NvDeviceId, unsigned>>> m_operations;
    std::map<ViewType, std::vector<DevicePredicate>> m_permissions;
    std::map<const PacketViewer*, QMdiSubWindow*> m_windows;
    bool m_autoTile = false;
};

Q_DECLARE_METATYPE(ViewManager::ViewerList)
Q_DECLARE_METATYPE(ViewManager::ViewOperation::Type)
