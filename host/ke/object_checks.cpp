#include "ke/object_checks.h"

#include "ke/kernel_impl.h"

#include <string>

namespace host {

void KiRequireInitialized(DISPATCHER_HEADER& header, const char* routine, const void* caller)
{
    if (KiIsInitialized(header))
        return;
    VfReport(Rule::ObjectUninitialized, routine,
             std::string(routine) + " was given an object that was never initialised", caller);
    KiInitializeHeader(header, ObjectType::NotificationEvent, 0);
}

void KiRequireResident(const void* object, const char* routine, const void* caller)
{
    if (VfEnabled() && KiKernel().pool.InPagedBlock(object))
        VfReport(Rule::DispatcherInPagedPool, routine,
                 std::string(routine) + " was given an object in paged pool", caller);
}

} // namespace host
