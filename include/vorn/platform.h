// The platform runtime: the one include point for the Windows and COM pieces
// the component and its clients use (libvornrt.so). Code includes this header
// and never needs to know which platform it runs on.
#pragma once

#include "vorn/rt/com.h"
#include "vorn/rt/comptr.h"
#include "vorn/rt/diagnostic.h"
#include "vorn/rt/errorinfo.h"
#include "vorn/rt/file.h"
#include "vorn/rt/library.h"
#include "vorn/rt/oleauto.h"
#include "vorn/rt/registrar.h"
#include "vorn/rt/registry.h"
#include "vorn/rt/stream.h"
#include "vorn/rt/sync.h"
#include "vorn/rt/text.h"
#include "vorn/rt/typelib.h"
#include "vorn/rt/types.h"
#include "vorn/rt/unknown.h"
