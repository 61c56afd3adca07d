// The private GPS controls. They pass no gate and are not counted: they work in every Plug and Play state.
//
//     request --code not served--> back to navox_ioctl, untouched
//        '--served--> completed at once --count, mode, reset--> STATUS_SUCCESS is returned, whatever it was
//                                       '--port, versions, date--> its own status is returned
#pragma once

#include "navox.h"

// Serves and completes the request if its code is one of the private ones that are served; `status` is then
// what the dispatch routine returns. False: it is not ours.
[[nodiscard]] _IRQL_requires_max_(DISPATCH_LEVEL) bool ServeGpsControl(PDEVICE_OBJECT device, PIRP irp,
                                                                       NTSTATUS* status);
