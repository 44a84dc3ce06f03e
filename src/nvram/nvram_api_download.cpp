// The card's FPGA PROM: an XSVF file played through the driver by the
// platform's player.
#include "nvram/nvram_api.h"
#include "platform/platform.h"

int nvram_prom_download(nvram_t handle, const char* filename)
{
    // No card to play into: as a failed verification.
    if (handle == nullptr || !handle->valid) return NVRAM_INVALID_DEVICE;
    return plat::nvramPromDownload(handle->fd, filename);
}
