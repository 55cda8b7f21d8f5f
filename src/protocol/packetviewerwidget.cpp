#include "packetviewerwidget.h"

#include "ndacontrol.h"
#include "ndadevice.h"
#include "nvmessagesstructure.h"

#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QTimer>
#include <QToolButton>
#include <QTreeWidget>
#include <QVBoxLayout>

namespace {

QString entryName(const NvMessagesStructure& structures, const std::string& table,
                  const HexByteString& id)
{
    const NvMessageStructure* structure = nullptr;
    if (structures.getStructure(table, id, structure) && structure)
        return structure->description().messageName();
    return {};
}

} // namespace

PacketViewerWidget::PacketViewerWidget(const NvMessagesStructure& structures, NdaControl& control,
                                       const NvDeviceId& id, QWidget* parent)
    : QWidget(parent), m_structures(structures), m_control(control), m_id(id)
{
    setWindowTitle(tr("Packet Viewer - %1").arg(QString::fromStdString(id.toString())));
    m_pauseButton = new QToolButton(this);
    m_pauseButton->setText(tr("Pause"));
    m_pauseButton->setCheckable(true);
    m_status = new QLabel(tr("No packet yet"), this);
    auto* bar = new QHBoxLayout;
    bar->addWidget(m_status, 1);
    bar->addWidget(m_pauseButton);

    m_items = new QTreeWidget(this);
    m_items->setColumnCount(3);
    m_items->setHeaderLabels({tr("Item"), tr("Format"), tr("Value")});
    m_items->setUniformRowHeights(true);
    m_items->header()->setStretchLastSection(true);

    auto* layout = new QVBoxLayout(this);
    layout->addLayout(bar);
    layout->addWidget(m_items, 1);

    m_refreshTimer = new QTimer(this);
    m_refreshTimer->setInterval(RefreshIntervalMs);
    connect(m_refreshTimer, &QTimer::timeout, this, &PacketViewerWidget::refresh);
    m_refreshTimer->start();
    connect(m_pauseButton, &QToolButton::toggled, this, &PacketViewerWidget::setPaused);

    NdaDevice& device = control.requestDevice(id);
    if (&device != &control.getInvalidDevice()) {
        m_device = &device;
        connect(&device, &NdaCallback::postProcessed, this, &PacketViewerWidget::showPacket);
    }
}

PacketViewerWidget::~PacketViewerWidget()
{
    if (m_device)
        m_control.releaseDevice(*m_device);
}

void PacketViewerWidget::setPaused(bool paused)
{
    m_paused = paused;
    if (m_pauseButton->isChecked() != paused)
        m_pauseButton->setChecked(paused);
    m_pauseButton->setText(paused ? tr("Resume") : tr("Pause"));
}

void PacketViewerWidget::showPacket(const NvDataPacket& packet)
{
    if (packet.isEmpty())
        return;
    ++m_received;
    if (m_paused)
        return;
    // A copy owns its bytes, so a borrowed packet stays readable until the next redraw.
    m_latest = packet;
    m_dirty = true;
}

void PacketViewerWidget::refresh()
{
    if (!m_dirty || m_paused)
        return;
    m_dirty = false;
    m_shown = m_latest;

    const NvDecodedMessage decoded = m_structures.decode(m_shown.message());
    m_items->setUpdatesEnabled(false);
    m_items->clear();
    for (size_t i = 0; i < m_shown.itemCount(); ++i) {
        const NvDataPacket::Item& item = m_shown.item(i);
        const uint16_t id = uint16_t(item.id);
        const HexByteString itemId = HexByteString::fromUInt16(uint16_t(id & 0xFFF0));
        QString name = entryName(m_structures, NvMessagesStructure::m_NDITypeString, itemId);
        if (name.isEmpty())
            name = tr("Unknown item %1").arg(HexByteString::fromUInt16(id).toString());

        // Precision and frame matter only for items that carry reals.
        QString format;
        const NvMessageStructure* structure = nullptr;
        if (m_structures.getNDIStructure(itemId, structure) && structure &&
            structure->dataFormatString().find("ndireal") != std::string::npos) {
            format = QStringLiteral("%1 %2").arg(
                entryName(m_structures, NvMessagesStructure::m_NDIFormatTypeString,
                          HexByteString(uint8_t(id & 0x03))),
                entryName(m_structures, NvMessagesStructure::m_NDICoordSysTypeString,
                          HexByteString(uint8_t(id & 0x0C))));
        }

        auto* top = new QTreeWidgetItem(m_items);
        top->setText(0, name);
        top->setText(1, format.trimmed());
        top->setData(0, Qt::UserRole, int(id));
        top->setToolTip(0, tr("Identifier %1, %n byte(s)", nullptr, int(item.size))
                               .arg(HexByteString::fromUInt16(id).toString()));
        QStringList values;
        const size_t begin = item.offset;
        const size_t end = begin + item.size;
        for (const NvDecodedField& field : decoded.fields) {
            if (field.offset < begin || field.offset >= end)
                continue;
            values << field.valueText;
            auto* child = new QTreeWidgetItem(top);
            child->setText(0, field.label.isEmpty() ? field.variable : field.label);
            child->setText(1, field.typeName);
            child->setText(2, field.valueText);
            child->setData(2, Qt::UserRole, field.value);
            child->setToolTip(2, field.bytes.toString());
        }
        top->setText(2, values.join(QStringLiteral(", ")));
        if (values.size() == 1) // a single value needs no row of its own
            top->setData(2, Qt::UserRole, top->child(0)->data(2, Qt::UserRole));
    }
    m_items->expandAll();
    m_items->resizeColumnToContents(0);
    m_items->resizeColumnToContents(1);
    m_items->setUpdatesEnabled(true);
    m_status->setText(
        tr("%n item(s); %1 packets received", nullptr, int(m_shown.itemCount())).arg(m_received));
}
