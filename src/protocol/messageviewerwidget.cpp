#include "messageviewerwidget.h"

#include "ndacontrol.h"
#include "ndadevice.h"
#include "nvmessagesstructure.h"

#include <nvcontrol.h>

#include <QComboBox>
#include <QFileDialog>
#include <QFontDatabase>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QSaveFile>
#include <QScrollBar>
#include <QSplitter>
#include <QTableView>
#include <QTextStream>
#include <QTimer>
#include <QToolButton>
#include <QTreeWidget>
#include <QVBoxLayout>

#include <map>

namespace {

constexpr int OffsetRole = Qt::UserRole + 1;
constexpr int SizeRole = Qt::UserRole + 2;
constexpr int BytesPerLine = 16;
// "0000  " + 16 x "XX " + " " + 16 characters
constexpr int HexColumnStart = 6;
constexpr int LineLength = HexColumnStart + 3 * BytesPerLine + 1 + BytesPerLine;

// Message reports cost the library a copy of every frame, so they are on only while
// someone looks; the state found before the first viewer comes back after the last.
struct ReportState
{
    int viewers = 0;
    bool wasOn = false;
};
std::map<NdaControl*, ReportState>& reportStates()
{
    static std::map<NdaControl*, ReportState> states;
    return states;
}

void acquireReports(NdaControl& control)
{
    ReportState& state = reportStates()[&control];
    if (state.viewers++ == 0) {
        state.wasOn = (NvControl_options(control.libraryControl()) & NVO_REPORT_MESSAGES) != 0;
        control.setOptionEnabled(NVO_REPORT_MESSAGES, true);
    }
}

void releaseReports(NdaControl& control)
{
    auto it = reportStates().find(&control);
    if (it == reportStates().end())
        return;
    if (--it->second.viewers == 0) {
        if (!it->second.wasOn)
            control.setOptionEnabled(NVO_REPORT_MESSAGES, false);
        reportStates().erase(it);
    }
}

QString hexDump(const NvMessage& message)
{
    QString out;
    const size_t size = message.frameSize();
    const uint8_t* bytes = message.frame();
    for (size_t line = 0; line * BytesPerLine < size; ++line) {
        QString text = QStringLiteral("%1  ").arg(line * BytesPerLine, 4, 16, QLatin1Char('0'));
        QString ascii;
        for (size_t col = 0; col < BytesPerLine; ++col) {
            const size_t i = line * BytesPerLine + col;
            if (i < size) {
                text += QStringLiteral("%1 ").arg(bytes[i], 2, 16, QLatin1Char('0'));
                ascii += (bytes[i] >= 0x20 && bytes[i] < 0x7F) ? QChar(bytes[i]) : QChar('.');
            } else {
                text += QStringLiteral("   ");
            }
        }
        if (line > 0)
            out += QLatin1Char('\n');
        out += text.toUpper() + QLatin1Char(' ') + ascii;
    }
    return out;
}

} // namespace

// ---------------------------------------------------------------------------------------

MessageViewerModel::MessageViewerModel(const NvMessagesStructure& structures, size_t capacity,
                                       QObject* parent)
    : QAbstractTableModel(parent), m_structures(structures),
      m_capacity(std::max<size_t>(capacity, 1))
{
}

int MessageViewerModel::rowCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : int(m_frames.size());
}

int MessageViewerModel::columnCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : ColumnCount;
}

QString MessageViewerModel::messageName(uint8_t messageId) const
{
    QString& name = m_names[messageId];
    if (name.isEmpty()) {
        const NvMessageStructure* structure = nullptr;
        if (m_structures.getMIDStructure(HexByteString(messageId), structure) && structure)
            name = structure->description().messageName();
        if (name.isEmpty())
            name = QStringLiteral("Unknown (MID: %1)").arg(HexByteString(messageId).toString());
    }
    return name;
}

QVariant MessageViewerModel::data(const QModelIndex& index, int role) const
{
    if (!index.isValid() || index.row() >= rowCount())
        return {};
    const MessageViewerFrame& f = m_frames[size_t(index.row())];
    if (role == MessageIdRole)
        return int(f.message.messageId());
    if (role == SentRole)
        return f.sent;
    if (role == Qt::ToolTipRole && index.column() == DirectionColumn)
        return f.sent ? tr("Sent to the device") : tr("Received from the device");
    if (role == Qt::TextAlignmentRole && index.column() != NameColumn)
        return int(Qt::AlignCenter);
    if (role != Qt::DisplayRole)
        return {};
    switch (index.column()) {
    case TimeColumn:
        return f.time.toString(QStringLiteral("HH:mm:ss.zzz"));
    case DirectionColumn:
        return f.sent ? QStringLiteral("→") : QStringLiteral("←");
    case BusColumn:
        return HexByteString(f.message.busId()).toString();
    case NameColumn:
        return messageName(f.message.messageId());
    case LengthColumn:
        return qulonglong(f.message.dataSize());
    default:
        return {};
    }
}

QVariant MessageViewerModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole)
        return QAbstractTableModel::headerData(section, orientation, role);
    switch (section) {
    case TimeColumn:
        return tr("Time");
    case DirectionColumn:
        return tr("Dir");
    case BusColumn:
        return tr("Bus");
    case NameColumn:
        return tr("Message");
    case LengthColumn:
        return tr("Length");
    default:
        return {};
    }
}

void MessageViewerModel::append(const std::vector<MessageViewerFrame>& frames)
{
    if (frames.empty())
        return;
    // Only the newest `capacity` of the batch can stay.
    const size_t take = std::min(frames.size(), m_capacity);
    const size_t excess =
        m_frames.size() + take > m_capacity ? m_frames.size() + take - m_capacity : 0;
    if (excess > 0) {
        beginRemoveRows({}, 0, int(excess) - 1);
        m_frames.erase(m_frames.begin(), m_frames.begin() + long(excess));
        endRemoveRows();
    }
    beginInsertRows({}, int(m_frames.size()), int(m_frames.size() + take) - 1);
    m_frames.insert(m_frames.end(), frames.end() - long(take), frames.end());
    endInsertRows();
}

void MessageViewerModel::clear()
{
    beginResetModel();
    m_frames.clear();
    endResetModel();
}

// ---------------------------------------------------------------------------------------

class MessageViewerWidget::FilterModel : public QSortFilterProxyModel
{
public:
    using QSortFilterProxyModel::QSortFilterProxyModel;

    void setMessageId(int id)
    {
        m_messageId = id;
        invalidateFilter();
    }
    void setDirection(Direction direction)
    {
        m_direction = direction;
        invalidateFilter();
    }

protected:
    bool filterAcceptsRow(int row, const QModelIndex& parent) const override
    {
        const QModelIndex index = sourceModel()->index(row, 0, parent);
        if (m_messageId >= 0 &&
            index.data(MessageViewerModel::MessageIdRole).toInt() != m_messageId)
            return false;
        if (m_direction == Direction::Both)
            return true;
        return index.data(MessageViewerModel::SentRole).toBool() ==
               (m_direction == Direction::Sent);
    }

private:
    int m_messageId = -1;
    Direction m_direction = Direction::Both;
};

MessageViewerWidget::MessageViewerWidget(const NvMessagesStructure& structures, NdaControl& control,
                                         const NvDeviceId& id, QWidget* parent, size_t capacity)
    : QWidget(parent), m_structures(structures), m_control(control), m_id(id)
{
    setWindowTitle(tr("Message Viewer - %1").arg(QString::fromStdString(id.toString())));
    m_model = new MessageViewerModel(structures, capacity, this);
    m_filter = new FilterModel(this);
    m_filter->setSourceModel(m_model);

    // Tool bar: filters, pause, clear, save.
    m_messageCombo = new QComboBox(this);
    m_messageCombo->addItem(tr("All messages"), -1);
    if (const NvMessagesStructure::Table* mids =
            structures.table(NvMessagesStructure::m_MIDTypeString)) {
        for (const auto& entry : *mids) {
            uint8_t mid = 0;
            if (entry.first.byteCount() == 1 && entry.first.toUInt8(mid))
                m_messageCombo->addItem(entry.second.listEntryText(), int(mid));
        }
    }
    m_messageCombo->setEditable(true);
    m_messageCombo->setInsertPolicy(QComboBox::NoInsert);
    m_directionCombo = new QComboBox(this);
    m_directionCombo->addItem(tr("Both directions"), int(Direction::Both));
    m_directionCombo->addItem(tr("→ Sent to device"), int(Direction::Sent));
    m_directionCombo->addItem(tr("← Received from device"), int(Direction::Received));
    m_pauseButton = new QToolButton(this);
    m_pauseButton->setText(tr("Pause"));
    m_pauseButton->setCheckable(true);
    auto* clearButton = new QToolButton(this);
    clearButton->setText(tr("Clear"));
    auto* saveButton = new QToolButton(this);
    saveButton->setText(tr("Save..."));
    m_status = new QLabel(this);

    auto* bar = new QHBoxLayout;
    bar->addWidget(new QLabel(tr("Message:"), this));
    bar->addWidget(m_messageCombo, 1);
    bar->addWidget(m_directionCombo);
    bar->addWidget(m_pauseButton);
    bar->addWidget(clearButton);
    bar->addWidget(saveButton);

    m_table = new QTableView(this);
    m_table->setModel(m_filter);
    m_table->setSelectionBehavior(QAbstractItemView::SelectRows);
    m_table->setSelectionMode(QAbstractItemView::SingleSelection);
    m_table->verticalHeader()->hide();
    m_table->verticalHeader()->setDefaultSectionSize(fontMetrics().height() + 4);
    m_table->horizontalHeader()->setStretchLastSection(true);
    m_table->horizontalHeader()->setSectionResizeMode(MessageViewerModel::NameColumn,
                                                      QHeaderView::Stretch);
    m_table->setWordWrap(false);

    m_fields = new QTreeWidget(this);
    m_fields->setColumnCount(3);
    m_fields->setHeaderLabels({tr("Field"), tr("Type"), tr("Value")});
    m_fields->setUniformRowHeights(true);

    m_hex = new QPlainTextEdit(this);
    m_hex->setReadOnly(true);
    m_hex->setLineWrapMode(QPlainTextEdit::NoWrap);
    m_hex->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));

    auto* details = new QSplitter(Qt::Vertical, this);
    details->addWidget(m_fields);
    details->addWidget(m_hex);
    auto* split = new QSplitter(Qt::Horizontal, this);
    split->addWidget(m_table);
    split->addWidget(details);
    split->setStretchFactor(0, 3);
    split->setStretchFactor(1, 2);

    auto* layout = new QVBoxLayout(this);
    layout->addLayout(bar);
    layout->addWidget(split, 1);
    layout->addWidget(m_status);

    m_flushTimer = new QTimer(this);
    m_flushTimer->setSingleShot(true);
    m_flushTimer->setInterval(50);
    connect(m_flushTimer, &QTimer::timeout, this, &MessageViewerWidget::flushPending);

    connect(m_messageCombo, qOverload<int>(&QComboBox::activated), this,
            [this](int index) { setMessageFilter(m_messageCombo->itemData(index).toInt()); });
    connect(m_directionCombo, qOverload<int>(&QComboBox::currentIndexChanged), this,
            [this](int index) {
                setDirectionFilter(Direction(m_directionCombo->itemData(index).toInt()));
            });
    connect(m_pauseButton, &QToolButton::toggled, this, &MessageViewerWidget::setPaused);
    connect(clearButton, &QToolButton::clicked, this, &MessageViewerWidget::clear);
    connect(saveButton, &QToolButton::clicked, this, &MessageViewerWidget::save);
    connect(m_table->selectionModel(), &QItemSelectionModel::currentRowChanged, this,
            &MessageViewerWidget::showSelected);
    connect(m_fields, &QTreeWidget::currentItemChanged, this,
            &MessageViewerWidget::highlightSelectedField);

    NdaDevice& device = control.requestDevice(id);
    if (&device != &control.getInvalidDevice()) {
        m_device = &device;
        connect(&device, &NdaCallback::messageReceivedFromDevice, this,
                [this](const NvDeviceId& from, const NvMessage& m) { onMessage(from, m, false); });
        connect(&device, &NdaCallback::messageSentToDevice, this,
                [this](const NvDeviceId& from, const NvMessage& m) { onMessage(from, m, true); });
    }
    acquireReports(m_control);
    updateStatus();
}

MessageViewerWidget::~MessageViewerWidget()
{
    releaseReports(m_control);
    // A wrapper deleted with its device took our reference with it.
    if (m_device)
        m_control.releaseDevice(*m_device);
}

void MessageViewerWidget::onMessage(const NvDeviceId& id, const NvMessage& message, bool sent)
{
    if (id != m_id || message.isEmpty())
        return;
    MessageViewerFrame frame{QTime::currentTime(), sent, message};
    if (m_paused) {
        m_held.push_back(std::move(frame));
        if (m_held.size() > m_model->capacity())
            m_held.pop_front();
        emit pausedCountChanged(pausedCount());
        updateStatus();
        return;
    }
    m_pending.push_back(std::move(frame));
    if (!m_flushTimer->isActive())
        m_flushTimer->start();
}

void MessageViewerWidget::flushPending()
{
    if (m_pending.empty())
        return;
    // Follow the newest row unless the user scrolled away from it.
    QScrollBar* bar = m_table->verticalScrollBar();
    const bool follow = bar->value() >= bar->maximum();
    std::vector<MessageViewerFrame> frames;
    frames.swap(m_pending);
    m_model->append(frames);
    if (follow)
        m_table->scrollToBottom();
    updateStatus();
}

void MessageViewerWidget::setPaused(bool paused)
{
    if (paused == m_paused)
        return;
    if (paused)
        flushPending();
    m_paused = paused;
    if (m_pauseButton->isChecked() != paused)
        m_pauseButton->setChecked(paused);
    m_pauseButton->setText(paused ? tr("Resume") : tr("Pause"));
    if (!paused && !m_held.empty()) {
        m_pending.insert(m_pending.end(), m_held.begin(), m_held.end());
        m_held.clear();
        flushPending();
        emit pausedCountChanged(0);
    }
    updateStatus();
}

void MessageViewerWidget::clear()
{
    m_pending.clear();
    m_held.clear();
    m_model->clear();
    m_fields->clear();
    m_hex->clear();
    m_selected = NvMessage();
    updateStatus();
}

void MessageViewerWidget::setMessageFilter(int messageId)
{
    m_filter->setMessageId(messageId);
    const int index = m_messageCombo->findData(messageId);
    if (index >= 0 && index != m_messageCombo->currentIndex())
        m_messageCombo->setCurrentIndex(index);
    updateStatus();
}

void MessageViewerWidget::setDirectionFilter(Direction direction)
{
    m_filter->setDirection(direction);
    const int index = m_directionCombo->findData(int(direction));
    if (index >= 0 && index != m_directionCombo->currentIndex())
        m_directionCombo->setCurrentIndex(index);
    updateStatus();
}

int MessageViewerWidget::shownCount() const
{
    return m_filter->rowCount();
}

const MessageViewerFrame& MessageViewerWidget::shownFrame(int row) const
{
    return m_model->frame(m_filter->mapToSource(m_filter->index(row, 0)).row());
}

void MessageViewerWidget::selectShownRow(int row)
{
    m_table->setCurrentIndex(m_filter->index(row, 0));
}

void MessageViewerWidget::updateStatus()
{
    QString text = tr("%1 of %2 frames shown").arg(shownCount()).arg(m_model->rowCount());
    if (m_paused)
        text += tr("; paused, %n new frame(s) waiting", nullptr, pausedCount());
    m_status->setText(text);
}

void MessageViewerWidget::showSelected()
{
    m_fields->clear();
    m_hex->clear();
    const QModelIndex current = m_table->currentIndex();
    if (!current.isValid()) {
        m_selected = NvMessage();
        return;
    }
    const MessageViewerFrame& frame = m_model->frame(m_filter->mapToSource(current).row());
    m_selected = frame.message;
    const NvDecodedMessage decoded = m_structures.decode(frame.message);
    const size_t header = NvMessage::headerSizeFor(frame.message.dataSize());

    auto* root = new QTreeWidgetItem(m_fields);
    root->setText(0, decoded.description.isEmpty() ? decoded.name : decoded.description);
    root->setText(
        1, QStringLiteral("MID %1").arg(HexByteString(frame.message.messageId()).toString()));
    root->setText(2, tr("%1, bus %2, %n data byte(s)", nullptr, int(frame.message.dataSize()))
                         .arg(frame.sent ? tr("sent") : tr("received"),
                              HexByteString(frame.message.busId()).toString()));
    root->setToolTip(0, decoded.text);
    root->setData(0, OffsetRole, 0);
    root->setData(0, SizeRole, int(frame.message.frameSize()));

    QTreeWidgetItem* groupItem = nullptr;
    QString group;
    for (const NvDecodedField& field : decoded.fields) {
        QTreeWidgetItem* parentItem = root;
        if (!field.group.isEmpty()) {
            if (!groupItem || field.group != group) {
                group = field.group;
                groupItem = new QTreeWidgetItem(root);
                groupItem->setText(0, group);
                groupItem->setData(0, OffsetRole, int(header + field.offset));
                groupItem->setData(0, SizeRole, 0);
            }
            parentItem = groupItem;
            // The group spans its fields.
            const int start = groupItem->data(0, OffsetRole).toInt();
            const int end = int(header + field.offset + field.bytes.byteCount());
            groupItem->setData(0, SizeRole,
                               std::max(groupItem->data(0, SizeRole).toInt(), end - start));
        } else {
            groupItem = nullptr;
        }
        auto* item = new QTreeWidgetItem(parentItem);
        item->setText(0, field.label.isEmpty() ? field.variable : field.label);
        item->setText(1, field.typeName);
        item->setText(2, field.valueText);
        const QString tip =
            tr("%1\nvariable: %2\noffset %3, %n byte(s): %4", nullptr, int(field.bytes.byteCount()))
                .arg(field.text, field.variable)
                .arg(field.offset)
                .arg(field.bytes.toString());
        for (int c = 0; c < 3; ++c)
            item->setToolTip(c, tip);
        item->setData(0, OffsetRole, int(header + field.offset));
        item->setData(0, SizeRole, int(field.bytes.byteCount()));
    }
    m_fields->expandAll();
    for (int c = 0; c < 3; ++c)
        m_fields->resizeColumnToContents(c);
    m_hex->setPlainText(hexDump(frame.message));
}

void MessageViewerWidget::highlightSelectedField()
{
    QList<QTextEdit::ExtraSelection> selections;
    QTreeWidgetItem* item = m_fields->currentItem();
    if (item && item->parent()) { // the root spans the whole frame: nothing to point at
        const int offset = item->data(0, OffsetRole).toInt();
        const int size = item->data(0, SizeRole).toInt();
        QTextCharFormat format;
        format.setBackground(palette().highlight());
        format.setForeground(palette().highlightedText());
        for (int i = offset; i < offset + size && i < int(m_selected.frameSize()); ++i) {
            QTextEdit::ExtraSelection selection;
            QTextCursor cursor(m_hex->document());
            const int position =
                (i / BytesPerLine) * (LineLength + 1) + HexColumnStart + 3 * (i % BytesPerLine);
            cursor.setPosition(position);
            cursor.setPosition(position + 2, QTextCursor::KeepAnchor);
            selection.cursor = cursor;
            selection.format = format;
            selections.append(selection);
        }
    }
    m_hex->setExtraSelections(selections);
}

QString MessageViewerWidget::frameLine(const MessageViewerFrame& frame) const
{
    const NvDecodedMessage decoded = m_structures.decode(frame.message);
    QString line = QStringLiteral("%1\t%2\t%3\t%4\t%5")
                       .arg(frame.time.toString(QStringLiteral("HH:mm:ss.zzz")),
                            frame.sent ? QStringLiteral("->") : QStringLiteral("<-"),
                            HexByteString(frame.message.busId()).toString(),
                            m_model->messageName(frame.message.messageId()))
                       .arg(frame.message.dataSize());
    if (!decoded.text.isEmpty())
        line += QLatin1Char('\t') + decoded.text;
    return line;
}

bool MessageViewerWidget::saveToFile(const QString& path, QString* error) const
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        if (error)
            *error = file.errorString();
        return false;
    }
    const bool raw = path.endsWith(QLatin1String(".bin"), Qt::CaseInsensitive);
    const int count = shownCount();
    if (raw) {
        for (int row = 0; row < count; ++row) {
            const NvMessage& message = shownFrame(row).message;
            file.write(reinterpret_cast<const char*>(message.frame()), qint64(message.frameSize()));
        }
    } else {
        QTextStream stream(&file);
        for (int row = 0; row < count; ++row)
            stream << frameLine(shownFrame(row)) << '\n';
        stream.flush();
    }
    // The old file stays as it was unless everything was written.
    if (!file.commit()) {
        if (error)
            *error = file.errorString();
        return false;
    }
    return true;
}

void MessageViewerWidget::save()
{
    const QString path = QFileDialog::getSaveFileName(
        this, tr("Save Messages"), QString(),
        tr("Decoded text (*.txt);;Raw capture (*.bin);;All files (*)"));
    if (path.isEmpty())
        return;
    QString error;
    if (!saveToFile(path, &error))
        QMessageBox::warning(this, tr("Save Messages"),
                             tr("The messages could not be saved to %1:\n%2").arg(path, error));
}
