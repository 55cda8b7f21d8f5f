#include "nvenums.h"

#include <cstddef>

namespace {

struct BaudEntry
{
    NvBaudRate code;
    int rate;
};

// Slowest first; the scanner walks it backwards.
constexpr BaudEntry kBaudRates[] = {
    {NBR_4800, 4800},       {NBR_9600, 9600},       {NBR_14400, 14400},     {NBR_19200, 19200},
    {NBR_28800, 28800},     {NBR_38400, 38400},     {NBR_57600, 57600},     {NBR_76800, 76800},
    {NBR_115200, 115200},   {NBR_230400, 230400},   {NBR_460800, 460800},   {NBR_921600, 921600},
    {NBR_1000000, 1000000}, {NBR_2000000, 2000000}, {NBR_3686400, 3686400}, {NBR_4000000, 4000000},
};
constexpr int kBaudCount = int(sizeof kBaudRates / sizeof kBaudRates[0]);

struct ResultEntry
{
    int value;
    const char* text;
};

constexpr ResultEntry kResults[] = {
    {NRV_OK, "Operation was performed successfully"},
    {NRV_INVALID_PERIOD, "Invalid period"},
    {NRV_INVALID_MESSAGE, "Invalid message"},
    {NRV_TIMER_OVERFLOW, "Timer overflow"},
    {NRV_INVALID_BAUDRATE, "Invalid baud rate"},
    {NRV_INVALID_PARAMETER, "Invalid parameter"},
    {NRV_DEVICE_ERROR, "Device error"},
    {NRV_DATA_OVERFLOW, "Data overflow"},
    {NRV_BUFFER_OVERFLOW, "Buffer overflow"},
    {NRV_WARNING, "Warning"},
    {NRV_ERROR, "Generic error"},
    {NRV_TIMEOUT, "Timeout"},
    {NRV_NO_DATA, "No data available"},
    {NRV_CHECKSUM_FAULT, "Checksum fault"},
    {NRV_OUTPUT_CANNOT_BE_OPENED, "Cannot open output"},
    {NRV_FILE_READ_ERROR, "File read error"},
    {NRV_UNEXPECTED_DISCONNECT, "Unexpected disconnect"},
    {NRV_FILE_NOT_FOUND, "File not found"},
    {NRV_NOT_A_RECORDING, "File is not a recording"},
    {NRV_FILE_WRITE_ERROR, "File write error"},
    {NRV_DISK_FULL, "Disk full"},
    {NRV_END_OF_FILE, "End of file"},
    {NRV_PORT_NOT_OPEN, "Port not open"},
    {NRV_PORT_OPEN_FAILED, "Could not open port"},
    {NRV_PORT_IN_USE, "Port already in use"},
    {NRV_PORT_READ_ERROR, "Port read error"},
    {NRV_PORT_WRITE_ERROR, "Port write error"},
    {NRV_NOT_IMPLEMENTED, "Not implemented"},
    {NRV_NOT_SUPPORTED, "Not supported by this device"},
    {NRV_INVALID_DEVICE, "Invalid device"},
    {NRV_ABORTED, "Operation aborted"},
    {NRV_INVALID_ARGUMENT, "Invalid argument"},
    {NRV_INVALID_STATE, "Not possible in the current state"},
    {NRV_UNEXPECTED_REPLY, "Unexpected reply"},
    {NRV_FRAME_TOO_LONG, "Frame too long"},
    {NRV_HOST_BUFFER_OVERFLOW, "Host buffer overflow"},
    {NRV_OUT_OF_MEMORY, "Out of memory"},
    {NRV_NO_DEVICE_FOUND, "No device found"},
    {NRV_NOT_A_MASTER, "Device is not a wireless master"},
    {NRV_CHANNEL_IN_USE, "Radio channel in use"},
    {NRV_INVALID_CHANNEL, "Invalid radio channel"},
    {NRV_RADIO_DISABLED, "Radio is disabled"},
    {NRV_TRACKER_LIMIT, "Too many trackers"},
    {NRV_TRACKER_NOT_CONNECTED, "Tracker not connected"},
    {NRV_RETRANSMISSION_INCOMPLETE, "Retransmission incomplete"},
    {NRV_RECORDING_IN_PROGRESS, "Recording in progress"},
    {NRV_NOT_RECORDING, "Not recording"},
    {NRV_LOG_FILE_ALREADY_OPEN, "A log file is already open"},
    {NRV_NO_LOG_FILE, "No log file open"},
    {NRV_FILE_DAMAGED, "File is damaged"},
    {NRV_FILE_VERSION_UNSUPPORTED, "File version not supported"},
    {NRV_CONFIG_FILE_INVALID, "Invalid configuration file"},
    {NRV_FIRMWARE_UNSUPPORTED, "Firmware version not supported"},
    {NRV_FOREIGN_DEVICE, "Device does not speak Nbus"},
    {NRV_BAUDRATE_NOT_DETECTED, "Baud rate could not be detected"},
    {NRV_SCAN_IN_PROGRESS, "A scan is already running"},
    {NRV_NOT_IN_CONFIGURATION, "Device is not in configuration mode"},
    {NRV_NOT_MEASURING, "Device is not measuring"},
    {NRV_DEVICE_BUSY, "Device busy"},
    {NRV_COULD_NOT_GO_TO_MEASUREMENT, "Could not go to measurement"},
    {NRV_OUTPUT_CONFIGURATION_REJECTED, "Output configuration rejected"},
    {NRV_SYNC_SETTINGS_REJECTED, "Synchronisation settings rejected"},
    {NRV_BAUDRATE_NOT_SET, "Could not set the baud rate"},
    {NRV_RESET_FAILED, "Reset failed"},
    {NRV_DEVICE_INFO_UNREADABLE, "Could not read the device information"},
    {NRV_RADIO_NOT_ENABLED, "Could not enable the radio"},
    {NRV_RADIO_NOT_DISABLED, "Could not disable the radio"},
    {NRV_RECORDING_NOT_STARTED, "Could not start recording"},
    {NRV_COULD_NOT_GO_TO_CONFIGURATION, "Could not go to configuration"},
    {NRV_RECORDING_NOT_STOPPED, "Could not stop recording"},
    {NRV_UNEXPECTED_MESSAGE, "Unexpected message"},
    {NRV_SAMPLES_MISSED, "Samples missed"},
    {NRV_RESTORE_COMMUNICATION_FAILED, "Could not restore communication"},
    {NRV_RESTORE_COMMUNICATION_STOPPED, "Restoring communication stopped"},
    {NRV_SHUTTING_DOWN, "Library is shutting down"},
    {NRV_NOT_A_REGULAR_FILE, "Not a regular file (a folder, FIFO or device)"},
};

const ResultEntry* findResult(int value)
{
    for (const ResultEntry& entry : kResults)
        if (entry.value == value)
            return &entry;
    return nullptr;
}

struct QuantityEntry
{
    NvDataIdentifier quantity;
    const char* name;
    int fixedSize; // payload bytes of non-real items; 0 for reals and variable sizes
};

constexpr QuantityEntry kQuantities[] = {
    {NDI_TEMPERATURE, "Temperature", 0},
    {NDI_UTC_TIME, "UTC Time", 12},
    {NDI_PACKET_COUNTER, "Packet Counter", 2},
    {NDI_TIME_OF_WEEK, "Time Of Week", 4},
    {NDI_GNSS_AGE, "GNSS Age", 1},
    {NDI_SAMPLE_TIME_FINE, "Sample Time Fine", 4},
    {NDI_SAMPLE_TIME_COARSE, "Sample Time Coarse", 4},
    {NDI_FRAME_RANGE, "Frame Range", 4},
    {NDI_QUATERNION, "Quaternion", 0},
    {NDI_ROTATION_MATRIX, "Rotation Matrix", 0},
    {NDI_EULER_ANGLES, "Euler Angles", 0},
    {NDI_BARO_PRESSURE, "Barometric Pressure", 4},
    {NDI_DELTA_V, "Delta V", 0},
    {NDI_ACCELERATION, "Acceleration", 0},
    {NDI_FREE_ACCELERATION, "Free Acceleration", 0},
    {NDI_ACCELERATION_HR, "Acceleration HR", 0},
    {NDI_ALTITUDE_MSL, "Altitude MSL", 0},
    {NDI_ALTITUDE_ELLIPSOID, "Altitude Ellipsoid", 0},
    {NDI_POSITION_ECEF, "Position ECEF", 0},
    {NDI_LAT_LON, "Latitude Longitude", 0},
    {NDI_GNSS_PVT_DATA, "GNSS PVT Data", 94},
    {NDI_GNSS_SAT_INFO, "GNSS Satellite Info", 0},
    {NDI_GNSS_PVT_PULSE, "GNSS PVT Pulse", 4},
    {NDI_RATE_OF_TURN, "Rate Of Turn", 0},
    {NDI_DELTA_Q, "Delta Q", 0},
    {NDI_RATE_OF_TURN_HR, "Rate Of Turn HR", 0},
    {NDI_ANALOG_IN_1, "Analog In 1", 2},
    {NDI_ANALOG_IN_2, "Analog In 2", 2},
    {NDI_MAGNETIC_FIELD, "Magnetic Field", 0},
    {NDI_VELOCITY, "Velocity", 0},
    {NDI_STATUS_BYTE, "Status Byte", 1},
    {NDI_STATUS_WORD, "Status Word", 4},
    {NDI_RSSI, "RSSI", 1},
};

const QuantityEntry* findQuantity(NvDataIdentifier id)
{
    const NvDataIdentifier quantity = nvQuantity(id);
    for (const QuantityEntry& entry : kQuantities)
        if (entry.quantity == quantity)
            return &entry;
    return nullptr;
}

} // namespace

extern "C" {

int nvBaudRateToRate(NvBaudRate code)
{
    for (const BaudEntry& entry : kBaudRates)
        if (entry.code == code)
            return entry.rate;
    return 0;
}

NvBaudRate nvRateToBaudRate(int bitsPerSecond)
{
    if (bitsPerSecond == 0)
        return NBR_DETECT;
    for (const BaudEntry& entry : kBaudRates)
        if (entry.rate == bitsPerSecond)
            return entry.code;
    return NBR_INVALID;
}

int nvBaudRatesFastestFirst(NvBaudRate* codes, int capacity)
{
    if (codes)
        for (int i = 0; i < kBaudCount && i < capacity; ++i)
            codes[i] = kBaudRates[kBaudCount - 1 - i].code;
    return kBaudCount;
}

const char* nvResultValueText(NvResultValue value)
{
    const ResultEntry* entry = findResult(value);
    return entry ? entry->text : "Unknown result value";
}

int nvIsKnownResultValue(int value)
{
    return findResult(value) != nullptr;
}

const char* nvDataIdentifierName(NvDataIdentifier id)
{
    const QuantityEntry* entry = findQuantity(id);
    return entry ? entry->name : "Unknown";
}

int nvItemSize(NvDataIdentifier id)
{
    const int reals = nvRealCount(id);
    if (reals > 0)
        return reals * nvPrecisionSize(nvPrecision(id));
    const QuantityEntry* entry = findQuantity(id);
    return entry ? entry->fixedSize : 0;
}

} // extern "C"
