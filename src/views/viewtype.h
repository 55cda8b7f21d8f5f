#pragma once
// The kinds of data view a device can show, one viewer class each.

#include <QMetaType>
#include <QString>

enum ViewType : int
{
    ThreeDView = 0,
    InertialView = 1,
    OrientationView = 2,
    StatusView = 3,
    PositionView = 4,
    AltitudeView = 5,
    PressureView = 6,
    VelocityView = 7,
    GnssSatInfoView = 8,
    UtcDateTimeView = 9,
    NdaMessageView = 10,
    TemperatureView = 11,
    DeviceMessageView = 12,
    FreeAccelerationView = 13,
};

constexpr int ViewTypeCount = 14;

inline bool isValidViewType(int type)
{
    return type >= 0 && type < ViewTypeCount;
}

// The name shown in window titles and menus ("3D View", "Inertial Data", ...).
QString viewTypeName(ViewType type);

Q_DECLARE_METATYPE(ViewType)
