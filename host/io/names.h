// Names of request kinds, for logs and reports.
#pragma once

#include <ntdef.h>
#include <string>

namespace host {

// String literals: "IRP_MJ_READ", "IRP_MN_START_DEVICE".
const char* IopMajorName(UCHAR major);
const char* IopMinorName(UCHAR major, UCHAR minor); // "" where the major has no minors

// "IRP_MJ_PNP/IRP_MN_START_DEVICE", "IRP_MJ_READ".
std::string IopRequestName(UCHAR major, UCHAR minor);

// "0xc0000120".
std::string IopHex(std::uint64_t value);
inline std::string IopStatusText(NTSTATUS status)
{
    return IopHex(static_cast<ULONG>(status));
}

// "{86e0d1e0-8089-11d0-9ce4-08003e301f73}".
std::string IopGuidText(const GUID& guid);

} // namespace host
