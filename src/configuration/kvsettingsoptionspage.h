#pragma once
// The contract of a device settings page: it reads its values from the device, tracks the
// user's changes, and writes them back with measurement paused, followed by a device
// reinitialisation and a re-read. Sections are groups of widgets whose object names begin
// with the section's name; they are shown, hidden, enabled and disabled together.

#include "abstractoptionspage.h"

#include "nvmessage.h"

#include <QByteArray>
#include <QString>

class NdaDevice;
class QWidget;

class KvSettingsOptionsPage : public AbstractOptionsPage
{
    Q_OBJECT

public:
    explicit KvSettingsOptionsPage(NdaDevice& device, QWidget* parent = nullptr);

    NdaDevice& device() const { return m_device; }
    bool haveChanges() const { return m_haveChanges; }
    bool isReadOnly() const { return m_readOnly; }

    // Reads the device's calibration record (0x90 00 FF), then doUpdateFromDevice(); a
    // device that does not answer gets a warning box.
    void loadSettings();
    // Keeps the payload of a calibration record reply.
    void storeEkvs(const NvMessage& reply);
    const QByteArray& calibrationRecord() const { return m_ekvs; }

    // Every check box, combo box, radio button, line edit, spin box and push button under
    // `root` (frames descended into) marks the page changed.
    void connectChangedSignals(QObject* root);

    // Number in a line edit, spin box or label: format 'f'/'e'/'g' with precision, or an
    // unsigned value in `base` (16 gives upper-case hex).
    static void setWidgetText(QWidget* widget, double value, char format, int precision);
    static void setWidgetText(QWidget* widget, unsigned short value, int base);
    // The number a widget holds; `fallback` when it holds none.
    static double widgetText(QWidget* widget, double fallback);

    void showSection(const QString& section, QWidget* on = nullptr);
    void hideSection(const QString& section, QWidget* on = nullptr);
    void enableSection(const QString& section, QWidget* on = nullptr);
    void disableSection(const QString& section, QWidget* on = nullptr);
    // The names of the page's sections (object names of its direct group widgets); pages
    // override it when they name their sections otherwise.
    virtual QStringList sections() const;

public slots:
    // doApply(), then doReinitializeDevice() and doUpdateFromDevice().
    void apply() override;
    virtual void setReadOnly(bool readOnly);
    void setHaveChanges(bool changes = true);

signals:
    void configurationChanged();
    void configurationSaved();

protected:
    virtual void doApply() = 0;
    virtual void doUpdateFromDevice() = 0;
    // Pauses measurement for the scope and reinitialises the device.
    virtual void doReinitializeDevice();

private:
    void applyToSection(const QString& section, QWidget* on, bool visible, bool isVisibility);

    NdaDevice& m_device;
    bool m_haveChanges = false;
    bool m_readOnly = false;
    QByteArray m_ekvs;
};
