// libZMRuntimeLog: one common, low-overhead log for every process of a
// runtime installation. Include this header; it brings, in order:
#pragma once

// The record layout, the level table and the type codes.
#include "log/LogHead.h"

// The shared ring and its live switches.
#include "log/RingHead.h"

// Configuration statics, paths and the configuration file reader.
#include "log/ConfManager.h"
#include "log/ReadCFGFile.h"

// Exported control calls (start, stop, attach, repair, switches).
#include "log/Control.h"

// Hex dump, content and line decoding, the record parser.
#include "log/HexDump.h"

#include "log/Decode.h"

// The write templates.
#include "log/WriteLog.h"

// The logging macros.
#include "log/LogMacros.h"

// Rolling of the log files.
#include "log/RollFile.h"
