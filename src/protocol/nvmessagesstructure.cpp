#include "nvmessagesstructure.h"

#include "nvmessagedataeditor.h"

#include <nvmessage.h>

#include <QComboBox>
#include <QCoreApplication>
#include <QFile>
#include <QFormLayout>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QVBoxLayout>

#include <charconv>
#include <cmath>
#include <cstring>
#include <fstream>
#include <limits>
#include <sstream>

const char* const NvMessagesStructure::m_MIDTypeString = "mid";
const char* const NvMessagesStructure::m_NDITypeString = "ndi";
const char* const NvMessagesStructure::m_NDIFormatTypeString = "ndi_format";
const char* const NvMessagesStructure::m_NDICoordSysTypeString = "ndi_coord";
const char* const NvMessagesStructure::m_MessagesStructureFileName = "messages_structure.txt";

namespace {

// Nested item decodes and nested formats: a structure file may refer to itself.
constexpr int kMaxDecodeDepth = 8;
constexpr int kMaxFormatDepth = 32;

const char* const kNoData = "<no data>";
const char* const kBadSize = "<bad size>";

std::string trimmed(const std::string& text)
{
    const auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos)
        return {};
    const auto last = text.find_last_not_of(" \t\r\n");
    return text.substr(first, last - first + 1);
}

QString fromStd(const std::string& text)
{
    return QString::fromStdString(text);
}

QString shortest(double value)
{
    return QString::number(value, 'g', QLocale::FloatingPointShortest);
}

QString shortest(float value)
{
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    return QString::fromLatin1(buffer, int(result.ptr - buffer));
}

void writeText(std::ostream& stream, const QString& text)
{
    stream << text.toStdString();
}

} // namespace

// ---- NvMessageSymbolTable ------------------------------------------------------------

void NvMessageSymbolTable::setVariableValue(const std::string& name, const HexByteString& bytes)
{
    m_variables[name] = bytes;
}

bool NvMessageSymbolTable::getVariableValue(const std::string& name, HexByteString& bytes) const
{
    const auto it = m_variables.find(name);
    if (it == m_variables.end())
        return false;
    bytes = it->second;
    return true;
}

void NvMessageSymbolTable::clear()
{
    m_variables.clear();
    m_ndiInfo = NDIInfo();
}

// ---- NvMessageDataEditor -------------------------------------------------------------

NvMessageDataEditor::NvMessageDataEditor(const HexByteString& data, QWidget* parent)
    : QWidget(parent), m_data(data)
{
}

void NvMessageDataEditor::replaceBytes(size_t offset, const HexByteString& bytes)
{
    if (m_data.subString(offset, bytes.byteCount()) == bytes)
        return;
    m_data.setSubString(offset, bytes);
    emit dataEdited(m_data);
}

namespace NvMessageDataFormat {

GenerationInfo::GenerationInfo(const NvMessagesStructure& structures_, const HexByteString& data_)
    : structures(structures_), data(data_)
{
}

// ---- Type ----------------------------------------------------------------------------

void Type::add(const TypePtr&) {}

bool Type::containsType(const std::string&, GenerationInfo&) const
{
    return false;
}

bool Type::hasDataField(GenerationInfo&) const
{
    return false;
}

size_t Type::determineSize(GenerationInfo&) const
{
    return 0;
}

bool Type::determineData(GenerationInfo&, size_t, HexByteString&) const
{
    return false;
}

void Type::generateString(GenerationInfo&, const HexByteString& bytes, std::ostream& stream) const
{
    writeText(stream, bytes.toString());
}

QWidget* Type::generateWidget(GenerationInfo&, QWidget*, QWidget*, size_t) const
{
    return nullptr;
}

void Type::generateNameValue(GenerationInfo&, const QString& name, const QString& value,
                             std::ostream& stream) const
{
    writeText(stream, name.isEmpty() ? value : QStringLiteral("%1: %2").arg(name, value));
}

// ---- Set and Tuple -------------------------------------------------------------------

bool Set::containsType(const std::string& typeName, GenerationInfo& info) const
{
    return m_child && m_child->containsType(typeName, info);
}

bool Set::hasDataField(GenerationInfo& info) const
{
    return m_child && m_child->hasDataField(info);
}

QString Set::generateTypeName(GenerationInfo&) const
{
    return QStringLiteral("Set");
}

void Set::generateHumanReadableString(GenerationInfo& info, std::ostream& stream) const
{
    if (info.remaining() == 0 || !m_child) {
        stream << kNoData;
        info.problems = true;
        return;
    }
    stream << '{';
    bool first = true;
    while (info.remaining() > 0) {
        if (!first)
            stream << ", ";
        first = false;
        const size_t before = info.position;
        m_child->generateHumanReadableString(info, stream);
        if (info.position == before)
            break; // the child cannot take what is left
    }
    stream << '}';
}

QWidget* Set::generateEditWidget(GenerationInfo& info, QWidget* parent, QWidget* widgetParent) const
{
    auto* box = new QWidget(widgetParent);
    auto* layout = new QVBoxLayout(box);
    layout->setContentsMargins(0, 0, 0, 0);
    while (m_child && info.remaining() > 0) {
        const size_t before = info.position;
        if (QWidget* widget = m_child->generateEditWidget(info, parent, box))
            layout->addWidget(widget);
        if (info.position == before)
            break;
    }
    return box;
}

bool Tuple::containsType(const std::string& typeName, GenerationInfo& info) const
{
    for (const TypePtr& child : m_children)
        if (child->containsType(typeName, info))
            return true;
    return false;
}

bool Tuple::hasDataField(GenerationInfo& info) const
{
    for (const TypePtr& child : m_children)
        if (child->hasDataField(info))
            return true;
    return false;
}

QString Tuple::generateTypeName(GenerationInfo&) const
{
    return QStringLiteral("Tuple");
}

void Tuple::generateHumanReadableString(GenerationInfo& info, std::ostream& stream) const
{
    if (info.remaining() == 0) {
        stream << kNoData;
        info.problems = true;
        return;
    }
    stream << '(';
    for (size_t i = 0; i < m_children.size(); ++i) {
        if (i > 0) {
            if (info.remaining() == 0)
                break; // optional trailing fields
            stream << ", ";
        }
        m_children[i]->generateHumanReadableString(info, stream);
    }
    stream << ')';
}

QWidget* Tuple::generateEditWidget(GenerationInfo& info, QWidget* parent,
                                   QWidget* widgetParent) const
{
    auto* box = new QGroupBox(widgetParent);
    box->setFlat(true);
    auto* layout = new QVBoxLayout(box);
    layout->setContentsMargins(4, 2, 0, 2);
    for (size_t i = 0; i < m_children.size(); ++i) {
        if (i > 0 && info.remaining() == 0)
            break;
        if (QWidget* widget = m_children[i]->generateEditWidget(info, parent, box))
            layout->addWidget(widget);
    }
    return box;
}

// ---- Field ---------------------------------------------------------------------------

Field::Field(std::string sizeText, NameWithArgs type, std::string variable, std::string label)
    : m_sizeText(std::move(sizeText)), m_type(std::move(type)), m_variable(std::move(variable)),
      m_label(std::move(label))
{
}

bool Field::containsType(const std::string& typeName, GenerationInfo&) const
{
    return m_type.name == typeName;
}

bool Field::hasDataField(GenerationInfo&) const
{
    return true;
}

size_t Field::determineSize(GenerationInfo& info) const
{
    if (m_sizeText == "*")
        return info.remaining();
    const char* begin = m_sizeText.data();
    const char* end = begin + m_sizeText.size();
    uint32_t number = 0;
    const auto result = std::from_chars(begin, end, number);
    if (result.ec == std::errc() && result.ptr == end)
        return number;
    HexByteString bytes;
    if (!info.symbols.getVariableValue(m_sizeText, bytes) || bytes.byteCount() == 0 ||
        bytes.byteCount() > 8)
        return 0;
    uint64_t size = 0;
    for (uint8_t byte : bytes.toIntegers())
        size = size << 8 | byte;
    return size > std::numeric_limits<uint32_t>::max() ? 0 : size_t(size);
}

QString Field::generateTypeName(GenerationInfo& info) const
{
    return info.structures.hasTable(m_type.name) ? QStringLiteral("Enum") : QStringLiteral("Bytes");
}

void Field::generateHumanReadableString(GenerationInfo& info, std::ostream& stream) const
{
    const size_t size = determineSize(info);
    QString problem;
    if (size == 0)
        problem = QString::fromLatin1(kBadSize);
    else if (info.remaining() < size)
        problem = m_label.empty() ? QString::fromLatin1(kNoData)
                                  : QStringLiteral("<no data (possible: %1, %2 bytes)>")
                                        .arg(fromStd(m_label))
                                        .arg(size);
    if (!problem.isEmpty()) {
        info.problems = true;
        writeText(stream, problem);
        record(info, info.position, {}, problem, {}, problem);
        return;
    }
    HexByteString bytes;
    if (determineData(info, size, bytes))
        generateString(info, bytes, stream);
}

bool Field::determineData(GenerationInfo& info, size_t size, HexByteString& bytes) const
{
    if (info.remaining() < size)
        return false;
    bytes = info.data.subString(info.position, size);
    if (!m_variable.empty())
        info.symbols.setVariableValue(m_variable, bytes);
    info.position += size;
    return true;
}

void Field::generateString(GenerationInfo& info, const HexByteString& bytes,
                           std::ostream& stream) const
{
    QString valueText;
    QVariant value;
    if (!formatValue(info, bytes, valueText, value)) {
        const NvMessageStructure* entry = nullptr;
        if (info.structures.getStructure(m_type.name, bytes, entry))
            valueText = entry->description().messageName();
        else
            valueText = bytes.toString();
        value = QVariant();
    }
    std::ostringstream text;
    generateNameValue(info, fromStd(m_label), valueText, text);
    stream << text.str();
    record(info, info.position - bytes.byteCount(), bytes, valueText, value,
           QString::fromStdString(text.str()));
}

bool Field::formatValue(GenerationInfo&, const HexByteString&, QString&, QVariant&) const
{
    return false;
}

const Field* Field::valueParser(GenerationInfo&) const
{
    return this;
}

bool Field::parseValue(const QString& text, size_t size, HexByteString& bytes) const
{
    HexByteString parsed(text);
    parsed.normalize();
    if (parsed.byteCount() != size)
        return false;
    bytes = parsed;
    return true;
}

void Field::record(GenerationInfo& info, size_t offset, const HexByteString& bytes,
                   const QString& valueText, const QVariant& value, const QString& text) const
{
    if (!info.fields)
        return;
    NvDecodedField field;
    field.label = fromStd(m_label);
    field.variable = fromStd(m_variable);
    field.typeName = generateTypeName(info);
    field.group = info.group;
    field.offset = info.baseOffset + offset;
    field.bytes = bytes;
    field.value = value;
    field.valueText = valueText;
    field.text = text;
    info.fields->push_back(field);
}

QWidget* Field::generateEditWidget(GenerationInfo& info, QWidget* parent,
                                   QWidget* widgetParent) const
{
    const size_t size = determineSize(info);
    if (size == 0 || info.remaining() < size) {
        auto* label = new QLabel(widgetParent);
        label->setText(QStringLiteral("%1: %2").arg(
            fromStd(m_label), QString::fromLatin1(size == 0 ? kBadSize : kNoData)));
        return label;
    }
    return generateWidget(info, parent, widgetParent, size);
}

QWidget* Field::generateWidget(GenerationInfo& info, QWidget*, QWidget* widgetParent,
                               size_t size) const
{
    const size_t offset = info.baseOffset + info.position;
    HexByteString bytes;
    if (!determineData(info, size, bytes))
        return nullptr;
    QString valueText;
    QVariant value;
    const bool formatted = formatValue(info, bytes, valueText, value);
    if (!formatted)
        valueText = bytes.toString();

    auto* row = new QWidget(widgetParent);
    auto* layout = new QFormLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);
    const QString typeName = generateTypeName(info);
    const QString label = m_label.empty() ? typeName : fromStd(m_label);
    NvMessageDataEditor* editor = info.editor;

    // A look-up table offers its entries of the field's width.
    const NvMessagesStructure::Table* table =
        formatted ? nullptr : info.structures.table(m_type.name);
    if (table) {
        auto* combo = new QComboBox(row);
        combo->setObjectName(fromStd(m_variable));
        combo->setToolTip(typeName);
        for (const auto& entry : *table)
            if (entry.first.byteCount() == size)
                combo->addItem(entry.second.description().messageName(),
                               QVariant::fromValue(entry.first));
        int current = combo->findData(QVariant::fromValue(bytes));
        if (current < 0) {
            combo->addItem(bytes.toString(), QVariant::fromValue(bytes));
            current = combo->count() - 1;
        }
        combo->setCurrentIndex(current);
        layout->addRow(label, combo);
        if (editor)
            QObject::connect(combo, &QComboBox::activated, editor, [combo, editor, offset](int i) {
                editor->replaceBytes(offset, combo->itemData(i).value<HexByteString>());
            });
        else
            combo->setEnabled(false);
        return row;
    }

    auto* edit = new QLineEdit(valueText, row);
    edit->setObjectName(fromStd(m_variable));
    edit->setToolTip(typeName);
    layout->addRow(label, edit);
    const Field* parser = valueParser(info);
    if (editor && parser) {
        QObject::connect(edit, &QLineEdit::editingFinished, editor,
                         [parser, edit, editor, offset, size, lastGood = valueText]() mutable {
                             HexByteString newBytes;
                             if (parser->parseValue(edit->text().trimmed(), size, newBytes)) {
                                 lastGood = edit->text();
                                 editor->replaceBytes(offset, newBytes);
                             } else {
                                 edit->setText(lastGood);
                             }
                         });
    } else {
        edit->setReadOnly(true);
    }
    return row;
}

// ---- Concrete fields -----------------------------------------------------------------

QString SizeField::generateTypeName(GenerationInfo&) const
{
    return QStringLiteral("Size");
}

bool SizeField::formatValue(GenerationInfo&, const HexByteString& bytes, QString& text,
                            QVariant& value) const
{
    if (bytes.byteCount() == 0 || bytes.byteCount() > 8)
        return false;
    uint64_t number = 0;
    for (uint8_t byte : bytes.toIntegers())
        number = number << 8 | byte;
    text = QString::number(number);
    value = QVariant::fromValue<qulonglong>(number);
    return true;
}

bool SizeField::parseValue(const QString& text, size_t size, HexByteString& bytes) const
{
    bool ok = false;
    const qulonglong number = text.toULongLong(&ok);
    if (!ok || size > 8 || (size < 8 && number >> (8 * size)))
        return false;
    bytes = HexByteString::fromUInt(number, size);
    return true;
}

QString NDIField::generateTypeName(GenerationInfo&) const
{
    return QStringLiteral("NDI");
}

bool NDIField::determineData(GenerationInfo& info, size_t size, HexByteString& bytes) const
{
    if (!Field::determineData(info, size, bytes))
        return false;
    NDIInfo ndi;
    uint16_t id = 0;
    if (bytes.toUInt16(id)) {
        const auto& s = info.structures;
        s.getNDIStructure(HexByteString::fromUInt16(uint16_t(id & 0xFFF0)), ndi.dataItem);
        s.getNDIFormatStructure(HexByteString::fromUInt8(uint8_t(id & 0x03)), ndi.numberFormat);
        s.getNDICoordStructure(HexByteString::fromUInt8(uint8_t(id & 0x0C)), ndi.coordinateSystem);
        ndi.set = true;
    }
    info.symbols.setNDIInfo(ndi);
    return true;
}

bool NDIField::formatValue(GenerationInfo& info, const HexByteString& bytes, QString& text,
                           QVariant& value) const
{
    uint16_t id = 0;
    if (!bytes.toUInt16(id))
        return false;
    const NDIInfo& ndi = info.symbols.getNDIInfo();
    value = uint(id);
    if (!ndi.set || !ndi.dataItem) {
        text = QStringLiteral("Unknown (%1)").arg(bytes.toString());
        return true;
    }
    text = ndi.dataItem->description().messageName();
    // Format and frame mean something only for items made of reals.
    const auto& format = ndi.dataItem->dataFormat();
    if (format && format->containsType("ndireal", info)) {
        const QString precision =
            ndi.numberFormat ? ndi.numberFormat->description().messageName() : QStringLiteral("?");
        const QString frame = ndi.coordinateSystem
                                  ? ndi.coordinateSystem->description().messageName()
                                  : QStringLiteral("?");
        text += QStringLiteral(" (%1, %2)").arg(precision, frame);
    }
    return true;
}

QString NDIDataField::generateTypeName(GenerationInfo&) const
{
    return QStringLiteral("NDI Data");
}

void NDIDataField::generateString(GenerationInfo& info, const HexByteString& bytes,
                                  std::ostream& stream) const
{
    const NDIInfo ndi = info.symbols.getNDIInfo();
    if (!ndi.set || !ndi.dataItem || !ndi.dataItem->dataFormat() || info.depth >= kMaxDecodeDepth) {
        Field::generateString(info, bytes, stream);
        return;
    }
    GenerationInfo item(info.structures, bytes);
    item.symbols.setNDIInfo(ndi);
    item.fields = info.fields;
    item.group = ndi.dataItem->description().messageName();
    item.baseOffset = info.baseOffset + info.position - bytes.byteCount();
    item.depth = info.depth + 1;
    std::ostringstream text;
    ndi.dataItem->dataFormat()->generateHumanReadableString(item, text);
    if (!item.problems && item.position < bytes.byteCount()) {
        // Bytes the item's format does not describe are shown, not hidden.
        text << " + " << bytes.subString(item.position).toString().toStdString();
    }
    info.problems = info.problems || item.problems;
    generateNameValue(info, fromStd(m_label), QString::fromStdString(text.str()), stream);
}

QWidget* NDIDataField::generateWidget(GenerationInfo& info, QWidget* parent, QWidget* widgetParent,
                                      size_t size) const
{
    const NDIInfo ndi = info.symbols.getNDIInfo();
    if (!ndi.set || !ndi.dataItem || !ndi.dataItem->dataFormat() || info.depth >= kMaxDecodeDepth)
        return Field::generateWidget(info, parent, widgetParent, size);
    const size_t offset = info.baseOffset + info.position;
    HexByteString bytes;
    if (!determineData(info, size, bytes))
        return nullptr;
    GenerationInfo item(info.structures, bytes);
    item.symbols.setNDIInfo(ndi);
    item.editor = info.editor;
    item.baseOffset = offset;
    item.depth = info.depth + 1;
    return ndi.dataItem->dataFormat()->generateEditWidget(item, parent, widgetParent);
}

const Field* NDIRealField::numberFormatField(GenerationInfo& info) const
{
    const NDIInfo& ndi = info.symbols.getNDIInfo();
    if (!ndi.set || !ndi.numberFormat)
        return nullptr;
    const Field* field = dynamic_cast<const Field*>(ndi.numberFormat->dataFormat().get());
    // A number format that is itself an item reference would never end.
    if (!field || dynamic_cast<const NDIRealField*>(field) ||
        dynamic_cast<const NDIDataField*>(field))
        return nullptr;
    return field;
}

size_t NDIRealField::determineSize(GenerationInfo& info) const
{
    const Field* field = numberFormatField(info);
    return field ? field->determineSize(info) : 0;
}

QString NDIRealField::generateTypeName(GenerationInfo&) const
{
    return QStringLiteral("NDI Real");
}

bool NDIRealField::formatValue(GenerationInfo& info, const HexByteString& bytes, QString& text,
                               QVariant& value) const
{
    const Field* field = numberFormatField(info);
    return field && field->formatValue(info, bytes, text, value);
}

const Field* NDIRealField::valueParser(GenerationInfo& info) const
{
    return numberFormatField(info);
}

IntegerField::IntegerField(std::string sizeText, NameWithArgs type, std::string variable,
                           std::string label, int width, bool isSigned)
    : Field(std::move(sizeText), std::move(type), std::move(variable), std::move(label)),
      m_width(width), m_signed(isSigned)
{
}

QString IntegerField::generateTypeName(GenerationInfo&) const
{
    return QStringLiteral("%1Int%2")
        .arg(m_signed ? QString() : QStringLiteral("U"))
        .arg(m_width * 8);
}

bool IntegerField::formatValue(GenerationInfo&, const HexByteString& bytes, QString& text,
                               QVariant& value) const
{
    if (bytes.byteCount() < size_t(m_width))
        return false;
    const HexByteString head = bytes.subString(0, size_t(m_width));
    qlonglong number = 0;
    if (m_signed) {
        int32_t v;
        if (!head.toInt(v))
            return false;
        number = v;
    } else {
        uint32_t v;
        if (!head.toUInt(v))
            return false;
        number = v;
    }
    const QString unit = m_type.args.size() > 1 ? fromStd(m_type.args[1]) : QString();
    bool scaled = false;
    double scale = 1.0;
    if (!m_type.args.empty() && !m_type.args[0].empty())
        scale = QString::fromStdString(m_type.args[0]).toDouble(&scaled);
    if (scaled) {
        const double real = double(number) * scale;
        value = real;
        text = shortest(real);
    } else {
        value = number;
        text = QString::number(number);
    }
    if (!unit.isEmpty())
        text += QLatin1Char(' ') + unit;
    return true;
}

bool IntegerField::parseValue(const QString& input, size_t size, HexByteString& bytes) const
{
    QString text = input;
    if (m_type.args.size() > 1 && text.endsWith(fromStd(m_type.args[1])))
        text.chop(int(m_type.args[1].size()));
    bool ok = false;
    double number = text.trimmed().toDouble(&ok);
    if (!ok)
        return false;
    bool scaled = false;
    if (!m_type.args.empty()) {
        const double scale = QString::fromStdString(m_type.args[0]).toDouble(&scaled);
        if (scaled && scale != 0)
            number /= scale;
    }
    const double rounded = std::nearbyint(number);
    const double span = std::ldexp(1.0, m_width * 8);
    const double low = m_signed ? -span / 2 : 0;
    const double high = m_signed ? span / 2 - 1 : span - 1;
    if (!(rounded >= low && rounded <= high) || size < size_t(m_width))
        return false;
    const HexByteString head = HexByteString::fromUInt(uint64_t(int64_t(rounded)), size_t(m_width));
    bytes = head + HexByteString::fromZeroes(size - size_t(m_width));
    return true;
}

FloatField::FloatField(std::string sizeText, NameWithArgs type, std::string variable,
                       std::string label, Format format)
    : Field(std::move(sizeText), std::move(type), std::move(variable), std::move(label)),
      m_format(format)
{
}

size_t FloatField::width() const
{
    switch (m_format) {
    case Format::Float32:
    case Format::Fp1220:
        return 4;
    case Format::Fp1632:
        return 6;
    case Format::Float64:
        return 8;
    }
    return 4;
}

QString FloatField::generateTypeName(GenerationInfo&) const
{
    switch (m_format) {
    case Format::Float32:
        return QStringLiteral("Float32");
    case Format::Float64:
        return QStringLiteral("Float64");
    case Format::Fp1220:
        return QStringLiteral("Fp1220");
    case Format::Fp1632:
        return QStringLiteral("Fp1632");
    }
    return {};
}

bool FloatField::formatValue(GenerationInfo&, const HexByteString& bytes, QString& text,
                             QVariant& value) const
{
    double number = 0;
    bool ok = false;
    switch (m_format) {
    case Format::Float32:
        ok = bytes.toFloat32(number);
        if (ok)
            text = shortest(float(number));
        break;
    case Format::Float64:
        ok = bytes.toFloat64(number);
        break;
    case Format::Fp1220:
        ok = bytes.toFp1220(number);
        break;
    case Format::Fp1632:
        ok = bytes.toFp1632(number);
        break;
    }
    if (!ok)
        return false;
    if (m_format != Format::Float32)
        text = shortest(number);
    if (!m_type.args.empty() && !m_type.args[0].empty())
        text += QLatin1Char(' ') + fromStd(m_type.args[0]); // the unit
    value = number;
    return true;
}

bool FloatField::parseValue(const QString& input, size_t size, HexByteString& bytes) const
{
    QString text = input;
    if (!m_type.args.empty() && text.endsWith(fromStd(m_type.args[0])))
        text.chop(int(m_type.args[0].size()));
    bool ok = false;
    const double number = text.trimmed().toDouble(&ok);
    if (!ok || size < width())
        return false;
    HexByteString head;
    switch (m_format) {
    case Format::Float32:
        head = HexByteString::fromFloat32(number);
        break;
    case Format::Float64:
        head = HexByteString::fromFloat64(number);
        break;
    case Format::Fp1220:
        head = HexByteString::fromFp1220(number);
        break;
    case Format::Fp1632:
        head = HexByteString::fromFp1632(number);
        break;
    }
    bytes = head + HexByteString::fromZeroes(size - width());
    return true;
}

GenericBitField::GenericBitField(std::string sizeText, NameWithArgs type, std::string variable,
                                 std::string label, int width)
    : Field(std::move(sizeText), std::move(type), std::move(variable), std::move(label)),
      m_width(width)
{
}

QString GenericBitField::generateTypeName(GenerationInfo&) const
{
    return QStringLiteral("BitField%1").arg(m_width * 8);
}

bool GenericBitField::formatValue(GenerationInfo&, const HexByteString& bytes, QString& text,
                                  QVariant& value) const
{
    QString bits;
    if (!bytes.toBitString(size_t(m_width), bits))
        return false;
    uint32_t mask = 0;
    bytes.subString(0, size_t(m_width)).toUInt(mask);
    QStringList names;
    for (size_t bit = 0; bit < m_type.args.size() && bit < size_t(m_width * 8); ++bit)
        if ((mask >> bit) & 1 && !m_type.args[bit].empty())
            names << fromStd(m_type.args[bit]);
    text = names.isEmpty() ? bits : QStringLiteral("%1 (%2)").arg(bits, names.join(" | "));
    value = mask;
    return true;
}

QString NullField::generateTypeName(GenerationInfo&) const
{
    return QStringLiteral("Null");
}

bool NullField::formatValue(GenerationInfo&, const HexByteString& bytes, QString& text,
                            QVariant& value) const
{
    text = bytes.toString();
    value = QVariant();
    return true;
}

HexField::HexField(std::string sizeText, NameWithArgs type, std::string variable, std::string label,
                   int width)
    : Field(std::move(sizeText), std::move(type), std::move(variable), std::move(label)),
      m_width(width)
{
}

QString HexField::generateTypeName(GenerationInfo&) const
{
    return QStringLiteral("Hex%1").arg(m_width * 8);
}

bool HexField::formatValue(GenerationInfo&, const HexByteString& bytes, QString& text,
                           QVariant& value) const
{
    bool ok = false;
    switch (m_width) {
    case 1:
        ok = bytes.toHex8(text);
        break;
    case 2:
        ok = bytes.toHex16(text);
        break;
    case 4:
        ok = bytes.toHex32(text);
        break;
    default:
        ok = bytes.toHex64(text);
        break;
    }
    if (ok) {
        uint64_t number = 0;
        const HexByteString head = bytes.subString(0, size_t(m_width));
        for (uint8_t byte : head.toIntegers())
            number = number << 8 | byte;
        value = QVariant::fromValue<qulonglong>(number);
    }
    return ok;
}

bool HexField::parseValue(const QString& input, size_t size, HexByteString& bytes) const
{
    QString text = input.trimmed();
    if (text.startsWith(QLatin1String("0x"), Qt::CaseInsensitive))
        text = text.mid(2);
    QString rest;
    HexByteString digits;
    if (!digits.parseString(text, rest) || digits.toDenseString().size() > m_width * 2 ||
        size < size_t(m_width))
        return false;
    const QString padded = digits.toDenseString().rightJustified(m_width * 2, QLatin1Char('0'));
    bytes = HexByteString(padded) + HexByteString::fromZeroes(size - size_t(m_width));
    return true;
}

QString AsciiField::generateTypeName(GenerationInfo&) const
{
    return QStringLiteral("Ascii");
}

bool AsciiField::formatValue(GenerationInfo&, const HexByteString& bytes, QString& text,
                             QVariant& value) const
{
    text = bytes.toAscii(true, true);
    value = text;
    return true;
}

bool AsciiField::parseValue(const QString& text, size_t size, HexByteString& bytes) const
{
    bytes = HexByteString::fromAscii(text, int(size));
    return true;
}

// ---- ParseError ----------------------------------------------------------------------

ParseError::ParseError(std::string fileName, int lineNumber, long long streamPosition)
    : m_fileName(std::move(fileName)), m_lineNumber(lineNumber), m_streamPosition(streamPosition)
{
}

QString ParseError::generateTypeName(GenerationInfo&) const
{
    return QStringLiteral("ParseError");
}

void ParseError::generateHumanReadableString(GenerationInfo& info, std::ostream& stream) const
{
    info.problems = true;
    // No closing bracket: the text is known in this form.
    stream << "<parse error @ " << m_fileName << ':' << m_lineNumber;
}

QWidget* ParseError::generateEditWidget(GenerationInfo&, QWidget*, QWidget*) const
{
    return nullptr;
}

namespace {

template <typename T>
TypePtr makeFieldOf(std::string& s, NameWithArgs& t, std::string& v, std::string& l)
{
    return std::make_shared<T>(std::move(s), std::move(t), std::move(v), std::move(l));
}

using FieldMaker = TypePtr (*)(std::string&, NameWithArgs&, std::string&, std::string&);

const std::map<std::string, FieldMaker>& fieldMakers()
{
    static const std::map<std::string, FieldMaker> makers{
        {"size", &makeFieldOf<SizeField>},       {"ndi", &makeFieldOf<NDIField>},
        {"ndidata", &makeFieldOf<NDIDataField>}, {"ndireal", &makeFieldOf<NDIRealField>},
        {"uint8", &makeFieldOf<UInt8Field>},     {"uint16", &makeFieldOf<UInt16Field>},
        {"uint32", &makeFieldOf<UInt32Field>},   {"int8", &makeFieldOf<Int8Field>},
        {"int16", &makeFieldOf<Int16Field>},     {"int32", &makeFieldOf<Int32Field>},
        {"float32", &makeFieldOf<Float32Field>}, {"float64", &makeFieldOf<Float64Field>},
        {"fp1220", &makeFieldOf<Fp1220Field>},   {"fp1632", &makeFieldOf<Fp1632Field>},
        {"bits8", &makeFieldOf<Bits8Field>},     {"bits16", &makeFieldOf<Bits16Field>},
        {"bits32", &makeFieldOf<Bits32Field>},   {"null", &makeFieldOf<NullField>},
        {"hex8", &makeFieldOf<Hex8Field>},       {"hex16", &makeFieldOf<Hex16Field>},
        {"hex32", &makeFieldOf<Hex32Field>},     {"hex64", &makeFieldOf<Hex64Field>},
        {"ascii", &makeFieldOf<AsciiField>},
    };
    return makers;
}

} // namespace

TypePtr makeField(std::string s, NameWithArgs t, std::string v, std::string l)
{
    const auto it = fieldMakers().find(t.name);
    return it == fieldMakers().end() ? makeFieldOf<Field>(s, t, v, l) : it->second(s, t, v, l);
}

} // namespace NvMessageDataFormat

// ---- NvMessageStructure --------------------------------------------------------------

QString NvMessageStructure::NvMessageDescription::name(size_t index) const
{
    return index < m_names.size() ? fromStd(m_names[index]) : QString();
}

QString NvMessageStructure::NvMessageDescription::messageName() const
{
    return m_names.empty() ? QString() : fromStd(m_names.back());
}

QString NvMessageStructure::NvMessageDescription::displayText() const
{
    if (m_names.size() == 3)
        return QStringLiteral("[%1/%2]%3").arg(name(0), name(1), name(2));
    return messageName();
}

NvMessageStructure::NvMessageStructure(const HexByteString& identifier,
                                       const NvMessageDescription& description,
                                       const std::string& dataFormatString,
                                       const NvMessageDataFormat::TypePtr& dataFormat)
    : m_identifier(identifier), m_valid(true), m_description(description),
      m_dataFormatString(dataFormatString), m_dataFormat(dataFormat)
{
}

void NvMessageStructure::generateHumanReadableString(const NvMessagesStructure& structures,
                                                     const HexByteString& data,
                                                     std::ostream& stream) const
{
    if (!m_dataFormat) {
        writeText(stream, data.toString());
        return;
    }
    NvMessageDataFormat::GenerationInfo info(structures, data);
    m_dataFormat->generateHumanReadableString(info, stream);
}

QWidget* NvMessageStructure::generateEditWidget(QWidget* parent,
                                                const NvMessagesStructure& structures,
                                                const HexByteString& data) const
{
    if (!m_dataFormat || dynamic_cast<NvMessageDataFormat::ParseError*>(m_dataFormat.get()))
        return nullptr;
    auto* editor = new NvMessageDataEditor(data, parent);
    auto* layout = new QVBoxLayout(editor);
    layout->setContentsMargins(0, 0, 0, 0);
    NvMessageDataFormat::GenerationInfo info(structures, data);
    info.editor = editor;
    if (QWidget* widget = m_dataFormat->generateEditWidget(info, editor, editor))
        layout->addWidget(widget);
    layout->addStretch(1);
    return editor;
}

// ---- NvMessagesStructure -------------------------------------------------------------

bool NvMessagesStructure::read()
{
    return read(QCoreApplication::applicationDirPath() + QLatin1Char('/') +
                QLatin1String(m_MessagesStructureFileName));
}

bool NvMessagesStructure::read(const QString& fileName)
{
    std::ifstream file(QFile::encodeName(fileName).toStdString(), std::ios::binary);
    if (!file.is_open())
        return false;
    read(file);
    return true;
}

void NvMessagesStructure::read(std::istream& stream)
{
    m_lineNumber = 1;
    std::string line;
    while (std::getline(stream, line)) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (!line.empty() && line[0] != '%')
            readLine(line);
        ++m_lineNumber;
    }
}

void NvMessagesStructure::readLine(const std::string& text)
{
    std::istringstream stream(text);
    readLine(stream);
}

void NvMessagesStructure::readLine(std::istream& stream)
{
    std::vector<std::string> columns;
    for (int i = 0; i < 3; ++i) {
        skipWhitespace(stream);
        std::string column;
        if (!std::getline(stream, column, ','))
            break;
        columns.push_back(trimmed(column));
    }
    if (columns.size() == 3) {
        skipWhitespace(stream);
        std::string rest;
        if (std::getline(stream, rest) && !trimmed(rest).empty())
            columns.push_back(trimmed(rest));
    }
    readLine(columns);
}

void NvMessagesStructure::readLine(const std::vector<std::string>& input)
{
    std::vector<std::string> columns = input;
    columns.resize(4);

    HexByteString identifier(QString::fromStdString(columns[1]));
    identifier.normalize();
    if (identifier.byteCount() == 0)
        return;

    NvMessageDataFormat::TypePtr format;
    if (!columns[3].empty()) {
        std::istringstream stream(columns[3]);
        bool ok = parseDataFormat(stream, format);
        if (ok && stream.peek() != std::char_traits<char>::eof())
            ok = false; // text after the format
        if (!ok) {
            stream.clear();
            format = std::make_shared<NvMessageDataFormat::ParseError>(
                m_MessagesStructureFileName, m_lineNumber, (long long)stream.tellg());
        }
    }

    std::istringstream descriptionStream(columns[2]);
    NvMessageStructure::NvMessageDescription description;
    if (!parseMessageDescription(descriptionStream, description))
        return;

    addMessageStructure(columns[0], identifier,
                        NvMessageStructure(identifier, description, columns[3], format));
}

void NvMessagesStructure::addMessageStructure(const std::string& table, const HexByteString& id,
                                              const NvMessageStructure& structure)
{
    m_tables[table][id] = structure;
}

bool NvMessagesStructure::getStructure(const std::string& table, const HexByteString& id,
                                       const NvMessageStructure*& out) const
{
    out = nullptr;
    const auto t = m_tables.find(table);
    if (t == m_tables.end())
        return false;
    const auto entry = t->second.find(id);
    if (entry == t->second.end())
        return false;
    out = &entry->second;
    return true;
}

bool NvMessagesStructure::getMIDStructure(const HexByteString& id,
                                          const NvMessageStructure*& out) const
{
    return getStructure(m_MIDTypeString, id, out);
}

bool NvMessagesStructure::getNDIStructure(const HexByteString& id,
                                          const NvMessageStructure*& out) const
{
    return getStructure(m_NDITypeString, id, out);
}

bool NvMessagesStructure::getNDIFormatStructure(const HexByteString& id,
                                                const NvMessageStructure*& out) const
{
    return getStructure(m_NDIFormatTypeString, id, out);
}

bool NvMessagesStructure::getNDICoordStructure(const HexByteString& id,
                                               const NvMessageStructure*& out) const
{
    return getStructure(m_NDICoordSysTypeString, id, out);
}

const NvMessagesStructure::Table* NvMessagesStructure::table(const std::string& name) const
{
    const auto it = m_tables.find(name);
    return it == m_tables.end() ? nullptr : &it->second;
}

std::vector<std::string> NvMessagesStructure::tableNames() const
{
    std::vector<std::string> names;
    for (const auto& entry : m_tables)
        names.push_back(entry.first);
    return names;
}

const NvMessageStructure* NvMessagesStructure::findByName(const std::string& tableName,
                                                          const QString& name) const
{
    if (const Table* t = table(tableName))
        for (const auto& entry : *t)
            if (entry.second.description().messageName() == name)
                return &entry.second;
    return nullptr;
}

std::vector<const NvMessageStructure*> NvMessagesStructure::parseErrors() const
{
    std::vector<const NvMessageStructure*> errors;
    for (const auto& t : m_tables)
        for (const auto& entry : t.second)
            if (dynamic_cast<NvMessageDataFormat::ParseError*>(entry.second.dataFormat().get()))
                errors.push_back(&entry.second);
    return errors;
}

NvDecodedMessage NvMessagesStructure::decode(uint8_t messageId, const HexByteString& data) const
{
    NvDecodedMessage result;
    result.identifier = HexByteString(messageId);
    const NvMessageStructure* entry = nullptr;
    if (!getMIDStructure(result.identifier, entry)) {
        result.name = QStringLiteral("Unknown");
        result.description = result.name;
        result.text = data.toString();
        return result;
    }
    result.known = true;
    result.name = entry->description().messageName();
    result.description = entry->description().displayText();
    if (!entry->dataFormat()) {
        result.text = data.toString();
        return result;
    }
    NvMessageDataFormat::GenerationInfo info(*this, data);
    info.fields = &result.fields;
    std::ostringstream text;
    entry->dataFormat()->generateHumanReadableString(info, text);
    if (!info.problems && info.position < data.byteCount() && info.position > 0)
        text << " + " << data.subString(info.position).toString().toStdString();
    result.text = QString::fromStdString(text.str());
    result.hasProblems = info.problems;
    return result;
}

NvDecodedMessage NvMessagesStructure::decode(const NvMessage& message) const
{
    return decode(message.messageId(), HexByteString(message.data(), message.dataSize()));
}

QString NvMessagesStructure::decodeData(const std::string& tableName, const HexByteString& id,
                                        const HexByteString& data) const
{
    const NvMessageStructure* entry = nullptr;
    if (!getStructure(tableName, id, entry))
        return data.toString();
    std::ostringstream text;
    entry->generateHumanReadableString(*this, data, text);
    return QString::fromStdString(text.str());
}

// ---- Parser --------------------------------------------------------------------------

void NvMessagesStructure::skipWhitespace(std::istream& stream)
{
    while (stream.peek() == ' ' || stream.peek() == '\t')
        stream.get();
}

bool NvMessagesStructure::parseDataFormat(std::istream& stream, NvMessageDataFormat::TypePtr& out,
                                          int depth)
{
    if (depth > kMaxFormatDepth)
        return false;
    skipWhitespace(stream);
    bool ok = false;
    switch (stream.peek()) {
    case '<':
        ok = parseField(stream, out);
        break;
    case '{':
        ok = parseSet(stream, out, depth + 1);
        break;
    case '(':
        ok = parseTuple(stream, out, depth + 1);
        break;
    default:
        return false;
    }
    if (ok)
        skipWhitespace(stream);
    return ok;
}

bool NvMessagesStructure::parseSet(std::istream& stream, NvMessageDataFormat::TypePtr& out,
                                   int depth)
{
    if (stream.get() != '{')
        return false;
    NvMessageDataFormat::TypePtr child;
    if (!parseDataFormat(stream, child, depth) || stream.get() != '}')
        return false;
    auto set = std::make_shared<NvMessageDataFormat::Set>();
    set->set(child);
    out = set;
    return true;
}

bool NvMessagesStructure::parseTuple(std::istream& stream, NvMessageDataFormat::TypePtr& out,
                                     int depth)
{
    if (stream.get() != '(')
        return false;
    auto tuple = std::make_shared<NvMessageDataFormat::Tuple>();
    for (;;) {
        NvMessageDataFormat::TypePtr child;
        if (!parseDataFormat(stream, child, depth))
            return false;
        tuple->add(child);
        const int c = stream.get();
        if (c == ')')
            break;
        if (c != ',')
            return false;
    }
    out = tuple;
    return true;
}

namespace {

// Reads up to (not including) one of `stops`; false at the end of the stream.
bool readUntil(std::istream& stream, const char* stops, std::string& out)
{
    out.clear();
    for (;;) {
        const int c = stream.peek();
        if (c == std::char_traits<char>::eof())
            return false;
        if (std::strchr(stops, c))
            return true;
        out += char(stream.get());
    }
}

} // namespace

bool NvMessagesStructure::parseField(std::istream& stream, NvMessageDataFormat::TypePtr& out)
{
    if (stream.get() != '<')
        return false;
    std::string sizeText;
    if (!readUntil(stream, ",>", sizeText) || stream.get() != ',')
        return false;
    sizeText = trimmed(sizeText);
    NvMessageDataFormat::NameWithArgs type;
    if (!parseNameWithArgs(stream, type) || sizeText.empty() || type.name.empty())
        return false;
    skipWhitespace(stream);
    std::string variable;
    std::string label;
    if (stream.get() != ',' || !readUntil(stream, ",>", variable) || stream.get() != ',' ||
        !readUntil(stream, ">", label) || stream.get() != '>')
        return false;
    out = NvMessageDataFormat::makeField(sizeText, type, trimmed(variable), trimmed(label));
    return true;
}

bool NvMessagesStructure::parseNameWithArgs(std::istream& stream,
                                            NvMessageDataFormat::NameWithArgs& out)
{
    skipWhitespace(stream);
    std::string name;
    if (!readUntil(stream, "(,>", name))
        return false;
    out.name = trimmed(name);
    out.args.clear();
    if (stream.peek() == '(')
        return parseArgList(stream, out.args);
    return true;
}

bool NvMessagesStructure::parseArgList(std::istream& stream, std::vector<std::string>& out)
{
    if (stream.get() != '(')
        return false;
    out.clear();
    for (;;) {
        std::string arg;
        if (!readUntil(stream, ",)", arg))
            return false;
        out.push_back(trimmed(arg));
        if (stream.get() == ')')
            return true;
    }
}

bool NvMessagesStructure::parseIdentifier(std::istream& stream, std::string& out)
{
    skipWhitespace(stream);
    const auto isWordChar = [](int c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '_';
    };
    if (!isWordChar(stream.peek()))
        return false;
    std::string text;
    while (isWordChar(stream.peek()) || stream.peek() == ' ' || stream.peek() == '\t')
        text += char(stream.get());
    out = trimmed(text);
    return true;
}

bool NvMessagesStructure::parseMessageDescription(std::istream& stream,
                                                  NvMessageStructure::NvMessageDescription& out)
{
    skipWhitespace(stream);
    std::vector<std::string> names(1);
    if (stream.peek() == '[') {
        stream.get();
        names.resize(3);
        if (!parseIdentifier(stream, names[0]) || stream.get() != '/' ||
            !parseIdentifier(stream, names[1]) || stream.get() != ']' ||
            !parseIdentifier(stream, names[2]))
            return false;
    } else if (!parseIdentifier(stream, names[0])) {
        return false;
    }
    out = NvMessageStructure::NvMessageDescription(names);
    return true;
}
