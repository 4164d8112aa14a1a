#pragma once

#include "loader_port.h"

#include <cstdint>

class UsbCommunication;

// The loader's port layer on the program's one UsbCommunication object: the
// loader_port_* functions of loader_port.h are implemented here, so the ROM
// loader shares the serial link with the payload protocol.

// The payload frame that makes the board put its ESP32 into the ROM loader
// and connect it to this link: device 2, field 2, type 8, value 1.
extern const uint8_t kEnterEspFlashingPayload[12];

// The object the port functions use from now on; it stays set.
void meridEspSerialFlasherPortSetUsb(UsbCommunication* usb);

// While set, every read and write fails at once and the switch to the ROM
// loader opens the port no more, so that a flash under way ends at its next
// step. The program sets it when it quits, until its flash worker has ended.
void meridEspSerialFlasherPortSetCancelled(bool cancelled);
