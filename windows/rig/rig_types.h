// What the test bus, its modules and the tests tell one another. Plain types: kernel and Win32 headers do not go
// together.
#pragma once

inline constexpr unsigned kRigPorts = 2;

struct RigPlug {
    unsigned port;
    int held;            // no sentences until RigModuleRelease
    char recording[260]; // path of a log that is played; empty: see `generated`
    int recording_rate;  // bursts a second
    int generated;       // fixes a second; 0 and no recording: only what RigModuleFeed gives
};

struct RigPortRequest {
    unsigned port;
};

struct RigFeed {
    unsigned port;
    unsigned length;
    char text[4096];
};

// An IRP for the top of the module's device stack. `answer.status` is what it completed with, or 0xC00000B5
// (STATUS_IO_TIMEOUT) when it was still out after ten seconds.
struct RigIrpRequest {
    unsigned port;
    unsigned char minor;
    unsigned char system; // power: state is a SYSTEM_POWER_STATE, else a DEVICE_POWER_STATE
    unsigned state;
};

struct RigIrpAnswer {
    long status;
};

struct RigWmiRequest {
    unsigned port;
    unsigned char minor;
    unsigned char guid[16];
    unsigned length; // of the data that goes along, and the room for the answer
    alignas(8) unsigned char data[1024];
};

struct RigWmiAnswer {
    long status;
    unsigned length; // IoStatus.Information
    alignas(8) unsigned char data[1024];
};

struct RigFindingText {
    char text[240]; // empty: there are no more
};

struct RigCounters {
    // The port.
    unsigned plugged;      // a module is in it
    unsigned device;       // its device object exists: after unplugging, until the driver is through with it
    unsigned started;      // the driver has started it; until REMOVE
    unsigned power;        // DEVICE_POWER_STATE
    unsigned urbs;         // submitted
    unsigned urbs_pending; // of those, not completed
    unsigned idle_requested; // the driver has asked to be idle
    unsigned wmi_registered; // IoWMIRegistrationControl: registrations less deregistrations
    // Of all devices of the driver.
    unsigned open_files;
    unsigned findings;
    unsigned serial_count; // of the system's configuration information
    // The module.
    unsigned dtr;
    unsigned rts;
    unsigned flowing;
    unsigned suspended;
    unsigned abstract_state;
    unsigned control_requests;
    unsigned at_commands;
    unsigned long long sentence_bytes;
    unsigned long long bytes_dropped;
};
