#pragma once
// What the privacy notice says, in its two modes, and the policy it links to.
#include <string>
#include <vector>

namespace tarn::notice {

struct NoticeTexts {
  const char* heading;
  std::vector<const char*> paragraphs;
};

inline const NoticeTexts kFirstNotice{
    "Tarn Core privacy notice",
    {"Tarn Core runs the platform services that applications on this computer use. To provide them, it "
     "processes the requests those applications send to it, on this computer.",
     "If you allow it, Tarn Core also sends anonymous usage statistics that help improve the service. You "
     "can turn this off here now, and change it and automatic updates in the settings at any time.",
     "Please read the privacy policy. Agree to go on using Tarn Core services; if you decline, no usage "
     "statistics are sent and this notice comes again next time."}};

inline const NoticeTexts kChangedNotice{
    "The Tarn Core privacy notice has changed",
    {"The privacy policy of Tarn Core has been updated since you last agreed to it.",
     "Please read the current version. Agree to go on using Tarn Core services under it; if you decline, no "
     "usage statistics are sent and this notice comes again next time."}};

inline const NoticeTexts& TextsFor(const std::string& mode) {
  return mode == "PrivacyAgree" ? kChangedNotice : kFirstNotice;
}

inline constexpr const char* kSharingLabel = "_Share anonymous usage statistics";
inline constexpr const char* kReadPolicyLabel = "_Read the privacy policy";
inline constexpr const char* kDeclineLabel = "_Decline";
inline constexpr const char* kAgreeLabel = "_Agree";
inline constexpr const char* kBackLabel = "_Back";

inline constexpr const char* kPolicyHeading = "Tarn Core privacy policy";
inline constexpr const char* kPolicyText =
    "What Tarn Core is\n"
    "Tarn Core is a service host. Applications on this computer ask it for platform services; it checks "
    "who is asking and what they may do, and runs the service that answers.\n\n"
    "What it processes\n"
    "The requests of applications, with the names of the services and functions they call, the "
    "application's identifier and the outcome of each call. Requests are processed on this computer.\n\n"
    "Usage statistics\n"
    "When you allow it, Tarn Core sends statistics of these calls (which service and function, when, how "
    "long it took and whether it succeeded) and a once-a-day summary. They carry an anonymous identifier "
    "of this computer derived from its machine id, never your name, your files or the content of "
    "requests. Statistics that cannot be sent are kept on this computer until they can be.\n\n"
    "Updates\n"
    "Tarn Core asks its update service whether a newer version exists, sending its installed version. "
    "It installs updates only when you agree or when automatic updates are on, and only packages signed "
    "by their maker.\n\n"
    "Your choices\n"
    "You can turn usage statistics and automatic updates on or off at any time in the settings. "
    "Declining this notice turns usage statistics off.\n\n"
    "Changes\n"
    "When this policy changes, Tarn Core shows the notice again and asks you to agree to the new version.";

}  // namespace tarn::notice
