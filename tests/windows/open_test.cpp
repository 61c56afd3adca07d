#include "tests/windows/rig_test.h"

SCENARIO(OpensByName)
{
    Rig rig;
    rig.Plug();
    for (const char* name : {"COM5", "\\\\.\\COM5"}) {
        Port port(name);
        CHECK_EQ(port.ReadAll(kEmptySentence.size()), kEmptySentence);
    }
}
