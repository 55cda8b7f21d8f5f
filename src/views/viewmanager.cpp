#include "viewmanager.h"

#include "ndacontrol.h"
#include "plotmanager.h"

#include <QCoreApplication>
#include <QMdiArea>
#include <QMdiSubWindow>

#include <algorithm>

const QEvent::Type ViewManager::ChangeViewStateEvent::eventType =
    static_cast<QEvent::Type>(QEvent::registerEventType());

namespace {

// Priorities of the delayed changes: an open goes before a close queued at the same time.
constexpr int OpenPriority = 1;
constexpr int ClosePriority = 0;

// A new sub-window's size when auto-tiling is off.
constexpr QSize DefaultViewSize(640, 420);

} // namespace

ViewManager::ViewManager(NdaControl& control, QMdiArea& mdiArea, QObject* parent)
    : QObject(parent), m_control(control), m_mdiArea(mdiArea)
{
    qRegisterMetaType<ViewType>("ViewType");
    qRegisterMetaType<ViewManager::ViewerList>("ViewManager::ViewerList");
    qRegisterMetaType<ViewManager::ViewOperation::Type>("ViewManager::ViewOperation::Type");
}

ViewManager::~ViewManager()
{
    clearViews();
    delete m_ownPlotManager;
}

PlotManager& ViewManager::plotManager() const
{
    if (m_plotManager)
        return *m_plotManager;
    auto* self = const_cast<ViewManager*>(this);
    if (!self->m_ownPlotManager)
        self->m_ownPlotManager = new PlotManager();
    return *m_ownPlotManager;
}

void ViewManager::setPlotManager(PlotManager* manager)
{
    m_plotManager = manager;
}

void ViewManager::setDevices(const std::vector<NvDeviceId>& ids)
{
    m_devices = ids;
    m_devicesSet = true;
}

std::vector<NvDeviceId> ViewManager::devices() const
{
    if (m_devicesSet && !m_devices.empty())
        return m_devices;
    const NvDeviceIdArray all = m_control.deviceIds();
    return std::vector<NvDeviceId>(all.begin(), all.end());
}

// ---- Permissions

void ViewManager::allowView(ViewType type)
{
    allowView(type, [](const NvDeviceId&) { return true; });
}

void ViewManager::allowView(ViewType type, DevicePredicate predicate)
{
    m_permissions[type].push_back(std::move(predicate));
}

void ViewManager::allowView(ViewType type, DeviceIdTest test)
{
    allowView(type, [test](const NvDeviceId& id) { return (id.*test)(); });
}

bool ViewManager::viewAllowed(const NvDeviceId& id, ViewType type) const
{
    if (isOperationInProgress(ViewOperation::Close, type, id))
        return false;
    const auto it = m_permissions.find(type);
    if (it == m_permissions.end())
        return false;
    return std::any_of(it->second.begin(), it->second.end(),
                       [&id](const DevicePredicate& p) { return p(id); });
}

// ---- Opening

void ViewManager::openView(ViewType type, const NvDeviceId& id)
{
    if (!isValidViewType(type) || !viewAllowed(id, type))
        return;
    beginViewOperation(ViewOperation::Open, type, id);
    emit beforeConstructingView(type, id);
    ViewerPtr viewer = createView(*this, type, id);
    emit afterConstructingView(type, id);
    if (viewer)
        openView(viewer);
    endViewOperation(ViewOperation::Open, type, id);
}

void ViewManager::openView(const ViewerPtr& viewer)
{
    if (!viewer)
        return;
    const ViewType type = viewer->viewType();
    const NvDeviceId id = viewer->viewedDeviceId();
    emit beforeOpeningView(type, id);
    insertView(viewer);
    if (m_autoTile)
        autoTileViews();
    emit afterOpeningView(type, id);
}

void ViewManager::openViews(ViewType type)
{
    for (const NvDeviceId& id : allowedDevices(type))
        if (viewCountInfo(type, id) == 0)
            openView(type, id);
}

void ViewManager::openViewsLater(ViewType type, const NvDeviceId& id, unsigned delay)
{
    QCoreApplication::postEvent(this, new ChangeViewStateEvent(type, id, true, delay),
                                OpenPriority);
}

void ViewManager::openViewsLater(ViewType type, const DelayMap& delays)
{
    for (const auto& [id, delay] : delays)
        openViewsLater(type, id, delay);
}

void ViewManager::openViewsLater(const std::map<ViewType, DelayMap>& delays,
                                 const std::set<ViewType>& types)
{
    for (const auto& [type, perDevice] : delays)
        if (types.count(type))
            openViewsLater(type, perDevice);
}

void ViewManager::changeViewStateLater(ViewType type, const NvDeviceId& id, bool open,
                                       unsigned delay)
{
    QCoreApplication::postEvent(this, new ChangeViewStateEvent(type, id, open, delay),
                                open ? OpenPriority : ClosePriority);
}

QMdiSubWindow* ViewManager::createWindow(QWidget* widget)
{
    QMdiSubWindow* window = m_mdiArea.addSubWindow(widget);
    window->setAttribute(Qt::WA_DeleteOnClose, false);
    window->setWindowTitle(widget->windowTitle());
    window->setWindowIcon(widget->windowIcon());
    window->installEventFilter(this);
    if (!m_autoTile)
        window->resize(DefaultViewSize);
    window->show();
    return window;
}

void ViewManager::insertView(const ViewerPtr& viewer)
{
    const ViewType type = viewer->viewType();
    m_views[type][viewer->viewedDeviceId()].append(viewer);
    if (QWidget* widget = viewer->widget())
        m_windows[viewer.data()] = createWindow(widget);
    increaseViewCount(type);
}

// ---- Closing

void ViewManager::closeViews(ViewType type)
{
    const auto it = m_views.find(type);
    if (it == m_views.end())
        return;
    std::vector<NvDeviceId> ids;
    for (const auto& entry : it->second)
        ids.push_back(entry.first);
    for (const NvDeviceId& id : ids)
        closeViews(type, id);
}

void ViewManager::closeViews(ViewType type, const NvDeviceId& id)
{
    if (viewCountInfo(type, id) == 0 || isOperationInProgress(ViewOperation::Close, type, id))
        return;
    // Out of sight at once; torn down on a later pass.
    for (const ViewerPtr& viewer : viewList(type, id))
        if (QMdiSubWindow* window = subWindow(viewer.data()))
            window->hide();
    postClosingEvent(type, id);
}

void ViewManager::closeViews(const NvDeviceId& id, const std::set<ViewType>& types)
{
    for (ViewType type : types)
        closeViews(type, id);
}

void ViewManager::closeViews(const std::set<ViewType>& types)
{
    for (ViewType type : types)
        closeViews(type);
}

void ViewManager::closeAndReopenViews(ViewType type, const NvDeviceId& id)
{
    if (viewCountInfo(type, id) == 0)
        return;
    beginViewOperation(ViewOperation::Close, type, id);
    eraseView(type, id);
    endViewOperation(ViewOperation::Close, type, id);
    openView(type, id);
}

void ViewManager::closeAndReopenViews(ViewType type)
{
    std::vector<NvDeviceId> ids;
    if (const auto* perDevice = lookup(type))
        for (const auto& entry : *perDevice)
            ids.push_back(entry.first);
    for (const NvDeviceId& id : ids)
        closeAndReopenViews(type, id);
}

void ViewManager::closeAndReopenViews(const NvDeviceId& id, const std::set<ViewType>& types)
{
    for (ViewType type : types)
        closeAndReopenViews(type, id);
}

void ViewManager::closeAndReopenViews(const std::set<ViewType>& types)
{
    for (ViewType type : types)
        closeAndReopenViews(type);
}

void ViewManager::clearViews()
{
    for (int t = 0; t < ViewTypeCount; ++t)
        clearViews(static_cast<ViewType>(t));
}

void ViewManager::clearViews(ViewType type)
{
    std::vector<NvDeviceId> ids;
    if (const auto* perDevice = lookup(type))
        for (const auto& entry : *perDevice)
            ids.push_back(entry.first);
    for (const NvDeviceId& id : ids)
        clearViews(type, id);
}

void ViewManager::clearViews(ViewType type, const NvDeviceId& id)
{
    eraseView(type, id);
}

void ViewManager::clearViews(const NvDeviceId& id)
{
    for (int t = 0; t < ViewTypeCount; ++t)
        clearViews(static_cast<ViewType>(t), id);
}

void ViewManager::eraseView(ViewType type, const NvDeviceId& id)
{
    const ViewerList viewers = takeViews(type, id);
    if (viewers.isEmpty())
        return;
    decreaseViewCount(type, static_cast<unsigned>(viewers.size()));
    destroyViewers(viewers);
}

void ViewManager::removeWidget(QWidget* widget)
{
    if (!widget)
        return;
    for (QMdiSubWindow* window : m_mdiArea.subWindowList())
        if (window->widget() == widget || window == widget) {
            window->removeEventFilter(this);
            m_mdiArea.removeSubWindow(window);
            delete window;
            return;
        }
}

void ViewManager::postClosingEvent(ViewType type, const NvDeviceId& id)
{
    beginViewOperation(ViewOperation::Close, type, id);
    QCoreApplication::postEvent(this, new PacketViewer::ClosingEvent(type, id),
                                Qt::NormalEventPriority);
}

ViewManager::ViewerList ViewManager::takeViews(ViewType type, const NvDeviceId& id)
{
    ViewerList taken;
    const auto it = m_views.find(type);
    if (it == m_views.end())
        return taken;
    const auto found = it->second.find(id);
    if (found == it->second.end())
        return taken;
    taken = found->second;
    it->second.erase(found);
    if (it->second.empty())
        m_views.erase(it);
    return taken;
}

void ViewManager::destroyViewers(const ViewerList& viewers)
{
    for (const ViewerPtr& viewer : viewers) {
        const auto window = m_windows.find(viewer.data());
        if (window != m_windows.end()) {
            QMdiSubWindow* sub = window->second;
            m_windows.erase(window);
            removeWidget(sub);
        }
    }
    // The viewers go with the last reference (a toggle's listener may still hold one).
}

// ---- Queries

const std::map<NvDeviceId, ViewManager::ViewerList>* ViewManager::lookup(ViewType type) const
{
    const auto it = m_views.find(type);
    return it == m_views.end() ? nullptr : &it->second;
}

const ViewManager::ViewerList* ViewManager::lookup(ViewType type, const NvDeviceId& id) const
{
    const auto* perDevice = lookup(type);
    if (!perDevice)
        return nullptr;
    const auto it = perDevice->find(id);
    return it == perDevice->end() ? nullptr : &it->second;
}

ViewManager::ViewerList ViewManager::findViews(ViewType type) const
{
    ViewerList all;
    if (const auto* perDevice = lookup(type))
        for (const auto& entry : *perDevice)
            all += entry.second;
    return all;
}

ViewManager::ViewerList ViewManager::findViews(ViewType type, const NvDeviceId& id) const
{
    return viewList(type, id);
}

ViewManager::ViewerList ViewManager::viewList(ViewType type, const NvDeviceId& id) const
{
    const ViewerList* list = lookup(type, id);
    return list ? *list : ViewerList();
}

unsigned ViewManager::viewCountInfo() const
{
    unsigned n = 0;
    for (const auto& entry : m_viewCounts)
        n += entry.second;
    return n;
}

unsigned ViewManager::viewCountInfo(ViewType type) const
{
    const auto it = m_viewCounts.find(type);
    return it == m_viewCounts.end() ? 0 : it->second;
}

unsigned ViewManager::viewCountInfo(const NvDeviceId& id) const
{
    unsigned n = 0;
    for (int t = 0; t < ViewTypeCount; ++t)
        n += viewCountInfo(static_cast<ViewType>(t), id);
    return n;
}

unsigned ViewManager::viewCountInfo(ViewType type, const NvDeviceId& id) const
{
    const ViewerList* list = lookup(type, id);
    return list ? static_cast<unsigned>(list->size()) : 0;
}

bool ViewManager::isOperationInProgress(ViewOperation::Type op, ViewType type,
                                        const NvDeviceId& id) const
{
    const auto byOp = m_operations.find(op);
    if (byOp == m_operations.end())
        return false;
    const auto byType = byOp->second.find(type);
    if (byType == byOp->second.end())
        return false;
    const auto byId = byType->second.find(id);
    return byId != byType->second.end() && byId->second > 0;
}

QMdiSubWindow* ViewManager::subWindow(const PacketViewer* viewer) const
{
    const auto it = m_windows.find(viewer);
    return it == m_windows.end() ? nullptr : it->second;
}

// ---- Other

void ViewManager::toggleViews(ViewType type, bool on)
{
    ViewerList affected;
    if (on) {
        const std::vector<NvDeviceId> ids = allowedDevices(type);
        for (const NvDeviceId& id : ids)
            if (viewCountInfo(type, id) == 0)
                openView(type, id);
        for (const NvDeviceId& id : ids)
            affected += viewList(type, id);
    } else {
        affected = findViews(type);
        closeViews(type);
    }
    emit viewTypeToggled(type, on, affected);
}

void ViewManager::autoTileViews()
{
    m_mdiArea.tileSubWindows();
}

bool ViewManager::event(QEvent* e)
{
    if (e->type() == ChangeViewStateEvent::eventType) {
        auto* change = static_cast<ChangeViewStateEvent*>(e);
        if (change->delay() > 0) {
            QCoreApplication::postEvent(this,
                                        new ChangeViewStateEvent(change->viewType(),
                                                                 change->deviceId(), change->open(),
                                                                 change->delay() - 1),
                                        change->open() ? OpenPriority : ClosePriority);
        } else if (change->open()) {
            openView(change->viewType(), change->deviceId());
        } else {
            closeViews(change->viewType(), change->deviceId());
        }
        return true;
    }
    if (e->type() == PacketViewer::ClosingEvent::eventType) {
        auto* closing = static_cast<PacketViewer::ClosingEvent*>(e);
        eraseView(closing->viewType(), closing->deviceId());
        endViewOperation(ViewOperation::Close, closing->viewType(), closing->deviceId());
        return true;
    }
    return QObject::event(e);
}

bool ViewManager::eventFilter(QObject* watched, QEvent* e)
{
    if (e->type() == QEvent::Close) {
        // The user closed a view's sub-window: the view goes on a later pass.
        for (const auto& [viewer, window] : m_windows)
            if (window == watched) {
                const ViewType type = viewer->viewType();
                const NvDeviceId id = viewer->viewedDeviceId();
                if (!isOperationInProgress(ViewOperation::Close, type, id)) {
                    emit viewClosedByUser(type, id);
                    postClosingEvent(type, id);
                }
                break;
            }
    }
    return QObject::eventFilter(watched, e);
}

// ---- Private

void ViewManager::beginViewOperation(ViewOperation::Type op, ViewType type, const NvDeviceId& id)
{
    auto& perType = m_operations[op][type];
    const bool firstOfType = perType.empty();
    ++perType[id];
    emit viewOperationStarted(op, type, id);
    // The type-only form marks the first of a run of operations of one kind and type.
    if (firstOfType)
        emit viewOperationStarted(op, type);
}

void ViewManager::endViewOperation(ViewOperation::Type op, ViewType type, const NvDeviceId& id)
{
    auto& perType = m_operations[op][type];
    const auto it = perType.find(id);
    if (it == perType.end())
        return;
    if (--it->second == 0)
        perType.erase(it);
    const bool lastOfType = perType.empty();
    if (lastOfType) {
        m_operations[op].erase(type);
        if (m_operations[op].empty())
            m_operations.erase(op);
    }
    emit viewOperationCompleted(op, type, id);
    if (lastOfType)
        emit viewOperationCompleted(op, type);
}

void ViewManager::increaseViewCount(ViewType type)
{
    const unsigned old = m_viewCounts[type];
    m_viewCounts[type] = old + 1;
    emit viewTypeCountChanged(type, old, old + 1);
}

void ViewManager::decreaseViewCount(ViewType type, unsigned n)
{
    const unsigned old = m_viewCounts[type];
    const unsigned now = n > old ? 0 : old - n;
    m_viewCounts[type] = now;
    emit viewTypeCountChanged(type, old, now);
}

std::vector<NvDeviceId> ViewManager::allowedDevices(ViewType type) const
{
    std::vector<NvDeviceId> ids;
    for (const NvDeviceId& id : devices())
        if (viewAllowed(id, type))
            ids.push_back(id);
    return ids;
}
