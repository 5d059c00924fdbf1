// Everything CommonL exports.
#pragma once

#include "Handles.h"
#include "HwModels.h"
#include "KORVALinuxTime.h"
#include "WinApiEvents.h"
#include "WinApiMisc.h"
#include "WinApiProc.h"
