# The window, in the GUI build only. The source tree's root is one of the
# places where the window looks for its interface file when the embedded one
# is missing.
merid_add_library(controller SOURCES MainWindow.h MainWindow.cpp EraseCmd.h
    DEPS handlers logging platform device transport payload espLoader widgets PkgConfig::GTKMM)
target_compile_definitions(controller PRIVATE MERID_SOURCE_ROOT="${PROJECT_SOURCE_DIR}")
