#pragma once
#include <wdm.h>
