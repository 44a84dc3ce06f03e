// A basic SCSI disk behind SG_IO: standard INQUIRY, the supported-pages and
// unit serial number pages, TEST UNIT READY and READ CAPACITY(10).
#pragma once

#include <scsi/sg.h>

#include "manifest.h"

namespace sim {

// Answers one request in place; the result is 0 or an errno for the ioctl.
int scsiRequest(const Drive& drive, sg_io_hdr_t* hdr);

} // namespace sim
