#pragma once

#include <QString>
#include <QtGlobal>

class QMessageLogContext;

// Installed with qInstallMessageHandler: warnings go to the global journal at ALERT,
// criticals at ERROR, fatals at FATAL (followed by a call stack and abort); debug and
// info messages are not journalled.
void jlQtMessageHandler(QtMsgType type, const QMessageLogContext& context, const QString& text);
