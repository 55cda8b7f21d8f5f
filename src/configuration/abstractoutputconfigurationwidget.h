#pragma once
// What the output configuration page needs of a form that edits one device's output: read
// it, write it, say whether it differs from the device, and follow the page's read-only
// state. Sections are groups of widgets whose object names begin with the section's name.

#include "ndametatypes.h"
#include "nvoutputconfiguration.h"

#include <QPointer>
#include <QWidget>

class NdaControl;
class NdaDevice;

class AbstractOutputConfigurationWidget : public QWidget
{
    Q_OBJECT

public:
    explicit AbstractOutputConfigurationWidget(NdaDevice& device, QWidget* parent = nullptr);

    // The device edited; the control's invalid device once it has gone away.
    NdaDevice& ndaDevice() const;
    // Switches to another device and rebuilds what the form offers for it.
    void setDevice(NdaDevice& device);

    bool isModified() const { return m_modified; }
    bool isReadOnly() const { return m_readOnly; }
    // Writable: not read-only, and the device is a live one.
    bool isWritable() const;

    // Writes the form to the device; false when the device refused or did not take all of
    // it (the user has been told). Nothing to write counts as success.
    virtual bool apply() = 0;
    // Shows `config`, or the device's configuration when it is null.
    virtual void updateFromDevice(const NvOutputConfigurationArray* config = nullptr) = 0;
    // True when the form differs from what the device has.
    virtual bool checkForChanges() = 0;
    virtual void selectDefaultConfigurationPreset() {}

    void showSection(const QString& section);
    void hideSection(const QString& section);
    void enableSection(const QString& section);
    void disableSection(const QString& section);

public slots:
    void setModified(bool modified = true);
    void setReadOnly(bool readOnly);
    // Re-applies the read-only state to the controls (the device may have gone away).
    virtual void updateReadOnlyState() {}
    // Rebuilds the offers (rates, presets, visible sections) for the current device.
    virtual void updateNewDevice() {}

signals:
    void configurationChanged();
    void configurationSaved();
    void changesSubmitted();
    void modeChanged(bool readOnly);
    void settingsModified(bool modified);
    void deviceSwitched(NdaDevice* device);

private:
    void applyToSection(const QString& section, bool value, bool isVisibility);

    NdaControl* m_control = nullptr;
    QPointer<NdaDevice> m_device;
    bool m_modified = false;
    bool m_readOnly = false;
};
