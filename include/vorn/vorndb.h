// vorndb client header: the platform runtime, every interface, enumeration
// and GUID of the database component, and the text of its units. vorn/enums.h
// and vorn/groups.h are generated from the component's schema at build time
// and installed beside the hand-written headers.
#pragma once

#include "vorn/database.h"
#include "vorn/enums.h"
#include "vorn/groups.h"
#include "vorn/parameter.h"
#include "vorn/platform.h"
#include "vorn/units.h"
