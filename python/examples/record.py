#!/usr/bin/env python3
"""Records a motion tracker to a kvb file through the device library.

Scans the ports (or opens the one given with --port), sets the tracker's output (packet
counter, sample time, acceleration, rate of turn, and orientation where the device has
it), measures, records for a while and then reads the recording back to count its
packets. Try it with the emulator:

    build/bin/kvsim --device ahrs &
    python3 python/examples/record.py --seconds 5 --out walk.kvb

Exit status 0 on success, 1 when no device was found or the library reported an error,
2 for a wrong command line.
"""

import argparse
import os
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
import nivradevice as nv  # noqa: E402


def parse_args():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--port", help="open this port instead of scanning all ports")
    parser.add_argument("--baud", type=int, default=0,
                        help="baud rate of the port in bit/s (default: detect)")
    parser.add_argument("--seconds", type=float, default=10.0,
                        help="how long to record (default 10)")
    parser.add_argument("--out", default="recording.kvb", help="kvb file to write")
    parser.add_argument("--rate", type=int, default=100,
                        help="output rate of the inertial items in Hz (default 100)")
    args = parser.parse_args()
    if args.seconds <= 0:
        parser.error("--seconds must be positive")
    try:
        args.baud = nv.BaudRate.from_rate(args.baud)
    except ValueError as error:
        parser.error(str(error))
    return args


def find_port(args):
    if args.port:
        print(f"Opening {args.port}")
        return args.port, args.baud
    print("Scanning for devices ...")
    ports = nv.scan(baud_rate=args.baud)
    for port in ports:
        print(f"  {port.port_name}: {port.device_type} {port.device_id} at {port.baud_rate.rate} bd")
    if not ports:
        return None, None
    if len(ports) > 1:
        print(f"Recording the first of {len(ports)} devices (choose another with --port).")
    return ports[0].port_name, ports[0].baud_rate


def configure(device, rate):
    wanted = [nv.DataId.ACCELERATION, nv.DataId.RATE_OF_TURN, nv.DataId.QUATERNION]
    config = [(nv.DataId.PACKET_COUNTER, nv.EVERY_PACKET),
              (nv.DataId.SAMPLE_TIME_FINE, nv.EVERY_PACKET)]
    for identifier in wanted:
        rates = device.supported_rates(identifier)
        if rate in rates:
            config.append((identifier, rate))
        elif rates:
            nearest = min(rates, key=lambda offered: abs(offered - rate))
            print(f"  {identifier.name.lower()}: {rate} Hz not offered, using {nearest} Hz")
            config.append((identifier, nearest))
    device.output_configuration = config
    print("Output: " + ", ".join(f"{getattr(i, 'name', hex(i)).lower()} "
                                 f"{'every packet' if f == nv.EVERY_PACKET else f'{f} Hz'}"
                                 for i, f in device.output_configuration))


def record(args, port_name, baud_rate):
    received = 0
    lock = threading.Lock()
    latest = []

    def on_live_data(_device, packet):
        nonlocal received
        with lock:
            received += 1
            latest[:] = [packet]

    def on_error(device, result):
        print(f"  device error: {nv.result_text(result)}", file=sys.stderr)

    with nv.Control() as control:
        control.on_live_data = on_live_data
        control.on_error = on_error
        device = control.open_port(port_name, baud_rate)
        print(f"Opened {device.product_code} {device.id} (firmware {device.firmware_version})")
        configure(device, args.rate)
        device.go_to_measurement()

        print(f"Recording {args.seconds:g} s to {args.out}")
        started = time.monotonic()
        with device.recording(args.out):
            while (left := args.seconds - (time.monotonic() - started)) > 0:
                time.sleep(min(1.0, left))
                with lock:
                    count, packet = received, (latest[0] if latest else None)
                euler = packet.euler() if packet is not None else None
                attitude = ("" if euler is None else
                            "  roll %6.1f  pitch %6.1f  yaw %6.1f" % euler)
                print(f"  {time.monotonic() - started:5.1f} s: {count} packets{attitude}")
        device.go_to_config()
        size = os.path.getsize(args.out)
        lost = device.log_packets_lost
        print(f"Wrote {args.out} ({size} bytes, {device.log_packets_written} packets"
              + (f", {lost} lost: disk full?)" if lost else ")"))
        if lost:
            return False

    with nv.Control() as control:
        recorded = control.open_log_file(args.out)[0]
        recorded.load()
        print(f"Read back: {recorded.packet_count} packets of {recorded.id}")
        return recorded.packet_count > 0


def main():
    args = parse_args()
    try:
        port_name, baud_rate = find_port(args)
        if port_name is None:
            print("No device found. Is the tracker plugged in (or kvsim running)?",
                  file=sys.stderr)
            return 1
        return 0 if record(args, port_name, baud_rate) else 1
    except nv.DeviceError as error:
        print(f"Error: {error}", file=sys.stderr)
        return 1
    except OSError as error:
        print(f"Error: {error}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        print("Interrupted", file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())
