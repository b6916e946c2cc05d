#pragma once

#include "quarrystone/Export.h"

extern "C" {
// The library's version record.
QS_EXPORT extern const double QuarrystoneVersionNumber;
QS_EXPORT extern const unsigned char QuarrystoneVersionString[];
}
