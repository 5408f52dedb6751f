#pragma once
// A JSON text as a tree; a text that isn't JSON fails the test.
#include <gtest/gtest.h>
#include <json/reader.h>

#include <sstream>
#include <string>

namespace tarn::test {

inline Json::Value ParseJson(const std::string& text) {
  Json::Value root;
  std::istringstream in(text);
  std::string errors;
  EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &root, &errors)) << text << "\n" << errors;
  return root;
}

}  // namespace tarn::test
