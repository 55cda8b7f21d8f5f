#include "jlqt.h"

#include "journaller.h"

#include <cstdio>
#include <cstdlib>

void jlQtMessageHandler(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    Q_UNUSED(context);
    JournalLogLevel level;
    switch (type) {
    case QtWarningMsg:
        level = JLL_ALERT;
        break;
    case QtCriticalMsg:
        level = JLL_ERROR;
        break;
    case QtFatalMsg:
        level = JLL_FATAL;
        break;
    default:
        return;
    }

    const std::string message = text.toStdString();
    JournalAdditionalLogger* logger = Journaller::additionalLogger();
    if (logger && logger->acceptsLevel(level))
        logger->log(level, "main.cpp", __LINE__, "jlQtMessageHandler", message);

    Journaller* journal = jlGlobalJournal();
    if (journal)
        journal->log(level, message);
    else
        std::fprintf(stderr, "%s%s\n", gLogLevelString[level], message.c_str());

    if (type == QtFatalMsg) {
        if (journal) {
            journal->writeCallstack(JLL_FATAL);
            journal->flush();
        }
        std::abort();
    }
}
