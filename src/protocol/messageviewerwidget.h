#pragma once

// Every frame exchanged with one device, in the manner of a packet analyser: a bounded
// table, the decoded fields of the selected frame and its bytes.

#include <nvdeviceid.h>
#include <nvmessage.h>

#include <QAbstractTableModel>
#include <QPointer>
#include <QSortFilterProxyModel>
#include <QTime>
#include <QWidget>

#include <deque>
#include <vector>

class NdaControl;
class NdaDevice;
class NvMessagesStructure;
class QComboBox;
class QLabel;
class QPlainTextEdit;
class QTableView;
class QTimer;
class QToolButton;
class QTreeWidget;
class QTreeWidgetItem;

struct MessageViewerFrame
{
    QTime time;
    bool sent = false; // host to device
    NvMessage message;
};

class MessageViewerModel : public QAbstractTableModel
{
    Q_OBJECT
public:
    enum Column
    {
        TimeColumn,
        DirectionColumn,
        BusColumn,
        NameColumn,
        LengthColumn,
        ColumnCount
    };
    enum Role
    {
        MessageIdRole = Qt::UserRole + 1,
        SentRole
    };

    MessageViewerModel(const NvMessagesStructure& structures, size_t capacity,
                       QObject* parent = nullptr);

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

    // Drops the oldest frames beyond the capacity.
    void append(const std::vector<MessageViewerFrame>& frames);
    void clear();
    const MessageViewerFrame& frame(int row) const { return m_frames[size_t(row)]; }
    size_t capacity() const { return m_capacity; }
    QString messageName(uint8_t messageId) const;

private:
    const NvMessagesStructure& m_structures;
    size_t m_capacity;
    std::deque<MessageViewerFrame> m_frames;
    mutable QString m_names[256];
};

class MessageViewerWidget : public QWidget
{
    Q_OBJECT
public:
    enum class Direction
    {
        Both,
        Sent,
        Received
    };
    static constexpr size_t DefaultCapacity = 100000;

    // Reports of every message are switched on while any viewer of `control` is open.
    MessageViewerWidget(const NvMessagesStructure& structures, NdaControl& control,
                        const NvDeviceId& id, QWidget* parent = nullptr,
                        size_t capacity = DefaultCapacity);
    ~MessageViewerWidget() override;

    const NvDeviceId& deviceId() const { return m_id; }

    // -1 shows every message.
    void setMessageFilter(int messageId);
    void setDirectionFilter(Direction direction);
    bool isPaused() const { return m_paused; }
    // Frames that came while paused (shown on resume).
    int pausedCount() const { return int(m_held.size()); }
    // The rows the table shows, oldest first.
    int shownCount() const;
    const MessageViewerFrame& shownFrame(int row) const;
    void selectShownRow(int row);
    // The decoded lines of the shown frames (".bin": their raw bytes); false with a reason.
    bool saveToFile(const QString& path, QString* error = nullptr) const;
    // One line per frame as saved: time, direction, bus, name, length, decoded fields.
    QString frameLine(const MessageViewerFrame& frame) const;

    QTableView* tableView() const { return m_table; }
    QTreeWidget* fieldTree() const { return m_fields; }
    QPlainTextEdit* hexView() const { return m_hex; }
    MessageViewerModel* model() const { return m_model; }

public slots:
    void setPaused(bool paused);
    void clear();
    void save(); // asks for a file

signals:
    void pausedCountChanged(int count);

private:
    void onMessage(const NvDeviceId& id, const NvMessage& message, bool sent);
    void flushPending();
    void showSelected();
    void highlightSelectedField();
    void updateStatus();

    const NvMessagesStructure& m_structures;
    NdaControl& m_control;
    NvDeviceId m_id;
    QPointer<NdaDevice> m_device;

    MessageViewerModel* m_model;
    class FilterModel;
    FilterModel* m_filter;
    QTableView* m_table;
    QTreeWidget* m_fields;
    QPlainTextEdit* m_hex;
    QComboBox* m_messageCombo;
    QComboBox* m_directionCombo;
    QToolButton* m_pauseButton;
    QLabel* m_status;
    QTimer* m_flushTimer;

    bool m_paused = false;
    std::vector<MessageViewerFrame> m_pending; // batched for one insert
    std::deque<MessageViewerFrame> m_held;     // while paused
    NvMessage m_selected;
};
