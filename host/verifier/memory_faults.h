// Touches of memory that the pool has made inaccessible, turned into findings.
#pragma once

namespace host {

// Once per process; later calls do nothing. Faults that are not the pool's go where they went before.
void VfInstallFaultHandler();

} // namespace host
