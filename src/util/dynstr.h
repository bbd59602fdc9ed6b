// DynStr, the name under which the whole module uses its one string type.
#pragma once

#include "util/dynstrtemplate.h"

using DynStr = DynStrTemplate<99>;
