#include "quarrystone/Version.h"

extern "C" {
const double QuarrystoneVersionNumber = 0.4;
const unsigned char QuarrystoneVersionString[] =
    "@(#)PROGRAM:Quarrystone  PROJECT:Quarrystone-0.4.0\n";
}
