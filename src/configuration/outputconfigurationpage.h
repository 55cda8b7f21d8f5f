#pragma once
// The settings page that chooses what a tracker sends in each measurement packet, at which
// rate and in which numeric format. It hosts one or more forms and writes the active one.

#include "kvsettingsoptionspage.h"

#include "ndadevicestate.h"
#include "ndametatypes.h"

#include <QList>

class AbstractOutputConfigurationWidget;
class QStackedWidget;

class OutputConfigurationPage : public KvSettingsOptionsPage
{
    Q_OBJECT

public:
    explicit OutputConfigurationPage(NdaDevice& device, QWidget* parent = nullptr);

    QString name() const override { return QStringLiteral("OutputConfiguration"); }
    QString trName() const override { return tr("Output Configuration"); }
    QString category() const override { return QStringLiteral("Device"); }
    QString trCategory() const override { return tr("Device"); }
    QStringList sections() const override;

    int widgetCount() const { return int(m_widgets.size()); }
    AbstractOutputConfigurationWidget* widgetAt(int index) const;
    AbstractOutputConfigurationWidget* currentWidget() const;
    // Shows the form at `index`.
    void setActiveWidget(int index);
    // Shows the form at `index` with the device's configuration read again.
    void activateWidgetAt(int index);
    void activateWidget(AbstractOutputConfigurationWidget* widget);
    // Points every form at another open device (the invalid one when it is not open).
    void setDevice(const NvDeviceId& id);
    void resizeToMinimum();

public slots:
    void setReadOnly(bool readOnly) override;
    void handleChangesSubmitted();
    void handleDeviceStateChanged(const NvDeviceId& id, NdaDeviceState::Type newState,
                                  NdaDeviceState::Type oldState);

signals:
    void configurationChangeApplied(const NvDeviceId& id);

protected:
    void doApply() override;
    void doUpdateFromDevice() override;
    // The form reinitialises the device itself, inside its write.
    void doReinitializeDevice() override {}

private:
    void addWidget(AbstractOutputConfigurationWidget* widget);
    NdaDevice& liveDevice() const;

    QStackedWidget* m_stack = nullptr;
    QList<AbstractOutputConfigurationWidget*> m_widgets;
    // A write the device refused leaves the user's choice on the form for the re-read that
    // follows every write.
    bool m_keepForm = false;
};
