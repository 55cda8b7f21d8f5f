#pragma once

// Edits a message's data field by field, as the structure file describes it. Built by
// NvMessageStructure::generateEditWidget; every field editor writes its bytes back here.
// The layout is fixed at build time: when a size field changes, rebuild the editor from
// data() to see the new layout.

#include "hexbytestring.h"

#include <QWidget>

class NvMessageDataEditor : public QWidget
{
    Q_OBJECT
public:
    NvMessageDataEditor(const HexByteString& data, QWidget* parent = nullptr);

    const HexByteString& data() const { return m_data; }
    // Overwrites the bytes at `offset` (absolute in the data) and emits dataEdited.
    void replaceBytes(size_t offset, const HexByteString& bytes);

signals:
    void dataEdited(const HexByteString& data);

private:
    HexByteString m_data;
};
