#pragma once
// What the view tests share: a view manager over an MDI area and a control, and opening an
// emulated device for it.

#include "kvsimharness.h"
#include "ndacontrol.h"
#include "ndadevice.h"
#include "viewmanager.h"

#include <QMdiArea>

namespace viewstest {

struct Harness
{
    QMdiArea area;
    NdaControl control;
    ViewManager views{control, area};

    // Opens the emulator's first port: its device, or null with the reason in the control.
    NdaDevice* open(const kvtest::KvsimProcess& sim)
    {
        NvControl_setReplyTimeout(control.libraryControl(), 5000); // loaded machines
        if (!control.openPort(sim.ports()[0].path, NBR_115200, 0))
            return nullptr;
        return &control.requestDevice(NvDeviceId::fromString(sim.ports()[0].id));
    }
};

} // namespace viewstest
