// The host driver as its users run it: a separate process fed JSON Lines on stdin. Programs
// that include this are given the driver's path as VORNTESK_DRIVER_PATH.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace testsupport {

struct DriverRun {
  int exitStatus = -1;
  std::vector<std::string> lines;  // standard output
  std::string errors;              // standard error
};

inline std::string takeFile(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  std::filesystem::remove(path);
  return text.str();
}

// Runs the driver with `arguments`, the `input` lines as its standard input, until it exits
// (killed after two minutes, which shows as exit status 124). `launcher` is a command that
// runs the words after it (setpriv, prlimit, ...), or empty.
inline DriverRun runDriver(const std::vector<std::string>& input, const std::string& arguments = "",
                           const std::string& launcher = "") {
  static int runs = 0;
  const auto base = std::filesystem::temp_directory_path().string() + "/vorntesk-driver-" +
                    std::to_string(::getpid()) + "-" + std::to_string(++runs);
  std::ofstream in(base + ".in");
  for (const auto& line : input) in << line << "\n";
  in.close();
  const int status =
      std::system(("timeout -k 5 120 " + launcher + " " VORNTESK_DRIVER_PATH " " + arguments +
                   " < " + base + ".in > " + base + ".out 2> " + base + ".err")
                      .c_str());
  takeFile(base + ".in");
  DriverRun run{WIFEXITED(status) ? WEXITSTATUS(status) : -1, {}, takeFile(base + ".err")};
  const std::string output = takeFile(base + ".out");
  EXPECT_TRUE(output.empty() || output.back() == '\n') << "output ends in a partial line";
  std::istringstream stream(output);
  for (std::string line; std::getline(stream, line);) run.lines.push_back(line);
  return run;
}

}  // namespace testsupport
