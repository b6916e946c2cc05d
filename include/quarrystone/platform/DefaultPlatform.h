#pragma once

#include "quarrystone/DeploymentSettings.h"
#include "quarrystone/Export.h"
#include "quarrystone/platform/Platform.h"

namespace qs {

// The platform of a process whose host installs none: the real one of the
// system the library was built for (on Linux, makeLinuxPlatform with its
// default options). Declared here, beside the interfaces, and defined by the
// adapter the build selects, so that the core never names an adapter.
// Never throws; a service that cannot start is logged and replaced.
QS_EXPORT Platform defaultPlatform(const DeploymentSettings& settings);

}  // namespace qs
