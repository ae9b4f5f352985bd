// The npm packages a test folder's package.json names, installed into the build tree once per
// build tree, for the tests that run Node scripts (interop, browser). Test programs may run at
// once: one installs while the others wait on a lock file in the same directory.
#pragma once

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>

namespace testsupport {

inline std::string readFile(const std::filesystem::path& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

// Copies `files` from `source` to `dir` and runs npm install there unless the package
// `installed` is already in its node_modules. What npm said when it failed; nothing on success.
inline std::optional<std::string> installNodePackages(const std::filesystem::path& source,
                                                      const std::filesystem::path& dir,
                                                      std::initializer_list<const char*> files,
                                                      const std::string& installed) {
  namespace fs = std::filesystem;
  fs::create_directories(dir);
  for (const char* file : files) {
    fs::copy_file(source / file, dir / file, fs::copy_options::overwrite_existing);
  }
  const int lock = ::open((dir / "install.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  for (int i = 0; i < 600 && lock >= 0 && ::flock(lock, LOCK_EX | LOCK_NB) != 0; ++i) ::sleep(1);
  const bool ready = fs::exists(dir / "node_modules" / installed / "package.json") ||
                     std::system(("cd '" + dir.string() +
                                  "' && npm install --no-audit --no-fund --loglevel=error "
                                  "> npm-install.log 2>&1")
                                     .c_str()) == 0;
  if (lock >= 0) ::close(lock);
  if (ready) return std::nullopt;
  return readFile(dir / "npm-install.log");
}

}  // namespace testsupport
