// The host driver as its users run it: a separate process fed JSON Lines on stdin. Programs
// that include this are given the driver's path as VORNTESK_DRIVER_PATH.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace testsupport {

struct DriverRun {
  int exitStatus = -1;
  std::vector<std::string> lines;  // standard output
  std::string errors;              // standard error
};

inline std::string readFile(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

inline std::string takeFile(const std::string& path) {
  const auto text = readFile(path);
  std::filesystem::remove(path);
  return text;
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

// A driver left running: lines written to its standard input, its standard output read on a
// thread of its own, its standard error appended to `errors` (or discarded). Destroying it
// ends its input and gives it ten seconds to exit before killing it.
class RunningDriver {
 public:
  // `program` is the driver unless said otherwise (any program that speaks lines will do).
  explicit RunningDriver(const std::vector<std::string>& arguments, const std::string& errors = "",
                         const char* program = VORNTESK_DRIVER_PATH) {
    std::vector<char*> argv{const_cast<char*>(program)};
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    int in[2], out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) {
      ADD_FAILURE() << "pipe: " << std::strerror(errno);
      return;
    }
    const int err = ::open(errors.empty() ? "/dev/null" : errors.c_str(),
                           O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(in[0], 0);
      ::dup2(out[1], 1);
      if (err >= 0) ::dup2(err, 2);
      ::execv(program, argv.data());
      ::_exit(127);
    }
    if (err >= 0) ::close(err);
    ::close(in[0]);
    ::close(out[1]);
    input_ = in[1];
    reader_ = std::thread([this, fd = out[0]] { readLines(fd); });
  }

  RunningDriver(const RunningDriver&) = delete;
  RunningDriver& operator=(const RunningDriver&) = delete;

  ~RunningDriver() {
    if (input_ >= 0) ::close(input_);
    input_ = -1;
    for (int i = 0; i < 100 && pid_ > 0; ++i) {
      if (::waitpid(pid_, nullptr, WNOHANG) == pid_) pid_ = -1;
      else std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    kill();
    if (reader_.joinable()) reader_.join();
  }

  // Writes `line`; a driver that is gone makes the write fail, which callers see as no answer
  // (SIGPIPE is ignored for the process).
  void send(const std::string& line) {
    ::signal(SIGPIPE, SIG_IGN);
    const std::string text = line + "\n";
    if (input_ >= 0) (void)!::write(input_, text.data(), text.size());
  }

  // The answer to the call or control whose "id" is the string `id`, once read; nothing if it
  // does not come within 30 seconds or the driver ends first.
  std::optional<std::string> waitForAnswer(const std::string& id) {
    const std::string prefix = R"({"id":")" + id + R"(",)";
    std::unique_lock lock(mutex_);
    std::optional<std::string> found;
    arrived_.wait_for(lock, std::chrono::seconds(30), [&] {
      for (const auto& line : lines_) {
        if (line.rfind(prefix, 0) == 0) found = line;
      }
      return found || ended_;
    });
    return found;
  }

  // Sends `line` and waits for the next line of output.
  std::optional<std::string> ask(const std::string& line) {
    std::unique_lock lock(mutex_);
    const auto seen = lines_.size();
    lock.unlock();
    send(line);
    lock.lock();
    if (!arrived_.wait_for(lock, std::chrono::seconds(30), [&] { return lines_.size() > seen; })) {
      return std::nullopt;
    }
    return lines_[seen];
  }

  // Every line read so far; once killed, every line the driver wrote.
  std::vector<std::string> lines() {
    std::unique_lock lock(mutex_);
    if (pid_ <= 0) arrived_.wait_for(lock, std::chrono::seconds(30), [&] { return ended_; });
    return lines_;
  }

  void kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
    if (input_ >= 0) ::close(input_);
    input_ = -1;
  }

 private:
  void readLines(int fd) {
    std::string pending;
    char buffer[65536];
    for (ssize_t got; (got = ::read(fd, buffer, sizeof buffer)) > 0;) {
      pending.append(buffer, static_cast<std::size_t>(got));
      std::lock_guard lock(mutex_);
      for (std::size_t end; (end = pending.find('\n')) != std::string::npos;) {
        lines_.push_back(pending.substr(0, end));
        pending.erase(0, end + 1);
      }
      arrived_.notify_all();
    }
    ::close(fd);
    std::lock_guard lock(mutex_);
    ended_ = true;
    arrived_.notify_all();
  }

  pid_t pid_ = -1;
  int input_ = -1;
  std::thread reader_;
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<std::string> lines_;
  bool ended_ = false;
};

}  // namespace testsupport
