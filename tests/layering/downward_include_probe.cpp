// Part of the flashing layer for the build's purposes: its own headers and
// those of the layers below are found.
#include "flashing/board_table.h"
#include "log/logger.h"
#include "platform/clock.h"
#include "serial/serial_port.h"

int layeringProbeDownward()
{
    return static_cast<int>(quendral::BoardTable::rows().size());
}
