#include "quarrystone/Version.h"

#include "quarrystone/Constants.h"

extern "C" {
const double QuarrystoneVersionNumber = 0.4;
const unsigned char QuarrystoneVersionString[] =
    "@(#)PROGRAM:Quarrystone  PROJECT:Quarrystone-0.4.0\n";
}

namespace qs {

// Kept equal to the version record above.
const char* const QS_SDK_VERSION = "0.4.0";

}  // namespace qs
