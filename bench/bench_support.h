// What every benchmark program shares: running Google Benchmark with repetitions in random
// interleaved order (these machines are shared and noisy, so a figure is only ever a ratio
// of medians of two things measured side by side in one run), collecting the medians,
// writing the program's figures to <out>/figures/<program>.json, and talking to peer
// serialisers that run in other processes.
//
// Every program takes `--out=DIR` (default build/bench) besides Google Benchmark's flags.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

// One figure of the summary. A figure without value was skipped; `note` says why.
struct Figure {
  std::string name;
  std::optional<double> value;
  std::string unit;
  std::string note;
};

// The median aggregate of one benchmark, under the benchmark's own name (without the
// /repeats:… suffixes): real time per iteration in nanoseconds and its counters (rates
// already per second).
struct Median {
  double nanoseconds = 0;
  std::map<std::string, double> counters;
};
using Medians = std::map<std::string, Median>;

// Runs the registered benchmarks (random interleaving on unless the command line says
// otherwise), then writes the figures `figures` computes from the medians. Returns the exit
// code for main.
int runBenchmarks(int argc, char** argv, const std::string& program,
                  const std::function<std::vector<Figure>(const Medians&)>& figures);

// Writes <out>/figures/<program>.json: {"name":{"value":…,"unit":…},…}.
bool writeFigures(const std::string& out, const std::string& program,
                  const std::vector<Figure>& figures);

// Runs `command` through the shell and gives the first line it prints when it exits with
// status 0; otherwise nothing, with `problem` saying why. For measurements taken in a child
// process of their own (resident memory).
std::optional<std::string> childAnswer(const std::string& command, std::string& problem);

// The output folder given by --out, made if it does not exist yet.
std::string outputDirectory(int argc, char** argv);

// Median lookups that say which benchmark is missing instead of yielding 0.
double medianNanoseconds(const Medians& medians, const std::string& name);
double medianCounter(const Medians& medians, const std::string& name, const std::string& counter);

// A serialiser in another process (python3, node) driven over pipes. The peer reads the
// dataset, writes its own output once to `outputPath`, and then, for every "1" line, times
// one serialisation and answers the nanoseconds it took.
class PeerProcess {
 public:
  // Nothing when the program cannot be started or does not become ready (the reason is in
  // `why`).
  static std::unique_ptr<PeerProcess> start(const std::vector<std::string>& command,
                                            std::string& why);
  PeerProcess(const PeerProcess&) = delete;
  PeerProcess& operator=(const PeerProcess&) = delete;
  ~PeerProcess();

  // Runs one timed serialisation in the peer; its own measurement, in seconds.
  double timeOne();

 private:
  PeerProcess() = default;
  int pid_ = -1;
  std::FILE* to_ = nullptr;
  std::FILE* from_ = nullptr;
};

bool writeFile(const std::string& path, std::string_view bytes);
std::optional<std::string> readFile(const std::string& path);

// "identical" or where and how two texts first differ.
std::string compareBytes(std::string_view expected, std::string_view actual);

}  // namespace bench
