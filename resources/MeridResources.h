#pragma once

#include <gio/gio.h>

// The getters of the four bundles that the build compiles into the program.
extern "C" {
GResource* merid_ui_get_resource(void);
GResource* merid_icons_get_resource(void);
GResource* merid_firmware_get_resource(void);
GResource* merid_gsettings_get_resource(void);
}
