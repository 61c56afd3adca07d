// Etw: event tracing. Older systems lack it, so drivers take the routines by name.
#pragma once
#include <evntprov.h>
