#ifndef NVENUMS_H
#define NVENUMS_H

/* The device library's enumerations and the data identifier.
 *
 * Enumerations that carry values read from a device or a file end in a *_RANGE_END
 * value: it widens the type's range so that any 32-bit value a device sends is a valid
 * value of the type (C and C++ leave values beyond an enumeration's range undefined).
 *
 * This header is plain C as well as C++ so that the C interface (nivradeviceapi.h) can
 * use the same types. Enumerations are C enumerations (32-bit), their values are
 * prefixed constants; the numeric values are part of the wire protocol or of the
 * library's interface and never change. docs/protocol.md tables all of them. */

#include "nvexport.h"
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------------------------- */
/* Baud rates. The value is the one-byte code of Req/SetBaudRate (0x18) on the wire.
 * NBR_DETECT is host-side only: "try the usual rates, fastest first". */
typedef enum NvBaudRate
{
    NBR_DETECT = 0x00,
    NBR_4800 = 0x01,
    NBR_9600 = 0x02,
    NBR_14400 = 0x03,
    NBR_19200 = 0x04,
    NBR_28800 = 0x05,
    NBR_38400 = 0x06,
    NBR_57600 = 0x07,
    NBR_76800 = 0x08,
    NBR_115200 = 0x09,
    NBR_230400 = 0x0A,
    NBR_460800 = 0x0B,
    NBR_921600 = 0x0C,
    NBR_1000000 = 0x0D,
    NBR_2000000 = 0x0E,
    NBR_3686400 = 0x0F,
    NBR_4000000 = 0x10,
    NBR_INVALID = 0xFF
} NvBaudRate;

/* Bits per second of a code; 0 for NBR_DETECT and for codes not in the table. */
NV_API int nvBaudRateToRate(NvBaudRate code);
/* The code of an exact rate; 0 gives NBR_DETECT, a rate not in the table NBR_INVALID. */
NV_API NvBaudRate nvRateToBaudRate(int bitsPerSecond);
/* Every real rate code (NBR_4800 .. NBR_4000000) fastest first, as a scan tries them.
 * Returns the number of codes; writes at most `capacity` of them when `codes` is set. */
NV_API int nvBaudRatesFastestFirst(NvBaudRate* codes, int capacity);

/* ---------------------------------------------------------------------------------- */
/* Result values. 0..255 are the device's own error codes (the first data byte of an
 * Error frame, 0x42); 256 and up are produced by the host library. 0 is success. */
typedef enum NvResultValue
{
    /* Device codes */
    NRV_OK = 0,
    NRV_INVALID_PERIOD = 3,     /* sampling period or output rate not possible */
    NRV_INVALID_MESSAGE = 4,    /* unknown message or not allowed in this state */
    NRV_TIMER_OVERFLOW = 30,    /* internal timer wrapped */
    NRV_INVALID_BAUDRATE = 32,  /* baud rate code not supported */
    NRV_INVALID_PARAMETER = 33, /* a value in the request is out of range */
    NRV_DEVICE_ERROR = 40,      /* hardware fault */
    NRV_DATA_OVERFLOW = 41,     /* output data exceeds the link's bandwidth */
    NRV_BUFFER_OVERFLOW = 42,   /* the device's transmit buffer overflowed */
    NRV_WARNING = 50,           /* warning class: see the Warning message's code */

    /* Host codes */
    NRV_ERROR = 256,
    NRV_TIMEOUT = 257,
    NRV_NO_DATA = 258,
    NRV_CHECKSUM_FAULT = 259,
    NRV_OUTPUT_CANNOT_BE_OPENED = 260,
    NRV_FILE_READ_ERROR = 261,
    NRV_UNEXPECTED_DISCONNECT = 262,
    NRV_FILE_NOT_FOUND = 263,
    NRV_NOT_A_RECORDING = 264,
    NRV_FILE_WRITE_ERROR = 265,
    NRV_DISK_FULL = 266,
    NRV_END_OF_FILE = 267,
    NRV_PORT_NOT_OPEN = 268,
    NRV_PORT_OPEN_FAILED = 269,
    NRV_PORT_IN_USE = 270,
    NRV_PORT_READ_ERROR = 271,
    NRV_PORT_WRITE_ERROR = 272,
    NRV_NOT_IMPLEMENTED = 273,
    NRV_NOT_SUPPORTED = 274,
    NRV_INVALID_DEVICE = 275,
    NRV_ABORTED = 276,
    NRV_INVALID_ARGUMENT = 277,
    NRV_INVALID_STATE = 278,
    NRV_UNEXPECTED_REPLY = 279,
    NRV_FRAME_TOO_LONG = 280,
    NRV_HOST_BUFFER_OVERFLOW = 281,
    NRV_OUT_OF_MEMORY = 282,
    NRV_NO_DEVICE_FOUND = 283,
    NRV_NOT_A_MASTER = 284,
    NRV_CHANNEL_IN_USE = 285,
    NRV_INVALID_CHANNEL = 286,
    NRV_RADIO_DISABLED = 287,
    NRV_TRACKER_LIMIT = 288,
    NRV_TRACKER_NOT_CONNECTED = 289,
    NRV_RETRANSMISSION_INCOMPLETE = 290,
    NRV_RECORDING_IN_PROGRESS = 291,
    NRV_NOT_RECORDING = 292,
    NRV_LOG_FILE_ALREADY_OPEN = 293,
    NRV_NO_LOG_FILE = 294,
    NRV_FILE_DAMAGED = 295,
    NRV_FILE_VERSION_UNSUPPORTED = 296,
    NRV_CONFIG_FILE_INVALID = 297,
    NRV_FIRMWARE_UNSUPPORTED = 298,
    NRV_FOREIGN_DEVICE = 299,
    NRV_BAUDRATE_NOT_DETECTED = 300,
    NRV_SCAN_IN_PROGRESS = 301,
    NRV_NOT_IN_CONFIGURATION = 302,
    NRV_NOT_MEASURING = 303,
    NRV_DEVICE_BUSY = 304,
    NRV_COULD_NOT_GO_TO_MEASUREMENT = 305,
    NRV_OUTPUT_CONFIGURATION_REJECTED = 306,
    NRV_SYNC_SETTINGS_REJECTED = 307,
    NRV_BAUDRATE_NOT_SET = 308,
    NRV_RESET_FAILED = 309,
    NRV_DEVICE_INFO_UNREADABLE = 310,
    NRV_RADIO_NOT_ENABLED = 311,
    NRV_RADIO_NOT_DISABLED = 312,
    NRV_RECORDING_NOT_STARTED = 313,
    NRV_COULD_NOT_GO_TO_CONFIGURATION = 314,
    NRV_RECORDING_NOT_STOPPED = 315,
    NRV_UNEXPECTED_MESSAGE = 316,
    NRV_SAMPLES_MISSED = 317,
    NRV_RESTORE_COMMUNICATION_FAILED = 318,
    NRV_RESTORE_COMMUNICATION_STOPPED = 319,
    NRV_SHUTTING_DOWN = 320,
    NRV_NOT_A_REGULAR_FILE = 321, /* a folder, FIFO or device where a file was expected */

    NRV_FIRST_HOST_CODE = NRV_ERROR,
    NRV_LAST_HOST_CODE = NRV_NOT_A_REGULAR_FILE,
    NRV_RANGE_END = 0x7FFFFFFF
} NvResultValue;

/* A short English text for every value ("Timeout", ...); "Unknown result value" for
 * values that are not in the table. Never null; the text is static. */
NV_API const char* nvResultValueText(NvResultValue value);
/* Whether a value is one of the table's (device or host code). */
NV_API int nvIsKnownResultValue(int value);

/* ---------------------------------------------------------------------------------- */
/* The library's device states, in this order (the application maps them 1..6, 8). */
typedef enum NvDeviceState
{
    NDS_INITIAL = 0,
    NDS_CONFIGURATION = 1,
    NDS_MEASUREMENT = 2,
    NDS_WAITING_FOR_RECORDING_START = 3,
    NDS_RECORDING = 4,
    NDS_FLUSHING = 5,
    NDS_DESTRUCTING = 6,
    NDS_RANGE_END = 0x7FFFFFFF
} NvDeviceState;

/* How a device is connected (a wireless tracker's state as its master reports it). */
typedef enum NvConnectivityState
{
    NCS_DISCONNECTED = 0,
    NCS_REJECTED = 1,
    NCS_PLUGGED_IN = 2, /* docked / on a cable */
    NCS_WIRELESS = 3,
    NCS_FILE = 4,
    NCS_UNKNOWN = 5,
    NCS_RANGE_END = 0x7FFFFFFF
} NvConnectivityState;

/* What an info response (callback onInfoResponse) carries new values of. */
typedef enum NvInfoRequest
{
    NIR_BATTERY_LEVEL = 0,
    NIR_SIGNAL_STRENGTH = 1,
    NIR_GNSS_STATUS = 2
} NvInfoRequest;

/* Protocols the reader recognises in a device's byte stream. */
typedef enum NvProtocolType
{
    NPT_NBUS = 0,
    NPT_NMEA = 1,
    NPT_RTCM3 = 2,
    NPT_TEXT = 3,   /* printable text that is not NMEA */
    NPT_UNKNOWN = 4 /* bytes that none of the above accepts */
} NvProtocolType;

/* Host processing options, bit flags (NvControl_setOptions(enable, disable)). */
typedef enum NvOption
{
    NVO_NONE = 0x0000,
    NVO_HOST_ORIENTATION = 0x0001,    /* compute orientation on the host from Δq/Δv */
    NVO_INTERPOLATE_MISSING = 0x0002, /* fill missed samples by interpolation */
    NVO_HOST_TIMESTAMP = 0x0004,      /* stamp every packet with the host's receive time */
    NVO_RETAIN_LIVE_DATA = 0x0008,    /* keep live packets in the device's packet queue */
    NVO_RETAIN_FILE_DATA = 0x0010,    /* keep every packet loaded from a file (playback by index) */
    NVO_REPORT_MESSAGES = 0x0020,     /* report every message sent and received */
    NVO_ALL = 0x003F
} NvOption;

/* What a device does on an internal error in measurement (Req/SetErrorMode, message 218). */
typedef enum NvErrorMode
{
    NEM_IGNORE = 0,                /* drop the sample silently */
    NEM_INCREASE_COUNTER = 1,      /* skip the sample, the packet counter shows the gap */
    NEM_SEND_ERROR = 2,            /* send an Error frame and go on */
    NEM_SEND_ERROR_AND_CONFIG = 3, /* send an Error frame and go to configuration */
    NEM_RANGE_END = 0x7FFFFFFF
} NvErrorMode;

/* Synchronisation lines; a line of value 9 or less is an input. */
typedef enum NvSyncLine
{
    NSL_IN1 = 0,
    NSL_IN2 = 1,
    NSL_IN3 = 2,
    NSL_BIDIRECTIONAL1_IN = 3,
    NSL_CLOCK_IN = 4,
    NSL_CTS_IN = 5,
    NSL_GNSS_CLOCK_IN = 6,
    NSL_REQ_DATA = 8, /* a ReqData message acts as the trigger */
    NSL_GNSS_1PPS = 9,
    NSL_OUT1 = 10,
    NSL_OUT2 = 11,
    NSL_SYNC_OUT = 12,
    NSL_RTS_OUT = 13,
    NSL_NONE = 14,
    NSL_RANGE_END = 0x7FFFFFFF
} NvSyncLine;

typedef enum NvSyncFunction
{
    NSF_START_RECORDING_IN = 0,
    NSF_STOP_RECORDING_IN = 1,
    NSF_RESET_TIMER = 2,
    NSF_TRIGGER_INDICATION = 3,
    NSF_INTERVAL_TRANSITION_MEASUREMENT = 4,
    NSF_INTERVAL_TRANSITION_RECORDING = 5,
    NSF_GO_TO_OPERATIONAL = 6,
    NSF_SAMPLE_AND_SEND = 7,
    NSF_SEND_LATEST = 8,
    NSF_CLOCK_BIAS_ESTIMATION = 9,
    NSF_PULSE_WIDTH_MODULATION = 10,
    NSF_START_SAMPLING = 11,
    NSF_START_RECORDING_OUT = 12,
    NSF_STOP_RECORDING_OUT = 13,
    NSF_TIME_PULSE = 14, /* 1PPS time pulse */
    NSF_NONE = 16,
    NSF_RANGE_END = 0x7FFFFFFF
} NvSyncFunction;

typedef enum NvSyncPolarity
{
    NSP_NONE = 0,
    NSP_RISING_EDGE = 1,
    NSP_FALLING_EDGE = 2,
    NSP_BOTH_EDGES = 3,
    NSP_RANGE_END = 0x7FFFFFFF
} NvSyncPolarity;

/* ---------------------------------------------------------------------------------- */
/* Data identifiers: the quantity in bits 4..15, the format in bits 0..3: precision in
 * bits 0..1, coordinate frame in bits 2..3. Quantities compare with the format masked
 * off. */
typedef uint16_t NvDataIdentifier;

typedef enum NvPrecision
{
    NDP_FLOAT32 = 0, /* IEEE 754 single, 4 bytes */
    NDP_FP1220 = 1,  /* signed fixed point 12.20, 4 bytes: raw / 2^20 */
    NDP_FP1632 = 2,  /* fixed point 16.32, 6 bytes: fraction (u32), integer part (i16) */
    NDP_FLOAT64 = 3  /* IEEE 754 double, 8 bytes */
} NvPrecision;

typedef enum NvCoordinateFrame
{
    NCF_ENU = 0x0,
    NCF_NED = 0x4,
    NCF_NWU = 0x8
} NvCoordinateFrame;

enum
{
    NDI_PRECISION_MASK = 0x0003,
    NDI_FRAME_MASK = 0x000C,
    NDI_FORMAT_MASK = 0x000F,
    NDI_QUANTITY_MASK = 0xFFF0,
    NDI_GROUP_MASK = 0xFF00,

    NDI_NONE = 0x0000,
    NDI_TEMPERATURE = 0x0810,
    NDI_UTC_TIME = 0x1010,
    NDI_PACKET_COUNTER = 0x1020,
    NDI_TIME_OF_WEEK = 0x1030,
    NDI_GNSS_AGE = 0x1040,
    NDI_SAMPLE_TIME_FINE = 0x1060,
    NDI_SAMPLE_TIME_COARSE = 0x1070,
    NDI_FRAME_RANGE = 0x1080,
    NDI_QUATERNION = 0x2010,
    NDI_ROTATION_MATRIX = 0x2020,
    NDI_EULER_ANGLES = 0x2030,
    NDI_BARO_PRESSURE = 0x3010,
    NDI_DELTA_V = 0x4010,
    NDI_ACCELERATION = 0x4020,
    NDI_FREE_ACCELERATION = 0x4030,
    NDI_ACCELERATION_HR = 0x4040,
    NDI_ALTITUDE_MSL = 0x5010,
    NDI_ALTITUDE_ELLIPSOID = 0x5020,
    NDI_POSITION_ECEF = 0x5030,
    NDI_LAT_LON = 0x5040,
    NDI_GNSS_PVT_DATA = 0x7010,
    NDI_GNSS_SAT_INFO = 0x7020,
    NDI_GNSS_PVT_PULSE = 0x7030,
    NDI_RATE_OF_TURN = 0x8020,
    NDI_DELTA_Q = 0x8030,
    NDI_RATE_OF_TURN_HR = 0x8040,
    NDI_ANALOG_IN_1 = 0xB010,
    NDI_ANALOG_IN_2 = 0xB020,
    NDI_MAGNETIC_FIELD = 0xC020,
    NDI_VELOCITY = 0xD010,
    NDI_STATUS_BYTE = 0xE010,
    NDI_STATUS_WORD = 0xE020,
    NDI_RSSI = 0xE040
};

/* Frequency of an output configuration record meaning "with every packet". */
#define NV_FREQUENCY_EVERY_PACKET 0xFFFFu

static inline NvDataIdentifier nvQuantity(NvDataIdentifier id)
{
    return (NvDataIdentifier)(id & NDI_QUANTITY_MASK);
}
static inline NvPrecision nvPrecision(NvDataIdentifier id)
{
    return (NvPrecision)(id & NDI_PRECISION_MASK);
}
static inline NvCoordinateFrame nvCoordinateFrame(NvDataIdentifier id)
{
    return (NvCoordinateFrame)(id & NDI_FRAME_MASK);
}
static inline NvDataIdentifier nvWithPrecision(NvDataIdentifier id, NvPrecision precision)
{
    return (NvDataIdentifier)((id & ~NDI_PRECISION_MASK) | (precision & NDI_PRECISION_MASK));
}
static inline NvDataIdentifier nvWithFrame(NvDataIdentifier id, NvCoordinateFrame frame)
{
    return (NvDataIdentifier)((id & ~NDI_FRAME_MASK) | (frame & NDI_FRAME_MASK));
}
/* Bytes per value of a precision: 4, 4, 6 or 8. */
static inline int nvPrecisionSize(NvPrecision precision)
{
    return precision == NDP_FP1632 ? 6 : precision == NDP_FLOAT64 ? 8 : 4;
}

/* The English name of a quantity ("Acceleration"); the format bits are ignored.
 * "Unknown" for quantities not in the table. */
NV_API const char* nvDataIdentifierName(NvDataIdentifier id);
/* Number of values of a real quantity (3 for acceleration, 9 for the rotation matrix);
 * 0 for quantities that are not reals. Inline: it runs for every value a packet hands out. */
static inline int nvRealCount(NvDataIdentifier id)
{
    switch (id & NDI_QUANTITY_MASK) {
    case NDI_TEMPERATURE:
    case NDI_ALTITUDE_MSL:
    case NDI_ALTITUDE_ELLIPSOID:
        return 1;
    case NDI_LAT_LON:
        return 2;
    case NDI_EULER_ANGLES:
    case NDI_DELTA_V:
    case NDI_ACCELERATION:
    case NDI_FREE_ACCELERATION:
    case NDI_ACCELERATION_HR:
    case NDI_POSITION_ECEF:
    case NDI_RATE_OF_TURN:
    case NDI_RATE_OF_TURN_HR:
    case NDI_MAGNETIC_FIELD:
    case NDI_VELOCITY:
        return 3;
    case NDI_QUATERNION:
    case NDI_DELTA_Q:
        return 4;
    case NDI_ROTATION_MATRIX:
        return 9;
    default:
        return 0;
    }
}
/* Whether the quantity's payload is made of reals in the identifier's precision. */
static inline int nvIsRealQuantity(NvDataIdentifier id)
{
    return nvRealCount(id) > 0;
}
/* The payload size a device sends for an identifier (reals: count x precision size);
 * 0 for unknown quantities. */
NV_API int nvItemSize(NvDataIdentifier id);

#ifdef __cplusplus
}
#endif

#endif
