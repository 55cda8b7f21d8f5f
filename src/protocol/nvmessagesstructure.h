#pragma once

// The vocabulary of the Nbus protocol as the protocol tools see it: names and payload
// formats of messages and data items, read at start-up from "messages_structure.txt" in
// the application's folder, so that the tools carry no message knowledge in code.
//
// A definition line is "table, identifier, description, data format"; "%" in the first
// column starts a comment. Data formats:
//   <size,type,variable,label>      a field; size is a decimal byte count, the variable of an
//                                   earlier field, or "*" for the rest of the data
//   (format, format, ...)           a tuple: the formats one after the other
//   {format}                        a set: the format repeated until the data ends
// Type names pick the field class (uint16, fp1220, ascii, bits8(name,...), ...); any other
// name that is a table of the file looks the bytes up in that table.

#include "hexbytestring.h"

#include <QString>
#include <QVariant>

#include <iosfwd>
#include <map>
#include <memory>
#include <string>
#include <vector>

class NvMessage;
class NvMessageDataEditor;
class NvMessagesStructure;
class NvMessageStructure;
class QWidget;

// What the last "ndi" field of a decode resolved; "ndidata" and "ndireal" fields read it.
struct NDIInfo
{
    bool set = false;
    const NvMessageStructure* dataItem = nullptr;         // table "ndi"
    const NvMessageStructure* numberFormat = nullptr;     // table "ndi_format"
    const NvMessageStructure* coordinateSystem = nullptr; // table "ndi_coord"
};

class NvMessageSymbolTable
{
public:
    void setVariableValue(const std::string& name, const HexByteString& bytes);
    bool getVariableValue(const std::string& name, HexByteString& bytes) const;
    void clear();

    void setNDIInfo(const NDIInfo& info) { m_ndiInfo = info; }
    const NDIInfo& getNDIInfo() const { return m_ndiInfo; }

private:
    std::map<std::string, HexByteString> m_variables;
    NDIInfo m_ndiInfo;
};

// One field of a decoded message, for viewers that show fields in columns.
struct NvDecodedField
{
    QString label;     // from the structure file; may be empty
    QString variable;  // the field's variable name
    QString typeName;  // "UInt16", "Fp1220", ...
    QString group;     // the data item a field belongs to ("Acceleration"), else empty
    size_t offset = 0; // in the message data
    HexByteString bytes;
    QVariant value;    // a number, a text, or invalid for raw bytes
    QString valueText; // the value as shown
    QString text;      // "label: value" as in the decoded text
};

struct NvDecodedMessage
{
    bool known = false; // the identifier has an entry
    HexByteString identifier;
    QString name;        // "GoToConfig"; "Unknown" when not known
    QString description; // "[Req/Set]BaudRate" form, or the name
    QString text;        // the decoded data, empty when the message carries none
    std::vector<NvDecodedField> fields;
    bool hasProblems = false; // some field showed a no-data, bad-size or parse-error text
};

namespace NvMessageDataFormat {

class Type;
using TypePtr = std::shared_ptr<Type>;

struct NameWithArgs
{
    std::string name;
    std::vector<std::string> args;
};

// The cursor of one decode or one editor build.
struct GenerationInfo
{
    GenerationInfo(const NvMessagesStructure& structures, const HexByteString& data);

    size_t remaining() const
    {
        return position < data.byteCount() ? data.byteCount() - position : 0;
    }

    const NvMessagesStructure& structures;
    HexByteString data;
    size_t position = 0;
    NvMessageSymbolTable symbols;

    // Optional collection of the decoded fields.
    std::vector<NvDecodedField>* fields = nullptr;
    QString group;
    size_t baseOffset = 0; // of `data` in the message data (nested item decodes)
    int depth = 0;         // nested item decodes, bounded against self-referring files
    bool problems = false;
    // Editor build: the editor that the field widgets write their bytes back to.
    NvMessageDataEditor* editor = nullptr;
};

class Type
{
public:
    virtual ~Type() = default;
    virtual void add(const TypePtr& child);
    virtual bool containsType(const std::string& typeName, GenerationInfo& info) const;
    virtual bool hasDataField(GenerationInfo& info) const;
    virtual size_t determineSize(GenerationInfo& info) const;
    virtual QString generateTypeName(GenerationInfo& info) const = 0;
    virtual void generateHumanReadableString(GenerationInfo& info, std::ostream& stream) const = 0;
    virtual QWidget* generateEditWidget(GenerationInfo& info, QWidget* parent,
                                        QWidget* widgetParent) const = 0;
    virtual bool determineData(GenerationInfo& info, size_t size, HexByteString& bytes) const;
    virtual void generateString(GenerationInfo& info, const HexByteString& bytes,
                                std::ostream& stream) const;
    virtual QWidget* generateWidget(GenerationInfo& info, QWidget* parent, QWidget* widgetParent,
                                    size_t size) const;
    virtual void generateNameValue(GenerationInfo& info, const QString& name, const QString& value,
                                   std::ostream& stream) const;
};

class Set : public Type
{
public:
    void set(const TypePtr& child) { m_child = child; }
    void add(const TypePtr& child) override { set(child); }
    const TypePtr& child() const { return m_child; }
    bool containsType(const std::string& typeName, GenerationInfo& info) const override;
    bool hasDataField(GenerationInfo& info) const override;
    QString generateTypeName(GenerationInfo& info) const override;
    void generateHumanReadableString(GenerationInfo& info, std::ostream& stream) const override;
    QWidget* generateEditWidget(GenerationInfo& info, QWidget* parent,
                                QWidget* widgetParent) const override;

private:
    TypePtr m_child;
};

class Tuple : public Type
{
public:
    void add(const TypePtr& child) override { m_children.push_back(child); }
    const std::vector<TypePtr>& children() const { return m_children; }
    bool containsType(const std::string& typeName, GenerationInfo& info) const override;
    bool hasDataField(GenerationInfo& info) const override;
    QString generateTypeName(GenerationInfo& info) const override;
    void generateHumanReadableString(GenerationInfo& info, std::ostream& stream) const override;
    QWidget* generateEditWidget(GenerationInfo& info, QWidget* parent,
                                QWidget* widgetParent) const override;

private:
    std::vector<TypePtr> m_children;
};

// A leaf. The plain Field shows raw bytes, or their entry when its type names a table.
class Field : public Type
{
public:
    Field(std::string sizeText, NameWithArgs type, std::string variable, std::string label);

    const std::string& sizeText() const { return m_sizeText; }
    const NameWithArgs& type() const { return m_type; }
    const std::string& variable() const { return m_variable; }
    const std::string& label() const { return m_label; }

    bool containsType(const std::string& typeName, GenerationInfo& info) const override;
    bool hasDataField(GenerationInfo& info) const override;
    size_t determineSize(GenerationInfo& info) const override;
    QString generateTypeName(GenerationInfo& info) const override;
    void generateHumanReadableString(GenerationInfo& info, std::ostream& stream) const override;
    QWidget* generateEditWidget(GenerationInfo& info, QWidget* parent,
                                QWidget* widgetParent) const override;
    bool determineData(GenerationInfo& info, size_t size, HexByteString& bytes) const override;
    void generateString(GenerationInfo& info, const HexByteString& bytes,
                        std::ostream& stream) const override;
    QWidget* generateWidget(GenerationInfo& info, QWidget* parent, QWidget* widgetParent,
                            size_t size) const override;

    // The value of `bytes` as text and as a number or text; false when the bytes do not
    // convert (the generic rule then applies).
    virtual bool formatValue(GenerationInfo& info, const HexByteString& bytes, QString& text,
                             QVariant& value) const;
    // The bytes for an edited value text; false when the text is not a value.
    virtual bool parseValue(const QString& text, size_t size, HexByteString& bytes) const;
    // The field whose parseValue turns an edited text back into bytes (a real of a data
    // item: its number format's field). It belongs to the database, which outlives editors.
    virtual const Field* valueParser(GenerationInfo& info) const;

protected:
    void record(GenerationInfo& info, size_t offset, const HexByteString& bytes,
                const QString& valueText, const QVariant& value, const QString& text) const;

    std::string m_sizeText;
    NameWithArgs m_type;
    std::string m_variable;
    std::string m_label;
};

class SizeField : public Field
{
public:
    using Field::Field;
    QString generateTypeName(GenerationInfo& info) const override;
    bool formatValue(GenerationInfo& info, const HexByteString& bytes, QString& text,
                     QVariant& value) const override;
    bool parseValue(const QString& text, size_t size, HexByteString& bytes) const override;
};

class NDIField : public Field
{
public:
    using Field::Field;
    QString generateTypeName(GenerationInfo& info) const override;
    bool determineData(GenerationInfo& info, size_t size, HexByteString& bytes) const override;
    bool formatValue(GenerationInfo& info, const HexByteString& bytes, QString& text,
                     QVariant& value) const override;
};

class NDIDataField : public Field
{
public:
    using Field::Field;
    QString generateTypeName(GenerationInfo& info) const override;
    void generateString(GenerationInfo& info, const HexByteString& bytes,
                        std::ostream& stream) const override;
    // The item's own fields, each editable.
    QWidget* generateWidget(GenerationInfo& info, QWidget* parent, QWidget* widgetParent,
                            size_t size) const override;
};

class NDIRealField : public Field
{
public:
    using Field::Field;
    size_t determineSize(GenerationInfo& info) const override;
    QString generateTypeName(GenerationInfo& info) const override;
    bool formatValue(GenerationInfo& info, const HexByteString& bytes, QString& text,
                     QVariant& value) const override;
    const Field* valueParser(GenerationInfo& info) const override;

private:
    const Field* numberFormatField(GenerationInfo& info) const;
};

// Integers take two optional arguments: a scale and a unit ("int32(1e-7,deg)").
class IntegerField : public Field
{
public:
    IntegerField(std::string sizeText, NameWithArgs type, std::string variable, std::string label,
                 int width, bool isSigned);
    QString generateTypeName(GenerationInfo& info) const override;
    bool formatValue(GenerationInfo& info, const HexByteString& bytes, QString& text,
                     QVariant& value) const override;
    bool parseValue(const QString& text, size_t size, HexByteString& bytes) const override;

private:
    int m_width;
    bool m_signed;
};

class UnsignedIntegerField : public IntegerField
{
public:
    UnsignedIntegerField(std::string sizeText, NameWithArgs type, std::string variable,
                         std::string label, int width)
        : IntegerField(std::move(sizeText), std::move(type), std::move(variable), std::move(label),
                       width, false)
    {
    }
};

class SignedIntegerField : public IntegerField
{
public:
    SignedIntegerField(std::string sizeText, NameWithArgs type, std::string variable,
                       std::string label, int width)
        : IntegerField(std::move(sizeText), std::move(type), std::move(variable), std::move(label),
                       width, true)
    {
    }
};

#define KV_INTEGER_FIELD(Name, Base, Width)                                                        \
    class Name : public Base                                                                       \
    {                                                                                              \
    public:                                                                                        \
        Name(std::string s, NameWithArgs t, std::string v, std::string l)                          \
            : Base(std::move(s), std::move(t), std::move(v), std::move(l), Width)                  \
        {                                                                                          \
        }                                                                                          \
    };
KV_INTEGER_FIELD(UInt8Field, UnsignedIntegerField, 1)
KV_INTEGER_FIELD(UInt16Field, UnsignedIntegerField, 2)
KV_INTEGER_FIELD(UInt32Field, UnsignedIntegerField, 4)
KV_INTEGER_FIELD(Int8Field, SignedIntegerField, 1)
KV_INTEGER_FIELD(Int16Field, SignedIntegerField, 2)
KV_INTEGER_FIELD(Int32Field, SignedIntegerField, 4)
#undef KV_INTEGER_FIELD

class FloatField : public Field
{
public:
    enum class Format
    {
        Float32,
        Float64,
        Fp1220,
        Fp1632
    };
    FloatField(std::string sizeText, NameWithArgs type, std::string variable, std::string label,
               Format format);
    QString generateTypeName(GenerationInfo& info) const override;
    bool formatValue(GenerationInfo& info, const HexByteString& bytes, QString& text,
                     QVariant& value) const override;
    bool parseValue(const QString& text, size_t size, HexByteString& bytes) const override;
    Format format() const { return m_format; }
    size_t width() const;

private:
    Format m_format;
};

#define KV_FLOAT_FIELD(Name, Fmt)                                                                  \
    class Name : public FloatField                                                                 \
    {                                                                                              \
    public:                                                                                        \
        Name(std::string s, NameWithArgs t, std::string v, std::string l)                          \
            : FloatField(std::move(s), std::move(t), std::move(v), std::move(l), Format::Fmt)      \
        {                                                                                          \
        }                                                                                          \
    };
KV_FLOAT_FIELD(Float32Field, Float32)
KV_FLOAT_FIELD(Float64Field, Float64)
KV_FLOAT_FIELD(Fp1220Field, Fp1220)
KV_FLOAT_FIELD(Fp1632Field, Fp1632)
#undef KV_FLOAT_FIELD

// A bit mask; the arguments name the bits from bit 0 up ("bits8(ok,valid,,fix)").
class GenericBitField : public Field
{
public:
    GenericBitField(std::string sizeText, NameWithArgs type, std::string variable,
                    std::string label, int width);
    QString generateTypeName(GenerationInfo& info) const override;
    bool formatValue(GenerationInfo& info, const HexByteString& bytes, QString& text,
                     QVariant& value) const override;

private:
    int m_width;
};

class Bits8Field : public GenericBitField
{
public:
    Bits8Field(std::string s, NameWithArgs t, std::string v, std::string l)
        : GenericBitField(std::move(s), std::move(t), std::move(v), std::move(l), 1)
    {
    }
};
class Bits16Field : public GenericBitField
{
public:
    Bits16Field(std::string s, NameWithArgs t, std::string v, std::string l)
        : GenericBitField(std::move(s), std::move(t), std::move(v), std::move(l), 2)
    {
    }
};
class Bits32Field : public GenericBitField
{
public:
    Bits32Field(std::string s, NameWithArgs t, std::string v, std::string l)
        : GenericBitField(std::move(s), std::move(t), std::move(v), std::move(l), 4)
    {
    }
};

class NullField : public Field
{
public:
    using Field::Field;
    QString generateTypeName(GenerationInfo& info) const override;
    bool formatValue(GenerationInfo& info, const HexByteString& bytes, QString& text,
                     QVariant& value) const override;
};

class HexField : public Field
{
public:
    HexField(std::string sizeText, NameWithArgs type, std::string variable, std::string label,
             int width);
    QString generateTypeName(GenerationInfo& info) const override;
    bool formatValue(GenerationInfo& info, const HexByteString& bytes, QString& text,
                     QVariant& value) const override;
    bool parseValue(const QString& text, size_t size, HexByteString& bytes) const override;

private:
    int m_width;
};

class Hex8Field : public HexField
{
public:
    Hex8Field(std::string s, NameWithArgs t, std::string v, std::string l)
        : HexField(std::move(s), std::move(t), std::move(v), std::move(l), 1)
    {
    }
};
class Hex16Field : public HexField
{
public:
    Hex16Field(std::string s, NameWithArgs t, std::string v, std::string l)
        : HexField(std::move(s), std::move(t), std::move(v), std::move(l), 2)
    {
    }
};
class Hex32Field : public HexField
{
public:
    Hex32Field(std::string s, NameWithArgs t, std::string v, std::string l)
        : HexField(std::move(s), std::move(t), std::move(v), std::move(l), 4)
    {
    }
};
class Hex64Field : public HexField
{
public:
    Hex64Field(std::string s, NameWithArgs t, std::string v, std::string l)
        : HexField(std::move(s), std::move(t), std::move(v), std::move(l), 8)
    {
    }
};

class AsciiField : public Field
{
public:
    using Field::Field;
    QString generateTypeName(GenerationInfo& info) const override;
    bool formatValue(GenerationInfo& info, const HexByteString& bytes, QString& text,
                     QVariant& value) const override;
    bool parseValue(const QString& text, size_t size, HexByteString& bytes) const override;
};

// Stands in for a data format that did not parse.
class ParseError : public Type
{
public:
    ParseError(std::string fileName, int lineNumber, long long streamPosition);
    const std::string& fileName() const { return m_fileName; }
    int lineNumber() const { return m_lineNumber; }
    long long streamPosition() const { return m_streamPosition; }
    QString generateTypeName(GenerationInfo& info) const override;
    void generateHumanReadableString(GenerationInfo& info, std::ostream& stream) const override;
    QWidget* generateEditWidget(GenerationInfo& info, QWidget* parent,
                                QWidget* widgetParent) const override;

private:
    std::string m_fileName;
    int m_lineNumber;
    long long m_streamPosition;
};

// The field class for a type keyword.
TypePtr makeField(std::string sizeText, NameWithArgs type, std::string variable, std::string label);

} // namespace NvMessageDataFormat

class NvMessageStructure
{
public:
    class NvMessageDescription
    {
    public:
        NvMessageDescription() = default;
        explicit NvMessageDescription(std::vector<std::string> names) : m_names(std::move(names)) {}
        size_t count() const { return m_names.size(); }
        // Empty for an index that is not there.
        QString name(size_t index) const;
        // The message's own name: the last identifier.
        QString messageName() const;
        // "[%1/%2]%3" for the bracketed form, else the name.
        QString displayText() const;

    private:
        std::vector<std::string> m_names;
    };

    NvMessageStructure() = default;
    NvMessageStructure(const HexByteString& identifier, const NvMessageDescription& description,
                       const std::string& dataFormatString,
                       const NvMessageDataFormat::TypePtr& dataFormat);

    const HexByteString& identifier() const { return m_identifier; }
    bool valid() const { return m_valid; }
    void setValid(bool valid) { m_valid = valid; }
    const NvMessageDescription& description() const { return m_description; }
    const std::string& dataFormatString() const { return m_dataFormatString; }
    const NvMessageDataFormat::TypePtr& dataFormat() const { return m_dataFormat; }
    // "[Req/Set]BaudRate (MID: 18)", as message lists show an entry.
    QString listEntryText() const
    {
        return QStringLiteral("%1 (MID: %2)")
            .arg(m_description.displayText(), m_identifier.toString());
    }

    // The decoded data as text; raw hexadecimal when there is no data format.
    void generateHumanReadableString(const NvMessagesStructure& structures,
                                     const HexByteString& data, std::ostream& stream) const;
    // A widget that edits `data` field by field (see NvMessageDataEditor); null without a
    // data format or when it did not parse. `structures` must outlive the widget.
    QWidget* generateEditWidget(QWidget* parent, const NvMessagesStructure& structures,
                                const HexByteString& data) const;

private:
    HexByteString m_identifier;
    bool m_valid = false;
    NvMessageDescription m_description;
    std::string m_dataFormatString;
    NvMessageDataFormat::TypePtr m_dataFormat;
};

class NvMessagesStructure
{
public:
    static const char* const m_MIDTypeString;
    static const char* const m_NDITypeString;
    static const char* const m_NDIFormatTypeString;
    static const char* const m_NDICoordSysTypeString;
    static const char* const m_MessagesStructureFileName;

    using Table = std::map<HexByteString, NvMessageStructure>;

    // "messages_structure.txt" beside the executable; a file that does not open leaves the
    // database empty.
    bool read();
    bool read(const QString& fileName);
    void read(std::istream& stream);

    void readLine(const std::string& text);
    void readLine(std::istream& stream);
    void readLine(const std::vector<std::string>& columns);

    void addMessageStructure(const std::string& table, const HexByteString& id,
                             const NvMessageStructure& structure);
    bool getStructure(const std::string& table, const HexByteString& id,
                      const NvMessageStructure*& out) const;
    bool getMIDStructure(const HexByteString& id, const NvMessageStructure*& out) const;
    bool getNDIStructure(const HexByteString& id, const NvMessageStructure*& out) const;
    bool getNDIFormatStructure(const HexByteString& id, const NvMessageStructure*& out) const;
    bool getNDICoordStructure(const HexByteString& id, const NvMessageStructure*& out) const;

    bool hasTable(const std::string& table) const { return m_tables.count(table) != 0; }
    const Table* table(const std::string& name) const;
    std::vector<std::string> tableNames() const;
    bool isEmpty() const { return m_tables.empty(); }
    // The entry whose name (last description identifier) is `name`, case-sensitive.
    const NvMessageStructure* findByName(const std::string& table, const QString& name) const;
    // Entries whose data format did not parse.
    std::vector<const NvMessageStructure*> parseErrors() const;

    // Decoding for viewers.
    NvDecodedMessage decode(uint8_t messageId, const HexByteString& data) const;
    NvDecodedMessage decode(const NvMessage& message) const;
    // The data of an entry of `table` decoded as text (e.g. a data item's payload).
    QString decodeData(const std::string& table, const HexByteString& id,
                       const HexByteString& data) const;

    // The recursive-descent parser over a data-format or description text.
    static bool parseDataFormat(std::istream& stream, NvMessageDataFormat::TypePtr& out,
                                int depth = 0);
    static bool parseSet(std::istream& stream, NvMessageDataFormat::TypePtr& out, int depth);
    static bool parseTuple(std::istream& stream, NvMessageDataFormat::TypePtr& out, int depth);
    static bool parseField(std::istream& stream, NvMessageDataFormat::TypePtr& out);
    static bool parseNameWithArgs(std::istream& stream, NvMessageDataFormat::NameWithArgs& out);
    static bool parseArgList(std::istream& stream, std::vector<std::string>& out);
    static bool parseIdentifier(std::istream& stream, std::string& out);
    static bool parseMessageDescription(std::istream& stream,
                                        NvMessageStructure::NvMessageDescription& out);
    static void skipWhitespace(std::istream& stream);

private:
    std::map<std::string, Table> m_tables;
    int m_lineNumber = 1;
};
