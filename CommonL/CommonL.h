// Everything CommonL exports, and the version compiled against.
#pragma once

#include <CommonL/Version.h>

#include "Handles.h"
#include "HwModels.h"
#include "KORVALinuxTime.h"
#include "WinApiEvents.h"
#include "WinApiMisc.h"
#include "WinApiProc.h"
