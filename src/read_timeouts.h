// What a read's length and its client's SERIAL_TIMEOUTS mean for that read. No kernel calls here.
#pragma once

#include "navox_ddk.h"

// Time spans are in 100-ns units; negative due times are relative.
inline constexpr LONGLONG kHundredNsPerMillisecond = 10'000;
inline constexpr LONGLONG kShortIntervalAmount = -1;
inline constexpr LONGLONG kLongIntervalAmount = -10'000'000; // 1 s
inline constexpr LONGLONG kCutOverAmount = 200'000'000;      // 20 s

struct ReadPlan {
    bool ReturnImmediately;       // with whatever the ring holds, nothing included
    bool ReturnWithWhatIsPresent; // as soon as there is at least one byte
    bool CrunchDownToOne;         // a read that has to wait is cut to one byte
    bool UseTotalTimer;
    bool UseIntervalTimer;
    LONGLONG TotalTime;    // due time of the total timer
    LONGLONG IntervalTime; // longest pause between two bytes
};

// Serial arithmetic wraps at 64 bits, as the platform's does.
constexpr LONGLONG TotalReadTime(ULONG length, ULONG multiplier, ULONG constant)
{
    const ULONGLONG milliseconds = static_cast<ULONGLONG>(length) * multiplier + constant;
    return static_cast<LONGLONG>(0 - milliseconds * static_cast<ULONGLONG>(kHundredNsPerMillisecond));
}

constexpr ReadPlan PlanRead(const SERIAL_TIMEOUTS& timeouts, ULONG length)
{
    constexpr ULONG never = 0xFFFFFFFF;
    const ULONG interval = timeouts.ReadIntervalTimeout;
    const ULONG multiplier = timeouts.ReadTotalTimeoutMultiplier;
    const ULONG constant = timeouts.ReadTotalTimeoutConstant;
    ReadPlan plan{};

    if (interval == never) {
        if (constant == never)
            return plan; // waits until its buffer is full
        if (constant == 0 && multiplier == 0) {
            plan.ReturnImmediately = true;
            return plan;
        }
        plan.ReturnWithWhatIsPresent = true;
        plan.CrunchDownToOne = multiplier == never;
        plan.UseTotalTimer = true;
        plan.TotalTime = TotalReadTime(length, plan.CrunchDownToOne ? 0 : multiplier, constant);
        return plan;
    }

    if (interval != 0) {
        plan.UseIntervalTimer = true;
        // why: the interval counts as signed, so one of 0x80000000 or more is negative and has always passed.
        plan.IntervalTime = static_cast<LONG>(interval) * kHundredNsPerMillisecond;
    }
    if (multiplier != 0 || constant != 0) {
        plan.UseTotalTimer = true;
        plan.TotalTime = TotalReadTime(length, multiplier, constant);
    }
    return plan;
}
