#include "ndadevicestate.h"

namespace NdaDeviceState {

QString toString(int state)
{
    static const char* const texts[] = {"Invalid",
                                        "Initializing",
                                        "Config Mode",
                                        "Measuring",
                                        "Starting Recording",
                                        "Recording",
                                        "Flushing",
                                        "Finalizing Recording",
                                        "Destroyed",
                                        "Starting Measurement",
                                        "File Mode",
                                        "File Mode (open)",
                                        "File Mode (loading)",
                                        "File Mode (ready)",
                                        "File Mode (playing)",
                                        "File Mode (paused)"};
    if (state < 0 || state >= int(sizeof texts / sizeof texts[0]))
        return QStringLiteral("Error");
    return QString::fromLatin1(texts[state]);
}

Type fromNvDeviceState(int libraryState)
{
    static const Type map[] = {Initializing, ConfigMode, Measuring, StartingRecording,
                               Recording,    Flushing,   Destroyed};
    if (libraryState < 0 || libraryState > 6)
        return Invalid;
    return map[libraryState];
}

bool isFileState(int s)
{
    return s >= FileMode && s <= FileModePaused;
}

bool isMeasuring(int s)
{
    return s >= Measuring && s <= FinalizingRecording;
}

bool isRecording(int s)
{
    return s >= StartingRecording && s <= FinalizingRecording;
}

bool measurementStarted(int newState, int oldState)
{
    return newState == Measuring && (oldState == Initializing || oldState == ConfigMode);
}

bool measurementStopped(int newState, int oldState)
{
    return newState == ConfigMode && oldState != Initializing;
}

bool recordingStarted(int newState, int)
{
    return newState == Recording;
}

bool recordingStopped(int newState, int oldState)
{
    return (newState == ConfigMode || newState == Measuring) && isRecording(oldState);
}

bool waitingForRecordingStart(int newState, int)
{
    return newState == StartingRecording;
}

bool flushingStarted(int newState, int oldState)
{
    return newState == Flushing && oldState != Flushing;
}

bool flushingStopped(int newState, int oldState)
{
    return oldState == Flushing && newState != Flushing;
}

} // namespace NdaDeviceState
