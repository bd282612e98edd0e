// The registrar's script parser on its own: reads a whole script the way
// VornRegistrarRunScriptA does before it changes anything, and changes
// nothing. Used by the fuzz target of the script language
// (fuzz/registrar_fuzz.cpp). Internal to the runtime.
#pragma once

#include <string>

#include "vorn/rt/registrar.h"

namespace vorn::rt {

// True when `script` has no syntax error and every %NAME% in it has a
// replacement; otherwise false with `error` set to the failure text that
// VornRegistrarRunScriptA leaves ("registration script, line N: what").
// Throws std::bad_alloc.
bool ParseRegistrationScript(const std::string& script, const VORN_REGMAP_ENTRY* replacements, std::string* error);

}  // namespace vorn::rt
