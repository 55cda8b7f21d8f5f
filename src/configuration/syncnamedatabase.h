#pragma once
// The texts of synchronisation lines, functions and polarities as the user reads them.

#include <QList>
#include <QMap>
#include <QString>

class SyncNameDatabase
{
public:
    // Translates the tables once; later look-ups only read the maps.
    SyncNameDatabase();

    // "Unknown" for values outside the tables.
    QString lineName(int line) const;
    QString functionName(int function) const;
    QString polarityName(int polarity) const;

    // Values in ascending order.
    QList<int> lines() const { return m_lines.keys(); }
    QList<int> functions() const { return m_functions.keys(); }
    QList<int> polarities() const { return m_polarities.keys(); }

    // Lines up to GNSS 1PPS (9) are inputs, the rest outputs.
    static bool isInput(int line);

private:
    QMap<int, QString> m_lines;
    QMap<int, QString> m_functions;
    QMap<int, QString> m_polarities;
    QString m_unknown;
};
