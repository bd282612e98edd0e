#include "core/ComError.h"

namespace vorn {

void ThrowHr(HRESULT hr, const char* reason) { throw ComError(hr, reason); }

}  // namespace vorn
