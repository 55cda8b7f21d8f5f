#pragma once

#include <QtPlugin>

// A plug-in object that keeps settings of its own. The application calls loadSettings
// once after loading the plug-ins and saveSettings when its main window closes.
class SettingsSynchronizer
{
public:
    virtual ~SettingsSynchronizer() = default;
    virtual void loadSettings() = 0;
    virtual void saveSettings() = 0;
};

#define SettingsSynchronizer_iid "com.nivra.KvManager.SettingsSynchronizer/1.0"
Q_DECLARE_INTERFACE(SettingsSynchronizer, SettingsSynchronizer_iid)
