#pragma once
// The application's device state: the library's seven states plus the states of a
// recording opened as a device.

#include "nvenums.h"

#include <QMetaType>
#include <QString>

namespace NdaDeviceState {

enum Type
{
    Invalid = 0,
    Initializing = 1,
    ConfigMode = 2,
    Measuring = 3,
    StartingRecording = 4,
    Recording = 5,
    Flushing = 6,
    FinalizingRecording = 7,
    Destroyed = 8,
    StartingMeasurement = 9,
    FileMode = 10,
    FileModeOpen = 11,
    FileModeLoading = 12,
    FileModeReady = 13,
    FileModePlaying = 14,
    FileModePaused = 15,
};

// The text shown to the user; "Error" outside the table.
QString toString(int state);
// The library's states 0..6 in their order become 1, 2, 3, 4, 5, 6 and 8; others 0.
Type fromNvDeviceState(int libraryState);

bool isFileState(int s); // 10..15
bool isMeasuring(int s); // 3..7
bool isRecording(int s); // 4..7

// Transitions take the new state first.
bool measurementStarted(int newState, int oldState);
bool measurementStopped(int newState, int oldState);
bool recordingStarted(int newState, int oldState);
bool recordingStopped(int newState, int oldState);
bool waitingForRecordingStart(int newState, int oldState);
bool flushingStarted(int newState, int oldState);
bool flushingStopped(int newState, int oldState);

} // namespace NdaDeviceState

Q_DECLARE_METATYPE(NdaDeviceState::Type)
