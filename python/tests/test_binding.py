"""The Python package against a real emulated device (kvsim on a pseudo-terminal).

Run from python/tests with the package on PYTHONPATH:
    KVSIM=build/bin/kvsim python3 -m unittest -v test_binding
The library is found as the package finds it (NIVRADEVICE_LIBRARY, then build/lib)."""

import math
import os
import shutil
import subprocess
import tempfile
import threading
import time
import unittest
from pathlib import Path

import nivradevice as nv

ROOT = Path(__file__).resolve().parents[2]


def kvsim_binary() -> str:
    return os.environ.get("KVSIM") or str(ROOT / "build" / "bin" / "kvsim")


class Emulator:
    """A kvsim process with one device, announced in a runtime folder of its own so that
    only this test's scans find it."""

    def __init__(self, device: str):
        self.folder = tempfile.mkdtemp(prefix="nivradevice-test-")
        runtime = os.path.join(self.folder, "runtime")
        os.mkdir(runtime, 0o700)
        # The library reads these when it scans (same process).
        os.environ["XDG_RUNTIME_DIR"] = runtime
        os.environ["NV_SCAN_SYSTEM_PORTS"] = "0"
        self.process = subprocess.Popen([kvsim_binary(), "--device", device, "--quiet"],
                                        stdout=subprocess.PIPE, text=True)
        line = self.process.stdout.readline().split()
        if len(line) != 3:
            self.stop()
            raise RuntimeError("kvsim did not start")
        self.port, self.device_id, self.kind = line

    def stop(self):
        if self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(15)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        self.process.stdout.close()
        shutil.rmtree(self.folder, ignore_errors=True)


CONFIG = [(nv.DataId.PACKET_COUNTER, nv.EVERY_PACKET),
          (nv.DataId.SAMPLE_TIME_FINE, nv.EVERY_PACKET),
          (nv.DataId.ACCELERATION, 100),
          (nv.DataId.RATE_OF_TURN, 100),
          (nv.DataId.QUATERNION, 100)]


def wait_until(condition, timeout=10.0):
    deadline = time.monotonic() + timeout
    while not condition() and time.monotonic() < deadline:
        time.sleep(0.01)
    return condition()


class BindingTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.emulator = Emulator("ahrs")
        cls.files = tempfile.mkdtemp(prefix="nivradevice-files-")

    @classmethod
    def tearDownClass(cls):
        cls.emulator.stop()
        shutil.rmtree(cls.files, ignore_errors=True)

    def test_scan_finds_the_emulated_device(self):
        lines = []
        ports = nv.scan(log=lines.append)
        self.assertEqual([p.port_name for p in ports], [self.emulator.port])
        port = ports[0]
        self.assertEqual(port.device_id, self.emulator.device_id)
        self.assertEqual(port.product_code, "KV-300")
        self.assertTrue(port.is_emulated)
        self.assertFalse(port.is_foreign)
        self.assertTrue(lines, "the scan log sink got no lines")

        one = nv.scan_port(self.emulator.port)
        self.assertIsNotNone(one)
        self.assertEqual(one.device_id, self.emulator.device_id)

    def test_measure_live_and_record(self):
        path = os.path.join(self.files, "binding.kvb")
        packets = []
        arrived = threading.Event()
        states = []

        def on_live_data(device, packet):
            packets.append((device, packet))
            if len(packets) >= 20:
                arrived.set()

        with nv.Control() as control:
            control.on_live_data = on_live_data
            control.on_state_changed = lambda device, new, old: states.append(new)
            device = control.open_port(self.emulator.port)
            self.assertEqual(device.id, self.emulator.device_id)
            self.assertEqual(device.product_code, "KV-300")
            self.assertRegex(device.firmware_version, r"^\d+\.\d+\.\d+$")
            self.assertIs(control.device(device.id), device)
            self.assertEqual(control.devices, [device])
            self.assertIn(100, device.supported_rates(nv.DataId.QUATERNION))

            device.output_configuration = CONFIG
            self.assertEqual(device.output_configuration, CONFIG)

            device.go_to_measurement()
            self.assertEqual(device.state, nv.DeviceState.MEASUREMENT)
            self.assertTrue(arrived.wait(10), "no live packets")

            # Packets stay valid after their callback.
            live_device, packet = packets[0]
            self.assertIs(live_device, device)
            self.assertIsNotNone(packet.counter)
            self.assertIsNotNone(packet.sample_time_fine)
            self.assertEqual(len(packet[nv.DataId.ACCELERATION]), 3)
            self.assertIn(nv.DataId.RATE_OF_TURN, packet)
            w, x, y, z = packet.quaternion()
            self.assertAlmostEqual(w * w + x * x + y * y + z * z, 1.0, places=4)
            roll, pitch, yaw = packet.euler(nv.Frame.NED)
            self.assertTrue(-90.0 <= pitch <= 90.0)
            counters = [p.counter for _, p in packets[:20]]
            self.assertEqual(counters, [(counters[0] + i) % 65536 for i in range(20)])

            before = len(packets)
            with device.recording(path):
                self.assertTrue(wait_until(lambda: len(packets) >= before + 50))
                self.assertTrue(device.is_recording)
            self.assertFalse(device.is_recording)
            written = device.log_packets_written
            self.assertGreaterEqual(written, 50)
            self.assertEqual(device.log_packets_lost, 0)
            self.assertEqual(device.state, nv.DeviceState.MEASUREMENT)
            device.go_to_config()
            self.assertIn(nv.DeviceState.RECORDING, states)
            self.assertEqual(control.callback_errors, [])

        with nv.Control() as control:
            devices = control.open_log_file(path)
            self.assertEqual(len(devices), 1)
            recorded = devices[0]
            self.assertTrue(recorded.is_file)
            self.assertEqual(recorded.id, self.emulator.device_id)
            recorded.load(timeout=20)
            count = recorded.packet_count
            self.assertEqual(count, written)
            first = recorded.packet(0)
            ax, ay, az = first[nv.DataId.ACCELERATION]
            self.assertLess(abs(math.sqrt(ax * ax + ay * ay + az * az) - 9.81), 3.0)
            self.assertEqual([item.quantity for item in first.items],
                             [identifier for identifier, _ in CONFIG])
            self.assertEqual(first.item(nv.DataId.ACCELERATION).name, "Acceleration")
            counters = [p.counter for p in recorded.packets()]
            self.assertEqual(len(counters), count)
            self.assertEqual(counters, [(counters[0] + i) % 65536 for i in range(count)])
            with self.assertRaises(IndexError):
                recorded.packet(count)

    def test_failures_raise_with_the_library_text(self):
        with nv.Control() as control:
            device = control.open_port(self.emulator.port)
            device.output_configuration = CONFIG
            with self.assertRaises(nv.DeviceError) as refused:
                device.output_configuration = [(nv.DataId.ACCELERATION, 7)]
            self.assertEqual(refused.exception.result, nv.Result.INVALID_PARAMETER)
            self.assertEqual(refused.exception.text, nv.result_text(33))
            self.assertIn(refused.exception.text, str(refused.exception))
            self.assertEqual(device.output_configuration, CONFIG)  # unchanged

            with self.assertRaises(nv.DeviceError) as in_use:
                control.open_port(self.emulator.port)
            self.assertEqual(in_use.exception.result, nv.Result.PORT_IN_USE)
            with self.assertRaises(nv.DeviceError) as no_id:
                control.device("no identifier")
            self.assertEqual(no_id.exception.result, nv.Result.INVALID_ARGUMENT)
            with self.assertRaises(nv.DeviceError):
                control.open_log_file(os.path.join(self.files, "missing.kvb"))
            with self.assertRaises(nv.DeviceError) as not_open:
                control.open_port("/dev/nivradevice-no-such-port")
            self.assertNotEqual(not_open.exception.result, nv.Result.OK)

    def test_result_names_match_the_library(self):
        unknown = nv.result_text(999)
        for result in nv.Result:
            self.assertNotEqual(nv.result_text(result), unknown, result.name)


if __name__ == "__main__":
    unittest.main()
