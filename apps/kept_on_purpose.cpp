#include "apps/kept_on_purpose.h"

#include <algorithm>
#include <iterator>

namespace app {
namespace {

bool Says(const host::Finding& finding, const char* words)
{
    return finding.text.find(words) != std::string::npos;
}

bool IsOfTheReader(const host::Finding& finding)
{
    return finding.detail.starts_with("ReaderDpc");
}

// GET_APPLICATION_COUNT, GET_NMEA_MODE, SET_NMEA_MODE and RESET_GPS.
bool HidesItsStatus(const host::Finding& finding)
{
    static constexpr const char* kCodes[] = {"0x800400c", "0x8004010", "0x8008014", "0x8004018"};
    return Says(finding, "returned 0x0,") &&
           std::any_of(std::begin(kCodes), std::end(kCodes),
                       [&](const char* code) { return Says(finding, code); });
}

bool IsNotStarted(const host::Finding& finding)
{
    return Says(finding, "0xc0000184");
}

} // namespace

std::vector<host::Excuse> KeptOnPurpose()
{
    return {
        {.rule = host::Rule::WorkItemLeak,
         .reason = "the reader's work item is not freed",
         .matches = IsOfTheReader},
        {.rule = host::Rule::StatusMismatch,
         .detail = "IRP_MJ_DEVICE_CONTROL",
         .reason = "four private controls return success whatever they completed with",
         .matches = HidesItsStatus},
        {.rule = host::Rule::PowerMayNotFail,
         .detail = "IRP_MN_SET_POWER",
         .reason = "a device that is not started fails power requests",
         .matches = IsNotStarted},
        {.rule = host::Rule::PowerUnknownTouched,
         .reason = "a device that is not started fails power requests, those that nobody knows as well",
         .matches = IsNotStarted},
        {.rule = host::Rule::PowerStartedTwice,
         .detail = "IRP_MN_WAIT_WAKE",
         .reason = "the next power request is started when a wait-wake is sent and when it ends"},
        {.rule = host::Rule::UrbNotInD0,
         .reason =
             "opens, last closes and the reader's round that is under way are not held back by a sleep"},
    };
}

} // namespace app
