#include "bench/results.h"

#include <fmt/format.h>

#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

namespace vond::bench {
namespace {

std::string Short(double value) { return value >= 1000 ? fmt::format("{:.0f}", value) : fmt::format("{:.3g}", value); }

}  // namespace

void Results::Begin(const std::string& title) {
  fmt::print("\n{}\n{:<44} {:>12}   {:<28} {}\n", title, "figure", "median", "least to most", "unit");
}

void Results::Add(const std::string& id, const std::string& unit, const Summary& summary) {
  const std::string spread =
      summary.rounds > 1 ? fmt::format("{} to {} ({} rounds)", Short(summary.low), Short(summary.high), summary.rounds)
                         : "one look";
  fmt::print("{:<44} {:>12}   {:<28} {}\n", id, Short(summary.median), spread, unit);
  static_cast<void>(std::fflush(stdout));
  figures_.push_back({id, unit, summary});
}

void Results::Add(const std::string& id, const std::string& unit, std::vector<double> rounds) {
  Add(id, unit, Summarize(std::move(rounds)));
}

void Results::Add(const std::string& id, const std::string& unit, double value) {
  Add(id, unit, Summary{value, value, value, 1});
}

void Results::Add(Curve curve) {
  for (const Curve::Line& line : curve.lines) {
    Add(fmt::format("curve.{}.{}", curve.id, line.name), "exponent", FitExponent(line.points));
  }
  curves_.push_back(std::move(curve));
}

void Results::Note(const std::string& key, const std::string& value) {
  fmt::print("{}: {}\n", key, value);
  static_cast<void>(std::fflush(stdout));
  notes_.emplace_back(key, value);
}

void Results::Write(const std::string& path) const {
  nlohmann::ordered_json document;
  for (const auto& [key, value] : notes_) {
    document["run"][key] = value;
  }
  for (const Figure& figure : figures_) {
    document["figures"][figure.id] = {{"unit", figure.unit},
                                      {"median", figure.summary.median},
                                      {"low", figure.summary.low},
                                      {"high", figure.summary.high},
                                      {"rounds", figure.summary.rounds}};
  }
  document["curves"] = nlohmann::ordered_json::array();
  for (const Curve& curve : curves_) {
    nlohmann::ordered_json lines = nlohmann::ordered_json::array();
    for (const Curve::Line& line : curve.lines) {
      lines.push_back({{"name", line.name}, {"points", line.points}, {"exponent", FitExponent(line.points)}});
    }
    document["curves"].push_back({{"id", curve.id}, {"x", curve.x}, {"y", curve.y}, {"lines", lines}});
  }
  std::ofstream file(path);
  file << document.dump(1) << '\n';
  if (!file.flush()) {
    throw std::runtime_error("cannot write " + path);
  }
}

}  // namespace vond::bench
