// Include before the headers whose GUIDs this file is to define.
#ifndef INITGUID
#define INITGUID
#endif
#include <guiddef.h>
