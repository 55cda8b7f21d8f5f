#include "options.h"

#include <nvenums.h>

namespace kvsim {

namespace {

// The rates as the emulator checks them, so that the help cannot promise another set.
std::string rateList(const std::vector<uint16_t>& rates, const char* separator,
                     const char* lastSeparator, uint16_t marked = 0)
{
    std::string text;
    for (size_t i = 0; i < rates.size(); ++i) {
        if (i > 0)
            text += i + 1 == rates.size() ? lastSeparator : separator;
        text += std::to_string(rates[i]);
        if (rates[i] == marked)
            text += " (default)";
    }
    return text;
}

const std::vector<uint16_t>& itemRates(Kind kind, uint16_t item)
{
    return kindInfo(kind).support(item)->rates;
}

} // namespace

std::string helpText()
{
    std::string text =
        R"(Usage: kvsim --device KIND[:OPTIONS] [--device ...] [--seed N] [--truth FILE]
             [--drop P] [--corrupt P] [--disconnect-after S] [--quiet]

Emulates motion trackers on pseudo-terminals. Each device gets its own port that speaks
Nbus like the hardware; hosts open the port like a serial device.

Options:
  -d, --device KIND[:OPT,...]  add a device (repeatable, at least one)
      --seed N               seed of the motion, the sky and the faults (default 1)
      --truth FILE           write the true value of every sample to FILE (CSV)
      --drop P               leave out a fraction P (0..1) of the data packets
      --corrupt P            damage a fraction P (0..1) of the data packets
      --disconnect-after S   close every port S seconds after the start
  -q, --quiet                no diagnostics on standard error
  -h, --help                 this text
      --version              the program version

Kinds:
  imu      KV-100 IMU: inertial data, no orientation (orientation items are refused)
  ahrs     KV-300 AHRS: inertial data and orientation
  gnss     KV-770 GNSS/INS: all of ahrs plus position, velocity, GNSS PVT and satellite
           data, and NMEA string output; moves along a circle like a car
  legacy   KV-L30 AHRS with the legacy 32-bit identifier: a reduced item set, <= 400 Hz
  master:N KV Station X wireless master with N trackers (1..32, KVW tracker) behind it
           on the same port; see "Wireless master" below

Device options (after the colon, separated by commas):
  measure        start measuring at once, like a device whose WakeUp went unanswered
  wakeup         power up with a WakeUp; measure unless the host answers within 500 ms
  rs485          an RS-485 interface: answers Req/SetTransmitDelay (else Error 4)
  rate=N         default output rate of the 100 Hz items (where the item supports N)
  nmea           (gnss) start with NMEA string output
  index=N        serial index of the identifier (default: 0, 1, ... per kind)
  drop=P, corrupt=P, disconnect=S   the fault options for this device only
  docked=K       (master) the first K trackers sit in the dock, connected from power-up
  reject=K       (master) the last K trackers are rejected (version mismatch) when they
                 call in, until the host accepts them
)";
    text += "  rate=R         (master) update rate at power-up: " +
            rateList(masterRates(), ", ", " or ", masterFactoryRate) + "\n";
    text += R"(Without measure or wakeup a device starts in configuration mode and stays silent.
A master takes the tracker count first: --device master:6,docked=2,reject=1

Output on standard output: one line per device, "PORT IDENTIFIER KIND", for example
  /dev/pts/7 1100000000001000 imu
The same ports are appended, one per line, to $XDG_RUNTIME_DIR/kvsim/ports (or
/tmp/kvsim-UID/ports without XDG_RUNTIME_DIR) and removed again on exit or disconnect;
several kvsim processes share the file. SIGINT, SIGTERM and SIGHUP end the program
cleanly. When every port has been disconnected by --disconnect-after, kvsim exits.

Output items and rates (Hz; 65535 = with every packet, allowed for every item):
  all kinds      packet counter, sample time fine, status byte/word
  imu/ahrs/gnss  sample time coarse, UTC time, status: 1..2000 (divisors of 2000)
                 acceleration, rate of turn, delta q, delta v: 1..2000 (divisors of 2000)
)";
    text += "                 acceleration HR, rate of turn HR: " +
            rateList(itemRates(Kind::Imu, NDI_ACCELERATION_HR), ", ", ", ") + "\n";
    text += R"(                 magnetic field, temperature: divisors of 2000 up to 100
                 barometric pressure: divisors of 2000 up to 50
  ahrs/gnss      quaternion, rotation matrix, Euler angles, free acceleration: up to 400
  gnss           lat/lon, altitudes, ECEF position, velocity: up to 400
)";
    text += "                 GNSS PVT data, satellite info, PVT pulse: " +
            rateList(itemRates(Kind::Gnss, NDI_GNSS_PVT_DATA), ", ", ", ") + "\n";
    text += R"(                 GNSS time of week: up to 2000; GNSS age: up to 400
  legacy         packet counter, sample time fine, status byte, quaternion, rotation
                 matrix, Euler angles, acceleration, rate of turn: divisors of 400;
                 temperature, magnetic field: divisors of 400 up to 100
)";
    text +=
        "Divisors of 2000: " + rateList(itemRates(Kind::Imu, NDI_ACCELERATION), " ", " ") + "\n";
    text +=
        "Divisors of 400: " + rateList(itemRates(Kind::Legacy, NDI_ACCELERATION), " ", " ") + "\n";
    text += "\"up to N\": the divisors of 2000 up to N.\n";
    text += R"(A packet goes out whenever an item is due; items at lower rates ride in every k-th
packet. Real items take any precision (float32, fp12.20, fp16.32, float64) and frame
(ENU, NED, NWU). An unsupported item or rate gives Error 33 and the old configuration
stays. At most 32 items.

Configuration persists across Reset and returns to the kind's defaults only with
RestoreFactoryDefaults (it does not outlive the process). In measurement mode a device
takes GoToConfig, GoToMeasurement, Reset, ReqData, SetNoRotation, ResetOrientation,
Req/SetUtcTime, ReqGnssStatus and ForwardGnssData; anything else gets Error 4.

Wireless master (master:N):
  The master is bus id 0xFF; a connected tracker (docked or wireless) is bus id slot + 1,
  and frames for other bus ids are ignored. The radio is off at power-up and after
  Reset; channel 11..25 turns it on, 0 off, others give Error 33. With the radio on the
  trackers call in 80 ms apart, each announced by a TrackerStatus frame (0xFB);
  TrackerLinkReport (0xFC) comes about once a second. Update rates: 40..120 Hz up to 10
  wireless trackers, 40..80 up to 20, 40..60 above (default 100 Hz; Error 33 otherwise).
  The master has no data items (empty output configuration; records give Error 33).
  GoToMeasurement to the master starts its wireless trackers at the update rate, every
  configured item in every packet, with the tracker's bus id; docked trackers do not
  measure. Tracker commands: reject, accept, switch off and transport mode (off until
  Reset); an unknown tracker gives Error 33. Packets dropped by --drop while measuring
  are retransmitted after StartFlush, with FlushProgress (0xFD) every 100 packets and at
  the end.

Truth file: CSV with a header, one row per generated sample (also dropped ones):
  device,port,kind,output,status,counter,sample_time_fine,time, q0..q3, roll,pitch,yaw,
  gyr_*, acc_*, free_acc_*, mag_*, dq0..dq3, dv_*, pressure, temperature, latitude,
  longitude, altitude_ellipsoid, altitude_msl, vel_*, utc_ns, time_of_week,
  frame_q .. frame_vel
status is sent, dropped, corrupted (checksum will fail), garbage (junk bytes before an
intact frame) or overflow (the host did not read and the transmit buffer was full).
Values are exactly those encoded, before quantisation, in the frame of the configured
item (ENU when the item is not configured); NMEA rows carry orientation and velocity in
NED. Delta q/v cover the item's own period. Tracker rows carry the tracker's identifier
and kind "tracker"; packets retransmitted by a flush keep their "dropped" rows.

Faults are drawn from the seed per packet, so a seed repeats them. Dropped packets still
use up a packet counter value; corrupted frames keep their length and fail their
checksum. --disconnect-after closes the port as if the cable were pulled.

More: docs/kvsim.md.
)";
    return text;
}

} // namespace kvsim
