#pragma once
// The window pieces both desktop programs are made of, so that they look and
// behave alike: a plain window that Escape closes, wrapping texts, buttons
// with mnemonics, and an accessible name on every control.
#include <gtk/gtk.h>

#include <string>

namespace tarn::tools::gtk {

// Opens the display GTK is pointed at (DISPLAY, WAYLAND_DISPLAY); false when
// there is none, and nothing can be shown.
bool OpenDisplay();

// A dialog's window: its title, a width in logical pixels (the height follows
// the content), and Escape asks it to close.
GtkWindow* NewWindow(const std::string& title, int width);

// A text that wraps at the window's width. heading: larger and bold.
GtkWidget* Text(const std::string& text, bool heading = false);

// A button whose label has a mnemonic ("_Agree": Alt+A), and whose accessible
// name is the label's text unless one is given.
GtkWidget* Button(const std::string& mnemonicLabel, const std::string& accessibleName = {});

// Gives a control the name a screen reader announces.
void Name(GtkWidget* widget, const std::string& accessibleName);

// The margins around a window's content (RunUntilClosed gives them to the
// main window's).
void SetMargins(GtkWidget* content);

// A row of buttons at the end of a dialog, right-aligned.
GtkWidget* ButtonRow();

// Shows the window and runs the main loop until it has been destroyed.
void RunUntilClosed(GtkWindow* window);

}  // namespace tarn::tools::gtk
