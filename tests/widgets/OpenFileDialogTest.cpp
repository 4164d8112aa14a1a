// The file chooser starts in the user's Desktop folder.
#include "OpenFileDialog.h"
#include "WidgetTestSupport.h"

#include <filesystem>
#include <string>

using testsupport::ToolkitLoop;

namespace {

class OpenFileDialogTest : public widgettest::DerivedWidgetTest<MeridKestalWidgets::OpenFileDialog> {
protected:
    OpenFileDialogTest() : DerivedWidgetTest("OpenFileDialog") {}
};

} // namespace

TEST_F(OpenFileDialogTest, StartsOnTheDesktop) {
    // The test's home has a Desktop folder and no folder settings.
    const std::string desktop = Glib::build_filename(Glib::get_home_dir(), "Desktop");
    ASSERT_TRUE(std::filesystem::is_directory(desktop)) << desktop;
    // The chooser takes the folder on its way to showing it.
    EXPECT_TRUE(ToolkitLoop::runUntil([&] { return widget->get_current_folder() == desktop; }))
        << widget->get_current_folder();
}
