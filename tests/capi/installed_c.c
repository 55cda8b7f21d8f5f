/* Compiled against an installed copy of the library with nothing but
 * `pkg-config --cflags --libs nivradeviceapi`: the headers and the libraries are there and
 * link. */
#include <nivradeviceapi.h>

#include <stdio.h>
#include <string.h>

int main(void)
{
    NvControl* control = NvControl_construct();
    char text[NV_DEVICE_ID_TEXT_SIZE];
    int ok = control != NULL;

    /* nvtypes' C functions come with it. */
    ok = ok && nvBaudRateToRate(NBR_115200) == 115200;
    ok = ok && strcmp(nvDataIdentifierName(NDI_ACCELERATION), "Acceleration") == 0;
    ok = ok && NvDevice_deviceIdText(NULL, text, sizeof text) == -1;
    ok = ok && NvControl_lastResult(control) == NRV_INVALID_DEVICE;
    printf("last result: %s\n", NvControl_lastResultText(control));
    ok = ok && NvControl_deviceCount(control) == 0;
    NvControl_destruct(control);
    printf("%s\n", ok ? "installed library works" : "installed library FAILED");
    return ok ? 0 : 1;
}
