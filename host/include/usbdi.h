// The old name of <usb.h>.
#pragma once
#include <usb.h>
