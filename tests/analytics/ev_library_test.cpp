// The reporting library: what can't be sent survives in the record file, in
// a form the reporter reads back field by field.
#include <gtest/gtest.h>

#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "platform/commonutil/urlloader.h"
#include "platform/ev/tarncore_ev.h"
#include "support/temp_root.h"

namespace {

class FakeTransport : public tarn::ev::Transport {
 public:
  bool Post(const std::string& url, const std::string& body) override {
    std::lock_guard<std::mutex> lock(mutex);
    posts.push_back({url, body});
    return accept;
  }
  std::mutex mutex;
  std::vector<std::pair<std::string, std::string>> posts;
  bool accept = true;
};

class EvLibraryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_.WriteFile("book.json", R"({"com.vantrel.evservice": {"ROOT": "https://ev.example/report"}})");
    UrlLoader::SetAddressBookPath(root_.At("book.json"));
    tarn::ev::SetTransportForTesting(&transport_);
    tarn::ev::ResetForTesting();
  }
  void TearDown() override {
    tarn::ev::ResetForTesting();
    tarn::ev::SetTransportForTesting(nullptr);
    UrlLoader::SetAddressBookPath("");
  }
  // The record file's lines split at '|', and the file taken away as the reporter does.
  std::vector<std::vector<std::string>> TakeRecords() {
    const std::string path = tarn::ev::RecordFolder() + "/ev_record.txt";
    std::ifstream in(path);
    std::vector<std::vector<std::string>> lines;
    for (std::string line; std::getline(in, line);) {
      std::stringstream split(line);
      lines.emplace_back();
      for (std::string field; std::getline(split, field, '|');) lines.back().push_back(field);
    }
    std::remove(path.c_str());
    return lines;
  }

  tarn::test::TempRoot root_;
  FakeTransport transport_;
};

// A report with the field separator and line breaks in it survives the file
// and comes back whole; each failed round counts one more attempt, and the
// last allowed failure drops the record.
TEST_F(EvLibraryTest, UnsentReportRoundTripsThroughTheRecordFileUntilItsAttemptsRunOut) {
  const std::string report = "{\"a\":\"x|y\"}\r\n100%\n";
  transport_.accept = false;
  FrameworkEvInit();
  FrameworkEvGeneralReport(report.c_str());
  FrameworkEvGeneralReport("second");
  EXPECT_EQ(transport_.posts.size(), 1u) << "the service is down for the rest of the flush";
  EXPECT_EQ(TakeRecords().size(), 2u);
  FrameworkEvInit();
  FrameworkEvGeneralReport(report.c_str());

  for (int attempt = 1; attempt < tarn::ev::kMaxDeliveryAttempts; ++attempt) {
    auto lines = TakeRecords();
    ASSERT_EQ(lines.size(), 1u) << "attempt " << attempt;
    ASSERT_EQ(lines[0].size(), 5u);
    EXPECT_EQ(lines[0][1], "general");
    EXPECT_EQ(lines[0][3], std::to_string(attempt));
    FrameworkEvInit();
    FrameworkEvReportForFile(lines[0][2].c_str(), lines[0][1].c_str(), lines[0][3].c_str());
    FrameworkEvReportLocalToServer();
  }
  EXPECT_TRUE(TakeRecords().empty());
  ASSERT_EQ(transport_.posts.size(), static_cast<std::size_t>(tarn::ev::kMaxDeliveryAttempts) + 1);
  transport_.posts.erase(transport_.posts.begin());
  for (const auto& post : transport_.posts) {
    EXPECT_EQ(post.first, "https://ev.example/report");
    EXPECT_EQ(post.second, report);
  }
}

TEST_F(EvLibraryTest, WithoutAnAddressNothingIsPostedAndReportsAreKept) {
  UrlLoader::SetAddressBookPath(root_.At("missing.json"));
  FrameworkEvInit();
  FrameworkEvGeneralReport("one");
  FrameworkEvReportForPerDay("0");
  EXPECT_TRUE(transport_.posts.empty());
  auto lines = TakeRecords();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0][2], "one");
  EXPECT_EQ(lines[1][1], "perday");
  EXPECT_NE(lines[1][2].find("TARN_PC_SERVICE_REPORT_PER_DAY"), std::string::npos);
}

TEST_F(EvLibraryTest, RecordsHeldAtTheEndGoBackToTheFile) {
  FrameworkEvReportToFile("notice record");
  auto lines = TakeRecords();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0][1], "file");
  EXPECT_EQ(lines[0][3], "0");

  FrameworkEvReportForFile(lines[0][2].c_str(), lines[0][1].c_str(), lines[0][3].c_str());
  FrameworkEvUnInit();
  EXPECT_TRUE(transport_.posts.empty());
  lines = TakeRecords();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0][2], "notice record");
}

}  // namespace
