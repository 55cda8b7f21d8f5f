#pragma once

#include <QString>

// The program's start-up path, kept out of main.cpp so that it can be tested.

// The Qt version this program needs at run time.
inline constexpr const char* requiredQtVersion = "6.2.0";

// "6.4.2" -> 6*65536 + 4*256 + 2. Missing or non-numeric parts count 0.
int packQtVersion(const QString& version);

// The journal's folder: "<AppLocalDataLocation>/Nivra/kvmanager/" in native separators,
// taken before the application object exists.
QString journalFolder();

// main(): sets up the journal, runs mainCatch, shuts the device library down.
int kvManagerMain(int argc, char** argv);
// Installs the crash handler and runs startApp.
int mainCatch(int argc, char** argv);
// Creates the application and the main window and runs the event loop.
int startApp(int argc, char** argv);
