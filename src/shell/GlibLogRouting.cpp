#include "GlibLogRouting.h"

#include "EarlyLog.h"

#include <gio/gio.h>

#include <cstdlib>
#include <string>

namespace {

GLogFunc gPrevGlibLogHandler = nullptr;
gpointer gPrevGlibLogHandlerData = nullptr;

constexpr const char* kFatalMaskDomains[] = {"GLib", "GLib-GIO", "Gtk", "Gdk", "Pango"};

} // namespace

void glibLogHandler(const gchar* domain, GLogLevelFlags level, const gchar* message, gpointer) {
    writeLogLine(domain, level, message);
    if (gPrevGlibLogHandler != nullptr) {
        gPrevGlibLogHandler(domain, level, message, gPrevGlibLogHandlerData);
    } else {
        g_log_default_handler(domain, level, message, nullptr);
    }
}

void glibPrintHandler(const gchar* text) {
    writeLogLine("stdout", G_LOG_LEVEL_MESSAGE, text != nullptr ? text : "");
}

void glibPrintErrHandler(const gchar* text) {
    writeLogLine("stderr", G_LOG_LEVEL_WARNING, text != nullptr ? text : "");
}

void takeOverGlibOutput() {
    // A second take-over must not make the handler its own predecessor.
    GLogFunc previous = g_log_set_default_handler(&glibLogHandler, nullptr);
    if (previous != &glibLogHandler) {
        gPrevGlibLogHandler = previous;
        gPrevGlibLogHandlerData = nullptr;
    }
    g_set_print_handler(&glibPrintHandler);
    g_set_printerr_handler(&glibPrintErrHandler);
}

void disableGlibFatalMasks() {
    g_log_set_always_fatal(static_cast<GLogLevelFlags>(0));
    g_log_set_fatal_mask(nullptr, static_cast<GLogLevelFlags>(0));
    for (const char* domain : kFatalMaskDomains) {
        g_log_set_fatal_mask(domain, static_cast<GLogLevelFlags>(0));
    }
}

void logResourcePresence(const char* path) {
    GError* error = nullptr;
    GBytes* bytes = g_resources_lookup_data(path, G_RESOURCE_LOOKUP_FLAGS_NONE, &error);
    if (bytes != nullptr) {
        g_bytes_unref(bytes);
        writeLogLine("GResource", G_LOG_LEVEL_MESSAGE, std::string("OK: ") + path);
        return;
    }
    const std::string reason = error != nullptr ? error->message : "unknown error";
    writeLogLine("GResource", G_LOG_LEVEL_WARNING, std::string("Missing: ") + path + " (" + reason + ")");
    if (error != nullptr) {
        g_error_free(error);
    }
}

void logEnvIfSet(const char* name) {
    const char* value = std::getenv(name);
    if (value != nullptr) {
        writeLogLine("Env", G_LOG_LEVEL_MESSAGE, std::string(name) + "=" + value);
    } else {
        writeLogLine("Env", G_LOG_LEVEL_MESSAGE, std::string(name) + " is not set");
    }
}
