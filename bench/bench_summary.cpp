// Gathers <out>/figures/*.json (written by the benchmark programs) into <out>/summary.json,
// one object {"figure":{"value":…,"unit":…},…}, and prints the same as a table beside the
// bar each figure has to meet. Usage: bench_summary [OUT] (default build/bench).
#include <boost/json.hpp>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace json = boost::json;

struct Bar {
  const char* figure;
  enum Kind { none, atLeast, atMost } kind;
  double limit;
};

// In the order of the table.
constexpr Bar kBars[] = {
    {"p1_vs_memcpy", Bar::atMost, 3},     {"p1_vs_orjson", Bar::atLeast, 2},
    {"p1_vs_nlohmann", Bar::atLeast, 10}, {"p1_vs_v8", Bar::none, 0},
    {"p2_roundtrip_ratio", Bar::atMost, 1.3}, {"p2_calls_per_s", Bar::atLeast, 500'000},
    {"p3_ratio", Bar::atMost, 1.5},       {"p4_vs_crypto", Bar::atLeast, 0.9},
    {"p4_events_per_s", Bar::none, 0},    {"p4_lost", Bar::atMost, 0},
    {"p5_peak_over_output", Bar::atMost, 2.5},
    {"p6_durable_purchase_ratio", Bar::atLeast, 0.8},
    {"p7_relaunch_ratio", Bar::atMost, 3},
    {"p7_relaunch_rss_mb", Bar::atMost, 100},
    {"p9_history_page_ratio", Bar::atLeast, 0.5}, {"p9_history_pages_per_s", Bar::none, 0},
    {"p10_notification_ratio", Bar::atLeast, 0.7}, {"p10_notifications_per_s", Bar::none, 0},
};

std::string number(double value) {
  char text[64];
  if (value >= 1000) {
    std::snprintf(text, sizeof text, "%.0f", value);
  } else {
    std::snprintf(text, sizeof text, "%.3g", value);
  }
  return text;
}

std::string barText(const Bar& bar) {
  if (bar.kind == Bar::none) return "-";
  if (bar.kind == Bar::atMost && bar.limit == 0) return "= 0";
  return std::string(bar.kind == Bar::atLeast ? ">= " : "<= ") + number(bar.limit);
}

}  // namespace

int main(int argc, char** argv) {
  const std::filesystem::path out = argc > 1 ? argv[1] : "build/bench";
  json::object figures;
  std::error_code error;
  for (const auto& file : std::filesystem::directory_iterator(out / "figures", error)) {
    if (file.path().extension() != ".json") continue;
    std::ifstream in(file.path());
    std::stringstream text;
    text << in.rdbuf();
    json::error_code parseError;
    auto document = json::parse(text.str(), parseError);
    if (parseError || !document.is_object()) {
      std::cerr << "bench_summary: " << file.path() << " is not a figures file\n";
      continue;
    }
    for (auto& [name, entry] : document.as_object()) figures[name] = entry;
  }

  json::object summary;
  std::printf("%-26s %14s  %-9s %-12s %s\n", "figure", "value", "unit", "bar", "");
  for (const Bar& bar : kBars) {
    const json::value* entry = figures.if_contains(bar.figure);
    std::optional<double> value;
    std::string unit = "";
    std::string note = "not measured";
    if (entry != nullptr && entry->is_object()) {
      const auto& object = entry->as_object();
      if (const auto* v = object.if_contains("value"); v != nullptr && v->is_number()) {
        value = v->to_number<double>();
      }
      if (const auto* u = object.if_contains("unit"); u != nullptr && u->is_string()) {
        unit = std::string(u->as_string());
      }
      note = "skipped";
      if (const auto* n = object.if_contains("note"); n != nullptr && n->is_string()) {
        note = "skipped: " + std::string(n->as_string());
      }
    }
    json::object row;
    if (value) {
      row["value"] = *value;
    } else {
      row["value"] = nullptr;
    }
    row["unit"] = unit;
    summary[bar.figure] = std::move(row);

    std::string verdict;
    if (!value) {
      verdict = note;
    } else if (bar.kind == Bar::atLeast) {
      verdict = *value >= bar.limit ? "met" : "MISSED";
    } else if (bar.kind == Bar::atMost) {
      verdict = *value <= bar.limit ? "met" : "MISSED";
    }
    std::printf("%-26s %14s  %-9s %-12s %s\n", bar.figure, value ? number(*value).c_str() : "-",
                unit.c_str(), barText(bar).c_str(), verdict.c_str());
  }
  const auto path = out / "summary.json";
  std::ofstream file(path, std::ios::trunc);
  file << json::serialize(summary) << "\n";
  if (!file) {
    std::cerr << "bench_summary: cannot write " << path << "\n";
    return 1;
  }
  std::printf("\nwritten to %s\n", path.c_str());
  return 0;
}
