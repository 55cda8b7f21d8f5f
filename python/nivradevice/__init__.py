"""Python access to the KvManager device library (libnivradeviceapi) through ctypes.

    import nivradevice as nv

    for port in nv.scan():
        print(port.port_name, port.device_id, port.product_code)
    with nv.Control() as control:
        device = control.open_port(port.port_name, port.baud_rate)
        device.output_configuration = [(nv.DataId.PACKET_COUNTER, nv.EVERY_PACKET),
                                       (nv.DataId.ACCELERATION, 100)]
        control.on_live_data = lambda device, packet: print(packet.counter, packet[nv.DataId.ACCELERATION])
        device.go_to_measurement()
        with device.recording("run.kvb"):
            time.sleep(5)

Failures raise DeviceError with the library's result value and text. Callbacks (on_live_data,
on_error, on_state_changed, on_progress) run on the library's threads: keep them short,
hand work to your own thread, and do not call requests of the same device from them.

The library is found through the environment variable NIVRADEVICE_LIBRARY (a path), then a
build tree next to this package (build/lib), then the system's library path.
"""

import atexit
import ctypes
import enum
import sys
import threading
import traceback
import weakref
from contextlib import contextmanager
from dataclasses import dataclass
from typing import Callable, List, NamedTuple, Optional, Sequence, Tuple

from . import _lib

__all__ = [
    "BaudRate", "Control", "abort_scan", "DataId", "Device", "DeviceError", "DeviceState", "EVERY_PACKET",
    "Frame", "Item", "Packet", "PortInfo", "Result", "library", "result_text", "scan",
    "scan_port",
]

EVERY_PACKET = 0xFFFF  # output frequency "with every packet"

_library = None
_library_lock = threading.Lock()


def library():
    """The loaded ctypes library (loaded on first use)."""
    global _library
    with _library_lock:
        if _library is None:
            _library = _lib.load()
        return _library


# ---------------------------------------------------------------------------- Enumerations

class BaudRate(enum.IntEnum):
    """Codes of the Req/SetBaudRate message; DETECT tries the usual rates, fastest first."""
    DETECT = 0x00
    B4800 = 0x01
    B9600 = 0x02
    B14400 = 0x03
    B19200 = 0x04
    B28800 = 0x05
    B38400 = 0x06
    B57600 = 0x07
    B76800 = 0x08
    B115200 = 0x09
    B230400 = 0x0A
    B460800 = 0x0B
    B921600 = 0x0C
    B1000000 = 0x0D
    B2000000 = 0x0E
    B3686400 = 0x0F
    B4000000 = 0x10
    INVALID = 0xFF

    @classmethod
    def from_rate(cls, bits_per_second: int) -> "BaudRate":
        if bits_per_second == 0:
            return cls.DETECT
        try:
            return cls["B%d" % bits_per_second]
        except KeyError:
            raise ValueError(f"no baud rate code for {bits_per_second} bd") from None

    @property
    def rate(self) -> int:
        """Bits per second; 0 for DETECT and INVALID."""
        return int(self.name[1:]) if self.name.startswith("B") else 0


class DeviceState(enum.IntEnum):
    INITIAL = 0
    CONFIGURATION = 1
    MEASUREMENT = 2
    WAITING_FOR_RECORDING_START = 3
    RECORDING = 4
    FLUSHING = 5
    DESTRUCTING = 6


class Frame(enum.IntEnum):
    """Coordinate frames of data identifiers."""
    ENU = 0x0
    NED = 0x4
    NWU = 0x8


class DataId(enum.IntEnum):
    """Data identifiers (quantities, format bits 0: float32, ENU). Combine a quantity with
    a frame or precision by or-ing: DataId.QUATERNION | Frame.NED."""
    TEMPERATURE = 0x0810
    UTC_TIME = 0x1010
    PACKET_COUNTER = 0x1020
    TIME_OF_WEEK = 0x1030
    GNSS_AGE = 0x1040
    SAMPLE_TIME_FINE = 0x1060
    SAMPLE_TIME_COARSE = 0x1070
    FRAME_RANGE = 0x1080
    QUATERNION = 0x2010
    ROTATION_MATRIX = 0x2020
    EULER_ANGLES = 0x2030
    BARO_PRESSURE = 0x3010
    DELTA_V = 0x4010
    ACCELERATION = 0x4020
    FREE_ACCELERATION = 0x4030
    ACCELERATION_HR = 0x4040
    ALTITUDE_MSL = 0x5010
    ALTITUDE_ELLIPSOID = 0x5020
    POSITION_ECEF = 0x5030
    LAT_LON = 0x5040
    GNSS_PVT_DATA = 0x7010
    GNSS_SAT_INFO = 0x7020
    GNSS_PVT_PULSE = 0x7030
    RATE_OF_TURN = 0x8020
    DELTA_Q = 0x8030
    RATE_OF_TURN_HR = 0x8040
    ANALOG_IN_1 = 0xB010
    ANALOG_IN_2 = 0xB020
    MAGNETIC_FIELD = 0xC020
    VELOCITY = 0xD010
    STATUS_BYTE = 0xE010
    STATUS_WORD = 0xE020
    RSSI = 0xE040


class Result(enum.IntEnum):
    """Result values: 0..255 the device's error codes, 256 and up the host library's."""
    OK = 0
    INVALID_PERIOD = 3
    INVALID_MESSAGE = 4
    TIMER_OVERFLOW = 30
    INVALID_BAUDRATE = 32
    INVALID_PARAMETER = 33
    DEVICE_ERROR = 40
    DATA_OVERFLOW = 41
    BUFFER_OVERFLOW = 42
    WARNING = 50
    ERROR = 256
    TIMEOUT = 257
    NO_DATA = 258
    CHECKSUM_FAULT = 259
    OUTPUT_CANNOT_BE_OPENED = 260
    FILE_READ_ERROR = 261
    UNEXPECTED_DISCONNECT = 262
    FILE_NOT_FOUND = 263
    NOT_A_RECORDING = 264
    FILE_WRITE_ERROR = 265
    DISK_FULL = 266
    END_OF_FILE = 267
    PORT_NOT_OPEN = 268
    PORT_OPEN_FAILED = 269
    PORT_IN_USE = 270
    PORT_READ_ERROR = 271
    PORT_WRITE_ERROR = 272
    NOT_IMPLEMENTED = 273
    NOT_SUPPORTED = 274
    INVALID_DEVICE = 275
    ABORTED = 276
    INVALID_ARGUMENT = 277
    INVALID_STATE = 278
    UNEXPECTED_REPLY = 279
    FRAME_TOO_LONG = 280
    HOST_BUFFER_OVERFLOW = 281
    OUT_OF_MEMORY = 282
    NO_DEVICE_FOUND = 283
    NOT_A_MASTER = 284
    CHANNEL_IN_USE = 285
    INVALID_CHANNEL = 286
    RADIO_DISABLED = 287
    TRACKER_LIMIT = 288
    TRACKER_NOT_CONNECTED = 289
    RETRANSMISSION_INCOMPLETE = 290
    RECORDING_IN_PROGRESS = 291
    NOT_RECORDING = 292
    LOG_FILE_ALREADY_OPEN = 293
    NO_LOG_FILE = 294
    FILE_DAMAGED = 295
    FILE_VERSION_UNSUPPORTED = 296
    CONFIG_FILE_INVALID = 297
    FIRMWARE_UNSUPPORTED = 298
    FOREIGN_DEVICE = 299
    BAUDRATE_NOT_DETECTED = 300
    SCAN_IN_PROGRESS = 301
    NOT_IN_CONFIGURATION = 302
    NOT_MEASURING = 303
    DEVICE_BUSY = 304
    COULD_NOT_GO_TO_MEASUREMENT = 305
    OUTPUT_CONFIGURATION_REJECTED = 306
    SYNC_SETTINGS_REJECTED = 307
    BAUDRATE_NOT_SET = 308
    RESET_FAILED = 309
    DEVICE_INFO_UNREADABLE = 310
    RADIO_NOT_ENABLED = 311
    RADIO_NOT_DISABLED = 312
    RECORDING_NOT_STARTED = 313
    COULD_NOT_GO_TO_CONFIGURATION = 314
    RECORDING_NOT_STOPPED = 315
    UNEXPECTED_MESSAGE = 316
    SAMPLES_MISSED = 317
    RESTORE_COMMUNICATION_FAILED = 318
    RESTORE_COMMUNICATION_STOPPED = 319
    SHUTTING_DOWN = 320
    NOT_A_REGULAR_FILE = 321


def _enum_or_int(cls, value):
    try:
        return cls(value)
    except ValueError:
        return value


def result_text(value: int) -> str:
    """The library's short English text for a result value."""
    return library().NvResultValue_toString(int(value)).decode()


class DeviceError(Exception):
    """A library call failed. `result` is the result value (a Result where known), `text`
    the library's text for it."""

    def __init__(self, what: str, result: int):
        self.result = _enum_or_int(Result, result)
        self.text = result_text(result)
        super().__init__(f"{what}: {self.text} ({int(result)})")


def _last_result() -> int:
    return library().NvControl_lastResult(None)


def _fail(what: str):
    raise DeviceError(what, _last_result())


def _check(ok, what: str):
    if not ok:
        _fail(what)
    return ok


def _decode(raw: bytes) -> str:
    return raw.decode("utf-8", "replace")


def _read_text(function, handle, what: str) -> str:
    """A text through the caller-buffer convention of nvplainc.h."""
    size = 64
    while True:
        buffer = ctypes.create_string_buffer(size)
        length = function(handle, buffer, size)
        if length < 0:
            _fail(what)
        if length < size:
            return _decode(buffer.value)
        size = length + 1


# ---------------------------------------------------------------------------- Scanning

@dataclass(frozen=True)
class PortInfo:
    """A port and the device found on it."""
    port_name: str
    baud_rate: BaudRate
    device_id: str  # hexadecimal, "" without a device
    product_code: str
    device_type: str
    description: str
    vendor_id: int
    product_id: int
    is_emulated: bool
    is_rs485: bool
    is_foreign: bool

    @classmethod
    def _from_record(cls, r: _lib.PortRecord) -> "PortInfo":
        return cls(_decode(r.portName), _enum_or_int(BaudRate, r.baudRate), _decode(r.deviceId),
                   _decode(r.productCode), _decode(r.deviceType), _decode(r.description),
                   r.vendorId, r.productId, bool(r.isEmulated), bool(r.isRs485),
                   bool(r.isForeign))


@contextmanager
def _scan_log(log: Optional[Callable[[str], None]]):
    if log is None:
        yield
        return
    lib = library()

    def sink(_context, line):
        try:
            log(_decode(line))
        except Exception:  # a failing sink must not end the scan
            traceback.print_exc()

    function = _lib.ScanLogFn(sink)  # kept alive until the sink is removed again
    lib.NvScanner_setScanLogSink(function, None)
    try:
        yield
    finally:
        lib.NvScanner_setScanLogSink(_lib.ScanLogFn(), None)


def scan(baud_rate: BaudRate = BaudRate.DETECT, scan_time_ms: int = 0,
         include_foreign: bool = False, detect_rs485: bool = False,
         log: Optional[Callable[[str], None]] = None) -> List[PortInfo]:
    """Probes every port (system serial ports, kvsim's announcements, NV_EXTRA_PORTS) and
    answers those with a device. `log` receives one line per step, from the scanning
    threads."""
    capacity = 256
    records = (_lib.PortRecord * capacity)()
    with _scan_log(log):
        found = library().NvScanner_scanPortRecords(records, capacity, int(baud_rate),
                                                    scan_time_ms, 0 if include_foreign else 1,
                                                    1 if detect_rs485 else 0)
    if found < 0:
        _fail("scan")
    return [PortInfo._from_record(records[i]) for i in range(min(found, capacity))]


def abort_scan():
    """Ends running scans (from another thread); they answer what they found so far."""
    library().NvScanner_abortScan()


def scan_port(port_name: str, baud_rate: BaudRate = BaudRate.DETECT, scan_time_ms: int = 0,
              detect_rs485: bool = False) -> Optional[PortInfo]:
    """Probes one port; None when no device answered there."""
    record = _lib.PortRecord()
    name = port_name.encode()
    if len(name) >= _lib.NV_PORT_NAME_SIZE:
        raise ValueError("port name too long")
    record.portName = name
    if library().NvScanner_scanPortRecord(ctypes.byref(record), int(baud_rate), scan_time_ms,
                                          1 if detect_rs485 else 0):
        return PortInfo._from_record(record)
    return None


# ---------------------------------------------------------------------------- Packets

class Item(NamedTuple):
    """One item of a packet. `values` as nvplainc.h lists them (reals as sent, counters,
    UTC time fields, ...); empty for items read only as bytes."""
    identifier: int  # as sent, with format bits
    quantity: int    # format bits cleared (a DataId where known)
    name: str
    values: Tuple[float, ...]
    payload_size: int


class Packet:
    """One data packet. It holds a reference to the library's packet, so it stays valid
    after the callback that delivered it."""

    __slots__ = ("_handle", "_items", "__weakref__")

    def __init__(self, handle: int):
        self._handle = handle
        self._items = None

    def __del__(self):
        handle, self._handle = getattr(self, "_handle", None), None
        if handle and _library is not None:
            _library.NvPacket_delete(handle)

    @property
    def counter(self) -> Optional[int]:
        """The packet counter, None when the packet has none."""
        value = library().NvPacket_packetCounter(self._handle)
        return None if value < 0 else value

    @property
    def sample_time_fine(self) -> Optional[int]:
        """Sample time in 10 kHz ticks, None when absent."""
        value = library().NvPacket_sampleTimeFine(self._handle)
        return None if value < 0 else value

    @property
    def sample_time_coarse(self) -> Optional[int]:
        value = library().NvPacket_sampleTimeCoarse(self._handle)
        return None if value < 0 else value

    @property
    def bus_id(self) -> int:
        return library().NvPacket_busId(self._handle)

    @property
    def is_malformed(self) -> bool:
        return bool(library().NvPacket_isMalformed(self._handle))

    @property
    def items(self) -> List[Item]:
        if self._items is None:
            lib = library()
            raw = _lib.PacketItem()
            items = []
            for index in range(lib.NvPacket_itemCount(self._handle)):
                if lib.NvPacket_item(self._handle, index, ctypes.byref(raw)):
                    items.append(Item(raw.dataIdentifier, _enum_or_int(DataId, raw.quantity),
                                      raw.name.decode(), tuple(raw.values[:raw.valueCount]),
                                      raw.payloadSize))
            self._items = items
        return self._items

    def item(self, quantity: int) -> Optional[Item]:
        """The first item of a quantity (format bits ignored), or None."""
        wanted = int(quantity) & 0xFFF0
        return next((i for i in self.items if i.quantity == wanted), None)

    def __contains__(self, quantity: int) -> bool:
        return self.item(quantity) is not None

    def __getitem__(self, quantity: int) -> Tuple[float, ...]:
        found = self.item(quantity)
        if found is None:
            raise KeyError(_enum_or_int(DataId, int(quantity) & 0xFFF0))
        return found.values

    def payload(self, index: int) -> bytes:
        """The raw bytes of item `index`."""
        lib = library()
        size = lib.NvPacket_itemPayload(self._handle, index, None, 0)
        if size < 0:
            _fail("payload")
        buffer = ctypes.create_string_buffer(max(size, 1))
        lib.NvPacket_itemPayload(self._handle, index, buffer, size)
        return buffer.raw[:size]

    def quaternion(self, frame: Frame = Frame.ENU) -> Optional[Tuple[float, float, float, float]]:
        """Orientation (w, x, y, z) in `frame` from whichever form the packet carries."""
        out = (ctypes.c_double * 4)()
        if not library().NvPacket_orientationQuaternion(self._handle, int(frame), out):
            return None
        return tuple(out)

    def euler(self, frame: Frame = Frame.ENU) -> Optional[Tuple[float, float, float]]:
        """Orientation as roll, pitch, yaw in degrees, in `frame`."""
        out = (ctypes.c_double * 3)()
        if not library().NvPacket_orientationEuler(self._handle, int(frame), out):
            return None
        return tuple(out)

    def __repr__(self):
        return f"<Packet counter={self.counter} items={[i.name for i in self.items]}>"


# ---------------------------------------------------------------------------- Devices

class Device:
    """An open device (on a port or from a recording). It holds a library reference, so
    the handle stays valid even when the device is closed meanwhile; its control releases
    it when closed."""

    def __init__(self, control: "Control", handle: int):
        self._control = control
        self._handle = handle

    @property
    def handle(self) -> int:
        if not self._handle:
            raise DeviceError("device", Result.INVALID_DEVICE)
        return self._handle

    def _text(self, function_name: str) -> str:
        return _read_text(getattr(library(), function_name), self.handle, function_name)

    @property
    def id(self) -> str:
        return self._text("NvDevice_deviceIdText")

    @property
    def product_code(self) -> str:
        return self._text("NvDevice_productCodeText")

    @property
    def device_type(self) -> str:
        return self._text("NvDevice_deviceTypeText")

    @property
    def firmware_version(self) -> str:
        return self._text("NvDevice_firmwareVersionText")

    @property
    def hardware_version(self) -> str:
        return self._text("NvDevice_hardwareVersionText")

    @property
    def port_name(self) -> str:
        return self._text("NvDevice_portNameText")

    @property
    def baud_rate(self) -> BaudRate:
        return _enum_or_int(BaudRate, library().NvDevice_baudRate(self.handle))

    @property
    def state(self) -> DeviceState:
        return _enum_or_int(DeviceState, library().NvDevice_deviceState(self.handle))

    @property
    def is_measuring(self) -> bool:
        return bool(library().NvDevice_isMeasuring(self.handle))

    @property
    def is_in_config_mode(self) -> bool:
        return bool(library().NvDevice_isInConfigMode(self.handle))

    @property
    def is_recording(self) -> bool:
        return bool(library().NvDevice_isRecording(self.handle))

    @property
    def is_master(self) -> bool:
        return bool(library().NvDevice_isMasterDevice(self.handle))

    @property
    def is_file(self) -> bool:
        return bool(library().NvDevice_isReadingFromFile(self.handle))

    # ---- Modes

    def go_to_config(self):
        _check(library().NvDevice_gotoConfig(self.handle), "go_to_config")

    def go_to_measurement(self):
        _check(library().NvDevice_gotoMeasurement(self.handle), "go_to_measurement")

    def reset(self):
        _check(library().NvDevice_reset(self.handle), "reset")

    # ---- Output configuration

    @property
    def output_configuration(self) -> List[Tuple[int, int]]:
        """(data identifier, frequency in Hz or EVERY_PACKET) pairs, as the device last
        reported them."""
        records = (_lib.OutputRecord * _lib.NV_MAX_OUTPUT_RECORDS)()
        n = library().NvDevice_outputConfigurationRecords(self.handle, records,
                                                          _lib.NV_MAX_OUTPUT_RECORDS)
        if n < 0:
            _fail("output_configuration")
        return [(_enum_or_int(DataId, r.dataIdentifier), r.frequency)
                for r in records[:min(n, _lib.NV_MAX_OUTPUT_RECORDS)]]

    @output_configuration.setter
    def output_configuration(self, config: Sequence[Tuple[int, int]]):
        """Sends a configuration (in configuration mode); a refusal raises DeviceError
        with the device's code and leaves the old configuration."""
        config = list(config)
        records = (_lib.OutputRecord * max(len(config), 1))()
        for record, (identifier, frequency) in zip(records, config):
            record.dataIdentifier = int(identifier)
            record.frequency = int(frequency)
        _check(library().NvDevice_setOutputConfigurationRecords(self.handle, records,
                                                                len(config)),
               "set output configuration")

    def supported_rates(self, identifier: int) -> List[int]:
        """The rates (Hz) the device offers for an item."""
        rates = (ctypes.c_int * 64)()
        n = library().NvDevice_supportedUpdateRateList(self.handle, int(identifier), rates, 64)
        if n < 0:
            _fail("supported_rates")
        return list(rates[:min(n, 64)])

    @property
    def maximum_rate(self) -> int:
        return library().NvDevice_maximumUpdateRate(self.handle)

    # ---- Recording

    def create_log_file(self, path: str):
        _check(library().NvDevice_createLogFileByName(self.handle, str(path).encode()),
               f"create_log_file({path!r})")

    def start_recording(self):
        _check(library().NvDevice_startRecording(self.handle), "start_recording")

    def stop_recording(self):
        _check(library().NvDevice_stopRecording(self.handle), "stop_recording")

    def close_log_file(self):
        _check(library().NvDevice_closeLogFile(self.handle), "close_log_file")

    @property
    def log_file_name(self) -> str:
        return self._text("NvDevice_logFileNameText")

    @property
    def log_file_size(self) -> int:
        return library().NvDevice_logFileSize(self.handle)

    @property
    def log_packets_written(self) -> int:
        """Data packets of the last recording that reached its file."""
        return library().NvDevice_logPacketsWritten(self.handle)

    @property
    def log_packets_lost(self) -> int:
        """Data packets of the last recording that never reached its file (disk full)."""
        return library().NvDevice_logPacketsLost(self.handle)

    @contextmanager
    def recording(self, path: str):
        """Records to a new kvb file for the duration of the with block."""
        self.create_log_file(path)
        try:
            self.start_recording()
        except BaseException:
            library().NvDevice_closeLogFile(self.handle)
            raise
        try:
            yield self
        finally:
            self.stop_recording()

    # ---- Recordings opened as devices

    def load(self, timeout: Optional[float] = 60.0):
        """Loads the device's recording and waits for it (timeout in s, None: no limit)."""
        ms = 0 if timeout is None else max(1, int(timeout * 1000))
        _check(library().NvDevice_loadLogFileAndWait(self.handle, ms), "load")

    @property
    def is_loaded(self) -> bool:
        return bool(library().NvDevice_isFileLoaded(self.handle))

    @property
    def packet_count(self) -> int:
        return library().NvDevice_packetCount(self.handle)

    def packet(self, index: int) -> Packet:
        handle = library().NvDevice_newDataPacketByIndex(self.handle, index)
        if not handle:
            if _last_result() == Result.END_OF_FILE:
                raise IndexError(index)
            _fail(f"packet({index})")
        return Packet(handle)

    def packets(self):
        """The loaded recording's packets, in file order."""
        for index in range(self.packet_count):
            yield self.packet(index)

    def _release(self):
        handle, self._handle = self._handle, None
        if handle:
            library().NvDevice_removeRef(handle)

    def __repr__(self):
        if not self._handle:
            return "<Device (released)>"
        return f"<Device {self.id} {self.product_code} {self.state.name}>"


# ---------------------------------------------------------------------------- Control

_live_controls = weakref.WeakSet()


@atexit.register
def _close_controls():
    # Before the interpreter shuts down: the library's threads must finish their
    # callbacks while Python can still run them.
    for control in list(_live_controls):
        control.close()


class Control:
    """A set of open devices with one callback handler. Use it as a context manager (or
    call close()); closing closes every device.

    Callbacks: assign callables to on_live_data(device, packet), on_error(device, result),
    on_state_changed(device, new_state, old_state), on_progress(device, current, total,
    what). They run on library threads. An exception raised in one is printed and kept in
    `callback_errors`."""

    def __init__(self, reply_timeout_ms: Optional[int] = None):
        lib = library()
        self._handle = lib.NvControl_construct()
        if not self._handle:
            _fail("Control")
        self._devices = {}  # handle -> Device, each holding a library reference
        self._devices_lock = threading.Lock()
        self.on_live_data: Optional[Callable[[Device, Packet], None]] = None
        self.on_error: Optional[Callable[[Optional[Device], int], None]] = None
        self.on_state_changed: Optional[Callable[[Device, DeviceState, DeviceState], None]] = None
        self.on_progress: Optional[Callable[[Device, int, int, str], None]] = None
        self.callback_errors: List[BaseException] = []
        # The record and its function pointers live as long as the control: the library
        # calls through them until the handler is removed.
        self._record = _lib.CallbackRecord()
        self._record.onLiveDataAvailable = _lib.LiveDataFn(self._live_data)
        self._record.onError = _lib.ErrorFn(self._error)
        self._record.onDeviceStateChanged = _lib.StateChangedFn(self._state_changed)
        self._record.onProgressUpdated = _lib.ProgressFn(self._progress)
        lib.NvControl_addCallbackHandler(self._handle, ctypes.byref(self._record), 1)
        if reply_timeout_ms is not None:
            lib.NvControl_setReplyTimeout(self._handle, reply_timeout_ms)
        _live_controls.add(self)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def __del__(self):
        if not sys.is_finalizing():
            self.close()

    @property
    def handle(self) -> int:
        if not self._handle:
            raise DeviceError("control", Result.INVALID_ARGUMENT)
        return self._handle

    # ---- Callbacks (library threads)

    def _device_for(self, handle) -> Optional[Device]:
        if not handle:
            return None
        with self._devices_lock:
            device = self._devices.get(handle)
            if device is None and self._handle:
                # A device this control has not handed out yet (a tracker, a file's
                # other device): valid during the callback, referenced from now on.
                library().NvDevice_addRef(handle)
                device = self._devices[handle] = Device(self, handle)
            return device

    def _run(self, callback, *args):
        try:
            callback(*args)
        except BaseException as error:  # noqa: B902 - reported, never into the library
            self.callback_errors.append(error)
            traceback.print_exc()

    def _live_data(self, _user, device, packet):
        callback = self.on_live_data
        if callback is not None and packet:
            self._run(callback, self._device_for(device),
                      Packet(library().NvPacket_copy(packet)))

    def _error(self, _user, device, result):
        callback = self.on_error
        if callback is not None:
            self._run(callback, self._device_for(device), _enum_or_int(Result, result))

    def _state_changed(self, _user, device, new, old):
        callback = self.on_state_changed
        if callback is None:
            return
        if new == DeviceState.DESTRUCTING and device:
            with self._devices_lock:
                known = self._devices.get(device)
            if known is None:
                # A device on its way out is not referenced any more: its object is valid
                # during this call only.
                transient = Device(self, device)
                self._run(callback, transient, DeviceState.DESTRUCTING,
                          _enum_or_int(DeviceState, old))
                transient._handle = None
                return
        self._run(callback, self._device_for(device), _enum_or_int(DeviceState, new),
                  _enum_or_int(DeviceState, old))

    def _progress(self, _user, device, current, total, what):
        callback = self.on_progress
        if callback is not None:
            text = _decode(library().NvCbString_text(what))
            self._run(callback, self._device_for(device), current, total, text)

    # ---- Devices

    def _adopt(self, handle) -> Device:
        """A Device for a handle that carries a reference of its own."""
        with self._devices_lock:
            known = self._devices.get(handle)
            if known is None:
                known = self._devices[handle] = Device(self, handle)
                return known
        # The Device holds a reference already. Released outside the lock: callbacks
        # wait for it, and the library may wait for them.
        library().NvDevice_removeRef(handle)
        return known

    @property
    def reply_timeout_ms(self) -> int:
        return library().NvControl_replyTimeout(self.handle)

    @reply_timeout_ms.setter
    def reply_timeout_ms(self, ms: int):
        library().NvControl_setReplyTimeout(self.handle, ms)

    def open_port(self, port_name: str, baud_rate: BaudRate = BaudRate.DETECT,
                  timeout_ms: int = 0) -> Device:
        """Opens the device on a port (in configuration mode)."""
        lib = library()
        _check(lib.NvControl_openPortByName(self.handle, port_name.encode(), int(baud_rate),
                                            timeout_ms), f"open_port({port_name!r})")
        handle = lib.NvControl_deviceRefByPortName(self.handle, port_name.encode())
        if not handle:
            _fail(f"open_port({port_name!r})")
        return self._adopt(handle)

    def close_port(self, port_name: str):
        _check(library().NvControl_closePortByName(self.handle, port_name.encode()),
               f"close_port({port_name!r})")

    def open_log_file(self, path: str) -> List[Device]:
        """Opens a recording; answers its devices (load() them to read packets)."""
        before = set(self._main_handles(release=True))
        _check(library().NvControl_openLogFileByName(self.handle, str(path).encode()),
               f"open_log_file({path!r})")
        return [d for d in self.devices if d.handle not in before]

    def _main_handles(self, release: bool) -> List[int]:
        lib = library()
        capacity = lib.NvControl_deviceCount(self.handle) + 8
        handles = (ctypes.c_void_p * capacity)()
        n = lib.NvControl_mainDevicesRef(self.handle, handles, capacity)
        out = [handles[i] for i in range(n)]
        if release:
            for handle in out:
                lib.NvDevice_removeRef(handle)
        return out

    @property
    def devices(self) -> List[Device]:
        """The main devices: on ports or from files (not trackers behind masters)."""
        return [self._adopt(handle) for handle in self._main_handles(release=False)]

    def device(self, device_id: str) -> Device:
        """The open device with this identifier (hexadecimal, as Device.id)."""
        handle = library().NvControl_deviceRefByIdText(self.handle, device_id.encode())
        if not handle:
            _fail(f"device({device_id!r})")
        return self._adopt(handle)

    def close(self):
        """Closes every device and the control. Safe to call more than once."""
        handle = getattr(self, "_handle", None)
        if not handle:
            return
        lib = library()
        lib.NvControl_close(handle)
        lib.NvControl_removeCallbackHandler(handle, ctypes.byref(self._record))
        with self._devices_lock:
            devices, self._devices = list(self._devices.values()), {}
            self._handle = None
        for device in devices:
            device._release()
        lib.NvControl_destruct(handle)
        _live_controls.discard(self)
