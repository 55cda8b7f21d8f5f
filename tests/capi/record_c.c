/* A recorder written against the shared library's plain C interface, as a C program
 * would use it: scan, open, configure, measure, record, then read the recording back.
 *
 *   record_c OUT_DIR [PORT]
 *
 * The driver starts the emulator; without PORT the first device the scan finds is used.
 * Exit status 0 when every check held. */
#define _POSIX_C_SOURCE 200809L

#include <nivradeviceapi.h>

#include <math.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#define CHECK(cond)                                                                                \
    do {                                                                                           \
        if (!(cond)) {                                                                             \
            fprintf(stderr, "%s:%d: check failed: %s (last result %d: %s)\n", __FILE__, __LINE__,  \
                    #cond, (int)NvControl_lastResult(NULL), NvControl_lastResultText(NULL));       \
            return 0;                                                                              \
        }                                                                                          \
    } while (0)

/* What the handler saw; written on the reader thread, read on the main thread. */
typedef struct Seen
{
    pthread_mutex_t mutex;
    long packets;
    long goodItems; /* packets whose acceleration and quaternion decoded */
    int lastCounter;
    long counterGaps;
    NvResultValue error;
} Seen;

static void onLiveData(void* userData, NvDevice* device, const NvCbDataPacket* packet)
{
    Seen* seen = (Seen*)userData;
    NvPacketItem acc;
    double q[4];
    int good = NvPacket_findItem(packet, NDI_ACCELERATION, &acc) && acc.valueCount == 3 &&
               NvPacket_orientationQuaternion(packet, NCF_ENU, q) &&
               fabs(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3] - 1.0) < 1e-3;
    int counter = NvPacket_packetCounter(packet);
    (void)device;
    pthread_mutex_lock(&seen->mutex);
    if (seen->packets > 0 && counter != ((seen->lastCounter + 1) & 0xFFFF))
        ++seen->counterGaps;
    seen->lastCounter = counter;
    ++seen->packets;
    seen->goodItems += good;
    pthread_mutex_unlock(&seen->mutex);
}

static void onError(void* userData, NvDevice* device, NvResultValue error)
{
    Seen* seen = (Seen*)userData;
    (void)device;
    pthread_mutex_lock(&seen->mutex);
    seen->error = error;
    pthread_mutex_unlock(&seen->mutex);
}

/* Static: the handler may be called until the control is gone, whatever path run() takes. */
static Seen g_seen = {PTHREAD_MUTEX_INITIALIZER, 0, 0, 0, 0, NRV_OK};
static NvCallbackPlainC g_handler;

static long packetsSeen(Seen* seen)
{
    long n;
    pthread_mutex_lock(&seen->mutex);
    n = seen->packets;
    pthread_mutex_unlock(&seen->mutex);
    return n;
}

static void sleepMs(long ms)
{
    struct timespec t;
    t.tv_sec = ms / 1000;
    t.tv_nsec = (ms % 1000) * 1000000L;
    nanosleep(&t, NULL);
}

/* Waits (up to 10 s) until the handler has seen `count` packets. */
static int waitForPackets(Seen* seen, long count)
{
    int i;
    for (i = 0; i < 1000 && packetsSeen(seen) < count; ++i)
        sleepMs(10);
    return packetsSeen(seen) >= count;
}

/* Arguments the interface must refuse cleanly. */
static int checkRefusals(NvControl* control, NvDevice* device)
{
    char small[4];
    char id[NV_DEVICE_ID_TEXT_SIZE];
    int length;
    NvOutputRecord tooMany[NV_MAX_OUTPUT_RECORDS + 1];

    CHECK(NvControl_deviceRefByIdText(control, "not an id") == NULL);
    CHECK(NvControl_lastResult(control) == NRV_INVALID_ARGUMENT);
    CHECK(NvControl_deviceRefByIdText(control, "1300000000FFFFFF") == NULL);
    CHECK(NvControl_lastResult(control) == NRV_INVALID_DEVICE);
    CHECK(NvControl_deviceRefByIdText(control, NULL) == NULL);
    CHECK(NvControl_deviceRefByPortName(control, "/dev/no-such-port") == NULL);
    CHECK(NvControl_lastResult(control) == NRV_PORT_NOT_OPEN);
    CHECK(NvDevice_deviceIdText(NULL, id, sizeof id) == -1);
    CHECK(NvControl_lastResult(control) == NRV_INVALID_DEVICE);
    CHECK(NvDevice_deviceIdText(device, NULL, 8) == -1);
    CHECK(NvControl_lastResult(control) == NRV_INVALID_ARGUMENT);
    CHECK(strcmp(NvResultValue_toString(NvControl_lastResult(control)), "") != 0);

    /* A short buffer: cut and terminated, the full length answered. */
    length = NvDevice_deviceIdText(device, small, sizeof small);
    CHECK(length == 16 && strlen(small) == 3);
    CHECK(NvControl_lastResult(control) == NRV_HOST_BUFFER_OVERFLOW);
    CHECK(NvDevice_deviceIdText(device, NULL, 0) == 16); /* asking for the length */
    CHECK(NvControl_lastResult(control) == NRV_OK);

    memset(tooMany, 0, sizeof tooMany);
    CHECK(!NvDevice_setOutputConfigurationRecords(device, tooMany, NV_MAX_OUTPUT_RECORDS + 1));
    CHECK(NvControl_lastResult(control) == NRV_INVALID_ARGUMENT);
    CHECK(!NvDevice_setOutputConfigurationRecords(NULL, tooMany, 1));
    CHECK(NvControl_lastResult(control) == NRV_INVALID_DEVICE);
    CHECK(NvPacket_itemCount(NULL) == -1);
    CHECK(NvPacket_packetCounter(NULL) == -1);
    CHECK(strcmp(NvCbString_text(NULL), "") == 0);
    CHECK(!NvControl_openPortByName(control, NULL, NBR_DETECT, 0));
    CHECK(!NvControl_openLogFileByName(control, "/nonexistent/folder/file.kvb"));
    CHECK(NvControl_lastResult(control) != NRV_OK);
    return 1;
}

/* Opens the recording as file devices, loads it and checks its packets. */
static int checkRecording(const char* path, const char* deviceId, long recorded)
{
    NvControl* control = NvControl_construct();
    NvDevice* devices[4];
    NvDevice* device;
    NvCbDataPacket* packet;
    NvPacketItem item;
    int64_t count;
    int i;
    int n;
    double euler[3];
    char id[NV_DEVICE_ID_TEXT_SIZE];

    CHECK(NvControl_openLogFileByName(control, path));
    n = NvControl_mainDevicesRef(control, devices, 4);
    CHECK(n == 1);
    device = devices[0];
    CHECK(NvDevice_isReadingFromFile(device));
    CHECK(NvDevice_deviceIdText(device, id, sizeof id) > 0 && strcmp(id, deviceId) == 0);
    CHECK(NvDevice_loadLogFileAndWait(device, 20000));
    count = NvDevice_packetCount(device);
    printf("recording %s: %lld packets (%ld seen live while recording)\n", path, (long long)count,
           recorded);
    CHECK(count > 0);

    /* The first and the last packet. */
    for (i = 0; i < 2; ++i) {
        packet = NvDevice_newDataPacketByIndex(device, i == 0 ? 0 : count - 1);
        CHECK(packet != NULL);
        CHECK(NvPacket_itemCount(packet) >= 4);
        CHECK(NvPacket_packetCounter(packet) >= 0);
        CHECK(NvPacket_sampleTimeFine(packet) >= 0);
        CHECK(NvPacket_findItem(packet, NDI_ACCELERATION, &item));
        CHECK(item.valueCount == 3 && strcmp(item.name, "Acceleration") == 0);
        /* The emulated device moves gently: it feels about one g. */
        CHECK(fabs(sqrt(item.values[0] * item.values[0] + item.values[1] * item.values[1] +
                        item.values[2] * item.values[2]) -
                   9.81) < 3.0);
        CHECK(NvPacket_findItem(packet, NDI_QUATERNION, &item) && item.valueCount == 4);
        CHECK(NvPacket_orientationEuler(packet, NCF_NED, euler));
        CHECK(euler[1] >= -90.0 && euler[1] <= 90.0);
        NvPacket_delete(packet);
    }
    CHECK(NvDevice_newDataPacketByIndex(device, count) == NULL);
    CHECK(NvControl_lastResult(control) == NRV_END_OF_FILE);

    NvDevice_removeRef(device);
    NvControl_destruct(control);
    return 1;
}

static int run(const char* outDir, const char* wantedPort)
{
    NvPortRecord ports[16];
    NvOutputRecord config[5];
    NvOutputRecord applied[NV_MAX_OUTPUT_RECORDS];
    NvControl* control;
    NvDevice* device;
    NvDevice* byId;
    long live, decoded, gaps;
    NvResultValue error;
    char id[NV_DEVICE_ID_TEXT_SIZE], text[64], kvb[1024];
    int found, chosen = -1, i, n;
    long beforeRecording, recorded;

    snprintf(kvb, sizeof kvb, "%s/record_c.kvb", outDir);

    found = NvScanner_scanPortRecords(ports, 16, NBR_DETECT, 0, 1, 0);
    printf("scan: %d device(s)\n", found);
    for (i = 0; i < found && i < 16; ++i) {
        printf("  %s %s %s (%s)\n", ports[i].portName, ports[i].deviceId, ports[i].productCode,
               ports[i].deviceType);
        if (chosen < 0 && (!wantedPort || strcmp(ports[i].portName, wantedPort) == 0))
            chosen = i;
    }
    CHECK(chosen >= 0);
    CHECK(ports[chosen].deviceId[0] != '\0' && ports[chosen].isEmulated);
    CHECK(strcmp(ports[chosen].productCode, "KV-300") == 0);

    control = NvControl_construct();
    memset(&g_handler, 0, sizeof g_handler);
    g_handler.userData = &g_seen;
    g_handler.onLiveDataAvailable = onLiveData;
    g_handler.onError = onError;
    NvControl_addCallbackHandler(control, &g_handler, 1);

    CHECK(NvControl_openPortByName(control, ports[chosen].portName, ports[chosen].baudRate, 0));
    device = NvControl_deviceRefByPortName(control, ports[chosen].portName);
    CHECK(device != NULL);
    CHECK(NvDevice_deviceIdText(device, id, sizeof id) == 16);
    CHECK(strcmp(id, ports[chosen].deviceId) == 0);
    byId = NvControl_deviceRefByIdText(control, id);
    CHECK(byId == device);
    NvDevice_removeRef(byId);
    CHECK(NvDevice_productCodeText(device, text, sizeof text) > 0);
    CHECK(strcmp(text, "KV-300") == 0);
    CHECK(NvDevice_firmwareVersionText(device, text, sizeof text) >= 5);
    CHECK(NvDevice_hardwareVersionText(device, text, sizeof text) >= 5);
    CHECK(NvDevice_isInConfigMode(device));
    if (!checkRefusals(control, device))
        return 0;

    config[0].dataIdentifier = NDI_PACKET_COUNTER;
    config[0].frequency = NV_FREQUENCY_EVERY_PACKET;
    config[1].dataIdentifier = NDI_SAMPLE_TIME_FINE;
    config[1].frequency = NV_FREQUENCY_EVERY_PACKET;
    config[2].dataIdentifier = NDI_ACCELERATION;
    config[2].frequency = 100;
    config[3].dataIdentifier = NDI_RATE_OF_TURN;
    config[3].frequency = 100;
    config[4].dataIdentifier = NDI_QUATERNION;
    config[4].frequency = 100;
    CHECK(NvDevice_setOutputConfigurationRecords(device, config, 5));
    n = NvDevice_outputConfigurationRecords(device, applied, NV_MAX_OUTPUT_RECORDS);
    CHECK(n == 5);
    for (i = 0; i < n; ++i)
        CHECK(applied[i].dataIdentifier == config[i].dataIdentifier &&
              applied[i].frequency == config[i].frequency);
    /* A rate the device does not offer is refused with its own code; the rest stays. */
    config[2].frequency = 7;
    CHECK(!NvDevice_setOutputConfigurationRecords(device, config, 5));
    CHECK(NvControl_lastResult(control) == NRV_INVALID_PARAMETER);
    CHECK(NvDevice_outputConfigurationRecords(device, applied, NV_MAX_OUTPUT_RECORDS) == 5);
    CHECK(applied[2].frequency == 100);

    CHECK(NvDevice_gotoMeasurement(device));
    CHECK(NvDevice_isMeasuring(device));
    CHECK(waitForPackets(&g_seen, 20));

    CHECK(NvDevice_createLogFileByName(device, kvb));
    CHECK(NvDevice_logFileNameText(device, text, sizeof text) > 0);
    beforeRecording = packetsSeen(&g_seen);
    CHECK(NvDevice_startRecording(device));
    CHECK(waitForPackets(&g_seen, beforeRecording + 50));
    CHECK(NvDevice_stopRecording(device));
    recorded = packetsSeen(&g_seen) - beforeRecording;
    CHECK(!NvDevice_isRecording(device));
    CHECK(NvDevice_gotoConfig(device));

    pthread_mutex_lock(&g_seen.mutex);
    live = g_seen.packets;
    decoded = g_seen.goodItems;
    gaps = g_seen.counterGaps;
    error = g_seen.error;
    pthread_mutex_unlock(&g_seen.mutex);
    printf("live: %ld packets, %ld decoded, %ld counter gaps\n", live, decoded, gaps);
    CHECK(decoded == live && gaps == 0 && error == NRV_OK);

    NvDevice_removeRef(device);
    NvControl_removeCallbackHandler(control, &g_handler);
    NvControl_destruct(control);

    return checkRecording(kvb, id, recorded);
}

int main(int argc, char** argv)
{
    int ok;
    if (argc < 2 || argc > 3) {
        fprintf(stderr, "usage: %s OUT_DIR [PORT]\n", argv[0]);
        return 2;
    }
    ok = run(argv[1], argc > 2 ? argv[2] : NULL);
    ndaTerminate();
    printf("%s\n", ok ? "record_c: passed" : "record_c: FAILED");
    return ok ? 0 : 1;
}
