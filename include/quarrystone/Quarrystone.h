#pragma once

// Everything a host application needs: the manager and its delegate, block
// responses, constants, deployment settings and the Linux platform.
#include "quarrystone/Constants.h"
#include "quarrystone/DeploymentSettings.h"
#include "quarrystone/LinuxPlatform.h"
#include "quarrystone/QSBlockResponse.h"
#include "quarrystone/QSFieldsMapping.h"
#include "quarrystone/QSManager.h"
#include "quarrystone/URLRequest.h"
#include "quarrystone/Value.h"
#include "quarrystone/Version.h"
