// CParameterNoLoadSave: an enumeration that a settings stream carries but
// never restores (the state of the measurement sequence, which a recalled
// setting must not change).
//
// Saving writes the ordinary Integer payload of the current value; before
// that the value is refreshed from the object attached to the parameter
// (SetThirdPartyUnknown, set up by whoever owns the state) when there is one:
// an object answering IParameterInteger gives its value (stored through the
// checked store; a refused or unreadable value leaves this parameter
// invalid), any other object leaves this parameter invalid. Without an
// attached object the value is saved as it is. Loading reads the Integer
// payload as usual and then resets the parameter to its default, so a stored
// value never survives a load; the record exists only to keep the stream's
// structure uniform.
#pragma once

#include "parameters/ParameterInteger.h"

namespace vorn {

class CParameterNoLoadSave : public CParameterEnum {
public:
    // The refresh runs here, under the write lock, because the record size
    // is asked before anything of the stream is written: a refresh during
    // SavePayload could change the size already announced.
    DWORD PayloadSize() override;
    bool LoadPayload(CDataStream& stream) override;

private:
    void RefreshFromAttached();
};

}  // namespace vorn
