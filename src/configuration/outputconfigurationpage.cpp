#include "outputconfigurationpage.h"

#include "ndacontrol.h"
#include "ndadevice.h"
#include "outputconfigurationwidget.h"

#include <QSignalBlocker>
#include <QStackedWidget>
#include <QVBoxLayout>

OutputConfigurationPage::OutputConfigurationPage(NdaDevice& device, QWidget* parent)
    : KvSettingsOptionsPage(device, parent)
{
    setObjectName(QStringLiteral("outputConfigurationPage"));
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    m_stack = new QStackedWidget(this);
    m_stack->setObjectName(QStringLiteral("outputConfigurationStack"));
    layout->addWidget(m_stack);

    addWidget(new OutputConfigurationWidget(device, m_stack));
    setActiveWidget(0);

    connectChangedSignals(this);
    connect(&device, &NdaCallback::deviceStateChange, this,
            &OutputConfigurationPage::handleDeviceStateChanged);
}

void OutputConfigurationPage::addWidget(AbstractOutputConfigurationWidget* widget)
{
    m_widgets.append(widget);
    m_stack->addWidget(widget);
    connect(widget, &AbstractOutputConfigurationWidget::changesSubmitted, this,
            &OutputConfigurationPage::handleChangesSubmitted);
    connect(widget, &AbstractOutputConfigurationWidget::configurationSaved, this,
            &KvSettingsOptionsPage::configurationSaved);
}

QStringList OutputConfigurationPage::sections() const
{
    // Prefixes of the forms' group boxes and of the preset and link controls.
    return {QStringLiteral("group"), QStringLiteral("preset"), QStringLiteral("link")};
}

AbstractOutputConfigurationWidget* OutputConfigurationPage::widgetAt(int index) const
{
    return index >= 0 && index < m_widgets.size() ? m_widgets.at(index) : nullptr;
}

AbstractOutputConfigurationWidget* OutputConfigurationPage::currentWidget() const
{
    return qobject_cast<AbstractOutputConfigurationWidget*>(m_stack->currentWidget());
}

void OutputConfigurationPage::setActiveWidget(int index)
{
    if (AbstractOutputConfigurationWidget* widget = widgetAt(index))
        m_stack->setCurrentWidget(widget);
}

void OutputConfigurationPage::activateWidgetAt(int index)
{
    AbstractOutputConfigurationWidget* widget = widgetAt(index);
    if (!widget)
        return;
    setActiveWidget(index);
    const QSignalBlocker blocker(this);
    widget->updateFromDevice();
}

void OutputConfigurationPage::activateWidget(AbstractOutputConfigurationWidget* widget)
{
    activateWidgetAt(int(m_widgets.indexOf(widget)));
}

NdaDevice& OutputConfigurationPage::liveDevice() const
{
    // The forms let go of a device that has gone away; the page's own reference does not.
    return m_widgets.first()->ndaDevice();
}

void OutputConfigurationPage::setDevice(const NvDeviceId& id)
{
    NdaControl& control = liveDevice().control();
    NdaDevice* target = control.getExistingDevice(id);
    NdaDevice& chosen = target ? *target : control.getInvalidDevice();
    {
        const QSignalBlocker blocker(this);
        for (AbstractOutputConfigurationWidget* widget : std::as_const(m_widgets)) {
            widget->setDevice(chosen);
            widget->setReadOnly(isReadOnly());
        }
    }
    m_keepForm = false;
    setHaveChanges(false);
}

void OutputConfigurationPage::resizeToMinimum()
{
    if (QWidget* widget = currentWidget())
        widget->adjustSize();
    adjustSize();
}

void OutputConfigurationPage::setReadOnly(bool readOnly)
{
    KvSettingsOptionsPage::setReadOnly(readOnly);
    for (AbstractOutputConfigurationWidget* widget : std::as_const(m_widgets))
        widget->setReadOnly(readOnly);
}

void OutputConfigurationPage::handleChangesSubmitted()
{
    setHaveChanges(false);
    emit configurationChangeApplied(liveDevice().deviceId());
}

void OutputConfigurationPage::handleDeviceStateChanged(const NvDeviceId& id,
                                                       NdaDeviceState::Type newState,
                                                       NdaDeviceState::Type oldState)
{
    Q_UNUSED(oldState)
    if (id != liveDevice().deviceId() || newState == NdaDeviceState::Invalid)
        return;
    // A device that went away or started recording must not be written to; the dialog
    // makes the page read-only, the forms also check the device itself.
    for (AbstractOutputConfigurationWidget* widget : std::as_const(m_widgets))
        widget->updateReadOnlyState();
}

void OutputConfigurationPage::doApply()
{
    AbstractOutputConfigurationWidget* widget = currentWidget();
    if (!widget || isReadOnly())
        return;
    m_keepForm = !widget->apply();
}

void OutputConfigurationPage::doUpdateFromDevice()
{
    if (m_keepForm) {
        m_keepForm = false;
        return;
    }
    {
        // Filling the form is not a change of the user's.
        const QSignalBlocker blocker(this);
        for (AbstractOutputConfigurationWidget* widget : std::as_const(m_widgets))
            widget->updateFromDevice();
    }
    setHaveChanges(false);
}
