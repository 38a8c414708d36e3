/* Host stand-in of the platform event-IPC library (placeholder). */
#include "tessel.h"

#include <errno.h>

int TesselWaitMultiEvents(const char **events, int count, int mode, int timeout_ms,
                          char *result, int result_size)
{
    (void)events; (void)count; (void)mode; (void)timeout_ms; (void)result; (void)result_size;
    return -ENOSYS;
}
