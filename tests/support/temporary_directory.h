// SPDX-License-Identifier: MIT
// A directory that lives as long as the object, for tests that need files.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <stdlib.h>

struct TemporaryDirectory {
  TemporaryDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "yutils-XXXXXX").string();
    path_ = mkdtemp(pattern.data());
  }
  ~TemporaryDirectory() { std::filesystem::remove_all(path_); }
  TemporaryDirectory& operator=(TemporaryDirectory&&) = delete;

  std::string pathOf(const std::string& name) const { return (path_ / name).string(); }

  // Writes a file and returns its path.
  std::string write(const std::string& name, const std::string& text) const {
    std::ofstream(path_ / name, std::ios::binary) << text;
    return pathOf(name);
  }

  std::string read(const std::string& name) const {
    std::ifstream file(path_ / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  std::filesystem::path path_;
};
