// GUIDs: the structure, comparison and the macro that declares one. A GUID is declared wherever
// a header names it and defined in each file that includes <initguid.h> first (the linker folds
// the copies).
#ifndef HOST_GUIDDEF_H
#define HOST_GUIDDEF_H

#include <cstring>

struct _GUID {
    unsigned int Data1;
    unsigned short Data2;
    unsigned short Data3;
    unsigned char Data4[8];
};
typedef struct _GUID GUID;
typedef GUID* LPGUID;
typedef const GUID* LPCGUID;
typedef const GUID& REFGUID;
typedef GUID CLSID;
typedef GUID IID;

inline int IsEqualGUID(REFGUID left, REFGUID right)
{
    return std::memcmp(&left, &right, sizeof(GUID)) == 0;
}
inline bool operator==(REFGUID left, REFGUID right)
{
    return IsEqualGUID(left, right) != 0;
}

#endif

// Outside the guard: <initguid.h> turns declarations into definitions, whatever came before.
#undef DEFINE_GUID
#ifdef INITGUID
#define DEFINE_GUID(name, l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8)                                         \
    extern "C" __attribute__((weak)) const GUID name = {l, w1, w2, {b1, b2, b3, b4, b5, b6, b7, b8}}
#else
#define DEFINE_GUID(name, l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8) extern "C" const GUID name
#endif
