#pragma once

// Registers the four bundles in the order ui, icons, firmware, gsettings,
// skipping a getter that yields nothing, and logs the step. Also says loudly
// when the build embedded placeholder images instead of firmware.
void registerEmbeddedResources();

// The start-up diagnostics: the toolkit's variables and the resources that
// the start relies on.
void logStartupDiagnostics();
