// Breaks navox_utils.cpp: a read that is not filled says that it brought a byte more than it did.
#pragma once

#include <ntddk.h>

inline void CountOneMore(PIRP irp)
{
    const PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(irp);
    if (location->MajorFunction == IRP_MJ_READ &&
        irp->IoStatus.Information < location->Parameters.Read.Length)
        ++irp->IoStatus.Information;
}

#undef IoCompleteRequest
#define IoCompleteRequest(irp, boost) (CountOneMore(irp), IofCompleteRequest(irp, boost))
