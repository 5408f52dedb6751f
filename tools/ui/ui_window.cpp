#include "ui_window.h"

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>

#include "dialog_window.h"

namespace tarn::ui {

namespace {

namespace gtk = tarn::tools::gtk;

constexpr int kWidth = 480;
constexpr unsigned kPulseMs = 120;

void Close(GtkWidget* widget) { gtk_window_destroy(GTK_WINDOW(gtk_widget_get_root(widget))); }

struct Question {
  tools::Choice choice = tools::Choice::kDecline;
};

struct Progress {
  const UiTexts* texts = nullptr;
  GtkWindow* window = nullptr;
  GtkLabel* message = nullptr;
  GtkProgressBar* bar = nullptr;
  GtkWidget* close = nullptr;
  guint pulse = 0;
  std::atomic<bool> running{true};
  bool result = false;
};

}  // namespace

const UiTexts& TextsForLocale() {
  for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* value = std::getenv(name);
    if (value && *value) return std::string(value).rfind("zh", 0) == 0 ? kChinese : kEnglish;
  }
  return kEnglish;
}

tools::Choice AskToUpdate(const UiTexts& texts) {
  Question question;
  GtkWindow* window = gtk::NewWindow(texts.title, kWidth);
  GtkWidget* page = gtk_box_new(GTK_ORIENTATION_VERTICAL, 12);
  gtk_box_append(GTK_BOX(page), gtk::Text(texts.heading, true));
  gtk_box_append(GTK_BOX(page), gtk::Text(texts.needUpdate));
  GtkWidget* row = gtk::ButtonRow();
  GtkWidget* later = gtk::Button(texts.notNow);
  g_signal_connect(later, "clicked", G_CALLBACK(+[](GtkButton* button, gpointer) { Close(GTK_WIDGET(button)); }),
                   nullptr);
  GtkWidget* update = gtk::Button(texts.updateNow);
  gtk_widget_add_css_class(update, "suggested-action");
  g_signal_connect(update, "clicked", G_CALLBACK(+[](GtkButton* button, gpointer data) {
                     static_cast<Question*>(data)->choice = tools::Choice::kAccept;
                     Close(GTK_WIDGET(button));
                   }),
                   &question);
  gtk_box_append(GTK_BOX(row), later);
  gtk_box_append(GTK_BOX(row), update);
  gtk_box_append(GTK_BOX(page), row);
  gtk_window_set_child(window, page);
  // Enter updates; Escape or the window's close is "not now".
  gtk_window_set_default_widget(window, update);
  gtk_window_set_focus(window, update);
  gtk::RunUntilClosed(window);
  return question.choice;
}

bool ShowUpgrade(const UiTexts& texts, const std::function<bool()>& work) {
  Progress progress;
  progress.texts = &texts;
  progress.window = gtk::NewWindow(texts.title, kWidth);
  GtkWidget* page = gtk_box_new(GTK_ORIENTATION_VERTICAL, 12);
  gtk_box_append(GTK_BOX(page), gtk::Text(texts.heading, true));
  GtkWidget* message = gtk::Text(texts.updating);
  progress.message = GTK_LABEL(message);
  gtk_box_append(GTK_BOX(page), message);
  GtkWidget* bar = gtk_progress_bar_new();
  gtk::Name(bar, texts.updating);
  progress.bar = GTK_PROGRESS_BAR(bar);
  gtk_box_append(GTK_BOX(page), bar);
  GtkWidget* row = gtk::ButtonRow();
  progress.close = gtk::Button(texts.close);
  gtk_widget_set_sensitive(progress.close, FALSE);
  g_signal_connect(progress.close, "clicked",
                   G_CALLBACK(+[](GtkButton* button, gpointer) { Close(GTK_WIDGET(button)); }), nullptr);
  gtk_box_append(GTK_BOX(row), progress.close);
  gtk_box_append(GTK_BOX(page), row);
  gtk_window_set_child(progress.window, page);
  // The update library gives no steps, so the bar pulses until it is done.
  progress.pulse = g_timeout_add(kPulseMs, +[](gpointer data) -> gboolean {
    gtk_progress_bar_pulse(static_cast<Progress*>(data)->bar);
    return G_SOURCE_CONTINUE;
  }, &progress);
  g_signal_connect(progress.window, "close-request", G_CALLBACK(+[](GtkWindow*, gpointer data) -> gboolean {
                     return static_cast<Progress*>(data)->running.load();
                   }),
                   &progress);

  std::thread worker([&progress, &work] {
    progress.result = work();
    g_idle_add(+[](gpointer data) -> gboolean {
      auto& p = *static_cast<Progress*>(data);
      p.running = false;
      g_source_remove(p.pulse);
      // A full bar for a finished update; a failed one is told by its text alone.
      gtk_progress_bar_set_fraction(p.bar, 1.0);
      gtk_widget_set_visible(GTK_WIDGET(p.bar), p.result);
      gtk_label_set_text(p.message, p.result ? p.texts->updated : p.texts->failed);
      gtk_widget_set_sensitive(p.close, TRUE);
      gtk_window_set_default_widget(p.window, p.close);
      gtk_window_set_focus(p.window, p.close);
      return G_SOURCE_REMOVE;
    }, &progress);
  });
  gtk::RunUntilClosed(progress.window);
  worker.join();
  return progress.result;
}

}  // namespace tarn::ui
