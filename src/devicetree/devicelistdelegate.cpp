#include "devicelistdelegate.h"

#include "devicemodel.h"

#include <QApplication>
#include <QComboBox>
#include <QLineEdit>
#include <QMenu>
#include <QPainter>
#include <QStyle>

namespace {

QStyle* styleOf(const QStyleOptionViewItem& option)
{
    return option.widget ? option.widget->style() : QApplication::style();
}

void drawComboFrame(QPainter* painter, const QStyleOptionViewItem& option, const QString& text,
                    bool withLabel)
{
    QStyleOptionComboBox combo;
    combo.rect = option.rect;
    combo.state = option.state | QStyle::State_Enabled;
    combo.currentText = text;
    combo.editable = false;
    combo.frame = true;
    QStyle* style = styleOf(option);
    style->drawComplexControl(QStyle::CC_ComboBox, &combo, painter, option.widget);
    if (withLabel)
        style->drawControl(QStyle::CE_ComboBoxLabel, &combo, painter, option.widget);
}

} // namespace

DeviceListDelegate::DeviceListDelegate(QObject* parent) : QItemDelegate(parent) {}

DeviceListTreeItem::Type DeviceListDelegate::getDeviceListTreeItemType(const QModelIndex& index)
{
    return DeviceListTreeItem::Type(index.data(DeviceModel::TypeRole).toInt());
}

QStyleOptionProgressBar DeviceListDelegate::batteryBarOption(const QStyleOptionViewItem& option,
                                                             const QVariant& value)
{
    QStyleOptionProgressBar bar;
    bar.rect = option.rect.adjusted(1, 1, -1, -1);
    bar.state = option.state | QStyle::State_Horizontal;
    bar.minimum = 0;
    bar.maximum = 100;
    bar.textVisible = true;
    const int level = value.toInt();
    if (level > 100) {
        bar.progress = 0;
        bar.text = tr("N/A");
    } else {
        bar.progress = level;
        bar.text = value.toString() + QLatin1Char('%');
    }
    return bar;
}

void DeviceListDelegate::paint(QPainter* painter, const QStyleOptionViewItem& option,
                               const QModelIndex& index) const
{
    if (index.column() != DeviceModel::ValueColumn) {
        QItemDelegate::paint(painter, option, index);
        return;
    }
    const QVariant value = index.data(Qt::DisplayRole);
    switch (getDeviceListTreeItemType(index)) {
    case DeviceListTreeItem::Enumeration:
    case DeviceListTreeItem::EditableEnumeration:
        drawComboFrame(painter, option, value.toString(), true);
        break;
    case DeviceListTreeItem::BatteryLevel: {
        const QStyleOptionProgressBar bar = batteryBarOption(option, value);
        styleOf(option)->drawControl(QStyle::CE_ProgressBar, &bar, painter, option.widget);
        break;
    }
    case DeviceListTreeItem::Boolean:
        drawComboFrame(painter, option, value.toBool() ? tr("Enabled") : tr("Disabled"), true);
        break;
    case DeviceListTreeItem::FilterScenario:
        drawComboFrame(painter, option, QString(), false);
        QItemDelegate::paint(painter, option, index);
        break;
    default:
        QItemDelegate::paint(painter, option, index);
        break;
    }
}

QWidget* DeviceListDelegate::createEditor(QWidget* parent, const QStyleOptionViewItem&,
                                          const QModelIndex& index) const
{
    switch (getDeviceListTreeItemType(index)) {
    case DeviceListTreeItem::Enumeration:
    case DeviceListTreeItem::EditableEnumeration: {
        auto* combo = new QComboBox(parent);
        for (const QVariant& choice : index.data(DeviceModel::EnumItemsRole).toList())
            combo->addItem(choice.toString(), choice);
        connect(combo, &QComboBox::currentIndexChanged, this, &DeviceListDelegate::emitCommitData);
        return combo;
    }
    case DeviceListTreeItem::Boolean: {
        auto* combo = new QComboBox(parent);
        combo->addItem(tr("Enabled"), true);
        combo->addItem(tr("Disabled"), false);
        connect(combo, &QComboBox::currentIndexChanged, this, &DeviceListDelegate::emitCommitData);
        return combo;
    }
    case DeviceListTreeItem::FilterScenario:
        emit scenarioDialogRequested(index);
        return nullptr;
    default: {
        auto* edit = new QLineEdit(parent);
        connect(edit, &QLineEdit::textEdited, this, &DeviceListDelegate::emitCommitData);
        return edit;
    }
    }
}

void DeviceListDelegate::setEditorData(QWidget* editor, const QModelIndex& index) const
{
    const QVariant value = index.data(Qt::DisplayRole);
    if (auto* combo = qobject_cast<QComboBox*>(editor)) {
        const QSignalBlocker blocker(combo);
        for (int i = 0; i < combo->count(); ++i)
            if (combo->itemData(i) == value) {
                combo->setCurrentIndex(i);
                break;
            }
    } else if (auto* edit = qobject_cast<QLineEdit*>(editor)) {
        edit->setText(value.toString());
    }
}

void DeviceListDelegate::setModelData(QWidget* editor, QAbstractItemModel* model,
                                      const QModelIndex& index) const
{
    if (auto* combo = qobject_cast<QComboBox*>(editor))
        model->setData(index, combo->currentData());
    else if (auto* edit = qobject_cast<QLineEdit*>(editor))
        model->setData(index, edit->text());
}

void DeviceListDelegate::updateEditorGeometry(QWidget* editor, const QStyleOptionViewItem& option,
                                              const QModelIndex&) const
{
    editor->setGeometry(option.rect);
}

QMenu* DeviceListDelegate::contextMenuFor(const QModelIndex& index)
{
    const auto* model = qobject_cast<const DeviceModel*>(index.model());
    if (!model)
        return nullptr;
    for (QModelIndex at = index; at.isValid(); at = at.parent())
        if (QMenu* menu = model->contextMenu(at))
            return menu;
    return nullptr;
}

void DeviceListDelegate::showContextMenu(const QModelIndex& index, const QPoint& globalPos) const
{
    QMenu* menu = contextMenuFor(index);
    if (!menu)
        return;
    menu->setAttribute(Qt::WA_DeleteOnClose);
    menu->exec(globalPos);
}

void DeviceListDelegate::emitCommitData()
{
    if (auto* editor = qobject_cast<QWidget*>(sender()))
        emit commitData(editor);
}
