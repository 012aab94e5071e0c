// Every tunnel table entry kind, for code that handles them all (tables, tools, tests).
#pragma once

#include "TunnelTable/BgpLuTunnelTableEntry.h"
#include "TunnelTable/ColoredTunnelTableEntry.h"
#include "TunnelTable/EvpnVxlanTunnelEntry.h"
#include "TunnelTable/FrrTunnelTableEntry.h"
#include "TunnelTable/IgpTunnelTableEntry.h"
#include "TunnelTable/IntfTunnelTableEntry.h"
#include "TunnelTable/NimboSdkSbfdSessionTunnelTableEntry.h"
#include "TunnelTable/StaticTunnelTableEntry.h"
#include "TunnelTable/TunnelTableEntry.h"
