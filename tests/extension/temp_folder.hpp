#pragma once
// A temporary folder for one test, removed afterwards.

#include <cstdlib>
#include <filesystem>
#include <string>

namespace sarvode::test_support {

class temp_folder {
public:
  temp_folder() {
    const char *base = std::getenv("SARVODE_TEST_TMP");
    std::filesystem::path root = base ? base : std::filesystem::temp_directory_path().string();
    std::filesystem::create_directories(root);
    std::string pattern = (root / "sarvode-XXXXXX").string();
    m_path = mkdtemp(pattern.data()) ? pattern : std::string();
  }
  ~temp_folder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  temp_folder(const temp_folder &) = delete;
  temp_folder &operator=(const temp_folder &) = delete;

  [[nodiscard]] const std::string &path() const { return m_path; }
  [[nodiscard]] std::string file(const std::string &name) const { return m_path + "/" + name; }

private:
  std::string m_path;
};

} // namespace sarvode::test_support
