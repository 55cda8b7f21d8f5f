#include "abstractoutputconfigurationwidget.h"

#include "ndacontrol.h"
#include "ndadevice.h"

AbstractOutputConfigurationWidget::AbstractOutputConfigurationWidget(NdaDevice& device,
                                                                     QWidget* parent)
    : QWidget(parent), m_control(&device.control()), m_device(&device)
{
}

NdaDevice& AbstractOutputConfigurationWidget::ndaDevice() const
{
    // The wrapper belongs to the control, which deletes it when the device goes away.
    return m_device ? *m_device : m_control->getInvalidDevice();
}

void AbstractOutputConfigurationWidget::setDevice(NdaDevice& device)
{
    m_control = &device.control();
    m_device = &device;
    updateNewDevice();
    updateFromDevice();
    emit deviceSwitched(&device);
}

bool AbstractOutputConfigurationWidget::isWritable() const
{
    const NdaDevice& device = ndaDevice();
    return !m_readOnly && device.isValid() && !device.isReadingFromFile();
}

void AbstractOutputConfigurationWidget::setModified(bool modified)
{
    if (m_modified == modified)
        return;
    m_modified = modified;
    emit settingsModified(modified);
}

void AbstractOutputConfigurationWidget::setReadOnly(bool readOnly)
{
    const bool changed = m_readOnly != readOnly;
    m_readOnly = readOnly;
    updateReadOnlyState();
    if (changed)
        emit modeChanged(readOnly);
}

void AbstractOutputConfigurationWidget::applyToSection(const QString& section, bool value,
                                                       bool isVisibility)
{
    if (section.isEmpty()) // would match every widget
        return;
    const QList<QWidget*> widgets = findChildren<QWidget*>();
    for (QWidget* w : widgets) {
        if (!w->objectName().startsWith(section))
            continue;
        if (isVisibility)
            w->setVisible(value);
        else
            w->setEnabled(value);
    }
}

void AbstractOutputConfigurationWidget::showSection(const QString& section)
{
    applyToSection(section, true, true);
}

void AbstractOutputConfigurationWidget::hideSection(const QString& section)
{
    applyToSection(section, false, true);
}

void AbstractOutputConfigurationWidget::enableSection(const QString& section)
{
    applyToSection(section, true, false);
}

void AbstractOutputConfigurationWidget::disableSection(const QString& section)
{
    applyToSection(section, false, false);
}
