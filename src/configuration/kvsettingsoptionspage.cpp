#include "kvsettingsoptionspage.h"

#include "ndacontrol.h"
#include "ndadevice.h"

#include <QAbstractButton>
#include <QAbstractSpinBox>
#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QFrame>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QRadioButton>
#include <QSpinBox>

namespace {

// How long a calibration record may take: it is the largest reply a device sends.
constexpr int CalibrationRecordTimeoutMs = 3000;

} // namespace

KvSettingsOptionsPage::KvSettingsOptionsPage(NdaDevice& device, QWidget* parent)
    : AbstractOptionsPage(parent), m_device(device)
{
}

void KvSettingsOptionsPage::loadSettings()
{
    const NvMessage request(NvMessage::BusIdDevice, NvMid::ReqCalibrationRecord,
                            NvByteArray{0x00, 0xFF});
    NvMessage reply;
    // Stations and recordings keep no calibration record.
    if (m_device.isValid() && !m_device.isReadingFromFile() && !m_device.deviceId().isContainer()) {
        // A measuring device answers no requests; the dialog usually paused it already.
        NdaDeviceMeasurementPauser pauser(m_device);
        if (m_device.sendCustomMessage(request, true, reply, CalibrationRecordTimeoutMs) &&
            reply.messageId() == NvMid::CalibrationRecord) {
            storeEkvs(reply);
        } else if (m_device.control().lastResult() != NRV_INVALID_MESSAGE) {
            // A device that refuses the request has no record to show; silence does not.
            QMessageBox::warning(this, tr("Load Settings"),
                                 tr("Settings NOT successfully loaded."));
        }
    }
    doUpdateFromDevice();
}

void KvSettingsOptionsPage::storeEkvs(const NvMessage& reply)
{
    m_ekvs =
        QByteArray(reinterpret_cast<const char*>(reply.data()), static_cast<int>(reply.dataSize()));
}

void KvSettingsOptionsPage::connectChangedSignals(QObject* root)
{
    const QObjectList children = root->children();
    for (QObject* child : children) {
        if (auto* box = qobject_cast<QCheckBox*>(child)) {
            connect(box, &QCheckBox::stateChanged, this,
                    &KvSettingsOptionsPage::configurationChanged);
        } else if (auto* combo = qobject_cast<QComboBox*>(child)) {
            connect(combo, qOverload<int>(&QComboBox::currentIndexChanged), this,
                    &KvSettingsOptionsPage::configurationChanged);
        } else if (auto* radio = qobject_cast<QRadioButton*>(child)) {
            connect(radio, &QRadioButton::toggled, this,
                    &KvSettingsOptionsPage::configurationChanged);
        } else if (auto* edit = qobject_cast<QLineEdit*>(child)) {
            connect(edit, &QLineEdit::textEdited, this,
                    &KvSettingsOptionsPage::configurationChanged);
        } else if (auto* spin = qobject_cast<QSpinBox*>(child)) {
            connect(spin, qOverload<int>(&QSpinBox::valueChanged), this,
                    &KvSettingsOptionsPage::configurationChanged);
        } else if (auto* button = qobject_cast<QPushButton*>(child)) {
            connect(button, &QPushButton::clicked, this,
                    &KvSettingsOptionsPage::configurationChanged);
        } else if (qobject_cast<QFrame*>(child)) {
            connectChangedSignals(child);
        } else if (qobject_cast<QWidget*>(child) && !qobject_cast<QAbstractButton*>(child) &&
                   !qobject_cast<QAbstractSpinBox*>(child)) {
            // Plain containers (group boxes are frames; layouts hold no widgets) are walked too,
            // so a form's nesting does not hide its controls.
            connectChangedSignals(child);
        }
    }
    // Qt cannot make a functor connection unique; a second call only sets the flag twice.
    if (root == this)
        connect(this, &KvSettingsOptionsPage::configurationChanged, this,
                [this] { setHaveChanges(true); });
}

void KvSettingsOptionsPage::setWidgetText(QWidget* widget, double value, char format, int precision)
{
    const QString text = QString::number(value, format, precision);
    if (auto* edit = qobject_cast<QLineEdit*>(widget))
        edit->setText(text);
    else if (auto* spin = qobject_cast<QDoubleSpinBox*>(widget))
        spin->setValue(value);
    else if (auto* ispin = qobject_cast<QSpinBox*>(widget))
        ispin->setValue(static_cast<int>(value));
    else if (auto* label = qobject_cast<QLabel*>(widget))
        label->setText(text);
}

void KvSettingsOptionsPage::setWidgetText(QWidget* widget, unsigned short value, int base)
{
    QString text = QString::number(value, base);
    if (base == 16)
        text = text.toUpper();
    if (auto* edit = qobject_cast<QLineEdit*>(widget))
        edit->setText(text);
    else if (auto* spin = qobject_cast<QSpinBox*>(widget))
        spin->setValue(value);
    else if (auto* label = qobject_cast<QLabel*>(widget))
        label->setText(text);
}

double KvSettingsOptionsPage::widgetText(QWidget* widget, double fallback)
{
    QString text;
    if (auto* edit = qobject_cast<QLineEdit*>(widget))
        text = edit->text();
    else if (auto* spin = qobject_cast<QDoubleSpinBox*>(widget))
        return spin->value();
    else if (auto* ispin = qobject_cast<QSpinBox*>(widget))
        return ispin->value();
    else if (auto* label = qobject_cast<QLabel*>(widget))
        text = label->text();
    bool ok = false;
    const double value = text.trimmed().toDouble(&ok);
    return ok ? value : fallback;
}

QStringList KvSettingsOptionsPage::sections() const
{
    QStringList names;
    for (QObject* child : children())
        if (auto* w = qobject_cast<QWidget*>(child); w && !w->objectName().isEmpty())
            names.append(w->objectName());
    return names;
}

void KvSettingsOptionsPage::applyToSection(const QString& section, QWidget* on, bool value,
                                           bool isVisibility)
{
    QWidget* root = on ? on : this;
    const QList<QWidget*> widgets = root->findChildren<QWidget*>();
    for (QWidget* w : widgets) {
        if (!w->objectName().startsWith(section))
            continue;
        if (isVisibility)
            w->setVisible(value);
        else
            w->setEnabled(value);
    }
}

void KvSettingsOptionsPage::showSection(const QString& section, QWidget* on)
{
    applyToSection(section, on, true, true);
}

void KvSettingsOptionsPage::hideSection(const QString& section, QWidget* on)
{
    applyToSection(section, on, false, true);
}

void KvSettingsOptionsPage::enableSection(const QString& section, QWidget* on)
{
    applyToSection(section, on, true, false);
}

void KvSettingsOptionsPage::disableSection(const QString& section, QWidget* on)
{
    applyToSection(section, on, false, false);
}

void KvSettingsOptionsPage::apply()
{
    doApply();
    doReinitializeDevice();
    doUpdateFromDevice();
}

void KvSettingsOptionsPage::setReadOnly(bool readOnly)
{
    const bool stays = m_readOnly && readOnly;
    m_readOnly = readOnly;
    if (readOnly)
        m_haveChanges = false;
    if (stays)
        return;
    for (const QString& section : sections()) {
        if (readOnly)
            disableSection(section);
        else
            enableSection(section);
    }
}

void KvSettingsOptionsPage::setHaveChanges(bool changes)
{
    m_haveChanges = changes && !m_readOnly;
}

void KvSettingsOptionsPage::doReinitializeDevice()
{
    NdaDeviceMeasurementPauser pauser(m_device);
    m_device.reinitialize();
}
