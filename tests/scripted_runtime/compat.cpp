// The companion of the scripted runtime. It has no function of the runtime's, so a look-up that
// wrongly goes to it finds nothing.
#include "util/def.h"

extern "C" VORDA_EXPORT const char* GetCoreName() {
    return "Scripted.Compat";
}
