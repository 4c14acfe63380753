#pragma once
// A fresh directory for each test that needs real files, removed with its content afterwards;
// `path` names the store's file in it (not created).

#include <gtest/gtest.h>

#include <stdlib.h>

#include <filesystem>
#include <string>
#include <system_error>

class TempDirTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "qvsqlite-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir = pattern;
    path = file("knowledge.db");
  }
  void TearDown() override {
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
  }
  std::string file(const std::string& name) const { return (dir / name).string(); }

  std::filesystem::path dir;
  std::string path;
};
