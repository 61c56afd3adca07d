// Breaks navox_portname.cpp: the port's name stays behind when the device is removed.
#pragma once

#include <ntddk.h>

#define IoDeleteSymbolicLink(name) (static_cast<void>(name), STATUS_SUCCESS)
