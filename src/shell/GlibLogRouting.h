#pragma once

#include <glib.h>

// GLib's log and print output, routed into the early log.

// Default log handler: writes the line, then hands it to the handler that
// GLib had before, so the toolkit's own output stays as it was.
void glibLogHandler(const gchar* domain, GLogLevelFlags level, const gchar* message, gpointer userData);

// g_print and g_printerr: into the early log alone, under "stdout" and
// "stderr".
void glibPrintHandler(const gchar* text);
void glibPrintErrHandler(const gchar* text);

// Installs the three handlers above, keeping GLib's previous default handler.
void takeOverGlibOutput();

// Disarms GLib's fatal levels: the always-fatal mask and the fatal mask of
// the null domain and of "GLib", "GLib-GIO", "Gtk", "Gdk" and "Pango".
void disableGlibFatalMasks();

// "OK: <path>" when the resource can be looked up, else "Missing: <path> (why)".
void logResourcePresence(const char* path);

// "<name>=<value>" or "<name> is not set", under the domain "Env".
void logEnvIfSet(const char* name);
