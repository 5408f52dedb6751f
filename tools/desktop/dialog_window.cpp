#include "dialog_window.h"

namespace tarn::tools::gtk {

namespace {
constexpr int kMargin = 24;
constexpr int kSpacing = 12;
constexpr int kMaxLineChars = 64;
}  // namespace

bool OpenDisplay() { return gtk_init_check(); }

GtkWindow* NewWindow(const std::string& title, int width) {
  GtkWindow* window = GTK_WINDOW(gtk_window_new());
  gtk_window_set_title(window, title.c_str());
  gtk_window_set_default_size(window, width, -1);
  GtkEventController* keys = gtk_shortcut_controller_new();
  gtk_shortcut_controller_add_shortcut(
      GTK_SHORTCUT_CONTROLLER(keys),
      gtk_shortcut_new(gtk_keyval_trigger_new(GDK_KEY_Escape, GdkModifierType(0)),
                       gtk_named_action_new("window.close")));
  gtk_widget_add_controller(GTK_WIDGET(window), keys);
  return window;
}

GtkWidget* Text(const std::string& text, bool heading) {
  GtkWidget* label = gtk_label_new(nullptr);
  if (heading) {
    char* markup = g_markup_printf_escaped("<span size=\"x-large\" weight=\"bold\">%s</span>", text.c_str());
    gtk_label_set_markup(GTK_LABEL(label), markup);
    g_free(markup);
  } else {
    gtk_label_set_text(GTK_LABEL(label), text.c_str());
  }
  gtk_label_set_wrap(GTK_LABEL(label), TRUE);
  gtk_label_set_wrap_mode(GTK_LABEL(label), PANGO_WRAP_WORD_CHAR);
  // Wraps at the window's width; a window sized anew is never wider than this.
  gtk_label_set_max_width_chars(GTK_LABEL(label), kMaxLineChars);
  gtk_label_set_xalign(GTK_LABEL(label), 0.0f);
  gtk_widget_set_hexpand(label, TRUE);
  return label;
}

GtkWidget* Button(const std::string& mnemonicLabel, const std::string& accessibleName) {
  GtkWidget* button = gtk_button_new_with_mnemonic(mnemonicLabel.c_str());
  std::string name = accessibleName;
  if (name.empty()) {
    for (char c : mnemonicLabel) {
      if (c != '_') name += c;
    }
  }
  Name(button, name);
  return button;
}

void Name(GtkWidget* widget, const std::string& accessibleName) {
  gtk_accessible_update_property(GTK_ACCESSIBLE(widget), GTK_ACCESSIBLE_PROPERTY_LABEL, accessibleName.c_str(), -1);
}

void SetMargins(GtkWidget* content) {
  gtk_widget_set_margin_top(content, kMargin);
  gtk_widget_set_margin_bottom(content, kMargin);
  gtk_widget_set_margin_start(content, kMargin);
  gtk_widget_set_margin_end(content, kMargin);
}

GtkWidget* ButtonRow() {
  GtkWidget* row = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, kSpacing);
  gtk_widget_set_halign(row, GTK_ALIGN_END);
  gtk_widget_set_margin_top(row, kSpacing);
  return row;
}

void RunUntilClosed(GtkWindow* window) {
  bool closed = false;
  g_signal_connect(window, "destroy", G_CALLBACK(+[](GtkWidget*, gpointer flag) { *static_cast<bool*>(flag) = true; }),
                   &closed);
  if (GtkWidget* content = gtk_window_get_child(window)) SetMargins(content);
  gtk_window_present(window);
  while (!closed) g_main_context_iteration(nullptr, TRUE);
}

}  // namespace tarn::tools::gtk

#if defined(__SANITIZE_ADDRESS__)
// Fontconfig keeps its caches to the process's end; that is no leak of ours.
extern "C" const char* __lsan_default_suppressions() { return "leak:libfontconfig.so\n"; }
#endif
