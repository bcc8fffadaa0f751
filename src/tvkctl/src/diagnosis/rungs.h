#pragma once

#include "tvkctl/src/diagnosis/ladder.h"

namespace tarvik::tvkctl {

/// Can the program read the address, and does it mean what it seems to?
rung_result look_at_address(situation& where);
/// Is there such a device on the bus, and is it the one that is meant?
rung_result look_at_bus(situation& where);
/// May this user open the device?
rung_result look_at_rights(situation& where);
/// Has the device an interface that the program could use?
rung_result look_at_interface(situation& where);
/// Is the interface free, or can it be made free?
rung_result look_at_driver(situation& where);
/// Is the plugin of this model installed, and can a process of this machine load it?
rung_result look_at_plugin(situation& where);
/// Does the program start, name its port and accept a connection?
rung_result look_at_program(situation& where);
/// Does it open the scanner, and close it again?
rung_result look_at_open(situation& where);

} // namespace tarvik::tvkctl
