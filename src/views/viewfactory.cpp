// The viewer class of each view type.
#include "viewmanager.h"

#include "gnssviewers.h"
#include "messageviewers.h"
#include "threedviewer.h"
#include "timeseriesviewers.h"

ViewManager::ViewerPtr ViewManager::createView(ViewManager& manager, ViewType type,
                                               const NvDeviceId& id)
{
    switch (type) {
    case ThreeDView:
        return ViewerPtr(new ThreeDViewer(manager, id, type));
    case InertialView:
        return ViewerPtr(new InertialDataViewer(manager, id, type));
    case OrientationView:
        return ViewerPtr(new OrientationDataViewer(manager, id, type));
    case StatusView:
        return ViewerPtr(new StatusDataViewer(manager, id, type));
    case PositionView:
        return ViewerPtr(new PositionDataViewer(manager, id, type));
    case AltitudeView:
        return ViewerPtr(new AltitudeDataViewer(manager, id, type));
    case PressureView:
        return ViewerPtr(new PressureDataViewer(manager, id, type));
    case VelocityView:
        return ViewerPtr(new VelocityDataViewer(manager, id, type));
    case GnssSatInfoView:
        return ViewerPtr(new GnssSatInfoDataViewer(manager, id, type));
    case UtcDateTimeView:
        return ViewerPtr(new UtcDateTimeViewer(manager, id, type));
    case NdaMessageView:
        return ViewerPtr(new NDAMessageDataViewer(manager, id, type));
    case TemperatureView:
        return ViewerPtr(new TemperatureDataViewer(manager, id, type));
    case DeviceMessageView:
        return ViewerPtr(new DeviceMessageDataViewer(manager, id, type));
    case FreeAccelerationView:
        return ViewerPtr(new FreeAccelerationDataViewer(manager, id, type));
    }
    return nullptr;
}
