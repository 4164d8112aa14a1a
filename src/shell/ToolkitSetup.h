#pragma once

// Steps of the start that need the toolkit, after Gtk::Application exists.

// Forces the "hicolor" theme and points the default icon theme at the
// embedded icons and at the runtime tree, then logs whether the icons that
// the window needs are found.
void prepareIconTheme();

// The default window icon, by name and from the embedded 256x256 image. A
// missing image is no reason to stop.
void setDefaultWindowIcon();
