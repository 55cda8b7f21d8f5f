"""Loading libnivradeviceapi and declaring the functions of its plain C interface
(nvplainc.h). Everything here mirrors that header; the Pythonic layer is in __init__."""

import ctypes
import ctypes.util
import os
from pathlib import Path

ENV_LIBRARY = "NIVRADEVICE_LIBRARY"
LIBRARY_NAME = "libnivradeviceapi.so.0"

NV_PORT_NAME_SIZE = 256
NV_DEVICE_ID_TEXT_SIZE = 24
NV_PRODUCT_CODE_SIZE = 32
NV_DEVICE_TYPE_TEXT_SIZE = 48
NV_PORT_DESCRIPTION_SIZE = 128
NV_MAX_OUTPUT_RECORDS = 32
NV_PACKET_ITEM_MAX_VALUES = 9


class PortRecord(ctypes.Structure):
    _fields_ = [
        ("portName", ctypes.c_char * NV_PORT_NAME_SIZE),
        ("baudRate", ctypes.c_int),
        ("deviceId", ctypes.c_char * NV_DEVICE_ID_TEXT_SIZE),
        ("productCode", ctypes.c_char * NV_PRODUCT_CODE_SIZE),
        ("deviceType", ctypes.c_char * NV_DEVICE_TYPE_TEXT_SIZE),
        ("description", ctypes.c_char * NV_PORT_DESCRIPTION_SIZE),
        ("vendorId", ctypes.c_uint16),
        ("productId", ctypes.c_uint16),
        ("isEmulated", ctypes.c_int),
        ("isRs485", ctypes.c_int),
        ("isForeign", ctypes.c_int),
    ]


class OutputRecord(ctypes.Structure):
    _fields_ = [("dataIdentifier", ctypes.c_uint16), ("frequency", ctypes.c_uint16)]


class PacketItem(ctypes.Structure):
    _fields_ = [
        ("dataIdentifier", ctypes.c_uint16),
        ("quantity", ctypes.c_uint16),
        ("valueCount", ctypes.c_int),
        ("payloadSize", ctypes.c_int),
        ("values", ctypes.c_double * NV_PACKET_ITEM_MAX_VALUES),
        ("name", ctypes.c_char_p),
    ]


# Handles are opaque pointers.
c_control = ctypes.c_void_p
c_device = ctypes.c_void_p
c_packet = ctypes.c_void_p

# The callback record NvCallbackPlainC (nvcallback.h), entry by entry.
StateChangedFn = ctypes.CFUNCTYPE(None, ctypes.c_void_p, c_device, ctypes.c_int, ctypes.c_int)
LiveDataFn = ctypes.CFUNCTYPE(None, ctypes.c_void_p, c_device, c_packet)
MissedPacketsFn = ctypes.CFUNCTYPE(None, ctypes.c_void_p, c_device, ctypes.c_int, ctypes.c_int,
                                   ctypes.c_int)
WakeupFn = ctypes.CFUNCTYPE(None, ctypes.c_void_p, c_device)
ProgressFn = ctypes.CFUNCTYPE(None, ctypes.c_void_p, c_device, ctypes.c_int, ctypes.c_int,
                              ctypes.c_void_p)
ConnectivityFn = ctypes.CFUNCTYPE(None, ctypes.c_void_p, c_device, ctypes.c_int)
InfoFn = ctypes.CFUNCTYPE(None, ctypes.c_void_p, c_device, ctypes.c_int)
ErrorFn = ctypes.CFUNCTYPE(None, ctypes.c_void_p, c_device, ctypes.c_int)
MessageFn = ctypes.CFUNCTYPE(None, ctypes.c_void_p, c_device, ctypes.c_void_p)
DetectedFn = ctypes.CFUNCTYPE(None, ctypes.c_void_p, c_device, ctypes.c_int, ctypes.c_void_p)
DataUnavailableFn = ctypes.CFUNCTYPE(None, ctypes.c_void_p, c_device, ctypes.c_long)
RestoreFn = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_void_p, ctypes.c_int)
ScanLogFn = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_char_p)


class CallbackRecord(ctypes.Structure):
    _fields_ = [
        ("userData", ctypes.c_void_p),
        ("onDeviceStateChanged", StateChangedFn),
        ("onLiveDataAvailable", LiveDataFn),
        ("onMissedPackets", MissedPacketsFn),
        ("onWakeupReceived", WakeupFn),
        ("onProgressUpdated", ProgressFn),
        ("onConnectivityChanged", ConnectivityFn),
        ("onInfoResponse", InfoFn),
        ("onError", ErrorFn),
        ("onNonDataMessage", MessageFn),
        ("onMessageDetected", DetectedFn),
        ("onMessageReceivedFromDevice", MessageFn),
        ("onMessageSentToDevice", MessageFn),
        ("onDataUnavailable", DataUnavailableFn),
        ("onRestoreCommunication", RestoreFn),
        ("onWriteMessageToLogFile", MessageFn),
        ("onBufferedDataAvailable", LiveDataFn),
    ]


_i, _u, _p, _s = ctypes.c_int, ctypes.c_uint, ctypes.c_void_p, ctypes.c_char_p
_size, _i64, _u64 = ctypes.c_size_t, ctypes.c_int64, ctypes.c_uint64
_d = ctypes.POINTER(ctypes.c_double)

# name: (result type, argument types)
_PROTOTYPES = {
    "NvResultValue_toString": (_s, [_i]),
    "NvControl_lastResult": (_i, [_p]),
    "NvControl_construct": (_p, []),
    "NvControl_destruct": (None, [_p]),
    "NvControl_addCallbackHandler": (None, [_p, ctypes.POINTER(CallbackRecord), _i]),
    "NvControl_removeCallbackHandler": (None, [_p, ctypes.POINTER(CallbackRecord)]),
    "NvControl_setReplyTimeout": (None, [_p, _u]),
    "NvControl_replyTimeout": (_u, [_p]),
    "NvControl_openPortByName": (_i, [_p, _s, _i, _u]),
    "NvControl_closePortByName": (_i, [_p, _s]),
    "NvControl_openLogFileByName": (_i, [_p, _s]),
    "NvControl_close": (None, [_p]),
    "NvControl_deviceCount": (_i, [_p]),
    "NvControl_deviceRefByIdText": (_p, [_p, _s]),
    "NvControl_deviceRefByPortName": (_p, [_p, _s]),
    "NvControl_mainDevicesRef": (_i, [_p, ctypes.POINTER(ctypes.c_void_p), _i]),
    "NvScanner_scanPortRecords": (_i, [ctypes.POINTER(PortRecord), _i, _i, _u, _i, _i]),
    "NvScanner_scanPortRecord": (_i, [ctypes.POINTER(PortRecord), _i, _u, _i]),
    "NvScanner_setScanLogSink": (None, [ScanLogFn, _p]),
    "NvScanner_abortScan": (None, []),
    "NvDevice_addRef": (_i, [_p]),
    "NvDevice_removeRef": (_i, [_p]),
    "NvDevice_refCount": (_i, [_p]),
    "NvDevice_deviceIdText": (_i, [_p, _p, _size]),
    "NvDevice_productCodeText": (_i, [_p, _p, _size]),
    "NvDevice_deviceTypeText": (_i, [_p, _p, _size]),
    "NvDevice_firmwareVersionText": (_i, [_p, _p, _size]),
    "NvDevice_hardwareVersionText": (_i, [_p, _p, _size]),
    "NvDevice_portNameText": (_i, [_p, _p, _size]),
    "NvDevice_logFileNameText": (_i, [_p, _p, _size]),
    "NvDevice_baudRate": (_i, [_p]),
    "NvDevice_deviceState": (_i, [_p]),
    "NvDevice_connectivityState": (_i, [_p]),
    "NvDevice_isMeasuring": (_i, [_p]),
    "NvDevice_isInConfigMode": (_i, [_p]),
    "NvDevice_isRecording": (_i, [_p]),
    "NvDevice_isMasterDevice": (_i, [_p]),
    "NvDevice_isReadingFromFile": (_i, [_p]),
    "NvDevice_gotoConfig": (_i, [_p]),
    "NvDevice_gotoMeasurement": (_i, [_p]),
    "NvDevice_reset": (_i, [_p]),
    "NvDevice_outputConfigurationRecords": (_i, [_p, ctypes.POINTER(OutputRecord), _i]),
    "NvDevice_setOutputConfigurationRecords": (_i, [_p, ctypes.POINTER(OutputRecord), _i]),
    "NvDevice_supportedUpdateRateList": (_i, [_p, ctypes.c_uint16, ctypes.POINTER(_i), _i]),
    "NvDevice_maximumUpdateRate": (_i, [_p]),
    "NvDevice_createLogFileByName": (_i, [_p, _s]),
    "NvDevice_startRecording": (_i, [_p]),
    "NvDevice_stopRecording": (_i, [_p]),
    "NvDevice_closeLogFile": (_i, [_p]),
    "NvDevice_logFileSize": (_u64, [_p]),
    "NvDevice_logPacketsWritten": (_u64, [_p]),
    "NvDevice_logPacketsLost": (_u64, [_p]),
    "NvDevice_loadLogFile": (_i, [_p]),
    "NvDevice_loadLogFileAndWait": (_i, [_p, _u]),
    "NvDevice_isFileLoaded": (_i, [_p]),
    "NvDevice_packetCount": (_i64, [_p]),
    "NvDevice_newDataPacketByIndex": (_p, [_p, _i64]),
    "NvPacket_itemCount": (_i, [_p]),
    "NvPacket_item": (_i, [_p, _i, ctypes.POINTER(PacketItem)]),
    "NvPacket_findItem": (_i, [_p, ctypes.c_uint16, ctypes.POINTER(PacketItem)]),
    "NvPacket_itemPayload": (_i, [_p, _i, _p, _size]),
    "NvPacket_packetCounter": (_i, [_p]),
    "NvPacket_sampleTimeFine": (_i64, [_p]),
    "NvPacket_sampleTimeCoarse": (_i64, [_p]),
    "NvPacket_busId": (_i, [_p]),
    "NvPacket_isMalformed": (_i, [_p]),
    "NvPacket_orientationQuaternion": (_i, [_p, _i, _d]),
    "NvPacket_orientationEuler": (_i, [_p, _i, _d]),
    "NvPacket_copy": (_p, [_p]),
    "NvPacket_delete": (None, [_p]),
    "NvCbString_text": (_s, [_p]),
    "ndaTerminate": (None, []),
}


def _sanitized(tree: Path) -> bool:
    """Whether a build tree is a sanitizer build: its libraries would end an interpreter
    that is not instrumented as soon as they are loaded."""
    try:
        with open(tree / "CMakeCache.txt", encoding="utf-8", errors="replace") as cache:
            for line in cache:
                if line.startswith("CMAKE_BUILD_TYPE:"):
                    return line.split("=", 1)[-1].strip() in ("Asan", "Tsan")
    except OSError:
        pass
    return False


def _candidates():
    """Where the library is looked for, in order."""
    override = os.environ.get(ENV_LIBRARY)
    if override:
        yield override
        return
    # A build tree next to the package: build/ first, then any other build*/ folder,
    # the most recently built first; sanitizer builds are left out.
    root = Path(__file__).resolve().parents[2]
    trees = [root / "build"] + sorted(
        (p for p in root.glob("build*") if p.name != "build" and p.is_dir()),
        key=lambda p: p.stat().st_mtime, reverse=True)
    for tree in trees:
        path = tree / "lib" / LIBRARY_NAME
        if path.exists() and not _sanitized(tree):
            yield str(path)
    found = ctypes.util.find_library("nivradeviceapi")
    if found:
        yield found


def load():
    """Loads the library and declares its functions; OSError with the places tried."""
    tried = []
    for candidate in _candidates():
        try:
            lib = ctypes.CDLL(candidate)  # CDLL: calls release the GIL
        except OSError as error:
            tried.append(f"{candidate} ({error})")
            continue
        for name, (restype, argtypes) in _PROTOTYPES.items():
            function = getattr(lib, name)
            function.restype = restype
            function.argtypes = argtypes
        return lib
    raise OSError(
        "libnivradeviceapi not found"
        + (": tried " + ", ".join(tried) if tried else "")
        + f". Build it (cmake --build build --target nivradeviceapi_shared), install it, "
        f"or point {ENV_LIBRARY} at libnivradeviceapi.so.")
