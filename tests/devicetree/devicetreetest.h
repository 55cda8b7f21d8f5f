#pragma once
// What the device tree tests share: opening emulated devices and a private settings folder.

#include "kvsimharness.h"
#include "ndacontrol.h"

#include <QCoreApplication>
#include <QSettings>
#include <QTemporaryDir>

#include <string>

namespace devicetreetest {

inline bool openAll(NdaControl& control, const kvtest::KvsimProcess& sim)
{
    NvControl_setReplyTimeout(control.libraryControl(), 5000); // loaded machines
    for (const auto& port : sim.ports())
        if (!control.openPort(port.path, NBR_115200, 0))
            return false;
    return true;
}

using kvtest::idOfKind;

// Settings of the test program go to `folder`, never to the user's.
inline void useSettingsFolder(const QTemporaryDir& folder, const QString& application)
{
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, folder.path());
    QCoreApplication::setOrganizationName(QStringLiteral("KvDeviceTreeTest"));
    QCoreApplication::setApplicationName(application);
}

} // namespace devicetreetest
