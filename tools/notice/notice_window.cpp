#include "notice_window.h"

#include "dialog_window.h"
#include "notice_texts.h"

namespace tarn::notice {

namespace {

namespace gtk = tarn::tools::gtk;

constexpr int kWidth = 600;
constexpr int kPolicyHeight = 520;

struct NoticeWindow {
  GtkWindow* window = nullptr;
  GtkCheckButton* sharing = nullptr;
  GtkWidget* agree = nullptr;
  NoticeSession* session = nullptr;
  WindowAnswer answer;
};

void Answer(NoticeWindow& notice, tools::Choice choice, const char* control) {
  notice.session->Operate(control);
  notice.answer.choice = choice;
  notice.answer.sharing = gtk_check_button_get_active(notice.sharing);
  gtk_window_destroy(notice.window);
}

// The policy in a window of its own over the notice, with both sizes given,
// so the long text scrolls instead of widening anything.
void ShowPolicy(NoticeWindow& notice) {
  GtkWindow* window = gtk::NewWindow(kPolicyHeading, kWidth);
  gtk_window_set_default_size(window, kWidth, kPolicyHeight);
  gtk_window_set_transient_for(window, notice.window);
  gtk_window_set_modal(window, TRUE);
  gtk_window_set_destroy_with_parent(window, TRUE);
  GtkWidget* page = gtk_box_new(GTK_ORIENTATION_VERTICAL, 12);
  gtk_box_append(GTK_BOX(page), gtk::Text(kPolicyHeading, true));
  GtkWidget* text = gtk::Text(kPolicyText);
  gtk::Name(text, kPolicyHeading);
  gtk_widget_set_margin_start(text, 8);
  gtk_widget_set_margin_end(text, 8);
  GtkWidget* scroller = gtk_scrolled_window_new();
  gtk_scrolled_window_set_policy(GTK_SCROLLED_WINDOW(scroller), GTK_POLICY_NEVER, GTK_POLICY_AUTOMATIC);
  gtk_scrolled_window_set_has_frame(GTK_SCROLLED_WINDOW(scroller), TRUE);
  gtk_scrolled_window_set_child(GTK_SCROLLED_WINDOW(scroller), text);
  gtk_widget_set_vexpand(scroller, TRUE);
  gtk_box_append(GTK_BOX(page), scroller);
  GtkWidget* row = gtk::ButtonRow();
  GtkWidget* close = gtk::Button(kBackLabel, "Back to the privacy notice");
  g_signal_connect_swapped(close, "clicked", G_CALLBACK(gtk_window_destroy), window);
  gtk_box_append(GTK_BOX(row), close);
  gtk_box_append(GTK_BOX(page), row);
  gtk_window_set_child(window, page);
  gtk::SetMargins(page);
  gtk_window_set_default_widget(window, close);
  gtk_window_set_focus(window, close);
  gtk_window_present(window);
}

GtkWidget* NoticePage(NoticeWindow& notice, const NoticeTexts& texts) {
  GtkWidget* page = gtk_box_new(GTK_ORIENTATION_VERTICAL, 12);
  gtk_box_append(GTK_BOX(page), gtk::Text(texts.heading, true));
  for (const char* paragraph : texts.paragraphs) gtk_box_append(GTK_BOX(page), gtk::Text(paragraph));

  GtkWidget* sharing = gtk_check_button_new_with_mnemonic(kSharingLabel);
  gtk_check_button_set_active(GTK_CHECK_BUTTON(sharing), NoticeSession::SharingOn());
  gtk::Name(sharing, "Share anonymous usage statistics");
  gtk_widget_set_margin_top(sharing, 6);
  g_signal_connect(sharing, "toggled", G_CALLBACK(+[](GtkCheckButton*, gpointer data) {
                     static_cast<NoticeWindow*>(data)->session->Operate(kSharingSwitch);
                   }),
                   &notice);
  notice.sharing = GTK_CHECK_BUTTON(sharing);
  gtk_box_append(GTK_BOX(page), sharing);

  GtkWidget* row = gtk::ButtonRow();
  gtk_widget_set_halign(row, GTK_ALIGN_FILL);
  GtkWidget* policy = gtk::Button(kReadPolicyLabel);
  gtk_widget_set_hexpand(policy, TRUE);
  gtk_widget_set_halign(policy, GTK_ALIGN_START);
  g_signal_connect(policy, "clicked", G_CALLBACK(+[](GtkButton*, gpointer data) {
                     auto& notice = *static_cast<NoticeWindow*>(data);
                     notice.session->Operate(kPrivacyButton);
                     ShowPolicy(notice);
                   }),
                   &notice);
  GtkWidget* decline = gtk::Button(kDeclineLabel, "Decline the privacy notice");
  g_signal_connect(decline, "clicked", G_CALLBACK(+[](GtkButton*, gpointer data) {
                     Answer(*static_cast<NoticeWindow*>(data), tools::Choice::kDecline, kDeclineButton);
                   }),
                   &notice);
  GtkWidget* agree = gtk::Button(kAgreeLabel, "Agree to the privacy notice");
  gtk_widget_add_css_class(agree, "suggested-action");
  g_signal_connect(agree, "clicked", G_CALLBACK(+[](GtkButton*, gpointer data) {
                     Answer(*static_cast<NoticeWindow*>(data), tools::Choice::kAccept, kAgreeButton);
                   }),
                   &notice);
  gtk_box_append(GTK_BOX(row), policy);
  gtk_box_append(GTK_BOX(row), decline);
  gtk_box_append(GTK_BOX(row), agree);
  gtk_box_append(GTK_BOX(page), row);
  notice.agree = agree;
  return page;
}

}  // namespace

WindowAnswer ShowNoticeWindow(const std::string& mode, NoticeSession& session) {
  NoticeWindow notice;
  notice.session = &session;
  const NoticeTexts& texts = TextsFor(mode);
  notice.window = gtk::NewWindow(texts.heading, kWidth);
  gtk_window_set_child(notice.window, NoticePage(notice, texts));
  // Enter agrees; the person tabs to the other choices.
  gtk_window_set_default_widget(notice.window, notice.agree);
  gtk_window_set_focus(notice.window, notice.agree);
  gtk::RunUntilClosed(notice.window);
  return notice.answer;
}

}  // namespace tarn::notice
