// vorndb client header: the platform runtime and every interface,
// enumeration and GUID of the database component.
#pragma once

#include "vorn/platform.h"
