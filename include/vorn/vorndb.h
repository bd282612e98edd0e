// vorndb client header: the platform runtime and every interface,
// enumeration and GUID of the database component. vorn/enums.h and
// vorn/groups.h are generated from the component's schema at build time and
// installed beside the hand-written headers.
#pragma once

#include "vorn/database.h"
#include "vorn/enums.h"
#include "vorn/groups.h"
#include "vorn/parameter.h"
#include "vorn/platform.h"
