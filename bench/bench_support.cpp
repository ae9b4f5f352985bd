#include "bench_support.h"

#include <cstdio>

#include <boost/json.hpp>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace bench {

namespace {

constexpr std::string_view kOutFlag = "--out=";

// The console reporter, keeping the median aggregates on the side.
class MedianCollector : public benchmark::ConsoleReporter {
 public:
  explicit MedianCollector(Medians& medians) : medians_(medians) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Aggregate || run.aggregate_name != "median") continue;
      Median median;
      median.nanoseconds =
          run.GetAdjustedRealTime() * 1e9 / benchmark::GetTimeUnitMultiplier(run.time_unit);
      for (const auto& [name, counter] : run.counters) median.counters[name] = counter.value;
      medians_[run.run_name.function_name] = median;
    }
    ConsoleReporter::ReportRuns(runs);
  }

 private:
  Medians& medians_;
};

void makeDirectories(const std::string& path) {
  std::error_code ignored;
  std::filesystem::create_directories(path, ignored);
}

}  // namespace

std::string outputDirectory(int argc, char** argv) {
  std::string out = "build/bench";
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg.substr(0, kOutFlag.size()) == kOutFlag) out = std::string(arg.substr(kOutFlag.size()));
  }
  makeDirectories(out);
  return out;
}

int runBenchmarks(int argc, char** argv, const std::string& program,
                  const std::function<std::vector<Figure>(const Medians&)>& figures) {
  const std::string out = outputDirectory(argc, argv);
  // Interleaving first, so that the command line can still turn it off.
  std::vector<char*> args{argv[0]};
  std::string interleave = "--benchmark_enable_random_interleaving=true";
  args.push_back(interleave.data());
  for (int i = 1; i < argc; ++i) {
    if (std::string_view(argv[i]).substr(0, kOutFlag.size()) != kOutFlag) args.push_back(argv[i]);
  }
  int count = static_cast<int>(args.size());
  benchmark::Initialize(&count, args.data());
  if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 2;

  Medians medians;
  MedianCollector reporter(medians);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  std::vector<Figure> results;
  try {
    results = figures(medians);
  } catch (const std::exception& error) {
    // A filter that left out a benchmark a figure needs: no figures from this run.
    std::cerr << program << ": no figures written (" << error.what() << ")\n";
    return 0;
  }
  return writeFigures(out, program, results) ? 0 : 1;
}

bool writeFigures(const std::string& out, const std::string& program,
                  const std::vector<Figure>& figures) {
  boost::json::object document;
  for (const Figure& figure : figures) {
    boost::json::object entry;
    if (figure.value) {
      entry["value"] = *figure.value;
    } else {
      entry["value"] = nullptr;
    }
    entry["unit"] = figure.unit;
    if (!figure.note.empty()) entry["note"] = figure.note;
    document[figure.name] = std::move(entry);
  }
  makeDirectories(out + "/figures");
  const std::string path = out + "/figures/" + program + ".json";
  if (!writeFile(path, boost::json::serialize(document))) {
    std::cerr << program << ": cannot write " << path << "\n";
    return false;
  }
  return true;
}

double medianNanoseconds(const Medians& medians, const std::string& name) {
  const auto found = medians.find(name);
  if (found == medians.end()) throw std::runtime_error("no median for " + name);
  return found->second.nanoseconds;
}

double medianCounter(const Medians& medians, const std::string& name, const std::string& counter) {
  const auto found = medians.find(name);
  if (found == medians.end()) throw std::runtime_error("no median for " + name);
  const auto value = found->second.counters.find(counter);
  if (value == found->second.counters.end()) {
    throw std::runtime_error("no counter " + counter + " for " + name);
  }
  return value->second;
}

std::unique_ptr<PeerProcess> PeerProcess::start(const std::vector<std::string>& command,
                                                std::string& why) {
  int toChild[2];
  int fromChild[2];
  if (::pipe2(toChild, O_CLOEXEC) != 0 || ::pipe2(fromChild, O_CLOEXEC) != 0) {
    why = "cannot make pipes";
    return nullptr;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, toChild[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, fromChild[1], STDOUT_FILENO);
  std::vector<char*> argv;
  for (const auto& part : command) argv.push_back(const_cast<char*>(part.c_str()));
  argv.push_back(nullptr);
  pid_t pid = -1;
  const int spawned = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(toChild[0]);
  ::close(fromChild[1]);
  if (spawned != 0) {
    ::close(toChild[1]);
    ::close(fromChild[0]);
    why = command.front() + " cannot be started (" + std::strerror(spawned) + ")";
    return nullptr;
  }
  std::unique_ptr<PeerProcess> peer(new PeerProcess());
  peer->pid_ = pid;
  peer->to_ = ::fdopen(toChild[1], "w");
  peer->from_ = ::fdopen(fromChild[0], "r");
  char line[512] = {};
  if (std::fgets(line, sizeof line, peer->from_) == nullptr) {
    why = command.front() + " ended before it was ready";
    return nullptr;
  }
  std::string answer(line);
  while (!answer.empty() && (answer.back() == '\n' || answer.back() == '\r')) answer.pop_back();
  if (answer != "ready") {
    why = answer;
    return nullptr;
  }
  return peer;
}

PeerProcess::~PeerProcess() {
  if (to_ != nullptr) std::fclose(to_);  // end of input: the peer leaves its loop
  if (from_ != nullptr) std::fclose(from_);
  if (pid_ > 0) {
    int status = 0;
    ::waitpid(pid_, &status, 0);
  }
}

double PeerProcess::timeOne() {
  std::fputs("1\n", to_);
  std::fflush(to_);
  char line[64] = {};
  if (std::fgets(line, sizeof line, from_) == nullptr) {
    throw std::runtime_error("the peer process stopped answering");
  }
  return std::strtod(line, nullptr) * 1e-9;
}

bool writeFile(const std::string& path, std::string_view bytes) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return static_cast<bool>(file);
}

std::optional<std::string> readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  std::stringstream buffer;
  buffer << file.rdbuf();
  return buffer.str();
}

std::string compareBytes(std::string_view expected, std::string_view actual) {
  if (expected == actual) return "identical";
  std::size_t at = 0;
  while (at < expected.size() && at < actual.size() && expected[at] == actual[at]) ++at;
  const std::size_t from = at < 40 ? 0 : at - 40;
  std::ostringstream text;
  text << "differs at byte " << at << " (" << expected.size() << " vs " << actual.size()
       << " bytes): expected ..." << expected.substr(from, 80) << "... got ..."
       << actual.substr(from, 80) << "...";
  return text.str();
}

std::optional<std::string> childAnswer(const std::string& command, std::string& problem) {
  std::FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) {
    problem = "cannot start a child";
    return std::nullopt;
  }
  char line[256] = {};
  const bool got = std::fgets(line, sizeof line, pipe) != nullptr;
  const int status = ::pclose(pipe);
  if (!got || status != 0) {
    problem = got ? line : "the child gave no answer";
    return std::nullopt;
  }
  return std::string(line);
}

}  // namespace bench
