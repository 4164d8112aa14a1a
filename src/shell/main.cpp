#include "CrashHandlers.h"
#include "EarlyLog.h"
#include "EmbeddedResources.h"
#include "GlibLogRouting.h"
#include "MainWindow.h"
#include "PortableRuntimeData.h"
#include "RuntimeEnvironment.h"
#include "ToolkitSetup.h"

#include <gtkmm.h>

#include <exception>
#include <iostream>

#ifdef MERID_CRASH_PROBE
#include "CrashProbe.h"
#endif

namespace {

void logStep(const char* message) {
    writeLogLine(kAppName, G_LOG_LEVEL_MESSAGE, message);
}

// Creates the application and the window and runs the event loop. The
// application reference is released on the way out, also by unwinding.
int runApplication(int argc, char* argv[]) {
    auto application = Gtk::Application::create(argc, argv, "", Gio::APPLICATION_FLAGS_NONE);
    logStep("Gtk::Application created.");
    // The toolkit's initialisation may have armed fatal masks again.
    disableGlibFatalMasks();
    prepareIconTheme();
    setDefaultWindowIcon();
    logStep("Creating MainWindow...");
    MainWindow* window = MainWindow::getInstance(kAppName, application);
    logStep("MainWindow created. Entering event loop.");
    return application->run(*window);
}

// Everything from the application's creation to the end of its event loop.
// No dialog reports a failed start: standard error and the early log do.
int runGuarded(int argc, char* argv[]) {
    logStep("Creating Gtk::Application...");
    try {
        return runApplication(argc, argv);
    } catch (const Glib::Error& error) {
        std::cerr << "Ошибка: " << error.what().raw() << std::endl;
        writeLogLine("Exception", G_LOG_LEVEL_ERROR, error.what().raw());
    } catch (const std::exception& error) {
        std::cerr << "Ошибка (std::exception): " << error.what() << std::endl;
        writeLogLine("Exception", G_LOG_LEVEL_ERROR, error.what());
    } catch (...) {
        std::cerr << "Неизвестная ошибка" << std::endl;
        writeLogLine("Exception", G_LOG_LEVEL_ERROR, "Unknown exception");
    }
    return 1;
}

} // namespace

int main(int argc, char* argv[]) {
    openEarlyLog(chooseEarlyLogPath());
    takeOverGlibOutput();
    disableGlibFatalMasks();
    installCrashHandlers();
    installSignalHandlers();
    configureRuntimeEnvironment();
    registerEmbeddedResources();
    ensurePortableRuntimeData();
    logStartupDiagnostics();
#ifdef MERID_CRASH_PROBE
    runCrashProbe();
#endif
    // The window is left to the toolkit and the early log to static
    // destruction.
    return runGuarded(argc, argv);
}
