// The annotations of drivers live with the others.
#pragma once
#include <sal.h>
