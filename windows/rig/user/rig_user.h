// navox_rig.dll: what the test bus needs of a C++ library and of the Win32 API. Wine's kernel is a user-mode process,
// so its drivers may import from it. Plain C types, for the two sides' headers do not go together.
#pragma once

#include "windows/rig/rig_types.h"

#ifdef RIG_USER_EXPORTS
#define RIG_API extern "C" __declspec(dllexport)
#else
#define RIG_API extern "C" __declspec(dllimport)
#endif

// The simulated module ----------------------------------------------------------------------------------

struct RigModule;

enum RigHandshake { RigAck, RigNak, RigStall };

// Null when the options cannot be, the recording's file cannot be read, or memory is short.
RIG_API RigModule* RigModuleCreate(const RigPlug* options);
RIG_API void RigModuleDestroy(RigModule* module);
// One control transfer. `data` holds `length` bytes, wLength of the setup packet: the data stage, either way.
// `*moved` is the length of the module's answer, which may be longer than was asked for; only what fits is stored.
RIG_API RigHandshake RigModuleControl(RigModule* module, const unsigned char setup[8], unsigned char* data,
                                      unsigned* moved);
// One packet. At most `room` bytes are stored; `*moved` may be more.
RIG_API RigHandshake RigModuleIn(RigModule* module, unsigned char endpoint, unsigned char* data,
                                 unsigned room, unsigned* moved);
RIG_API RigHandshake RigModuleOut(RigModule* module, unsigned char endpoint, const unsigned char* data,
                                  unsigned length);
RIG_API void RigModuleSuspend(RigModule* module, int suspended);
// Returns when the module is to be told the time next, in 100-ns units as `now`.
RIG_API long long RigModuleAdvance(RigModule* module, long long now);
// From any thread.
RIG_API void RigModuleFeed(RigModule* module, const char* text, unsigned length);
RIG_API void RigModuleRelease(RigModule* module);
RIG_API void RigModuleLook(RigModule* module, RigCounters* counters); // fills its module part

// The processor -----------------------------------------------------------------------------------------

// The calling thread's interrupt request level. The processor's register for it is answered from the same place.
RIG_API unsigned char RigIrql(void);
RIG_API unsigned char RigSetIrql(unsigned char level); // returns the one before
// Makes RigIrql and the register work; once, before anything else. False: the system refuses.
RIG_API int RigStartProcessor(void);
RIG_API long long RigNow(void); // 100-ns units since 1601, finer than the kernel's own clock
// Puts a jump to `replacement` at the beginning of `routine`.
RIG_API int RigReplace(void* routine, void* replacement);

struct RigRedirection {
    const char* name; // null: the end of the table
    void* routine;
};

// Lets every platform routine that the image imports look at the level first, and leads those of the table elsewhere.
// Once per image.
RIG_API int RigWatchImports(void* image, const RigRedirection* redirections);

// Findings ----------------------------------------------------------------------------------------------

RIG_API void RigReport(const char* format, ...) __attribute__((format(printf, 1, 2)));
RIG_API unsigned RigFindings(void);
// The nth finding since the last RigForgetFindings, from 0; false when there is none.
RIG_API int RigFinding(unsigned n, char* text, unsigned size);
RIG_API void RigForgetFindings(void);
